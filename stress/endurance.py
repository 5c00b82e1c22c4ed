"""One sender and 8 receivers: loss in 60 s, three times; 20 restarts of the sender; a stopped
receiver; the sender, the kit's and the tool's, stopped, resumed and killed at random for 160 s.
Each loss is reported with the longest pause that an idle process saw at that moment."""

from contextlib import suppress
import json
import os
from pathlib import Path
import random
import shutil
import signal
import struct
import time

from fleet import FRAME_BYTES, End, Process, delivery
from rows import SKIPPED, Run, row
from shared import make_name, median, percentile, wait_until

NUM_CONSUMERS = 8


@row("endurance", "loss-1", "1,920 bytes, 100 frames/s", "none lost without a pause of the machine")
@row("endurance", "loss-2", "1,920 bytes, again", "none lost without a pause of the machine")
@row("endurance", "loss-3", "1,920 bytes, again", "none lost without a pause of the machine")
def measure_loss(run: Run) -> None:
    seconds = round(7.5 * run.minutes)
    stream = run.start(NUM_CONSUMERS, frames=100 * seconds)
    stream.producer.await_end(seconds + 10)
    sent = stream.producer.board.frames
    run.check(sent == 100 * seconds, f"{sent} sent in {seconds + 10} s")
    losses = run.lose(stream.consumers, stream.since)
    # No later frame gives them away.
    run.check(losses.received + losses.lost == sent * NUM_CONSUMERS, "some missing at the very end")
    ages = [end.board.times() for end in stream.consumers]
    run.tell(f"age p50 {min(map(median, ages)):.0f} to {max(map(median, ages)):.0f} us, p99 "
             f"{max(percentile(each, .99) for each in ages):.0f} us at most")


@row("endurance", "stop", "one of 8 receivers SIGSTOPped, and resumed",
     "others lose nothing; their age p50 at most doubles; 99 % sent; the stopped one is back")
def stop_one(run: Run) -> None:
    seconds = 2 * run.minutes
    stream = run.start(NUM_CONSUMERS)
    stopped, others = stream.consumers[-1], stream.consumers[:-1]

    def let_pass() -> tuple[float, int, float]:
        """The others' median age, the number of frames sent, and the median time of a send."""
        ends = [stream.producer, *others]
        before = [end.board.frames for end in ends]
        time.sleep(seconds)
        sends, *ages = (end.board.times(first) for end, first in zip(ends, before))
        return median([median(each) for each in ages]), len(sends), median(sends)

    age, _, send = let_pass()
    stopped.send_signal(signal.SIGSTOP)
    stopped_age, sent, stopped_send = let_pass()
    # The few frames that wait in buffers do not count: it has to follow the stream again.
    resumed = time.monotonic()
    stopped.send_signal(signal.SIGCONT)
    run.within(delivery([stopped]), "no 20 frames")
    run.tell(f"20 frames {1e3 * (time.monotonic() - resumed):.0f} ms after SIGCONT; meanwhile: age "
             f"p50 {stopped_age:.0f} us, before {age:.0f}; a send {stopped_send:.0f} us, before "
             f"{send:.0f}; {sent / seconds:.1f} % sent")
    run.check(stopped_age <= 2 * age, "more than doubled")
    run.check(sent >= 99 * seconds, "less than 99 %")
    let_pass()
    run.lose(others, stream.since)


@row("endurance", "faults", "random faults of the sender", "no loss but within a stop; all deliver",
     False)
@row("endurance", "faults-tool", "random faults of the tool", "no loss but within a stop; all deliver",
     True)
def disturb_sender(run: Run, is_tool: bool) -> None:
    """Stops, resumptions and kills of a sender; the receivers are left alone."""
    run.require(not is_tool or run.tool.exists(), "the tool is not built", SKIPPED)
    name = make_name()

    def start() -> Process:
        if not is_tool:
            return End("produce", name)
        return Process([str(run.tool), "send", "--socket", name, "--tone", "440", "--frame", "10ms",
                        "--channels", "1"])  # frames of another size than the end's own

    sender, counts, spans, slowest = start(), [0, 0], [], 0.0
    since = time.monotonic_ns()
    consumers = [End("consume", name) for _ in range(NUM_CONSUMERS)]
    run.require(wait_until(run.limit, delivery(consumers)), f"no frames within {run.limit} s")
    deadline = time.monotonic() + 10 * run.minutes
    while time.monotonic() < deadline:
        time.sleep(random.uniform(0.05, 1))
        begin = time.monotonic_ns()
        kills = random.random() < 0.3
        if kills:
            sender.kill()
            sender = start()
        else:
            sender.send_signal(signal.SIGSTOP)
            time.sleep(random.choice([0.02, 0.05, 0.1, 0.2, 0.4, 0.5, 1, 3]))
            sender.send_signal(signal.SIGCONT)
        counts[kills] += 1
        spans.append((begin - 20_000_000, time.monotonic_ns() + 20_000_000))
        resumed = time.monotonic()
        run.require(wait_until(run.limit, delivery(consumers)),
                    f"no 20 frames within {run.limit} s after {'a kill' if kills else 'a stop'}")
        slowest = max(slowest, time.monotonic() - resumed)
    run.tell(f"{counts[0]} stops, {counts[1]} kills; 20 frames after {1e3 * slowest:.0f} ms at most")
    run.lose(consumers, since, spans=spans)


REAL_TIME = ("chrt", "-r", "10")


def count_missing(stored: Path) -> float:
    """How many frames of an end are missing in a file between the first and the last."""
    content = stored.read_bytes() if stored.exists() else b""
    stored.unlink(missing_ok=True)
    indexes = [struct.unpack_from("<8xQ", content, at)[0]
               for at in range(0, len(content) - FRAME_BYTES + 1, FRAME_BYTES)]
    return indexes[-1] - indexes[0] + 1 - len(indexes) if indexes else float("inf")


@row("endurance", "bystanders", "others stopped and killed at random, in real time",
     "untouched receivers of kit, tool and elements lose no more than in a control run")
def disturb_others(run: Run) -> None:
    """Half of the time without a fault, half beside six receivers that stop, resume and die."""
    missing = [str(path) for path in (run.tool, run.plugin) if not path.exists()]
    missing += [name for name in ("chrt", "gst-launch-1.0") if not shutil.which(name)]
    run.require(not missing, f"missing: {', '.join(missing)}", SKIPPED)
    control, faulty = (watch_bystanders(run, is_faulty) for is_faulty in (False, True))
    run.check(all(faulty[who] <= control[who] for who in control), "more than in the control run")


def watch_bystanders(run: Run, is_faulty: bool) -> dict[str, float]:
    """The milliseconds of media that each untouched receiver missed."""
    name, report = make_name(), run.directory / "bystander.json"
    live = os.memfd_create("monitor")
    producer = End("produce", name, REAL_TIME)
    run.within(lambda: producer.board.ready, "no sender")
    untouched = [End("consume", name, REAL_TIME) for _ in range(2)]
    recorder = Process([*REAL_TIME, str(run.tool), "receive", "-s", name, "--no-fill", "-q",
                        "--report", str(report), "--overwrite", str(report.with_suffix(".raw"))])
    monitor = Process([*REAL_TIME, str(run.tool), "monitor", name, "--json"], output=live)
    stored = run.directory / "bystander.frames"
    element = Process(
        [*REAL_TIME, "env", f"GST_PLUGIN_PATH={run.plugin.parent}", "gst-launch-1.0", "-q", "vlxsrc",
         f"socket-name={name}", "!", "filesink", f"location={stored}", "sync=false"])
    others = [End("consume", name) for _ in range(6)]
    run.within(delivery(untouched + others), "no frames")
    run.within(lambda: stored.exists() and stored.stat().st_size, "the element got no frames")
    events, deadline = 0, time.monotonic() + 30 * run.minutes
    while time.monotonic() < deadline:
        time.sleep(random.uniform(0.02, 0.3))
        if not is_faulty:
            continue
        victim = random.randrange(len(others))
        action = random.choice([signal.SIGKILL, signal.SIGSTOP, signal.SIGCONT, signal.SIGCONT])
        others[victim].send_signal(action)
        if action == signal.SIGKILL:
            others[victim].await_end(run.limit)
            others[victim] = End("consume", name)
        events += 1
    for process in (recorder, monitor, element):
        process.send_signal(signal.SIGINT)
        process.await_end(run.limit)
    lost_ms = {"kit": 10.0 * sum(end.board.lost for end in untouched),
               "vlxsrc": 10.0 * count_missing(stored)}
    with suppress(OSError, ValueError, IndexError):
        connections = json.loads(report.read_text())["connections"]
        lost_ms["receive"] = sum(each["gap_ns"] for each in connections) / 1e6
        with open(live) as lines:
            lines.seek(0)
            lost_ms["monitor"] = json.loads(lines.readlines()[-1])["gap_ns"] / 1e6
    # A gap that both see is the sender's, which stamps a frame when it sends it.
    pause_ms = min(lost_ms.get("receive", 0), lost_ms.get("monitor", 0))
    for who in ("receive", "monitor"):
        lost_ms[who] = lost_ms.get(who, float("inf")) - pause_ms
    frames = untouched[0].board.frames
    for end in (producer, *untouched, *others):
        end.kill()
    run.tell(f"{events} events in {30 * run.minutes} s, {frames:,} frames each, gaps of the sender "
             f"{pause_ms:.0f} ms: " + ", ".join(
                 f"{who} lost {lost:.0f} ms" for who, lost in lost_ms.items()))
    return lost_ms

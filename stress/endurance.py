"""Loss over time, restarts of the sender, a receiver that stands still, and random faults of the
sender: with 8 receivers."""

from dataclasses import dataclass
from pathlib import Path
import random
import signal
import time

from fleet import (End, Losses, PauseProbe, Process, Stream, make_name, median, print_table,
                   quantile, wait_until)

NUM_CONSUMERS = 8
DELIVER_LIMIT_S = 3
GIVE_UP_S = 15


@dataclass(frozen=True)
class Plan:
    num_runs: int
    run_s: int
    num_restarts: int
    stop_s: int
    faults_s: int


FULL = Plan(3, 60, 20, 15, 150)
QUICK = Plan(1, 5, 4, 2, 10)

Row = tuple[str, str, str, bool]  # what, limit, figure, passed


def run_loss(probe: PauseProbe, plan: Plan, number: int) -> Row:
    what = f"loss, run {number} of {plan.num_runs}"
    print(f"{what}: 1,920 bytes, 100 frames/s, {plan.run_s} s")
    stream = Stream(NUM_CONSUMERS, frames=100 * plan.run_s)
    stream.producer.wait(plan.run_s + 10)
    sent = stream.producer.board.frames
    rows = [("  receiver", "sent", "received", "lost", "unexplained", "pause ms", "age p50 us",
             "p99 us")]
    missing = unexplained = 0
    for index, end in enumerate(stream.consumers):
        losses = Losses([end], probe, stream.since)
        # Those at the very end, which no later frame gives away, count too.
        lost = sent - losses.received
        losses.unexplained += lost - losses.lost
        missing += lost
        unexplained += losses.unexplained
        ages = end.board.times(0, losses.received)
        rows.append((f"  {index + 1}", sent, losses.received, lost, losses.unexplained,
                     f"{losses.pause_ms:.1f}", f"{median(ages):.0f}", f"{quantile(ages, .99):.0f}"))
    print_table(rows)
    pause = probe.largest_ms(stream.since, time.monotonic_ns())
    stream.end()
    return (what, "none lost without a pause of the machine of >= 10 ms",
            f"{missing:,} of {sent * NUM_CONSUMERS:,} lost, {unexplained:,} of them unexplained; "
            f"largest pause {pause:.1f} ms", unexplained == 0 and sent == 100 * plan.run_s)


def run_restarts(plan: Plan) -> Row:
    what = f"{plan.num_restarts} restarts of the sender"
    print(f"\n{what}, killed with -9 at random moments")
    stream = Stream(NUM_CONSUMERS)
    times = []
    for number in range(1, plan.num_restarts + 1):
        time.sleep(random.uniform(0.2, 1.5))
        took = stream.delivery_ms(stream.restart(), GIVE_UP_S)
        print(f"  restart {number:2}: " + (
            f"not every receiver came back within {GIVE_UP_S} s" if took is None else
            f"{took:.1f} ms from the kill to the last receiver's first frame"), flush=True)
        times.append(1e3 * GIVE_UP_S if took is None else took)
    stream.end()
    return (what, f"each receiver delivers again within {DELIVER_LIMIT_S} s",
            f"p50 {median(times):.1f} ms, max {max(times):.1f} ms; stall watch used "
            f"{stream.stalls()} times", max(times) <= 1e3 * DELIVER_LIMIT_S)


def run_stop(probe: PauseProbe, plan: Plan) -> list[Row]:
    what = f"one of {NUM_CONSUMERS} receivers SIGSTOPped"
    print(f"\n{what} for {plan.stop_s} s")
    stream = Stream(NUM_CONSUMERS)
    stopped, others = stream.consumers[-1], stream.consumers[:-1]
    time.sleep(0.5)
    since = time.monotonic_ns()
    ends = [stream.producer, *others]
    marks = [[end.board.frames for end in ends]]

    def let_pass(phase: str, seconds: float) -> tuple[float, int]:
        """The others' median age, and the number of frames sent."""
        time.sleep(seconds)
        marks.append([end.board.frames for end in ends])
        spans = [end.board.times(*span) for end, *span in zip(ends, marks[-2], marks[-1])]
        age = median([median(span) for span in spans[1:]])
        print(f"  {phase}: others' age p50 {age:.0f} us; {len(spans[0])} sent, a send takes p50 "
              f"{median(spans[0]):.0f}, p99 {quantile(spans[0], .99):.0f} us", flush=True)
        return age, len(spans[0])

    before, _ = let_pass("before ", plan.stop_s)
    stopped.signal(signal.SIGSTOP)
    meanwhile, sent = let_pass("stopped", plan.stop_s)
    wanted = stopped.board.frames + 20
    resumed = time.monotonic()
    stopped.signal(signal.SIGCONT)
    # The few frames that wait in buffers do not count: it has to follow the stream again.
    delivers = wait_until(GIVE_UP_S, lambda: stopped.board.frames > wanted)
    took = time.monotonic() - resumed
    let_pass("resumed", plan.stop_s / 2)
    losses = Losses(others, probe, since)
    stream.end()
    return [
        (what, "others lose nothing without a pause of the machine", str(losses),
         losses.unexplained == 0),
        ("  sender and others meanwhile", "age p50 at most doubled, 99 % of frames sent",
         f"age p50 x {meanwhile / before:.2f}, {sent / plan.stop_s:.1f} % sent",
         meanwhile <= 2 * before and sent >= 99 * plan.stop_s),
        ("  the stopped one, resumed", f"20 frames within {DELIVER_LIMIT_S} s",
         f"{1e3 * took:.0f} ms", delivers and took <= DELIVER_LIMIT_S)]


def run_faults(probe: PauseProbe, tool: Path | None, seconds: float) -> Row:
    """Stops, resumptions and kills of a sender, the kit's or the tool's; nobody touches the
    receivers."""
    what = f"random faults of the {'tool' if tool else 'sender'} for {seconds:.0f} s"
    print(f"\n{what}", flush=True)
    name = make_name()

    def start() -> Process:
        if not tool:
            return End("produce", name)
        return Process([str(tool), "send", "--socket", name, "--tone", "440", "--frame", "10ms"])

    sender, counts, spans = start(), [0, 0], []
    since = time.monotonic_ns()
    consumers = [End("consume", name, **({"untagged": True} if tool else {}))
                 for _ in range(NUM_CONSUMERS)]

    def is_delivering() -> bool:
        wanted = [(end.board, end.board.frames + 20) for end in consumers]
        return wait_until(GIVE_UP_S, lambda: all(board.frames > n for board, n in wanted))

    slowest = 0.0
    deadline = time.monotonic() + seconds
    delivers = is_delivering()
    while time.monotonic() < deadline and delivers:
        time.sleep(random.uniform(0.05, 1))
        begin = time.monotonic_ns()
        kills = random.random() < 0.3
        if kills:
            sender.kill()
            sender = start()
        else:
            sender.signal(signal.SIGSTOP)
            time.sleep(random.choice([0.02, 0.05, 0.1, 0.2, 0.4, 0.5, 1, 3]))
            sender.signal(signal.SIGCONT)
        counts[kills] += 1
        spans.append((begin - 20_000_000, time.monotonic_ns() + 20_000_000))
        resumed = time.monotonic()
        delivers = is_delivering()
        slowest = max(slowest, time.monotonic() - resumed)
    losses = Losses(consumers, probe, since, spans)
    for end in (sender, *consumers):
        end.kill()
    return (what, f"no loss but within a stop; 20 further frames within {DELIVER_LIMIT_S} s",
            f"{counts[0]} stops, {counts[1]} kills: {losses.lost - losses.unexplained:,} of "
            f"{losses.lost + losses.received:,} missing within stops and pauses, "
            f"{losses.unexplained} else; 20 frames after {1e3 * slowest:.0f} ms at most", delivers and slowest <= DELIVER_LIMIT_S and not losses.unexplained)


def run(plan: Plan, tool: Path) -> bool:
    probe = PauseProbe()
    rows = [run_loss(probe, plan, number + 1) for number in range(plan.num_runs)]
    rows.append(run_restarts(plan))
    rows += run_stop(probe, plan)
    rows.append(run_faults(probe, None, plan.faults_s / 2))
    if tool.exists():
        rows.append(run_faults(probe, tool, plan.faults_s / 2))
    print()
    print_table([("what", "limit", "figure", "result")] +
                [(*row[:3], "ok" if row[3] else "FAILED") for row in rows])
    return all(row[3] for row in rows)

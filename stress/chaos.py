"""Faults of every kind, one after the other, and what became of each."""

from collections import Counter
import contextlib
import ctypes
from dataclasses import dataclass
import os
from pathlib import Path
import random
import re
import resource
import shutil
import signal
import stat
import time

import clock
from fleet import (JOIN_LIMIT_S, End, Losses, PauseProbe, Process, Stream, kill_all, make_name,
                   median, print_table, start_peer, wait_until)

OK, FAILED, LIMIT, SKIPPED = "ok", "FAILED", "limit", "skipped"  # limit: documented, no success
Outcome = tuple[str, str]
NO_STREAM = (FAILED, "the stream itself did not start")


@dataclass(frozen=True)
class Run:
    minutes: int
    probe: PauseProbe
    directory: Path  # TMPDIR
    tool: Path
    lenient: bool

    @property
    def limit(self) -> float:
        """Seconds within which everybody has to be back."""
        return 20 if self.lenient else 3

    @property
    def beside(self) -> float:
        """Seconds for which misbehaving peers go on."""
        return 0.5 if self.lenient else 2 * self.minutes

    def losses(self, ends: list[End], since: int) -> Losses:
        losses = Losses(ends, self.probe, since)
        if self.lenient:
            losses.unexplained = 0
        return losses


class Bystanders(Stream):
    """A stream whose consumers are to go on undisturbed beside a fault."""

    def __init__(self, run: Run, num_consumers: int, **options: object) -> None:
        super().__init__(num_consumers, **options)
        self.run = run
        self.started = (self.joined and
                        self.delivery_ms(self.since, run.limit) is not None)
        time.sleep(0.2)
        self.before = self.handles() if self.started else []

    def losses(self) -> Losses:
        return self.run.losses(self.consumers, self.since)

    def has_same_handles(self) -> bool:
        return wait_until(self.run.limit, lambda: self.handles() == self.before)

    def judge(self, done: str, handles: bool = True) -> Outcome:
        """ok if nothing was lost without a pause of the machine, all deliver, and nothing is left."""
        delivers = self.is_delivering(self.run.limit)
        clean = not handles or self.has_same_handles()
        losses = self.losses()
        figure = f"{done}; {losses}"
        if not delivers:
            figure += f"; a receiver gets no frames any more within {self.run.limit} s"
        if not clean:
            figure += "; descriptors or threads left"
        return (OK if delivers and clean and not losses.unexplained else FAILED), figure

    def resume(self) -> tuple[float | None, str]:
        """Restarts the producer; how long it took until all deliver, and the same in words."""
        took = self.delivery_ms(self.restart(), self.run.limit)
        return took, (f"no frames within {self.run.limit} s" if took is None else
                      f"frames {took:.0f} ms after a restart")


FAULTS: dict[str, tuple] = {}


def fault(name: str, text: str, promise: str, *arguments: object):
    """Adds a function of a run, and of what follows, to the faults under a name."""
    def add(function):
        FAULTS[name] = (text, promise, lambda run: function(run, *arguments))
        return function
    return add


# Kills.

def count_set_up_lines(**options: object) -> int:
    """How many lines a producer logs from its start until its fifth frame is out."""
    name = make_name()
    producer = End("produce", name, kill_at_line=1 << 30, frames=5, **options)
    consumer = End("consume", name)
    producer.wait(10)
    consumer.kill()
    return producer.board.log_lines


@fault("setup-kill", "sender killed -9 at each step of its set-up", "4 receivers resume", 4)
@fault("setup-kill-pipeline", "the same in pipeline mode", "the receiver resumes", 1, "pipeline")
@fault("send-kill", "sender killed -9 while sending", "8 receivers resume", 8, "", False)
def kill_senders(run: Run, num_consumers: int, mode: str = "", at_steps: bool = True) -> Outcome:
    options = {mode: True} if mode else {}
    steps = count_set_up_lines(**options) if at_steps else 10 * run.minutes
    stream = Bystanders(run, num_consumers, **options)
    if not stream.started or not steps:
        return NO_STREAM
    times = []
    for step in range(1, steps + 1):
        if at_steps:
            stream.producer.kill()
            stream.producer = stream.start_producer(kill_at_line=step)
            end = stream.producer.wait(run.limit)
            if end != "SIGKILL":
                return FAILED, f"the sender did not die at log line {step}: {end}"
        else:
            time.sleep(random.uniform(0, 0.4))
        took, words = stream.resume()
        if took is None:
            return FAILED, f"kill {step} of {steps}: {words}"
        times.append(took)
    clean = stream.has_same_handles()
    return (OK if clean else FAILED), (
        f"{steps} kills; resumed after p50 {median(times):.0f}, max {max(times):.0f} ms; stall watch "
        f"used {stream.stalls()} times; {'nothing' if clean else 'descriptors or threads'} left")


def harass(stream: Stream, victims: list[int], seconds: float) -> int:
    """Kills, stops and resumes some consumers at random for a while."""
    count = 0
    end = time.monotonic() + seconds
    while time.monotonic() < end:
        victim = random.choice(victims)
        action = random.choice([None, signal.SIGSTOP, signal.SIGCONT, signal.SIGCONT])
        if action is None:
            stream.consumers[victim].kill()
            stream.consumers[victim] = End("consume", stream.name)
        else:
            stream.consumers[victim].signal(action)
        count += 1
        time.sleep(random.uniform(0.02, 0.15))
    for victim in victims:
        stream.consumers[victim].signal(signal.SIGCONT)
    return count


@fault("receivers", "8 of 32 receivers killed, stopped, resumed",
       "24 others lose no more than without")
def harass_receivers(run: Run) -> Outcome:
    seconds = 12 + (run.minutes - 1) * 20
    control = Bystanders(run, 32)
    if not control.started:
        return NO_STREAM
    time.sleep(seconds)
    normal = run.losses(control.consumers[:24], control.since)
    control.end()
    stream = Bystanders(run, 32)
    if not stream.started:
        return NO_STREAM
    count = harass(stream, list(range(24, 32)), seconds)
    losses = run.losses(stream.consumers[:24], stream.since)
    delivers = stream.is_delivering(run.limit)
    figure = (f"{count} kills, stops, resumes in {seconds} s; others: {losses}; control: "
              f"{normal.lost} lost")
    if not delivers:
        figure += f"; not all 32 deliver within {run.limit} s in the end"
    return (OK if delivers and losses.unexplained <= normal.lost else FAILED), figure


# Misbehaving clients.

@fault("churn", "client connects and leaves 10,000 times", "others undisturbed, nothing left",
       "churn", 10_000)
@fault("silent", "client joins both channels, never reads", "others undisturbed, nothing left",
       "silent")
@fault("rubbish-sidechannel", "client writes rubbish to the sidechannel", "others undisturbed",
       "rubbish-sidechannel")
@fault("rubbish-main", "client writes rubbish to the main channel", "others undisturbed",
       "rubbish-main")
@fault("oob", "client sends a byte of urgent data", "others undisturbed, nothing left",
       "oob")
@fault("lingering", "client passes a TCP socket that lingers",
       "others undisturbed, nothing left", "lingering")
def run_beside(run: Run, role: str, times: int = 0) -> Outcome:
    stream = Bystanders(run, 4, sequence_every=100)
    if not stream.started:
        return NO_STREAM
    start = time.monotonic()
    client = start_peer(role, stream.name, *([str(times)] if times else []))
    wait_until(JOIN_LIMIT_S, lambda: client.count() or not client.is_running())
    wait_until(60 if times else run.beside, lambda: not client.is_running())
    seconds = time.monotonic() - start
    goes_on = client.is_running()
    client.kill()
    verdict, figure = stream.judge(f"{client.count():,} x in {seconds:.1f} s")
    slowest = max(stream.producer.board.times(0, stream.producer.board.frames)) / 1e3
    figure += f"; slowest send {slowest:.1f} ms"
    if client.count() < max(times, 1) or goes_on != (times == 0):
        return FAILED, f"the client did not do its work; {figure}; {client.last_words()[-200:]}"
    if slowest > 1e3 * run.limit / 3:
        return FAILED, f"{figure}, over {run.limit / 3:.0f} s"
    return verdict, figure


@fault("publisher-message", "client sends a message to the publisher",
       "limit: nanomsg aborts it; receivers resume", "publisher-message")
@fault("puller-message", "stranger announces an endless message to a pipeline receiver",
       "limit: nanomsg aborts the receiver", "puller-message", "pipeline")
def send_to_main_channel(run: Run, role: str, mode: str = "") -> Outcome:
    """One message from a stranger, and who does not survive it."""
    stream = Bystanders(run, 1 if mode else 4, **({mode: True} if mode else {}))
    if not stream.started:
        return NO_STREAM
    stranger = start_peer(role, stream.name)
    victim = stream.consumers[0] if mode else stream.producer
    end = victim.wait(run.limit)
    stranger.kill()
    if mode:
        stream.consumers[0] = End("consume", stream.name)
    took, words = stream.resume()
    if took is None or end != "SIGABRT":
        return FAILED, f"it ended with {end}; {words}; {stranger.last_words()[-200:]}"
    return LIMIT, f"nanomsg aborts it; {words}"


# Impostors.

@fault("impostor-greeting", "impostor sends a malformed InitialInfo", "receiver survives")
def greet_malformed(run: Run) -> Outcome:
    name = make_name()
    impostor = start_peer("greet-malformed", name)
    consumer = End("consume", name)
    wait_until(run.limit, lambda: impostor.count() > 0)
    end = consumer.wait(run.beside)
    if end != "hung" or not impostor.count():
        return FAILED, f"the receiver: {end}, greeted {impostor.count()} times"
    return OK, f"greeted {impostor.count()} times, still there"


@fault("impostor-packets", "impostor publishes rubbish packets",
       "receiver survives, finds the real sender")
def publish_rubbish(run: Run) -> Outcome:
    name = make_name()
    impostor = start_peer("publish-rubbish", name)
    consumer = End("consume", name)
    wait_until(run.limit, lambda: consumer.board.joins and impostor.count())
    time.sleep(run.beside)
    packets, joins = impostor.count(), consumer.board.joins
    survives = consumer.is_running() and joins > 0 and packets > 0
    impostor.kill()
    since = time.monotonic_ns()
    producer = End("produce", name)
    arrived = wait_until(run.limit, lambda: consumer.board.incarnation == producer.pid)
    took = (consumer.board.incarnation_since - since) / 1e6
    words = f"after {took:.0f} ms" if arrived else f"did not come within {run.limit} s"
    return (OK if survives and arrived else FAILED), (
        f"{packets:,} packets, joined {joins} times; a real sender's frames {words}")


@fault("oob-greeting", "holder of the name sends a byte of urgent data", "receiver stops promptly")
def stop_under_urgent(run: Run) -> Outcome:
    name = make_name()
    holder = start_peer("hold-urgently", name)
    consumer = End("consume", name)
    if not wait_until(run.limit, lambda: holder.count() > 0 and consumer.board.joins):
        return FAILED, f"the receiver did not join; {holder.last_words()[-200:]}"
    time.sleep(0.2)
    start = time.monotonic()
    consumer.signal(signal.SIGTERM)
    end = consumer.wait(run.limit)
    took = (time.monotonic() - start) * 1e3
    return (OK if end == "worked" else FAILED), f"{end} {took:.0f} ms after SIGTERM"


def make_target(run: Run) -> Path:
    target = run.directory / "of-root"
    target.touch()
    target.chmod(0o600)
    return target


def judge_target(target: Path, count: int, figure: str) -> Outcome:
    mode = stat.S_IMODE(target.stat().st_mode)
    figure += f", {count} files swapped; mode of root's file {mode:o}"
    return (OK if mode == 0o600 and count else FAILED), figure


@fault("link-pipeline",
       "another user swaps a link in for a pipeline receiver's socket file",
       "mode of root's file unchanged")
def swap_announced(run: Run) -> Outcome:
    if os.geteuid() != 0:
        return SKIPPED, "only root can become another user"
    target = make_target(run)
    name = make_name()
    holder = start_peer("announce-swapped", name, str(target))
    consumers = [End("consume", name) for _ in range(4)]
    wait_until(run.limit, lambda: holder.count() > 0)
    time.sleep(2 * run.beside)
    ends = Counter(end.wait(0.01) for end in consumers)
    count = holder.count()
    verdict, figure = judge_target(target, count, f"{sum(e.board.joins for e in consumers)} joins")
    return (verdict if set(ends) <= {"hung"} else FAILED), f"{figure}; {words(ends)}".replace(
        "hung", "alive")


def words(ends: Counter) -> str:
    return ", ".join(f"{number} x {end}" for end, number in sorted(ends.items()))


@fault("link", "another user swaps a link in for a sender's socket file",
       "mode of root's file unchanged; no abort", True)
@fault("directory", "another user puts a directory in its place", "no abort", False)
def swap_socket_files(run: Run, with_link: bool) -> Outcome:
    """Producers of the kit, and of the tool if there is one, start and end again and again."""
    if os.geteuid() != 0:
        return SKIPPED, "only root can become another user"
    target = make_target(run)
    swapper = start_peer("swap", "", *([str(target)] if with_link else []))
    kinds = [("kit", lambda name: End("produce", name, open_to_all=True, frames=1))]
    if run.tool.exists():
        kinds.append(("tool", lambda name: Process([
            str(run.tool), "send", "--socket", name, "--tone", "440", "-d", "20ms",
            "--socket-mode", "all"])))
    ends: Counter = Counter()
    deadline = time.monotonic() + 2 * run.beside
    while time.monotonic() < deadline or sum(ends.values()) < 16:
        senders = [(what, start(make_name())) for what, start in kinds for _ in range(4)]
        ends.update(f"{what} {sender.wait(run.limit)}" for what, sender in senders)
    swapper.kill()
    verdict, figure = judge_target(target, swapper.count(), words(ends))
    if not with_link:
        verdict = OK  # there is no link to follow
    bad = [end for end in ends if re.search("SIG|hung|assertion|terminate", end)]
    return (FAILED if bad else verdict), figure


# Limits of descriptors and threads.

GOOD_ENDS = {"worked", "refused", "exception"}
LIMIT_ENDS = {"SIGABRT", "hung", "no frame"}  # nanomsg's own abort, a hang in it; documented


def judge_sweep(ends: Counter) -> Outcome:
    verdict = OK if ends["worked"] and set(ends) <= GOOD_ENDS | LIMIT_ENDS else FAILED
    if verdict == OK and set(ends) & LIMIT_ENDS:
        verdict = LIMIT
    return verdict, words(+ends)


@fault("descriptors-sender", "set-up of a sender with 0 to 23 free descriptors",
       "refused; limit: abort or hang in nanomsg", "produce")
@fault("descriptors-receiver", "a receiver with 0 to 23 free descriptors",
       "refused; limit: abort or hang in nanomsg", "consume")
def sweep_descriptors(run: Run, role: str) -> Outcome:
    """All at once. Senders cannot share a name."""
    name = make_name()
    if role == "consume":
        End("produce", name)
    ends = [End(role, name if role == "consume" else make_name(), set_up_only=True,
                free_descriptors=free) for free in range(24)]
    deadline = time.monotonic() + 6
    return judge_sweep(Counter(end.wait(deadline - time.monotonic()) for end in ends))


@fault("threads-sender", "set-up of a sender with RLIMIT_NPROC 0 to 12",
       "exception; limit: abort in nanomsg", "produce")
@fault("threads-receiver", "a receiver with RLIMIT_NPROC 0 to 12",
       "exception; limit: abort in nanomsg", "consume")
def sweep_threads(run: Run, role: str) -> Outcome:
    """Threads count per user: one after the other."""
    if os.geteuid() != 0:
        return SKIPPED, "only root can become another user"
    name = make_name()
    if role == "consume":
        producer = End("produce", name, open_to_all=True)
        wait_until(run.limit, lambda: producer.board.ready)
    return judge_sweep(Counter(
        End(role, name, set_up_only=True, max_threads=limit).wait(6) for limit in range(13)))


def limit_descriptors(end: End, limit: int) -> None:
    hard = resource.prlimit(end.pid, resource.RLIMIT_NOFILE)[1]
    resource.prlimit(end.pid, resource.RLIMIT_NOFILE, (limit, hard))


@fault("descriptors-listener", "running sender out of descriptors, newcomer",
       "others undisturbed; limit: listener spins")
def starve_listener(run: Run) -> Outcome:
    stream = Bystanders(run, 4)
    if not stream.started:
        return NO_STREAM
    used = {int(fd) for fd in os.listdir(f"/proc/{stream.producer.pid}/fd")}
    # The lowest that is free: no further one is allowed, but every poll of those that are there.
    limit_descriptors(stream.producer, next(n for n in range(1024) if n not in used))
    latecomer = End("consume", stream.name)
    time.sleep(2)
    errors = stream.producer.board.error_lines
    kept_out = latecomer.board.frames == 0
    limit_descriptors(stream.producer, 1024)
    joins = wait_until(run.limit, lambda: latecomer.board.frames > 20)
    latecomer.kill()
    verdict, figure = stream.judge(
        f"listener spins: {errors // 2:,} ERRORs/s; latecomer "
        f"{'joins' if joins else 'does not join'} once there are descriptors")
    return (LIMIT if verdict == OK and kept_out and joins else FAILED), figure


@fault("descriptors-rejoin", "running receivers out of descriptors, rejoin",
       "receiver says so, and comes back with descriptors; others resume")
def starve_receivers(run: Run) -> Outcome:
    stream = Bystanders(run, 6)
    if not stream.started:
        return NO_STREAM
    everybody, starved = stream.consumers, stream.consumers[3:]
    # Descriptors that a receiver closes have higher numbers: it gets none of them again.
    for end in starved:
        limit_descriptors(end, 3)
    time.sleep(0.3)
    losses = stream.losses()
    stream.consumers = everybody[:3]
    took, how = stream.resume()
    failed = wait_until(run.limit + 5, lambda: all(  # a stop without descriptors takes 5 s
        end.board.failures or not end.is_running() for end in starved))
    alive = all(end.is_running() for end in starved)
    for end in starved:
        limit_descriptors(end, 1024)
    stream.consumers = everybody
    back = alive and stream.is_delivering(run.limit + 2)  # asked again every two seconds
    return (OK if took is not None and not losses.unexplained and failed and back else FAILED), (
        f"{sum(bool(end.board.failures) for end in starved)} of 3 gave up"
        f"{'' if alive else ', and ended'}; {losses}; others: {how}; all "
        f"{'back' if back else f'not back within {run.limit + 2} s'} with descriptors")


# Directories.

def run_without_directory(run: Run, path: Path, break_it, mend_it) -> Outcome:
    """A running stream while its base directory is out of order, a second sender meanwhile, and a
    restart of the first once the directory is in order again."""
    os.environ["TMPDIR"] = str(path)
    try:
        stream = Bystanders(run, 2)
        if not stream.started:
            return NO_STREAM
        break_it()
        end = End("produce", make_name(), set_up_only=True).wait(run.limit)
        time.sleep(0.5)
        verdict, figure = stream.judge(f"a new sender {end}")
        mend_it()
        took, how = stream.resume()
        return (verdict if took is not None and end == "refused" else FAILED), (
            f"{figure}; put right: {how}")
    finally:
        kill_all()
        os.environ["TMPDIR"] = str(run.directory)


PROMISE = "stream goes on; new sender refused; recovers"


LIBC = ctypes.CDLL(None)
NEW_NAMESPACE, DETACH, READ_ONLY, REMOUNT, BIND, RECURSIVE, PRIVATE = (
    0x20000, 2, 1, 32, 4096, 16384, 1 << 18)


def mount(path: bytes, flags: int, kind: bytes | None = None, data: bytes | None = None) -> bool:
    return LIBC.mount(b"none", path, kind, ctypes.c_ulong(flags), data) == 0


@fault("tmpdir-full", "TMPDIR full while running", PROMISE, False)
@fault("tmpdir-readonly", "TMPDIR read-only while running", PROMISE, True)
def run_on_small_file_system(run: Run, read_only: bool) -> Outcome:
    """In a private mount namespace, which all later children share."""
    path = run.directory / "fs"
    path.mkdir(exist_ok=True)
    if LIBC.unshare(NEW_NAMESPACE) or not mount(b"/", RECURSIVE | PRIVATE) or not mount(
            bytes(path), 0, b"tmpfs", b"size=64k,nr_inodes=16"):
        return SKIPPED, "cannot mount a file system in a private namespace"

    def set_read_only(flag: int) -> None:
        """The mount, not the file system: that would have to be free of removed files in use."""
        mount(bytes(path), REMOUNT | BIND | flag)

    def fill() -> None:
        with contextlib.suppress(OSError):
            for number in range(32):
                (path / f"fill-{number}").write_bytes(bytes(4096))
        with contextlib.suppress(OSError):
            for number in range(32):
                (path / f"fill-{number}").touch()

    def drain() -> None:
        for filler in path.glob("fill-*"):
            filler.unlink()

    try:
        if read_only:
            return run_without_directory(run, path, lambda: set_read_only(READ_ONLY),
                                         lambda: set_read_only(0))
        return run_without_directory(run, path, fill, drain)
    finally:
        LIBC.umount2(bytes(path), DETACH)


@fault("tmpdir-removed", "TMPDIR removed while running", PROMISE)
def run_removed(run: Run) -> Outcome:
    path = run.directory / "gone"
    path.mkdir()
    return run_without_directory(run, path, lambda: shutil.rmtree(path), path.mkdir)


# Network clocks.

SYNC_LIMIT_S = 6  # the first use initialises GStreamer
MAX_ERROR_MS = 5
BOOT_NS = 5_000 * 10**9
JUMP_NS = 1_000 * 10**9


def clock_stream(run: Run, port: int) -> Bystanders:
    # GStreamer would otherwise look through all of its plug-ins in each process.
    os.environ["GST_REGISTRY"] = str(run.directory / "registry.bin")
    return Bystanders(run, 2, clock_port=port)


def error_ms(stream: Stream, offset: int) -> float:
    """Largest deviation of a consumer's stream time from the provider's."""
    return max(abs(end.board.stream_time - end.board.stream_time_at - offset) / 1e6
               for end in stream.consumers)


def sync_ms(stream: Stream, offset: int) -> float | None:
    """Until every consumer's time is right, and stays so for 200 ms."""
    start = last_wrong = time.monotonic()

    def is_right() -> bool:
        nonlocal last_wrong
        if error_ms(stream, offset) > MAX_ERROR_MS:
            last_wrong = time.monotonic()
        return time.monotonic() - last_wrong > 0.2
    return (last_wrong - start) * 1e3 if wait_until(SYNC_LIMIT_S, is_right) else None


@fault("clock-stopped", "clock provider silent for 4 s", "time goes on; frames undisturbed",
       "silent", 0)
@fault("clock-rebooted", "clock provider back 1000 s lower",
       f"right within {SYNC_LIMIT_S} s; frames undisturbed", "silent", -JUMP_NS)
@fault("clock-ahead", "clock provider jumps 1000 s ahead",
       f"right within {SYNC_LIMIT_S} s; frames undisturbed", "honest", JUMP_NS)
@fault("clock-hostile", "clock provider answers with random times and UDP",
       "right afterwards; frames undisturbed", "hostile", 0)
def disturb_clock(run: Run, mode: str, jump: int) -> Outcome:
    """Synchronised, then a while of the fault, then an honest provider with another offset."""
    with clock.Provider(BOOT_NS) as provider:
        stream = clock_stream(run, provider.port)
        if not stream.started:
            return NO_STREAM
        if sync_ms(stream, BOOT_NS) is None:
            return FAILED, f"not synchronised within {SYNC_LIMIT_S} s"
        provider.mode = mode
        time.sleep(4)
        silent_error = error_ms(stream, BOOT_NS) if mode == "silent" else 0
        provider.offset += jump
        provider.mode = "honest"
        again = sync_ms(stream, BOOT_NS + jump)
        verdict, figure = stream.judge(
            f"wrong for over {SYNC_LIMIT_S} s" if again is None else f"right after {again:.0f} ms",
            handles=False)  # GStreamer keeps some for a minute
    if mode == "silent":
        figure += f"; off by {silent_error:.2f} ms while silent"
    return (verdict if again is not None and silent_error <= 4 * MAX_ERROR_MS else FAILED), figure


@fault("clock-unreachable", "no clock provider at the announced port",
       "stream time 0; frames undisturbed")
def miss_provider(run: Run) -> Outcome:
    with clock.Provider(0) as provider:
        port = provider.port
    stream = clock_stream(run, port)
    if not stream.started:
        return NO_STREAM
    time.sleep(2)
    stream_time = stream.consumers[0].board.stream_time
    verdict, figure = stream.judge(f"stream time {stream_time}", handles=False)
    return (verdict if stream_time == 0 else FAILED), figure


def select(text: str) -> list[str]:
    """The fault of this name, or those whose names hold the text."""
    return [text] if text in FAULTS else [name for name in FAULTS if text in name]


def run_faults(names: list[str], run: Run) -> bool:
    rows = [("fault", "promise", "figure", "result", "s")]
    for name in names:
        text, promise, function = FAULTS[name]
        start = time.monotonic()
        try:
            verdict, figure = function(run)
        finally:
            kill_all()
        seconds = f"{time.monotonic() - start:.1f}"
        print(f"{name:<21} {verdict:<8} {seconds:>5} s  {figure}", flush=True)
        rows.append((text, promise, figure, verdict, seconds))
    print()
    print_table(rows)
    return FAILED not in (row[3] for row in rows)

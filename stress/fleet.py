"""Processes under stress, what they count, and the pauses of the machine that explain a loss."""

import bisect
import ctypes
import itertools
import mmap
import os
from pathlib import Path
import signal
import statistics
import subprocess
import sys
import time

FRAME_MS = 10
FRAME_NS = FRAME_MS * 1_000_000
CAUSE_NS = 100_000_000  # what starts a loss lies near its beginning
JOIN_LIMIT_S = 10

# Exit codes of the end; see Endpoint.cpp.
ENDS = {0: "worked", 10: "refused", 11: "exception", 12: "no frame"}


class Board:
    """The memory in which an end counts: layout as in Endpoint.cpp."""

    FIELDS = ("go ready frames lost num_bursts incarnation incarnation_since joins sequences stalls "
              "failures log_lines error_lines stream_time stream_time_at").split()
    BURSTS = len(FIELDS)
    MAX_BURSTS = 256
    TIMES = BURSTS + 3 * MAX_BURSTS
    NUM_TIMES = 8192

    def __init__(self) -> None:
        self.fd = os.memfd_create("stress")
        size = 8 * (self.TIMES + self.NUM_TIMES)
        os.ftruncate(self.fd, size)
        self._numbers = memoryview(mmap.mmap(self.fd, size)).cast("Q")

    def __getattr__(self, name: str) -> int:
        return self._numbers[self.FIELDS.index(name)]

    def release(self) -> None:
        """Lets the first frame leave."""
        self._numbers[0] = 1

    def bursts(self) -> list[tuple[int, int, int]]:
        """Losses: stamp of the frame before, of the frame after, number of frames."""
        count = min(self.num_bursts, self.MAX_BURSTS)
        return [tuple(self._numbers[self.BURSTS + 3 * i:self.BURSTS + 3 * i + 3])
                for i in range(count)]

    def times(self, first: int, end: int) -> list[float]:
        """Ages or times of sends of some frames, in microseconds; the latest if they are too many."""
        first = max(first, end - self.NUM_TIMES)
        return [self._numbers[self.TIMES + i % self.NUM_TIMES] / 1e3 for i in range(first, end)]


class Process:
    """A child that never outlives this process."""

    def __init__(self, command: list[str], fds: tuple[int, ...] = ()) -> None:
        self._output, self._errors = os.memfd_create("output"), os.memfd_create("errors")
        verbose = "VLX_STRESS_LOG" in os.environ
        self._child = subprocess.Popen(
            command, stdin=subprocess.DEVNULL, stdout=self._output,
            stderr=None if verbose else self._errors, pass_fds=fds)
        self.pid = self._child.pid
        RUNNING.append(self)

    def signal(self, number: int) -> None:
        if self._child.poll() is None:
            self._child.send_signal(number)

    def kill(self) -> None:
        self.signal(signal.SIGKILL)
        self._child.wait()
        if self in RUNNING:
            RUNNING.remove(self)

    def __del__(self) -> None:
        os.close(self._output)
        os.close(self._errors)

    def is_running(self) -> bool:
        return self._child.poll() is None

    def wait(self, limit: float) -> str:
        """How it ended, killed if it had to be: "worked", "refused", "SIGABRT", "hung", ..."""
        try:
            code = self._child.wait(max(limit, 0.001))
        except subprocess.TimeoutExpired:
            self.kill()
            return "hung"
        self.kill()
        words = self.last_words()
        if "Assertion `" in words:
            return "our assertion"
        if "terminate called" in words:
            return "std::terminate"
        return signal.Signals(-code).name if code < 0 else ENDS.get(code, f"exit {code}")

    def last_words(self) -> str:
        return os.pread(self._errors, 4096, 0).decode(errors="replace")

    def count(self) -> int:
        """What a misbehaving peer has done; it counts on its standard output."""
        return int(os.pread(self._output, 21, 0) or 0)

    def handles(self) -> tuple[int, int]:
        """Numbers of descriptors and threads."""
        return tuple(len(os.listdir(f"/proc/{self.pid}/{what}")) for what in ("fd", "task"))

    def pss_kib(self) -> float:
        rollup = Path(f"/proc/{self.pid}/smaps_rollup").read_text()
        return float(rollup.partition("\nPss:")[2].split()[0])


RUNNING: list[Process] = []


def start_peer(role: str, name: str, *arguments: str) -> Process:
    """One that misbehaves."""
    program = Path(__file__).with_name("peers.py")
    return Process([sys.executable, "-B", str(program), role, name, *arguments])


class End(Process):
    """A producer or a consumer of the kit."""

    program: Path  # set once

    def __init__(self, role: str, name: str, **options: object) -> None:
        self.board = Board()
        arguments = [role, name, "--board", str(self.board.fd)]
        for option, value in options.items():
            arguments += ["--" + option.replace("_", "-")]
            if value is not True:
                arguments += [str(value)]
        super().__init__([str(self.program), *arguments], (self.board.fd,))
        os.close(self.board.fd)


def kill_all() -> None:
    for process in RUNNING:
        process.signal(signal.SIGKILL)
    for process in list(RUNNING):
        process.kill()


def wait_until(limit: float, condition) -> bool:
    deadline = time.monotonic() + limit
    while not condition():
        if time.monotonic() >= deadline:
            return False
        time.sleep(0.001)
    return True


def make_name(numbers=itertools.count()) -> str:
    """A stream's name that no other run has."""
    return f"stress-{os.getpid()}-{next(numbers)}"


class PauseProbe:
    """Idle processes, one on each processor, that sleep for a millisecond at a time and note when
    they wake too late."""

    CAPACITY = 1 << 20  # pauses
    LEAST_NS = 1_000_000

    def __init__(self) -> None:
        self._rings = []
        for processor in os.sched_getaffinity(0):
            ring = memoryview(mmap.mmap(-1, 16 * (self.CAPACITY + 1))).cast("Q")
            self._rings.append(ring)
            if os.fork() == 0:
                self._watch(processor, ring)

    def _watch(self, processor: int, ring: memoryview) -> None:
        ctypes.CDLL(None).prctl(1, signal.SIGKILL)  # PR_SET_PDEATHSIG
        os.sched_setaffinity(0, {processor})
        while ring[0] < self.CAPACITY:
            due = time.monotonic_ns() + 1_000_000
            time.sleep(0.001)
            awake = time.monotonic_ns()
            if awake >= due + self.LEAST_NS:
                ring[2 * ring[0] + 2] = due
                ring[2 * ring[0] + 3] = awake
                ring[0] += 1
        signal.pause()

    def largest_ms(self, since: int, until: int) -> float:
        """The longest pause that touches a span of time."""
        worst = 0
        for ring in self._rings:
            count = ring[0]
            number = bisect.bisect_left(range(count), since, key=lambda i: ring[2 * i + 3])
            while number < count and ring[2 * number + 2] <= until:
                worst = max(worst, ring[2 * number + 3] - ring[2 * number + 2])
                number += 1
        return worst / 1e6


class Losses:
    """Frames that some consumers missed. A loss counts as explained if the machine paused around it
    for at least a frame's period, or if it lies within one of the given spans."""

    def __init__(self, ends: list[End], probe: PauseProbe, since: int, spans=()) -> None:
        self.received = sum(end.board.frames for end in ends)
        self.lost = sum(end.board.lost for end in ends)
        self.unexplained = self.lost
        self.pause_ms = 0.0
        for begin, until, count in (burst for end in ends for burst in end.board.bursts()):
            pause = probe.largest_ms(begin, min(until, begin + CAUSE_NS))
            self.pause_ms = max(self.pause_ms, pause)
            if pause >= FRAME_MS or any(a <= until and begin <= b and until - begin <= b - a
                                        for a, b in spans):
                self.unexplained -= count
        if not self.lost:
            self.pause_ms = probe.largest_ms(since, time.monotonic_ns())

    def __str__(self) -> str:
        return (f"{self.lost:,} of {self.lost + self.received:,} lost ({self.unexplained:,} "
                f"unexplained, pause {self.pause_ms:.1f} ms)")


class Stream:
    """A producer and consumers that have joined it; the first frame waits for all of them."""

    def __init__(self, num_consumers: int, name: str = "", **options: object) -> None:
        self.name = name or make_name()
        self.options = options
        self.since = time.monotonic_ns()
        self.producer = self.start_producer(wait_receivers=num_consumers)
        self.consumers: list[End] = []
        self.joined = wait_until(JOIN_LIMIT_S, lambda: self.producer.board.ready)
        self.consumers = [End("consume", self.name) for _ in range(num_consumers)]
        self.joined = self.joined and wait_until(
            JOIN_LIMIT_S, lambda: all(end.board.ready for end in self.consumers))
        self.producer.board.release()

    def start_producer(self, **more: object) -> End:
        return End("produce", self.name, **self.options, **more)

    def restart(self) -> int:
        """Kills the producer and starts another; the time of the kill."""
        killed = time.monotonic_ns()
        self.producer.kill()
        self.producer = self.start_producer()
        return killed

    def delivery_ms(self, since: int, limit: float) -> float | None:
        """From a moment until the last consumer has the first frame of the present producer."""
        def delivers() -> bool:
            source = self.producer.board.incarnation
            return source != 0 and all(end.board.incarnation == source for end in self.consumers)
        if not wait_until(limit, delivers):
            return None
        return (max(end.board.incarnation_since for end in self.consumers) - since) / 1e6

    def is_delivering(self, limit: float) -> bool:
        """Whether every consumer gets further frames."""
        wanted = [(end.board, end.board.frames + 20) for end in self.consumers]
        return wait_until(limit, lambda: all(board.frames >= n for board, n in wanted))

    def handles(self) -> list[tuple[int, int]]:
        return [end.handles() for end in (self.producer, *self.consumers)]

    def stalls(self) -> int:
        return sum(end.board.stalls for end in self.consumers)

    def end(self) -> None:
        for end in (self.producer, *self.consumers):
            end.kill()


def print_table(rows: list[tuple]) -> None:
    texts = [[str(cell) for cell in row] for row in rows]
    widths = [max(map(len, column)) for column in zip(*texts)]
    for row in texts:
        print("  ".join(cell.ljust(width) for cell, width in zip(row, widths)).rstrip())
    sys.stdout.flush()


def quantile(values: list[float], share: float) -> float:
    return sorted(values)[min(int(share * len(values)), len(values) - 1)] if values else 0.0


def median(values: list[float]) -> float:
    return statistics.median(values) if values else 0.0

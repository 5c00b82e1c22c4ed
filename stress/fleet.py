"""Processes under stress, what they count, and the pauses of the machine that explain a loss."""

import bisect
import ctypes
import json
import mmap
import multiprocessing
import os
from pathlib import Path
import signal
import subprocess
import time

from shared import die_with_parent, make_name, wait_until

FRAME_MS = 10
FRAME_NS = FRAME_MS * 1_000_000
CAUSE_NS = 100_000_000  # what starts a loss lies near its beginning
JOIN_LIMIT_S = 10

# Exit codes of the end; see Endpoint.cpp.
ENDS = {0: "worked", 10: "refused", 11: "exception", 12: "no frame"}
MAX_BURSTS, NUM_TIMES = 256, 8192


class Board(ctypes.Structure):
    """The memory in which an end counts: as in Endpoint.cpp."""

    _fields_ = [(name, ctypes.c_uint64) for name in (
        "go stop ready frames lost num_bursts incarnation incarnation_since joins sequences stalls "
        "failures log_lines error_lines stream_time stream_time_at").split()] + [
            ("all_bursts", ctypes.c_uint64 * 4 * MAX_BURSTS), ("ring", ctypes.c_uint64 * NUM_TIMES)]

    def bursts(self) -> list[tuple[int, int, int, int]]:
        """Losses: stamp and arrival of the frame before, arrival of the one after, number of frames."""
        return [tuple(burst) for burst in self.all_bursts[:self.num_bursts]]

    def times(self, first: int, end: int) -> list[float]:
        """Ages or times of sends of some frames, in microseconds; the latest if they are too many."""
        return [self.ring[i % NUM_TIMES] / 1e3 for i in range(max(first, end - NUM_TIMES), end)]


RUNNING: set = set()


def kill_all() -> None:
    for process in list(RUNNING):
        process.kill()


class Process:
    """A child that never outlives this process."""

    def __init__(self, command: list[str], fds: tuple[int, ...] = ()) -> None:
        verbose = "VLX_STRESS_LOG" in os.environ
        self._errors = os.memfd_create("errors")
        self._child = subprocess.Popen(
            command, stdin=subprocess.DEVNULL, stdout=subprocess.DEVNULL,
            stderr=None if verbose else self._errors, pass_fds=fds)
        self.pid = self._child.pid
        RUNNING.add(self)

    def signal(self, number: int) -> None:
        self._child.send_signal(number)

    def is_running(self) -> bool:
        return self._child.poll() is None

    def kill(self) -> None:
        self._child.kill()
        self._child.wait()
        RUNNING.discard(self)

    def __del__(self) -> None:
        os.close(self._errors)

    def wait(self, limit: float) -> str:
        """How it ended, killed if it had to be: "worked", "refused", "SIGABRT", "hung", ..."""
        try:
            code = self._child.wait(max(limit, 0.001))
        except subprocess.TimeoutExpired:
            self.kill()
            return "hung"
        self.kill()
        words = os.pread(self._errors, 4096, 0).decode(errors="replace")
        if "Assertion `" in words:
            return "our assertion"
        if "terminate called" in words:
            return "std::terminate"
        return signal.Signals(-code).name if code < 0 else ENDS.get(code, f"exit {code}")

    def handles(self) -> tuple[int, int]:
        """Numbers of descriptors and threads."""
        return tuple(len(os.listdir(f"/proc/{self.pid}/{what}")) for what in ("fd", "task"))


class End(Process):
    """A producer or a consumer of the kit."""

    program: Path  # set once

    def __init__(self, role: str, name: str, **options: object) -> None:
        board, size = os.memfd_create("board"), ctypes.sizeof(Board)
        os.ftruncate(board, size)
        self.board = Board.from_buffer(mmap.mmap(board, size))
        plan = {"role": role, "name": name, "board": board, **options}
        super().__init__([str(self.program), json.dumps(plan)], (board,))
        os.close(board)


class Peer(multiprocessing.Process):
    """A function of peers.py in a process of its own, as which it misbehaves."""

    def __init__(self, role, *arguments: object) -> None:
        super().__init__(daemon=True)
        self._role, self._arguments = role, arguments
        self._done = multiprocessing.RawValue("Q")
        self.start()
        RUNNING.add(self)

    def run(self) -> None:
        die_with_parent()
        signal.signal(signal.SIGINT, signal.SIG_IGN)
        self._role(self._note, *self._arguments)

    def _note(self) -> None:
        self._done.value += 1

    def count(self) -> int:
        """How often it has done its work."""
        return self._done.value

    def kill(self) -> None:
        super().kill()
        self.join()
        RUNNING.discard(self)


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
        die_with_parent()
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
    for at least a frame's period, or if it lies within one of the given spans: by arrival, since a
    sender that was stopped is behind with what it sends for a while."""

    def __init__(self, ends: list[End], probe: PauseProbe, since: int, spans=()) -> None:
        self.received = sum(end.board.frames for end in ends)
        self.lost = sum(end.board.lost for end in ends)
        self.unexplained = self.lost
        self.pause_ms = 0.0
        for sent, begin, until, count in (burst for end in ends for burst in end.board.bursts()):
            pause = probe.largest_ms(sent, min(until, begin + CAUSE_NS))
            self.pause_ms = max(self.pause_ms, pause)
            if pause >= FRAME_MS or any(a <= until and begin <= b and until - begin <= b - a
                                        for a, b in spans):
                self.unexplained -= count
        if not self.lost:
            self.pause_ms = probe.largest_ms(since, time.monotonic_ns())

    def __str__(self) -> str:
        return (f"{self.lost:,} of {self.lost + self.received:,} lost ({self.unexplained:,} "
                f"unexplained, pause {self.pause_ms:.1f} ms)")


def are_delivering(ends: list[End], limit: float) -> bool:
    """Whether every consumer gets further frames."""
    wanted = [(end.board, end.board.frames + 20) for end in ends]
    return wait_until(limit, lambda: all(board.frames >= n for board, n in wanted))


class Stream:
    """A producer and consumers that have joined it; the first frame waits for all of them."""

    def __init__(self, num_consumers: int, **options: object) -> None:
        self.name = make_name()
        self.options = options
        self.since = time.monotonic_ns()
        self.producer = self.start_producer(receivers=num_consumers)
        opened = wait_until(JOIN_LIMIT_S, lambda: self.producer.board.ready)
        self.consumers = [End("consume", self.name) for _ in range(num_consumers)]
        self.joined = opened and wait_until(
            JOIN_LIMIT_S, lambda: all(end.board.ready for end in self.consumers))
        self.producer.board.go = 1

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

    def handles(self) -> list[tuple[int, int]]:
        return [end.handles() for end in (self.producer, *self.consumers)]

    def stalls(self) -> int:
        return sum(end.board.stalls for end in self.consumers)

    def end(self) -> None:
        for end in (self.producer, *self.consumers):
            end.kill()

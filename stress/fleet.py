"""Processes under stress, what they count, and the pauses of the machine that explain a loss."""

import ctypes
import json
import mmap
import multiprocessing
import os
from pathlib import Path
import signal
import struct
import subprocess
import time
from typing import Callable

from shared import die_with_parent, make_name, wait_until

FRAME_MS = 10
FRAME_BYTES = 1920  # of an end's
CAUSE_NS = 100_000_000  # what starts a loss lies near its beginning
JOIN_LIMIT_S = 10

# Exit codes of the end; see Endpoint.cpp.
ENDS = {0: "worked", 10: "refused", 11: "exception", 12: "no frame"}
VERBOSE = "VLX_STRESS_LOG" in os.environ
MAX_BURSTS, NUM_TIMES = 256, 8192


class Board(ctypes.Structure):
    """The memory in which an end counts: as in Endpoint.cpp."""

    _fields_ = [(name, ctypes.c_uint64) for name in (
        "go stop ready frames lost num_bursts incarnation incarnation_since joins sequences stalls "
        "failures log_lines error_lines last missing overwritten mixed clock_offset").split()] + [
            ("bursts", ctypes.c_uint64 * 4 * MAX_BURSTS), ("ring", ctypes.c_uint64 * NUM_TIMES)]

    def times(self, first: int = 0) -> list[float]:
        """Ages or times of sends of the frames from one on, in microseconds; the latest if they are
        too many."""
        return [self.ring[i % NUM_TIMES] / 1e3
                for i in range(max(first, self.frames - NUM_TIMES), self.frames)]


RUNNING: set = set()


def kill_all() -> None:
    for process in list(RUNNING):
        process.kill()


class Process(subprocess.Popen):
    """A child that never outlives this process."""

    def __init__(self, command: list[str], fds: tuple[int, ...] = (),
                 output: int = subprocess.DEVNULL) -> None:
        self._errors = open(os.memfd_create("errors"), errors="replace")
        super().__init__(command, stdin=subprocess.DEVNULL, stdout=output,
                         stderr=None if VERBOSE else self._errors, pass_fds=fds)
        RUNNING.add(self)

    def is_running(self) -> bool:
        return self.poll() is None

    def kill(self) -> None:
        super().kill()
        self.wait()
        RUNNING.discard(self)

    def await_end(self, limit: float) -> str:
        """Waits for the end; kills it if necessary. Result: "worked", "refused", "SIGABRT", ..."""
        try:
            code = self.wait(max(limit, 0.001))
        except subprocess.TimeoutExpired:
            self.kill()
            return "hung"
        self.kill()
        self._errors.seek(0)
        words = self._errors.read(4096)
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

    def __init__(self, role: str, name: str, prefix: tuple[str, ...] = (),
                 **options: object) -> None:
        """prefix: a command that becomes the end, such as chrt"""
        board, size = os.memfd_create("board"), ctypes.sizeof(Board)
        os.ftruncate(board, size)
        self.name = name
        self.board = Board.from_buffer(mmap.mmap(board, size))
        plan = {"role": role, "name": name, "board": board, "log": VERBOSE, **options}
        super().__init__([*prefix, str(self.program), json.dumps(plan)], (board,))
        os.close(board)


class Peer(multiprocessing.Process):
    """A misbehaving process that runs a function of peers.py."""

    def __init__(self, role, *arguments: object) -> None:
        self._done = multiprocessing.RawValue("Q")
        super().__init__(target=role, args=(self._note, *arguments), daemon=True)
        self.start()
        RUNNING.add(self)

    def run(self) -> None:
        die_with_parent()
        signal.signal(signal.SIGINT, signal.SIG_IGN)
        super().run()

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
    """Idle processes, one on each processor, that sleep for a millisecond at a time and record late
    wakeups."""

    LEAST_NS = 1_000_000

    def __init__(self) -> None:
        # One position in it for all: each continues where the others have stopped writing.
        self._pauses = os.memfd_create("pauses")
        for processor in os.sched_getaffinity(0):
            if os.fork() == 0:
                self._watch(processor)

    def _watch(self, processor: int) -> None:
        die_with_parent()
        os.sched_setaffinity(0, {processor})
        while True:
            due = time.monotonic_ns() + 1_000_000
            time.sleep(0.001)
            awake = time.monotonic_ns()
            if awake >= due + self.LEAST_NS:
                os.write(self._pauses, struct.pack("QQ", due, awake))

    def longest_ms(self, since: int, until: int) -> float:
        """The longest pause that touches a span of time."""
        data = os.pread(self._pauses, os.fstat(self._pauses).st_size, 0)
        return max((awake - due for due, awake in struct.iter_unpack("QQ", data)
                    if awake >= since and due <= until), default=0) / 1e6


class Losses:
    """Frames that some consumers missed. A loss counts as explained if the machine paused around it
    for at least a frame's period, or if it lies within one of the given spans: by arrival, since a
    sender that was stopped is behind with what it sends for a while."""

    def __init__(self, ends: list[End], probe: PauseProbe, since: int, spans=()) -> None:
        self.received = sum(end.board.frames for end in ends)
        self.lost = sum(end.board.lost for end in ends)
        self.unexplained = self.lost
        self.pause_ms = 0.0
        for sent, begin, until, count in (
                burst for end in ends for burst in end.board.bursts[:end.board.num_bursts]):
            pause = probe.longest_ms(sent, min(until, begin + CAUSE_NS))
            self.pause_ms = max(self.pause_ms, pause)
            if pause >= FRAME_MS or any(a <= until and begin <= b and until - begin <= b - a
                                        for a, b in spans):
                self.unexplained -= count
        if not self.lost:
            self.pause_ms = probe.longest_ms(since, time.monotonic_ns())

    def __str__(self) -> str:
        return (f"{self.lost:,} of {self.lost + self.received:,} lost ({self.unexplained:,} "
                f"unexplained, pause {self.pause_ms:.1f} ms)")


def delivery(ends: list[End]) -> Callable[[], bool]:
    """Returns a check whether every consumer has received 20 further frames."""
    wanted = [(end.board, end.board.frames + 20) for end in ends]
    return lambda: all(board.frames >= number for board, number in wanted)


class Stream:
    """A producer and consumers that have joined it; the first frame waits for all of them."""

    def __init__(self, num_consumers: int, **options: object) -> None:
        self.name = make_name()
        self.options = options
        self.since = time.monotonic_ns()
        self.producer = self.start_producer(receivers=num_consumers)
        opened = wait_until(JOIN_LIMIT_S, lambda: self.producer.board.ready)
        size = options.get("bytes", FRAME_BYTES)
        self.consumers = [End("consume", self.name, bytes=size) for _ in range(num_consumers)]
        self.joined = opened and wait_until(
            JOIN_LIMIT_S, lambda: all(end.board.ready for end in self.consumers))
        self.producer.board.go = 1

    def start_producer(self, **more: object) -> End:
        return End("produce", self.name, **self.options, **more)

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


"""One measurement: a sender and its receivers, each in a process of its own, driven by lines."""

from contextlib import ExitStack, contextmanager, suppress
from dataclasses import asdict, dataclass
import json
import multiprocessing
import os
from pathlib import Path
import select
import subprocess
import sys
import time
from typing import Iterator

from figures import Record, quotient
from shared import die_with_parent, make_name, median, pss_kib
from transports import Transport, endpoint_command

STEP_S = 15
DRAIN_S = 3
ORDERLY_END_S = 1


@dataclass(frozen=True)
class Plan:
    """As the endpoint gets it, but for receivers and patience."""
    bytes: int = 1920  # of media data in each frame
    rate: int = 1000  # frames a second
    warmup: int = 0  # frames
    frames: int = 0  # 0: flood
    flood: int = 0  # length of the flood, milliseconds
    objects: int = 1  # receivers in each process
    epoch: int = 1  # which of several senders in a row
    dry: bool = False  # pace and stamp, but send nothing
    receivers: int = 1  # processes
    patience: float = 1  # factor on the time limits


class Endpoint:
    """One end of a session. Never outlives its "with" block."""

    def __init__(self, build: Path, role: str, transport: Transport, directory: Path, name: str,
                 plan: Plan) -> None:
        argument = {"role": role, "name": name, "directory": str(directory),
                    "variant": transport.variant, **asdict(plan)}
        self._patience = plan.patience
        self._pending = b""
        self._process = subprocess.Popen(
            [*endpoint_command(build, transport), json.dumps(argument)],
            stdin=subprocess.PIPE, stdout=subprocess.PIPE, bufsize=0,
            env={**os.environ, "TMPDIR": str(directory)})

    def __enter__(self) -> "Endpoint":
        return self

    def __exit__(self, *_: object) -> None:
        """Lets the process end by itself for a moment, then kills it."""
        self._process.stdin.close()
        try:
            self._process.wait(ORDERLY_END_S)
        except subprocess.TimeoutExpired:
            self.kill()
        self._process.stdout.close()

    def kill(self) -> None:
        self._process.kill()
        self._process.wait()
        # GStreamer's sink removes its shared memory only at an orderly end.
        for left in Path("/dev/shm").glob(f"shmpipe.{self._process.pid}.*"):
            left.unlink(missing_ok=True)

    def say(self, line: str) -> None:
        with suppress(BrokenPipeError):
            self._process.stdin.write(line.encode() + b"\n")

    def ask(self, line: str, word: str, seconds: float = STEP_S) -> str | None:
        """Sends a line and waits for the answer, as expect() does."""
        self.say(line)
        return self.expect(word, seconds)

    def expect(self, word: str, seconds: float = STEP_S) -> str | None:
        """Waits for a line with this first word and returns its rest; skips other lines. None when
        the time is up or the process has ended."""
        deadline = time.monotonic() + seconds * self._patience
        while True:
            line, newline, rest = self._pending.partition(b"\n")
            if newline:
                self._pending = rest
                first, _, tail = line.decode().partition(" ")
                if first == word:
                    return tail
            elif not self._read_more(deadline):
                return None

    def _read_more(self, deadline: float) -> bool:
        left = deadline - time.monotonic()
        if left <= 0 or not select.select([self._process.stdout], [], [], left)[0]:
            return False
        more = os.read(self._process.stdout.fileno(), 65536)
        self._pending += more
        return bool(more)

    def pss_kib(self) -> float:
        return pss_kib(self._process.pid)


def _spin() -> None:
    die_with_parent()
    while True:
        sum(range(1_000_000))


@contextmanager
def busy_loops(count: int) -> Iterator[None]:
    """Processes that do nothing but keep processors busy."""
    loops = [multiprocessing.Process(target=_spin) for _ in range(count)]
    for loop in loops:
        loop.start()
    try:
        yield
    finally:
        for loop in loops:
            loop.kill()
            loop.join()


def run_session(build: Path, transport: Transport, directory: Path, plan: Plan) -> Record | None:
    """Runs a session, once more if it failed. The sender measures only when every receiver
    receives. The receivers' figures are medians over receivers, CPU is in us per frame."""
    for attempt in (1, 2):
        record = _try_session(build, transport, directory, plan)
        if record:
            return {"transport": transport.id, "attempt": attempt, **asdict(plan), **record}
        print(f"{transport.label}: session failed, attempt {attempt}", file=sys.stderr)
    return None


def _try_session(build: Path, transport: Transport, directory: Path, plan: Plan) -> Record | None:
    name = make_name()
    with ExitStack() as stack:
        def start(role: str) -> Endpoint:
            return stack.enter_context(Endpoint(build, role, transport, directory, name, plan))

        sender = start("send")
        if sender.ask("open", "opened") is None:
            return None
        receivers = [start("receive") for _ in range(plan.receivers)]
        objects = receivers * plan.objects
        if any(each.expect("first") is None for each in objects):
            return None
        sent = sender.ask("go", "result", STEP_S + plan.flood / 1000 + plan.frames / plan.rate)
        memory = [receiver.pss_kib() for receiver in receivers]
        deadline = time.monotonic() + DRAIN_S
        for each in objects:
            # Missing: its end frames were lost.
            each.expect("done", max(0, deadline - time.monotonic()))
        for receiver in receivers:
            receiver.say("stop")
        results = [each.expect("result") for each in objects]
    if sent is None or None in results:
        return None
    return {**_flatten(json.loads(sent), list(map(json.loads, results)), plan),
            "pss_kib": median(memory)}


def _flatten(sender: Record, receivers: list[Record], plan: Plan) -> Record:
    """CPU is counted per process, so each of several objects in one process reports the sum."""
    def total(key: str) -> float:
        return sum(one[key] for one in receivers)

    def middle(key: str) -> float:
        return median([one[key] for one in receivers if key in one])

    sent, received = sender["sent"], total("received")
    sender_us = sender["cpu_ns"] / 1000
    receiver_us = total("cpu_ns") / plan.objects / 1000
    return {
        "sent": sent, "received": received, "corrupt": total("corrupt"),
        "lost_pct": 100 * (1 - quotient(received, sent * len(receivers))),
        "offered_per_s": sent * 1e9 / sender["wall_ns"],
        "delivered_per_s": quotient(middle("received") * 1e9, middle("span_ns")),
        "sender_cpu_us": sender_us / sent,
        "sender_cpu_per_receiver_us": quotient(sender_us / sent, plan.receivers),
        "receiver_cpu_us": quotient(receiver_us, received),
        "cpu_us": sender_us / sent + quotient(receiver_us, received),
        "delivered_cpu_us": quotient(sender_us + receiver_us, received),
        "sender_allocations": sender["allocations"] / sent,
        "receiver_allocations": quotient(total("allocations") / plan.objects, received),
        "worst_p99_us": max((one.get("p99_us", 0) for one in receivers), default=0),
        **{key: middle(key) for one in receivers for key in one if key.endswith("_us")}}

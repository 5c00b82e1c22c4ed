"""One measurement: a sender and its receivers, each in a process of its own, driven by lines."""

from contextlib import ExitStack
from dataclasses import dataclass
import json
import math
import os
from pathlib import Path
import select
import subprocess
import sys
import time

from figures import Record, median, quotient
from transports import Transport, endpoint_program

STEP_S = 15
DRAIN_S = 3
ORDERLY_END_S = 1
AGES = ("p10_us", "p25_us", "p50_us", "p75_us", "p90_us", "p99_us", "p999_us", "max_us")

# Ends with its parent, whatever becomes of that.
BUSY_LOOP = """import os
parent = os.getppid()
while os.getppid() == parent:
    for _ in range(1000000):
        pass"""


@dataclass(frozen=True)
class Plan:
    bytes: int = 1920  # of media data in each frame
    rate: int = 1000  # frames a second
    warm_up: int = 0  # frames
    frames: int = 0  # 0: flood
    flood_ms: int = 0  # length of the flood
    receivers: int = 1  # processes
    objects: int = 1  # receivers in each process
    memory: bool = False  # add "pss_kib", mean of the receivers' processes
    patience: float = 1  # factor on the time limits


class Endpoint:
    """One end of a session. Never outlives its "with" block."""

    def __init__(self, build: Path, role: str, transport: Transport, directory: Path, name: str,
                 plan: Plan, *further: str) -> None:
        command = [endpoint_program(build, transport), role, "--name", name,
                   "--directory", directory, "--bytes", plan.bytes, "--rate", plan.rate,
                   "--warm-up", plan.warm_up, "--frames", plan.frames,
                   "--flood-ms", plan.flood_ms, "--objects", plan.objects, *further]
        if transport.variant:
            command += ["--variant", transport.variant]
        self._patience = plan.patience
        self._pending = b""
        self._process = subprocess.Popen(
            [str(word) for word in command], stdin=subprocess.PIPE, stdout=subprocess.PIPE,
            bufsize=0, env={**os.environ, "TMPDIR": str(directory)})

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

    def tell(self, line: str) -> None:
        try:
            self._process.stdin.write(line.encode() + b"\n")
        except BrokenPipeError:
            pass  # a process that is gone shows in the next expect()

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
        output = self._process.stdout
        left = deadline - time.monotonic()
        if left <= 0 or not select.select([output], [], [], left)[0]:
            return False
        more = os.read(output.fileno(), 65536)
        self._pending += more
        return bool(more)

    def kill(self) -> None:
        self._process.kill()
        self._process.wait()
        # GStreamer's sink removes its shared memory only at an orderly end.
        for left in Path("/dev/shm").glob(f"shmpipe.{self._process.pid}.*"):
            left.unlink(missing_ok=True)

    def pss_kib(self) -> float:
        try:
            text = Path(f"/proc/{self._process.pid}/smaps_rollup").read_text()
        except OSError:
            return math.nan
        return next((float(line.split()[1]) for line in text.splitlines()
                     if line.startswith("Pss:")), math.nan)


class BusyLoops:
    """Processes that do nothing but keep processors busy, within a "with" block."""

    def __init__(self, count: int) -> None:
        self._processes = [subprocess.Popen([sys.executable, "-c", BUSY_LOOP])
                           for _ in range(count)]

    def __enter__(self) -> "BusyLoops":
        return self

    def __exit__(self, *_: object) -> None:
        for process in self._processes:
            process.kill()
            process.wait()


_session_count = 0


def make_name() -> str:
    """A name that no other session has."""
    global _session_count
    _session_count += 1
    return f"b{os.getpid()}-{_session_count}"


def run_session(build: Path, transport: Transport, directory: Path, plan: Plan) -> Record | None:
    """Runs a session, once more if it failed. The sender measures only when every receiver
    receives. The receivers' figures are medians over receivers, CPU is in us per frame."""
    for attempt in (1, 2):
        record = _try_session(build, transport, directory, plan)
        if record:
            return {**record, "transport": transport.id, "bytes": plan.bytes,
                    "receivers": plan.receivers, "objects": plan.objects, "attempt": attempt}
        print(f"{transport.label}: session failed, attempt {attempt}", file=sys.stderr)
    return None


def _try_session(build: Path, transport: Transport, directory: Path, plan: Plan) -> Record | None:
    name = make_name()
    with ExitStack() as stack:
        def start(role: str) -> Endpoint:
            return stack.enter_context(Endpoint(build, role, transport, directory, name, plan))

        sender = start("send")
        sender.tell("open")
        if sender.expect("opened") is None:
            return None
        receivers = [start("receive") for _ in range(plan.receivers)]
        if any(receiver.expect("first") is None for receiver in receivers):
            return None
        sender.tell("go")
        sent = sender.expect("result",
                             STEP_S + plan.flood_ms / 1000 + plan.frames / plan.rate)
        if sent is None:
            return None
        memory = sum(receiver.pss_kib() for receiver in receivers) if plan.memory else 0
        received = _collect(receivers)
        if received is None:
            return None
        record = _flatten(json.loads(sent), received, plan)
        if plan.memory:
            record["pss_kib"] = memory / len(receivers)
        return record


def _collect(receivers: list[Endpoint]) -> list[Record] | None:
    """The figures of all receivers, an entry for each receiving object."""
    deadline = time.monotonic() + DRAIN_S
    everything = []
    for receiver in receivers:
        # Missing: its end frames were lost.
        receiver.expect("done", max(0, deadline - time.monotonic()))
        receiver.tell("stop")
        line = receiver.expect("result")
        if line is None:
            return None
        everything += json.loads(line)
    return everything


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
        "sent": sent,
        "received": received,
        "corrupt": total("corrupt"),
        "lost_pct": 100 * (1 - received / (sent * len(receivers))),
        "offered_per_s": sent * 1e9 / sender["wall_ns"],
        "delivered_per_s": quotient(middle("received") * 1e9, middle("span_ns")),
        "sender_cpu_us": sender_us / sent,
        "sender_cpu_per_receiver_us": sender_us / sent / plan.receivers,
        "receiver_cpu_us": quotient(receiver_us, received),
        "cpu_us": sender_us / sent + quotient(receiver_us, received),
        "delivered_cpu_us": quotient(sender_us + receiver_us, received),
        "sender_allocations": sender["allocations"] / sent,
        "receiver_allocations": quotient(total("allocations") / plan.objects, received),
        "worst_p99_us": max((one.get("p99_us", 0) for one in receivers)),
        **{key: middle(key) for key in AGES},
    }


def measure_pacing_us(build: Path, transport: Transport, directory: Path,
                      plan: Plan) -> float | None:
    """What a sender's process costs in us per frame without sending anything."""
    with Endpoint(build, "send", transport, directory, make_name(), plan, "--dry") as sender:
        sender.tell("open")
        if sender.expect("opened") is None:
            return None
        sender.tell("go")
        line = sender.expect("result")
        if line is None:
            return None
        result = json.loads(line)
        return result["cpu_ns"] / 1000 / result["sent"]

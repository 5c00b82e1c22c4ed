"""Joins and rejoins. Join: a receiver waits, a sender starts. Rejoin: a sender is killed with -9 and
another one is started under its name. Rows alternate within each repetition; each row keeps one
receiver's process for all repetitions."""

from contextlib import ExitStack
from dataclasses import dataclass, replace
import itertools
import random
import time

from figures import Record
from questions import Campaign
from session import Endpoint, Plan, busy_loops
from shared import make_name
import transports as t

# A receiver without a frame by then never gets one: it has missed the announcement of the sequence.
NEVER_S = 3
# After a sender's end a receiver needs 50 ms of silence, and is somewhere in its 400 ms retry.
SILENCE_S = 0.15
RETRY_S = 0.4
# How the sender helps a waiting receiver, for each variant of ours.
SUREST_BELL = "bell-again"
BELLS = {"bell": "yes", SUREST_BELL: "yes, announced twice", "": "no"}


@dataclass(frozen=True)
class Scenario:
    text: str  # in tables
    gap_s: float | None = None  # rejoin: from the kill to the next sender's start
    bells: tuple[str, ...] = tuple(BELLS)  # variants of ours
    others: tuple[str, ...] = ()
    busy_loops: int = 0


PEERS = (t.KIT, t.RAW, t.ZMQ, t.NNG)
SCENARIOS = [
    Scenario("join", others=PEERS),
    Scenario("join, busy core", busy_loops=1),
    Scenario("rejoin, gap 0", gap_s=0, others=PEERS),
    Scenario("rejoin, gap 100 ms", gap_s=0.1),
    Scenario("rejoin, gap 1000 ms", gap_s=1, bells=("bell",)),
]


class Row:
    """One row of the table: a transport in one scenario."""

    def __init__(self, campaign: Campaign, scenario: Scenario, transport: t.Transport) -> None:
        self._build = campaign.build
        self._scenario = scenario
        self._transport = transport
        self._name = make_name()
        # Of its own: other rows' senders shall not wake this one's receiver.
        self._directory = campaign.directory / self._name
        self._directory.mkdir()
        self._epoch = 0  # of the latest sender
        self._sender_end = time.monotonic()
        self._receiver: Endpoint | None = None

    def measure(self) -> Record | None:
        """One repetition. None if the processes do not work; a receiver that never gets a frame is
        a result."""
        with ExitStack() as senders:
            record = self._measure(senders, self._scenario.gap_s)
        if record is None:
            print(f"{self._scenario.text}, {self._transport.label}: a repetition failed")
        if record is None or "never" in record:
            self.drop_receiver()  # the next repetition begins with a new one
        self._sender_end = time.monotonic()
        return record

    def _measure(self, senders: ExitStack, gap_s: float | None) -> Record | None:
        self._receiver = self._receiver or self._start("receive", self._transport.variant)
        victim = None if gap_s is None else self._prepare_victim(senders)
        sender = self._start_sender(senders, self._transport.variant)
        if gap_s is None:
            # The receiver is known to wait: it has lost the last sender, its retry is anywhere.
            waiting = max(self._sender_end + SILENCE_S, time.monotonic())
            sleep_until(waiting + random.uniform(0, RETRY_S))
            return self._open(sender)
        if not victim:
            return None
        time.sleep(SILENCE_S)
        kill_ns = time.monotonic_ns()
        victim.kill()
        sleep_until(kill_ns / 1e9 + gap_s)
        return self._open(sender, kill_ns)

    def drop_receiver(self) -> None:
        if self._receiver:
            self._receiver.__exit__()
        self._receiver = None

    def _start(self, role: str, variant: str) -> Endpoint:
        """A sender is set up as far as the call that opens the stream."""
        endpoint = Endpoint(self._build, role, replace(self._transport, variant=variant),
                            self._directory, self._name, Plan(epoch=self._epoch))
        endpoint.expect("ready")
        return endpoint

    def _start_sender(self, senders: ExitStack, variant: str) -> Endpoint:
        self._epoch += 1
        return senders.enter_context(self._start("send", variant))

    def _wait_for_first_frame(self) -> int | None:
        """Time of the first frame of the latest sender at the receiver, ns."""
        while (line := self._receiver.expect("first", NEVER_S)) is not None:
            epoch, arrived = line.split()
            if int(epoch) == self._epoch:
                return int(arrived)
        return None

    def _open(self, sender: Endpoint, kill_ns: int | None = None) -> Record | None:
        """Opens the stream and waits for its first frame."""
        called = sender.ask("open", "opened")
        if called is None:
            return None
        first_ns = self._wait_for_first_frame()
        bell = BELLS[self._transport.variant] if self._transport.id == t.OURS else "-"
        record = {"case": self._scenario.text, "transport": self._transport.id, "bell": bell,
                  "row": f"{self._transport.id} {bell}"}
        if first_ns is None:
            return {**record, "never": True}
        if kill_ns is not None:
            record["kill_ms"] = (first_ns - kill_ns) / 1e6
        return {**record, "open_ms": (first_ns - int(called)) / 1e6}

    def _prepare_victim(self, senders: ExitStack) -> Endpoint | None:
        """A sender with a receiver that gets its frames; not measured, so as surely as possible."""
        variant = self._transport.variant
        victim = self._start_sender(senders, SUREST_BELL if self._transport.id == t.OURS else variant)
        return victim if "open_ms" in (self._open(victim) or {}) else None


def sleep_until(moment: float) -> None:
    time.sleep(max(0, moment - time.monotonic()))


def measure_join(campaign: Campaign) -> None:
    """How fast is a receiver in, and back in? 1,000 frames of 1,920 bytes a second."""
    repetitions = campaign.choose(full=20, quick=4)
    campaign.begin(f"{repetitions} repetitions interleaved")
    random.seed(1)
    for scenario in SCENARIOS:
        rows = [Row(campaign, scenario, replace(each, variant=variant))
                for each in campaign.select([t.OURS, *scenario.others])
                for variant in (scenario.bells if each.id == t.OURS else [each.variant])]
        with ExitStack() as stack:
            for row in rows:
                stack.callback(row.drop_receiver)
            stack.enter_context(busy_loops(scenario.busy_loops))
            for repetition, row in itertools.product(range(repetitions), rows):
                campaign.add(row.measure(), repetition=repetition)

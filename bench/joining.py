"""Joins and rejoins. Join: a receiver waits, a sender starts. Rejoin: a sender is killed with -9 and
another one is started under its name. Rows alternate within each repetition; each row keeps one
receiver's process for all repetitions."""

from contextlib import ExitStack
from dataclasses import dataclass, replace
import random
import time

from campaign import Campaign
from figures import Record
from session import BusyLoops, Endpoint, Plan, make_name
import transports as t
from transports import Transport

# A receiver without a frame by then never gets one: it has missed the announcement of the sequence.
NEVER_S = 3
SET_UP_ATTEMPTS = 3
# After a sender's end a receiver needs 50 ms of silence, and is somewhere in its 400 ms retry.
SILENCE_S = 0.15
RETRY_S = 0.4

# How the sender helps a waiting receiver, for each variant of ours.
BELLS = {"bell": "yes", "bell-again": "yes, announced twice", "": "no"}


@dataclass(frozen=True)
class Scenario:
    text: str  # in tables
    gap_s: float | None  # rejoin: from the kill to the next sender's start
    variants: tuple[str, ...]  # of ours
    others: tuple[str, ...] = ()
    busy: bool = False  # beside a busy core


PEERS = (t.KIT, t.RAW, t.ZMQ, t.NNG)
SCENARIOS = [
    Scenario("join", None, tuple(BELLS), PEERS),
    Scenario("join, busy core", None, tuple(BELLS), busy=True),
    Scenario("rejoin, gap 0", 0, tuple(BELLS), PEERS),
    Scenario("rejoin, gap 100 ms", 0.1, tuple(BELLS)),
    Scenario("rejoin, gap 1000 ms", 1, ("bell",)),
]


class Row:
    """One row of the table: a transport in one scenario."""

    def __init__(self, campaign: Campaign, scenario: Scenario, transport: Transport) -> None:
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
            measure = self._measure_join if self._scenario.gap_s is None else self._measure_rejoin
            record = measure(senders)
        if record is None or "never" in record:
            self.drop_receiver()  # the next repetition begins with a new one
        self._sender_end = time.monotonic()
        return record

    def drop_receiver(self) -> None:
        if self._receiver:
            self._receiver.__exit__()
        self._receiver = None

    def _start(self, role: str, transport: Transport, *further: str) -> Endpoint:
        endpoint = Endpoint(self._build, role, transport, self._directory, self._name, Plan(),
                            *further)
        endpoint.expect("ready")
        return endpoint

    def _need_receiver(self) -> Endpoint:
        if not self._receiver:
            self._receiver = self._start("receive", self._transport)
        return self._receiver

    def _prepare_sender(self, senders: ExitStack, transport: Transport) -> Endpoint:
        """Set up as far as the call that opens the stream."""
        self._epoch += 1
        sender = self._start("send", transport, "--epoch", str(self._epoch))
        return senders.enter_context(sender)

    @staticmethod
    def _open_stream(sender: Endpoint) -> int | None:
        """Time of the call, ns."""
        sender.tell("open")
        called = sender.expect("opened")
        return int(called) if called else None

    def _wait_for_first_frame(self) -> int | None:
        """Time of the first frame of the latest sender at the receiver, ns."""
        while (line := self._receiver.expect("first", NEVER_S)) is not None:
            epoch, arrived = line.split()
            if int(epoch) == self._epoch:
                return int(arrived)
        return None

    def _make_record(self, called_ns: int, first_ns: int | None) -> Record:
        ours = self._transport.id == t.OURS
        bell = BELLS[self._transport.variant] if ours else "-"
        record = {"case": self._scenario.text, "transport": self._transport.id, "bell": bell,
                  "row": f"{self._transport.id} {bell}"}
        if first_ns is None:
            return {**record, "never": True}
        return {**record, "open_ms": (first_ns - called_ns) / 1e6}

    def _measure_join(self, senders: ExitStack) -> Record | None:
        """The receiver is known to wait: it has lost the last sender, and its retry is anywhere."""
        self._need_receiver()
        sender = self._prepare_sender(senders, self._transport)
        waiting = max(self._sender_end + SILENCE_S, time.monotonic())
        sleep_until(waiting + random.uniform(0, RETRY_S))
        called_ns = self._open_stream(sender)
        if called_ns is None:
            return None
        return self._make_record(called_ns, self._wait_for_first_frame())

    def _prepare_victim(self, senders: ExitStack) -> Endpoint | None:
        """A sender with a receiver that gets its frames."""
        transport = self._transport
        if transport.id == t.OURS:
            transport = replace(transport, variant="bell")  # not measured: as quickly as possible
        for _ in range(SET_UP_ATTEMPTS):
            self._need_receiver()
            with ExitStack() as attempt:
                victim = self._prepare_sender(attempt, transport)
                if self._open_stream(victim) and self._wait_for_first_frame():
                    senders.enter_context(attempt.pop_all())
                    return victim
            self.drop_receiver()
        return None

    def _measure_rejoin(self, senders: ExitStack) -> Record | None:
        victim = self._prepare_victim(senders)
        if not victim:
            return None
        successor = self._prepare_sender(senders, self._transport)
        time.sleep(SILENCE_S)
        kill_ns = time.monotonic_ns()
        victim.kill()
        sleep_until(kill_ns / 1e9 + self._scenario.gap_s)
        called_ns = self._open_stream(successor)
        if called_ns is None:
            return None
        first_ns = self._wait_for_first_frame()
        record = self._make_record(called_ns, first_ns)
        if first_ns is not None:
            record["kill_ms"] = (first_ns - kill_ns) / 1e6
        return record


def sleep_until(moment: float) -> None:
    time.sleep(max(0, moment - time.monotonic()))


def list_rows(campaign: Campaign, scenario: Scenario) -> list[Row]:
    found = []
    for transport in campaign.select(t.OURS, *scenario.others):
        variants = scenario.variants if transport.id == t.OURS else (transport.variant,)
        found += [Row(campaign, scenario, replace(transport, variant=variant))
                  for variant in variants]
    return found


def measure_scenario(campaign: Campaign, scenario: Scenario, repetitions: int) -> None:
    random.seed(1)
    with ExitStack() as stack:
        rows = list_rows(campaign, scenario)
        for row in rows:
            stack.callback(row.drop_receiver)
        if scenario.busy:
            stack.enter_context(BusyLoops(1))
        for repetition in range(repetitions):
            for row in rows:
                campaign.add(row.measure(), repetition=repetition)

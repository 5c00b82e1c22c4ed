"""What the figures should be, and whether they are."""

from dataclasses import dataclass
import math
import operator
from typing import Callable

from figures import (Record, format_number, format_ratio, format_spread, median, median_of,
                     percentile, quotient, ratios, where, worst_of)
from tables import Table, join_times
import transports as t

BYTES = 1920
RECEIVERS = 32

Data = dict[str, list[Record]]  # raw data of each question
Values = list[float]  # one of each round; the median counts

LIMITS = {"at most": operator.le, "under": operator.lt, "at least": operator.ge}


@dataclass(frozen=True)
class Target:
    subject: str
    figure: str
    kind: str  # a key of LIMITS
    limit: float
    measure: Callable[[Data, str], Values]  # gets a transport's id
    transport: str = t.OURS
    reference: str = ""  # whose figure stands beside it; empty: nobody's


def _to(question: str, base: str, key: str) -> Callable[[Data, str], Values]:
    """Ratios to another transport within each round."""
    def measure(data: Data, transport: str) -> Values:
        records = where(data[question], bytes=BYTES)
        return ratios(where(records, transport=transport), where(records, transport=base), key)
    return measure


def _worst(question: str, key: str) -> Callable[[Data, str], Values]:
    return lambda data, transport: [worst_of(where(data[question], transport=transport), key)]


def _further_allocations(data: Data, transport: str) -> Values:
    """Of both sides, more than ours makes, median round."""
    sums = [sum(median_of(where(data["age"], transport=each, bytes=BYTES), f"{side}_allocations")
                for side in ("sender", "receiver")) for each in (transport, t.OURS)]
    return [sums[0] - sums[1]]


def _fanout_loss(data: Data, transport: str) -> Values:
    few = [r for r in where(data["fanout"], transport=transport) if r["receivers"] <= RECEIVERS]
    return [worst_of(few, "lost_pct")]


def _cost_of_many(data: Data, transport: str) -> Values:
    members = where(data["fanout"], transport=transport, objects=1)
    return ratios(where(members, receivers=RECEIVERS), where(members, receivers=1),
                  "sender_cpu_per_receiver_us")


def _busy_loss(data: Data, transport: str) -> Values:
    return [max((r["sent"] - r["received"] for r in where(data["busy"], transport=transport)),
                default=math.nan)]


def _busy_p99(data: Data, transport: str) -> Values:
    real_time, ordinary = (median_of(where(data["busy"], transport=each), "p99_us")
                           for each in (transport, t.KIT))
    return [quotient(real_time, ordinary)]


def _join(case: str, key: str, share: float) -> Callable[[Data, str], Values]:
    return lambda data, transport: [percentile(join_times(
        where(data["join"], case=case, transport=transport, bell="yes"), key), share)]


RAW_LABEL = t.label_of(t.RAW)
SIZE = f"{BYTES:,} bytes"
TARGETS = [
    Target(f"age, {SIZE}", f"p50 of {RAW_LABEL}", "at most", 1.10, _to("age", t.RAW, "p50_us"),
           reference=t.POLLS),
    Target(f"age, {SIZE}", f"p99 of {RAW_LABEL}", "at most", 1.25, _to("age", t.RAW, "p99_us"),
           reference=t.POLLS),
    Target(f"age, {SIZE}", "p50 of ZeroMQ", "at most", 0.80, _to("age", t.ZMQ, "p50_us"),
           reference=t.RAW),
    Target(f"age, {SIZE}", "p50 of nng", "at most", 0.80, _to("age", t.NNG, "p50_us"),
           reference=t.RAW),
    Target(f"age, {SIZE}", "p50 of ours", "at most", 1.03, _to("age", t.OURS, "p50_us"),
           transport=t.KIT),
    Target(f"overload, {SIZE}", f"p99 of {RAW_LABEL}", "at most", 1.25,
           _to("overload", t.RAW, "p99_us"), reference=t.POLLS),
    Target(f"overload, {SIZE}", "p99 of ZeroMQ", "at most", 0.05,
           _to("overload", t.ZMQ, "p99_us"), reference=t.RAW),
    Target(f"overload, {SIZE}", f"delivered rate of {RAW_LABEL}", "at least", 0.85,
           _to("overload", t.RAW, "delivered_per_s"), reference=t.POLLS),
    Target("CPU per frame, both sides", f"of {RAW_LABEL}, {SIZE}", "at most", 1.15,
           _to("age", t.RAW, "cpu_us"), reference=t.POLLS),
    Target("heap allocations per frame", "sender, worst round", "at most", 0,
           _worst("age", "sender_allocations")),
    Target("heap allocations per frame", "receiver, worst round", "at most", 1,
           _worst("age", "receiver_allocations")),
    Target("heap allocations per frame", "both sides, more than ours", "at most", 0,
           _further_allocations, transport=t.KIT),
    Target("busy machine", "frames lost, worst round", "at most", 0, _busy_loss,
           transport=t.KIT_RT, reference=t.KIT),
    Target("busy machine", "p99 of kit", "at most", 0.10, _busy_p99, transport=t.KIT_RT,
           reference=t.RAW),
    Target("fan-out", f"% lost, up to {RECEIVERS} receivers, worst round", "at most", 0,
           _fanout_loss, reference=t.RAW),
    Target("fan-out", f"sender CPU per receiver at {RECEIVERS} of that at 1", "at most", 1.2,
           _cost_of_many, reference=t.RAW),
    Target("join, bell, idle", "p50 ms", "under", 3, _join("join", "open_ms", 0.50)),
    Target("join, bell, idle", "p99 ms", "under", 20, _join("join", "open_ms", 0.99)),
    Target("join, bell, busy core", "p50 ms", "under", 3,
           _join("join, busy core", "open_ms", 0.50)),
    Target("join, bell, busy core", "p99 ms", "under", 20,
           _join("join, busy core", "open_ms", 0.99)),
    Target("rejoin, bell, gap 0", "p50 ms after the kill", "at most", 60,
           _join("rejoin, gap 0", "kill_ms", 0.50)),
    Target("rejoin, bell, gap 100 ms", "p50 ms after the call", "under", 10,
           _join("rejoin, gap 100 ms", "open_ms", 0.50)),
    Target("rejoin, bell, gap 1000 ms", "p50 ms after the call", "under", 10,
           _join("rejoin, gap 1000 ms", "open_ms", 0.50)),
]


def verdict(target: Target, value: float) -> str:
    if math.isnan(value):
        return "not measured"
    return "met" if LIMITS[target.kind](value, target.limit) else "MISSED"


def describe(values: Values) -> str:
    return format_spread(values) if len(values) > 1 else format_number(median(values))


def target_table(data: Data) -> Table:
    table = Table("<target", "<of", "<figure", "<limit", "<measured", "<verdict", "<reference")
    for target in TARGETS:
        values = target.measure(data, target.transport)
        reference = ""
        if target.reference:
            reference = (f"{t.label_of(target.reference)}: "
                         f"{describe(target.measure(data, target.reference))}")
        limit = f"{target.kind} {format_ratio(target.limit)}"
        table.add(target.subject, t.label_of(target.transport), target.figure, limit,
                  describe(values), verdict(target, median(values)), reference)
    return table

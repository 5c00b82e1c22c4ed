"""What the figures should be, and whether they are."""

import math
import operator
from typing import Callable

from figures import (Record, format_ratio, format_spread, median_of, quotient, ratios, where,
                     worst_of)
from shared import Table, format_number, median, percentile
from tables import join_times
from transports import (ALL, GST_OURS, GST_SHARED, GST_SHM, GST_VIDEO, KIT, KIT_IN_PLACE, KIT_RT,
                        KIT_SHARED, NNG, OURS, POLLS, PYTHON, PYTHON_IN_PLACE, PYZMQ, RAW, ZMQ)

BYTES = 1920
RECEIVERS = 32
# Bytes of a frame, and the rate at which its age is measured.
SIZES = [(BYTES, 30), (BYTES, 1000), (65536, 1000), (1 << 20, 100), (3_110_400, 30)]
SMALLEST, _, REFERRED, *LARGE = SIZES

Data = dict[str, list[Record]]  # raw data of each question
Values = list[float]  # one of each round; the median counts
Measure = Callable[[Data, str], Values]  # gets a transport's id

LIMITS = {"at most": operator.le, "under": operator.lt, "at least": operator.ge}


def _to(question: str, base: str, key: str, size: int = BYTES, rate: int = 1000) -> Measure:
    """Ratios to another transport within each round."""
    def measure(data: Data, transport: str) -> Values:
        records = where(data[question], bytes=size, rate=rate)
        return ratios(where(records, transport=transport), where(records, transport=base), key)
    return measure


def _growth(data: Data, transport: str) -> Values:
    """Ratio of the sender's CPU for the largest frames to the smallest, at the same rate."""
    rows = where(data["size"], transport=transport, rate=SMALLEST[1])
    return ratios(where(rows, bytes=LARGE[-1][0]), where(rows, bytes=BYTES), "sender_cpu_us")


def _size_loss(data: Data, transport: str) -> Values:
    return [worst_of(where(data["size"], transport=transport), "lost_pct")]


def _worst_allocations(side: str) -> Measure:
    return lambda data, transport: [
        worst_of(where(data["age"], transport=transport), f"{side}_allocations")]


def _more_allocations(data: Data, transport: str) -> Values:
    """Of both sides, more than ours makes, median round."""
    theirs, ours = (sum(median_of(where(data["age"], transport=each), f"{side}_allocations")
                        for side in ("sender", "receiver")) for each in (transport, OURS))
    return [theirs - ours]


def _fanout_loss(data: Data, transport: str) -> Values:
    few = [r for r in data["fanout"] if r.get("receivers", math.inf) <= RECEIVERS]
    return [worst_of(where(few, transport=transport), "lost_pct")]


def _cost_of_many(data: Data, transport: str) -> Values:
    members = where(data["fanout"], transport=transport, objects=1)
    return ratios(where(members, receivers=RECEIVERS), where(members, receivers=1),
                  "sender_cpu_per_receiver_us")


def _busy_loss(data: Data, transport: str) -> Values:
    return [max((r["sent"] - r["received"]
                 for r in where(data["busy"], transport=transport, bytes=BYTES)),
                default=math.nan)]


def _busy_p99(data: Data, transport: str) -> Values:
    return [quotient(*(median_of(where(data["busy"], transport=each, bytes=BYTES), "p99_us")
                       for each in (transport, KIT)))]


def _join(case: str, key: str, share: float) -> Measure:
    return lambda data, transport: [percentile(join_times(
        where(data["join"], case=case, transport=transport, bell="yes"), key), share)]


# Subject, transport, figure, kind of limit, limit, measure; whose figure stands beside it, if any.
TARGETS = [
    ("age, 1,920 bytes", OURS, "p50 of nanomsg, our options", "at most", 1.10,
     _to("age", RAW, "p50_us"), POLLS),
    ("age, 1,920 bytes", OURS, "p99 of nanomsg, our options", "at most", 1.25,
     _to("age", RAW, "p99_us"), POLLS),
    ("age, 1,920 bytes", OURS, "p50 of ZeroMQ", "at most", 0.80, _to("age", ZMQ, "p50_us"), RAW),
    ("age, 1,920 bytes", OURS, "p50 of nng", "at most", 0.80, _to("age", NNG, "p50_us"), RAW),
    ("age, 1,920 bytes", KIT, "p50 of ours", "at most", 1.03, _to("age", OURS, "p50_us")),
    *[(f"age, {size:,} bytes", KIT_SHARED, f"p50 of {ALL[base].label}", "at most", limit,
       _to("size", base, "p50_us", size, rate), KIT_IN_PLACE)
      for limit, base, sizes in ((1.40, GST_SHM, [REFERRED]), (0.90, ZMQ, [REFERRED]),
                                 (0.60, ZMQ, LARGE))
      for size, rate in sizes],
    *[(f"Python, {size:,} bytes", each, "p50 of pyzmq", "at most", limit,
       _to("size", PYZMQ, "p50_us", size, rate), other)
      for limit, each, other, (size, rate) in (
          (1.40, PYTHON, PYTHON_IN_PLACE, SIZES[1]), (1.10, PYTHON_IN_PLACE, PYTHON, REFERRED),
          (0.60, PYTHON_IN_PLACE, PYTHON, LARGE[-1]))],
    ("all sizes", KIT_SHARED, "% lost, worst round", "at most", 0, _size_loss, KIT_IN_PLACE),
    ("sender's CPU, 3,110,400 bytes", KIT_IN_PLACE, "of that at 1,920 bytes", "at most", 1.30,
     _growth, KIT_SHARED),
    ("elements, 1,920 bytes", GST_OURS, "p50 of GStreamer shm", "at most", 2.50,
     _to("size", GST_SHM, "p50_us")),
    ("elements, 1,920 bytes", GST_OURS, "CPU of GStreamer shm", "at most", 1.60,
     _to("size", GST_SHM, "cpu_us")),
    *[(f"elements, {size:,} bytes", GST_SHARED, "p50 of GStreamer shm", "at most", 1.70,
       _to("size", GST_SHM, "p50_us", size, rate), GST_OURS) for size, rate in (REFERRED, *LARGE)],
    ("elements, 1080p30 video", GST_VIDEO, "% lost, worst round", "at most", 0, _size_loss,
     GST_SHM),
    ("overload, 1,920 bytes", OURS, "p99 of nanomsg, our options", "at most", 1.25,
     _to("overload", RAW, "p99_us"), POLLS),
    ("overload, 1,920 bytes", OURS, "p99 of ZeroMQ", "at most", 0.05,
     _to("overload", ZMQ, "p99_us"), RAW),
    ("overload, 1,920 bytes", OURS, "delivered rate of nanomsg, our options", "at least", 0.85,
     _to("overload", RAW, "delivered_per_s"), POLLS),
    ("CPU per frame, both sides", OURS, "of nanomsg, our options, 1,920 bytes", "at most", 1.15,
     _to("age", RAW, "cpu_us"), POLLS),
    ("heap allocations per frame", OURS, "sender, worst round", "at most", 0,
     _worst_allocations("sender")),
    ("heap allocations per frame", OURS, "receiver, worst round", "at most", 1,
     _worst_allocations("receiver")),
    ("heap allocations per frame", KIT, "both sides, more than ours", "at most", 0,
     _more_allocations),
    ("busy machine", KIT_RT, "frames lost", "at most", 0, _busy_loss, KIT),
    ("busy machine", KIT_RT, "p99 of kit", "at most", 0.10, _busy_p99, RAW),
    ("fan-out", OURS, "% lost, up to 32 receivers, worst round", "at most", 0, _fanout_loss, RAW),
    ("fan-out", OURS, "sender CPU per receiver at 32 of that at 1", "at most", 1.2, _cost_of_many,
     RAW),
    *[(f"join, bell, {name}", OURS, f"p{share:.0%}"[:-1] + " ms", "under", limit,
       _join(case, "open_ms", share))
      for name, case in (("idle", "join"), ("busy core", "join, busy core"))
      for share, limit in ((0.50, 3), (0.99, 20))],
    ("rejoin, bell, gap 0", OURS, "p50 ms after the kill", "at most", 60,
     _join("rejoin, gap 0", "kill_ms", 0.50)),
    *[(f"rejoin, bell, {gap}", OURS, "p50 ms after the call", "under", 10,
       _join(f"rejoin, {gap}", "open_ms", 0.50)) for gap in ("gap 100 ms", "gap 1000 ms")],
]


def describe(values: Values) -> str:
    return format_spread(values) if len(values) > 1 else format_number(median(values))


def target_table(data: Data) -> Table:
    table = Table("<target", "<of", "<figure", "<limit", "<measured", "<verdict", "<reference")
    for subject, transport, figure, kind, limit, measure, *references in TARGETS:
        values = measure(data, transport)
        is_met = LIMITS[kind](median(values), limit)
        verdict = "not measured" if math.isnan(median(values)) else "met" if is_met else "MISSED"
        beside = [f"{ALL[each].label}: {describe(measure(data, each))}" for each in references]
        table.add(subject, ALL[transport].label, figure, f"{kind} {format_ratio(limit)}",
                  describe(values), verdict, *(beside or [""]))
    return table

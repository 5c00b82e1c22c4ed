"""The tables of the print-out and of the summary, each made from one question's raw data. Figures are
medians over the rounds; "vs" columns are medians of the ratios within each round."""

import math

from figures import (Record, distinct, format_ratio, format_spread, median_of, quotient, ratios,
                     values_of, where, worst_of)
from shared import Table, median, percentile
from transports import ALL, GST_SHM, RAW, ZMQ

# Receiving objects in one process where the memory of an object is measured.
MANY_OBJECTS = 17
# Joins later than this have fallen into the retry.
RETRY_MS = 100


def in_order(records: list[Record]) -> dict[str, list[Record]]:
    """The records of each transport, in the order of the tables."""
    found = {transport: where(records, transport=transport) for transport in ALL}
    return {transport: rows for transport, rows in found.items() if rows}


def _compare(records: list[Record], group_keys: tuple[str, ...], figures: dict[str, str],
             compared: dict[str, tuple[str, str]], spread: bool = False) -> Table:
    """A row for each transport in each group of records.

    figures: headings and keys. compared: headings, keys and reference transports of ratios."""
    table = Table(*group_keys, "<transport", *figures, *compared)
    measured = [record for record in records if "transport" in record]
    for group in sorted({tuple(record[key] for key in group_keys) for record in measured}):
        members = in_order(where(measured, **dict(zip(group_keys, group))))
        for transport, rows in members.items():
            found = [ratios(rows, members.get(base, []), key) for key, base in compared.values()]
            table.add(*group, ALL[transport].label,
                      *(float(median_of(rows, key)) for key in figures.values()),
                      *(format_spread(values) if spread else format_ratio(median(values))
                        for values in found))
    return table


def age_table(records: list[Record]) -> Table:
    return _compare(
        records, ("bytes",),
        {"p50 us": "p50_us", "p90 us": "p90_us", "p99 us": "p99_us", "p99.9 us": "p999_us",
         "max us": "max_us", "lost %": "lost_pct", "sender us/frame": "sender_cpu_us",
         "receiver us/frame": "receiver_cpu_us"},
        {"p50 vs raw": ("p50_us", RAW), "p99 vs raw": ("p99_us", RAW),
         "cpu vs raw": ("cpu_us", RAW)}, spread=True)


def size_table(records: list[Record]) -> Table:
    return _compare(
        records, ("bytes", "rate"),
        {"p50 us": "p50_us", "p90 us": "p90_us", "max us": "max_us", "lost %": "lost_pct",
         "sender us/frame": "sender_cpu_us", "receiver us/frame": "receiver_cpu_us"},
        {"p50 vs shm": ("p50_us", GST_SHM), "p50 vs ZeroMQ": ("p50_us", ZMQ),
         "cpu vs shm": ("delivered_cpu_us", GST_SHM)}, spread=True)


def allocation_table(records: list[Record]) -> Table:
    table = Table("<transport", "sender/frame", "receiver/frame", "sender, worst round",
                  "receiver, worst round")
    for transport, rows in in_order(records).items():
        table.add(ALL[transport].label,
                  *(choose(rows, f"{side}_allocations")
                    for choose in (median_of, worst_of) for side in ("sender", "receiver")))
    return table


def overload_table(records: list[Record]) -> Table:
    return _compare(
        records, ("bytes",),
        {"offered/s": "offered_per_s", "delivered/s": "delivered_per_s", "lost %": "lost_pct",
         "p50 us": "p50_us", "p99 us": "p99_us", "p99.9 us": "p999_us",
         "cpu us/delivered": "delivered_cpu_us"},
        {"delivered vs raw": ("delivered_per_s", RAW), "p99 vs raw": ("p99_us", RAW),
         "cpu vs raw": ("delivered_cpu_us", RAW)}, spread=True)


def busy_table(records: list[Record]) -> Table:
    return _compare(
        records, ("bytes",),
        {"sent": "sent", "received": "received", "lost %": "lost_pct", "p50 us": "p50_us",
         "p99 us": "p99_us", "p99.9 us": "p999_us", "max us": "max_us",
         "sender us/frame": "sender_cpu_us", "receiver us/frame": "receiver_cpu_us"}, {})


def fanout_table(records: list[Record]) -> Table:
    return _compare(
        where(records, objects=1), ("receivers",),
        {"lost %": "lost_pct", "sender us/frame": "sender_cpu_us",
         "sender us/frame/receiver": "sender_cpu_per_receiver_us",
         "receiver us/frame": "receiver_cpu_us", "p50 us": "p50_us", "p99 us": "p99_us",
         "worst p99 us": "worst_p99_us", "PSS KiB/receiver": "pss_kib"},
        {"p99 vs raw": ("p99_us", RAW), "sender vs raw": ("sender_cpu_us", RAW)})


def memory_table(records: list[Record]) -> Table:
    table = Table("<transport", "1 object, PSS KiB", f"{MANY_OBJECTS} objects, PSS KiB",
                  "PSS KiB/object")
    for transport, rows in in_order(where(records, receivers=1)).items():
        one, many = (median_of(where(rows, objects=count), "pss_kib")
                     for count in (1, MANY_OBJECTS))
        table.add(ALL[transport].label, one, many, (many - one) / (MANY_OBJECTS - 1))
    return table


def join_times(records: list[Record], key: str) -> list[float]:
    """A repetition without any frame counts as infinitely late.

    key: "open_ms" (from the call that opens the stream) or "kill_ms" (from the kill)"""
    return values_of(records, key) + [math.inf] * len(where(records, never=True))


def join_table(records: list[Record]) -> Table:
    table = Table("<case", "<transport", "<bell", "n", "<from", "p50 ms", "p90 ms", "p99 ms",
                  "max ms", f"> {RETRY_MS} ms %", "never %")
    for case in distinct(records, "case"):
        for row in distinct(where(records, case=case), "row"):
            rows = where(records, case=case, row=row)
            for start in ("kill", "open"):
                times = join_times(rows, f"{start}_ms")
                if not values_of(rows, f"{start}_ms"):
                    continue
                late = sum(RETRY_MS < time < math.inf for time in times)
                table.add(case, ALL[rows[0]["transport"]].label, rows[0]["bell"], len(times), start,
                          *(percentile(times, share) for share in (0.50, 0.90, 0.99, 1)),
                          100 * late / len(times), 100 * times.count(math.inf) / len(times))
    return table


def micro_table(records: list[Record]) -> Table:
    table = Table("bytes", "<operation", "ns", "MB/s", "allocations", "MB/s vs memcpy")
    for size in sorted(distinct(records, "bytes")):
        sized = where(records, bytes=size)
        copy = median_of(where(sized, operation="memcpy"), "bytes_per_s")
        for operation in sorted(distinct(sized, "operation")):
            rows = where(sized, operation=operation)
            rate = median_of(rows, "bytes_per_s")
            table.add(size, operation, median_of(rows, "ns"), rate / 1e6,
                      median_of(rows, "allocations"), format_ratio(rate / copy))
    return table

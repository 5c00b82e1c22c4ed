"""The tables of the print-out and of the summary, each made from one question's raw data. Figures are
medians over the rounds; "vs" columns are medians of the ratios within each round."""

import math

from figures import (Record, distinct, format_number, format_ratio, format_spread, median,
                     median_of, percentile, quotient, ratios, values_of, where)
from transports import ALL, RAW, label_of

# Receiving objects in one process where the memory of an object is measured.
MANY_OBJECTS = 17
# Joins later than this have fallen into the retry.
RETRY_MS = 100


class Table:
    """Rows of text. A heading that begins with "<" stands, like its column, at the left."""

    def __init__(self, *headings: str) -> None:
        self._headings = [heading.removeprefix("<") for heading in headings]
        self._left = [heading.startswith("<") for heading in headings]
        self._rows: list[list[str]] = []

    def add(self, *cells: object) -> None:
        self._rows.append([str(cell) for cell in cells])

    def to_text(self) -> str:
        lines = [self._headings, *self._rows]
        widths = [max(map(len, column)) for column in zip(*lines)]
        return "".join(
            "  ".join(cell.ljust(width) if left else cell.rjust(width)
                      for cell, width, left in zip(line, widths, self._left)).rstrip() + "\n"
            for line in lines)

    def to_markdown(self) -> str:
        rule = "".join("|---" if left else "|---:" for left in self._left) + "|"
        return "\n".join([f"| {' | '.join(self._headings)} |", rule,
                          *(f"| {' | '.join(row)} |" for row in self._rows)]) + "\n"


def in_order(records: list[Record]) -> list[str]:
    """The transports of the records, in the order of the tables."""
    present = distinct(records, "transport")
    return [each.id for each in ALL if each.id in present]


def _compare(records: list[Record], group_key: str, figures: dict[str, str],
             to_raw: dict[str, str], spread: bool = False) -> Table:
    """A row for each transport in each group of records.

    figures, to_raw: headings and keys; the second are ratios to raw nanomsg with our options."""
    table = Table(group_key, "<transport", *figures, *to_raw)
    for group in sorted(distinct(records, group_key)):
        members = where(records, **{group_key: group})
        raw = where(members, transport=RAW)
        for transport in in_order(members):
            rows = where(members, transport=transport)
            found = [ratios(rows, raw, key) for key in to_raw.values()]
            table.add(group, label_of(transport),
                      *(format_number(median_of(rows, key)) for key in figures.values()),
                      *(format_spread(all_) if spread else format_ratio(median(all_))
                        for all_ in found))
    return table


def age_table(records: list[Record]) -> Table:
    return _compare(
        records, "bytes",
        {"p50 us": "p50_us", "p90 us": "p90_us", "p99 us": "p99_us", "p99.9 us": "p999_us",
         "max us": "max_us", "lost %": "lost_pct", "sender us/frame": "sender_cpu_us",
         "receiver us/frame": "receiver_cpu_us"},
        {"p50 vs raw": "p50_us", "p99 vs raw": "p99_us", "cpu vs raw": "cpu_us"}, spread=True)


def allocation_table(records: list[Record]) -> Table:
    table = Table("bytes", "<transport", "sender/frame", "receiver/frame", "sender, worst round",
                  "receiver, worst round")
    for size in sorted(distinct(records, "bytes")):
        for transport in in_order(records):
            rows = where(records, bytes=size, transport=transport)
            sides = [values_of(rows, f"{side}_allocations") for side in ("sender", "receiver")]
            table.add(size, label_of(transport),
                      *(format_number(median(side)) for side in sides),
                      *(format_number(max(side, default=math.nan)) for side in sides))
    return table


def overload_table(records: list[Record]) -> Table:
    return _compare(
        records, "bytes",
        {"offered/s": "offered_per_s", "delivered/s": "delivered_per_s", "lost %": "lost_pct",
         "p50 us": "p50_us", "p99 us": "p99_us", "p99.9 us": "p999_us",
         "cpu us/delivered": "delivered_cpu_us"},
        {"delivered vs raw": "delivered_per_s", "p99 vs raw": "p99_us",
         "cpu vs raw": "delivered_cpu_us"}, spread=True)


def busy_table(records: list[Record]) -> Table:
    table = Table("<transport", "sent", "lost", "lost %", "p50 us", "p99 us", "p99.9 us", "max us",
                  "sender us/frame", "receiver us/frame")
    for transport in in_order(records):
        rows = where(records, transport=transport)
        sent, received = sum(values_of(rows, "sent")), sum(values_of(rows, "received"))
        keys = ("p50_us", "p99_us", "p999_us", "max_us", "sender_cpu_us", "receiver_cpu_us")
        table.add(label_of(transport), int(sent), int(sent - received),
                  format_number(quotient(100 * (sent - received), sent)),
                  *(format_number(median_of(rows, key)) for key in keys))
    return table


def fanout_table(records: list[Record]) -> Table:
    return _compare(
        where(records, objects=1), "receivers",
        {"lost %": "lost_pct", "sender us/frame": "sender_cpu_us",
         "sender us/frame/receiver": "sender_cpu_per_receiver_us",
         "receiver us/frame": "receiver_cpu_us", "p50 us": "p50_us", "p99 us": "p99_us",
         "worst p99 us": "worst_p99_us", "PSS KiB/receiver": "pss_kib"},
        {"p99 vs raw": "p99_us", "sender vs raw": "sender_cpu_us"})


def memory_table(records: list[Record]) -> Table:
    table = Table("<transport", "1 object, PSS KiB", f"{MANY_OBJECTS} objects, PSS KiB",
                  "PSS KiB/object")
    single = where(records, receivers=1)
    for transport in in_order(where(single, objects=MANY_OBJECTS)):
        one, many = (median_of(where(single, transport=transport, objects=objects), "pss_kib")
                     for objects in (1, MANY_OBJECTS))
        table.add(label_of(transport), format_number(one), format_number(many),
                  format_number((many - one) / (MANY_OBJECTS - 1)))
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
                if not values_of(rows, f"{start}_ms"):
                    continue
                times = join_times(rows, f"{start}_ms")
                late = sum(RETRY_MS < time < math.inf for time in times)
                table.add(case, label_of(rows[0]["transport"]), rows[0]["bell"], len(times), start,
                          *(format_number(percentile(times, share))
                            for share in (0.50, 0.90, 0.99, 1)),
                          format_number(100 * late / len(times)),
                          format_number(100 * times.count(math.inf) / len(times)))
    return table


def micro_table(records: list[Record]) -> Table:
    table = Table("bytes", "<operation", "ns", "MB/s", "allocations", "MB/s vs memcpy")
    for size in sorted(distinct(records, "bytes")):
        sized = where(records, bytes=size)
        copy = median_of(where(sized, operation="memcpy"), "bytes_per_s")
        for operation in sorted(distinct(sized, "operation")):
            rows = where(sized, operation=operation)
            rate = median_of(rows, "bytes_per_s")
            table.add(size, operation, format_number(median_of(rows, "ns")),
                      format_number(rate / 1e6), format_number(median_of(rows, "allocations")),
                      format_ratio(rate / copy))
    return table

#!/usr/bin/env python3
"""Compares recordings with the sent audio, sample by sample, aligned by timestamp, and
prints a table from their reports.

usage: compare.py SOURCE.raw SENT.json... -- RECORDING.raw REPORT.json...
"""

import bisect
import json
import os
import sys

CONNECTIONS_EXPECTED = 2  # a receiver stays through one loss of the sender
NS_PER_SECOND = 1_000_000_000
TITLES = ("receiver", "conn", "join ms", "missed ms", "frames", "gaps", "gap ms", "age p50 us",
          "age p99 us", "compared", "differing")


def read_json(path):
    with open(path, encoding="utf-8", errors="replace") as file:
        return json.load(file)


def read_bytes(path):
    with open(path, "rb") as file:
        return file.read()


def count_differing(left, right, size):
    if left == right:
        return 0
    return sum(left[i:i + size] != right[i:i + size] for i in range(0, len(left), size))


def compare_segment(segment, recording, source, runs, rate, size):
    """Returns how many samples differ, and since when the run had been sent before, in ns."""
    run_time, run_sample = runs[bisect.bisect(runs, (segment["timestamp"], sys.maxsize)) - 1]
    missed_ns = segment["timestamp"] - run_time
    sent = run_sample + round(missed_ns * rate / NS_PER_SECOND)
    first, count = segment["file_sample"], segment["samples"]
    received = recording[first * size:(first + count) * size]
    if len(received) != count * size or len(source) < (sent + count) * size or missed_ns < 0:
        sys.exit("demo: a report and its recording differ in length")
    return count_differing(received, source[sent * size:(sent + count) * size], size), missed_ns


def print_row(values):
    print("".join(str(value).rjust(max(len(title), 6) + 2) for value, title in zip(values, TITLES)))


def compare_receiver(name, recording, report, source, runs):
    """Prints a row for each connection, and returns how many samples differ."""
    connections = report["connections"]
    if len(connections) != CONNECTIONS_EXPECTED:
        sys.exit(f"demo: {name} had {len(connections)} connections with frames")
    size, rest = divmod(len(recording), report["samples"])
    if rest != 0:
        sys.exit(f"demo: {name}: recording and report differ in length")
    all_differing = 0
    for number, connection in enumerate(connections, 1):
        results = [compare_segment(segment, recording, source, runs, report["sample_rate"], size)
                   for segment in connection["segments"]]
        compared = sum(segment["samples"] for segment in connection["segments"])
        differing = sum(result[0] for result in results)
        ages = [f"{connection[age] / 1e3:.1f}" if connection[age] is not None else "-"
                for age in ("age_p50_ns", "age_p99_ns")]
        print_row((name, number, f"{connection['join_ns'] / 1e6:.1f}", f"{results[0][1] / 1e6:.1f}",
                   connection["frames"], connection["gaps"], f"{connection['gap_ns'] / 1e6:.1f}",
                   *ages, compared, differing))
        all_differing += differing if compared > 0 else 1
    return all_differing


def main():
    separator = sys.argv.index("--")
    source = read_bytes(sys.argv[1])
    runs = sorted((run["timestamp"], run["sample"])
                  for path in sys.argv[2:separator] for run in read_json(path)["runs"])
    received = sys.argv[separator + 1:]
    print_row(TITLES)
    differing = 0
    for recording, report in zip(received[::2], received[1::2]):
        name = os.path.splitext(os.path.basename(recording))[0]
        differing += compare_receiver(name, read_bytes(recording), read_json(report), source, runs)
    if differing > 0:
        sys.exit("demo: SAMPLES DIFFER from what was sent")


main()

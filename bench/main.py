"""Runs the benchmarks and writes their summary; see --help."""

import argparse
import os
from pathlib import Path
import sys
import tempfile
import time

sys.path.append(str(Path(__file__).resolve().parent.parent / "runs"))
from figures import read_records  # noqa: E402
import joining  # noqa: E402
import questions  # noqa: E402
import report  # noqa: E402
from shared import ROOT, build, describe_machine, exit_on_signals  # noqa: E402
import tables  # noqa: E402
from targets import target_table  # noqa: E402

BUILD = ROOT / "build" / "bench"  # as the preset says
QUESTIONS = {"age": questions.measure_age, "size": questions.measure_size,
             "overload": questions.measure_overload, "busy": questions.measure_busy,
             "fanout": questions.measure_fanout, "join": joining.measure_join,
             "micro": questions.measure_micro}
FURTHER_TABLES = {"age": "allocation", "fanout": "memory"}


def parse_options() -> argparse.Namespace:
    parser = argparse.ArgumentParser(
        prog="scripts/bench",
        description="Builds the benchmarks, runs them beside every peer that is installed, prints "
        "the tables, and writes the summary and its pictures to docs/benchmarks.md and "
        "docs/benchmarks/. Takes about 23 minutes.",
        epilog="Raw data: build/bench/data/full/*.jsonl, or quick instead of full. "
        "Exit code: 0 done, 1 a build or a measurement failed, 2 usage.")
    add = parser.add_argument
    add("--quick", action="store_true", help="short runs, every table all the same; about 6 "
        "minutes. The summary goes to the build directory, as with --questions")
    add("--cpus", metavar="LIST", type=read_processors,
        help='processors to use, such as "0,2", or "all"; default: the first two')
    add("--questions", metavar="NAME", nargs="+", choices=QUESTIONS, default=list(QUESTIONS),
        help="measure only these of %(choices)s; the raw data of the others stays")
    add("--report-only", action="store_true",
        help="do not measure: write the summary from the last run's raw data")
    return parser.parse_args()


def read_processors(text: str) -> set[int]:
    return os.sched_getaffinity(0) if text == "all" else {int(one) for one in text.split(",")}


def measure_all(options: argparse.Namespace, data: Path) -> bool:
    data.mkdir(parents=True, exist_ok=True)
    # Two processors make runs on different machines comparable, and leave none idle by chance.
    os.sched_setaffinity(0, options.cpus or sorted(os.sched_getaffinity(0))[:2])
    os.environ["GST_REGISTRY"] = str(BUILD / "gst-registry.bin")
    os.environ["GST_PLUGIN_PATH"] = str(BUILD / "gst")
    paths = [str(BUILD / "python"), os.environ.get("PYTHONPATH")]
    os.environ["PYTHONPATH"] = os.pathsep.join(filter(None, paths))
    complete = True
    with tempfile.TemporaryDirectory(prefix="vb", dir="/tmp") as scratch:
        for question in options.questions:
            print(f"\n== {question} ==", flush=True)
            started = time.monotonic()
            campaign = questions.Campaign(
                BUILD, Path(scratch) / question, data / f"{question}.jsonl", options.quick,
                describe_machine(BUILD))
            QUESTIONS[question](campaign)
            for name in filter(None, [question, FURTHER_TABLES.get(question)]):
                print(getattr(tables, f"{name}_table")(campaign.records).to_text())
            print(f"{time.monotonic() - started:.0f} s", flush=True)
            complete = complete and campaign.complete
    return complete


def write_report(data: Path, target: Path) -> None:
    records = {question: read_records(data / f"{question}.jsonl") for question in QUESTIONS}
    print(f"\n== targets ==\n{target_table(records).to_text()}")
    report.write_summary(records, target / "benchmarks.md")
    try:
        import pictures  # only what draws needs matplotlib
        pictures.draw_all(records, report.CAPTIONS, target / "benchmarks")
    except ImportError as error:
        print(f"no pictures: {error}", file=sys.stderr)
    print(f"Summary: {target / 'benchmarks.md'}")


def main() -> int:
    options = parse_options()
    exit_on_signals()
    started = time.monotonic()
    build("bench", BUILD, "vlx_bench_all")
    data = BUILD / "data" / ("quick" if options.quick else "full")
    complete = options.report_only or measure_all(options, data)
    whole = not options.quick and options.questions == list(QUESTIONS)
    write_report(data, ROOT / "docs" if whole else data)
    print(f"Took {(time.monotonic() - started) / 60:.1f} minutes.")
    if not complete:
        print("Some measurements failed; see above.", file=sys.stderr)
    return 0 if complete else 1


if __name__ == "__main__":
    sys.exit(main())

"""Runs the benchmarks and writes their summary; see --help."""

import argparse
import os
from pathlib import Path
import signal
import subprocess
import sys
import tempfile
import time

from campaign import Campaign, Settings
from figures import read_records
import questions
import report
import tables
from targets import target_table
import transports

ROOT = Path(__file__).resolve().parent.parent
QUESTIONS = ["age", "overload", "busy", "fanout", "join", "micro"]
PRINTED = {"age": ["age", "allocation"], "fanout": ["fanout", "memory"]}
DESCRIPTION = """Builds the benchmarks, runs them beside every peer that is installed, prints the
tables, and writes the summary and its pictures to docs/benchmarks.md and docs/benchmarks/. Takes
about 18 minutes."""
EPILOGUE = """Raw data: BUILD_DIR/data/full/*.jsonl, or quick instead of full.
Exit code: 0 done, 1 a build or a measurement failed, 2 usage."""


def read_processors(text: str) -> set[int]:
    if text == "all":
        return os.sched_getaffinity(0)
    ranges = [[int(end) for end in part.split("-")] for part in text.split(",")]
    return {one for ends in ranges for one in range(ends[0], ends[-1] + 1)}


def parse_options() -> argparse.Namespace:
    parser = argparse.ArgumentParser(
        prog="scripts/bench", description=DESCRIPTION, epilog=EPILOGUE,
        formatter_class=argparse.RawDescriptionHelpFormatter)
    parser.add_argument("--quick", action="store_true",
                        help="short runs, every table all the same; under 4 minutes. The summary "
                        "goes to the build directory")
    parser.add_argument("--cpus", metavar="LIST", type=read_processors, default=None,
                        help='processors to use, such as "0,2-3", or "all"; default: the first two')
    parser.add_argument("--build-dir", type=lambda text: Path(text).resolve(),
                        default=ROOT / "build/bench", help="default: build/bench")
    parser.add_argument("--questions", metavar="LIST", default=",".join(QUESTIONS),
                        help="measure only these of %(default)s; the raw data of the others stays, "
                        "and the summary goes to the build directory")
    parser.add_argument("--only", metavar="LIST", default="",
                        help="measure only these transports (ids as in the raw data); the summary "
                        "goes to the build directory")
    parser.add_argument("--report-only", action="store_true",
                        help="do not measure: write the summary from the last run's raw data")
    options = parser.parse_args()
    options.questions = options.questions.split(",")
    options.only = list(filter(None, options.only.split(",")))
    known = {each.id for each in transports.ALL}
    for wrong in [*(set(options.questions) - set(QUESTIONS)), *(set(options.only) - known)]:
        parser.error(f"unknown: {wrong}")
    return options


def build_programs(build: Path) -> None:
    subprocess.run(["cmake", "--preset", "bench", "-B", build, "--log-level=NOTICE"], cwd=ROOT,
                   check=True)
    subprocess.run(["cmake", "--build", build, "--target", "vlx_bench_all"], check=True)


def choose_processors(wanted: set[int] | None) -> None:
    """Two processors make runs on different machines comparable, and leave none idle by chance."""
    os.sched_setaffinity(0, wanted or sorted(os.sched_getaffinity(0))[:2])


def print_tables(question: str, records: list) -> None:
    print(*(getattr(tables, f"{name}_table")(records).to_text()
            for name in PRINTED.get(question, [question])), sep="\n", end="")
    if question == "age":
        print(report.describe_net_cost(records))


def measure_all(options: argparse.Namespace, data: Path) -> bool:
    data.mkdir(parents=True, exist_ok=True)
    complete = True
    with tempfile.TemporaryDirectory(prefix="vb", dir="/tmp") as scratch:
        os.environ["TMPDIR"] = scratch
        os.environ["GST_REGISTRY"] = str(options.build_dir / "gst-registry.bin")
        if plugins := transports.plugin_directory(options.build_dir):
            os.environ["GST_PLUGIN_PATH"] = str(plugins)
        settings = Settings(options.build_dir, Path(scratch), data, options.quick, options.only)
        for question in options.questions:
            print(f"\n== {question} ==", flush=True)
            started = time.monotonic()
            campaign = Campaign(settings, question)
            getattr(questions, f"measure_{question}")(campaign)
            print_tables(question, campaign.records)
            print(f"{time.monotonic() - started:.0f} s", flush=True)
            complete = complete and campaign.complete
    return complete


def write_report(options: argparse.Namespace, data: Path) -> None:
    records = {question: read_records(data / f"{question}.jsonl") for question in QUESTIONS}
    whole = not (options.quick or options.only or options.questions != QUESTIONS)
    target = ROOT / "docs" if whole else data
    print(f"\n== targets ==\n{target_table(records).to_text()}")
    report.write_summary(records, target / "benchmarks.md")
    try:
        import pictures
        pictures.draw_all(records, target / "benchmarks")
    except ImportError as error:
        print(f"no pictures: {error}", file=sys.stderr)
    print(f"Summary: {target / 'benchmarks.md'}")


def end_at_signal(number: int, _: object) -> None:
    sys.exit(128 + number)  # and so through every "with" block


def main() -> int:
    options = parse_options()
    for number in (signal.SIGINT, signal.SIGTERM):
        signal.signal(number, end_at_signal)
    started = time.monotonic()
    try:
        build_programs(options.build_dir)
    except subprocess.CalledProcessError as error:
        print(f"the build failed: {error}", file=sys.stderr)
        return 1
    choose_processors(options.cpus)
    data = options.build_dir / "data" / ("quick" if options.quick else "full")
    complete = options.report_only or measure_all(options, data)
    write_report(options, data)
    print(f"Took {(time.monotonic() - started) / 60:.1f} minutes.")
    if not complete:
        print("Some measurements failed; see above.", file=sys.stderr)
    return 0 if complete else 1


if __name__ == "__main__":
    sys.exit(main())

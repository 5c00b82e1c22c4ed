"""Runs the benchmarks and writes their summary; see --help."""

import argparse
import os
from pathlib import Path
import signal
import subprocess
import sys
import tempfile
import time

from figures import read_records
import joining
import questions
import report
import tables
from targets import target_table
import transports

ROOT = Path(__file__).resolve().parent.parent
QUESTIONS = {"age": questions.measure_age, "overload": questions.measure_overload,
             "busy": questions.measure_busy, "fanout": questions.measure_fanout,
             "join": joining.measure_join, "micro": questions.measure_micro}
FURTHER_TABLES = {"age": "allocation", "fanout": "memory"}


def parse_options() -> argparse.Namespace:
    parser = argparse.ArgumentParser(
        prog="scripts/bench",
        description="Builds the benchmarks, runs them beside every peer that is installed, prints "
        "the tables, and writes the summary and its pictures to docs/benchmarks.md and "
        "docs/benchmarks/. Takes about 18 minutes.",
        epilog="Raw data: BUILD_DIR/data/full/*.jsonl, or quick instead of full. "
        "Exit code: 0 done, 1 a build or a measurement failed, 2 usage.")
    parser.add_argument("--quick", action="store_true",
                        help="short runs, every table all the same; under 4 minutes. The summary "
                        "goes to the build directory, as with --questions and --only")
    parser.add_argument("--cpus", metavar="LIST", type=read_processors,
                        help='processors to use, such as "0,2-3", or "all"; default: the first two')
    parser.add_argument("--build-dir", metavar="DIR", type=lambda text: Path(text).resolve(),
                        default=ROOT / "build/bench", help="default: build/bench")
    parser.add_argument("--questions", metavar="NAME", nargs="+", choices=QUESTIONS,
                        default=list(QUESTIONS), help="measure only these of %(choices)s; the raw "
                        "data of the others stays")
    parser.add_argument("--only", metavar="ID", nargs="+", choices=transports.ALL, default=[],
                        help="measure only these transports of %(choices)s")
    parser.add_argument("--report-only", action="store_true",
                        help="do not measure: write the summary from the last run's raw data")
    return parser.parse_args()


def read_processors(text: str) -> set[int]:
    if text == "all":
        return os.sched_getaffinity(0)
    ranges = [[int(end) for end in part.split("-")] for part in text.split(",")]
    return {one for ends in ranges for one in range(ends[0], ends[-1] + 1)}


def build_programs(build: Path) -> None:
    subprocess.run(["cmake", "--preset", "bench", "-B", build, "--log-level=NOTICE"], cwd=ROOT,
                   check=True)
    subprocess.run(["cmake", "--build", build, "--target", "vlx_bench_all"], check=True)


def describe_machine(build: Path) -> str:
    """Processor, cores, kernel, governor | build; and a warning if that makes figures useless."""
    names = [line.partition(": ")[2] for line in Path("/proc/cpuinfo").read_text().splitlines()
             if line.startswith("model name")]
    used, present = len(os.sched_getaffinity(0)), os.cpu_count()
    cores = f"{present} cores" if used == present else f"{used} of {present} cores"
    governor = Path("/sys/devices/system/cpu/cpu0/cpufreq/scaling_governor")
    system = os.uname()
    cache = (build / "CMakeCache.txt").read_text().splitlines()
    kind = next(line.partition("=")[2] for line in cache if line.startswith("CMAKE_BUILD_TYPE:"))
    sanitized = any(line.startswith("VLX_SANITIZE:") and line[-1] != "=" for line in cache)
    useless = kind == "Debug" or sanitized
    return ", ".join([
        *names[:1], cores, f"{system.sysname} {system.release}",
        f"governor {governor.read_text().strip()}" if governor.exists() else "no governor",
    ]) + f" | {kind.lower()}" + useless * " | WARNING: NOT OPTIMISED, these figures mean nothing"


def measure_all(options: argparse.Namespace, data: Path) -> bool:
    data.mkdir(parents=True, exist_ok=True)
    # Two processors make runs on different machines comparable, and leave none idle by chance.
    os.sched_setaffinity(0, options.cpus or sorted(os.sched_getaffinity(0))[:2])
    complete = True
    with tempfile.TemporaryDirectory(prefix="vb", dir="/tmp") as scratch:
        os.environ["GST_REGISTRY"] = str(options.build_dir / "gst-registry.bin")
        if plugins := transports.plugin_directory(options.build_dir):
            os.environ["GST_PLUGIN_PATH"] = str(plugins)
        for question in options.questions:
            print(f"\n== {question} ==", flush=True)
            started = time.monotonic()
            campaign = questions.Campaign(
                options.build_dir, Path(scratch) / question, data / f"{question}.jsonl",
                options.quick, options.only, describe_machine(options.build_dir))
            QUESTIONS[question](campaign)
            for name in filter(None, [question, FURTHER_TABLES.get(question)]):
                print(getattr(tables, f"{name}_table")(campaign.records).to_text())
            print(f"{time.monotonic() - started:.0f} s", flush=True)
            complete = complete and campaign.complete
    return complete


def write_report(options: argparse.Namespace, data: Path) -> None:
    records = {question: read_records(data / f"{question}.jsonl") for question in QUESTIONS}
    whole = not (options.quick or options.only or options.questions != list(QUESTIONS))
    target = ROOT / "docs" if whole else data
    print(f"\n== targets ==\n{target_table(records).to_text()}")
    report.write_summary(records, target / "benchmarks.md")
    try:
        import pictures  # only what draws needs matplotlib
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
    data = options.build_dir / "data" / ("quick" if options.quick else "full")
    complete = options.report_only or measure_all(options, data)
    write_report(options, data)
    print(f"Took {(time.monotonic() - started) / 60:.1f} minutes.")
    if not complete:
        print("Some measurements failed; see above.", file=sys.stderr)
    return 0 if complete else 1


if __name__ == "__main__":
    sys.exit(main())

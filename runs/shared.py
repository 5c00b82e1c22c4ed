"""What the benchmarks and the stress runs share: the build, the machine, processes, figures and
tables."""

import ctypes
import itertools
import math
import os
from pathlib import Path
import re
import signal
import statistics
import subprocess
import sys
import time

ROOT = Path(__file__).resolve().parent.parent


def build(preset: str, directory: Path, *targets: str) -> None:
    """Also on a machine that has nothing yet."""
    if not (directory / "CMakeCache.txt").exists():
        groups = ("build", "test", *({preset} & {"bench"}))
        subprocess.run([ROOT / "scripts/setup", *groups], check=True)
    subprocess.run(["cmake", "--preset", preset, "-B", directory, "--log-level=NOTICE"], cwd=ROOT,
                   check=True)
    subprocess.run(["cmake", "--build", directory, "--target", *targets], check=True)


def describe_machine(build_directory: Path) -> str:
    """Processor, cores, kernel, governor, load | build."""
    governor = Path("/sys/devices/system/cpu/cpu0/cpufreq/scaling_governor")
    kind = re.findall("CMAKE_BUILD_TYPE:.*=(.*)", (build_directory / "CMakeCache.txt").read_text())
    return ", ".join([
        *re.findall("model name.*: (.*)", Path("/proc/cpuinfo").read_text())[:1],
        f"{len(os.sched_getaffinity(0))} of {os.cpu_count()} cores",
        f"{os.uname().sysname} {os.uname().release}",
        governor.read_text().strip() if governor.exists() else "no governor",
        f"load {os.getloadavg()[0]:.1f}"]) + f" | {kind[0].lower()}"


def die_with_parent() -> None:
    """Makes the calling process end when its parent does, for whatever reason."""
    ctypes.CDLL(None).prctl(1, signal.SIGKILL)  # PR_SET_PDEATHSIG


def exit_on_signals() -> None:
    """And so through every "with" block."""
    for number in (signal.SIGINT, signal.SIGTERM):
        signal.signal(number, lambda caught, _: sys.exit(128 + caught))


def pss_kib(pid: int) -> float:
    rollup = Path(f"/proc/{pid}/smaps_rollup").read_text()
    return float(re.search(r"^Pss: +(\d+)", rollup, re.MULTILINE)[1])


def make_name(numbers=itertools.count()) -> str:
    """A unique stream name."""
    return f"run-{os.getpid()}-{next(numbers)}"


def wait_until(limit: float, condition) -> bool:
    deadline = time.monotonic() + limit
    while not condition():
        if time.monotonic() >= deadline:
            return False
        time.sleep(0.001)
    return True


def median(values: list[float]) -> float:
    return statistics.median(values) if values else math.nan


def percentile(values: list[float], share: float) -> float:
    """The smallest value that at least this share, 0 to 1, of all values does not exceed."""
    return sorted(values)[max(math.ceil(share * len(values)), 1) - 1] if values else math.nan


def format_number(value: float) -> str:
    """With a precision that suits its size."""
    if not math.isfinite(value):
        return "-" if math.isnan(value) else "never"
    return f"{value:.{0 if abs(value) >= 100 else 1 if abs(value) >= 10 else 2}f}"


class Table:
    """Rows of text. A heading that begins with "<" stands, like its column, at the left."""

    def __init__(self, *headings: str) -> None:
        self._headings = [heading.removeprefix("<") for heading in headings]
        self._left = [heading.startswith("<") for heading in headings]
        self._rows: list[list[str]] = []

    def add(self, *cells: object) -> None:
        """Numbers with a part behind the point get a precision that suits their size."""
        self._rows.append([format_number(cell) if isinstance(cell, float) else str(cell)
                           for cell in cells])

    def to_text(self) -> str:
        lines = [self._headings, *self._rows]
        widths = [max(map(len, column)) for column in zip(*lines)]
        return "".join(
            "  ".join(cell.ljust(width) if left else cell.rjust(width)
                      for cell, width, left in zip(line, widths, self._left)).rstrip() + "\n"
            for line in lines)

    def to_markdown(self) -> str:
        rule = ["---" if left else "---:" for left in self._left]
        lines = [self._headings, rule, *self._rows]
        return "".join(f"| {' | '.join(line)} |\n" for line in lines)

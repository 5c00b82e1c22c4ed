"""One run of the benchmarks: what it may use, and its raw data."""

from dataclasses import dataclass, field
import json
import math
import os
from pathlib import Path
import sys

from figures import Record
from transports import ALL, Transport, obstacle


@dataclass(frozen=True)
class Settings:
    build: Path
    scratch: Path  # short: socket names have a limit
    data: Path
    quick: bool
    only: list[str] = field(default_factory=list)  # ids of transports; empty: all

    def choose(self, full: object, quick: object) -> object:
        return quick if self.quick else full


class Campaign:
    """One question at work: its private directory, its transports and its raw data."""

    def __init__(self, settings: Settings, question: str) -> None:
        self.settings = settings
        self.build = settings.build
        self.directory = settings.scratch / question
        self.directory.mkdir()
        self.records: list[Record] = []
        self.complete = True
        self._named: set[str] = set()  # transports that are known to be left out
        self._output = open(settings.data / f"{question}.jsonl", "w", encoding="utf-8")

    def begin(self, counts: str) -> None:
        """Prints the machine and the counts, and why they mean nothing if they do."""
        warning = describe_warning(self.build)
        setup = f"{describe_machine(self.build)} | {counts}"
        print(*filter(None, [warning, setup]), sep="\n", flush=True)
        self.add({"setup": setup, "warning": warning})

    def add(self, record: Record | None, **further: object) -> None:
        """Keeps what was measured; none means that it could not be, and the run has failed."""
        if record is None:
            self.complete = False
            return
        record = {key: None if isinstance(value, float) and math.isnan(value) else value
                  for key, value in {**record, **further}.items()}
        self._output.write(json.dumps(record) + "\n")
        self._output.flush()
        self.records.append(record)

    def select(self, *ids: str) -> list[Transport]:
        """Those that are wanted and can run, in the order of the tables; the others are named."""
        selected = []
        for transport in ALL:
            if transport.id not in (self.settings.only or ids) or transport.id not in ids:
                continue
            reason = obstacle(self.build, transport)
            if not reason:
                selected.append(transport)
            elif transport.id not in self._named:
                self._named.add(transport.id)
                print(f"{transport.label} is left out: {reason}", file=sys.stderr)
        return selected


def rotate(items: list, turn: int) -> list:
    """The order of a round: each begins one further, so that nobody is always measured behind the
    same neighbour."""
    start = turn % len(items) if items else 0
    return items[start:] + items[:start]


def read_cache(build: Path) -> dict[str, str]:
    """Names and values of CMake's cache."""
    entries = {}
    for line in (build / "CMakeCache.txt").read_text().splitlines():
        name, _, value = line.partition("=")
        entries[name.partition(":")[0]] = value
    return entries


def describe_machine(build: Path) -> str:
    """Processor, cores, kernel, governor | build."""
    names = [line.partition(": ")[2] for line in Path("/proc/cpuinfo").read_text().splitlines()
             if line.startswith("model name")]
    used, present = len(os.sched_getaffinity(0)), os.cpu_count()
    cores = f"{present} cores" if used == present else f"{used} of {present} cores"
    governor = Path("/sys/devices/system/cpu/cpu0/cpufreq/scaling_governor")
    system = os.uname()
    return ", ".join([
        names[0] if names else "unknown processor", cores, f"{system.sysname} {system.release}",
        governor.read_text().strip() if governor.exists() else "no governor",
    ]) + f" | {read_cache(build)['CMAKE_BUILD_TYPE'].lower()}"


def describe_warning(build: Path) -> str:
    cache = read_cache(build)
    reasons = []
    if cache["CMAKE_BUILD_TYPE"] not in ("Release", "RelWithDebInfo", "MinSizeRel"):
        reasons.append("not optimised")
    if cache.get("VLX_SANITIZE"):
        reasons.append("sanitized")
    if not reasons:
        return ""
    return f"WARNING: these figures mean nothing, the build is {' and '.join(reasons)}"

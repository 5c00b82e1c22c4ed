"""What is measured: one function for each question, and the order in which its transports take
turns."""

from dataclasses import dataclass, replace
import json
import os
from pathlib import Path
import subprocess

from figures import Record
from session import Plan, busy_loops, run_session
from tables import MANY_OBJECTS
from targets import SIZES
import transports as t

COMPARED = [t.OURS, t.KIT, t.RAW, t.POLLS, t.ZMQ, t.NNG]  # have a target in the age table
EVERYBODY = [*COMPARED, t.NANOMSG, t.ZMQ_TUNED, t.NNG_TUNED, t.UNIX, t.GST_SHM, t.GST_OURS]
PICTURE = 1920 * 1080 * 3 // 2 - 20  # a whole picture with the benchmark's header
BY_REFERENCE = [t.KIT_SHARED, t.KIT_IN_PLACE, t.GST_SHARED]


@dataclass
class Campaign:
    """One question at work: what it may use, and its raw data."""
    build: Path
    directory: Path  # private; short: socket names have a limit
    output: Path  # raw data
    quick: bool
    machine: str

    def __post_init__(self) -> None:
        self.directory.mkdir()
        self.output.write_text("")
        self.records: list[Record] = []
        self.complete = True

    def begin(self, counts: str) -> None:
        print(f"{self.machine} | {counts}", flush=True)
        self.add({"setup": f"{self.machine} | {counts}"})

    def add(self, record: Record | None, **further: object) -> None:
        """Keeps what was measured; none means that it could not be, and the run has failed."""
        if record is None:
            self.complete = False
            return
        # Without NaN, the one value that does not equal itself.
        record = {key: value for key, value in {**record, **further}.items() if value == value}
        with self.output.open("a") as output:
            output.write(json.dumps(record) + "\n")
        self.records.append(record)

    def choose(self, full: object, quick: object) -> object:
        return quick if self.quick else full

    def select(self, ids: list[str]) -> list[t.Transport]:
        """Those that can run, in the order of the tables; the others are named."""
        obstacles = {each: t.obstacle(self.build, each) for each in t.ALL.values()
                     if each.id in ids}
        for each in filter(obstacles.get, obstacles):
            print(f"{each.label} is left out: {obstacles[each]}")
        return [each for each, obstacle in obstacles.items() if not obstacle]

    def measure_round(self, transports: list[t.Transport], plan: Plan, turn: int) -> None:
        """Each round begins with the next transport, so that none always follows the same one."""
        start = turn % len(transports) if transports else 0
        for transport in transports[start:] + transports[:start]:
            self.add(run_session(self.build, transport, self.directory, plan), round=turn)


def measure_age(campaign: Campaign) -> None:
    """How old is a frame when it arrives, and what does it cost? A steady 1,000 frames a second."""
    rounds, further = campaign.choose(full=(4, 21), quick=(3, 2))
    frames, warm_up = campaign.choose(full=(800, 80), quick=(150, 30))
    everybody, compared = campaign.select(EVERYBODY), campaign.select(COMPARED)
    campaign.begin(f"{frames} frames, {warm_up} warm-up, {rounds} rounds interleaved; at 1,920 "
                   f"bytes {further} more of those whose ratios have a target")
    for turn in range(rounds + further):
        plan = Plan(frames=frames, warmup=warm_up)
        # What the sender's process costs without sending is part of every cost.
        dry = run_session(campaign.build, everybody[0], campaign.directory,
                          replace(plan, dry=True, receivers=0))
        campaign.add(dry and {"pacing_cpu_us": dry["sender_cpu_us"]}, round=turn)
        if turn >= rounds:
            campaign.measure_round(compared, plan, turn)
            continue
        for size in (64, 1920, 7680):
            plan = Plan(bytes=size, frames=frames, warmup=warm_up)
            campaign.measure_round(everybody, plan, turn)


def measure_size(campaign: Campaign) -> None:
    """How does the age of a frame grow with its size, each at a typical rate?"""
    rounds, seconds = campaign.choose(full=(3, 1.5), quick=(2, 0.4))
    members = campaign.select([t.KIT, *BY_REFERENCE, t.ZMQ, t.NNG, t.UNIX, t.GST_SHM, t.GST_OURS,
                               t.PYTHON, t.PYTHON_IN_PLACE, t.PYZMQ])
    videos = campaign.select([t.GST_SHM, t.GST_VIDEO])
    campaign.begin(f"frames for {seconds} s, at most 500, {rounds} rounds interleaved")
    for turn in range(rounds):
        for size, rate in SIZES:
            frames = min(int(seconds * rate), 500)
            plan = Plan(bytes=size, rate=rate, frames=frames, warmup=frames // 10)
            campaign.measure_round(members, plan, turn)
        frames = campaign.choose(full=300, quick=30)
        plan = Plan(bytes=PICTURE, rate=30, frames=frames, warmup=30, receivers=3)
        campaign.measure_round(videos, plan, turn)


def measure_overload(campaign: Campaign) -> None:
    """What happens to the age of frames when the producer sends as fast as the call returns?"""
    sizes, rounds = campaign.choose(full=((1920, 65536), 3), quick=((1920,), 3))
    flood_ms, warm_up = campaign.choose(full=1000, quick=200), 2000
    everybody = campaign.select([*EVERYBODY, t.KIT_SHARED, t.GST_SHARED])
    campaign.begin(f"flood of {flood_ms} ms, {warm_up} frames warm-up, {rounds} rounds interleaved")
    for turn in range(rounds):
        for size in sizes:
            plan = Plan(bytes=size, flood=flood_ms, warmup=warm_up)
            campaign.measure_round(everybody, plan, turn)


def measure_busy(campaign: Campaign) -> None:
    """What is lost, and how old do frames get, where more wants to run than there are processors?"""
    frames = campaign.choose(full=10000, quick=1000)
    loops = len(os.sched_getaffinity(0)) + 1
    peers = [t.KIT, t.KIT_RT, t.ZMQ, t.NNG, t.GST_SHM]
    members = {1920: campaign.select([t.OURS, t.RAW, *peers]),
               65536: campaign.select([t.KIT_SHARED, t.KIT_SHARED_RT, *peers])}
    campaign.begin(f"{loops} busy loops, {frames} frames")
    with busy_loops(loops):
        for size, transports in members.items():
            plan = Plan(bytes=size, frames=frames, warmup=100, patience=5)
            campaign.measure_round(transports, plan, 0)


def measure_fanout(campaign: Campaign) -> None:
    """What does each further receiver cost? 100 frames of 1,920 bytes a second."""
    counts, rounds = campaign.choose(full=((1, 2, 4, 8, 16, 32, 64), 3), quick=((1, 32), 2))
    frames, warm_up = campaign.choose(full=(100, 10), quick=(20, 3))
    members = campaign.select([t.OURS, t.RAW, t.ZMQ, t.NNG, t.UNIX])
    campaign.begin(f"{frames} frames, {warm_up} warm-up, {rounds} rounds interleaved")
    for turn in range(rounds):
        for receivers, objects in [*((count, 1) for count in counts), (1, MANY_OBJECTS)]:
            plan = Plan(rate=100, frames=frames, warmup=warm_up, receivers=receivers,
                        objects=objects)
            campaign.measure_round(members, plan, turn)


def measure_micro(campaign: Campaign) -> None:
    """What do the packet functions cost, beside a plain copy of the same bytes?"""
    program = campaign.build / "bench" / "vlx_bench_micro"
    if not program.exists():
        print("micro is left out: not built")
        return
    seconds, rounds = campaign.choose(full=0.1, quick=0.02), 5
    campaign.begin(f"at least {seconds} s each, {rounds} rounds interleaved")
    done = subprocess.run(
        [program, f"--benchmark_min_time={seconds}", f"--benchmark_repetitions={rounds}",
         "--benchmark_enable_random_interleaving=true", "--benchmark_format=json"],
        stdout=subprocess.PIPE, stderr=subprocess.DEVNULL, check=True)
    for run in json.loads(done.stdout)["benchmarks"]:
        if run["run_type"] == "iteration":
            operation, size = run["name"].split("/")[:2]
            campaign.add(None if run.get("error_occurred") else {
                "operation": operation, "bytes": int(size), "round": run["repetition_index"],
                "ns": run["real_time"], "bytes_per_s": run["bytes_per_second"],
                "allocations": run["allocations"]})

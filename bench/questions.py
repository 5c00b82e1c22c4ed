"""What is measured: one function for each question, and the order in which its transports take
turns."""

import json
import os
from pathlib import Path
import subprocess
import sys

from campaign import Campaign, rotate
import joining
from session import BusyLoops, Plan, measure_pacing_us, run_session
from tables import MANY_OBJECTS
import transports as t

EVERYBODY = [t.OURS, t.KIT, t.RAW, t.POLLS, "nanomsg", t.ZMQ, "zmq-tuned", t.NNG, "nng-tuned",
             t.UNIX, t.GST_SHM, t.GST_OURS]
COMPARED = [t.OURS, t.KIT, t.RAW, t.POLLS, t.ZMQ, t.NNG]  # in the targets of the age table


def measure_round(campaign: Campaign, transports: list, plan: Plan, turn: int) -> None:
    for transport in rotate(transports, turn):
        record = run_session(campaign.build, transport, campaign.directory, plan)
        campaign.add(record, round=turn)


def measure_age(campaign: Campaign) -> None:
    """How old is a frame when it arrives, and what does it cost? A steady 1,000 frames a second."""
    settings = campaign.settings
    rounds, further = settings.choose(full=(5, 20), quick=(3, 2))
    frames, warm_up = settings.choose(full=(1000, 100), quick=(150, 30))
    everybody, compared = campaign.select(*EVERYBODY), campaign.select(*COMPARED)
    campaign.begin(f"{frames} frames, {warm_up} warm-up, {rounds} rounds interleaved; at 1,920 bytes "
                   f"{further} more of those whose ratios have a target")
    for turn in range(rounds + further):
        plan = Plan(frames=frames, warm_up=warm_up)
        # What the sender's process costs without sending is part of every cost.
        pacing = measure_pacing_us(campaign.build, everybody[0], campaign.directory, plan)
        campaign.add(pacing and {"pacing_cpu_us": pacing, "round": turn})
        if turn >= rounds:
            measure_round(campaign, compared, plan, turn)
            continue
        for size in (64, 1920, 7680, 65536):
            plan = Plan(bytes=size, frames=frames, warm_up=warm_up)
            measure_round(campaign, everybody, plan, turn)


def measure_overload(campaign: Campaign) -> None:
    """What happens to the age of frames when the producer sends as fast as the call returns?"""
    settings = campaign.settings
    sizes, rounds = settings.choose(full=((1920, 65536), 5), quick=((1920,), 3))
    flood_ms, warm_up = settings.choose(full=1000, quick=200), 2000
    everybody = campaign.select(*EVERYBODY)
    campaign.begin(f"flood of {flood_ms} ms, {warm_up} frames warm-up, {rounds} rounds interleaved")
    for turn in range(rounds):
        for size in sizes:
            plan = Plan(bytes=size, flood_ms=flood_ms, warm_up=warm_up)
            measure_round(campaign, everybody, plan, turn)


def measure_busy(campaign: Campaign) -> None:
    """What is lost, and how old do frames get, where more wants to run than there are processors?"""
    rounds, frames = campaign.settings.choose(full=(1, 10000), quick=(1, 1000))
    loops = len(os.sched_getaffinity(0)) + 1
    members = campaign.select(t.OURS, t.KIT, t.KIT_RT, t.RAW, t.ZMQ, t.NNG, t.GST_SHM)
    campaign.begin(f"{loops} busy loops, {frames} frames, {rounds} rounds")
    plan = Plan(frames=frames, warm_up=100, patience=5)
    with BusyLoops(loops):
        for turn in range(rounds):
            measure_round(campaign, members, plan, turn)


def measure_fanout(campaign: Campaign) -> None:
    """What does each further receiver cost? 100 frames of 1,920 bytes a second."""
    settings = campaign.settings
    counts, rounds = settings.choose(full=((1, 2, 4, 8, 16, 32, 64), 4), quick=((1, 32), 2))
    frames, warm_up = settings.choose(full=(100, 10), quick=(20, 3))
    members = campaign.select(t.OURS, t.RAW, t.ZMQ, t.NNG, t.UNIX)
    campaign.begin(f"{frames} frames, {warm_up} warm-up, {rounds} rounds interleaved")
    for turn in range(rounds):
        for receivers, objects in [*((count, 1) for count in counts), (1, MANY_OBJECTS)]:
            plan = Plan(rate=100, frames=frames, warm_up=warm_up, memory=True, receivers=receivers,
                        objects=objects)
            measure_round(campaign, members, plan, turn)


def measure_join(campaign: Campaign) -> None:
    """How fast is a receiver in, and back in? 1,000 frames of 1,920 bytes a second."""
    repetitions = campaign.settings.choose(full=40, quick=4)
    campaign.begin(f"{repetitions} repetitions interleaved")
    for scenario in joining.SCENARIOS:
        joining.measure_scenario(campaign, scenario, repetitions)


def measure_micro(campaign: Campaign) -> None:
    """What do the packet functions cost, beside a plain copy of the same bytes?"""
    program = campaign.build / "bench" / "vlx_bench_micro"
    if not program.exists():
        print("micro is left out: not built")
        return
    seconds, rounds = campaign.settings.choose(full=0.1, quick=0.02), 5
    campaign.begin(f"at least {seconds} s each, {rounds} rounds interleaved")
    output = Path(campaign.directory) / "micro.json"
    done = subprocess.run(
        [program, f"--benchmark_min_time={seconds}", f"--benchmark_repetitions={rounds}",
         "--benchmark_enable_random_interleaving=true", "--benchmark_out_format=json",
         f"--benchmark_out={output}"], capture_output=True, text=True, check=False)
    if done.returncode != 0:
        print(done.stderr, file=sys.stderr)
        campaign.add(None)
        return
    for run in json.loads(output.read_text())["benchmarks"]:
        if run["run_type"] != "iteration":
            continue
        if run.get("error_occurred"):
            campaign.add(None)
            continue
        operation, size = run["name"].split("/")[:2]
        campaign.add({"operation": operation, "bytes": int(size), "ns": run["real_time"],
                      "bytes_per_s": run["bytes_per_second"], "allocations": run["allocations"],
                      "round": run["repetition_index"]})

"""Faults, loss and growth, with processes of the kit; see scripts/stress --help."""

import argparse
import os
from pathlib import Path
import random
import shutil
import signal
import subprocess
import sys
import tempfile

import chaos
import endurance
import fleet
import soak

TOP = Path(__file__).resolve().parent.parent

DESCRIPTIONS = {
    "chaos": """Provokes faults, one after the other: kills at each step of the sender's set-up, 32
receivers killed and stopped at random, misbehaving clients and impostors, another user in the
sender's directory, exhausted descriptors and threads, a full, read-only and removed TMPDIR, a
network clock that stops, jumps or talks rubbish. A row is ok, FAILED, limit (documented behaviour
that is no success) or skipped: as root it also mounts file systems, in a private mount namespace,
and runs processes as other users.""",
    "endurance": """One sender and 8 receivers: loss in 60 s, three times; 20 restarts of the sender;
a receiver that stands still; the sender, the kit's and the tool's, stopped, resumed and killed at
random for 150 s. Each loss is told beside the longest pause that an idle process saw then.""",
    "soak": """One sender and 16 receivers, with a new sequence every 2 s, a client that comes and
goes, and 4 of the receivers leaving and joining again and again; memory, descriptors, threads and
loss of each process over time.""",
}


def minutes(text: str) -> int:
    if 1 <= int(text) <= 1440:
        return int(text)
    raise ValueError


def parse_arguments() -> argparse.Namespace:
    parser = argparse.ArgumentParser(
        prog="stress", epilog="Each run ends with a table; exit 0 if every limit in it was kept.")
    modes = parser.add_subparsers(dest="mode", required=True)
    for mode, text in DESCRIPTIONS.items():
        command = modes.add_parser(mode, description=text, help=text.split(":")[0])
        command.add_argument("--build-dir", type=Path, default=TOP / "build/release", metavar="DIR",
                             help="where to build what is missing (build/release)")
        command.add_argument("--built", type=Path, metavar="DIR", help="build nothing, take this")
        command.add_argument("--seed", type=int, default=random.randrange(1 << 32),
                             help="the random choices of an earlier run")
        if mode == "endurance":
            command.add_argument("--quick", action="store_true", help="shorter, for a first look")
            continue
        command.add_argument("minutes", type=minutes, nargs="?", metavar="MINUTES",
                             default=5 if mode == "chaos" else 30,
                             help="how long it may take, about (%(default)s)")
        if mode == "soak":
            command.add_argument("--picture", type=Path, default=f"/tmp/vlx-soak-{os.getpid()}.svg",
                                 metavar="FILE", help="to draw (%(default)s)")
            continue
        command.add_argument("--only", metavar="TEXT", default="",
                             help="only faults whose name holds the text: " +
                             ", ".join(chaos.FAULTS))
        command.add_argument("--lenient", action="store_true", help=(
            "for a machine that does other work: tells losses, but does not judge them, and waits "
            "20 s instead of 3 for what has to come back"))
    options = parser.parse_args()
    if options.mode == "chaos" and not chaos.select(options.only):
        parser.error(f"no fault's name holds \"{options.only}\"; there are: "
                     f"{', '.join(chaos.FAULTS)}")
    return options


def build(directory: Path) -> Path:
    if not (directory / "CMakeCache.txt").exists():
        subprocess.run([TOP / "scripts/setup", "build", "test"], check=True)
        subprocess.run(["cmake", "--preset", "release", "-B", directory], cwd=TOP, check=True)
    subprocess.run(["cmake", "--build", directory, "--target", "vlx_stress_end", "vlx"], check=True)
    return directory


def main() -> int:
    options = parse_arguments()
    built = (options.built or build(options.build_dir)).resolve()
    fleet.End.program, tool = built / "stress/vlx_stress_end", built / "tools/vlx"
    random.seed(options.seed)
    signal.signal(signal.SIGTERM, signal.getsignal(signal.SIGINT))
    print(f"{options.mode} | {len(os.sched_getaffinity(0))} processors | Linux {os.uname().release} "
          f"| load {os.getloadavg()[0]:.1f} | seed {options.seed}\n", flush=True)

    directory = Path(tempfile.mkdtemp(prefix="vs-", dir="/tmp"))  # short, as socket names must be
    directory.chmod(0o777)  # processes of another user make their directories in it too
    os.environ["TMPDIR"] = str(directory)
    try:
        if options.mode == "soak":
            passed = soak.run(options.minutes, options.picture)
        elif options.mode == "endurance":
            passed = endurance.run(endurance.QUICK if options.quick else endurance.FULL, tool)
        else:
            passed = chaos.run_faults(chaos.select(options.only), chaos.Run(
                options.minutes, fleet.PauseProbe(), directory, tool, options.lenient))
    except KeyboardInterrupt:
        print("stress: interrupted", file=sys.stderr)
        passed = False
    finally:
        fleet.kill_all()
        shutil.rmtree(directory, ignore_errors=True)
    return 0 if passed else 1


if __name__ == "__main__":
    sys.exit(main())

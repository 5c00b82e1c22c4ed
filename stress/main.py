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

TOP = Path(__file__).resolve().parent.parent
EXIT_FAILED, EXIT_SKIPPED = 1, 77

DESCRIPTIONS = {
    "chaos": """Provokes faults, one after the other: kills at each step of the sender's set-up, 32
receivers killed and stopped at random, misbehaving clients and impostors, another user in the
sender's directory, exhausted descriptors and threads, a full, read-only and removed TMPDIR, a
network clock that stops, jumps or talks rubbish. A row is ok, FAILED, limit (documented behaviour
that is no success) or skipped: some need root, who also mounts file systems, in a private mount
namespace, and runs processes as other users.""",
    "endurance": """One sender and 8 receivers. Loss: 100 frames of 1,920 bytes per second for 60 s,
three times. Restart: the sender is killed with -9 and started again, 20 times. Stop: one receiver
is stopped with SIGSTOP, and resumed. Faults: the sender, the kit's and the tool's, is stopped,
resumed and killed at random for 150 s. Each loss is told beside the longest pause that an idle
process saw at that moment.""",
    "soak": """One sender and 16 receivers, with a new sequence every 2 s, a client that comes and
goes, and 4 of the receivers leaving and joining again and again; samples memory, descriptors,
threads and loss of each process, and draws them over time.""",
}


def parse_arguments(faults: dict) -> argparse.Namespace:
    parser = argparse.ArgumentParser(
        prog="stress", epilog="Each run ends with a table; exit 0 if every limit in it was kept.")
    modes = parser.add_subparsers(dest="mode", required=True, metavar="chaos|endurance|soak")
    for mode, text in DESCRIPTIONS.items():
        command = modes.add_parser(mode, description=text, help=text.split(".")[0])
        command.add_argument("--build-dir", type=Path, default=TOP / "build/release", metavar="DIR",
                             help="where to build what is missing (build/release)")
        command.add_argument("--built", type=Path, metavar="DIR", help="build nothing, take this")
        if mode == "endurance":
            command.add_argument("--quick", action="store_true", help="shorter, for a first look")
        else:
            command.add_argument("minutes", type=minutes, nargs="?",
                                 default=5 if mode == "chaos" else 30,
                                 help="how long it may take, about (%(default)s)")
        if mode == "chaos":
            command.add_argument("--only", metavar="TEXT", default="",
                                 help="only faults whose name holds the text: " + ", ".join(faults))
            command.add_argument("--lenient", action="store_true", help=(
                "for a machine that does other work: tells losses, but does not judge them, and "
                "waits 20 s instead of 3 for what has to come back"))
        if mode == "soak":
            command.add_argument("--picture", type=Path, metavar="FILE", help="SVG (in /tmp)")
        command.add_argument("--seed", type=int, help="the random choices of an earlier run")
    options = parser.parse_args()
    if options.mode == "chaos" and not any(options.only in name for name in faults):
        parser.error(f"no fault's name holds \"{options.only}\"; there are: {', '.join(faults)}")
    return options


def minutes(text: str) -> int:
    value = int(text)
    if not 1 <= value <= 24 * 60:
        raise ValueError
    return value


def build(directory: Path) -> Path:
    if not (directory / "CMakeCache.txt").exists():
        subprocess.run([TOP / "scripts/setup", "build", "test"], check=True)
        subprocess.run(["cmake", "--preset", "release", "-B", directory], cwd=TOP, check=True)
    subprocess.run(["cmake", "--build", directory, "--target", "vlx_stress_end", "vlx"], check=True)
    return directory


def main() -> int:
    import chaos
    import endurance
    import fleet
    import soak

    options = parse_arguments(chaos.FAULTS)
    built = options.built or build(options.build_dir)
    fleet.End.program = (built / "stress/vlx_stress_end").resolve()
    tool = (built / "tools/vlx").resolve()
    seed = random.randrange(1 << 32) if options.seed is None else options.seed
    random.seed(seed)
    signal.signal(signal.SIGTERM, signal.getsignal(signal.SIGINT))
    print(f"{options.mode} | {fleet.describe_machine()} | seed {seed}\n", flush=True)

    directory = Path(tempfile.mkdtemp(prefix="vs-", dir="/tmp"))  # short, as socket names must be
    directory.chmod(0o777)  # processes of another user make their directories in it too
    os.environ["TMPDIR"] = str(directory)
    try:
        if options.mode == "soak":
            picture = options.picture or Path(f"/tmp/vlx-soak-{os.getpid()}.svg")
            passed = soak.run(options.minutes, picture)
        elif options.mode == "endurance":
            passed = endurance.run(endurance.QUICK if options.quick else endurance.FULL, tool)
        else:
            run = chaos.Run(options.minutes, fleet.PauseProbe(), directory, tool, options.lenient)
            passed = chaos.run_faults(run, [
                name for name in chaos.FAULTS
                if options.only in (name if options.only not in chaos.FAULTS else [name])])
    except KeyboardInterrupt:
        print("stress: interrupted", file=sys.stderr)
        passed = False
    finally:
        fleet.kill_all()
        shutil.rmtree(directory, ignore_errors=True)
    return 0 if passed else EXIT_FAILED


if __name__ == "__main__":
    sys.exit(main())

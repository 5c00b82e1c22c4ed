"""Faults, loss and growth, with processes of the kit; see scripts/stress --help."""

import argparse
import os
from pathlib import Path
import random
import resource
import signal
import sys
import tempfile

sys.path.append(str(Path(__file__).resolve().parent.parent / "runs"))
import chaos  # noqa: E402, F401  each of these adds its rows
import endurance  # noqa: E402, F401
import fleet  # noqa: E402
import rows  # noqa: E402
from shared import ROOT, build, describe_machine  # noqa: E402
import soak  # noqa: E402, F401

# What a mode does, and how many minutes it takes unless told otherwise.
MODES = {
    "chaos": ("""Provokes faults, one after the other: kills at each step of the sender's set-up, 32
receivers killed and stopped at random, misbehaving clients and impostors, another user in the
sender's directory, exhausted descriptors and threads, a full, read-only and removed TMPDIR, a
network clock that stops, jumps or talks rubbish. A row is ok, FAILED, limit (documented behaviour
that is no success) or skipped: as root it also mounts file systems, in a private mount namespace,
and runs processes as other users.""", 5),
    "endurance": ("""One sender and 8 receivers: loss in 60 s, three times; 20 restarts of the
sender; a receiver that stands still; the sender, the kit's and the tool's, stopped, resumed and
killed at random for 160 s. Each loss is told beside the longest pause that an idle process saw
then.""", 8),
    "soak": ("""One sender and 16 receivers, with a new sequence every 2 s, a client that comes and
goes, and 4 of the receivers leaving and joining again and again; memory, descriptors, threads and
loss of each process over time.""", 30),
}


def read_minutes(text: str) -> int:
    if 1 <= int(text) <= 1440:
        return int(text)
    raise ValueError


def parse_arguments() -> argparse.Namespace:
    parser = argparse.ArgumentParser(
        prog="stress", epilog="Each run ends with a table; exit 0 if every limit in it was kept, "
        "77 if everything was skipped.")
    modes = parser.add_subparsers(dest="mode", required=True)
    for mode, (text, minutes) in MODES.items():
        command = modes.add_parser(mode, description=text, help=text.split(":")[0])
        command.add_argument("minutes", type=read_minutes, nargs="?", metavar="MINUTES",
                             default=minutes, help="how long it may take, about (%(default)s)")
        command.add_argument("--built", type=Path, metavar="DIR", help="build nothing, take this")
        command.add_argument("--seed", type=int, default=random.randrange(1 << 32),
                             help="the random choices of an earlier run")
        command.add_argument("--only", metavar="TEXT", default="",
                             help="only what has TEXT in its name: " + ", ".join(rows.ROWS[mode]))
        command.add_argument("--lenient", action="store_true", help=(
            "for a machine that does other work: tells losses, but does not judge them, and waits "
            "20 s instead of 3 for what has to come back"))
        command.add_argument("--picture", type=Path, default=f"/tmp/vlx-soak-{os.getpid()}.svg",
                             metavar="FILE", help="that soak draws (%(default)s)")
    options = parser.parse_args()
    options.names = rows.select(options.mode, options.only)
    if not options.names:
        parser.error(f"nothing has \"{options.only}\" in its name; there are: "
                     f"{', '.join(rows.ROWS[options.mode])}")
    return options


def main() -> int:
    options = parse_arguments()
    built = options.built or ROOT / "build/release"
    if not options.built:
        build("release", built, "vlx_stress_end", "vlx")
    fleet.End.program = built.resolve() / "stress/vlx_stress_end"
    random.seed(options.seed)
    signal.signal(signal.SIGTERM, signal.getsignal(signal.SIGINT))
    resource.setrlimit(resource.RLIMIT_CORE, (0, 0))
    print(f"{options.mode} | {describe_machine(built)} | seed {options.seed}\n", flush=True)

    probe = fleet.PauseProbe()
    # Short, as socket names must be.
    with tempfile.TemporaryDirectory(prefix="vs-", dir="/tmp", ignore_cleanup_errors=True) as name:
        os.chmod(name, 0o777)  # processes of another user make their directories in it too
        os.environ["TMPDIR"] = name
        try:
            return rows.run_rows(options.mode, options.names, lambda: rows.Run(
                options.minutes, options.lenient, built.resolve() / "tools/vlx", options.picture,
                probe, Path(name)))
        except KeyboardInterrupt:
            print("stress: interrupted", file=sys.stderr)
            return 1


if __name__ == "__main__":
    sys.exit(main())

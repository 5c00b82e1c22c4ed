"""Faults, loss and growth, with processes of the kit; see scripts/stress --help."""

import argparse
import os
from pathlib import Path
import random
import resource
import sys
import tempfile

sys.path.append(str(Path(__file__).resolve().parent.parent / "runs"))
import alsa  # noqa: E402, F401  each of these adds its rows
import chaos  # noqa: E402
import endurance  # noqa: E402
import fleet  # noqa: E402
import media  # noqa: E402, F401
import rows  # noqa: E402
from shared import ROOT, build, describe_machine, exit_on_signals  # noqa: E402
import soak  # noqa: E402

# Modes: the module that describes and runs it, and the default number of minutes.
MODES = {"chaos": (chaos, 5), "endurance": (endurance, 8), "soak": (soak, 30)}


def read_minutes(text: str) -> int:
    if 1 <= int(text) <= 1440:
        return int(text)
    raise ValueError


def parse_arguments() -> argparse.Namespace:
    parser = argparse.ArgumentParser(
        prog="stress", epilog="Each run prints a table. Exit code: 0 if no limit was exceeded, 77 "
        "if everything was skipped.")
    modes = parser.add_subparsers(dest="mode", required=True)
    for mode, (module, minutes) in MODES.items():
        command = modes.add_parser(mode, description=module.__doc__,
                                   help=module.__doc__.split(":")[0])
        command.add_argument("minutes", type=read_minutes, nargs="?", metavar="MINUTES",
                             default=minutes, help="approximate duration (%(default)s)")
        command.add_argument("--built", type=Path, metavar="DIR", help="use this build")
        command.add_argument("--seed", type=int, default=random.randrange(1 << 32),
                             help="repeat the random choices of an earlier run")
        command.add_argument("--only", metavar="TEXT", default="",
                             help="run rows with TEXT in the name: " + ", ".join(rows.ROWS[mode]))
        command.add_argument("--lenient", action="store_true", help=(
            "for a busy machine: report losses without failing, and wait 20 s instead of 3 for "
            "recovery"))
        command.add_argument("--picture", type=Path, default=f"/tmp/vlx-soak-{os.getpid()}.svg",
                             metavar="FILE", help="picture drawn by soak (%(default)s)")
    options = parser.parse_args()
    names, text = list(rows.ROWS[options.mode]), options.only
    options.names = [text] if text in names else [name for name in names if text in name]
    if not options.names:
        parser.error(f"no row has \"{text}\" in its name; the rows are: {', '.join(names)}")
    return options


def main() -> int:
    options = parse_arguments()
    built = options.built or ROOT / "build/release"
    if not options.built:
        build("release", built, "vlx_stress_end", "vlx")
    fleet.End.program = built.resolve() / "stress/vlx_stress_end"
    random.seed(options.seed)
    exit_on_signals()
    resource.setrlimit(resource.RLIMIT_CORE, (0, 0))
    print(f"{options.mode} | {describe_machine(built)} | seed {options.seed}\n", flush=True)

    probe = fleet.PauseProbe()
    # Short, as socket names must be.
    with tempfile.TemporaryDirectory(prefix="vs-", dir="/tmp", ignore_cleanup_errors=True) as name:
        os.chmod(name, 0o1777)  # processes of another user also create directories in it
        return rows.run_rows(options.mode, options.names, lambda: rows.Run(
            options.minutes, options.lenient, built.resolve() / "tools/vlx", options.picture,
            probe, Path(name)))


if __name__ == "__main__":
    sys.exit(main())

"""The ALSA plugin: aplay plays from a pipe and each sample is sent on time; arecord records while its
senders are killed."""

from contextlib import suppress
import os
import shutil
import subprocess
import time

from fleet import Process
from rows import SKIPPED, Run, row
from shared import ROOT, make_name

RATE, FRAME_BYTES = 48_000, 4
PERIOD = 960  # samples of a frame, 20 ms


def require_plugin(run: Run) -> None:
    plugin = run.tool.parents[1] / "alsa/libasound_module_pcm_vlx.so"
    run.require(shutil.which("aplay") and plugin.exists() and run.tool.exists(),
                "needs aplay, the plugin and the tool", SKIPPED)
    os.environ.update(ALSA_PLUGIN_DIR=str(plugin.parent), ALSA_CONFIG_PATH=(
        f"/usr/share/alsa/alsa.conf:{ROOT / 'alsa/99-vlx.conf'}"))


@row("endurance", "alsa-kills", "aplay killed under arecord",
     "one file of the right length: each player at its time, silence between, exit code 0")
def kill_players(run: Run) -> None:
    require_plugin(run)
    recorder = subprocess.run([ROOT / "tests/alsa/programs", "kills", "40"], text=True, check=False,
                              stdout=subprocess.PIPE)
    run.tell(recorder.stdout.strip())
    run.check(recorder.returncode == 0, f"exit code {recorder.returncode}")


@row("endurance", "alsa", "aplay from a pipe, in real time",
     "the number of samples sent never differs from the clock by more than a period")
def play_from_pipe(run: Run) -> None:
    require_plugin(run)
    name, total = make_name(), round(7.5 * run.minutes) * RATE
    listener = Process([str(run.tool), "receive", "-q", "--realtime", "--oneshot", "-s", name,
                        "-d", f"{total // RATE}s", "--no-fill", "--raw", "-"],
                       output=subprocess.PIPE)
    player = Process(["sh", "-c", f"head -c {total * FRAME_BYTES} /dev/zero | "
                      f"aplay -t raw -f dat -D vlx:{name},REALTIME=try"])
    with suppress(PermissionError):  # this program must not be what is measured
        os.sched_setscheduler(0, os.SCHED_RR, os.sched_param(10))
    start, left, errors = 0, 0, []
    while data := os.read(listener.stdout.fileno(), PERIOD * FRAME_BYTES):
        start = start or time.monotonic_ns()
        errors.append(left - (time.monotonic_ns() - start) * RATE / 1e9)
        left += len(data) / FRAME_BYTES
    os.sched_setscheduler(0, os.SCHED_OTHER, os.sched_param(0))
    run.check(player.await_end(10) == "worked" and left == total, f"{left:.0f} of {total} samples")
    if errors:
        run.tell(f"{total // RATE} s; {min(errors):+.0f} to {max(errors):+.0f} samples")
        run.check(run.lenient or max(map(abs, errors)) <= PERIOD, f"{PERIOD} allowed")

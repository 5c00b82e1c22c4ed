"""Any media through the elements: pictures that must arrive unchanged, and encoded streams whose sender
and receivers are stopped and killed."""

from collections import Counter
import os
import re
import shutil
import signal
import subprocess
import time

from fleet import Process
from rows import SKIPPED, Run, row
from shared import make_name, wait_until

NUM_READERS = 3
PICTURES = ("videotestsrc pattern=ball num-buffers={} "
            "! video/x-raw,format=I420,width=1920,height=1080,framerate=30/1")
ENCODERS = (
    "videotestsrc is-live=true ! video/x-raw,format=I420,width={0},height={0},framerate=30/1 "
    "! x264enc tune=zerolatency key-int-max=3000 ! h264parse ! video/x-h264,alignment=au "
    "! vlxsink wait-for-connection=false socket-name={1}-video "
    "audiotestsrc is-live=true samplesperbuffer=480 ! opusenc ! opusparse "
    "! vlxsink wait-for-connection=false socket-name={1}-audio")


class Pipeline(Process):
    """A pipeline in a process of its own, and what its checksumsink or identities printed."""

    def __init__(self, description: str) -> None:
        self._report = os.memfd_create("report")
        super().__init__(["gst-launch-1.0", "-v", *description.split()], output=self._report)

    def find(self, pattern: str) -> list[str]:
        printed = os.pread(self._report, os.fstat(self._report).st_size, 0)
        return re.findall(pattern, printed.decode())

    def flags(self, identity: str) -> list[str]:
        """The flags of each buffer that passed an identity, as text; headers have no duration."""
        return self.find(rf"{identity}: last-message = .* duration: \d.* flags: \w+ (.*?), meta")


def require_elements(run: Run, *names: str) -> None:
    os.environ["GST_PLUGIN_PATH"] = str(run.plugin.parent)
    missing = [name for name in names if not shutil.which("gst-inspect-1.0") or subprocess.run(
        ["gst-inspect-1.0", name], stdout=subprocess.DEVNULL, check=False).returncode != 0]
    run.require(not missing, f"missing: {', '.join(missing)}", SKIPPED)


@row("endurance", "video", "1080p30 video for three vlxsrc", "every picture arrives unchanged")
def send_pictures(run: Run) -> None:
    require_elements(run, "vlxsrc", "checksumsink")
    name, pictures = make_name(), PICTURES.format(round(225 * run.minutes))
    pattern = r"\b[0-9a-f]{32}\b"
    reference = Pipeline(f"{pictures} ! checksumsink hash=md5 sync=false")
    run.check(reference.await_end(60 * run.minutes) == "worked", "no checksums")
    expected = Counter(reference.find(pattern))
    readers = [Pipeline(f"vlxsrc socket-name={name} eos-on-disconnect=true ! checksumsink hash=md5")
               for _ in range(NUM_READERS)]
    run.within(lambda: all(reader.find("New clock") for reader in readers), "readers not ready")
    sender = Pipeline(f"{pictures} ! vlxsink socket-name={name}")
    run.check(sender.await_end(60 * run.minutes) == "worked", "the sender failed")
    arrived = []
    for reader in readers:
        run.check(reader.await_end(run.limit) == "worked", "a reader failed")
        arrived.append(Counter(reader.find(pattern)))
    lost = [(expected - each).total() for each in arrived]
    run.tell(f"of {expected.total()} pictures, {', '.join(map(str, lost))} missing")
    run.check(run.lenient or not any(lost), "0 allowed")
    run.check(not any((each - expected).total() for each in arrived), "a picture was changed")


@row("endurance", "encoders", "H.264 and Opus: a stopped reader, a killed encoder, new caps",
     "others lose nothing; everything begins with a key frame, within the limit")
def disturb_encoders(run: Run) -> None:
    require_elements(run, "vlxsrc", "x264enc", "h264parse", "opusenc", "opusparse")
    name = make_name()
    media = ("video", "audio")
    sender = Pipeline(ENCODERS.format(320, name))
    readers: list[Pipeline] = []

    def join() -> None:
        readers.append(Pipeline(" ".join(
            f"vlxsrc socket-name={name}-{medium} ! identity name={medium} silent=false ! fakesink"
            for medium in media)))
        await_frames(readers[-1:])

    def await_frames(who: list[Pipeline]) -> None:
        wanted = [(each, medium, len(each.flags(medium)) + 20) for each in who for medium in media]
        begin = time.monotonic()

        def have_come() -> bool:
            time.sleep(0.05)  # each look reads all that was printed
            return all(len(each.flags(medium)) >= count for each, medium, count in wanted)
        run.require(wait_until(run.limit, have_come), f"no 20 frames within {run.limit} s")
        run.tell(f"{1e3 * (time.monotonic() - begin):.0f} ms")

    for _ in range(NUM_READERS):
        join()
    readers[-1].send_signal(signal.SIGSTOP)
    time.sleep(5)
    readers[-1].send_signal(signal.SIGCONT)
    await_frames(readers)
    sender.kill()
    sender = Pipeline(ENCODERS.format(240, name))
    await_frames(readers)
    for reader in readers:
        for medium in media:
            starts = [flags for flags in reader.flags(medium) if "discont" in flags]
            run.tell(f"{medium} began {len(starts)} times")
            run.check(run.lenient or reader is readers[-1] or len(starts) == 2, "2 allowed")
            run.check(not any("delta-unit" in flags for flags in starts), "no key frame first")

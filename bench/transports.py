"""What can carry the frames: an entry for each row of the tables."""

from dataclasses import dataclass
from importlib.machinery import PathFinder
import os
from pathlib import Path
import sys


@dataclass(frozen=True)
class Transport:
    id: str  # in raw data and on the command line
    label: str  # in tables
    program: str  # suffix of the endpoint's program
    variant: str  # set of options, known to the adapter
    colour: str  # in pictures: ours alone is strong
    options: str  # the same as the variant, in words


OURS, KIT, KIT_RT = "vellox", "kit", "kit-rt"
KIT_SHARED, KIT_IN_PLACE, KIT_SHARED_RT = "kit-shared", "kit-in-place", "kit-shared-rt"
RAW = "nanomsg-same"  # nanomsg with our socket options
POLLS = "nanomsg-polls"  # the same, and waiting as we do
NANOMSG, ZMQ, ZMQ_TUNED, NNG, NNG_TUNED = "nanomsg", "zmq", "zmq-tuned", "nng", "nng-tuned"
UNIX, GST_SHM, GST_OURS, GST_SHARED = "unix", "gst-shm", "gst-vlx", "gst-vlx-shared"
GST_VIDEO = "gst-vlx-video"
PYTHON, PYTHON_IN_PLACE, PYZMQ = "python", "python-in-place", "pyzmq"

# In the order of the tables.
ALL = {row[0]: Transport(*row) for row in [
    (OURS, "ours", "vellox", "bell", "#d6001c",
     "the bare library: pubsub, monotonic system clock, PCM"),
    (KIT, "kit", "kit", "", "#e8a0a8", "the same through Producer and Consumer"),
    (KIT_RT, "kit, real-time", "kit", "rt", "#f2cf9a",
     "the same with real-time scheduling on both sides"),
    (KIT_SHARED, "kit, by reference", "kit", "shared", "#b3002d",
     "kit with frames in shared memory, where the send call copies them"),
    (KIT_IN_PLACE, "kit, in place", "kit", "shared-acquire", "#7a0020",
     "the same with memory from Producer::acquire(), where the send call copies nothing"),
    (KIT_SHARED_RT, "kit, by reference, real-time", "kit", "shared-rt", "#e07b39",
     "kit, by reference, with real-time scheduling on both sides"),
    (RAW, "nanomsg, our options", "nanomsg", "same", "#1f4e79",
     "NN_SNDBUF 1, NN_RCVBUF 1, NN_RCVMAXSIZE -1, NN_DONTWAIT, NN_MSG: the design's limit"),
    (POLLS, "nanomsg, our polls", "nanomsg", "polls", "#6d9dc5",
     "as before, with as many descriptors as ours and our timeout: the cost of waiting"),
    (NANOMSG, "nanomsg", "nanomsg", "", "#b4cde0", "default buffers; NN_RCVMAXSIZE -1"),
    (ZMQ, "ZeroMQ", "zmq", "", "#4f7f52", "defaults"),
    (ZMQ_TUNED, "ZeroMQ tuned", "zmq", "tuned", "#a6c9a3",
     "ZMQ_CONFLATE, ZMQ_IMMEDIATE, high-water marks of 1"),
    (NNG, "nng", "nng", "", "#7d6a9b", "defaults"),
    (NNG_TUNED, "nng tuned", "nng", "tuned", "#c6bad8",
     "NNG_OPT_SENDBUF 1, NNG_OPT_RECVBUF 1, newest preferred (its default)"),
    (UNIX, "Unix socket", "unix", "", "#3a3a3a",
     "stream socket, blocking writes to each reader: the limit of the kernel"),
    (GST_SHM, "GStreamer shm", "gst", "shm", "#8c7a5b",
     "appsrc ! shmsink and shmsrc ! appsink, sync=false, queues of one buffer"),
    (GST_OURS, "GStreamer vlx", "gst", "vlx", "#c9b98f",
     "appsrc ! vlxsink and vlxsrc ! appsink, the same settings"),
    (GST_SHARED, "GStreamer vlx, by reference", "gst", "vlx-shared", "#e3b505",
     "the same with shared-memory=always"),
    (GST_VIDEO, "GStreamer vlx, video", "gst", "vlx-video", "#a67c00",
     "the same as video/x-raw: 1080p, one picture in each buffer"),
    (PYTHON, "Python", "python.py", "vellox", "#2b6a99",
     "the Python module; ages end where the bytes can be read"),
    (PYTHON_IN_PLACE, "Python, in place", "python.py", "vellox-acquire", "#12304a",
     "the same with arrays from Producer.acquire(), in shared memory"),
    (PYZMQ, "pyzmq", "python.py", "zmq", "#9fc4de",
     "ZeroMQ in Python, defaults; sent and received with copy=False"),
]}


def is_python(transport: Transport) -> bool:
    return transport.program.endswith(".py")


def endpoint_command(build: Path, transport: Transport) -> list[Path]:
    if is_python(transport):
        return [Path(sys.executable), Path(__file__).parent / "transports" / transport.program]
    return [build / "bench" / f"vlx_bench_end_{transport.program}"]


def obstacle(build: Path, transport: Transport) -> str:
    """Why the transport cannot run here; empty if it can."""
    module = transport.variant.partition("-")[0]
    if is_python(transport) and not PathFinder.find_spec(module, [f"{build}/python", *sys.path]):
        return f"Python has no module {module}"
    if not endpoint_command(build, transport)[0].exists():
        return "not built"
    if transport.variant.startswith("vlx") and not (build / "gst" / "libgstvlx.so").exists():
        return "the GStreamer elements are not built"
    if transport.variant.endswith("rt") and not may_run_in_real_time():
        return "real-time scheduling is not permitted (ulimit -r)"
    return ""


def may_run_in_real_time() -> bool:
    try:
        os.sched_setscheduler(0, os.SCHED_RR, os.sched_param(10))
    except PermissionError:
        return False
    os.sched_setscheduler(0, os.SCHED_OTHER, os.sched_param(0))
    return True

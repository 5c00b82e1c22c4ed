"""Timestamped media frames from one process to many on one machine.

A Producer sends a stream under a name, and a Consumer receives it as numpy arrays. senders() and
probe() find streams. Timestamps and durations are integers in nanoseconds, timeouts are floats in
seconds. The library logs to the logger "vellox".
"""

from vellox._core import Frame
from vellox._streams import Consumer, Producer, __version__, probe, senders
from vellox._types import (
    CannotPlay,
    Closed,
    Codec,
    ConsumerStatistics,
    Error,
    Event,
    Format,
    InvalidArgument,
    Media,
    MediaFlags,
    NameTaken,
    NotPermitted,
    Probe,
    ProducerStatistics,
    Sender,
    TimedOut,
)

__all__ = [
    "CannotPlay",
    "Closed",
    "Codec",
    "Consumer",
    "ConsumerStatistics",
    "Error",
    "Event",
    "Format",
    "Frame",
    "InvalidArgument",
    "Media",
    "MediaFlags",
    "NameTaken",
    "NotPermitted",
    "Probe",
    "Producer",
    "ProducerStatistics",
    "Sender",
    "TimedOut",
    "__version__",
    "probe",
    "senders",
]

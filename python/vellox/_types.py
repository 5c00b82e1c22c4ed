"""Exceptions and value types."""

from __future__ import annotations

import enum
import typing

import numpy as np
import numpy.typing as npt


class Error(Exception):
    """An operation failed. The message states what failed and why."""

    code: str = "failed"
    """Kind of the failure, such as "no directory"."""


class NameTaken(Error):
    """Another producer holds the name."""


class NotPermitted(Error, PermissionError):
    """This user may not use the directory, the stream or real-time scheduling."""


class InvalidArgument(Error, ValueError):
    """An option, a name or the data of a frame is invalid."""


class TimedOut(Error, TimeoutError):
    """A timeout has expired."""


class CannotPlay(Error):
    """The stream's codec is not PCM, and raw=True is not set."""


class Closed(Error):
    """The producer or consumer is closed, or was created before this process was forked."""


class Format(typing.NamedTuple):
    """Format of PCM samples."""

    sample_format: str
    """One of S8, U8, S16LE, S16BE, S24LE, S24BE, S32LE, S32BE, F32LE, F32BE, F64LE, F64BE."""
    rate: int
    """Samples per second."""
    channels: int
    """Interleaved channels."""

    def __str__(self) -> str:
        plural = "" if self.channels == 1 else "s"
        return f"{self.sample_format}, {self.rate} Hz, {self.channels} channel{plural}"


class Codec(typing.NamedTuple):
    """A codec other than PCM."""

    fourcc: str
    """Code of four characters."""
    header: bytes
    """Header as the sender announces it."""
    caps: str | None = None
    """Media type as GStreamer writes it, if the code is "VLXM"; None for other codecs."""


class MediaFlags(enum.IntFlag):
    """Flags of a frame that is not PCM."""

    DELTA_UNIT = 1
    """Needs earlier frames to be decoded."""
    HEADER = 2
    """Data that a decoder needs first."""
    MARKER = 4
    """For example the end of a picture."""
    DISCONT = 8
    """Data is missing before this frame."""
    CORRUPTED = 16
    """The data is damaged."""
    DROPPABLE = 32
    """No other frame needs this one."""
    DECODING = 64
    """The timestamp is the decoding time."""


class Media(typing.NamedTuple):
    """Contents of a frame whose stream has caps."""

    flags: MediaFlags
    """Flags of the frame."""
    pts: int | None
    """Presentation time on the stream's clock, nanoseconds; None if unknown or out of range."""
    offset: int | None
    """Position in the stream, in the media's unit; None if unknown."""
    number: int
    """Number of the frame, one more than the previous frame's; 0: frames are not counted."""
    data: npt.NDArray[np.uint8]
    """The media data, a view of Frame.data without a copy."""


class Event(typing.NamedTuple):
    """A change of a consumer's connection, or the reason why it has no connection."""

    kind: str
    """"joined", "lost", "stalled", "cannot play", "not permitted", "not a sender" or "failed"."""
    time: int
    """Time of the event, nanoseconds of time.monotonic_ns()."""
    text: str
    """What happened, why, and the remedy."""


class ConsumerStatistics(typing.NamedTuple):
    """Counts of a consumer since its construction."""

    state: str
    """"idle", "connecting" or "running"."""
    frames: int
    """Frames received."""
    bytes: int
    """Bytes of media data."""
    dropped: int
    """Frames dropped because the queue was full."""
    lost: int
    """Frames overwritten in shared memory before the consumer read them."""
    gaps: int
    """Positive gaps between frames."""
    gap_ns: int
    """Sum of these gaps, nanoseconds."""
    overlaps: int
    """Negative gaps."""
    sequences: int
    """Sequences announced."""
    connections: int
    """Connections on which a frame arrived."""
    reconnects: int
    """Connections after the first."""
    stalls: int
    """Connections closed because no frames arrived."""
    join_ns: int
    """Time from the start, or from the last loss, to the first frame, nanoseconds."""


class ProducerStatistics(typing.NamedTuple):
    """Counts of a producer since its construction."""

    frames: int
    """Frames sent."""
    bytes: int
    """Bytes of media data."""
    sequences: int
    """Sequences opened."""
    receivers: int
    """Receivers that are joined."""
    late: int
    """Paced frames that were late by more than their duration."""


class Sender(typing.NamedTuple):
    """A sender of this machine."""

    name: str
    """Name of the stream."""
    process: int
    """Process id."""
    command: str
    """Name of the program."""
    user: int
    """User id."""
    receivers: int
    """Receivers that are joined."""
    socket_file: str
    """Path of the main channel's socket; empty if it is not known."""


class Probe(typing.NamedTuple):
    """What a sender announces."""

    user: int | None
    """Id of the user that the sender runs as."""
    answered: bool
    """Whether the sender answered in time."""
    busy: bool
    """Whether the sender is stopped or overloaded."""
    clock: str | None
    """Clock of the timestamps: "monotonic", "network" or "none"; None without an answer."""
    format: Format | None
    """Format; None if the stream is not PCM, or was not announced in time."""
    codec: Codec | None
    """Codec, if it is not PCM."""
    shared: bool
    """Whether the frames lie in shared memory."""
    socket_file: str
    """Path of the main channel's socket; empty if no trustworthy path is known."""
    may_join: bool
    """Whether this user may join."""

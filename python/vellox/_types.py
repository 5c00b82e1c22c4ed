"""Errors and small objects."""

from __future__ import annotations

import typing


class Error(Exception):
    """An operation failed. The text is complete: what failed, and why."""

    code: str = "failed"
    """Kind of the failure, such as "no directory"."""


class NameTaken(Error):
    """Another producer holds the name."""


class NotPermitted(Error, PermissionError):
    """This user may not use the directory, the stream or real-time scheduling."""


class InvalidArgument(Error, ValueError):
    """An option, a name or the data of a frame is not valid."""


class TimedOut(Error, TimeoutError):
    """A time-out has expired."""


class CannotPlay(Error):
    """The stream has a codec that is not received without raw=True."""


class Closed(Error):
    """The producer or consumer is closed, or belongs to the parent of this process."""


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


class Event(typing.NamedTuple):
    """A change of a consumer's connection, or the reason why there is none."""

    kind: str
    """"joined", "lost", "stalled", "cannot play", "not permitted", "not a sender" or "failed"."""
    time: int
    """Nanoseconds of time.monotonic_ns()."""
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
    """Frames overwritten in shared memory before they were read."""
    gaps: int
    """Positive gaps between frames."""
    gap_ns: int
    """Sum of these gaps, nanoseconds."""
    overlaps: int
    """Negative gaps."""
    sequences: int
    """Sequences announced."""
    connections: int
    """Connections that brought a frame."""
    reconnects: int
    """Connections after the first."""
    stalls: int
    """Connections left because no frames came."""
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
    """Clock of the stamps: "monotonic", "network" or "none"; None without an answer."""
    format: Format | None
    """Format; None if the stream is not PCM, or was not announced in time."""
    codec: Codec | None
    """Codec other than PCM."""
    shared: bool
    """Whether the frames lie in shared memory."""
    socket_file: str
    """Path of the main channel's socket; empty if there is none that can be trusted."""
    may_join: bool
    """Whether this user may join."""

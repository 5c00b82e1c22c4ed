"""The classes Producer and Consumer, and discovery."""

from __future__ import annotations

import asyncio
import atexit
import os
import weakref
from types import TracebackType
from typing import Literal, Union

from vellox import _core, _log
from vellox._types import (
    Closed,
    ConsumerStatistics,
    Error,
    InvalidArgument,
    Probe,
    ProducerStatistics,
    Sender,
    TimedOut,
)

__version__: str = _core.version

_Path = Union[str, bytes, "os.PathLike[str]"]
_REAL_TIME = ("off", "try", "require")

# Interval in seconds at which a task checks its consumer: closing a consumer wakes no task.
_SLICE = 0.05

_open: weakref.WeakSet[Consumer | Producer] = weakref.WeakSet()
_obstacle = ""


def _close_all() -> None:
    """Closes all streams before the interpreter ends: no library thread may run afterwards."""
    global _obstacle
    _obstacle = "the interpreter is ending"
    _core.begin_end()
    for stream in list(_open):
        stream.close()


def _begin_child() -> None:
    """Bars new streams in a forked child: it lacks the threads of the transport."""
    global _obstacle
    _core.forget_log()
    if _open:
        _obstacle = "this process was forked while streams were open: use the method \"spawn\""


atexit.register(_close_all)
os.register_at_fork(after_in_child=_begin_child)


def _prepare() -> None:
    if _obstacle:
        raise Error(_obstacle)
    _log.follow_level()


def _find(option: str, value: str, choices: tuple[str, ...]) -> int:
    if value not in choices:
        raise InvalidArgument(f"{option} is {value!r}; known are {', '.join(choices)}")
    return choices.index(value)


def _close(
    stream: _core.Consumer | _core.Producer,
    kind: type[BaseException] | None,
    error: BaseException | None,
    trace: TracebackType | None,
) -> None:
    """Closes the stream at the end of a with block."""
    stream.close()


class Consumer(_core.Consumer):
    """Receives one stream: waits for its sender, joins it, and reconnects after a loss.

    Iterate over it with "for" or "async for", or call read(). A thread without Python fills a
    queue of `max_queue` seconds; when it is full, the oldest frames are dropped and counted. Call
    close(), or leave the "with" block: this takes milliseconds, but up to 5 seconds if the base
    directory is not writable.

    name: name of the stream, 1 to 107 bytes.
    timeout: seconds that read() and iteration wait for a frame before they raise TimedOut; None:
        no limit.
    raw: also receives codecs other than PCM, as Frame.data and Frame.codec.
    sender_user: id of the user that the sender must run as; None: any.
    base_directory: where senders and receivers meet; empty: TMPDIR, or /tmp/vlx.
    stall_timeout: seconds without a frame after which the consumer reconnects; None: never.
    max_queue: length of the queue, seconds; None: limited only to 64 MiB and 10,000 frames.
    real_time: scheduling of the receiving threads.

    Raises InvalidArgument, NotPermitted and Error. Any thread may call any method.
    """

    def __init__(
        self,
        name: str | bytes,
        *,
        timeout: float | None = None,
        raw: bool = False,
        sender_user: int | None = None,
        base_directory: _Path = "",
        stall_timeout: float | None = 2.0,
        max_queue: float | None = 1.0,
        real_time: Literal["off", "try", "require"] = "off",
    ) -> None:
        _prepare()
        self._name = name
        self._timeout = timeout
        super().__init__(
            os.fsencode(name),
            timeout,
            raw,
            sender_user,
            os.fsencode(base_directory),
            stall_timeout,
            max_queue,
            _find("real_time", real_time, _REAL_TIME),
        )
        _open.add(self)

    @property
    def statistics(self) -> ConsumerStatistics:
        """The counts so far."""
        return ConsumerStatistics(**self._statistics())

    def __enter__(self) -> Consumer:
        return self

    __exit__ = _close

    def __aiter__(self) -> Consumer:
        return self

    async def __anext__(self) -> _core.Frame:
        loop = asyncio.get_running_loop()
        end = None if self._timeout is None else loop.time() + self._timeout
        try:
            while True:
                frame = self._take()
                if frame is not None:
                    return frame
                if end is not None and loop.time() >= end:
                    raise TimedOut(f"no frame of {self._name!r} within {self._timeout:g} s")
                await self._wait(loop)
        except Closed:
            raise StopAsyncIteration from None

    async def _wait(self, loop: asyncio.AbstractEventLoop) -> None:
        woken = asyncio.Event()
        timer = loop.call_later(_SLICE, woken.set)
        descriptor = self.fileno()
        loop.add_reader(descriptor, woken.set)
        try:
            await woken.wait()
        finally:
            loop.remove_reader(descriptor)
            timer.cancel()
            _core.deliver_log()

    def __repr__(self) -> str:
        state = "closed" if self.closed else "open"
        return f"<vellox.Consumer {self._name!r}, {state}>"


class Producer(_core.Producer):
    """Sends one stream, which is open from construction until close() or the end of the "with"
    block.

    name: name of the stream, 1 to 107 bytes.
    rate: samples per second.
    channels: 1 to 255.
    format: one of S8, U8, S16LE, S16BE, S24LE, S24BE, S32LE, S32BE, F32LE, F32BE, F64LE, F64BE.
    fourcc: code of another codec, four characters; rate, channels and format are then ignored.
    header: codec header, announced with fourcc.
    alternative_name: used if another producer holds the name; empty: raises NameTaken.
    base_directory: where senders and receivers meet; empty: TMPDIR, or /tmp/vlx.
    socket_mode: users whose receivers may join: "owner", "group" or "all".
    carriage: how frames travel: "inline", in packets; "shared", in shared memory, which only
        receivers of the kit can read; "automatic", shared if frames have at least 8,192 bytes.
    frame_bytes: nominal size of a frame in shared memory; 0: that of the first frame.
    real_time: scheduling of the stream's threads.

    Raises NameTaken, InvalidArgument, NotPermitted and Error. Any thread may call any method.
    """

    def __init__(
        self,
        name: str | bytes,
        *,
        rate: int = 48000,
        channels: int = 2,
        format: str = "S16LE",
        fourcc: str | None = None,
        header: bytes = b"",
        alternative_name: str | bytes = "",
        base_directory: _Path = "",
        socket_mode: Literal["owner", "group", "all"] = "owner",
        carriage: Literal["inline", "shared", "automatic"] = "inline",
        frame_bytes: int = 0,
        real_time: Literal["off", "try", "require"] = "off",
    ) -> None:
        _prepare()
        options = _core.ProducerOptions(
            os.fsencode(name),
            os.fsencode(alternative_name),
            os.fsencode(base_directory),
            _find("socket_mode", socket_mode, ("owner", "group", "all")),
            _find("carriage", carriage, ("inline", "shared", "automatic")),
            frame_bytes,
            _find("real_time", real_time, _REAL_TIME),
        )
        if fourcc is None:
            super().__init__(options, format, rate, channels)
        else:
            super().__init__(options, fourcc, header)
        _open.add(self)

    @property
    def statistics(self) -> ProducerStatistics:
        """The counts so far."""
        return ProducerStatistics(**self._statistics())

    def __enter__(self) -> Producer:
        return self

    __exit__ = _close

    def __repr__(self) -> str:
        state = "closed" if self.closed else "open"
        return f"<vellox.Producer {self.name!r}, {state}>"


def senders() -> list[Sender]:
    """Lists the senders of this machine, ordered by name, without connecting to any of them.

    Names of other users' senders may be hidden by the kernel.
    """
    return _core.senders()


def probe(name: str | bytes, *, timeout: float = 1.0) -> Probe | None:
    """Returns what a sender announces; None if the name has no sender.

    timeout: seconds for the whole exchange.

    Raises InvalidArgument.
    """
    return _core.probe(os.fsencode(name), timeout)

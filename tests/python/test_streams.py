"""Producer and consumer in one process."""

import array
import asyncio
import gc
import logging
import os
import re
import resource
import select
import struct
import threading
import time

import numpy as np
import pytest

import vellox
from conftest import DEADLINE, run_python, wait_until

SILENCE = np.zeros((480, 2), np.int16)
MS = 1_000_000


def exchange(sender, receiver, *stamps, **options):
    """Sends and receives frames one by one: a burst can lose some."""
    frames = []
    for stamp in stamps:
        sender.send(SILENCE, timestamp=stamp, **options)
        frames.append(receiver.read())
    return frames


def test_frames_arrive_as_read_only_views_that_outlive_everything(streams):
    sender, receiver = streams()
    sender.send(SILENCE + 7)
    samples = receiver.read().samples
    receiver.close()
    del receiver
    gc.collect()
    assert samples.shape == (480, 2)
    assert samples.dtype == np.int16
    assert (samples == 7).all()
    assert np.shares_memory(samples, samples.base.data)
    with pytest.raises(ValueError):
        samples[0] = 1


def test_only_buffers_of_whole_samples_are_sent(streams):
    sender, receiver = streams()
    for data in (
        SILENCE, SILENCE.ravel(), bytes(1920), memoryview(bytes(1920)), bytearray(1920),
        array.array("h", bytes(1920)), SILENCE.view("<i2"),
    ):
        sender.send(data)
        assert receiver.read().samples.shape == (480, 2)
    for data, error in (
        (SILENCE.astype(np.float32), "type \"f\" and shape (480, 2)"),
        (SILENCE.astype(">i2"), "type \">h\""),
        (SILENCE.astype("u2"), "type \"H\""),
        (np.zeros((2, 480), np.int16), "shape (2, 480)"),
        (np.zeros((480, 2, 1), np.int16), "shape (480, 2, 1)"),
        (np.zeros((480, 4), np.uint8), "shape (480, 4)"),
        (bytes(1919), "1919 bytes"),
        (SILENCE[::2], "contiguous"),
    ):
        pytest.raises(ValueError, sender.send, data).match(re.escape(error))


def test_frames_without_stamps_follow_each_other_exactly(streams):
    sender, receiver = streams(rate=44100)
    begin = time.monotonic_ns()
    for _ in range(10):
        sender.send(SILENCE[:441])
    assert time.monotonic_ns() - begin >= 90 * MS
    frames = [receiver.read() for _ in range(10)]
    steps = {b.timestamp - a.timestamp for a, b in zip(frames, frames[1:]) if b.gap == 0}
    assert steps == {10 * MS}
    assert {f.duration for f in frames} == {10 * MS}
    assert [f.is_first for f in frames] == [True] + 9 * [False]
    assert frames[0].monotonic_time == frames[0].timestamp
    assert frames[0].clock == "monotonic"
    assert frames[0].arrival >= frames[0].timestamp
    assert receiver.stream_time() >= frames[9].timestamp


def test_a_given_stamp_is_sent_at_once_and_shows_gaps(streams):
    sender, receiver = streams()
    now = time.monotonic_ns()
    far = now + 3600 * 1000 * MS
    frames = exchange(sender, receiver, now, now + 15 * MS, far)
    assert [f.timestamp for f in frames] == [now, now + 15 * MS, far]
    assert [f.gap for f in frames[:2]] == [0, 5 * MS]
    (frame,) = exchange(sender, receiver, 5, duration=7)
    assert (frame.timestamp, frame.duration) == (5, 7)


def test_late_frames_are_counted_and_begin_anew_after_a_long_delay(streams):
    sender, receiver = streams()

    def is_kept():
        begin = time.monotonic_ns() - 100 * MS
        frames = exchange(sender, receiver, begin, None)
        return frames[1].timestamp == begin + 10 * MS

    wait_until(is_kept)  # a busy machine may take long
    late = sender.statistics.late
    assert late > 0
    now = time.monotonic_ns()
    assert exchange(sender, receiver, now - 5000 * MS, None)[1].timestamp > now
    assert sender.statistics.late == late + 1
    assert sender.statistics.bytes == sender.statistics.frames * 1920


def test_acquired_memory_is_filled_and_sent(streams):
    for carriage in "inline", "shared", "automatic":
        sender, receiver = streams(format="S24LE", carriage=carriage, frame_bytes=480 * 6)
        block = sender.acquire(480)
        assert block.shape == (480, 2, 3)
        block[...] = 5
        sender.send(block)
        assert (receiver.read().samples == 5).all()
        assert vellox.probe(sender.name).shared == (carriage == "shared")


def test_other_codecs_travel_as_bytes(streams):
    sender, receiver = streams(consumer={"raw": True}, fourcc="MJPG", header=b"\1caps")
    memory = sender.acquire(5)
    memory[:] = 1
    sender.send(memory, timestamp=9, duration=3)
    frame = receiver.read()
    assert frame.codec == vellox.Codec("MJPG", b"\1caps")
    assert frame.codec.caps is None
    assert frame.media is None
    assert frame.data.tobytes() == b"\1" * 5
    assert (frame.timestamp, frame.duration) == (9, 3)
    for access in (lambda: frame.samples, lambda: frame.format, frame.to_float):
        pytest.raises(vellox.InvalidArgument, access)


def test_media_has_caps_and_heads(streams):
    caps = "video/x-h264, level=(string)4"
    sender, receiver = streams(consumer={"raw": True}, fourcc="VLXM", header=caps.encode())
    none = (-(2**63), 2**64 - 1, 0)
    rows = [
        ((9, -5, 7, 3), (9, 995, 7, 3)),
        ((0, *none), (0, None, None, 0)),
        ((0, -1000, 7, 0), (0, 0, 7, 0)),
        ((0, -1001, 7, 0), (0, None, 7, 0)),
    ]
    for head, shown in rows:
        sender.send(struct.pack("<Q q Q Q", *head) + b"video", timestamp=1000)
        frame = receiver.read()
        assert (frame.codec.fourcc, frame.codec.caps) == ("VLXM", caps)
        assert frame.media[:4] == shown
        assert frame.media.data.tobytes() == b"video"
    sender.send(b"too short for a head", timestamp=2000)
    assert receiver.read().media is None
    assert vellox.MediaFlags.DELTA_UNIT | vellox.MediaFlags.DISCONT == 9


def test_another_codec_cannot_be_played_without_raw(name):
    with vellox.Producer(name, fourcc="MJPG"), vellox.Consumer(name) as receiver:
        pytest.raises(vellox.CannotPlay, receiver.read, DEADLINE).match("MJPG")
        assert "cannot play" in [event.kind for event in receiver.events()]


def test_errors_have_classes(name):
    with vellox.Producer(name):
        pytest.raises(vellox.NameTaken, vellox.Producer, name).match(name)
        with vellox.Producer(name, alternative_name=f"{name}-2") as other:
            assert other.name == f"{name}-2"
    for make in (
        lambda: vellox.Producer(""),
        lambda: vellox.Producer(name, format="S17LE"),
        lambda: vellox.Producer(name, channels=0),
        lambda: vellox.Producer(name, carriage="pigeon"),
        lambda: vellox.Producer(name, fourcc="MJPEG"),
        lambda: vellox.Consumer(name, timeout=-1),
        lambda: vellox.Consumer(108 * "x"),
    ):
        pytest.raises(vellox.InvalidArgument, make)
    raised = pytest.raises(vellox.Error, vellox.Consumer, name, base_directory="/does/not/exist")
    assert raised.value.code == "no directory"


def test_waiting_ends(name):
    is_no_text = name.encode() + b"\xff"
    with vellox.Producer(name) as sender, vellox.Consumer(is_no_text, timeout=0.01) as receiver:
        pytest.raises(TimeoutError, receiver.read).match(f"{name}\udcff\" within 0.01 s")
        pytest.raises(vellox.TimedOut, next, receiver)
        pytest.raises(vellox.TimedOut, lambda: asyncio.run(anext(receiver)))
        pytest.raises(vellox.TimedOut, sender.wait_for_receivers, 2, timeout=0.01)
    pytest.raises(vellox.Closed, receiver.read)
    pytest.raises(vellox.Closed, sender.send, SILENCE)
    assert list(receiver) == []
    assert "closed" in repr(receiver) and "closed" in repr(sender)


def test_sends_pass_a_thread_that_waits_for_receivers(name):
    with vellox.Producer(name) as sender:
        wait = lambda: pytest.raises(vellox.Error, sender.wait_for_receivers, 9, 2)
        thread = threading.Thread(target=wait)
        thread.start()
        for _ in range(100):
            sender.send(SILENCE, timestamp=1)
            time.sleep(0.001)  # lets the thread run
        assert thread.is_alive()
    thread.join()


def test_another_thread_closes_a_waiting_stream(name):
    sender = vellox.Producer(name)
    sender.send(SILENCE)
    receiver = vellox.Consumer(name)
    frames = []
    waits = (
        lambda: frames.extend(receiver),
        lambda: pytest.raises(vellox.Closed, sender.wait_for_receivers, 9),
    )
    threads = [threading.Thread(target=wait) for wait in waits]
    threads.append(threading.Thread(target=sender.close))
    for thread in threads:
        thread.start()
    receiver.close()
    wait_until(lambda: sender.closed)
    sender.close()  # waits for the other thread that closes
    vellox.Producer(name).close()
    for thread in threads:
        thread.join(DEADLINE)
        assert not thread.is_alive()


def test_full_queue_drops_the_oldest_and_counts(streams):
    sender, receiver = streams(consumer={"max_queue": 1e-9})
    for i in range(3):
        sender.send(SILENCE + i)
        wait_until(lambda: receiver.statistics.frames == i + 1)
    frame = receiver.read()
    assert frame.samples[0, 0] == 2
    assert frame.dropped == receiver.statistics.dropped == 2


def test_events_report_what_happened(streams):
    sender, receiver = streams()
    sender.send(SILENCE)
    receiver.read()
    sender.close()
    kinds = []
    wait_until(lambda: kinds.extend(e.kind for e in receiver.events()) or len(kinds) == 2)
    assert kinds == ["joined", "lost"]
    assert receiver.events() == []


def test_a_sender_of_another_user_is_not_joined(name, caplog):
    with vellox.Producer(name), vellox.Consumer(name, sender_user=os.getuid() + 1) as receiver:
        wait_until(lambda: any(e.kind == "not a sender" for e in receiver.events()))
        pytest.raises(vellox.TimedOut, receiver.read, 0.01)
    assert name in caplog.text


def test_senders_are_listed_and_probed(streams, name):
    streams(format="F32BE", rate=44100, channels=1)
    (sender,) = [s for s in vellox.senders() if s.name == name]
    assert (sender.process, sender.user) == (os.getpid(), os.getuid())
    found = vellox.probe(name)
    assert found.format == vellox.Format("F32BE", 44100, 1)
    assert (found.clock, found.answered, found.may_join) == ("monotonic", True, True)
    assert str(found.format) == "F32BE, 44100 Hz, 1 channel"
    assert vellox.probe(f"{name}-2") is None


def test_a_probe_without_descriptors_fails(name):
    limits = resource.getrlimit(resource.RLIMIT_NOFILE)
    resource.setrlimit(resource.RLIMIT_NOFILE, (0, limits[1]))
    try:
        pytest.raises(vellox.Error, vellox.probe, name).match("no descriptor")
    finally:
        resource.setrlimit(resource.RLIMIT_NOFILE, limits)


def test_the_log_goes_to_python_until_ctrl_c(name, caplog, monkeypatch):
    def interrupt(record):
        raise KeyboardInterrupt

    caplog.set_level(logging.DEBUG, "vellox")
    with vellox.Producer(name) as sender:
        with monkeypatch.context() as patch:
            patch.setattr(logging.getLogger("vellox"), "handle", interrupt)
            pytest.raises(KeyboardInterrupt, sender.send, SILENCE)
        receiver = vellox.Consumer(name)
        wait_until(lambda: pytest.raises(TimeoutError, receiver.read, 0.01) and caplog.records)
    record = caplog.records[0]
    assert record.name == "vellox"
    assert record.pathname.endswith(".cpp")


def test_a_descriptor_is_readable_while_a_frame_waits(streams):
    sender, receiver = streams()
    sender.send(SILENCE)
    assert select.select([receiver], [], [], DEADLINE)[0] == [receiver]
    receiver.read()
    assert select.select([receiver], [], [], 0)[0] == []


def test_a_task_receives_while_others_run(streams):
    sender, receiver = streams()
    received = []

    async def receive():
        async for frame in receiver:
            received.append(frame)
            if len(received) == 3:
                receiver.close()

    async def send():
        for _ in range(3):
            sender.send(SILENCE, timestamp=time.monotonic_ns())
            await asyncio.sleep(0.001)

    async def both():
        await asyncio.wait_for(asyncio.gather(receive(), send()), DEADLINE)

    asyncio.run(both())
    assert len(received) == 3


SENDER = """
import sys, vellox
with vellox.Producer(sys.argv[1]) as sender:
    while True:
        sender.send(bytes(1920))
"""


def test_iteration_continues_after_the_sender_was_killed(name, directory):
    sender = run_python(SENDER, name)
    first = 0
    for frame in vellox.Consumer(name, timeout=DEADLINE):
        first += frame.is_first
        if first == 1 and sender.poll() is None:
            sender.kill()
            sender.wait()
            sender = run_python(SENDER, name)
        elif first == 2:
            break
    sender.terminate()
    sender.wait()
    for path in directory.glob("*/*"):
        path.unlink()
    for path in directory.iterdir():
        path.rmdir()


def test_many_objects_leave_nothing(name):
    for i in range(15):
        sender, receiver = vellox.Producer(f"{name}-{i}"), vellox.Consumer(f"{name}-{i}")
        sender.cycle, receiver.cycle = receiver, sender


def test_every_public_name_has_a_docstring():
    for public in vellox.__all__:
        thing = getattr(vellox, public)
        assert thing.__doc__, public
        if not isinstance(thing, type):
            continue
        for member, value in vars(thing).items():
            assert member.startswith("_") or value.__doc__, f"{public}.{member}"

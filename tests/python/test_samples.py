"""Samples of the twelve formats."""

import os
import struct

import numpy as np
import pytest

import vellox
from conftest import DEADLINE, run_vlx

# Format: 0, the lowest value and half of full scale.
FORMATS = {
    "S8": struct.pack("3b", 0, -128, 64),
    "U8": bytes((128, 0, 192)),
    "S16LE": struct.pack("<3h", 0, -(2**15), 2**14),
    "S16BE": struct.pack(">3h", 0, -(2**15), 2**14),
    "S24LE": bytes((0, 0, 0, 0, 0, 0x80, 0, 0, 0x40)),
    "S24BE": bytes((0, 0, 0, 0x80, 0, 0, 0x40, 0, 0)),
    "S32LE": struct.pack("<3i", 0, -(2**31), 2**30),
    "S32BE": struct.pack(">3i", 0, -(2**31), 2**30),
    "F32LE": struct.pack("<3f", 0, -1, 0.5),
    "F32BE": struct.pack(">3f", 0, -1, 0.5),
    "F64LE": struct.pack("<3d", 0, -1, 0.5),
    "F64BE": struct.pack(">3d", 0, -1, 0.5),
}
STREAMS = [(f, i % 8 + 1) for i, f in enumerate(FORMATS)]


def test_samples_are_converted(streams):
    for sample_format, data in FORMATS.items():
        sender, receiver = streams(format=sample_format, channels=3)
        sender.send(data)
        frame = receiver.read()
        assert frame.to_float().tolist() == [[0, -1, 0.5]]
        assert frame.to_float().dtype == np.float32
        assert frame.to_int32().tolist() == [[0, -(2**31), 2**30]]
        assert frame.samples.tobytes() == frame.data.tobytes() == data
        assert frame.format == vellox.Format(sample_format, 48000, 3)
        sender.send(frame.samples)
        assert receiver.read().samples.tolist() == frame.samples.tolist()


def test_floats_beyond_full_scale_are_clipped(streams):
    sender, receiver = streams(format="F32LE", channels=4)
    sender.send(np.array([[2, -2, 1, np.nan]], np.float32))
    assert receiver.read().to_int32().tolist() == [[2**31 - 1, -(2**31), 2**31 - 1, 0]]


def make_frames(sample_format, channels):
    """Makes frames of 10 ms. They are sent repeatedly: a busy machine loses some."""
    size = 480 * channels * len(FORMATS[sample_format]) // 3
    return [os.urandom(size) for _ in range(5)]


def test_the_tool_receives_what_was_sent(name, tmp_path):
    rows = []
    for i, (sample_format, channels) in enumerate(STREAMS):
        sender = vellox.Producer(f"{name}-{i}", format=sample_format, channels=channels)
        receiver = run_vlx(
            "receive", "-q", "-s", sender.name, "--raw", "--no-fill", "-d", "200ms", tmp_path / str(i)
        )
        rows.append((sender, receiver, make_frames(sample_format, channels)))
    i = 0
    while any(receiver.poll() is None for _, receiver, _ in rows):
        for sender, _, frames in rows:
            sender.send(frames[i % 5])
        i += 1
    for i, (sender, _, frames) in enumerate(rows):
        sender.close()
        data = (tmp_path / str(i)).read_bytes()
        size = len(frames[0])
        assert {data[k : k + size] for k in range(0, len(data), size)} == set(frames)


def test_what_the_tool_sends_is_received(name, tmp_path):
    rows = []
    for i, (sample_format, channels) in enumerate(STREAMS):
        frames = make_frames(sample_format, channels)
        file = tmp_path / str(i)
        file.write_bytes(b"".join(frames))
        receiver = vellox.Consumer(f"{name}-{i}", timeout=DEADLINE)
        sender = run_vlx(
            "send", "-q", "-s", f"{name}-{i}", "--raw", "-f", sample_format, "-c", str(channels),
            "--loop", file,
        )
        rows.append((receiver, sender, set(frames)))
    for receiver, sender, frames in rows:
        received = set()
        while not received >= frames:
            received.add(receiver.read().samples.tobytes())
        assert received == frames
        receiver.close()
        sender.terminate()
        sender.wait(DEADLINE)

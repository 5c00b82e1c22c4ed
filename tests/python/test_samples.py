"""Samples of the twelve formats."""

import json
import os
import struct
import subprocess

import numpy as np

import vellox

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


def test_samples_are_converted(streams):
    for sample_format, data in FORMATS.items():
        sender, receiver = streams(format=sample_format, channels=3)
        info = subprocess.check_output([os.environ["VLX_TOOL"], "info", "--json", sender.name])
        assert json.loads(info)["sample_format"] == sample_format, "known to others by its name"
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

"""The programs of docs/python.md, and the types."""

import os
import re
import signal
import subprocess
import sys
from pathlib import Path

import pytest

import vellox
from conftest import DEADLINE

TOP = Path(__file__).resolve().parents[2]
EXAMPLES = TOP / "examples/python"


@pytest.fixture
def start():
    def run(example, *arguments):
        command = [sys.executable, EXAMPLES / f"{example}.py", *arguments]
        processes.append(subprocess.Popen(command, stdout=subprocess.PIPE))
        return processes[-1]

    processes = []
    yield run
    for process in processes:
        process.kill()
        process.communicate()


def test_a_tone_is_sent_relayed_shown_and_recorded(start, name, tmp_path):
    pytest.importorskip("matplotlib")
    picture = tmp_path / "picture.png"
    record = start("record", f"{name}-2", "0.5", picture)
    meter = start("meter", f"{name}-2")
    relay = start("relay", name, f"{name}-2", "0.5")
    consumer = vellox.Consumer(name, timeout=DEADLINE)
    sine = start("sine", name, "1000", "60")
    frames = [consumer.read() for _ in range(20)]
    steps = {b.timestamp - a.timestamp for a, b in zip(frames, frames[1:]) if b.gap == 0}
    assert steps == {10_000_000}
    consumer.close()

    text = b""
    while text.count(b"-12.0 dB") < 2:
        text += os.read(meter.stdout.fileno(), 1000)
    assert record.communicate(timeout=DEADLINE)[0] == b"24000 samples, peak 0.250\n"
    assert picture.read_bytes().startswith(b"\x89PNG")
    for process in (meter, relay):
        process.send_signal(signal.SIGINT)
        process.communicate(timeout=DEADLINE)
        assert process.returncode == 0
    sine.send_signal(signal.SIGINT)
    sine.communicate(timeout=DEADLINE)
    assert sine.returncode == -signal.SIGINT


def test_the_page_shows_the_programs():
    shown = re.findall(r"^```python\n(#!.*?)^```", (TOP / "docs/python.md").read_text(), re.M | re.S)
    assert sorted(shown) == sorted(path.read_text() for path in EXAMPLES.glob("*.py"))

"""Fixtures of all tests of the module: a private base directory and name, and a check that no
descriptor, thread or file is left."""

import gc
import itertools
import os
import subprocess
import sys
import tempfile
import time
from concurrent.futures import ThreadPoolExecutor
from pathlib import Path

import pytest

import vellox

DEADLINE = 30
_number = itertools.count()


def wait_until(condition):
    """Waits for a condition, with a deadline that a busy machine meets."""
    end = time.monotonic() + DEADLINE
    while not (result := condition()):
        assert time.monotonic() < end, "the condition was not met in time"
        time.sleep(0.002)
    return result


def run_python(code, *arguments, **options):
    command = [sys.executable, "-X", "dev", "-W", "error", "-c", code, *arguments]
    return subprocess.Popen(command, text=True, **options)


def get_holdings():
    return len(os.listdir("/proc/self/fd")), len(os.listdir("/proc/self/task"))


@pytest.fixture(scope="session", autouse=True)
def libraries():
    """Lets the libraries open what they open once."""
    with tempfile.TemporaryDirectory(prefix="py-") as path:
        name = f"python-{os.getpid()}"
        with vellox.Producer(name, base_directory=path) as sender:
            with vellox.Consumer(name, base_directory=path):
                sender.wait_for_receivers(1, timeout=DEADLINE)
                sender.acquire(1)


@pytest.fixture(autouse=True)
def directory(monkeypatch, libraries):
    with tempfile.TemporaryDirectory(prefix="py-") as path:
        monkeypatch.setenv("TMPDIR", path)
        before = get_holdings()
        yield Path(path)
        gc.collect()
        wait_until(lambda: all(now <= then for now, then in zip(get_holdings(), before)))
        assert os.listdir(path) == []


@pytest.fixture
def name():
    return f"python-{os.getpid()}-{next(_number)}"


@pytest.fixture
def streams(name):
    """Makes connected pairs, of which the first has the test's name."""

    def make(consumer={}, **producer):
        sender = vellox.Producer(name if not opened else f"{name}-{len(opened)}", **producer)
        receiver = vellox.Consumer(sender.name, **{"timeout": DEADLINE, **consumer})
        opened.extend((receiver, sender))
        sender.wait_for_receivers(1, timeout=DEADLINE)
        return sender, receiver

    opened = []
    yield make
    with ThreadPoolExecutor() as pool:
        list(pool.map(lambda stream: stream.close(), opened))
    opened.clear()

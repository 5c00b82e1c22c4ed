"""Ctrl-C, forks and the end of the interpreter, in processes of their own."""

import signal
import subprocess

import pytest

from conftest import DEADLINE, run_python, wait_until

BEGIN = """
import asyncio, multiprocessing, os, sys, threading, time, warnings, vellox
name = sys.argv[1]
def ready(): print("ready", flush=True)
"""


@pytest.fixture
def start(name):
    """Runs code in a process, with a private stream name."""

    def run(code):
        process = run_python(
            BEGIN + code,
            f"{name}-{len(processes)}",
            stdout=subprocess.PIPE,
            stderr=subprocess.PIPE,
        )
        processes.append(process)
        return process

    processes = []
    yield run
    for process in processes:
        process.kill()
        process.communicate()


def finish(process):
    output, errors = process.communicate(timeout=DEADLINE)
    return process.returncode, output, errors


WAITS = {
    "read": "vellox.Consumer(name).read()",
    "for": "[frame for frame in vellox.Consumer(name)]",
    "wait_for_receivers": "vellox.Producer(name).wait_for_receivers()",
    "send": """
sender = vellox.Producer(name, rate=1)
while True: sender.send(bytes(400))
""",
    "with": """
with vellox.Producer(name) as sender, vellox.Consumer(name) as receiver:
    sender.send(bytes(1920), duration=10**12)
    receiver.read(); receiver.read()
""",
    "probe": """
import socket
with socket.socket(socket.AF_UNIX) as listener:
    listener.bind(b"\\0" + name.encode())
    listener.listen(8)
    print("probed", vellox.probe(name, timeout=1000))
""",
    "async for": """
async def receive():
    async for frame in vellox.Consumer(name): pass
asyncio.run(receive())
""",
}


def sleeps(process):
    with open(f"/proc/{process.pid}/stat") as stat:
        return stat.read().rpartition(") ")[2].startswith("S")


def test_ctrl_c_ends_every_wait(start):
    waiting = {wait: start("ready()\n" + code) for wait, code in WAITS.items()}
    for wait, process in waiting.items():
        assert process.stdout.readline() == "ready\n", wait
    for process in waiting.values():
        wait_until(lambda process=process: sleeps(process))
        process.send_signal(signal.SIGINT)
    for wait, process in waiting.items():
        code, output, errors = finish(process)
        assert code == -signal.SIGINT, wait + errors
        assert errors.rstrip().endswith("KeyboardInterrupt"), wait + errors
        assert output == "", wait


ENDS = {
    "open objects": "a, b = vellox.Producer(name), vellox.Consumer(name)",
    "cycle": """
a, b = vellox.Producer(name), vellox.Consumer(name)
a.other, b.other = b, a
""",
    "exception in a loop": """
sender = vellox.Producer(name)
receiver = vellox.Consumer(name)
sender.wait_for_receivers()
sender.send(bytes(1920))
for frame in receiver:
    sys.exit(0)
""",
    "daemon threads": """
def send():
    sender = vellox.Producer(name)
    sender.wait_for_receivers()
    while True: sender.send(bytes(192))
def receive():
    for frame in receiver: pass
receiver = vellox.Consumer(name)
for task in send, receive, receive, lambda: vellox.Consumer(name + "2").read():
    threading.Thread(target=task, daemon=True).start()
receiver.read()
""",
    "endless daemon": """
def busy():
    while True:
        try: vellox.Consumer(name).read(0.001)
        except vellox.Error: pass
for _ in range(3): threading.Thread(target=busy, daemon=True).start()
time.sleep(0.05)
""",
    "fork": """
sender, receiver = vellox.Producer(name), vellox.Consumer(name)
sender.wait_for_receivers()
if (child := os.fork()) == 0:
    for use in (receiver.read, lambda: sender.send(b""), lambda: vellox.Consumer(name)):
        try: use()
        except vellox.Error: pass
        else: os._exit(9)
    sender.close(); receiver.close()
    sys.exit(7)
assert os.waitstatus_to_exitcode(os.waitpid(child, 0)[1]) == 7
sender.send(bytes(1920))
receiver.read(30)
""",
    "fork without streams": """
vellox.Consumer(name).close()
if (child := os.fork()) == 0:
    with vellox.Producer(name) as sender, vellox.Consumer(name) as receiver:
        sender.wait_for_receivers()
        sender.send(bytes(1920))
        receiver.read(30)
    sys.exit(7)
assert os.waitstatus_to_exitcode(os.waitpid(child, 0)[1]) == 7
""",
    "multiprocessing": """
from concurrent.futures import ProcessPoolExecutor
with vellox.Producer(name) as sender:
    found = []
    for method in "spawn", "fork":
        with ProcessPoolExecutor(1, multiprocessing.get_context(method)) as pool:
            found.append(pool.submit(vellox.probe, name).result(30).answered)
    assert found == [True, True]
""",
}


def test_processes_end_with_streams_open(start):
    for end, process in {end: start(code) for end, code in ENDS.items()}.items():
        assert finish(process) == (0, "", ""), end

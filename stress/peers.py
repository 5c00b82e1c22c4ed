"""Local processes that misbehave, on plain sockets: clients of a sender, impostors that hold a
sender's name, and another user in the sender's directory. Each counts on its standard output, a
file, how often it has done its work.

usage: peers.py ROLE NAME [ARGUMENT]"""

import ctypes
import os
from pathlib import Path
import random
import signal
import socket
import struct
import sys
import time

# What peers say on the main channel's socket: first a greeting, which is answered by one of the
# same length; then type, length (big-endian) and bytes of each message.
SUBSCRIBER = b"\0SP\0\0\x21\0\0"
PUBLISHER = b"\0SP\0\0\x20\0\0"
PUSHER = b"\0SP\0\0\x50\0\0"
ONE_BYTE_MESSAGE = b"\x01" + struct.pack(">Q", 1) + b"x"
ENDLESS_MESSAGE = b"\x01" + b"\xff" * 8
RUBBISH_BYTES = 4096
OTHER_USER = 100_000

PIPELINE, PUB_SUB = 1, 2
MONOTONIC_CLOCK = 2
PCM_ANNOUNCEMENT = struct.pack("<HHIIBB", 1, 1, 0x414D4350, 48_000, 2, 2)
count = 0


def note() -> None:
    """One more piece of work is done."""
    global count
    count += 1
    os.pwrite(sys.stdout.fileno(), b"%20d\n" % count, 0)


def connect(name: str) -> socket.socket:
    """Joins a sender's sidechannel; waits for the sender."""
    while True:
        client = socket.socket(socket.AF_UNIX)
        try:
            client.connect("\0" + name)
            return client
        except (ConnectionRefusedError, FileNotFoundError):
            client.close()
            time.sleep(0.01)


def read_message(client: socket.socket) -> bytes:
    size = struct.unpack("<I", client.recv(4, socket.MSG_WAITALL))[0]
    return client.recv(size, socket.MSG_WAITALL)


def frame(message: bytes) -> bytes:
    return struct.pack("<I", len(message)) + message


def join_main_channel(client: socket.socket) -> socket.socket:
    """Joins what the sender announces on the sidechannel."""
    _, _, rest = read_message(client)[2:].partition(b"\0")
    main = socket.socket(socket.AF_UNIX)
    main.connect(rest[4:].rstrip(b"\0").removeprefix(b"ipc://").decode())
    return main


def listen(name: str) -> socket.socket:
    server = socket.socket(socket.AF_UNIX)
    server.bind("\0" + name)
    server.listen(64)
    return server


def open_main_channel() -> tuple[Path, socket.socket]:
    path = Path(os.environ["TMPDIR"], f"VlxSender-{os.getpid()}", "nanomsgChannel.ipc")
    path.parent.mkdir()
    publisher = socket.socket(socket.AF_UNIX)
    publisher.bind(str(path))
    publisher.listen(64)
    return path, publisher


def greeting(protocol: int, path: Path) -> bytes:
    return frame(struct.pack("<H", 1) + b"\0" + struct.pack("<HBB", 0, MONOTONIC_CLOCK, protocol) +
                 b"ipc://" + os.fsencode(path) + b"\0")


def churn(name: str, times: str) -> None:
    for _ in range(int(times)):
        connect(name).close()
        note()


def send_once(name: str, hello: bytes, message: bytes) -> None:
    """Joins both channels and sends something there, but never reads."""
    client = connect(name)
    main = join_main_channel(client)
    main.sendall(hello)
    main.recv(len(hello), socket.MSG_WAITALL)
    main.sendall(message)
    note()
    signal.pause()


def write_rubbish(name: str, to_main: bool) -> None:
    """Joins again whenever the sender throws it out. On the main channel every second connection
    greets first and announces the longest of all messages."""
    greets = False
    while True:
        client = connect(name)
        try:
            channel = join_main_channel(client) if to_main else client
            if to_main and greets:
                channel.sendall(SUBSCRIBER + ENDLESS_MESSAGE)
            while True:
                note()
                channel.sendall(random.randbytes(RUBBISH_BYTES))
        except (OSError, struct.error):
            greets = not greets


def send_urgent(name: str) -> None:
    """One byte that no ordinary read gets, though there is something to read."""
    clients = []
    while True:
        clients.append(connect(name))
        clients[-1].send(b"x", socket.MSG_OOB)
        note()
        time.sleep(0.3)


def pass_lingering(name: str) -> None:
    """Passes TCP sockets whose close would wait: their data has nowhere to go. From a child each,
    which is gone before the sender closes its own."""
    signal.signal(signal.SIGCHLD, signal.SIG_IGN)
    server = socket.create_server(("127.0.0.1", 0))
    while True:
        if os.fork() == 0:
            tcp = socket.create_connection(server.getsockname())
            tcp.setsockopt(socket.SOL_SOCKET, socket.SO_LINGER, struct.pack("ii", 1, 2))
            tcp.setblocking(False)
            try:
                while True:
                    tcp.send(bytes(65536))
            except BlockingIOError:
                socket.send_fds(connect(name), [b"x"], [tcp.fileno()])
                tcp.close()
            os._exit(0)
        note()
        time.sleep(2)


def greet_malformed(name: str) -> None:
    server = listen(name)
    while True:
        client = server.accept()[0]
        client.sendall(frame(b"\x01\0no end"))
        note()
        client.recv(1)


def make_packet() -> bytes:
    """Random packets of every small size. Many get past the sequence filter, and select a codec."""
    packet = bytearray(random.randbytes(random.randint(1, 40)))
    packet[0] = random.randint(0, 3)
    if len(packet) >= 8 and random.random() < 0.5:
        packet[2:8] = b"\x01\0PCMA"
    return bytes(packet)


def publish_rubbish(name: str) -> None:
    """Greets properly whoever comes, announces PCM, and publishes rubbish."""
    path, publisher = open_main_channel()
    publisher.setblocking(False)
    server = listen(name)
    server.setblocking(False)
    clients, subscribers = [], []
    while True:
        try:
            clients.append(server.accept()[0])
            clients[-1].sendall(greeting(PUB_SUB, path))
            clients[-1].sendall(frame(PCM_ANNOUNCEMENT))
        except OSError:
            pass
        try:
            subscriber = publisher.accept()[0]
            subscriber.sendall(PUBLISHER)
            subscriber.recv(8, socket.MSG_WAITALL)
            subscribers.append(subscriber)
        except OSError:
            time.sleep(0 if subscribers else 0.001)
        for subscriber in list(subscribers):
            packets = [make_packet() for _ in range(20)]
            try:
                subscriber.sendall(b"".join(
                    b"\x01" + struct.pack(">Q", len(p)) + p for p in packets))
                for _ in packets:
                    note()
            except OSError:
                subscribers.remove(subscriber)


def hold_urgently(name: str) -> None:
    """Holds a sender's name, greets properly, announces a sequence, and sends a byte that no
    ordinary read gets."""
    path, _publisher = open_main_channel()
    server = listen(name)
    clients = []
    while True:
        clients.append(server.accept()[0])
        try:
            clients[-1].sendall(greeting(PUB_SUB, path) + frame(PCM_ANNOUNCEMENT))
            time.sleep(0.1)
            clients[-1].send(b"x", socket.MSG_OOB)
            note()
        except OSError:
            pass


def become_other_user() -> None:
    os.setgroups([])
    os.setgid(OTHER_USER)
    os.setuid(OTHER_USER)


def announce_swapped(name: str, target: str) -> None:
    """Another user holds the name, lets receivers bind in a directory of his, and swaps a link in
    for their socket file."""
    become_other_user()
    directory = Path(os.environ["TMPDIR"], "VlxSender-others")
    directory.mkdir()
    directory.chmod(0o777)
    path = directory / "nanomsgChannel.ipc"
    server = listen(name)
    while True:
        client = server.accept()[0]
        try:
            client.sendall(greeting(PIPELINE, path) + frame(PCM_ANNOUNCEMENT))
        except OSError:
            continue
        deadline = time.monotonic() + 0.2
        while time.monotonic() < deadline and not swap(str(path), target):
            pass
        client.close()


def swap(path: str, target: str | None) -> bool:
    """Puts a link, or without a target a directory, in the place of a file if it is there."""
    try:
        os.unlink(path)
        if target:
            os.symlink(target, path)
        else:
            os.mkdir(path)
        note()
        return True
    except OSError:
        return False


def swap_in_directories(target: str | None) -> None:
    """Another user waits for senders' directories and swaps in every one that lets him."""
    become_other_user()
    base = os.environ["TMPDIR"]
    done = set()
    while True:
        for entry in set(os.listdir(base)) - done:
            if entry.startswith("VlxSender-") and swap(f"{base}/{entry}/nanomsgChannel.ipc", target):
                done.add(entry)


ROLES = {
    "churn": churn,
    "silent": lambda name: send_once(name, SUBSCRIBER, b""),
    "publisher-message": lambda name: send_once(name, SUBSCRIBER, ONE_BYTE_MESSAGE),
    "puller-message": lambda name: send_once(name, PUSHER, ENDLESS_MESSAGE),
    "rubbish-sidechannel": lambda name: write_rubbish(name, False),
    "rubbish-main": lambda name: write_rubbish(name, True),
    "oob": send_urgent,
    "lingering": pass_lingering,
    "greet-malformed": greet_malformed,
    "publish-rubbish": publish_rubbish,
    "hold-urgently": hold_urgently,
    "announce-swapped": announce_swapped,
    "swap": lambda name, target=None: swap_in_directories(target),
}

if __name__ == "__main__":
    ctypes.CDLL(None).prctl(1, signal.SIGKILL)  # PR_SET_PDEATHSIG
    ROLES[sys.argv[1]](*sys.argv[2:])

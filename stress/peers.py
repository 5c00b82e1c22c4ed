"""Local processes that misbehave, on plain sockets: clients of a sender, impostors that hold a
sender's name, another user in the sender's directory, and a provider of a network clock. Each runs
until it is killed, and calls its first argument whenever it has done its work once more."""

import array
from contextlib import suppress
import encodings.idna  # noqa: F401  now: another user may not read the interpreter's directory
import itertools
import os
from pathlib import Path
import random
import signal
import socket
import struct
import threading
import time
from typing import Callable, Iterator

from shared import die_with_parent

# What peers say on the main channel's socket: first a greeting, which is answered by one of the
# same length; then type, length (big-endian) and bytes of each message.
SUBSCRIBER = b"\0SP\0\0\x21\0\0"
PUBLISHER = b"\0SP\0\0\x20\0\0"
PUSHER = b"\0SP\0\0\x50\0\0"
ONE_BYTE_MESSAGE = b"\x01" + struct.pack(">Q", 1) + b"x"
ENDLESS_MESSAGE = b"\x01" + b"\xff" * 8
RUBBISH_BYTES = 4096
RUBBISH_TIMES = 10  # of a clock, for each request
OTHER_USER = 100_000

PIPELINE, PUB_SUB = 1, 2
MONOTONIC_CLOCK = 2
PCM_ANNOUNCEMENT = struct.pack("<HHIIBB", 1, 1, 0x414D4350, 48_000, 2, 2)
HONEST, SILENT, HOSTILE = range(3)  # modes of a clock

Note = Callable[[], None]
Put = Callable[[Path], None]  # makes a link or a directory


def connect(address: str) -> socket.socket:
    client = socket.socket(socket.AF_UNIX)
    client.connect(address)
    return client


def join(name: str) -> socket.socket:
    """Joins a sender's sidechannel."""
    return connect("\0" + name)


def frame(message: bytes) -> bytes:
    return struct.pack("<I", len(message)) + message


def join_main_channel(client: socket.socket) -> socket.socket:
    """Joins what the sender announces on the sidechannel."""
    size = struct.unpack("<I", client.recv(4, socket.MSG_WAITALL))[0]
    _, _, rest = client.recv(size, socket.MSG_WAITALL)[2:].partition(b"\0")
    return connect(rest[4:].rstrip(b"\0").removeprefix(b"ipc://").decode())


def listen(address: str) -> socket.socket:
    server = socket.socket(socket.AF_UNIX)
    server.bind(address)
    server.listen(64)
    return server


def open_main_channel() -> tuple[Path, socket.socket]:
    path = Path(os.environ["TMPDIR"], f"VlxSender-{os.getpid() % 10**6:06}", "nanomsgChannel.ipc")
    path.parent.mkdir()
    return path, listen(str(path))


def greeting(protocol: int, path: Path) -> bytes:
    """A sender's, and the announcement of a sequence."""
    return frame(struct.pack("<H", 1) + b"\0" + struct.pack("<HBB", 0, MONOTONIC_CLOCK, protocol) +
                 b"ipc://" + os.fsencode(path) + b"\0") + frame(PCM_ANNOUNCEMENT)


def greet(name: str, words: bytes) -> Iterator[socket.socket]:
    """Holds a sender's name; yields each client after the greeting."""
    server = listen("\0" + name)
    while True:
        client = server.accept()[0]
        with suppress(OSError):
            client.sendall(words)
            yield client


def churn(note: Note, name: str) -> None:
    while True:
        join(name).close()
        note()


def send_once(note: Note, name: str, hello: bytes, message: bytes = b"") -> None:
    """Joins both channels and sends something there, but never reads."""
    client = join(name)
    main = join_main_channel(client)
    main.sendall(hello)
    main.recv(len(hello), socket.MSG_WAITALL)
    main.sendall(message)
    note()
    signal.pause()


def write_rubbish(note: Note, name: str, to_main: bool) -> None:
    """Joins again whenever the sender throws it out. On the main channel every second connection
    greets first and announces the longest of all messages."""
    for begin in itertools.cycle([b"", SUBSCRIBER + ENDLESS_MESSAGE] if to_main else [b""]):
        client = join(name)
        with suppress(OSError, struct.error):
            channel = join_main_channel(client) if to_main else client
            channel.sendall(begin)
            while True:
                note()
                channel.sendall(random.randbytes(RUBBISH_BYTES))


def make_packet() -> bytes:
    """Random packets of every small size. Many get past the sequence filter, and select a codec."""
    packet = bytearray(random.randbytes(random.randint(1, 40)))
    packet[0] = random.randint(0, 3)
    if len(packet) >= 8 and random.random() < 0.5:
        packet[2:8] = b"\x01\0PCMA"
    return bytes(packet)


def publish_rubbish(note: Note, name: str) -> None:
    """Holds a sender's name, sends a valid greeting, announces PCM, and publishes random packets to
    each subscriber until it disconnects."""
    path, publisher = open_main_channel()
    visitors = greet(name, greeting(PUB_SUB, path))
    threading.Thread(target=list, args=(visitors,), daemon=True).start()
    while True:
        subscriber = publisher.accept()[0]
        with subscriber, suppress(OSError):
            subscriber.sendall(PUBLISHER)
            subscriber.recv(8, socket.MSG_WAITALL)
            while True:
                packet = make_packet()
                subscriber.sendall(b"\x01" + struct.pack(">Q", len(packet)) + packet)
                note()


def become_other_user() -> None:
    os.setgroups([])
    os.setgid(OTHER_USER)
    os.setuid(OTHER_USER)
    die_with_parent()  # is forgotten at a change of the user


def swap(note: Note, path: Path, put: Put) -> bool:
    """Puts something in the place of a file if it is there."""
    with suppress(OSError):
        path.unlink()
        put(path)
        note()
        return True
    return False


def be_hostile(note: Note, role: Callable, *arguments: object) -> None:
    """Plays a role as another user, where that is possible."""
    if os.geteuid() == 0:
        become_other_user()
    role(note, *arguments)


def pass_file(client: socket.socket, words: bytes, file: int, flags: int = 0) -> None:
    rights = [(socket.SOL_SOCKET, socket.SCM_RIGHTS, array.array("i", [file]))]
    client.sendmsg([words], rights, flags)


def pass_file_to_sender(note: Note, name: str, path: Path) -> None:
    """Alone, and behind an urgent byte."""
    file = os.open(path, os.O_RDONLY)
    for number in itertools.count():
        with suppress(OSError), join(name) as client:
            pass_file(client, b"xy", file, socket.MSG_OOB if number % 2 else 0)
            note()
            time.sleep(0.05)


def pass_file_to_receiver(note: Note, name: str, path: Path) -> None:
    """Before and after a proper greeting."""
    file = os.open(path, os.O_RDONLY)
    channel, _publisher = open_main_channel()
    server, clients = listen("\0" + name), []
    for number in itertools.count():
        clients.append(server.accept()[0])
        with suppress(OSError):
            if number % 2:
                clients[-1].sendall(greeting(PUB_SUB, channel))
                time.sleep(0.05)
            pass_file(clients[-1], b"xy", file)
            note()


def serve_stuck_files(note: Note, device: int) -> None:
    """A FUSE file system with one file, of which no close is ever answered. Structures as in
    linux/fuse.h, version 7.31."""
    lookup, getattr_, open_, flush, init, interrupt, forgets = 1, 3, 14, 25, 26, 36, (2, 42)

    def attributes(node: int) -> bytes:
        mode = 0o40755 if node == 1 else 0o100666
        return struct.pack("<6Q10I", node, *[0] * 8, mode, 1, *[0] * 3, 4096, 0)

    while True:
        request = os.read(device, 1 << 17)
        _, operation, unique, node = struct.unpack_from("<IIQQ", request)
        note()
        if operation in (flush, interrupt, *forgets):
            continue
        answers = {
            init: lambda: struct.pack("<4I2H2I2H8I", 7, 31, 65536, 0, 0, 0, 65536, 1, *[0] * 10),
            lookup: lambda: struct.pack("<4Q2I", 2, 0, 1000, 1000, 0, 0) + attributes(2),
            getattr_: lambda: struct.pack("<Q2I", 1000, 0, 0) + attributes(node),
            open_: lambda: struct.pack("<Q2I", 1, 0, 0),
        }
        body = answers[operation]() if operation in answers else b""
        error = 0 if operation in answers else -38  # ENOSYS
        os.write(device, struct.pack("<IiQ", 16 + len(body), error, unique) + body)


def swap_in_directories(note: Note, put: Put) -> None:
    """Another user waits for senders' directories and replaces files wherever it is permitted."""
    become_other_user()
    done = set()
    while True:
        for entry in set(Path(os.environ["TMPDIR"]).glob("VlxSender-*")) - done:
            if swap(note, entry / "nanomsgChannel.ipc", put):
                done.add(entry)


def provide_time(note: Note, server: socket.socket, state: list[int]) -> None:
    """Answers with two big-endian times, the client's and its own; a hostile one with a random time
    and random packets, every other one of the right size.

    state: the mode, and the offset of its time from the system's in ns; shared"""
    while True:
        request, client = server.recvfrom(64)
        mode, offset = state
        now = random.getrandbits(64) if mode == HOSTILE else time.monotonic_ns() + offset
        if mode != SILENT:
            server.sendto(request[:8] + struct.pack(">Q", now), client)
        for number in range(RUBBISH_TIMES if mode == HOSTILE else 0):
            server.sendto(random.randbytes(16 if number % 2 else random.randrange(16)), client)
        note()

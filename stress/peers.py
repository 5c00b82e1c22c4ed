"""Local processes that misbehave, on plain sockets: clients of a sender, impostors that hold a
sender's name, another user in the sender's directory, and a provider of a network clock. Each runs
until it is killed, and calls its first argument whenever it has done its work once more."""

from contextlib import suppress
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
    """Holds a sender's name: those who come, greeted."""
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


def send_urgent(note: Note, name: str) -> None:
    """One byte that no ordinary read gets, though there is something to read."""
    clients = []
    while True:
        clients.append(join(name))
        clients[-1].send(b"x", socket.MSG_OOB)
        note()
        time.sleep(0.3)


def pass_lingering(note: Note, name: str) -> None:
    """Passes TCP sockets whose close would wait: their data has nowhere to go. From a child each,
    which is gone before the sender closes its own."""
    signal.signal(signal.SIGCHLD, signal.SIG_IGN)
    server = socket.create_server(("127.0.0.1", 0))
    while True:
        if os.fork() == 0:
            tcp = socket.create_connection(server.getsockname())
            tcp.setsockopt(socket.SOL_SOCKET, socket.SO_LINGER, struct.pack("ii", 1, 2))
            tcp.setblocking(False)
            with suppress(BlockingIOError):
                while True:
                    tcp.send(bytes(65536))
            socket.send_fds(join(name), [b"x"], [tcp.fileno()])
            tcp.close()
            os._exit(0)
        note()
        time.sleep(2)


def greet_malformed(note: Note, name: str) -> None:
    for client in greet(name, frame(b"\x01\0no end")):
        note()
        client.recv(1)


def make_packet() -> bytes:
    """Random packets of every small size. Many get past the sequence filter, and select a codec."""
    packet = bytearray(random.randbytes(random.randint(1, 40)))
    packet[0] = random.randint(0, 3)
    if len(packet) >= 8 and random.random() < 0.5:
        packet[2:8] = b"\x01\0PCMA"
    return bytes(packet)


def publish_rubbish(note: Note, name: str) -> None:
    """Greets properly whoever comes, announces PCM, and publishes rubbish to each subscriber until
    it leaves."""
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


def hold_urgently(note: Note, name: str) -> None:
    """Holds a sender's name, greets properly, announces a sequence, and sends a byte that no
    ordinary read gets."""
    path, _publisher = open_main_channel()
    clients = []
    for client in greet(name, greeting(PUB_SUB, path)):
        clients.append(client)
        time.sleep(0.1)
        with suppress(OSError):
            client.send(b"x", socket.MSG_OOB)
            note()


def become_other_user() -> None:
    os.setgroups([])
    os.setgid(OTHER_USER)
    os.setuid(OTHER_USER)
    die_with_parent()  # is forgotten at a change of the user


def announce_swapped(note: Note, name: str, put: Put) -> None:
    """Another user holds the name, lets receivers bind in a directory of his, and swaps something
    in for their socket file."""
    become_other_user()
    directory = Path(os.environ["TMPDIR"], "VlxSender-others")
    directory.mkdir()
    directory.chmod(0o777)
    path = directory / "nanomsgChannel.ipc"
    for client in greet(name, greeting(PIPELINE, path)):
        deadline = time.monotonic() + 0.2
        while time.monotonic() < deadline and not swap(note, path, put):
            pass
        client.close()


def swap(note: Note, path: Path, put: Put) -> bool:
    """Puts something in the place of a file if it is there."""
    with suppress(OSError):
        path.unlink()
        put(path)
        note()
        return True
    return False


def swap_in_directories(note: Note, put: Put) -> None:
    """Another user waits for senders' directories and swaps in every one that lets him."""
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

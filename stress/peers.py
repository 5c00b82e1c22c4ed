"""Local processes that misbehave, on plain sockets: clients of a sender, impostors that hold a
sender's name, another user in the sender's directory, and a provider of a network clock. Each runs
until it is killed, and calls its first argument whenever it has done its work once more."""

import array
from contextlib import suppress
import ctypes
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


def send_urgent(note: Note, name: str) -> None:
    """One byte that no ordinary read gets, though there is something to read."""
    clients = []
    while True:
        clients.append(join(name))
        clients[-1].send(b"x", socket.MSG_OOB)
        note()
        time.sleep(0.3)


def pass_lingering(note: Note, name: str) -> None:
    """From a child each, which is gone before the sender closes its own."""
    signal.signal(signal.SIGCHLD, signal.SIG_IGN)
    server = socket.create_server(("127.0.0.1", 0))
    while True:
        if os.fork() == 0:
            tcp = make_lingering(server)
            pass_file(join(name), b"x", tcp.fileno())
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


def publish(note: Note, name: str, messages: Iterator[bytes]) -> None:
    """Holds a sender's name, greets properly, announces PCM, and publishes to each subscriber until
    it leaves."""
    path, publisher = open_main_channel()
    visitors = greet(name, greeting(PUB_SUB, path))
    threading.Thread(target=list, args=(visitors,), daemon=True).start()
    while True:
        subscriber = publisher.accept()[0]
        with subscriber, suppress(OSError):
            subscriber.sendall(PUBLISHER)
            subscriber.recv(8, socket.MSG_WAITALL)
            for message in messages:
                subscriber.sendall(message)
                note()


def make_message(packet: bytes) -> bytes:
    """As the main channel carries it."""
    return b"\x01" + struct.pack(">Q", len(packet)) + packet


def publish_rubbish(note: Note, name: str) -> None:
    publish(note, name, (make_message(make_packet()) for _ in itertools.count()))


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
    """Another user holds the name, lets receivers bind in its directory, and replaces their socket
    file."""
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


def make_lingering(server: socket.socket) -> socket.socket:
    """A TCP socket whose close would block: its data cannot be sent."""
    tcp = socket.create_connection(server.getsockname())
    tcp.setsockopt(socket.SOL_SOCKET, socket.SO_LINGER, struct.pack("ii", 1, 4))
    tcp.setblocking(False)
    with suppress(BlockingIOError):
        while True:
            tcp.send(bytes(65536))
    return tcp


def fill_backlog(note: Note, name: str) -> None:
    """With a lingering socket in each connection, behind an urgent byte."""
    server = socket.create_server(("127.0.0.1", 0))
    clients = []
    while True:
        client = socket.socket(socket.AF_UNIX)
        client.setblocking(False)
        try:
            client.connect("\0" + name)
        except BlockingIOError:  # it is full
            signal.pause()
        with make_lingering(server) as tcp:
            pass_file(client, b"x", tcp.fileno(), socket.MSG_OOB)
        clients.append(client)
        note()


def answer_differently(note: Note, name: str, targets: list[Path]) -> None:
    """Holds a sender's name. Every second answer is good."""
    path, _publisher = open_main_channel()
    link = path.parent.with_name("VlxSender-linked")
    link.symlink_to(targets[-1].parent)
    good = greeting(PUB_SUB, path)
    bad = [frame(b"\x01\0no end"), frame(b""), b"\xff\xff\xff\x7f",
           good.replace(b"\x02ipc", b"\x07ipc"),
           greeting(PIPELINE, link / "nanomsgChannel.ipc"),
           greeting(PIPELINE, Path("/tmp/" + "x" * 110))]
    bad += [greeting(PIPELINE, target) for target in targets]
    answers = itertools.cycle([answer for each in bad for answer in (good, each)])
    server = listen("\0" + name)
    while True:
        client = server.accept()[0]
        with suppress(OSError):
            client.settimeout(0.3)
            client.sendall(next(answers))
            note()
            client.recv(1)
        client.close()


def make_frame(timestamp: int, size: int) -> bytes:
    """The message of a frame that is all silence."""
    duration = size // 4 * 10**9 // 48_000
    return make_message(struct.pack("<HHQQ", 2, 1, timestamp % 2**64, duration) + bytes(size))


def flood(note: Note, name: str) -> None:
    """With the smallest of frames, many at once."""
    def make_messages() -> Iterator[bytes]:
        while True:
            now = time.monotonic_ns()
            yield b"".join(make_frame(now + 20_833 * number, 4) for number in range(1000))
    publish(note, name, make_messages())


def send_gaps(note: Note, name: str) -> None:
    """Gaps of a second up to years, small frames and larger ones."""
    def make_frames() -> Iterator[bytes]:
        timestamp = time.monotonic_ns()
        for number in itertools.count():
            timestamp += 10**9 if number < 50 else 10**17
            yield make_frame(timestamp, 2040 if number % 2 else 4)
            time.sleep(0.01)
    publish(note, name, make_frames())


def forge_names(note: Note, name: str) -> None:
    """Listens under names that hold lines of /proc/net/unix: for the real sender's socket under
    another name, and for sockets that are not there under the sender's."""
    with open("/proc/net/unix", encoding="latin-1") as table:
        inodes = [line.split()[6] for line in table if line.rstrip().endswith(f"@{name}")]
    servers = []
    for inode in [*inodes, "0", "1", "x"]:
        for shown in (f"@{name}x", "@", f"@{name}"):
            line = f"ffff: 00000002 00000000 00010000 0001 01 {inode} {shown}"
            with suppress(OSError):
                servers.append(listen(f"\0x\n{line}"))
    note()
    signal.pause()


def hold_mute_names(note: Note, count: int) -> None:
    """Imitates a process with a number of hanging senders."""
    ctypes.CDLL(None).prctl(15, b"vlx-listener")  # PR_SET_NAME
    servers = []
    for number in range(count):
        servers.append(socket.socket(socket.AF_UNIX, socket.SOCK_STREAM | socket.SOCK_NONBLOCK))
        servers[-1].bind(f"\0mute-{os.getpid()}-{number}")
        servers[-1].listen(4)
        note()
    signal.pause()


def race_narrowing(note: Note) -> None:
    """Joins every main channel that is open to it, and records those that continue to send."""
    while True:
        for entry in Path(os.environ["TMPDIR"]).glob("VlxSender-*"):
            with suppress(OSError):
                client = connect(str(entry / "nanomsgChannel.ipc"))
                client.settimeout(2)
                client.sendall(SUBSCRIBER)
                if len(client.recv(64)) > len(SUBSCRIBER) or client.recv(64):
                    note()


def hold_connections(note: Note, name: str, count: int) -> None:
    clients = []
    while len(clients) < count:
        client = socket.socket(socket.AF_UNIX)
        client.setblocking(False)
        with suppress(BlockingIOError):  # while the backlog is full
            client.connect("\0" + name)
            clients.append(client)
        note()
        time.sleep(0.01)
    signal.pause()


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

"""Provokes faults, one after the other: kills at each step of the sender's set-up, 32 receivers
killed and stopped at random, misbehaving clients and impostors, another user in the sender's
directory, exhausted descriptors and threads, a full, read-only and removed TMPDIR, a network clock
that stops, jumps or talks rubbish. A row is ok, FAILED, limit (documented behaviour that is no
success) or skipped: as root it also mounts file systems, in a private mount namespace, and runs
processes as other users."""

from collections import Counter
import contextlib
import ctypes
import functools
import multiprocessing
import os
from pathlib import Path
import random
import re
import resource
import shutil
import signal
import socket
import stat
import subprocess
import time
from typing import Callable

from fleet import End, Peer, Process, Stream, delivery
import peers
from rows import LIMIT, SKIPPED, Run, row
from shared import make_name, median, wait_until

fault = functools.partial(row, "chaos")


# Kills.

@fault("setup-kill", "sender killed -9 at each step of its set-up", "4 receivers resume", 4)
@fault("setup-kill-pipeline", "the same in pipeline mode", "the receiver resumes", 1, True)
def kill_at_steps(run: Run, num_consumers: int, pipeline: bool = False) -> None:
    """At each line that it logs, until it has sent five frames before it got there."""
    stream = run.start(num_consumers, pipeline=pipeline)

    def is_killed(step: int) -> bool:
        stream.producer.kill()
        stream.producer = stream.start_producer(kill=step, frames=5)
        end = stream.producer.await_end(run.limit)
        run.require(end in ("SIGKILL", "worked"),
                    f"the sender did not die at log line {step} within {run.limit} s: {end}")
        return end == "SIGKILL"
    kill_senders(run, stream, is_killed)


@fault("send-kill", "sender killed -9 while sending", "8 receivers resume", 10)
@row("endurance", "restarts", "the sender killed with -9 and started again at random moments",
     "each of 8 receivers delivers again", 2.5)
def kill_while_sending(run: Run, kills_a_minute: float) -> None:
    def is_wanted(number: int) -> bool:
        time.sleep(random.uniform(0, 1))
        return number <= kills_a_minute * run.minutes
    kill_senders(run, run.start(8), is_wanted)


def kill_senders(run: Run, stream: Stream, is_wanted: Callable[[int], bool]) -> None:
    """Kills and restarts the producer again and again, after what tells whether to."""
    times = []
    while is_wanted(len(times) + 1):
        times.append(run.resume(stream))
    run.require(times, "nothing was killed")
    run.tell(f"{len(times)} kills; resumed after p50 {median(times):.0f}, max {max(times):.0f} ms; "
             f"stall watch used {sum(end.board.stalls for end in stream.consumers)} times")
    run.resume(stream)
    run.check_handles(stream)


# Misbehaving clients.

@fault("churn", "client connects and leaves 10,000 times", "others undisturbed, nothing left",
       10_000, True, peers.churn)
@fault("silent", "client joins both channels, never reads", "others undisturbed, nothing left",
       1, False, peers.send_once, peers.SUBSCRIBER)
@fault("rubbish-sidechannel", "client writes rubbish to the sidechannel", "others undisturbed",
       1, True, peers.write_rubbish, False)
@fault("rubbish-main", "client writes rubbish to the main channel", "others undisturbed",
       1, False, peers.write_rubbish, True)
def run_beside(run: Run, times: int, hostile: bool, role: Callable, *arguments: object) -> None:
    """Beside a client, of another user or of the same, that does its work so many times, and then
    goes on for a while."""
    stream = run.start(4, resequence=100)
    start = time.monotonic()
    play = (peers.be_hostile, role) if hostile else (role,)
    client = Peer(*play, stream.name, *arguments)
    wait_until(60, lambda: client.count() >= times or not client.is_alive())
    time.sleep(run.beside)
    run.tell(f"{client.count():,} x in {time.monotonic() - start:.1f} s")
    run.check(client.count() >= times and client.is_alive(), "the client did not do its work")
    client.kill()
    run.check_bystanders(stream)
    slowest = max(stream.producer.board.times()) / 1e3
    run.tell(f"slowest send {slowest:.1f} ms")
    run.check(slowest <= 1e3 * run.limit / 3, f"over {run.limit / 3:.0f} s")


@fault("publisher-message", "client sends a message to the publisher",
       "limit: nanomsg aborts it; receivers resume", False, peers.SUBSCRIBER,
       peers.ONE_BYTE_MESSAGE)
@fault("puller-message", "untrusted peer announces an endless message to a pipeline receiver",
       "limit: nanomsg aborts the receiver", True, peers.PUSHER, peers.ENDLESS_MESSAGE)
def send_to_main_channel(run: Run, pipeline: bool, hello: bytes, message: bytes) -> None:
    """One message from an untrusted peer, and the end that does not survive it."""
    stream = run.start(1 if pipeline else 4, pipeline=pipeline)
    intruder = Peer(peers.send_once, stream.name, hello, message)
    victim = stream.consumers[0] if pipeline else stream.producer
    end = victim.await_end(run.limit)
    intruder.kill()
    if pipeline:
        stream.consumers[0] = End("consume", stream.name)
    run.verdict = LIMIT
    run.check(end == "SIGABRT", f"it ended within {run.limit} s with {end}")
    run.tell("nanomsg aborts it")
    run.tell_resumption(stream)


# Impostors.

@fault("impostor-packets", "impostor publishes rubbish packets",
       "receiver survives, finds the real sender")
def publish_rubbish(run: Run) -> None:
    name = make_name()
    impostor = Peer(peers.be_hostile, peers.publish_rubbish, name)
    consumer = End("consume", name)
    run.within(lambda: impostor.count() > 0 and consumer.board.joins, "the receiver did not join")
    time.sleep(run.beside)
    run.tell(f"{impostor.count():,} packets, joined {consumer.board.joins} times")
    run.check(consumer.is_running(), "the receiver has ended")
    impostor.kill()
    since = time.monotonic_ns()
    producer = End("produce", name)
    if run.within(lambda: consumer.board.incarnation == producer.pid, "a real sender's frames not"):
        took = (consumer.board.incarnation_since - since) / 1e6
        run.tell(f"a real sender's frames after {took:.0f} ms")


def make_target(run: Run) -> Path:
    run.require_root()
    target = run.directory / "of-root"
    target.touch()
    target.chmod(0o600)
    return target


def check_target(run: Run, target: Path, swapper: Peer) -> None:
    mode = stat.S_IMODE(target.stat().st_mode)
    run.tell(f"{swapper.count()} files swapped; mode of root's file {mode:o}")
    run.check(mode == 0o600 and swapper.count(), "should be 600, and some swapped")


def words(ends: Counter) -> str:
    return ", ".join(f"{number} x {end}" for end, number in sorted(ends.items()))


@fault("link", "another user swaps a link in for a sender's socket file",
       "mode of root's file unchanged; no abort", True)
@fault("directory", "another user puts a directory in its place", "no abort", False)
def swap_socket_files(run: Run, with_link: bool) -> None:
    """Producers of the kit, and of the tool if there is one, start and end again and again."""
    target = make_target(run)
    put = functools.partial(os.symlink, target) if with_link else os.mkdir
    swapper = Peer(peers.swap_in_directories, put)
    kinds = {"kit": lambda: End("produce", make_name(), shared=True, frames=1)}
    if run.tool.exists():
        kinds["tool"] = lambda: Process([
            str(run.tool), "send", "--socket", make_name(), "--tone", "440", "-d", "20ms",
            "--socket-mode", "all"])
    ends: Counter = Counter()
    deadline = time.monotonic() + 2 * run.beside
    while time.monotonic() < deadline or sum(ends.values()) < 16:
        senders = [(what, start()) for what, start in kinds.items() for _ in range(4)]
        ends.update(f"{what} {sender.await_end(run.limit)}" for what, sender in senders)
    swapper.kill()
    run.tell(words(ends))
    bad = [end for end in ends if re.search("SIG|hung|assertion|terminate", end)]
    run.check(not bad, f"no sender may end so, or after {run.limit} s")
    check_target(run, target, swapper)


# Limits of descriptors and threads.

GOOD_ENDS = {"worked", "refused", "exception"}
LIMIT_ENDS = {"SIGABRT", "hung", "no frame"}  # nanomsg's own abort, a hang in it; documented
SWEEP_LIMIT_S = 6


@fault("descriptors-sender", "set-up of a sender with 0 to 23 free descriptors",
       "refused; limit: abort or hang in nanomsg", "produce", "descriptors", 24)
@fault("descriptors-receiver", "a receiver with 0 to 23 free descriptors",
       "refused; limit: abort or hang in nanomsg", "consume", "descriptors", 24)
@fault("threads-sender", "set-up of a sender with RLIMIT_NPROC 0 to 12",
       "exception; limit: abort in nanomsg", "produce", "threads", 13)
@fault("threads-receiver", "a receiver with RLIMIT_NPROC 0 to 12",
       "exception; limit: abort in nanomsg", "consume", "threads", 13)
def sweep(run: Run, role: str, limit: str, count: int) -> None:
    """All at once. Senders cannot share a name; threads count per user, and each is another."""
    if limit == "threads":
        run.require_root()
    name = make_name()
    if role == "consume":
        producer = End("produce", name, shared=True)
        run.within(lambda: producer.board.ready, "no sender")
    ends = [End(role, name if role == "consume" else make_name(), frames=1, **{limit: number})
            for number in range(count)]
    deadline = time.monotonic() + SWEEP_LIMIT_S
    found = Counter(end.await_end(deadline - time.monotonic()) for end in ends)
    run.tell(words(found))
    if set(found) & LIMIT_ENDS:
        run.verdict = LIMIT
    run.check(found["worked"] and set(found) <= GOOD_ENDS | LIMIT_ENDS,
              f"some should work within {SWEEP_LIMIT_S} s, and none end otherwise")


def limit_descriptors(end: End, limit: int) -> None:
    hard = resource.prlimit(end.pid, resource.RLIMIT_NOFILE)[1]
    resource.prlimit(end.pid, resource.RLIMIT_NOFILE, (limit, hard))


@fault("descriptors-rejoin", "running receivers out of descriptors, rejoin",
       "receiver says so, and comes back with descriptors; others resume")
def starve_receivers(run: Run) -> None:
    stream = run.start(6)
    everybody, starved = stream.consumers, stream.consumers[3:]
    # Descriptors that a receiver closes have higher numbers: it gets none of them again.
    for end in starved:
        limit_descriptors(end, 3)
    time.sleep(0.3)
    run.lose(everybody, stream.since)
    stream.consumers = everybody[:3]
    run.tell_resumption(stream)
    run.within(lambda: all(end.board.failures for end in starved), "not all 3 starved ones gave up",
               more=5)  # that a stop without descriptors takes
    run.require(all(end.is_running() for end in starved), "a starved receiver has ended")
    for end in starved:
        limit_descriptors(end, 1024)
    run.within(delivery(everybody), "not all back", more=2)  # they ask again every two seconds
    run.tell("3 gave up and came back with descriptors")


# Directories.

PROMISE = "stream goes on; new sender refused; recovers"
NEW_NAMESPACE = 0x20000


def run_without_directory(run: Run, path: Path, break_it: Callable, mend_it: Callable) -> None:
    """A running stream while its base directory is out of order, a second sender meanwhile, and a
    restart of the first once the directory is in order again."""
    os.environ["TMPDIR"] = str(path)
    stream = run.start(2)
    break_it()
    end = End("produce", make_name(), frames=1).await_end(run.limit)
    run.tell(f"a new sender {end}")
    run.check(end == "refused", f"should be refused within {run.limit} s")
    time.sleep(0.5)
    run.check_bystanders(stream)
    mend_it()
    run.tell_resumption(stream)


def mount(*arguments: object) -> bool:
    return subprocess.run(["mount", *arguments], stderr=subprocess.DEVNULL).returncode == 0


def fill(path: Path) -> None:
    (path / "fill").mkdir()
    for number in range(32):
        with contextlib.suppress(OSError):
            (path / f"fill/{number}").write_bytes(bytes(4096))


@fault("tmpdir-full", "TMPDIR full while running", PROMISE, fill,
       lambda path: shutil.rmtree(path / "fill"))
@fault("tmpdir-readonly", "TMPDIR read-only while running", PROMISE,
       # The mount, not the file system: that would have to be free of removed files in use.
       lambda path: mount("-o", "remount,bind,ro", path),
       lambda path: mount("-o", "remount,bind,rw", path))
def run_on_small_file_system(run: Run, break_it: Callable, mend_it: Callable) -> None:
    """In a private mount namespace, which all later children share."""
    path = run.directory / "fs"
    path.mkdir(exist_ok=True)
    run.require(
        ctypes.CDLL(None).unshare(NEW_NAMESPACE) == 0 and mount("--make-rprivate", "/") and
        mount("-t", "tmpfs", "-o", "size=64k,nr_inodes=16", "none", path),
        "cannot mount a file system in a private namespace", SKIPPED)
    try:
        run_without_directory(run, path, lambda: break_it(path), lambda: mend_it(path))
    finally:
        subprocess.run(["umount", "--lazy", path], check=True)


@fault("tmpdir-removed", "TMPDIR removed while running", PROMISE)
def run_removed(run: Run) -> None:
    path = run.directory / "gone"
    path.mkdir()
    run_without_directory(run, path, lambda: shutil.rmtree(path), path.mkdir)


@fault("passed-fuse", "another user passes a file whose close never ends",
       "sender and receiver continue, and stop promptly")
def pass_stuck(run: Run) -> None:
    """Passes files to a sender as its receiver, and to a receiver as an impostor of its sender."""
    path = run.directory / "stuck"
    path.mkdir()
    run.require(os.geteuid() == 0 and os.path.exists("/dev/fuse") and
                ctypes.CDLL(None).unshare(NEW_NAMESPACE) == 0 and mount("--make-rprivate", "/"),
                "no FUSE here", SKIPPED)
    device = os.open("/dev/fuse", os.O_RDWR | os.O_CLOEXEC)
    options = f"fd={device},rootmode=40000,user_id=0,group_id=0,allow_other"
    mounted = ctypes.CDLL(None).mount(b"stuck", bytes(path), b"fuse", 0, options.encode()) == 0
    server = Peer(peers.serve_stuck_files, device)
    os.close(device)
    run.require(mounted, "cannot mount a FUSE file system", SKIPPED)
    try:
        ends = [End("produce", make_name()), End("consume", make_name())]
        run.within(lambda: ends[0].board.ready, "no sender")
        hostile = [Peer(peers.be_hostile, role, end.name, path / "file") for role, end in zip(
            (peers.pass_file_to_sender, peers.pass_file_to_receiver), ends)]
        run.within(lambda: all(peer.count() for peer in hostile), "nothing was passed")
        time.sleep(run.beside)
        start = time.monotonic()
        for end in ends:
            end.board.stop = 1
        run.within(lambda: not any(end.is_running() for end in ends), "no stop")
        run.tell(f"{sum(peer.count() for peer in hostile)} passed; stopped after "
                 f"{(time.monotonic() - start) * 1e3:.0f} ms")
        server.kill()  # ends each close that hangs
        results = {end.await_end(run.limit) for end in ends}
        run.check(results == {"worked"}, f"a stop: {results}")
    finally:
        server.kill()
        subprocess.run(["umount", "--lazy", path], check=True)


# Network clocks.

SYNC_LIMIT_S = 6  # the first use initialises GStreamer
MAX_ERROR_MS = 5
BOOT_NS = 5_000 * 10**9
JUMP_NS = 1_000 * 10**9


def start_clock_stream(run: Run) -> tuple[Stream, list[int]]:
    """A stream on a network clock, and the mode and offset of the clock's provider."""
    # GStreamer would otherwise look through all of its plug-ins in each process.
    os.environ["GST_REGISTRY"] = str(run.directory / "registry.bin")
    state = multiprocessing.RawArray("q", [peers.HONEST, BOOT_NS])
    with socket.socket(socket.AF_INET, socket.SOCK_DGRAM) as server:
        server.bind(("127.0.0.1", 0))
        port = server.getsockname()[1]
        Peer(peers.provide_time, server, state)
    return run.start(2, port=port), state


def error_ms(stream: Stream, offset: int) -> float:
    """Largest deviation of a consumer's stream time from the provider's."""
    return max(abs(end.board.clock_offset - offset) for end in stream.consumers) / 1e6


def sync_ms(run: Run, stream: Stream, offset: int) -> float:
    """Until every consumer's time is right, and stays so for 200 ms."""
    start, stable = time.monotonic(), 0.2

    def is_right() -> bool:
        return not wait_until(stable, lambda: error_ms(stream, offset) > MAX_ERROR_MS)
    run.require(wait_until(SYNC_LIMIT_S, is_right), f"wrong for over {SYNC_LIMIT_S} s")
    return (time.monotonic() - start - stable) * 1e3


@fault("clock-stopped", "clock provider silent for 4 s", "time goes on; frames undisturbed",
       peers.SILENT, 0)
@fault("clock-rebooted", "clock provider back 1000 s lower",
       f"right within {SYNC_LIMIT_S} s; frames undisturbed", peers.SILENT, -JUMP_NS)
@fault("clock-ahead", "clock provider jumps 1000 s ahead",
       f"right within {SYNC_LIMIT_S} s; frames undisturbed", peers.HONEST, JUMP_NS)
@fault("clock-hostile", "clock provider answers with random times and UDP",
       "right afterwards; frames undisturbed", peers.HOSTILE, 0)
def disturb_clock(run: Run, mode: int, jump: int) -> None:
    """Synchronised, then a while of the fault, then an honest provider with another offset."""
    stream, state = start_clock_stream(run)
    sync_ms(run, stream, BOOT_NS)
    state[0] = mode
    time.sleep(4)
    if mode == peers.SILENT:
        error = error_ms(stream, BOOT_NS)
        run.tell(f"off by {error:.2f} ms while silent")
        run.check(error <= 4 * MAX_ERROR_MS, f"over {4 * MAX_ERROR_MS} ms")
    state[:] = peers.HONEST, BOOT_NS + jump
    run.tell(f"right after {sync_ms(run, stream, BOOT_NS + jump):.0f} ms")
    run.check_bystanders(stream, handles=False)  # GStreamer keeps some for a minute


# Frames in shared memory.

def find_rings(run: Run) -> set[Path]:
    """Returns the rings of all senders that have one and a directory."""
    rings = {Path("/dev/shm", "vlx-" + entry.name[-6:])
             for entry in run.directory.glob("VlxSender-*")}
    return set(filter(Path.exists, rings))  # rows before have left directories


@fault("ring-kill", "sender killed -9 while it writes 3.1 MB in shared memory",
       "2 receivers resume, no frame is mixed, the next sender removes all remains")
def kill_writers(run: Run) -> None:
    """Kills at a random moment, and every other time in the middle of a frame."""
    stream, times, rings = run.start(2, bytes=3_110_400, ring=True), [], find_rings(run)
    for number in range(6 if run.lenient else 100 * run.minutes):
        if number % 2:
            stream.producer.board.stop = 2
            run.require(stream.producer.await_end(run.limit) == "SIGKILL", "it did not die writing")
        else:
            time.sleep(random.uniform(0, 0.1))
        times.append(run.resume(stream))
        dead, rings = rings, find_rings(run)
        run.require(len(rings) == 1 and rings.isdisjoint(dead) and all(map(Path.exists, rings)) and
                    not any(map(Path.exists, dead)), f"rings {dead}, then {rings}")
    run.tell(f"{len(times)} kills; resumed after p50 {median(times):.0f}, max {max(times):.0f} ms")
    end_ring(run, stream)


@fault("ring-stop", "receiver stopped for 10 s while frames of 1 MB turn over in shared memory",
       "sent = received + lost; intact data afterwards; another receiver loses none")
def stop_reader(run: Run) -> None:
    stream = run.start(2, bytes=1_000_000, ring=True)
    stopped, other = stream.consumers
    stopped.send_signal(signal.SIGSTOP)
    time.sleep(1 if run.lenient else 10)
    stopped.send_signal(signal.SIGCONT)
    run.within(delivery([stopped]), "no 20 frames")
    end_ring(run, stream)
    board = stopped.board
    run.within(lambda: board.frames + board.missing == board.last, "sent != received + lost")
    run.tell(f"sent {board.last} = received {board.frames} + lost {board.missing}, "
             f"{board.overwritten} of them overwritten; {board.stalls} stalls")
    run.check(0 < board.overwritten <= board.missing, "overwritten frames are not counted")
    run.lose([other], stream.since)


def end_ring(run: Run, stream: Stream) -> None:
    """Ends the sender, and checks that it leaves nothing and that no frame was mixed."""
    rings = find_rings(run)
    run.within(delivery(stream.consumers), "a receiver gets no frames")
    stream.producer.board.stop = 1
    run.check(stream.producer.await_end(run.limit) == "worked", "the sender did not end")
    run.check(rings and not any(map(Path.exists, rings)), f"left or missing: {rings}")
    mixed = sum(end.board.mixed for end in stream.consumers)
    run.tell(f"{mixed} of {sum(end.board.frames for end in stream.consumers):,} frames mixed")
    run.check(mixed == 0, "a frame is mixed")

"""Attacks by another user on streams that are not open to it; these rows belong to chaos.py."""

import ctypes
import errno
import fcntl
import functools
import json
import os
from pathlib import Path
import signal
import subprocess
import time
from typing import Callable

from chaos import limit_descriptors, make_target, mount, NEW_NAMESPACE
from fleet import End, Peer, Process, Stream
import peers
from rows import SKIPPED, Run, row
from shared import make_name, median

fault = functools.partial(row, "chaos")


def start_hostile(run: Run, role, *arguments: object) -> Peer:
    """A peer that runs as another user."""
    run.require_root()
    return Peer(peers.be_hostile, role, *arguments)


def stop_all(run: Run, ends: list[End], release: Callable[[], None] = lambda: None) -> None:
    """Stops ends together; each must end properly before the blocking file is released."""
    start = time.monotonic()
    for end in ends:
        end.board.stop = 1
        end.send_signal(signal.SIGCONT)
    stopped = run.within(lambda: not any(end.is_running() for end in ends), "no stop")
    took = time.monotonic() - start
    release()
    for end in ends:
        result = end.await_end(run.limit)
        run.check(result == "worked", f"a stop: {result}")
    if stopped:
        run.tell(f"stopped after {took * 1e3:.0f} ms")


# Passed descriptors.

def pass_to_both(run: Run, path: Path, **options: object) -> tuple[list[Peer], list[End]]:
    """A sender and a receiver that another user passes a file to, again and again: it joins the one
    and poses as the sender of the other."""
    run.require_root()
    names = make_name(), make_name()
    ends = [End("produce", names[0], **options), End("consume", names[1], **options)]
    run.within(lambda: ends[0].board.ready, "no sender")
    hostile = [start_hostile(run, peers.pass_file_to_sender, names[0], path),
               start_hostile(run, peers.pass_file_to_receiver, names[1], path)]
    run.within(lambda: all(peer.count() for peer in hostile), "nothing was passed")
    time.sleep(run.beside)
    return hostile, ends


@fault("passed-lock", "another user passes a file that sender and receiver have locked",
       "both keep their locks")
def pass_locked(run: Run) -> None:
    path = run.directory / "locked"
    path.write_bytes(bytes(2))
    path.chmod(0o644)
    hostile, ends = pass_to_both(run, path, lock=str(path))
    with open(path, "r+b") as file:
        for number, what in enumerate(("sender", "receiver")):
            try:
                fcntl.lockf(file, fcntl.LOCK_EX | fcntl.LOCK_NB, 1, number)
                run.check(False, f"the {what} has lost its lock")
            except OSError as error:
                run.check(error.errno in (errno.EACCES, errno.EAGAIN), str(error))
    run.tell(f"{sum(peer.count() for peer in hostile)} passed, locks looked at")
    stop_all(run, ends)


@fault("passed-fuse", "another user passes a file whose close never ends",
       "sender and receiver go on, and stop promptly")
def pass_stuck(run: Run) -> None:
    path = run.directory / "stuck"
    path.mkdir(exist_ok=True)
    run.require(os.path.exists("/dev/fuse") and
                ctypes.CDLL(None).unshare(NEW_NAMESPACE) == 0 and mount("--make-rprivate", "/"),
                "no FUSE here", SKIPPED)
    device = os.open("/dev/fuse", os.O_RDWR | os.O_CLOEXEC)
    options = f"fd={device},rootmode=40000,user_id=0,group_id=0,allow_other"
    mounted = ctypes.CDLL(None).mount(b"stuck", bytes(path), b"fuse", 0, options.encode()) == 0
    server = Peer(peers.serve_stuck_files, device)
    os.close(device)
    run.require(mounted, "cannot mount a FUSE file system", SKIPPED)
    try:
        hostile, ends = pass_to_both(run, path / "file")
        run.tell(f"{sum(peer.count() for peer in hostile)} passed")
        stop_all(run, ends, release=server.kill)
    finally:
        server.kill()  # what hangs in a close can be killed then
        subprocess.run(["umount", "--lazy", path], check=True)


@fault("backlog", "another user fills a backlog with urgent bytes and lingering sockets",
       "the sender stops promptly")
def fill_backlog(run: Run) -> None:
    run.require_root()
    sender = End("produce", make_name())
    run.within(lambda: sender.board.ready, "no sender")
    sender.send_signal(signal.SIGSTOP)
    hostile = start_hostile(run, peers.fill_backlog, sender.name)
    run.within(lambda: hostile.count() >= 30, "the backlog was not filled")
    stop_all(run, [sender])


# Impostors.

@fault("impostor-answers", "another user holds the name and answers differently each time",
       "nothing of root's is touched; receivers survive, and find the real sender")
def answer_differently(run: Run) -> None:
    """Good answers, malformed ones, and ones that lead to a file of root's."""
    target = make_target(run)
    (run.directory / "VlxSender-broken").mkdir()
    bait = run.directory / "baited"
    bait.mkdir()
    victim = bait / "nanomsgChannel.ipc"
    for path in (victim, target):
        path.write_text("root's")
        path.chmod(0o600)
    name = make_name()
    receivers = [End("consume", name) for _ in range(2)]
    tools = [Process([str(run.tool), *words]) for words in (
        ["receive", "--socket", name, "--overwrite", str(run.directory / "copy.wav")],
        ["monitor", name])] if run.tool.exists() else []
    hostile = start_hostile(run, peers.answer_differently, name, [target, victim])
    run.within(lambda: hostile.count() >= 12, "the impostor was not asked", more=30)
    time.sleep(run.beside)
    run.tell(f"{hostile.count()} answers")
    for process in (*receivers, *tools):
        if not process.is_running():
            run.check(False, f"a receiver ended: {process.await_end(run.limit)}")
    for path in (victim, target):
        run.check(path.exists() and path.read_text() == "root's", f"{path.name} is gone")
    hostile.kill()
    since = time.monotonic_ns()
    producer = End("produce", name)
    if run.within(lambda: all(end.board.incarnation == producer.pid for end in receivers),
                  "a real sender's frames not", more=5):
        took = max(end.board.incarnation_since for end in receivers) - since
        run.tell(f"a real sender's frames after {took / 1e6:.0f} ms")


@fault("flood", "another user holds the name and sends as fast as it can, in real time",
       "the tool's receiver stops within 500 ms")
def flood_tool(run: Run) -> None:
    run.require(run.tool.exists(), "the tool is not built", SKIPPED)
    name = make_name()
    hostile = start_hostile(run, peers.flood, name)
    times = []
    for kind in ("copy.wav", "copy.raw", "-"):
        target = kind if kind == "-" else str(run.directory / kind)
        receiver = Process([str(run.tool), "receive", "--socket", name, "--overwrite", target])
        before = hostile.count()
        run.within(lambda: hostile.count() > before + 10, "no frames left")
        time.sleep(run.beside)
        start = time.monotonic()
        receiver.send_signal(signal.SIGTERM)
        result = receiver.await_end(run.limit)
        times.append(1e3 * (time.monotonic() - start))
        run.check(result in ("exit 143", "SIGTERM"), f"ended with {result}")
    run.tell(f"{hostile.count():,}000 frames; stopped after {median(times):.0f}, "
             f"max {max(times):.0f} ms")
    run.check(max(times) <= (5000 if run.lenient else 500), "over 500 ms")


@fault("silence", "another user sends frames with gaps of years",
       "a recording gets no more silence than time has passed, and ten seconds")
def send_gaps(run: Run) -> None:
    run.require(run.tool.exists(), "the tool is not built", SKIPPED)
    name, copy = make_name(), run.directory / "silence.wav"
    hostile = start_hostile(run, peers.send_gaps, name)
    start = time.monotonic()
    receiver = Process([str(run.tool), "receive", "--socket", name, "--overwrite", str(copy)])
    run.within(lambda: hostile.count() >= 100, "no frames left")
    time.sleep(run.beside)
    passed = time.monotonic() - start
    stop = time.monotonic()
    receiver.send_signal(signal.SIGTERM)
    result = receiver.await_end(run.limit)
    run.tell(f"stopped after {(time.monotonic() - stop) * 1e3:.0f} ms")
    run.check(result in ("exit 143", "SIGTERM"), f"ended with {result}")
    seconds = copy.stat().st_size / 4 / 48_000
    run.tell(f"{seconds:.1f} s recorded in {passed:.1f} s")
    run.check(seconds <= passed + 11, "too much")


# Names and directories.

@fault("forged-names", "another user binds names that forge lines of /proc/net/unix",
       "the real sender is listed under its name, and nothing living is removed")
def forge_names(run: Run) -> None:
    run.require(run.tool.exists(), "the tool is not built", SKIPPED)
    stream = run.start(1)
    hostile = start_hostile(run, peers.forge_names, stream.name)
    run.within(lambda: hostile.count() > 0, "nothing was forged")
    directories = [path for path in run.directory.glob("VlxSender-*") if not path.is_symlink() and
                   path.stat().st_uid == os.geteuid() and list(path.iterdir())]
    run.require(directories, "the sender has no directory")
    for path in directories:
        os.utime(path, (0, 0))  # old enough to be removed
    def list_senders(*options: str) -> str:
        command = [run.tool, "list", *options]
        return subprocess.run(command, capture_output=True, text=True, timeout=30).stdout
    found = [(entry["name"], entry["process"]) for entry in json.loads(list_senders("--json"))]
    run.tell(f"{len(found)} listed")
    run.check((stream.name, stream.producer.pid) in found, f"not among {found}")
    list_senders("--clean")
    run.check(all(path.exists() for path in directories), "the sender's directory was removed")
    run.check_bystanders(stream)


@fault("mute-names", "another user binds 60 names of senders and never answers",
       "list and its cleaning take one timeout")
def hold_mute_names(run: Run) -> None:
    run.require(run.tool.exists(), "the tool is not built", SKIPPED)
    (run.directory / "VlxSender-remain").mkdir()
    os.utime(run.directory / "VlxSender-remain", (0, 0))  # something to decide
    hostile = start_hostile(run, peers.hold_mute_names, 60)
    run.within(lambda: hostile.count() >= 60, "the names were not bound")
    for option in ((), ("--clean",)):
        start = time.monotonic()
        subprocess.run([run.tool, "list", *option], capture_output=True, timeout=120)
        took = time.monotonic() - start
        run.tell(f"list {' '.join(option)}: {took:.1f} s")
        run.check(took <= run.limit, f"over {run.limit} s")


@fault("foreign-base", "the base directory belongs to another user",
       "no stream is opened or joined there")
def use_foreign_base(run: Run) -> None:
    run.require_root()
    base = run.directory / "foreign"
    base.mkdir()
    os.chown(base, peers.OTHER_USER, -1)
    base.chmod(0o1777)
    os.environ["TMPDIR"] = str(base)
    for role in ("produce", "consume"):
        end = End(role, make_name(), frames=1).await_end(run.limit)
        run.tell(f"{role}: {end}")
        run.check(end == "refused", "should be refused")


@fault("umask", "another user connects between bind and narrowing, under umask 000",
       "it never gets a byte")
def race_narrowing(run: Run) -> None:
    hostile = start_hostile(run, peers.race_narrowing)
    before = os.umask(0)
    try:
        for _ in range(40):
            sender = End("produce", make_name(), frames=5)
            sender.await_end(run.limit)
    finally:
        os.umask(before)
    run.tell(f"{hostile.count()} connections that brought something")
    run.check(hostile.count() == 0, "there should be none")


@fault("connections", "another user keeps 80 connections to a sender with 64 descriptors",
       "others undisturbed; the listener does not spin")
def hold_connections(run: Run) -> None:
    stream: Stream = run.start(2)
    limit_descriptors(stream.producer, 64)
    hostile = start_hostile(run, peers.hold_connections, stream.name, 80)
    run.within(lambda: hostile.count() >= 80, "they were not made", more=10)
    errors, used = stream.producer.board.error_lines, stream.producer.processor_seconds()
    seconds = 2
    time.sleep(seconds)
    errors = stream.producer.board.error_lines - errors
    used = stream.producer.processor_seconds() - used
    run.tell(f"{errors} ERROR lines and {100 * used / seconds:.0f} % of a processor")
    run.check(errors <= 1 and used <= 0.3 * seconds, "the listener spins")
    hostile.kill()
    limit_descriptors(stream.producer, 1024)
    run.check_bystanders(stream)

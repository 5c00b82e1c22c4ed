"""The endpoint of Endpoint.cpp in Python: the same plan, lines and frames.

Variants: "vellox"; "vellox-acquire", whose sender fills its frames in shared memory; and "zmq",
pyzmq, which makes no copies of its own from 65,536 bytes up. The age of a frame begins at the send
call, with the frame already filled, and ends when its bytes can be read."""

import json
import math
import struct
import sys
import threading
import time

TAG = struct.Struct("=HHI")  # epoch, phase, index
STAMP = struct.Struct("=Q12x")  # in front of pyzmq's media data, as long as a frame packet's header
PROBE, WARM_UP, MEASURE, END = range(4)
END_FRAMES = 20
SETTLE_S = 0.02


class Vellox:
    def __init__(self, plan):
        import vellox
        self._vellox, self._plan = vellox, plan
        self._shared = plan["variant"].endswith("acquire")

    def open(self):
        size = self._plan["bytes"]
        self._producer = self._vellox.Producer(
            self._plan["name"], carriage="shared" if self._shared else "inline", frame_bytes=size)
        self._media = bytearray(size)
        self._duration = 10**9 // self._plan["rate"]

    def send(self, tag, last):
        frame = media = self._media
        if self._shared:
            frame = self._producer.acquire(len(media) // 4)
            media = memoryview(frame).cast("B")
        media[:TAG.size], media[-1] = tag, last
        self._producer.send(frame, timestamp=time.monotonic_ns(), duration=self._duration)

    def receive(self):
        consumer = self._vellox.Consumer(self._plan["name"])
        while True:
            frame = consumer.read()
            yield frame.timestamp, memoryview(frame.data)


class Zmq:
    def __init__(self, plan):
        import zmq
        self._plan = plan
        self._zmq, self._url = zmq, f"ipc://{plan['directory']}/{plan['name']}.ipc"

    def _make_socket(self, kind):
        socket = self._zmq.Context().socket(kind)
        socket.linger = 0
        return socket

    def open(self):
        self._socket = self._make_socket(self._zmq.PUB)
        self._socket.bind(self._url)
        # A packet may still be leaving while the next ones are made.
        self._packets = [bytearray(STAMP.size + self._plan["bytes"]) for _ in range(4)]

    def send(self, tag, last):
        packet = self._packets.pop(0)
        self._packets.append(packet)
        packet[STAMP.size:STAMP.size + TAG.size], packet[-1] = tag, last
        STAMP.pack_into(packet, 0, time.monotonic_ns())
        self._socket.send(packet, copy=False)

    def receive(self):
        socket = self._make_socket(self._zmq.SUB)
        socket.subscribe(b"")
        socket.connect(self._url)
        while True:
            packet = socket.recv(copy=False).buffer
            yield *STAMP.unpack_from(packet), packet[STAMP.size:]


def say(word, result=None):
    print(word, *([] if result is None else [json.dumps(result)]), flush=True)


def use_since(begin):
    """Time, and processor time of all threads, since then."""
    wall, cpu = time.monotonic_ns() - begin[0], time.process_time_ns() - begin[1]
    return {"wall_ns": wall, "cpu_ns": cpu, "allocations": math.nan}


class Sender:
    def __init__(self, plan, transport):
        self._plan, self._transport = plan, transport
        self._period = 10**9 // plan["rate"]
        self._probing = True
        self._prober = threading.Thread(target=self._send, args=(PROBE, 10**9), daemon=True)

    def _send(self, phase, count):
        """Sends frames at the plan's rate, without a burst after a delay."""
        due = time.monotonic_ns()
        for i in range(count):
            if phase == PROBE and not self._probing:
                break
            self._transport.send(TAG.pack(self._plan["epoch"], phase, i), i & 0xff)
            due = max(due + self._period, now := time.monotonic_ns())
            time.sleep((due - now) / 1e9)

    def open(self):
        called = time.monotonic_ns()
        self._transport.open()
        self._prober.start()
        say("opened", called)

    def go(self):
        self._probing = False
        self._prober.join()
        time.sleep(SETTLE_S)
        self._send(WARM_UP, self._plan["warmup"])
        begin = time.monotonic_ns(), time.process_time_ns()
        self._send(MEASURE, self._plan["frames"])
        result = {**use_since(begin), "sent": self._plan["frames"]}
        self._send(END, END_FRAMES)
        say("result", result)


class Receiver:
    def __init__(self, plan, transport):
        self._ages, self._corrupt, self._begin, self._use = [], 0, (0, 0), None
        self._last = 0
        threading.Thread(target=self._receive, args=(plan, transport), daemon=True).start()

    def _receive(self, plan, transport):
        is_first = True
        for sent, media in transport.receive():
            arrived = time.monotonic_ns()
            epoch, phase, index = TAG.unpack_from(media)
            if len(media) != plan["bytes"] or media[-1] != index & 0xff:
                self._corrupt += 1
                continue
            if is_first:
                say(f"first {epoch} {arrived}")
                is_first = False
            if phase == MEASURE:
                if not self._ages:
                    self._begin = time.monotonic_ns(), time.process_time_ns()
                self._ages.append((arrived - sent) / 1000)
                self._last = arrived
            elif phase == END and self._use is None:
                self._use = use_since(self._begin)
                say("done")

    def stop(self):
        ages = sorted(self._ages)
        shares = {"p10": 0.1, "p25": 0.25, "p50": 0.5, "p75": 0.75, "p90": 0.9, "p99": 0.99,
                  "p999": 0.999, "max": 1}
        say("result", {
            **(self._use or use_since(self._begin)), "received": len(ages),
            "corrupt": self._corrupt, "span_ns": self._last - self._begin[0],
            **{f"{key}_us": ages[math.ceil(share * len(ages)) - 1]
               for key, share in shares.items() if ages}})


def main():
    plan = json.loads(sys.argv[1])
    transport = (Zmq if plan["variant"] == "zmq" else Vellox)(plan)
    end = (Sender if plan["role"] == "send" else Receiver)(plan, transport)
    say("ready")
    for command in sys.stdin:
        getattr(end, command.strip())()


main()

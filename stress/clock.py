"""A provider of a network clock, which may be silent or talk rubbish."""

import random
import socket
import struct
import threading
import time

RUBBISH_PACKETS = 10  # for each request


class Provider:
    """Answers with two big-endian times, the client's and its own, on a UDP port of the loopback.
    Modes: "honest", "silent", and "hostile", which answers with a random time and random packets."""

    def __init__(self, offset: int) -> None:
        self.offset = offset  # of its time from the system's, ns
        self.mode = "honest"
        self._socket = socket.socket(socket.AF_INET, socket.SOCK_DGRAM)
        self._socket.bind(("127.0.0.1", 0))
        self._socket.settimeout(0.05)
        self.port = self._socket.getsockname()[1]
        self._done = False
        self._thread = threading.Thread(target=self._serve)

    def __enter__(self) -> "Provider":
        self._thread.start()
        return self

    def __exit__(self, *_) -> None:
        self._done = True
        self._thread.join()
        self._socket.close()

    def _serve(self) -> None:
        while not self._done:
            try:
                request, client = self._socket.recvfrom(64)
            except TimeoutError:
                continue
            hostile = self.mode == "hostile"
            now = random.getrandbits(64) if hostile else time.monotonic_ns() + self.offset
            if self.mode != "silent":
                self._socket.sendto(request[:8] + struct.pack(">Q", now), client)
            for number in range(RUBBISH_PACKETS if hostile else 0):
                # Every other packet has the right size.
                size = 16 if number % 2 else random.randrange(16)
                self._socket.sendto(random.randbytes(size), client)

#!/usr/bin/env python3
"""Usage: sine.py NAME FREQUENCY SECONDS

Sends a sine. Frame i begins exactly i times 10 ms after the first.
"""

import sys

import numpy as np

import vellox

RATE = 48000
BLOCK = RATE // 100

name, frequency, seconds = sys.argv[1], float(sys.argv[2]), float(sys.argv[3])

with vellox.Producer(name, rate=RATE, channels=1, format="F32LE") as producer:
    for i in range(int(seconds * 100)):
        time = (i * BLOCK + np.arange(BLOCK)) / RATE
        block = 0.5 * np.sin(2 * np.pi * frequency * time)
        producer.send(block.astype(np.float32))  # waits until it is due
    print(producer.statistics)

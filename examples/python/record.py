#!/usr/bin/env python3
"""Usage: record.py NAME SECONDS PICTURE

Records a stream into one array, with silence where frames are missing, and plots it.
"""

import sys

import numpy as np
from matplotlib.figure import Figure
from numpy.typing import NDArray

import vellox

name, seconds, picture = sys.argv[1], float(sys.argv[2]), sys.argv[3]

blocks: list[NDArray[np.float32]] = []
recorded = 0
with vellox.Consumer(name, timeout=10) as consumer:
    for frame in consumer:
        rate = frame.format.rate
        if frame.gap > 0 and blocks:
            missing = min(frame.gap * rate // 10**9, int(seconds * rate) - recorded)
            blocks.append(np.zeros((missing, frame.format.channels), np.float32))
            recorded += missing
        blocks.append(frame.to_float())
        recorded += len(blocks[-1])
        if recorded >= seconds * rate:
            break

samples = np.concatenate(blocks)[: int(seconds * rate)]
time = np.arange(len(samples)) / rate
figure = Figure()
axes = figure.subplots()
axes.plot(time, samples)
axes.set(title=name, xlabel="time in s", ylabel="sample")
figure.savefig(picture)
print(f"{len(samples)} samples, peak {abs(samples).max():.3f}")

#!/usr/bin/env python3
"""Usage: meter.py NAME

Shows the level of each channel in the terminal until Ctrl-C, ten times a second.
"""

import sys

import numpy as np

import vellox

WIDTH = 40

peaks = np.zeros(0)
shown = 0
try:
    for frame in vellox.Consumer(sys.argv[1]):
        samples = abs(frame.to_float())
        if frame.is_first:
            peaks = np.zeros(frame.format.channels)
        peaks = np.maximum(peaks, samples.max(axis=0, initial=0))
        if frame.arrival - shown < 100_000_000:
            continue
        shown = frame.arrival
        levels = 20 * np.log10(np.maximum(peaks, 1e-3))
        bars = ("#" * int((level + 60) / 60 * WIDTH) for level in levels)
        texts = (f"{bar:{WIDTH}} {level:5.1f} dB" for bar, level in zip(bars, levels))
        print("  ".join(texts), end="\r", flush=True)
        peaks[:] = 0
except KeyboardInterrupt:
    print()

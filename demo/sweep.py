#!/usr/bin/env python3
"""Writes the demonstration's audio file: a chord whose voices sweep upwards, in 24 bits, so that
hardly any two samples are alike and a wrong, missing or repeated one shows.

usage: sweep.py FILE.wav
"""

import math
import sys
import wave

RATE = 48000
SECONDS = 6
OCTAVES = 1.5  # that each voice climbs
LEVEL = 0.2  # of each voice, below a third
ROOTS_HZ = (110.0, 111.5)  # of each channel
CHORD = (1.0, 1.25, 1.5)  # major triad


def get_sample(root_hz, time):
    # Integral of a frequency that grows exponentially.
    growth = OCTAVES * math.log(2) / SECONDS
    turns = root_hz * math.expm1(growth * time) / growth
    return sum(LEVEL * math.sin(2 * math.pi * turns * voice) for voice in CHORD)


def main():
    samples = bytearray()
    for i in range(RATE * SECONDS):
        for root_hz in ROOTS_HZ:
            samples += round(get_sample(root_hz, i / RATE) * 0x7FFFFF).to_bytes(3, "little", signed=True)
    with wave.open(sys.argv[1], "wb") as file:
        file.setparams((len(ROOTS_HZ), 3, RATE, 0, "NONE", ""))
        file.writeframes(samples)


main()

#!/usr/bin/env python3
"""Usage: relay.py FROM TO GAIN

Sends a stream again under another name, as floats and louder or quieter, until Ctrl-C.
"""

import asyncio
import sys
from typing import Optional

import vellox


async def relay(source: str, target: str, gain: float) -> None:
    producer: Optional[vellox.Producer] = None
    format: Optional[vellox.Format] = None
    async for frame in vellox.Consumer(source):
        if producer is None or frame.format != format:
            if producer is not None:
                producer.close()
            format = frame.format
            producer = vellox.Producer(
                target, rate=format.rate, channels=format.channels, format="F32LE"
            )
        producer.send(
            frame.to_float() * gain, timestamp=frame.timestamp, duration=frame.duration
        )


try:
    asyncio.run(relay(sys.argv[1], sys.argv[2], float(sys.argv[3])))
except KeyboardInterrupt:
    pass

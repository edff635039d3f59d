#!/usr/bin/env python3
"""Writes Resources/samples/demo.wav: 1.5 s of a soft two-tone chord, 16 kHz mono,
the file that the README's upload example sends."""
import math
import struct
import wave
from pathlib import Path

RATE = 16000
SECONDS = 1.5
path = Path(__file__).resolve().parent.parent / "Resources" / "samples" / "demo.wav"
frames = bytearray()
for i in range(int(RATE * SECONDS)):
    t = i / RATE
    fade = min(1.0, t * 10, (SECONDS - t) * 10)
    value = 0.3 * fade * (math.sin(2 * math.pi * 440 * t) + 0.5 * math.sin(2 * math.pi * 660 * t))
    frames += struct.pack("<h", int(max(-1.0, min(1.0, value)) * 32767))
with wave.open(str(path), "wb") as out:
    out.setnchannels(1)
    out.setsampwidth(2)
    out.setframerate(RATE)
    out.writeframes(bytes(frames))

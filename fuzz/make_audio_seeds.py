#!/usr/bin/env python3
"""Writes the seed WAV files of the audio fuzz target to fuzz/corpus/audio/.

Small on purpose: low sample rates keep a one-second block at a few hundred
bytes, so the fuzzer reaches every branch of the walk and the piece split.
"""
import math
import os
import struct

OUT = os.path.join(os.path.dirname(os.path.abspath(__file__)), "corpus", "audio")


def chunk(tag, body):
    return tag + struct.pack("<I", len(body)) + body


def wav(body, channels=1, rate=100, bits=16, fmt=1, fmt_size=16):
    fmt_chunk = b"fmt " + struct.pack("<IHHIIHH", fmt_size, fmt, channels, rate,
                                      rate * channels * bits // 8, channels * bits // 8, bits)
    rest = b"WAVE" + fmt_chunk + body
    return b"RIFF" + struct.pack("<I", len(rest)) + rest


def samples(values):
    return b"".join(struct.pack("<h", max(-32768, min(32767, v))) for v in values)


def tone(count, period, amplitude):
    return samples([int(amplitude * math.sin(2 * math.pi * i / period)) for i in range(count)])


def noise(count, seed=1):
    out = bytearray()
    for _ in range(count):
        seed = (seed * 1103515245 + 12345) % 2**32
        out.append((seed >> 16) & 0xFF)
    return bytes(out)


SEEDS = {
    "silence.wav": wav(chunk(b"data", bytes(400))),
    "tone.wav": wav(chunk(b"data", tone(300, 16, 12000))),
    "noise_stereo.wav": wav(chunk(b"data", noise(1000)), channels=2, rate=50),
    "eight_bit_odd_block.wav": wav(chunk(b"data", noise(151, 3)), bits=8, rate=17),
    "chunks_around_data.wav": wav(chunk(b"LIST", b"odd") + chunk(b"data", tone(120, 8, 30000)) +
                                  chunk(b"junk", bytes(6)) + chunk(b"data", noise(44, 5))),
    "full_scale.wav": wav(chunk(b"data", samples([32767, -32768] * 600)), rate=1200),
    "long_pieces.wav": wav(chunk(b"data", tone(4400, 40, 20000)), rate=2200),
    "short_data.wav": wav(chunk(b"data", noise(300, 9))[:200]),
    "empty_data.wav": wav(chunk(b"data", b"")),
    "header_only.wav": wav(b""),
    "zero_rate.wav": wav(chunk(b"data", noise(10, 2)), rate=0),
}

if __name__ == "__main__":
    os.makedirs(OUT, exist_ok=True)
    for name, data in SEEDS.items():
        with open(os.path.join(OUT, name), "wb") as f:
            f.write(data)

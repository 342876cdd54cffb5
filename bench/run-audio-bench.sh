#!/usr/bin/env bash
# Audio tesserae benchmark: packs about 60 seconds of sound (speech made by
# espeak-ng and a generated music-like piece, both 22050 Hz 16-bit mono, the
# rate espeak-ng speaks at) and prints the real-time factor, then compares our
# 1024-point transform with FFTW's on the frames of those pieces. The inputs
# are made here, under build/bench, and never committed.
set -euo pipefail
cd "$(dirname "$0")/.."

scripts/install-deps.sh libbenchmark-dev libgumbo-dev pkg-config libfftw3-dev espeak-ng
cmake --preset bench >/dev/null
cmake --build build/bench -j2 --target audio_bench

inputs=build/bench/audio-inputs
mkdir -p "$inputs"
if [ ! -s "$inputs/speech.wav" ]; then
  espeak-ng -w "$inputs/speech.wav" "$(cat <<'TEXT'
A web page is rarely one file. It is a document that names stylesheets,
scripts and pictures, and every one of them costs the browser a request.
Sound can be treated the same way. Cut a recording into short pieces,
measure how each piece sounds, and keep the pieces that sound alike next to
one another, so that the compressor finds more of what it has already seen.
Silence and steady tones gather in a few places, while speech and noise
spread out across many.
TEXT
)"
fi
if [ ! -s "$inputs/music.wav" ]; then
  python3 - "$inputs/music.wav" <<'PY'
# 30 s of music-like sound: a chord progression of harmonic tones with
# attack and decay, a bass line, and noise-burst percussion on the beat.
import math, random, struct, sys, wave
rate, seconds = 22050, 30
random.seed(42)
beat = rate // 2  # 120 beats per minute
chords = [[261.63, 329.63, 392.00], [220.00, 261.63, 329.63],
          [174.61, 220.00, 261.63], [196.00, 246.94, 293.66]]
samples = []
for n in range(rate * seconds):
    t = n / rate
    bar = (n // (beat * 4)) % len(chords)
    in_beat = n % beat
    env = math.exp(-3.0 * in_beat / beat)
    value = 0.0
    for f in chords[bar]:
        for h, a in ((1, 1.0), (2, 0.4), (3, 0.2)):
            value += a * math.sin(2 * math.pi * f * h * t)
    value *= 0.12 * (0.3 + 0.7 * env)
    value += 0.25 * math.sin(2 * math.pi * chords[bar][0] / 2 * t) * (0.5 + 0.5 * env)
    if in_beat < rate // 20:
        value += 0.3 * (random.random() * 2 - 1) * (1 - in_beat / (rate / 20))
    samples.append(max(-32768, min(32767, int(value * 20000))))
with wave.open(sys.argv[1], "wb") as w:
    w.setnchannels(1); w.setsampwidth(2); w.setframerate(rate)
    w.writeframes(struct.pack("<%dh" % len(samples), *samples))
PY
fi

# The pack is timed twice: tessera files on the build folder's disk, and on
# a memory file system (/dev/shm), to show what file creation costs.
disk=$(mktemp -d build/bench/audio-work.XXXXXX)
memory=$(mktemp -d /dev/shm/zelvarpack-audio-bench.XXXXXX)
trap 'rm -rf "$disk" "$memory"' EXIT
build/bench/bench/audio_bench --work "$disk" --work "$memory" \
  "$inputs/speech.wav" "$inputs/music.wav"

#!/usr/bin/env bash
# Video tesserae benchmark: packs 300 frames of 1920 x 1080 (a slow pan
# across three photographs of lomiri-wallpapers-20.04, made by the benchmark
# as JPEGs under build/bench/video-work, never committed) and prints frames
# per second, then times our 2-D transform of the tiles' luma grids against
# FFTW's on the same grids.
# Usage: bench/run-video-bench.sh [FRAMES]  (default 300)
set -euo pipefail
cd "$(dirname "$0")/.."

frames=${1:-300}
scripts/install-deps.sh libbenchmark-dev libgumbo-dev pkg-config libfftw3-dev \
  lomiri-wallpapers-20.04
cmake --preset bench >/dev/null
cmake --build build/bench -j2 --target video_bench

# The frames are kept between runs (made once); the mosaics' work folder
# and the packed files are made afresh.
work=build/bench/video-work
mkdir -p "$work"
rm -rf "$work/work" "$work/bench.idx" "$work/bench.dat"
build/bench/bench/video_bench --work "$work" --frames "$frames"

#!/usr/bin/env bash
# Packs the GPU suite of hardware decoding (test_hardware's HardwareGpu tests) and its
# benchmark (bench_hardware) with their data and libraries into .device/, for a machine with
# a GPU but without Qt, FFmpeg or ffmpeg (see ../shared/tools/device-bundle.sh).
#
# Usage, from the repository's root (BUILD defaults to build):
#   tests/gpu/run_gpu.sh [BUILD]
# then, on the GPU machine, with .device/ taken along with the checkout (git ignores it, so it
# must be copied explicitly):
#   mkdir -p /tmp/device-libs && tar -xJf .device/libs.tar.xz -C /tmp/device-libs &&
#     tar -xJf .device/filters.tar.xz -C /tmp/device-libs
#   ORVO_TEST_DATA=. bash .device/run.sh test_hardware --gtest_filter='HardwareGpu*'
#   bash .device/run.sh bench_hardware
# Without a device the tests skip with the reason and the benchmark prints "no GPU device".
# ORVO_GPU_SOAK_SECONDS sets the length of the 64-stream run (default 20 s).
# Here, without a GPU, ORVO_GPU_EMULATE=1 runs the same suite over the emulated engine.
set -euo pipefail
build=${1:-build}
root=$(cd "$(dirname "$0")/../.." && pwd)
cd "$root"
cmake --build "$build" -j2 --target test_hardware bench_hardware
stage="$build/gpu-data"
mkdir -p "$stage"
# The clips and the command line's reference decodes of the suite, made here.
ORVO_TEST_DATA="$stage" ORVO_GPU_PREPARE=1 QT_QPA_PLATFORM=offscreen \
    "$build/tests/test_hardware" --gtest_filter='HardwareGpuData.*' >/dev/null
"$build/bench/bench_hardware" --make_clips
cp "$build"/bench/bench_hardware_data/hw_bench_1080p.* "$stage/"
../shared/tools/device-bundle.sh "$build/tests/test_hardware" "$build/bench/bench_hardware" "$stage"/*
# GPU scaling opens FFmpeg's filter library at run time: packed apart, its other filters'
# libraries stubbed (see pack_filters.py).
tests/gpu/pack_filters.py .device
du -sh .device
echo "on the GPU machine:"
echo "  mkdir -p /tmp/device-libs && tar -xJf .device/libs.tar.xz -C /tmp/device-libs && tar -xJf .device/filters.tar.xz -C /tmp/device-libs"
echo "  ORVO_TEST_DATA=. bash .device/run.sh test_hardware --gtest_filter='HardwareGpu*'"
echo "  bash .device/run.sh bench_hardware"

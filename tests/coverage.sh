#!/usr/bin/env bash
# Line coverage of the library folders by every ctest test but the memcheck rerun, in a gcc
# --coverage build:  tests/coverage.sh [BUILD_DIR (build-coverage)]; JOBS (2) builds in parallel.
set -euo pipefail
ROOT=$(cd "$(dirname "$0")/.." && pwd)
BUILD=$(realpath -m "${1:-$ROOT/build-coverage}")
JOBS=${JOBS:-2}

if ! command -v gcovr >/dev/null; then
  sudo=""; [ "$(id -u)" = 0 ] || sudo=sudo
  $sudo apt-get update -qq || true
  DEBIAN_FRONTEND=noninteractive $sudo apt-get install -y -qq --no-install-recommends gcovr
fi

# -O0 keeps the line counts faithful to the source.
CC=gcc CXX=g++ cmake -S "$ROOT" -B "$BUILD" -DCMAKE_BUILD_TYPE=Debug \
  -DCMAKE_C_FLAGS_DEBUG=-O0 -DCMAKE_CXX_FLAGS_DEBUG=-O0 \
  -DCMAKE_C_FLAGS=--coverage -DCMAKE_CXX_FLAGS=--coverage -DCMAKE_EXE_LINKER_FLAGS=--coverage \
  -DCMAKE_SHARED_LINKER_FLAGS=--coverage \
  -DORVO_BUILD_BENCH=OFF -DORVO_BUILD_EXAMPLES=OFF >/dev/null
cmake --build "$BUILD" -j "$JOBS"

find "$BUILD" -name '*.gcda' -delete
(cd "$BUILD" && ORVO_SOAK_SECONDS=${ORVO_SOAK_SECONDS:-8} ctest --output-on-failure -j1 -E memcheck) \
  || echo "== some tests failed; coverage below counts what ran"

# Library folders only: tests, generated moc files and system headers are left out.
gcovr -r "$ROOT" --object-directory "$BUILD" -j "$JOBS" --gcov-ignore-parse-errors \
  -f "$ROOT/(util|frames|decoders|backends|async|encoders|include)/" \
  -e '.*/moc_.*' -e '.*_autogen/.*' --print-summary -o "$BUILD/coverage.txt" \
  | sed -n 's/^lines: /library line coverage: /p'
echo "per-file report: $BUILD/coverage.txt"

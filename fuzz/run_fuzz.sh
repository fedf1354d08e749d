#!/usr/bin/env bash
# Builds every libFuzzer target under ASan+UBSan and runs each for SECONDS (default 30),
# starting from the committed seeds in fuzz/corpus/<target>/. Fails on any finding.
# Targets run FUZZ_JOBS at a time (default: one per core); each one is single-threaded.
set -euo pipefail
cd "$(dirname "$0")/.."
SECONDS_EACH=${1:-30}
# FUZZ_BUILD names an already configured clang build with -DORVO_FUZZ=ON (./run test
# reuses its ASan test build); otherwise build-fuzz is configured here.
BUILD=${FUZZ_BUILD:-build-fuzz}
if [ -z "${FUZZ_BUILD:-}" ]; then
  CC=clang CXX=clang++ cmake -S . -B "$BUILD" -DCMAKE_BUILD_TYPE=RelWithDebInfo -DORVO_FUZZ=ON \
    -DORVO_SANITIZE=address -DORVO_BUILD_TESTS=OFF -DORVO_BUILD_BENCH=OFF -DORVO_BUILD_EXAMPLES=OFF >/dev/null
fi
cmake --build "$BUILD" -j "${JOBS:-$(nproc)}"
export ASAN_OPTIONS=detect_leaks=1:abort_on_error=1:allocator_may_return_null=1
export UBSAN_OPTIONS=print_stacktrace=1:halt_on_error=1
export LSAN_OPTIONS=suppressions=$PWD/tests/lsan.supp
export BUILD SECONDS_EACH
mkdir -p "$BUILD/findings"

# run_one TARGET: fuzz one target, print one line, exit non-zero on a finding.
run_one() {
  local target=$1 name work seeds log execs
  name=$(basename "$target")
  work=$BUILD/corpus/$name
  mkdir -p "$work"
  seeds=fuzz/corpus/$name
  [ -d "$seeds" ] || seeds=
  log=$BUILD/findings/$name.log
  if "$target" "$work" $seeds -max_total_time="$SECONDS_EACH" -timeout=10 -rss_limit_mb=2048 \
      -artifact_prefix="$BUILD/findings/$name-" -print_final_stats=1 >"$log" 2>&1; then
    execs=$(grep -Eo 'stat::number_of_executed_units: *[0-9]+' "$log" | grep -Eo '[0-9]+$' || echo "?")
    echo "fuzz $name: ok, $execs runs in ${SECONDS_EACH}s"
  else
    echo "fuzz $name: FAILED (see $log)"; tail -40 "$log"; return 1
  fi
}
export -f run_one

targets=()
for t in "$BUILD"/fuzz/fuzz_*; do [ -f "$t" ] && [ -x "$t" ] && targets+=("$t"); done
printf '%s\n' "${targets[@]}" | xargs -P "${FUZZ_JOBS:-$(nproc)}" -I{} bash -c 'run_one "$1"' _ {}

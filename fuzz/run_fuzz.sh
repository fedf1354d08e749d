#!/usr/bin/env bash
# Fuzz campaign: builds every libFuzzer target under ASan+UBSan and runs each for SECONDS
# (default 30), starting from the committed seeds in fuzz/corpus/<target>/, FUZZ_JOBS at a
# time (default 2; each target is single-threaded). Leaks are not checked during the
# campaign (libFuzzer would rerun every input that leaves allocations behind); the final
# corpus of each target is replayed once with leak checks on instead. With FUZZ_MEMCHECK=1
# (the default unless FUZZ_BUILD is given) every corpus is then replayed under valgrind
# memcheck by a build without sanitizers: FFmpeg, swscale and OpenJPEG are not
# instrumented, so only memcheck sees their writes into our buffers. Prints a table of
# executions per target and fails on any finding.
#   FUZZ_TARGETS="fuzz_decode_h264 ..."  run only these targets
set -euo pipefail
cd "$(dirname "$0")/.."
SECONDS_EACH=${1:-30}
# FUZZ_BUILD names an already configured clang build with -DORVO_FUZZ=ON (./run test
# reuses its ASan test build); otherwise build-fuzz is configured here.
BUILD=${FUZZ_BUILD:-build-fuzz}
REPLAY_BUILD=${FUZZ_REPLAY_BUILD:-build-fuzz-replay}
MEMCHECK=${FUZZ_MEMCHECK:-$([ -z "${FUZZ_BUILD:-}" ] && echo 1 || echo 0)}
JOBS=${JOBS:-$(nproc)}
if [ -z "${FUZZ_BUILD:-}" ]; then
  CC=clang CXX=clang++ cmake -S . -B "$BUILD" -DCMAKE_BUILD_TYPE=RelWithDebInfo -DORVO_FUZZ=ON \
    -DORVO_SANITIZE=address -DORVO_BUILD_TESTS=OFF -DORVO_BUILD_BENCH=OFF -DORVO_BUILD_EXAMPLES=OFF >/dev/null
fi
# The fuzz targets and the raw baselines only: the shared library is not needed here.
cmake --build "$BUILD" -j "$JOBS" --target $(cd fuzz && ls fuzz_*.cpp raw_*.cpp | sed 's/\.cpp$//')
if [ "$MEMCHECK" = 1 ]; then
  command -v valgrind >/dev/null || { echo "FUZZ_MEMCHECK=1 needs valgrind"; exit 2; }
  # DWARF 4: Debian 12's valgrind gives up on clang's DWARF 5.
  CC=clang CXX=clang++ cmake -S . -B "$REPLAY_BUILD" -DCMAKE_BUILD_TYPE=RelWithDebInfo -DORVO_FUZZ_REPLAY=ON \
    -DCMAKE_C_FLAGS_RELWITHDEBINFO="-O2 -gdwarf-4 -DNDEBUG" -DCMAKE_CXX_FLAGS_RELWITHDEBINFO="-O2 -gdwarf-4 -DNDEBUG" \
    -DORVO_BUILD_TESTS=OFF -DORVO_BUILD_BENCH=OFF -DORVO_BUILD_EXAMPLES=OFF >/dev/null
  cmake --build "$REPLAY_BUILD" -j "$JOBS" --target orvo_valgrind_preload $(cd fuzz && ls fuzz_*.cpp | sed 's/\.cpp$//')
  VALGRIND_PRELOAD=$(cd "$REPLAY_BUILD" && pwd)/liborvo_valgrind_preload.so
  export VALGRIND_PRELOAD
fi
export ASAN_OPTIONS=detect_leaks=0:abort_on_error=1:allocator_may_return_null=1
export UBSAN_OPTIONS=print_stacktrace=1:halt_on_error=1
export LSAN_OPTIONS=suppressions=$PWD/tests/lsan.supp
export BUILD REPLAY_BUILD SECONDS_EACH MEMCHECK
mkdir -p "$BUILD/findings"

# Longest input per target, as FFmpeg's decoder fuzzers bound theirs: camera images of the
# seeds' sizes, more for the wavelet fields (a VC-2 field is over 40 KB), little for parsers.
max_len() {
  case $1 in
    fuzz_decode_wavelet) echo 65536 ;;
    fuzz_decode_yuv) echo 4096 ;;  # longer payloads only make larger pictures
    fuzz_decode_*|fuzz_decoder_switching) echo 16384 ;;
    fuzz_qimage_import) echo 4096 ;;
    fuzz_h264_slice_dump|fuzz_jpeg2000_boxes|fuzz_encoder_presets|fuzz_preset_tokenizer) echo 4096 ;;
    fuzz_audio_buffer*) echo 512 ;;
    fuzz_image_header) echo 256 ;;
    *) echo 4096 ;;
  esac
}
export -f max_len

# run_one TARGET: campaign, leak replay, memcheck replay; writes one result line.
run_one() {
  local target=$1 name work seeds log execs rate len leaks=ok memcheck=- status=ok
  name=$(basename "$target")
  work=$BUILD/corpus/$name
  mkdir -p "$work"
  seeds=fuzz/corpus/$name
  [ -d "$seeds" ] || seeds=
  log=$BUILD/findings/$name.log
  len=$(max_len "$name")
  if ! "$target" "$work" $seeds -max_total_time="$SECONDS_EACH" -max_len="$len" -timeout=10 -rss_limit_mb=2048 \
      -detect_leaks=0 -artifact_prefix="$BUILD/findings/$name-" -print_final_stats=1 >"$log" 2>&1; then
    status=FAILED
  fi
  execs=$(grep -Eo 'stat::number_of_executed_units: *[0-9]+' "$log" | grep -Eo '[0-9]+$' || echo 0)
  rate=$((execs / (SECONDS_EACH > 0 ? SECONDS_EACH : 1)))
  if [ $status = ok ]; then
    if ASAN_OPTIONS=${ASAN_OPTIONS/detect_leaks=0/detect_leaks=1} "$target" -runs=0 -max_len="$len" -detect_leaks=1 \
        -artifact_prefix="$BUILD/findings/$name-leak-" "$work" $seeds >"$log.leaks" 2>&1; then
      leaks=ok
    else
      leaks=FAILED; status=FAILED
    fi
  fi
  if [ $status = ok ] && [ "$MEMCHECK" = 1 ]; then
    if LD_PRELOAD=$VALGRIND_PRELOAD valgrind --tool=memcheck --error-exitcode=99 \
        --track-origins=no --leak-check=no "$REPLAY_BUILD/fuzz/$name" -max_len="$len" "$work" $seeds \
        >"$log.memcheck" 2>&1; then
      memcheck=ok
    else
      memcheck=FAILED; status=FAILED
    fi
  fi
  printf '%-30s %12s %10s %8s %6s %9s %s\n' "$name" "$execs" "$rate" "$(find "$work" -type f | wc -l)" \
    "$leaks" "$memcheck" "$status" >"$BUILD/findings/$name.result"
  echo "fuzz $name: $status, $execs runs in ${SECONDS_EACH}s"
  if [ $status != ok ]; then
    for f in "$log" "$log.leaks" "$log.memcheck"; do [ -f "$f" ] && tail -30 "$f"; done
    return 1
  fi
}
export -f run_one

targets=()
for t in "$BUILD"/fuzz/fuzz_*; do
  [ -f "$t" ] && [ -x "$t" ] || continue
  if [ -n "${FUZZ_TARGETS:-}" ] && [[ " $FUZZ_TARGETS " != *" $(basename "$t") "* ]]; then continue; fi
  targets+=("$t")
  rm -f "$BUILD/findings/$(basename "$t").result"
done
rc=0
printf '%s\n' "${targets[@]}" | xargs -P "${FUZZ_JOBS:-2}" -I{} bash -c 'run_one "$1"' _ {} || rc=1

echo
printf '%-30s %12s %10s %8s %6s %9s %s\n' target executions "execs/s" corpus leaks memcheck result
for t in "${targets[@]}"; do
  r=$BUILD/findings/$(basename "$t").result
  if [ -f "$r" ]; then cat "$r"; else printf '%-30s %s\n' "$(basename "$t")" "no result"; rc=1; fi
done
exit $rc

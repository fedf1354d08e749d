#!/usr/bin/env bash
# Prices the decode targets against their raw baselines (fuzz/raw_decode_*.cpp): one frozen
# corpus per target is replayed by fuzz_decode_X and raw_decode_X of the same build (same
# compiler, sanitizers and coverage), ROUNDS times interleaved (ours, raw, ours, ...). The
# per-input time is the replay's CPU time less that of an empty replay (start-up), over
# the number of inputs; the table shows the medians and the median of the rounds' ours / raw.
#   usage: fuzz/compare_raw.sh [BUILD [CORPORA]]   CORPORA/<fuzz target>/ (default: the
#   campaign corpora of BUILD, plus the committed seeds); TARGETS="fuzz_decode_x ..." limits
#   the table to those targets
set -euo pipefail
cd "$(dirname "$0")/.."
BUILD=${1:-build-fuzz}
CORPORA=${2:-$BUILD/corpus}
ROUNDS=${ROUNDS:-3}
export ASAN_OPTIONS=detect_leaks=0:allocator_may_return_null=1
export UBSAN_OPTIONS=print_stacktrace=1:halt_on_error=1
source <(sed -n '/^max_len() {/,/^}/p' fuzz/run_fuzz.sh)
empty=$(mktemp)
trap 'rm -f "$empty"' EXIT
# Each corpus is run PASSES times per replay so that start-up (Qt, FFmpeg, ASan) is small.
PASSES=${PASSES:-4}

# replay BINARY NAME FILE...: CPU microseconds (user + system) for running every FILE
# once (libFuzzer runs file arguments one by one, without mutating). CPU time, not wall
# time: the machine may be shared.
replay() {
  local bin=$1 name=$2 out; shift 2
  out=$(mktemp)
  /usr/bin/time -f '%U %S' -o "$out" "$bin" -detect_leaks=0 -timeout=60 -max_len="$(max_len "$name")" "$@" \
    >/dev/null 2>&1 || true
  awk '{ printf "%d\n", ($1 + $2) * 1000000 }' "$out"
  rm -f "$out"
}
median() { printf '%s\n' "$@" | sort -n | sed -n "$(((${#@} + 1) / 2))p"; }

printf '%-26s %7s %12s %12s %7s\n' target runs "ours us/in" "raw us/in" ratio
for raw in "$BUILD"/fuzz/raw_decode_*; do
  [ -x "$raw" ] || continue
  name=fuzz_decode_${raw##*/raw_decode_}
  [ -z "${TARGETS:-}" ] || [[ " $TARGETS " == *" $name "* ]] || continue
  ours=$BUILD/fuzz/$name
  dirs=()
  [ -d "$CORPORA/$name" ] && dirs+=("$CORPORA/$name")
  [ -d "fuzz/corpus/$name" ] && dirs+=("fuzz/corpus/$name")
  [ -x "$ours" ] && ((${#dirs[@]})) || continue
  mapfile -t files < <(find "${dirs[@]}" -type f | sort)
  runs=()
  for ((p = 0; p < PASSES; ++p)); do runs+=("${files[@]}"); done
  inputs=${#runs[@]}
  o=() r=() q=()
  for ((i = 0; i < ROUNDS; ++i)); do
    o0=$(replay "$ours" "$name" "$empty"); o1=$(replay "$ours" "$name" "${runs[@]}")
    r0=$(replay "$raw" "$name" "$empty"); r1=$(replay "$raw" "$name" "${runs[@]}")
    o+=($(((o1 - o0) / inputs))) r+=($(((r1 - r0) / inputs)))
    # Each round's own ratio: load that drifts between rounds cancels out within one.
    q+=("$(awk -v a="$((o1 - o0))" -v b="$((r1 - r0))" 'BEGIN { printf (b > 0 ? "%.3f" : "0"), a / b }')")
  done
  om=$(median "${o[@]}") rm=$(median "${r[@]}")
  printf '%-26s %7d %12d %12d %7.2f\n' "$name" "$inputs" "$om" "$rm" "$(printf '%s\n' "${q[@]}" | sort -g |
    sed -n "$(((ROUNDS + 1) / 2))p")"
done

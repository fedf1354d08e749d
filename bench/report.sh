#!/usr/bin/env bash
# Runs every benchmark program of a build and prints one table. Each program prints its
# comparisons as lines "RESULT|what|ours|baseline|ratio|goal|spread" (goal as ">= 0.95";
# spread: lowest-highest ratio of the interleaved rounds and their count).
set -uo pipefail
BUILD=${1:-build-release}
rows=()
for b in "$BUILD"/bench/bench_*; do
  [ -f "$b" ] && [ -x "$b" ] || continue  # not the *_autogen folders
  name=$(basename "$b")
  echo "== $name" >&2
  out=$("$b" 2>&1) || echo "$name failed" >&2
  echo "$out" | grep -v '^RESULT|' >&2
  while IFS= read -r line; do rows+=("$line"); done < <(echo "$out" | grep '^RESULT|')
done
echo
echo "$(nproc) cores; load average before and after: ${LOAD_BEFORE:-?} / $(cut -d' ' -f1-3 /proc/loadavg)"
printf '%-44s %15s %15s %7s %8s %-20s %s\n' "measured" "ours" "baseline" "ratio" "goal" "spread (rounds)" "verdict"
printf '%s\n' "$(printf '%.0s-' {1..124})"
fail=0
for r in "${rows[@]}"; do
  IFS='|' read -r _ what ours base ratio goal spread <<<"$r"
  verdict=-
  op=${goal%% *}; want=${goal##* }
  if [ -n "$want" ] && [ "$want" != "$goal" ]; then
    case "$op" in
      ">=") awk -v r="$ratio" -v w="$want" 'BEGIN{exit !(r+0 >= w+0)}' && verdict=pass || verdict=short ;;
      "<=") awk -v r="$ratio" -v w="$want" 'BEGIN{exit !(r+0 <= w+0)}' && verdict=pass || verdict=short ;;
    esac
  fi
  [ "$verdict" = short ] && fail=1
  printf '%-44s %15s %15s %7s %8s %-20s %s\n' "$what" "$ours" "$base" "$ratio" "$goal" "${spread:--}" "$verdict"
done
exit 0

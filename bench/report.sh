#!/usr/bin/env bash
# Runs every benchmark of a build and prints one table. Each benchmark prints its
# comparisons as lines "RESULT|what|ours|baseline|ratio|goal" (goal as ">= 0.95").
set -uo pipefail
BUILD=${1:-build-release}
rows=()
for b in "$BUILD"/bench/bench_*; do
  [ -x "$b" ] || continue
  name=$(basename "$b")
  echo "== $name" >&2
  out=$("$b" --benchmark_min_time=0.2 2>&1) || echo "$name failed" >&2
  echo "$out" | grep -v '^RESULT|' >&2
  while IFS= read -r line; do rows+=("$line"); done < <(echo "$out" | grep '^RESULT|')
done
printf '\n%-46s %14s %14s %7s %8s  %s\n' "measured" "ours" "baseline" "ratio" "goal" "verdict"
printf '%s\n' "$(printf '%.0s-' {1..102})"
for r in "${rows[@]}"; do
  IFS='|' read -r _ what ours base ratio goal <<<"$r"
  verdict=pass
  op=${goal%% *}; want=${goal##* }
  if [ -n "$want" ] && [ "$want" != "$goal" ]; then
    case "$op" in
      ">=") awk -v r="$ratio" -v w="$want" 'BEGIN{exit !(r+0 >= w+0)}' || verdict=short ;;
      "<=") awk -v r="$ratio" -v w="$want" 'BEGIN{exit !(r+0 <= w+0)}' || verdict=short ;;
    esac
  else
    verdict=-
  fi
  printf '%-46s %14s %14s %7s %8s  %s\n' "$what" "$ours" "$base" "$ratio" "$goal" "$verdict"
done

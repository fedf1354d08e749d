#!/usr/bin/env bash
# Pools the rounds of several benchmark runs made with ORVO_BENCH_ROUND_RATIOS=1: for each
# comparison, the median of every round's ratio across the files given (or standard input),
# its quartiles and the number of rounds. A 9-round median moves by several percent between
# runs on a shared machine; the pooled median of a few runs settles where one run cannot.
#   ORVO_BENCH_ROUND_RATIOS=1 build-release/bench/bench_paced > run1.txt   (and run2, ...)
#   bench/pool_rounds.sh run1.txt run2.txt
set -euo pipefail
grep -h '^ROUNDS|' "$@" | awk -F'|' '
  { n = split($3, r, " "); for (i = 1; i <= n; ++i) v[$2] = v[$2] " " r[i] }
  END {
    for (what in v) {
      n = split(v[what], r, " ")
      for (i = 2; i <= n; ++i) { x = r[i]; for (j = i - 1; j >= 1 && r[j] + 0 > x + 0; --j) r[j + 1] = r[j]; r[j + 1] = x }
      printf "%-60s median %.3f  quartiles %.3f-%.3f  (%d rounds)\n", what, at(r, n, 0.5), at(r, n, 0.25), at(r, n, 0.75), n
    }
  }
  function at(r, n, p,   k, lo) { k = 1 + (n - 1) * p; lo = int(k); return lo >= n ? r[n] : r[lo] + (k - lo) * (r[lo + 1] - r[lo]) }
' | sort

#!/usr/bin/env bash
# `varnel info` next to `ffprobe -show_streams -show_format` on the same long
# file: wall time of RUNS runs each, interleaved, and the ratio varnel/ffprobe.
#
#   bench/info_vs_ffprobe.sh [VARNEL] [FILE] [RUNS]
#
# VARNEL defaults to build/varnel, FILE to the long 1080p fixture (made with
# VARNEL_FIXTURES_LONG=1 tests/fixtures/make_fixtures.sh DIR), RUNS to 20.
set -euo pipefail
cd "$(dirname "$0")/.."

varnel=${1:-build/varnel}
file=${2:-${VARNEL_FIXTURES:-build/fixtures}/long_1080p.mp4}
runs=${3:-20}

if [[ ! -x $varnel ]]; then
  echo "info_vs_ffprobe: no varnel binary at $varnel (build first)" >&2
  exit 2
fi
if [[ ! -f $file ]]; then
  echo "info_vs_ffprobe: $file is missing; make it with VARNEL_FIXTURES_LONG=1 tests/fixtures/make_fixtures.sh DIR" >&2
  exit 2
fi

now() { date +%s%N; }
varnel_ns=0
ffprobe_ns=0
# One untimed run each warms the page cache and the dynamic loader.
"$varnel" info --json "$file" >/dev/null
ffprobe -v error -show_streams -show_format "$file" >/dev/null
for ((i = 0; i < runs; i++)); do
  t0=$(now)
  "$varnel" info --json "$file" >/dev/null
  t1=$(now)
  ffprobe -v error -show_streams -show_format "$file" >/dev/null
  t2=$(now)
  varnel_ns=$((varnel_ns + t1 - t0))
  ffprobe_ns=$((ffprobe_ns + t2 - t1))
done

awk -v v="$varnel_ns" -v f="$ffprobe_ns" -v n="$runs" -v file="$file" 'BEGIN {
  printf "file     %s\n", file
  printf "varnel   %.1f ms per run (info --json)\n", v / n / 1e6
  printf "ffprobe  %.1f ms per run (-show_streams -show_format)\n", f / n / 1e6
  printf "ratio    %.2f (varnel / ffprobe)\n", v / f
}'

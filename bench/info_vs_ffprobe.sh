#!/usr/bin/env bash
# `varnel info` next to `ffprobe -show_streams -show_format` on the same long
# file. Each tool runs RUNS times in a row, the two blocks alternate for
# ROUNDS rounds, and the fastest block of each counts (the machine is shared;
# the minimum is the run least disturbed). Prints wall and CPU time per run
# and the ratios varnel / ffprobe.
#
#   bench/info_vs_ffprobe.sh [VARNEL] [FILE] [RUNS] [ROUNDS]
#
# VARNEL defaults to build/varnel, FILE to the long 1080p fixture (made with
# VARNEL_FIXTURES_LONG=1 tests/fixtures/make_fixtures.sh DIR), RUNS to 10,
# ROUNDS to 5.
set -euo pipefail
cd "$(dirname "$0")/.."

varnel=${1:-build/varnel}
file=${2:-${VARNEL_FIXTURES:-build/fixtures}/long_1080p.mp4}
runs=${3:-10}
rounds=${4:-5}

if [[ ! -x $varnel ]]; then
  echo "info_vs_ffprobe: no varnel binary at $varnel (build first)" >&2
  exit 2
fi
if [[ ! -f $file ]]; then
  echo "info_vs_ffprobe: $file is missing; make it with VARNEL_FIXTURES_LONG=1 tests/fixtures/make_fixtures.sh DIR" >&2
  exit 2
fi

# block NAME COMMAND...: runs the command RUNS times; prints "wall cpu" seconds.
block() {
  local TIMEFORMAT="%R %U %S"
  { time (for ((i = 0; i < runs; i++)); do "$@" >/dev/null; done) ; } 2>&1 |
    awk '{ printf "%s %s\n", $1, $2 + $3 }'
}

# One untimed run each warms the page cache and the dynamic loader.
"$varnel" info --json "$file" >/dev/null
ffprobe -v error -show_streams -show_format "$file" >/dev/null

results=()
for ((r = 0; r < rounds; r++)); do
  results+=("varnel $(block "$varnel" info --json "$file")")
  results+=("ffprobe $(block ffprobe -v error -show_streams -show_format "$file")")
done

printf '%s\n' "${results[@]}" | awk -v n="$runs" -v file="$file" '
  { if (!($1 in wall) || $2 < wall[$1]) wall[$1] = $2
    if (!($1 in cpu) || $3 < cpu[$1]) cpu[$1] = $3 }
  END {
    printf "file     %s\n", file
    printf "varnel   %6.1f ms wall, %6.1f ms CPU per run (info --json)\n", wall["varnel"] / n * 1000, cpu["varnel"] / n * 1000
    printf "ffprobe  %6.1f ms wall, %6.1f ms CPU per run (-show_streams -show_format)\n", wall["ffprobe"] / n * 1000, cpu["ffprobe"] / n * 1000
    printf "ratio    %.2f wall, %.2f CPU (varnel / ffprobe)\n", wall["varnel"] / wall["ffprobe"], cpu["varnel"] / cpu["ffprobe"]
  }'

#!/usr/bin/env bash
# Seek latency: a movie seeking to 20 fixed times and taking the picture there
# (varnel_bench_seek, in one process) next to one `ffmpeg -ss T -i FILE
# -frames:v 1 -f null -` process per time, on FILE (default: the long 1080p
# fixture; the program stream fixture mpeg2_mp2.mpg is the other case). The two
# alternate for ROUNDS rounds and the fastest round of each counts (the
# machine is shared). Also counts the seeks that landed on the frame covering
# their time, by ffprobe's frame list.
#
#   bench/seek_vs_ffmpeg.sh [BUILD_DIR] [ROUNDS] [FILE]
set -euo pipefail
cd "$(dirname "$0")/.."
build=${1:-build}
rounds=${2:-3}
bench="$build/bench/varnel_bench_seek"
fixtures=${VARNEL_FIXTURES:-$build/fixtures}
if [[ ! -x $bench ]]; then
  echo "seek_vs_ffmpeg: no $bench (build first)" >&2
  exit 2
fi
in=${3:-}
if [[ -z $in ]]; then
  VARNEL_FIXTURES_LONG=1 bash tests/fixtures/make_fixtures.sh "$fixtures" >/dev/null
  in="$fixtures/long_1080p.mp4"
fi
if [[ ! -f $in ]]; then
  echo "seek_vs_ffmpeg: no file $in" >&2
  exit 2
fi
tmp=$(mktemp -d)
trap 'rm -rf "$tmp"' EXIT

ffprobe -v error -select_streams v:0 -show_entries frame=best_effort_timestamp_time,pkt_duration_time \
  -of csv=p=0 "$in" >"$tmp/frames.csv"

now_ms() { echo $(($(date +%s%N) / 1000000)); }

min() { echo "$1" "${2:-$1}" | awk '{print ($1 < $2) ? $1 : $2}'; }

best_open=
best_varnel=
best_ffmpeg=
for ((r = 0; r < rounds; r++)); do
  "$bench" "$in" "$tmp/frames.csv" >"$tmp/varnel.txt"
  best_open=$(min "$(awk '/^open/ {print $2}' "$tmp/varnel.txt")" "$best_open")
  best_varnel=$(min "$(awk '/^total/ {print $4}' "$tmp/varnel.txt")" "$best_varnel")

  start=$(now_ms)
  for t in $(awk '/^seek/ {print $2}' "$tmp/varnel.txt"); do
    ffmpeg -hide_banner -loglevel fatal -nostdin -ss "$t" -i "$in" -frames:v 1 -f null -
  done
  best_ffmpeg=$(min $(($(now_ms) - start)) "$best_ffmpeg")
done

echo "input: $in, 20 seeks, fastest of $rounds rounds"
awk -v o="$best_open" -v v="$best_varnel" -v f="$best_ffmpeg" 'BEGIN {
  printf "varnel opening the movie    %7.1f ms  (once, not counted below)\n", o
  printf "varnel seek + picture ×20   %7.1f ms  (%.1f ms per seek)\n", v, v / 20
  printf "ffmpeg -ss T -frames:v 1 ×20 %6.1f ms  (%.1f ms per process)\n", f, f / 20
  printf "ratio %.2f (varnel / ffmpeg)\n", v / f
}'
grep '^covering' "$tmp/varnel.txt" | sed 's/^covering /frames covering their time: /'
grep ' misses ' "$tmp/varnel.txt" | sed 's/^/  missed: /' || true

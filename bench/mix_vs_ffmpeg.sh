#!/usr/bin/env bash
# Cost of mixing N audio streams per 2048-frame playback chunk: the movie's
# audio mix (varnel_bench_mix: N medias on one AAC file, read chunk by chunk
# in the playback format) next to `ffmpeg -i a.m4a ×N -filter_complex
# amix=inputs=N -f null -` on the same inputs, whose wall time is divided by
# the same number of chunks. Both decode the N inputs. The two alternate for
# ROUNDS rounds and the fastest round of each counts.
#
#   bench/mix_vs_ffmpeg.sh [BUILD_DIR] [ROUNDS] [SECONDS]    defaults: build 3 30
set -euo pipefail
cd "$(dirname "$0")/.."
build=${1:-build}
rounds=${2:-3}
seconds=${3:-30}
bench="$build/bench/varnel_bench_mix"
counts=(2 8 32)
if [[ ! -x $bench ]]; then
  echo "mix_vs_ffmpeg: no $bench (build first)" >&2
  exit 2
fi
tmp=$(mktemp -d)
trap 'rm -rf "$tmp"' EXIT
in="$tmp/a.m4a"
ffmpeg -hide_banner -loglevel error -nostdin -y -f lavfi \
  -i "sine=frequency=440:sample_rate=44100:duration=$seconds" -c:a aac -b:a 128k -ac 2 "$in"

now_us() { echo $(($(date +%s%N) / 1000)); }

for ((r = 0; r < rounds; r++)); do
  "$bench" "$in" "${counts[@]}" >>"$tmp/varnel.txt"
  for n in "${counts[@]}"; do
    inputs=()
    for ((i = 0; i < n; i++)); do inputs+=(-i "$in"); done
    start=$(now_us)
    ffmpeg -hide_banner -loglevel error -nostdin "${inputs[@]}" \
      -filter_complex "amix=inputs=$n" -f null -
    echo "$n $(($(now_us) - start))" >>"$tmp/ffmpeg.txt"
  done
done

echo "input: $seconds s of AAC stereo 44100 Hz, N opens of it; fastest of $rounds rounds"
# varnel lines: mix N chunks C read US us/chunk all US us/chunk rms R
awk '
  FNR == NR { if (!($2 in read) || $6 < read[$2]) { read[$2] = $6; all[$2] = $9 }
              chunks[$2] = $4; next }
  { if (!($1 in ff) || $2 < ff[$1]) ff[$1] = $2 }
  END {
    printf "%4s %8s %14s %14s %14s %8s\n", "N", "chunks", "varnel read", "varnel all", "ffmpeg amix", "ratio"
    for (n in read) {
      f = ff[n] / chunks[n]
      printf "%4d %8d %11.1f us %11.1f us %11.1f us %8.2f\n", n, chunks[n], read[n], all[n], f, all[n] / f
    }
  }' "$tmp/varnel.txt" "$tmp/ffmpeg.txt" | sort -n
echo "per 2048-frame chunk; \"varnel all\" adds opening the N medias and building the mix;"
echo "ratio = varnel all / ffmpeg (a whole process, opening included)"

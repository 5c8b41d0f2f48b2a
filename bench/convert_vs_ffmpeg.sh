#!/usr/bin/env bash
# varnel convert next to the FFmpeg command line on the same 1080p input, with
# the same codecs, size, bit rates and GOP: median wall time and peak memory of
# RUNS runs each, reported as ratios (varnel / ffmpeg). Then the size of a
# conversion with each program's default settings (H.264, HEVC, VP9) of the
# same 640x360 clip, as a ratio (varnel / ffmpeg; goal 0.5 to 2).
#
#   bench/convert_vs_ffmpeg.sh [BUILD_DIR] [RUNS]
#   PART=time|size|all (default all) picks the part to run.
set -euo pipefail
cd "$(dirname "$0")/.."
build=${1:-build}
runs=${2:-3}
fixtures=${VARNEL_FIXTURES:-$build/fixtures}
VARNEL_FIXTURES_LONG=1 bash tests/fixtures/make_fixtures.sh "$fixtures" >/dev/null
in="$fixtures/long_1080p.mp4"
out=$(mktemp -d)
trap 'rm -rf "$out"' EXIT
size=1280x720
vb=4000000
seconds=${SECONDS_OF_INPUT:-20}
part=${PART:-all}

measure() {  # label, command...: prints "seconds kilobytes"
  local label=$1
  shift
  /usr/bin/time -f "%e %M" -o "$out/$label.time" "$@" >/dev/null 2>"$out/$label.err" ||
    { cat "$out/$label.err" >&2; exit 1; }
  cat "$out/$label.time"
}

median() { sort -n | awk '{a[NR]=$1} END {print a[int((NR+1)/2)]}'; }

if [ "$part" != size ]; then
for i in $(seq "$runs"); do
  measure varnel "$build/varnel" convert "$in" "$out/varnel.mp4" --size $size \
    --vcodec h264 --acodec aac --keyint 12 --vbitrate $vb --abitrate 192000 --sample-rate 48000 --duration "$seconds" >>"$out/varnel.all"
  measure ffmpeg ffmpeg -hide_banner -loglevel error -y -i "$in" -t "$seconds" -vf scale=${size/x/:} \
    -c:v libx264 -preset fast -profile:v main -g 12 -b:v $vb \
    -c:a aac -b:a 192k "$out/ffmpeg.mp4" >>"$out/ffmpeg.all"
done

vt=$(awk '{print $1}' "$out/varnel.all" | median)
ft=$(awk '{print $1}' "$out/ffmpeg.all" | median)
vm=$(awk '{print $2}' "$out/varnel.all" | median)
fm=$(awk '{print $2}' "$out/ffmpeg.all" | median)
echo "input: first $seconds s of $in -> $size h264 (fast, main, GOP 12, $vb b/s) + aac 192k, $runs runs"
printf 'wall time   varnel %6.2f s   ffmpeg %6.2f s   ratio %.2f\n' "$vt" "$ft" "$(echo "$vt / $ft" | bc -l)"
printf 'peak memory varnel %6.0f MB  ffmpeg %6.0f MB  ratio %.2f\n' "$(echo "$vm/1024" | bc -l)" \
  "$(echo "$fm/1024" | bc -l)" "$(echo "$vm / $fm" | bc -l)"
fi

if [ "$part" != time ]; then
  # A clip of real pictures at a size people share: 4 s of the 1080p input at
  # 640x360, near-lossless, without sound.
  clip="$out/clip360.mp4"
  ffmpeg -hide_banner -loglevel error -y -i "$in" -t 4 -vf scale=640:360 -an -c:v libx264 \
    -crf 8 -preset veryfast "$clip"
  echo "default settings, 4 s of $in at 640x360, video only: bytes"
  for codec in h264 hevc vp9; do
    case $codec in
      h264) ext=mp4 encoder=libx264 ;;
      hevc) ext=mp4 encoder=libx265 ;;
      vp9) ext=webm encoder=libvpx-vp9 ;;
    esac
    "$build/varnel" convert "$clip" "$out/varnel-$codec.$ext" --vcodec $codec --no-audio -y
    ffmpeg -hide_banner -loglevel error -y -i "$clip" -c:v $encoder -an "$out/ffmpeg-$codec.$ext"
    v=$(stat -c %s "$out/varnel-$codec.$ext")
    f=$(stat -c %s "$out/ffmpeg-$codec.$ext")
    printf '%-5s varnel %8d  ffmpeg %8d  ratio %.2f\n' $codec "$v" "$f" "$(echo "$v / $f" | bc -l)"
  done
fi

#!/usr/bin/env bash
# What burned-in subtitles cost: the long 1080p fixture converted to 1280x720
# H.264/AAC four ways, on the same input in one run:
#   varnel          `varnel convert IN OUT --size 1280x720 ...`
#   varnel + subs   the same with `--subtitles CUES.srt --subtitle-font
#                   "DejaVu Sans 72" --subtitle-outline 3 --subtitle-shadow 0`
#                   (sizes in pixels of a 1080-line picture: 48 px and 2 px at
#                   720 lines)
#   ffmpeg          `ffmpeg -i IN -vf scale=1280:720 ...`
#   ffmpeg + subs   `ffmpeg -i IN -vf scale=1280:720,subtitles=CUES.srt ...`, the
#                   style forced to the same: 48 px at 720 lines is FontSize
#                   19.2 in the 288-line script space of a SubRip file, and an
#                   outline of 2 px is 0.8 there (both draw with libass, so
#                   the same style gives the same text)
# CUES.srt is made here: a cue every 4 s, on for 2 s (from 4k + 0.5 to
# 4k + 2.5 s), one or two lines, so half of the pictures carry text. Every
# tool encodes with the same settings (libx264 preset fast, profile main,
# GOP 12, 4 Mb/s; AAC 192 kb/s at 48000 Hz). The four alternate for RUNS
# rounds (the machine is shared); the median wall time and peak memory
# (`/usr/bin/time -f "%e %M"`) of each count, and the ratios: varnel with
# subtitles to without (goal <= 1.05), and varnel with subtitles to ffmpeg
# with them. Also checks that both outputs with subtitles do show text: the
# picture at 1.5 s (inside the first cue) against the one without.
#
# About 10 minutes on 2 cores with the defaults (the whole minute, 3 rounds).
#
#   bench/subtitles_vs_ffmpeg.sh [BUILD_DIR] [RUNS]
#   SECONDS_OF_INPUT=20 bench/subtitles_vs_ffmpeg.sh build 1   # a quick look
set -euo pipefail
cd "$(dirname "$0")/.."
build=${1:-build}
runs=${2:-3}
seconds=${SECONDS_OF_INPUT:-60}
varnel="$build/varnel"
fixtures=${VARNEL_FIXTURES:-$build/fixtures}
if [[ ! -x $varnel ]]; then
  echo "subtitles_vs_ffmpeg: no $varnel (build varnel-cli first)" >&2
  exit 2
fi
if ! "$varnel" convert --help 2>&1 | grep -- --subtitles >/dev/null; then
  echo "subtitles_vs_ffmpeg: this build's convert takes no --subtitles" >&2
  exit 2
fi
VARNEL_FIXTURES_LONG=1 bash tests/fixtures/make_fixtures.sh "$fixtures" >/dev/null
in="$fixtures/long_1080p.mp4"
if [[ ! -f $in ]]; then
  echo "subtitles_vs_ffmpeg: no file $in" >&2
  exit 2
fi
tmp=$(mktemp -d)
trap 'rm -rf "$tmp"' EXIT
size=1280x720
vb=4000000

# A cue every 4 s over the whole clip.
awk 'function stamp(t) { return sprintf("%02d:%02d:%02d,%03d", t / 3600, t % 3600 / 60, t % 60, (t * 1000) % 1000) }
  BEGIN {
    for (k = 0; k < 15; k++) {
      printf "%d\n%s --> %s\n", k + 1, stamp(4 * k + 0.5), stamp(4 * k + 2.5)
      if (k % 2) printf "Cue number %d\nwith a second line\n\n", k + 1
      else printf "Cue number %d\n\n", k + 1
    }
  }' >"$tmp/cues.srt"

measure() { # label, command...: appends "seconds kilobytes" to $tmp/label.all
  local label=$1
  shift
  /usr/bin/time -f "%e %M" -o "$tmp/$label.time" "$@" >/dev/null 2>"$tmp/$label.err" ||
    { cat "$tmp/$label.err" >&2; exit 1; }
  cat "$tmp/$label.time" >>"$tmp/$label.all"
}
median() { sort -n | awk '{a[NR]=$1} END {print a[int((NR+1)/2)]}'; }
ratio() { awk -v a="$1" -v b="$2" 'BEGIN { printf "%.2f", a / b }'; }

varnel_args=(--size "$size" --vcodec h264 --preset fast --keyint 12 --acodec aac --vbitrate "$vb"
  --abitrate 192000 --sample-rate 48000 --duration "$seconds")
ffmpeg_args=(-c:v libx264 -preset fast -profile:v main -g 12 -b:v "$vb" -pix_fmt yuv420p
  -c:a aac -b:a 192k -ar 48000 -ac 2)
style="FontName=DejaVu Sans,FontSize=19.2,Outline=0.8,Shadow=0"
for ((r = 0; r < runs; r++)); do
  measure varnel "$varnel" convert "$in" "$tmp/varnel.mp4" "${varnel_args[@]}"
  measure varnel_subs "$varnel" convert "$in" "$tmp/varnel_subs.mp4" "${varnel_args[@]}" \
    --subtitles "$tmp/cues.srt" --subtitle-font "DejaVu Sans 72" --subtitle-outline 3 \
    --subtitle-shadow 0
  measure ffmpeg ffmpeg -hide_banner -loglevel error -nostdin -y -t "$seconds" -i "$in" \
    -vf "scale=${size/x/:}" "${ffmpeg_args[@]}" "$tmp/ffmpeg.mp4"
  measure ffmpeg_subs ffmpeg -hide_banner -loglevel error -nostdin -y -t "$seconds" -i "$in" \
    -vf "scale=${size/x/:},subtitles=$tmp/cues.srt:force_style='$style'" "${ffmpeg_args[@]}" \
    "$tmp/ffmpeg_subs.mp4"
done

# The RGB PSNR of the picture at 1.5 s with subtitles against the one
# without: text drawn keeps it well under 40 dB.
apart() {
  ffmpeg -hide_banner -nostdin -ss 1.5 -i "$1" -ss 1.5 -i "$2" \
    -lavfi "[0:v]format=gbrp[a];[1:v]format=gbrp[b];[a][b]psnr" -frames:v 1 -f null - 2>&1 |
    sed -n 's/.*average:\([^ ]*\).*/\1/p' | tail -1 | awk '{ printf "%.1f", $1 }'
}

declare -A t m # median seconds and kilobytes by label
for label in varnel varnel_subs ffmpeg ffmpeg_subs; do
  t[$label]=$(awk '{print $1}' "$tmp/$label.all" | median)
  m[$label]=$(awk '{print $2}' "$tmp/$label.all" | median)
done
echo "input: first $seconds s of $in -> $size h264 (fast, main, GOP 12, $vb b/s) + aac 192k;"
echo "15 cues, one every 4 s for 2 s; median of $runs runs"
row() { # name, seconds, kilobytes
  awk -v n="$1" -v t="$2" -v m="$3" 'BEGIN { printf "  %-14s %7.2f s  %6.0f MB\n", n, t, m / 1024 }'
}
echo "                  wall time  peak memory"
row "varnel" "${t[varnel]}" "${m[varnel]}"
row "varnel + subs" "${t[varnel_subs]}" "${m[varnel_subs]}"
row "ffmpeg" "${t[ffmpeg]}" "${m[ffmpeg]}"
row "ffmpeg + subs" "${t[ffmpeg_subs]}" "${m[ffmpeg_subs]}"
echo "varnel with / without subtitles: time $(ratio "${t[varnel_subs]}" "${t[varnel]}")" \
  "(goal <= 1.05), memory $(ratio "${m[varnel_subs]}" "${m[varnel]}")"
echo "ffmpeg with / without subtitles: time $(ratio "${t[ffmpeg_subs]}" "${t[ffmpeg]}")," \
  "memory $(ratio "${m[ffmpeg_subs]}" "${m[ffmpeg]}")"
echo "varnel / ffmpeg, both with subtitles: time $(ratio "${t[varnel_subs]}" "${t[ffmpeg_subs]}")," \
  "memory $(ratio "${m[varnel_subs]}" "${m[ffmpeg_subs]}")"
echo "picture at 1.5 s, with subtitles against without (RGB PSNR; text drawn is well under 40):" \
  "varnel $(apart "$tmp/varnel_subs.mp4" "$tmp/varnel.mp4") dB," \
  "ffmpeg $(apart "$tmp/ffmpeg_subs.mp4" "$tmp/ffmpeg.mp4") dB"

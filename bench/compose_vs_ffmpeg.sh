#!/usr/bin/env bash
# The composed-picture pipeline next to the same FFmpeg filter chain, on the
# first SECONDS (default 20: 500 pictures) of the long 1080p fixture, to
# 1280x720 with every picture setting: crop 1720x980 at (100, 50) from the
# top left, rotate 10 degrees, mirror left to right, fit on black, colour
# controls, hue, the preset "1970" and a 200x80 PNG watermark in the
# bottom-left corner. The FFmpeg chain is the one of
# bench/effects_vs_ffmpeg.sh (crop, rotate, hflip, scale+pad, eq, hue,
# colorchannelmixer, eq, overlay), with the watermark moved where varnel lays
# it. varnel's --rotate turns counter-clockwise and mirrors before it turns,
# which is the picture FFmpeg's `rotate=10*PI/180` (clockwise) then `hflip`
# makes.
#
# 1. Decode + compose, no encoding: varnel_bench_compose (a movie composing
#    each output picture with decodeImageAtTime and rendering it into a
#    reused 1280x720 RGBA buffer, what convert does short of encoding)
#    against `ffmpeg -t SECONDS -i IN -i W.png -filter_complex CHAIN -an -f
#    null -` (video only, as the movie reads no audio here). Wall time of the
#    whole process, both using every core. Goal: varnel <= 0.5 of ffmpeg.
# 2. Full conversion: `varnel convert IN OUT.mp4 --size 1280x720 ...` against
#    ffmpeg with the chain, both given the same encoder settings (libx264
#    preset fast, 20 Mb/s, GOP 12, yuv420p, ffmpeg's tagged BT.601 limited
#    range and profile main as varnel's writer makes them; AAC 192 kb/s,
#    44100 Hz stereo). Wall time and
#    peak memory (`/usr/bin/time -f "%e %M"`). Goals: time <= 0.9, memory
#    <= 1.5 x. Left out with "convert: picture options not available" when
#    this build's convert does not take the picture settings.
# The two alternate for ROUNDS rounds; the fastest round of each and the
# lowest peak memory count (the machine is shared). Also prints how close
# the two chains' pictures are (RGB PSNR of one picture; the geometry
# matches, the colour steps are the nearest FFmpeg has, not the same). About
# 2 minutes with the defaults on 2 cores.
#
#   bench/compose_vs_ffmpeg.sh [BUILD_DIR] [ROUNDS]
#   SECONDS_OF_INPUT=60 bench/compose_vs_ffmpeg.sh build 1   # the whole clip
set -euo pipefail
cd "$(dirname "$0")/.."
build=${1:-build}
rounds=${2:-2}
seconds=${SECONDS_OF_INPUT:-20}
bench="$build/bench/varnel_bench_compose"
varnel="$build/varnel"
fixtures=${VARNEL_FIXTURES:-$build/fixtures}
for tool in "$bench" "$varnel"; do
  if [[ ! -x $tool ]]; then
    echo "compose_vs_ffmpeg: no $tool (build varnel-cli and varnel_bench_compose first)" >&2
    exit 2
  fi
done
VARNEL_FIXTURES_LONG=1 bash tests/fixtures/make_fixtures.sh "$fixtures" >/dev/null
in="$fixtures/long_1080p.mp4"
if [[ ! -f $in ]]; then
  echo "compose_vs_ffmpeg: no file $in" >&2
  exit 2
fi
tmp=$(mktemp -d)
trap 'rm -rf "$tmp"' EXIT

ff() { ffmpeg -hide_banner -loglevel error -nostdin -y "$@"; }

# A 200x80 watermark: a translucent blue box with opaque white text.
ff -f lavfi \
  -i "color=c=0x2060c0@0.6:size=200x80,format=rgba,drawtext=text=varnel:fontsize=40:fontcolor=white:x=(w-tw)/2:y=(h-th)/2" \
  -frames:v 1 "$tmp/watermark.png"

# A colorchannelmixer saturation matrix (Rec. 709 weights), for "1970".
saturation() {
  awk -v s="$1" 'BEGIN {
    split("0.2126 0.7152 0.0722", w, " ")
    printf "colorchannelmixer=rr=%.4f:rg=%.4f:rb=%.4f:gr=%.4f:gg=%.4f:gb=%.4f:br=%.4f:bg=%.4f:bb=%.4f",
      (1-s)*w[1]+s, (1-s)*w[2], (1-s)*w[3], (1-s)*w[1], (1-s)*w[2]+s, (1-s)*w[3],
      (1-s)*w[1], (1-s)*w[2], (1-s)*w[3]+s }'
}
chain="[0:v]crop=1720:980:100:50,rotate=10*PI/180:ow=rotw(10*PI/180):oh=roth(10*PI/180):c=black"
chain+=",hflip,scale=1280:720:force_original_aspect_ratio=decrease,pad=1280:720:(ow-iw)/2:(oh-ih)/2"
chain+=",eq=saturation=1.2:brightness=0.05:contrast=1.1,hue=H=0.3,$(saturation 0.8281)"
chain+=",eq=brightness=0.1744:contrast=1.5788[v];[v][1:v]overlay=0:H-h[out]"
# The same settings on varnel's command line (saturation, brightness,
# contrast and hue on its 0..1 scales: x1.2, +0.05, x1.1, +0.3 rad).
picture=(--crop "100,50,1720,980" --rotate 10 --hflip --saturation 0.6 --brightness 0.525
  --contrast 0.275 --hue 0.547771 --effect 1970 --watermark "$tmp/watermark.png")

now_ns() { date +%s%N; }
min() { echo "$1" "${2:-$1}" | awk '{print ($1 < $2) ? $1 : $2}'; }
ratio() { awk -v a="$1" -v b="$2" 'BEGIN { printf "%.2f", a / b }'; }

# How close the pictures are: the frame starting at 0.48 s from each (the one
# covering 0.49 s).
"$varnel" frame "$in" -t 0.49 --size 1280x720 "${picture[@]}" -o "$tmp/varnel.png"
ff -ss 0.48 -i "$in" -i "$tmp/watermark.png" -filter_complex "$chain" -map "[out]" -frames:v 1 \
  "$tmp/ffmpeg.png"
agree=$(ffmpeg -hide_banner -nostdin -i "$tmp/varnel.png" -i "$tmp/ffmpeg.png" \
  -lavfi "[0:v]format=gbrp[a];[1:v]format=gbrp[b];[a][b]psnr" -f null - 2>&1 |
  sed -n 's/.*average:\([^ ]*\).*/\1/p' | tail -1)

# 1. Decode + compose.
best_varnel='' best_ffmpeg='' per_frame='' frames=''
for ((r = 0; r < rounds; r++)); do
  start=$(now_ns)
  "$bench" "$in" "$tmp/watermark.png" "$seconds" >"$tmp/bench.txt"
  best_varnel=$(min $(($(now_ns) - start)) "$best_varnel")
  per_frame=$(min "$(awk '/^per_frame/ {print $2}' "$tmp/bench.txt")" "$per_frame")
  frames=$(awk '/^frames/ {print $2}' "$tmp/bench.txt")

  start=$(now_ns)
  ff -t "$seconds" -i "$in" -i "$tmp/watermark.png" -filter_complex "$chain" -map "[out]" -an \
    -f null -
  best_ffmpeg=$(min $(($(now_ns) - start)) "$best_ffmpeg")
done

# 2. Full conversion.
# (The help is read whole first: grep -q stops reading at the first match,
# and under pipefail the program's write to the closed pipe would fail the
# test.)
convert_help=$("$varnel" convert --help 2>&1 || true)
if grep -q -- --crop <<<"$convert_help"; then
  have_convert=1
else
  have_convert=0
fi
measure() { # label, command...: appends "seconds kilobytes" to $tmp/label.all
  local label=$1
  shift
  /usr/bin/time -f "%e %M" -o "$tmp/$label.time" "$@" >/dev/null 2>"$tmp/$label.err" ||
    { cat "$tmp/$label.err" >&2; exit 1; }
  cat "$tmp/$label.time" >>"$tmp/$label.all"
}
if ((have_convert)); then
  for ((r = 0; r < rounds; r++)); do
    measure convert_varnel "$varnel" convert "$in" "$tmp/varnel.mp4" --size 1280x720 "${picture[@]}" \
      --vcodec h264 --preset fast --keyint 12 --vbitrate 20M --acodec aac --abitrate 192k \
      --sample-rate 44100 --duration "$seconds"
    measure convert_ffmpeg ffmpeg -hide_banner -loglevel error -nostdin -y -t "$seconds" -i "$in" \
      -i "$tmp/watermark.png" -filter_complex "$chain" -map "[out]" -map 0:a:0 \
      -c:v libx264 -preset fast -profile:v main -b:v 20M -g 12 -pix_fmt yuv420p \
      -colorspace smpte170m -color_range tv -c:a aac -b:a 192k -ar 44100 -ac 2 "$tmp/ffmpeg.mp4"
  done
fi

echo "input: first $seconds s of $in ($frames pictures) -> 1280x720, every picture setting;" \
  "fastest of $rounds rounds"
echo "the two chains' pictures of the frame at 0.48 s agree to $(printf %.1f "$agree") dB (RGB PSNR; the"
echo "chains are the nearest work, not the same picture: hue and \"1970\" differ most)"
echo
echo "decode + compose, no encoding (wall time of the process)"
awk -v v="$best_varnel" -v f="$best_ffmpeg" -v p="$per_frame" -v n="$frames" 'BEGIN {
  printf "  varnel_bench_compose  %7.2f s  (%.1f ms a picture; %.1f ms of it in the compose loop)\n",
    v / 1e9, v / n / 1e6, p
  printf "  ffmpeg -f null        %7.2f s  (%.1f ms a picture)\n", f / 1e9, f / n / 1e6
  printf "  ratio %.2f (varnel / ffmpeg; goal <= 0.35)\n", v / f }'
echo
if ((have_convert)); then
  vt=$(awk '{print $1}' "$tmp/convert_varnel.all" | sort -n | head -1)
  ft=$(awk '{print $1}' "$tmp/convert_ffmpeg.all" | sort -n | head -1)
  vm=$(awk '{print $2}' "$tmp/convert_varnel.all" | sort -n | head -1)
  fm=$(awk '{print $2}' "$tmp/convert_ffmpeg.all" | sort -n | head -1)
  describe() {
    local pictures audio size
    pictures=$(ffprobe -v error -select_streams v:0 -count_packets \
      -show_entries stream=nb_read_packets -of csv=p=0 "$1")
    audio=$(ffprobe -v error -select_streams a:0 -show_entries stream=codec_name,sample_rate \
      -of csv=p=0 "$1" | tr ',' ' ')
    size=$(stat -c %s "$1")
    echo "$pictures pictures, audio ${audio:-none}, $(awk -v b="$size" 'BEGIN { printf "%.1f", b / 1e6 }') MB"
  }
  echo "full conversion: h264 (fast, main, GOP 12, 20 Mb/s) + aac 192k"
  echo "  varnel convert  $(describe "$tmp/varnel.mp4")"
  echo "  ffmpeg          $(describe "$tmp/ffmpeg.mp4")"
  printf '  wall time    varnel %6.2f s   ffmpeg %6.2f s   ratio %s (goal <= 0.8)\n' "$vt" "$ft" \
    "$(ratio "$vt" "$ft")"
  printf '  peak memory  varnel %6.0f MB  ffmpeg %6.0f MB  ratio %s (goal <= 1.2)\n' \
    "$(awk -v k="$vm" 'BEGIN { print k / 1024 }')" "$(awk -v k="$fm" 'BEGIN { print k / 1024 }')" \
    "$(ratio "$vm" "$fm")"
else
  echo "convert: picture options not available"
fi

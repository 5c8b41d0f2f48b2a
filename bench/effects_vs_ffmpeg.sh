#!/usr/bin/env bash
# Picture work per frame: every effect preset on 1280x720 pictures, and the
# full chain of picture settings (crop, rotate, mirror, fit on black, colour
# controls, hue, the preset "1970", a watermark) on 1920x1080 ones, by the
# image layer (varnel_bench_effects, which decodes the first 100 pictures of
# the long 1080p fixture into memory once and times only the image work)
# next to the nearest FFmpeg filters doing the same kind of work in one
# `ffmpeg -f null` process over the same 100 pictures. FFmpeg too is given
# them decoded: they are written once as raw YUV 4:2:0 (scaled to 1280x720
# for the presets, as they are for the chain), so what is left after taking
# away a run without the filter (`-vf scale=1280:720`, which passes them
# through, for the presets; nothing for the chain) is the filter's cost and
# not the noise of decoding. Times are `-benchmark`'s real time, over 100.
# Both use every core. The two alternate for ROUNDS rounds and the fastest
# round of each counts (the machine is shared).
#
#   bench/effects_vs_ffmpeg.sh [BUILD_DIR] [ROUNDS]
set -euo pipefail
cd "$(dirname "$0")/.."
build=${1:-build}
rounds=${2:-3}
frames=100
bench="$build/bench/varnel_bench_effects"
fixtures=${VARNEL_FIXTURES:-$build/fixtures}
if [[ ! -x $bench ]]; then
  echo "effects_vs_ffmpeg: no $bench (build first)" >&2
  exit 2
fi
VARNEL_FIXTURES_LONG=1 bash tests/fixtures/make_fixtures.sh "$fixtures" >/dev/null
in="$fixtures/long_1080p.mp4"
if [[ ! -f $in ]]; then
  echo "effects_vs_ffmpeg: no file $in" >&2
  exit 2
fi
tmp=$(mktemp -d)
trap 'rm -rf "$tmp"' EXIT

# A 200x80 watermark: a translucent blue box with opaque white text.
ffmpeg -hide_banner -loglevel error -nostdin -y -f lavfi \
  -i "color=c=0x2060c0@0.6:size=200x80,format=rgba,drawtext=text=varnel:fontsize=40:fontcolor=white:x=(w-tw)/2:y=(h-th)/2" \
  -frames:v 1 "$tmp/watermark.png"

# colorchannelmixer coefficients: luma (Rec. 709 weights) times a tint, for
# the monochrome presets; a saturation matrix for "1970".
tint() {
  awk -v r="$1" -v g="$2" -v b="$3" 'BEGIN {
    split("0.2126 0.7152 0.0722", w, " ")
    printf "colorchannelmixer=rr=%.4f:rg=%.4f:rb=%.4f:gr=%.4f:gg=%.4f:gb=%.4f:br=%.4f:bg=%.4f:bb=%.4f",
      r*w[1], r*w[2], r*w[3], g*w[1], g*w[2], g*w[3], b*w[1], b*w[2], b*w[3] }'
}
saturation() {
  awk -v s="$1" 'BEGIN {
    split("0.2126 0.7152 0.0722", w, " ")
    printf "colorchannelmixer=rr=%.4f:rg=%.4f:rb=%.4f:gr=%.4f:gg=%.4f:gb=%.4f:br=%.4f:bg=%.4f:bb=%.4f",
      (1-s)*w[1]+s, (1-s)*w[2], (1-s)*w[3], (1-s)*w[1], (1-s)*w[2]+s, (1-s)*w[3],
      (1-s)*w[1], (1-s)*w[2], (1-s)*w[3]+s }'
}

# Each preset (in catalogue order) and the FFmpeg filter nearest to it.
presets=(
  "1935|eq=saturation=0:brightness=0.00949:contrast=1.353"
  "1955|eq=saturation=0:brightness=0.3592:contrast=1.6258"
  "1960|eq=saturation=0.664:brightness=0.2781:contrast=1.407"
  "1970|eq=saturation=0.8281:brightness=0.1744:contrast=1.5788"
  "Color Invert|negate"
  "Exposure|exposure=exposure=3"
  "Blur|gblur=sigma=10"
  "Sharpen|unsharp=luma_msize_x=7:luma_msize_y=7:luma_amount=2.5"
  "Vibrance|eq=saturation=1.58:brightness=-0.02:contrast=1.08"
  "Big Softie|eq=saturation=0.718"
  "SpotLight|vignette"
  "Line Screen|geq=lum='if(gt(lum(X\,Y)\,128+127*sin((X+Y)*2*PI/5))\,255\,0)':cb=128:cr=128"
  "Black White|$(tint 0.6 0.6 0.6)"
  "Blackout B&W|$(tint 0.6 0.6 0.6),exposure=exposure=2.5478"
  "Color Control|hue=H=3.14"
  "Monochrome|$(tint 0.518 0.380 0.6)"
  "Glow|format=gbrp,split[a][b];[b]gblur=sigma=30[c];[a][c]blend=all_mode=multiply,eq=brightness=0.25:contrast=2.2"
  "Gloom|format=gbrp,split[a][b];[b]gblur=sigma=30[c];[a][c]blend=all_mode=multiply"
  "Bloom|format=gbrp,split[a][b];[b]gblur=sigma=40[c];[a][c]blend=all_mode=screen"
  "Pixellate|pixelize=w=8:h=8"
  "Bright|eq=saturation=1.9:brightness=0.3:contrast=1.78"
  "Copper|$(tint 0.169 0.871 0.973)"
  "Classical|colorchannelmixer=.393:.769:.189:0:.349:.686:.168:0:.272:.534:.131"
  "New Effection|$(tint 0.988 0.573 0.161)"
)
chain="[0:v]crop=1720:980:100:50,rotate=10*PI/180:ow=rotw(10*PI/180):oh=roth(10*PI/180):c=black"
chain+=",hflip,scale=1280:720:force_original_aspect_ratio=decrease,pad=1280:720:(ow-iw)/2:(oh-ih)/2"
chain+=",eq=saturation=1.2:brightness=0.05:contrast=1.1,hue=H=0.3,$(saturation 0.8281)"
chain+=",eq=brightness=0.1744:contrast=1.5788[v];[v][1:v]overlay=W-w-16:H-h-16"

# The pictures, decoded once.
ffmpeg -hide_banner -loglevel error -nostdin -i "$in" -frames:v "$frames" -an \
  -vf scale=1280:720 -pix_fmt yuv420p -f rawvideo "$tmp/720.yuv"
ffmpeg -hide_banner -loglevel error -nostdin -i "$in" -frames:v "$frames" -an \
  -pix_fmt yuv420p -f rawvideo "$tmp/1080.yuv"
raw() { echo "-f rawvideo -pix_fmt yuv420p -video_size $1 -framerate 25 -i $tmp/$2.yuv"; }

# Seconds of real time ffmpeg spent reading and filtering the pictures in
# the given raw file (the remaining arguments are its filters).
ffmpeg_seconds() {
  local size=$1 file=$2
  shift 2
  # shellcheck disable=SC2046
  ffmpeg -hide_banner -nostdin -benchmark $(raw "$size" "$file") "$@" -frames:v "$frames" -an \
    -f null - 2>&1 | sed -n 's/.*rtime=\([0-9.]*\)s.*/\1/p' | tail -1
}

min() { echo "$1" "${2:-$1}" | awk '{print ($1 < $2) ? $1 : $2}'; }

declare -A best_varnel best_ffmpeg
best_scale= best_decode=
for ((r = 0; r < rounds; r++)); do
  "$bench" "$in" "$tmp/watermark.png" "$frames" >"$tmp/varnel.txt"
  while IFS=$'\t' read -r kind name ms; do
    case $kind in
      preset) best_varnel[$name]=$(min "$ms" "${best_varnel[$name]:-}") ;;
      plain) best_varnel[plain]=$(min "$name" "${best_varnel[plain]:-}") ;;
      chain) best_varnel[chain]=$(min "$name" "${best_varnel[chain]:-}") ;;
    esac
  done <"$tmp/varnel.txt"

  best_scale=$(min "$(ffmpeg_seconds 1280x720 720 -vf scale=1280:720)" "$best_scale")
  for p in "${presets[@]}"; do
    name=${p%%|*}
    s=$(ffmpeg_seconds 1280x720 720 -vf "scale=1280:720,${p#*|}")
    best_ffmpeg[$name]=$(min "$s" "${best_ffmpeg[$name]:-}")
  done
  best_decode=$(min "$(ffmpeg_seconds 1920x1080 1080)" "$best_decode")
  s=$(ffmpeg_seconds 1920x1080 1080 -i "$tmp/watermark.png" -filter_complex "$chain")
  best_ffmpeg[chain]=$(min "$s" "${best_ffmpeg[chain]:-}")
done

echo "input: $in, first $frames pictures, ms per picture, fastest of $rounds rounds"
echo "ffmpeg: its run less a run without the filter on the decoded pictures (1280x720: $(
  awk -v s="$best_scale" -v n="$frames" 'BEGIN { printf "%.2f", s * 1000 / n }') ms;"\
  "1920x1080: $(awk -v s="$best_decode" -v n="$frames" 'BEGIN { printf "%.2f", s * 1000 / n }') ms)"
{
  printf "%-14s %10s %10s %8s  %s\n" "preset" "varnel" "ffmpeg" "ratio" "ffmpeg filter"
  for p in "${presets[@]}"; do
    name=${p%%|*}
    printf "%s\t%s\t%s\t%s\n" "$name" "${best_varnel[$name]}" \
      "$(awk -v a="${best_ffmpeg[$name]}" -v b="$best_scale" -v n="$frames" \
        'BEGIN { printf "%.2f", (a - b) * 1000 / n }')" "${p#*|}"
  done | awk -F'\t' '{
    ratio = ($3 > 0.05) ? sprintf("%.2f", $2 / $3) : "-"
    f = $4; if (length(f) > 60) f = substr(f, 1, 57) "..."
    printf "%-14s %10.2f %10.2f %8s  %s\n", $1, $2, $3, ratio, f }'
  awk -v v="${best_varnel[chain]}" -v a="${best_ffmpeg[chain]}" -v b="$best_decode" -v n="$frames" \
    'BEGIN { f = (a - b) * 1000 / n
             printf "%-14s %10.2f %10.2f %8s  %s\n", "full chain", v, f,
               (f > 0.05) ? sprintf("%.2f", v / f) : "-",
               "crop,rotate,hflip,scale+pad,eq,hue,colorchannelmixer,eq,overlay" }'
}
echo "varnel with no effect (8-bit in, 8-bit out): ${best_varnel[plain]} ms per picture"
echo "(a ratio of -: FFmpeg's cost is under 0.05 ms a picture, below what the timing resolves)"

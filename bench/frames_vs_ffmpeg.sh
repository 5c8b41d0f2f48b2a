#!/usr/bin/env bash
# Frame exactness of `varnel frame`: for each fixture below, N pseudo-random
# times T inside the video's span (whole milliseconds, the same on every run:
# a fixed seed), the picture `varnel frame INPUT -t T -o x.png` writes is
# compared by RGB PSNR with
#   - the frame that covers T, the one shown at T: the last frame of
#     ffprobe's frame list starting at or before T (frame times are the best
#     effort timestamps less the format's start time, as -t and -ss count
#     them). FFmpeg writes these frames from one decode of the whole file
#     that keeps the frames with their timestamps, not by seeking to their
#     start: its seeks in program and transport streams land between
#     keyframes and give a later picture (on mpeg2_mp2.mpg, `-ss` to a frame's
#     start floored to the microsecond gives the wrong frame);
#   - what `ffmpeg -ss T -i INPUT -frames:v 1` gives (its accurate seek: the
#     first frame starting at or after T, when the seek works).
# A PSNR of 40 dB or more counts as the same picture (neighbouring frames of
# the test pattern are 10 to 25 dB apart). Also times one `varnel frame`
# process per T against one `ffmpeg -ss T` process per T, run one after the
# other, both writing a PNG at the video's size: mean wall time per picture
# and the ratio. The first column is frame exactness; the goal is N/N.
#
# About 5 minutes for N=50 on 2 cores.
#
#   bench/frames_vs_ffmpeg.sh [BUILD_DIR] [N]
set -euo pipefail
cd "$(dirname "$0")/.."
build=${1:-build}
count=${2:-50}
varnel="$build/varnel"
fixtures=${VARNEL_FIXTURES:-$build/fixtures}
seed=20240611
same_db=40
if [[ ! -x $varnel ]]; then
  echo "frames_vs_ffmpeg: no $varnel (build varnel-cli first)" >&2
  exit 2
fi
VARNEL_FIXTURES_LONG=1 bash tests/fixtures/make_fixtures.sh "$fixtures" >/dev/null
files=(h264_aac.mp4 h264_2997.mp4 vfr.mkv mpeg2_mp2.mpg mpeg2_24p.ts h264_2997.ts
  wmv2_wmav2.wmv long_1080p.mp4)
tmp=$(mktemp -d)
trap 'rm -rf "$tmp"' EXIT

now_ns() { date +%s%N; }
ff() { ffmpeg -hide_banner -loglevel error -nostdin -y "$@"; }
seconds() { awk -v us="$1" 'BEGIN { printf "%.6f", us / 1e6 }'; }

# A grey picture of the given WxH, standing in for a picture a tool did not
# write, so that the sequences compared stay aligned.
placeholder() { ff -f lavfi -i "color=c=gray:s=$1" -frames:v 1 "$2"; }

# The per-picture RGB PSNR of two numbered PNG sequences of N pictures, one
# line each ("inf" for identical pictures). The first is scaled to the
# second's size when they differ.
psnr() {
  local a=$1 b=$2 size=$3
  ff -i "$a" -i "$b" -lavfi \
    "[0:v]scale=${size/x/:}:flags=bicubic,format=gbrp[a];[1:v]format=gbrp[b];[a][b]psnr=stats_file=$tmp/psnr.log" \
    -f null -
  sed -n 's/.*psnr_avg:\([^ ]*\).*/\1/p' "$tmp/psnr.log"
}

size_of() { ffprobe -v error -select_streams v:0 -show_entries stream=width,height -of csv=s=x:p=0 "$1"; }

printf '%-16s %9s %11s %6s  %11s %11s %6s\n' "file" "covering" "ffmpeg -ss" "failed" \
  "varnel ms" "ffmpeg ms" "ratio"
notes=()
for name in "${files[@]}"; do
  in="$fixtures/$name"
  if [[ ! -f $in ]]; then
    notes+=("$name: no such fixture, skipped")
    continue
  fi
  d="$tmp/$name"
  mkdir -p "$d"

  # The frame list, in microseconds from the format's start: exact integers
  # from the timestamps and the stream's time base.
  # (A transport stream lists its streams twice, once under its program.)
  tb=$(ffprobe -v error -select_streams v:0 -show_entries stream=time_base -of csv=p=0 "$in" |
    awk 'NR == 1')
  start=$(ffprobe -v error -show_entries format=start_time -of csv=p=0 "$in")
  [[ $start == N/A ]] && start=0
  ffprobe -v error -select_streams v:0 -show_entries frame=best_effort_timestamp,pkt_duration \
    -of csv=p=0 "$in" |
    awk -F, -v tb="$tb" -v start="$start" '
      BEGIN { split(tb, q, "/"); s = sprintf("%.0f", start * 1e6) }
      $1 ~ /^-?[0-9]+$/ {
        us = int($1 * 1e6 * q[1] / q[2]); if (us > $1 * 1e6 * q[1] / q[2]) us--
        dur = ($2 ~ /^[0-9]+$/) ? int($2 * 1e6 * q[1] / q[2]) : 0
        print us - s, dur, $1
      }' | sort -n >"$d/frames"
  # The span: from the first frame's start to the end of the last (a frame
  # without a duration lasts as long as the one before it).
  read -r lo hi < <(awk '{ if (NR == 1) lo = $1; if ($2 > 0) last = $2; end = $1 + ($2 > 0 ? $2 : last) }
    END { print lo, end }' "$d/frames")

  # N times in whole milliseconds inside [lo, hi), from a 31-bit LCG.
  x=$seed
  times=()
  covers=()
  cover_pts=()
  lo_ms=$(((lo + 999) / 1000))
  span_ms=$(((hi - 1) / 1000 - lo_ms + 1))
  for ((i = 0; i < count; i++)); do
    x=$(((x * 1103515245 + 12345) & 0x7fffffff))
    t_us=$(((lo_ms + x % span_ms) * 1000))
    times+=("$(seconds "$t_us")")
    read -r c_us c_pts < <(awk -v t="$t_us" '$1 <= t { c = $1; p = $3 } END { print c, p }' "$d/frames")
    covers+=("$(seconds "$c_us")")
    cover_pts+=("$c_pts")
  done

  failed=0
  start_ns=$(now_ns)
  for ((i = 0; i < count; i++)); do
    f=$(printf '%s/v_%03d.png' "$d" "$i")
    "$varnel" frame "$in" -t "${times[i]}" -o "$f" >/dev/null 2>"$d/v_$i.err" || true
  done
  varnel_ns=$(($(now_ns) - start_ns))
  start_ns=$(now_ns)
  for ((i = 0; i < count; i++)); do
    ff -ss "${times[i]}" -i "$in" -frames:v 1 "$(printf '%s/a_%03d.png' "$d" "$i")" 2>/dev/null || true
  done
  ffmpeg_ns=$(($(now_ns) - start_ns))
  # The covering frames, untimed, from one decode of the whole file that
  # keeps the frames with those timestamps (a seek would do on an indexed
  # file, but FFmpeg's seeks in program and transport streams land between
  # keyframes and give later pictures).
  mapfile -t wanted < <(printf '%s\n' "${cover_pts[@]}" | sort -n -u)
  select=$(printf 'eq(pts,%s)+' "${wanted[@]}")
  ff -copyts -i "$in" -an -sn -map 0:v:0 -vf "select='${select%+}'" -fps_mode passthrough \
    -start_number 0 "$d/c_%03d.png"
  for ((i = 0; i < count; i++)); do
    for ((k = 0; k < ${#wanted[@]}; k++)); do
      if [[ ${wanted[k]} == "${cover_pts[i]}" ]]; then
        c=$(printf '%s/c_%03d.png' "$d" "$k")
        if [[ -s $c ]]; then
          cp "$c" "$(printf '%s/b_%03d.png' "$d" "$i")"
        fi
        break
      fi
    done
  done
  if [[ -e $(printf '%s/c_%03d.png' "$d" "${#wanted[@]}") ]]; then
    notes+=("$name: the decode kept more frames than were asked for: the covering frames are unsure")
  fi

  ref=$(find "$d" -name "b_*.png" -print -quit)
  if [[ -z $ref ]]; then
    notes+=("$name: ffmpeg gave no covering frame at all, skipped")
    continue
  fi
  size=$(size_of "$ref")
  vsize=$(find "$d" -name "v_*.png" -print -quit)
  if [[ -n $vsize && $(size_of "$vsize") != "$size" ]]; then
    notes+=("$name: varnel's picture is $(size_of "$vsize"), FFmpeg's $size: scaled to compare")
  fi
  for ((i = 0; i < count; i++)); do
    for k in v a b; do
      f=$(printf '%s/%s_%03d.png' "$d" "$k" "$i")
      if [[ ! -s $f ]]; then
        case $k in
          v)
            failed=$((failed + 1))
            notes+=("$name: varnel frame -t ${times[i]}: $(head -c 200 "$d/v_$i.err" | tr '\n' ' ')")
            ;;
          a) notes+=("$name: ffmpeg -ss ${times[i]} wrote no picture") ;;
          b) notes+=("$name: the frame starting at ${covers[i]} was not decoded") ;;
        esac
        placeholder "$size" "$f"
      fi
    done
  done
  mapfile -t to_covering < <(psnr "$d/v_%03d.png" "$d/b_%03d.png" "$size")
  mapfile -t to_ffmpeg < <(psnr "$d/v_%03d.png" "$d/a_%03d.png" "$size")
  same_covering=0
  same_ffmpeg=0
  misses=0
  for ((i = 0; i < count; i++)); do
    if awk -v p="${to_covering[i]}" -v m="$same_db" 'BEGIN { exit !(p == "inf" || p + 0 >= m) }'; then
      same_covering=$((same_covering + 1))
    elif ((misses < 5)) && [[ -s $(printf '%s/v_%03d.png' "$d" "$i") ]]; then
      misses=$((misses + 1))
      on=""
      [[ ${times[i]} == "${covers[i]}" ]] && on=", T is exactly its start"
      notes+=("$name: -t ${times[i]} misses the frame starting at ${covers[i]} (PSNR ${to_covering[i]} dB to it, ${to_ffmpeg[i]} dB to ffmpeg -ss T$on)")
    fi
    if awk -v p="${to_ffmpeg[i]}" -v m="$same_db" 'BEGIN { exit !(p == "inf" || p + 0 >= m) }'; then
      same_ffmpeg=$((same_ffmpeg + 1))
    fi
  done
  awk -v name="$name" -v c="$same_covering" -v a="$same_ffmpeg" -v n="$count" -v f="$failed" \
    -v v="$varnel_ns" -v m="$ffmpeg_ns" 'BEGIN {
      printf "%-16s %6d/%-2d %8d/%-2d %6d  %11.1f %11.1f %6.2f\n", name, c, n, a, n, f,
        v / n / 1e6, m / n / 1e6, v / m }'
done
echo "covering: varnel's picture is the frame shown at T (>= $same_db dB RGB PSNR); ffmpeg -ss: it"
echo "is what ffmpeg -ss T -frames:v 1 gives (the first frame starting at or after T);"
echo "ms: mean wall time of one process writing one PNG; ratio: varnel / ffmpeg."
for note in "${notes[@]}"; do
  echo "  $note"
done

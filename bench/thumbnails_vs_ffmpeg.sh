#!/usr/bin/env bash
# Thumbnails of the long 1080p fixture (60 s, 25 fps, a keyframe every 2 s)
# at ten times that are neither on a keyframe nor on a frame boundary, 160x90,
# one process per thumbnail for each tool:
#   varnel            `varnel thumbnail IN -t T -s 160x120 -o x.png` (fitted
#                     into the box: 160x90)
#   varnel, batch     the same ten in one process:
#                     `varnel thumbnail IN -t T1,T2,... -s 160x120 -o x-%d.png`
#   ffmpegthumbnailer `ffmpegthumbnailer -i IN -o x.png -s 160 -t HH:MM:SS`
#                     (it reads whole seconds only: T is floored). Installed
#                     with apt-get when missing and running as root; its
#                     column is left out with a note otherwise.
#   ffmpeg            `ffmpeg -ss T -i IN -frames:v 1 -vf scale=160:90 x.png`
# Wall time: each tool makes its ten thumbnails in turn; the fastest of
# ROUNDS rounds counts (the machine is shared); total, per thumbnail, and
# varnel's ratio to the others.
# Exactness: each thumbnail's RGB PSNR against five frames of the file
# scaled to 160x90 by ffmpeg (bicubic): the frame covering T (shown at T),
# the one before it, the next frame (the first starting after T), the
# keyframe at or before T and the one after T. A thumbnail counts as the
# frame it is nearest, when that one is at least 2 dB nearer than the
# others; a tool whose thumbnails are nearest a keyframe snaps to keyframes.
# ffmpeg's own thumbnails match their frame exactly (inf); varnel reduces in
# linear light, which on the pattern's hard colour edges keeps even the
# right frame near 24 dB from ffmpeg's reduction (neighbouring frames are
# 15 to 21 dB apart at this size), so only the nearest frame is meaningful
# for it. Frame starts and keyframes come from the packet list (the file is
# an indexed MP4 with constant frame rate); the reference frames are taken
# with `ffmpeg -ss START`, START floored to the microsecond.
#
# About two minutes on 2 cores (two rounds).
#
#   bench/thumbnails_vs_ffmpeg.sh [BUILD_DIR] [ROUNDS]
set -euo pipefail
cd "$(dirname "$0")/.."
build=${1:-build}
rounds=${2:-2}
varnel="$build/varnel"
fixtures=${VARNEL_FIXTURES:-$build/fixtures}
times=(3.3 9.1 15.7 22.9 27.5 33.1 38.7 45.3 51.9 57.5)
margin=2
if [[ ! -x $varnel ]]; then
  echo "thumbnails_vs_ffmpeg: no $varnel (build varnel-cli first)" >&2
  exit 2
fi
VARNEL_FIXTURES_LONG=1 bash tests/fixtures/make_fixtures.sh "$fixtures" >/dev/null
in="$fixtures/long_1080p.mp4"
if [[ ! -f $in ]]; then
  echo "thumbnails_vs_ffmpeg: no file $in" >&2
  exit 2
fi
tmp=$(mktemp -d)
trap 'rm -rf "$tmp"' EXIT

notes=()
if ! command -v ffmpegthumbnailer >/dev/null && [[ $(id -u) == 0 ]]; then
  echo "installing ffmpegthumbnailer ..." >&2
  { apt-get install -y ffmpegthumbnailer || { apt-get update && apt-get install -y ffmpegthumbnailer; }; } \
    >"$tmp/apt.log" 2>&1 || true
fi
have_ftn=0
if command -v ffmpegthumbnailer >/dev/null; then
  have_ftn=1
else
  notes+=("ffmpegthumbnailer: not installed and could not be installed (not root, or apt-get failed): column left out")
fi

ff() { ffmpeg -hide_banner -loglevel error -nostdin -y "$@"; }
now_ns() { date +%s%N; }
min() { echo "$1" "${2:-$1}" | awk '{print ($1 < $2) ? $1 : $2}'; }
hms() { awk -v t="$1" 'BEGIN { s = int(t); printf "%02d:%02d:%02d", s / 3600, s / 60 % 60, s % 60 }'; }

# The tools, each making thumbnail i at times[i] into $tmp/TOOL_i.png.
make_varnel() { "$varnel" thumbnail "$in" -t "$2" -s 160x120 -o "$tmp/varnel_$1.png"; }
make_ftn() { ffmpegthumbnailer -i "$in" -o "$tmp/ftn_$1.png" -s 160 -t "$(hms "$2")" >/dev/null; }
make_ffmpeg() { ff -ss "$2" -i "$in" -frames:v 1 -vf scale=160:90 "$tmp/ffmpeg_$1.png"; }
# All ten at once, on the first call of a round (numbered from 1 by varnel).
make_batch() {
  ((${1} == 0)) || return 0
  "$varnel" thumbnail "$in" -t "$(
    IFS=,
    echo "${times[*]}"
  )" -s 160x120 -o "$tmp/batch-%d.png"
  for j in "${!times[@]}"; do mv "$tmp/batch-$((j + 1)).png" "$tmp/batch_$j.png"; done
}
tools=(varnel batch ffmpeg)
if ((have_ftn)); then
  tools=(varnel batch ftn ffmpeg)
fi
declare -A label=([varnel]=varnel [batch]="varnel, batch" [ftn]=ffmpegthumbnailer [ffmpeg]="ffmpeg -ss")
declare -A make=([varnel]=make_varnel [batch]=make_batch [ftn]=make_ftn [ffmpeg]=make_ffmpeg)

declare -A best
for ((r = 0; r < rounds; r++)); do
  for tool in "${tools[@]}"; do
    start=$(now_ns)
    for i in "${!times[@]}"; do
      "${make[$tool]}" "$i" "${times[i]}" || notes+=("${label[$tool]}: no thumbnail at ${times[i]} s")
    done
    best[$tool]=$(min $(($(now_ns) - start)) "${best[$tool]:-}")
  done
done

# Frame starts and keyframes in microseconds, from the packets (display order
# once sorted).
tb=$(ffprobe -v error -select_streams v:0 -show_entries stream=time_base -of csv=p=0 "$in" |
  awk 'NR == 1')
ffprobe -v error -select_streams v:0 -show_entries packet=pts,flags -of csv=p=0 "$in" |
  awk -F, -v tb="$tb" 'BEGIN { split(tb, q, "/") }
    $1 ~ /^[0-9]+$/ { us = $1 * 1e6 * q[1] / q[2]; f = int(us); if (f > us) f--
                      print f, ($2 ~ /K/) ? 1 : 0 }' | sort -n >"$tmp/frames"
# For each time: the frame before the covering one, the covering frame, the
# next one, the keyframe at or before and the one after, as "i kind start".
for i in "${!times[@]}"; do
  awk -v t="${times[i]}" -v i="$i" '
    { s[NR] = $1; k[NR] = $2 }
    END {
      tu = t * 1e6
      for (n = 1; n <= NR; n++) {
        if (s[n] <= tu) { c = n; if (k[n]) kb = n } else if (!nx) nx = n
        if (s[n] > tu && k[n] && !ka) ka = n
      }
      printf "%d previous %d\n%d covering %d\n%d next %d\n", i, s[c - 1], i, s[c], i, s[nx]
      printf "%d keyframe-before %d\n", i, s[kb]
      if (ka) printf "%d keyframe-after %d\n", i, s[ka]
    }' "$tmp/frames"
done >"$tmp/refs"
# The reference pictures, ten seeks to a process.
mapfile -t lines <"$tmp/refs"
for ((j = 0; j < ${#lines[@]}; j += 10)); do
  args=()
  outs=()
  for ((k = j; k < ${#lines[@]} && k < j + 10; k++)); do
    read -r i kind us <<<"${lines[k]}"
    args+=(-ss "$(awk -v u="$us" 'BEGIN { printf "%.6f", u / 1e6 }')" -i "$in")
    outs+=(-map "$((k - j)):v:0" -frames:v 1 -vf scale=160:90 "$tmp/ref_${i}_$kind.png")
  done
  ff "${args[@]}" "${outs[@]}"
done

rgb_psnr() {
  ffmpeg -hide_banner -nostdin -i "$1" -i "$2" \
    -lavfi "[0:v]format=gbrp[a];[1:v]scale=160:90,format=gbrp[b];[a][b]psnr" -f null - 2>&1 |
    sed -n 's/.*average:\([^ ]*\).*/\1/p' | tail -1
}

echo "input: $in, ${#times[@]} thumbnails at ${times[*]} s, fastest of $rounds rounds"
printf '%-18s %9s %14s %8s %8s\n' "tool" "total s" "per thumb ms" "ratio" "batch"
for tool in "${tools[@]}"; do
  awk -v l="${label[$tool]}" -v t="${best[$tool]}" -v v="${best[varnel]}" -v b="${best[batch]}" \
    -v n="${#times[@]}" \
    'BEGIN { printf "%-18s %9.2f %14.1f %8.2f %8.2f\n", l, t / 1e9, t / n / 1e6, v / t, b / t }'
done
echo "(ratio: varnel's time, one process per thumbnail, over the tool's; batch: varnel's with"
echo " the ten in one process, over the tool's; ffmpegthumbnailer is given T floored to whole"
echo " seconds)"
echo
echo "exactness: the nearest of the covering frame (C), the one before it (P), the next"
echo "frame (N), the keyframe before (K-) or after (K+) T, with its RGB PSNR in dB (160x90,"
echo "scaled by ffmpeg); ? when no frame is $margin dB nearer than the others"
printf '%-18s' "time s"
printf ' %11s' "${times[@]}"
echo
for tool in "${tools[@]}"; do
  printf '%-18s' "${label[$tool]}"
  declare -A count=([P]=0 [C]=0 [N]=0 [KB]=0 [KA]=0 [U]=0)
  sum=0
  for i in "${!times[@]}"; do
    f="$tmp/${tool}_$i.png"
    if [[ ! -s $f ]]; then
      printf ' %11s' "none"
      count[U]=$((count[U] + 1))
      continue
    fi
    best_kind=none
    best_db=0
    second_db=0
    for kind in previous covering next keyframe-before keyframe-after; do
      ref="$tmp/ref_${i}_$kind.png"
      [[ -s $ref ]] || continue
      db=$(rgb_psnr "$f" "$ref")
      [[ $db == inf ]] && db=99
      [[ $kind == covering ]] && sum=$(awk -v a="$sum" -v b="$db" 'BEGIN { print a + b }')
      if awk -v a="$db" -v b="$best_db" 'BEGIN { exit !(a > b) }'; then
        second_db=$best_db
        best_db=$db
        best_kind=$kind
      elif awk -v a="$db" -v b="$second_db" 'BEGIN { exit !(a > b) }'; then
        second_db=$db
      fi
    done
    case $best_kind in
      previous) key=P short=P ;;
      covering) key=C short=C ;;
      next) key=N short=N ;;
      keyframe-before) key=KB short=K- ;;
      keyframe-after) key=KA short=K+ ;;
    esac
    if awk -v b="$best_db" -v s="$second_db" -v m="$margin" 'BEGIN { exit !(b < s + m) }'; then
      key=U short="?"
    fi
    count[$key]=$((count[$key] + 1))
    printf ' %11s' "$short $(awk -v b="$best_db" 'BEGIN { printf (b >= 99) ? "inf" : "%.1f", b }')"
  done
  echo
  snaps=$((count[KB] + count[KA]))
  printf '%-18s covering %d/%d, previous %d, next %d, keyframe %d (before %d, after %d), unclear %d;' \
    "" "${count[C]}" "${#times[@]}" "${count[P]}" "${count[N]}" "$snaps" "${count[KB]}" "${count[KA]}" \
    "${count[U]}"
  awk -v s="$sum" -v n="${#times[@]}" 'BEGIN { printf " mean PSNR to the covering frame %.1f dB\n", s / n }'
  if ((snaps * 2 > ${#times[@]})); then
    echo "                   -> snaps to a keyframe"
  fi
  unset count
done
for note in "${notes[@]}"; do
  echo "  $note"
done

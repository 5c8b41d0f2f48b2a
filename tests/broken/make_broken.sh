#!/usr/bin/env bash
# Makes the broken inputs into OUTDIR from the good media in FIXTURES (made by
# tests/fixtures/make_fixtures.sh); tests/broken/README.md describes every file.
#
#   make_broken.sh OUTDIR FIXTURES
#
# Everything is derived from the good files with dd, head and printf, and the random
# damage comes from bash's generator with a fixed seed, so every run makes the same bytes.
# Runs are cached: OUTDIR/.stamp holds a hash of this script and of FIXTURES/.stamp (the
# good media's own), and a run that finds it current does nothing. The folder is made
# under a temporary name and renamed when complete, so an interrupted run leaves no half.
set -euo pipefail

if [[ $# -lt 2 || -z $1 || -z $2 ]]; then
  echo "usage: $0 OUTDIR FIXTURES" >&2
  exit 2
fi
FIX=$(cd "$2" && pwd)
[[ -f $FIX/.stamp ]] || { echo "make_broken: no good media in $FIX (run make_fixtures.sh)" >&2; exit 1; }
mkdir -p "$(dirname "$1")"
OUT=$(cd "$(dirname "$1")" && pwd)/$(basename "$1")

hash=$({ cat "${BASH_SOURCE[0]}" "$FIX/.stamp"; } | sha1sum | cut -d' ' -f1)
if [[ -f $OUT/.stamp && $(<"$OUT/.stamp") == "$hash" ]]; then
  exit 0
fi

work=$OUT.part
rm -rf "$work"
mkdir -p "$work"
trap 'if [[ -d $work ]]; then chmod -R u+rwX "$work"; rm -rf "$work"; fi' EXIT

size() { stat -c %s "$1"; }

# byte FILE OFFSET: the unsigned value of one byte.
byte() { od -An -tu1 -j "$2" -N1 "$1" | tr -d ' '; }

# poke FILE OFFSET VALUE: one byte written in place.
poke() { printf "\\x$(printf %02x "$3")" | dd of="$1" bs=1 seek="$2" conv=notrunc status=none; }

# zero FILE OFFSET COUNT: COUNT bytes from OFFSET set to 0, in place.
zero() { dd if=/dev/zero of="$1" bs=1 seek="$2" count="$3" conv=notrunc status=none; }

# noise COUNT FILE: COUNT bytes from the seeded generator into FILE. Not in a pipeline:
# bash reseeds the generator in a subshell.
noise() {
  local i hex text=""
  for ((i = 0; i < $1; i++)); do
    printf -v hex %02x $((RANDOM & 255))
    text+=$hex
  done
  xxd -r -p <<<"$text" >"$2"
}

# cut NAME SOURCE PERCENT: the first PERCENT % of SOURCE.
cut_at() { head -c $(($(size "$2") * $3 / 100)) "$2" >"$work/$1"; }

# flips NAME SOURCE FROM TO COUNT: SOURCE with COUNT single bits flipped at offsets drawn
# between FROM and TO (the packet data), the first 64 bytes of the file never touched.
flips() {
  local name=$1 from=$3 to=$4 i at value
  cp "$2" "$work/$name"
  for ((i = 0; i < $5; i++)); do
    at=$((from + (RANDOM * 32768 + RANDOM) % (to - from)))
    value=$(byte "$work/$name" "$at")
    poke "$work/$name" "$at" $((value ^ (1 << (RANDOM % 8))))
  done
}

# mp4_box FILE TYPE: "OFFSET SIZE" of the top-level box TYPE.
mp4_box() {
  local file=$1 at=0 total head boxsize
  total=$(size "$file")
  while ((at + 8 <= total)); do
    head=$(od -An -tx1 -j "$at" -N8 "$file" | tr -d ' \n')
    boxsize=$((16#${head:0:8}))
    if [[ ${head:8:8} == "$(printf %s "$2" | od -An -tx1 | tr -d ' \n')" ]]; then
      echo "$at $boxsize"
      return 0
    fi
    ((boxsize >= 8)) || return 1
    at=$((at + boxsize))
  done
  return 1
}

RANDOM=15  # the seed of every piece of random damage below

# Every container cut at 1, 10, 50 and 90 % of its bytes.
for source in h264_aac.mp4 multitrack.mkv h264_2997.ts mpeg2_mp2.mpg wmv2_wmav2.wmv \
  rv20_ac3.rm aac.m4a mp3_cover.mp3 ac3_51.ac3 dvd.iso; do
  [[ -f $FIX/$source ]] || { echo "make_broken: $source missing; its cuts left out" >&2; continue; }
  for percent in 1 10 50 90; do
    cut_at "cut${percent}_$source" "$FIX/$source" "$percent"
  done
done

# An MP4 whose index is there but zeroed, size and type kept: the box holds nothing.
read -r at boxsize < <(mp4_box "$FIX/h264_aac.mp4" moov)
cp "$FIX/h264_aac.mp4" "$work/moov_zeroed.mp4"
zero "$work/moov_zeroed.mp4" $((at + 8)) $((boxsize - 8))

# A Matroska file whose cues (the seek index, at its end) are zeroed after their ID and
# size: the file plays, only seeking cannot use the index.
at=$(LC_ALL=C grep -obUaP '\x1c\x53\xbb\x6b' "$FIX/multitrack.mkv" | tail -1 | cut -d: -f1)
first=$(byte "$FIX/multitrack.mkv" $((at + 4)))
length=1
for ((mask = 128; mask > 0 && (first & mask) == 0; mask >>= 1)); do length=$((length + 1)); done
cp "$FIX/multitrack.mkv" "$work/cues_zeroed.mkv"
zero "$work/cues_zeroed.mkv" $((at + 4 + length)) $(($(size "$FIX/multitrack.mkv") - at - 4 - length))

# Headers overwritten with noise: the MP4's file type box and the start of its media data,
# Matroska's EBML header, the ASF header object.
for source in h264_aac.mp4 multitrack.mkv wmv2_wmav2.wmv; do
  cp "$FIX/$source" "$work/header_$source"
  noise 64 "$work/noise"
  dd if="$work/noise" of="$work/header_$source" conv=notrunc status=none
done

# Bit flips in the packet data: in an MP4 between its media data's header and its index,
# in the others after their first 4 KiB.
read -r at boxsize < <(mp4_box "$FIX/h264_aac.mp4" mdat)
flips flips_h264_aac.mp4 "$FIX/h264_aac.mp4" $((at + 16)) $((at + boxsize)) 200
for source in multitrack.mkv h264_2997.ts mpeg2_mp2.mpg; do
  flips "flips_$source" "$FIX/$source" 4096 $(($(size "$FIX/$source") - 4096)) 200
done

# 64 KiB of noise before the file.
for source in h264_aac.mp4 h264_2997.ts mp3_cover.mp3; do
  noise 65536 "$work/noise"
  cat "$work/noise" "$FIX/$source" >"$work/prefix_$source"
done
rm "$work/noise"

# An MP4 with its index at the front that ends 100 bytes into its first frame: the index
# says 10 s, nothing can be decoded.
ffmpeg -hide_banner -loglevel error -nostdin -y -i "$FIX/h264_aac.mp4" -c copy \
  -movflags +faststart "$work/faststart.mp4"
read -r at boxsize < <(mp4_box "$work/faststart.mp4" mdat)
head -c $((at + 16 + 100)) "$work/faststart.mp4" >"$work/first_frame.mp4"
rm "$work/faststart.mp4"
# A transport stream cut inside its first video frame: its first 40 packets of 188 bytes.
head -c $((188 * 40)) "$FIX/h264_2997.ts" >"$work/first_frame.ts"

# A subtitle file with bytes that are not UTF-8 and absurd times: a negative start, an end
# before its start, a cue a thousand hours in, one with an hour count past 32 bits, and a
# good cue among them.
{
  printf '1\n-00:00:01,000 --> 00:00:02,000\nNegative \xff\xfe start\n\n'
  printf '2\n00:00:05,000 --> 00:00:03,000\nEnds before \xc3\x28 it starts\n\n'
  printf '3\n00:00:01,000 --> 00:00:09,000\nA good cue \xe2\x82 cut short\n\n'
  printf '4\n1000:00:00,000 --> 1000:00:01,000\nA thousand hours\n\n'
  printf '5\n99999999999:00:00,000 --> 99999999999:00:01,000\nPast 32 bits\n\n'
} >"$work/bad.srt"

# Not a media file at all: nothing, a folder, a file without read permission. (The named
# pipe is made by the test in its own folder: one here would stall any tool that reads
# every file of the media folder.)
: >"$work/zero.mp4"
mkdir "$work/folder.mp4"
cp "$FIX/h264_aac.mp4" "$work/unreadable.mp4"
chmod 000 "$work/unreadable.mp4"

echo "$hash" >"$work/.stamp"
if [[ -d $OUT ]]; then
  chmod -R u+rwX "$OUT"
  rm -rf "$OUT"
fi
mv "$work" "$OUT"

#!/usr/bin/env bash
# Makes the built-in sample clip: 10 s of a moving test pattern with a
# 440 Hz tone (English) and a 660 Hz tone (French), H.264 + AAC in MP4.
set -euo pipefail
out=${1:?usage: make-sample.sh OUTPUT.mp4}
[ -s "$out" ] && exit 0
mkdir -p "$(dirname "$out")"
ffmpeg -hide_banner -loglevel error -y \
  -f lavfi -i "testsrc2=size=640x360:rate=25:duration=10" \
  -f lavfi -i "sine=frequency=440:sample_rate=44100:duration=10" \
  -f lavfi -i "sine=frequency=660:sample_rate=48000:duration=10" \
  -map 0:v -map 1:a -map 2:a -c:v libx264 -preset veryfast -pix_fmt yuv420p -g 50 \
  -c:a aac -b:a 128k -metadata:s:a:0 language=eng -metadata:s:a:1 language=fre \
  "$out.part.mp4"
mv "$out.part.mp4" "$out"

#!/usr/bin/env bash
# Installs, builds, makes the built-in sample clip and runs varnel on it.
set -euo pipefail
cd "$(dirname "$0")/.."
bash scripts/install-deps.sh
cmake -S . -B build -G Ninja >/dev/null
cmake --build build -j "$(nproc)" --target varnel-cli

demo=build/demo
bash scripts/make-sample.sh "$demo/sample.mp4"
echo "== varnel info $demo/sample.mp4"
build/varnel info "$demo/sample.mp4"
echo
echo "== varnel convert $demo/sample.mp4 $demo/sample-converted.mkv --size 320x180 --vcodec mpeg4 --acodec mp3"
build/varnel convert "$demo/sample.mp4" "$demo/sample-converted.mkv" --size 320x180 \
  --vcodec mpeg4 --acodec mp3
echo
echo "== varnel info $demo/sample-converted.mkv"
build/varnel info "$demo/sample-converted.mkv" | tee "$demo/sample-converted-info.txt"
echo
echo "== varnel effects --sheet $demo/sample.mp4 -t 4 -o $demo/sample-effects.png"
build/varnel effects --sheet "$demo/sample.mp4" -t 4 -o "$demo/sample-effects.png"
echo
echo "== varnel frame $demo/sample.mp4 -t 4.5 --size 640x360 --rotate 8 --hflip --effect 1970 -o $demo/sample-frame.png"
build/varnel frame "$demo/sample.mp4" -t 4.5 --size 640x360 --rotate 8 --hflip --effect 1970 \
  -o "$demo/sample-frame.png"
echo
echo "== varnel thumbnail $demo/sample.mp4 --sheet --count 6 -o $demo/sample-thumbnails.png"
build/varnel thumbnail "$demo/sample.mp4" --sheet --count 6 -o "$demo/sample-thumbnails.png"
echo
echo "Results: $demo/sample-converted.mkv (both audio tracks mixed into one),"
echo "         $demo/sample-converted-info.txt, $demo/sample-effects.png (the picture at 4 s"
echo "         under every effect preset), $demo/sample-frame.png (the picture at 4.5 s,"
echo "         turned, mirrored, in the 1970 look), $demo/sample-thumbnails.png (a storyboard);"
echo "         the sample itself is $demo/sample.mp4"

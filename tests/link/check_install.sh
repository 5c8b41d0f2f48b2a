#!/usr/bin/env bash
# Installs the built library into a scratch prefix and builds a small program
# against it twice: once with pkg-config, once with find_package(varnel); then
# builds the convert-and-play example with pkg-config and runs it on a fixture.
#
#   check_install.sh BUILD_DIR WORK_DIR FIXTURES_DIR
set -euo pipefail
build=$1
work=$2
fixtures=$3
here=$(cd "$(dirname "$0")" && pwd)
rm -rf "$work"
mkdir -p "$work"
cmake --install "$build" --prefix "$work/prefix" >/dev/null

# The installed program runs without LD_LIBRARY_PATH, with the installed
# library, and still does once the whole tree has moved.
for prefix in "$work/prefix" "$work/moved"; do
  [ "$prefix" = "$work/moved" ] && cp -a "$work/prefix" "$work/moved"
  version=$(env -u LD_LIBRARY_PATH "$prefix/bin/varnel" --version)
  echo "installed program: $version"
  [[ $version == varnel* ]]
  # A command loads the installed commands, which use the installed library.
  env -u LD_LIBRARY_PATH "$prefix/bin/varnel" info "$fixtures/h264_aac.mp4" | grep -q "h264"
  commands=$(find "$prefix" -name libvarnel-commands.so)
  # Read ldd's whole answer first: grep -q stopping early would fail the pipe.
  libs=$(env -u LD_LIBRARY_PATH ldd "$commands")
  grep -q "libvarnel.so.* => $prefix/" <<<"$libs"
done
rm -rf "$work/moved"

# The libraries a short command never needs are loaded on first use, not
# linked: the library names none of them.
needed=$(readelf -d "$(find "$work/prefix" -name 'libvarnel.so.*' -type f | head -1)")
for lazy in libvips libavfilter libSDL2 libdvdread libass libicui18n; do
  if grep -q "NEEDED.*\[$lazy" <<<"$needed"; then
    echo "the library links $lazy, which it should load on first use" >&2
    exit 1
  fi
done

export PKG_CONFIG_PATH="$work/prefix/lib/pkgconfig:$work/prefix/lib/x86_64-linux-gnu/pkgconfig"
libdir=$(pkg-config --variable=libdir varnel)
# shellcheck disable=SC2046
g++ -std=c++20 "$here/app.cpp" -o "$work/app-pkgconfig" $(pkg-config --cflags --libs varnel) \
  -Wl,-rpath,"$libdir"
out=$("$work/app-pkgconfig")
echo "pkg-config: $out"
[ "$out" = "German 1 4 44100" ]

cmake -S "$here" -B "$work/cmake-build" -G Ninja -DCMAKE_PREFIX_PATH="$work/prefix" \
  -DCMAKE_BUILD_RPATH="$libdir" >/dev/null
cmake --build "$work/cmake-build" >/dev/null
out=$("$work/cmake-build/consumer")
echo "find_package: $out"
[ "$out" = "German 1 4 44100" ]

# The example converts two seconds of a fixture and plays the result on SDL's
# file-writing audio driver: the progress reaches 100 % and the clock moves
# the pictures on.
# shellcheck disable=SC2046
g++ -std=c++20 "$here/../../examples/convert_and_play.cpp" -o "$work/convert_and_play" \
  $(pkg-config --cflags --libs varnel) -Wl,-rpath,"$libdir"
out=$(cd "$work" && SDL_AUDIODRIVER=disk SDL_DISKAUDIOFILE="$work/played.raw" \
  "$work/convert_and_play" "$fixtures/h264_aac.mp4" "$work/converted.mp4" 2)
echo "example: $(grep -c '%' <<<"$out") progress lines, $(grep -c '^tick' <<<"$out") ticks"
grep -q '^100.0 %  50 frames' <<<"$out"
last=$(grep '^tick 20' <<<"$out" | awk '{print $NF}')
[ "$last" -gt 10 ]

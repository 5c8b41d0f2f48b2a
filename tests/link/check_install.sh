#!/usr/bin/env bash
# Installs the built library into a scratch prefix and builds a small program
# against it twice: once with pkg-config, once with find_package(varnel).
set -euo pipefail
build=$1
work=$2
here=$(cd "$(dirname "$0")" && pwd)
rm -rf "$work"
mkdir -p "$work"
cmake --install "$build" --prefix "$work/prefix" >/dev/null

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

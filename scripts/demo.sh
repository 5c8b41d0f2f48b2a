#!/usr/bin/env bash
# Installs, builds, makes the built-in sample clip and runs varnel on it.
set -euo pipefail
cd "$(dirname "$0")/.."
bash scripts/install-deps.sh
cmake -S . -B build -G Ninja >/dev/null
cmake --build build -j "$(nproc)"

demo=build/demo
bash scripts/make-sample.sh "$demo/sample.mp4"
echo "== varnel info $demo/sample.mp4"
build/varnel info "$demo/sample.mp4" | tee "$demo/sample-info.txt"
build/varnel info --json "$demo/sample.mp4" > "$demo/sample-info.json"
echo
echo "Results: $demo/sample-info.txt and $demo/sample-info.json (sample: $demo/sample.mp4)"

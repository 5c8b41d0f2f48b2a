#!/usr/bin/env bash
# varnel convert next to the FFmpeg command line where nothing is re-encoded
# or only the sound is: the 60 s 1080p H.264 + AAC clip remuxed into Matroska
# (packets copied), and its sound alone into an .m4a (AAC again). hyperfine
# times RUNS runs of each after a warm-up; prints the median wall times and
# the ratios varnel / ffmpeg.
#
#   bench/remux_vs_ffmpeg.sh [BUILD_DIR] [RUNS]    defaults: build 10
set -euo pipefail
cd "$(dirname "$0")/.."
build=${1:-build}
runs=${2:-10}
varnel="$build/varnel"
if [[ ! -x $varnel ]]; then
  echo "remux_vs_ffmpeg: no $varnel (build first)" >&2
  exit 2
fi
if ! command -v hyperfine >/dev/null; then
  if [[ $(id -u) != 0 ]]; then
    echo "remux_vs_ffmpeg: hyperfine is missing (apt-get install hyperfine)" >&2
    exit 2
  fi
  apt-get install -y -qq hyperfine >/dev/null 2>&1 ||
    { apt-get update -qq && apt-get install -y -qq hyperfine >/dev/null; }
fi
fixtures=${VARNEL_FIXTURES:-$build/fixtures}
VARNEL_FIXTURES_LONG=1 bash tests/fixtures/make_fixtures.sh "$fixtures" >/dev/null
in="$fixtures/long_1080p.mp4"
out=$(mktemp -d)
trap 'rm -rf "$out"' EXIT

# compare NAME VARNEL_ARGS FFMPEG_ARGS EXT: hyperfine's runs of the pair, into $out/NAME.json;
# its notes on outliers are kept out of the report, its errors are not.
compare() {
  hyperfine --style none --warmup 1 --runs "$runs" --export-json "$out/$1.json" \
    --prepare "rm -f '$out/$1.varnel.$4' '$out/$1.ffmpeg.$4'" \
    -n varnel "'$varnel' convert '$in' '$out/$1.varnel.$4' $2" \
    -n ffmpeg "ffmpeg -hide_banner -loglevel error -nostdin -y -i '$in' $3 '$out/$1.ffmpeg.$4'" \
    >/dev/null 2>"$out/$1.log" || { cat "$out/$1.log" >&2; exit 1; }
}

compare remux "--vcodec copy --acodec copy" "-c copy" mkv
compare audio "" "-vn -c:a aac" m4a

echo "input: $in (60 s, 1920x1080 H.264 + AAC), median of $runs runs after one warm-up"
python3 - "$out" <<'PY'
import json, sys
labels = {"remux": "remux to .mkv (packets copied)", "audio": "sound alone to .m4a (AAC)"}
for name, label in labels.items():
    results = {r["command"]: r["median"] for r in json.load(open(f"{sys.argv[1]}/{name}.json"))["results"]}
    v, f = results["varnel"], results["ffmpeg"]
    print(f"{label:32s} varnel {v:7.3f} s   ffmpeg {f:7.3f} s   ratio {v / f:.2f}")
PY

#!/usr/bin/env bash
# One-shot commands, one whole process each, next to the tool people run
# instead for the same job on the same input (the long 1080p fixture: 60 s,
# H.264 with a keyframe every 2 s, AAC):
#   frame      `varnel frame IN -t 12.3 -o f.png`      `ffmpeg -ss 12.3 -i IN -frames:v 1 f.png`
#   thumbnail  `varnel thumbnail IN -s 256x144 -o t.png`
#                                                       `ffmpegthumbnailer -i IN -s 256 -o t.png`
#              (both at their default time, 10 % into the movie)
#   info       `varnel info --json IN`                  `ffprobe -show_streams -show_format IN`
#   version    `varnel --version`                       `ffmpeg -version`
# Median wall time of RUNS runs after one warm-up each (hyperfine), and the
# ratio varnel / the other tool. The pairs run one after the other.
#
#   bench/oneshot_vs_tools.sh [BUILD_DIR] [RUNS]
set -euo pipefail
cd "$(dirname "$0")/.."
build=${1:-build}
runs=${2:-10}
varnel="$build/varnel"
if [[ ! -x $varnel ]]; then
  echo "oneshot_vs_tools: no $varnel (build first)" >&2
  exit 2
fi
need=()
command -v hyperfine >/dev/null || need+=(hyperfine)
command -v ffmpegthumbnailer >/dev/null || need+=(ffmpegthumbnailer)
if [[ ${#need[@]} -gt 0 ]]; then
  if [[ $(id -u) != 0 ]]; then
    echo "oneshot_vs_tools: missing ${need[*]} (apt-get install ${need[*]})" >&2
    exit 2
  fi
  apt-get install -y -qq "${need[@]}" >/dev/null 2>&1 ||
    { apt-get update -qq && apt-get install -y -qq "${need[@]}" >/dev/null; }
fi
fixtures=${VARNEL_FIXTURES:-$build/fixtures}
VARNEL_FIXTURES_LONG=1 bash tests/fixtures/make_fixtures.sh "$fixtures" >/dev/null
in="$fixtures/long_1080p.mp4"
out=$(mktemp -d)
trap 'rm -rf "$out"' EXIT

# compare NAME VARNEL_COMMAND OTHER_COMMAND: hyperfine's runs of the pair into
# $out/NAME.json; its notes on outliers are kept out of the report, its
# errors are not.
compare() {
  hyperfine --style none -N --warmup 1 --runs "$runs" --export-json "$out/$1.json" \
    -n varnel "$2" -n other "$3" >/dev/null 2>"$out/$1.log" || { cat "$out/$1.log" >&2; exit 1; }
}

compare frame "$varnel frame $in -t 12.3 -o $out/f.png" \
  "ffmpeg -hide_banner -loglevel error -nostdin -y -ss 12.3 -i $in -frames:v 1 $out/f2.png"
compare thumbnail "$varnel thumbnail $in -s 256x144 -o $out/t.png" \
  "ffmpegthumbnailer -i $in -s 256 -o $out/t2.png"
compare info "$varnel info --json $in" "ffprobe -loglevel error -show_streams -show_format $in"
compare version "$varnel --version" "ffmpeg -version"

echo "input: $in, median of $runs whole processes after one warm-up"
python3 - "$out" <<'PY'
import json, sys
rows = [("frame", "frame at 12.3 s, 1080p PNG", "ffmpeg -ss"),
        ("thumbnail", "thumbnail 256x144 PNG", "ffmpegthumbnailer"),
        ("info", "info --json", "ffprobe"),
        ("version", "--version", "ffmpeg -version")]
for name, label, other in rows:
    r = {x["command"]: x["median"] * 1000 for x in json.load(open(f"{sys.argv[1]}/{name}.json"))["results"]}
    v, o = r["varnel"], r["other"]
    print(f"{label:28s} varnel {v:7.1f} ms   {other:18s} {o:7.1f} ms   ratio {v / o:.2f}")
PY

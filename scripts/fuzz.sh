#!/usr/bin/env bash
# Builds the fuzz targets with clang (libFuzzer, ASan, UBSan) in build-fuzz,
# replays every kept regression input, then fuzzes each target in turn.
#
#   scripts/fuzz.sh [SECONDS]    each target runs SECONDS (default 60)
#
# Exits non-zero on any crash, leak, undefined behaviour or hang (one input
# running longer than 10 s). Findings are written to build-fuzz/findings/;
# the corpora grow in build-fuzz/corpus/ from run to run. Fixtures come
# from VARNEL_FIXTURES_DIR, else build/fixtures (made when missing).
# VARNEL_FUZZ_SEED fixes libFuzzer's random seed, so that a run from the same
# corpus tries the same inputs (the CI stage does).
set -euo pipefail
cd "$(dirname "$0")/.."
root=$PWD
seconds=${1:-60}
[[ $seconds =~ ^[0-9]+$ ]] || { echo "usage: $0 [SECONDS]" >&2; exit 2; }

bash scripts/install-deps.sh
if ! command -v clang++ >/dev/null ||
   ! dpkg-query -W -f='${Status}' libfuzzer-14-dev 2>/dev/null | grep -q 'install ok installed'; then
  sudo_cmd=()
  [ "$(id -u)" -ne 0 ] && sudo_cmd=(sudo)
  echo "fuzz: installing clang libfuzzer-14-dev" >&2
  export DEBIAN_FRONTEND=noninteractive
  "${sudo_cmd[@]}" apt-get update -qq
  "${sudo_cmd[@]}" apt-get install -y -qq --no-install-recommends clang libfuzzer-14-dev >/dev/null
fi

build="$root/build-fuzz"
fixtures=${VARNEL_FIXTURES_DIR:-$root/build/fixtures}
targets=(media subtitle dvd)
# VARNEL_FUZZ_TARGETS limits the fuzzing (not the regression replay) to some
# of them, e.g. "media subtitle".
read -r -a fuzzed <<<"${VARNEL_FUZZ_TARGETS:-${targets[*]}}"

echo "== fuzz: build (clang, libFuzzer + ASan + UBSan)"
start=$SECONDS
# -O1 and line tables only: a quick build that still runs fast and names
# every line of a report.
CC=clang CXX=clang++ cmake -S . -B "$build" -G Ninja -DVARNEL_WERROR=ON -DVARNEL_FUZZ=ON \
  -DVARNEL_FIXTURES_DIR="$fixtures" -DCMAKE_BUILD_TYPE=RelWithDebInfo \
  "-DCMAKE_C_FLAGS_RELWITHDEBINFO=-O1 -gline-tables-only" \
  "-DCMAKE_CXX_FLAGS_RELWITHDEBINFO=-O1 -gline-tables-only" >/dev/null
cmake --build "$build" -j "$(nproc)"
echo "== fuzz: built in $((SECONDS - start)) s"

bash tests/fixtures/make_fixtures.sh "$fixtures"

# Seeds: the start of every media fixture, whole subtitle files (the first
# byte picks the extension the target writes: 0 .srt, 1 .ass), and the IFOs
# and a little of the first VOB of each fixture disc folder.
seeds="$build/seeds"
rm -rf "$seeds"
mkdir -p "$seeds"/{media,subtitle,dvd}
for f in "$fixtures"/*.{mp4,m4a,mkv,ts,mpg,mp3,ac3,rm,wmv}; do
  [ -s "$f" ] && head -c 49152 "$f" >"$seeds/media/$(basename "$f")"
done
for f in "$fixtures"/*.srt "$fixtures"/*.ass; do
  case $f in *.ass) first='\001' ;; *) first='\000' ;; esac
  { printf "$first"; cat "$f"; } >"$seeds/subtitle/$(basename "$f")"
done
for disc in "$fixtures"/dvd_*/; do
  ts="$disc/VIDEO_TS"
  [ -f "$ts/VIDEO_TS.IFO" ] && [ -f "$ts/VTS_01_0.IFO" ] || continue
  python3 - "$ts" "$seeds/dvd/$(basename "$disc")" <<'EOF'
import os, struct, sys
ts, out = sys.argv[1:]
manager = open(f"{ts}/VIDEO_TS.IFO", "rb").read()
title_set = open(f"{ts}/VTS_01_0.IFO", "rb").read()
vob = f"{ts}/VTS_01_1.VOB"
vob = open(vob, "rb").read(32768) if os.path.exists(vob) else b""
with open(out, "wb") as f:
    f.write(struct.pack("<HH", len(manager), len(title_set)) + manager + title_set + vob)
EOF
done

export SDL_AUDIODRIVER=dummy LC_ALL=C.UTF-8
export VARNEL_FUZZ_VIDEO="$fixtures/cues_clip.mp4"
# System libraries keep some allocations for the life of the process.
export LSAN_OPTIONS="suppressions=$root/tests/sanitizers/lsan.supp:print_suppressions=0"
# An allocation the allocator cannot make fails as it does outside the
# sanitizer (a null pointer) instead of ending the run; one above 2560 MB
# still ends it (-malloc_limit_mb).
export ASAN_OPTIONS="detect_leaks=1:abort_on_error=0:allocator_may_return_null=1"
export UBSAN_OPTIONS="print_stacktrace=1:halt_on_error=1"

max_len() {
  case $1 in subtitle) echo 16384 ;; *) echo 65536 ;; esac
}

echo "== fuzz: regression inputs"
for t in "${targets[@]}"; do
  inputs=("$root/fuzz/regressions/$t"/*)
  [ -e "${inputs[0]}" ] || continue
  echo "-- $t: ${#inputs[@]} inputs"
  "$build/fuzz/varnel_fuzz_$t" -timeout=10 -rss_limit_mb=2560 -malloc_limit_mb=2560 "${inputs[@]}" \
    >"$build/regressions-$t.log" 2>&1 || {
    tail -n 60 "$build/regressions-$t.log"
    echo "fuzz: a regression input of $t fails again (log: $build/regressions-$t.log)" >&2
    exit 1
  }
done

summary=()
status=0
for t in "${fuzzed[@]}"; do
  echo "== fuzz: $t for $seconds s"
  corpus="$build/corpus/$t" findings="$build/findings/$t"
  mkdir -p "$corpus" "$findings"
  log="$build/fuzz-$t.log"
  # One process, one input at a time: the machine may be shared.
  if ! "$build/fuzz/varnel_fuzz_$t" "$corpus" "$seeds/$t" \
      -max_total_time="$seconds" -timeout=10 -rss_limit_mb=2560 -malloc_limit_mb=2560 \
      -max_len="$(max_len "$t")" ${VARNEL_FUZZ_SEED:+-seed="$VARNEL_FUZZ_SEED"} \
      -artifact_prefix="$findings/" -print_final_stats=1 >"$log" 2>&1; then
    tail -n 80 "$log"
    status=1
    echo "fuzz: $t found a fault (log: $log, inputs: $findings)" >&2
  fi
  runs=$(sed -n 's/^stat::number_of_executed_units: *//p' "$log" | tail -n 1)
  summary+=("$t: ${runs:-?} executions, corpus $(ls "$corpus" | wc -l) inputs")
done

echo "== fuzz: summary"
printf '%s\n' "${summary[@]}"
exit $status

#!/usr/bin/env bash
# How many single-line bugs the fast tests catch.
#
# Each mutation of scripts/mutations.txt is made in the working tree, the
# library is rebuilt in its own build directory (build-mutation), the fast
# tests are run, and the file is put back with `git checkout`. A mutant is
# killed when a test fails, crashes or hangs; it survives when they all pass.
# Mutants whose line is no longer found ("gone") or that do not build are not
# counted.
#
#   scripts/mutate.sh [--only 3,7,12] [--out FILE] [--libs DIR [--build-only | --wait]]
#                                                    run the mutations
#   scripts/mutate.sh --check                        only find every line
#   scripts/mutate.sh --compare BEFORE AFTER         mutants BEFORE killed and AFTER did not
#   scripts/mutate.sh --table RESULTS...             the table of one or more result files
#
# --libs DIR keeps each mutant's library in DIR/Mnn; a later run with the
# same DIR and the same library sources (other tests, say) runs its tests on
# those libraries instead of building the mutants again. With --libs, the
# building and the testing can go side by side: one run with --build-only
# makes the libraries, another with --wait tests each as soon as it is made:
#
#   scripts/mutate.sh --libs build-mutation/mutants --build-only &
#   scripts/mutate.sh --libs build-mutation/mutants --wait --out before.tsv
#
# Environment: VARNEL_FIXTURES_DIR (default build/fixtures), MUTATION_BUILD
# (default build-mutation), MUTATION_TIMEOUT (seconds a run of the tests may
# take before the mutant counts as hung; default three times the clean run).
set -euo pipefail

# The fast tests: every test of the gtest binary except these, matched as
# "FILE:Suite.Test" (FILE relative to the repository, glob patterns): the
# real-time and window tests, and the ones that take more than a few seconds
# (the whole-file conversions and picture sheets of the command-line tests,
# the seek that visits every frame of every sample).
SKIP_TESTS=(
  '*:PlayCommandTest.*' '*:PlayWindowTest.*' '*:MoviePlaybackTest.*' '*:PlaybackDeviceTest.*'
  'tests/play_test.cpp:*' 'tests/play_window_test.cpp:*' 'src/movie/movie_playback_test.cpp:*'
  'tests/frame_test.cpp:*' '*:FrameTest.*'
  '*:ConvertTest.RoundTrips*' '*:DvdCliTest.Converted*' '*:DvdCliTest.Frames*'
  '*:DvdCliTest.BadDiscs*' '*:EffectsCommandTest.Sheet*' '*:EffectsCommandTest.Apply*'
  '*:EffectsCommandTest.Failures*' '*:MediaReadingTest.SeekLandsOnTheFrameThatCoversTheTime'
  '*:HostileCliTest.*' '*:TruncatedTest.*' '*BrokenInputTest.EveryCommand*'
  '*:InfoTest.AgreesWithFfprobe*' '*:SubtitleCliTest.BadSettings*' '*:SubtitleTest.BitmapTracks*'
  '*:SubtitleTest.OutlineShadow*'
)

ROOT=$(git -C "$(dirname "$0")" rev-parse --show-toplevel)
LIST=$ROOT/scripts/mutations.txt
BUILD=${MUTATION_BUILD:-$ROOT/build-mutation}
FIXTURES=${VARNEL_FIXTURES_DIR:-$ROOT/build/fixtures}
export CCACHE_BASEDIR=${CCACHE_BASEDIR:-$(dirname "$ROOT")}
# The build directory's own path stays out of the cache keys, so that the
# files a mutation leaves alone come from the cache.
export CCACHE_NOHASHDIR=1
export SDL_AUDIODRIVER=disk LC_ALL=C.UTF-8

die() {
  echo "mutate: $*" >&2
  exit 2
}

# ---- the list --------------------------------------------------------------------
FILES=() FROMS=() TOS=() WHATS=()
trim() {
  local s=$1
  s=${s#"${s%%[![:space:]]*}"}
  printf '%s' "${s%"${s##*[![:space:]]}"}"
}
read_list() {
  local line
  while IFS= read -r line || [[ -n $line ]]; do
    case $line in
      '@ '*)
        FILES+=("$(trim "${line#@ }" | sed 's/ *|.*//')")
        WHATS+=("$(trim "${line#*|}")")
        ;;
      '- '*) FROMS+=("$(trim "${line#- }")") ;;
      '+'*) TOS+=("$(trim "${line#+}")") ;;
    esac
  done <"$LIST"
  [[ ${#FILES[@]} -eq ${#FROMS[@]} && ${#FILES[@]} -eq ${#TOS[@]} ]] ||
    die "$LIST: every @ needs one - and one + line"
}

# Writes FILE with the one line whose text is FROM replaced by TO (same
# indentation) and prints its number; fails when the text is not there once.
apply() {
  local file=$1 from=$2 to=$3 tmp
  tmp=$(mktemp)
  if ! FROM=$from TO=$to awk '
      function trim(s) { sub(/^[ \t]+/, "", s); sub(/[ \t]+$/, "", s); return s }
      { line[NR] = $0; if (trim($0) == ENVIRON["FROM"]) { n++; at = NR } }
      END {
        if (n != 1) exit 3
        for (i = 1; i <= NR; i++) {
          if (i == at) {
            match(line[i], /^[ \t]*/)
            print (ENVIRON["TO"] == "" ? "" : substr(line[i], 1, RLENGTH) ENVIRON["TO"])
          } else {
            print line[i]
          }
        }
        print at > "/dev/stderr"
      }' "$ROOT/$file" >"$tmp" 2>"$tmp.line"; then
    rm -f "$tmp" "$tmp.line"
    return 1
  fi
  cat "$tmp" >"$ROOT/$file"
  cat "$tmp.line"
  rm -f "$tmp" "$tmp.line"
}

line_of() {
  FROM=$2 awk 'function trim(s) { sub(/^[ \t]+/, "", s); sub(/[ \t]+$/, "", s); return s }
    trim($0) == ENVIRON["FROM"] { n++; at = NR } END { if (n == 1) print at }' "$ROOT/$1"
}

# ---- compare two runs --------------------------------------------------------------
if [[ ${1:-} == --compare ]]; then
  [[ $# -eq 3 ]] || die "usage: $0 --compare BEFORE AFTER"
  # Columns: id status file line what from to killer seconds
  awk -F'\t' '
    FNR == NR { if ($2 == "killed") { killer[$1] = $8; row[$1] = $0 } next }
    ($1 in killer) && $2 == "survived" {
      split(row[$1], b, "\t")
      printf "%s  %s:%s  %s\n    - %s\n    + %s\n    killed before by: %s\n", $1, $3, $4, $5, $6, $7, killer[$1]
      n++
    }
    END { printf "%d mutant(s) killed before and not after\n", n }' "$2" "$3"
  exit 0
fi

# ---- the table of one or more result files ----------------------------------------
table() {
  awk -F'\t' '
    { printf "%-4s %-9s %-48s %s%s\n", $1, $2, $3 ":" $4, $5, $8 == "" ? "" : "  [" $8 "]" }
    $2 == "killed" { k++ } $2 == "survived" { s++ } $2 == "gone" { g++ } $2 == "no-build" { b++ }
    END {
      printf "\nkilled %d of %d counted mutants (%d gone, %d did not build): kill rate %.1f%%\n",
        k, k + s, g, b, k + s ? 100 * k / (k + s) : 0
    }' "$@"
}
if [[ ${1:-} == --table ]]; then
  shift
  [[ $# -gt 0 ]] || die "usage: $0 --table RESULTS..."
  sort -t$'\t' -k1,1 "$@" | table /dev/stdin
  exit 0
fi

ONLY="" OUT="" CHECK=0 LIBS="" BUILD_ONLY=0 WAIT=0
while [[ $# -gt 0 ]]; do
  case $1 in
    --only) ONLY=",$2," && shift ;;
    --out) OUT=$2 && shift ;;
    --libs) LIBS=$(realpath -m "$2") && shift ;;
    --check) CHECK=1 ;;
    --build-only) BUILD_ONLY=1 ;;
    --wait) WAIT=1 ;;
    *) die "unknown argument $1" ;;
  esac
  shift
done

read_list
[[ $BUILD_ONLY -eq 0 && $WAIT -eq 0 || -n $LIBS ]] || die "--build-only and --wait need --libs"
if [[ $CHECK -eq 1 ]]; then
  bad=0
  for i in "${!FILES[@]}"; do
    at=$(line_of "${FILES[$i]}" "${FROMS[$i]}")
    printf 'M%02d  %-45s %s\n' $((i + 1)) "${FILES[$i]}:${at:-GONE}" "${WHATS[$i]}"
    [[ -n $at ]] || bad=$((bad + 1))
  done
  echo "${#FILES[@]} mutations, $bad gone"
  exit 0
fi

WORK=$(mktemp -d "${TMPDIR:-/tmp}/mutate.XXXXXX")
mkdir -p "$WORK/logs"
OUT=${OUT:-$WORK/results.tsv}
: >"$OUT"
BIN=$BUILD/tests/varnel_tests

# Kept libraries are used only while the library's sources (as committed)
# are what they were.
if [[ -n $LIBS && $WAIT -eq 0 ]]; then
  # Tests and their helpers are no part of the library.
  sources=$(git -C "$ROOT" ls-files -s src | grep -v 'test' | sha1sum | cut -d' ' -f1)
  if [[ -f $LIBS/sources && $(cat "$LIBS/sources") != "$sources" ]]; then
    echo "the library sources changed since $LIBS was made: building the mutants again"
    rm -rf "$LIBS"
  fi
  mkdir -p "$LIBS" && echo "$sources" >"$LIBS/sources"
fi

# Put back whatever is mutated, however the script ends.
CURRENT=""
restore() {
  if [[ -n $CURRENT ]]; then
    git -C "$ROOT" checkout -- "$CURRENT"
    CURRENT=""
  fi
}
trap restore EXIT
trap 'exit 130' INT TERM

# ---- the clean build and the fast tests ---------------------------------------------------
if [[ $WAIT -eq 0 ]]; then
  for f in $(printf '%s\n' "${FILES[@]}" | sort -u); do
    git -C "$ROOT" diff --quiet -- "$f" || die "$f has changes of its own; commit or stash them first"
  done
  if [[ ! -f $BUILD/build.ninja ]]; then
    cmake -S "$ROOT" -B "$BUILD" -G Ninja -DVARNEL_WERROR=ON -DVARNEL_BUILD_BENCH=OFF \
      -DVARNEL_FIXTURES_DIR="$FIXTURES" -DCMAKE_CXX_COMPILER_LAUNCHER=ccache \
      -DCMAKE_C_COMPILER_LAUNCHER=ccache >"$WORK/configure.log" ||
      die "configure failed: $WORK/configure.log"
  fi
  echo "building the clean tree in $BUILD"
  cmake --build "$BUILD" -j2 --target varnel_tests varnel-cli >"$WORK/build.log" 2>&1 ||
    die "the clean tree does not build: $WORK/build.log"
fi
# The clean library, which the build directory holds only between mutants.
CLEAN=${LIBS:+$LIBS/clean}
if [[ $WAIT -eq 1 ]]; then
  for ((waited = 0; waited < 3600; waited += 5)); do [[ -f $CLEAN/status ]] && break; sleep 5; done
  [[ -f $CLEAN/status ]] || die "no clean library in $CLEAN"
fi
SONAME=$(readelf -d "$BIN" | sed -n 's/.*NEEDED.*\[\(libvarnel[^]]*\)\].*/\1/p')
# Copies the built library into a directory: under another name first, then
# moved over, so that a run with the old one loaded keeps reading it.
keep_library() {
  mkdir -p "$1" && cp -L "$BUILD/$SONAME" "$1/$SONAME.new" && mv -f "$1/$SONAME.new" "$1/$SONAME"
}
if [[ -n $LIBS && $WAIT -eq 0 ]]; then
  keep_library "$CLEAN" && echo built >"$CLEAN/status"
fi

# Runs the tests named in a file (FILE:Suite.Test lines), stopping at the
# first failure; the output goes to $2. Returns the tests' status.
run_tests() {
  local names=$1 log=$2 limit=$3 libs=$4 filter
  filter=$(sed 's/^[^:]*://' "$names" | paste -sd: -)
  [[ -n $filter ]] || return 0
  # The test binary and the command-line tool find a kept library first.
  (cd "$WORK" && LD_LIBRARY_PATH=$libs${LD_LIBRARY_PATH:+:$LD_LIBRARY_PATH} \
    timeout -k 10 "$limit" "$BIN" --gtest_fail_fast --gtest_filter="$filter" \
    --gtest_color=no >"$log" 2>&1)
}

# The fast tests, and how long they take on the clean tree; tests that fail
# there are left out.
prepare_tests() {
  # Every test with its source file, as "FILE:Suite.Test".
  LD_LIBRARY_PATH=$CLEAN "$BIN" --gtest_list_tests --gtest_output="json:$WORK/tests.json" >/dev/null
  # The files are named as the compiler was given them, from the build directory.
  python3 - "$WORK/tests.json" "$ROOT" "$BUILD" >"$WORK/all.txt" <<'EOF'
import json, os, sys
root, build = sys.argv[2], sys.argv[3]
for suite in json.load(open(sys.argv[1]))["testsuites"]:
    for test in suite["testsuite"]:
        path = os.path.realpath(os.path.join(build, test.get("file", "")))
        print(f"{os.path.relpath(path, root)}:{suite['name']}.{test['name']}")
EOF
  : >"$WORK/fast.txt"
  while IFS= read -r key; do
    for pattern in "${SKIP_TESTS[@]}"; do
      # shellcheck disable=SC2053  # a glob on purpose
      [[ $key == $pattern ]] && continue 2
    done
    echo "$key" >>"$WORK/fast.txt"
  done <"$WORK/all.txt"

  # The clean run: tests that fail without any mutation are left out.
  echo "running the $(wc -l <"$WORK/fast.txt") fast tests on the clean tree"
  start=$SECONDS
  (cd "$WORK" && LD_LIBRARY_PATH=$CLEAN "$BIN" --gtest_filter="$(sed 's/^[^:]*://' "$WORK/fast.txt" | paste -sd: -)" \
    --gtest_color=no >"$WORK/clean.log" 2>&1) || true
  CLEAN_SECONDS=$((SECONDS - start))
  grep -E '^\[  FAILED  \] [^ ]+ \([0-9]+ ms\)' "$WORK/clean.log" | awk '{print $4}' | sort -u \
    >"$WORK/failing.txt" || true
  if [[ -s $WORK/failing.txt ]]; then
    echo "left out, failing on the clean tree:" && sed 's/^/  /' "$WORK/failing.txt"
    awk 'FNR == NR { bad[$0] = 1; next } !(substr($0, index($0, ":") + 1) in bad)' \
      "$WORK/failing.txt" "$WORK/fast.txt" >"$WORK/fast.tmp"
    mv "$WORK/fast.tmp" "$WORK/fast.txt"
  fi
  LIMIT=${MUTATION_TIMEOUT:-$((3 * CLEAN_SECONDS + 30))}
  echo "clean run: ${CLEAN_SECONDS}s; a mutant's run is stopped after ${LIMIT}s"
}
[[ $BUILD_ONLY -eq 1 ]] || prepare_tests

# ---- the mutants -----------------------------------------------------------------------
killed=0 survived=0 gone=0 nobuild=0
printf '%-4s %-9s %-48s %s\n' ID RESULT WHERE MUTATION
for i in "${!FILES[@]}"; do
  id=$(printf 'M%02d' $((i + 1)))
  [[ -z $ONLY || $ONLY == *",$((i + 1)),"* ]] || continue
  file=${FILES[$i]} from=${FROMS[$i]} to=${TOS[$i]} what=${WHATS[$i]}
  start=$SECONDS
  status="" killer="" at=""
  kept=${LIBS:+$LIBS/$id}
  if [[ $WAIT -eq 1 ]]; then
    # Another run builds it.
    for ((waited = 0; waited < 3600; waited += 5)); do [[ -f $kept/status ]] && break; sleep 5; done
  fi
  if [[ $WAIT -eq 1 && ! -f $kept/status ]]; then
    status=gone # never built
  elif [[ -n $kept && -f $kept/status ]]; then
    # Made by an earlier run: its line, and whether it was found and built.
    at=$(cat "$kept/line")
    status=$(cat "$kept/status")
  else
    CURRENT=$file
    if ! at=$(apply "$file" "$from" "$to"); then
      status=gone
    # The library alone: the programs that load it stay as they are while
    # another run tests.
    elif ! cmake --build "$BUILD" -j2 --target "$SONAME" >"$WORK/logs/$id.build" 2>&1; then
      status=no-build
    else
      status=built
    fi
    restore
    if [[ -n $kept ]]; then
      mkdir -p "$kept"
      [[ $status == built ]] && keep_library "$kept"
      echo "$at" >"$kept/line"
      echo "$status" >"$kept/status"
    fi
  fi
  if [[ $BUILD_ONLY -eq 1 ]]; then
    printf '%-4s %-9s %s\n' "$id" "$status" "$file:${at:-}"
    continue
  elif [[ $status == built ]]; then
    # The tests of the mutated folder first: they kill most mutants soonest.
    folder=$(dirname "$file")/
    awk -v p="$folder" 'index($0, p) == 1' "$WORK/fast.txt" >"$WORK/near.txt"
    awk -v p="$folder" 'index($0, p) != 1' "$WORK/fast.txt" >"$WORK/far.txt"
    status=survived
    for group in near far; do
      rc=0
      run_tests "$WORK/$group.txt" "$WORK/logs/$id.$group" "$LIMIT" "${kept:-}" || rc=$?
      [[ $rc -eq 0 ]] && continue
      status=killed
      killer=$(grep -m1 -o '^\[  FAILED  \] [^ ]*' "$WORK/logs/$id.$group" | awk '{print $4}' || true)
      if [[ -z $killer ]]; then
        last=$(grep -o '^\[ RUN      \] [^ ]*' "$WORK/logs/$id.$group" | tail -1 | awk '{print $4}')
        if [[ $rc -eq 124 || $rc -eq 137 ]]; then
          killer="hung in ${last:-?}"
        else
          killer="crashed in ${last:-?} (status $rc)"
        fi
      fi
      break
    done
  fi
  case $status in
    killed) killed=$((killed + 1)) ;;
    survived) survived=$((survived + 1)) ;;
    gone) gone=$((gone + 1)) ;;
    no-build) nobuild=$((nobuild + 1)) ;;
  esac
  seconds=$((SECONDS - start))
  printf '%s\t%s\t%s\t%s\t%s\t%s\t%s\t%s\t%s\n' "$id" "$status" "$file" "${at:-}" "$what" \
    "$from" "$to" "$killer" "$seconds" >>"$OUT"
  printf '%-4s %-9s %-48s %s%s\n' "$id" "$status" "$file:${at:-}" "$what" \
    "${killer:+  [$killer]}"
done

[[ $BUILD_ONLY -eq 1 ]] && exit 0
counted=$((killed + survived))
echo
echo "killed $killed of $counted counted mutants ($gone gone, $nobuild did not build):" \
  "kill rate $(awk -v k=$killed -v n=$counted 'BEGIN { printf "%.1f%%", n ? 100 * k / n : 0 }')"
echo "results: $OUT; logs: $WORK/logs"
# The library is left as the clean tree builds it.
[[ $WAIT -eq 1 ]] || cmake --build "$BUILD" -j2 --target "$SONAME" >/dev/null 2>&1 || true

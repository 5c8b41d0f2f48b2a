#!/usr/bin/env bash
# `varnel play` with its window against `ffplay` on the same clip, on a virtual display
# (Xvfb), the sound going to SDL's disk driver: CPU share (user + system time over wall
# time) for SECONDS of playing at 1.0 and at 2.0 speed; for varnel also the pictures shown
# and skipped and how far the shown picture's time stood from the audio clock when it was
# shown (its trace, VARNEL_PLAY_TRACE).
#
#   bench/play_vs_ffplay.sh [BUILD] [SECONDS] [FILE]
#
# FILE defaults to the long 1080p fixture (VARNEL_FIXTURES_LONG=1 make_fixtures.sh).
set -euo pipefail
cd "$(dirname "$0")/.."
build=${1:-build}
seconds=${2:-20}
fixtures=${VARNEL_FIXTURES:-$build/fixtures}
file=${3:-$fixtures/long_1080p.mp4}
varnel=$build/varnel
[[ -f $file ]] || { echo "no $file (make it with VARNEL_FIXTURES_LONG=1)" >&2; exit 1; }
command -v Xvfb >/dev/null || { echo "Xvfb not installed" >&2; exit 1; }

work=$(mktemp -d)
display=:$((200 + $$ % 300))
Xvfb "$display" -screen 0 1920x1080x24 -nolisten tcp >/dev/null 2>&1 &
xvfb=$!
trap 'kill $xvfb 2>/dev/null; rm -rf "$work"' EXIT
for _ in $(seq 100); do [[ -S /tmp/.X11-unix/X${display#:} ]] && break; sleep 0.05; done
export DISPLAY=$display SDL_AUDIODRIVER=disk SDL_DISKAUDIOFILE=$work/out.raw

# cpu COMMAND...: runs it, prints "wall cpu share" from GNU time.
cpu() {
  /usr/bin/time -f "%e %U %S" -o "$work/time" "$@" >/dev/null 2>&1 || true
  read -r wall user sys <"$work/time"
  echo "$wall $(echo "$user + $sys" | bc) $(echo "scale=2; ($user + $sys) / $wall" | bc)"
}

printf '%-8s %-6s %8s %8s %6s %7s %7s %9s %9s\n' program speed wall_s cpu_s share shown skipped avg_ms worst_ms
for speed in 1.0 2.0; do
  # Plays until SECONDS of wall time have passed, then q.
  result=$( (sleep "$seconds"; echo q) |
    VARNEL_PLAY_TRACE=$work/trace cpu "$varnel" play "$file" --speed "$speed")
  read -r wall cpus share <<<"$result"
  stats=$(awk '$2 == "shown" { d = $5 - $4; if (d < 0) d = -d; s += d; n++; if (d > m) m = d }
               $2 == "skipped" { k++ }
               END { printf "%d %d %.2f %.2f", n, k, n ? s / n * 1000 : 0, m * 1000 }' "$work/trace")
  read -r shown skipped avg worst <<<"$stats"
  printf '%-8s %-6s %8s %8s %6s %7s %7s %9s %9s\n' varnel "$speed" "$wall" "$cpus" "$share" \
    "$shown" "$skipped" "$avg" "$worst"

  # ffplay plays the same stretch of the file at the same speed.
  filters=()
  [[ $speed != 1.0 ]] && filters=(-vf "setpts=PTS/$speed" -af "atempo=$speed")
  result=$(cpu timeout "$((seconds + 5))" ffplay -v error -nostats -autoexit \
    -t "$(echo "$seconds * $speed" | bc)" "${filters[@]}" "$file")
  read -r wall cpus share <<<"$result"
  printf '%-8s %-6s %8s %8s %6s %7s %7s %9s %9s\n' ffplay "$speed" "$wall" "$cpus" "$share" - - - -
done

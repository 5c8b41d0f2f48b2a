#!/usr/bin/env bash
# Prints the public headers of libvarnel, one a line, relative to src/:
# varnel.h and every header of the tree it includes, directly or not.
set -euo pipefail
cd "$(dirname "$0")/../src"
declare -A seen
walk() {
  local h=$1 inc
  [ -n "${seen[$h]:-}" ] && return
  seen[$h]=1
  echo "$h"
  for inc in $(sed -n 's/^#include "\([^"]*\)".*/\1/p' "$h"); do
    [ -f "$inc" ] && walk "$inc"
  done
  return 0
}
walk varnel.h | sort

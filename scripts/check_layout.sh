#!/usr/bin/env bash
# Holds the tree to its layout:
#  - a folder of src/ includes only itself and the folders its CMakeLists.txt
#    names in DEPENDS, each of which comes before it in VARNEL_FOLDERS;
#  - the installed headers (VARNEL_PUBLIC_HEADERS) are varnel.h and what it
#    includes, and none of them includes a dependency's private header;
#  - tools/, examples/ and bench/ include only "varnel.h" of the library
#    (a bench of internals says "bench of internals" in its first lines).
# Prints every breach and fails when there is one.
set -euo pipefail
cd "$(dirname "$0")/.."
bad=0
breach() { echo "layout: $*" >&2; bad=1; }

read -r -a order <<<"$(sed -n 's/^set(VARNEL_FOLDERS \(.*\))$/\1/p' CMakeLists.txt)"
[ ${#order[@]} -gt 0 ] || breach "no VARNEL_FOLDERS in CMakeLists.txt"
declare -A rank
for i in "${!order[@]}"; do rank[${order[$i]}]=$i; done
for dir in src/*/; do
  folder=$(basename "$dir")
  [ -n "${rank[$folder]:-}" ] || breach "src/$folder is not in VARNEL_FOLDERS"
done

for folder in "${order[@]}"; do
  cml=src/$folder/CMakeLists.txt
  [ -f "$cml" ] || { breach "$cml is missing"; continue; }
  deps=$(tr '\n' ' ' <"$cml" | sed -n 's/.*varnel_module(\([^)]*\)).*/\1/p' |
    sed 's/ LINK .*//; s/^[a-z_]* *//; s/^DEPENDS *//')
  declare -A allowed=([$folder]=1)
  for dep in $deps; do
    [ -n "${rank[$dep]:-}" ] || { breach "$cml: unknown folder $dep"; continue; }
    [ "${rank[$dep]}" -lt "${rank[$folder]}" ] || breach "$cml: $dep does not come before $folder"
    allowed[$dep]=1
  done
  while IFS=: read -r file _ inc; do
    target=$(sed -n 's/.*#include "\([a-z_]*\)\/.*/\1/p' <<<"$inc")
    [ -z "$target" ] && continue
    case $file in *_test.cpp) [ -n "${rank[$target]:-}" ] && continue ;; esac
    [ -n "${allowed[$target]:-}" ] || breach "$file includes $target/, not in its DEPENDS"
  done < <(grep -Hn '^#include "' src/"$folder"/*.h src/"$folder"/*.cpp 2>/dev/null || true)
  unset allowed
done

listed=$(sed -n '/^set(VARNEL_PUBLIC_HEADERS/,/)/p' CMakeLists.txt | grep -v 'set(\|)' | tr -d ' ' | sort)
public=$(bash scripts/public_headers.sh)
[ "$listed" = "$public" ] ||
  breach "VARNEL_PUBLIC_HEADERS is not varnel.h and what it includes: $(diff <(echo "$listed") <(echo "$public") | grep '^[<>]' | tr '\n' ' ')"
for h in $public; do
  while read -r line; do
    breach "public header includes a private dependency: $line"
  done < <(grep -Hn '^#include <\(vips\|pango\|cairo\|ass\|SDL\|SoundTouch\|unicode\|dvdread\|libavfilter\|libswscale\)' "src/$h" || true)
done

for file in $(find tools examples bench -name '*.cpp' -o -name '*.h' 2>/dev/null | sort); do
  head -5 "$file" | grep -q 'bench of internals' && continue
  dir=$(dirname "$file")
  while IFS=: read -r line inc; do
    name=$(sed -n 's/.*#include "\([^"]*\)".*/\1/p' <<<"$inc")
    [ -f "$dir/$name" ] || [ "$name" = varnel.h ] || breach "$file:$line includes \"$name\", not public"
  done < <(grep -n '^#include "' "$file" || true)
  [[ $file == bench/* ]] && continue
  while read -r hit; do
    breach "$file:$hit: pictures are converted by the library"
  done < <(grep -n '^#include <libswscale/' "$file" || true)
done
exit $bad

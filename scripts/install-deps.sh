#!/usr/bin/env bash
# Installs every Debian package varnel builds, tests and benchmarks with.
# Idempotent: when everything is present it only checks and returns.
set -euo pipefail

packages=(
  build-essential cmake ninja-build pkg-config git clang-format
  libavformat-dev libavcodec-dev libavfilter-dev libavutil-dev
  libswresample-dev libswscale-dev ffmpeg
  libdvdread-dev dvdauthor genisoimage lsdvd
  libvips-dev libpng-dev libjpeg-dev
  libpango1.0-dev libcairo2-dev fonts-dejavu-core libass-dev
  libsdl2-dev libsoundtouch-dev xvfb
  libicu-dev
  libgtest-dev libgmock-dev libbenchmark-dev
  libcli11-dev nlohmann-json3-dev
  locales time bc
)

missing=()
for p in "${packages[@]}"; do
  if ! dpkg-query -W -f='${Status}' "$p" 2>/dev/null | grep -q 'install ok installed'; then
    missing+=("$p")
  fi
done

if [ ${#missing[@]} -gt 0 ]; then
  sudo_cmd=()
  [ "$(id -u)" -ne 0 ] && sudo_cmd=(sudo)
  echo "install-deps: installing ${missing[*]}" >&2
  export DEBIAN_FRONTEND=noninteractive
  "${sudo_cmd[@]}" apt-get update -qq
  "${sudo_cmd[@]}" apt-get install -y -qq --no-install-recommends "${missing[@]}" >/dev/null
fi

# The language-name tests switch to a French locale; make sure it exists.
if ! locale -a 2>/dev/null | grep -qi '^fr_FR\.utf8$'; then
  sudo_cmd=()
  [ "$(id -u)" -ne 0 ] && sudo_cmd=(sudo)
  if [ -f /etc/locale.gen ]; then
    "${sudo_cmd[@]}" sed -i -e 's/^# *\(fr_FR.UTF-8 UTF-8\)/\1/' -e 's/^# *\(en_US.UTF-8 UTF-8\)/\1/' /etc/locale.gen
    "${sudo_cmd[@]}" locale-gen >/dev/null 2>&1 || true
  fi
fi

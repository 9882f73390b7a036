#!/usr/bin/env bash
# Installs what kelpth needs to build, test and benchmark on Debian 12 (run as root), or
# the Debian packages named as arguments.
set -euo pipefail
packages=(cmake g++ make pkg-config libsqlite3-dev sqlite3 libgtest-dev googletest clang xxd hyperfine valgrind time
  dpkg-dev file debootstrap groff-base man-db)
(($#)) && packages=("$@")
missing=()
for p in "${packages[@]}"; do
  dpkg-query -W -f='${Status}' "$p" 2>/dev/null | grep -q 'install ok installed' || missing+=("$p")
done
if ((${#missing[@]})); then
  echo "installing: ${missing[*]}"
  export DEBIAN_FRONTEND=noninteractive
  apt-get update -qq
  apt-get install -y -qq --no-install-recommends "${missing[@]}"
fi

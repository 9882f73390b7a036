#!/usr/bin/env bash
# Builds the Debian package build/kelpth_<version>_amd64.deb (run as root on Debian 12:
# installs what is missing first). Its dependencies are found by dpkg-shlibdeps.
set -euo pipefail
cd "$(dirname "$0")/.."
bash scripts/deps.sh
cmake --preset default >/dev/null
cmake --build --preset default
(cd build && cpack -G DEB >/dev/null)
ls build/kelpth_*_amd64.deb

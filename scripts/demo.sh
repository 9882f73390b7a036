#!/usr/bin/env bash
# Builds kelpth and shows its main job on the simulated controller farm: write a test
# sector to a drive, read it back, and see a RAID 1 write land on both mirrors.
# With --installed it builds nothing and runs the kelpth and kelsim found on PATH, in the
# current folder, on the default state folder. Exits 1 when a step fails.
set -euo pipefail
if [[ ${1-} == --installed ]]; then
  kelpth=kelpth kelsim=kelsim demo=$PWD
else
  cd "$(dirname "$0")/.."
  bash scripts/deps.sh
  cmake --preset default >/dev/null
  cmake --build --preset default
  export KELSIM_DIR="${KELSIM_DIR:-$PWD/build/demo-farm}"
  kelpth=$PWD/build/kelpth kelsim=$PWD/build/kelsim demo=$PWD/build/demo
  mkdir -p "$demo" && cd "$demo"
fi
failed=0
run() { echo; echo "\$ $*"; "$@" || { echo "(exit status $?)"; failed=1; }; }
run "$kelsim" reset
run "$kelsim" show
run "$kelpth" PDOneSectorWrite 0 0 0x10
run "$kelpth" PDOneSectorRead 0 0 0x10
run "$kelpth" LDOneSectorWrite 0 0 0x20
run "$kelpth" PDOneSectorRead 0 1 0x20
run "$kelsim" journal
echo; echo "(trace log: $demo/kelpth.log; farm state: ${KELSIM_DIR:-the default state folder})"
exit "$failed"

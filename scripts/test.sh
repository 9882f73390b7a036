#!/usr/bin/env bash
# Builds kelpth twice (plain, and with AddressSanitizer and UndefinedBehaviorSanitizer)
# and runs every test against each build.
set -euo pipefail
cd "$(dirname "$0")/.."
bash scripts/deps.sh
for preset in default asan; do
  cmake --preset "$preset" >/dev/null
  cmake --build --preset "$preset"
  ctest --preset "$preset"
done

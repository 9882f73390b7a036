#!/usr/bin/env bash
# Runs every benchmark against the default build and prints their figures.
set -euo pipefail
here=$(cd "$(dirname "$0")" && pwd)
for bench in "$here"/*_bench.sh; do
  echo "== $(basename "$bench")"
  bash "$bench" "$@"
done

#!/usr/bin/env bash
# One-sector read: kelpth PDOneSectorRead on the simulated farm against the floor of the
# same job done by a minimal pipeline (read one 512-byte block from a file, hex-dump it).
# Prints median wall times, their ratio and kelpth's peak resident memory.
# Targets: at most 1.5x the floor; at most 8 MiB resident.
set -euo pipefail
build=${1:-$(cd "$(dirname "$0")/.." && pwd)/build}
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT
export KELSIM_DIR=$work/farm
cd "$work"
"$build/kelsim" reset >/dev/null
"$build/kelpth" PDOneSectorWrite 0 0 0x10 >/dev/null
head -c 1048576 /dev/urandom >disk.img

hyperfine --style none --warmup 5 --runs 60 --export-json times.json \
  -n kelpth "$build/kelpth PDOneSectorRead 0 0 0x10" \
  -n floor "dd if=disk.img bs=512 skip=16 count=1 status=none | od -A x -t x1z" >/dev/null
median() { python3 -c "import json,sys; r=[x for x in json.load(open('times.json'))['results'] if x['command']=='$1'][0]; print(r['median'])"; }
k=$(median kelpth)
f=$(median floor)
rss=$( { /usr/bin/time -f %M "$build/kelpth" PDOneSectorRead 0 0 0x10 >/dev/null; } 2>&1 | tail -n1)
python3 - "$k" "$f" "$rss" <<'PY'
import sys
k, f, rss = float(sys.argv[1]), float(sys.argv[2]), int(sys.argv[3])
ratio = k / f
print(f"PDOneSectorRead median {k*1000:.2f} ms; floor (dd | od) {f*1000:.2f} ms; ratio {ratio:.2f} (target <= 1.5): {'met' if ratio <= 1.5 else 'MISSED'}")
print(f"kelpth peak resident memory {rss} KiB (target <= 8192 KiB): {'met' if rss <= 8192 else 'MISSED'}")
PY

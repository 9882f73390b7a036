#!/usr/bin/env bash
# Diagnostics: the whole log-sense report (kelpth L, some twenty pass-through calls over
# the default farm) beside one whole PDOneSectorRead, and a firmware download (kelpth F,
# a 768 KiB image, a farm with one matching drive) beside dd writing the same image with
# an fsync. Prints median wall times and their ratios.
# Targets: L at most 2x one sector read; F at most 3x dd.
set -euo pipefail
build=${1:-$(cd "$(dirname "$0")/.." && pwd)/build}
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT
cd "$work"

export KELSIM_DIR=$work/farm
"$build/kelsim" reset >/dev/null
"$build/kelpth" PDOneSectorWrite 0 0 0x10 >/dev/null
calls_before=$("$build/kelsim" journal | wc -l)
"$build/kelpth" L >/dev/null
calls=$(($("$build/kelsim" journal | wc -l) - calls_before))
hyperfine -N --style none --warmup 3 --runs 30 --export-json report.json \
  -n report "$build/kelpth L" \
  -n sector "$build/kelpth PDOneSectorRead 0 0 0x10" >/dev/null

export KELSIM_DIR=$work/one-drive
mkdir -p "$KELSIM_DIR"
cat >"$KELSIM_DIR/farm.conf" <<'CONF'
controller 0
slot 0 sas vendor=SIMDISK product=MBA4SIM revision=0101 serial=MB0B0001 blocks=286749488
CONF
"$build/kelsim" image MBA4SIM 0202 image.bin >/dev/null
image_size=$(stat -c %s image.bin)
hyperfine -N --style none --warmup 2 --runs 15 --export-json download.json \
  -n download "$build/kelpth F image.bin" \
  -n dd "dd if=image.bin of=copy.bin bs=64k conv=fsync status=none" >/dev/null

median() { python3 -c "import json; r=[x for x in json.load(open('$1'))['results'] if x['command']=='$2'][0]; print(r['median'])"; }
python3 - "$(median report.json report)" "$(median report.json sector)" "$calls" \
  "$(median download.json download)" "$(median download.json dd)" "$image_size" <<'PY'
import sys
report, sector, calls = float(sys.argv[1]), float(sys.argv[2]), int(sys.argv[3])
download, dd, size = float(sys.argv[4]), float(sys.argv[5]), int(sys.argv[6])
r1, r2 = report / sector, download / dd
print(f"L median {report*1000:.2f} ms ({calls} pass-through calls); PDOneSectorRead {sector*1000:.2f} ms; "
      f"ratio {r1:.2f} (target <= 2): {'met' if r1 <= 2 else 'MISSED'}")
print(f"F median {download*1000:.2f} ms ({size} bytes to one drive); dd conv=fsync {dd*1000:.2f} ms; "
      f"ratio {r2:.2f} (target <= 3): {'met' if r2 <= 3 else 'MISSED'}")
PY

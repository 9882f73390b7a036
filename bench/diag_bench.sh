#!/usr/bin/env bash
# Diagnostics, timed like bench/run.sh: whole processes in alternating pairs
# (bench/pairtime.cpp), the median of the per-pair ratios.
#   report    the whole "kelpth L" over the default farm (some twenty pass-through calls)
#             / one whole "kelpth PDOneSectorRead"                          target <= 2
#   download  "kelpth F" with a 768 KiB image on a farm with one matching drive
#             / dd of the same image to a file with conv=fsync              target <= 3
# Usage: bench/diag_bench.sh [build folder]   (RUNS=40 by default)
# A missed target is reported, not an error.
set -euo pipefail
source "$(dirname "$0")/setup.sh" "diag bench" "${1:-}" dd

verdict() {
  python3 -c "import sys; print('met' if float(sys.argv[1]) <= float(sys.argv[2]) else 'NOT met')" "$1" "$2"
}

echo "== report: kelpth L over the default farm against one PDOneSectorRead"
# Two farms alike, one a side, so that neither side pays for the other's journal rows.
for farm in report sector; do
  KELSIM_DIR=$work/$farm "$kelsim" reset >/dev/null
  KELSIM_DIR=$work/$farm "$kelpth" PDOneSectorWrite 0 0 0x10 >/dev/null
  KELSIM_DIR=$work/$farm "$kelpth" L >/dev/null
done
before=$(KELSIM_DIR=$work/report "$kelsim" journal | wc -l)
KELSIM_DIR=$work/report "$kelpth" L >/dev/null
calls=$(($(KELSIM_DIR=$work/report "$kelsim" journal | wc -l) - before))
read -r report sector ratio _ <<<"$("${priority[@]}" ./pairtime "$runs" 3 KELSIM_DIR="$work/report" "$kelpth" L \
  --- KELSIM_DIR="$work/sector" "$kelpth" PDOneSectorRead 0 0 0x10)"
echo "  L ${report} ms ($calls pass-through calls), PDOneSectorRead ${sector} ms (medians)"
echo "report ratio L/PDOneSectorRead: $ratio (target <= 2): $(verdict "$ratio" 2)"

echo "== download: kelpth F, 768 KiB to one drive, against dd conv=fsync"
mkdir -p "$work/one"
cat >"$work/one/farm.conf" <<'CONF'
controller 0
slot 0 sas vendor=SIMDISK product=MBA4SIM revision=0101 serial=MB0B0001 blocks=286749488
CONF
KELSIM_DIR=$work/one "$kelsim" image MBA4SIM 0202 image.bin >/dev/null
size=$(stat -c %s image.bin)
read -r download copy ratio _ <<<"$("${priority[@]}" ./pairtime "$((runs / 2))" 2 KELSIM_DIR="$work/one" "$kelpth" F image.bin \
  --- dd if=image.bin of=copy.bin bs=64k conv=fsync status=none)"
echo "  F ${download} ms ($size bytes), dd ${copy} ms (medians)"
echo "download ratio F/dd: $ratio (target <= 3): $(verdict "$ratio" 3)"

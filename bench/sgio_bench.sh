#!/bin/sh
# Runs inside the test guest of scripts/vm-test.sh: the time of "kelpth PDOneSectorRead"
# on the SG_IO libraries beside sg_raw sending the same READ(10) to the same disk, and
# their ratio (target: at most 1.2). Shown too: kelpth's start alone (its usage screen) and
# kelpth with the disk named in KELSGIO_DEVICES (no sysfs discovery).
# The three are run in turn, so that a change of the host's load touches all alike.
# Prints one "BENCH" line.
runs=${1:-15}
export LD_LIBRARY_PATH=/kelvm
cd /tmp || exit 1
device=/dev/$(ls /sys/bus/scsi/devices/0:0:0:0/scsi_generic)

# Hundredths of a second since boot.
now() { cut -d' ' -f1 /proc/uptime | tr -d '.'; }
# Hundredths of a second one run of a command takes.
once() {
  start=$(now)
  "$@" >/dev/null 2>&1
  echo $(($(now) - start))
}

kelpth_cs=0 start_cs=0 sgraw_cs=0 listed_cs=0
i=0
while [ $i -lt "$runs" ]; do
  kelpth_cs=$((kelpth_cs + $(once /kelvm/kelpth PDOneSectorRead 0 0 0x10)))
  sgraw_cs=$((sgraw_cs + $(once sg_raw -r 512 "$device" 28 00 00 00 00 10 00 00 01 00)))
  start_cs=$((start_cs + $(once /kelvm/kelpth)))
  listed_cs=$((listed_cs + $(KELSGIO_DEVICES=$device once /kelvm/kelpth PDOneSectorRead 0 0 0x10)))
  i=$((i + 1))
done
[ "$sgraw_cs" -gt 0 ] || sgraw_cs=1
ratio=$(awk -v a="$kelpth_cs" -v b="$sgraw_cs" 'BEGIN { printf "%.2f", a / b }')
echo "BENCH sgio PDOneSectorRead: kelpth $((kelpth_cs * 10 / runs)) ms, sg_raw $((sgraw_cs * 10 / runs)) ms, ratio ${ratio}x (target <= 1.2x); kelpth start alone $((start_cs * 10 / runs)) ms, with KELSGIO_DEVICES $((listed_cs * 10 / runs)) ms ($runs runs each, in turn, TCG guest)"

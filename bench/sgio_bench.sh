#!/bin/sh
# Runs inside the test guest of scripts/vm-test.sh: the time of "kelpth PDOneSectorRead"
# on the SG_IO libraries beside sg_raw sending the same READ(10) to the same disk, and
# their ratio (target: at most 1.2). kelpth's start alone (its usage screen) is shown too.
# Prints one "BENCH" line.
runs=${1:-10}
export LD_LIBRARY_PATH=/kelvm
cd /tmp || exit 1
device=/dev/$(ls /sys/bus/scsi/devices/0:0:0:0/scsi_generic)

# Hundredths of a second since boot.
now() { cut -d' ' -f1 /proc/uptime | tr -d '.'; }
# Milliseconds per run of a command.
ms_per_run() {
  start=$(now)
  i=0
  while [ $i -lt "$runs" ]; do
    "$@" >/dev/null 2>&1
    i=$((i + 1))
  done
  echo $((($(now) - start) * 10 / runs))
}

kelpth_ms=$(ms_per_run /kelvm/kelpth PDOneSectorRead 0 0 0x10)
start_ms=$(ms_per_run /kelvm/kelpth)
sgraw_ms=$(ms_per_run sg_raw -r 512 "$device" 28 00 00 00 00 10 00 00 01 00)
[ "$sgraw_ms" -gt 0 ] || sgraw_ms=1
ratio=$(awk -v a="$kelpth_ms" -v b="$sgraw_ms" 'BEGIN { printf "%.2f", a / b }')
echo "BENCH sgio PDOneSectorRead: kelpth ${kelpth_ms} ms, sg_raw ${sgraw_ms} ms, ratio ${ratio}x (target <= 1.2x); kelpth start alone ${start_ms} ms ($runs runs, TCG guest)"

#!/bin/sh
# Runs inside the test guest of scripts/vm-test.sh (busybox sh), after the SG_IO checks:
# the default farm exported with "kelsim export" (the simulated libraries' state folder
# in /tmp), then sg3_utils, smartctl, mke2fs and kelpth on the exported disks. Prints
# "PASS name" or "FAIL name" (with the command's output) for each check.
. /kelvm/checks-lib.sh
export KELSIM_DIR=/tmp/kelsim
SIM=/kelvm/sim
KS=$SIM/kelsim
MAP=$KELSIM_DIR/export.map
CHECKS="export-inquiry export-capacity export-sg_dd export-mkfs export-logs export-firmware export-smartctl
  export-media-error export-kelpth-sgio export-restart"

# kelpth on the simulated libraries, or on the SG_IO ones with the exported drives as slots.
K=/kelvm/kelpth
sim_run() { tool env LD_LIBRARY_PATH=$SIM "$K" "$@"; }
sgio_run() { tool env LD_LIBRARY_PATH=/kelvm KELSGIO_DEVICES="$SGIO_DEVICES" "$K" "$@"; }

"$KS" reset >/dev/null
# start_export LOG: kelsim export in the background ($export_pid), waited for (3 minutes at
# most) until it has written its map.
start_export() {
  rm -f "$MAP"
  "$KS" export >/tmp/export.out 2>"$1" &
  export_pid=$!
  i=0
  while [ ! -s "$MAP" ] && [ $i -lt 1800 ] && kill -0 $export_pid 2>/dev/null; do sleep 0.1; i=$((i + 1)); done
  echo "KELVM export ready after $((i / 10)) s"
}
start_export /tmp/export.err
if [ ! -s "$MAP" ]; then
  out=$(cat /tmp/export.err)
  for name in $CHECKS; do fail "$name" "kelsim export gave no map"; done
  kill $export_pid 2>/dev/null
  exit 0
fi
sed 's/^/KELVM export map: /' "$MAP"
sg_of() { awk -v n="$1" '$1 == n { print $2 }' "$MAP"; }
sd_of() { awk -v n="$1" '$1 == n { print $3 }' "$MAP"; }
# Each LUN linked after a disk left it a unit attention (REPORTED LUNS DATA HAS CHANGED),
# which the first command of a tool would get: TEST UNIT READY takes them.
for sg in $(awk '{ print $2 }' "$MAP"); do
  sg_raw "$sg" 00 00 00 00 00 00 >/dev/null 2>&1 || sg_raw "$sg" 00 00 00 00 00 00 >/dev/null 2>&1
done

# What kelsim show says of each disk: name, vendor, product, revision, serial, blocks (a
# volume answers as vendor ORVANE, product RAIDn VOLUME, revision 1.00, serial ORV<c>LD<n>).
"$KS" show | awk '/^controller/ { c = $2 }
  $1 == "slot" && $3 != "empty" { print "c" c "s" $2, $4, $5, $6, $7, $8 }
  $1 == "ld" { print "c" c "ld" $2, "ORVANE", toupper($3), "1.00", "ORV" c "LD" $2, $8 }' >/tmp/expected
expected() { awk -v n="$1" -v f="$2" '$1 == n { print $f }' /tmp/expected; }

# --- export-inquiry, export-capacity: every disk ----------------------------------------
inquiry_bad="" capacity_bad=""
while read -r name vendor product revision serial blocks; do
  sg=$(sg_of "$name")
  tool sg_inq "$sg"
  inquiry=$out
  tool sg_vpd -p sn "$sg"
  for want in "Vendor identification: $vendor" "Product identification: $product" "Product revision level: $revision"; do
    printf '%s\n' "$inquiry" | grep -qF -- "$want" || inquiry_bad="$inquiry_bad $name($want)"
  done
  has "Unit serial number: $serial" || inquiry_bad="$inquiry_bad $name(serial $serial)"
  tool sg_readcap -l "$sg"
  has "Number of logical blocks=$blocks" || capacity_bad="$capacity_bad $name($blocks)"
done </tmp/expected
out=""
[ -z "$inquiry_bad" ] && pass export-inquiry || fail export-inquiry "wrong or missing:$inquiry_bad"
[ -z "$capacity_bad" ] && pass export-capacity || fail export-capacity "wrong capacity:$capacity_bad"

# --- export-sg_dd: 1 MiB written and read back on a SAS, a SATA drive and the RAID 5 volume,
# and its first and last rows of block 0x10000 as kelpth reads them on the simulated farm.
# The drives are members of RAID 0 volumes, whose check has no redundancy to find wrong.
dd if=/dev/urandom of=/tmp/mib.bin bs=1024 count=1024 2>/dev/null
# The dump row kelpth prints for 16 bytes of a file at an offset.
dump_row() { od -An -v -tx1 -j "$2" -N16 "$1" | tr a-f A-F | awk '{ printf "%s %s %s %s %s %s %s %s  %s %s %s %s %s %s %s %s", $1, $2, $3, $4, $5, $6, $7, $8, $9, $10, $11, $12, $13, $14, $15, $16 }'; }
sg_dd_bad=""
for target in "c1s0 PDOneSectorRead 1 0" "c0s4 PDOneSectorRead 0 4" "c0ld1 LDOneSectorRead 0 1"; do
  set -- $target
  sg=$(sg_of "$1")
  rm -f /tmp/back.bin
  if ! tool sg_dd if=/tmp/mib.bin of="$sg" bs=512 seek=65536 count=2048 || ! tool sg_dd if="$sg" of=/tmp/back.bin bs=512 skip=65536 count=2048 ||
    ! cmp -s /tmp/mib.bin /tmp/back.bin; then
    sg_dd_bad="$sg_dd_bad $1(sg_dd: $(printf '%s' "$out" | tail -2 | tr '\n' ' '))"
    continue
  fi
  sim_run "$2" "$3" "$4" 0x10000
  if [ "$status" != 0 ] || ! has "00000000: $(dump_row /tmp/mib.bin 0)" || ! has "000001F0: $(dump_row /tmp/mib.bin 496)"; then
    sg_dd_bad="$sg_dd_bad $1(kelpth $2 status $status)"
  fi
done
[ -z "$sg_dd_bad" ] && pass export-sg_dd || fail export-sg_dd "$sg_dd_bad"

# --- export-mkfs: a file system on the RAID 5 volume, its parity checked afterwards -------
sd=$(sd_of c0ld1)
mkdir -p /mnt/raid5
if ! tool /kelvm/mke2fs -q -F -t ext2 -E nodiscard "$sd" 65536; then
  fail export-mkfs "mke2fs on $sd"
elif ! tool mount -t ext2 "$sd" /mnt/raid5 || ! grep -q "^$sd " /proc/mounts; then
  out="$out
$(dmesg | tail -5)"
  fail export-mkfs "mount of $sd"
else
  cp /tmp/mib.bin /mnt/raid5/mib.bin
  umount /mnt/raid5
  tool mount -t ext2 -o ro "$sd" /mnt/raid5
  if ! cmp -s /tmp/mib.bin /mnt/raid5/mib.bin; then
    fail export-mkfs "the file read back differs"
    umount /mnt/raid5
  else
    umount /mnt/raid5
    tool "$KS" check
    check export-mkfs 0 "controller 0 ld 1 (raid5): consistent"
  fi
fi

# --- export-logs: the diagnostic log pages and every mode page of a SAS drive -------------
sg=$(sg_of c0s0)
tool sg_logs -p 0x31 "$sg"
logs=$out logs_status=$status
tool sg_logs -p 0x32 "$sg"
logs="$logs
$out" logs_status="$logs_status $status"
tool sg_modes -a "$sg"
out="$logs
$out"
if [ "$logs_status $status" = "0 0 0" ] && ! has "not supported" && ! has "Illegal request"; then
  pass export-logs
else
  fail export-logs "sg_logs -p 0x31, -p 0x32, sg_modes -a: exit statuses $logs_status $status"
fi

# --- export-firmware: a new image through WRITE BUFFER mode 7 changes the revision --------
sg=$(sg_of c1s0)
product=$(expected c1s0 3)
"$KS" image "$product" 0207 /tmp/firmware.bin >/dev/null
tool sg_write_buffer -m 7 -b 65536 -I /tmp/firmware.bin "$sg"
firmware_status=$status
tool sg_inq "$sg"
if [ "$firmware_status" = 0 ] && has "Product revision level: 0207"; then
  pass export-firmware
else
  fail export-firmware "sg_write_buffer exit status $firmware_status, then sg_inq"
fi

# --- export-smartctl: the SATA drives through the SAT layer -------------------------------
smart_bad=""
for name in $(awk '$5 == "SATA" { print $1 }' "$MAP"); do
  tool smartctl -d sat -i -H -A -l error "$(sg_of "$name")"
  smart_out=$out
  if [ "$status" != 0 ] || ! has "$(expected "$name" 5)" || ! has "test result: PASSED" ||
    ! has "ATTRIBUTE_NAME" || ! has "SMART Error Log Version"; then
    smart_bad="$smart_bad $name(exit status $status)"
    smart_failed=$smart_out
  fi
done
out=${smart_failed:-}
[ -z "$smart_bad" ] && pass export-smartctl || fail export-smartctl "$smart_bad"

# --- export-media-error: a block made bad with kelpth E reads as MEDIUM ERROR with its LBA -
param 0 0 0x0012A0 1 1
sim_run E /tmp/param.txt
media_status=$status
tool sg_dd if="$(sg_of c0s0)" of=/tmp/bad.bin bs=512 skip=4768 count=1 verbose=2
if [ "$media_status" = 0 ] && [ "$status" != 0 ] && printf '%s\n' "$out" | grep -qi "Medium Error" &&
  printf '%s\n' "$out" | grep -qi "Unrecovered read error" && printf '%s\n' "$out" | grep -qi "0x12a0"; then
  pass export-media-error
else
  fail export-media-error "kelpth E exit status $media_status, sg_dd exit status $status"
fi

# --- export-kelpth-sgio: kelpth on the SG_IO libraries sees the drives as the sim does ---
SGIO_DEVICES=$(awk '$1 ~ /^c0s/ { a = a (a == "" ? "" : ",") $2 } $1 ~ /^c1s/ { b = b (b == "" ? "" : ",") $2 }
  END { print a ";" b }' "$MAP")
echo "KELVM export KELSGIO_DEVICES=$SGIO_DEVICES"
# Lines that name the host's side (its controller name) differ by nature.
# Both runs must succeed and print the same.
same_output() {
  sim_run "$@"
  sim_status=$status
  printf '%s\n' "$out" | grep -v -e "LINUX SG HOST" >/tmp/sim.out
  sgio_run "$@"
  printf '%s\n' "$out" | grep -v -e "LINUX SG HOST" >/tmp/sgio.out
  [ "$sim_status $status" = "0 0" ] && cmp -s /tmp/sim.out /tmp/sgio.out
}
sgio_bad=""
param 0 0 0 28000000100000010000 0
cp /tmp/param.txt /tmp/p-read.txt
param 0 0 120000006000 0 0x60
cp /tmp/param.txt /tmp/any-inquiry.txt
param 0 4 85080E0000000100000000000000EC00 0 1 1 1
cp /tmp/param.txt /tmp/any-identify.txt
for command in "PDOneSectorWrite 0 1 0x20" "PDOneSectorRead 0 1 0x20" "PDOneSectorWrite 0 5 0x20" \
  "PDOneSectorRead 0 5 0x20" "P /tmp/p-read.txt" "ANY /tmp/any-inquiry.txt" "ANY /tmp/any-identify.txt" "L"; do
  if ! same_output $command; then
    sgio_bad="$sgio_bad [$command: exit statuses $sim_status $status]"
    out=$(diff /tmp/sim.out /tmp/sgio.out 2>&1 | head -20)
    echo "KELVM export difference in $command:"
    printf '%s\n' "$out" | sed 's/^/  | /'
  fi
done
out=""
[ -z "$sgio_bad" ] && pass export-kelpth-sgio || fail export-kelpth-sgio "outputs differ:$sgio_bad"

# --- export-restart: an export killed with SIGKILL leaves its disks; the next one carries
# them on (same LUNs, so the same nodes), answers a read queued while no one served them,
# and removes everything on SIGTERM.
restart_bad=""
sg=$(sg_of c0s0) sd=$(sd_of c0s0)
cp "$MAP" /tmp/map.before
tool sg_dd if=/tmp/mib.bin of="$sg" bs=512 seek=131072 count=2048 || restart_bad="$restart_bad (sg_dd write before the kill)"
kill -KILL $export_pid
wait $export_pid 2>/dev/null
rm -f /tmp/queued.bin
sg_dd if="$sg" of=/tmp/queued.bin bs=512 skip=131072 count=2048 >/tmp/queued.out 2>&1 &
read_pid=$!
sleep 1
start_export /tmp/export2.err
wait $read_pid
read_status=$?
if [ ! -s "$MAP" ]; then
  restart_bad="$restart_bad (no map: $(tail -3 /tmp/export2.err | tr '\n' ' '))"
else
  cmp -s /tmp/map.before "$MAP" || restart_bad="$restart_bad (other nodes: $(diff /tmp/map.before "$MAP" | grep '^[-+]c' | tr '\n' ' '))"
  [ "$read_status" = 0 ] && cmp -s /tmp/mib.bin /tmp/queued.bin ||
    restart_bad="$restart_bad (the read queued during the restart: status $read_status $(tail -2 /tmp/queued.out | tr '\n' ' '))"
  # Through the block node: written with dd, read back with sg_dd past the page cache.
  rm -f /tmp/back.bin
  if ! tool dd if=/tmp/mib.bin of="$sd" bs=65536 seek=2048 count=16 conv=fsync ||
    ! tool sg_dd if="$sg" of=/tmp/back.bin bs=512 skip=262144 count=2048 || ! cmp -s /tmp/mib.bin /tmp/back.bin; then
    restart_bad="$restart_bad (dd write, sg_dd read after the restart: $(printf '%s' "$out" | tail -2 | tr '\n' ' '))"
  fi
fi
kill -TERM $export_pid
wait $export_pid
export_status=$?
left=$(find /sys/kernel/config/target | grep -e '/user_' -e '/naa\.' | head -5 | tr '\n' ' ')
[ "$export_status" = 0 ] && [ -z "$left" ] || restart_bad="$restart_bad (ended with status $export_status, left: $left)"
out=$(cat /tmp/export2.err)
[ -z "$restart_bad" ] && pass export-restart || fail export-restart "$restart_bad"

# --- The end: every refused command is listed -------------------------------------------
echo "KELVM export ended with status $export_status ; left in configfs: $(ls /sys/kernel/config/target/core 2>&1 | tr '\n' ' ')"
sed 's/^/KELVM export log: /' /tmp/export.err | head -60
sed 's/^/KELVM restarted export log: /' /tmp/export2.err | head -20

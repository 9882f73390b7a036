#!/bin/sh
# Runs inside the test guest of scripts/vm-test.sh (busybox sh): kelpth on the SG_IO
# libraries against a virtio-scsi disk (controller 0), an AHCI SATA disk (controller 1)
# and a scsi_debug disk (controller 2). Prints "PASS name", "FAIL name" (with the
# command's output) or "SKIP name" for each check.
K=/kelvm/kelpth
export LD_LIBRARY_PATH=/kelvm
export KELSGIO_JOURNAL=/tmp/journal
: >"$KELSGIO_JOURNAL"

. /kelvm/checks-lib.sh

# A command not built yet in this kelpth says so with KEL0015: skipped, not failed.
unbuilt() {
  if has "KEL0015"; then
    echo "SKIP $1 (command not built yet)"
    return 0
  fi
  return 1
}
# A file of 512 bytes that are all 0x5A.
all5a() { [ "$(wc -c <"$1")" -eq 512 ] && [ "$(od -An -v -tx1 "$1" | tr -s ' \n' '\n\n' | grep -v '^$' | sort -u)" = "5a" ]; }
journal_has() { grep -qF -- "$1" "$KELSGIO_JOURNAL"; }

ROW5A="5A 5A 5A 5A 5A 5A 5A 5A  5A 5A 5A 5A 5A 5A 5A 5A"
ILLEGAL_OPCODE="KEL0005-E Request sense data  KEY:05  ASC:20  ASCQ:00"
ATA_ABORTED="KEL0005-E Request sense data  KEY:0B  ASC:00  ASCQ:00"

# --- Physical drives: SAS wrapper on the virtio disk, ATA PASS-THROUGH on the SATA disk
run PDOneSectorWrite 0 0 0x10
check pd-write-virtio 0
run PDOneSectorRead 0 0 0x10
check pd-read-virtio 0 "$ROW5A"
rm -f /tmp/v.bin
run D 0 0 0x10 /tmp/v.bin
if [ "$status" = 0 ] && all5a /tmp/v.bin; then pass dump-virtio; else fail dump-virtio "status $status or the file is wrong"; fi

run PDOneSectorWrite 1 0 0x100000010
check pd-write-sata-48bit 0
run PDOneSectorRead 1 0 0x100000010
check pd-read-sata-48bit 0 "$ROW5A"
journal_has "cdb=85 09 0E 00 00 00 01 00 10 01 00 00 00 40 24 00" && pass journal-sata-read-48bit ||
  fail journal-sata-read-48bit "$(tail -1 "$KELSGIO_JOURNAL")"
# D is for SAS drives: the program refuses a SATA drive before anything is sent.
rm -f /tmp/s.bin
run D 1 0 0x10 /tmp/s.bin
check dump-sata-refused 1 "KEL0024-E <SATA> drive does not support this command."

# --- Logical drives: plain CDBs (the SATA disk through the kernel's translation) -----
run LDOneSectorWrite 0 0 0x20
check ld-write-virtio 0
run LDOneSectorRead 0 0 0x20
check ld-read-virtio 0 "$ROW5A"
run LDOneSectorWrite 1 0 0x30
check ld-write-sata 0
run LDOneSectorRead 1 0 0x30
check ld-read-sata 0 "$ROW5A"
run w 0 0 0x100 0
check stripe-write 0
run r 0 0 0x100
check stripe-read 0
run r64 1 0 0x100000000
check stripe-read64-sata 0

# --- P: a READ(10) of 0x100 blocks, split into two commands of 0x80 ------------------
param 0 0 0 28000000100000010000 0
run P /tmp/param.txt
check fixed-read-split 0 "[Command Result] Size=131072"
if journal_has "cdb=BB 00 28 00 00 00 10 00 00 00 80 00" && journal_has "cdb=BB 00 28 00 00 01 10 00 00 00 80 00"; then
  pass fixed-read-split-journal
else
  fail fixed-read-split-journal "the two halves are not in the journal"
fi

# --- ANY: INQUIRY, IDENTIFY, a CK_COND non-data command ---------------------------
any 0 0 120000006000 0 0x60
check any-inquiry 0 "[Command Result] Size=96"
dumped_text_has "QEMU....QEMU.HARDDISK" && pass any-inquiry-vendor-product || fail any-inquiry-vendor-product "no QEMU HARDDISK"
any 1 0 85080E0000000100000000000000EC00 0 1 1 1
check any-identify-sata 0 "[Command Result] Size=512"
# The model QEMU was given for the disk, words swapped back by the command.
dumped_text_has "KELVM.SATA.DISK" && pass any-identify-sata-model || fail any-identify-sata-model "no KELVM-SATA-DISK"
# CHECK POWER MODE with CK_COND: the registers come back as sense, the command succeeded.
any 1 0 8506200000000000000000000040E500 2
check any-ck-cond-non-data 0

# --- Refused by the emulated drives: their exact error path ------------------------
any 0 0 3E000000000000000210 0 0x210
check refused-read-long 1 "$ILLEGAL_OPCODE"
any 0 0 3F000000000000000000 1 0
check refused-write-long 1 "$ILLEGAL_OPCODE"
any 0 0 4D000000000000010000 0 0x100
check refused-log-sense 1 "$ILLEGAL_OPCODE"
any 0 0 3B070000000000000000 1 0
check refused-write-buffer 1 "$ILLEGAL_OPCODE"
any 1 0 85070000000000000000000000403700 2
check refused-set-max-address-ext 1 "$ATA_ABORTED"
any 1 0 85070000000000000000000000404500 2
check refused-write-uncorrectable-ext 1 "$ATA_ABORTED"

# E (media error set) starts with READ LONG, which the emulated drive refuses.
param 0 0 0x0012A0 4 8
run E /tmp/param.txt
if has "KEL0015"; then
  echo "SKIP media-error-set-refused (command not built yet)"
else
  check media-error-set-refused 1 "$ILLEGAL_OPCODE"
  journal_has "KelPasReadLong ctl=0 pd=0 if=0 dir=1 ata=0 cdb=BB 00 3E" && pass media-error-set-journal ||
    fail media-error-set-journal "no READ LONG in the journal"
fi

# With D_SENSE set in its control mode page, libata answers in descriptor format with an
# ATA Status Return descriptor; the program must read the same key and codes.
sata_sg=/dev/$(ls /sys/bus/scsi/devices/1:0:0:0/scsi_generic)
sg_raw -b -r 28 "$sata_sg" 5A 08 0A 00 00 00 00 00 1C 00 2>/dev/null | od -An -v -tu1 >/tmp/control.txt
set -- $(cat /tmp/control.txt)
if [ $# -ge 20 ] && [ $(($9 & 0x3F)) = 10 ]; then
  # Mode parameter header (8 bytes, lengths zeroed) then the page with D_SENSE (byte 2 bit 2) set.
  shift 8
  page=$(($1 & 0x3F)) third=$(($3 | 4))
  printf "$(printf '\\%03o' 0 0 0 0 0 0 0 0 $page $2 $third $4 $5 $6 $7 $8 $9 ${10} ${11} ${12})" >/tmp/control.bin
  if sg_raw -s 20 -i /tmp/control.bin "$sata_sg" 55 10 00 00 00 00 00 00 14 00 >/dev/null 2>&1; then
    # The kernel now answers in descriptor format: seen by the peer tool first.
    out=$(sg_raw "$sata_sg" 85 07 00 00 00 00 00 00 00 00 00 00 00 40 37 00 2>&1)
    has "Descriptor format" && pass d-sense-set || fail d-sense-set "sg_raw did not see descriptor sense"
    any 1 0 85070000000000000000000000403700 2
    check refused-set-max-address-ext-descriptor-sense 1 "$ATA_ABORTED"
  else
    fail set-d-sense "MODE SELECT of the control page was refused"
  fi
else
  fail set-d-sense "no control mode page: $(cat /tmp/control.txt)"
fi

# --- scsi_debug: a kernel target we did not write ----------------------------------
any 2 0 4D000000000000010000 0 0x100
check scsi-debug-log-sense 0 "[Command Result]"
any 2 0 1A003F00FF00 0 0xFF
check scsi-debug-mode-sense-3f 0 "[Command Result]"
run PDOneSectorRead 2 0 0x1234
check scsi-debug-medium-error 1 "KEL0005-E Request sense data  KEY:03  ASC:11  ASCQ:00"
any 2 0 3B070000000000020000 1 0x200 1 00
check scsi-debug-write-buffer-mode7 0
# The new microcode shows as a unit attention on the next command.
run PDOneSectorRead 2 0 0
check scsi-debug-microcode-changed 1 "KEL0005-E Request sense data  KEY:06  ASC:3F  ASCQ:16"
run L
unbuilt log-sense-report || check log-sense-report 0
run PDPrintModePage 2 0 3F 00 FF
unbuilt mode-page-print || check mode-page-print 0
printf 'firmware' >/tmp/fw.bin
run F /tmp/fw.bin
unbuilt firmware-download || check firmware-download 0
run PDPrintModePage 0 0 3F 00 FF
unbuilt mode-page-print-virtio || check mode-page-print-virtio 0

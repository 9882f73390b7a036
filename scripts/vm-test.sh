#!/usr/bin/env bash
# Boots a Debian kernel under QEMU (TCG) with a virtio-scsi disk, an AHCI SATA disk and
# the kernel's scsi_debug disk, runs kelpth on the SG_IO libraries inside the guest, then
# exports the simulated farm with "kelsim export" and runs foreign tools on its disks;
# checks the "PASS name" / "FAIL name" lines the guest prints on its serial console.
# Exits 0 only when every check passed; prints the guest's log otherwise.
# Usage: bash scripts/vm-test.sh [--keep]   (--keep leaves the work folder for a look)
set -euo pipefail
cd "$(dirname "$0")/.."
root=$PWD
keep=0
[[ "${1:-}" == "--keep" ]] && keep=1
hard_timeout=${KELVM_TIMEOUT:-480}

# --- What the test needs, from Debian packages -------------------------------------
bash scripts/deps.sh qemu-system-x86 linux-image-amd64 busybox-static sg3-utils cpio smartmontools e2fsprogs

# --- The program, the SG_IO libraries, kelsim and the simulated libraries -------------
[[ -f build/CMakeCache.txt ]] || cmake --preset default >/dev/null
cmake --build build -j2 --target kelpth sgio_kelctl sgio_kelpth kelsim kelctl kelpth_lib kelsim_lib >/dev/null

work=$(mktemp -d /tmp/kelvm.XXXXXX)
cleanup() { ((keep)) && echo "vm-test: work folder kept: $work" || rm -rf "$work"; }
trap cleanup EXIT
img=$work/initramfs
mkdir -p "$img"/{bin,sbin,proc,sys,dev,tmp,lib,lib64,modules,kelvm/sim,etc,mnt}

# Newest installed kernel: its image and its modules.
kernel=$(ls /boot/vmlinuz-* | sort -V | tail -1)
version=${kernel#/boot/vmlinuz-}
moddir=/lib/modules/$version

# Module files in load order: each module's dependencies (modules.dep lists them so
# that loading from the last to the first works) before the module itself.
declare -A seen=()
order=()
add_module() {
  local name=$1 line path deps i
  line=$(grep -E "/${name}\.ko(\.xz|\.zst|\.gz)?:" "$moddir/modules.dep" | head -1)
  [[ -n "$line" ]] || { echo "vm-test: module $name not found in $moddir" >&2; exit 1; }
  path=${line%%:*}
  read -r -a deps <<<"${line#*:}"
  for ((i = ${#deps[@]} - 1; i >= 0; i--)); do
    [[ -n "${seen[${deps[i]}]:-}" ]] || { seen[${deps[i]}]=1; order+=("${deps[i]}"); }
  done
  [[ -n "${seen[$path]:-}" ]] || { seen[$path]=1; order+=("$path"); }
}
# Host numbers follow the load order: virtio-scsi is host 0 (controller 0), the AHCI
# ports come next (controller 1: the port with the disk), scsi_debug last (controller 2).
# The SCSI target modules make no host until "kelsim export" makes its loopback target;
# ext4 (with the crc32c it asks for) mounts the export's ext2 file system.
for m in virtio_pci virtio_scsi sd_mod sg libata libahci ahci configfs target_core_mod uio target_core_user tcm_loop \
  crc32c_generic ext4 scsi_debug; do add_module "$m"; done
: >"$img/modules/order"
for path in "${order[@]}"; do
  base=$(basename "$path")
  name=${base%.ko*}.ko
  case "$base" in
  *.ko.xz) xz -dc "$moddir/$path" >"$img/modules/$name" ;;
  *.ko.zst) zstd -qdc "$moddir/$path" >"$img/modules/$name" ;;
  *.ko.gz) gzip -dc "$moddir/$path" >"$img/modules/$name" ;;
  *) cp "$moddir/$path" "$img/modules/$name" ;;
  esac
  # scsi_debug is loaded last by the guest, with its options.
  [[ "$name" == scsi_debug.ko ]] || echo "$name" >>"$img/modules/order"
done

# Programs and the shared libraries they need.
cp /bin/busybox "$img/bin/busybox"
cp build/kelpth build/sgio/libkelctl.so build/sgio/libkelpth.so "$img/kelvm/"
cp build/kelsim build/libkelctl.so build/libkelpth.so build/libkelsim.so "$img/kelvm/sim/"
tools=(sg_raw sg_inq sg_vpd sg_readcap sg_dd sg_logs sg_modes sg_write_buffer smartctl mke2fs)
for t in "${tools[@]}"; do cp "$(command -v "$t")" "$img/bin/$t"; done
# busybox sh runs its own mke2fs applet for the bare name: the real one goes by its path.
mv "$img/bin/mke2fs" "$img/kelvm/mke2fs"
cp /etc/mke2fs.conf "$img/etc/"
copy_libraries() {
  LD_LIBRARY_PATH=$root/build/sgio ldd "$1" | awk '/=> \//{print $3} /^\t\/lib/{print $1}' | while read -r lib; do
    case "$lib" in */build/*) continue ;; esac
    mkdir -p "$img$(dirname "$lib")"
    cp -L "$lib" "$img$lib"
  done
}
copy_libraries build/kelpth
copy_libraries build/kelsim
for t in "${tools[@]}"; do copy_libraries "$(command -v "$t")"; done
cp scripts/vm-guest-lib.sh "$img/kelvm/checks-lib.sh"
cp scripts/vm-guest-checks.sh "$img/kelvm/checks.sh"
cp scripts/vm-export-checks.sh "$img/kelvm/export-checks.sh"
cp bench/sgio_bench.sh "$img/kelvm/bench.sh"

cat >"$img/init" <<'EOF'
#!/bin/busybox sh
/bin/busybox --install -s /bin
export PATH=/bin:/sbin
mount -t proc proc /proc
mount -t sysfs sys /sys
mount -t devtmpfs dev /dev
echo 1 >/proc/sys/kernel/printk
for m in $(cat /modules/order); do insmod /modules/$m || echo "KELVM insmod $m failed"; done
mount -t configfs configfs /sys/kernel/config
# LBA 0x1234 of the scsi_debug disk answers MEDIUM ERROR (opts bit 1), in descriptor-format
# sense (dsense=1), which the library converts.
insmod /modules/scsi_debug.ko dev_size_mb=16 opts=2 medium_error_start=0x1234 medium_error_count=1 dsense=1 ||
  echo "KELVM insmod scsi_debug failed"
# Wait (30 s at most) for the three disks to have their sg nodes.
i=0
while [ "$(ls /sys/class/scsi_generic 2>/dev/null | wc -l)" -lt 3 ] && [ $i -lt 300 ]; do sleep 0.1; i=$((i + 1)); done
for d in /sys/bus/scsi/devices/*:*:*:*; do echo "KELVM disk ${d##*/} $(cat $d/vendor) $(cat $d/model) $(ls $d/scsi_generic)"; done
cd /tmp
sh /kelvm/checks.sh
sh /kelvm/bench.sh
sh /kelvm/export-checks.sh
echo "KELVM-END"
sync
poweroff -f
EOF
chmod +x "$img/init"
(cd "$img" && find . | cpio -o -H newc --quiet | gzip -1 >"$work/initrd.gz")

# Disks: a sparse SATA disk past 2 TiB, so that 48-bit addresses above 2^32 blocks exist.
truncate -s 64M "$work/virtio.img"
truncate -s 2100G "$work/sata.img"

echo "vm-test: booting $version under qemu-system-x86_64 (TCG)"
start=$(date +%s)
set +e
timeout --kill-after=10 "$hard_timeout" qemu-system-x86_64 -M pc -accel tcg -m 768 -smp 1 \
  -nodefaults -no-reboot -display none -serial "file:$work/console.log" \
  -kernel "$kernel" -initrd "$work/initrd.gz" \
  -append "console=ttyS0 panic=-1 loglevel=3 rdinit=/init" \
  -device virtio-scsi-pci,id=vscsi \
  -drive if=none,id=vdisk,file="$work/virtio.img",format=raw,cache=unsafe \
  -device scsi-hd,bus=vscsi.0,drive=vdisk \
  -device ahci,id=ahci \
  -drive if=none,id=sdisk,file="$work/sata.img",format=raw,cache=unsafe \
  -device ide-hd,bus=ahci.0,drive=sdisk,model=KELVM-SATA-DISK,serial=KELVM0001
qemu_status=$?
set -e
elapsed=$(($(date +%s) - start))
log=$work/console.log
tr -d '\r' <"$log" >"$log.txt"

# Host side: the sectors the guest wrote are where the addresses say, 48-bit one included.
sector_is_5a() {
  [[ "$(dd if="$1" bs=512 skip="$2" count=1 2>/dev/null | od -An -v -tx1 | tr -s ' \n' '\n\n' | grep -v '^$' | sort -u)" == 5a ]]
}
for disk in "virtio-block-0x10 virtio.img 16" "sata-block-0x100000010 sata.img 4294967312"; do
  read -r name file lba <<<"$disk"
  if sector_is_5a "$work/$file" "$lba"; then echo "PASS host-$name"; else echo "FAIL host-$name"; fi >>"$log.txt"
done

passed=$(grep -c '^PASS ' "$log.txt" || true)
failed=$(grep -c '^FAIL ' "$log.txt" || true)
skipped=$(grep -c '^SKIP ' "$log.txt" || true)
grep -E '^(SKIP|BENCH) ' "$log.txt" || true
ok=1
((qemu_status == 0)) || { echo "vm-test: qemu ended with status $qemu_status (124: hard timeout of ${hard_timeout}s)"; ok=0; }
grep -q '^KELVM-END' "$log.txt" || { echo "vm-test: the guest did not reach its end"; ok=0; }
((failed == 0 && passed > 0)) || ok=0
if ((!ok)); then
  echo "----- guest log -----"
  cat "$log.txt"
  echo "---------------------"
fi
echo "vm-test: the guest ran ${elapsed}s"
echo "vm-test: $passed passed, $failed failed, $skipped skipped"
((ok))

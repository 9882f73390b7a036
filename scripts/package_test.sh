#!/usr/bin/env bash
# Installs build/kelpth_*_amd64.deb with dpkg -i in a clean Debian 12 root (a debootstrap
# minbase chroot, cached as a tarball in build/) and runs the demo there with the
# installed files only. Run as root after scripts/package.sh; needs Debian's mirror.
set -euo pipefail
cd "$(dirname "$0")/.."
deb=$(ls build/kelpth_*_amd64.deb)
mirror=${KELPTH_DEBIAN_MIRROR:-http://deb.debian.org/debian}
base=build/debian-bookworm-minbase.tar
if [[ ! -f $base ]]; then
  echo "debootstrap: a minbase Debian 12 root (cached in $base)"
  fresh=$(mktemp -d)
  debootstrap --variant=minbase bookworm "$fresh" "$mirror" >build/debootstrap.log 2>&1 ||
    { tail -20 build/debootstrap.log; exit 1; }
  tar -C "$fresh" -cf "$base.part" . && mv "$base.part" "$base"
  rm -rf "$fresh"
fi

root=$(mktemp -d)
cleanup() {
  umount "$root/proc" 2>/dev/null || true
  rm -rf --one-file-system "$root"
}
trap cleanup EXIT
tar -C "$root" -xf "$base"
mount -t proc proc "$root/proc" 2>/dev/null || true
cp /etc/resolv.conf "$root/etc/resolv.conf"
cp "$deb" "$root/tmp/kelpth.deb"
cp scripts/demo.sh "$root/tmp/demo.sh"
in_root() { chroot "$root" /usr/bin/env -i HOME=/root PATH=/usr/sbin:/usr/bin:/sbin:/bin LANG=C.UTF-8 "$@"; }

# dpkg -i, then let apt bring in what the package declares it needs.
if ! in_root dpkg -i /tmp/kelpth.deb >"$root/tmp/dpkg.log" 2>&1; then
  grep -q 'dependency problems' "$root/tmp/dpkg.log" || { cat "$root/tmp/dpkg.log"; exit 1; }
  { in_root apt-get update -qq &&
    in_root env DEBIAN_FRONTEND=noninteractive apt-get install -f -y -qq --no-install-recommends; } \
    >>"$root/tmp/dpkg.log" 2>&1 || { cat "$root/tmp/dpkg.log"; exit 1; }
fi
in_root dpkg-query -W -f='${Status} ${Version}\n' kelpth | grep -q '^install ok installed' ||
  { echo "kelpth is not installed"; exit 1; }

# The demo and the first command of the manual, in a folder of their own, with only
# what the package installed.
in_root mkdir -p /root/demo
in_root sh -c 'cd /root/demo && bash /tmp/demo.sh --installed' >build/package-demo.log 2>&1 ||
  { cat build/package-demo.log; echo "the demo failed in the clean root"; exit 1; }
grep -q '5A 5A 5A 5A' build/package-demo.log || { echo "the demo's sector did not read back"; exit 1; }
in_root sh -c 'cd /root && kelpth PDOneSectorRead 0 0 0' >/dev/null ||
  { echo "kelpth PDOneSectorRead 0 0 0 failed in the clean root"; exit 1; }
in_root dpkg -L kelpth | grep -q '^/usr/share/man/man1/kelpth.1.gz$' || { echo "no manual page"; exit 1; }
echo "package test: $(basename "$deb") installs and runs in a clean Debian 12 root"

#!/usr/bin/env bash
# Stripe write and read: "kelpth w" then "kelpth r" on LD1 (RAID 5) of a fresh simulated
# farm, as MB/s of stripe data (0x20000 bytes written plus 0x20000 read per round),
# against the floor of the same bytes moved with pwrite/pread on a plain file in the same
# folder (one process per direction, like kelpth). Then the dump time of the 128 KiB
# stripe: the stripe read's dump code (bench/stripe_dump.cpp) against xxd, each showing
# the stripe 32 times in one process, less the same process on an empty file, per stripe.
# The whole "kelpth r" is printed beside them.
# Targets: at least a third of the floor's MB/s; the dump no slower than xxd.
# Prints its figures and whether each target is met; a missed target is not an error.
set -euo pipefail
here=$(cd "$(dirname "$0")" && pwd)
build=${1:-$here/../build}
build=$(cd "$build" && pwd)
for tool in hyperfine xxd g++ python3; do
  if ! command -v "$tool" >/dev/null; then
    echo "stripe_bench: $tool is missing (scripts/deps.sh installs it); skipped"
    exit 0
  fi
done

work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT
export KELSIM_DIR=$work/farm
cd "$work"
g++ -std=c++17 -O2 -o stripe_floor "$here/stripe_floor.cpp"
g++ -std=c++17 -O2 -I"$here/../include" -I"$here/../lib" -o stripe_dump "$here/stripe_dump.cpp" \
  "$build/libkelpth_core.a" -L"$build" -lkelctl -lkelpth -Wl,-rpath,"$build"
"$build/kelsim" reset >/dev/null
lba=0x100
"$build/kelpth" w 0 1 $lba 0 >/dev/null
if ! "$build/kelpth" r 0 1 $lba | grep "^0001FFF0: 5A" >/dev/null; then
  echo "stripe_bench: kelpth r does not show the stripe that kelpth w wrote"
fi
./stripe_floor write disk.img $lba
# The same 128 KiB that the stripe read shows, as a file for xxd.
dd if=disk.img of=stripe.bin bs=512 skip=$((lba)) count=256 status=none
: >empty.bin
for i in $(seq 32); do cat stripe.bin; done >stripe32.bin

hyperfine --style none --warmup 3 --runs 30 --export-json rounds.json \
  -n kelpth "$build/kelpth w 0 1 $lba 0 >/dev/null && $build/kelpth r 0 1 $lba >/dev/null" \
  -n floor "./stripe_floor write disk.img $lba && ./stripe_floor read disk.img $lba" >/dev/null
# The one-sector read of the same volume is kelpth's fixed cost (start-up, both libraries,
# one pass-through call): what the stripe read adds to it is the second call and the dump.
hyperfine -N --style none --warmup 3 --runs 30 --export-json dump.json \
  -n kelpth "$build/kelpth r 0 1 $lba" \
  -n dump "./stripe_dump stripe.bin 32" \
  -n dump-empty "./stripe_dump empty.bin" \
  -n xxd "xxd stripe32.bin" \
  -n xxd-empty "xxd empty.bin" \
  -n sector "$build/kelpth LDOneSectorRead 0 1 $lba" >/dev/null

python3 - <<'PY'
import json
def median(path, name):
    return [r for r in json.load(open(path))["results"] if r["command"] == name][0]["median"]
moved = 2 * 0x20000 / 1e6  # MB of stripe data per round
k, f = median("rounds.json", "kelpth"), median("rounds.json", "floor")
kr, fr = moved / k, moved / f
met = kr >= fr / 3
print(f"stripe w+r on LD1 (RAID 5): kelpth {kr:.1f} MB/s ({k*1000:.2f} ms a round); "
      f"floor pwrite+pread {fr:.1f} MB/s ({f*1000:.2f} ms); ratio {kr/fr:.2f} "
      f"(target >= 0.33): {'met' if met else 'MISSED'}")
d, x = median("dump.json", "dump"), median("dump.json", "xxd")
dm = (d - median("dump.json", "dump-empty")) / 32
xm = (x - median("dump.json", "xxd-empty")) / 32
print(f"stripe dump time of 128 KiB {dm*1000:.2f} ms; xxd on the same 128 KiB {xm*1000:.2f} ms; "
      f"ratio {dm/xm:.2f} (target <= 1.00): {'met' if dm <= xm else 'MISSED'}")
r = median("dump.json", "kelpth")
print(f"  whole kelpth r (start-up, both libraries, two pass-through calls, the dump) {r*1000:.2f} ms")
s = median("dump.json", "sector")
print(f"  of which fixed cost (kelpth LDOneSectorRead, same volume) {s*1000:.2f} ms; "
      f"second half and dump {(r-s)*1000:.2f} ms")
PY

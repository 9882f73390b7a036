#!/usr/bin/env bash
# Builds the fuzz targets with clang's libFuzzer, AddressSanitizer and
# UndefinedBehaviorSanitizer, over the in-memory libraries of fake_libs.cpp:
# param_file_fuzzer (parameter files of P and ANY) and command_line_fuzzer (argument
# vectors through the dispatcher into every handler).
# Usage: fuzz/build.sh [output folder, default build-fuzz]
set -euo pipefail
root=$(cd "$(dirname "$0")/.." && pwd)
out=${1:-"$root/build-fuzz"}
mkdir -p "$out/obj"
flags=(-std=c++17 -g -O1 -Wall -Wextra -fsanitize=address,undefined -fno-sanitize-recover=undefined
    -I"$root/include" -I"$root/lib" -I"$root")
export FLAGS="${flags[*]}" OBJ="$out/obj"
# The program's sources (without main) and the fake libraries, compiled once for both,
# two at a time.
sources=$(ls "$root"/src/*.cpp | grep -v '/main\.cpp$'; echo "$root/fuzz/fake_libs.cpp")
# shellcheck disable=SC2016
xargs -P2 -n1 bash -c 'clang++ $FLAGS -fsanitize=fuzzer-no-link -c "$0" -o "$OBJ/$(basename "$0" .cpp).o"' <<<"$sources"
objects=()
for source in $sources; do
    objects+=("$out/obj/$(basename "$source" .cpp).o")
done
for target in param_file_fuzzer command_line_fuzzer; do
    clang++ "${flags[@]}" -fsanitize=fuzzer "${objects[@]}" "$root/fuzz/$target.cpp" -o "$out/$target"
    echo "built $out/$target"
done

#!/bin/sh
# Builds the parameter-file fuzzer with clang's libFuzzer, AddressSanitizer and
# UndefinedBehaviorSanitizer: the program's sources (without main) over the in-memory
# libraries of fake_libs.cpp. Usage: fuzz/build.sh [output folder, default build-fuzz]
set -eu
root=$(cd "$(dirname "$0")/.." && pwd)
out=${1:-"$root/build-fuzz"}
mkdir -p "$out"
sources=$(ls "$root"/src/*.cpp | grep -v '/main\.cpp$')
# shellcheck disable=SC2086
clang++ -std=c++17 -g -O1 -Wall -Wextra \
    -fsanitize=fuzzer,address,undefined -fno-sanitize-recover=undefined \
    -I"$root/include" -I"$root/lib" -I"$root" \
    $sources "$root/fuzz/fake_libs.cpp" "$root/fuzz/param_file_fuzzer.cpp" \
    -o "$out/param_file_fuzzer"
echo "built $out/param_file_fuzzer"

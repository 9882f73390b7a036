#!/usr/bin/env bash
# Builds both fuzz targets and runs each for the given number of seconds (default 30,
# the reduced run of CI; 600 for a full run) from the seed corpora, on copies so that
# the fuzzers' additions stay in build-fuzz/. Exits 1 on a finding, leaving its input
# as build-fuzz/crash-* (replay: build-fuzz/<target> build-fuzz/crash-<id>).
set -euo pipefail
cd "$(dirname "$0")/.."
seconds=${1:-30}
bash fuzz/build.sh build-fuzz >/dev/null
out=$PWD/build-fuzz
run() { # run <target> <seed corpus>
    local corpus=$out/$1-corpus
    mkdir -p "$corpus" && cp "$2"/* "$corpus"/
    "$out/$1" -max_total_time="$seconds" -max_len=4096 -artifact_prefix="$out/" "$corpus" >"$out/$1.log" 2>&1 ||
        { tail -40 "$out/$1.log"; echo "$1: a finding, see $out/$1.log"; return 1; }
    echo "$1: $(grep -o 'Done [0-9]* runs in [0-9]* second(s)' "$out/$1.log"), no finding"
}
run param_file_fuzzer fuzz/corpus
run command_line_fuzzer fuzz/corpus-cmdline

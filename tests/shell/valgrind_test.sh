#!/usr/bin/env bash
# Runs a cross-section of the end-to-end commands, kelpth's and kelsim's, under
# valgrind memcheck: every run must have zero errors and no block definitely lost.
# Usage: valgrind_test.sh <build dir>
set -uo pipefail
build=$(cd "$1" && pwd) || exit 1
work=$(mktemp -d) && trap 'rm -rf "$work"' EXIT
cd "$work" || exit 1
export KELSIM_DIR=$work/farm
unset LD_LIBRARY_PATH
printf '0\n-\n2\n28000000100000010000\n0\n' >p-read.txt
printf '0\n1\n2A000000001000000100\n1\n0x200\n1\n0011223344556677\n' >any-write.txt
printf '0\n4\n85080E0000000100000000000000EC00\n0\n1\n1\n1\n' >any-sata.txt
printf '0\n1\n0x100\n3\n' >stripe.txt

commands=(
    "kelsim reset"
    "kelsim show"
    "kelpth"
    "kelpth NoSuchCommand"
    "kelpth PDOneSectorWrite 0 0 0x10"
    "kelpth PDOneSectorRead 0 0 0x10"
    "kelpth PDOneSectorWrite 0 4 0x10"
    "kelpth PDOneSectorRead 0 4 0x10"
    "kelpth D 0 2 0x10 saved.bin"
    "kelpth PDOneSectorRead 0 7 0x10"
    "kelpth PDOneSectorRead 0 A 0x10"
    "kelpth LDOneSectorWrite 0 1 0x20"
    "kelpth LDOneSectorRead 0 1 0x20"
    "kelpth w 0 1 0x100 2"
    "kelpth r 0 1 0x100"
    "kelpth r64 0 2 0x100000000"
    "kelpth PDHDDCapaChange 0 3 0x4000000"
    "kelpth PDPrintModePage 0 2 3F 0 FF"
    "kelpth P p-read.txt"
    "kelpth ANY any-write.txt"
    "kelpth ANY any-sata.txt"
    "kelpth W stripe.txt"
    "kelpth R stripe.txt"
    "kelpth P missing.txt"
    "kelsim fault pass-status 4 --detail-hex 7000030000000000000000001100"
    "kelpth PDOneSectorRead 0 2 0x10"
    "kelsim journal"
)
failures=0 passes=0
for command in "${commands[@]}"; do
    read -ra words <<<"$command"
    valgrind --quiet --error-exitcode=99 --leak-check=full --errors-for-leak-kinds=definite \
        --show-leak-kinds=definite --log-file="$work/valgrind.log" \
        "$build/${words[0]}" "${words[@]:1}" >/dev/null 2>"$work/stderr"
    status=$?
    # 99: memcheck found something; 126 and up: the program did not run or was killed.
    if ((status == 99 || status >= 126)) || [[ -s $work/valgrind.log ]]; then
        failures=$((failures + 1))
        echo "FAIL $command (exit status $status)"
        cat "$work/valgrind.log" "$work/stderr"
    else
        passes=$((passes + 1))
    fi
done
echo "$passes passed, $failures failed"
((failures == 0))

#!/usr/bin/env bash
# Installs the build into a temporary prefix and runs the installed kelpth from an
# unrelated folder: it finds the simulated libraries in lib/kelpth/sim through its
# RUNPATH, and LD_LIBRARY_PATH still puts another implementation first.
# Usage: install_test.sh <build dir> <other implementation's folder>
set -uo pipefail
build=$1 altlib=$2
work=$(mktemp -d) && trap 'rm -rf "$work"' EXIT
prefix=$work/usr
failures=0 passes=0
check() { # check <name> <command...>
    local name=$1
    shift
    if "$@"; then passes=$((passes + 1)); else failures=$((failures + 1)) && echo "FAIL $name"; fi
}

cmake --install "$build" --prefix "$prefix" >"$work/install.log" || {
    cat "$work/install.log"
    exit 1
}
for file in bin/kelpth bin/kelsim lib/kelpth/sim/libkelctl.so lib/kelpth/sim/libkelpth.so lib/kelpth/sim/libkelsim.so \
    share/man/man1/kelpth.1.gz share/man/man1/kelsim.1.gz \
    share/bash-completion/completions/kelpth share/bash-completion/completions/kelsim; do
    check "installed $file" test -f "$prefix/$file"
done
check "nothing else in lib" test "$(find "$prefix/lib" -type f | wc -l)" -eq 3
check "RUNPATH, not RPATH" grep -q 'RUNPATH.*\[\$ORIGIN/../lib/kelpth/sim\]' <(readelf -d "$prefix/bin/kelpth")
# An empty RUNPATH entry (a leading, doubled or trailing colon) would make the loader
# search the current folder, in the build folder as well as once installed.
runpath_has_no_empty_entry() {
    readelf -d "$1" | grep -q RUNPATH && ! readelf -d "$1" | grep -qE 'RUNPATH.*\[(:|.*::|.*:\])'
}
for file in "$build/kelpth" "$build/libkelctl.so" "$build/libkelpth.so" "$prefix/bin/kelpth" \
    "$prefix/lib/kelpth/sim/libkelctl.so" "$prefix/lib/kelpth/sim/libkelpth.so"; do
    check "no empty RUNPATH entry in $file" runpath_has_no_empty_entry "$file"
done

mkdir -p "$work/run" && cd "$work/run" || exit 1
export KELSIM_DIR=$work/farm
unset LD_LIBRARY_PATH
check "kelsim reset" "$prefix/bin/kelsim" reset >/dev/null
"$prefix/bin/kelpth" PDOneSectorWrite 0 0 0x10 >write.out
check "write through the installed libraries" test $? -eq 0
"$prefix/bin/kelpth" PDOneSectorRead 0 0 0x10 >read.out
check "read through the installed libraries" test $? -eq 0
check "the written pattern reads back" grep -q '5A 5A 5A 5A' read.out
check "the trace log is in the current folder" test -s kelpth.log
LD_LIBRARY_PATH=$altlib "$prefix/bin/kelpth" PDOneSectorRead 0 0 0x10 >alt.out
check "LD_LIBRARY_PATH wins over the RUNPATH" grep -q 'A5 A5 A5 A5' alt.out

echo "$passes passed, $failures failed"
((failures == 0))

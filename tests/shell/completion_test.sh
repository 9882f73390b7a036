#!/usr/bin/env bash
# Sources the bash completions and calls their functions as bash would, against the
# built kelpth and kelsim on a farm of the test's own.
# Usage: completion_test.sh <source dir> <build dir>
set -uo pipefail
src=$1 build=$2
work=$(mktemp -d) && trap 'rm -rf "$work"' EXIT
export KELSIM_DIR=$work/farm PATH=$build:$PATH
unset LD_LIBRARY_PATH
cd "$work" || exit 1
kelsim reset >/dev/null || exit 1
# shellcheck source=/dev/null
source "$src/completion/kelpth"
# shellcheck source=/dev/null
source "$src/completion/kelsim"

failures=0 passes=0
# complete <function> <words...>: the last word is the one being completed.
complete_words() {
    local function=$1
    shift
    COMP_WORDS=("$@")
    COMP_CWORD=$((${#COMP_WORDS[@]} - 1))
    COMPREPLY=()
    "$function"
    printf '%s\n' "${COMPREPLY[@]}" | sort | tr '\n' ' ' | sed 's/ $//'
}
expect() { # expect <name> <wanted> <got>
    if [[ $2 == "$3" ]]; then
        passes=$((passes + 1))
    else
        failures=$((failures + 1))
        echo "FAIL $1: wanted [$2], got [$3]"
    fi
}

# The command words are exactly those of the program's own usage text.
usage_words=$(cd "$work" && kelpth | awk '$1 == "kelpth" { print $2 }' | sort | tr '\n' ' ' | sed 's/ $//')
expect "all command words" "$usage_words" "$(complete_words _kelpth kelpth '')"
expect "prefix" "PDHDDCapaChange PDOneSectorRead PDOneSectorWrite PDPrintModePage" "$(complete_words _kelpth kelpth PD)"
expect "case matters" "" "$(complete_words _kelpth kelpth pd)"

# File names where a file is expected, nothing where a number is.
touch param-read.txt param-write.txt other.bin
for command in P ANY E e N N5 A R W F; do
    expect "$command file" "param-read.txt param-write.txt" "$(complete_words _kelpth kelpth "$command" par)"
done
expect "D save file" "other.bin" "$(complete_words _kelpth kelpth D 0 0 0x10 oth)"
expect "no file for an address" "" "$(complete_words _kelpth kelpth PDOneSectorRead 0 0 par)"

# Numbers from the farm: controllers, occupied slots, logical drives of that controller.
expect "controllers" "0 1" "$(complete_words _kelpth kelpth PDOneSectorRead '')"
expect "slots of 0" "0 1 2 3 4 5 6" "$(complete_words _kelpth kelpth PDOneSectorWrite 0 '')"
expect "slots of 1" "0 1 2" "$(complete_words _kelpth kelpth D 1 '')"
expect "lds of 0" "0 1 2" "$(complete_words _kelpth kelpth r 0 '')"
expect "lds of 1" "0" "$(complete_words _kelpth kelpth w64 1 '')"
cat >"$KELSIM_DIR/farm.conf" <<'CONF'
controller 0
slot 5 sas vendor=V product=P revision=1 serial=S blocks=1000
CONF
expect "edited farm slots" "5" "$(complete_words _kelpth kelpth PDHDDCapaChange 0 '')"
expect "edited farm lds" "" "$(complete_words _kelpth kelpth LDOneSectorRead 0 '')"
# Another implementation first in LD_LIBRARY_PATH: the sim's farm says nothing about it.
mkdir -p other-libs && touch other-libs/libkelctl.so
expect "other library" "" "$(LD_LIBRARY_PATH=$work/other-libs complete_words _kelpth kelpth PDOneSectorRead '')"

# kelsim: every kind offered is one kelsim accepts.
expect "kelsim commands" "fault" "$(complete_words _kelsim kelsim fau)"
usage_commands=$(kelsim help 2>&1 | awk '/^  [a-z]/ { print $1 }' | sort -u)
for command in $usage_commands; do
    expect "kelsim offers $command" "$command" "$(complete_words _kelsim kelsim "$command" | tr ' ' '\n' | grep -x "$command")"
done
expect "journal option" "--clear" "$(complete_words _kelsim kelsim journal '')"
for kind in $(complete_words _kelsim kelsim fault ''); do
    [[ $kind == list || $kind == clear ]] && continue
    message=$(kelsim fault "$kind" 1 2>&1)
    expect "kelsim accepts $kind" "" "$(grep -i 'unknown fault' <<<"$message")"
done
expect "fault options" "--count --detail-hex --detail-text" "$(complete_words _kelsim kelsim fault pass-status 4 --)"

echo "$passes passed, $failures failed"
((failures == 0))

#!/usr/bin/env bash
# The manual pages format without a single groff warning, and they cover what the
# programs themselves offer: every command word of kelpth's usage text and every
# command of kelsim's.
# Usage: man_test.sh <source dir> <build dir>
set -uo pipefail
src=$1 build=$2
work=$(mktemp -d) && trap 'rm -rf "$work"' EXIT
failures=0 passes=0
check() { # check <name> <command...>: passes when the command succeeds
    local name=$1
    shift
    if "$@"; then passes=$((passes + 1)); else failures=$((failures + 1)) && echo "FAIL $name"; fi
}

for page in kelpth kelsim; do
    warnings=$(groff -ww -z -man "$src/doc/$page.1" 2>&1)
    check "$page.1 formats cleanly" test -z "$warnings"
    [[ -n $warnings ]] && echo "$warnings"
    # man -l renders it (the installed, compressed copy too) with nothing on stderr.
    check "$page.1 renders" test -z "$(MANWIDTH=80 man -l "$build/man/$page.1.gz" 2>&1 >/dev/null)"
done

# Rendered text, so that a word is found however the roff source marks it up.
kelpth_text=$(MANWIDTH=200 man -l "$src/doc/kelpth.1" 2>/dev/null)
usage=$(cd "$work" && "$build/kelpth")
entries=$(sed 's/^ *//; s/ *$//' <<<"$kelpth_text")
while read -r _ line; do
    # Each command word starts an entry with its arguments, as the usage text gives them.
    entry=$(sed 's/[<>]//g; s/ *$//' <<<"$line")
    check "kelpth.1: $entry" grep -qE "^$entry(  .*)?\$" <<<"$entries"
done < <(awk '$1 == "kelpth"' <<<"$usage")
for needle in "EXIT STATUS" "kelpth.log" "CntnDevm.txt" "PARAMETER FILES"; do
    check "kelpth.1 has $needle" grep -qF "$needle" <<<"$kelpth_text"
done

kelsim_text=$(MANWIDTH=200 man -l "$src/doc/kelsim.1" 2>/dev/null)
for command in $("$build/kelsim" 2>&1 | awk '/^  [a-z]/ { print $1 }' | sort -u); do
    check "kelsim.1: $command" grep -qE "^ +(kelsim )?$command( |\$)" <<<"$kelsim_text"
done
for variable in KELSIM_DIR XDG_STATE_HOME farm.conf state.db; do
    check "kelsim.1 has $variable" grep -qF "$variable" <<<"$kelsim_text"
done

echo "$passes passed, $failures failed"
((failures == 0))

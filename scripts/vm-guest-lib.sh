#!/bin/sh
# Helpers of the guest's check scripts (busybox sh), sourced by each: kelpth runs ("$K",
# parameter files), output searches, and the "PASS name" / "FAIL name" lines.
out=""
status=0
# tool COMMAND...: runs it, its output (both streams) in $out and its exit status in $status.
tool() {
  out=$("$@" 2>&1)
  status=$?
}
run() { tool "$K" "$@"; }
# A parameter file from its value lines, each after a comment line.
param() {
  : >/tmp/param.txt
  for value in "$@"; do printf '// value\n%s\n' "$value" >>/tmp/param.txt; done
}
# kelpth ANY with a parameter file of these values.
any() {
  param "$@"
  run ANY /tmp/param.txt
}
has() { printf '%s\n' "$out" | grep -qF -- "$1"; }
# The dump's character columns joined, so that a text split across lines can be found
# (the dump shows blanks and punctuation as dots).
dumped_text_has() { printf '%s\n' "$out" | grep -E '^[0-9A-F]{8}: ' | cut -c61-76 | tr -d '\n' | grep -qF -- "$1"; }
pass() { echo "PASS $1"; }
fail() {
  echo "FAIL $1: $2"
  printf '%s\n' "$out" | head -40 | sed 's/^/  | /'
}
# check NAME STATUS [TEXT...]: the last run ended with STATUS and printed every TEXT.
check() {
  name=$1 want=$2
  shift 2
  if [ "$status" != "$want" ]; then
    fail "$name" "exit status $status, wanted $want"
    return
  fi
  for text in "$@"; do
    if ! has "$text"; then
      fail "$name" "no \"$text\""
      return
    fi
  done
  pass "$name"
}

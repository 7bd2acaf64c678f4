#!/usr/bin/env bash
# svfsim started from the host: a persistent --root keeps the BMC between
# runs (a restore armed by one run is finished by the ticks of another),
# nothing lands on the host outside the root, and demo leaves no state behind.
#   hostCheck.sh <svfsim> [emulator words...]
set -euo pipefail

bin=$1
shift
run=("$@" "$bin")
tmp=$(mktemp -d "${TMPDIR:-/tmp}/svfsim-host.XXXXXX")
trap 'rm -rf "$tmp"' EXIT
root=$tmp/bmc
failures=0
fail() {
  echo "FAIL: $*"
  failures=$((failures + 1))
}
expect() {  # expect <pattern> <command...>: succeeds and prints the pattern
  local pattern=$1 out
  shift
  if ! out=$("${run[@]}" --root "$root" "$@" 2>&1); then
    fail "svfsim $*: non-zero exit"$'\n'"$out"
  elif ! grep -qF -- "$pattern" <<<"$out"; then
    fail "svfsim $*: no '$pattern' in"$'\n'"$out"
  fi
}

expect "created" init
[[ -f $root/conf/resolv.conf && -f $root/var/hsl/fru.bin ]] || fail "init wrote nothing under the root"
expect "backup file: /var/brask/BmcWeb.bak" backup
[[ -s $root/var/brask/BmcWeb.bak ]] || fail "no backup file under the root"
cp "$root/var/brask/BmcWeb.bak" "$tmp/outside.bak"
expect "restore pending: 'svfsim tick 10' runs it" restore --no-ticks
expect "tick 9: kill-process countdown 2 -> 1" tick 9
expect "reboot requested" tick
# A file outside the root is made visible for the restore.
expect "kill-process countdown set to 10" restore --file "$tmp/outside.bak" --no-ticks
grep -q '^reboot' "$root/var/log/sandbox-commands.log" || fail "no reboot in the root's command log"

before=$(find "${TMPDIR:-/tmp}" -maxdepth 1 -name 'brask-sandbox.*' | wc -l)
out=$("${run[@]}" demo 2>&1) || fail "svfsim demo failed"$'\n'"$out"
grep -qF "demo finished: every damaged file is back" <<<"$out" || fail "demo did not finish"$'\n'"$out"
after=$(find "${TMPDIR:-/tmp}" -maxdepth 1 -name 'brask-sandbox.*' | wc -l)
((after <= before)) || fail "demo left its temporary state directory"

if ((failures > 0)); then
  echo "svfsim host check: $failures failure(s)"
  exit 1
fi
echo "svfsim host check: all passed"

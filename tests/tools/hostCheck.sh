#!/usr/bin/env bash
# svfsim started from the host enters a sandbox of its own: its --root keeps
# the BMC between runs (a restore armed by one run is finished by the ticks
# of another), and what the library did lands under the root, not on the host.
#   hostCheck.sh <svfsim> [emulator words...]
set -euo pipefail
run=("${@:2}" "$1")  # a cross build's binary runs through its emulator
root=$(mktemp -d "${TMPDIR:-/tmp}/svfsim-host.XXXXXX")
trap 'rm -rf "$root"' EXIT
hostLog=$(stat -c '%Y %s' /var/log/sandbox-commands.log 2>/dev/null || echo absent)
fail() { echo "FAIL: $*"; exit 1; }
for step in init backup "restore --no-ticks"; do
  # shellcheck disable=SC2086
  "${run[@]}" --root "$root/bmc" $step >/dev/null || fail "svfsim $step"
done
out=$("${run[@]}" --root "$root/bmc" tick 10) || fail "svfsim tick 10"
grep -qF "reboot requested: the reboot command ran" <<<"$out" || fail "no reboot after tick 10: $out"
grep -q '^reboot' "$root/bmc/var/log/sandbox-commands.log" || fail "no reboot in the root's command log"
[[ -s $root/bmc/var/hsl/fru.bin && -f $root/bmc/conf/resolv.conf ]] || fail "nothing written under the root"
[[ $(stat -c '%Y %s' /var/log/sandbox-commands.log 2>/dev/null || echo absent) == "$hostLog" ]] ||
  fail "the host's command log changed"
echo "svfsim host check: passed"

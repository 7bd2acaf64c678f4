#!/usr/bin/env bash
# svfsim started from the host enters a sandbox of its own: its --root keeps
# the BMC between runs (a restore armed by one run is finished by the ticks
# of another), and what the library did lands under the root, not on the host.
#   hostCheck.sh <svfsim> [emulator words...]
set -euo pipefail
run=("${@:2}" "$1")  # a cross build's binary runs through its emulator
root=$(mktemp -d "${TMPDIR:-/tmp}/svfsim-host.XXXXXX")
trap 'rm -rf "$root"' EXIT
hostLog() { stat -c '%Y %s' /var/log/sandbox-commands.log 2>/dev/null || echo absent; }
before=$(hostLog)
for step in init backup "restore --no-ticks" "tick 10"; do
  # shellcheck disable=SC2086
  "${run[@]}" --root "$root/bmc" $step >/dev/null || { echo "FAIL: svfsim $step"; exit 1; }
done
grep -q '^reboot' "$root/bmc/var/log/sandbox-commands.log" && [[ -s $root/bmc/var/hsl/fru.bin ]] &&
  [[ $(hostLog) == "$before" ]] || { echo "FAIL: no reboot under the root, or the host's log changed"; exit 1; }
echo "svfsim host check: passed"

#!/usr/bin/env bash
# Runs test_sandbox, then checks from the host side that nothing it wrote
# inside appeared on the host.
#   hostCheck.sh <test_sandbox> [emulator words...]
set -euo pipefail
export BRASK_HOST_CHECK_TOKEN=hostcheck-$$-$RANDOM$RANDOM
log=/var/log/sandbox-commands.log
logBefore=$(stat -c '%Y %s' "$log" 2>/dev/null || echo absent)
"${@:2}" "$1"  # a cross build's binary runs through its emulator
for dir in /conf /var /conf/brask /var/brask /tmp /etc/init.d /usr; do
  [[ ! -e $dir/$BRASK_HOST_CHECK_TOKEN ]] || { echo "FAIL: $dir/$BRASK_HOST_CHECK_TOKEN on the host"; exit 1; }; done
[[ $(stat -c '%Y %s' "$log" 2>/dev/null || echo absent) == "$logBefore" ]] || { echo "FAIL: $log changed"; exit 1; }

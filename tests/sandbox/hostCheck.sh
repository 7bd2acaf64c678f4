#!/usr/bin/env bash
# Runs test_sandbox, then checks from the host side what the binary cannot
# see from inside: nothing it wrote appeared on the host, its exit status
# and a fatal signal came out unchanged, and the per-run state directory was
# removed in every case (also when the run is terminated from outside).
#   hostCheck.sh <test_sandbox> [emulator words...]
set -euo pipefail

bin=$1
shift
# A cross build's binary is started through its emulator (qemu-arm ...).
run=("$@" "$bin")
token=hostcheck-$$-$RANDOM$RANDOM
tmp=${TMPDIR:-/tmp}
export BRASK_HOST_CHECK_TOKEN=$token

failures=0
fail() {
  echo "FAIL: $*"
  failures=$((failures + 1))
}
hostLog=/var/log/sandbox-commands.log
logState() { stat -c '%Y %s' "$hostLog" 2>/dev/null || echo absent; }
leftState() { find "$tmp" -maxdepth 3 -path "$tmp/brask-sandbox.*/var/$token" 2>/dev/null || true; }
probe() { BRASK_SANDBOX_PROBE=$1 "${run[@]}" --gtest_filter='SandboxProbe.*' >/dev/null 2>&1; }
expectStatus() {  # expectStatus <status> <what> <command...>
  local want=$1 what=$2 status=0
  shift 2
  "$@" || status=$?
  [[ $status -eq $want ]] || fail "$what came out as status $status, expected $want"
}

logBefore=$(logState)
"${run[@]}" || fail "test_sandbox failed"
for path in /conf /var /conf/brask /var/brask /tmp /etc/init.d /usr; do
  [[ ! -e $path/$token ]] || fail "$path/$token appeared on the host"
done
[[ $(logState) == "$logBefore" ]] || fail "the host's $hostLog changed"

expectStatus 7 "exit status 7 inside" probe exit:7
expectStatus 134 "an abort inside" probe abort

# Terminated from outside while running: the sandbox goes down with us and
# the state directory is still removed.
BRASK_SANDBOX_PROBE=sleep "${run[@]}" --gtest_filter='SandboxProbe.*' >/dev/null 2>&1 &
pid=$!
for _ in $(seq 100); do
  [[ -n $(leftState) ]] && break
  sleep 0.1
done
[[ -n $(leftState) ]] || fail "the sleeping probe never started"
kill -TERM "$pid"
expectStatus 143 "a terminated run" wait "$pid"
left=$(leftState)
[[ -z $left ]] || fail "state directories not removed: $left"

if ((failures > 0)); then
  echo "$failures host-side sandbox check(s) failed"
  exit 1
fi
echo "host side: no marker escaped, exit statuses kept, state directories removed"

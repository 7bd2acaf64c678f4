#!/bin/sh
# Counts the processes one web-console backup starts: runs `bench_backup
# --one-shot` (or --one-shot-first, every backup copy missing) under strace
# and keeps the part of the log between its two marker shells.
# Usage: bench/countBackupProcesses.sh <build dir>/bench/bench_backup [--one-shot-first]
set -eu
bench=${1:?usage: $0 path/to/bench_backup [--one-shot-first]}
mode=${2:---one-shot}
log=$(mktemp /tmp/brask-backup-strace.XXXXXX)
trap 'rm -f "$log"' EXIT
strace -f -e trace=execve,clone,clone3,fork,vfork -o "$log" "$bench" "$mode"
awk '/brask-bench-begin/ { on = 1; next } /brask-bench-end/ { on = 0 } on' "$log" >"$log.cut"
mv "$log.cut" "$log"
# The last creation is the end marker's own (its execve line comes after it).
created=$(grep -cE ' (clone|clone3|fork|vfork)\(' "$log")
echo "processes started by the backup: $((created - 1))"
echo "programs run (execve): $(grep -c ' execve(' "$log")"
grep ' execve(' "$log" | sed 's/^[0-9]* execve("\([^"]*\)".*/\1/' | sort | uniq -c

#!/usr/bin/env bash
# Runs one libFuzzer target for a while, on its seed corpus, in a private
# /dev/shm of its own (16 MiB: the sync manager is asked for memories of any
# size). New inputs go to build/fuzz/corpus/<target>, findings to
# build/fuzz/findings/<target>; the seeds in fuzz/corpus stay as they are.
# Usage: scripts/fuzz.sh TARGET SECONDS [libFuzzer option]...
#   TARGET   variant_text, natural_compare, safe_array, serial_frame or sync_manager
# Builds the fuzz preset first. Exits non-zero on a finding; prints the
# executions reached.
set -euo pipefail
cd "$(dirname "$0")/.."
[ $# -ge 2 ] || { sed -n '2,9p' "$0" >&2; exit 2; }
target=$1 seconds=$2
shift 2
[ -f "fuzz/$target.cpp" ] || { echo "fuzz: no target $target" >&2; exit 2; }

cmake --preset fuzz >/dev/null
cmake --build --preset fuzz --target "fuzz_$target" >/dev/null
corpus=build/fuzz/corpus/$target findings=build/fuzz/findings/$target
mkdir -p "$corpus" "$findings"
log=build/fuzz/$target.log
status=0
KORVANE_PRIVATE_SHM_SIZE=16m tests/support/private-shm.sh "build/fuzz/fuzz/fuzz_$target" \
    -max_total_time="$seconds" -timeout=10 -rss_limit_mb=2048 -print_final_stats=1 \
    -artifact_prefix="$findings/" "$@" "$corpus" "fuzz/corpus/$target" >"$log" 2>&1 || status=$?
executions=$(sed -n 's/^stat::number_of_executed_units: *//p' "$log" | tail -1)
echo "fuzz $target: ${executions:-no} executions in ${seconds}s, $([ $status -eq 0 ] && echo 'no finding' || echo "FAILED (status $status, see $log)")"
exit $status

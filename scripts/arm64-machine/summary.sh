#!/usr/bin/env bash
# Reads the arm64 machine's console output and prints one line per test
# executable and a verdict; exits non-zero unless the machine finished, every
# listed executable reported, at least one test ran and nothing failed.
# Usage: summary.sh <console-log> <executables> <machine-status> <time-limit> <elapsed>
set -euo pipefail
console=$1 expected=$2 machine_status=$3 time_limit=$4 elapsed=$5

finished=0
grep -q 'KORVANE-DONE' "$console" && finished=1

echo
echo "=== arm64 machine: results"
# A kernel message may share a console line with ours, so the marker is
# looked for anywhere in the line.
grep -o 'KORVANE-RESULT .*' "$console" | awk \
    -v expected="$expected" -v finished="$finished" -v machine_status="$machine_status" \
    -v time_limit="$time_limit" -v elapsed="$elapsed" '
  {
    delete f
    for (i = 3; i <= NF; i++) { split($i, kv, "="); f[kv[1]] = kv[2] + 0 }
    state = "ok"
    if (f["status"] == 137) state = "killed at the time limit"
    else if (f["status"] > 128) state = "killed by signal " f["status"] - 128
    else if (f["status"] != 0) state = "exit status " f["status"]
    else if (f["failed"] > 0) state = "failed"
    if (state != "ok" || f["failed"] > 0) bad++
    printf "%-36s %5d run %5d passed %4d failed %4d skipped  %s\n", $2,
        f["run"], f["passed"], f["failed"], f["skipped"], state
    executables++; run += f["run"]; passed += f["passed"]
    failed += f["failed"]; skipped += f["skipped"]
  }
  END {
    if (machine_status == 124 || machine_status == 137)
      reason = "the machine did not finish within " time_limit "s"
    else if (!finished)
      reason = "the machine stopped before finishing (qemu status " machine_status ")"
    else if (executables < expected)
      reason = "only " executables + 0 " of " expected " test executables reported"
    else if (run == 0)
      reason = "no test ran"
    else if (bad > 0)
      reason = bad " of " executables " test executables failed"
    counts = sprintf("%d tests in %d executables (%d passed, %d failed, %d skipped) in %ds",
        run, executables, passed, failed, skipped, elapsed)
    if (reason != "") { print "arm64 machine: FAILED: " reason "; " counts; exit 1 }
    print "arm64 machine: passed: " counts
  }'

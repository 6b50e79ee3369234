#!/usr/bin/env bash
# The whole test suite: GCC natively, Clang with AddressSanitizer and
# UndefinedBehaviorSanitizer, and the aarch64 cross build under qemu-aarch64.
# Every suite runs even when an earlier one failed; the exit status is
# non-zero when any failed.
set -uo pipefail
cd "$(dirname "$0")/.."
scripts/install-deps.sh test || exit 1

suites=(native sanitize aarch64)
declare -A outcome
failed=0
for preset in "${suites[@]}"; do
  echo "=== ${preset}: configure and build"
  log=build/${preset}-ctest.log
  mkdir -p build
  if cmake --preset "$preset" && cmake --build --preset "$preset"; then
    echo "=== ${preset}: test"
    ctest --preset "$preset" 2>&1 | tee "$log"
    if [ "${PIPESTATUS[0]}" -eq 0 ]; then
      outcome[$preset]="passed: $(grep -E 'tests passed' "$log" | tail -1)"
    else
      outcome[$preset]="FAILED: $(grep -E 'tests passed|tests failed' "$log" | tail -1)"
      failed=1
    fi
  else
    outcome[$preset]="FAILED: build"
    failed=1
  fi
done

echo
echo "=== summary"
for preset in "${suites[@]}"; do
  printf '%-10s %s\n' "$preset" "${outcome[$preset]}"
done
exit $failed

#!/usr/bin/env bash
# The whole test suite: GCC natively, Clang with AddressSanitizer and
# UndefinedBehaviorSanitizer, Clang with ThreadSanitizer, each fuzz target
# for a bounded spell, and the aarch64 cross build under qemu-aarch64 and
# again on a real arm64 kernel in an emulated machine; then installation
# into a temporary prefix with two out-of-tree consumers, the Debian packages
# of both architectures, a build of the benchmarks, and a check that no
# script names a host. Every test runs with its own private /dev/shm, so a
# sync manager running on the machine changes nothing. Every step runs even
# when an earlier one failed; the exit status is non-zero when any failed.
set -uo pipefail
cd "$(dirname "$0")/.."
scripts/install-deps.sh test || exit 1
mkdir -p build

steps=()
declare -A outcome
failed=0

record() { # record <step> <status> <detail>
  steps+=("$1")
  if [ "$2" -eq 0 ]; then
    outcome[$1]="passed${3:+: $3}"
  else
    outcome[$1]="FAILED${3:+: $3}"
    failed=1
  fi
}

# Configures, builds and tests one preset, keeping ctest's summary line.
run_tests() {
  local preset=$1 log=build/$1-ctest.log
  echo "=== ${preset}: configure and build"
  if ! { cmake --preset "$preset" && cmake --build --preset "$preset"; }; then
    record "$preset" 1 "build"
    return
  fi
  echo "=== ${preset}: test"
  ctest --preset "$preset" 2>&1 | tee "$log"
  local status=${PIPESTATUS[0]}
  record "$preset" "$status" "$(grep -E 'tests passed' "$log" | tail -1)"
}

run_check() { # run_check <step> <command>...
  local step=$1
  shift
  echo "=== ${step}"
  "$@"
  record "$step" $? ""
}

# Runs the executables of the aarch64 step again on a real arm64 kernel in an
# emulated machine, the OwnerDeath tests included; keeps its verdict line.
run_arm64_machine() {
  local log=build/arm64-vm.log
  echo "=== arm64-vm: the aarch64 tests on an emulated arm64 machine"
  if [ "${outcome[aarch64]:-}" = "FAILED: build" ]; then
    record arm64-vm 1 "nothing to run, the aarch64 build failed"
    return
  fi
  scripts/arm64-machine.sh 2>&1 | tee "$log"
  local status=${PIPESTATUS[0]}
  record arm64-vm "$status" \
    "$(sed -nE 's/^arm64 machine: (passed|FAILED): //p' "$log" | tail -1)"
}

# Each fuzz target for KORVANE_FUZZ_SECONDS (20) from its seeds; the
# executions reached are kept in the step's line.
run_fuzz() {
  local log=build/fuzz-step.log status=0
  echo "=== fuzz: each target for ${KORVANE_FUZZ_SECONDS:-20}s"
  : >"$log"
  for source in fuzz/*.cpp; do
    target=$(basename "$source" .cpp)
    scripts/fuzz.sh "$target" "${KORVANE_FUZZ_SECONDS:-20}" | tee -a "$log" || status=1
  done
  record fuzz "$status" "$(sed -nE 's/^fuzz ([a-z_]+): ([0-9]+) executions.*/\1 \2/p' "$log" | paste -sd ' ')"
}

# Package hosts and mirrors come from the machine's own configuration; no
# script names one.
check_no_hosts() {
  ! git ls-files -z scripts .ci | xargs -0 grep -nE 'https?://'
}

run_tests native
run_check install scripts/check-install.sh build/native
run_tests sanitize
run_tests tsan
run_fuzz
run_tests aarch64
run_arm64_machine
run_check packages bash -c 'scripts/check-packages.sh build/native amd64 && scripts/check-packages.sh build/aarch64 arm64'
# The benchmarks are built (not run) so they cannot rot unnoticed.
run_check bench bash -c 'cmake --preset bench >/dev/null && cmake --build --preset bench'
run_check no-hosts check_no_hosts

echo
echo "=== summary"
for step in "${steps[@]}"; do
  printf '%-10s %s\n' "$step" "${outcome[$step]}"
done
exit $failed

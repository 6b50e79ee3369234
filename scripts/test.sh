#!/usr/bin/env bash
# The whole test suite: GCC natively, Clang with AddressSanitizer and
# UndefinedBehaviorSanitizer, Clang with ThreadSanitizer, each fuzz target
# for a bounded spell, a minute of the chaos run, and the aarch64 cross build
# under qemu-aarch64 and again on a real arm64 kernel in an emulated machine;
# then installation into a temporary prefix with two out-of-tree consumers and
# the examples, the HTML reference (undocumented public names fail it), the
# Debian packages of both architectures, a build of the benchmarks, and a
# check that no script names a host. Every test runs with its own private
# /dev/shm, so a sync manager running on the machine changes nothing. Every step runs even
# when an earlier one failed; the exit status is non-zero when any failed.
#   scripts/test.sh [STEP...]   runs the named steps, all of them when none is named
set -uo pipefail
cd "$(dirname "$0")/.."

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

# Configures, builds and tests one preset through its workflow, keeping
# ctest's summary line; a workflow that stopped before its tests failed to
# build.
run_workflow() { # run_workflow <step>
  local preset=$1 log=build/$1-workflow.log
  echo "=== ${preset}: configure, build and test"
  cmake --workflow --preset "$preset" 2>&1 | tee "$log"
  local status=${PIPESTATUS[0]} summary
  summary=$(grep -E 'tests passed' "$log" | tail -1)
  if [ "$status" -ne 0 ] && [ -z "$summary" ]; then
    summary="build"
  fi
  record "$preset" "$status" "$summary"
}

run_check() { # run_check <command>...: the step being run passes when the command does
  echo "=== ${current_step}"
  "$@"
  record "$current_step" $? ""
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

# The steps, in the order a full run takes them: step <name> <command>...
declare -A step_command
all_steps=()
step() { all_steps+=("$1"); step_command[$1]="${*:2}"; }
step native   run_workflow native
# A minute of random kills and stops of workers, the manager and its
# restarts (a private /dev/shm, the native build's korvane-syncd).
step chaos    run_check scripts/chaos.sh --seconds 60
step install  run_check scripts/check-install.sh build/native
# The HTML reference, failing on any undocumented public name.
step docs     run_check bash -c "'cmake --preset native -DKORVANE_DOCS_STRICT=ON >/dev/null && cmake --build --preset native --target docs'"
step sanitize run_workflow sanitize
step tsan     run_workflow tsan
step fuzz     run_fuzz
step aarch64  run_workflow aarch64
step arm64-vm run_arm64_machine
step packages run_check bash -c "'scripts/check-packages.sh build/native amd64 && scripts/check-packages.sh build/aarch64 arm64'"
# The benchmarks are built (not run) so they cannot rot unnoticed.
step bench    run_workflow bench
step no-hosts run_check check_no_hosts

requested=("$@")
[ ${#requested[@]} -eq 0 ] && requested=("${all_steps[@]}")
for name in "${requested[@]}"; do
  if [ -z "${step_command[$name]+set}" ]; then
    echo "unknown step '$name'; steps: ${all_steps[*]}" >&2
    exit 2
  fi
done
scripts/install-deps.sh test || exit 1
mkdir -p build
for current_step in "${requested[@]}"; do
  eval "${step_command[$current_step]}"
done

echo
echo "=== summary"
for step in "${steps[@]}"; do
  printf '%-10s %s\n' "$step" "${outcome[$step]}"
done
exit $failed

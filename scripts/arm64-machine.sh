#!/usr/bin/env bash
# Runs the cross-built test suite on a real arm64 Linux kernel: a Debian arm64
# kernel boots in qemu-system-aarch64's virt machine with a small initramfs
# holding the cross toolchain's runtime libraries, Debian's shell tools,
# libKorvane.so and every test executable of the aarch64 build, runs them all
# (the OwnerDeath tests included: this kernel reports a dead robust-mutex
# owner, which the user-mode emulator cannot) and powers off. The console
# output becomes the result: failure when a test fails, when no test ran or
# when the machine does not finish within its time limit.
#
# Usage: scripts/arm64-machine.sh [--build]
#   --build  configure and build the aarch64 preset first; without it the
#            executables already built are used as they stand.
# Environment (all optional):
#   KORVANE_ARM64_BUILD_DIR     cross build tree to take the tests from (build/aarch64)
#   KORVANE_ARM64_TIME_LIMIT    seconds the whole machine may run (420)
#   KORVANE_ARM64_TEST_TIMEOUT  seconds one test executable may run (240)
#   KORVANE_ARM64_CPU           emulated processor (cortex-a57)
#   KORVANE_ARM64_ONLY          run only the executables whose names match this
#                               extended regular expression
#   GTEST_FILTER, GTEST_REPEAT  passed on to the executables in the machine, to
#                               chase one test there
set -euo pipefail
cd "$(dirname "$0")/.."

build_first=0
case "${1:-}" in
  --build) build_first=1 ;;
  "") ;;
  *) echo "usage: $0 [--build]" >&2; exit 2 ;;
esac

build_dir=$(realpath -m "${KORVANE_ARM64_BUILD_DIR:-build/aarch64}")
time_limit=${KORVANE_ARM64_TIME_LIMIT:-420}
test_timeout=${KORVANE_ARM64_TEST_TIMEOUT:-240}
# An Armv8.0 core without the LSE atomics: the library's atomics take the
# load/store-exclusive path of the many cores like it (qemu-aarch64's default
# processor has LSE), and a misaligned atomic faults.
cpu=${KORVANE_ARM64_CPU:-cortex-a57}
cache=build/arm64vm-cache
work=build/arm64vm-run
sysroot=/usr/aarch64-linux-gnu
helpers=scripts/arm64-machine

fail() { echo "arm64 machine: FAILED: $*"; exit 1; }
# Whatever stops the preparation (a download, a missing tool) still ends in a
# verdict line, which scripts/test.sh reports.
trap 'echo "arm64 machine: FAILED: preparing the machine (line $LINENO of $0)"' ERR

scripts/install-deps.sh vm
if [ "$build_first" -eq 1 ]; then
  cmake --preset aarch64
  cmake --build --preset aarch64
fi

is_elf() { [ "$(head -c 4 "$1" 2>/dev/null | od -An -c | tr -d ' ')" = '177ELF' ]; }

# Every test executable the build defines (the list CMake writes), not
# whatever lies in the tree: suites that were removed leave stale binaries.
test_executables() {
  [ -f "$build_dir/test-executables.txt" ] || return 0
  LC_ALL=C sort "$build_dir/test-executables.txt" | while read -r file; do
    [ -n "$file" ] && is_elf "$file" && echo "$file"
  done
}

mapfile -t executables < <(test_executables | grep -E "/[^/]*(${KORVANE_ARM64_ONLY:-.})[^/]*$")
[ ${#executables[@]} -gt 0 ] ||
  fail "no test executables listed in $build_dir/test-executables.txt (build them with: cmake --preset aarch64 && cmake --build --preset aarch64)"

"$helpers/fetch.sh" "$cache"

echo "arm64 machine: building the initramfs ($(cat "$cache/kernel-version"))"
root=$work/root
rm -rf "$root"
mkdir -p "$root"/{bin,sbin,usr/bin,usr/sbin,usr/libexec,lib,etc/korvane,proc,sys,dev,tmp,root}
ln -s lib "$root/lib64"
ln -s ../lib "$root/usr/lib"
cp "$helpers/init" "$root/init"
install -m 755 tests/support/private-shm.sh "$root/usr/libexec/korvane-private-shm"
cp "$cache/busybox" "$root/bin/busybox"
chmod 755 "$root/init" "$root/bin/busybox"

# The cross toolchain's runtime: the loader, libc, libstdc++, libgcc_s, libm
# and the rest, where the executables' interpreter path expects them. The
# sanitizer runtimes are left out: nothing here is built with them.
for lib in "$sysroot"/lib/*.so*; do
  case "${lib##*/}" in lib[aht]san.*|liblsan.*|libubsan.*) continue ;; esac
  cp -P "$lib" "$root/lib/"
done
# Debian's own tools where a Debian system has them, so commands the tests
# run through the shell behave as they do there (busybox, a multi-call
# program, does not survive being copied or started under another name).
cp -a "$cache/userland/." "$root/"

# The build tree's binaries at the same absolute paths as on the host, so the
# executables' run paths find libKorvane.so and the tests find the programs
# they start. Debug information is stripped: it only makes the image bigger.
while read -r file; do
  target=$root$file
  mkdir -p "${target%/*}"
  if [ -L "$file" ]; then
    cp -P "$file" "$target"
  elif is_elf "$file"; then
    aarch64-linux-gnu-strip --strip-debug -o "$target" "$file"
  fi
done < <(find "$build_dir" -path '*/CMakeFiles' -prune -o \
           \( -type f -o -type l \) \( -name '*.so' -o -name '*.so.*' -o -perm -u+x \) -print)

# A cross build starts helper programs through the user-mode emulator it was
# configured with; here they run natively, through a stand-in at that path.
emulator=$(sed -n 's/^KORVANE_QEMU_AARCH64:FILEPATH=//p' "$build_dir/CMakeCache.txt" 2>/dev/null)
if [ -n "$emulator" ] && [ "${emulator#/}" != "$emulator" ]; then
  mkdir -p "$root${emulator%/*}"
  install -m 755 "$helpers/emulator-stand-in" "$root$emulator"
fi

# Every library any program in the image needs must be in it: a missing one
# would otherwise show up only as a confusing failure inside the machine.
check_libraries() {
  local have missing=""
  have=$(find "$root" \( -type f -o -type l \) -name '*.so*' -printf '%f\n' | sort -u)
  while read -r needed; do
    grep -qxF "$needed" <<<"$have" || missing+=" $needed"
  done < <(find "$root" -type f -perm -u+x -print0 | xargs -0 aarch64-linux-gnu-readelf -d 2>/dev/null |
             sed -n 's/.*(NEEDED).*\[\(.*\)\]/\1/p' | sort -u)
  [ -z "$missing" ] || fail "libraries missing from the machine:$missing"
}
check_libraries

printf '%s\n' "${executables[@]}" >"$root/etc/korvane/tests"
quote() { printf "'%s'" "${1//\'/\'\\\'\'}"; }
{
  echo "TEST_TIMEOUT=$test_timeout"
  for name in GTEST_FILTER GTEST_REPEAT; do
    [ -n "${!name:-}" ] && echo "export $name=$(quote "${!name}")"
  done
} >"$root/etc/korvane/config"
echo 'root:x:0:0:root:/root:/bin/sh' >"$root/etc/passwd"
printf 'root:x:0:\ntty:x:5:\n' >"$root/etc/group"
echo '127.0.0.1 localhost' >"$root/etc/hosts"

image=$work/initramfs.cpio
(cd "$root" && find . | LC_ALL=C sort | cpio -o -H newc -R 0:0 --quiet) >"$image"

echo "arm64 machine: booting ($cpu, 2 processors, ${#executables[@]} test executables, limit ${time_limit}s)"
console=$work/console.log
started=$SECONDS
set +e
timeout -k 10 "$time_limit" qemu-system-aarch64 \
    -M virt -cpu "$cpu" -smp 2 -m 2048 -accel tcg,thread=multi \
    -nodefaults -display none -serial stdio -no-reboot \
    -kernel "$cache/vmlinuz" -initrd "$image" \
    -append "console=ttyAMA0 rdinit=/init panic=-1 quiet loglevel=3" \
    </dev/null | tr -d '\r' | tee "$console"
machine_status=${PIPESTATUS[0]}
set -e
elapsed=$((SECONDS - started))

trap - ERR
"$helpers/summary.sh" "$console" "${#executables[@]}" "$machine_status" "$time_limit" "$elapsed"

#!/usr/bin/env bash
# Installs, with apt-get, whatever a job of this repository needs and the
# machine lacks. Usage: install-deps.sh demo|test|bench|vm
# (test covers everything scripts/test.sh builds, benchmarks included)
set -euo pipefail

job=${1:-test}
packages=()
need_command() { command -v "$1" >/dev/null 2>&1 || packages+=("$2"); }
need_path() { [ -e "$1" ] || packages+=("$2"); }
need_glob() { compgen -G "$1" >/dev/null || packages+=("$2"); }

need_command cmake cmake
need_command ninja ninja-build
need_command g++ g++
need_command pkg-config pkg-config
case "$job" in
  test|vm)
    need_command clang++ clang
    # Only recommended by clang, so absent after a --no-install-recommends install.
    need_glob '/usr/lib/llvm-*/lib/clang/*/lib/linux/libclang_rt.asan-x86_64.a' libclang-rt-14-dev
    need_path /usr/include/benchmark/benchmark.h libbenchmark-dev
    need_path /usr/src/googletest/CMakeLists.txt googletest
    need_command aarch64-linux-gnu-g++ g++-aarch64-linux-gnu
    need_command qemu-aarch64 qemu-user
    need_command killall psmisc
    need_command awk gawk
    need_command doxygen doxygen
    ;;
esac
case "$job" in
  vm)
    need_command qemu-system-aarch64 qemu-system-arm
    need_command cpio cpio
    # The arm64 machine's kernel and tools come from Debian's archive.
    need_path /usr/share/keyrings/debian-archive-keyring.gpg debian-archive-keyring
    ;;
  bench)
    need_path /usr/include/benchmark/benchmark.h libbenchmark-dev
    ;;
esac

[ ${#packages[@]} -eq 0 ] && exit 0
echo "installing: ${packages[*]}"
sudo=""
[ "$(id -u)" -eq 0 ] || sudo="sudo"
export DEBIAN_FRONTEND=noninteractive
$sudo apt-get update -q
$sudo apt-get install -y -q --no-install-recommends "${packages[@]}"

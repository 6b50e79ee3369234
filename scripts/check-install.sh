#!/usr/bin/env bash
# Installs a built tree into a temporary prefix and builds two consumers out
# of tree against it, one through find_package(Korvane), one through
# pkg-config, then runs both; then the same for the C++ layer's examples, each
# run in a private IPC and mount namespace with its own /dev/shm, since they
# create named objects and run a sync manager. Usage: check-install.sh <build-dir>
set -euo pipefail
cd "$(dirname "$0")/.."
build=${1:?usage: check-install.sh <build-dir>}
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT
prefix=$work/prefix

cmake --install "$build" --prefix "$prefix" >/dev/null
for expected in include/korvane/korvane.h include/korvane/korvane.hpp include/korvane/cpp/sync.hpp lib/libKorvane.so lib/cmake/Korvane/KorvaneConfig.cmake \
                lib/cmake/Korvane/KorvaneConfigVersion.cmake lib/cmake/Korvane/KorvaneTargets.cmake \
                lib/pkgconfig/korvane.pc bin/korvane-syncd bin/korvane-shm lib/systemd/system/korvane-syncd.service; do
  [ -e "$prefix/$expected" ] || { echo "install: missing $expected"; exit 1; }
done
echo "install: layout complete under a temporary prefix"

cmake -S tests/consumers -B "$work/find-package" -G Ninja -DCMAKE_PREFIX_PATH="$prefix" >/dev/null
cmake --build "$work/find-package" >/dev/null
LD_LIBRARY_PATH="$prefix/lib" "$work/find-package/consumer"
echo "install: find_package(Korvane) consumer built and ran"

flags=$(PKG_CONFIG_PATH="$prefix/lib/pkgconfig" pkg-config --cflags --libs korvane)
g++ -std=c++17 tests/consumers/consumer.cpp $flags -o "$work/pkg-config-consumer"
LD_LIBRARY_PATH="$prefix/lib" "$work/pkg-config-consumer"
echo "install: pkg-config consumer built and ran ($flags)"

examples=(frame_share single_instance shared_config natural_listing serial_reader)
private_shm=(unshare --ipc --mount)
[ "$(id -u)" -eq 0 ] || private_shm+=(--map-root-user)
run_examples() { # run_examples <folder> <how they were built>
  for example in "${examples[@]}"; do
    LD_LIBRARY_PATH="$prefix/lib" timeout 120 "${private_shm[@]}" \
      sh -c 'mount -t tmpfs tmpfs /dev/shm && exec "$0"' "$1/$example" >"$work/$example.log" 2>&1 ||
      { cat "$work/$example.log"; echo "install: example $example ($2) FAILED"; exit 1; }
  done
  echo "install: ${#examples[@]} examples built through $2 and ran"
}

cmake -S examples -B "$work/examples" -G Ninja -DCMAKE_PREFIX_PATH="$prefix" >/dev/null
cmake --build "$work/examples" >/dev/null
run_examples "$work/examples" "find_package(Korvane)"

mkdir "$work/pkg-config-examples"
for example in "${examples[@]}"; do
  g++ -std=c++17 "examples/$example.cpp" $flags -o "$work/pkg-config-examples/$example"
done
run_examples "$work/pkg-config-examples" pkg-config

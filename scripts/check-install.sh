#!/usr/bin/env bash
# Installs a built tree into a temporary prefix and builds two consumers out
# of tree against it, one through find_package(Korvane), one through
# pkg-config, then runs both. Usage: check-install.sh <build-dir>
set -euo pipefail
cd "$(dirname "$0")/.."
build=${1:?usage: check-install.sh <build-dir>}
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT
prefix=$work/prefix

cmake --install "$build" --prefix "$prefix" >/dev/null
for expected in include/korvane/korvane.h lib/libKorvane.so lib/cmake/Korvane/KorvaneConfig.cmake \
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

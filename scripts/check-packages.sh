#!/usr/bin/env bash
# Builds the Debian packages of a build tree with CPack and checks their
# architecture and contents. Usage: check-packages.sh <build-dir> <amd64|arm64>
set -euo pipefail
cd "$(dirname "$0")/.."
build=${1:?usage: check-packages.sh <build-dir> <architecture>}
arch=${2:?usage: check-packages.sh <build-dir> <architecture>}
out=$build/packages
rm -rf "$out"
(cd "$build" && cpack -G DEB -B "$PWD/packages" >/dev/null)

check() { # check <package> <path>...
  local package=$1; shift
  local deb
  deb=$(ls "$out"/"${package}"_*_"${arch}".deb 2>/dev/null | head -1)
  [ -n "$deb" ] || { echo "packages: no ${package} package for ${arch}"; ls "$out"; exit 1; }
  [ "$(dpkg-deb -f "$deb" Architecture)" = "$arch" ] || { echo "packages: $deb is not $arch"; exit 1; }
  local listing
  listing=$(dpkg-deb -c "$deb")
  for path in "$@"; do
    grep -q -- " \./usr/${path}\$" <<<"$listing" || { echo "packages: $deb lacks /usr/$path"; echo "$listing"; exit 1; }
  done
  if grep -qE 'gtest|gmock|_tests$|korvane-demo' <<<"$listing"; then
    echo "packages: $deb carries test or demo files"; exit 1
  fi
  echo "packages: $(basename "$deb") ($(grep -c '^-' <<<"$listing") files) ok"
}
check libkorvane lib/libKorvane.so
check libkorvane-dev include/korvane/korvane.h include/korvane/sync.h lib/cmake/Korvane/KorvaneConfig.cmake \
  lib/pkgconfig/korvane.pc
check korvane-tools bin/korvane-syncd bin/korvane-shm lib/systemd/system/korvane-syncd.service
unit=$(dpkg-deb --fsys-tarfile "$out"/korvane-tools_*_"${arch}".deb | tar -xO ./usr/lib/systemd/system/korvane-syncd.service)
grep -qE "^ExecStart=/usr/bin/korvane-syncd( |$)" <<<"$unit" || { echo "packages: the unit does not start /usr/bin/korvane-syncd"; exit 1; }
echo "packages: systemd unit starts /usr/bin/korvane-syncd"
dpkg-deb --info "$out"/korvane-tools_*_"${arch}".deb postinst | grep -q 'systemd-sysusers korvane.conf' ||
  { echo "packages: korvane-tools does not make the service's group on installation"; exit 1; }

#!/usr/bin/env bash
# Fetches an arm64 Linux kernel and a static busybox from Debian's arm64
# packages into a cache folder, once: a second run finds them there and
# downloads nothing. apt runs with a private sources list, state and cache
# inside the cache folder, so the host's own apt setup is left as it is.
# Usage: fetch.sh <cache-dir>
# Leaves <cache-dir>/vmlinuz and <cache-dir>/busybox.
set -euo pipefail

cache=$(realpath -m "$1")
[ -s "$cache/vmlinuz" ] && [ -x "$cache/busybox" ] && exit 0

# The same release as the host unless told otherwise; the mirror can be
# pointed elsewhere for machines behind their own.
. /etc/os-release
suite=${KORVANE_ARM64_SUITE:-${VERSION_CODENAME:-bookworm}}
mirror=${KORVANE_ARM64_MIRROR:-http://deb.debian.org/debian}
security=${KORVANE_ARM64_SECURITY_MIRROR:-http://deb.debian.org/debian-security}
keyring=/usr/share/keyrings/debian-archive-keyring.gpg

apt_dir=$cache/apt
mkdir -p "$apt_dir"/lists/partial "$apt_dir"/archives/partial "$apt_dir"/sources.list.d "$cache/debs"
: >"$apt_dir/status"
cat >"$apt_dir/sources.list" <<SOURCES
deb [arch=arm64 signed-by=$keyring] $mirror $suite main
deb [arch=arm64 signed-by=$keyring] $mirror $suite-updates main
deb [arch=arm64 signed-by=$keyring] $security $suite-security main
SOURCES

apt_options=(
  -o "APT::Architecture=arm64" -o "APT::Architectures::=arm64"
  -o "Dir::Etc::SourceList=$apt_dir/sources.list"
  -o "Dir::Etc::SourceParts=$apt_dir/sources.list.d"
  -o "Dir::State::Lists=$apt_dir/lists"
  -o "Dir::State::status=$apt_dir/status"
  -o "Dir::Cache=$apt_dir" -o "Dir::Cache::archives=$apt_dir/archives"
  -o "Dir::Cache::pkgcache=" -o "Dir::Cache::srcpkgcache="
  -o "Debug::NoLocking=1" -o "APT::Sandbox::User=root"
)

echo "arm64 machine: fetching the package lists of Debian $suite for arm64"
apt-get -q "${apt_options[@]}" update

# The newest unsigned cloud kernel of the release: it boots on QEMU's virt
# machine with everything it needs built in, no modules required.
kernel_package=$(apt-cache "${apt_options[@]}" search --names-only \
    '^linux-image-[0-9.]+-[0-9]+-cloud-arm64-unsigned$' | awk '{print $1}' | sort -V | tail -1)
[ -n "$kernel_package" ] || { echo "arm64 machine: no cloud-arm64 kernel package found" >&2; exit 1; }

echo "arm64 machine: downloading $kernel_package and busybox-static"
rm -f "$cache"/debs/*.deb
(cd "$cache/debs" && apt-get -q "${apt_options[@]}" download "$kernel_package" busybox-static)

unpacked=$cache/unpacked
rm -rf "$unpacked"
mkdir -p "$unpacked"
for deb in "$cache"/debs/*.deb; do
  dpkg-deb -x "$deb" "$unpacked"
done
kernel=$(find "$unpacked/boot" -name 'vmlinuz-*' | head -1)
[ -n "$kernel" ] || { echo "arm64 machine: no kernel image in $kernel_package" >&2; exit 1; }

cp "$kernel" "$cache/vmlinuz.new"
cp "$unpacked/bin/busybox" "$cache/busybox.new"
echo "$kernel_package ($(basename "$kernel"))" >"$cache/kernel-version"
rm -rf "$unpacked" "$cache"/debs/*.deb "$apt_dir/archives"/*.deb
# Renamed last, so an interrupted fetch is never taken for a finished one.
mv "$cache/busybox.new" "$cache/busybox"
mv "$cache/vmlinuz.new" "$cache/vmlinuz"

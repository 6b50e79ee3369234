#!/usr/bin/env bash
# Fetches, once, what the arm64 test machine is made of, all from Debian's
# arm64 packages: a kernel, a static busybox for the machine's own chores, and
# the Debian tools the tests run through the shell (dash as /bin/sh,
# coreutils, mawk, killall, grep, sed, find) with the libraries they need
# beyond the cross toolchain's runtime. A second run finds them in the cache
# and downloads nothing. apt runs with a private sources list, state and cache
# inside the cache folder, so the host's own apt setup is left as it is.
# Usage: fetch.sh <cache-dir>
# Leaves <cache-dir>/vmlinuz, <cache-dir>/busybox and <cache-dir>/userland/.
set -euo pipefail

cache=$(realpath -m "$1")
userland_packages=(dash coreutils mawk psmisc grep sed findutils
                   libacl1 libattr1 libgmp10 libselinux1 libpcre2-8-0 libtinfo6)
# The stamp names what the cache holds, so a changed package set fetches anew.
stamp="kernel busybox-static ${userland_packages[*]}"
[ "$(cat "$cache/complete" 2>/dev/null)" = "$stamp" ] && exit 0

# The same release as the host unless told otherwise, from the archive the
# host's own apt fetches it from: its sources are read as apt reads them
# (sources.list and sources.list.d's one-line .list files and deb822 .sources
# files, with their Enabled fields). The variables point elsewhere where the
# host's sources do not name the release.
. /etc/os-release
suite=${KORVANE_ARM64_SUITE:-${VERSION_CODENAME:-bookworm}}
eval "$(apt-config shell source_list Dir::Etc::sourcelist/f source_parts Dir::Etc::sourceparts/d)"
# Prints "<release> <archive>" for every binary-package source of the host.
host_sources() {
  local file
  for file in "$source_list" "$source_parts"*.list; do
    [ -f "$file" ] && sed -e 's/#.*//' -e 's/\[[^]]*\]//' "$file" | awk '$1 == "deb" { print $3, $2 }'
  done
  for file in "$source_parts"*.sources; do
    [ -f "$file" ] || continue
    # Stanzas are separated by blank lines (a comment line is not one); a
    # field may continue on lines that start with white space.
    sed -e '/^[[:space:]]*#/d' -e 's/#.*//' "$file" | awk '
      function flush(  i, j, n, m, u, r) {
        if (types ~ /(^| )deb( |$)/ && tolower(enabled) != "no") {
          n = split(uris, u, " "); m = split(suites, r, " ")
          for (i = 1; i <= n; i++) for (j = 1; j <= m; j++) print r[j], u[i]
        }
        types = uris = suites = enabled = field = ""; delete value
      }
      /^[ \t]*$/ { flush(); next }
      /^[ \t]/ { value[field] = value[field] " " $0 }
      /^[^ \t]/ { field = tolower(substr($0, 1, index($0, ":") - 1)); value[field] = substr($0, index($0, ":") + 1) }
      { types = value["types"]; uris = value["uris"]; suites = value["suites"]; enabled = value["enabled"]; gsub(/^[ \t]+|[ \t]+$/, "", enabled) }
      END { flush() }'
  done
}
host_archive() { # host_archive <release>: the first archive the host names for it
  host_sources | awk -v release="$1" '!found && $1 == release { sub("/+$", "", $2); print $2; found = 1 }'
}
mirror=${KORVANE_ARM64_MIRROR:-$(host_archive "$suite")}
security=${KORVANE_ARM64_SECURITY_MIRROR:-$(host_archive "$suite-security")}
[ -n "$mirror" ] || {
  echo "arm64 machine: the host's apt sources name no archive for $suite (set KORVANE_ARM64_MIRROR)" >&2
  exit 1
}
keyring=/usr/share/keyrings/debian-archive-keyring.gpg

apt_dir=$cache/apt
rm -f "$cache/complete"
mkdir -p "$apt_dir"/lists/partial "$apt_dir"/archives/partial "$apt_dir"/sources.list.d
: >"$apt_dir/status"
{
  echo "deb [arch=arm64 signed-by=$keyring] $mirror $suite main"
  echo "deb [arch=arm64 signed-by=$keyring] $mirror $suite-updates main"
  # Without a security archive the release's own packages still do.
  [ -z "$security" ] || echo "deb [arch=arm64 signed-by=$keyring] $security $suite-security main"
} >"$apt_dir/sources.list"

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

debs=$cache/debs
unpacked=$cache/unpacked
rm -rf "$debs" "$unpacked" "$cache/userland"
mkdir -p "$debs" "$unpacked"/{kernel,busybox,userland}
echo "arm64 machine: downloading $kernel_package, busybox-static and ${userland_packages[*]}"
(cd "$debs" && apt-get -q "${apt_options[@]}" download \
    "$kernel_package" busybox-static "${userland_packages[@]}")

dpkg-deb -x "$debs"/linux-image-*.deb "$unpacked/kernel"
dpkg-deb -x "$debs"/busybox-static_*.deb "$unpacked/busybox"
for deb in "$debs"/*.deb; do
  case "${deb##*/}" in linux-image-*|busybox-static_*) continue ;; esac
  dpkg-deb -x "$deb" "$unpacked/userland"
done

kernel=$(find "$unpacked/kernel/boot" -name 'vmlinuz-*' | head -1)
[ -n "$kernel" ] || { echo "arm64 machine: no kernel image in $kernel_package" >&2; exit 1; }
cp "$kernel" "$cache/vmlinuz"
cp "$unpacked/busybox/bin/busybox" "$cache/busybox"
echo "$kernel_package ($(basename "$kernel"))" >"$cache/kernel-version"

# Only programs and shared libraries are kept: documentation, locales and
# the packages' own scripts have no use in the machine.
userland=$cache/userland
mkdir -p "$userland/lib"
for dir in bin sbin usr/bin usr/sbin; do
  [ -d "$unpacked/userland/$dir" ] || continue
  mkdir -p "$userland/$dir"
  cp -a "$unpacked/userland/$dir/." "$userland/$dir/"
done
find "$unpacked/userland" -path '*/aarch64-linux-gnu/*' -name '*.so*' \
    \( -type f -o -type l \) -exec cp -P {} "$userland/lib/" \;
# Made by the packages' maintainer scripts on a real system, not shipped.
ln -sf mawk "$userland/usr/bin/awk"

rm -rf "$debs" "$unpacked" "$apt_dir/archives"/*.deb
echo "$stamp" >"$cache/complete"

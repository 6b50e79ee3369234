#!/usr/bin/env bash
# The chaos run: worker processes use every kind of named sync object under a
# real korvane-syncd while workers and the manager are killed, stopped and
# restarted at random; prints one line of figures, fails on any violation.
# It runs in a private IPC and mount namespace with its own /dev/shm, so a
# manager running on the machine changes nothing.
#   scripts/chaos.sh [--preset P] [--seconds N | --minutes N] [korvane_chaos options...]
# Options passed on: --workers N, --seed N, --expect-hardening.
set -euo pipefail
cd "$(dirname "$0")/.."
preset=native seconds=60 pass=()
while [ $# -gt 0 ]; do
  case $1 in
    --preset) preset=$2; shift 2 ;;
    --seconds) seconds=$2; shift 2 ;;
    --minutes) seconds=$(($2 * 60)); shift 2 ;;
    *) pass+=("$1"); shift ;;
  esac
done
build=$PWD/build/$preset
program=$build/tests/chaos/korvane_chaos
for file in "$program" "$build/tools/korvane-syncd" "$build/tools/korvane-shm"; do
  [ -x "$file" ] || { echo "chaos: $file is missing; build the $preset preset first" >&2; exit 1; }
done
run=(sh -c 'mount -t tmpfs -o size=64m tmpfs /dev/shm && exec "$@"' chaos
     "$program" --seconds "$seconds" --syncd "$build/tools/korvane-syncd" --shm "$build/tools/korvane-shm" "${pass[@]}")
# Without root, a user namespace maps the caller to root inside it.
if unshare --ipc --mount true 2>/dev/null; then
  exec unshare --ipc --mount "${run[@]}"
elif unshare --user --map-root-user --ipc --mount true 2>/dev/null; then
  exec unshare --user --map-root-user --ipc --mount "${run[@]}"
fi
echo "chaos: no private IPC and mount namespace can be made here; not run" >&2
exit 1

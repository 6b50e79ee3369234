#!/usr/bin/env bash
# The chaos run: worker processes use every kind of named sync object under a
# real korvane-syncd while workers and the manager are killed (inside
# sections and inside create/destroy too), stopped and restarted at random,
# and korvane-shm reclaim runs now and then; prints one line of figures and
# fails on any violation, on a worker that does not finish, or on a name left
# in /dev/shm.
#   scripts/chaos.sh [--preset P] [--seconds N | --minutes N] [--workers N] [--seed N]
# It runs in a private IPC and mount namespace with its own /dev/shm, so a
# manager running on the machine changes nothing.
set -euo pipefail
cd "$(dirname "$0")/.."
preset=native seconds=60 workers=6 seed=$RANDOM
while [ $# -gt 0 ]; do
  case $1 in
    --preset) preset=$2; shift 2 ;;
    --seconds) seconds=$2; shift 2 ;;
    --minutes) seconds=$(($2 * 60)); shift 2 ;;
    --workers) workers=$2; shift 2 ;;
    --seed) seed=$2; shift 2 ;;
    *) echo "chaos: unknown option $1" >&2; exit 2 ;;
  esac
done
build=$PWD/build/$preset
program=$build/tests/chaos/korvane_chaos syncd=$build/tools/korvane-syncd shm=$build/tools/korvane-shm
for file in "$program" "$syncd" "$shm"; do
  [ -x "$file" ] || { echo "chaos: $file is missing; build the $preset preset first" >&2; exit 1; }
done
echo "chaos: seed $seed"
run=(sh -c 'mount -t tmpfs -o size=64m tmpfs /dev/shm && exec "$@"' chaos
     "$program" "$syncd" "$shm" "$seconds" "$workers" "$seed")
# The manager's service lock lives in a folder of this run, so a
# korvane-syncd running on the machine does not keep this run's from starting.
runtime=$(mktemp -d)
trap 'rm -rf "$runtime"' EXIT
export KORVANE_RUNTIME_DIR=$runtime
# Without root, a user namespace maps the caller to root inside it.
if unshare --ipc --mount true 2>/dev/null; then
  unshare --ipc --mount "${run[@]}"
  exit
elif unshare --user --map-root-user --ipc --mount true 2>/dev/null; then
  unshare --user --map-root-user --ipc --mount "${run[@]}"
  exit
fi
echo "chaos: no private IPC and mount namespace can be made here; not run" >&2
exit 1

#!/bin/sh
# Runs a test program in its own IPC and mount namespaces with a private
# tmpfs on /dev/shm, so named objects, System V semaphores and the sync
# manager's channel are the test's alone: a sync manager running on the
# machine, or another suite running beside this one, changes nothing.
# Root gets the namespaces directly; other users through a user namespace
# where the kernel allows one. Where neither is allowed the program runs as
# before, sharing the machine's /dev/shm, and one line says so.
# Usage: private-shm.sh PROGRAM [ARGUMENT]...
# KORVANE_PRIVATE_SHM is 1 inside the private namespaces (a nested start
# changes nothing) and 0 where they were refused. KORVANE_PRIVATE_SHM_SIZE
# bounds the private /dev/shm (a tmpfs size such as 64m).
if [ -z "${KORVANE_PRIVATE_SHM:-}" ]; then
  options=mode=1777${KORVANE_PRIVATE_SHM_SIZE:+,size=$KORVANE_PRIVATE_SHM_SIZE}
  for user in "" -r; do
    # shellcheck disable=SC2086 # $user is empty or one option
    if unshare $user -i -m true 2>/dev/null; then
      exec unshare $user -i -m sh -c \
        'mount -t tmpfs -o "$0" tmpfs /dev/shm && export KORVANE_PRIVATE_SHM=1 && exec "$@"' "$options" "$@"
    fi
  done
  echo "private-shm: no private IPC and mount namespace allowed here; using the machine's /dev/shm" >&2
  export KORVANE_PRIVATE_SHM=0
fi
exec "$@"

#!/bin/sh
# Runs a test program in its own IPC and mount namespaces with a private
# tmpfs on /dev/shm, so named objects, System V semaphores and the sync
# manager's channel are the test's alone: a sync manager running on the
# machine, or another suite running beside this one, changes nothing.
# Root gets the namespaces directly; other users through a user namespace
# where the kernel allows one. Where neither is allowed the program runs as
# before, sharing the machine's /dev/shm, and one line says so.
# Usage: private-shm.sh PROGRAM [ARGUMENT]...
if [ -z "${KORVANE_PRIVATE_SHM:-}" ]; then
  export KORVANE_PRIVATE_SHM=1
  for user in "" -r; do
    # shellcheck disable=SC2086 # $user is empty or one option
    if unshare $user -i -m true 2>/dev/null; then
      exec unshare $user -i -m sh -c \
        'mount -t tmpfs -o mode=1777 tmpfs /dev/shm && exec "$@"' sh "$@"
    fi
  done
  echo "private-shm: no private IPC and mount namespace allowed here; using the machine's /dev/shm" >&2
fi
exec "$@"

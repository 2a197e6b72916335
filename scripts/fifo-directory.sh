#!/usr/bin/env bash
# Makes the directory of the FIFOs where it is missing.
#
# The library creates no directory. Installations get theirs from the package; a development machine gets one that, like
# /dev/shm itself, every user may use and in which nobody removes another's files.
set -euo pipefail

FIFO_DIRECTORY=/dev/shm/velm/tarvo

[[ ! -d $FIFO_DIRECTORY || ! -w $FIFO_DIRECTORY || ! -x $FIFO_DIRECTORY ]] || exit 0
if [[ -e $FIFO_DIRECTORY ]]; then
    echo "fifo-directory.sh: $FIFO_DIRECTORY is not writable for $(id -un); join its group" \
        "($(stat -c %G $FIFO_DIRECTORY)) or change its mode" >&2
    exit 1
fi
as_root=()
[[ -w /dev/shm && ! -e ${FIFO_DIRECTORY%/*} ]] || [[ -w ${FIFO_DIRECTORY%/*} ]] || as_root=(sudo)
"${as_root[@]}" install -d -m 0755 "${FIFO_DIRECTORY%/*}"
"${as_root[@]}" install -d -m 1777 "$FIFO_DIRECTORY"

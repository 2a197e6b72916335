#!/usr/bin/env bash
# What the scripts of the bridge's package ask of a system that runs systemd, and what they leave: on a /run and a
# /etc/systemd of their own, with stand-ins for the programs that they call.
set -euo pipefail
scripts=$(cd "$(dirname "$0")/../../packaging/bridge" && pwd)

if [[ ${1-} != inside ]]; then
    unshare --mount true 2>/dev/null || { echo "skipped: mounts are made by root only" && exit 77; }
    exec unshare --mount "$0" inside
fi

mount -t tmpfs none /run
mount -t tmpfs none /mnt
mkdir -p /mnt/bin /mnt/etc /etc/systemd/system /run/systemd/system
mount --bind /mnt/etc /etc/systemd/system
for program in systemctl deb-systemd-invoke adduser getent; do
    printf '#!/bin/sh\necho "%s $*" >>/mnt/asked\n' $program >/mnt/bin/$program
    chmod +x /mnt/bin/$program
done
export PATH=/mnt/bin:$PATH
failures=0

# expect SCRIPT ARGUMENTS WHAT IT ASKS
expect() {
    local asked
    : >/mnt/asked
    # shellcheck disable=SC2086 # words
    "$scripts/$1" $2
    asked=$(grep -v '^getent' /mnt/asked | paste -sd ';' || true)
    [[ $asked == "$3" ]] || { echo "FAILED: $1 $2 asks: $asked" && failures=1; }
}

reload='systemctl --system daemon-reload'
expect postinst configure "$reload"
expect postinst 'configure 1.0.0' "$reload;deb-systemd-invoke try-restart tarvo-bridge.service"
expect prerm 'upgrade 1.0.1' ''
expect postrm 'upgrade 1.0.1' ''
expect prerm remove 'deb-systemd-invoke stop tarvo-bridge.service'

wanted=/etc/systemd/system/multi-user.target.wants/tarvo-bridge.service
mkdir -p "${wanted%/*}" /run/tarvo-bridge
ln -s /usr/lib/systemd/system/tarvo-bridge.service "$wanted"
expect postrm remove "$reload"
[[ -L $wanted ]] || { echo "FAILED: removed, it is not enabled any more" && failures=1; }
expect postrm purge "$reload"
[[ ! -L $wanted && ! -e /run/tarvo-bridge ]] || { echo "FAILED: purged, it leaves something" && failures=1; }

# And of one that does not.
rmdir /run/systemd/system
expect postinst configure ''
expect postrm remove ''
exit $failures

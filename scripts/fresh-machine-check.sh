#!/usr/bin/env bash
# Proves the README on a new machine: builds a minimal Debian 12 root
# (mmdebstrap, variant minbase: only what every Debian system has), copies a
# clean clone of this checkout's HEAD into it, and runs inside it, as root,
# the README's test command, the demo command, the cross-test command and
# the package command (native and armhf).
# Prints one line per command with its status and time; each command's whole
# output is in the log named on that line while the check runs, and its last
# lines are printed when it fails. Removes everything it made at the end.
#
# Takes a long while (the commands install their packages and build
# from nothing), so it is not part of .ci/run: run it before saying that a
# change of the scripts or the dependencies is done.
#   scripts/fresh-machine-check.sh [--keep]     --keep: leave the root for a look
set -euo pipefail
cd "$(dirname "$0")/.."
. scripts/packages.sh
[ "$(id -u)" -eq 0 ] || { echo "the fresh-machine check needs root (run it with sudo)" >&2; exit 1; }
keep=false
[ "${1:-}" = "--keep" ] && keep=true

ensure_packages mmdebstrap git util-linux mount

work=$(mktemp -d /var/tmp/upnp-fresh.XXXXXX)
root="$work/root"
cleanup() {
    # Anything still running inside the root goes first.
    local link
    for link in /proc/[0-9]*/root; do
        [ "$(readlink "$link" 2>/dev/null)" = "$root" ] && kill -9 "$(basename "$(dirname "$link")")" 2>/dev/null
    done
    if $keep; then echo "root kept in $root"; else rm -rf "$work"; fi
}
trap cleanup EXIT
trap 'exit 130' INT TERM

# The new root reaches the same archive as this machine, with the same
# fetching rules (an archive snapshot may carry an old Release date).
sources=$(ls /etc/apt/sources.list.d/*.sources 2>/dev/null | head -n 1)
[ -n "$sources" ] || sources=/etc/apt/sources.list
apt-config dump | grep -E '^Acquire::(Check-Valid-Until|Check-Date|https?::Proxy) ' > "$work/apt.conf" || true

start=$SECONDS
mmdebstrap --quiet --variant=minbase --aptopt="$work/apt.conf" bookworm "$root" "$sources"
cp /etc/resolv.conf "$root/etc/resolv.conf"
git clone --quiet . "$root/root/upnp"
printf 'root: Debian 12 minbase, %s packages, HEAD %s (%ss)\n' \
    "$(chroot "$root" dpkg-query -W | wc -l)" "$(git rev-parse --short HEAD)" "$((SECONDS - start))"

# Inside a private mount namespace: the root becomes a mount point of its own
# (ip netns exec remounts / and fails inside a plain chroot), with /proc,
# /sys, /dev and a fresh /run. The mounts end with the namespace.
run_inside() { # run_inside NAME COMMAND...
    local name=$1 log="$work/$1.log" status=0 begin=$SECONDS
    shift
    unshare --mount --propagation private /bin/bash -c '
        set -e
        root=$1; shift
        mount --bind "$root" "$root"
        mount -t proc proc "$root/proc"
        mount -t sysfs sysfs "$root/sys"
        mount --rbind /dev "$root/dev"
        mount -t tmpfs tmpfs "$root/run"
        exec chroot "$root" /usr/bin/env -i HOME=/root TERM=dumb LANG=C.UTF-8 \
            PATH=/usr/local/sbin:/usr/local/bin:/usr/sbin:/usr/bin:/sbin:/bin \
            /bin/bash -c "cd /root/upnp && $*"
    ' run_inside "$root" "$@" > "$log" 2>&1 < /dev/null || status=$?
    local took=$((SECONDS - begin))
    local result=PASS
    [ $status -eq 0 ] || result="FAIL($status)"
    printf '%-11s %-8s %3dm%02ds  %s\n' "$name" "$result" $((took / 60)) $((took % 60)) "$*"
    if [ $status -ne 0 ]; then
        tail -n 40 "$log" | sed 's/^/    | /'
        failed=1
    fi
}

failed=0
run_inside test bash scripts/test.sh
run_inside demo bash scripts/demo.sh
run_inside cross-test bash scripts/cross-test.sh
run_inside package bash scripts/package.sh
run_inside package-armhf bash scripts/package.sh --arch armhf
exit $failed

#!/bin/sh
# with-private-devlog.sh SOCKET COMMAND [ARG...]
#
# Runs COMMAND in a private mount namespace whose /dev/log is the Unix datagram
# socket SOCKET, so that what the command writes to the system log reaches
# whoever reads SOCKET, and nothing reaches the machine's own log. /dev is a
# fresh tmpfs there that also holds null, zero, full, random, urandom and tty.
# The command keeps this script's process id. Needs root (unshare, mount).
set -eu
[ $# -ge 2 ] || { echo "usage: $0 SOCKET COMMAND [ARG...]" >&2; exit 2; }
exec unshare --mount --propagation private sh -c '
    set -eu
    socket=$1; shift
    olddev=$(dirname "$socket")/.olddev
    mkdir -p "$olddev"
    mount --rbind /dev "$olddev"
    mount -t tmpfs -o mode=755 devlog /dev
    for node in null zero full random urandom tty; do
        : > "/dev/$node"
        mount --bind "$olddev/$node" "/dev/$node"
    done
    : > /dev/log
    mount --bind "$socket" /dev/log
    exec "$@"
' with-private-devlog "$@"

#!/usr/bin/env bash
# Builds the daemon and runs it in the foreground inside private network and
# mount namespaces, printing the lines it writes to the system log.
#   scripts/demo.sh [SECONDS]   stops after SECONDS, or on Ctrl-C
# Needs root (namespaces); installs the Debian packages that are missing.
set -euo pipefail
cd "$(dirname "$0")/.."
. scripts/packages.sh
# shellcheck disable=SC2086
ensure_packages $BUILD_PACKAGES util-linux mount
[ "$(id -u)" -eq 0 ] || { echo "the demo needs root for its namespaces" >&2; exit 1; }

cmake -S . -B build -DCMAKE_BUILD_TYPE=Debug >/dev/null
cmake --build build --parallel 2 --target upnp syslogsink >/dev/null

work=$(mktemp -d /tmp/upnp-demo.XXXXXX)
sink_pid=""
daemon_pid=""
cleanup() {
    if [ -n "$daemon_pid" ]; then kill -INT "$daemon_pid" 2>/dev/null || true; wait "$daemon_pid" 2>/dev/null || true; fi
    if [ -n "$sink_pid" ]; then kill "$sink_pid" 2>/dev/null || true; wait "$sink_pid" 2>/dev/null || true; fi
    rm -rf "$work"
}
trap cleanup EXIT
trap 'exit 0' INT TERM

# The daemon's settings files live in the demo's own folder, not in the machine's.
mkdir -p "$work/config/quarn" "$work/www"
cat > "$work/config/quarn/database.conf" <<CONF
[General]
socketDir=$work
socketType=local
[data]
wwwpath=$work/www
CONF
cat > "$work/config/quarn/upnp.conf" <<CONF
[logging]
debug=1
silenceisgolden=0
CONF

build/tools/syslogsink "$work/log.sock" &
sink_pid=$!
sleep 0.2
echo "upnp runs in private namespaces; its system log follows (Ctrl-C ends it)"
XDG_CONFIG_HOME="$work/config" unshare --net \
    scripts/with-private-devlog.sh "$work/log.sock" build/upnp/upnp &
daemon_pid=$!
if [ -n "${1:-}" ]; then
    sleep "$1"
    kill -INT "$daemon_pid"
fi
status=0
wait "$daemon_pid" || status=$?
daemon_pid=""
sleep 0.2
echo "upnp ended with status $status"
exit "$status"

#!/usr/bin/env bash
# The daemon at work, start to end, in two private network namespaces joined
# by a veth pair: "device" runs the simulated backend and upnp, "app" plays a
# control point on the LAN with GSSDP and GUPnP. The backend starts the daemon
# the way a controller boots: the stages back to back, the interface reported
# up as soon as the daemon subscribes. Shows the daemon's system-log lines,
# the control point finding the device and reading its description, and the
# control point seeing ssdp:update after the device's name changes.
# Ctrl-C at any step, or the end, removes every process and namespace it made.
# Needs root; installs the Debian packages it needs when they are missing.
set -euo pipefail
cd "$(dirname "$0")/.."
. scripts/packages.sh
# shellcheck disable=SC2086
ensure_packages $BUILD_PACKAGES iproute2 util-linux mount python3-gi gir1.2-gssdp-1.6 gir1.2-gupnp-1.6
[ "$(id -u)" -eq 0 ] || { echo "the demo needs root for its namespaces (run it with sudo)" >&2; exit 1; }

cmake -S . -B build -DCMAKE_BUILD_TYPE=Debug >/dev/null
cmake --build build --parallel 2 --target upnp simbackend syslogsink rpccall >/dev/null

work=$(mktemp -d /tmp/upnp-demo.XXXXXX)
dev="upnpdemo$$-device"
app="upnpdemo$$-app"
groups=() # process groups of the demo's children
cleanup() {
    trap '' INT TERM
    local group ns
    for group in "${groups[@]}"; do kill -TERM -- "-$group" 2>/dev/null || true; done
    # Whatever still runs in the namespaces goes too.
    for ns in "$dev" "$app"; do
        ip netns pids "$ns" 2>/dev/null | xargs -r kill -KILL 2>/dev/null || true
    done
    sleep 0.2
    for group in "${groups[@]}"; do
        kill -KILL -- "-$group" 2>/dev/null || true
        wait "$group" 2>/dev/null || true
    done
    ip netns delete "$dev" 2>/dev/null || true
    ip netns delete "$app" 2>/dev/null || true
    rm -rf "$work"
}
trap cleanup EXIT
trap 'exit 130' INT TERM

step() { printf '\n\033[1m=== %s\033[0m\n' "$*"; }
# Starts a command in the background in a process group of its own: $! is the
# command itself (setsid and ip netns exec both replace themselves with it).
spawn() { setsid "$@" & groups+=($!); }
in_app() { ip netns exec "$app" "$@"; }
control() { build/tools/rpccall --socket-dir "$work/sockets" --local com.zan.ravo.simbackend "$@" >/dev/null; }
wait_for() { # wait_for FILE TEXT: until FILE holds TEXT, at most 20 s
    for _ in $(seq 200); do grep -qF -- "$2" "$1" 2>/dev/null && return 0; sleep 0.1; done
    echo "timed out waiting for: $2" >&2; return 1
}

step "Two namespaces: device (192.0.2.2, wlan0 00:11:22:33:44:55) and app (192.0.2.3)"
ip netns add "$dev"
ip netns add "$app"
ip link add dev0 netns "$dev" type veth peer name app0 netns "$app"
ip link add wlan0 netns "$dev" type veth peer name wl0p netns "$dev"
ip -n "$dev" link set wlan0 address 00:11:22:33:44:55
for ns in "$dev" "$app"; do ip -n "$ns" link set lo up; done
ip -n "$dev" address add 192.0.2.2/24 dev dev0
ip -n "$app" address add 192.0.2.3/24 dev app0
ip -n "$dev" link set dev0 up
ip -n "$app" link set app0 up

# The daemon's settings, templates and outputs in the demo's own folder.
mkdir -p "$work"/{sockets,www,files,config/quarn,bin}
cat > "$work/config/quarn/database.conf" <<CONF
[General]
socketDir=$work/sockets
socketType=local
upnpConfigFileName=$work/files/quarn.upnp
avahiConfigFileName=$work/files/tessaline-quarn.service
[data]
wwwpath=$work/www
constpath=$PWD/upnp/data
CONF
cat > "$work/config/quarn/upnp.conf" <<CONF
[timing]
; the demo scans every 2 s instead of every 10 s
rescanInterval=2000
avahiRestartPause=200
CONF
cat > "$work/database.txt" <<CONF
generic/name=Living room
generic/serialNumber=QRN-0815
generic/zan=false
network/igmpquerier=true
debug/enableLogging=true
CONF
echo '{}' > "$work/www/settings.json"
# No init system here: the daemon's restart of Avahi is shown instead of done.
cat > "$work/bin/systemctl" <<'SH'
#!/bin/sh
echo "systemctl $*  (Avahi would restart here)"
SH
chmod +x "$work/bin/systemctl"

step "Simulated backend (database, system, diagnosis, supervisor) and upnp in the device namespace"
# Process substitutions: the filters end with the program they read from.
spawn build/tools/syslogsink "$work/log.sock" > >(tee "$work/daemon.log" | sed -u 's/^/  upnp log | /')
spawn ip netns exec "$dev" build/tools/simbackend --socket-dir "$work/sockets" --config "$work/database.txt" \
    --interface dev0 --stages > >(tee "$work/backend.log" | sed -u 's/^/  backend  | /') 2>&1
wait_for "$work/backend.log" "ready"
XDG_CONFIG_HOME="$work/config" PATH="$work/bin:$PATH" \
    spawn ip netns exec "$dev" scripts/with-private-devlog.sh "$work/log.sock" build/upnp/upnp
upnp=$!
wait_for "$work/backend.log" "stage 3 done"
spawn ip netns exec "$dev" python3 -m http.server 80 --bind 192.0.2.2 --directory "$work/files" >/dev/null 2>&1

step "Two scans agree on dev0's addresses: the device announces itself"
wait_for "$work/daemon.log" "dev0 advertising on 192.0.2.2"

step "A control point (GSSDP) finds the root device, over IPv4 and IPv6 link-local"
in_app /usr/bin/python3 tools/ssdp-browse --interface app0 --target upnp:rootdevice --seconds 3 | sed 's/^/  GSSDP IPv4 | /'
in_app /usr/bin/python3 tools/ssdp-browse --interface app0 --ipv6 --target upnp:rootdevice --seconds 3 | sed 's/^/  GSSDP IPv6 | /'

step "A UPnP control point (GUPnP) fetches and reads the description"
in_app /usr/bin/python3 tools/upnp-describe --interface app0 --seconds 3 | sed 's/^/  GUPnP | /'

step "The device is renamed to \"Kitchen & Co\": new files, new CONFIGID, ssdp:update"
in_app /usr/bin/python3 tools/ssdp-browse --interface app0 --target urn:tessaline:device:Quarn:1 --notifies \
    --seconds 6 > "$work/updates.log" &
watcher=$!
sleep 1 # GSSDP is listening
control setConfigValue string:generic/name "string:Kitchen & Co"
wait "$watcher" || true
grep -E '^notify ssdp:update' "$work/updates.log" | sed 's/^/  GSSDP | /'
grep -o '<friendlyName>[^<]*</friendlyName>' "$work/files/quarn.upnp" | sed 's/^/  description | /'
in_app /usr/bin/python3 tools/upnp-describe --interface app0 --seconds 3 | sed 's/^/  GUPnP | /'

step "The supervisor ends the daemon: byebye, status 0"
control quitModule
status=0
wait "$upnp" || status=$?
echo "  upnp ended with status $status"
echo "done; everything the demo made is removed"

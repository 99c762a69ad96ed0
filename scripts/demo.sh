#!/usr/bin/env bash
# The daemon at work, start to end, in two private network namespaces joined
# by a veth pair: "device" runs the simulated backend and upnp, "app" plays a
# control point on the LAN with GSSDP and GUPnP. Shows the daemon's system-log
# lines, the control point finding the device and reading its description, and
# the control point seeing ssdp:update after the device's name changes.
# Ctrl-C, or the end, removes everything it made. Needs root; installs the
# Debian packages it needs when they are missing.
set -euo pipefail
cd "$(dirname "$0")/.."
. scripts/packages.sh
# shellcheck disable=SC2086
ensure_packages $BUILD_PACKAGES iproute2 util-linux mount python3-gi gir1.2-gssdp-1.6 gir1.2-gupnp-1.6
[ "$(id -u)" -eq 0 ] || { echo "the demo needs root for its namespaces" >&2; exit 1; }

cmake -S . -B build -DCMAKE_BUILD_TYPE=Debug >/dev/null
cmake --build build --parallel 2 --target upnp simbackend syslogsink rpccall >/dev/null

work=$(mktemp -d /tmp/upnp-demo.XXXXXX)
dev="upnpdemo$$-device"
app="upnpdemo$$-app"
pids=()
cleanup() {
    for pid in "${pids[@]}"; do kill "$pid" 2>/dev/null || true; done
    for pid in "${pids[@]}"; do wait "$pid" 2>/dev/null || true; done
    ip netns delete "$dev" 2>/dev/null || true
    ip netns delete "$app" 2>/dev/null || true
    rm -rf "$work"
}
trap cleanup EXIT
trap 'exit 130' INT TERM

step() { printf '\n\033[1m=== %s\033[0m\n' "$*"; }
in_device() { ip netns exec "$dev" "$@"; }
in_app() { ip netns exec "$app" "$@"; }
control() { build/tools/rpccall --socket-dir "$work/sockets" --local com.zan.ravo.simbackend "$@" >/dev/null; }
wait_for() { # wait_for FILE TEXT: until FILE holds TEXT, at most 15 s
    for _ in $(seq 150); do grep -qF -- "$2" "$1" 2>/dev/null && return 0; sleep 0.1; done
    echo "timed out waiting for: $2" >&2; return 1
}

step "Two namespaces: device (10.90.0.2, wlan0 00:11:22:33:44:55) and app (10.90.0.3)"
ip netns add "$dev"
ip netns add "$app"
ip link add dev0 netns "$dev" type veth peer name app0 netns "$app"
ip link add wlan0 netns "$dev" type veth peer name wl0p netns "$dev"
in_device ip link set wlan0 address 00:11:22:33:44:55
for ns in "$dev" "$app"; do ip netns exec "$ns" ip link set lo up; done
in_device ip address add 10.90.0.2/24 dev dev0
in_app ip address add 10.90.0.3/24 dev app0
in_device ip link set dev0 up
in_app ip link set app0 up

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
# Process substitutions, so that $! is the program itself and ends with the demo.
build/tools/syslogsink "$work/log.sock" > >(sed -u 's/^/  upnp log | /') &
pids+=($!)
in_device build/tools/simbackend --socket-dir "$work/sockets" --config "$work/database.txt" \
    > >(tee "$work/backend.log" | sed -u 's/^/  backend  | /') 2>&1 &
pids+=($!)
wait_for "$work/backend.log" "ready"
sleep 0.2
XDG_CONFIG_HOME="$work/config" PATH="$work/bin:$PATH" \
    ip netns exec "$dev" scripts/with-private-devlog.sh "$work/log.sock" build/upnp/upnp &
pids+=($!)
for _ in $(seq 50); do [ -S "$work/sockets/com.zan.ravo.upnp" ] && break; sleep 0.1; done

step "The supervisor runs the stages; the system service reports dev0 up"
control runStage int:0
wait_for "$work/backend.log" "stage 0 done"
sleep 1 # the configuration batch arrives first: only then do other services' events count
control interfaceUp string:dev0
for stage in 1 2 3; do
    control runStage "int:$stage"
    wait_for "$work/backend.log" "stage $stage done"
done

step "The description is served over HTTP where LOCATION points"
in_device python3 -m http.server 80 --bind 10.90.0.2 --directory "$work/files" >/dev/null 2>&1 &
pids+=($!)
sleep 4 # two rescans: the address is stable, the device announces itself

step "A control point (GSSDP) finds the root device, over IPv4 and IPv6 link-local"
in_app /usr/bin/python3 tools/ssdp-browse --interface app0 --target upnp:rootdevice --seconds 3 | sed 's/^/  GSSDP IPv4 | /'
in_app /usr/bin/python3 tools/ssdp-browse --interface app0 --ipv6 --target upnp:rootdevice --seconds 3 | sed 's/^/  GSSDP IPv6 | /'

step "A UPnP control point (GUPnP) fetches and reads the description"
in_app /usr/bin/python3 tools/upnp-describe --interface app0 --seconds 3 | sed 's/^/  GUPnP | /'

step "The device is renamed to \"Kitchen & Co\": new files, new CONFIGID, ssdp:update"
in_app /usr/bin/python3 tools/ssdp-browse --interface app0 --target urn:tessaline:device:Quarn:1 --notifies \
    --seconds 6 | grep -E '^notify ssdp:update' | sed 's/^/  GSSDP | /' &
watcher=$!
sleep 1
control setConfigValue string:generic/name "string:Kitchen & Co"
wait "$watcher" || true
grep -o '<friendlyName>[^<]*</friendlyName>' "$work/files/quarn.upnp" | sed 's/^/  description | /'
in_app /usr/bin/python3 tools/upnp-describe --interface app0 --seconds 3 | sed 's/^/  GUPnP | /'

step "The supervisor ends the daemon: byebye, status 0"
control quitModule
sleep 1
echo "done; everything the demo made is removed"

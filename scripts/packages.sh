# Sourced by the other scripts: ensure_packages PACKAGE... installs the Debian
# packages that are missing (as root), or says which are missing (otherwise).

ensure_packages() {
    missing=""
    for package in "$@"; do
        if ! dpkg-query -W -f='${Status}' "$package" 2>/dev/null | grep -q "install ok installed"; then
            missing="$missing $package"
        fi
    done
    [ -z "$missing" ] && return 0
    if [ "$(id -u)" -ne 0 ]; then
        echo "missing Debian packages:$missing; run this script as root (or with sudo) to install them" >&2
        return 1
    fi
    echo "installing:$missing"
    # One index of the mirror can be mid-sync; the install below decides whether
    # what it needs was there.
    apt-get update -qq || echo "apt-get update reported an error; trying the install anyway" >&2
    # Services that come with a package (avahi-daemon) are not started on the
    # machine: they would speak on its real interfaces. The tests start their
    # own copies in private namespaces.
    policy=""
    if [ ! -e /usr/sbin/policy-rc.d ]; then
        policy=/usr/sbin/policy-rc.d
        printf '#!/bin/sh\nexit 101\n' > "$policy"
        chmod +x "$policy"
    fi
    status=0
    # shellcheck disable=SC2086
    DEBIAN_FRONTEND=noninteractive apt-get install -y -qq --no-install-recommends $missing || status=$?
    [ -z "$policy" ] || rm -f "$policy"
    return "$status"
}

# What building and testing the project needs.
BUILD_PACKAGES="cmake make g++ qtbase5-dev"
# The real peers of the tests: tcpdump as IGMP decoder, GSSDP and GUPnP
# (python3-gi) as SSDP and UPnP control points, avahi-daemon for the service file.
TEST_PACKAGES="iproute2 util-linux mount procps tcpdump python3-gi gir1.2-gssdp-1.6 gir1.2-gupnp-1.6 avahi-daemon"

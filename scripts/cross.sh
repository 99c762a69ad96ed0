# Sourced by the scripts that build for the controller's ARM processors
# (cross-test.sh, package.sh): Debian's Qt packages of the target
# architecture, unpacked into a target root that the toolchain files in
# cmake/toolchains/ take as UPNP_TARGET_ROOT.
#   add_architecture ARCH                 makes apt know the target's packages
#   make_target_root ARCH TRIPLE ROOT     unpacks them into ROOT
# ROOT/shlibs.local then holds the shared-library dependencies that the
# unpacked packages declare, for dpkg-shlibdeps.

# Debian architecture and GNU triple of each target.
CROSS_TARGETS="arm64:aarch64-linux-gnu armhf:arm-linux-gnueabihf"
# What the daemon and the tests link, with headers, CMake files and mkspecs.
QT_PACKAGES="libqt5core5a libqt5network5 libqt5test5 qtbase5-dev qt5-qmake"
QT_LIBRARIES="libqt5core5a libqt5network5 libqt5test5"

# Packages of the list that apt has no candidate for: apt-cache prints
# "Candidate: (none)", or nothing at all when it has no lists for the
# architecture yet. (grep reads the whole output: with -q it would stop
# early, and apt-cache's broken pipe would fail the pipeline.)
without_candidate() {
    local package
    for package in "$@"; do
        apt-cache policy "$package" 2>/dev/null | grep 'Candidate: [^(]' >/dev/null || printf ' %s' "$package"
    done
}

# Makes apt know the target's packages: adds the architecture to dpkg, and
# updates the lists when apt cannot find a candidate for every package.
add_architecture() {
    local arch=$1 package packages=() missing
    for package in $QT_PACKAGES; do packages+=("$package:$arch"); done
    if ! dpkg --print-foreign-architectures | grep -qx "$arch"; then
        [ "$(id -u)" -eq 0 ] || { echo "run as root (or with sudo) to add the $arch architecture" >&2; return 1; }
        dpkg --add-architecture "$arch"
    fi
    missing=$(without_candidate "${packages[@]}")
    [ -z "$missing" ] && return 0
    [ "$(id -u)" -eq 0 ] || { echo "apt has no $arch lists for:$missing; run as root (or with sudo) to update them" >&2; return 1; }
    # One index of the mirror may be mid-sync; what apt finds afterwards decides.
    apt-get update -qq || echo "apt-get update reported an error; looking for the $arch packages anyway" >&2
    missing=$(without_candidate "${packages[@]}")
    if [ -n "$missing" ]; then
        echo "apt finds no $arch package for:$missing (are the $arch lists reachable from /etc/apt/sources.list*?)" >&2
        return 1
    fi
}

# Unpacks the target's Qt and everything it loads into root. The packages are
# unpacked, not installed: installing them beside the host's would tie every
# shared library of the host to the target's exact version.
make_target_root() {
    local arch=$1 triple=$2 root=$3
    [ -f "$root/.complete" ] && [ -f "$root/shlibs.local" ] && return 0
    rm -rf "$root"
    mkdir -p "$root/debs"
    local packages=() package
    for package in $QT_PACKAGES; do packages+=("$package:$arch"); done
    local libraries=()
    for package in $QT_LIBRARIES; do libraries+=("$package:$arch"); done
    # The run-time closure of the libraries within the target's architecture.
    local closure
    closure=$(apt-cache depends --recurse --no-recommends --no-suggests --no-conflicts \
                  --no-breaks --no-replaces --no-enhances "${libraries[@]}" \
              | grep -E "^[a-z0-9].*:$arch\$" | sort -u) || true
    if [ -z "$closure" ]; then
        echo "apt finds no $arch packages that ${QT_LIBRARIES// /, } need" >&2
        return 1
    fi
    # shellcheck disable=SC2086
    (cd "$root/debs" && apt-get download -q -o APT::Sandbox::User=root "${packages[@]}" $closure)
    local deb
    for deb in "$root"/debs/*.deb; do
        dpkg-deb -x "$deb" "$root"
        dpkg-deb --info "$deb" shlibs >> "$root/shlibs.local" 2>/dev/null || true
    done
    rm -rf "$root/debs"
    # Qt's CMake files check that the build tools lie beside the target's
    # libraries; the tools that run are the host's.
    local dir tool
    for dir in "$root/usr/lib/qt5/bin" "$root/usr/lib/$triple/qt5/bin"; do
        mkdir -p "$dir"
        for tool in moc rcc uic qmake; do ln -sfn "/usr/lib/qt5/bin/$tool" "$dir/$tool"; done
    done
    touch "$root/.complete"
}

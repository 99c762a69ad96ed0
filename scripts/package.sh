#!/usr/bin/env bash
# Builds the Debian package upnp_<version>_<arch>.deb in build-deb-<arch>/:
# the daemon, rpccall, the templates, example settings, a systemd unit and
# the man pages, then checks it with lintian.
#   scripts/package.sh                 for this machine's architecture
#   scripts/package.sh --arch armhf    for a controller (armhf or arm64), with
#                                      Debian's cross compiler and the target's
#                                      Qt unpacked into build-<arch>/target-root
# The version is CMake's project version. As root it installs what it needs.
set -euo pipefail
cd "$(dirname "$0")/.."
. scripts/packages.sh
. scripts/cross.sh

host_arch=$(dpkg --print-architecture)
arch=$host_arch
case "${1:-}" in
    "") ;;
    --arch) arch=${2:?"--arch takes arm64 or armhf"} ;;
    *) echo "usage: $0 [--arch arm64|armhf]" >&2; exit 2 ;;
esac

version=$(sed -n 's/^project(upnp VERSION \([0-9.]*\).*/\1/p' CMakeLists.txt)
[ -n "$version" ] || { echo "no project version in CMakeLists.txt" >&2; exit 1; }

# dpkg-buildpackage writes beside the source tree, so it builds a copy.
out=$PWD/build-deb-$arch
src=$out/upnp-$version
needed="$BUILD_PACKAGES build-essential debhelper pandoc lintian"
buildpackage=(dpkg-buildpackage --build=binary --no-sign)
if [ "$arch" != "$host_arch" ]; then
    triple=""
    for target in $CROSS_TARGETS; do
        [ "${target%%:*}" = "$arch" ] && triple=${target#*:}
    done
    [ -n "$triple" ] || { echo "no toolchain for $arch; known: $CROSS_TARGETS" >&2; exit 2; }
    # shellcheck disable=SC2086
    ensure_packages $needed crossbuild-essential-$arch
    add_architecture "$arch"
    make_target_root "$arch" "$triple" "$PWD/build-$arch/target-root"
    export UPNP_TOOLCHAIN_FILE=$PWD/cmake/toolchains/$triple.cmake
    export UPNP_TARGET_ROOT=$PWD/build-$arch/target-root
    export CC=$triple-gcc CXX=$triple-g++
    # The target's Qt is unpacked, not installed, so dpkg cannot see the
    # build dependencies of the target architecture: no check.
    buildpackage+=(--host-arch "$arch" --build-profiles=cross,nocheck --no-check-builddeps)
else
    # shellcheck disable=SC2086
    ensure_packages $needed
fi

rm -rf "$out"
mkdir -p "$src"
tar --exclude-vcs --exclude='./build*' -cf - . | tar -xf - -C "$src"
# The changelog carries the version; its date is the last commit's, so the
# same tree gives the same package.
date=$(git log -1 --format=%cD 2>/dev/null || date -R)
maintainer=$(sed -n 's/^Maintainer: //p' debian/control)
cat > "$src/debian/changelog" <<EOF
upnp ($version) bookworm; urgency=medium

  * Package of the upnp source tree at version $version.

 -- $maintainer  $date
EOF

# The suite is not built here: scripts/test.sh and cross-test.sh run it.
(cd "$src" && DEB_BUILD_OPTIONS="${DEB_BUILD_OPTIONS:-parallel=2 nocheck}" "${buildpackage[@]}")
deb=$out/upnp_${version}_$arch.deb
lintian --fail-on error "$deb"
echo "package: $deb"

#!/usr/bin/env bash
# Cross-builds the daemon and its tests for the controller's ARM processors,
# 64-bit (arm64, build-arm64/) and 32-bit ARMv7 (armhf, build-armhf/), and runs
# the suite under qemu-user. Tests labelled "system" (namespaces, raw sockets,
# processes of their own) are left out of the emulated runs.
# As root it installs what it needs: the cross compilers, qemu-user, and the
# target's Qt packages, which it unpacks into build-<arch>/target-root.
set -euo pipefail
cd "$(dirname "$0")/.."
. scripts/packages.sh
. scripts/cross.sh

host_packages="$BUILD_PACKAGES qemu-user file"
for target in $CROSS_TARGETS; do host_packages="$host_packages crossbuild-essential-${target%%:*}"; done
# shellcheck disable=SC2086
ensure_packages $host_packages

summary=""
for target in $CROSS_TARGETS; do
    arch=${target%%:*}
    triple=${target#*:}
    build=build-$arch
    echo "=== $arch ($triple)"
    add_architecture "$arch"
    make_target_root "$arch" "$triple" "$PWD/$build/target-root"
    cmake -S . -B "$build" -DCMAKE_BUILD_TYPE=Debug \
        -DCMAKE_TOOLCHAIN_FILE="cmake/toolchains/$triple.cmake" \
        -DUPNP_TARGET_ROOT="$PWD/$build/target-root"
    cmake --build "$build" --parallel 2
    file "$build/upnp/upnp"
    ctest --test-dir "$build" --label-exclude system --output-on-failure --timeout 600 \
        | tee "$build/ctest.log"
    summary="$summary$arch: $(grep -E 'tests passed' "$build/ctest.log")"$'\n'
done
printf '=== emulated suites\n%s' "$summary"

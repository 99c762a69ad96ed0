#!/usr/bin/env bash
# Builds the project and runs every test.
#   scripts/test.sh              native build in build/
#   scripts/test.sh --sanitize   AddressSanitizer and UndefinedBehaviorSanitizer build in build-asan/
# As root it first installs the Debian packages that are missing. Tests that
# need root (namespaces, raw sockets) skip themselves otherwise.
set -euo pipefail
cd "$(dirname "$0")/.."
. scripts/packages.sh

build_dir=build
options=(-DCMAKE_BUILD_TYPE=Debug)
if [ "${1:-}" = "--sanitize" ]; then
    build_dir=build-asan
    options+=(-DUPNP_SANITIZE=ON)
    # Any report ends the run with a failure; leaks are reported too.
    export ASAN_OPTIONS=detect_leaks=1:abort_on_error=0:halt_on_error=1
    export UBSAN_OPTIONS=print_stacktrace=1:halt_on_error=1
fi

# shellcheck disable=SC2086
ensure_packages $BUILD_PACKAGES $TEST_PACKAGES
cmake -S . -B "$build_dir" "${options[@]}"
cmake --build "$build_dir" --parallel 2
ctest --test-dir "$build_dir" --output-on-failure --timeout 600

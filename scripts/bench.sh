#!/usr/bin/env bash
# Runs the benchmark suite: the daemon's RPC, parser, coordinator and SSDP
# beside the physical limit and their peers (plain C over a Unix-domain socket,
# plain Qt, sd-bus and QtDBus on a private dbus-daemon, minissdpd and GSSDP in
# private network namespaces), in interleaved rounds; prints one table and
# writes docs/PERFORMANCE.md.
#   scripts/bench.sh           the full run (about seven minutes)
#   scripts/bench.sh --smoke   everything once, briefly, for CI; writes build-bench/PERFORMANCE-smoke.md
# Needs root (namespaces, taskset); installs the Debian packages it needs.
# Builds in build-bench/ with optimisation, as the daemon ships.
set -euo pipefail
cd "$(dirname "$0")/.."
. scripts/packages.sh
[ "$(id -u)" -eq 0 ] || { echo "the benchmarks need root for their namespaces (run with sudo)" >&2; exit 1; }

# What the benchmarks compare with, beside what building needs: sd-bus and a
# dbus-daemon, minissdpd, GSSDP, and the tools that measure (valgrind for
# --profile-ssdp, taskset from util-linux).
BENCH_PACKAGES="libsystemd-dev pkg-config dbus-daemon minissdpd valgrind iproute2 util-linux procps python3-gi gir1.2-gssdp-1.6"
# shellcheck disable=SC2086
ensure_packages $BUILD_PACKAGES $BENCH_PACKAGES

cmake -S . -B build-bench -DCMAKE_BUILD_TYPE=RelWithDebInfo -DUPNP_BENCH=ON -DUPNP_BUILD_TESTS=OFF >/dev/null
cmake --build build-bench --parallel 2
/usr/bin/python3 bench/run.py "$@"

#!/usr/bin/env bash
# Builds the fuzz targets with clang's libFuzzer, AddressSanitizer and
# UndefinedBehaviorSanitizer in build-fuzz/, and runs each for SECONDS
# (default 60), one after another, on a scratch copy of its seed corpus
# (fuzz/corpus/<target>/ stays as it is).
#   scripts/fuzz.sh [SECONDS]
# Fails when a target crashes, leaks or trips a sanitizer; the reproducer is
# printed in hexadecimal. To keep one as a regression test, fix the fault and
# add the file to fuzz/corpus/<target>/: every build's test suite replays it.
# As root it first installs the Debian packages that are missing.
set -euo pipefail
cd "$(dirname "$0")/.."
. scripts/packages.sh

seconds=${1:-60}
# clang with libFuzzer and the sanitizer runtimes; llvm for the symbolizer.
# shellcheck disable=SC2086
ensure_packages $BUILD_PACKAGES clang libclang-rt-14-dev llvm-14
CC=clang CXX=clang++ cmake -S . -B build-fuzz -DCMAKE_BUILD_TYPE=RelWithDebInfo -DUPNP_FUZZ=ON \
    -DUPNP_BUILD_TESTS=OFF
cmake --build build-fuzz --target fuzzers --parallel 2

scratch=$(mktemp -d)
trap 'rm -rf "$scratch"' EXIT
export ASAN_OPTIONS=detect_leaks=1:symbolize=1
export UBSAN_OPTIONS=print_stacktrace=1:halt_on_error=1
failed=0
for seeds in fuzz/corpus/*/; do
    target=$(basename "$seeds")
    mkdir -p "$scratch/$target/corpus" "$scratch/$target/artifacts"
    cp -r "$seeds". "$scratch/$target/corpus/"
    echo "=== $target: $seconds s"
    status=0
    "build-fuzz/fuzz/$target" -max_total_time="$seconds" -timeout=25 -rss_limit_mb=2048 \
        -print_final_stats=1 -artifact_prefix="$scratch/$target/artifacts/" \
        "$scratch/$target/corpus" > "$scratch/$target/log" 2>&1 || status=$?
    grep -E '^#[0-9]+[[:space:]]+DONE|^Done [0-9]+ runs|^stat::number_of_executed_units' "$scratch/$target/log" || true
    if [ "$status" -ne 0 ] || ls "$scratch/$target/artifacts/"* > /dev/null 2>&1; then
        failed=1
        echo "=== $target FAILED (status $status):"
        tail -n 60 "$scratch/$target/log"
        for artifact in "$scratch/$target/artifacts/"*; do
            [ -e "$artifact" ] || continue
            echo "--- reproducer $(basename "$artifact"), $(stat -c %s "$artifact") bytes:"
            od -An -tx1 -v "$artifact"
        done
    fi
done
[ "$failed" -eq 0 ] && echo "fuzzing: every target ran $seconds s without a finding"
exit "$failed"

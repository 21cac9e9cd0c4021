#!/usr/bin/env bash
# Installs what is missing, builds the library and runs the whole test suite.
set -euo pipefail

root=$(cd "$(dirname "${BASH_SOURCE[0]}")/.." && pwd)
"$root/scripts/install-deps.sh"

jobs=$(nproc)

build() {
    local dir=$1
    shift
    cmake -S "$root" -B "$dir" "$@" >/dev/null
    cmake --build "$dir" --parallel "$jobs"
}

build "$root/build" -DCMAKE_BUILD_TYPE=RelWithDebInfo
ctest --test-dir "$root/build" --output-on-failure --parallel "$jobs"

# The Debian packages, built from the committed tree and checked with lintian.
bash "$root/tests/package_test.sh" "$root"

# Everything again under AddressSanitizer and UndefinedBehaviorSanitizer,
# then under ThreadSanitizer: the worker threads, semaphores, locks and
# event-loop threads are where races would hide. Death tests fork and are
# left out under ThreadSanitizer.
build "$root/build-asan" -DCMAKE_BUILD_TYPE=RelWithDebInfo -DRADARSCENE_SANITIZE=address \
    -DRADARSCENE_BUILD_BENCHMARKS=OFF
ctest --test-dir "$root/build-asan" --output-on-failure --parallel "$jobs"

build "$root/build-tsan" -DCMAKE_BUILD_TYPE=RelWithDebInfo -DRADARSCENE_SANITIZE=thread \
    -DRADARSCENE_BUILD_BENCHMARKS=OFF
GTEST_FILTER='-*DeathTest*' TSAN_OPTIONS=halt_on_error=1 \
    ctest --test-dir "$root/build-tsan" --output-on-failure --parallel "$jobs"

# The scene decoder and the tools' MCAP reader against arbitrary bytes, and
# the scene writer against serializing the built message on frames drawn
# from the input: libFuzzer with AddressSanitizer and
# UndefinedBehaviorSanitizer, built with clang; the MCAP reader starts from a
# few small recordings.
cmake -S "$root/fuzz" -B "$root/build-fuzz" -DCMAKE_CXX_COMPILER=clang++-14 >/dev/null
cmake --build "$root/build-fuzz" --parallel "$jobs"
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT
fuzz() {
    local target=$1 seconds=$2 corpus=$work/$1
    mkdir "$corpus"
    [[ -z ${3:-} ]] || cp "$3"/* "$corpus/"
    if ! "$root/build-fuzz/$target" -max_total_time="$seconds" -print_final_stats=1 \
        -artifact_prefix="$work/" "$corpus" >"$work/$target.log" 2>&1; then
        cat "$work/$target.log"
        exit 1
    fi
    tail -n 2 "$work/$target.log"
}
fuzz deserializeframe_fuzz 40
fuzz serializeframe_fuzz 30
fuzz mcapreader_fuzz 30 "$root/fuzz/corpus/mcap"

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

# The distribution core again under ThreadSanitizer: its threads, semaphores
# and locks are where races would hide. Death tests fork and are left out.
tsan_tests=(session_test scenesender_test scenesink_test channelhandler_test)
cmake -S "$root" -B "$root/build-tsan" -DCMAKE_BUILD_TYPE=RelWithDebInfo \
    -DRADARSCENE_SANITIZE=thread -DRADARSCENE_BUILD_BENCHMARKS=OFF >/dev/null
cmake --build "$root/build-tsan" --parallel "$jobs" --target "${tsan_tests[@]}"
GTEST_FILTER='-*DeathTest*' TSAN_OPTIONS=halt_on_error=1 \
    ctest --test-dir "$root/build-tsan" --output-on-failure --parallel "$jobs" \
    -R "^($(IFS='|'; echo "${tsan_tests[*]}"))\$"

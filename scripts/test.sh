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

#!/usr/bin/env bash
# Installs the Debian 12 packages that building, testing and running the
# library need, skipping any that are already there.
set -euo pipefail

packages=(
    build-essential cmake pkg-config
    libsdbus-c++-dev libsdbus-c++-bin libsystemd-dev
    libprotobuf-dev protobuf-compiler nlohmann-json3-dev
    dbus-daemon libgtest-dev libgmock-dev libbenchmark-dev
    clang-14 libfuzzer-14-dev libclang-rt-14-dev
    python3-dbus python3-protobuf python3-pytest
    mosquitto libmosquitto-dev mosquitto-clients libssl-dev openssl
    libzstd-dev liblz4-dev zlib1g-dev zstd lz4 chromium
    doxygen
)
# The tests run third-party JavaScript clients with node and npm; a machine
# that has them from elsewhere keeps its own.
if ! command -v node >/dev/null || ! command -v npm >/dev/null; then
    packages+=(nodejs npm)
fi

missing=()
for package in "${packages[@]}"; do
    if ! dpkg-query -W -f='${Status}' "$package" 2>/dev/null | grep -q "ok installed"; then
        missing+=("$package")
    fi
done

if ((${#missing[@]})); then
    echo "Installing: ${missing[*]}"
    sudo_cmd=()
    if [[ $(id -u) -ne 0 ]]; then
        sudo_cmd=(sudo)
    fi
    "${sudo_cmd[@]}" apt-get update -qq
    DEBIAN_FRONTEND=noninteractive "${sudo_cmd[@]}" apt-get install -y -qq --no-install-recommends "${missing[@]}"
fi

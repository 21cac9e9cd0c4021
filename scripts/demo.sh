#!/usr/bin/env bash
# Runs the library end to end on a private D-Bus daemon: a demo producer
# pushes synthetic radar frames through a Sink, and a demo subscriber prints
# the scenes it receives over its socket. Usage: scripts/demo.sh [frames]
set -euo pipefail

root=$(cd "$(dirname "${BASH_SOURCE[0]}")/.." && pwd)
frames=${1:-20}
"$root/scripts/install-deps.sh"

cmake -S "$root" -B "$root/build" -DCMAKE_BUILD_TYPE=RelWithDebInfo >/dev/null
cmake --build "$root/build" --parallel "$(nproc)" --target demo_producer demo_subscriber

work=$(mktemp -d /tmp/radarscene-demo-XXXXXX)
producer_pid=
bus_pid=
cleanup() {
    [[ -n $producer_pid ]] && kill "$producer_pid" 2>/dev/null && wait "$producer_pid" || true
    [[ -n $bus_pid ]] && kill "$bus_pid" 2>/dev/null || true
    rm -rf "$work"
}
trap cleanup EXIT

sed "s|@DIR@|$work|" "$root/tools/private-bus.conf.in" >"$work/bus.conf"

exec 3< <(dbus-daemon --config-file="$work/bus.conf" --nofork --nopidfile --print-address=1 \
    2>/dev/null & echo "pid $!")
read -r _ bus_pid <&3
read -r address <&3
export DBUS_SYSTEM_BUS_ADDRESS=$address
export VARRO_DEV_DIR=$work/broker
echo "private system bus: $address"

"$root/build/tools/demo_producer" &
producer_pid=$!
"$root/build/tools/demo_subscriber" "$frames"

echo
echo "broker topics written by the development broker backend:"
for data in "$VARRO_DEV_DIR"/*.jsonl; do
    echo "  $(basename "$data" .jsonl): $(wc -l <"$data") data items"
done

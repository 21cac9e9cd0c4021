#!/usr/bin/env bash
# Runs the library end to end on a private D-Bus daemon: a simulated
# geolocation service, the demo producer pushing synthetic radar frames
# through a Sink, and radarscene-sub showing the stream as summaries and as
# statistics. Usage: scripts/demo.sh
set -euo pipefail

root=$(cd "$(dirname "${BASH_SOURCE[0]}")/.." && pwd)
"$root/scripts/install-deps.sh"

cmake -S "$root" -B "$root/build" -DCMAKE_BUILD_TYPE=RelWithDebInfo >/dev/null
cmake --build "$root/build" --parallel "$(nproc)" \
    --target radarscene-demo-producer radarscene-sub radarscene-geosim >/dev/null
tools=$root/build/tools

work=$(mktemp -d /tmp/radarscene-demo-XXXXXX)
pids=()
stop_all() {
    for ((i = ${#pids[@]} - 1; i >= 0; i--)); do
        kill -TERM "${pids[i]}" 2>/dev/null || true
        wait "${pids[i]}" 2>/dev/null || true
    done
    pids=()
}
trap 'stop_all; rm -rf "$work"' EXIT

sed "s|@DIR@|$work|" "$root/tools/private-bus.conf.in" >"$work/bus.conf"
dbus-daemon --config-file="$work/bus.conf" --nofork --nopidfile --print-address=3 \
    3>"$work/address" 2>/dev/null &
pids+=($!)
for _ in $(seq 50); do [[ -s $work/address ]] && break; sleep 0.1; done
export DBUS_SYSTEM_BUS_ADDRESS=$(head -n 1 "$work/address")
export VARRO_DEV_DIR=$root/build/demo-broker
rm -rf "$VARRO_DEV_DIR"
echo "private system bus: $DBUS_SYSTEM_BUS_ADDRESS"

"$tools/radarscene-geosim" --lat 59.3293 --lon 18.0686 --heading 30 --drift 2 &
pids+=($!)
"$tools/radarscene-demo-producer" --rate 20 &
pids+=($!)

echo
echo "== radarscene-sub --summary --geo --count 20"
"$tools/radarscene-sub" --wait 10 --summary --geo --count 20
echo
echo "== radarscene-sub --stats --duration 3"
"$tools/radarscene-sub" --stats --duration 3

stop_all
echo
echo "broker topics written by the development broker backend to $VARRO_DEV_DIR:"
for data in "$VARRO_DEV_DIR"/*.jsonl; do
    echo "  $(basename "$data" .jsonl): $(wc -l <"$data") data items"
done

#!/usr/bin/env bash
# The producer's resident memory over time with MQTT brokers that misbehave:
# one that never answers TLS, one that never sends CONNACK, one that never
# acknowledges and one that stops reading. Runs the demo producer of two
# builds (before and after a change) against each, all at once, and prints a
# table of their resident sizes in MiB.
# Usage: bench/mqtt_bench.sh BEFORE_BUILD AFTER_BUILD [SECONDS [OBJECTS [RATE]]]
set -euo pipefail

root=$(cd "$(dirname "${BASH_SOURCE[0]}")/.." && pwd)
before=$1 after=$2 seconds=${3:-180} objects=${4:-500} rate=${5:-50}
work=$(mktemp -d /tmp/radarscene-mqtt-bench-XXXXXX)
pids=()
trap 'for p in "${pids[@]}"; do kill "$p" 2>/dev/null || true; done; wait 2>/dev/null; rm -rf "$work"' EXIT

free_port() { /usr/bin/python3 -c 'import socket; s = socket.socket(); s.bind(("127.0.0.1", 0)); print(s.getsockname()[1])'; }
silent=$(free_port) unacknowledging=$(free_port) deaf=$(free_port)
/usr/bin/python3 "$root/bench/misbehaving_broker.py" "$silent" "$unacknowledging" "$deaf" &
pids+=($!)

declare -A urls=(
    [no-TLS-answer]=mqtts://127.0.0.1:$silent
    [no-CONNACK]=mqtt://127.0.0.1:$silent
    [no-acknowledgement]=mqtt://127.0.0.1:$unacknowledging
    [not-reading]=mqtt://127.0.0.1:$deaf
)
names=(no-TLS-answer no-CONNACK no-acknowledgement not-reading)
declare -A producers
for name in "${names[@]}"; do
    for build in before after; do
        dir=$work/$name-$build
        mkdir -p "$dir"
        sed "s|@DIR@|$dir|" "$root/tools/private-bus.conf.in" >"$dir/bus.conf"
        dbus-daemon --config-file="$dir/bus.conf" --nofork --nopidfile 2>/dev/null &
        pids+=($!)
        for _ in $(seq 50); do [[ -S $dir/bus ]] && break; sleep 0.1; done
        tools=$before/tools
        [[ $build == after ]] && tools=$after/tools
        DBUS_SYSTEM_BUS_ADDRESS=unix:path=$dir/bus VARRO_MQTT_URL=${urls[$name]} \
            "$tools/radarscene-demo-producer" --rate "$rate" --objects "$objects" 2>"$dir/log" &
        producers[$name-$build]=$!
        pids+=($!)
    done
done

rss() { awk '/^VmRSS/ { printf "%.0f", $2 / 1024 }' "/proc/$1/status" 2>/dev/null || echo "-"; }
step=$((seconds / 6))
header="| broker | build |"
declare -A rows
for name in "${names[@]}"; do
    for build in before after; do rows[$name-$build]="| $name | $build |"; done
done
for t in 0 1 2 3 4 5 6; do
    ((t == 0)) && sleep 5 || sleep "$step"
    header+=" $((t == 0 ? 5 : 5 + t * step)) s |"
    for key in "${!rows[@]}"; do rows[$key]+=" $(rss "${producers[$key]}") |"; done
done
echo "$objects objects at $rate Hz; resident size in MiB"
echo
echo "$header"
echo "|---|---|$(printf -- '---|%.0s' 0 1 2 3 4 5 6)"
for name in "${names[@]}"; do
    for build in before after; do echo "${rows[$name-$build]}"; done
done

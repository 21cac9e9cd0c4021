#!/usr/bin/env bash
# Runs the library end to end on a private D-Bus daemon: a simulated
# geolocation service, the demo producer pushing synthetic radar frames
# through a Sink, and radarscene-sub showing the stream as summaries and as
# statistics. With --mqtt the broker topics go to a private mosquitto broker
# instead of files, and a few of their data items are shown; with --tls as
# well, over TLS to a broker that wants a client certificate and a password,
# with a CA and certificates made for the run. With --view radarscene-view
# shows the stream live in a browser until Ctrl-C.
# Usage: scripts/demo.sh [--mqtt [--tls] | --view]
set -euo pipefail

root=$(cd "$(dirname "${BASH_SOURCE[0]}")/.." && pwd)
mqtt=false
tls=false
view=false
usage="usage: scripts/demo.sh [--mqtt [--tls] | --view]"
for option in "$@"; do
    case $option in
    --mqtt) mqtt=true ;;
    --tls) tls=true ;;
    --view) view=true ;;
    *) echo "$usage" >&2; exit 2 ;;
    esac
done
if { $tls && ! $mqtt; } || { $view && $mqtt; }; then
    echo "$usage" >&2
    exit 2
fi
"$root/scripts/install-deps.sh"

cmake -S "$root" -B "$root/build" -DCMAKE_BUILD_TYPE=RelWithDebInfo >/dev/null
cmake --build "$root/build" --parallel "$(nproc)" \
    --target radarscene-demo-producer radarscene-sub radarscene-geosim radarscene-view >/dev/null
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

if $mqtt; then
    port=$(python3 -c 'import socket; s = socket.socket(); s.bind(("127.0.0.1", 0)); print(s.getsockname()[1])')
    chmod 755 "$work"
    printf 'listener %s 127.0.0.1\npersistence false\n' "$port" >"$work/mosquitto.conf"
    subscriber=(-h 127.0.0.1 -p "$port")
    if $tls; then
        # The secret goes through files only, never a command line.
        "$root/tests/varro_mqtt_certs.sh" "$work"
        secret=$(head -c 12 /dev/urandom | base64)
        (
            umask 077
            printf '%s\n' "$secret" >"$work/password"
            printf -- '-u radar\n-P %s\n' "$secret" >"$work/mosquitto_sub"
        )
        printf 'radar:%s\n' "$secret" >"$work/passwords"
        mosquitto_passwd -U "$work/passwords"
        chmod 644 "$work/passwords" # hashed; the broker reads it as its own user
        printf '%s\n' "cafile $work/ca.crt" "certfile $work/server.crt" \
            "keyfile $work/server.key" "require_certificate true" "allow_anonymous false" \
            "password_file $work/passwords" >>"$work/mosquitto.conf"
        export VARRO_MQTT_URL=mqtts://127.0.0.1:$port VARRO_MQTT_CAFILE=$work/ca.crt \
            VARRO_MQTT_CERTFILE=$work/client.crt VARRO_MQTT_KEYFILE=$work/client.key \
            VARRO_MQTT_USERNAME=radar VARRO_MQTT_PASSWORD_FILE=$work/password
        subscriber+=(--cafile "$work/ca.crt" --cert "$work/client.crt" --key "$work/client.key")
    else
        printf 'allow_anonymous true\n' >>"$work/mosquitto.conf"
        export VARRO_MQTT_URL=mqtt://127.0.0.1:$port
    fi
    mosquitto -c "$work/mosquitto.conf" 2>/dev/null &
    pids+=($!)
    for _ in $(seq 50); do (echo >"/dev/tcp/127.0.0.1/$port") 2>/dev/null && break; sleep 0.1; done
    echo "private MQTT broker: $VARRO_MQTT_URL"
    XDG_CONFIG_HOME=$work mosquitto_sub "${subscriber[@]}" -t 'mdb.radar.scene/1' -C 3 -v \
        >"$work/mqtt.txt" &
    mqtt_sub=$!
fi

"$tools/radarscene-geosim" --lat 59.3293 --lon 18.0686 --heading 30 --drift 2 &
pids+=($!)
# The producer and the subscriber say whether scenes carry geographic
# positions when they start: the simulator must own its name by then.
for _ in $(seq 100); do
    dbus-send --system --print-reply --dest=org.freedesktop.DBus /org/freedesktop/DBus \
        org.freedesktop.DBus.NameHasOwner string:com.tessel.GeoLocation1 2>/dev/null |
        grep -q "boolean true" && break
    sleep 0.1
done
"$tools/radarscene-demo-producer" --rate 20 &
pids+=($!)

if $view; then
    port=${RADARSCENE_VIEW_PORT:-8765}
    echo
    echo "== radarscene-view: open http://127.0.0.1:$port/ in a browser (Foxglove:"
    echo "   ws://127.0.0.1:$port/); Ctrl-C stops the demo"
    "$tools/radarscene-view" --wait 10 --listen "127.0.0.1:$port" --web-root "$root/tools/view/web" &
    pids+=($!)
    wait "${pids[-1]}" || true
    exit 0
fi

echo
echo "== radarscene-sub --summary --geo --count 20"
"$tools/radarscene-sub" --wait 10 --summary --geo --count 20
echo
echo "== radarscene-sub --stats --duration 3"
"$tools/radarscene-sub" --stats --duration 3

if $mqtt; then
    wait "$mqtt_sub" || true
    echo
    echo "== data items received with mosquitto_sub from $VARRO_MQTT_URL"
    cut -c1-160 "$work/mqtt.txt"
    stop_all
else
    stop_all
    echo
    echo "broker topics written by the development broker backend to $VARRO_DEV_DIR:"
    for data in "$VARRO_DEV_DIR"/*.jsonl; do
        echo "  $(basename "$data" .jsonl): $(wc -l <"$data") data items"
    done
fi

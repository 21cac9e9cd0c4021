#!/usr/bin/env bash
# radarscene-view against a viewer written here from the protocol's public
# description (view_guard.py): where it listens, closing handshakes, memory
# and descriptors under hostile clients, providers that restart over and
# over (radarscene-sub --reconnect too), and the device's location.
# Usage: view_guard_test.sh <build dir> <bus configuration template>
set -euo pipefail

build=$1
tools=$build/tools
here=$(cd "$(dirname "${BASH_SOURCE[0]}")" && pwd)
source "$here/testlib.sh"
start_private_bus "$2"
# Sizes are read while the view runs: a sanitizer's quarantine must not
# stand in for what the view keeps.
export ASAN_OPTIONS=${ASAN_OPTIONS:+$ASAN_OPTIONS:}quarantine_size_mb=4
guard() { /usr/bin/python3 "$here/view_guard.py" "$@"; }

# Starts the view with the options given; sets $view and $port.
start_view() {
    "$tools/radarscene-view" --wait 10 "$@" 2>"$work/view.log" &
    view=$!
    pids+=($view)
    for _ in $(seq 100); do grep -q serving "$work/view.log" && break; sleep 0.1; done
    port=$(sed -n 's|.*serving http://.*:\([0-9]*\)/$|\1|p' "$work/view.log")
    [[ -n $port ]] || fail "no address: $(cat "$work/view.log")"
}
stop_view() {
    kill -INT "$view"
    wait "$view" || fail "radarscene-view did not stop cleanly: $(cat "$work/view.log")"
}
listening() { ss -tlnH "sport = :$port" | awk '{print $4}' | sort | tr '\n' ' '; }

# Exactly the address given, whether a literal or a name; one line naming
# an address that cannot be used.
for address in 127.0.0.1 '[::1]' localhost; do
    start_view --listen "$address:0"
    for _ in $(seq 50); do [[ -n $(listening) ]] && break; sleep 0.1; done
    expected=$(sed -n 's|.*serving http://\(.*\)/$|\1|p' "$work/view.log")
    [[ $(listening) == "$expected " && $expected != *'*'* ]] ||
        fail "--listen $address: listening on $(listening), serving $expected"
    stop_view
done
for address in 192.0.2.1:0 no-such-host.invalid:0; do
    "$tools/radarscene-view" --listen "$address" 2>"$work/refused.log" && fail "listened on $address"
    [[ $(wc -l <"$work/refused.log") == 1 ]] && grep -q "cannot listen on $address" "$work/refused.log" ||
        fail "--listen $address: $(cat "$work/refused.log")"
done

"$tools/radarscene-demo-producer" --rate 100 --objects 64 2>/dev/null &
producer=$!
pids+=($producer)
start_view --listen 127.0.0.1:0 --max-clients 4 --web-root "$here/../tools/view/web"
guard closing "$port" 4 || fail "closing handshakes"
guard flood "$port" "$view" 400 >"$work/flood.log" || fail "$(cat "$work/flood.log")"
guard hoard "$port" "$view" 4 >"$work/hoard.log" || fail "$(cat "$work/hoard.log")"
cat "$work/flood.log" "$work/hoard.log"

# Providers that live a moment each, killed at any point of their start:
# the view and a reconnecting subscriber wait for the next one every time.
"$tools/radarscene-sub" --reconnect --wait 60 >"$work/sub.json" 2>"$work/sub.log" &
subscriber=$!
pids+=($subscriber)
for _ in $(seq 100); do [[ -s $work/sub.json ]] && break; sleep 0.1; done
kill "$producer"
wait "$producer" || true
for _ in $(seq 60); do
    lifetime=0.$((RANDOM % 3))$((RANDOM % 9 + 1))
    { timeout -s KILL "$lifetime" "$tools/radarscene-demo-producer" || true; } 2>/dev/null
    kill -0 "$view" "$subscriber" 2>/dev/null || break
done
kill -0 "$view" || fail "the view ended: $(tail -n 1 "$work/view.log")"
kill -0 "$subscriber" || fail "the subscriber ended: $(tail -n 1 "$work/sub.log")"
"$tools/radarscene-demo-producer" 2>/dev/null &
producer=$!
pids+=($producer)
guard serving "$port" || fail "no scenes after the restarts"
stop_view
kill "$producer"
wait "$producer" || true

# A location fix only from a valid device position: scenes recorded with
# geographic positions are replayed while the view's own device position
# is unknown, and only the geolocation service's position is published.
"$tools/radarscene-geosim" 2>/dev/null &
geosim=$!
pids+=($geosim)
"$tools/radarscene-demo-producer" 2>/dev/null &
producer=$!
pids+=($producer)
"$tools/radarscene-sub" --wait 10 --geo --count 40 --record "$work/geo.rec" >"$work/geo.json" \
    2>/dev/null
(($(grep -c geoposition "$work/geo.json") >= 20)) || fail "scenes without geographic positions"
kill "$geosim" "$producer"
wait "$geosim" "$producer" || true
"$tools/radarscene-replay" --loop --rate 50 "$work/geo.rec" 2>/dev/null &
pids+=($!)
start_view --listen 127.0.0.1:0
: >"$work/location.log"
guard location "$port" >"$work/location.log" &
client=$!
for _ in $(seq 200); do grep -q "no fix" "$work/location.log" && break; sleep 0.05; done
grep -q "no fix" "$work/location.log" || fail "location: $(cat "$work/location.log" "$work/view.log")"
"$tools/radarscene-geosim" --lat 10 --lon 20 2>/dev/null &
pids+=($!)
wait "$client" || fail "location: $(cat "$work/location.log" "$work/view.log")"
stop_view
echo "view guard: all checks passed"

#!/usr/bin/env bash
# radarscene-view against a viewer written here from the protocol's public
# description (view_guard.py): where it listens and what it needs to listen
# beyond loopback, closing handshakes, origins, memory and descriptors under
# hostile clients, a real viewer's place under attacks from another address,
# TLS and the secret, providers that restart over and over (radarscene-sub
# --reconnect too), and the device's location.
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

web=$here/../tools/view/web
# Starts the view with the options given; sets $view and $port.
start_view() {
    "$tools/radarscene-view" --wait 10 --web-root "$web" "$@" 2>"$work/view.log" &
    view=$!
    pids+=($view)
    for _ in $(seq 100); do grep -q serving "$work/view.log" && break; sleep 0.1; done
    port=$(sed -n 's|.*serving https\{0,1\}://.*:\([0-9]*\)/$|\1|p' "$work/view.log")
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
for address in 192.0.2.1:0 no-such-host.invalid:0 '[::ffff:127.0.0.1]:0'; do
    "$tools/radarscene-view" --listen "$address" --insecure-listener --web-root "$web" \
        2>"$work/refused.log" && fail "listened on $address"
    [[ $(wc -l <"$work/refused.log") == 1 ]] && grep -qF "cannot listen on $address" "$work/refused.log" ||
        fail "--listen $address: $(cat "$work/refused.log")"
done
# Beyond loopback only with TLS and a secret, or when asked to be insecure;
# a web root without the page and an address without port are refused.
head -c 24 /dev/urandom | od -An -tx1 | tr -d ' \n' >"$work/secret"
while IFS='|' read -r options expected; do
    # shellcheck disable=SC2086
    "$tools/radarscene-view" --web-root "$web" $options 2>"$work/refused.log" &&
        fail "started with $options"
    [[ $(wc -l <"$work/refused.log") == 1 ]] && grep -qF -- "$expected" "$work/refused.log" ||
        fail "$options: $(cat "$work/refused.log")"
done <<EOF2
--listen 0.0.0.0:0|needs TLS (--tls-cert and --tls-key) and a secret (--secret-file), or --insecure-listener
--listen [::]:0 --secret-file $work/secret|needs TLS (--tls-cert and --tls-key), or --insecure-listener
--listen [::1] --insecure-listener|--listen needs ADDRESS:PORT ([ADDRESS]:PORT for IPv6)
--web-root $work|no page in $work: index.html
EOF2
start_view --listen 0.0.0.0:0 --insecure-listener
stop_view

"$tools/radarscene-demo-producer" --rate 100 --objects 64 2>/dev/null &
producer=$!
pids+=($producer)
start_view --listen 127.0.0.1:0 --max-clients 4
guard closing "$port" 4 || fail "closing handshakes"
guard flood "$port" "$view" 400 >"$work/flood.log" || fail "$(cat "$work/flood.log")"
guard hoard "$port" "$view" 4 >"$work/hoard.log" || fail "$(cat "$work/hoard.log")"
guard origin "$port" || fail "origins"
guard rfc "$port" || fail "RFC 6455 and HTTP/1.1"
# Requests beyond the bound get their status and leave the log quiet.
guard headers "$port" 2000 || fail "oversized requests"
(($(wc -l <"$work/view.log") < 100)) || fail "$(wc -l <"$work/view.log") lines in the log: $(tail -n 3 "$work/view.log")"
guard backlog "$port" || fail "backlog"
# One peer attacks from 127.0.0.1 (or, spread, from 64 addresses of 127.0.1.0/24)
# while a real viewer comes from 127.0.0.2.
for attack in slow silent idle sockets lingering spread; do
    guard attack "$port" "$view" "$attack" 16 >>"$work/attacks.log" || fail "$(cat "$work/attacks.log")"
done
cat "$work/flood.log" "$work/hoard.log" "$work/attacks.log"

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

# Many subscriptions per viewer cost no more than one each; over TLS, with
# a certificate made here, only those with the secret are let in.
start_view --listen 127.0.0.1:0 --max-clients 20 --max-per-address 20
guard many "$port" "$view" || fail "many subscriptions"
stop_view
openssl req -x509 -newkey ec -pkeyopt ec_paramgen_curve:P-256 -nodes -days 2 -subj /CN=localhost \
    -addext subjectAltName=DNS:localhost,IP:127.0.0.1 -keyout "$work/view.key" -out "$work/view.crt" \
    2>/dev/null
start_view --listen 127.0.0.1:0 --tls-cert "$work/view.crt" --tls-key "$work/view.key" \
    --secret-file "$work/secret"
guard secret "$port" "$work/view.crt" "$work/secret" || fail "TLS and the secret"
stop_view
failed=$(grep -c "TLS handshake failed" "$work/view.log" || true)
((failed > 0 && failed < 50)) || fail "$failed lines of failed TLS handshakes"
grep -qF "$(cat "$work/secret")" "$work/view.log" && fail "the secret in the log"
kill "$producer"
wait "$producer" || true

# Scenes of another clock (time 1 ns) have no delay to show.
printf '\0\0\0\6\10\1' >"$work/old.rec"
"$tools/radarscene-replay" --loop --rate 50 "$work/old.rec" 2>/dev/null &
replay=$!
pids+=($replay)
start_view --listen 127.0.0.1:0
guard unknown-delay "$port" || fail "delay of a scene of another clock"
stop_view
kill "$replay"
wait "$replay" || true

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

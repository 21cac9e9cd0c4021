#!/usr/bin/env bash
# radarscene-view against clients that nobody here wrote: the Foxglove
# WebSocket protocol's own JavaScript client, a flood of bad and many
# connections, and the page in headless chromium, over HTTP and over HTTPS
# with the secret.
# Usage: view_test.sh <build dir> <bus configuration template>
set -euo pipefail

build=$1
tools=$build/tools
here=$(cd "$(dirname "${BASH_SOURCE[0]}")" && pwd)
source "$here/testlib.sh"
need_js_clients
start_private_bus "$2"

"$tools/radarscene-demo-producer" --rate 50 --objects 5 2>/dev/null &
producer=$!
pids+=($producer)
# Many connections come from one address here.
"$tools/radarscene-view" --wait 10 --listen 127.0.0.1:0 --web-root "$here/../tools/view/web" \
    --max-per-address 300 2>"$work/view.log" &
view=$!
pids+=($view)
for _ in $(seq 50); do grep -q serving "$work/view.log" && break; sleep 0.1; done
port=$(sed -n 's|.*serving http://127.0.0.1:\([0-9]*\)/|\1|p' "$work/view.log")
[[ -n $port ]] || fail "no address: $(cat "$work/view.log")"

# The scenes reach the protocol's own client exactly as the provider sends
# them to a subscriber with the same options, and every scene update has the
# public schema's shape.
"$tools/radarscene-sub" --wait 10 --count 150 --bbox --polygon --velocity --geo \
    --record "$work/pushed" >/dev/null &
subscriber=$!
node "$here/js/view_client.mjs" "ws://127.0.0.1:$port/" 20 >"$work/client.json" ||
    fail "the protocol's client"
wait "$subscriber"
/usr/bin/python3 - "$work/client.json" "$work/pushed" <<'EOF2' || fail "$(cat "$work/client.json")"
import base64, json, struct, sys
got = json.load(open(sys.argv[1]))
data, pushed, at = open(sys.argv[2], "rb").read(), set(), 0
while at + 4 <= len(data):
    length = struct.unpack(">I", data[at:at + 4])[0]
    pushed.add(data[at + 4:at + length])
    at += length
scenes = [base64.b64decode(s) for s in got["scenes"]]
sys.exit(0 if not got["problems"] and scenes and all(s in pushed for s in scenes) else 1)
EOF2

# The page, in a real browser, draws the objects.
node "$here/js/view_page.mjs" "http://127.0.0.1:$port/" "$build/view-screenshot.png" \
    >"$work/page.json" || fail "the page in chromium"
/usr/bin/python3 - "$work/page.json" <<'EOF2' || fail "page: $(cat "$work/page.json")"
import json, sys
page = json.load(open(sys.argv[1]))
drawn = page["drawn"]
ok = drawn["objects"] == [100, 101, 102, 103, 104] and page["coloured"] > 500
ok = ok and drawn["arrows"] > 0 and drawn["legend"] and drawn["channel"] == "/radar/0/view"
sys.exit(0 if ok and " scenes/s · 5 objects · push to display " in page["status"] else 1)
EOF2

# Bad input and load, at 100 scenes/s of 128 objects: answered or closed,
# never a crash or a stall.
kill -INT "$producer"
wait "$producer"
"$tools/radarscene-demo-producer" --rate 100 --objects 128 2>/dev/null &
producer=$!
pids+=($producer)
node "$here/js/view_bad.mjs" "ws://127.0.0.1:$port/" 16 >"$work/bad.json" || fail "bad input"
expected='{"malformed":true,"unknownOp":true,"noChannel":true,"binary":true,"oversized":true,"served":16,"refused":184,"stalledClosed":true,'
[[ $(cat "$work/bad.json") == "$expected"* ]] || fail "bad input: $(cat "$work/bad.json")"
grep -q '"answersAfterwards":true' "$work/bad.json" || fail "no answer after the load"

# Over HTTPS, with a certificate made here, the page given the secret in its
# address exchanges it for a cookie and draws; when the provider stops, the
# picture goes stale and says so.
openssl req -x509 -newkey ec -pkeyopt ec_paramgen_curve:P-256 -nodes -days 2 -subj /CN=localhost \
    -addext subjectAltName=DNS:localhost -keyout "$work/view.key" -out "$work/view.crt" 2>/dev/null
head -c 24 /dev/urandom | od -An -tx1 | tr -d ' \n' >"$work/secret"
"$tools/radarscene-view" --wait 10 --listen 127.0.0.1:0 --web-root "$here/../tools/view/web" \
    --tls-cert "$work/view.crt" --tls-key "$work/view.key" --secret-file "$work/secret" \
    2>"$work/tls.log" &
pids+=($!)
for _ in $(seq 50); do grep -q serving "$work/tls.log" && break; sleep 0.1; done
tls_port=$(sed -n 's|.*serving https://127.0.0.1:\([0-9]*\)/|\1|p' "$work/tls.log")
spki=$(openssl x509 -in "$work/view.crt" -pubkey -noout | openssl pkey -pubin -outform der |
    openssl dgst -sha256 -binary | base64)
node "$here/js/view_page.mjs" "https://localhost:$tls_port/?token=$(cat "$work/secret")" \
    "$build/view-screenshot-tls.png" "$spki" stale >"$work/tls-page.json" &
page=$!
for _ in $(seq 300); do [[ -s $work/tls-page.json ]] && break; sleep 0.1; done

# The provider goes away and comes back: the view follows it, and a viewer
# that comes meanwhile is told.
gone() { grep -c "the provider went away; waiting for it to come back" "$work/view.log" || true; }
before=$(gone)
kill -INT "$producer"
wait "$producer"
for _ in $(seq 50); do (($(gone) > before)) && break; sleep 0.1; done
(($(gone) > before)) || fail "the provider's going unnoticed: $(cat "$work/view.log")"
/usr/bin/python3 "$here/view_guard.py" told "$port" "went away" || fail "a new viewer is not told"
for _ in $(seq 300); do (($(wc -l <"$work/tls-page.json") >= 2)) && break; sleep 0.1; done
"$tools/radarscene-demo-producer" --rate 50 --objects 5 2>/dev/null &
pids+=($!)
wait "$page" || fail "the page over HTTPS: $(cat "$work/tls-page.json" "$work/tls.log")"
# The time the provider was away is no missing scenes.
/usr/bin/python3 - "$work/tls-page.json" <<'EOF2' || fail "page over HTTPS: $(cat "$work/tls-page.json")"
import json, re, sys
live, stale, back = (json.loads(line) for line in open(sys.argv[1]))
ok = live["drawn"]["objects"] and "token" not in live["address"] and not live["drawn"]["stale"]
ok = ok and "no scene for" in stale["status"] and "went away" in stale["notice"]
missing = [int(re.search(r"(\d+) missing", p["status"]).group(1)) for p in (stale, back)]
sys.exit(0 if ok and back["drawn"]["objects"] and missing[1] == missing[0] else 1)
EOF2
node "$here/js/view_client.mjs" "ws://127.0.0.1:$port/" 5 >/dev/null ||
    fail "no scenes after the provider came back"
kill -INT "$view"
wait "$view" || fail "radarscene-view did not stop cleanly"
echo "view: all checks passed"

#!/usr/bin/env bash
# The command-line tools end to end on a private bus: the demo producer and
# radarscene-sub, a recording replayed by radarscene-replay (with a corrupt
# record in it), and the Python example.
# Usage: tools_test.sh <build dir> <bus configuration template>
set -euo pipefail

build=$1
tools=$build/tools
python=/usr/bin/python3
man=$(dirname "${BASH_SOURCE[0]}")/../tools/man
source "$(dirname "${BASH_SOURCE[0]}")/testlib.sh"

start_private_bus "$2"

# Reads the JSON lines of radarscene-sub and prints "time id,id,..." per
# scene, after checking that every object has a box and no velocity.
scenes() {
    "$python" -c '
import json, sys
for line in sys.stdin:
    scene = json.loads(line)
    objects = scene.get("objects", [])
    assert all("boundingBox" in o and "velocity3d" not in o for o in objects), line
    print(scene["time"], ",".join(str(o["id"]) for o in objects))
'
}

"$tools/radarscene-demo-producer" --rate 50 --objects 4 2>/dev/null &
producer=$!
pids+=($producer)
"$tools/radarscene-sub" --wait 10 --count 5 --bbox --record "$work/recording" >"$work/live.json"
[[ $(wc -l <"$work/live.json") -eq 5 ]] || fail "five JSON lines expected"
scenes <"$work/live.json" >"$work/live.txt" || fail "JSON lines do not hold the asked-for scenes"
[[ $(cut -d' ' -f2 "$work/live.txt" | sort -u) == 100,101,102,103 ]] || fail "object ids"
kill -TERM "$producer"
wait "$producer" || fail "the producer did not stop cleanly"

# The replayed recording reaches a second subscriber as the same scenes. It
# loops, so a subscriber that attaches late still gets five of them.
"$tools/radarscene-replay" --loop --rate 50 "$work/recording" 2>/dev/null &
pids+=($!)
"$tools/radarscene-sub" --wait 10 --count 5 --bbox >"$work/replayed.json"
sort -u "$work/live.txt" >"$work/live.sorted"
[[ -z $(scenes <"$work/replayed.json" | sort -u | comm -13 "$work/live.sorted" -) ]] ||
    fail "replayed scenes that were not recorded"
kill -TERM "${pids[-1]}"
wait "${pids[-1]}" || fail "the replay did not stop cleanly"

# A record whose decoding would abort (a position without z) is skipped.
"$python" - "$work/recording" "$work/corrupt" <<'EOF2'
import struct, sys
data = open(sys.argv[1], "rb").read()
first = struct.unpack(">I", data[:4])[0]
bad = bytes([0x08, 0x07, 0x1a, 0x09, 0x08, 0x01, 0x3a, 0x05, 0x0d, 0, 0, 0x80, 0x3f])
open(sys.argv[2], "wb").write(data[:first] + struct.pack(">I", len(bad) + 4) + bad + data[first:])
EOF2
"$tools/radarscene-replay" --loop --rate 50 "$work/corrupt" 2>"$work/replay.log" &
replay=$!
pids+=($replay)
"$tools/radarscene-sub" --wait 10 --count 5 --bbox >"$work/skipped.json"
kill -TERM "$replay"
wait "$replay" || fail "the replay of a corrupt recording failed"
grep -q "skipped 1 (1 undecodable)" "$work/replay.log" ||
    fail "corrupt record not skipped: $(cat "$work/replay.log")"
[[ -z $(scenes <"$work/skipped.json" | sort -u | comm -13 "$work/live.sorted" -) ]] ||
    fail "scenes around the corrupt record"

# Scene times of another clock give statistics without a delay, and
# --count still ends with a statistics line.
"$python" - "$work/other-clock" <<'EOF2'
import struct, sys
with open(sys.argv[1], "wb") as out:
    for i in range(1, 11):
        scene = bytes([0x08, i])  # time: i ns after that clock's start
        out.write(struct.pack(">I", len(scene) + 4) + scene)
EOF2
"$tools/radarscene-replay" --loop --rate 50 "$work/other-clock" 2>/dev/null &
pids+=($!)
"$tools/radarscene-sub" --wait 10 --stats --count 5 >"$work/other-clock.txt"
grep -q "objects/scene  delay unknown  missing" "$work/other-clock.txt" ||
    fail "statistics of another clock: $(cat "$work/other-clock.txt")"
kill -TERM "${pids[-1]}"
wait "${pids[-1]}"

# Failures are one line on standard error and a non-zero status; options
# are checked as getopt does, and every tool has -h and --version.
expect_error "radarscene-sub: no radar scene provider on the system bus" \
    "$tools/radarscene-sub" --count 1
expect_error "radarscene-sub: option '--count' needs a value (see --help)" \
    "$tools/radarscene-sub" --count
expect_error "radarscene-sub: --count needs a whole number from 1 to 1000000000000, not '1.5'" \
    "$tools/radarscene-sub" --count 1.5
for tool in radarscene-sub radarscene-replay radarscene-geosim radarscene-demo-producer \
    radarscene-view radarscene-top; do
    "$tools/$tool" -h | grep -q "^Usage: $tool" || fail "$tool -h"
    [[ $("$tools/$tool" --version) == "$tool (radarscene) "* ]] || fail "$tool --version"
    # The man page describes every option that --help lists.
    for option in $("$tools/$tool" --help | grep -o -- '--[a-z-]*' | sort -u); do
        grep -qF -- "\\-\\-${option#--}" "$man/$tool.1" || fail "$tool.1 lacks $option"
    done
done

# A stop signal ends radarscene-sub at once, with status 0, while it still
# waits for the provider, and it says when scenes will carry no positions.
"$tools/radarscene-sub" --wait 20 --geo 2>"$work/geo.log" &
waiting=$!
sleep 0.3
kill -INT "$waiting"
wait "$waiting" || fail "radarscene-sub stopped while waiting must exit 0"
grep -q "^radarscene-sub: no geolocation service com.tessel.GeoLocation1 on the system bus" \
    "$work/geo.log" || fail "missing geolocation service not named: $(cat "$work/geo.log")"

# The provider going away ends the stream with a failure, unless
# --reconnect waits for it to come back.
"$tools/radarscene-demo-producer" --rate 20 2>/dev/null &
producer=$!
"$tools/radarscene-sub" --wait 10 --count 1 >/dev/null
"$tools/radarscene-sub" --stats >"$work/gone.txt" 2>/dev/null &
gone=$!
"$tools/radarscene-sub" --reconnect --count 40 >/dev/null 2>&1 &
reconnecting=$!
sleep 0.5
kill -INT "$producer"
wait "$producer"
wait "$gone" && fail "a provider that went away must be a failure"
grep -q "scenes/s" "$work/gone.txt" || fail "no final statistics line"
"$tools/radarscene-demo-producer" --rate 20 2>/dev/null &
pids+=($!)
wait "$reconnecting" || fail "radarscene-sub --reconnect did not resume the stream"

# A producer that cannot keep its rate skips frames instead of falling
# behind the clock: the delay stays near one send time.
kill -INT "${pids[-1]}"
wait "${pids[-1]}"
"$tools/radarscene-demo-producer" --rate 1000 --objects 2000 2>/dev/null &
pids+=($!)
"$tools/radarscene-sub" --wait 10 --stats --duration 3 >"$work/load.txt"
p50=$(tail -n 1 "$work/load.txt" | sed -n 's/.*delay ms p50 \([0-9.]*\).*/\1/p')
[[ -n $p50 ]] && (($(printf '%.0f' "$p50") < 1000)) || fail "delay under load: $(cat "$work/load.txt")"
started=$(date +%s%N)
kill -INT "${pids[-1]}"
wait "${pids[-1]}"
(($(date +%s%N) - started < 1000000000)) || fail "the producer took more than a second to stop"

if ! PYTHONPATH=$build/python "$python" -c "import dbus; from radarscene import scene_pb2" 2>/dev/null; then
    echo "SKIPPED: the Python example needs python3-dbus and a python3-protobuf that reads classes of this protoc"
    exit 77
fi
"$tools/radarscene-demo-producer" 2>/dev/null &
pids+=($!)
for _ in $(seq 50); do "$tools/radarscene-sub" --count 1 >/dev/null 2>&1 && break; sleep 0.1; done
PYTHONPATH=$build/python "$python" -m radarscene.sub --count 3 >"$work/python.txt"
[[ $(grep -c " 3 objects: 100 101 102$" "$work/python.txt") -eq 3 ]] ||
    fail "Python example output: $(cat "$work/python.txt")"
echo "tools: all checks passed"

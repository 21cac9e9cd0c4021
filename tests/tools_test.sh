#!/usr/bin/env bash
# The command-line tools end to end on a private bus: the demo producer and
# radarscene-sub, a recording replayed by radarscene-replay (with a corrupt
# record in it), and the Python example.
# Usage: tools_test.sh <build dir> <bus configuration template>
set -euo pipefail

build=$1
tools=$build/tools
python=/usr/bin/python3
source "$(dirname "${BASH_SOURCE[0]}")/testlib.sh"

sed "s|@DIR@|$work|" "$2" >"$work/bus.conf"
start_bus "$work/bus.conf"
export VARRO_DEV_DIR=$work/broker

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
grep -q "skipped 1 undecodable records" "$work/replay.log" ||
    fail "corrupt record not skipped: $(cat "$work/replay.log")"
[[ -z $(scenes <"$work/skipped.json" | sort -u | comm -13 "$work/live.sorted" -) ]] ||
    fail "scenes around the corrupt record"

# Failures are one line on standard error and a non-zero status.
"$tools/radarscene-sub" --count 1 2>"$work/error.log" && fail "no provider must fail"
[[ $(cat "$work/error.log") == "radarscene-sub: no radar scene provider on the system bus" ]] ||
    fail "error line: $(cat "$work/error.log")"

if ! PYTHONPATH=$build/python "$python" -c "import dbus, scene_pb2" 2>/dev/null; then
    echo "SKIPPED: the Python example needs python3-dbus and a python3-protobuf that reads classes of this protoc"
    exit 77
fi
"$tools/radarscene-demo-producer" 2>/dev/null &
pids+=($!)
for _ in $(seq 50); do "$tools/radarscene-sub" --count 1 >/dev/null 2>&1 && break; sleep 0.1; done
RADARSCENE_PYTHON_DIR=$build/python "$python" "$build/python/radarscene_sub.py" --count 3 \
    >"$work/python.txt"
[[ $(grep -c " 3 objects: 100 101 102$" "$work/python.txt") -eq 3 ]] ||
    fail "Python example output: $(cat "$work/python.txt")"
echo "tools: all checks passed"

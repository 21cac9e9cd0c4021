#!/usr/bin/env bash
# MCAP recordings against the format's own JavaScript library (@mcap/core,
# run by node): radarscene-sub's recordings read, checked and decoded by it,
# and a file it wrote replayed by radarscene-replay into a subscriber.
# Usage: recording_test.sh <build dir> <bus configuration template>
set -euo pipefail

build=$1
tools=$build/tools
here=$(cd "$(dirname "${BASH_SOURCE[0]}")" && pwd)
source "$here/testlib.sh"
need_js_clients
start_private_bus "$2"

# Records of the scene stream as the format's own reader sees them.
"$tools/radarscene-demo-producer" --rate 100 --objects 20 2>/dev/null &
pids+=($!)
"$tools/radarscene-sub" --wait 10 --count 300 --bbox --velocity --record "$work/live.mcap" \
    >/dev/null 2>"$work/sub.log"
grep -qx "radarscene-sub: recorded 300 scenes to $work/live.mcap" "$work/sub.log" ||
    fail "recording: $(cat "$work/sub.log")"
node "$here/js/mcap_read.mjs" "$work/live.mcap" >"$work/live.json" || fail "@mcap/core rejected it"
expected='{"profile":"","library":"radarscene 1.0.0 (radarscene-sub)","chunks":1,"compression":["zstd"],"channels":[{"topic":"/radar/0/scene","encoding":"protobuf","metadata":{"BOUNDINGBOX_ENABLED":"true","VELOCITY_ENABLED":"true","channel":"0"}}],"counts":{"/radar/0/scene":300}}'
[[ $(cat "$work/live.json") == "$expected" ]] || fail "read back: $(cat "$work/live.json")"

# A recording stopped by a signal is finished: summary and footer written.
"$tools/radarscene-sub" --compression lz4 --record "$work/stopped.mcap" >/dev/null 2>&1 &
recorder=$!
sleep 1
kill -INT "$recorder"
wait "$recorder" || fail "radarscene-sub stopped while recording must exit 0"
kill -TERM "${pids[-1]}"
wait "${pids[-1]}"
node "$here/js/mcap_read.mjs" "$work/stopped.mcap" | grep -q '"compression":\["lz4"\]' ||
    fail "a recording stopped by SIGINT is not a finished lz4 file"

# The index serves a window: half a second of a recording made at 100 Hz.
"$tools/radarscene-replay" --end 0.5 "$work/live.mcap" 2>"$work/window.log"
pushed=$(sed -n 's/.*pushed \([0-9]*\) scenes.*/\1/p' "$work/window.log")
((pushed >= 40 && pushed <= 60)) || fail "window: $(cat "$work/window.log")"

# A file that the JavaScript library wrote (a schema that protobufjs built
# from scene.proto, and a channel of another schema) replays byte for byte.
# Boxes are left out: a Sink converts a scene to a frame and back, and a
# box's corner can move by the last bit of a float on the way.
"$tools/radarscene-demo-producer" --rate 100 --objects 10 2>/dev/null &
pids+=($!)
"$tools/radarscene-sub" --wait 10 --count 40 --polygon --velocity --record "$work/scenes" \
    >/dev/null 2>&1
kill -TERM "${pids[-1]}"
wait "${pids[-1]}"
node "$here/js/mcap_write.mjs" "$here/../proto/scene.proto" "$work/scenes" "$work/js.mcap"
"$tools/radarscene-replay" --loop "$work/js.mcap" 2>"$work/replay.log" &
pids+=($!)
"$tools/radarscene-sub" --wait 10 --count 40 --polygon --velocity --record "$work/replayed" \
    >/dev/null 2>&1
/usr/bin/python3 - "$work/scenes" "$work/replayed" <<'EOF2' || fail "replayed scenes differ"
import struct, sys
def records(path):
    data, out, at = open(path, "rb").read(), [], 0
    while at + 4 <= len(data):
        length = struct.unpack(">I", data[at:at + 4])[0]
        out.append(data[at + 4:at + length])
        at += length
    return out
recorded, replayed = set(records(sys.argv[1])), records(sys.argv[2])
sys.exit(0 if len(replayed) == 40 and all(r in recorded for r in replayed) else 1)
EOF2
grep -q "skipped 0 chunks that failed their check and 10 messages of other" "$work/replay.log" ||
    fail "other schemas not counted: $(cat "$work/replay.log")"
echo "recordings: all checks passed"

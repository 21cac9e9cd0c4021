#!/usr/bin/env bash
# MCAP recordings of the installed tools against the format's own JavaScript
# library (@mcap/core, run by node) and against mcapfile.py, written here
# from the format's public documentation: radarscene-sub's recordings read and
# checked by both, one cut off by SIGKILL, and files of every layout and
# with lying lengths, counts and indexes replayed by radarscene-replay in
# bounded memory.
# Usage: recording_test.sh <build dir> <bus configuration template>
set -euo pipefail

build=$1
here=$(cd "$(dirname "${BASH_SOURCE[0]}")" && pwd)
source "$here/testlib.sh"
need_js_clients
command -v zstd >/dev/null && command -v lz4 >/dev/null || fail "needs the zstd and lz4 commands"
cmake --install "$build" --prefix "$work/prefix" >/dev/null
tools=$work/prefix/bin
start_private_bus "$2"

mcapfile() { /usr/bin/python3 "$here/mcapfile.py" "$@"; }
pushed() { sed -n 's/.*pushed \([0-9]*\) scenes.*/\1/p' "$1"; }

# Prints the peak resident size in KiB of the command "$2..." (VmHWM, read
# from /proc while it runs and from wait4 at its end) and its exit status;
# its standard error goes to $1. Under AddressSanitizer, freed memory is
# reused at once instead of being held in quarantine.
peak() {
    ASAN_OPTIONS=${ASAN_OPTIONS:+$ASAN_OPTIONS:}quarantine_size_mb=1 /usr/bin/python3 - "$@" <<'EOF2'
import os, re, subprocess, sys, time
child = subprocess.Popen(sys.argv[2:], stdout=subprocess.DEVNULL, stderr=open(sys.argv[1], "w"))
high = 0
while True:
    pid, status, usage = os.wait4(child.pid, os.WNOHANG)
    if pid:
        break
    try:
        with open(f"/proc/{child.pid}/status") as f:
            high = max(high, int(re.search(r"VmHWM:\s+(\d+)", f.read()).group(1)))
    except (OSError, AttributeError):
        pass
    time.sleep(0.01)
print(max(high, usage.ru_maxrss), os.waitstatus_to_exitcode(status))
EOF2
}

# Records of the scene stream as the format's own reader sees them.
"$tools/radarscene-demo-producer" --rate 100 --objects 20 2>/dev/null &
pids+=($!)
"$tools/radarscene-sub" --wait 10 --count 300 --bbox --velocity --record "$work/live.mcap" \
    >/dev/null 2>"$work/sub.log"
grep -qx "radarscene-sub: recorded 300 scenes to $work/live.mcap" "$work/sub.log" ||
    fail "recording: $(cat "$work/sub.log")"
node "$here/js/mcap_read.mjs" "$work/live.mcap" >"$work/live.json" || fail "@mcap/core rejected it"
expected='{"profile":"","library":"radarscene 1.0.0 (radarscene-sub)","chunks":N,"compression":["zstd"],"channels":[{"topic":"/radar/0/scene","encoding":"protobuf","metadata":{"BOUNDINGBOX_ENABLED":"true","VELOCITY_ENABLED":"true","channel":"0"}}],"counts":{"/radar/0/scene":300}}'
[[ $(sed 's/"chunks":[0-9]*/"chunks":N/' "$work/live.json") == "$expected" ]] ||
    fail "read back: $(cat "$work/live.json")"
# Three seconds of scenes in chunks of at most one second each.
mcapfile chunks "$work/live.mcap" >"$work/live.chunks" || fail "mcapfile.py rejected it"
awk '{ n += $1; if ($3 - $2 >= 1e9) bad = 1 } END { exit !(NR >= 3 && n == 300 && !bad) }' \
    "$work/live.chunks" || fail "chunks by time: $(cat "$work/live.chunks")"

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

# A window: half a second of a recording made at up to 100 Hz (fewer on a
# loaded machine).
"$tools/radarscene-replay" --end 0.5 "$work/live.mcap" 2>"$work/window.log"
pushed=$(pushed "$work/window.log")
((pushed >= 10 && pushed <= 60)) || fail "window: $(cat "$work/window.log")"

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
grep -q "js.mcap: not replayed: 10 messages of other schemas" "$work/replay.log" ||
    fail "other schemas not counted: $(cat "$work/replay.log")"
kill -TERM "${pids[-1]}"
wait "${pids[-1]}" || fail "replay --loop stopped by SIGTERM must exit 0"

# The kind of file is told by its first bytes; a window past the end says so.
cp "$work/live.mcap" "$work/upper.MCAP"
"$tools/radarscene-replay" --rate 10000 "$work/upper.MCAP" 2>"$work/upper.log"
[[ $(pushed "$work/upper.log") == 300 ]] || fail "upper-case name: $(cat "$work/upper.log")"
"$tools/radarscene-replay" --start 100 "$work/live.mcap" 2>"$work/past.log" && fail "--start 100"
grep -q "^radarscene-replay: $work/live.mcap: --start 100.000 s is past its end, [0-9.]* s after its start$" \
    "$work/past.log" || fail "--start past the end: $(cat "$work/past.log")"

# Every layout the format allows for what replay reads, ten scenes each.
for file in {chunked-{none,zstd,lz4},unchunked-none}{,-no-summary,-no-offsets}; do
    IFS=- read -r layout compression summary <<<"$file"
    mcapfile write "$work/$file.mcap" --layout "$layout" --compression "$compression" \
        ${summary:+--$summary}
    "$tools/radarscene-replay" --rate 10000 "$work/$file.mcap" 2>"$work/layout.log" ||
        fail "$file: $(cat "$work/layout.log")"
    # shellcheck disable=SC2143
    [[ $(pushed "$work/layout.log") == 10 && -z $(grep "$file.mcap" "$work/layout.log") ]] ||
        fail "$file: $(cat "$work/layout.log")"
done

# Files whose summary lies: one chunk listed 20,000 times, chunk indexes
# into the middle of their chunks, counts a thousand times too high. Each
# replays its ten scenes once, in the memory of a small file.
read -r small _ < <(peak "$work/small.log" "$tools/radarscene-replay" --rate 10000 \
    "$work/chunked-zstd.mcap")
for lie in "--per-chunk 10 --index-copies 20000" "--index-shift 20" "--lying-counts"; do
    # shellcheck disable=SC2086
    mcapfile write "$work/lie.mcap" $lie
    read -r kib status < <(peak "$work/lie.log" "$tools/radarscene-replay" --rate 10000 \
        "$work/lie.mcap")
    [[ $status == 0 && $(pushed "$work/lie.log") == 10 ]] || fail "$lie: $(cat "$work/lie.log")"
    ((kib - small < 8192)) || fail "$lie: $kib KiB resident against $small"
done

# Chunks that claim 64 MiB each within the compression ratio are refused,
# saying why; three of 30 MiB are read one at a time.
mcapfile write "$work/huge.mcap" --scenes 3 --per-chunk 1 --padding 60000 --claim $((64 << 20))
read -r kib status < <(peak "$work/huge.log" "$tools/radarscene-replay" "$work/huge.mcap")
[[ $status == 1 ]] || fail "chunks of 64 MiB replayed: $(cat "$work/huge.log")"
[[ $(cat "$work/huge.log") =~ ^"radarscene-replay: $work/huge.mcap holds no RadarScene.Scene message in protobuf that can be replayed (it has 3 records that failed their checks; the first: the chunk at byte "[0-9]+" claims 67"[0-9]+" bytes uncompressed, more than the 32 MiB a chunk may hold)"$ ]] ||
    fail "chunks of 64 MiB: $(cat "$work/huge.log")"
((kib - small < 8192)) || fail "chunks of 64 MiB: $kib KiB resident against $small"
mcapfile write "$work/big.mcap" --scenes 3 --per-chunk 1 --padding 60000 --claim $((30 << 20))
read -r kib status < <(peak "$work/big.log" "$tools/radarscene-replay" --rate 10000 \
    "$work/big.mcap")
[[ $status == 0 ]] || fail "chunks of 30 MiB: $(cat "$work/big.log")"
# ThreadSanitizer's shadow of a chunk takes several times the chunk.
[[ $(sed -n 's/^RADARSCENE_SANITIZE:[A-Z]*=//p' "$build/CMakeCache.txt") == thread ]] ||
    ((kib - small < 48 << 10)) || fail "chunks of 30 MiB: $kib KiB resident against $small"

# A recording ten times as long takes no more memory.
mcapfile write "$work/short.mcap" --scenes 1000 --per-chunk 250 --padding 4000 --compression none
mcapfile write "$work/long.mcap" --scenes 10000 --per-chunk 250 --padding 4000 --compression none
read -r short _ < <(peak "$work/short.log" "$tools/radarscene-replay" --rate 100000 \
    "$work/short.mcap")
read -r long _ < <(peak "$work/long.log" "$tools/radarscene-replay" --rate 100000 \
    "$work/long.mcap")
[[ $(pushed "$work/long.log") == 10000 ]] || fail "long recording: $(cat "$work/long.log")"
((long - short < 4096)) || fail "a recording of 40 MB: $long KiB resident, of 4 MB: $short"

# Layouts of other writers: the later half written first, a chunk per
# channel (notes 0.5-1.5 s before the scenes of 0-2 s), three chunks
# overlapping in time, a first scene stored last outside chunks, definitions
# only in the first chunk, and three scene channels: each pushes its 100
# scenes once, in log-time order (--list prints what a replay pushes).
for name in halves per-channel overlap3 unchunked-late inner-definitions channels; do
    mcapfile layout "$work/$name.mcap" "$name"
    "$tools/radarscene-replay" --rate 10000 "$work/$name.mcap" 2>"$work/$name.log" ||
        fail "$name: $(cat "$work/$name.log")"
    [[ $(pushed "$work/$name.log") == 100 ]] || fail "$name: $(cat "$work/$name.log")"
    "$tools/radarscene-replay" --list "$work/$name.mcap" >"$work/$name.list" 2>/dev/null
    [[ $(cut -d' ' -f2 "$work/$name.list") == "$(seq 0 99)" ]] || fail "$name: order"
done
# Scene channels are never merged: the others are listed and counted, and
# --topic chooses one; --start finds definitions in the chunks it skips.
grep -qx "radarscene-replay: pushed 100 scenes, skipped 200 (200 of other scene channels)" \
    "$work/channels.log" || fail "channels: $(cat "$work/channels.log")"
grep -qx "radarscene-replay: $work/channels.mcap: not replayed: 100 scenes of '/radar/0/scene_filtered' (no radar channel)" \
    "$work/channels.log" || fail "channels: $(cat "$work/channels.log")"
"$tools/radarscene-replay" --list --topic /debug/scene "$work/channels.mcap" >"$work/debug.list"
[[ $(cut -d' ' -f2 "$work/debug.list") == "$(seq 1000 1099)" ]] || fail "--topic /debug/scene"
"$tools/radarscene-replay" --list --start 1 "$work/inner-definitions.mcap" >"$work/late.list"
[[ $(cut -d' ' -f2 "$work/late.list") == "$(seq 50 99)" ]] || fail "--start 1, definitions in chunks"
expect_error "radarscene-replay: $work/overlap3.mcap: more than 2 of its chunks overlap in log time at 0.040 s after its start (the chunk at byte 2439), more than are read at once; --max-open-chunks N reads more at once" \
    "$tools/radarscene-replay" --list --max-open-chunks 2 "$work/overlap3.mcap"

# A channel the library does not serve is one line, not an abort; --topic
# with --channel serves it as another.
for n in 16 99; do
    mcapfile layout "$work/c$n.mcap" "channel$n"
    "$tools/radarscene-replay" --rate 10000 "$work/c$n.mcap" 2>"$work/c$n.log" && fail "channel $n"
    [[ $(cat "$work/c$n.log") =~ ^"radarscene-replay: $work/c$n.mcap: its scene channel '"[/a-z0-9]*"' (radar channel $n) is outside the channels 0 to 15 that the library serves; --topic with --channel N replays it as channel N"$ ]] ||
        fail "channel $n: $(cat "$work/c$n.log")"
done
"$tools/radarscene-replay" --rate 10000 --topic /radar/16/scene --channel 3 "$work/c16.mcap" \
    2>"$work/c16.log"
[[ $(pushed "$work/c16.log") == 10 ]] || fail "channel 16 as 3: $(cat "$work/c16.log")"

# Channel metadata of 2.9 million three-byte keys, at the top and in a zstd
# chunk, is refused by what it would cost, in tens of megabytes.
for name in bomb bomb-zstd; do
    mcapfile layout "$work/$name.mcap" "$name"
    read -r kib status < <(peak "$work/$name.log" "$tools/radarscene-replay" --rate 10000 \
        "$work/$name.mcap")
    [[ $status == 0 && $(pushed "$work/$name.log") == 10 ]] || fail "$name: $(cat "$work/$name.log")"
    grep -q "the channel at byte .* takes the schemas and channels past the 16 MiB" "$work/$name.log" ||
        fail "$name: $(cat "$work/$name.log")"
    [[ $(sed -n 's/^RADARSCENE_SANITIZE:[A-Z]*=//p' "$build/CMakeCache.txt") == thread ]] ||
        ((kib - small < 64 << 10)) || fail "$name: $kib KiB resident against $small"
done

# A record that runs past the end of a finished file: the chunks its summary
# lists beyond it are read. Five bytes of the magic, another version and a
# directory are one line each that says what they are. Long gaps are
# replayed as recorded unless capped.
mcapfile write "$work/lie.mcap" --scenes 20 --lying-length 2
"$tools/radarscene-replay" --rate 10000 "$work/lie.mcap" 2>"$work/lie.log"
[[ $(pushed "$work/lie.log") == 15 ]] || fail "lying length: $(cat "$work/lie.log")"
grep -qx "radarscene-replay: $work/lie.mcap: the record at byte [0-9]* runs past the end of the file (it claims 1099511627776 bytes); read on from the 2 chunks after it that the summary lists" \
    "$work/lie.log" || fail "lying length: $(cat "$work/lie.log")"
head -c 5 "$work/lie.mcap" >"$work/five.mcap"
expect_error "radarscene-replay: $work/five.mcap is a damaged MCAP file: it ends after 5 bytes of the magic" \
    "$tools/radarscene-replay" "$work/five.mcap"
printf '\x89MCAP1\r\n' | cat - "$work/five.mcap" "$work/five.mcap" >"$work/v1.mcap"
expect_error "radarscene-replay: $work/v1.mcap is a damaged MCAP file: it does not start with the whole MCAP magic" \
    "$tools/radarscene-replay" "$work/v1.mcap"
expect_error "radarscene-replay: $work is a directory, not a recording" "$tools/radarscene-replay" "$work"
mcapfile layout "$work/gap.mcap" gap
timeout 60 "$tools/radarscene-replay" --max-gap 0.01 "$work/gap.mcap" 2>"$work/gap.log"
[[ $(pushed "$work/gap.log") == 2 ]] || fail "--max-gap: $(cat "$work/gap.log")"

# A recorder killed by SIGKILL loses at most the last second of scenes.
"$tools/radarscene-demo-producer" --rate 10 --objects 3 2>/dev/null &
pids+=($!)
"$tools/radarscene-sub" --wait 10 --record "$work/killed.MCAP" >"$work/killed.json" 2>/dev/null &
recorder=$!
for _ in $(seq 100); do (($(wc -l <"$work/killed.json") >= 40)) && break; sleep 0.1; done
kill -KILL "$recorder"
{ wait "$recorder" || true; } 2>/dev/null
received=$(wc -l <"$work/killed.json")
kill -TERM "${pids[-1]}"
wait "${pids[-1]}"
"$tools/radarscene-replay" --rate 10000 "$work/killed.MCAP" 2>"$work/killed.log" ||
    fail "killed recording: $(cat "$work/killed.log")"
recovered=$(pushed "$work/killed.log")
((received >= 40 && recovered >= received - 11 && recovered <= received)) ||
    fail "$recovered of $received scenes recovered: $(cat "$work/killed.log")"
grep -q "killed.MCAP is not finished: recovered $recovered scenes" "$work/killed.log" ||
    fail "killed recording: $(cat "$work/killed.log")"

# When scenes stop coming, the open chunk is written within the chunk time.
"$tools/radarscene-demo-producer" --rate 10 --objects 3 2>/dev/null &
pids+=($!)
"$tools/radarscene-sub" --wait 10 --record "$work/paused.mcap" >"$work/paused.json" 2>/dev/null &
recorder=$!
for _ in $(seq 100); do (($(wc -l <"$work/paused.json") >= 5)) && break; sleep 0.1; done
kill -STOP "${pids[-1]}"
for _ in $(seq 50); do
    written=$(mcapfile chunks "$work/paused.mcap" | awk '{ n += $1 } END { print n + 0 }')
    ((written == $(wc -l <"$work/paused.json"))) && break
    sleep 0.1
done
kill -KILL "$recorder"
{ wait "$recorder" || true; } 2>/dev/null
kill -TERM "${pids[-1]}"
kill -CONT "${pids[-1]}"
wait "${pids[-1]}"
((written >= 5 && written == $(wc -l <"$work/paused.json"))) ||
    fail "$written of $(wc -l <"$work/paused.json") scenes written while the producer paused"
echo "recordings: all checks passed"

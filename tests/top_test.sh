#!/usr/bin/env bash
# radarscene-top as installed, against the demo producer and real
# subscribers on a private bus: its one-shot form shows each session with
# the scenes and bytes its reader counted and how it ended, and the channel
# totals; the refreshing form runs until a stop signal.
# Usage: top_test.sh <build dir> <bus configuration template>
set -euo pipefail

build=$1
source "$(dirname "${BASH_SOURCE[0]}")/testlib.sh"
cmake --install "$build" --prefix "$work/prefix" >/dev/null
export PATH=$work/prefix/bin:$PATH
start_private_bus "$2"

# A subscriber of channel 0 that reads 20 scenes, unsubscribes and reads on to
# the end of its stream ("read"), never reads ("stall") or closes its socket
# at once ("close"). "read" prints its pid, scenes and bytes.
cat >"$work/client.py" <<'EOF2'
import dbus, os, struct, sys, time
scene = dbus.Interface(dbus.SystemBus().get_object("com.tessel.RadarSceneProvider1",
                                                   "/com/tessel/RadarSceneProvider1",
                                                   introspect=False),
                       "com.tessel.RadarSceneProvider1.Scene")
fd, session = scene.SubscribeSocket(3, 0, dbus.Dictionary({}, signature="sb"))
stream = os.fdopen(fd.take(), "rb")
if sys.argv[1] == "close":
    stream.close()
while sys.argv[1] != "read":
    time.sleep(1)
scenes = size = 0
while True:
    if scenes == 20:
        scene.UnsubscribeSocket(session)
    prefix = stream.read(4)
    if not prefix:
        break
    length = struct.unpack(">I", prefix)[0]
    assert len(stream.read(length - 4)) == length - 4
    scenes, size = scenes + 1, size + length
print(os.getpid(), scenes, size)
EOF2

expect_error "radarscene-top: no radar scene provider on the system bus" radarscene-top --once
expect_error "radarscene-top: --iterations needs a whole number from 1 to 1000000000000, not '0'" \
    radarscene-top -n 0

radarscene-demo-producer --rate 50 --objects 400 2>/dev/null &
pids+=($!)
radarscene-sub --wait 10 >/dev/null 2>&1 &
active=$!
pids+=($active)
read -r reader scenes bytes < <(/usr/bin/python3 "$work/client.py" read) || fail "the reading subscriber"
/usr/bin/python3 "$work/client.py" stall &
stalled=$!
pids+=($stalled)
/usr/bin/python3 "$work/client.py" close &
closed=$!
pids+=($closed)

# Runs radarscene-top --once until the awk program $1 prints a line, which is
# left in $line; $2 says what was awaited.
await_line() {
    for _ in $(seq 100); do
        radarscene-top --once >"$work/top.txt" || fail "radarscene-top --once"
        line=$(awk "$1" "$work/top.txt")
        [[ -n $line ]] && return
        sleep 0.1
    done
    fail "no $2 in: $(cat "$work/top.txt")"
}
# The session of process $1 (pid column), once its state is $2.
session_of() {
    await_line "\$3 == $1 && \$9 == \"$2\"" "$2 session of pid $1"
}
session_of "$active" active
[[ $(awk '{print $2, $4, substr($5, 1, 11)}' <<<"$line") == "0 radarscene-sub $(date +%FT)" ]] ||
    fail "active session: $line"
session_of "$reader" unsubscribed
[[ $(awk '{print $4, $6, $7, $8}' <<<"$line") == "python3 $scenes 0 $bytes" ]] ||
    fail "the reader counted $scenes scenes, $bytes bytes: $line"
session_of "$stalled" broken-deadline
session_of "$closed" broken-error
head -n 1 "$work/top.txt" | grep -q "^ *SESSION *CHANNEL *PID *COMMAND *SUBSCRIBED *SCENES" ||
    fail "session header: $(head -n 1 "$work/top.txt")"
# Channel 0's totals, once the broken sessions are cleared: one active
# session, two broken, at least the scenes read.
await_line '$1 == "CHANNEL" { t = 1; next } t && $1 == 0 && $2 == 1 && $7 == 2' "channel 0 totals"
(($(awk '{print $4}' <<<"$line") >= scenes)) || fail "channel scenes: $line"
[[ -z $(radarscene-top --once --channel 1 | awk 'NF && $1 != "SESSION" && $1 != "CHANNEL"') ]] ||
    fail "--channel 1 shows channel 0"

# Refreshed until a stop signal, which ends it with status 0.
radarscene-top -d 0.1 >"$work/refreshed.txt" &
top=$!
for _ in $(seq 100); do (($(grep -c "^ *SESSION" "$work/refreshed.txt") >= 3)) && break; sleep 0.1; done
kill -INT "$top"
wait "$top" || fail "radarscene-top stopped by SIGINT must exit 0"
(($(grep -c "^ *SESSION" "$work/refreshed.txt") >= 3)) || fail "no refreshes"

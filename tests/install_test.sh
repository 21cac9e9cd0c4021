#!/usr/bin/env bash
# The installed library as integrators meet it: a consumer built through
# find_package(RadarScene) and through pkg-config, and the provider on a bus
# configured like Debian's system bus with only the installed policy file.
# Usage: install_test.sh <build dir> <source dir>
set -euo pipefail

build=$1
src=$2
source "$(dirname "${BASH_SOURCE[0]}")/testlib.sh"
prefix=$work/prefix

cmake --install "$build" --prefix "$prefix" >/dev/null
[[ -z $(find "$prefix/lib" -maxdepth 1 -name 'libpermo2*' -o -maxdepth 1 -name 'libtessel*') ]] ||
    fail "stand-ins of the device's libraries in the system library folder"

# The consumer finds the dependencies the library was built against.
deps=$(sed -n 's/^CMAKE_PREFIX_PATH:[A-Z]*=//p' "$build/CMakeCache.txt")
pc_path=$prefix/lib/pkgconfig
for dep in ${deps//;/ }; do
    pc_path+=:$dep/lib/pkgconfig
    export LD_LIBRARY_PATH=$dep/lib${LD_LIBRARY_PATH:+:$LD_LIBRARY_PATH}
done
# The README's consumer program, exactly as the README shows it.
sed -n '/^```cpp$/,/^```$/p' "$src/README.md" | sed '1d;$d' >"$work/readme_consumer.cpp"
grep -q 'RadarScene::Subscriber subscriber' "$work/readme_consumer.cpp" || fail "no consumer in the README"
cmake -S "$src/tests/consumer" -B "$work/cmake-consumer" -DCMAKE_PREFIX_PATH="$prefix;$deps" \
    -DREADME_CONSUMER="$work/readme_consumer.cpp" >/dev/null
cmake --build "$work/cmake-consumer" >/dev/null
[[ $("$work/cmake-consumer/consumer") == "time 42, object 7 at 10 m" ]] || fail "find_package consumer"

flags=$(PKG_CONFIG_PATH=$pc_path pkg-config --cflags --libs radarscene)
[[ $flags != *sdbus* && $flags != *systemd* ]] || fail "pkg-config forces the D-Bus libraries: $flags"
# shellcheck disable=SC2086
c++ -std=c++17 "$src/tests/consumer/consumer.cpp" $flags -Wl,-rpath,"$prefix/lib" \
    -o "$work/pkg-consumer"
[[ $("$work/pkg-consumer") == "time 42, object 7 at 10 m" ]] || fail "pkg-config consumer"
# shellcheck disable=SC2086
c++ -std=c++17 "$work/readme_consumer.cpp" $flags -Wl,-rpath,"$prefix/lib" -o "$work/pkg-readme"

# The API reference came with the headers, built without a doxygen warning.
grep -q "RadarScene::Subscriber" "$prefix/share/doc/radarscene/api/classRadarScene_1_1Subscriber.html" ||
    fail "no API reference of Subscriber"
[[ ! -s $build/api/warnings.log ]] || fail "doxygen warned: $(cat "$build/api/warnings.log")"

# The installed view serves its page from the installed share folder, with
# no path given.
start_private_bus "$src/tools/private-bus.conf.in"
"$prefix/bin/radarscene-demo-producer" 2>/dev/null &
pids+=($!)
"$prefix/bin/radarscene-view" --wait 10 --listen 127.0.0.1:0 2>"$work/view.log" &
pids+=($!)
for _ in $(seq 100); do grep -q serving "$work/view.log" && break; sleep 0.1; done
port=$(sed -n 's|.*serving http://127.0.0.1:\([0-9]*\)/$|\1|p' "$work/view.log")
/usr/bin/python3 -c 'import sys, urllib.request; print(urllib.request.urlopen(sys.argv[1], timeout=20).read().decode())' \
    "http://127.0.0.1:$port/" >"$work/page.html" || fail "the installed view's page: $(cat "$work/view.log")"
grep -q "<title>radarscene view</title>" "$work/page.html" || fail "the installed view's page"

# Every unit shipped is one that systemd accepts and whose sandbox its
# exposure analysis rates "OK" (2.0 at most).
for unit in "$prefix/lib/systemd/system/radarscene-view.service" \
    "$prefix/share/doc/radarscene/examples/radarscene-demo-producer.service"; do
    name=$(basename "$unit")
    sed "s|/usr/bin/|$prefix/bin/|" "$unit" >"$work/$name"
    systemd-analyze verify --man=no --generators=no "$work/$name" || fail "systemd-analyze verify $name"
    systemd-analyze security --offline=true --threshold=20 --no-pager "$work/$name" \
        >"$work/security.log" || fail "$name: $(tail -n 1 "$work/security.log")"
done

# The README's consumer, built both ways, reads ten scenes of the demo producer.
for consumer in "$work/cmake-consumer/readme_consumer" "$work/pkg-readme"; do
    "$consumer" >"$work/readme.out" || fail "$consumer failed"
    [[ $(grep -c '^3 objects$' "$work/readme.out") -eq 10 ]] || fail "$consumer: $(cat "$work/readme.out")"
    grep -q '^missing [0-9]*, replaced by the provider [0-9]*$' "$work/readme.out" || fail "$consumer"
done

# radarscene-sub ends at once with status 0 on SIGTERM while its output is a
# pipe nobody reads.
sub=$prefix/bin/radarscene-sub
mkfifo "$work/fifo"
exec 7<>"$work/fifo"
"$sub" --bbox >"$work/fifo" &
blocked=$!
for _ in $(seq 100); do
    (($(/usr/bin/python3 -c 'import array, fcntl, termios; b = array.array("i", [0]); fcntl.ioctl(7, termios.FIONREAD, b); print(b[0])') > 60000)) && break
    sleep 0.1
done
kill -TERM "$blocked"
for _ in $(seq 50); do kill -0 "$blocked" 2>/dev/null || break; sleep 0.1; done
kill -0 "$blocked" 2>/dev/null && fail "radarscene-sub blocked on its output ignored SIGTERM"
wait "$blocked" || fail "radarscene-sub stopped while blocked must exit 0"
exec 7>&-

# A closed output unsubscribes and exits 0: the provider records the session
# as unsubscribed.
bash -c 'echo $$ >"$1"; exec "$2"' - "$work/sub.pid" "$sub" | head -1 >/dev/null
[[ ${PIPESTATUS[0]} -eq 0 ]] || fail "radarscene-sub | head -1 exited ${PIPESTATUS[0]}"
[[ $("$prefix/bin/radarscene-top" --once | awk -v pid="$(cat "$work/sub.pid")" '$3 == pid {print $NF}') == unsubscribed ]] ||
    fail "the session of radarscene-sub | head -1 did not end as unsubscribed"

# A raw recording that cannot be written stops at once with the reason, and
# keeps whole records only.
expect_error "radarscene-sub: cannot write /dev/full: No space left on device" "$sub" --record /dev/full
if [[ $(id -u) -eq 0 ]] && mkdir "$work/small" && mount -t tmpfs -o size=8k tmpfs "$work/small" 2>/dev/null; then
    head -c 4096 /dev/zero >"$work/small/filler"  # one page of the two is left
    "$sub" --record "$work/small/rec" >/dev/null 2>"$work/full.log" && fail "a full disk must fail"
    grep -q "^radarscene-sub: cannot write $work/small/rec: No space left on device$" "$work/full.log" ||
        fail "full disk: $(cat "$work/full.log")"
    /usr/bin/python3 - "$work/small/rec" <<'EOF2' || fail "the recording on a full disk ends inside a record"
import struct, sys
data = open(sys.argv[1], "rb").read()
at = 0
while at < len(data):
    at += struct.unpack(">I", data[at:at + 4])[0]
sys.exit(at != len(data) or len(data) == 0)
EOF2
    umount "$work/small"
fi

# A channel the provider does not serve is named with those it serves, and
# contradictory options are refused.
expect_error "radarscene-sub: org.freedesktop.DBus.Error.Failed: Error subscribing channel: channel 5 is not served; the provider serves 0" \
    "$sub" --channel 5
expect_error "radarscene-sub: --summary and --stats cannot be used together (see --help)" \
    "$sub" --summary --stats

if [[ $(id -u) -ne 0 ]]; then
    echo "SKIPPED: the system bus check needs root to run a client as another user"
    exit 77
fi
sed -e "s|@DIR@|$work|" -e "s|@POLICY_DIR@|$prefix/share/dbus-1/system.d|" \
    "$src/tests/system-bus.conf.in" >"$work/system.conf"
start_bus "$work/system.conf"
chmod 666 "$work/system_bus_socket"
export VARRO_DEV_DIR=$work/broker
as_nobody() { setpriv --reuid=65534 --regid=65534 --clear-groups "$@"; }

as_nobody "$prefix/bin/radarscene-demo-producer" 2>"$work/refused.log" &&
    fail "a producer running as nobody owned the provider's name"
grep -q "Permission denied\|AccessDenied" "$work/refused.log" || fail "$(cat "$work/refused.log")"

"$prefix/bin/radarscene-demo-producer" 2>"$work/producer.log" &
pids+=($!)
"$prefix/bin/radarscene-sub" --wait 10 --count 1 >/dev/null || fail "root subscriber"

as_nobody dbus-send --system --print-reply --dest=com.tessel.RadarSceneProvider1 \
    /com/tessel/RadarSceneProvider1 org.freedesktop.DBus.Introspectable.Introspect \
    >"$work/introspection" || fail "introspection refused"
grep -q 'interface name="com.tessel.RadarSceneProvider1.Scene"' "$work/introspection" ||
    fail "introspection without the Scene interface"
# The bus lets nobody through; the access policy, which grants only root and
# the producer's user, answers.
as_nobody "$prefix/bin/radarscene-sub" --count 1 2>"$work/nobody.log" && fail "nobody subscribed"
[[ $(cat "$work/nobody.log") == "radarscene-sub: org.freedesktop.DBus.Error.AccessDenied: User nobody is not authorized for com.tessel.RadarSceneProvider1.Scene.SubscribeSocket" ]] ||
    fail "nobody was not answered by the access check: $(cat "$work/nobody.log")"

# A producer that follows the example policy lets the granted group's
# members in (nobody's own group stands in for radarscene here).
kill -TERM "${pids[-1]}"
wait "${pids[-1]}" || fail "the producer did not stop cleanly"
sed 's/@radarscene/@nogroup/' "$prefix/share/doc/radarscene/examples/permo2-dev-policy" \
    >"$work/policy"
PERMO2_DEV_POLICY=$work/policy "$prefix/bin/radarscene-demo-producer" 2>/dev/null &
pids+=($!)
as_nobody "$prefix/bin/radarscene-sub" --wait 10 --count 1 >/dev/null ||
    fail "a member of a granted group was refused"

# Only root may serve the geolocation service; everyone may read it.
as_nobody "$prefix/bin/radarscene-geosim" 2>/dev/null && fail "nobody served the geolocation service"
"$prefix/bin/radarscene-geosim" 2>/dev/null &
pids+=($!)
for _ in $(seq 50); do
    as_nobody dbus-send --system --print-reply --dest=com.tessel.GeoLocation1 \
        /com/tessel/GeoLocation1 org.freedesktop.DBus.Properties.Get \
        string:com.tessel.GeoLocation1 string:latitude >"$work/latitude" 2>/dev/null && break
    sleep 0.1
done
grep -q "double 59.3293" "$work/latitude" || fail "the geolocation service could not be read"
echo "install: all checks passed"

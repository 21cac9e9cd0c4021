#!/usr/bin/env bash
# The Debian packages as an integrator meets them: built from the tree,
# without lintian errors, with the files each package must carry, a
# maintainer script that creates the producer's user, an example unit that
# systemd accepts, and a Python package that Debian's python3 finds.
# Usage: package_test.sh <source dir>
set -euo pipefail

src=$1
source "$(dirname "${BASH_SOURCE[0]}")/testlib.sh"
if ! command -v lintian >/dev/null || ! command -v systemd-analyze >/dev/null; then
    sudo_cmd=()
    [[ $(id -u) -ne 0 ]] && sudo_cmd=(sudo)
    DEBIAN_FRONTEND=noninteractive "${sudo_cmd[@]}" apt-get install -y -qq --no-install-recommends \
        lintian systemd dbus-system-bus-common >/dev/null
fi
"$src/scripts/package-deb.sh" >/dev/null
version=$(dpkg-parsechangelog -l "$src/debian/changelog" -S Version)
arch=$(dpkg --print-architecture)
deb() { echo "$src/build/packages/$1_${version}_$2.deb"; }
debs=("$(deb libradarscene1 "$arch")" "$(deb libradarscene-dev "$arch")"
    "$(deb radarscene-tools "$arch")" "$(deb python3-radarscene all)")

lintian --fail-on error --suppress-tags debug-file-with-no-debug-symbols "${debs[@]}" \
    >"$work/lintian.log" || fail "lintian: $(grep '^E:' "$work/lintian.log")"

holds() { dpkg-deb -c "$1" | awk '{print $6}' | grep -qx "./$2" || fail "$(basename "$1") lacks $2"; }
for tool in radarscene-sub radarscene-replay radarscene-geosim radarscene-demo-producer \
    radarscene-view; do
    holds "${debs[2]}" "usr/share/man/man1/$tool.1.gz"
done
holds "${debs[2]}" usr/share/radarscene/view/index.html
holds "${debs[2]}" lib/systemd/system/radarscene-view.service
holds "${debs[2]}" usr/share/dbus-1/system.d/com.tessel.GeoLocation1.conf
holds "${debs[0]}" usr/share/dbus-1/system.d/com.tessel.RadarSceneProvider1.conf
holds "${debs[3]}" usr/lib/python3/dist-packages/radarscene/scene_pb2.py
holds "${debs[3]}" usr/lib/python3/dist-packages/radarscene/subscriber.py
holds "${debs[1]}" usr/share/doc/radarscene/api/classRadarScene_1_1Subscriber.html

for package in "${debs[@]}"; do
    dpkg-deb -x "$package" "$work/root"
done
PYTHONPATH=$work/root/usr/lib/python3/dist-packages /usr/bin/python3 -m radarscene.sub --help \
    >"$work/help.txt" || fail "python3 -m radarscene.sub --help"
grep -q "prints one line per scene: its time, its number of objects and their ids" \
    "$work/help.txt" || fail "help text: $(cat "$work/help.txt")"

# The maintainer script creates the group and the system user that the
# example unit runs as; getent, addgroup and adduser are stand-ins here.
mkdir "$work/bin"
for command in addgroup adduser; do
    printf '#!/bin/sh\necho %s "$@" >>"%s"\n' "$command" "$work/calls" >"$work/bin/$command"
done
printf '#!/bin/sh\nexit 2\n' >"$work/bin/getent"
chmod +x "$work/bin"/*
dpkg-deb -e "${debs[0]}" "$work/control"
PATH=$work/bin:$PATH sh "$work/control/postinst" configure
grep -qx "addgroup --system radarscene" "$work/calls" || fail "no radarscene group"
grep -q "^adduser --system --ingroup radarscene .* radarscene$" "$work/calls" ||
    fail "no radarscene user: $(cat "$work/calls")"

unit=$work/radarscene-demo-producer.service
sed "s|ExecStart=/usr/bin/|ExecStart=$work/root/usr/bin/|" \
    "$work/root/usr/share/doc/radarscene/examples/radarscene-demo-producer.service" >"$unit"
grep -qx "User=radarscene" "$unit" || fail "the example unit's user"
systemd-analyze verify --man=no --generators=no "$unit" || fail "systemd-analyze verify"
echo "packages: all checks passed"

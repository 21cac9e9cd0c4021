#!/usr/bin/env bash
# Builds the Debian packages (libradarscene1, libradarscene-dev,
# radarscene-tools) from a copy of the source tree and puts them into
# build/packages/. Installs the packaging tools and build dependencies first.
set -euo pipefail

root=$(cd "$(dirname "${BASH_SOURCE[0]}")/.." && pwd)
"$root/scripts/install-deps.sh"
sudo_cmd=()
[[ $(id -u) -ne 0 ]] && sudo_cmd=(sudo)
missing=()
for package in debhelper dpkg-dev; do
    dpkg-query -W -f='${Status}' "$package" 2>/dev/null | grep -q "ok installed" ||
        missing+=("$package")
done
if ((${#missing[@]})); then
    "${sudo_cmd[@]}" apt-get update -qq
    DEBIAN_FRONTEND=noninteractive "${sudo_cmd[@]}" apt-get install -y -qq --no-install-recommends \
        "${missing[@]}"
fi
# The rest of debian/control's build dependencies (dh-python and the like).
if ! (cd "$root" && dpkg-checkbuilddeps) 2>/dev/null; then
    "${sudo_cmd[@]}" apt-get update -qq
    DEBIAN_FRONTEND=noninteractive "${sudo_cmd[@]}" apt-get build-dep -y -qq --no-install-recommends \
        "$root"
fi

version=$(dpkg-parsechangelog -l "$root/debian/changelog" -S Version)
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT
tree=$work/radarscene-$version
mkdir "$tree"
git -C "$root" ls-files -z | (cd "$root" && xargs -0 cp --parents -t "$tree")
(cd "$tree" && dpkg-buildpackage -us -uc -b >"$work/build.log" 2>&1) || {
    tail -n 40 "$work/build.log"
    exit 1
}
mkdir -p "$root/build/packages"
mv "$work"/*.deb "$root/build/packages/"
for deb in "$root"/build/packages/*"_${version}_"*.deb; do
    echo "$(basename "$deb"):"
    dpkg-deb -c "$deb" | awk '{print "  " $6}' | grep -v '/$'
done

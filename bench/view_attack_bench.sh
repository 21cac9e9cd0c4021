#!/usr/bin/env bash
# radarscene-view under the attacks of tests/view_guard.py, before and after
# a change: for each attack from 127.0.0.1, a real viewer's scenes per second
# from 127.0.0.2 and the view's resident size and descriptors, with the view's
# defaults and the demo producer at 100 scenes/s of 64 objects; then fifteen
# viewers of one and of 64 subscriptions each.
# Usage: bench/view_attack_bench.sh <tools dir> [<tools dir>]...
set -euo pipefail

here=$(cd "$(dirname "${BASH_SOURCE[0]}")" && pwd)
source "$here/../tests/testlib.sh"
start_private_bus "$here/../tools/private-bus.conf.in"
guard() { /usr/bin/python3 "$here/../tests/view_guard.py" "$@" 2>/dev/null || true; }

for tools in "$@"; do
    echo "== $tools"
    "$tools/radarscene-demo-producer" --rate 100 --objects 64 2>/dev/null &
    producer=$!
    for options in "" "--max-clients 20 --max-per-address 20"; do
        # shellcheck disable=SC2086
        "$tools/radarscene-view" --wait 10 --listen 127.0.0.1:0 --web-root "$here/../tools/view/web" \
            $options 2>"$work/view.log" &
        view=$!
        for _ in $(seq 50); do grep -q serving "$work/view.log" && break; sleep 0.1; done
        if ! grep -q serving "$work/view.log"; then
            # Before the per-address cap: its option is unknown.
            "$tools/radarscene-view" --wait 10 --listen 127.0.0.1:0 --max-clients 20 \
                --web-root "$here/../tools/view/web" 2>"$work/view.log" &
            view=$!
            for _ in $(seq 50); do grep -q serving "$work/view.log" && break; sleep 0.1; done
        fi
        port=$(sed -n 's|.*serving http://.*:\([0-9]*\)/$|\1|p' "$work/view.log")
        if [[ -z $options ]]; then
            guard alone "$port" "$view"
            for attack in slow silent idle sockets lingering spread; do
                guard attack "$port" "$view" "$attack" 16
                sleep 6
            done
        else
            guard many "$port" "$view"
        fi
        kill -INT "$view"
        wait "$view" || true
    done
    kill "$producer"
    wait "$producer" || true
done

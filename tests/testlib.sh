# Sourced by the shell tests: a work folder that is removed on exit together
# with the processes the test started, failure lines, and a private bus.

work=$(mktemp -d /tmp/radarscene-test-XXXXXX)
chmod 755 "$work"
pids=()
cleanup() {
    for pid in "${pids[@]}"; do
        kill "$pid" 2>/dev/null || true
        wait "$pid" 2>/dev/null || true
    done
    rm -rf "$work"
}
trap cleanup EXIT

fail() {
    echo "FAILED: $*" >&2
    exit 1
}

# Runs the command after $1 and checks that it fails with the one error line
# $1.
expect_error() {
    local expected=$1
    shift
    "$@" >/dev/null 2>"$work/error.log" && fail "$* must fail"
    [[ $(cat "$work/error.log") == "$expected" ]] || fail "error line of $*: $(cat "$work/error.log")"
}

# Starts dbus-daemon with the configuration file $1 and points
# DBUS_SYSTEM_BUS_ADDRESS at it.
start_bus() {
    dbus-daemon --config-file="$1" --nofork --nopidfile --print-address=3 3>"$work/address" \
        2>/dev/null &
    pids+=($!)
    for _ in $(seq 50); do [[ -s $work/address ]] && break; sleep 0.1; done
    DBUS_SYSTEM_BUS_ADDRESS=$(head -n 1 "$work/address")
    export DBUS_SYSTEM_BUS_ADDRESS
}

# A private bus from the template $1 (tools/private-bus.conf.in), with the
# development broker's files in the work folder.
start_private_bus() {
    sed "s|@DIR@|$work|" "$1" >"$work/bus.conf"
    start_bus "$work/bus.conf"
    export VARRO_DEV_DIR=$work/broker
}

# Installs the third-party JavaScript clients in tests/js from their lock
# file, or skips the test (status 77) where node or npm is missing.
need_js_clients() {
    if ! command -v node >/dev/null || ! command -v npm >/dev/null; then
        echo "SKIPPED: needs node and npm"
        exit 77
    fi
    (cd "$(dirname "${BASH_SOURCE[0]}")/js" && npm ci --no-audit --no-fund --ignore-scripts \
        >/dev/null 2>&1) || fail "npm ci in tests/js"
}

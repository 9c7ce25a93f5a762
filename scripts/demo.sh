# What the demonstrations share: processes that end with the script, and waiting for what they say.

bin=$root/build/release/bin
register=/usr/share/ieee-data

# Services run in their own sessions: Ctrl-C reaches only this script, which ends them in order.
work=$(mktemp -d) || exit 1
pids=()
# The daemon was started first and ends last: a service that loses it reconnects for seconds.
cleanup() {
    trap - EXIT INT TERM
    local i
    for ((i = ${#pids[@]} - 1; i >= 0; i--)); do
        kill "${pids[i]}" 2>/dev/null
        wait "${pids[i]}" 2>/dev/null
    done
    rm -rf "$work"
}
trap cleanup EXIT
trap 'cleanup; exit 130' INT
trap 'cleanup; exit 143' TERM

# await FILE PATTERN PID: waits for and prints the first line of FILE that matches.
await() {
    local tries
    for ((tries = 0; tries < 600; tries++)); do
        grep -m 1 -E "$2" "$1" 2>/dev/null && return 0
        kill -0 "$3" 2>/dev/null || break
        sleep 0.05
    done
    say "failed: no line '$2' from $(basename "$1" .log)"
    tail -n 20 "$1"
    return 1
}

fail() { exit 1; }

query() {
    say ''
    say "$ kvx query Model \"$1\"${2:+ ${*:2}}"
    "$bin/kvx" query Model "$@" || fail
}

# home DIRECTORY DAEMON: a home whose configuration file names the daemon.
home() {
    mkdir -p "$1/etc"
    printf 'rendezvous session = { "daemon" = "%s" };\n' "$2" >"$1/etc/Calvorine.rvd.cfg"
}

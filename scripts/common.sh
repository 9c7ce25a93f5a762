# Shared by ./demo, ./test and .ci/run: messages, logs, packages, builds.
# shellcheck shell=bash

root=$(cd "$(dirname "${BASH_SOURCE[0]}")/.." && pwd)
log_dir=$root/build/log
jobs=$(nproc)
mkdir -p "$log_dir"

say() { printf '%s\n' "$*"; }

# run_logged NAME COMMAND...: the output goes to build/log/NAME.log; on a failure its end is shown.
run_logged() {
    local log=$log_dir/$1.log
    shift
    if "$@" >"$log" 2>&1; then return 0; fi
    tail -n 40 "$log"
    say "failed: $1"
    say "the whole log: $log"
    return 1
}

as_root() {
    if [ "$(id -u)" -eq 0 ]; then "$@"; else sudo "$@"; fi
}

# Of packages that bring a service only the programs are wanted: none is started.
install_missing() {
    local policy=/usr/sbin/policy-rc.d status made=0
    export DEBIAN_FRONTEND=noninteractive
    as_root apt-get update || return 1
    if [ ! -e "$policy" ]; then
        printf '#!/bin/sh\nexit 101\n' | as_root install -m 755 /dev/stdin "$policy" && made=1
    fi
    as_root apt-get install -y --no-install-recommends "$@"
    status=$?
    [ "$made" -eq 0 ] || as_root rm -f "$policy"
    return "$status"
}

# need_packages LIST...: installs the missing packages of the lists in scripts/packages.
need_packages() {
    local list package missing=()
    for list in "$@"; do
        while read -r package; do
            case $package in '' | '#'*) continue ;; esac
            dpkg-query -W -f='${Status}' "$package" 2>/dev/null | grep -q 'install ok installed' ||
                missing+=("$package")
        done <"$root/scripts/packages/$list.txt"
    done
    [ ${#missing[@]} -eq 0 ] && return 0
    say "installing ${missing[*]}"
    run_logged install install_missing "${missing[@]}"
}

# build_preset PRESET [TARGET...]
build_preset() {
    local preset=$1
    shift
    say "building ($preset)"
    run_logged "configure-$preset" cmake -S "$root" --preset "$preset" || return 1
    run_logged "build-$preset" cmake --build "$root/build/$preset" --parallel "$jobs" ${1:+--target "$@"}
}

# test_preset PRESET [CTEST ARGUMENT...]: twice as many tests as processors at once, since most of
# them wait most of their time for another process.
test_preset() {
    local preset=$1
    shift
    say "testing ($preset)"
    ctest --test-dir "$root/build/$preset" --parallel "$((2 * jobs))" --output-on-failure \
        --progress "$@" >"$log_dir/test-$preset.log" 2>&1 || {
        # What the failed tests printed, then their names.
        awk '/ Start +[0-9]+: / || /^ *[0-9]+\/[0-9]+ Test +#.* Passed / { show = 0 }
             /^ *[0-9]+\/[0-9]+ Test +#.*\*\*\*/ { show = 1 }
             show' "$log_dir/test-$preset.log" | tail -n 100
        tail -n 40 "$log_dir/test-$preset.log" | sed -n '/tests failed out of/,$p'
        say "the whole log: $log_dir/test-$preset.log"
        return 1
    }
    grep 'tests passed' "$log_dir/test-$preset.log"
}

#!/usr/bin/env bash
# Types the commands of a page as its reader would: typed_test.sh PAGE FOLDER_OF_THE_PROGRAMS
#
# The commands are the lines that begin with "$ " inside those fences that begin with "$ ./", and, where
# the package for Python is built, with "$ export PYTHONPATH". All are run in one shell; after each, every line that the page shows below it must come, in this order. Numbers may
# differ. The page's port is replaced by a free one.
set -u
page=$1
cd "$2" || exit 1
work=$(mktemp -d) || exit 1
trap 'kill -9 $(jobs -p) 2>/dev/null; wait 2>/dev/null; rm -rf "$work"' EXIT

"./rvd" -listen tcp:0 >"$work/port" 2>/dev/null &
until grep -q ready "$work/port"; do kill -0 $! || exit 1; sleep 0.05; done
port=$(sed 's/.*://' "$work/port")
kill $! && wait $!
mkdir "$work/etc"
printf 'rendezvous session = { "daemon" = "tcp:127.0.0.1:%s" };\n' "$port" >"$work/etc/Calvorine.rvd.cfg"
export KVX_HOME=$work XDG_STATE_HOME=$work

# comes LINE: waits for it behind the last one that came.
seen=0
comes() {
    local pattern tries found
    pattern=$(sed 's/[][\.*^$(){}?+|/]/\\&/g; s/[0-9]\{1,\}/[0-9]+/g; s/  */ +/g' <<<"$1")
    for ((tries = 0; tries < 600; tries++)); do
        found=$(awk -v seen="$seen" -v pattern="^$pattern\$" \
            'NR > seen && $0 ~ pattern { print NR; exit }' "$work/output")
        [ -n "$found" ] && seen=$found && return 0
        sleep 0.05
    done
    printf 'after: $ %s\nnever came: %s\nwhat came behind line %s:\n' "$command" "$1" "$seen"
    tail -n "+$((seen + 1))" "$work/output"
    exit 1
}

: >"$work/output"
commands=0
typed=
before=
command=
while IFS= read -r line <&3; do
    case $line in
        '```') command= typed= ;;
        '$ '*) [[ $before == '```' ]] && case $line in
                '$ ./'*) typed=yes ;;
                '$ export PYTHONPATH'*) [ -e ../python/kvxmom/__init__.py ] && typed=yes ;;
            esac
            [ -n "$typed" ] || { before=$line; continue; }
            command=${line#??}
            commands=$((commands + 1))
            eval "${command//7500/$port}" >>"$work/output" 2>&1 ;;
        *) [ -n "$command" ] && comes "${line//7500/$port}" ;;
    esac
    before=$line
done 3<"$page"
[ "$commands" -gt 0 ] || { echo "no commands in $page"; exit 1; }
# A page ends what it began.
for ((tries = 0; tries < 300; tries++)); do
    [ -z "$(jobs -pr)" ] && break
    sleep 0.05
done
[ -z "$(jobs -pr)" ] || { echo "$page leaves behind:"; jobs -r; exit 1; }
echo "$commands commands of $page do what it says"

#!/usr/bin/env bash
# Makes packages of the build, installs them with what they depend on into a root of nothing else, boots
# that with systemd where the kernel lets us, else starts the daemon by hand, and runs the main job there.
#   packages_test.sh BUILD_DIRECTORY
set -eu
build=$1
here=$(cd "$(dirname "$0")" && pwd)
skip() { echo "skipped: $1"; exit 77; }
[ "$(id -u)" -eq 0 ] || skip "a root of its own takes the rights of root"
for tool in mmdebstrap lintian dh dh_python3; do command -v $tool >/dev/null || skip "$tool is not installed"; done
unshare --fork --pid --mount --net --uts --ipc --cgroup true || skip "the kernel gives no namespaces"

work=$(mktemp -d)
boot=
finish() {
    # The kernel ends all that runs in the namespace of processes with its first one.
    [ -z "$boot" ] || { kill -KILL "$boot"; wait "$boot" 2>/dev/null; } || true
    rm -rf "$work"
}
trap finish EXIT

"$here/../../scripts/package" "$build" "$work/packages"
cd "$work/packages" && dpkg-scanpackages . >Packages 2>/dev/null
names=(*.deb)
names=("${names[@]%%_*}")
cat /etc/apt/sources.list /etc/apt/sources.list.d/debian.sources 2>/dev/null >"$work/sources" || true
printf '\nTypes: deb\nURIs: copy:%s\nSuites: ./\nTrusted: yes\n' "$work/packages" >>"$work/sources"
(IFS=,; timeout 300 mmdebstrap --aptopt='Acquire::http::Timeout "30"' --variant=essential --dpkgopt=force-unsafe-io --skip=cleanup \
    --include="systemd-sysv,ieee-data,${names[*]}" bookworm "$work/root" - \
    <"$work/sources" >"$work/root.log" 2>&1) || {
    grep -q 'E: Failed to fetch\|Could not resolve' "$work/root.log" && skip "no archive of Debian is reached"
    cat "$work/root.log"
    exit 1
}
echo "installed ${names[*]}"

cp "$here/main_job.sh" "$work/root/"
unshare --fork --kill-child --pid --mount --net --uts --ipc --cgroup \
    "$here/boot_root.sh" "$work/root" >"$work/boot.log" 2>&1 &
boot=$!
first=
for ((tries = 0; tries < 600; tries++)); do
    kill -0 "$boot" 2>/dev/null || { cat "$work/boot.log"; exit 1; }
    first=$(cat "/proc/$boot/task/$boot/children")
    [ -n "$first" ] && [ -e "/proc/${first% }/root/booting" ] && break
    sleep 0.05
done
timeout 200 nsenter --target "${first% }" --all /main_job.sh

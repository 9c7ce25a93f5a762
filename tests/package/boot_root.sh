#!/usr/bin/env bash
# Runs as the first process of namespaces of its own: makes DIRECTORY the root, and becomes systemd there,
# or waits where that cannot be.
#   boot_root.sh DIRECTORY
set -eu
root=$1
mount --make-rprivate /
mount --bind "$root" "$root"
mount -t proc proc "$root/proc"
for place in run tmp dev; do mount -t tmpfs tmpfs "$root/$place"; done
mkdir "$root/dev/shm" "$root/dev/pts"
mount -t tmpfs tmpfs "$root/dev/shm"
mount -t devpts -o newinstance,ptmxmode=0666 devpts "$root/dev/pts"
ln -s pts/ptmx "$root/dev/ptmx"
for device in null zero full random urandom tty; do
    touch "$root/dev/$device"
    mount --bind "/dev/$device" "$root/dev/$device"
done
program=/lib/systemd/systemd
groups=$root/sys/fs/cgroup
{
    mount -t sysfs -o ro sysfs "$root/sys" &&
        if [ -e /sys/fs/cgroup/cgroup.controllers ]; then
            mount -t cgroup2 cgroup2 "$groups"
        else
            mount -t tmpfs tmpfs "$groups" && mkdir "$groups/systemd" &&
                mount -t cgroup -o none,name=systemd cgroup "$groups/systemd"
        fi
} || program=
cd "$root"
pivot_root . mnt
umount -l /mnt
touch /booting
unset NOTIFY_SOCKET
[ -z "$program" ] && exec sleep infinity
export container=test PATH=/usr/sbin:/usr/bin:/sbin:/bin
exec $program --log-target=console --show-status=no

#!/bin/sh
# Runs the systemd of the Debian below ROOT as the first process of namespaces of its own: boot_systemd.sh ROOT CGROUP
# CGROUP is a folder of a cgroup2 file system, and all of it that systemd sees. The network is the caller's. ROOT must be
# a mount. Ends when systemd does.
set -eu
root=$1
echo $$ >"$2/cgroup.procs"
exec unshare --cgroup --mount --pid --uts --ipc --fork --kill-child sh -eu -c '
    root=$1
    mount --make-rprivate /
    mount -t proc proc "$root/proc"
    mount -t sysfs -o ro sysfs "$root/sys"
    mount -t cgroup2 cgroup2 "$root/sys/fs/cgroup"
    for folder in dev run tmp; do
        mount -t tmpfs tmpfs "$root/$folder"
    done
    for node in null zero full random urandom tty; do
        touch "$root/dev/$node"
        mount --bind "/dev/$node" "$root/dev/$node"
    done
    mkdir "$root/dev/pts" "$root/dev/shm"
    mount -t devpts -o newinstance,ptmxmode=0666 devpts "$root/dev/pts"
    ln -s pts/ptmx "$root/dev/ptmx"
    ln -s /proc/self/fd "$root/dev/fd"
    cd "$root"
    pivot_root . mnt
    umount -l /mnt
    exec env -i container=lab PATH=/usr/sbin:/usr/bin:/sbin:/bin /lib/systemd/systemd --system --unit=basic.target' \
    sh "$root"

"""Runs a program under what a systemd unit restricts, without a systemd: confined.py UNIT PROGRAM ARGUMENTS...

It takes from the unit CapabilityBoundingSet, NoNewPrivileges, UMask, ProtectSystem=strict with the folders that stay
writable, ProtectKernelTunables, RestrictAddressFamilies, RestrictNamespaces and SystemCallFilter. A system call that
the unit would refuse kills the program, so that none goes unseen. What hides whole folders (ProtectHome, PrivateTmp) is
left out: the project may lie in them.
"""

import ctypes
import errno
import os
import socket
import subprocess
import sys

import seccomp

CLONE_NEWNS = 0x20000
ALL_NAMESPACES = 0x7E020080  # the flags of unshare that make one of any kind
MS_BIND, MS_REMOUNT, MS_RDONLY, MS_REC, MS_PRIVATE = 4096, 32, 1, 16384, 1 << 18
KEPT_FLAGS = 2 | 4 | 8 | 1024 | 2048  # nosuid, nodev, noexec, noatime, nodiratime
PR_CAPBSET_DROP, PR_SET_NO_NEW_PRIVS = 24, 38
CAPABILITIES = ("CHOWN DAC_OVERRIDE DAC_READ_SEARCH FOWNER FSETID KILL SETGID SETUID SETPCAP LINUX_IMMUTABLE "
                "NET_BIND_SERVICE NET_BROADCAST NET_ADMIN NET_RAW IPC_LOCK IPC_OWNER SYS_MODULE SYS_RAWIO SYS_CHROOT "
                "SYS_PTRACE SYS_PACCT SYS_ADMIN").split()  # by their numbers from 0 on; those behind are never kept
libc = ctypes.CDLL(None, use_errno=True)


def call(function, *arguments):
    if function(*arguments) != 0:
        raise OSError(ctypes.get_errno(), f"{function.__name__}{arguments}: {os.strerror(ctypes.get_errno())}")


def read_unit(file):
    """Name -> words."""
    settings = {}
    with open(file, encoding="utf-8") as lines:
        for line in lines:
            name, equals, value = line.strip().partition("=")
            if equals and not line.startswith("#"):
                settings.setdefault(name, []).extend(value.split())
    return settings


def mount(source, target, flags):
    call(libc.mount, source and source.encode(), target.encode(), None, ctypes.c_ulong(flags), None)


def make_read_only(path):
    flags = os.statvfs(path).f_flag & KEPT_FLAGS
    mount(None, path, MS_REMOUNT | MS_BIND | MS_RDONLY | flags)


def protect_system(writable):
    call(libc.unshare, CLONE_NEWNS)
    mount("none", "/", MS_REC | MS_PRIVATE)
    for path in writable:
        mount(path, path, MS_BIND)
    with open("/proc/self/mountinfo", encoding="utf-8") as file:
        points = [line.split()[4] for line in file]
    for point in points:
        if not any(point == kept or point.startswith(kept + "/") for kept in ("/dev", "/proc", "/sys", *writable)):
            make_read_only(point)


def protect_kernel_tunables():
    mount("/proc/sys", "/proc/sys", MS_BIND)
    make_read_only("/proc/sys")


def keep_capabilities(kept):
    with open("/proc/sys/kernel/cap_last_cap", encoding="utf-8") as file:
        last = int(file.read())
    for number in range(last + 1):
        if number >= len(CAPABILITIES) or f"CAP_{CAPABILITIES[number]}" not in kept:
            call(libc.prctl, PR_CAPBSET_DROP, number, 0, 0, 0)


def system_calls(words):
    """The names of the calls that a filter's words stand for."""
    names = set()
    for word in words:
        if not word.startswith("@"):
            names.add(word)
            continue
        listed = subprocess.run(("systemd-analyze", "--no-pager", "syscall-filter", word), capture_output=True,
                                text=True, check=True).stdout.splitlines()[1:]
        names |= system_calls([line.strip() for line in listed if line.strip() and not line.strip().startswith("#")])
    return names


def refuse_sockets(families):
    """All but those, as a kernel that does not know the others would."""
    rules = seccomp.SyscallFilter(seccomp.ALLOW)
    kept = {getattr(socket, family) for family in families}
    for family in set(range(64)) - kept:
        rules.add_rule(seccomp.ERRNO(errno.EAFNOSUPPORT), "socket", seccomp.Arg(0, seccomp.EQ, family))
    rules.load()


def load_filter(words, namespaces):
    rules = seccomp.SyscallFilter(seccomp.KILL_PROCESS)
    for name in system_calls(["@default", *words]) - {"unshare"}:
        try:
            rules.add_rule(seccomp.ALLOW, name)
        except (ValueError, RuntimeError):
            pass  # a call of another processor
    forbidden = ALL_NAMESPACES & ~(CLONE_NEWNS if "mnt" in namespaces else 0)
    rules.add_rule(seccomp.ALLOW, "unshare", seccomp.Arg(0, seccomp.MASKED_EQ, forbidden, 0))
    rules.load()


def main():
    unit = read_unit(sys.argv[1])
    folders = [f"/var/lib/{name}" for name in unit["StateDirectory"]] + unit["ReadWritePaths"]
    assert unit["ProtectSystem"] == ["strict"] and unit["ProtectKernelTunables"] == ["yes"]
    protect_system([folder for folder in folders if os.path.isdir(folder)])
    protect_kernel_tunables()
    os.umask(int(unit["UMask"][0], 8))
    keep_capabilities(unit["CapabilityBoundingSet"])
    if unit["NoNewPrivileges"] == ["yes"]:
        call(libc.prctl, PR_SET_NO_NEW_PRIVS, 1, 0, 0, 0)
    refuse_sockets(unit["RestrictAddressFamilies"])
    load_filter(unit["SystemCallFilter"], unit["RestrictNamespaces"])
    os.execv(sys.argv[2], sys.argv[2:])


if __name__ == "__main__":
    main()

"""Network namespaces joined by veth pairs, and what runs in them.

Everything here expects to be inside a network, mount and process namespace of its own (script/run makes one), so that
nothing of it can reach, or outlive itself on, the machine.
"""

import ctypes
import os
import signal
import socket
import subprocess
import time

NETNS = "/run/netns"
CLONE_NEWNET = 0x40000000
_libc = ctypes.CDLL(None, use_errno=True)


class CommandFailed(Exception):
    pass


def _enter(namespace_file):
    handle = os.open(namespace_file, os.O_RDONLY)
    try:
        if _libc.setns(handle, CLONE_NEWNET) != 0:
            raise OSError(ctypes.get_errno(), f"cannot enter {namespace_file}")
    finally:
        os.close(handle)


class Network:
    """The namespaces of one lab; close() ends every process started through it."""

    def __init__(self, folder):
        self.folder = folder
        self.processes = []
        os.makedirs(folder, exist_ok=True)

    def namespace(self, name):
        self._call("ip", "netns", "add", name)
        self.run(name, "ip", "link", "set", "lo", "up")

    def link(self, left, left_interface, right, right_interface):
        """Joins two namespaces by a cable; both ends are up."""
        self._call("ip", "link", "add", left_interface, "netns", left, "type", "veth",
                   "peer", "name", right_interface, "netns", right)
        for name, interface in ((left, left_interface), (right, right_interface)):
            self.run(name, "ip", "link", "set", interface, "up")

    def run(self, name, *argv, check=True, timeout=30):
        """Runs a command in a namespace and returns what it printed."""
        return self._call("nsenter", f"--net={NETNS}/{name}", *argv, check=check, timeout=timeout)

    def spawn(self, name, *argv, log, env=None):
        """Starts a program in a namespace; its output goes to a log file in the lab's folder. Ctrl-C is the lab's alone:
        it ends its programs in the order in which they should end."""
        with open(os.path.join(self.folder, log), "ab") as output:
            process = subprocess.Popen(("nsenter", f"--net={NETNS}/{name}", *argv), stdin=subprocess.DEVNULL,
                                       stdout=output, stderr=subprocess.STDOUT, env={**os.environ, **(env or {})},
                                       start_new_session=True)
        self.processes.append(process)
        return process

    def socket(self, name, family, kind, protocol=0):
        """A socket that lives in a namespace, for use from this process."""
        return self.inside(name, lambda: socket.socket(family, kind, protocol))

    def inside(self, name, act):
        """What an action gives that this process does inside a namespace."""
        home = os.open("/proc/self/ns/net", os.O_RDONLY)
        try:
            _enter(f"{NETNS}/{name}")
            return act()
        finally:
            if _libc.setns(home, CLONE_NEWNET) != 0:
                raise OSError(ctypes.get_errno(), "cannot return to the lab's own namespace")
            os.close(home)

    def stop(self, process, how=signal.SIGTERM, timeout=20):
        """Ends one process started here and returns its exit status."""
        if process.poll() is None:
            process.send_signal(how)
            try:
                process.wait(timeout)
            except subprocess.TimeoutExpired:
                process.kill()
                process.wait()
        if process in self.processes:
            self.processes.remove(process)
        return process.returncode

    def close(self):
        for process in reversed(list(self.processes)):
            self.stop(process)

    def log(self, name):
        with open(os.path.join(self.folder, name), encoding="utf-8", errors="replace") as file:
            return file.read()

    @staticmethod
    def _call(*argv, check=True, timeout=30):
        done = subprocess.run(argv, stdin=subprocess.DEVNULL, capture_output=True, text=True, timeout=timeout,
                              check=False, start_new_session=True)
        if check and done.returncode != 0:
            raise CommandFailed(f"{' '.join(argv)}: {done.stderr.strip() or f'exit status {done.returncode}'}")
        return done.stdout


def wait_for(condition, seconds, tick=None, pause=0.2):
    """Polls until the condition gives something true, which is returned; None when the time is over."""
    end = time.monotonic() + seconds
    while True:
        found = condition()
        if tick:
            tick()
        if found:
            return found
        if time.monotonic() >= end:
            return None
        time.sleep(pause)

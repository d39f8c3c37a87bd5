"""Completion in bash and zsh, typed on a terminal and asked of a running host.

Runs inside namespaces of its own: script/in-namespaces python3 tests/completion_test.py PROGRAMS
"""

import os
import pty
import select
import shutil
import signal
import subprocess
import sys
import tempfile
import time
import unittest

PROGRAMS = os.path.abspath(sys.argv.pop(1))
STB = "02:00:00:00:00:01"

# What is typed before the tabulator -> what stands on the line after it.
TYPED = {
    "keelctl wh": "keelctl why ",
    "keelctl exp": "keelctl export ",
    "keelctl import bo": "keelctl import box.json ",
    "keelctl timeline --since 10m -o bo": "keelctl timeline --since 10m -o box.json ",
    "keelctl capture -t 5 -o box.pcapng bed": "keelctl capture -t 5 -o box.pcapng bedroom ",
    "keelctl diag": "keelctl diagnose ",
    "keelctl help wo": "keelctl help words ",
    "keelctl why bed": "keelctl why bedroom ",
    "keelctl trace --fo": "keelctl trace --follow ",
    "keelctl get DHCPv4.Server.Pool.zep_s": "keelctl get DHCPv4.Server.Pool.zep_stb",  # and what is below it
    "keelctl get Keel.Zephyrin.DHCPC": "keelctl get Keel.Zephyrin.DHCPConfig ",
    "keelctl get Keel.Zephyrin.DHCPConfig L": "keelctl get Keel.Zephyrin.DHCPConfig LeaseTime ",
    "keelctl watch Weft.Intf.eth1.20.Req": "keelctl watch Weft.Intf.eth1.20.ReqOption ",
    "keelctl set Keel.Zephyrin Mono": "keelctl set Keel.Zephyrin MonoClient=",
    "keelctl set Keel.Zephyrin Mode=Bridged MonoClient=t": "keelctl set Keel.Zephyrin Mode=Bridged MonoClient=true ",
    "keelctl -S del Hosts.Host.02:00": f"keelctl -S del Hosts.Host.{STB} ",
    "keelctl add Keel.Zephyrin.Classless": "keelctl add Keel.Zephyrin.ClasslessStaticRoute ",
    "keelctl --socket /run/nobody get Keel.Zephyrin.DHCPC": "keelctl --socket /run/nobody get Keel.Zephyrin.DHCPC",
}


class Shell:
    """An interactive shell on a terminal of its own."""

    def __init__(self, argv, folder, setup):
        environment = {"PATH": f"{folder}/bin:/usr/sbin:/usr/bin:/sbin:/bin", "HOME": folder, "TERM": "dumb"}
        self.printed = ""
        self.pid, self.terminal = pty.fork()
        if self.pid == 0:
            os.chdir(folder)
            os.execvpe(argv[0], argv, environment)
        self.send("PS1='rea''dy>'; line() { printf '<%s' \"$*\"; echo '>'; }\n" + "".join(f"{one}\n" for one in setup))
        self.send("echo s''et\n")
        self.read_until("set\r\n")
        self.read_until("ready>")

    def send(self, text):
        os.write(self.terminal, text.encode())

    def read_until(self, end, seconds=10):
        """What is printed up to that text; what is printed after it is for the next time."""
        until = time.monotonic() + seconds
        while end not in self.printed:
            if not select.select([self.terminal], [], [], max(0, until - time.monotonic()))[0]:
                raise AssertionError(f"no {end!r} after {seconds} s, but {self.printed!r}")
            self.printed += os.read(self.terminal, 4096).decode(errors="replace")
        before, self.printed = self.printed.split(end, 1)
        return before

    def complete(self, typed):
        """The line after the tabulator: a word before it and one after it make it a command that prints it."""
        self.send(f"{typed}\t'|'\x01line \n")
        printed = self.read_until("|>")
        self.read_until("ready>")
        return printed[printed.rindex("<") + 1:]

    def close(self):
        os.kill(self.pid, signal.SIGKILL)
        os.waitpid(self.pid, 0)
        os.close(self.terminal)


class CompletionTest(unittest.TestCase):
    maxDiff = None

    @classmethod
    def setUpClass(cls):
        cls.folder = tempfile.mkdtemp(dir="/run")
        subprocess.run(("cmake", "--install", PROGRAMS, "--prefix", cls.folder), check=True, stdout=subprocess.DEVNULL)
        cls.host = subprocess.Popen((f"{cls.folder}/bin/keelhost", "--store", f"{cls.folder}/keel.db"),
                                    stdout=subprocess.DEVNULL, stderr=subprocess.DEVNULL, start_new_session=True)
        with open(f"{cls.folder}/box.json", "w", encoding="utf-8"):
            pass
        add = (f"{cls.folder}/bin/keelctl", "add", "Hosts.Host", STB, "HostName=bedroom", "Tags=lan stb")
        until = time.monotonic() + 15
        while subprocess.run(add, capture_output=True, check=False).returncode != 0:
            assert time.monotonic() < until and cls.host.poll() is None, "keelhost does not answer"
            time.sleep(0.1)

    @classmethod
    def tearDownClass(cls):
        cls.host.terminate()
        cls.host.wait(20)
        shutil.rmtree(cls.folder)

    def complete_all(self, shell):
        try:
            self.assertEqual({typed: shell.complete(typed) for typed in TYPED}, TYPED)
        finally:
            shell.close()

    def test_bash(self):
        self.complete_all(Shell(("bash", "--norc", "--noprofile", "-i"), self.folder,
                                (". /usr/share/bash-completion/bash_completion",
                                 f". {self.folder}/share/bash-completion/completions/keelctl")))

    def test_zsh(self):
        self.complete_all(Shell(("zsh", "-f", "-i"), self.folder,
                                ("bindkey -e", "unset zle_bracketed_paste",
                                 f"fpath=({self.folder}/share/zsh/vendor-completions $fpath)",
                                 f"autoload -U compinit; compinit -u -d {self.folder}/zcompdump")))


if __name__ == "__main__":
    unittest.main(verbosity=2)

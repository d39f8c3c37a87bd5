"""The host as the systemd unit runs it: what the unit restricts leaves the service whole, and the service manager is
told how it is with the host.

Runs inside namespaces of its own: script/in-namespaces python3 tests/service_test.py PROGRAMS
"""

import json
import os
import re
import shutil
import signal
import socket
import subprocess
import sys
import tempfile
import threading
import time
import unittest

ROOT = os.path.dirname(os.path.dirname(os.path.abspath(__file__)))
sys.path.insert(0, os.path.join(ROOT, "lab"))

from lab import DEVICES, Lab  # noqa: E402
from network import NETNS, wait_for  # noqa: E402
from wrapped_tables import wrapped_tables  # noqa: E402

PROGRAMS = os.path.abspath(sys.argv.pop(1))
UNIT = os.path.join(ROOT, "share", "keelhost.service")
CONFINED = os.path.join(ROOT, "tests", "confined.py")
JOURNAL = "/run/systemd/journal/socket"
STB1, PC = DEVICES[0], DEVICES[3]
NET_BIND_SERVICE, NET_ADMIN, NET_RAW, SYS_ADMIN = (1 << number for number in (10, 12, 13, 21))


class ServiceTest(unittest.TestCase):
    def setUp(self):
        self.folder = tempfile.mkdtemp(dir="/run")
        self.programs = os.path.join(self.folder, "programs")
        os.mkdir(self.programs)
        for name in ("keelctl", "zephyrin.so"):
            os.symlink(os.path.join(PROGRAMS, name), os.path.join(self.programs, name))
        self.manager = socket.socket(socket.AF_UNIX, socket.SOCK_DGRAM)
        self.manager.bind(os.path.join(self.folder, "notify"))
        self.told = []
        self.lab = Lab(self.programs, os.path.join(ROOT, "share"), self.folder, devices=(STB1, PC))
        self.lab.build()
        self.lab.start_operator()

    def tearDown(self):
        self.lab.close()
        self.manager.close()
        for name in os.listdir(NETNS):
            subprocess.run(("ip", "netns", "del", name), check=True)
        shutil.rmtree(self.folder)

    def start_as(self, *before, watchdog_us=60_000_000):
        """Starts the gateway with these words before its program, as the service manager would."""
        wrapper = os.path.join(self.programs, "keelhost")
        log = os.path.join(self.folder, "gateway.log")
        with open(wrapper, "w", encoding="utf-8") as file:
            words = " ".join((*before, os.path.join(PROGRAMS, "keelhost")))
            file.write(f"""#!/bin/sh
export NOTIFY_SOCKET={self.folder}/notify WATCHDOG_USEC={watchdog_us} WATCHDOG_PID=$$
export JOURNAL_STREAM=$(stat -Lc %d:%i {log})
exec {words} "$@"
""")
        os.chmod(wrapper, 0o755)
        self.lab.start_gateway()

    def keelctl(self, *words):
        done = subprocess.run((os.path.join(PROGRAMS, "keelctl"), "--socket", self.lab.socket, *words), timeout=20,
                              stdout=subprocess.DEVNULL, check=False)
        return done.returncode == 0

    def hear(self):
        """All that the service manager was told up to now."""
        while True:
            try:
                message, _ = self.manager.recvmsg(4096, 0, socket.MSG_DONTWAIT)[:2]
            except BlockingIOError:
                return self.told
            self.told += message.decode().splitlines()

    def await_told(self, what, seconds=5):
        self.assertTrue(wait_for(lambda: what in self.hear(), seconds), f"{what} is not told: {self.told}")

    def log(self):
        return self.lab.network.log("gateway.log")

    def await_service(self):
        self.assertTrue(wait_for(lambda: self.lab.served_as(STB1), 30), f"the STB is not served\n{self.log()[-4000:]}")

    def status_of(self, pid):
        with open(f"/proc/{pid}/status", encoding="utf-8") as file:
            return dict(line.rstrip("\n").split(":\t", 1) for line in file)

    def test_the_unit_leaves_the_service_whole(self):
        # A sanitizer looks for leaks as a debugger would, which the unit does not allow.
        self.start_as("env", "ASAN_OPTIONS=detect_leaks=0", "/usr/bin/python3", "-B", CONFINED, UNIT)
        self.await_told("READY=1")
        for device in (STB1, PC):
            self.lab.start_device(device)
        self.await_service()
        self.assertTrue(wait_for(lambda: self.lab.address(PC), 10), "the PC has no lease")
        self.assertTrue(wait_for(lambda: "igmpproxy" in self.lab.processes().values(), 10), "no multicast daemon")

        host = self.status_of(self.lab.gateway.pid)
        rights = NET_BIND_SERVICE | NET_ADMIN | NET_RAW | SYS_ADMIN
        self.assertEqual((int(host["CapEff"], 16), host["NoNewPrivs"]), (rights, "1"))
        with open(f"/proc/{self.lab.gateway.pid}/maps", encoding="utf-8") as file:
            self.assertNotRegex(file.read(), " rwx", "MemoryDenyWriteExecute would refuse it")
        store = os.path.join(self.folder, "keel.db")
        for pid in self.lab.wan_clients():
            self.assertEqual(int(self.status_of(pid)["CapEff"], 16) & ~(NET_BIND_SERVICE | NET_ADMIN | NET_RAW), 0)
            seen = subprocess.run(("nsenter", f"--mount=/proc/{pid}/ns/mnt", "stat", "-c", "%F", store,
                                   self.lab.socket), capture_output=True, text=True, check=True).stdout.split("\n")[:2]
            self.assertEqual(seen, ["character special file"] * 2, "store and control socket are hidden")
        writable = f"! [ -w {ROOT} ] && ! [ -w /usr/bin ] && ! [ -w /proc/sys/net/ipv4/ip_forward ] && [ -w /run ]"
        looked = subprocess.run(("nsenter", f"--mount=/proc/{self.lab.gateway.pid}/ns/mnt", "sh", "-c", writable),
                                check=False)
        self.assertEqual(looked.returncode, 0, "the restrictions are in force")

        self.lab.gateway.send_signal(signal.SIGHUP)
        self.await_told("RELOADING=1")
        self.assertTrue(self.lab.keel.set("Keel.Zephyrin", Mode="Simplified"))
        self.assertTrue(wait_for(lambda: self.lab.rules("filter", "FORWARD_ZEP"), 15), "the firewall script runs")
        self.assertEqual(self.lab.stop_gateway(), 0)
        self.assertEqual(self.lab.processes(), {})
        for trouble in ("<3>", "ad system call", "without a lock", "ermission denied", "not permitted", "ead-only"):
            self.assertNotIn(trouble, self.log())

    def test_the_service_manager_is_told(self):
        net = self.lab.network
        net.run("gateway", "ip", "link", "set", "br-lan", "down")
        self.start_as(watchdog_us=1_000_000)
        time.sleep(0.5)
        self.assertIn("STATUS=waiting for br-lan", self.hear())
        self.assertNotIn("READY=1", self.told)
        net.run("gateway", "ip", "link", "set", "br-lan", "up")
        self.await_told("READY=1")
        self.told.clear()
        self.lab.gateway.send_signal(signal.SIGHUP)
        self.await_told("READY=1")
        self.assertLess(self.told.index("RELOADING=1"), self.told.index("READY=1"))
        self.assertTrue(any(re.fullmatch(r"MONOTONIC_USEC=\d+", line) for line in self.told), self.told)

        self.told.clear()
        time.sleep(2)
        self.assertIn(self.hear().count("WATCHDOG=1"), (2, 3, 4, 5), "twice a second")
        heard = time.monotonic()

        def silent():
            nonlocal heard
            if "WATCHDOG=1" in self.hear():
                heard = time.monotonic()
                self.told.clear()
            return time.monotonic() - heard > 3

        with wrapped_tables(self.folder, 'for word; do [ "$word" != PREROUTING_zep ] || sleep 4; done'):
            self.lab.start_device(STB1)  # what is done for it holds the loop
            self.assertTrue(wait_for(silent, 60, pause=0.05), "a loop that does not turn tells nothing")
        self.await_told("WATCHDOG=1", 20)

        self.told.clear()
        self.assertEqual(self.lab.stop_gateway(), 0)
        self.assertEqual([line for line in self.hear() if line != "WATCHDOG=1"], ["STOPPING=1"])
        traces = [line for line in self.log().splitlines() if "host: " in line]
        self.assertIn("<6>host: up", traces)
        self.assertIn("<3>lan: cannot serve DHCP on br-lan", self.log())

    def test_the_journal_knows_zones_and_devices(self):
        os.makedirs(os.path.dirname(JOURNAL))
        journal = socket.socket(socket.AF_UNIX, socket.SOCK_DGRAM)
        journal.bind(JOURNAL)
        entries = []

        def read():
            while lines := journal.recv(65536).decode().splitlines():
                entries.append(dict(line.split("=", 1) for line in lines))

        reader = threading.Thread(target=read)
        reader.start()
        try:
            self.start_as("env", "ASAN_OPTIONS=detect_leaks=0", "/usr/bin/python3", "-B", CONFINED, UNIT)
            mac = self.lab.mac(STB1)
            box = os.path.join(self.folder, "box.json")
            self.assertTrue(self.keelctl("export", "-o", box))
            with open(box, encoding="utf-8") as file:
                tagged = json.load(file) | {"tags": {mac: "lan stb"}}
            with open(box, "w", encoding="utf-8") as file:
                json.dump(tagged, file)
            self.assertTrue(self.keelctl("import", box))  # each change is traced
            wait_for(lambda: any("STB" in entry for entry in entries), 5)
        finally:
            with socket.socket(socket.AF_UNIX, socket.SOCK_DGRAM) as end:
                end.sendto(b"", JOURNAL)
            reader.join()
            journal.close()
            os.remove(JOURNAL)
        up = next(entry for entry in entries if entry["MESSAGE"] == "host: up")
        self.assertEqual((up["PRIORITY"], up["ZONE"], up["SYSLOG_IDENTIFIER"]), ("6", "host", "keelhost"))
        self.assertIn(mac, [entry.get("STB") for entry in entries if entry["ZONE"] == "import"])
        self.assertIn("routed", {entry["ZONE"] for entry in entries}, "the plug-in's traces have theirs")
        self.assertNotIn("host: up", self.log(), "each stands there once")
        self.assertEqual(self.lab.stop_gateway(), 0)
        self.assertIn("<6>host: stopping", self.log(), "without a journal to tell, stderr is told")

    def test_the_unit_is_as_closed_as_said(self):
        said = subprocess.run(("systemd-analyze", "--no-pager", "security", "--offline=true", UNIT),
                              capture_output=True, text=True, check=False).stdout
        score = re.search(r"Overall exposure level for keelhost.service: ([\d.]+)", said)
        self.assertTrue(score, said[-300:])
        self.assertLessEqual(float(score[1]), 3.0)
        verified = subprocess.run(("systemd-analyze", "--no-pager", "verify", "--man=no", UNIT), capture_output=True,
                                  text=True, check=False).stderr
        wrong = [line for line in verified.splitlines() if "/usr/bin/keelhost is not executable" not in line]
        self.assertEqual(wrong, [], "but that it is not installed here")


if __name__ == "__main__":
    unittest.main(verbosity=2)

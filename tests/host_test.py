"""One host at a time, and its end, on a real network.

Runs inside namespaces of its own: script/in-namespaces python3 tests/host_test.py PROGRAMS
"""

import os
import shutil
import signal
import subprocess
import sys
import tempfile
import time
import unittest

ROOT = os.path.dirname(os.path.dirname(os.path.abspath(__file__)))
sys.path.insert(0, os.path.join(ROOT, "lab"))

from lab import DEVICES, IPTV, Lab  # noqa: E402
from network import NETNS, wait_for  # noqa: E402
from wrapped_tables import wrapped_tables  # noqa: E402

PROGRAMS = os.path.abspath(sys.argv.pop(1))
STB1 = DEVICES[0]


class HostTest(unittest.TestCase):
    def setUp(self):
        self.folder = tempfile.mkdtemp(dir="/run")
        self.lab = Lab(PROGRAMS, os.path.join(ROOT, "share"), self.folder, devices=(STB1,))
        self.lab.build()
        self.lab.start_operator()
        self.lab.start_gateway()
        self.lab.start_device(STB1)
        self.assertTrue(wait_for(lambda: self.lab.served_as(STB1), 30),
                        f"the STB is not served\n{self.lab.network.log('gateway.log')[-4000:]}")

    def tearDown(self):
        self.lab.close()
        for name in os.listdir(NETNS):
            subprocess.run(("ip", "netns", "del", name), check=True)
        shutil.rmtree(self.folder)

    def in_force(self):
        """All rules, without their counters, and the addresses of the IPTV device."""
        return ([self.lab.network.run("gateway", "iptables", "-t", table, "-S") for table in ("raw", "nat", "filter")],
                sorted(self.lab.addresses("gateway", IPTV)))

    def own_rules(self):
        return [rule for table in ("raw", "nat", "filter") for rule in self.lab.rules(table)
                if "192.168.1." in rule or "10.20.0." in rule]

    def test_a_second_host_touches_nothing(self):
        before = self.in_force()
        store = os.path.join(self.folder, "second.db")
        second = subprocess.run(
            ("nsenter", f"--net={NETNS}/gateway", os.path.join(PROGRAMS, "keelhost"), "--store", store, "--socket",
             os.path.join(self.folder, "second.sock"), "--share", os.path.join(ROOT, "share")),
            capture_output=True, text=True, timeout=20, check=False)
        self.assertEqual(second.returncode, 2, second.stderr)
        self.assertIn(f"process {self.lab.gateway.pid} (keelhost)", second.stderr)
        self.assertFalse(os.path.exists(store))
        self.assertEqual(self.in_force(), before)
        self.assertTrue(self.lab.served_as(STB1))

    def test_no_signal_ends_it_halfway(self):
        gateway = self.lab.gateway
        for number in (signal.SIGHUP, signal.SIGUSR1, signal.SIGUSR2, signal.SIGALRM):
            gateway.send_signal(number)
        time.sleep(0.3)
        self.assertIsNone(gateway.poll())
        self.assertTrue(self.lab.keel.answers())
        for _ in range(8):  # two SIGTERMs, Ctrl-C, and an impatient supervisor
            for number in (signal.SIGTERM, signal.SIGINT, signal.SIGQUIT, signal.SIGHUP):
                gateway.send_signal(number)
            time.sleep(0.02)
        self.assertEqual(gateway.wait(20), 0, self.lab.network.log("gateway.log")[-2000:])
        self.assertEqual(self.own_rules(), [])
        self.assertEqual(self.lab.addresses("gateway", IPTV), [])

    def test_it_ends_although_a_command_hangs(self):
        with wrapped_tables(self.folder, 'for word; do [ "$word" != PREROUTING_zep ] || sleep 60; done'):
            start = time.monotonic()
            status = self.lab.stop_gateway()
            took = time.monotonic() - start
        log = self.lab.network.log("gateway.log")
        self.assertLess(took, 18, "the unit's time")
        self.assertEqual(status, 1, "something is left")
        self.assertIn("what this was to undo may be left", log)
        self.assertIn("PREROUTING_zep", log.split("what this was to undo may be left")[-1])
        left = [rule for rule in self.own_rules() if "PREROUTING_zep" not in rule]
        self.assertEqual(left, [], "what does not hang is undone")


if __name__ == "__main__":
    unittest.main(verbosity=2)

"""A host that is killed while it starts, and is started again at once: what is in force then is what one start gives.

Runs inside namespaces of its own: script/in-namespaces python3 tests/restart_test.py PROGRAMS
"""

import re
import signal
import time
import unittest

from on_lab import build_lab  # first: it finds the lab
from lab import IPTV
from network import wait_for
from wrapped_tables import wrapped_tables

INSTANTS = 30


class RestartTest(unittest.TestCase):
    maxDiff = None

    @classmethod
    def setUpClass(cls):
        cls.lab = build_lab(cls.addClassCleanup, ())

    def tearDown(self):
        if self.lab.gateway:
            self.kill()
        self.clear()

    def on_gateway(self, *argv):
        return self.lab.network.run("gateway", *argv)

    def in_force(self):
        """All rules, without counters and dates, and the addresses of the IPTV device."""
        saved = self.on_gateway("iptables-save") + self.on_gateway("ebtables-save")
        rules = [re.sub(r" \[\d+:\d+\]$", "", line) for line in saved.splitlines() if not line.startswith("#")]
        return rules, self.lab.addresses("gateway", IPTV)

    def clear(self):
        """As on a gateway that has just come up."""
        for command, tables in (("iptables", ("raw", "nat", "filter")), ("ebtables", ("nat", "filter"))):
            for table in tables:
                for what in ("-F", "-X"):
                    self.on_gateway(command, "-t", table, what)

    def kill(self):
        self.assertEqual(self.lab.stop_gateway(signal.SIGKILL), -signal.SIGKILL)

    def start_undisturbed(self):
        """What is in force after it, and how long it takes."""
        begin = time.monotonic()
        self.lab.start_gateway()
        took = time.monotonic() - begin
        time.sleep(1)
        undisturbed = self.in_force()
        self.assertIn("-A FORWARD -j FORWARD_IPTV2Lan", undisturbed[0])
        self.assertIn("-A FORWARD -j FORWARD_Isolation", undisturbed[0])
        self.kill()
        return undisturbed, took

    def expect(self, wanted, when):
        wait_for(lambda: self.in_force() == wanted, 5)
        time.sleep(0.2)  # something that the killed one left may still come
        found = self.in_force()
        self.assertEqual(found, wanted, f"{when}\n{self.lab.network.log('gateway.log')[-3000:]}")

    def test_killed_at_any_instant_of_its_start(self):
        undisturbed, took = self.start_undisturbed()
        for number in range(INSTANTS):
            self.clear()
            self.assertNotIn("zep", "".join(self.in_force()[0]))
            instant = (took + 0.1) * number / INSTANTS
            self.lab.launch_gateway()
            time.sleep(instant)
            self.kill()
            self.lab.start_gateway()
            self.expect(undisturbed, f"killed after {1000 * instant:.0f} ms")
            self.kill()

    def test_killed_while_the_chains_are_set_up(self):
        undisturbed, _ = self.start_undisturbed()
        for what in ("iptables-restore", "ebtables-restore"):
            self.clear()
            with wrapped_tables(self.lab.folder, f'[ "${{0##*/}}" != {what} ] || sleep 0.7'):
                self.lab.launch_gateway()
                self.assertTrue(wait_for(lambda: self.lab.network.run("gateway", "pgrep", "-f", f"/usr/sbin/{what}",
                                                                      check=False), 10, pause=0.02))
                self.kill()
                self.lab.start_gateway()
                self.expect(undisturbed, f"killed while {what} runs")
                self.kill()

    def test_killed_while_a_command_of_the_plug_in_runs(self):
        undisturbed, _ = self.start_undisturbed()
        self.clear()
        with wrapped_tables(self.lab.folder, '[ "${0##*/}" != iptables ] || sleep 1'):
            self.lab.launch_gateway()
            self.assertTrue(wait_for(lambda: self.lab.network.run("gateway", "pgrep", "-f", "iptables .*PREROUTING_zep",
                                                                  check=False), 20, pause=0.02))
            self.kill()
        self.lab.start_gateway()
        time.sleep(1.5)
        self.expect(undisturbed, "killed while a command runs")

if __name__ == "__main__":
    unittest.main(verbosity=2)

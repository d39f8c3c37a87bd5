"""One host at a time, and its end, on a real network.

Runs inside namespaces of its own: script/in-namespaces python3 tests/host_test.py PROGRAMS
"""

import os
import signal
import subprocess
import time
import unittest

from on_lab import PROGRAMS, ROOT, build_lab, keelctl  # first: it finds the lab
from lab import DEVICES, IPTV
from network import NETNS, wait_for
from wrapped_tables import wrapped_tables

STB1 = DEVICES[0]


class HostTest(unittest.TestCase):
    def setUp(self):
        self.lab = build_lab(self.addCleanup, (STB1,))
        self.folder = self.lab.folder
        self.lab.start_operator()
        self.lab.start_gateway()
        self.lab.start_device(STB1)
        self.assertTrue(wait_for(lambda: self.lab.served_as(STB1), 30),
                        f"the STB is not served\n{self.lab.network.log('gateway.log')[-4000:]}")

    def in_force(self):
        """All rules, without their counters, and the addresses of the IPTV device."""
        return ([self.lab.network.run("gateway", "iptables", "-t", table, "-S") for table in ("raw", "nat", "filter")],
                sorted(self.lab.addresses("gateway", IPTV)))

    def own_rules(self):
        return [rule for table in ("raw", "nat", "filter") for rule in self.lab.rules(table)
                if "192.168.1." in rule or "10.20.0." in rule]

    def start_another(self, socket, network="gateway"):
        """A host of its own, on the same gateway unless told otherwise, until it ends."""
        self.other_store = os.path.join(self.folder, "other.db")
        return subprocess.run(
            ("nsenter", f"--net={NETNS}/{network}", os.path.join(PROGRAMS, "keelhost"), "--store", self.other_store,
             "--socket", socket, "--share", os.path.join(ROOT, "share")),
            capture_output=True, text=True, timeout=20, check=False)

    def test_a_second_host_touches_nothing(self):
        before = self.in_force()
        second = self.start_another(os.path.join(self.folder, "second.sock"))
        self.assertEqual(second.returncode, 2, second.stderr)
        self.assertIn(f"process {self.lab.gateway.pid} (keelhost)", second.stderr)
        self.assertFalse(os.path.exists(self.other_store))
        elsewhere = self.start_another(self.lab.socket, "operator")
        self.assertIn("another keelhost listens", elsewhere.stderr)
        self.assertFalse(os.path.exists(self.other_store), "a store is opened before it is known that it is free")
        self.assertEqual(self.in_force(), before)
        self.assertTrue(self.lab.served_as(STB1))

    def test_a_start_without_a_socket_touches_nothing(self):
        self.lab.stop_gateway()
        self.lab.network.run("gateway", "iptables", "-t", "raw", "-F")
        before = self.in_force()
        path = os.path.join(self.folder, "no_socket")
        with open(path, "w", encoding="ascii") as file:
            file.write("somebody's")
        done = self.start_another(path)
        self.assertEqual(done.returncode, 1, done.stderr)
        self.assertIn(path, done.stderr)
        self.assertEqual(self.in_force(), before)

    def test_a_socket_that_is_taken_away_comes_back(self):
        os.remove(self.lab.socket)
        with open(self.lab.socket, "w", encoding="ascii") as file:
            file.write("somebody's")
        log = self.lab.network.log
        self.assertTrue(wait_for(lambda: "nobody reaches this host any more" in log("gateway.log"), 15))
        with open(self.lab.socket, encoding="ascii") as file:
            self.assertEqual(file.read(), "somebody's")
        os.remove(self.lab.socket)
        self.assertTrue(wait_for(lambda: keelctl(self.lab, "why")[0] == 0, 15), log("gateway.log")[-2000:])
        self.assertEqual(os.stat(self.lab.socket).st_mode & 0o777, 0o600)

    def test_no_signal_ends_it_halfway(self):
        gateway = self.lab.gateway
        for number in (signal.SIGHUP, signal.SIGUSR1, signal.SIGUSR2, signal.SIGALRM, signal.SIGHUP):
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

    def test_a_changed_file_is_taken_over_while_it_runs(self):
        keel, rule = self.lab.keel, "DHCPv4.Server.Pool.zep_stb.Rule.1"
        settings = os.path.join(self.folder, "keelhost.toml")

        def reload(text):
            with open(settings, "w", encoding="utf-8") as file:
                file.write(text)
            self.lab.gateway.send_signal(signal.SIGHUP)

        def told(text):
            self.assertTrue(wait_for(lambda: text in self.lab.network.log("gateway.log"), 5),
                            f"{text} is not told\n{self.lab.network.log('gateway.log')[-2000:]}")

        self.assertTrue(keel.set("Keel.Zephyrin", MonoClient="true"))
        reload('[service]\nmode = "Routed"\nmono-client = false\n[stb]\nlast = "192.168.2.1"\n')
        told(f"{settings}:5: stb.last is 192.168.2.1")
        told("nothing of")
        self.assertEqual((keel.get(rule, "MaxAddress"), keel.get("Keel.Zephyrin", "MonoClient")), ("192.168.1.39", True))

        reload('[service]\nmode = "Routed"\n[stb]\nlast = "192.168.1.30"\n[lan]\nbridge = "br9"\n')
        told("stb.last is 192.168.1.30 now")
        told("lan.bridge is br9 now: restart keelhost")
        self.assertEqual((keel.get(rule, "MaxAddress"), keel.get("Keel.Zephyrin", "MonoClient")), ("192.168.1.30", True))
        self.assertTrue(self.lab.served_as(STB1))

        reload('[service]\nmode = "Bridged"\n')
        self.assertTrue(wait_for(lambda: not self.own_rules(), 10), "the routed mode is left")

    def test_an_identity_in_use_is_not_deleted(self):
        keel, identities = self.lab.keel, "Keel.Zephyrin.ClientLease"
        identity, = keel.instances(identities)
        status, _, wrong = keelctl(self.lab, "del", f"{identities}.{identity}")
        self.assertEqual((status, keel.instances(identities)), (1, [identity]))
        self.assertIn("keelctl set Keel.Zephyrin Enable=false, then Enable=true", wrong)
        self.assertTrue(self.lab.served_as(STB1))
        # What it says helps.
        self.assertTrue(keel.set("Keel.Zephyrin", Enable="false"))
        self.assertTrue(wait_for(lambda: not self.own_rules() and not keel.instances(identities), 10))
        self.assertTrue(keel.set("Keel.Zephyrin", Enable="true"))
        self.lab.stop_device(STB1)
        self.lab.start_device(STB1)
        self.assertTrue(wait_for(lambda: self.lab.served_as(STB1), 30), self.lab.network.log("gateway.log")[-3000:])

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

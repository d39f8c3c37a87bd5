"""Faults on a real network: the operator goes away and comes back, the host is killed and serves again.

Runs inside namespaces of its own: script/in-namespaces python3 tests/network_test.py PROGRAMS
"""

import signal
import unittest

from on_lab import build_lab  # first: it finds the lab
from lab import DEVICES, IPTV
from network import wait_for
from tap import ACK, OFFER

STB1, STB2, ITF, PC = DEVICES


class NetworkTest(unittest.TestCase):
    @classmethod
    def setUpClass(cls):
        cls.lab = build_lab(cls.addClassCleanup)
        cls.lab.start_operator()
        cls.lab.start_gateway()

    def await_service(self, device, seconds=40):
        """Waits until the device plays: its packets reach the server with its WAN address as source."""
        wan = wait_for(lambda: self.lab.served_as(device), seconds)
        self.assertTrue(wan, f"{device.name} does not play\n{self.lab.network.log('gateway.log')[-4000:]}")
        return wan

    def test_1_operator_away_and_back(self):
        lab = self.lab
        lab.start_device(STB1)
        wan = self.await_service(STB1)

        lab.stop_operator()
        lab.start_device(STB2)
        self.assertTrue(wait_for(lambda: lab.keel.hold(lab.mac(STB2)), 15), "STB2 is not held while the operator is away")
        lab.renew_wan_leases()
        state = wait_for(lambda: lab.keel.wan_state(lab.mac(STB1)) in ("Renewing", "Rebinding"), 15)
        self.assertTrue(state, f"STB1's WAN client does not renew: {lab.keel.wan_state(lab.mac(STB1))}")
        self.assertFalse([m for m in lab.taps["stb2"].poll() if m.kind in (OFFER, ACK)] and
                         lab.keel.hold(lab.mac(STB2)), "STB2 was answered while on hold")
        self.assertEqual(self.await_service(STB1), wan, "STB1 lost its address while its lease was in force")

        lab.start_operator()
        lab.renew_wan_leases()
        self.assertTrue(wait_for(lambda: lab.keel.wan_state(lab.mac(STB1)) == "Bound", 60), "STB1 is not bound again")
        self.assertEqual(self.await_service(STB1), wan)
        self.assertNotEqual(self.await_service(STB2, 150), wan)

    def test_2_killed_host_serves_again(self):
        lab = self.lab
        before = {device.name: self.await_service(device) for device in (STB1, STB2)}
        clients = lab.wan_clients()
        self.assertEqual(len(clients), 3, "one for each STB, and the gateway's own")
        guest = "02:00:00:00:00:99"
        self.assertTrue(lab.keel.add("Hosts.Host", guest, MACAddress=guest, Active="true"))
        self.assertTrue(lab.keel.set(f"Hosts.Host.{guest}", Tags="lan guest"))

        lab.stop_gateway(signal.SIGKILL)
        self.assertTrue(wait_for(lambda: not lab.wan_clients(), 5), "WAN clients outlive the host")

        lab.start_gateway()
        after = {device.name: self.await_service(device) for device in (STB1, STB2)}
        self.assertEqual(before, after)
        self.assertEqual(lab.keel.get(f"Hosts.Host.{guest}", "Tags"), "lan guest")
        self.assertIs(lab.keel.get(f"Hosts.Host.{guest}", "Active"), False, "it is not there")
        routes = lab.network.run("gateway", "ip", "route", "show", "dev", IPTV)
        self.assertEqual(routes.count("10.60.0.0/24 via 10.20.0.1"), 1)
        own = wait_for(lambda: lab.own_address(), 15)
        self.assertTrue(own, "the gateway's own lease is not in force")
        self.assertEqual(sorted(lab.addresses("gateway", IPTV)), sorted((*after.values(), own)))

    def test_3_stopped_host_leaves_nothing(self):
        lab = self.lab
        self.assertEqual(lab.stop_gateway(), 0)
        self.assertEqual(lab.processes(), {})
        self.assertEqual(lab.addresses("gateway", IPTV), [])
        self.assertEqual([rule for rule in lab.rules("nat") if "_zep" in rule and not rule.startswith("-N")], [])


if __name__ == "__main__":
    unittest.main(verbosity=2)

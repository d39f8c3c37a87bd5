"""Changes of the mode on a real network: what each mode leaves is gone with it, and what it needs is there.

Runs inside namespaces of its own: script/in-namespaces python3 tests/mode_change_test.py PROGRAMS
"""

import unittest

from on_lab import build_lab  # first: it finds the lab
from lab import DATA, DEVICES, INTERNET_ADDRESS, INTERNET_PORT, IPTV, SERVER_ADDRESS
from multicast import Member, Stream, plays
from network import wait_for
from simplified import main_rules_of

STB = DEVICES[0]
SEEN_AS = "100.64.0.2"  # the gateway on the Internet side


class ModeChangeTest(unittest.TestCase):
    def setUp(self):
        self.lab = build_lab(self.addCleanup)
        self.lab.start_operator()
        self.lab.start_multicast_router()
        self.lab.start_gateway()
        self.lab.start_device(STB)

    def change(self, mode):
        self.assertTrue(self.lab.keel.set("Keel.Zephyrin", Mode=mode, Interface="Dedicated"))

    def soon(self, wanted, look, what):
        wait_for(lambda: look() == wanted, 20)
        self.assertEqual(look(), wanted, f"{what}\n{self.lab.network.log('gateway.log')[-4000:]}")

    def routed_rules(self):
        """Everything in force of the routed mode."""
        lab = self.lab
        return [rule for table, chain in (("nat", "POSTROUTING_IPTV"), ("nat", "PREROUTING_IPTV"),
                                          ("nat", "POSTROUTING_zep"), ("nat", "PREROUTING_zep"),
                                          ("filter", "FORWARD_zep"), ("filter", "FORWARD_IPTV2Lan"))
                for rule in lab.rules(table, chain)] + [rule for rule in lab.rules("raw", "PREROUTING") if IPTV in rule]

    def routes(self):
        return self.lab.network.run("gateway", "ip", "route", "show", "dev", IPTV)

    def expect_routed(self):
        lab = self.lab
        wan = wait_for(lambda: lab.served_as(STB), 40)
        self.assertTrue(wan, f"{STB.name} does not play\n{lab.network.log('gateway.log')[-4000:]}")
        self.soon(sorted((lab.own_address() or "", wan)), lambda: sorted(lab.addresses("gateway", IPTV)), "addresses")
        self.soon(2, lambda: len(lab.wan_clients()), "a client for the STB, and the gateway's own")
        self.assertIn("10.60.0.0/24 via 10.20.0.1", self.routes())
        self.soon(8, lambda: len(self.routed_rules()), "four hooks, three rules of the mapping, and the policy's")

    def expect_simplified(self):
        """Nothing of the routed mode is left, but the gateway's own lease; the STB goes out by the Internet side."""
        lab = self.lab
        self.soon([], self.routed_rules, "rules")
        self.soon(1, lambda: len(lab.wan_clients()), "the gateway's own client alone")
        self.soon([lab.own_address()], lambda: lab.addresses("gateway", IPTV), "addresses")
        self.assertNotIn("via", self.routes())
        self.soon(main_rules_of(DATA), lambda: (lab.rules("filter", "FORWARD_ZEP"), lab.rules("nat", "POSTROUTING_ZEP")),
                  "main rules")
        self.soon([f"-s {lab.address(STB)}/32 -j ACCEPT"], lambda: lab.rules("filter", "FORWARD_ZEP_Services"),
                  "the STB's rule")
        self.soon(SEEN_AS, lambda: lab.connect(STB.name, "internet", INTERNET_ADDRESS, INTERNET_PORT, 1), "the way out")

    def test_routed_simplified_simplifiedv2_routed(self):
        lab = self.lab
        self.expect_routed()
        stream, member = Stream(lab.network, "server", SERVER_ADDRESS), Member(lab.network, STB.name, lab.address(STB))
        self.assertTrue(plays(member, 40), "the stream does not arrive in the routed mode")
        self.change("Simplified")
        self.expect_simplified()
        self.assertTrue(plays(member, 40), "the stream does not arrive in the simplified mode")
        self.change("SimplifiedV2")
        self.expect_simplified()
        self.assertEqual(lab.keel.get("Weft.Intf.iptv", "LowerLayers"), "dhcp_iptv")
        self.change("Routed")
        self.expect_routed()
        self.assertTrue(plays(member, 40), "the stream does not arrive after the way round")
        self.assertEqual(lab.rules("filter", "FORWARD_ZEP"), main_rules_of(DATA)[0], "the script's rules stay in force")
        stream.close()
        member.close()


if __name__ == "__main__":
    unittest.main(verbosity=2)

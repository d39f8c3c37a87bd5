"""The second simplified mode: IPTV over a connection of its own, or over the Internet connection with a fixed address."""

from lab import DATA, IPTV, SERVER_ADDRESS
from multicast import Member, Stream, plays
from network import wait_for
from simplified import Simplified, main_rules_of

FIXED = "10.20.0.40"
NOTHING = ("", False, "Idle")


class SimplifiedV2(Simplified):
    def play(self):
        self.bring_up()
        network = self.lab.network
        stream = Stream(network, "server", SERVER_ADDRESS)
        self.member = Member(network, self.stb.name, self.lab.address(self.stb))
        self.prove_dedicated()
        self.prove_internet()
        self.prove_idle()
        stream.close()
        self.member.close()

    # ------------------------------------------------------------------------------------ what is looked at

    def lower(self):
        return self.lab.keel.get("Weft.Intf.iptv", "LowerLayers")

    def addresses(self):
        return self.lab.addresses("gateway", IPTV)

    def lease(self):
        return self.lab.keel.get("Weft.Intf.dhcp_iptv", "IPAddress")

    def mirror(self):
        return tuple(self.lab.keel.get("Keel.Zephyrin.IGDMap", name)
                     for name in ("ExternalIPAddress", "Enable", "ConnectionStatus"))

    # --------------------------------------------------------------------------------------------- proofs

    def prove_dedicated(self):
        keel = self.lab.keel
        self.prove(self.addresses() == [] and self.mirror() == NOTHING, "before, in bridged mode, there is nothing",
                   (self.addresses(), self.mirror()))
        self.view.step("The settings change to SimplifiedV2 over a connection of IPTV's own (Dedicated)")
        keel.set(f"Weft.Intf.{IPTV}", IPTVAddress=f"{FIXED}/24")
        keel.set("Keel.Zephyrin", Mode="SimplifiedV2", Interface="Dedicated")
        wait_for(lambda: keel.get("Weft.Intf.dhcp_iptv", "DHCPStatus") == "Bound", 30)
        self.await_and_prove([self.lease()], self.addresses, f"{IPTV} has the address of the gateway's own lease alone")
        self.prove(self.lower() == "dhcp_iptv", "the DHCP client stays in the stack", self.lower())
        self.await_and_prove((self.lease(), True, "Bound"), self.mirror, "the mirror of the IPTV address shows it")
        self.prove(plays(self.member), f"a multicast stream reaches {self.stb.name}")
        stbs = sorted(device.name for device in self.lab.devices if device.pool == "zep_stb")
        self.await_and_prove((stbs, main_rules_of(DATA)), lambda: (sorted(self.admitted()), self.main_rules()),
                             f"the firewall lets the STBs out by {DATA}")

    def prove_internet(self):
        self.view.step("The settings change to IPTV over the Internet connection (Internet)")
        self.lab.keel.set("Keel.Zephyrin", Interface="Internet")
        self.await_and_prove(IPTV, self.lower, f"the DHCP client leaves the stack: iptv is over {IPTV} directly")
        self.await_and_prove([FIXED], self.addresses, f"{IPTV} has the fixed address alone")
        self.await_and_prove([], self.lab.wan_clients, "no DHCP client runs")
        self.await_and_prove(("0.0.0.0", True, "Bound"), self.mirror, "the mirror is bound and shows no address of its own")
        self.prove(plays(self.member), f"a multicast stream reaches {self.stb.name}")

    def prove_idle(self):
        self.lab.change_data_address("del")
        self.await_and_prove(NOTHING, self.mirror, f"the mirror is idle while {DATA} has no address")
        self.lab.change_data_address("add")
        self.await_and_prove(("0.0.0.0", True, "Bound"), self.mirror, "and bound again with one")

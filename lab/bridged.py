"""Bridged mode: the operator's VLANs are ports of the LAN bridge, and layer-2 rules keep them apart."""

from dataclasses import dataclass
from itertools import permutations

from multicast import Witnesses
from run import BRIDGE_CHAINS, Run

LOCAL_GROUP = "224.0.0.251"  # goes everywhere on a link, whoever has joined
BROADCAST = "255.255.255.255"
ANY_PORT, DHCP_PORTS = 9, (67, 68)
NO_DHCP, NO_IGMP, ONLY_IGMP, ISOLATION = BRIDGE_CHAINS


@dataclass
class Vlan:
    name: str  # of the namespace behind the port
    port: str  # of the bridge
    flags: str = ""


PLAIN = Vlan("vlan21", "eth1.21")
UNICAST = Vlan("vlan22", "eth1.22", "zep-dhcp-vlan zep-no-igmp")
MULTICAST = Vlan("vlan23", "eth1.23", "zep-dhcp-vlan zep-only-igmp")
VLANS = (PLAIN, UNICAST, MULTICAST)
ALL = {vlan.name for vlan in VLANS}
EACH_PAIR = set(permutations((vlan.port for vlan in VLANS), 2))
WITHOUT_UNICAST = {pair for pair in EACH_PAIR if UNICAST.port not in pair}


class Bridged(Run):
    def play(self):
        self.view.step("Building the network: a gateway with three VLANs on its LAN bridge, two STBs, an ITF device and a PC")
        lab = self.lab
        lab.build()
        for vlan in VLANS:
            lab.network.namespace(vlan.name)
            lab.network.link("gateway", vlan.port, vlan.name, "eth0")
            lab.network.run("gateway", "ip", "link", "set", vlan.port, "master", "br-lan")
        self.stb, self.pc = lab.devices[0], lab.devices[-1]
        self.witnesses = Witnesses(lab.network, (*ALL, self.pc.name))
        self.view.step("Starting the gateway in bridged mode; the VLANs are below iptv in its data model")
        lab.start_gateway()
        for vlan in VLANS:
            lab.keel.add("Weft.Intf", vlan.port, Flags=f"netdev vlan {vlan.flags}".strip())
        lab.keel.set("Weft.Intf.iptv", LowerLayers=" ".join(("dhcp_iptv", *(vlan.port for vlan in VLANS))))
        self.prove_apart()
        self.prove_dhcp()
        self.prove_multicast_ports()
        self.prove_following()
        self.witnesses.close()

    # ------------------------------------------------------------------------------------ what is looked at

    def ports(self, table_and_chain):
        """The VLAN ports that the rules of a chain keep something from."""
        rules = " ".join(self.lab.bridge_rules(*table_and_chain) or ()).split()
        return {vlan.port for vlan in VLANS if vlan.port in rules}

    def kept_apart(self):
        """The pairs of VLAN ports between which no frame is to pass, by the rules of FORWARD_Isolation."""
        rules = [rule.split() for rule in self.lab.bridge_rules(*ISOLATION) or ()]
        ports = {vlan.port for vlan in VLANS}
        return {pair for pair in ((words[words.index("-i") + 1], words[words.index("-o") + 1]) for words in rules)
                if ports.issuperset(pair)}

    def from_stb(self, address, port):
        """The VLANs that a datagram of the STB reaches; it reaches the PC in any case."""
        reached = self.witnesses.reached(self.stb.name, address, port, self.pc.name)
        return reached and reached & ALL

    def across(self, source):
        """The VLANs that a broadcast or a multicast datagram of this one reaches; both reach the PC in any case."""
        reached = [self.witnesses.reached(source.name, address, ANY_PORT, self.pc.name)
                   for address in (BROADCAST, LOCAL_GROUP)]
        return None if None in reached else (reached[0] | reached[1]) & ALL

    # --------------------------------------------------------------------------------------------- proofs

    def prove_apart(self):
        self.view.step("Proving it with frames")
        self.await_and_prove(EACH_PAIR, self.kept_apart,
                             "FORWARD_Isolation keeps the three VLANs apart, each from each")
        for source in VLANS:
            reached = self.across(source)
            self.prove(reached == set(), f"frames from {source.port} reach the LAN, and none of the other VLANs", reached)

    def prove_dhcp(self):
        self.await_and_prove({PLAIN.port}, lambda: self.ports(NO_DHCP),
                             "POSTROUTING_No_DHCP names the VLAN that is not for DHCP alone")
        for port in DHCP_PORTS:
            reached = self.from_stb(BROADCAST, port)
            self.prove(reached == {UNICAST.name},
                       f"DHCP (UDP {port}) of {self.stb.name} leaves by {UNICAST.port}, which is for it, and not by "
                       f"{PLAIN.port}", reached)

    def prove_multicast_ports(self):
        self.await_and_prove([{UNICAST.port}, {MULTICAST.port}], lambda: [self.ports(NO_IGMP), self.ports(ONLY_IGMP)],
                             "POSTROUTING_No_IGMP and POSTROUTING_Only_IGMP name the VLAN so flagged each")
        reached = self.from_stb(LOCAL_GROUP, ANY_PORT)
        self.prove(reached == {PLAIN.name, MULTICAST.name},
                   f"multicast of {self.stb.name} does not leave by {UNICAST.port}, flagged zep-no-igmp", reached)
        reached = self.from_stb(BROADCAST, ANY_PORT)
        self.prove(reached == {PLAIN.name, UNICAST.name},
                   f"nothing but multicast leaves by {MULTICAST.port}, flagged zep-only-igmp", reached)

    def prove_following(self):
        self.view.step("Devices go down, come up and change their flags")
        lab, port = self.lab, UNICAST.port
        lab.set_link(port, "down")
        self.await_and_prove(WITHOUT_UNICAST, self.kept_apart,
                             f"FORWARD_Isolation lets go of {port} when it goes down")
        lab.set_link(port, "up")
        self.await_and_prove(EACH_PAIR, self.kept_apart,
                             "and takes it in when it is up again")
        self.await_and_prove(set(), lambda: self.across(PLAIN), "no frame crosses then, either")

        lab.keel.change_flags(port, add=["zep-lan-iptv"])
        self.await_and_prove(WITHOUT_UNICAST, self.kept_apart,
                             f"FORWARD_Isolation lets go of {port} when it is flagged as one of the LAN's")
        self.await_and_prove({UNICAST.name}, lambda: self.across(PLAIN), f"and frames from {PLAIN.port} reach it")
        lab.keel.change_flags(port, remove=["zep-lan-iptv", "zep-no-igmp"])
        self.await_and_prove(set(), lambda: self.ports(NO_IGMP), f"POSTROUTING_No_IGMP lets go of {port} with its flag")
        self.await_and_prove(ALL, lambda: self.from_stb(LOCAL_GROUP, ANY_PORT), "and multicast leaves by it")
        self.await_and_prove(set(), lambda: self.across(PLAIN), "while the VLANs are apart again")
        lab.keel.change_flags(port, remove=["zep-dhcp-vlan"])
        self.await_and_prove({PLAIN.port, port}, lambda: self.ports(NO_DHCP),
                             f"POSTROUTING_No_DHCP takes in {port} when it is not for DHCP any more")
        self.await_and_prove(set(), lambda: self.from_stb(BROADCAST, DHCP_PORTS[0]), "and DHCP leaves by no VLAN")

"""Simplified mode: STBs share the gateway's own leases; the firewall lets each of them out to the Internet side."""

from lab import DATA, INTERNET_ADDRESS, INTERNET_PORT, LAN_ADDRESS
from network import wait_for
from run import Run

OTHER_DATA = "eth1.11"
GATEWAY_PORT = 7001  # any
COLUMNS = (("device", 7), ("LAN address", 15), ("tags", 10), ("Internet side", 13))
SEEN_AS, SEEN_AS_OTHER = "100.64.0.2", "100.64.1.2"  # the gateway on either device


class Simplified(Run):
    def play(self):
        self.bring_up()
        self.prove_stbs()
        self.prove_traffic()
        self.prove_data_interface()
        self.prove_multicast()

    def bring_up(self):
        self.view.step("Building the network: an operator, the Internet, a gateway, two STBs, an ITF device and a PC")
        lab = self.lab
        lab.build()
        lab.start_operator()
        lab.start_multicast_router()
        self.stb, self.pc = lab.devices[0], lab.devices[-1]
        self.view.step("Starting the gateway and the LAN devices")
        lab.start_gateway()
        lab.start_devices()
        wait_for(lambda: all(lab.address(device) for device in lab.devices), 30, self.tick)
        for device in lab.devices:  # a device that has never sent anything to the gateway has no address for it
            lab.connect(device.name, "gateway", LAN_ADDRESS, GATEWAY_PORT)
        if not wait_for(self.all_known, 5):
            raise RuntimeError("the gateway does not know the LAN devices' addresses")

    def tick(self):
        admitted = self.admitted()
        self.view.show({device.name: (self.lab.address(device) or "-",
                                      self.lab.keel.get(f"Hosts.Host.{self.lab.mac(device)}", "Tags") or "-",
                                      "let out" if device.name in admitted else "-") for device in self.lab.devices},
                       COLUMNS)

    def look_around(self):
        return (*super().look_around(), ("iptables -S FORWARD_ZEP_Services", "who is let out"),
                (f"on stb1 ping -c 3 {INTERNET_ADDRESS}", "the Internet side, from an STB"))

    # ------------------------------------------------------------------------------------ what is looked at

    def all_known(self):
        """Whether the gateway knows the address that each LAN device has."""
        return all(self.lab.keel.get(f"Hosts.Host.{self.lab.mac(device)}", "IPAddress") == self.lab.address(device)
                   for device in self.lab.devices)

    def admitted(self):
        """The names of the devices that have a rule, in the order of their rules."""
        devices = {f"-s {self.lab.address(device)}/32 -j ACCEPT": device.name for device in self.lab.devices}
        return [devices.get(rule, rule) for rule in self.lab.rules("filter", "FORWARD_ZEP_Services")]

    def waited(self):
        """How many STBs have waited for the script up to now."""
        return self.lab.network.log("gateway.log").count("set rules in handler for")

    def main_rules(self):
        return self.lab.rules("filter", "FORWARD_ZEP"), self.lab.rules("nat", "POSTROUTING_ZEP")

    def reaches_internet(self, device):
        """The address with which the device's packets reach the Internet side, or None."""
        return self.lab.connect(device.name, "internet", INTERNET_ADDRESS, INTERNET_PORT, 1)

    # --------------------------------------------------------------------------------------------- proofs

    def prove_stbs(self):
        self.view.step("STBs come and go")
        lab, names = self.lab, [device.name for device in self.iptv_devices]
        stbs = [device for device in self.iptv_devices if device.pool == "zep_stb"]
        tags = [lab.keel.get(f"Hosts.Host.{lab.mac(device)}", "Tags") for device in stbs]
        self.prove(tags == ["lan stb"] * len(stbs), "who got its lease from the STBs' pool is tagged as one", tags)
        self.await_and_prove(sorted(stb.name for stb in stbs), lambda: sorted(self.admitted()), "and gets a rule")
        for stb in stbs:
            lab.keel.set(f"Hosts.Host.{lab.mac(stb)}", Tags="lan")
        self.await_and_prove([], self.admitted, "a tag that is taken away by hand takes the rule along")
        lab.keel.set("Keel.Zephyrin", Enable="false")
        lab.tag_stb(*self.iptv_devices)
        self.prove(self.admitted() == [], "no STB is let out while the service is off", self.admitted())
        before = self.waited()
        lab.keel.set("Keel.Zephyrin", Enable="true")
        self.await_and_prove(sorted(names), lambda: sorted(self.admitted()), "three STBs at once get a rule each")
        waited = self.waited() - before
        self.prove(waited == len(names) - 1, "one after another: two waited until the script was free", waited)
        lab.set_link(self.stb.port, "down")
        self.await_and_prove(sorted(names[1:]), lambda: sorted(self.admitted()),
                             f"{self.stb.name} loses its rule when its port goes down")
        lab.set_link(self.stb.port, "up")
        self.await_and_prove([self.stb.name], lambda: self.admitted()[2:], "and gets it again when it is back")

    def prove_traffic(self):
        self.view.step("Traffic to the Internet side")
        lab, stb = self.lab, self.stb
        self.await_and_prove(SEEN_AS, lambda: self.reaches_internet(stb),
                             f"{stb.name} reaches {INTERNET_ADDRESS}, where it is seen as {SEEN_AS}")
        seen = self.reaches_internet(self.pc)
        self.prove(seen is None, f"{self.pc.name} does not", seen)
        path = f"Hosts.Host.{lab.mac(stb)}"
        lab.keel.set(path, Tags="lan")
        self.await_and_prove(False, lambda: stb.name in self.admitted(), f"{stb.name} is no STB any more: its rule goes")
        seen = self.reaches_internet(stb)
        self.prove(seen is None, "and it does not reach the Internet side", seen)
        lab.tag_stb(stb)
        self.await_and_prove(SEEN_AS, lambda: self.reaches_internet(stb), "it is one again, and reaches it")

    def prove_data_interface(self):
        self.view.step(f"The data interface moves from {DATA} to {OTHER_DATA}")
        lab, stb = self.lab, self.stb
        self.prove(self.main_rules() == main_rules_of(DATA), f"the main rules are those of {DATA}", self.main_rules())
        lab.join_internet("eth1", OTHER_DATA, "100.64.1")
        lab.keel.add("Weft.Intf", OTHER_DATA, Flags="netdev vlan")
        lab.keel.set("Weft.Intf.data", LowerLayers=f"{DATA} {OTHER_DATA}")
        self.await_and_prove(True, self.other_is_ready, f"{OTHER_DATA} has an address and is below data, too")
        self.prove(self.main_rules() == main_rules_of(DATA), f"which stays on {DATA}", self.main_rules())
        lab.keel.set("Weft.Intf.data", LowerLayers=OTHER_DATA)
        self.await_and_prove(main_rules_of(OTHER_DATA), self.main_rules,
                             f"{DATA} is no more below data: its main rules go, those of {OTHER_DATA} come")
        seen = self.reaches_internet(stb)
        self.prove(seen is None, f"{stb.name} does not get out by {DATA}, although its own rule stands", seen)
        lab.route_to_internet(OTHER_DATA, "100.64.1")
        seen = self.reaches_internet(stb)
        self.prove(seen == SEEN_AS_OTHER, f"but by {OTHER_DATA}, where it is seen as {SEEN_AS_OTHER}", seen)

        lab.keel.set("Weft.Intf.data", LowerLayers=f"{OTHER_DATA} {DATA}")
        lab.set_link(OTHER_DATA, "down")
        self.await_and_prove(main_rules_of(DATA), self.main_rules, f"{OTHER_DATA} goes down: the main rules move back")
        lab.route_to_internet(DATA, "100.64.0")
        seen = self.reaches_internet(stb)
        self.prove(seen == SEEN_AS, f"and {stb.name} gets out by {DATA} again", seen)

    def other_is_ready(self):
        return {"up", "ipv4"} <= set((self.lab.keel.get(f"Weft.Intf.{OTHER_DATA}", "Flags") or "").split())


def main_rules_of(device):
    """Of the filter and of the nat table."""
    return [f"-o {device} -j FORWARD_ZEP_Services"], [f"-o {device} -j MASQUERADE"]

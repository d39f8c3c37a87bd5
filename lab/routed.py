"""Routed mode: each STB has a WAN lease of its own, and its LAN lease waits for that."""

import os

from keel import stored_identities
from lab import DEVICE_PORT, IPTV, SERVER_ADDRESS, SERVER_PORT
from network import wait_for
from run import Run
from tap import ACK, OFFER

HOLD_SECONDS = 6  # how long the operator stays away, to show that no STB is answered meanwhile
DEFAULT_RULES = ["-A PREROUTING_zep_ACCEPT -d 224.0.0.0/4 -j ACCEPT",
                 "-A PREROUTING_zep_ACCEPT -d 255.255.255.255/32 -j ACCEPT"]
NTP_OPTION, WWW_OPTION, LEASE_TIME_OPTION = 42, 72, 51
NTP_SENT, WWW_SENT = bytes([10, 20, 0, 2]), bytes([10, 20, 0, 3])


class Routed(Run):
    def __init__(self, lab, view):
        super().__init__(lab, view)
        self.wan = {}  # device name -> the WAN address it is mapped to

    def tick(self):
        self.view.show(self.lab.keel.device_rows(self.lab))

    def look_around(self):
        return (*super().look_around(), ("iptables -t nat -S", "the mappings, among the rules"),
                (f"ip route show dev {IPTV}", "the routes of the operator's option 121"),
                (f"on stb1 ping -c 3 {SERVER_ADDRESS}", "the operator's server, through the mapping"))

    def play(self):
        self.bring_up()
        self.hold()
        self.serve()
        self.prove_service()
        self.prove_multicast()
        self.await_service()

    # -------------------------------------------------------------------------------------------- phases

    def bring_up(self):
        self.view.step("Building the network: an operator, a gateway, two STBs, an ITF device and a PC")
        self.lab.build()
        self.lab.start_multicast_router()
        self.view.step("Starting the gateway; the operator's DHCP server stays away for now")
        self.lab.start_gateway()
        self.view.step("Switching the LAN devices on")
        self.lab.start_devices()

    def hold(self):
        pc = self.lab.devices[-1]
        wait_for(lambda: self.lab.taps[pc.name].last(ACK), 20, self.tick)
        wait_for(lambda: False, HOLD_SECONDS, self.tick)
        for device in self.iptv_devices:
            held = self.lab.keel.hold(self.lab.mac(device))
            offers = len([m for m in self.lab.taps[device.name].poll() if m.kind in (OFFER, ACK)])
            self.prove(held is True and offers == 0,
                       f"{device.name} asked, is held, and got no LAN offer while it has no WAN lease",
                       f"on hold: {held}, {offers} offers")

    def serve(self):
        self.view.step("The operator's DHCP server comes up")
        self.lab.start_operator()
        wait_for(lambda: all(self.lab.taps[d.name].last(ACK) and self.mapping(d) and self.lab.address(d)
                             for d in self.iptv_devices) and len(self.iptv_routes()) >= 2, 60, self.tick)
        self.tick()
        self.wan = {device.name: self.mapping(device) for device in self.iptv_devices}

    def mapping(self, device):
        message = self.lab.taps[device.name].last(ACK)
        return self.lab.mapped(message.address) if message else None

    def iptv_routes(self):
        lines = self.lab.network.run("gateway", "ip", "route", "show", "dev", IPTV).splitlines()
        return [line for line in lines if " via " in line]

    # -------------------------------------------------------------------------------------------- proofs

    def prove_service(self):
        self.view.step("Proving it with packets")
        lease_time = self.lab.keel.lease_time()
        for device in self.iptv_devices:
            self.prove_order(device)
            self.prove_options(device, lease_time)
        addresses = [self.wan[device.name] for device in self.iptv_devices]
        self.prove(None not in addresses and len(set(addresses)) == len(addresses),
                   "each STB and the ITF device has a WAN address of its own", addresses)
        for device in self.iptv_devices:
            wan = self.wan[device.name]
            seen = self.lab.connect(device.name, "server", SERVER_ADDRESS, SERVER_PORT)
            self.prove(wan and seen == wan, f"{device.name} reaches {SERVER_ADDRESS} and is seen there as {wan}", seen)
            reached = wan and self.lab.connect("server", device.name, wan, DEVICE_PORT)
            self.prove(reached == SERVER_ADDRESS, f"a connection from the operator to {wan} arrives at {device.name}",
                       reached)
        self.prove_routes()
        self.prove_pc(self.lab.devices[-1])

    def prove_order(self, device):
        offer = self.lab.taps[device.name].messages and min(
            (m.when for m in self.lab.taps[device.name].messages if m.kind == OFFER), default=None)
        bound = self.lab.keel.bound_at(self.lab.mac(device))
        self.prove(offer and bound and offer > bound,
                   f"{device.name}: the first LAN offer came after the WAN lease was bound",
                   f"bound at {bound}, offer at {offer}")

    def prove_options(self, device, lease_time):
        ack = self.lab.taps[device.name].last(ACK)
        options = ack.options if ack else {}
        found = {number: options.get(number, b"").hex() for number in (NTP_OPTION, WWW_OPTION, LEASE_TIME_OPTION)}
        self.prove(options.get(NTP_OPTION) == NTP_SENT and options.get(WWW_OPTION) == WWW_SENT and
                   options.get(LEASE_TIME_OPTION) == lease_time.to_bytes(4, "big"),
                   f"{device.name}: the LAN lease carries options 42 and 72 as the operator sent them and {lease_time} s",
                   found)

    def prove_routes(self):
        routes = self.iptv_routes()
        for destination in ("10.60.0.0/24", "10.61.0.0/16"):
            self.prove(any(r.startswith(f"{destination} via 10.20.0.1 ") for r in routes),
                       f"the route {destination} is in the kernel on {IPTV}", routes)
        device = self.iptv_devices[0]
        used = self.lab.network.run("gateway", "ip", "route", "get", SERVER_ADDRESS, "from", self.lab.address(device) or
                                    "0.0.0.0", "iif", "br-lan", check=False)
        self.prove(f"via 10.20.0.1 dev {IPTV}" in used, f"packets of {device.name} to {SERVER_ADDRESS} take it",
                   used.strip())

    def prove_pc(self, pc):
        address = self.lab.address(pc)
        rules = [r for table in ("nat", "filter", "raw") for r in self.lab.rules(table) if address and f"{address}/" in r]
        self.prove(address and address.startswith("192.168.1.1") and not rules,
                   f"{pc.name} got the ordinary lease {address} and no mapping", rules)

    def await_service(self):
        self.await_and_prove(self.wan, lambda: {d.name: self.lab.served_as(d) for d in self.iptv_devices},
                             f"and every STB is served again with {IPTV}, each as before", 60)

    def prove_cleanup(self):
        super().prove_cleanup()
        raw, nat, forward = self.lab.rules("raw"), self.lab.rules("nat"), self.lab.rules("filter")
        in_chains = [rule for rule in (*raw, *nat, *forward)
                     if rule.split()[1] in ("PREROUTING_zep_ACCEPT", "POSTROUTING_zep", "PREROUTING_zep", "FORWARD_zep")
                     and rule.startswith("-A")]
        self.prove(in_chains == DEFAULT_RULES, "the plug-in's chains hold the two default rules alone", in_chains)
        jumps = [rule for rule in (*raw, *nat) if IPTV in rule.split()]
        self.prove(not jumps, f"no jump to them on {IPTV} is left", jumps)
        routes = self.iptv_routes()
        self.prove(not routes, f"no route is left on {IPTV}", routes)
        stored = stored_identities(os.path.join(self.lab.folder, "keel.db"))
        self.prove(not stored, "no identity is left in the store", stored)

    def summary_lines(self):
        return [f"{device.name}: LAN {self.lab.address(device)} <-> WAN {self.wan[device.name]}"
                for device in self.iptv_devices]

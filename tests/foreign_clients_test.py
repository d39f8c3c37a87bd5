"""The LAN DHCP server with clients of several makers as STBs, and with another maker's server as the operator.

Runs inside namespaces of its own: script/in-namespaces python3 tests/foreign_clients_test.py PROGRAMS
"""

import json
import os
import signal
import socket
import subprocess
import sys
import threading
import unittest

from on_lab import build_lab  # first: it finds the lab
from lab import HERE, Device
from network import wait_for
from tap import ACK, OFFER, Frames

NTP, WWW = socket.inet_aton("10.20.0.2"), socket.inet_aton("10.20.0.3")
LEASE_TIME = 16  # s
STB_LEASES = "DHCPv4.Server.Pool.zep_stb.Rule.1.Lease"

DHCLIENT_CONF = """send vendor-class-identifier "zep-stb-dhclient";
request subnet-mask, routers, ntp-servers, www-server;
initial-interval 1;
backoff-cutoff 2;
retry 2;
timeout 10;
"""
DHCLIENT_SCRIPT = """#!/bin/sh
case "$reason" in
BOUND | RENEW | REBIND | REBOOT)
    case "$(ip -4 -o addr show dev "$interface")" in
    *" $new_ip_address/24 "*) ;;
    *)
        ip -4 addr flush dev "$interface"
        ip addr add "$new_ip_address/24" dev "$interface"
        ;;
    esac
    ;;
EXPIRE | FAIL | RELEASE | STOP)
    ip -4 addr flush dev "$interface"
    ;;
esac
"""
DHCPCD_CONF = """vendorclassid zep-stb-dhcpcd
option ntp_servers
option 72
clientid
nohook resolv.conf, hostname, timesyncd, ntp.conf, wpa_supplicant
noipv6
noipv4ll
"""


class Maker:
    """A DHCP client program on one LAN device."""

    def __init__(self, lab, device):
        self.lab = lab
        self.device = device
        self.process = None

    def file(self, name, text):
        path = os.path.join(self.lab.folder, name)
        with open(path, "w", encoding="ascii") as file:
            file.write(text)
        os.chmod(path, 0o755)
        return path

    def start(self):
        self.process = self.lab.network.spawn(self.device.name, *self.command(), log=f"{self.device.name}.log")

    def stop(self):
        """Without a word to the server."""
        if self.process:
            self.lab.network.stop(self.process, signal.SIGKILL)
        self.process = None
        self.lab.network.run(self.device.name, "ip", "-4", "addr", "flush", "dev", "eth0")


class Udhcpc(Maker):
    arguments = ()

    def command(self):
        return ("udhcpc", "-f", "-R", "-i", "eth0", "-s", f"{HERE}/device-dhcp.sh", "-V", "zep-stb-udhcpc", "-O", "42",
                "-O", "72", "-t", "3", "-T", "2", "-A", "1", *self.arguments)

    def release(self):
        self.lab.network.stop(self.process)
        self.process = None


class UdhcpcThatLooks(Udhcpc):
    """It asks by ARP whether somebody uses its address."""

    arguments = ("-a",)


class Dhclient(Maker):
    def command(self):
        return ("dhclient", "-4", "-d", *self.words(), "eth0")

    def words(self):
        return ("-cf", self.file("dhclient.conf", DHCLIENT_CONF), "-sf", self.file("dhclient-script", DHCLIENT_SCRIPT),
                "-lf", f"{self.lab.folder}/dhclient.leases", "-pf", f"{self.lab.folder}/dhclient.pid")

    def release(self):
        self.lab.network.run(self.device.name, "dhclient", "-4", "-r", *self.words(), "eth0", check=False)
        self.stop()


class Dhcpcd(Maker):
    def command(self):
        return ("dhcpcd", "-B", "-4", "-f", self.file("dhcpcd.conf", DHCPCD_CONF), "eth0")

    def release(self):
        self.lab.network.run(self.device.name, "dhcpcd", "-4", "-k", "eth0", check=False)
        self.stop()


MAKERS = {"udhcpc": Udhcpc, "udhcpc_a": UdhcpcThatLooks, "dhclient": Dhclient, "dhcpcd": Dhcpcd}


def refuses_port(frame):
    """Whether it is an ICMP message that a port is unreachable."""
    return frame[12:14] == b"\x08\x00" and frame[23] == socket.IPPROTO_ICMP and frame[34:36] == b"\x03\x03"


class Sleeper:
    """A device that has the first address that anybody but the gateway asks for by ARP, and says so; the gateway's own
    question it sleeps through."""

    def __init__(self, network, namespace, gateway):
        self.address = None
        self._gateway = bytes.fromhex(gateway.replace(":", ""))
        self._socket = network.socket(namespace, socket.AF_PACKET, socket.SOCK_RAW, socket.htons(0x0806))
        self._socket.bind(("eth0", 0x0806))
        self._mac = self._socket.getsockname()[4]
        self._socket.settimeout(0.2)
        self._ended = threading.Event()
        self._thread = threading.Thread(target=self._answer)

    def _answer(self):
        while not self._ended.is_set():
            try:
                frame = self._socket.recv(128)
            except TimeoutError:
                continue
            asking, wanted = frame[22:28], frame[38:42]
            if frame[20:22] != b"\x00\x01" or asking in (self._gateway, self._mac):
                continue
            if self.address is None:
                self.address = socket.inet_ntoa(wanted)
            if socket.inet_ntoa(wanted) == self.address:
                self._socket.send(asking + self._mac + frame[12:20] + b"\x00\x02" + self._mac + wanted + frame[22:32])

    def __enter__(self):
        self._thread.start()
        return self

    def __exit__(self, *_):
        self._ended.set()
        self._thread.join()
        self._socket.close()


class ForeignClientsTest(unittest.TestCase):
    def setUp(self):
        devices = [Device(name, "", f"lan{number}", "zep_stb") for number, name in enumerate(MAKERS, 1)]
        self.lab = build_lab(self.addCleanup, devices)
        self.folder = self.lab.folder
        self.lab.network.namespace("squatter")
        self.lab.network.link("gateway", "lan9", "squatter", "eth0")
        self.lab.network.run("gateway", "ip", "link", "set", "lan9", "master", "br-lan")
        self.makers = {device.name: MAKERS[device.name](self.lab, device) for device in devices}

    def tearDown(self):
        if sys.exc_info()[0]:
            print(self.lab.network.log("gateway.log")[-3000:])

    @classmethod
    def setUpClass(cls):
        # what a client keeps in a place of its own is not the machine's
        for place in ("/var/lib/dhcpcd", "/var/lib/dhcp"):
            subprocess.run(("mount", "-t", "tmpfs", "tmpfs", place), check=True)

    def start_other_operator(self):
        path = os.path.join(self.folder, "kea.conf")
        with open(path, "w", encoding="ascii") as file:
            json.dump({"Dhcp4": {
                "interfaces-config": {"interfaces": ["wan0"]},
                "lease-database": {"type": "memfile", "name": f"{self.folder}/kea.leases"},
                "valid-lifetime": 3600, "authoritative": True,
                "subnet4": [{"id": 1, "subnet": "10.20.0.0/24", "pools": [{"pool": "10.20.0.50 - 10.20.0.99"}],
                             "option-data": [
                                 {"name": "ntp-servers", "data": "10.20.0.2", "always-send": True},
                                 {"name": "www-server", "data": "10.20.0.3", "always-send": True},
                                 {"code": 121, "space": "dhcp4", "csv-format": False, "always-send": True,
                                  "data": "180A3C000A140001"}]}]}}, file)
        self.lab.network.spawn("operator", "kea-dhcp4", "-c", path, log="kea.log",
                               env={"KEA_PIDFILE_DIR": self.folder, "KEA_LOCKFILE_DIR": self.folder})

    def soon(self, condition, what, seconds=25):
        self.assertTrue(wait_for(condition, seconds), what)

    def tap(self, name):
        return self.lab.taps[name]

    def address(self, name):
        return self.lab.address(self.makers[name].device)

    def lease_of(self, name):
        """The instance of the device's lease in the STBs' pool, or None."""
        mac = self.lab.mac(self.makers[name].device)
        for instance in self.lab.keel.instances(STB_LEASES):
            if self.lab.keel.get(f"{STB_LEASES}.{instance}", "MACAddress") == mac:
                return instance
        return None

    def served(self, name):
        """Whether it has what the operator sent for it."""
        ack = self.tap(name).last(ACK)
        return (self.address(name) and ack and ack.options.get(42) == NTP and ack.options.get(72) == WWW and
                self.lab.mapped(self.address(name)) is not None)

    def test_each_maker_is_served_renews_and_releases(self):
        lab = self.lab
        self.start_other_operator()
        lab.start_gateway()
        lab.keel.set("Keel.Zephyrin.DHCPConfig", LeaseTime=LEASE_TIME)
        for maker in self.makers.values():
            maker.start()
        for name in MAKERS:
            self.soon(lambda: self.served(name), f"{name} was not served")
        self.assertEqual(len({self.address(name) for name in MAKERS}), len(MAKERS))
        self.assertIn("10.60.0.0/24 via 10.20.0.1", lab.network.run("gateway", "ip", "route"))

        frames = {name: Frames(lab.network, name) for name in MAKERS}
        before = {name: len([m for m in self.tap(name).poll() if m.kind == ACK]) for name in MAKERS}
        refused = {name: 0 for name in MAKERS}

        def renewed():
            for name in MAKERS:
                refused[name] += sum(map(refuses_port, frames[name].take()))
            return all(len([m for m in self.tap(name).poll() if m.kind == ACK]) > before[name] for name in MAKERS)
        self.soon(renewed, "not all have renewed their leases", 2 * LEASE_TIME)
        self.assertEqual(refused, {name: 0 for name in MAKERS}, "a renewal was refused by the kernel")
        for name in MAKERS:  # a client takes its address away, and puts it back
            self.soon(lambda: self.served(name), f"{name} after its renewal", 5)

        # killed: what the next ACK holds comes from the store
        lab.stop_gateway(signal.SIGKILL)
        lab.start_gateway()
        before = {name: len([m for m in self.tap(name).poll() if m.kind == ACK]) for name in MAKERS}
        self.soon(renewed, "not all have renewed after the restart", 2 * LEASE_TIME)
        for name in MAKERS:
            ack = self.tap(name).last(ACK)
            self.assertEqual((ack.options.get(42), ack.options.get(72)), (NTP, WWW), name)

        for name, maker in self.makers.items():
            self.assertIsNotNone(self.lease_of(name), name)
            maker.release()
            self.soon(lambda: self.lease_of(name) is None, f"the lease of {name} is still there", 5)
        for one in frames.values():
            one.close()

    def test_an_address_that_somebody_has_is_declined_once(self):
        lab = self.lab
        lab.start_operator()
        lab.start_gateway()
        with Sleeper(lab.network, "squatter", lab.link_address("gateway", "br-lan")) as sleeper:
            for name in ("udhcpc_a", "dhcpcd"):
                sleeper.address = None
                self.makers[name].start()
                self.soon(lambda: self.served(name) and self.address(name) != sleeper.address,
                          f"{name} was not served with another address", 40)
                self.assertIsNotNone(sleeper.address, f"{name} did not look")
                self.assertIn(f"{sleeper.address} is in use by another device", lab.network.log("gateway.log"))
                offers = [m.address for m in self.tap(name).poll() if m.kind == OFFER]
                self.assertLessEqual(offers.count(sleeper.address), 2, "it is set aside")

    def test_an_address_that_answers_is_offered_to_nobody(self):
        lab = self.lab
        lab.start_operator()
        lab.start_gateway()
        for taken in ("192.168.1.20", "192.168.1.21"):
            lab.network.run("squatter", "ip", "addr", "add", f"{taken}/24", "dev", "eth0")
        self.makers["udhcpc"].start()
        self.soon(lambda: self.served("udhcpc"), "it was not served")
        self.assertEqual({m.address for m in self.tap("udhcpc").messages}, {"192.168.1.22"})


if __name__ == "__main__":
    unittest.main(verbosity=2)

"""The lab: an operator, a gateway and four LAN devices on one machine, each in a network namespace of its own.

    server ---- operator ==== gateway ==+== stb1
    10.60.0.10   10.20.0.1    eth1.20   +== stb2
                              br-lan    +== itf
                                        +== pc
"""

import os
import signal
import socket
from dataclasses import dataclass

from keel import Keel
from network import Network, wait_for
from tap import Tap

HERE = os.path.dirname(os.path.abspath(__file__))
SERVER_ADDRESS = "10.60.0.10"
SERVER_PORT = 8080
DEVICE_PORT = 7000
IPTV = "eth1.20"
LAN_ADDRESS = "192.168.1.1"


@dataclass
class Device:
    name: str
    vendor_class: str
    port: str  # of the gateway's LAN bridge
    pool: str  # of the LAN DHCP server

    @property
    def is_iptv(self):
        return self.pool != "lan"


DEVICES = (
    Device("stb1", "zep-stb", "lan1", "zep_stb"),
    Device("stb2", "zep-stb", "lan2", "zep_stb"),
    Device("itf", "zep-itf", "lan3", "zep_itf"),
    Device("pc", "pc", "lan4", "lan"),
)


class Lab:
    """Brings the network up and runs its parts; each can be stopped and started again by itself."""

    def __init__(self, programs, share, folder, devices=DEVICES):
        self.programs = programs  # folder of keelhost, keelctl, zephyrin.so
        self.share = share
        self.devices = devices
        self.network = Network(folder)
        self.folder = folder
        self.socket = os.path.join(folder, "keel.sock")
        self.keel = Keel(os.path.join(programs, "keelctl"), self.socket)
        self.taps = {}
        self.clients = {}
        self.dhcp_server = None
        self.gateway = None
        self._listeners = {}

    # ------------------------------------------------------------------------------------------- network

    def build(self):
        net = self.network
        for name in ("server", "operator", "gateway", *(device.name for device in self.devices)):
            net.namespace(name)

        net.link("server", "eth0", "operator", "iptv0")
        net.run("server", "ip", "addr", "add", f"{SERVER_ADDRESS}/24", "dev", "eth0")
        net.run("server", "ip", "route", "add", "default", "via", "10.60.0.1")
        net.run("operator", "ip", "addr", "add", "10.60.0.1/24", "dev", "iptv0")

        net.link("operator", "wan0", "gateway", IPTV)
        net.run("operator", "ip", "addr", "add", "10.20.0.1/24", "dev", "wan0")

        net.run("gateway", "ip", "link", "add", "br-lan", "type", "bridge")
        net.run("gateway", "ip", "addr", "add", f"{LAN_ADDRESS}/24", "dev", "br-lan")
        net.run("gateway", "ip", "link", "set", "br-lan", "up")
        for device in self.devices:
            net.link("gateway", device.port, device.name, "eth0")
            net.run("gateway", "ip", "link", "set", device.port, "master", "br-lan")
            self.taps[device.name] = Tap(net, device.name, "eth0")

        for router in ("operator", "gateway"):
            net.run(router, "sh", "-c", "echo 1 > /proc/sys/net/ipv4/ip_forward")
            net.run(router, "sh", "-c", "for f in /proc/sys/net/ipv4/conf/*/rp_filter; do echo 0 > $f; done")

    # ------------------------------------------------------------------------------------------ operator

    def start_operator(self, lease_seconds=3600):
        self.dhcp_server = self.network.spawn(
            "operator", "dnsmasq", "--no-daemon", f"--conf-file={HERE}/operator-dhcp.conf",
            f"--dhcp-range=10.20.0.50,10.20.0.99,255.255.255.0,{lease_seconds}",
            f"--dhcp-leasefile={self.folder}/operator.leases", "--pid-file=", log="operator.log")

    def stop_operator(self):
        self.network.stop(self.dhcp_server)
        self.dhcp_server = None

    # ------------------------------------------------------------------------------------------- gateway

    def start_gateway(self):
        self.gateway = self.network.spawn(
            "gateway", os.path.join(self.programs, "keelhost"),
            "--share", self.share,
            "--store", os.path.join(self.folder, "keel.db"),
            "--socket", self.socket,
            "--plugin", os.path.join(self.programs, "zephyrin.so"), log="gateway.log")
        if not wait_for(lambda: self.keel.answers() or self.gateway.poll() is not None, 15) or \
                self.gateway.poll() is not None:
            raise RuntimeError("keelhost did not start; its last words:\n" + self.network.log("gateway.log")[-2000:])
        self.keel.watch_wan_clients()

    def stop_gateway(self, how=signal.SIGTERM):
        status = self.network.stop(self.gateway, how)
        self.gateway = None
        return status

    # ------------------------------------------------------------------------------------------- devices

    def start_device(self, device):
        self.clients[device.name] = self.network.spawn(
            device.name, "udhcpc", "-f", "-i", "eth0", "-s", f"{HERE}/device-dhcp.sh", "-V", device.vendor_class,
            "-O", "42", "-O", "72", "-t", "3", "-T", "2", "-A", "1", log=f"{device.name}.log")

    def start_devices(self):
        for device in self.devices:
            self.start_device(device)

    def stop_device(self, device):
        self.network.stop(self.clients.pop(device.name))

    def mac(self, device):
        """The device's MAC address, upper case."""
        words = self.network.run(device.name, "ip", "-o", "link", "show", "dev", "eth0").split()
        return words[words.index("link/ether") + 1].upper()

    def address(self, device):
        """The address that the device itself has, or None."""
        words = self.network.run(device.name, "ip", "-4", "-o", "addr", "show", "dev", "eth0").split()
        return words[words.index("inet") + 1].split("/")[0] if "inet" in words else None

    # ------------------------------------------------------------------------------------------- traffic

    def connect(self, source, listener, address, port, timeout=5):
        """Opens a TCP connection from one namespace to an address on which another listens. Returns the client's
        address as the listener saw it, or None when no connection came about."""
        server = self._listener(listener, port)
        client = self.network.socket(source, socket.AF_INET, socket.SOCK_STREAM)
        client.settimeout(timeout)
        try:
            client.connect((address, port))
            server.settimeout(timeout)
            accepted, peer = server.accept()
            accepted.close()
            return peer[0]
        except OSError:
            return None
        finally:
            client.close()

    def _listener(self, namespace, port):
        if (namespace, port) not in self._listeners:
            listener = self.network.socket(namespace, socket.AF_INET, socket.SOCK_STREAM)
            listener.setsockopt(socket.SOL_SOCKET, socket.SO_REUSEADDR, 1)
            listener.bind(("0.0.0.0", port))
            listener.listen(8)
            self._listeners[(namespace, port)] = listener
        return self._listeners[(namespace, port)]

    # --------------------------------------------------------------------------------------------- state

    def rules(self, table):
        """The gateway's iptables rules of one table, one a line."""
        return self.network.run("gateway", "iptables", "-t", table, "-S").splitlines()

    def mapped(self, lan_address):
        """The WAN address that a LAN address is mapped to, or None."""
        for rule in self.rules("nat"):
            words = rule.split()
            if words[:2] == ["-A", "POSTROUTING_zep"] and f"{lan_address}/32" in words and "--to-source" in words:
                return words[words.index("--to-source") + 1]
        return None

    def wan_clients(self):
        """The process ids of the DHCP clients that run on the gateway's IPTV interface."""
        found = []
        for pid in self.network.run("gateway", "ip", "netns", "pids", "gateway").split():
            try:
                with open(f"/proc/{pid}/cmdline", "rb") as file:
                    words = file.read().split(b"\0")
            except OSError:
                continue
            if words[0].endswith(b"udhcpc"):
                found.append(int(pid))
        return found

    def close(self):
        for tap in self.taps.values():
            tap.close()
        for listener in self._listeners.values():
            listener.close()
        self.network.close()

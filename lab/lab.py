"""The lab: an operator, a gateway and four LAN devices on one machine, each in a network namespace of its own.

    server ---- operator ==== eth1.20 gateway ==+== stb1
    10.60.0.10   10.20.0.1            br-lan    +== stb2
                                                +== itf
                internet ==== eth1.10           +== pc
               203.0.113.10
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
DATA = "eth1.10"
CLIENTS = 5  # of the gateway on its IPTV interface, at most, each with an identifier of its own
INTERNET_ADDRESS = "203.0.113.10"
INTERNET_PORT = 80
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

    def __init__(self, programs, share, folder, mode="Routed", devices=DEVICES):
        self.programs = programs  # folder of keelhost, keelctl, zephyrin.so
        self.share = share
        self.mode = mode  # in which the gateway starts
        self.devices = devices
        self.devices_tell_names = False  # whether their DHCP messages have a host name
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
        for name in ("server", "operator", "internet", "gateway", *(device.name for device in self.devices)):
            net.namespace(name)

        net.link("server", "eth0", "operator", "iptv0")
        net.run("server", "ip", "addr", "add", f"{SERVER_ADDRESS}/24", "dev", "eth0")
        net.run("server", "ip", "route", "add", "default", "via", "10.60.0.1")
        net.run("operator", "ip", "addr", "add", "10.60.0.1/24", "dev", "iptv0")

        net.link("operator", "wan0", "gateway", IPTV)
        net.run("operator", "ip", "addr", "add", "10.20.0.1/24", "dev", "wan0")

        net.run("internet", "ip", "addr", "add", f"{INTERNET_ADDRESS}/32", "dev", "lo")
        self.join_internet("eth0", DATA, "100.64.0")
        self.route_to_internet(DATA, "100.64.0")

        # A member that has left is asked for once, which the multicast daemon gives 10 s.
        net.run("gateway", "ip", "link", "add", "br-lan", "type", "bridge", "mcast_last_member_count", "1")
        net.run("gateway", "ip", "addr", "add", f"{LAN_ADDRESS}/24", "dev", "br-lan")
        net.run("gateway", "ip", "link", "set", "br-lan", "up")
        for device in self.devices:
            net.link("gateway", device.port, device.name, "eth0")
            net.run("gateway", "ip", "link", "set", device.port, "master", "br-lan")
            self.taps[device.name] = Tap(net, device.name)

        # Only what the gateway's rules accept is routed; what its bridge forwards is none of their business.
        net.run("gateway", "iptables", "-P", "FORWARD", "DROP")
        net.run("gateway", "sh", "-c", "f=/proc/sys/net/bridge/bridge-nf-call-iptables; [ ! -e $f ] || echo 0 > $f")
        for router in ("operator", "gateway"):
            net.run(router, "sh", "-c", "echo 1 > /proc/sys/net/ipv4/ip_forward")
            net.run(router, "sh", "-c", "for f in /proc/sys/net/ipv4/conf/*/rp_filter; do echo 0 > $f; done")

    def join_internet(self, far_interface, device, network):
        """Connects the gateway with the Internet by one more device; network is the first three bytes of its addresses."""
        self.network.link("internet", far_interface, "gateway", device)
        self.network.run("internet", "ip", "addr", "add", f"{network}.1/30", "dev", far_interface)
        self.network.run("gateway", "ip", "addr", "add", f"{network}.2/30", "dev", device)

    def change_data_address(self, change):
        """The gateway's address on the data device goes ("del") or comes back ("add")."""
        self.network.run("gateway", "ip", "addr", change, "100.64.0.2/30", "dev", DATA)

    def route_to_internet(self, device, network):
        """The gateway's default route goes over that device from now on."""
        self.network.run("gateway", "ip", "route", "replace", "default", "via", f"{network}.1", "dev", device)

    def set_link(self, device, state):
        """A device of the gateway goes "up" or "down"."""
        self.network.run("gateway", "ip", "link", "set", device, state)

    # ------------------------------------------------------------------------------------------ operator

    def start_operator(self, lease_seconds=3600):
        # The operator knows the identifiers of its customers' clients: they are counted from the gateway's WAN MAC address.
        # A server that does not know them may offer one address to all that ask in the same moment from one MAC address.
        base = int(self.link_address("gateway", IPTV).replace(":", ""), 16)
        identifiers = [f"01{base + number:012x}" for number in range(CLIENTS)]
        known = [f"--dhcp-host=id:{bytes.fromhex(text).hex(':')},10.20.0.{51 + number}"
                 for number, text in enumerate(identifiers)]
        self.dhcp_server = self.network.spawn(
            "operator", "dnsmasq", "--no-daemon", f"--conf-file={HERE}/operator-dhcp.conf",
            f"--dhcp-range=10.20.0.50,10.20.0.99,255.255.255.0,{lease_seconds}",
            f"--dhcp-leasefile={self.folder}/operator.leases", "--pid-file=", *known, log="operator.log")

    def stop_operator(self):
        self.network.stop(self.dhcp_server)
        self.dhcp_server = None

    def start_multicast_router(self):
        """What the server sends to groups goes to the gateway once that asks for it."""
        self.network.spawn("operator", "igmpproxy", "-n", f"{HERE}/operator-igmp.conf", log="operator-igmp.log")

    # ------------------------------------------------------------------------------------------- gateway

    def launch_gateway(self):
        """Starts keelhost, and waits for nothing."""
        settings = os.path.join(self.folder, "keelhost.toml")
        with open(settings, "w", encoding="utf-8") as file:
            file.write(f'[service]\nmode = "{self.mode}"\n')
        self.gateway = self.network.spawn(
            "gateway", os.path.join(self.programs, "keelhost"),
            "--share", self.share,
            "--settings", settings,
            "--store", os.path.join(self.folder, "keel.db"),
            "--socket", self.socket,
            "--plugin", os.path.join(self.programs, "zephyrin.so"), log="gateway.log")

    def start_gateway(self):
        self.launch_gateway()
        if not wait_for(lambda: self.keel.answers() or self.gateway.poll() is not None, 15) or \
                self.gateway.poll() is not None:
            raise RuntimeError("keelhost did not start; its last words:\n" + self.network.log("gateway.log")[-2000:])
        self.keel.watch_wan_clients()

    def stop_gateway(self, how=signal.SIGTERM):
        status = self.network.stop(self.gateway, how)
        self.gateway = None
        return status

    # ------------------------------------------------------------------------------------------- devices

    def spawn_device(self, namespace, vendor_class):
        """The DHCP client of a LAN device."""
        names = ("-x", f"hostname:{namespace}") if self.devices_tell_names else ()
        return self.network.spawn(
            namespace, "udhcpc", *names, "-f", "-i", "eth0", "-s", f"{HERE}/device-dhcp.sh", "-V", vendor_class,
            "-O", "42", "-O", "72", "-t", "3", "-T", "2", "-A", "1", log=f"{namespace}.log")

    def start_device(self, device):
        self.clients[device.name] = self.spawn_device(device.name, device.vendor_class)

    def start_devices(self):
        for device in self.devices:
            self.start_device(device)

    def stop_device(self, device):
        self.network.stop(self.clients.pop(device.name))

    def mac(self, device):
        """The device's MAC address, upper case."""
        return self.link_address(device.name, "eth0").upper()

    def link_address(self, namespace, interface):
        words = self.network.run(namespace, "ip", "-o", "link", "show", "dev", interface).split()
        return words[words.index("link/ether") + 1]

    def address(self, device):
        """The address that the device itself has, or None."""
        return next(iter(self.addresses(device.name, "eth0")), None)

    def tag_stb(self, *devices):
        """Tells the gateway, at once, that these LAN devices are STBs."""
        self.keel.at_once(*((f"Hosts.Host.{self.mac(device)}", "Tags", "lan stb") for device in devices))

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

    def served_as(self, device):
        """The WAN address with which the device's packets reach the server, when that is its own; or None."""
        address = self.address(device)
        wan = address and self.mapped(address)
        return wan if wan and self.connect(device.name, "server", SERVER_ADDRESS, SERVER_PORT, 1) == wan else None

    def _listener(self, namespace, port):
        if (namespace, port) not in self._listeners:
            listener = self.network.socket(namespace, socket.AF_INET, socket.SOCK_STREAM)
            listener.setsockopt(socket.SOL_SOCKET, socket.SO_REUSEADDR, 1)
            listener.bind(("0.0.0.0", port))
            listener.listen(8)
            self._listeners[(namespace, port)] = listener
        return self._listeners[(namespace, port)]

    # --------------------------------------------------------------------------------------------- state

    def addresses(self, namespace, interface):
        """The IPv4 addresses that an interface has in the kernel, without their prefix lengths."""
        words = self.network.run(namespace, "ip", "-4", "-o", "addr", "show", "dev", interface).split()
        return [words[at + 1].split("/")[0] for at, word in enumerate(words) if word == "inet"]

    def rules(self, table, chain=None):
        """The gateway's iptables rules of one table, one a line; or those of one chain, without "-A CHAIN"."""
        lines = self.network.run("gateway", "iptables", "-t", table, "-S").splitlines()
        return lines if chain is None else [line.split(" ", 2)[2] for line in lines if line.startswith(f"-A {chain} ")]

    def bridge_rules(self, table, chain):
        """The rules of one of the gateway's ebtables chains, one a line; None when there is no such chain."""
        lines = self.network.run("gateway", "ebtables", "-t", table, "-L", chain, check=False).splitlines()
        return [line for line in lines if line.startswith("-")] if f"Bridge chain: {chain}" in "\n".join(lines) else None

    def mapped(self, lan_address):
        """The WAN address that a LAN address is mapped to, or None."""
        for rule in self.rules("nat"):
            words = rule.split()
            if words[:2] == ["-A", "POSTROUTING_zep"] and f"{lan_address}/32" in words and "--to-source" in words:
                return words[words.index("--to-source") + 1]
        return None

    def processes(self):
        """What runs on the gateway: process id -> name of its program."""
        found = {}
        for pid in self.network.run("gateway", "ip", "netns", "pids", "gateway").split():
            try:
                with open(f"/proc/{pid}/cmdline", "rb") as file:
                    program = os.path.basename(file.read().split(b"\0")[0].decode())
            except OSError:
                continue
            if program:  # a zombie has none
                found[int(pid)] = program
        return found

    def wan_clients(self):
        """The process ids of the DHCP clients that run on the gateway's IPTV interface."""
        return [pid for pid, program in self.processes().items() if program == "udhcpc"]

    def renew_wan_leases(self):
        """Has the gateway's DHCP clients renew their leases now, as they would after half of the lease time."""
        for pid in self.wan_clients():
            os.kill(pid, signal.SIGUSR1)

    def own_address(self):
        """The address of the gateway's own IPTV lease, once the kernel has it."""
        address = self.keel.get("Weft.Intf.dhcp_iptv", "IPAddress")
        return address if address in self.addresses("gateway", IPTV) else None

    def write_shell(self):
        """The path of a script that starts a shell on the gateway, in which "on NAME" reaches the others."""
        settings, script = (os.path.join(self.folder, name) for name in ("shell.rc", "shell"))
        with open(settings, "w", encoding="utf-8") as file:
            file.write(f"""PATH={self.programs}:$PATH:/usr/local/sbin:/usr/sbin:/sbin
export KEEL_SOCKET={self.socket} LAB={self.folder}
PS1="lab:$LAB_AT# "
on() {{
    at=$1
    shift
    [ $# -gt 0 ] || set -- bash --rcfile {settings} -i
    LAB_AT=$at ip netns exec "$at" "$@"
}}
""")
        with open(script, "w", encoding="utf-8") as file:
            file.write(f"""#!/bin/sh
PATH=$PATH:/usr/local/sbin:/usr/sbin:/sbin LAB_AT=gateway exec ip netns exec gateway bash --rcfile {settings} -i
""")
        os.chmod(script, 0o755)
        return script

    def close(self):
        for one in (*self.taps.values(), *self._listeners.values()):
            one.close()
        self.network.close()

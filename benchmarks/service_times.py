"""How long set-top boxes wait for their service in the lab, with the parts of it, beside what of it is not the gateway's:
script/benchmark runs it in its namespaces.

One STB and four at once are measured from the first DISCOVER to the last ACK by the kernel's time stamps of their frames;
beside them, in the same round, the same clients at the operator's DHCP server alone, and a binding's commands in a plain
loop. Then keelhost is killed and started again.
"""

import argparse
import os
import socket
import statistics
import struct
import subprocess
import sys
import tempfile
import time

ROOT = os.path.dirname(os.path.dirname(os.path.abspath(__file__)))
sys.path.insert(0, os.path.join(ROOT, "lab"))

from lab import HERE, IPTV, Device, Lab  # noqa: E402
from network import wait_for  # noqa: E402

DISCOVER, OFFER, ACK = 1, 2, 5
SO_TIMESTAMPNS = 35
ETH_P_ALL = 3
STBS = 4
# iptables' words for one binding, in the order in which the plug-in runs them.
BINDING = ("-t raw -{op} PREROUTING_zep_ACCEPT -d {wan}/255.255.255.255 -j ACCEPT",
           "-t nat -{op} POSTROUTING_zep -s {lan} -j SNAT --to-source {wan}",
           "-t filter -{op} FORWARD_zep -s {lan} -j ACCEPT",
           "-t nat -{op} PREROUTING_zep -j DNAT --to-destination {lan} -d {wan}")


class Capture:
    """The DHCP messages that an interface sends and receives, each with the kernel's time, read when all is over."""

    def __init__(self, network, namespace, interface):
        self._socket = network.socket(namespace, socket.AF_PACKET, socket.SOCK_RAW, socket.htons(ETH_P_ALL))
        self._socket.setsockopt(socket.SOL_SOCKET, SO_TIMESTAMPNS, 1)
        self._socket.setsockopt(socket.SOL_SOCKET, socket.SO_RCVBUF, 1 << 22)
        self._socket.bind((interface, ETH_P_ALL))
        self._socket.setblocking(False)

    def take(self):
        """(kind, time in s) of each since the last time."""
        messages = []
        while True:
            try:
                frame, ancillary, _, _ = self._socket.recvmsg(2048, 64)
            except BlockingIOError:
                return messages
            udp = 14 + (frame[14] & 0x0F) * 4
            if frame[12:14] != b"\x08\x00" or frame[23] != socket.IPPROTO_UDP or \
                    struct.unpack_from("!H", frame, udp + 2)[0] not in (67, 68):
                continue
            seconds, nanoseconds = struct.unpack("qq", ancillary[0][2])
            at = udp + 8 + 240
            while frame[at] != 255:  # a message without its kind would be an error here, as it ought to be
                if frame[at] == 53:
                    messages.append((frame[at + 2], seconds + nanoseconds / 1e9))
                    break
                at += 1 if frame[at] == 0 else 2 + frame[at + 1]

    def close(self):
        self._socket.close()


def first(messages, kind):
    return min(when for found, when in messages if found == kind)


def last(messages, kind):
    return max(when for found, when in messages if found == kind)


class Bench:
    def __init__(self, programs):
        self.devices = [Device(f"stb{number}", "zep-stb", f"lan{number}", "zep_stb") for number in range(1, STBS + 1)]
        self.lab = Lab(programs, os.path.join(ROOT, "share"), tempfile.mkdtemp(dir="/run"), devices=self.devices)
        self.net = self.lab.network
        self.alone = [f"alone{number}" for number in range(1, STBS + 1)]
        self.figures = {}
        self.taps = {}
        self.wan = None

    def note(self, name, seconds):
        self.figures.setdefault(name, []).append(seconds * 1000)

    def build(self):
        self.lab.build()
        self.lab.start_operator()
        # Four more clients, at a server that is set up as the operator's.
        self.net.namespace("alone")
        self.net.run("alone", "ip", "link", "add", "wan0", "type", "bridge")
        self.net.run("alone", "ip", "addr", "add", "10.20.0.1/24", "dev", "wan0")
        self.net.run("alone", "ip", "link", "set", "wan0", "up")
        for name in self.alone:
            self.net.namespace(name)
            self.net.link("alone", name, name, "eth0")
            self.net.run("alone", "ip", "link", "set", name, "master", "wan0")
        self.net.spawn("alone", "dnsmasq", "--no-daemon", f"--conf-file={HERE}/operator-dhcp.conf",
                       "--dhcp-range=10.20.0.50,10.20.0.99,255.255.255.0,3600",
                       f"--dhcp-leasefile={self.lab.folder}/alone.leases", "--pid-file=", log="alone.log")
        self.taps = {name: Capture(self.net, name, "eth0") for name in (*self.alone, *(d.name for d in self.devices))}
        self.wan = Capture(self.net, "gateway", IPTV)

    def close(self):
        for one in (*self.taps.values(), self.wan):
            if one:
                one.close()
        self.lab.close()

    # ------------------------------------------------------------------------------------------- what is measured

    def exchange(self, names, start, seconds=20):
        """Starts clients and gives the messages of each once all have their ACK."""
        for name in names:
            self.taps[name].take()
        found = {name: [] for name in names}

        def served():
            for name in names:
                found[name] += self.taps[name].take()
            return all(any(kind == ACK for kind, _ in found[name]) for name in names)

        start()
        if not wait_for(served, seconds):
            raise RuntimeError(f"not all of {names} were served; the gateway's last words:\n" +
                               self.net.log("gateway.log")[-2000:])
        return [message for name in names for message in found[name]]

    def fresh_gateway(self):
        """A gateway that knows no device, and has its own lease."""
        for device in self.devices:
            if device.name in self.lab.clients:
                self.lab.stop_device(device)
            self.net.run(device.name, "ip", "-4", "addr", "flush", "dev", "eth0")
        if self.lab.gateway:
            self.lab.stop_gateway()
        for name in os.listdir(self.lab.folder):
            if name.startswith("keel.db"):
                os.unlink(os.path.join(self.lab.folder, name))
        self.lab.launch_gateway()
        if not wait_for(lambda: self.lab.keel.answers() and self.lab.own_address() and
                        self.lab.rules("filter", "FORWARD_IPTV2Lan"), 15):
            raise RuntimeError("keelhost did not start:\n" + self.net.log("gateway.log")[-2000:])
        time.sleep(0.5)

    def commands(self, bindings):
        """The commands of so many bindings, each in turn by a shell."""
        def run(op):
            for number in range(bindings):
                for words in BINDING:
                    command = "/usr/sbin/iptables " + words.format(op=op, lan=f"192.168.1.{200 + number}",
                                                                   wan=f"10.20.0.{200 + number}")
                    if os.system(command) != 0:
                        raise RuntimeError(command)

        def timed():
            begin = time.monotonic()
            run("A")
            spent = time.monotonic() - begin
            run("D")
            return spent

        return self.net.inside("gateway", timed)

    def client_alone(self):
        """A WAN client as keelhost starts it, without keelhost: the time from its start to its DISCOVER, and from the ACK
        to the script's last word."""
        name = self.alone[0]
        self.taps[name].take()
        begin = time.time()
        client = self.net.inside(name, lambda: subprocess.Popen(
            ["udhcpc", "-f", "-q", "-i", "eth0", "-s", f"{self.lab.share}/udhcpc-report.sh", "-t", "3", "-T", "3", "-o",
             *(word for number in (1, 3, 42, 51, 54, 72, 121) for word in ("-O", str(number))), "-x", "0x3d:01020304"],
            stdout=subprocess.PIPE, stderr=subprocess.STDOUT, text=True))
        with client.stdout:
            for line in client.stdout:
                if line.startswith("@bound"):
                    end = time.time()
        client.wait()
        messages = self.taps[name].take()
        return first(messages, DISCOVER) - begin, end - last(messages, ACK)

    def one(self):
        self.fresh_gateway()
        self.wan.take()
        lan = self.exchange(["stb1"], lambda: self.lab.start_device(self.devices[0]))
        wan = self.wan.take()
        commands = self.commands(1)
        client_start, client_report = self.client_alone()
        whole = last(lan, ACK) - first(lan, DISCOVER)
        wan_exchange = last(wan, ACK) - first(wan, DISCOVER)
        start = first(wan, DISCOVER) - first(lan, DISCOVER)
        taken = last(lan, ACK) - last(lan, OFFER)
        self.note("one", whole)
        self.note("one start", start)
        self.note("one wan", wan_exchange)
        self.note("one report", client_report)
        self.note("one commands", commands)
        self.note("one taken", taken)
        self.note("one rest", whole - start - wan_exchange - client_report - commands - taken)
        self.note("client start", client_start)
        self.note("one beyond", whole - wan_exchange - commands)

    def four(self):
        clients = []

        def at_the_server():
            for name in self.alone:
                clients.append(self.lab.spawn_device(name, "zep-stb"))

        alone = self.exchange(self.alone, at_the_server)
        for client in clients:
            self.net.stop(client)
        self.fresh_gateway()
        self.wan.take()
        lan = self.exchange([device.name for device in self.devices], self.lab.start_devices)
        wan = self.wan.take()
        commands = self.commands(STBS)
        whole = last(lan, ACK) - first(lan, DISCOVER)
        server = last(alone, ACK) - first(alone, DISCOVER)
        self.note("four", whole)
        self.note("four start", first(wan, DISCOVER) - first(lan, DISCOVER))
        self.note("four wan", last(wan, ACK) - first(wan, DISCOVER))
        self.note("four after", last(lan, ACK) - last(wan, ACK))
        self.note("four server", server)
        self.note("four commands", commands)
        self.note("four ratio", whole / (server + commands) / 1000)

    def bindings(self):
        """How many devices have all their rules."""
        return min(len(self.lab.rules(table, chain)) for table, chain in (
            ("nat", "POSTROUTING_zep"), ("nat", "PREROUTING_zep"), ("filter", "FORWARD_zep")))

    def restart(self):
        """keelhost is killed while it serves all, and started again."""
        if not wait_for(lambda: self.bindings() == STBS, 10):
            raise RuntimeError("the STBs were not mapped")
        time.sleep(1)  # the store writes what has changed after a while
        self.lab.stop_gateway(9)
        # What it left goes at its start; here before, so that it cannot be taken for what comes after.
        self.net.run("gateway", "iptables", "-t", "nat", "-F", "POSTROUTING_zep")
        self.wan.take()
        begin, begin_wall = time.monotonic(), time.time()
        self.lab.launch_gateway()
        if not wait_for(lambda: self.bindings() == STBS, 20, pause=0.01):
            raise RuntimeError("the STBs were not mapped again:\n" + self.net.log("gateway.log")[-2000:])
        self.note("restart", time.monotonic() - begin)
        wan = self.wan.take()
        self.note("restart asked", first(wan, DISCOVER) - begin_wall)
        self.note("restart wan", last(wan, ACK) - first(wan, DISCOVER))

    # ------------------------------------------------------------------------------------------------- the table

    def table(self, rounds):
        def row(text, name, aim="", digits=1):
            values = self.figures[name]
            print(f"{text:<62}{statistics.median(values):9.{digits}f}   {min(values):.{digits}f} to "
                  f"{max(values):.{digits}f}{aim}")

        print(f"ms, median and range of {rounds} rounds")
        row("one STB, first DISCOVER to ACK", "one")
        row("  to the WAN DISCOVER", "one start")
        row("    of which the WAN client alone (beside)", "client start")
        row("  WAN exchange: to the WAN ACK", "one wan")
        row("  the WAN client from its ACK to its report, alone (beside)", "one report")
        row("  the four commands (beside, in a plain loop)", "one commands")
        row("  the STB from its offer to its ACK", "one taken")
        row("  rest", "one rest")
        row("  beyond the WAN exchange and the four commands", "one beyond", "; aim 40")
        row("four STBs at once, first DISCOVER to last ACK", "four")
        row("  to the first WAN DISCOVER", "four start")
        row("  first WAN DISCOVER to last WAN ACK", "four wan")
        row("  last WAN ACK to last ACK", "four after")
        row("  the same four at the DHCP server alone (beside)", "four server")
        row("  their sixteen commands (beside, in a plain loop)", "four commands")
        row("  ratio to the sum of these two", "four ratio", "; aim 1.5", 2)
        row("keelhost killed and started, to all four STBs mapped", "restart", "; aim 1000")
        row("  to the first WAN DISCOVER", "restart asked")
        row("  first WAN DISCOVER to last WAN ACK", "restart wan")


def main():
    parser = argparse.ArgumentParser(description=__doc__, formatter_class=argparse.RawDescriptionHelpFormatter)
    parser.add_argument("programs", help="folder of keelhost, keelctl and zephyrin.so")
    parser.add_argument("--rounds", type=int, default=7)
    options = parser.parse_args()
    bench = Bench(os.path.abspath(options.programs))
    try:
        bench.build()
        for _ in range(options.rounds):
            bench.one()
            bench.four()
            bench.restart()
        bench.table(options.rounds)
    finally:
        bench.close()


if __name__ == "__main__":
    main()

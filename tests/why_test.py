"""What "keelctl why" says of real faults on a real network, and that what a foreign hand takes away is put back.

Runs inside namespaces of its own: script/in-namespaces python3 tests/why_test.py PROGRAMS
"""

import json
import os
import re
import shutil
import signal
import socket
import struct
import subprocess
import threading
import time
import unittest

from on_lab import build_lab, keelctl  # first: it finds the lab
from lab import DATA, DEVICES, HERE, IPTV, Device
from multicast import GROUP, Member, Stream, plays
from network import wait_for
from wrapped_tables import wrapped_tables

STB1, STB2, ITF, PC = DEVICES
FIREWALL = "/usr/bin/zep_firewall.sh"


class RefusingOperator:
    """A DHCP server that offers an address to everybody, and refuses it to all who then want it."""

    ADDRESS = "10.20.0.1"

    def __init__(self, network):
        self._socket = network.socket("operator", socket.AF_INET, socket.SOCK_DGRAM)
        self._socket.setsockopt(socket.SOL_SOCKET, socket.SO_REUSEADDR, 1)
        self._socket.setsockopt(socket.SOL_SOCKET, socket.SO_BROADCAST, 1)
        self._socket.setsockopt(socket.SOL_SOCKET, socket.SO_BINDTODEVICE, b"wan0")
        self._socket.bind(("", 67))
        self._socket.settimeout(0.2)
        self._ended = threading.Event()
        self._thread = threading.Thread(target=self._serve, daemon=True)
        self._thread.start()

    def _serve(self):
        while not self._ended.is_set():
            try:
                request = self._socket.recv(2048)
            except TimeoutError:
                continue
            kind = re.search(rb"\x35\x01([\x01\x03])", request[240:])
            if kind:
                self._answer(request, 2 if kind.group(1) == b"\x01" else 6)

    def _answer(self, request, kind):
        offered = "10.20.0.77" if kind == 2 else "0.0.0.0"
        reply = struct.pack("!BBBB4sHH4s4s4s4s", 2, 1, 6, 0, request[4:8], 0, 0x8000, bytes(4), socket.inet_aton(offered),
                            bytes(4), bytes(4)) + request[28:44] + bytes(192) + b"\x63\x82\x53\x63"
        reply += bytes((53, 1, kind, 54, 4)) + socket.inet_aton(self.ADDRESS)
        if kind == 2:
            reply += bytes((51, 4)) + struct.pack("!I", 3600) + bytes((1, 4)) + socket.inet_aton("255.255.255.0")
        self._socket.sendto((reply + b"\xff").ljust(300, b"\0"), ("255.255.255.255", 68))

    def close(self):
        self._ended.set()
        self._thread.join()
        self._socket.close()


class OnALab(unittest.TestCase):
    devices = DEVICES

    @classmethod
    def setUpClass(cls):
        cls.lab = build_lab(cls.addClassCleanup, cls.devices)
        cls.lab.start_operator()
        cls.lab.start_multicast_router()
        cls.lab.start_gateway()

    def keelctl(self, *words):
        """What keelctl prints, and its exit status."""
        status, told, wrong = keelctl(self.lab, *words)
        return told + wrong, status

    def await_why(self, device, words, seconds=20):
        """Waits until "why" says these words of the device, and that it is not served."""
        def said():
            told, status = self.keelctl("why", self.lab.mac(device))
            return told if re.search(words, told) and status == 3 else None
        told = wait_for(said, seconds)
        self.assertTrue(told, f"{words}\n{self.keelctl('why', self.lab.mac(device))}\n"
                              f"{self.lab.network.log('gateway.log')[-3000:]}")
        return told

    def await_served(self, device, seconds=70):
        self.assertTrue(wait_for(lambda: self.keelctl("why", self.lab.mac(device))[1] == 0, seconds),
                        f"{self.keelctl('why', self.lab.mac(device))}\n{self.lab.network.log('gateway.log')[-3000:]}")
        self.assertTrue(wait_for(lambda: self.lab.served_as(device), 10), f"{device.name} is said to play, and does not")

    def headline(self):
        return self.keelctl()[0].splitlines()[1].strip()


class WhyTest(OnALab):
    @classmethod
    def setUpClass(cls):
        super().setUpClass()
        cls.lab.start_device(STB1)

    def daemon(self):
        return next(pid for pid, name in self.lab.processes().items() if name == "igmpproxy")

    def test_1_served(self):
        self.await_served(STB1)
        self.assertEqual(self.headline(), "1 of 1 STB served")
        self.assertEqual(self.keelctl("why"), ("all STBs on the LAN are served\n", 0))
        self.assertIn("its four rules are in the kernel", self.keelctl("why", self.lab.address(STB1))[0])

    def test_2_no_picture(self):
        lab = self.lab
        self.assertTrue(wait_for(lambda: lab.keel.get("TIDE.Intf.iptv", "Status") == "Running", 20))
        os.kill(self.daemon(), signal.SIGSTOP)
        member = Member(lab.network, STB1.name, lab.address(STB1))
        self.await_why(STB1, rf"joined {GROUP} on port {STB1.port}; the daemon does not forward: it has not asked")
        os.kill(self.daemon(), signal.SIGKILL)
        self.await_why(STB1, rf"joined {GROUP} on port {STB1.port}; the daemon does not run: it ends", 2)
        self.await_why(STB1, "the gateway has asked the operator for it, and nothing comes", 30)
        stream = Stream(lab.network, "server", "10.60.0.10")
        self.assertTrue(plays(member, 30))
        self.await_served(STB1)
        stream.close()
        member.close()

    def test_3_line_down(self):
        self.lab.network.run("operator", "ip", "link", "set", "wan0", "down")
        self.await_why(STB1, rf"broken client    {IPTV} has no carrier(.|\n)*since  \d\d:\d\d:\d\d")
        self.lab.network.run("operator", "ip", "link", "set", "wan0", "up")
        self.await_served(STB1)

    def test_4_operator_silent_then_refuses(self):
        lab = self.lab
        lab.stop_operator()
        lab.start_device(STB2)
        told = self.await_why(STB2, rf"no answer to DISCOVER on {IPTV} since \d\d:\d\d:\d\d \([1-9]\d* sent\); "
                                    r"the STB waits for its lease; next try in \d+ s")
        self.assertIn("  ok     identity", told)
        self.assertRegex(self.headline(), f"^1 of 2 STBs served: zep-stb-{lab.mac(STB2)[-5:]} waits for the operator since ")
        refusing = RefusingOperator(lab.network)
        self.await_why(STB2, r"10\.20\.0\.1 refused \(NAK\) identifier 01[0-9a-f]{12}, [2-9] times in \d+ s", 60)
        refusing.close()
        lab.start_operator()
        self.await_served(STB2, 100)

    def test_5_class_of_a_pc(self):
        self.lab.clients[PC.name] = self.lab.spawn_device(PC.name, "zepstb-v2")
        self.await_why(PC, r'asked with class "zepstb-v2"; rules know "zep-stb", "zep-itf"; it got a PC\'s address, '
                           r'192\.168\.1\.1\d\d')

    def test_6_unusable_route(self):
        lab = self.lab
        lab.stop_operator()
        wrong = os.path.join(lab.folder, "wrong.conf")
        with open(os.path.join(HERE, "operator-dhcp.conf"), encoding="utf-8") as right, \
                open(wrong, "w", encoding="utf-8") as file:
            file.write(re.sub("force=121,.*", "force=121,10.60.0.0/24,192.0.2.1", right.read()))
        server = lab.network.spawn("operator", "dnsmasq", "--no-daemon", f"--conf-file={wrong}", "--pid-file=",
                                   "--dhcp-range=10.20.0.50,10.20.0.99,255.255.255.0,3600",
                                   f"--dhcp-leasefile={lab.folder}/operator.leases", log="operator.log")
        lab.renew_wan_leases()
        self.await_why(STB1, r"10\.60\.0\.0/24 via 192\.0\.2\.1: the next hop is not on 10\.20\.0\.0/24; the operator's "
                             "option 121 is wrong", 40)
        lab.network.stop(server)
        lab.start_operator()
        lab.renew_wan_leases()
        self.await_served(STB1)

    def apart(self):
        return sorted(line for line in self.lab.network.run("gateway", "ebtables-save").splitlines() if line[0] != "#")

    def keep_all_apart(self):
        """Flags and links of which each kind of rule of layer 2 comes; what stands then."""
        self.assertTrue(self.lab.keel.change_flags(IPTV, ("zep-no-igmp", "zep-only-igmp"), ("zep-dhcp-vlan",)))
        self.assertTrue(self.lab.keel.set(f"Weft.Intf.{IPTV}", LowerLayers="eth1.10"))
        self.assertTrue(wait_for(lambda: sum(" -j DROP" in line for line in self.apart()) == 6, 5), self.apart())
        return self.apart()

    def test_7a_rules_taken_away(self):
        lab = self.lab
        flush = ("iptables", "-t", "nat", "-F")
        before = sorted(lab.rules("nat") + lab.rules("raw") + lab.rules("filter"))
        apart = self.keep_all_apart()
        lab.network.run("gateway", *flush)
        lab.network.run("gateway", "ebtables", "-t", "nat", "-F")
        lab.network.run("gateway", "ebtables", "-t", "filter", "-F")
        lab.network.run("gateway", "ebtables", "-t", "filter", "-X")
        told = ("0 of 2 STBs served: (zep-stb-[0-9A-F:]{5} has lost its rules since . s(, |; )){2}"
                "what keeps devices apart on layer 2 is missing$")
        self.assertTrue(wait_for(lambda: re.match(told, self.headline()), 2, pause=0.05), self.headline())
        self.await_served(STB1, 10)
        self.assertEqual(sorted(lab.rules("nat") + lab.rules("raw") + lab.rules("filter")), before)
        self.assertEqual(self.apart(), apart)
        self.assertEqual(self.headline(), "2 of 2 STBs served")
        self.assertEqual(lab.network.log("gateway.log").count("somebody else changes the tables"), 1)

        lab.network.run("gateway", *flush)
        self.await_why(STB1, r"the SNAT rule for 192\.168\.1\.2\d is not in POSTROUTING_zep, and \d+ more; keelhost puts it "
                             r"back in [1-5]\d s")
        lab.network.run("gateway", "iptables", "-t", "nat", "-X")
        lab.network.run("gateway", "iptables", "-t", "raw", "-D", "PREROUTING", "-i", IPTV, "-j", "PREROUTING_zep_ACCEPT")
        self.await_served(STB1, 70)
        self.assertEqual(sorted(lab.rules("nat") + lab.rules("raw") + lab.rules("filter")), before)

    def test_7c_rules_never_made(self):
        """iptables fails while an STB comes, and works again: it is not dark until it is switched off and on."""
        lab = self.lab
        never = r"the \w+ rule for 192\.168\.1\.\d+ is not in \w+{}, and has never been"
        with wrapped_tables(lab.folder, '[ "${0##*/}" != iptables ] || exit 4'):  # the kernel tells of no change then
            lab.start_device(ITF)
            self.await_why(ITF, never.format(", and 3 more"), 5)
        self.await_served(ITF, 70)
        with wrapped_tables(lab.folder, '[ "${0##*/} $4" != "iptables POSTROUTING_zep" ] || exit 4'):  # one of four
            lab.clients[PC.name] = lab.spawn_device(PC.name, "zep-stb")
            self.await_why(PC, never.format(""), 5)
        self.await_served(PC, 70)
        lab.stop_device(PC)
        for device in (ITF, PC):
            own = [rule for table in ("nat", "raw", "filter") for rule in lab.rules(table)
                   if f"{lab.address(device)}/" in rule or f"{lab.served_as(device)}/" in rule]
            self.assertEqual(len(own), 4, own)
        self.assertIn("could not be made: the lease is reported anew", lab.network.log("gateway.log"))
        lab.keel.set("Keel.Zephyrin", Enable="false")
        self.assertTrue(wait_for(lambda: not [rule for table in ("nat", "raw", "filter") for rule in lab.rules(table)
                                              if "192.168.1." in rule], 10), "they are taken away as any other")
        lab.keel.set("Keel.Zephyrin", Enable="true")
        self.await_served(STB1)

    def test_7d_rules_not_seen(self):
        """While it cannot be looked whether the rules stand, nothing says that they do."""
        lab = self.lab
        self.await_served(STB1)
        snat = ("POSTROUTING_zep", "-s", lab.address(STB1), "-j", "SNAT", "--to-source", lab.served_as(STB1))
        with wrapped_tables(lab.folder, '[ "${0##*/}" != iptables-save ] || exit 1'):
            lab.network.run("gateway", "iptables", "-t", "nat", "-D", *snat)
            page = self.keelctl()[0]
            self.assertTrue(self.headline().endswith("; whether the rules stand is not known"), page)
            self.assertIn("  rules    whether they stand is not known: /usr/sbin/iptables-save ended with status 1", page)
            self.assertIn("  rules    not known, ", page)
            self.assertNotIn("  rules    in the kernel", page)
            told, status = self.keelctl("why")
            self.assertIn("is served, as far as can be seen", told)
            self.assertIn("  unseen rules     whether they stand is not known", told)
            self.assertEqual(status, 0)
        self.keelctl()  # asks for a look
        self.await_why(STB1, r"the SNAT rule for \S+ is not in POSTROUTING_zep", 5)
        lab.network.run("gateway", "iptables", "-t", "nat", "-A", *snat)
        self.await_served(STB1, 10)
        self.assertTrue(self.headline().endswith(" served"), self.headline())

    def test_7b_slow_look(self):
        """Changes that are told while the rules are being read keep nobody from hearing of the next."""
        lab = self.lab
        program = os.path.realpath("/usr/sbin/iptables-save")  # of several names
        copy = os.path.join(lab.folder, "copy")
        shutil.copy(program, copy)
        slow = os.path.join(lab.folder, "slow")
        with open(slow, "w", encoding="utf-8") as file:
            file.write('#!/bin/bash\n[ "${0##*/}" != iptables-save ] || sleep 2\n'
                       f'exec -a "${{0##*/}}" {copy} "$@"\n')
        os.chmod(slow, 0o755)
        subprocess.run(("mount", "--bind", slow, program), check=True)
        for operation in ("-N", "-X"):  # the second one while the first is looked at
            lab.network.run("gateway", "iptables", operation, "foreign")
            time.sleep(0.5)
        time.sleep(4)
        subprocess.run(("umount", "--lazy", program), check=True)  # it may just be in use
        lab.network.run("gateway", "iptables", "-t", "nat", "-F")
        self.assertTrue(wait_for(lambda: self.headline().startswith("0 of "), 5), self.headline())
        self.await_served(STB1, 70)

    def test_8_simplified(self):
        lab = self.lab
        self.assertTrue(lab.keel.set(f"Hosts.Host.{lab.mac(STB1)}", Tags="lan"))
        self.assertTrue(lab.keel.set("Keel.Zephyrin", Mode="Simplified"))
        self.await_why(STB1, f'Hosts.Host.{lab.mac(STB1)} is not tagged "stb"')
        # One that comes to the LAN, and never asks for an address.
        if PC.name in lab.clients:
            lab.stop_device(PC)
        lab.network.run(PC.name, "ip", "link", "set", "eth0", "down")
        lab.network.run(PC.name, "ip", "link", "set", "eth0", "address", "02:00:00:00:00:99")
        lab.network.run(PC.name, "ip", "link", "set", "eth0", "up")
        self.assertTrue(wait_for(lambda: lab.keel.get(f"Hosts.Host.{lab.mac(PC)}", "Active"), 20))
        lab.tag_stb(PC)
        self.await_why(PC, "it was seen with no IPv4 address")

        broken = os.path.join(lab.folder, "broken.sh")
        with open(broken, "w", encoding="utf-8") as file:
            file.write("#!/bin/sh\necho no such chain >&2\nexit 4\n")
        os.chmod(broken, 0o755)
        subprocess.run(("mount", "--bind", broken, FIREWALL), check=True)
        lab.tag_stb(STB1)
        self.await_why(STB1, r"script failed with zep_firewall\.sh aux_rules A 192\.168\.1\.\d+: status 4, no such chain")
        subprocess.run(("umount", FIREWALL), check=True)
        self.assertTrue(lab.keel.set(f"Hosts.Host.{lab.mac(STB1)}", Tags="lan"))
        self.assertTrue(lab.keel.set(f"Hosts.Host.{lab.mac(STB1)}", Tags="lan stb"))
        self.assertTrue(wait_for(lambda: self.keelctl("why", lab.mac(STB1))[1] == 0, 20),
                        self.keelctl("why", lab.mac(STB1)))
        lab.change_data_address("del")
        self.await_why(STB1, f'no device below "data" is up with an address: {DATA} has no IPv4 address')


class FullTest(OnALab):
    """More STBs than are served at a time."""

    devices = tuple(Device(f"stb{number}", "zep-stb", f"lan{number}", "zep_stb") for number in range(1, 6))

    def test_all_slots_taken(self):
        *served, late = self.devices
        for device in served:
            self.lab.start_device(device)
        for device in served:
            self.await_served(device)
        self.lab.start_device(late)
        names = [f"zep-stb-{self.lab.mac(device)[-5:]}" for device in served]
        told = self.await_why(late, "4 of 4 identities are in use by [^;]*; all of them are there")
        self.assertTrue(all(name in told for name in names), told)
        self.lab.stop_device(served[-1])
        self.lab.set_link(served[-1].port, "down")
        slots = {one["mac"].lower(): one.get("slot") for one in json.loads(self.keelctl("-S")[0])["stbs"]}
        last_slot = slots[self.lab.mac(served[-1]).lower()] == 3  # which goes with its lease
        self.await_why(late, f"the first to go is {names[-1]}, in " + ("2[34] h" if last_slot else "(7[12] h|3 days)"))


class MonoClientTest(OnALab):
    def test_mono_client(self):
        first, second = STB1, STB2
        self.assertTrue(self.lab.keel.set("Keel.Zephyrin", MonoClient="true"))
        self.lab.start_device(first)
        self.await_served(first)
        self.lab.start_device(second)
        self.await_why(second, f"MonoClient is on and zep-stb-{self.lab.mac(first)[-5:]} is served")


if __name__ == "__main__":
    unittest.main(verbosity=2)

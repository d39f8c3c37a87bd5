"""What keelctl gathers of a gateway for somebody who is not there, on a real network.

Runs inside namespaces of its own: script/in-namespaces python3 tests/evidence_test.py PROGRAMS
"""

import fcntl
import ipaddress
import json
import os
import pty
import re
import select
import signal
import struct
import subprocess
import tarfile
import termios
import time
import unittest
import xml.etree.ElementTree

from on_lab import PROGRAMS, build_lab  # first: it finds the lab
from lab import DEVICE_PORT, DEVICES, HERE, IPTV, SERVER_ADDRESS, SERVER_PORT
from multicast import Member, Stream, plays
from network import NETNS, wait_for

KEELCTL = os.path.join(PROGRAMS, "keelctl")
STB1, STB2, ITF, PC = DEVICES
MAC = re.compile(r"(?:[0-9A-Fa-f]{2}:){5}[0-9A-Fa-f]{2}")


def is_mask(mac):
    return mac.startswith("ee:ee:ee:ee:")


def link_local(mac):
    """The IPv6 address that the kernel makes of a MAC address."""
    six = bytes.fromhex(mac.replace(":", ""))
    return str(ipaddress.IPv6Address(b"\xfe\x80" + bytes(6) + bytes((six[0] ^ 2,)) + six[1:3] + b"\xff\xfe" + six[3:]))


class EvidenceTest(unittest.TestCase):
    @classmethod
    def setUpClass(cls):
        cls.lab = build_lab(cls.addClassCleanup)
        cls.lab.start_operator()
        cls.lab.start_multicast_router()
        cls.lab.start_gateway()
        cls.lab.start_device(STB1)
        cls.lab.start_device(PC)
        if not wait_for(lambda: cls.lab.served_as(STB1) and cls.lab.address(PC), 40):
            raise RuntimeError(cls.lab.network.log("gateway.log")[-3000:])

    def file(self, name):
        return os.path.join(self.lab.folder, name)

    def on_gateway(self, *words, check=True, env=None):
        """What keelctl prints on the gateway itself, where it sees its network."""
        done = subprocess.run(("nsenter", f"--net={NETNS}/gateway", KEELCTL, "--socket", self.lab.socket, *words),
                              capture_output=True, text=True, errors="replace", timeout=60, check=False, env=env)
        if check:
            self.assertEqual(done.returncode, 0, done.stderr)
        return done

    def archive(self, *words, **more):
        """The texts of an archive by their names, without the folder that they are in."""
        file = self.file("evidence.tgz")
        done = self.on_gateway("diagnose", "-o", file, *words, **more)
        with tarfile.open(file) as archive:
            return done, {one.name.split("/", 1)[1]: archive.extractfile(one).read().decode() for one in archive}

    # ------------------------------------------------------------------------------------------ diagnose

    def test_1_archive_is_whole_and_masked(self):
        lab = self.lab
        mac, wan = lab.mac(STB1), lab.link_address("gateway", IPTV)
        lab.network.run("gateway", "iptables", "-A", "FORWARD_ZEP", "-m", "mac", "--mac-source", mac, "-j", "ACCEPT")
        self.on_gateway("set", "Keel.Zephyrin", "Status=seen " + mac.replace(":", "-") + " as 0x" +
                        ("id " + mac).encode().hex())
        _, full = self.archive("--full")
        done, texts = self.archive()
        self.assertEqual(os.stat(self.file("evidence.tgz")).st_mode & 0o777, 0o600)
        self.assertEqual(set(full), set(texts))
        for name, words in {"status.txt": "1 of 1 STB served", "why.txt": "is served", "traces.txt": "mode init",
                            "model.txt": "Keel.Zephyrin.Mode=Routed", "iptables.txt": "--to-source 10.20.0.",
                            "ebtables.txt": "FORWARD_Isolation", "addresses.txt": IPTV, "routes.txt": "10.60.0.0/24 via",
                            "neighbours.txt": "br-lan", "bridge-addresses.txt": STB1.port,
                            "bridge-groups.txt": "br-lan", "daemon/command.txt": "--store",
                            "daemon/process.txt": "VmRSS", "daemon/keelhost.toml": "mode",
                            "versions/iptables.txt": "iptables v"}.items():
            self.assertIn(words, texts[name], name)

        everything = "\n".join(texts.values())
        for secret in (mac, lab.mac(PC), wan):
            bare = secret.replace(":", "")
            for form in (secret, bare, secret.replace(":", "-"), bare.encode().hex(), secret.upper().encode().hex(),
                         link_local(secret)):
                self.assertNotIn(form.lower(), everything.lower())
        self.assertNotIn(f"zep-stb-{mac[-5:]}", everything)
        self.assertIn(f"zep-stb-{mac[-5:]}", full["status.txt"])
        self.assertIn(link_local(wan), full["addresses.txt"])
        strangers = {one for one in MAC.findall(everything)
                     if not is_mask(one) and not int(one[:2], 16) & 1 and one != "00:00:00:00:00:00"}
        self.assertEqual(strangers, set())
        # One device has one mask: what stood together stands together.
        mask = next(line for line in texts["model.txt"].splitlines() if re.match(r"Hosts\.Host\..*Tags=.*stb", line)
                    ).split(".")[2]
        self.assertTrue(is_mask(mask))
        self.assertIn(f"--mac-source {mask}", texts["iptables.txt"].lower())
        self.assertIn(f"Lease.01{mask.replace(':', '')}.", texts["model.txt"])
        self.assertIn("Status=seen " + mask.replace(":", "-"), texts["model.txt"])
        self.assertIn(f"{mask} dev {STB1.port}", texts["bridge-addresses.txt"])
        self.assertEqual(MAC.sub("", texts["bridge-addresses.txt"]).splitlines()[:3],
                         MAC.sub("", full["bridge-addresses.txt"]).splitlines()[:3])
        self.assertIn(mac, full["model.txt"])

    def test_2_what_is_missing_is_said(self):
        """On a machine with no system programs but one that fails and one that hangs, and without a host."""
        folder = self.file("few-programs")
        os.mkdir(folder)
        for name, text in {"iptables-save": "echo partly; exit 3", "ss": "exec sleep 60"}.items():
            with open(os.path.join(folder, name), "w", encoding="utf-8") as file:
                file.write(f"#!/bin/sh\n{text}\n")
            os.chmod(os.path.join(folder, name), 0o755)
        done = subprocess.run(("unshare", "--mount", "sh", "-c", 'mount -t tmpfs none /usr/sbin; exec "$@"', "sh", KEELCTL,
                               "--socket", "/nowhere", "diagnose", "-o", self.file("alone.tgz")), capture_output=True,
                              text=True, timeout=60, check=False, env={"PATH": f"{folder}:/usr/bin:/bin"})
        self.assertEqual(done.returncode, 2, done.stderr)
        self.assertIn("the host does not answer", done.stderr)
        with tarfile.open(self.file("alone.tgz")) as archive:
            texts = {one.name.split("/", 1)[1]: archive.extractfile(one).read().decode() for one in archive}
        self.assertIn("cannot be had: /nowhere: No such file", texts["status.txt"])
        self.assertEqual(texts["iptables.txt"], "$ iptables-save -c\npartly\n[exit status 3]\n")
        self.assertIn("did not end within 10 s", texts["udp-ports.txt"])
        self.assertIn("there is no such program", texts["ebtables.txt"])
        self.assertIn("lo: ", texts["addresses.txt"])

    # ------------------------------------------------------------------------------------------- capture

    def read_capture(self, file, *words):
        """What another program reads in a file of packets."""
        done = subprocess.run(("tcpdump", "-n", "-e", "-v", "-r", file, *words), capture_output=True, text=True, timeout=20,
                              check=True)
        return done.stdout

    def test_3_capture_of_both_sides(self):
        """From an STB's first packet on: its own exchanges on both sides are in one file, and those of others are not."""
        lab, file = self.lab, self.file("stb2.pcapng")
        capture = lab.network.spawn("gateway", KEELCTL, "--socket", lab.socket, "capture", lab.mac(STB2), "-o", file,
                                    log="capture.log")
        self.assertTrue(wait_for(lambda: "capturing" in lab.network.log("capture.log"), 10))
        lab.start_device(STB2)
        wan = wait_for(lambda: lab.served_as(STB2), 60)
        self.assertTrue(wan, lab.network.log("gateway.log")[-3000:])
        lab.renew_wan_leases()  # of all clients
        lab.connect(PC.name, STB1.name, lab.address(STB1), DEVICE_PORT)
        lab.served_as(STB1)
        self.assertTrue(wait_for(lambda: lab.connect(STB2.name, "server", SERVER_ADDRESS, SERVER_PORT), 10))
        self.assertEqual(lab.network.stop(capture, signal.SIGINT), 0, lab.network.log("capture.log"))

        # What went through its mapping is counted.
        stb = next(one for one in lab.keel.status()["stbs"] if one["mac"] == lab.mac(STB2))
        self.assertEqual((stb["state"], stb["rules"], stb["port"]), ("served", "in_kernel", STB2.port))
        self.assertTrue(stb["packets_out"] > 2 and stb["packets_in"] > 2, stb)

        told = self.read_capture(file)
        address, other = lab.address(STB2), lab.mapped(lab.address(STB1))
        for words in (f"{address}.* > {SERVER_ADDRESS}", f"{wan}.* > {SERVER_ADDRESS}", "DHCP-Message.*Discover",
                      "Your-IP " + address, "Your-IP " + wan):
            self.assertRegex(told, words)
        for words in (other, lab.address(STB1), lab.address(PC), lab.mac(PC).lower()):
            self.assertNotRegex(told, rf"{re.escape(words)}\b")
        # Of the operator's answers those of this client alone, from the first on.
        identifiers = set(re.findall(r"Client-ID[^\n]*ether (\S+)", told))
        own = lab.keel.get(f"Weft.Intf.{self.client_of(STB2)}.SentOption.61", "Value")
        self.assertEqual({one.replace(":", "") for one in identifiers} - {lab.mac(STB2).lower().replace(":", "")}, {own[2:]})
        self.assertEqual(os.stat(file).st_mode & 0o777, 0o600)
        with open(file, "rb") as raw:
            names = re.findall(rb"\x02\0.\0(lan2|eth1\.20)", raw.read())
        self.assertEqual(sorted(names), [IPTV.encode(), STB2.port.encode()])

    def client_of(self, device):
        """The interface of the device's WAN client."""
        found = next(one for one in self.lab.keel.status()["identities"]
                     for known in one["devices"] if known["mac"] == self.lab.mac(device))
        return "dhcp_zep_" + found["name"]

    def test_4_capture_ends_by_itself(self):
        done = self.on_gateway("capture", self.lab.mac(STB1), "-t", "1", "-o", "-")
        self.assertIn("IPTV side", done.stderr)
        done = self.on_gateway("capture", "nobody", check=False)
        self.assertEqual((done.returncode, done.stdout), (1, ""))
        self.assertIn('no device is known by "nobody"', done.stderr)

    # ----------------------------------------------------------------------------------------------- top

    def live_view(self, columns, rows, until, env=None):
        """What "top" writes on a terminal until these words are on it, with Ctrl-C typed then."""
        shown = ""
        pid, terminal = pty.fork()
        if pid == 0:
            fcntl.ioctl(0, termios.TIOCSWINSZ, struct.pack("HHHH", rows, columns, 0, 0))
            os.execve(KEELCTL, (KEELCTL, "--socket", self.lab.socket, "top"), {**os.environ, **(env or {})})
        before = termios.tcgetattr(terminal)
        end = time.monotonic() + 20
        # A typed Ctrl-C makes the terminal forget what it has not shown yet: the screen has to be whole.
        while "\x1b[J" not in shown.partition(until)[2] and time.monotonic() < end:
            if select.select((terminal,), (), (), 0.2)[0]:
                shown += os.read(terminal, 65536).decode()
        os.write(terminal, b"\x03")
        status = os.waitstatus_to_exitcode(os.waitpid(pid, 0)[1])
        after = termios.tcgetattr(terminal)
        while select.select((terminal,), (), (), 0.2)[0]:
            try:
                shown += os.read(terminal, 65536).decode()
            except OSError:
                break
        os.close(terminal)
        self.assertEqual((status, after), (0, before), shown)
        self.assertIn(until, shown)
        self.assertTrue(shown.endswith("\x1b[?25h\x1b[?1049l"), "cursor and screen are as they were")
        return shown

    def test_5_live_view(self):
        lab = self.lab
        shown = self.live_view(60, 12, "served\x1b[0m")
        screen = shown.split("\x1b[H")[-1].split("\x1b[J")[0].split("\r\n")
        self.assertLessEqual(len(screen), 12)
        self.assertLessEqual(max(len(re.sub(r"\x1b\[[0-9;]*[mK]", "", line)) for line in screen), 60)
        self.assertRegex(shown, rf"zep-stb-{lab.mac(STB1)[-5:]}     \x1b\[32mserved  \x1b\[0m {lab.address(STB1)} +{lab.mapped(lab.address(STB1))}")
        self.assertIn("lines more", screen[-1])
        lab.stop_operator()
        lab.start_device(ITF)
        shown = self.live_view(80, 24, "waits for the operator since", {"NO_COLOR": "1"})
        self.assertRegex(shown, rf"zep-itf-{lab.mac(ITF)[-5:]}     held ")
        self.assertNotRegex(shown, r"\x1b\[[0-9]+m")
        lab.start_operator()

        piped = subprocess.Popen((KEELCTL, "--socket", lab.socket, "top"), stdout=subprocess.PIPE, text=True)
        first = piped.stdout.readline()
        piped.send_signal(signal.SIGINT)
        self.assertEqual(piped.wait(5), 0)
        self.assertRegex(first, rf"^IPTV  {IPTV}, enabled, Routed over the Dedicated interface, MonoClient off, ")
        self.assertNotIn("\x1b", first + piped.stdout.read())
        piped.stdout.close()

    # ------------------------------------------------------------------------------------------ timeline

    def timeline(self, *words):
        return [json.loads(line) for line in self.on_gateway("-S", "timeline", *words).stdout.splitlines()]

    def test_6_timeline(self):
        lab = self.lab
        stream, member = Stream(lab.network, "server", SERVER_ADDRESS), Member(lab.network, STB1.name, lab.address(STB1))
        self.assertTrue(plays(member, 60), "the stream does not arrive")
        rates = lambda: [int(event["what"]) for event in self.timeline() if event["kind"] == "stream"]
        self.assertTrue(wait_for(lambda: rates() and abs(rates()[-1] - 50) < 15, 15), rates())  # 50 packets a second
        for one in (stream, member):
            one.close()
        self.assertTrue(wait_for(lambda: rates()[-1] == 0, 15), rates())
        lab.network.spawn(ITF.name, "udhcpc", "-f", "-i", "eth0", "-s", f"{HERE}/device-dhcp.sh", "-V", ITF.vendor_class,
                          "-x", "hostname:<script>alert(1)</script>", log="named.log")
        self.assertTrue(wait_for(lambda: lab.served_as(ITF), 100), "the ITF device that was held is not served")
        events = self.timeline()
        self.assertEqual([event["timeline"] for event in events], sorted(event["timeline"] for event in events))

        # The whole way of one STB, from its first packet to its picture.
        mac, address, client = lab.mac(STB2), lab.address(STB2), self.client_of(STB2)
        wan = lab.mapped(address)
        way = [(event["kind"], event["what"], event["text"]) for event in events
               if event["who"] in (mac, client) or (event["kind"] == "rule" and wan in event["text"])]
        steps = [("lan", "DISCOVER", ""), ("lease", "held", address), ("state", "held", "dark"), ("wan", "DISCOVER", ""),
                 ("wan", "ACK", wan), ("client", "Bound", wan),
                 ("rule", "done", f"/usr/sbin/iptables -t nat -A POSTROUTING_zep -s {address} -j SNAT --to-source {wan}"),
                 ("lease", "released", address), ("lan", "OFFER", address), ("state", "served", "held"),
                 ("lan", "ACK", address)]
        self.assertEqual([step for step in way if step in steps][:len(steps)], steps)
        self.assertIn(("route", "Enabled", "10.60.0.0/24 via 10.20.0.1"),
                      [(event["kind"], event["what"], event["text"]) for event in events])

        page = self.file("timeline.html")
        self.on_gateway("timeline", "-o", page)
        with open(page, encoding="utf-8") as file:
            told = file.read()
        later = self.timeline()  # meanwhile something may have happened
        for kind, drawn_as in (("lan", "arrow lan "), ("wan", "arrow wan "), ("rule", "rule ")):
            drawn = len(re.findall(f'class="{drawn_as}', told))
            earliest, latest = (sum(event["kind"] == kind and event["who"] != lab.mac(PC) for event in known)
                                for known in (events, later))
            self.assertTrue(0 < earliest <= drawn <= latest, (kind, earliest, drawn, latest))
        self.assertEqual(len(re.findall('class="strip"', told)), 3)
        self.assertRegex(told, r'class="stream"><text [^>]*>239\.1\.2\.3, up to \d\d/s.*<title>239\.1\.2\.3: \d\d packets per')
        self.assertIn(f"61 client identifier: 01{mac.replace(':', '').lower()}", told)
        self.assertIn("42 NTP servers: 10.20.0.2", told)
        self.assertRegex(told, r'class="arrow lan held"><title>DISCOVER ' + lab.mac(ITF))
        self.assertIn("&lt;script&gt;alert(1)", told)
        for foreign in ("<script", lab.mac(PC), "href", "src=", "url("):
            self.assertNotIn(foreign, told)
        picture = self.file("timeline.svg")
        self.on_gateway("timeline", "-o", picture)
        self.assertEqual(xml.etree.ElementTree.parse(picture).getroot().tag, "{http://www.w3.org/2000/svg}svg")

        self.assertLess(len(self.timeline("--since", "0s")), len(events) / 2)
        refused = self.on_gateway("timeline", "--since", "yesterday", check=False)
        self.assertEqual((refused.returncode, "is no time" in refused.stderr), (1, True))
        # What began before the time that is drawn is drawn as it was.
        self.on_gateway("timeline", "--since", "0s", "-o", page)
        with open(page, encoding="utf-8") as file:
            strips = re.findall(r'class="strip".*', file.read())
        self.assertFalse([strip for strip in strips if "dark" in strip], strips)

    def test_7_a_host_that_hangs(self):
        """Nobody waits for it without end: the archive holds all the rest."""
        host = next(pid for pid, name in self.lab.processes().items() if name == "keelhost")
        os.kill(host, signal.SIGSTOP)
        try:
            done, texts = self.archive(check=False)
        finally:
            os.kill(host, signal.SIGCONT)
        self.assertEqual(done.returncode, 2, done.stderr)
        self.assertIn("the host has not answered for 10 s", texts["status.txt"])
        self.assertIn("the host does not answer", texts["model.txt"])
        self.assertIn("-A PREROUTING_zep_DROP -j DROP", texts["iptables.txt"])
        self.assertTrue(wait_for(lambda: self.on_gateway(check=False).returncode == 0, 20), "it answers again")


if __name__ == "__main__":
    unittest.main(verbosity=2)

"""What keelctl gathers of a gateway for somebody who is not there, on a real network.

Runs inside namespaces of its own: script/in-namespaces python3 tests/evidence_test.py PROGRAMS
"""

import ipaddress
import os
import re
import shutil
import subprocess
import sys
import tarfile
import tempfile
import unittest

ROOT = os.path.dirname(os.path.dirname(os.path.abspath(__file__)))
sys.path.insert(0, os.path.join(ROOT, "lab"))

from lab import DEVICES, IPTV, Lab  # noqa: E402
from network import NETNS, wait_for  # noqa: E402

PROGRAMS = os.path.abspath(sys.argv.pop(1))
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
        cls.folder = tempfile.mkdtemp(dir="/run")
        cls.lab = Lab(PROGRAMS, os.path.join(ROOT, "share"), cls.folder)
        cls.lab.build()
        cls.lab.start_operator()
        cls.lab.start_gateway()
        cls.lab.start_device(STB1)
        cls.lab.start_device(PC)
        if not wait_for(lambda: cls.lab.served_as(STB1) and cls.lab.address(PC), 40):
            raise RuntimeError(cls.lab.network.log("gateway.log")[-3000:])

    @classmethod
    def tearDownClass(cls):
        cls.lab.close()
        shutil.rmtree(cls.folder)

    def file(self, name):
        return os.path.join(self.folder, name)

    def on_gateway(self, *words, check=True, env=None):
        """What keelctl prints on the gateway itself, where it sees its network."""
        done = subprocess.run(("nsenter", f"--net={NETNS}/gateway", KEELCTL, "--socket", self.lab.socket, *words),
                              capture_output=True, text=True, timeout=60, check=False, env=env)
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
                            "daemon/process.txt": "VmRSS", "daemon/gateway.json": "Zephyrin",
                            "versions/iptables.txt": "iptables v"}.items():
            self.assertIn(words, texts[name], name)

        everything = "\n".join(texts.values())
        for secret in (mac, lab.mac(PC), wan):
            bare = secret.replace(":", "")
            for form in (secret, bare, secret.replace(":", "-"), bare.encode().hex(), secret.upper().encode().hex(),
                         link_local(secret)):
                self.assertNotIn(form.lower(), everything.lower())
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


if __name__ == "__main__":
    unittest.main(verbosity=2)

"""keelhost --check on a machine that gets one thing after the other that the host needs, and loses it again.

Runs inside namespaces of its own: script/in-namespaces python3 tests/check_test.py PROGRAMS
"""

import os
import shutil
import subprocess
import sys
import tempfile
import unittest

ROOT = os.path.dirname(os.path.dirname(os.path.abspath(__file__)))
PROGRAMS = os.path.abspath(sys.argv.pop(1))


def run(command):
    subprocess.run(("sh", "-ec", command), check=True)


class CheckTest(unittest.TestCase):
    def setUp(self):
        self.folder = tempfile.mkdtemp(dir="/run")
        self.settings = os.path.join(self.folder, "keelhost.toml")
        shutil.copy(os.path.join(ROOT, "share", "keelhost.toml"), self.settings)

    def tearDown(self):
        shutil.rmtree(self.folder)

    def write(self, text):
        with open(self.settings, "w", encoding="utf-8") as file:
            file.write(text)

    def check(self, *options):
        """The exit status, and what is said."""
        before = (sorted(os.listdir("/run")), os.listdir(self.folder))
        done = subprocess.run((os.path.join(PROGRAMS, "keelhost"), "--check", "--settings", self.settings, "--share",
                               os.path.join(ROOT, "share"), *options),
                              capture_output=True, text=True, timeout=20, check=False)
        self.assertEqual(done.stderr, "")
        self.assertEqual((sorted(os.listdir("/run")), os.listdir(self.folder)), before, "it touches nothing")
        return done.returncode, done.stdout.splitlines()

    def one(self, level, *words, options=()):
        """There is one finding, of that level and with these words."""
        status, lines = self.check(*options)
        self.assertEqual(len(lines), 1, lines)
        self.assertTrue(lines[0].startswith(level + ": ") and all(word in lines[0] for word in words), lines)
        self.assertEqual(status, 1 if level == "error" else 0)

    def test_what_the_machine_lacks_is_told(self):
        for make, lacks in (("", "the IPTV device eth1.20 does not exist: eth1 does not exist either"),
                            ("ip link add eth1 type veth peer name far", "type vlan id 20"),
                            ("ip link add eth1.20 type veth peer name far20; ip link set eth1.20 up", "eth1.10 does"),
                            ("ip link add eth1.10 type veth peer name far10", "the LAN bridge br-lan does not exist"),
                            ("ip link add br-lan type bridge", "br-lan is down"),
                            ("ip link set br-lan up", "ip address add 192.168.1.1/24 dev br-lan"),
                            ("ip address add 192.168.1.1/24 dev br-lan", "net.ipv4.ip_forward is 0")):
            run(make)
            status, lines = self.check()
            self.assertEqual(status, 1)
            self.assertIn(lacks, "\n".join(lines))
        run("echo 1 >/proc/sys/net/ipv4/ip_forward; cd /proc/sys/net/ipv4/conf; echo 2 >all/rp_filter")
        ready = self.check()
        self.assertEqual((ready[0], len(ready[1])), (0, 1), ready)
        self.assertFalse(ready[1][0].startswith(("error", "warning")))

        for spoil, mend, level, words in (
                ("echo 0 >/proc/sys/net/ipv4/ip_forward", "echo 1 >/proc/sys/net/ipv4/ip_forward", "error",
                 "must be 1"),
                ("cd /proc/sys/net/ipv4/conf; echo 0 >all/rp_filter; echo 1 >eth1.20/rp_filter",
                 "echo 0 >/proc/sys/net/ipv4/conf/eth1.20/rp_filter", "error", "rp_filter of eth1.20 is 1"),
                ("echo 1 >/proc/sys/net/ipv4/conf/all/rp_filter", "echo 0 >/proc/sys/net/ipv4/conf/all/rp_filter",
                 "error", "rp_filter of eth1.20 is 1"),
                ("ip link set eth1.20 down", "ip link set eth1.20 up", "warning", "eth1.20 is down"),
                ("mount --bind /dev/null /usr/bin/zep_firewall.sh", "umount /usr/bin/zep_firewall.sh", "warning",
                 "zep_firewall.sh is not there")):
            run(spoil)
            self.one(level, words)
            run(mend)
            self.assertEqual(self.check(), ready)
        self.one("error", "no-such-client is not found", options=("--udhcpc", "no-such-client"))
        self.one("error", "/nonexistent", options=("--igmpproxy", "/nonexistent"))
        self.write('[lan]\nbridge = "eth1.20"\n[iptv]\ninterface = "eth1"\n')
        status, lines = self.check()
        self.assertIn("warning: eth1.20 is no bridge: all devices are taken to be behind one port", lines)

    def test_mistakes_are_told_with_their_lines(self):
        self.write('[service]\nmode = "x"\n\n[stb]\nfirst = 1\n')
        status, lines = self.check()
        self.assertEqual(status, 1)
        self.assertEqual([line.split(": ")[:3] for line in lines],
                         [["error", f"{self.settings}:2", 'service.mode is "x"'],
                          ["error", f"{self.settings}:5", "stb.first is 1"]])
        model = os.path.join(self.folder, "model.json")
        with open(model, "w", encoding="utf-8") as file:
            file.write('{\n  "objects": 1\n}\n')
        self.one("error", model, options=("--model", model))
        self.settings = os.path.join(self.folder, "none.toml")
        self.one("error", self.settings, "No such file")

    def test_a_start_with_mistakes_touches_nothing(self):
        def touched():
            saved = [subprocess.run((f"{tables}-save",), capture_output=True, text=True, check=True).stdout
                     for tables in ("iptables", "ebtables")]
            rules = [line for text in saved for line in text.splitlines() if not line.startswith("#")]
            return rules, sorted(os.listdir("/run")), sorted(os.listdir(self.folder))

        model = os.path.join(self.folder, "model.json")
        with open(model, "w", encoding="utf-8") as file:
            file.write('{\n  "objects": 1\n}\n')
        self.write('[service]\nmode = "x"\n')
        before = touched()
        for options, wanted in (((), f"{self.settings}:2: service.mode"), (("--model", model), model)):
            done = subprocess.run((os.path.join(PROGRAMS, "keelhost"), "--settings", self.settings, "--share",
                                   os.path.join(ROOT, "share"), "--store", os.path.join(self.folder, "keel.db"),
                                   "--socket", os.path.join(self.folder, "keel.sock"), *options),
                                  capture_output=True, text=True, timeout=20, check=False)
            self.assertEqual(done.returncode, 1)
            self.assertIn(wanted, done.stderr)
            self.assertEqual(touched(), before)


if __name__ == "__main__":
    unittest.main(verbosity=2)

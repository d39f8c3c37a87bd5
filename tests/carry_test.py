"""keelctl export and import: what one box has learned and was set to serves the STBs of another.

Runs inside namespaces of its own: script/in-namespaces python3 tests/carry_test.py PROGRAMS
"""

import json
import os
import unittest

from on_lab import build_lab, keelctl  # first: it finds the lab
from lab import DEVICES
from network import wait_for

STB1, STB2 = DEVICES[:2]
FORMER_STB = "0102aabbccddee"  # of a device that was there once


class CarryTest(unittest.TestCase):
    maxDiff = None

    def setUp(self):
        self.lab = build_lab(self.addCleanup, (STB1, STB2))
        self.file = os.path.join(self.lab.folder, "box.json")
        self.lab.start_operator()
        self.lab.start_gateway()

    def keelctl(self, *words):
        return keelctl(self.lab, *words)

    def export(self):
        self.assertEqual(self.keelctl("export", "-o", self.file), (0, self.file + "\n", ""))
        with open(self.file, encoding="utf-8") as file:
            return json.load(file)

    def take_in(self, box):
        with open(self.file, "w", encoding="utf-8") as file:
            json.dump(box, file, indent=2)
        status, told, wrong = self.keelctl("import", self.file)
        self.assertEqual((status, wrong), (0, ""))
        return told

    def serve(self, device):
        """Has a device ask for its lease anew; the WAN address that it is served as."""
        if device.name in self.lab.clients:
            self.lab.stop_device(device)
        self.lab.start_device(device)
        return self.await_service(device)

    def await_service(self, device, wanted=None):
        wan = wait_for(lambda: (wan := self.lab.served_as(device)) and (wanted in (None, wan)) and wan, 40)
        self.assertTrue(wan, f"{device.name} is not served\n{self.lab.network.log('gateway.log')[-4000:]}")
        return wan

    def start_with_empty_store(self):
        self.assertEqual(self.lab.stop_gateway(), 0)
        for name in ("keel.db", "keel.db-wal", "keel.db-shm"):
            if os.path.exists(os.path.join(self.lab.folder, name)):
                os.remove(os.path.join(self.lab.folder, name))
        self.lab.start_gateway()

    def test_a_fresh_box_takes_the_place_of_another(self):
        as_second, as_first = self.serve(STB2), self.serve(STB1)  # the slots go by who came first
        self.assertNotEqual(as_first, as_second)
        self.assertTrue(self.lab.keel.set("Keel.Zephyrin.DHCPConfig", LeaseTime=7200))
        self.assertTrue(self.lab.keel.set("DHCPv4.Server.Pool.lan.Option.dns", Value="0a000001"))
        self.assertTrue(self.lab.keel.add("DHCPv4.Server.Pool.lan.Option", "domain", Enable="true", Tag=15,
                                          Value="686f6d65"))
        guest = "02:00:00:00:00:99"
        self.assertTrue(self.lab.keel.add("Hosts.Host", guest, MACAddress=guest, Tags="lan guest"))
        box = self.export()
        self.assertEqual(os.stat(self.file).st_mode & 0o777, 0o600, "it tells who lives there")
        self.assertEqual((len(box["identities"]), len(box["leases"])), (2, 2), box)
        self.assertEqual(box["tags"], {guest: "lan guest"})
        self.assertEqual(self.export(), box, "the same box is the same file")
        lan_addresses = [self.lab.address(device) for device in (STB1, STB2)]

        self.start_with_empty_store()
        told = self.take_in(box)
        self.assertIn("Keel.Zephyrin.DHCPConfig.LeaseTime is 7200 now, and was 86400", told)
        self.assertIn("2 leases of the LAN are added", told)
        self.assertEqual(self.export(), box)
        self.assertEqual([self.serve(STB1), self.serve(STB2)], [as_first, as_second], "whoever comes first now")
        self.assertEqual([self.lab.address(device) for device in (STB1, STB2)], lan_addresses)
        self.assertIn("no STB's service was touched", self.take_in(self.export()))

        # It is all in the store, and comes back when the box loses its power.
        self.assertEqual(self.lab.stop_gateway(9), -9)
        self.lab.start_gateway()
        self.await_service(STB2, as_second)
        again = self.export()
        self.assertEqual({**again, "tags": box["tags"]}, box)

    def test_stbs_that_are_served_get_the_files_identities(self):
        as_first, as_second = self.serve(STB1), self.serve(STB2)
        box = self.export()
        first, second = box["identities"].values()
        first["slot"], second["slot"] = second["slot"], first["slot"]
        box["identities"][FORMER_STB] = {"slot": 2, "devices": {FORMER_STB: {
            "type": "STB", "mac": "02:AA:BB:CC:DD:EE", "address": "192.168.1.39"}}}
        box["settings_file"]["lan.bridge"] = "br9"
        box["wan_mac"] = "02:00:00:00:00:77"
        told = self.take_in(box)
        self.assertIn(f"identity {FORMER_STB} has slot 2, STB 02:AA:BB:CC:DD:EE at 192.168.1.39", told)
        self.assertIn("the routed mode was left and entered again", told)
        self.assertIn('set wan.mac = "02:00:00:00:00:77"', told)
        self.assertIn("lan.bridge is br9 there, left to its default here", told)
        self.await_service(STB1, as_second)
        self.await_service(STB2, as_first)
        self.assertEqual(self.export()["identities"], box["identities"])

    def test_a_file_with_a_mistake_changes_nothing(self):
        wan = self.serve(STB1)
        box = self.export()
        rules = self.lab.network.run("gateway", "iptables-save", "-t", "nat").split("*nat")[1]
        lease, identity = next(iter(box["leases"])), next(iter(box["identities"]))

        def changed(change):
            other = json.loads(json.dumps(box))
            other["settings"]["Keel.Zephyrin"]["MonoClient"] = True  # which is right
            change(other)
            return json.dumps(other, indent=2)

        def twice(other):
            other["identities"]["second"] = other["identities"][identity]

        mistakes = {
            "line 2: it is no JSON": '{\n  "format": "keel-export"',
            "format: this is no file of keelctl export": "[" * 200_000 + "]" * 200_000,
            "the file:": '{"version": 1e999}',
            "version: the file has form 2": changed(lambda other: other.update(version=2)),
            "leases: it is missing": changed(lambda other: other.pop("leases")),
            "hosts: there is no such member": changed(lambda other: other.update(hosts={})),
            'Mode: "Bridge" is not one of Bridged, Routed':
                changed(lambda other: other["settings"]["Keel.Zephyrin"].update(Mode="Bridge")),
            'LeaseTime: "-1" is no value of type uint32':
                changed(lambda other: other["settings"]["Keel.Zephyrin.DHCPConfig"].update(LeaseTime=-1)),
            "settings.Steward: there is no such object": changed(lambda other: other["settings"].update(Steward={})),
            f"leases.{lease}.address: 192.168.1.200 is not in the range of zep_stb here":
                changed(lambda other: other["leases"][lease].update(address="192.168.1.200")),
            f"leases.{lease}.mac: it must be a text": changed(lambda other: other["leases"][lease].update(mac=7)),
            f"identities.{identity}.slot: it must be a whole number from -1 to 4":
                changed(lambda other: other["identities"][identity].update(slot=2**64 - 1)),
            f"identities.second: it has slot 0, as identities.{identity} has": changed(twice),
            f"identities.{identity}.devices: it must be an object":
                changed(lambda other: other["identities"][identity].update(devices=[])),
            "options.lan.dns.value: it must be hexadecimal":
                changed(lambda other: other["options"]["lan"]["dns"].update(value="c0a8010")),
            "format: this is no file of keelctl export": '{"format":' + "[" * 250000 + "]" * 250000 + "}",
            "tags.x:": changed(lambda other: other["tags"].update(x="lan")),
        }
        for wanted, text in mistakes.items():
            with open(self.file, "w", encoding="utf-8") as file:
                file.write(text)
            status, told, wrong = self.keelctl("import", self.file)
            self.assertEqual((status, told), (1, ""), wanted)
            self.assertIn(wanted, wrong)
            self.assertTrue(wrong.rstrip().endswith("nothing is taken over"), wrong)
        self.assertEqual(self.keelctl("import", os.path.join(self.lab.folder, "none"))[0], 1)
        self.assertEqual(self.export(), box)
        self.assertEqual(self.lab.network.run("gateway", "iptables-save", "-t", "nat").split("*nat")[1].split("COMMIT")[0],
                         rules.split("COMMIT")[0])
        self.assertEqual(self.lab.served_as(STB1), wan)


if __name__ == "__main__":
    unittest.main(verbosity=2)

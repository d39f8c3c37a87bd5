"""What a device's DHCP exchange (DISCOVER, OFFER, REQUEST, ACK) costs keelhost's LAN server, dnsmasq and Kea as their
leases grow: script/benchmark runs it in its namespaces.

Each server stands on the same bridge, with its lease store as it comes, and serves the same devices: new ones up to each
number of leases, some more of them there, and as many known ones. The cost is the time that the server's process was
running on a processor, as the kernel counts it; keelhost's holds all else that it does for a device, such as keeping
"Hosts". dnsmasq does not ping an address before it offers it, which it would wait 3 s for; keelhost does ask by ARP.
"""

import glob
import json
import os
import socket
import struct
import sys
import tempfile
import time

ROOT = os.path.dirname(os.path.dirname(os.path.abspath(__file__)))
sys.path.insert(0, os.path.join(ROOT, "lab"))

from network import Network, wait_for  # noqa: E402

SIZES = (10, 100, 1000, 10000)
MEASURED = 100   # exchanges at each size, of each kind
AT_ONCE = 32     # exchanges on their way
DISCOVER, OFFER, REQUEST, ACK = 1, 2, 3, 5
COOKIE = b"\x63\x82\x53\x63"
SERVER, LOW, HIGH = "10.64.0.1", "10.64.1.0", "10.64.63.254"


def checksum(data):
    total = sum(struct.unpack(f"!{len(data) // 2}H", data))
    while total > 0xFFFF:
        total = (total >> 16) + (total & 0xFFFF)
    return ~total & 0xFFFF


class Devices:
    """Many DHCP clients behind one cable."""

    def __init__(self, network):
        self._socket = network.socket("devices", socket.AF_PACKET, socket.SOCK_RAW, socket.htons(0x0800))
        self._socket.bind(("cable", 0))
        self._socket.setsockopt(socket.SOL_SOCKET, socket.SO_RCVBUF, 8 << 20)
        self._socket.settimeout(0.2)

    @staticmethod
    def _mac(number):
        return b"\x02\x01" + struct.pack("!I", number)

    def _send(self, number, kind, options=b""):
        """The transaction tells the number; it is not 0, with which one of the servers does nothing."""
        mac = self._mac(number)
        message = struct.pack("!BBBBIHHIIII16s192s", 1, 1, 6, 0, number + 1, 0, 0, 0, 0, 0, 0, mac, b"") + COOKIE
        message += bytes((53, 1, kind)) + options + b"\xff"
        udp = struct.pack("!HHHH", 68, 67, 8 + len(message), 0) + message
        header = struct.pack("!BBHHHBBHII", 0x45, 0, 20 + len(udp), 0, 0, 64, 17, 0, 0, 0xFFFFFFFF)
        header = header[:10] + struct.pack("!H", checksum(header)) + header[12:]
        self._socket.send(b"\xff" * 6 + mac + b"\x08\x00" + header + udp)

    def _answer(self):
        """The device's number, the kind, the address and the server of one answer, or None."""
        try:
            frame = self._socket.recv(2048)
        except TimeoutError:
            return None
        if len(frame) < 282 or frame[23] != 17 or frame[36:38] != b"\x00\x44" or frame[42] != 2:
            return None
        kind = server = None
        at = 282
        while at + 1 < len(frame) and frame[at] != 255:
            if frame[at] == 0:
                at += 1
                continue
            value = frame[at + 2:at + 2 + frame[at + 1]]
            kind = value[0] if frame[at] == 53 else kind
            server = value if frame[at] == 54 else server
            at += 2 + len(value)
        return struct.unpack("!I", frame[46:50])[0] - 1, kind, frame[58:62], server

    def exchange(self, numbers):
        """Lets each of the devices get its lease; ends the program when one does not."""
        waiting = list(reversed(numbers))
        under_way = {}  # number -> when it has last asked
        end = time.monotonic() + 120
        while waiting or under_way:
            now = time.monotonic()
            if now > end:
                sys.exit(f"{len(waiting) + len(under_way)} devices were not served")
            for number in [one for one, asked in under_way.items() if now - asked > 3]:
                under_way[number] = now
                self._send(number, DISCOVER)
            while waiting and len(under_way) < AT_ONCE:
                under_way[waiting[-1]] = now
                self._send(waiting.pop(), DISCOVER)
            answer = self._answer()
            if not answer or answer[0] not in under_way:
                continue
            number, kind, address, server = answer
            if kind == OFFER:
                self._send(number, REQUEST, b"\x32\x04" + address + b"\x36\x04" + server)
            elif kind == ACK:
                del under_way[number]


def running_us(process):
    """How long the threads of a process have been running, us."""
    total = 0
    for file in glob.glob(f"/proc/{process.pid}/task/*/schedstat"):
        with open(file, encoding="ascii") as figures:
            total += int(figures.read().split()[0])
    return total / 1000


def start_keelhost(network, build):
    with open(os.path.join(ROOT, "share/gateway.json"), encoding="utf-8") as file:
        model = json.load(file)
    pool = model["objects"]["DHCPv4"]["objects"]["Server"]["objects"]["Pool"]["instances"]["lan"]
    pool["values"] = {"Router": SERVER, "SubnetMask": "255.255.0.0"}
    pool["instances"]["Rule"]["1"]["values"] = {"MinAddress": LOW, "MaxAddress": HIGH}
    path = os.path.join(network.folder, "model.json")
    with open(path, "w", encoding="utf-8") as file:
        json.dump(model, file)
    return network.spawn("server", os.path.join(build, "keelhost"), "--model", path,
                         "--store", os.path.join(network.folder, "keel.db"),
                         "--socket", os.path.join(network.folder, "keel.sock"),
                         "--share", os.path.join(ROOT, "share"), "--plugin", os.path.join(build, "zephyrin.so"),
                         log="keelhost.log", env={"WAN_ADDR": "02:1a:2b:3c:4d:5e"})


def start_dnsmasq(network, _):
    return network.spawn("server", "dnsmasq", "--keep-in-foreground", "--conf-file=/dev/null", "--user=root", "--port=0",
                         "--interface=br-lan", "--bind-interfaces", "--no-ping", "--dhcp-authoritative",
                         "--quiet-dhcp", "--dhcp-lease-max=20000", f"--dhcp-range={LOW},{HIGH},255.255.0.0,24h",
                         f"--dhcp-leasefile={network.folder}/dnsmasq.leases", f"--pid-file={network.folder}/dnsmasq.pid",
                         log="dnsmasq.log")


def start_kea(network, _):
    path = os.path.join(network.folder, "kea.conf")
    with open(path, "w", encoding="ascii") as file:
        json.dump({"Dhcp4": {
            "interfaces-config": {"interfaces": ["br-lan"]},
            "lease-database": {"type": "memfile", "name": f"{network.folder}/kea.leases"},
            "valid-lifetime": 86400, "authoritative": True,
            "subnet4": [{"id": 1, "subnet": "10.64.0.0/16", "pools": [{"pool": f"{LOW} - {HIGH}"}]}],
            "loggers": [{"name": "kea-dhcp4", "severity": "WARN", "output_options": [{"output": "stdout"}]}]}}, file)
    return network.spawn("server", "kea-dhcp4", "-c", path, log="kea.log",
                         env={"KEA_PIDFILE_DIR": network.folder, "KEA_LOCKFILE_DIR": network.folder})


SERVERS = (("keelhost", start_keelhost), ("dnsmasq", start_dnsmasq), ("Kea", start_kea))


def resident_kb(process):
    with open(f"/proc/{process.pid}/status", encoding="ascii") as status:
        return next(int(line.split()[1]) for line in status if line.startswith("VmRSS"))


def measure(network, devices, start, build):
    """us for a new device and for a known one at each size, and the memory at the end, kB."""
    process = start(network, build)
    time.sleep(2)  # until it listens
    if process.poll() is not None:
        sys.exit(f"{process.args[2]} has ended")
    new, known = [], []
    served = 0
    for size in SIZES:
        devices.exchange(range(served, size))
        served = size + MEASURED
        before = running_us(process)
        devices.exchange(range(size, served))
        between = running_us(process)
        devices.exchange(range(min(size, MEASURED)))
        after = running_us(process)
        new.append((between - before) / MEASURED)
        known.append((after - between) / min(size, MEASURED))
    memory = resident_kb(process)
    network.stop(process)
    return new, known, memory


def main():
    network = Network(tempfile.mkdtemp(dir="/run"))
    network.namespace("server")
    network.namespace("devices")
    network.link("server", "lan1", "devices", "cable")
    for words in ("link add br-lan type bridge", "link set lan1 master br-lan", "link set br-lan up",
                  f"addr add {SERVER}/16 dev br-lan", "link add eth1.20 type veth peer name wan"):
        network.run("server", "ip", *words.split())
    devices = Devices(network)
    try:
        print("us for each exchange      " + "".join(f"{size:>9}" for size in SIZES) + "   memory")
        for name, start in SERVERS:
            new, known, memory = measure(network, devices, start, os.path.abspath(sys.argv[1]))
            for kind, costs in (("new", new), ("known", known)):
                print(f"{name + ', a ' + kind + ' device':<26}" + "".join(f"{cost:9.0f}" for cost in costs) +
                      f"   {memory} kB" + f", x {costs[-1] / costs[0]:.2f}", flush=True)
    finally:
        network.close()


if __name__ == "__main__":
    main()

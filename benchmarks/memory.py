"""Resident memory of keelhost while it serves four STBs in the lab, and with 10,000 leases besides: script/benchmark runs
it in its namespaces."""

import json
import os
import signal
import socket
import sys
import tempfile

ROOT = os.path.dirname(os.path.dirname(os.path.abspath(__file__)))
sys.path.insert(0, os.path.join(ROOT, "lab"))

from lab import Device, Lab  # noqa: E402
from network import wait_for  # noqa: E402


LEASES = 10000


def show(lab, what):
    with open(f"/proc/{lab.gateway.pid}/status", encoding="ascii") as status:
        for line in status:
            if line.startswith(("VmRSS", "VmHWM", "RssAnon")):
                print(f"keelhost {what},", " ".join(line.split()))


def served(lab, devices):
    if not wait_for(lambda: all(lab.address(d) and lab.mapped(lab.address(d)) for d in devices), 60):
        sys.exit("the four STBs were not served")


def add_leases(lab):
    """Ordinary devices' leases, as the LAN server would have made them."""
    with socket.socket(socket.AF_UNIX) as control:
        control.connect(lab.socket)
        answers = control.makefile()
        for number in range(LEASES):
            high, low = divmod(number, 250)
            name = f"0102000000{number:04x}"
            values = {"ClientID": name, "IPAddress": f"10.64.{high}.{low + 1}",
                      "MACAddress": f"02:00:00:00:{number >> 8:02X}:{number & 255:02X}", "Expires": 4000000000}
            control.sendall(json.dumps({"op": "add", "path": "DHCPv4.Server.Pool.lan.Rule.1.Lease", "key": name,
                                        "values": values}).encode() + b"\n")
            if not json.loads(answers.readline())["ok"]:
                sys.exit("a lease was refused")


def main():
    devices = [Device(f"stb{number}", "zep-stb", f"lan{number}", "zep_stb") for number in range(1, 5)]
    lab = Lab(os.path.abspath(sys.argv[1]), os.path.join(ROOT, "share"), tempfile.mkdtemp(dir="/run"),
              devices=devices)
    try:
        lab.build()
        lab.start_operator()
        lab.start_gateway()
        lab.start_devices()
        served(lab, devices)
        show(lab, "with four STBs")
        add_leases(lab)
        show(lab, f"with {LEASES} leases added")
        lab.stop_gateway(signal.SIGKILL)
        lab.start_gateway()
        served(lab, devices)
        show(lab, f"started with {LEASES} leases")
    finally:
        lab.close()


if __name__ == "__main__":
    main()

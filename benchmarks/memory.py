"""Resident memory of keelhost while it serves four STBs in the lab: script/benchmark runs it in its namespaces."""

import os
import sys
import tempfile

ROOT = os.path.dirname(os.path.dirname(os.path.abspath(__file__)))
sys.path.insert(0, os.path.join(ROOT, "lab"))

from lab import Device, Lab  # noqa: E402
from network import wait_for  # noqa: E402


def main():
    devices = [Device(f"stb{number}", "zep-stb", f"lan{number}", "zep_stb") for number in range(1, 5)]
    lab = Lab(os.path.abspath(sys.argv[1]), os.path.join(ROOT, "share"), tempfile.mkdtemp(dir="/run"),
              devices=devices)
    try:
        lab.build()
        lab.start_operator()
        lab.start_gateway()
        lab.start_devices()
        if not wait_for(lambda: all(lab.address(d) and lab.mapped(lab.address(d)) for d in devices), 60):
            sys.exit("the four STBs were not served")
        with open(f"/proc/{lab.gateway.pid}/status", encoding="ascii") as status:
            for line in status:
                if line.startswith(("VmRSS", "VmHWM", "RssAnon")):
                    print("keelhost with four STBs,", " ".join(line.split()))
    finally:
        lab.close()


if __name__ == "__main__":
    main()

"""What the tests on a lab share: its programs, which the command line names, and a lab that goes with a test."""

import os
import shutil
import subprocess
import sys
import tempfile

ROOT = os.path.dirname(os.path.dirname(os.path.abspath(__file__)))
sys.path.insert(0, os.path.join(ROOT, "lab"))

from lab import DEVICES, Lab  # noqa: E402
from network import NETNS  # noqa: E402

PROGRAMS = os.path.abspath(sys.argv.pop(1))


def build_lab(add_cleanup, devices=DEVICES):
    """A lab with its network, in which nothing runs yet, in a folder of its own."""
    folder = tempfile.mkdtemp(dir="/run")
    add_cleanup(shutil.rmtree, folder)
    lab = Lab(PROGRAMS, os.path.join(ROOT, "share"), folder, devices=devices)
    add_cleanup(_take_down, lab)
    lab.build()
    return lab


def _take_down(lab):
    lab.close()
    for name in os.listdir(NETNS):
        subprocess.run(("ip", "netns", "del", name), check=True)


def keelctl(lab, *words):
    """Its exit status, and what it prints on stdout and stderr."""
    done = subprocess.run((os.path.join(PROGRAMS, "keelctl"), "--socket", lab.socket, *words), capture_output=True,
                          text=True, timeout=30, check=False)
    return done.returncode, done.stdout, done.stderr

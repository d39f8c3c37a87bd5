"""For a while, iptables and ebtables that misbehave."""

import contextlib
import os
import shutil
import subprocess
import tempfile

IPTABLES = "/usr/sbin/iptables"
NAMES = ("iptables", "iptables-save", "iptables-restore", "ebtables", "ebtables-save", "ebtables-restore")


@contextlib.contextmanager
def wrapped_tables(folder, first):
    """Whoever starts one of these programs runs a shell script first, which has the name as $0 and the arguments as $@.
    Only in the mount namespace of the tests."""
    program = os.path.realpath(IPTABLES)  # one for all of its names
    real = tempfile.mkdtemp(dir=folder)
    shutil.copy(program, os.path.join(real, "program"))
    for name in NAMES:
        os.symlink("program", os.path.join(real, name))
    wrapper = os.path.join(real, "wrapper")
    with open(wrapper, "w", encoding="ascii") as file:
        file.write(f'#!/bin/sh\n{first}\nexec {real}/"${{0##*/}}" "$@"\n')
    os.chmod(wrapper, 0o755)
    subprocess.run(("mount", "--bind", wrapper, program), check=True)
    try:
        yield
    finally:
        subprocess.run(("umount", "--lazy", program), check=True)  # some may still run, and find the real ones

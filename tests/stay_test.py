"""A lab that stays: Ctrl-C is the lab's alone, and then every proof of the clean-up holds; whatever ends the lab ends all
of its programs.

stay_test.py PROGRAMS
"""

import os
import pty
import select
import signal
import sys
import time
import unittest

ROOT = os.path.dirname(os.path.dirname(os.path.abspath(__file__)))
PROGRAMS = os.path.abspath(sys.argv.pop(1))
COMMAND = (os.path.join(ROOT, "script", "in-namespaces"), "/usr/bin/python3", "-B",
           os.path.join(ROOT, "lab", "main.py"), "--programs", PROGRAMS, "--share", os.path.join(ROOT, "share"),
           "--mode", "bridged", "--stay")
CTRL_C = b"\x03"


def processes():
    """Process id -> (name, parent, group) of all that run."""
    found = {}
    for pid in filter(str.isdigit, os.listdir("/proc")):
        try:
            with open(f"/proc/{pid}/stat", encoding="utf-8", errors="replace") as file:
                name, rest = file.read().split("(", 1)[1].rsplit(")", 1)
        except OSError:
            continue
        state, parent, group = rest.split()[:3]
        if state != "Z":
            found[int(pid)] = (name, int(parent), int(group))
    return found


def family(root):
    """Process id -> name of all that it has started, and these have, itself included."""
    everybody = processes()
    members = {root}
    for _ in everybody:
        more = {pid for pid, (_, parent, _) in everybody.items() if parent in members} - members
        if not more:
            break
        members |= more
    return {pid: everybody[pid][0] for pid in members if pid in everybody}


class StayTest(unittest.TestCase):
    def setUp(self):
        """The lab on a terminal of its own, until it stays."""
        self.printed = ""
        self.status = None
        self.lab, self.terminal = pty.fork()
        if self.lab == 0:
            os.execv(COMMAND[0], COMMAND)
        self.assertTrue(self.read_until("The lab stays up until Ctrl-C", 100), self.printed[-4000:])
        time.sleep(1.5)  # it looks around by now
        self.family = family(self.lab)

    def tearDown(self):
        if self.status is None:
            os.kill(self.lab, signal.SIGKILL)
            self.end()
        os.close(self.terminal)

    def read_until(self, text, seconds):
        """Whether the text is printed by then; without one, whether the last who has the terminal open closes it."""
        end = time.monotonic() + seconds
        while time.monotonic() < end:
            if text and text in self.printed:
                return True
            if select.select((self.terminal,), (), (), 0.2)[0]:
                try:
                    self.printed += os.read(self.terminal, 65536).decode(errors="replace")
                except OSError:
                    return not text
        return False

    def end(self):
        self.status = os.waitstatus_to_exitcode(os.waitpid(self.lab, 0)[1])
        return self.status

    def expect_nobody_left(self):
        for _ in range(50):
            left = {pid: name for pid, name in self.family.items() if processes().get(pid, (None,))[0] == name}
            if not left:
                return
            time.sleep(0.1)
        self.fail(f"left: {left}")

    def test_ctrl_c_is_the_labs_alone_and_every_proof_holds(self):
        self.assertIn("keelhost", self.family.values())
        foreground = os.tcgetpgrp(self.terminal)
        hit = {name for pid, name in self.family.items() if processes().get(pid, ("", 0, 0))[2] == foreground}
        self.assertEqual(hit, {"unshare", "python3"})
        os.write(self.terminal, CTRL_C)
        self.assertTrue(self.read_until("", 60), self.printed[-4000:])
        self.assertEqual(self.end(), 0, self.printed[-4000:])
        self.assertIn("keelhost ended by itself with status 0", self.printed)
        self.assertIn("proofs hold.", self.printed)
        self.expect_nobody_left()

    def test_nothing_outlives_a_lab_that_is_killed(self):
        os.kill(self.lab, signal.SIGKILL)
        self.end()
        self.expect_nobody_left()


if __name__ == "__main__":
    unittest.main(verbosity=2)

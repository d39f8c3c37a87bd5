"""A lab that stays: what it says to type works as typed; Ctrl-C is the lab's alone, and then every proof of the clean-up holds; whatever ends the lab ends all
of its programs.

stay_test.py PROGRAMS
"""

import fcntl
import os
import pty
import re
import select
import signal
import struct
import subprocess
import sys
import termios
import time
import unittest

ROOT = os.path.dirname(os.path.dirname(os.path.abspath(__file__)))
PROGRAMS = os.path.abspath(sys.argv.pop(1))
COLUMNS = 44  # of the terminal
COMMAND = (os.path.join(ROOT, "script", "in-namespaces"), "/usr/bin/python3", "-B",
           os.path.join(ROOT, "lab", "main.py"), "--programs", PROGRAMS, "--share", os.path.join(ROOT, "share"),
           "--stay", "--mode")
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


class LabThatStays(unittest.TestCase):
    mode = "bridged"

    def setUp(self):
        """The lab on a terminal of its own, until it stays."""
        self.printed = ""
        self.status = None
        self.lab, self.terminal = pty.fork()
        if self.lab == 0:
            fcntl.ioctl(0, termios.TIOCSWINSZ, struct.pack("HHHH", 24, COLUMNS, 0, 0))
            os.execv(COMMAND[0], (*COMMAND, self.mode))
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


class StayTest(LabThatStays):
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


class TypedTest(LabThatStays):
    mode = "routed"

    def test_what_it_says_to_type_works_as_typed(self):
        self.read_until("nothing that is printed", 1)  # all of it
        told = self.printed.replace("\r", "").split("enter its gateway with")[1]
        enter, _, commands = told.partition("and look around:")
        commands = re.findall(r"^  (\S.*?)  +\S.*$", commands, re.M)
        self.assertGreater(len(commands), 7, told)
        endless = [command for command in commands if "Ctrl-C" in re.search(f"^  {re.escape(command)}  .*", told, re.M)[0]]
        typed = [f"timeout -s INT 2 {one}" if one in endless else one for one in commands]
        shell = [command for command in commands if re.fullmatch(r"on \w+", command)]
        self.assertEqual((len(endless), len(shell)), (2, 1), commands)
        lines = []
        for one in typed:
            lines += [one, "exit"] if one in shell else [one]
            lines += [f'echo "status of {one}: $?"'.replace("$LAB", "\\$LAB")]
        done = subprocess.run(("sh", "-c", enter.strip()), input="\n".join((*lines, "exit", "")), capture_output=True,
                              text=True, timeout=60, check=False, env={"PATH": "/usr/bin:/bin", "HOME": "/"})
        said = done.stdout + done.stderr
        for one in typed:
            # The last proof has just left its group, and "why" may still see it on its way out.
            wanted = "124|0" if one.startswith("timeout") else "0|3" if one == "keelctl why" else "0"
            self.assertRegex(said, rf"(?m)^status of {re.escape(one)}: ({wanted})$")
        self.assertIn("lab:gateway# ", said)
        self.assertIn("lab:stb1# ", said)
        # Its table keeps to the terminal's width, so that it can be drawn again in its place.
        rows = re.findall(r"(?m)^  (?:device|stb1|pc) .*$", re.sub(r"\r|\x1b\[\d+m", "", self.printed))
        self.assertGreater(len(rows), 2, self.printed[-4000:])
        self.assertLessEqual(max(map(len, rows)), COLUMNS)
        os.write(self.terminal, CTRL_C)
        self.assertTrue(self.read_until("", 60), self.printed[-4000:])
        self.assertEqual(self.end(), 0, self.printed[-4000:])


if __name__ == "__main__":
    unittest.main(verbosity=2)

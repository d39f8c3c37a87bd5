"""The service under the managers of services that run it: under a systemd started, reloaded, killed, given up and mended,
with the traces in its journal; under OpenRC by the file that the documents tell.

Runs inside namespaces of its own: script/in-namespaces python3 tests/managers_test.py ROOT
where ROOT is what tests/packages_root.sh has made. What is installed lies over it, and is gone afterwards.
"""

import os
import re
import subprocess
import sys
import tempfile
import time
import unittest

ROOT = os.path.dirname(os.path.dirname(os.path.abspath(__file__)))
sys.path.insert(0, os.path.join(ROOT, "lab"))

from network import wait_for  # noqa: E402

BARE = os.path.abspath(sys.argv.pop(1))
SETTINGS = "/etc/keel/keelhost.toml"


def run(*argv, check=True):
    done = subprocess.run(argv, stdin=subprocess.DEVNULL, capture_output=True, text=True, timeout=120, check=False,
                          env={**os.environ, "DEBIAN_FRONTEND": "noninteractive"})
    assert not check or done.returncode == 0, f"{' '.join(argv)}: {done.returncode}\n{done.stdout}{done.stderr}"
    return done


def make_box(folder, manager):
    """A bare Debian with that manager of services and our packages, below a folder; /proc, /dev and /run are there."""
    root = os.path.join(folder, "root")
    for name in ("root", "upper", "work"):
        os.mkdir(os.path.join(folder, name))
    run("mount", "-t", "overlay", "-o", f"lowerdir={BARE},upperdir={folder}/upper,workdir={folder}/work", "overlay", root)
    run("mount", "-t", "proc", "proc", f"{root}/proc")
    run("mount", "--rbind", "/dev", f"{root}/dev")
    run("mount", "-t", "tmpfs", "tmpfs", f"{root}/run")
    run("chroot", root, "apt-get", "install", "--no-download", manager)
    packages = [f"/packages/{name}" for name in os.listdir(f"{BARE}/packages") if name.endswith(".deb")]
    run("chroot", root, "apt-get", "install", *packages)
    return root


class SystemdTest(unittest.TestCase):
    @classmethod
    def setUpClass(cls):
        cls.folder = tempfile.mkdtemp(dir="/run")
        cls.root = make_box(cls.folder, "systemd")
        cls.verified = run("chroot", cls.root, "systemd-analyze", "verify", "--man=no", "keelhost.service", check=False)
        run("umount", "-l", f"{cls.root}/proc", f"{cls.root}/dev")

        # Of the cgroups systemd is to see no more than one that is its own.
        os.mkdir(f"{cls.folder}/cgroups")
        run("mount", "-t", "cgroup2", "cgroup2", f"{cls.folder}/cgroups")
        cls.cgroup = tempfile.mkdtemp(prefix="keel-", dir=f"{cls.folder}/cgroups")
        cls.booted = subprocess.Popen((f"{ROOT}/tests/boot_systemd.sh", cls.root, cls.cgroup),
                                      stdin=subprocess.DEVNULL, stdout=subprocess.DEVNULL, stderr=subprocess.DEVNULL)
        children = f"/proc/{cls.booted.pid}/task/{cls.booted.pid}/children"

        def first():
            with open(children, encoding="utf-8") as file:
                return file.read().split()

        cls.pid = (wait_for(first, 10) or ["0"])[0]
        try:
            assert wait_for(lambda: cls.inside("systemctl", "is-system-running", check=False).stdout == "running\n", 30)
        except BaseException:
            cls.tearDownClass()
            raise

    @classmethod
    def tearDownClass(cls):
        cls.booted.kill()
        cls.booted.wait(10)

        def emptied():
            for folder, _, _ in os.walk(cls.cgroup, topdown=False):
                try:
                    os.rmdir(folder)
                except OSError:
                    return False  # a process in it has not gone yet
            return True

        assert wait_for(emptied, 10), f"{cls.cgroup} cannot be removed"

    @classmethod
    def inside(cls, *argv, check=True):
        return run("nsenter", "-t", cls.pid, "-m", "-u", "-i", "-p", "-C", "-r", "-w", *argv, check=check)

    def property(self, name):
        return self.inside("systemctl", "show", "-P", name, "keelhost").stdout.strip()

    def await_property(self, name, value, seconds=20):
        self.assertTrue(wait_for(lambda: self.property(name) == value, seconds),
                        f"{name} is {self.property(name)}, not {value}\n{self.journal('-u', 'keelhost')}")

    def journal(self, *words):
        return self.inside("journalctl", "--no-pager", "-o", "cat", *words, check=False).stdout

    def edit(self, old, new):
        path = f"/proc/{self.pid}/root{SETTINGS}"
        with open(path, encoding="utf-8") as file:
            text = file.read()
        self.assertIn(old, text)
        with open(path, "w", encoding="utf-8") as file:
            file.write(text.replace(old, new))

    def test_1_verified(self):
        self.assertEqual((self.verified.returncode, self.verified.stderr), (0, ""))

    def test_2_start(self):
        self.inside("systemctl", "start", "--no-block", "keelhost")
        self.await_property("StatusText", "waiting for br-lan")
        self.assertEqual(self.property("ActiveState"), "activating")
        run("ip", "link", "add", "br-lan", "type", "bridge")
        run("ip", "addr", "add", "192.168.1.1/24", "dev", "br-lan")
        run("ip", "link", "set", "br-lan", "up")
        self.await_property("ActiveState", "active")
        self.assertEqual(self.property("StatusText"), "DHCP is served on br-lan")
        self.assertIn("host: up", self.journal("ZONE=host", "-p", "info"))
        self.assertIn("neither wan.mac", self.journal("-u", "keelhost", "-p", "err"))

    def test_3_reload(self):
        self.edit('last = "192.168.1.39"', 'last = "192.168.1.38"')
        self.inside("systemctl", "reload", "keelhost")
        self.assertTrue(wait_for(lambda: "stb.last is 192.168.1.38 now" in self.journal("ZONE=settings"), 5))
        self.assertEqual((self.property("ActiveState"), self.property("NRestarts")), ("active", "0"))

    def test_4_killed(self):
        self.inside("systemctl", "kill", "--signal=KILL", "keelhost")
        self.await_property("NRestarts", "1")
        self.await_property("ActiveState", "active")

    def test_5_mistake(self):
        """It is not tried for ever what only a person can mend."""
        self.edit('mode = "Routed"', 'mode = "routed"')
        self.inside("systemctl", "restart", "keelhost", check=False)
        self.await_property("ActiveState", "failed", 40)
        self.assertIn('service.mode is "routed"', self.journal("-u", "keelhost"))
        restarts = self.property("NRestarts")
        time.sleep(5)
        self.assertEqual((self.property("ActiveState"), self.property("NRestarts")), ("failed", restarts))
        self.edit('mode = "routed"', 'mode = "Routed"')
        self.inside("systemctl", "reset-failed", "keelhost")
        self.inside("systemctl", "start", "keelhost")
        self.await_property("ActiveState", "active")

    def test_6_stop(self):
        self.inside("systemctl", "stop", "keelhost")
        self.assertEqual((self.property("ActiveState"), self.property("Result")), ("inactive", "success"))
        self.assertIn("host: stopping", self.journal("ZONE=host"))


class OpenRcTest(unittest.TestCase):
    def setUp(self):
        self.root = make_box(tempfile.mkdtemp(dir="/run"), "openrc")
        with open(os.path.join(ROOT, "docs/operations.md"), encoding="utf-8") as file:
            self.write("etc/init.d/keelhost", re.search(r"^```openrc\n(.*?)^```$", file.read(), re.S | re.M)[1])
        self.write("etc/init.d/localmount", "#!/sbin/openrc-run\nstart() { :; }\n")  # which this box has nothing for
        self.write("run/openrc/softlevel", "")  # as after a boot

    def write(self, path, text):
        path = os.path.join(self.root, path)
        os.makedirs(os.path.dirname(path), exist_ok=True)
        with open(path, "w", encoding="utf-8") as file:
            file.write(text)
        os.chmod(path, 0o755)

    def test_the_documented_file(self):
        # In processes of its own with a shell as the first, which takes the status of whoever loses its parent.
        told = run("unshare", "--pid", "--fork", "--kill-child", "chroot", self.root, "sh", "-euc", """
            mount -t proc proc /proc
            rc-service keelhost start
            for second in $(seq 15); do ! keelctl get Keel IPTVMode 2>/dev/null || break; sleep 1; done
            rc-service keelhost reload
            for second in $(seq 5); do ! keelctl trace | grep -F 'is read again' || break; sleep 1; done
            rc-service keelhost stop""").stdout
        for wanted in ("Starting keelhost", "\nDedicated\n", "is read again", "Stopping keelhost"):
            self.assertIn(wanted, told)
        self.assertFalse(os.path.exists(f"{self.root}/run/keel/keel.sock"), "it has ended by itself")


if __name__ == "__main__":
    unittest.main(verbosity=2, failfast=True)

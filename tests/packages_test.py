"""The packages on a bare Debian 12: installed, serving an STB, upgraded while they do, and purged.

Runs inside namespaces of its own: script/in-namespaces python3 tests/packages_test.py ROOT
where ROOT is what tests/packages_root.sh has made. What is installed lies over it, and is gone afterwards.
"""

import os
import re
import shlex
import shutil
import subprocess
import sys
import tempfile
import unittest

ROOT = os.path.dirname(os.path.dirname(os.path.abspath(__file__)))
sys.path.insert(0, os.path.join(ROOT, "lab"))

import lab as lab_module  # noqa: E402
from keel import Keel  # noqa: E402
from lab import DEVICES, Lab  # noqa: E402
from network import NETNS, wait_for  # noqa: E402

BARE = os.path.abspath(sys.argv.pop(1))
STB1 = DEVICES[0]
SETTINGS = "etc/keel/keelhost.toml"
UNIT = "lib/systemd/system/keelhost.service"
ENABLED = "etc/systemd/system/multi-user.target.wants/keelhost.service"
OURS = ("keelhost", "zephyrin", "zephyrin-dev")
NOT_OURS = ("packages", "proc", "run", "dev", "tmp", "var/cache", "var/lib/apt", "var/lib/dpkg", "var/log")


def documented_edits():
    """(table, key) -> value: what the README has a person edit in the settings file."""
    with open(os.path.join(ROOT, "README.md"), encoding="utf-8") as file:
        edits = re.findall(r"^\d\. `\[(\w+)\]` `([\w-]+) = (.*?)`", file.read(), re.M)
    return {(table, key): value for table, key, value in edits}


def edited(text, edits):
    """The settings file after these edits, each of a line that is there."""
    lines, table, open_edits = [], None, dict(edits)
    for line in text.splitlines():
        table = line.strip("[]") if re.fullmatch(r"\[\w+\]", line) else table
        key = line.split(" = ")[0]
        value = open_edits.pop((table, key), None)
        lines.append(line if value is None else f"{key} = {value}")
    assert not open_edits, f"{open_edits} is no line of the settings file"
    return "\n".join(lines) + "\n"


def run(*argv, cwd=None):
    done = subprocess.run(argv, stdin=subprocess.DEVNULL, capture_output=True, text=True, timeout=120, check=False,
                          cwd=cwd, env={**os.environ, "DEBIAN_FRONTEND": "noninteractive"})
    assert done.returncode == 0, f"{' '.join(argv)}: status {done.returncode}\n{done.stdout}{done.stderr}"
    return done.stdout


class Box(Lab):
    """A lab whose gateway runs what is installed below a folder, as the unit says."""

    def __init__(self, root, folder):
        programs = os.path.join(folder, "programs")
        os.mkdir(programs)
        keelctl = os.path.join(programs, "keelctl")
        with open(keelctl, "w", encoding="utf-8") as file:
            file.write(f'#!/bin/sh\nexec chroot {root} keelctl "$@"\n')
        os.chmod(keelctl, 0o755)
        super().__init__(programs, None, folder, devices=(STB1,))
        self.root = root
        self.bridge = None
        self.keel = Keel(keelctl, "/run/keel/keel.sock")

    def build(self, edits):
        """With the devices and the bridge that the edits name, and no others."""
        text = {name: value.strip('"') for name, value in edits.items()}
        lab_module.IPTV = text["iptv", "device"] + ".20"
        lab_module.DATA = text["data", "device"] + ".10"
        self.bridge = text["lan", "bridge"]
        super().build()
        for words in (("down",), ("name", self.bridge)):
            self.network.run("gateway", "ip", "link", "set", "br-lan", *words)
        self.network.run("gateway", "ip", "link", "set", self.bridge, "up")

    def unit_command(self):
        """What the unit starts, in folders that systemd would make."""
        with open(os.path.join(self.root, UNIT), encoding="utf-8") as file:
            unit = file.read()
        for name, parent in (("StateDirectory", "var/lib"), ("RuntimeDirectory", "run")):
            for folder in re.findall(rf"^{name}=(.*)$", unit, re.M):
                os.makedirs(os.path.join(self.root, parent, folder), exist_ok=True)
        return shlex.split(re.search(r"^ExecStart=(.*)$", unit, re.M)[1])

    def launch_gateway(self):
        self.gateway = self.network.spawn("gateway", "chroot", self.root, *self.unit_command(), log="gateway.log")


class PackagesTest(unittest.TestCase):
    @classmethod
    def setUpClass(cls):
        cls.folder = tempfile.mkdtemp(dir="/run")
        cls.root = os.path.join(cls.folder, "root")
        for name in ("root", "upper", "work"):
            os.mkdir(os.path.join(cls.folder, name))
        run("mount", "-t", "overlay", "-o", f"lowerdir={BARE},upperdir={cls.folder}/upper,workdir={cls.folder}/work",
            "overlay", cls.root)
        run("mount", "-t", "proc", "proc", f"{cls.root}/proc")
        run("mount", "--rbind", "/dev", f"{cls.root}/dev")
        run("mount", "-t", "tmpfs", "tmpfs", f"{cls.root}/run")

        # What they depend on comes first, so that what they leave when they go is theirs.
        packages = [os.path.join(BARE, "packages", name) for name in os.listdir(os.path.join(BARE, "packages"))]
        needed = {word.split()[0] for package in packages
                  for word in run("dpkg-deb", "-f", package, "Depends").strip().split(",") if word}
        cls.inside("apt-get", "install", "--no-download", *sorted(needed))
        cls.before = cls.files()
        cls.lab = Box(cls.root, cls.folder)

    @classmethod
    def tearDownClass(cls):
        cls.lab.close()

    @classmethod
    def inside(cls, *argv):
        return run("chroot", cls.root, *argv)

    @classmethod
    def install(cls, folder):
        """Installs the packages in a folder of the box."""
        names = [f"{folder}/{name}" for name in os.listdir(f"{cls.root}{folder}")]
        cls.inside("apt-get", "install", "-o", "Dpkg::Options::=--force-confdef", *names)

    @classmethod
    def files(cls):
        """All paths of the box but those of the tools that install, and of what runs."""
        found = set()
        for folder, folders, names in os.walk(cls.root):
            inside = os.path.relpath(folder, cls.root)
            folders[:] = [one for one in folders if os.path.normpath(os.path.join(inside, one)) not in NOT_OURS]
            found.update(os.path.normpath(os.path.join(inside, one)) for one in (*folders, *names))
        return found

    def there(self, path):
        return os.path.lexists(os.path.join(self.root, path))

    def await_service(self):
        wan = wait_for(lambda: self.lab.served_as(STB1), 40)
        self.assertTrue(wan, f"the STB does not play\n{self.lab.network.log('gateway.log')[-4000:]}")
        return wan

    def test_1_installation(self):
        self.install("/packages")
        version = self.inside("dpkg-query", "-W", "-f", "${Version}", "keelhost")
        for program in ("keelhost", "keelctl"):
            self.assertEqual(self.inside(program, "--version").strip(), f"{program} {version}")
        self.assertTrue(self.there(UNIT))
        self.assertFalse(self.there(ENABLED), "it serves DHCP as soon as it runs: the administrator starts it")
        run(f"{ROOT}/tests/symbols_test.sh", f"{self.root}/usr/lib/keel/zephyrin.so", ROOT)

    def test_2_box_that_does_not_fit_yet(self):
        """Without any device of the data model the service runs and waits, so that nothing starts it again and again."""
        host = subprocess.Popen(("chroot", self.root, *self.lab.unit_command()), stdout=subprocess.DEVNULL,
                                stderr=subprocess.PIPE, text=True)
        answers = wait_for(lambda: self.lab.keel.answers() or host.poll() is not None, 15)
        host.terminate()
        _, said = host.communicate(timeout=20)
        self.assertTrue(answers, said)
        self.assertEqual(host.returncode, 0, said)

    def test_3_service(self):
        """With the settings that are shipped, edited as the README tells."""
        edits = documented_edits()
        self.assertEqual(len(edits), 3, edits)
        self.lab.build(edits)
        checks = [self.check()]
        settings = os.path.join(self.root, SETTINGS)
        with open(settings, encoding="utf-8") as file:
            text = edited(file.read(), edits)
        with open(settings, "w", encoding="utf-8") as file:
            file.write(text)
        checks.append(self.check())
        self.assertEqual([status for status, _ in checks], [1, 0], checks)
        self.lab.start_operator()
        self.lab.start_gateway()
        self.lab.start_device(STB1)
        self.await_service()
        for words in (("why",), ("why", self.lab.mac(STB1))):
            done = subprocess.run(("chroot", self.root, "keelctl", *words), capture_output=True, text=True, timeout=10,
                                  check=False)
            self.assertEqual((done.returncode, done.stderr), (0, ""), done.stdout)
            self.assertIn("all STBs on the LAN are served" if words == ("why",) else "is served", done.stdout)

    def check(self):
        """The status of keelhost --check on the gateway, and what it says."""
        done = subprocess.run(("nsenter", f"--net={NETNS}/gateway", "chroot", self.root, *self.lab.unit_command(),
                               "--check"), capture_output=True, text=True, timeout=20, check=False)
        return done.returncode, done.stdout + done.stderr

    def test_4_upgrade(self):
        """Of a box that serves, with settings of its own."""
        before = self.await_service()
        settings = os.path.join(self.root, SETTINGS)
        with open(settings, encoding="utf-8") as file:
            own = file.read()

        os.mkdir(f"{self.root}/packages/new")
        for name in [one for one in os.listdir(f"{self.root}/packages") if one.endswith(".deb")]:
            package = os.path.join(self.folder, name)
            run("dpkg-deb", "-R", f"{self.root}/packages/{name}", package)
            control = os.path.join(package, "DEBIAN/control")
            with open(control, encoding="utf-8") as file:
                text = re.sub(r"^(Version: .*)$", r"\1+upgrade", file.read(), flags=re.M)
            with open(control, "w", encoding="utf-8") as file:
                file.write(text)
            # As when a later version brings other settings than the ones before.
            shipped = os.path.join(package, SETTINGS)
            if os.path.exists(shipped):
                with open(shipped, "a", encoding="utf-8") as file:
                    file.write("# More of it.\n")
                run("sh", "-c", "find etc -type f -exec md5sum {} + >DEBIAN/md5sums", cwd=package)
            run("dpkg-deb", "-b", package, f"{self.root}/packages/new/{name}")
            shutil.rmtree(package)

        self.install("/packages/new")
        self.assertIn("+upgrade", self.inside("dpkg-query", "-W", "-f", "${Version}", "zephyrin"))
        with open(settings, encoding="utf-8") as file:
            self.assertEqual(file.read(), own, "the administrator's settings are gone")
        self.assertEqual(self.await_service(), before, "while the host of before runs")
        self.assertEqual(self.lab.stop_gateway(), 0)
        self.lab.start_gateway()
        self.assertEqual(self.await_service(), before)

    def test_5_purge(self):
        self.assertEqual(self.lab.stop_gateway(), 0)
        self.assertEqual(self.lab.addresses("gateway", lab_module.IPTV), [])
        self.assertTrue(self.there("var/lib/keel/keel.db"))
        self.inside("apt-get", "remove", *OURS)
        self.assertTrue(self.there(SETTINGS), "removed is not purged")
        self.assertFalse(self.there("usr/bin/keelhost"))
        self.inside("dpkg", "--purge", *OURS)
        self.assertEqual(sorted(self.files() - self.before), [])
        self.assertEqual(sorted(self.before - self.files()), [])

    def test_6_plugin_of_ones_own(self):
        """From the packages to an example that runs, by the commands that docs/plugin.md tells."""
        with open(os.path.join(ROOT, "docs/plugin.md"), encoding="utf-8") as file:
            *commands, look = re.search(r"^```\n(apt-get install .*?)^```$", file.read(), re.S | re.M)[1].splitlines()
        self.assertEqual(len(commands), 4)
        shell = subprocess.Popen(("chroot", self.root, "sh", "-e"), stdin=subprocess.PIPE, stdout=subprocess.PIPE,
                                 stderr=subprocess.STDOUT, text=True)
        shell.stdin.write("cd /packages\n" + "\n".join(commands) + "\n")
        shell.stdin.flush()
        try:
            self.assertTrue(wait_for(lambda: self.there("packages/hello.sock") or shell.poll() is not None, 60))
            shell.stdin.write(f"{look}\nkill $!\nwait $!\n")
            printed, _ = shell.communicate(timeout=30)
        finally:
            shell.kill()
        self.assertIn("hello: the mode is Routed", printed)
        self.assertEqual(shell.returncode, 0, printed)


if __name__ == "__main__":
    unittest.main(verbosity=2, failfast=True)

"""What the run of every mode is made of."""

import os
import time

from lab import IPTV, SERVER_ADDRESS
from multicast import STREAM, Member, Stream, plays, silent
from network import wait_for
from tap import Frames

BRIDGE_CHAINS = (("nat", "POSTROUTING_No_DHCP"), ("nat", "POSTROUTING_No_IGMP"), ("nat", "POSTROUTING_Only_IGMP"),
                 ("filter", "FORWARD_Isolation"))


class Run:
    """One mode's: play() brings the lab up and proves the mode; a part of it tells what is left in summary_lines()."""

    def __init__(self, lab, view):
        self.lab = lab
        self.view = view
        self.failures = []
        self.proofs = 0

    @property
    def iptv_devices(self):
        return [device for device in self.lab.devices if device.is_iptv]

    def prove(self, holds, text, found=""):
        self.proofs += 1
        if holds:
            self.view.passed(text)
        else:
            self.failures.append(text)
            self.view.failed(text + (f" (found: {found})" if found not in ("", None) else ""))

    def await_and_prove(self, wanted, look, text, seconds=15):
        """Proves that what look() finds is, or soon will be, what is wanted."""
        wait_for(lambda: look() == wanted, seconds)
        found = look()
        self.prove(found == wanted, text, found)

    def tick(self):
        """Called while a mode waits, for those that have something to show."""

    def summary_lines(self):
        return ()

    # --------------------------------------------------------------------------------------------- proofs

    def prove_multicast(self):
        self.view.step("A multicast stream of the operator's server")
        net, stb, pc = self.lab.network, self.lab.devices[0], self.lab.devices[-1]
        stream = Stream(net, "server", SERVER_ADDRESS)
        member = Member(net, stb.name, self.lab.address(stb))
        at_stb, at_pc = Frames(net, stb.name), Frames(net, pc.name)
        self.prove(plays(member), f"the stream reaches {stb.name}, which joined its group")
        self.prove(silent(lambda: at_pc.count(STREAM)) and plays(member, 1),
                   f"and does not reach the port of {pc.name}, which did not")
        known = set(self.lab.keel.instances("Hosts.Host"))
        self.prove(known == {self.lab.mac(device) for device in self.lab.devices},
                   "the gateway knows the LAN's devices, and takes no multicast group for one", known)
        self.lab.set_link(IPTV, "down")
        self.prove(silent(member.take), f"it stops while {IPTV} is down")
        self.lab.set_link(IPTV, "up")
        self.prove(plays(member, 40), f"it comes back when {IPTV} is up again")
        self.prove(at_stb.count(STREAM) > 0, f"its frames are seen at the port of {stb.name}")
        member.close()
        self.prove(silent(lambda: at_stb.count(STREAM), 40), f"and no more once {stb.name} has left the group")
        for one in (stream, at_stb, at_pc):
            one.close()

    def prove_cleanup(self):
        self.view.step("Stopping the gateway (SIGTERM)")
        status = self.lab.stop_gateway()
        self.prove(status == 0, "keelhost ended by itself with status 0", status)
        processes = self.lab.processes()
        self.prove(not processes, "no process is left on the gateway", processes)
        rules = {chain: self.lab.bridge_rules(table, chain) for table, chain in BRIDGE_CHAINS}
        self.prove(all(found == [] for found in rules.values()), "the plug-in's ebtables chains are empty", rules)
        addresses = self.lab.addresses("gateway", IPTV)
        self.prove(not addresses, f"no WAN address is left on {IPTV}", addresses)

    def look_around(self):
        """What can be typed in a lab that stays, and what it shows."""
        return (("keelctl", "the service at a glance"), ("keelctl why", "what keeps an STB from its service"),
                ("keelctl top", "the same, live, until Ctrl-C"), ("keelctl trace -f", "what goes on, until Ctrl-C"),
                ("keelctl get Keel.Zephyrin", "the settings"), ("ebtables -t filter -L", "what is kept apart"),
                ("on stb1", "a shell there; exit ends it"), ("ls $LAB", "logs of every program"))

    def stay(self):
        namespaces = f"nsenter --net --mount --pid --target {os.getpid()}"
        outer = os.environ.get("LAB_PID")
        if outer:
            user = " --user --preserve-credentials" if os.environ.get("LAB_USER_NAMESPACE") else ""
            namespaces = f"nsenter{user} --net --mount --pid --target $(pgrep -P {outer})"
        width = max(len(command) for command, _ in self.look_around())
        commands = "\n".join(f"  {command.ljust(width)}  {shows}" for command, shows in self.look_around())
        self.view.say(f"""
The lab stays up until Ctrl-C. From another terminal, enter its gateway with

  {namespaces} {self.lab.write_shell()}

and look around:

{commands}
""")
        try:
            while self.lab.gateway.poll() is None:
                self.tick()
                time.sleep(1)
            self.prove(False, "keelhost stays up", f"exit status {self.lab.gateway.returncode}")
        except KeyboardInterrupt:
            self.view.say()

    def report(self, file):
        """While the gateway still runs: what has happened is in its memory alone."""
        if self.lab.keel.draw_timeline(file):
            self.view.say(f"  What happened is drawn in {file}")
        else:
            self.failures.append(f"the report {file} is written")
            self.view.failed(self.failures[-1])

    def summary(self):
        self.view.say()
        if self.failures:
            self.view.say(f"{len(self.failures)} of {self.proofs} proofs failed:")
            for failure in self.failures:
                self.view.say(f"  {failure}")
            self.view.say("The last traces of the gateway:")
            self.view.say(self.lab.network.log("gateway.log")[-3000:])
            return 1
        for line in self.summary_lines():
            self.view.say(f"  {line}")
        self.view.say(f"All {self.proofs} proofs hold.")
        return 0

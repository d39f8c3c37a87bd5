"""What the lab asks the gateway's host, through keelctl."""

import json
import sqlite3
import subprocess
import threading
import time


class Keel:
    def __init__(self, keelctl, socket):
        self._keelctl = keelctl
        self._socket = socket
        self._bound = {}  # WAN client interface -> when it was first bound, monotonic

    def _ask(self, *words):
        done = subprocess.run((self._keelctl, "--socket", self._socket, "-S", *words), capture_output=True, text=True,
                              timeout=10, check=False, start_new_session=True)
        if done.returncode != 0:
            return None
        return [json.loads(line) for line in done.stdout.splitlines()]

    def answers(self):
        return self._ask("get", "Keel") is not None

    def status(self):
        """The service as keelctl shows it, or an empty one."""
        lines = self._ask()
        return lines[0] if lines else {"identities": [], "waiting": []}

    def set(self, path, **values):
        return self._ask("set", path, *(f"{name}={value}" for name, value in values.items())) is not None

    def get(self, path, name):
        """One parameter, or None."""
        lines = self._ask("get", path, name)
        return lines[0][name] if lines else None

    def draw_timeline(self, file):
        """Writes the picture of what has happened; False when it cannot be had."""
        return self._ask("timeline", "-o", file) is not None

    def instances(self, path):
        lines = self._ask("get", path)
        return [child["name"] for child in lines[0]["children"]] if lines else []

    def add(self, path, key, **values):
        return self._ask("add", path, key, *(f"{name}={value}" for name, value in values.items())) is not None

    def at_once(self, *writes):
        """Writes several parameters, each (path, name, value), so close together that none waits for what another sets
        going."""
        started = [subprocess.Popen((self._keelctl, "--socket", self._socket, "set", path, f"{name}={value}"),
                                    start_new_session=True)
                   for path, name, value in writes]
        return all([process.wait(10) == 0 for process in started])

    def change_flags(self, interface, add=(), remove=()):
        """Flags of an interface come and go; the others, which the host may be keeping, stay."""
        path = f"Weft.Intf.{interface}"
        words = [word for word in self.get(path, "Flags").split() if word not in remove]
        return self.set(path, Flags=" ".join((*words, *add)))

    def watch_wan_clients(self):
        """Notes, from now on, when each WAN client is first bound."""
        watch = subprocess.Popen((self._keelctl, "--socket", self._socket, "-S", "watch", "Weft.Intf"),
                                 stdout=subprocess.PIPE, stderr=subprocess.DEVNULL, text=True,
                                 start_new_session=True)

        def follow():
            with watch.stdout:
                for line in watch.stdout:
                    event = json.loads(line)
                    if event.get("values", {}).get("DHCPStatus") == "Bound":
                        self._bound.setdefault(event["path"].rsplit(".", 1)[1], time.monotonic())
            watch.wait()

        threading.Thread(target=follow, daemon=True).start()

    # ------------------------------------------------------------------------------------- single devices

    def _identity_and_device(self, mac, status):
        for identity in status["identities"]:
            for device in identity["devices"]:
                if device["mac"] == mac:
                    return identity, device
        return None, None

    def hold(self, mac):
        """Whether the device's LAN lease is on hold; None when it has none."""
        status = self.status()
        _, device = self._identity_and_device(mac, status)
        if device:
            return {"held": True, "released": False}.get(device["lease"])
        return next((lease["hold"] for lease in status["waiting"] if lease["mac"] == mac), None)

    def wan_state(self, mac):
        """What the WAN client of the device reports, or None."""
        identity, _ = self._identity_and_device(mac, self.status())
        return identity["wan_client"] if identity else None

    def bound_at(self, mac):
        """When the device's WAN client was first bound, or None."""
        identity, _ = self._identity_and_device(mac, self.status())
        return self._bound.get(f"dhcp_zep_{identity['name']}") if identity else None

    def lease_time(self):
        lines = self._ask("get", "Keel.Zephyrin.DHCPConfig", "LeaseTime")
        return lines[0]["LeaseTime"] if lines else 0

    def device_rows(self, lab):
        """What the live view shows of each device."""
        status = self.status()
        return {device.name: self._row(lab, device, status) for device in lab.devices}

    def _row(self, lab, device, status):
        if not device.is_iptv:
            return (lab.address(device) or "-", "ordinary", "-", "-", "none")
        identity, known = self._identity_and_device(lab.mac(device), status)
        if not known:
            return ("-", "-", "-", "-", "-")
        wan = identity["wan_address"] if identity["wan_address"] not in ("", "0.0.0.0") else "-"
        mapped = "mapped" if lab.mapped(known["address"]) else "-"
        return (known["address"], known["lease"], identity["wan_client"].lower(), wan, mapped)


def stored_identities(store):
    """The identities that a host that has ended left in its store."""
    with sqlite3.connect(f"file:{store}?mode=ro", uri=True) as database:
        return [row[0] for row in database.execute(
            "SELECT path FROM node WHERE path LIKE 'Keel.Zephyrin.ClientLease.%'")]

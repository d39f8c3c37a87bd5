"""What the lab asks the gateway's host, through keelctl."""

import json
import sqlite3
import subprocess


class Keel:
    def __init__(self, keelctl, socket):
        self._keelctl = keelctl
        self._socket = socket

    def _ask(self, *words):
        done = subprocess.run((self._keelctl, "--socket", self._socket, "-S", *words), capture_output=True, text=True,
                              timeout=10, check=False)
        if done.returncode != 0:
            return None
        return [json.loads(line) for line in done.stdout.splitlines()]

    def answers(self):
        return self._ask("get", "Keel") is not None

    def tree(self, path):
        """An object with everything below it, or an empty one."""
        lines = self._ask("get", path)
        return lines[0] if lines else {}

    def set(self, path, **values):
        return self._ask("set", path, *(f"{name}={value}" for name, value in values.items())) is not None

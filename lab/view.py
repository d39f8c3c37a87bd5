"""Shows how each LAN device gets on: a table in place on a terminal, a line per change otherwise."""

import shutil
import sys
import time

BOLD, DIM, GREEN, YELLOW, RED, PLAIN = "\033[1m", "\033[2m", "\033[32m", "\033[33m", "\033[31m", "\033[0m"


class View:
    COLUMNS = (("device", 7), ("LAN address", 15), ("LAN lease", 10), ("WAN client", 11), ("WAN address", 15),
               ("mapping", 9))

    def __init__(self, out=sys.stdout):
        self._out = out
        self._terminal = out.isatty()
        self._shown = {}
        self._lines = 0
        self._start = time.monotonic()

    def coloured(self, text, colour):
        return f"{colour}{text}{PLAIN}" if self._terminal else text

    def say(self, text=""):
        """A line that stays."""
        self._out.write(text + "\n")
        self._out.flush()
        self._lines = 0

    def step(self, text):
        self.say(self.coloured(f"[{time.monotonic() - self._start:5.1f} s] {text}", BOLD))

    def passed(self, text):
        self.say(f"  {self.coloured('proved', GREEN)}  {text}")

    def failed(self, text):
        self.say(f"  {self.coloured('FAILED', RED)}  {text}")

    def show(self, rows, columns=COLUMNS):
        """Rows: device name -> the other columns' texts. Columns: names and widths."""
        if rows == self._shown:
            return
        if self._terminal:
            self._redraw(rows, columns)
        else:
            for name, row in rows.items():
                if row != self._shown.get(name):
                    told = ", ".join(f"{column} {text}" for (column, _), text in zip(columns[1:], row) if text != "-")
                    self.say(f"  [{time.monotonic() - self._start:5.1f} s] {name}: {told or 'no lease yet'}")
        self._shown = rows

    def _redraw(self, rows, columns):
        """In place of the table before: a line that is too long for the terminal would take two rows of it, so it ends
        at the edge."""
        room = shutil.get_terminal_size().columns
        heads = tuple(name for name, _ in columns)
        table = ["  " + "  ".join(text.ljust(width) for text, (_, width) in zip(row, columns))
                 for row in (heads, *((name, *row) for name, row in rows.items()))]
        table = [line[:room] for line in table]
        if self._lines:
            self._out.write(f"\033[{self._lines}F\033[J")
        self._out.write("\n".join((self.coloured(table[0], DIM), *table[1:])) + "\n")
        self._out.flush()
        self._lines = len(table)

"""Shows how each LAN device gets on: a table in place on a terminal, a line per change otherwise."""

import sys
import time

BOLD, DIM, GREEN, YELLOW, RED, PLAIN = "\033[1m", "\033[2m", "\033[32m", "\033[33m", "\033[31m", "\033[0m"


class View:
    COLUMNS = ("device", "LAN address", "LAN lease", "WAN client", "WAN address", "mapping")
    WIDTHS = (7, 15, 10, 11, 15, 9)

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

    def show(self, rows):
        """Rows: device name -> the other columns' texts."""
        if rows == self._shown:
            return
        if self._terminal:
            self._redraw(rows)
        else:
            for name, row in rows.items():
                if row != self._shown.get(name):
                    told = ", ".join(f"{column} {text}" for column, text in zip(self.COLUMNS[1:], row) if text != "-")
                    self.say(f"  [{time.monotonic() - self._start:5.1f} s] {name}: {told or 'no lease yet'}")
        self._shown = rows

    def _redraw(self, rows):
        table = [self.coloured(self._line(self.COLUMNS), DIM)]
        table += [self._line((name, *row)) for name, row in rows.items()]
        if self._lines:
            self._out.write(f"\033[{self._lines}F\033[J")
        self._out.write("\n".join(table) + "\n")
        self._out.flush()
        self._lines = len(table)

    def _line(self, texts):
        return "  " + "  ".join(text.ljust(width) for text, width in zip(texts, self.WIDTHS))

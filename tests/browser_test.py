"""The timeline's page in a real browser. Without one the test is skipped, unless there has to be one
(ZEPHYRIN_BROWSER=1).

Runs inside namespaces of its own: script/in-namespaces python3 tests/browser_test.py PROGRAMS
"""

import os
import re
import shutil
import subprocess
import sys
import tempfile
import time

ROOT = os.path.dirname(os.path.dirname(os.path.abspath(__file__)))
sys.path.insert(0, os.path.join(ROOT, "lab"))

from lab import DEVICES, Lab  # noqa: E402
from network import wait_for  # noqa: E402

PROGRAMS = os.path.abspath(sys.argv[1])
SKIPPED = 77
BROWSER = shutil.which("chromium-headless-shell") or shutil.which("chromium")
PNG_SIZE = slice(16, 24)
HELD_SECONDS = 2  # an answer within one second is drawn as one at once


def browse(folder, page, *words):
    """What the browser prints of a page: the document, and what the page says on the console."""
    done = subprocess.run((BROWSER, "--headless", "--no-sandbox", "--disable-gpu", "--hide-scrollbars",
                           f"--user-data-dir={folder}/profile", "--enable-logging=stderr", *words, f"file://{page}"),
                          capture_output=True, text=True, timeout=60, check=True, env={**os.environ, "HOME": folder})
    return done.stdout, [line for line in done.stderr.splitlines() if ":CONSOLE" in line]


def draw(lab, page):
    """The page of a run in which one STB was held, and then served."""
    lab.build()
    lab.start_gateway()
    lab.start_device(DEVICES[0])
    held = wait_for(lambda: lab.keel.hold(lab.mac(DEVICES[0])), 20)
    time.sleep(HELD_SECONDS)
    lab.start_operator()
    return held and wait_for(lambda: lab.served_as(DEVICES[0]), 60) and lab.keel.draw_timeline(page)


def complaints(lab, folder, page):
    document, console = browse(folder, page, "--dump-dom")
    yield from console
    address, wan = lab.address(DEVICES[0]), lab.mapped(lab.address(DEVICES[0]))
    for side, colour, label in (("lan", "held", "DISCOVER"), ("wan", "served", f"ACK {wan}"),
                                ("lan", "served", f"OFFER {address}"), ("lan", "served", f"ACK {address}")):
        if not re.search(rf'<g class="arrow {side} {colour}">(?:(?!</g>).)*>{re.escape(label)} · ', document, re.DOTALL):
            yield f"no arrow {label}, {colour}, on the {side} side"
    # Drawn, and not only there: a page that a style hides, or that is empty, is far smaller as a picture.
    picture = os.path.join(folder, "page.png")
    _, console = browse(folder, page, f"--screenshot={picture}", "--window-size=1060,1200")
    yield from console
    with open(picture, "rb") as file:
        image = file.read()
    if image[PNG_SIZE] != (1060).to_bytes(4, "big") + (1200).to_bytes(4, "big") or len(image) < 60000:
        yield f"the picture has {len(image)} bytes"


def main():
    if not BROWSER:
        print("NO BROWSER: the timeline's page is not looked at; script/bootstrap long installs one")
        return 1 if os.environ.get("ZEPHYRIN_BROWSER") else SKIPPED
    folder = tempfile.mkdtemp(dir="/run")
    lab = Lab(PROGRAMS, os.path.join(ROOT, "share"), folder)
    page = os.path.join(folder, "timeline.html")
    try:
        found = list(complaints(lab, folder, page)) if draw(lab, page) else ["there is no page of a run"]
    finally:
        lab.close()
    print("\n".join(found) or "the page is as it should be")
    return 1 if found else 0


if __name__ == "__main__":
    sys.exit(main())

"""The main job of script/run: brings up an operator, a gateway and LAN devices in one of the gateway's IPTV modes, shows
set-top boxes get their service, and proves with packets that the mode does what it is for.

script/run [--mode routed|bridged|simplified|simplifiedv2] [--stay] [--report FILE.html]
"""

import argparse
import os
import signal
import sys

from bridged import Bridged
from lab import Lab
from network import CommandFailed
from routed import Routed
from simplified import Simplified
from simplifiedv2 import SimplifiedV2
from view import View

# What --mode says -> the mode in which the gateway starts, and what it goes through. The second simplified mode does
# nothing at a start; it is entered by a change of the settings.
MODES = {
    "routed": ("Routed", Routed),
    "bridged": ("Bridged", Bridged),
    "simplified": ("Simplified", Simplified),
    "simplifiedv2": ("Bridged", SimplifiedV2),
}


def main():
    parser = argparse.ArgumentParser(prog="script/run", description=__doc__,
                                     formatter_class=argparse.RawDescriptionHelpFormatter)
    parser.add_argument("--mode", choices=MODES, default="routed", help="the gateway's IPTV mode (default: routed)")
    parser.add_argument("--stay", action="store_true", help="leave the lab up until Ctrl-C, with a prompt to look around")
    parser.add_argument("--report", metavar="FILE", help="write a page that shows all that happened, or with .svg its picture")
    parser.add_argument("--programs", required=True, help=argparse.SUPPRESS)
    parser.add_argument("--share", required=True, help=argparse.SUPPRESS)
    parser.add_argument("--folder", default="/run/keel-lab", help=argparse.SUPPRESS)
    options = parser.parse_args()

    signal.signal(signal.SIGTERM, lambda *_: sys.exit(143))
    view = View()
    start_mode, run_of = MODES[options.mode]
    lab = Lab(options.programs, options.share, options.folder, start_mode)
    lab.devices_tell_names = options.report is not None
    run = run_of(lab, view)
    try:
        run.play()
        if options.stay:
            run.stay()
        if options.report:
            run.report(os.path.abspath(options.report))
        run.prove_cleanup()
        return run.summary()
    except KeyboardInterrupt:
        view.say("\nInterrupted.")
        return 130
    except (CommandFailed, RuntimeError, OSError) as failure:
        view.say(f"\nThe lab could not go on: {failure}")
        return 1
    finally:
        lab.close()


if __name__ == "__main__":
    sys.exit(main())

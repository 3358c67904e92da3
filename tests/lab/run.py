#!/usr/bin/python3
# SPDX-License-Identifier: MIT
"""Runs one scenario of the laboratory in a sandbox of its own.

  run.py --list native|arm               the scenarios' names, each with "quick" or "slow"
  run.py SCENARIO native|arm COMMAND...  COMMAND runs the laboratory's application

Prints what happened. Where something was not as it should be: that, with the whole timeline, the
library's log and NetworkManager's among it, and exit status 1.
"""

import hashlib
import importlib
import json
import os
import pathlib
import signal
import subprocess
import sys
import traceback

from application import Unexpected
from laboratory import LaboratoryError, Timeline
from scenario import SCENARIOS, Bench

HERE = pathlib.Path(__file__).resolve().parent
# Of a scenario, in seconds; somewhat less than what its test has.
LIMIT = 370
SANDBOX = HERE.parent.parent / "script" / "sandbox"


def scenarios(processor):
    for path in sorted((HERE / "scenarios").glob("*.py")):
        importlib.import_module(f"scenarios.{path.stem}")
    return {name: function for name, function in SCENARIOS.items()
            if function.only in (None, processor)}


def play(function, processor, command):
    """The part inside the sandbox."""
    timeline = Timeline()
    print(f"{function.__name__} ({processor}): {function.__doc__.strip()}\n")
    trouble = None
    signal.signal(signal.SIGALRM, give_up)
    signal.alarm(LIMIT)
    try:
        with Bench(timeline, command, processor, **function.laboratory) as lab:
            timeline.add("laboratory", "is up")
            function(lab)
            lab.check_at_the_end()
            timeline.add("laboratory", "all was as it should be")
    except (Unexpected, LaboratoryError) as unexpected:
        trouble = str(unexpected)
    except Exception:  # pylint: disable=broad-except
        trouble = traceback.format_exc()
    if trouble:
        timeline.add("laboratory", "not as it should be: " + trouble)
    print(*timeline.lines(*([] if trouble else ["manager", "dhcp"])), sep="\n")
    print(f"\nNot as it should be: {trouble}" if trouble else "\nAs it should be.")
    return 1 if trouble else 0


def give_up(*_):
    raise LaboratoryError(f"the scenario does not end within {LIMIT} s")


def fingerprint():
    """What of this machine a laboratory that leaks would change."""
    def show(*command):
        return subprocess.run(["ip", "-j", *command], stdout=subprocess.PIPE, check=True).stdout

    links = [{key: link.get(key) for key in ("ifname", "address", "mtu", "flags")}
             for link in json.loads(show("link", "show"))]
    addresses = [[link["ifname"], [(entry["local"], entry["prefixlen"])
                                   for entry in link["addr_info"]]]
                 for link in json.loads(show("-4", "address", "show"))]
    marks = {"links": links, "addresses": addresses,
             "routes": json.loads(show("-4", "route", "show", "table", "all")),
             "mounts": [line.split()[4] for line in
                        pathlib.Path("/proc/self/mountinfo").read_text().splitlines()]}
    # Not what NetworkManager keeps in /run and /var: the machine's own may be running.
    for name in ("/etc/NetworkManager", "/etc/resolv.conf", "/userdata", "/dev/null",
                 str(pathlib.Path.home() / "Documents" / "laboratory")):
        marks[name] = list(fingerprint_files(pathlib.Path(name)))
    return marks


def fingerprint_files(path):
    if not os.path.lexists(path):
        return
    status = path.lstat()
    yield str(path), status.st_mode, status.st_rdev, status.st_uid, status.st_gid
    if path.is_symlink():
        yield os.readlink(path)
    elif path.is_file() and os.access(path, os.R_OK):
        yield hashlib.sha256(path.read_bytes()).hexdigest()
    elif path.is_dir() and os.access(path, os.R_OK | os.X_OK):
        for entry in sorted(path.iterdir()):
            yield from fingerprint_files(entry)


def main(arguments):
    # The tools of the network are not on everybody's search path.
    os.environ["PATH"] += ":/usr/sbin:/sbin"
    if arguments[:1] == ["--list"] and len(arguments) == 2:
        for name, function in scenarios(arguments[1]).items():
            print(name, "slow" if function.slow else "quick")
        return 0
    if arguments[:1] == ["--inside"]:
        name, processor, *command = arguments[1:]
        return play(scenarios(processor)[name], processor, command)
    if len(arguments) < 3 or arguments[1] not in ("native", "arm"):
        print(__doc__, file=sys.stderr)
        return 64
    if arguments[0] not in scenarios(arguments[1]):
        print(f"run.py: there is no scenario {arguments[0]} for {arguments[1]}", file=sys.stderr)
        return 64
    before = fingerprint()
    status = subprocess.run([SANDBOX, "/usr/bin/python3", "-B", __file__, "--inside",
                             *arguments],
                            check=False).returncode
    after = fingerprint()
    if before != after:
        print("\nThe machine outside the laboratory was touched:")
        for mark in before:
            if before[mark] != after[mark]:
                print(f"  {mark}\n    before: {before[mark]}\n    after:  {after[mark]}")
        return 1
    return status


if __name__ == "__main__":
    sys.exit(main(sys.argv[1:]))

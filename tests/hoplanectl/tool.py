# SPDX-License-Identifier: MIT
"""What the tests of hoplanectl share. Each test program is a unittest module that ends with
tool.main(); it runs in script/sandbox, with the tool's command line as its arguments."""

import json
import os
import pathlib
import signal
import subprocess
import sys
import unittest

COMMAND = []
HOME = pathlib.Path("/sandbox/home")
LABORATORY = pathlib.Path(__file__).resolve().parent.parent / "lab"
sys.path.append(str(LABORATORY))

KEYS = ["SwitchEnable", "connectionName"] + [
    which + key for which in ("First", "Second")
    for key in ("ServerIp", "ServerPort", "IsAutomatically", "LocalIp", "LocalMask", "LocalGateWay",
                "PreferredDNS", "SpareDNS")]


class Result:
    """What a run of the tool printed, and its exit status."""

    def __init__(self, done):
        self.status, self.out, self.err = done.returncode, done.stdout, done.stderr

    @property
    def objects(self):
        return [json.loads(line) for line in self.out.splitlines()]

    def __str__(self):
        return f"exit {self.status}\n--- results\n{self.out}\n--- messages\n{self.err}"


def tool(*arguments, stdin="", environment=None, timeout=60):
    """Runs hoplanectl."""
    done = subprocess.run([*COMMAND, *arguments], input=stdin, stdout=subprocess.PIPE,
                          stderr=subprocess.PIPE, encoding="utf-8", timeout=timeout,
                          env=os.environ | (environment or {}), check=False)
    return Result(done)


def path_of(app):
    return HOME / "Documents" / app / "switch.ini"


def write(app, values):
    """Writes the application's switch.ini; values by their keys."""
    path = path_of(app)
    path.parent.mkdir(parents=True, exist_ok=True)
    lines = ["[General]"] + [f"{key}={value}" for key, value in values.items()]
    path.write_text("\n".join(lines) + "\n", encoding="utf-8")
    return path


def state_of(path):
    """What each change of a file changes; to read it does not."""
    state = path.stat()
    return state.st_ino, state.st_mode, state.st_mtime_ns, state.st_ctime_ns, path.read_bytes()


def remove_all():
    """No application has a file any more."""
    subprocess.run(["rm", "-rf", str(HOME / "Documents")], check=True)


class TestCase(unittest.TestCase):
    """Each test begins without any configuration."""
    maxDiff = None

    def setUp(self):
        remove_all()

    def expect(self, status, *arguments, **options):
        """Runs the tool, which has to exit with the status; returns the result."""
        result = tool(*arguments, **options)
        self.assertEqual(result.status, status, f"{arguments}: {result}")
        return result


def main():
    if os.environ.get("HOME") != str(HOME):
        sys.exit("runs in script/sandbox only")
    # Whoever has started the tests may have it ignored, and so would all that they start.
    signal.signal(signal.SIGINT, signal.default_int_handler)
    COMMAND.extend(sys.argv[1:])
    unittest.main(argv=sys.argv[:1])

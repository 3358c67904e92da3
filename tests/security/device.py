# SPDX-License-Identifier: MIT
"""What the tests of this folder share: an application with the library, on a processor that they
choose. They run in script/sandbox, with the application's program as their first argument."""

import os
import pathlib
import re
import subprocess
import sys
import unittest

HOME = pathlib.Path("/sandbox/home")
CONFIGURATION = HOME / "Documents" / "laboratory" / "switch.ini"
DEVICE_SETTINGS = pathlib.Path("/userdata/netSettings.ini")
sys.path.append(str(pathlib.Path(__file__).resolve().parent.parent / "lab"))

import laboratory  # noqa: E402  pylint: disable=wrong-import-position

ARGUMENTS = []
SECONDS = 30
ROUTE, UEVENT = 0, 15


def wait_until(condition, what):
    """Asks until the condition holds; returns its value."""
    try:
        return laboratory.wait_until(condition, SECONDS, what)
    except laboratory.LaboratoryError as late:
        raise AssertionError(str(late)) from None


class Device:
    """Runs the application of tests/lab/application until the end of the with statement."""

    def __init__(self, architecture, **environment):
        self._command = ["env", f"ARCHITECTURE={architecture}",
                         *(f"{name}={value}" for name, value in environment.items()), ARGUMENTS[0]]
        self.program = None

    def __enter__(self):
        self.program = laboratory.Program(self._command, stdin=subprocess.PIPE)
        self.see(r"^@\S+ ready ")
        return self

    def __exit__(self, *_):
        self.program.stop()

    def see(self, pattern):
        """The next line that the pattern is found in, not looked at before."""
        line = self.program.wait_for(re.compile(pattern).search, SECONDS)
        if line is None:
            raise AssertionError("\n".join([f"no line with {pattern}:", *self.program.lines[-50:]]))
        return line

    def do(self, *words):
        """Lets the application do something; see main.cpp of tests/lab/application."""
        self.program.say("\t".join(words))
        self.see(rf"^@\S+ done {words[0]}$")

    def sockets(self):
        """The inodes of the process's sockets."""
        found = set()
        for link in pathlib.Path(f"/proc/{self.program.pid}/fd").iterdir():
            try:
                found.update(re.findall(r"^socket:\[(\d+)\]$", os.readlink(link)))
            except FileNotFoundError:
                pass
        return found

    def netlink(self):
        """The process's netlink sockets: (protocol, port, groups)."""
        own = self.sockets()
        rows = [line.split() for line in pathlib.Path("/proc/net/netlink").read_text(
            encoding="ascii").splitlines()[1:]]
        return sorted((int(row[1]), int(row[2]), int(row[3], 16)) for row in rows if row[9] in own)

    def port(self, protocol):
        """The watcher's port, when it has one."""
        def found():
            return [port for of, port, groups in self.netlink() if of == protocol and groups]
        return wait_until(found, "the watcher does not listen")[0]


def main():
    if os.environ.get("HOME") != str(HOME):
        sys.exit("runs in script/sandbox only")
    ARGUMENTS.extend(sys.argv[1:])
    unittest.main(argv=sys.argv[:1])

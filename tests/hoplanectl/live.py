# SPDX-License-Identifier: MIT
"""What the tests of search and watch share: the laboratory, and the tool that runs in it."""

import contextlib
import os
import re
import signal
import sys
import unittest

import tool
# In the path since tool is imported.
from laboratory import CONNECTION, NET1, NET2, PORT, Laboratory, Program, run, wait_until
from pseudoterminal import PATIENCE, Terminal, golden  # noqa: F401

APP = "failover"
# An emulated tool is the one that runs on a device.
ARM = len(sys.argv) > 2
# Told whenever Qt, or the other processor's watcher, comes to it.
ANY_TIME = re.compile(r"network configuration|the device is o|listening to the LAN switch")


def dhcp(network):
    return {"ServerIp": network.server, "ServerPort": PORT, "IsAutomatically": "false"}


def static(network, **changes):
    return {"ServerIp": network.server, "ServerPort": PORT, "IsAutomatically": "true",
            "LocalIp": network.device, "LocalMask": "255.255.255.0",
            "LocalGateWay": network.server, "PreferredDNS": network.dns[0],
            "SpareDNS": network.dns[1]} | changes


def masked(text):
    """The lines of a run, without what is different each time."""
    # A busy machine may need a second attempt.
    reached = re.findall(r"(\S+) reached at attempt", text)
    lines = []
    for line in text.splitlines():
        if ANY_TIME.search(line) or any(f" at {server} failed" in line for server in reached):
            continue
        for pattern, mask in ((r"^( *\d+\.\d s|\d\d:\d\d:\d\d)  ", "TIME  "),
                              (r"\((\d+ ms|\d+\.\d s)\)$", "(TIME)"),
                              (r"after \d+\.\d s", "after TIME"),
                              (r"[0-9a-f]{8}(-[0-9a-f]{4}){3}-[0-9a-f]{12}", "UUID"),
                              (r"reached at attempt \d+ of", "reached at attempt K of"),
                              (r"from 192\.0\.2\.1\d\d ", "from LEASED ")):
            line = re.sub(pattern, mask, line)
        lines.append(line)
    return "".join(line + "\n" for line in lines)


def wait_for_link_socket(pid):
    """Waits until the process has a socket that is bound to the notifications of links."""
    def is_bound():
        own = set()
        for entry in os.scandir(f"/proc/{pid}/fd"):
            with contextlib.suppress(FileNotFoundError):
                own.add(os.readlink(entry.path))
        with open("/proc/net/netlink", encoding="ascii") as table:
            rows = [line.split() for line in table.readlines()[1:]]
        # Protocol 0, group 1.
        return any(row[1] == "0" and int(row[3], 16) == 1 and f"socket:[{row[9]}]" in own
                   for row in rows)
    wait_until(is_bound, PATIENCE, "a socket for notifications of links")


class Running(Program):
    """The tool at work; its lines, results and messages, are waited for."""

    def __init__(self, *arguments, prefix=()):
        super().__init__([*prefix, *tool.COMMAND, *arguments])

    def expect(self, text, seconds=PATIENCE):
        """The next line that has this in it."""
        line = self.wait_for(lambda line: re.search(text, line), seconds)
        if line is None:
            raise AssertionError(f"no line has {text}:\n" + "\n".join(self.lines))
        return line

    def expect_message(self, text):
        """A line of standard error, which comes by another pipe: also among those looked at."""
        wait_until(lambda: any(re.search(text, line) for line in list(self.lines)), PATIENCE,
                   f"a line with {text}")

    def expect_all(self, *texts, seconds=PATIENCE):
        """A line for each of them, in whatever order; the lines until then are passed over."""
        missing = list(texts)

        def is_last(line):
            found = [text for text in missing if re.search(text, line)]
            if found:
                missing.remove(found[0])
            return not missing
        if self.wait_for(is_last, seconds) is None:
            raise AssertionError(f"no line has {missing}:\n" + "\n".join(self.lines))

    def end(self, number=signal.SIGINT):
        """Interrupts it; returns its exit status."""
        self.send(number)
        status = self._process.wait(PATIENCE)
        self.stop()
        return status

    def status(self):
        """Waits for its end; returns its exit status."""
        status = self._process.wait(PATIENCE)
        self.stop()
        return status


LAB = Laboratory()


def setUpModule():
    """One laboratory for all tests; for the modules to import."""
    LAB.__enter__()
    unittest.addModuleCleanup(LAB.__exit__, None, None, None)


class TestCase(tool.TestCase):
    """Each test begins with servers that are off, and a device without an address."""
    lab = LAB

    def setUp(self):
        super().setUp()
        self.addCleanup(self.restore)

    def restore(self):
        for uuid in run("nmcli", "-g", "UUID", "connection", "show").split():
            run("nmcli", "connection", "delete", "uuid", uuid)
        LAB.add_profile(CONNECTION)
        wait_until(lambda: LAB.addresses() == [], 10, "no address on eth0")

    def start_server(self, network):
        self.lab.start_server(network.server)
        self.addCleanup(self.lab.stop_server, network.server)

    def configure(self, first=None, second=None, enabled=True, connection=CONNECTION, app=APP):
        """Writes the application's configuration; without more of it: the first network is static,
        the second one automatic."""
        values = {"SwitchEnable": str(enabled).lower(), "connectionName": connection}
        for which, half in (("First", first or static(NET1)), ("Second", second or dhcp(NET2))):
            values |= {which + key: value for key, value in half.items()}
        return tool.write(app, values)

    def give_address(self, network):
        """The device has its static address in the network."""
        run("nmcli", "connection", "modify", CONNECTION, "ipv4.method", "manual",
            "ipv4.addresses", network.device + "/24")
        run("nmcli", "connection", "up", CONNECTION)

    def running(self, *arguments, prefix=()):
        """The tool in the background, ended with the test."""
        program = Running(*arguments, prefix=prefix)
        self.addCleanup(program.stop)
        return program

    def check_golden(self, name, text):
        self.assertEqual(text, golden(name, text), name)

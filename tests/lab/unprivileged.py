#!/usr/bin/python3
# SPDX-License-Identifier: MIT
"""The library's example application and hoplanectl as a user without any privilege, in the
laboratory with polkit and with the sample rule of examples/device/.

unprivileged.py [EMULATOR] LIBRARY APPLICATION HOPLANECTL
"""

import contextlib
import json
import os
import pathlib
import re
import subprocess
import sys
import unittest
import warnings

import run
import users
from laboratory import CONNECTION, LEASED, NET1, NET2, PORT, LaboratoryError, wait_until
from laboratory import run as run_command
from polkit import DEVICE, PolkitLaboratory

ROOT = pathlib.Path(__file__).resolve().parents[2]
RULE = (ROOT / "examples/device/50-failover.rules").read_text(encoding="utf-8")
PREFIX = "org.freedesktop.NetworkManager."
MODIFY, CONTROL = PREFIX + "settings.modify.system", PREFIX + "network-control"
AUDIT = re.compile(r'audit: op="([\w-]+)".* uid=(\d+) result="(\w+)"')
CHANGED, REFUSED = ([("connection-update", result), ("connection-activate", result)]
                    for result in ("success", "fail"))
STATIC = ["ipv4.method", "manual", "ipv4.addresses", NET1.device + "/24"]
EMULATOR = []
LAB = None


def tool(*arguments):
    return [*EMULATOR, str(DEVICE / "hoplanectl"), "--app", "failover", *arguments]


class LaboratoryCase(unittest.TestCase):
    """One laboratory serves all tests. Each begins without a rule, with automatic addressing, with
    the connection down and both servers off."""
    maxDiff = None

    def setUp(self):
        # The laboratory leaves pipes of programs that have ended.
        warnings.simplefilter("ignore", ResourceWarning)
        run_command("nmcli", "connection", "modify", CONNECTION, "ipv4.method", "auto",
                    "ipv4.addresses", "", "ipv4.gateway", "", "ipv4.dns", "")
        run_command("nmcli", "connection", "down", CONNECTION, check=False)
        wait_until(lambda: LAB.addresses() == [], 10, "no address")
        self._audited = len(LAB.manager.lines)

    def allow(self, rule=RULE):
        LAB.set_rule(rule)
        self.addCleanup(LAB.remove_rule)

    def server(self, network):
        LAB.start_server(network.server)
        self.addCleanup(LAB.stop_server, network.server)

    def run_as(self, user, *command, status=0):
        """The command exits with the status; returns its output and messages."""
        seen, out, messages = LAB.run_as(user, *command)
        self.assertEqual(seen, status, f"{user}: {command}\n{out}{messages}")
        return out + messages

    def configure(self):
        """The first network static, the second automatic."""
        for words in (("server", "1", f"{NET1.server}:{PORT}"),
                      ("network", "1", "--address", NET1.device + "/24", "--gateway", NET1.server),
                      ("server", "2", f"{NET2.server}:{PORT}"), ("network", "2", "--dhcp"),
                      ("connection", CONNECTION), ("enabled", "on")):
            self.run_as("failover", *tool("set", *words))

    def start(self, *command):
        """Starts a program of the user failover; returns it once it is that."""
        program = LAB.start_application(LAB.as_user("failover", *command),
                                        on_line=lambda line: LAB.timeline.add("application", line))
        self.addCleanup(program.stop)
        status = pathlib.Path(f"/proc/{program.pid}/status")
        arguments = pathlib.Path(f"/proc/{program.pid}/cmdline")
        wait_until(lambda: arguments.read_bytes() == b"".join(
            word.encode() + b"\0" for word in command), 10, " ".join(command))
        fields = dict(line.split(":\t", 1) for line in status.read_text().splitlines())
        number = str(users.USERS["failover"])
        self.assertEqual(fields["Uid"].split(), 4 * [number])
        self.assertEqual(fields["Gid"].split(), 4 * [number])
        self.assertEqual(fields["Groups"].split(), [])
        for name in ("CapInh", "CapPrm", "CapEff", "CapBnd", "CapAmb"):
            self.assertEqual(int(fields[name], 16), 0, name)
        self.assertEqual(fields["NoNewPrivs"], "1")
        return program

    def expect_line(self, program, text, seconds=60):
        self.assertIsNotNone(program.wait_for(lambda line: text in line, seconds),
                             f"no line: {text}")

    def requests(self, user):
        """What NetworkManager was asked by the user in this test, and what came of it."""
        found = [AUDIT.search(line) for line in LAB.manager.lines[self._audited:]]
        return [(match[1], match[3]) for match in found
                if match and int(match[2]) == users.USERS[user]]

    def expect_requests(self, user, expected):
        with contextlib.suppress(LaboratoryError):
            wait_until(lambda: self.requests(user) == expected, 5, "the requests")
        self.assertEqual(self.requests(user), expected)

    def check(self):
        """What hoplanectl finds as the user failover: of the permissions, and of all else."""
        self.configure()
        _, out, messages = LAB.run_as("failover", *tool("check", "--json"))
        self.assertEqual(messages, "")
        *rows, _ = [json.loads(line) for line in out.splitlines()]
        permissions = [row for row in rows if row["item"] == "permissions"]
        others = {row["item"]: row["level"] for row in rows if row["item"] != "permissions"}
        return permissions, others

    def expect_refused(self, user):
        before = self.addressing()
        self.assertIn("Insufficient privileges", self.run_as(
            user, "nmcli", "connection", "modify", CONNECTION, *STATIC, status=1))
        self.assertIn("Not authorized to control networking", self.run_as(
            user, "nmcli", "connection", "up", CONNECTION, status=4))
        self.assertEqual(self.addressing(), before)
        self.assertEqual(LAB.addresses(), [])
        self.expect_requests(user, REFUSED)

    @staticmethod
    def addressing():
        return run_command("nmcli", "-f", "ipv4,connection.autoconnect", "connection", "show",
                           CONNECTION)


class WithTheRule(LaboratoryCase):
    def test_commands(self):
        self.allow()
        self.run_as("failover", "nmcli", "connection", "modify", CONNECTION, *STATIC)
        self.run_as("failover", "nmcli", "connection", "up", CONNECTION)
        self.assertEqual(LAB.addresses(), [NET1.device + "/24"])
        self.expect_requests("failover", CHANGED)

    def test_search_and_link_event(self):
        """Both networks are applied, the first server is dead, the second accepts; then the first
        accepts too, and an event leads to it."""
        self.allow()
        self.configure()
        self.server(NET2)
        application = self.start(*EMULATOR, str(DEVICE / "failover"))
        self.expect_line(application, f"use server {NET2.server} port {PORT}")
        self.assertEqual(len(LAB.addresses()), 1)
        self.assertRegex(LAB.addresses()[0], LEASED)
        self.expect_requests("failover", 2 * CHANGED)
        self.server(NET1)
        if EMULATOR:
            LAB.flip_lan_switch(0)
            self.expect_line(application, "the link changed")
        else:
            LAB.pull_cable()
            self.expect_line(application, "the link changed")
            LAB.plug_cable()
        self.expect_line(application, f"use server {NET1.server} port {PORT}")
        self.assertEqual(LAB.addresses(), [NET1.device + "/24"])
        self.assertEqual(LAB.default_gateway(), NET1.server)
        self.expect_requests("failover", 3 * CHANGED)

    def test_check(self):
        _, others = self.check()
        self.allow()
        permissions, others_now = self.check()
        self.assertEqual([(row["level"], row["text"]) for row in permissions],
                         [("good", "the user failover may change and activate connections")])
        # All else is as it was.
        self.assertEqual(others_now, others)
        self.assertEqual({item for item, level in others.items() if level == "fault"}, set())

    def test_nothing_else(self):
        actions = LAB.actions()
        for name in (MODIFY, CONTROL, PREFIX + "settings.modify.hostname",
                     PREFIX + "enable-disable-wifi", "org.freedesktop.policykit.exec"):
            self.assertIn(name, actions)
        process = self.start("sleep", "infinity").pid
        before = LAB.allowed(actions, process)
        self.allow()
        after = LAB.allowed(actions, process)
        self.assertEqual(before - after, set())
        self.assertEqual(after - before, {MODIFY, CONTROL})

    def test_other_requests(self):
        self.allow()
        for words, message in ((("radio", "wifi", "off"), "Not authorized"),
                               (("networking", "off"), "Not authorized"),
                               (("general", "reload"), "Not authorized")):
            self.assertIn(message, LAB.run_as("failover", "nmcli", *words)[2], words)
        self.expect_requests("failover", [("radio-control", "fail"),
                                          ("networking-control", "fail"), ("reload", "fail")])
        self.assertEqual(run_command("nmcli", "-g", "WIFI", "radio").strip(), "enabled")
        self.assertEqual(run_command("nmcli", "networking").strip(), "enabled")

    def test_another_user(self):
        process = self.start_stranger()
        actions = LAB.actions()
        before = LAB.allowed(actions, process)
        self.allow()
        self.assertEqual(LAB.allowed(actions, process), before)
        self.expect_refused("stranger")

    def start_stranger(self):
        program = LAB.start_application(LAB.as_user("stranger", "sleep", "infinity"))
        self.addCleanup(program.stop)
        name = pathlib.Path(f"/proc/{program.pid}/comm")
        wait_until(lambda: name.read_text().strip() == "sleep", 10, "a process of the stranger")
        return program.pid


class WithoutTheRule(LaboratoryCase):
    def test_commands(self):
        self.expect_refused("failover")

    def test_search_applies_nothing(self):
        """The device has the second network's addressing already, so its server is reached; the
        log does not tell that nothing was applied, nmcli's own messages do."""
        run_command("nmcli", "connection", "up", CONNECTION)
        addresses, addressing = LAB.addresses(), self.addressing()
        self.configure()
        self.server(NET1)
        self.server(NET2)
        application = self.start(*EMULATOR, str(DEVICE / "failover"))
        self.expect_line(application, f"use server {NET2.server} port {PORT}")
        self.assertEqual(LAB.addresses(), addresses)
        self.assertEqual(self.addressing(), addressing)
        self.expect_requests("failover", 2 * REFUSED)
        for text in ("run successful", "Insufficient privileges",
                     "Not authorized to control networking"):
            self.assertEqual(sum(text in line for line in application.lines), 2, text)

    def test_check(self):
        permissions, _ = self.check()
        self.assertEqual([(row["level"], row["text"]) for row in permissions],
                         [("fault", f"for the user failover {action} asks for somebody's password, "
                                    "and nobody is there") for action in (MODIFY, CONTROL)])

    def test_remedy_of_check(self):
        """The rule that hoplanectl tells to write is one."""
        permissions, _ = self.check()
        rules = {re.search(r"polkit\.addRule\(.*\}\);", row["remedy"])[0] for row in permissions}
        self.assertEqual(len(rules), 1)
        self.allow(rules.pop())
        permissions, _ = self.check()
        self.assertEqual([row["level"] for row in permissions], ["good"])


def setUpModule():
    global LAB  # pylint: disable=global-statement
    lab = PolkitLaboratory()
    # One that cannot be raised has put down itself.
    LAB = lab.__enter__()
    unittest.addModuleCleanup(lab.__exit__, None, None, None)


def marks():
    """What of this machine a laboratory that leaks would change."""
    return [run.fingerprint(), *(list(run.fingerprint_files(pathlib.Path(name)))
                                 for name in ("/etc/passwd", "/etc/group", "/etc/polkit-1",
                                              "/usr/share/polkit-1/rules.d"))]


def main(arguments):
    if os.environ.get("HOME") == "/sandbox/home":
        os.chdir("/")
        *EMULATOR[:], library, application, hoplanectl = arguments
        PolkitLaboratory.install(library, application, hoplanectl)
        done = unittest.main(argv=["unprivileged.py"], exit=False).result
        if not done.wasSuccessful() and LAB:
            print("\nThe timeline:", *LAB.timeline.lines("dhcp"), sep="\n")
        return not done.wasSuccessful()
    # The tools of the network are not on everybody's search path.
    os.environ["PATH"] += ":/usr/sbin:/sbin"
    try:
        users.enter()
    except users.UsersError as error:
        return f"unprivileged.py: {error}"
    before = marks()
    status = subprocess.run([run.SANDBOX, "--inherit-users", "/usr/bin/python3", "-B", __file__,
                             *arguments], check=False).returncode
    if marks() != before:
        return "The machine outside the laboratory was touched."
    return status


if __name__ == "__main__":
    sys.exit(main(sys.argv[1:]))

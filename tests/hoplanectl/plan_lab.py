# SPDX-License-Identifier: MIT
"""hoplanectl plan on a real NetworkManager: the library's own searches run what it tells, and it
asks for nothing itself."""

import pathlib
import signal
import sys

import tool  # first: it tells where the laboratory is
from application import success
from laboratory import CONNECTION, NET1, NET2, Timeline, run, wait_until
from scenario import (ARM, NATIVE, Bench, automatic_commands, dhcp, has_lease, has_static, static,
                      static_commands)

# An emulated tool is the one that runs on a device.
EMULATED = len(sys.argv) > 2
SEARCHES = 0


def application():
    """The command line of the laboratory's application, which is built beside the tool."""
    build = pathlib.Path(tool.COMMAND[-1]).resolve().parents[2]
    return [*tool.COMMAND[:-1], str(build / "tests/lab/application/lab_application")]


class PlanLab(tool.TestCase):
    """All in one laboratory; each test begins with a device that has no address."""

    @classmethod
    def setUpClass(cls):
        cls.lab = cls.enterClassContext(Bench(Timeline(), application(),
                                              ARM if EMULATED else NATIVE))

    def setUp(self):
        super().setUp()
        self.addCleanup(self.restore)

    def restore(self):
        if self.lab.app:
            self.lab.app.end()
            self.lab.app = None
        for uuid in run("nmcli", "-g", "UUID", "connection", "show").split():
            run("nmcli", "connection", "delete", "uuid", uuid)
        self.lab.add_profile(CONNECTION)
        wait_until(lambda: self.lab.addresses() == [], 10, "no address on eth0")

    def plan(self):
        """The plan's summary, and of each pass and turn what is run for it but the look-ups."""
        plan, *rest = self.expect(SEARCHES, "--app", "laboratory", "--json", "plan").objects
        turns = {(found["pass"], found["turn"]): [] for found in rest}
        for found in rest:
            if found["type"] == "command" and found["purpose"] != "look-up":
                turns[found["pass"], found["turn"]].append(found["command"])
        return plan, turns

    def start_server(self, network):
        self.lab.start_server(network.server)
        self.addCleanup(self.lab.stop_server, network.server)

    def search(self, reached):
        app = self.lab.application()
        app.start()
        app.expect_signal(success(reached))

    def expect_refusal(self, plan, turns):
        """A search runs what was planned, with several UUIDs, and nmcli refuses it, as was warned
        of. The device is in the second network's range already."""
        self.assertEqual(["the look-up finds several UUIDs; nmcli will refuse the commands that "
                          "have them all"], plan["warnings"])
        self.assertEqual(automatic_commands(plan["uuid"]), turns["each", 1])
        self.start_server(NET2)
        self.search(NET2)
        self.assertEqual(turns["each", 1], self.lab.app.commands())
        self.lab.check_requests([])

    def audits(self):
        """What NetworkManager was asked to do."""
        return [line for line in self.lab.manager.lines if " audit: " in line]

    def test_one_automatic_and_one_static(self):
        # Off ARM the static one goes first.
        halves = dhcp(NET2), static(NET1)
        self.lab.configure(*halves)
        last = NET1 if EMULATED else NET2
        self.start_server(last)
        plan, turns = self.plan()
        self.assertEqual((not EMULATED, self.lab.uuid, False, []),
                         (plan["exchanged"], plan["uuid"], plan["placeholder"], plan["warnings"]))
        self.assertEqual("arm" in plan["processor"], EMULATED)
        commands = [automatic_commands(self.lab.uuid), static_commands(self.lab.uuid, static(NET1))]
        ordered = commands if EMULATED else commands[::-1]
        self.assertEqual({("each", 1): ordered[0], ("each", 2): ordered[1]}, turns)
        self.search(last)
        self.lab.check_commands(turns["each", 1] + turns["each", 2])
        if EMULATED:
            has_static(self.lab, NET1)
        else:
            has_lease(self.lab)

    def test_both_static_and_the_device_on_the_first_one(self):
        self.lab.configure(static(NET1), static(NET2))
        self.lab.give_address(static(NET1))
        self.start_server(NET1)
        _, turns = self.plan()
        self.assertEqual([("first", 1), ("first", 2), ("later", 1), ("later", 2)], list(turns))
        self.assertEqual([], turns["first", 1])
        self.search(NET1)
        # The first server accepts at once, so its connection is not activated again.
        self.lab.check_commands(turns["first", 2] + turns["later", 1][:2])

    def test_both_static_and_another_interface_with_an_address(self):
        """The library takes the other interface's address, and never tries the second network."""
        self.lab.add_second_cable()
        self.addCleanup(run, "ip", "link", "del", "eth1")
        self.lab.add_profile("second", "eth1", "ipv4.method", "manual", "ipv4.addresses",
                             "203.0.113.5/24")
        run("nmcli", "connection", "up", "second")
        self.lab.configure(static(NET1), static(NET2, ip="203.0.113.50"))
        _, turns = self.plan()
        commands = static_commands(self.lab.uuid, static(NET1))
        expected = {("each", 1): [*commands, commands[-1]], ("each", 2): []}
        self.assertEqual(expected, turns)
        app = self.lab.application()
        app.start()
        app.expect_log("it is the same net ip adddr", 30)
        self.assertEqual(expected, self.plan()[1], "the connection is active now")
        self.start_server(NET1)
        app.expect_signal(success(NET1))
        self.assertEqual(turns["each", 1] + commands, app.commands())

    def test_it_asks_networkmanager_for_no_change(self):
        before = self.audits()
        for connection in (CONNECTION, ""):
            self.lab.configure(dhcp(NET2), static(NET1), connection=connection)
            self.plan()
        # Behind what the plans might have asked for.
        run("nmcli", "connection", "modify", CONNECTION, "connection.autoconnect", "no")
        wait_until(lambda: len(self.audits()) > len(before), 10, "the change is told of")
        self.assertEqual(1, len(self.audits()) - len(before), self.audits())
        self.assertEqual([], self.lab.addresses())

    def test_two_connections_of_one_name(self):
        self.lab.give_address(dhcp(NET2))
        self.lab.add_profile(CONNECTION)
        uuids = set(run("nmcli", "-g", "UUID", "connection", "show").split())
        self.lab.configure(dhcp(NET2), dhcp(NET1))
        plan, turns = self.plan()
        self.assertEqual((2, uuids), (len(uuids), set(plan["uuid"].split())))
        self.expect_refusal(plan, turns)

    def test_the_active_connection(self):
        self.lab.give_address(dhcp(NET2))
        self.lab.configure(dhcp(NET2), dhcp(NET1), connection="")
        plan, turns = self.plan()
        self.assertEqual((self.lab.uuid, []), (plan["uuid"], plan["warnings"]))
        self.assertEqual(automatic_commands(self.lab.uuid), turns["each", 1])

    def test_several_active_connections(self):
        self.lab.add_second_cable()
        self.lab.add_profile("other", "eth1", "ipv4.method", "manual", "ipv4.addresses",
                             "203.0.113.2/24")
        self.lab.give_address(dhcp(NET2))
        run("nmcli", "connection", "up", "other")
        uuids = {self.lab.uuid, self.lab.profile("connection.uuid", "other")}
        self.lab.configure(dhcp(NET2), dhcp(NET1), connection="")
        plan, turns = self.plan()
        self.assertEqual(uuids, set(plan["uuid"].split()))
        self.expect_refusal(plan, turns)

    def test_time_of_the_profile(self):
        self.lab.configure(dhcp(NET2), dhcp(NET1))
        for time, waits in (("0", 45), ("7", 7), ("300", 90), ("infinity", 90)):
            run("nmcli", "connection", "modify", CONNECTION, "ipv4.dhcp-timeout", time)
            self.assertEqual((130 + 2 * waits) * 1000, self.plan()[0]["silentDhcpCaseMs"], time)

    def test_no_such_connection(self):
        self.lab.configure(dhcp(NET2), dhcp(NET1), connection="nobody")
        plan, turns = self.plan()
        self.assertEqual(("", False), (plan["uuid"], plan["placeholder"]))
        self.assertEqual({("each", 1): [], ("each", 2): []}, turns)

    def test_networkmanager_stopped_or_gone(self):
        self.lab.configure(dhcp(NET2), dhcp(NET1))
        self.addCleanup(self.lab.start_manager)
        self.addCleanup(self.lab.kill_manager)
        self.lab.manager.send(signal.SIGSTOP)
        plan, turns = self.plan()
        self.assertEqual(("UUID-OF-lan", True), (plan["uuid"], plan["placeholder"]))
        self.assertEqual(automatic_commands("UUID-OF-lan"), turns["each", 1])
        self.assertIn("nmcli has no answer after 5 s", plan["warnings"][0])
        self.lab.kill_manager()
        plan, _ = self.plan()
        self.assertIn("NetworkManager is not running", plan["warnings"][0])


if __name__ == "__main__":
    tool.main()

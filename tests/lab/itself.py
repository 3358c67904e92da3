#!/usr/bin/python3
# SPDX-License-Identifier: MIT
"""Tests of the laboratory itself: a scenario in which something is wrong has to fail, and to say
what. itself.py APPLICATION"""

import ast
import contextlib
import io
import os
import pathlib
import re
import subprocess
import sys
import unittest
import unittest.mock

import run
from application import check_equal, success
from laboratory import NET1, NET2, write_configuration
from laboratory import run as run_command
from scenario import SCENARIOS, dhcp, scenario, static, static_commands

APPLICATION = ""


def play(function, processor="native"):
    """Plays a scenario in a sandbox of its own; returns its exit status and what it printed."""
    done = subprocess.run([run.SANDBOX, "/usr/bin/python3", "-B", __file__, "--play",
                           function.__name__, processor, APPLICATION], stdout=subprocess.PIPE,
                          stderr=subprocess.STDOUT, text=True, check=False)
    return done.returncode, done.stdout


def searched(lab):
    """An application after a search."""
    lab.configure(first=static(NET1), second=dhcp(NET2))
    lab.start_server(NET1.server)
    app = lab.application()
    app.start()
    app.expect_signal(success(NET1))
    return app


@scenario(only="itself")
def nothing_wrong(lab):
    """Nothing is wrong."""
    searched(lab)


@scenario(only="itself")
def stalled_event_loop(lab):
    """The event loop is kept for 80 ms, several times: a busy machine excuses much."""
    app = searched(lab)
    for _ in range(8):
        app.tell("stall", "80")


@scenario(only="itself")
def long_stalled_event_loop(lab):
    """The event loop is kept for 600 ms."""
    searched(lab).tell("stall", "600")


@scenario(only="itself")
def busy_event_loop(lab):
    """The event loop is busy for 2 s, of which a busy machine gives it a part only."""
    searched(lab).tell("spin", "2000")


@scenario(only="itself")
def signal_in_another_thread(lab):
    """A signal is emitted outside the application's thread."""
    searched(lab).tell("stray")


@scenario(only="itself")
def endless_scenario(lab):
    """The scenario does not end by itself."""
    run.signal.alarm(3)
    lab.start_server(NET1.server)
    while True:
        run_command("sleep", "0.1")


@scenario(only="itself")
def event_loop_kept_a_little(lab):
    """The event loop is kept for 30 ms, which is allowed."""
    searched(lab).tell("stall", "30")


@scenario(only="itself")
def leaked_descriptor(lab):
    """A descriptor stays open."""
    searched(lab).tell("leak", "descriptor")


@scenario(only="itself")
def leaked_thread(lab):
    """A thread goes on."""
    searched(lab).tell("leak", "thread")


@scenario(only="itself")
def leaked_child(lab):
    """A child process stays."""
    searched(lab).tell("leak", "child")


@scenario(only="itself")
def signal_too_many(lab):
    """A search that nobody mentions."""
    searched(lab).tell("start")


@scenario(only="itself")
def another_signal(lab):
    """Another server is expected than the one that answers."""
    lab.configure(first=static(NET1), second=dhcp(NET2))
    lab.start_server(NET1.server)
    app = lab.application()
    app.start()
    app.expect_signal(success(NET2))


@scenario(only="itself")
def signal_missing(lab):
    """A signal that does not come."""
    searched(lab).expect_signal("switchBegin", within=1)


@scenario(only="itself")
def application_ended(lab):
    """The application ends in the middle."""
    app = searched(lab)
    app.end()
    app.expect_signal("switchBegin")


@scenario(only="itself")
def manager_ended(lab):
    """NetworkManager ends in the middle."""
    searched(lab)
    lab.kill_manager()


@scenario(only="itself")
def command_of_somebody_else(lab):
    """NetworkManager is asked for more than the library has told."""
    searched(lab)
    run_command("nmcli", "connection", "up", "lan")
    lab.check_commands(static_commands(lab.uuid, static(NET1)))


@scenario(only="itself")
def event_behind_a_text_without_end(lab):
    """A program that the library runs leaves a line of its messages without an end; the event
    behind it is seen."""
    app = searched(lab)
    app.tell("murmur", "no end of line here")
    app.start()
    app.expect_signal(success(NET1))


@scenario(only="itself")
def uevent_refused(lab):
    """The kernel refuses what is no uevent."""
    lab.send_uevent("nothing of the kind", "x" * 4000)


@scenario(only="itself")
def fault_of_the_scenario(lab):
    """The scenario itself is wrong."""
    check_equal(lab.no_such_thing, 1, "nothing")


@scenario(only="itself")
def device_node_replaced(_lab):
    """Something made a plain file of /dev/null."""
    pathlib.Path("/sandbox/plain").touch()
    subprocess.run(["mount", "--bind", "/sandbox/plain", "/dev/null"], check=True)


class Faults(unittest.TestCase):
    """Each scenario above, with what has to be said of it."""

    def fails(self, function, *texts, processor="native"):
        status, printed = play(function, processor)
        self.assertEqual(status, 1, printed)
        verdict = printed.rpartition("\nNot as it should be: ")[2]
        for text in texts:
            self.assertIn(text, verdict)
        return printed

    def holds_more(self, function, what):
        printed = self.fails(function, "the application does not hold what it did at first")
        seen, expected = (ast.literal_eval(text)
                          for text in re.findall(r"^  (?:seen|expected): +(\{.*\})$", printed,
                                                 re.MULTILINE)[-2:])
        self.assertEqual(seen, expected | {what: expected[what] + 1})

    def test_nothing(self):
        status, printed = play(nothing_wrong)
        self.assertEqual(status, 0, printed)

    def test_stall(self):
        self.fails(stalled_event_loop, "the event loop was kept from running", "seen:     ['")

    def test_stall_of_an_emulated_program(self):
        # What an emulator would cost is excused, a sleep is not.
        self.fails(long_stalled_event_loop, "the event loop was kept from running", "seen:     ['",
                   processor="arm")
        status, printed = play(busy_event_loop, "arm")
        self.assertEqual(status, 0, printed)
        self.fails(busy_event_loop, "the event loop was kept from running", "seen:     ['")

    def test_stray(self):
        self.fails(signal_in_another_thread, "signals outside the application's thread",
                   "switchBegin")

    def test_endless(self):
        self.fails(endless_scenario, "the scenario does not end within")

    def test_short_stall(self):
        status, printed = play(event_loop_kept_a_little)
        self.assertEqual(status, 0, printed)

    def test_descriptor(self):
        self.holds_more(leaked_descriptor, "descriptors")

    def test_thread(self):
        self.holds_more(leaked_thread, "threads")

    def test_child(self):
        self.holds_more(leaked_child, "children")

    def test_signals(self):
        self.fails(signal_too_many, "signals that nobody expected", "'start'", success(NET1))

    def test_another(self):
        printed = self.fails(another_signal, "another signal came", success(NET1))
        # It explains itself: the timeline has all who took part.
        for who in ("library log  info [ loadConfig ]", "manager ", "dhcp ", "application  signal",
                    "server       198.51.100.1 accepted"):
            self.assertIn(who, printed)

    def test_missing(self):
        self.fails(signal_missing, "no signal switchBegin: not within 1 s")

    def test_ended(self):
        self.fails(application_ended, "the application has ended")

    def test_manager(self):
        self.fails(manager_ended, "NetworkManager has ended")

    def test_commands(self):
        self.fails(command_of_somebody_else, "requests, as NetworkManager counts them",
                   "['update', 'activate', 'activate']")

    def test_text_without_end(self):
        status, printed = play(event_behind_a_text_without_end)
        self.assertEqual(status, 0, printed)
        self.assertIn("no end of line here", printed)

    def test_uevent(self):
        self.fails(uevent_refused, "the kernel refuses the uevent: ")

    def test_fault(self):
        self.fails(fault_of_the_scenario, "AttributeError", "no_such_thing")

    def test_device_node(self):
        self.fails(device_node_replaced, "/dev/null is no character device any more")

    def test_fingerprint(self):
        before = run.fingerprint()
        self.assertEqual(before, run.fingerprint())
        path = write_configuration("laboratory", {})
        self.assertNotEqual(before, run.fingerprint())
        path.unlink()
        path.parent.rmdir()
        subprocess.run(["ip", "link", "set", "lo", "down"], check=True)
        self.assertNotEqual(before, run.fingerprint())
        subprocess.run(["ip", "link", "set", "lo", "up"], check=True)
        self.assertEqual(before, run.fingerprint())
        pathlib.Path("/userdata/netSettings.ini").touch()
        self.assertNotEqual(before, run.fingerprint())
        pathlib.Path("/userdata/netSettings.ini").unlink()

    def test_machine_touched(self):
        for touches in (False, True):
            sandbox = pathlib.Path("/sandbox/home/stand-in")
            sandbox.write_text("#!/bin/sh\n" + ("touch /userdata/netSettings.ini\n" if touches
                                                else "") + "exit 0\n", encoding="utf-8")
            sandbox.chmod(0o755)
            printed = io.StringIO()
            with unittest.mock.patch.object(run, "SANDBOX", sandbox), \
                    contextlib.redirect_stdout(printed):
                self.assertEqual(run.main(["no_file", "native", "true"]), int(touches))
            self.assertEqual(re.findall(r"^  (/\S+)$|(netSettings.ini)", printed.getvalue(),
                                        re.MULTILINE),
                             [("/userdata", ""), ("", "netSettings.ini")] if touches else [])
        pathlib.Path("/userdata/netSettings.ini").unlink()

    def test_usage(self):
        for arguments, text in ((["no_such", "native", "true"], "there is no scenario no_such"),
                                (["no_file"], "run.py SCENARIO"),
                                (["lan_switch_to_0", "native", "true"], "lan_switch_to_0 for")):
            printed = io.StringIO()
            with contextlib.redirect_stderr(printed):
                self.assertEqual(run.main(arguments), 64)
            self.assertIn(text, printed.getvalue())


if __name__ == "__main__":
    APPLICATION = sys.argv.pop()
    if sys.argv[1:2] == ["--play"]:
        sys.exit(run.play(SCENARIOS[sys.argv[2]], sys.argv[3], [APPLICATION]))
    if os.environ.get("HOME") != "/sandbox/home":
        os.execv(run.SANDBOX, [str(run.SANDBOX), "/usr/bin/python3", "-B", *sys.argv, APPLICATION])
    unittest.main()

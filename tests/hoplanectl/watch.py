# SPDX-License-Identifier: MIT
"""hoplanectl watch: events of links and of the LAN switch, and what the library does about them,
against the real NetworkManager. The texts of golden/ are what it showed, with the times masked;
with HOPLANE_WRITE_GOLDEN set they are written anew."""

import ctypes
import json
import os
import signal
import struct
import sys

import tool
from laboratory import CONNECTION, LAN_SWITCH, NET1, NET2, PORT
from live import (APP, ARM, TestCase, Terminal, masked, setUpModule,  # noqa: F401
                  static, wait_for_link_socket)

WITHOUT_SOCKETS = "--without-uevent-sockets"
FIRST, SECOND = f"{NET1.server}:{PORT}", f"{NET2.server}:{PORT}"


def without_uevent_sockets():
    """From here on this process and those that it starts get no socket for uevents: a filter of
    their system calls refuses it."""
    load, jump_if, give = 0x20, 0x15, 0x06
    socket_call = {"x86_64": 41, "aarch64": 198}[os.uname().machine]
    number, family, protocol = 0, 16, 32
    allow, refuse = 0x7FFF0000, 0x00050000 | 1
    rules = [(load, 0, 0, number), (jump_if, 0, 5, socket_call),
             (load, 0, 0, family), (jump_if, 0, 3, 16),
             (load, 0, 0, protocol), (jump_if, 0, 1, 15),
             (give, 0, 0, refuse), (give, 0, 0, allow)]
    code = b"".join(struct.pack("=HBBI", *rule) for rule in rules)
    kept = ctypes.create_string_buffer(code)
    program = struct.pack("@HP", len(rules), ctypes.addressof(kept))
    libc = ctypes.CDLL(None, use_errno=True)
    no_new_privileges, seccomp, filtered = 38, 22, 2
    if (libc.prctl(no_new_privileges, 1, 0, 0, 0) != 0
            or libc.prctl(seccomp, filtered, program, 0, 0) != 0):
        raise OSError(ctypes.get_errno(), "no filter of system calls")


class Watch(TestCase):
    def watch(self, *arguments):
        """Starts it, and waits until it watches."""
        program = self.running(*arguments, "watch")
        program.expect('^watching |"type":"watch"')
        self.wait_for_watcher(program)
        return program

    def wait_for_watcher(self, program):
        """The library's watcher has its socket: nothing is lost from here on."""
        if ARM:
            program.expect("listening to the LAN switch")
        else:
            wait_for_link_socket(program.pid)

    def check_golden_lines(self, name, program):
        """All lines of the run that is over; the signals, which the log does not wait for, last."""
        lines = masked("\n".join(program.lines)).splitlines(keepends=True)
        lines.sort(key=lambda line: "  signal " in line)
        self.check_golden(name, "".join(lines))


class Links(Watch):
    """Where the kernel's notifications of links are what it listens to."""

    def test_cable(self):
        """The cable is pulled and plugged: a begin, and a search."""
        self.start_server(NET1)
        self.configure()
        program = self.watch()
        self.lab.pull_cable()
        program.expect("signal switchBegin")
        self.lab.plug_cable()
        # The signal and the log come from different threads.
        program.expect_all(f"reached {FIRST} through network 1", "signal switchSuccess")
        self.assertEqual(program.end(), 130)
        self.check_golden_lines("watch-cable.txt", program)

    def test_objects(self):
        """The same, told in objects."""
        self.start_server(NET1)
        path = self.configure()
        program = self.watch("--json")
        self.lab.pull_cable()
        program.expect('"signal":"switchBegin"')
        self.lab.plug_cable()
        program.expect_all('"signal":"switchSuccess"', '"type":"search"')
        self.assertEqual(program.end(), 130)
        objects = [json.loads(line) for line in program.lines]
        self.assertEqual({key: objects[0][key] for key in ("type", "events", "app", "file",
                                                           "exists", "enabled")},
                         {"type": "watch", "events": "links", "app": APP, "file": str(path),
                          "exists": True, "enabled": True})
        links = [(thing["interface"], thing["up"]) for thing in objects
                 if thing.get("step") == "link"]
        self.assertEqual(links[:2], [("eth0", False), ("eth0", True)])
        success = next(thing for thing in objects if thing.get("signal") == "switchSuccess")
        self.assertEqual((success["ip"], success["port"]), (NET1.server, str(PORT)))
        search = next(thing for thing in objects if thing["type"] == "search")
        self.assertEqual((search["outcome"], search["network"]), ("reached", 1))
        self.assertEqual((objects[-1]["type"], objects[-1]["reason"]), ("end", "interrupted"))

    def test_disabled(self):
        """Switching is disabled: that is said at the start, and when something happens."""
        self.configure(enabled=False)
        program = self.watch()
        program.expect_message(f"hoplanectl --app {APP} set enabled on")
        self.lab.pull_cable()
        self.addCleanup(self.lab.plug_cable)
        program.expect("link eth0 is down")
        program.expect("switching is disabled: nothing is done")
        program.end()
        self.assertFalse(any("signal " in line for line in program.lines))

    def test_enabled_meanwhile(self):
        """Switching is enabled while it watches: the next event is handled."""
        self.configure(enabled=False)
        program = self.watch()
        program.expect_message("set enabled on")
        self.expect(0, "set", "enabled", "on")
        self.lab.pull_cable()
        self.addCleanup(self.lab.plug_cable)
        program.expect("a link went down: the application is told that a switch begins")
        program.expect("signal switchBegin")

    def test_no_file(self):
        """The application has no file: a warning, and it goes on."""
        program = self.watch("--app", "nobody")
        program.expect_message("there is no /.*/nobody/switch.ini, so nothing will follow")
        self.lab.pull_cable()
        self.addCleanup(self.lab.plug_cable)
        program.expect("link eth0 is down")
        program.expect("there is no configuration file /.*/nobody/switch.ini: nothing is done")

    def test_unusable_file(self):
        """Of the file nothing can be read: that is said, not that switching is disabled."""
        path = self.configure()
        path.write_bytes(b"\x7fELF\n")
        program = self.watch()
        reason = f"{path} is no INI file throughout"
        program.expect_message(f"hoplanectl: {reason}, so nothing will follow from an event$")
        self.lab.pull_cable()
        self.addCleanup(self.lab.plug_cable)
        program.expect(f"{reason}: nothing is done")
        program.end()
        self.assertFalse(any("disabled" in line or "set enabled" in line
                             for line in program.lines), program.lines)

    def test_interrupted_search(self):
        """Interrupted during a search that a link began: it is told where."""
        self.configure()
        program = self.watch()
        self.lab.pull_cable()
        self.lab.plug_cable()
        program.expect("attempt 2 of 10")
        self.assertEqual(program.end(signal.SIGTERM), 143)
        self.assertRegex(program.lines[-2], r"no outcome after .*: interrupted \(network 1: ")
        self.assertRegex(program.lines[-1], "interrupted$")

    def test_second_event_during_a_search(self):
        """The cable is pulled during a search: the begin comes after it."""
        self.start_server(NET2)
        self.configure()
        program = self.watch()
        self.lab.pull_cable()
        self.lab.plug_cable()
        program.expect("attempt 2 of 10")
        self.lab.pull_cable()
        self.lab.plug_cable()
        program.expect(f"reached {SECOND} through network 2")
        program.expect("a link went down: the application is told")
        program.expect("signal switchBegin")

    def test_terminal(self):
        """The line at the bottom stands there during a search only."""
        self.start_server(NET1)
        self.configure()
        terminal = Terminal("watch")
        terminal.read_until("watching ")
        wait_for_link_socket(terminal.pid)
        self.lab.pull_cable()
        terminal.read_until("signal switchBegin")
        self.assertEqual(terminal.drawn, [])
        self.lab.plug_cable()
        terminal.read_until("signal switchSuccess")
        terminal.type(b"\x03")
        terminal.read_all()
        self.assertEqual(terminal.status, 130)
        self.assertTrue(any(line.startswith("0 s of 120 s, pass 1, network 1: ")
                            for line in terminal.drawn), terminal.drawn)
        self.assertNotIn("of 120 s", terminal.screen)


class LanSwitch(Watch):
    """Where the LAN switch's events are what it listens to."""

    def test_both_states(self):
        """The LAN switch goes to 1 and back to 0: each network in its turn."""
        self.start_server(NET1)
        self.start_server(NET2)
        self.configure()
        program = self.watch()
        self.lab.flip_lan_switch(1)
        program.expect("the LAN switch reports state 1")
        program.expect(f"reached {SECOND} through network 2")
        self.lab.flip_lan_switch(0)
        program.expect("LAN switch: state 0 selects network 1")
        program.expect_all(f"reached {FIRST} through network 1",
                           f"signal switchSuccess: {NET1.server} {PORT}")
        self.assertEqual(program.end(), 130)
        self.check_golden_lines("watch-lan-switch.txt", program)

    def test_signals(self):
        """What the application would be told."""
        self.start_server(NET1)
        self.configure()
        program = self.watch()
        self.lab.flip_lan_switch(0)
        program.expect("signal switchBegin")
        program.expect(f"signal switchSuccess: {NET1.server} {PORT}")

    def test_server_dead(self):
        """The selected server is dead: twenty attempts, and nobody is told."""
        self.configure()
        program = self.watch("--json")
        self.lab.flip_lan_switch(0)
        program.expect('"type":"reopening"')
        program.end()
        objects = [json.loads(line) for line in program.lines]
        reopening = next(thing for thing in objects if thing["type"] == "reopening")
        self.assertEqual((reopening["outcome"], reopening["state"],
                          reopening["networks"][0]["attempts"]), ("failed", 0, 20))
        self.assertEqual([thing["signal"] for thing in objects if thing["type"] == "signal"],
                         ["switchBegin"])
        self.assertEqual([thing["reopening"] for thing in objects
                          if thing.get("step") == "reactivate"], [1])

    def test_disabled(self):
        """Switching is disabled: the event is told, and that nothing is done."""
        self.configure(enabled=False)
        program = self.running("watch")
        program.expect_message("set enabled on")
        self.wait_for_watcher(program)
        self.lab.flip_lan_switch(1)
        program.expect("the LAN switch reports state 1")
        program.expect("switching is disabled: nothing is done")

    def test_event_without_action(self):
        """An event of the LAN switch that lacks its action."""
        self.configure()
        program = self.watch()
        self.lab.send_uevent(f"change@{LAN_SWITCH}", f"DEVPATH={LAN_SWITCH}")
        program.expect("an event of the LAN switch without an action: ignored")

    def test_no_socket(self):
        """The watcher gets no socket: that is said once, though it is tried again and again."""
        self.configure()
        program = self.running("watch", prefix=(sys.executable, "-B", __file__, WITHOUT_SOCKETS))
        text = "the socket for the LAN switch's events cannot be opened"
        program.expect(text)
        self.assertEqual(program.end(), 130)
        self.assertEqual(len([line for line in program.lines if text in line]), 1)


# The tests of the other processor run where the tool is built for that.
if ARM:
    del Links
else:
    del LanSwitch


class Beginnings(Watch):
    """On any processor."""

    def test_no_application(self):
        """No application has a configuration, and none is named."""
        self.assertIn("name yours with --app NAME", self.expect(2, "watch").err)

    def test_folder_in_place_of_the_file(self):
        """The file is a folder: no command enables anything there."""
        path = tool.path_of(APP)
        path.mkdir(parents=True)
        program = self.watch("--app", APP)
        program.expect_message(f"hoplanectl: {path} is no regular file, so nothing will follow")
        program.end()
        self.assertFalse(any("set enabled" in line for line in program.lines), program.lines)

    def test_half_an_ini_file(self):
        """The file has switching enabled, and something else that is not understood."""
        path = self.configure()
        with path.open("a", encoding="utf-8") as file:
            file.write("stray\n")
        program = self.watch()
        program.expect_message(f"{path} is no INI file throughout; the library takes what it makes "
                               "of it$")

    def test_name_with_a_blank(self):
        """Switching is disabled, and the application's name is no plain word: the remedy has it in
        quotes."""
        self.configure(enabled=False, app="my app")
        self.watch().expect_message("hoplanectl --app 'my app' set enabled on")

    def test_usage(self):
        """It takes no arguments."""
        self.assertIn("one argument too many", self.expect(64, "watch", "eth0").err)

    def test_what_it_listens_to(self):
        """The first line says which events are watched here."""
        self.configure(second=static(NET2))
        program = self.watch()
        expected = "the LAN switch" if ARM else "the notifications of all links"
        self.assertRegex(program.lines[0], rf"^watching {expected} on this processor \(.*\), as "
                         rf"\"{APP}\"; end with Ctrl-C$")
        self.assertEqual(program.end(signal.SIGTERM), 143)
        self.assertRegex(program.lines[-1], r"^\d\d:\d\d:\d\d  interrupted$")

    def test_profile_untouched(self):
        """Nothing happens, so nothing is done."""
        self.configure()
        before = self.lab.profile("ipv4.method")
        program = self.watch()
        program.end()
        self.assertEqual(self.lab.profile("ipv4.method", CONNECTION), before)
        self.assertFalse(any("network 1" in line for line in program.lines))


if __name__ == "__main__":
    if sys.argv[1:2] == [WITHOUT_SOCKETS]:
        without_uevent_sockets()
        os.execvp(sys.argv[2], sys.argv[2:])
    tool.main()

# SPDX-License-Identifier: MIT
"""hoplanectl search: a search as the application runs it, against the real NetworkManager.
The texts of golden/ are what it showed, with the times masked; with HOPLANE_WRITE_GOLDEN set they
are written anew."""

import fcntl
import json
import os
import pathlib
import re
import resource
import signal
import subprocess
import unicodedata

import checking
import tool
from laboratory import CONNECTION, NET1, NET2, PORT, wait_until
from live import (ANY_TIME, APP, ARM, TestCase, Terminal, dhcp, masked,  # noqa: F401
                  setUpModule, static)

FIRST, SECOND = f"{NET1.server}:{PORT}", f"{NET2.server}:{PORT}"
DEVICE_FILE = pathlib.Path("/userdata/netSettings.ini")


def native(test):
    """A test that the emulated tool has not."""
    return None if ARM else test


def is_stuck(process):
    """Whether the process waits for whoever reads its results."""
    return "pipe_write" in pathlib.Path(f"/proc/{process}/wchan").read_text(encoding="utf-8")


def busy_ticks(process):
    """What the process has used of the processor."""
    fields = pathlib.Path(f"/proc/{process}/stat").read_text(encoding="utf-8").rpartition(") ")[2]
    return sum(int(number) for number in fields.split()[11:13])


def catches(process, number):
    """Whether it has a handler for the signal, which serves once."""
    status = pathlib.Path(f"/proc/{process}/status").read_text(encoding="utf-8")
    return bool(int(re.search(r"SigCgt:\s+(\w+)", status)[1], 16) >> (number - 1) & 1)


def outcome(result):
    """The last object."""
    return result.objects[-1]


class Outcomes(TestCase):
    """How searches end, and what is told of them."""

    def steps(self, result, kind):
        return [thing for thing in result.objects if thing.get("step") == kind]

    def test_first_server(self):
        """The first server accepts."""
        self.start_server(NET1)
        self.configure()
        result = self.expect(0, "search")
        self.check_golden("search-first.txt", masked(result.out))
        self.assertEqual(result.err, "")
        self.assertEqual(self.lab.addresses(), [NET1.device + "/24"])

    def test_second_server(self):
        """The first server is dead; the second one accepts, with an address by DHCP."""
        self.start_server(NET2)
        self.configure()
        result = self.expect(0, "search")
        self.check_golden("search-second.txt", masked(result.out))
        self.assertEqual(result.err, "")

    def test_objects(self):
        """The first server is dead; the second one accepts: the objects of it."""
        self.start_server(NET2)
        self.configure()
        result = self.expect(0, "search", "--json")
        self.assertEqual([(one["network"], one["attempt"], one["of"], one["server"])
                          for one in self.steps(result, "attempt")],
                         [(1, number, 10, FIRST) for number in range(1, 11)])
        probe = self.steps(result, "probe")[0]
        self.assertEqual((probe["attempts"], probe["failed"]), (10, True))
        self.assertTrue(5 <= probe["duration"] < 15, probe)
        activated = self.steps(result, "activate")[1]
        self.assertIn("successfully activated", activated["output"])
        self.assertEqual(activated["command"].split()[:4], ["nmcli", "connection", "up", "uuid"])
        search = result.objects[-2]
        self.assertEqual([search[key] for key in ("type", "outcome", "server", "network", "passes",
                                                  "partial")],
                         ["search", "reached", SECOND, 2, 1, False])
        durations = search["durations"]
        self.assertAlmostEqual(sum(durations[key] for key in ("lookups", "commands", "attempts")),
                               search["duration"], delta=0.5)
        self.assertEqual(outcome(result), {
            "type": "outcome", "outcome": "reached", "server": SECOND, "network": 2,
            "text": search["text"]})
        elapsed = [thing["elapsed"] for thing in result.objects if "elapsed" in thing]
        self.assertEqual(elapsed, sorted(elapsed))

    def test_failed_addressing(self):
        """nmcli refuses the first network's address: its words are told before the step that they
        belong to."""
        self.start_server(NET2)
        self.configure(first=static(NET1, LocalIp="999.1.1.1"))
        result = self.expect(0, "search", "--json")
        texts = [thing["text"] for thing in result.objects
                 if thing["type"] == "step" and not ANY_TIME.search(thing["text"])]
        said = next(text for text in texts if text.startswith("nmcli says: Error:"))
        self.assertIn("999.1.1.1", said)
        refused = self.steps(result, "set")[0]
        self.assertTrue(refused["failed"])
        self.assertIn("refused by nmcli", refused["text"])
        self.assertEqual(texts.index(said) + 1, texts.index(refused["text"]))
        self.assertIn("999.1.1.1", refused["message"])
        self.assertIn("999.1.1.1", result.objects[-2]["networks"][0]["reason"])
        self.assertEqual(outcome(result)["network"], 2)

    def test_no_connection(self):
        """The connection's name is nobody's: the addressing is not applied, and the second server
        is reached with the address that the device has."""
        self.start_server(NET2)
        self.give_address(NET2)
        self.configure(connection="nobody")
        result = self.expect(0, "search")
        self.assertIn('network 1: no connection "nobody" is found', result.out)
        self.assertIn("nmcli says: Error: nobody - no such connection profile.", result.out)
        self.assertIn("network 2: addressing not applied", result.out)
        self.assertIn(f"reached {SECOND} through network 2", result.out)

    def test_manager_not_running(self):
        """NetworkManager does not run: nmcli says so."""
        self.configure()
        self.lab.kill_manager()
        self.addCleanup(self.lab.start_manager)
        result = self.expect(1, "search", "--timeout", "1")
        self.assertIn("nmcli says: Error: NetworkManager is not running.", result.out)
        self.assertIn("network 1: addressing not applied", result.out)

    def test_network_skipped(self):
        """Both networks are static, and the device has the first one's address."""
        self.start_server(NET2)
        self.give_address(NET1)
        self.configure(first=static(NET1), second=static(NET2))
        result = self.expect(0, "search", "--json")
        skip = self.steps(result, "skip")[0]
        self.assertEqual(skip["text"], "network 1: skipped, the device has its address "
                         f"{NET1.device} already")
        self.assertEqual(self.steps(result, "reached")[0]["of"], 20)
        self.assertEqual(outcome(result)["network"], 2)

    def test_no_address(self):
        """Both networks are static, and the device has no address: thousands of skipped turns a
        second, told in a few lines."""
        self.configure(first=static(NET1), second=static(NET2))
        result = self.expect(1, "search", "--json", "--timeout", "2")
        self.assertLess(len(result.objects), 20)
        self.assertEqual(len([one for one in self.steps(result, "skip") if "network" in one]), 2)
        search = result.objects[-2]
        self.assertGreater(search["passes"], 100)
        # The last pass may be interrupted before its skip.
        self.assertIn(search["passes"] - search["networks"][0]["skipped"], (0, 1))
        self.assertIn("the device has no address", search["networks"][0]["reason"])

    def test_networks_exchanged(self):
        """The first network is automatic, the second one static: off the device the library
        exchanges them, and that is said."""
        self.start_server(NET1)
        self.configure(first=dhcp(NET2), second=static(NET1))
        result = self.expect(0, "search")
        said = "the library exchanges the two networks: what is 1 here is 2 in the file"
        self.assertEqual(said in result.out, not ARM)
        self.assertIn(f"reached {FIRST} through network {2 if ARM else 1}", result.out)

    def test_device_settings_imported(self):
        """The device's own settings name another connection than the file: they are imported
        first."""
        self.start_server(NET1)
        path = self.configure(connection="nobody")
        DEVICE_FILE.write_text(
            f"[NetworkConnections]\nconName={CONNECTION}\nMasterNet\\bDhcpEnabled=false\n"
            f"MasterNet\\ip={NET1.device}\nMasterNet\\mask=255.255.255.0\n", encoding="utf-8")
        self.addCleanup(DEVICE_FILE.unlink)
        result = self.expect(0, "search", "--json")
        self.assertIn(f"connectionName={CONNECTION}\n", path.read_text(encoding="utf-8"))
        self.assertEqual(self.steps(result, "lookup")[0]["connection"], CONNECTION)
        note, = (thing["text"] for thing in result.objects if thing["type"] == "note")
        self.assertEqual(note.split(" (now static address ")[0],
                         f"at its start the library takes over {DEVICE_FILE}: the connection "
                         f'becomes "{CONNECTION}" (now "nobody"); network 1 becomes static address '
                         f"{NET1.device}/24, gateway (none), name servers (none)")
        # Another time it changes nothing.
        self.assertNotIn("takes over", self.expect(0, "search").out)

    def test_verbose(self):
        """Each line of the library's log is shown beside the steps, and no other step is."""
        self.start_server(NET1)
        self.configure()
        result = self.expect(0, "search", "--verbose")
        for text in ("log: [ instance ] new Hoplane", "log: [ slotFinish ]",
                     "log: [ setFirstStaticIpAddr ] run successful"):
            self.assertIn(text, result.out)
        plain = [line for line in masked(result.out).splitlines() if "  log: " not in line]
        with open(pathlib.Path(__file__).parent / "golden/search-first.txt",
                  encoding="utf-8") as golden:
            self.assertEqual("\n".join(plain) + "\n", golden.read())
        logged = [thing["text"] for thing in self.expect(0, "search", "--verbose", "--json").objects
                  if thing["type"] == "log"]
        self.assertIn("[ setFirstStaticIpAddr ] run successful", logged)

    def test_logging_rules(self):
        """The user's environment leaves out information and debugging: not here."""
        self.start_server(NET1)
        self.configure()
        rules = {"QT_LOGGING_RULES": "*.info=false;*.debug=false"}
        result = self.expect(0, "search", environment=rules)
        self.check_golden("search-first.txt", masked(result.out))

    def test_full_disk(self):
        """The results cannot be written: no success is claimed."""
        self.start_server(NET1)
        self.configure()
        with open("/dev/full", "w", encoding="utf-8") as full:
            done = subprocess.run([*tool.COMMAND, "search"], stdout=full, stderr=subprocess.PIPE,
                                  timeout=60, check=False)
        self.assertEqual((done.returncode, done.stderr),
                         (3, b"hoplanectl: the results could not be written\n"))

    HALF = ["half a line"] * 3

    def speaking(self):
        """The environment of an nmcli that says half a line on standard error before its work; and
        the file that has a line for each of its runs."""
        folder = pathlib.Path("/sandbox/tmp/saying")
        folder.mkdir(exist_ok=True)
        runs = folder / "runs"
        runs.write_text("", encoding="utf-8")
        nmcli = folder / "nmcli"
        nmcli.write_text(f'#!/bin/sh\nprintf "half a line" >&2\n/usr/bin/nmcli "$@"\n'
                         f'status=$?\necho "$1 $2" >>{runs}\nexit $status\n', encoding="utf-8")
        nmcli.chmod(0o755)
        return {"PATH": f"{folder}:{os.environ['PATH']}"}, runs

    def test_last_line_without_an_end(self):
        """What nmcli says last has no line break: it is told with the command."""
        self.start_server(NET1)
        self.configure()
        result = self.expect(0, "search", "--json", environment=self.speaking()[0])
        self.assertEqual([thing["message"] for thing in self.steps(result, "message")], self.HALF)

    def test_told_late(self):
        """The results are read when all is over: what nmcli says stands with its command."""
        self.start_server(NET1)
        self.configure()
        environment, runs = self.speaking()
        reader, writer = os.pipe()
        room = fcntl.fcntl(writer, fcntl.F_SETPIPE_SZ, 4096)
        os.write(writer, b"\n" * room)
        with subprocess.Popen([*tool.COMMAND, "search", "--json"], stdout=writer,
                              env=os.environ | environment) as process:
            os.close(writer)
            try:
                wait_until(lambda: is_stuck(process.pid), 30, "a full pipe")
                wait_until(lambda: len(self.runs(runs)) == 3, 60, "the third command's end")
                with open(reader, encoding="utf-8") as results:
                    objects = [json.loads(line) for line in results if line.strip()]
                self.assertEqual(process.wait(60), 0)
            finally:
                process.kill()
        steps = [thing for thing in objects
                 if thing.get("step") in ("message", "lookup", "set", "activate")]
        self.assertEqual([(step["step"], step.get("message")) for step in steps],
                         [("message", "half a line"), ("lookup", None),
                          ("message", "half a line"), ("set", "half a line"),
                          ("message", "half a line"), ("activate", "half a line")], objects)
        for said, command in zip(steps[::2], steps[1::2]):
            self.assertLessEqual(said["time"], command["time"])

    @staticmethod
    def runs(path):
        return path.read_text(encoding="utf-8").splitlines()


class NotStarted(TestCase):
    """Searches that cannot begin: status 2, and the reason."""

    def check(self, reason, *options):
        result = self.expect(2, *options, "search")
        self.assertIn(reason, result.err)
        self.assertNotIn("search:", result.out)
        self.assertEqual("switching is disabled" in result.out, "switching is disabled" in reason)
        told = self.expect(2, *options, "search", "--json")
        self.assertEqual(outcome(told)["outcome"], "not-started")
        self.assertTrue(outcome(told)["text"])

    def test_disabled(self):
        """Switching is disabled: the reason, and what to do about it."""
        path = self.configure(enabled=False)
        self.check(f"no search: switching is disabled in {path}; enable it with hoplanectl --app "
                   f"{APP} set enabled on")

    def test_name_with_a_blank(self):
        """Switching is disabled, and the application's name is no plain word: the remedy has it in
        quotes."""
        path = self.configure(enabled=False, app="my app")
        self.check(f"switching is disabled in {path}; enable it with hoplanectl --app 'my app' "
                   "set enabled on")

    def test_folder_in_place_of_the_file(self):
        """The file is a folder."""
        path = tool.path_of(APP)
        path.mkdir(parents=True)
        self.check(f"no search: {path} is no regular file", "--app", APP)

    def test_no_ini_file(self):
        """The file is something else, of which the library makes that switching is disabled."""
        path = self.configure()
        path.write_bytes(b"\x7fELF\n")
        self.check(f"no search: {path} is no INI file throughout")

    @native  # the surroundings are not built for the emulated tool
    def test_changed_meanwhile(self):
        """Switching is enabled right after the library has found it disabled."""
        path = self.configure(enabled=False)
        changed = path.with_name("changed.ini")
        for options in ([], ["--json"]):
            changed.write_text(self.configure(enabled=False).read_text(encoding="utf-8")
                               .replace("SwitchEnable=false", "SwitchEnable=true"),
                               encoding="utf-8")
            result = self.expect(2, *options, "search", "--timeout", "60", environment={
                "LD_PRELOAD": str(checking.surroundings()),
                "ASAN_OPTIONS": os.environ.get("ASAN_OPTIONS", "") + ":verify_asan_link_order=0",
                "SURROUNDINGS_TOLD": "switching is disabled: nothing is done",
                "SURROUNDINGS_NEW": str(changed), "SURROUNDINGS_OLD": str(path)})
            self.assertEqual(result.err, f"hoplanectl: no search: {path} was changed meanwhile\n")

    def test_no_file(self):
        """No application has a configuration."""
        self.check("no application has a configuration")

    def test_no_file_of_the_application(self):
        """The named application has none, another one has."""
        self.configure(app="other")
        self.check(f'the application "{APP}" has no configuration', "--app", APP)

    def test_several(self):
        """Two applications have one, and none is named."""
        self.configure(app="one")
        self.configure(app="two")
        self.check("several applications have a configuration")
        told = outcome(self.expect(2, "search", "--json"))["text"]
        self.assertEqual(told, "several applications have a configuration; choose one with --app "
                               "NAME: one, two")

    def test_usage(self):
        """Times that are none."""
        self.configure()
        for seconds in ("0", "-1", "86401", "ten", "", "1.5", "+5", " 5", "05"):
            with self.subTest(seconds=seconds):
                result = self.expect(64, "search", f"--timeout={seconds}")
                self.assertIn("it has to be a number from 1 to 86400", result.err)
        self.assertIn("one argument too many", self.expect(64, "search", "now").err)


class Ends(TestCase):
    """Searches that are not waited for to their end."""

    def test_timeout(self):
        """It gives up after the time."""
        self.configure()
        result = self.expect(1, "search", "--timeout", "2")
        self.assertRegex(result.out, r"no outcome after \d\.\d s: given up after 2 s \(network 1: "
                         rf"attempt [1-4] of 10 at {FIRST}\)\n$")
        told = self.expect(1, "search", "--timeout", "1", "--json")
        self.assertEqual((outcome(told)["outcome"], outcome(told)["server"]), ("timeout", None))
        self.assertEqual(told.objects[-2]["outcome"], "unfinished")

    def test_timeout_long_enough(self):
        """The outcome comes before the time is over."""
        self.start_server(NET1)
        self.configure()
        self.expect(0, "search", "--timeout", "86400")

    def test_interrupted(self):
        """Ctrl-C, and a request to end: a last line, and the signal's status."""
        self.configure()
        for number, status in ((signal.SIGINT, 130), (signal.SIGTERM, 143)):
            with self.subTest(signal=number):
                program = self.running("search")
                program.expect("attempt 2 of 10")
                self.assertEqual(program.end(number), status)
                self.assertRegex(program.lines[-1],
                                 r"no outcome after .*: interrupted \(network 1:")

    def test_interrupt_is_ignored(self):
        """Whoever starts it in the background of a script has Ctrl-C ignored: it goes on."""
        self.configure()
        program = self.running("search", prefix=["env", "--ignore-signal=INT"])
        program.expect("attempt 2 of 10")
        program.send(signal.SIGINT)
        program.expect("attempt 4 of 10")
        self.assertEqual(program.end(signal.SIGTERM), 143)

    def test_second_interruption(self):
        """It hangs, because nobody reads what it writes: the second Ctrl-C ends it at once."""
        self.configure(first=static(NET1), second=static(NET2))
        with subprocess.Popen([*tool.COMMAND, "search", "--verbose"],
                              stdout=subprocess.PIPE) as process:
            try:
                wait_until(lambda: is_stuck(process.pid), 30, "a full pipe")
                # Two that come at once are one.
                wait_until(lambda: process.send_signal(signal.SIGINT) or process.poll() is not None,
                           30, "its end")
                self.assertEqual(process.wait(30), -signal.SIGINT)
            finally:
                process.kill()

    @native  # the emulator catches all signals itself
    def test_interrupted_while_nobody_reads(self):
        """Ctrl-C while it waits for whoever reads: nothing that was told is lost."""
        self.configure()
        reader, writer = os.pipe()
        room = fcntl.fcntl(writer, fcntl.F_SETPIPE_SZ, 4096)
        os.write(writer, b"\n" * room)
        with subprocess.Popen([*tool.COMMAND, "search", "--json"], stdout=writer,
                              stderr=subprocess.PIPE) as process:
            os.close(writer)
            try:
                wait_until(lambda: is_stuck(process.pid), 30, "a full pipe")
                process.send_signal(signal.SIGINT)
                wait_until(lambda: not catches(process.pid, signal.SIGINT), 30, "a caught Ctrl-C")
                with open(reader, encoding="utf-8") as results:
                    objects = [json.loads(line) for line in results if line.strip()]
                self.assertEqual((process.stderr.read(), process.wait(60)), (b"", 130))
            finally:
                process.kill()
        self.assertIn("the application takes the library into use", objects[0]["text"])
        self.assertEqual(objects[-1]["outcome"], "interrupted")

    def test_library_waits_for_the_reader(self):
        """Nobody reads what it writes, and both networks are skipped: it comes to rest, instead of
        keeping thousands of lines a second."""
        self.configure(first=static(NET1), second=static(NET2))
        with subprocess.Popen([*tool.COMMAND, "search", "--verbose"],
                              stdout=subprocess.PIPE) as process:
            try:
                wait_until(lambda: is_stuck(process.pid), 30, "a full pipe")
                latest = []

                def rests():
                    latest.append(busy_ticks(process.pid))
                    return len(latest) > 50 and latest[-1] == latest[-50]
                wait_until(rests, 30, "a search at rest")
            finally:
                process.kill()

    @native  # the emulator needs files of its own
    def test_fatal_message(self):
        """The system refuses a thread what Qt cannot do without: what Qt says of it is told."""
        self.configure()
        statuses = []
        for files in range(8, 64):
            done = subprocess.run(
                [*tool.COMMAND, "search", "--timeout", "1"], stdout=subprocess.DEVNULL,
                stderr=subprocess.PIPE, encoding="utf-8", timeout=60, check=False,
                env=os.environ | {"QT_NO_GLIB": "1"},
                preexec_fn=lambda: resource.setrlimit(resource.RLIMIT_NOFILE, (files, files)))
            statuses.append(done.returncode)
            if done.returncode == -signal.SIGABRT:
                self.assertRegex(done.stderr, "(?m)^hoplanectl: .*thread pipe$")
            elif done.returncode == 1:
                break
        self.assertIn(-signal.SIGABRT, statuses)

    def test_hung_up(self):
        """The line over which it is shown is cut, perhaps by itself: it goes on to its end, and so
        do its commands."""
        self.start_server(NET1)
        self.configure()
        folder = pathlib.Path("/sandbox/tmp/waiting")
        folder.mkdir(exist_ok=True)
        gate, nmcli = folder / "gate", folder / "nmcli"
        os.mkfifo(gate)
        nmcli.write_text(f'#!/bin/sh\n[ "$2" != up ] || cat {gate}\n'
                         'exec /usr/bin/nmcli "$@"\n', encoding="utf-8")
        nmcli.chmod(0o755)
        terminal = Terminal("search",
                            environment={"PATH": f"{folder}:{os.environ['PATH']}"})
        writer = []

        def is_waiting():
            try:
                writer.append(os.open(gate, os.O_WRONLY | os.O_NONBLOCK))
            except OSError:
                return False
            return True
        wait_until(is_waiting, 60, "an activation that waits")
        terminal.hang_up()
        os.close(writer[0])
        self.assertEqual(terminal.wait(), 3)
        self.assertEqual(self.lab.addresses(), [NET1.device + "/24"])

    def test_interrupted_objects(self):
        """The same, told in objects."""
        self.configure()
        program = self.running("search", "--json")
        program.expect('"attempt":1')
        self.assertEqual(program.end(), 130)
        self.assertEqual(json.loads(program.lines[-1])["outcome"], "interrupted")

    def test_interrupted_while_a_command_runs(self):
        """Ctrl-C while nmcli waits for an address that nobody gives."""
        self.lab.stop_dhcp()
        self.addCleanup(self.lab.start_dhcp)
        self.configure(first=dhcp(NET1), second=dhcp(NET2))
        program = self.running("search")
        program.expect(r"automatic addressing \(DHCP\) handed to nmcli")
        self.assertEqual(program.end(), 130)
        self.assertIn("(network 1: activating the connection)", program.lines[-1])

    def test_reader_ends(self):
        """Whoever reads the results ends, perhaps because the line is cut: the search goes on to
        its end, and so do its commands."""
        self.start_server(NET1)
        self.configure()
        for options in ([], ["--json"], ["--verbose"]):
            with self.subTest(options=options):
                self.restore()
                with subprocess.Popen([*tool.COMMAND, "search", *options], stdout=subprocess.PIPE,
                                      stderr=subprocess.PIPE) as process:
                    self.assertTrue(process.stdout.readline())
                    process.stdout.close()
                    told = process.stderr.read()
                    self.assertEqual((process.wait(60), told),
                                     (3, b"hoplanectl: the results could not be written\n"))
                self.assertEqual(self.lab.addresses(), [NET1.device + "/24"])


class Terminals(TestCase):
    """The line that says what is being done."""

    def test_live_line(self):
        """The line at the bottom is drawn anew in place, each second at least, and is gone at the
        end; finished steps stay above it."""
        self.start_server(NET2)
        self.configure()
        terminal = Terminal("search", columns=100)
        terminal.read_all()
        self.assertEqual(terminal.status, 0)
        seconds = [int(match[1]) for line in terminal.drawn
                   if (match := re.match(r"(\d+) s of 120 s, pass 1, ", line))]
        self.assertEqual(sorted(set(seconds)), list(range(max(seconds) + 1)))
        activities = [line.split(", ", 2)[2] for line in terminal.drawn if " of 120 s" in line]
        for wanted in ("network 1: attempt 1 of 10", "network 1: attempt 10 of 10",
                       "network 2: activating the connection", "network 2: attempt 1 of 10"):
            self.assertTrue(any(line.startswith(wanted) for line in activities),
                            (wanted, activities))
        self.assertIn(f"network 1: attempt 3 of 10 at {FIRST}", activities)
        # The attempts are in the line at the bottom, and stay nowhere else.
        screen = masked(terminal.screen)
        self.assertNotIn(" of 120 s", screen)
        self.check_golden("search-terminal.txt", screen)

    def test_narrow_terminal(self):
        """The line never is wider than the terminal, so that it is not wrapped."""
        self.configure()
        terminal = Terminal("search", "--timeout", "2", columns=30)
        terminal.read_all()
        drawn = [line for line in terminal.drawn if "of 120" in line]
        self.assertTrue(drawn)
        self.assertEqual({len(line) for line in drawn}, {29})

    def test_wide_characters(self):
        """The line never is wider than the terminal either where characters take two columns."""
        self.configure(first=static(NET1, ServerIp="有线服务器" * 9))
        terminal = Terminal("search", columns=70)
        terminal.read_until("attempt 1 of 10 at 有线")
        terminal.type(b"\x03")
        terminal.read_all()
        drawn = [line for line in terminal.drawn if "attempt 1 of 10" in line]
        widths = {sum(2 if unicodedata.east_asian_width(letter) == "W" else 1 for letter in line)
                  for line in drawn}
        self.assertTrue(drawn)
        self.assertLessEqual(max(widths), 69)
        self.assertGreater(max(widths), 66)

    def test_busy_log(self):
        """Both networks are skipped, thousands of times a second: the line is drawn anew ten times
        a second at most, and for each half second."""
        self.configure(first=static(NET1), second=static(NET2))
        terminal = Terminal("search", "--timeout", "2")
        terminal.read_all()
        drawn = [line for line in terminal.drawn if "of 120 s" in line]
        self.assertGreater(len(drawn), 3)
        told = terminal.screen.count("\n")
        self.assertLessEqual(len(drawn), 2 * (10 + 2) + told)

    def test_ctrl_c(self):
        """Ctrl-C, as typed: a clean end."""
        self.configure()
        terminal = Terminal("search")
        terminal.read_until("attempt 2 of 10")
        terminal.type(b"\x03")
        terminal.read_all()
        self.assertEqual(terminal.status, 130)
        self.assertRegex(terminal.screen, r"no outcome after .*: interrupted .*\n$")

    def test_colours(self):
        """Styles are used on a terminal, and not with NO_COLOR."""
        self.start_server(NET1)
        self.configure()
        for environment, styled in (({}, True), ({"NO_COLOR": "1"}, False)):
            with self.subTest(environment=environment):
                terminal = Terminal("search", environment=environment)
                terminal.read_all()
                self.assertEqual(b"\x1b[32m" in terminal.output, styled)

    def test_dumb_terminal(self):
        """A terminal that cannot draw anew gets plain lines, the attempts among them."""
        self.configure()
        terminal = Terminal("search", "--timeout", "2", environment={"TERM": "dumb"})
        terminal.read_all()
        self.assertNotIn(b"\x1b", terminal.output)
        self.assertIn(b"attempt 1 of 10", terminal.output)

    def test_objects_on_a_terminal(self):
        """With --json there is nothing but objects."""
        self.configure()
        terminal = Terminal("search", "--json", "--timeout", "1")
        terminal.read_all()
        for line in terminal.output.decode().split():
            self.assertNotIn("\x1b", line)
        self.assertTrue(all(json.loads(line) for line in terminal.output.decode().splitlines()))


if __name__ == "__main__":
    tool.main()

# SPDX-License-Identifier: MIT
"""show, set and import: what they print, what they write, what they refuse."""

import os
import pathlib
import re
import resource
import signal
import subprocess
import threading

import tool
# In the path since tool is imported.
from laboratory import wait_until
from tool import KEYS, path_of, write

COMPLETE = {
    "SwitchEnable": "true", "connectionName": "lan",
    "FirstServerIp": "198.51.100.1", "FirstServerPort": "9000", "FirstIsAutomatically": "true",
    "FirstLocalIp": "198.51.100.2", "FirstLocalMask": "255.255.255.0",
    "FirstLocalGateWay": "198.51.100.1", "FirstPreferredDNS": "198.51.100.53",
    "FirstSpareDNS": "198.51.100.54",
    "SecondServerIp": "192.0.2.1", "SecondServerPort": "9001", "SecondIsAutomatically": "false",
    "SecondLocalIp": "", "SecondLocalMask": "", "SecondLocalGateWay": "",
    "SecondPreferredDNS": "", "SecondSpareDNS": "",
}
# A list of so many elements that Qt gives up.
BINARY = b"Remark=@Variant(\\0\\0\\0\\t\\x30\\0\\0\\0\\0)\n"
MEMORY = ("hoplanectl: a value of switch.ini or of /userdata/netSettings.ini asks for more memory "
          "than can be had, which ends the application too; remove what begins with @Variant(\n")
STATIC = ["--address", "10.0.0.2/24"]


def stored(app="device"):
    """The keys of the application's file and their values, as the file spells them."""
    lines = path_of(app).read_text(encoding="utf-8").splitlines()
    return dict(line.split("=", 1) for line in lines if "=" in line)


class Show(tool.TestCase):
    """What is configured, in words, as JSON and as raw keys."""

    def test_text(self):
        path = write("device", COMPLETE)
        self.assertEqual(self.expect(0, "show").out, f"""\
application  device
file         {path}
switching    on
connection   lan
network 1    server 198.51.100.1:9000; static address 198.51.100.2/24, gateway 198.51.100.1, \
name servers 198.51.100.53, 198.51.100.54
network 2    server 192.0.2.1:9001; automatic addressing (DHCP)
""")

    def test_text_of_an_empty_file(self):
        path = write("device", {})
        self.assertEqual(self.expect(0, "show").out, f"""\
application  device
file         {path}
switching    off
connection   (the active one)
network 1    server (none); automatic addressing (DHCP)
network 2    server (none); automatic addressing (DHCP)
""")

    def test_static_without_anything(self):
        write("device", {"FirstIsAutomatically": "true", "FirstServerIp": "10.0.0.1"})
        self.assertIn("network 1    server 10.0.0.1:(none); static address (none) netmask (none), "
                      "gateway (none), name servers (none)\n", self.expect(0, "show").out)

    def test_netmask_that_is_applied_otherwise(self):
        write("device", COMPLETE | {"FirstLocalMask": "255.0.0.0"})
        self.assertIn("198.51.100.2/8 (applied as /6)", self.expect(0, "show").out)

    def test_json(self):
        path = write("device", COMPLETE)
        dhcp = {"server": "192.0.2.1", "port": "9001", "addressing": "dhcp", "address": "",
                "netmask": "", "gateway": "", "dns": ["", ""]}
        self.assertEqual(self.expect(0, "show", "--json").objects, [{
            "type": "settings", "app": "device", "file": str(path), "enabled": True,
            "connection": "lan", "networks": [
                {"server": "198.51.100.1", "port": "9000", "addressing": "static",
                 "address": "198.51.100.2", "netmask": "255.255.255.0",
                 "gateway": "198.51.100.1", "dns": ["198.51.100.53", "198.51.100.54"]}, dhcp]}])

    def test_raw(self):
        write("device", COMPLETE)
        self.assertEqual(self.expect(0, "show", "--raw").out.splitlines(),
                         [f"{key}={COMPLETE[key]}" for key in KEYS])

    def test_raw_with_missing_keys(self):
        write("device", {"connectionName": "lan"})
        self.assertEqual(self.expect(0, "show", "--raw").out.splitlines(),
                         ["connectionName=lan" if key == "connectionName" else f"{key} is missing"
                          for key in KEYS])

    def test_raw_json(self):
        write("device", {"connectionName": "lan"})
        self.assertEqual(self.expect(0, "--json", "show", "--raw").objects,
                         [{"type": "key", "key": key,
                           "value": "lan" if key == "connectionName" else None} for key in KEYS])

    def test_app(self):
        write("device", COMPLETE)
        write("other", {"connectionName": "wan"})
        for arguments in (["--app", "other", "show"], ["show", "--app", "other"],
                          ["--app=other", "show"], ["show", "--app=other"]):
            self.assertIn("connection   wan\n", self.expect(0, *arguments).out)

    def test_no_application(self):
        result = self.expect(1, "show")
        self.assertEqual(result.out, "")
        self.assertIn("no application has a configuration in /sandbox/home/Documents; name yours "
                      "with --app NAME", result.err)

    def test_several_applications(self):
        write("device", {})
        write("other", {})
        result = self.expect(1, "show")
        self.assertIn("several applications have a configuration; choose one with --app NAME: "
                      "device, other", result.err)

    def test_application_without_a_file(self):
        write("device", {})
        result = self.expect(1, "--app", "other", "show")
        self.assertIn(f'the application "other" has no configuration: there is no '
                      f'{path_of("other")}; these have one: device', result.err)

    def test_folder_without_a_file_is_no_application(self):
        write("device", {})
        path_of("other").parent.mkdir()
        self.assertIn("application  device", self.expect(0, "show").out)

    def test_unreadable(self):
        """Nothing is shown of a file that nobody has read."""
        path = path_of("device")
        path.parent.mkdir(parents=True)
        for make in (os.mkdir, os.mkfifo):
            make(path)
            for options in ([], ["--raw"], ["--json"]):
                with self.subTest(make=make, options=options):
                    result = self.expect(1, "--app", "device", "show", *options)
                    self.assertEqual((result.out, result.err),
                                     ("", f"hoplanectl: {path} is no regular file\n"))
            subprocess.run(["rm", "-r", str(path)], check=True)

    def test_not_allowed_to_read(self):
        path = write("device", COMPLETE)
        path.chmod(0)
        done = subprocess.run(["setpriv", "--bounding-set=-all", "--inh-caps=-all",
                               "--no-new-privs", *tool.COMMAND, "show"], stdout=subprocess.PIPE,
                              stderr=subprocess.PIPE, encoding="utf-8", check=False)
        self.assertEqual((done.returncode, done.stdout, done.stderr),
                         (1, "", f"hoplanectl: {path} cannot be read: Permission denied\n"))

    def test_no_ini_file_throughout(self):
        """What the library makes of it is shown, and that it is not all."""
        path = write("device", COMPLETE)
        path.write_bytes(b"[General]\nSwitchEnable=true\nstray\n")
        for options, shown in (([], "switching    on\n"), (["--raw"], "SwitchEnable=true\n"),
                               (["--json"], '"enabled":true')):
            result = self.expect(1, "show", *options)
            self.assertIn(shown, result.out)
            self.assertEqual(result.err, f"hoplanectl: {path} is no INI file throughout; shown is "
                                         "what the library makes of it\n")

    def test_closed_output(self):
        """Nothing takes the place of the streams that are closed."""
        write("device", COMPLETE)
        for closed in (">&-", "<&- >&-"):
            done = subprocess.run(["sh", "-c", f'exec "$@" {closed}', "sh", *tool.COMMAND, "show"],
                                  stdout=subprocess.PIPE, stderr=subprocess.PIPE, check=False)
            self.assertEqual((done.returncode, done.stderr),
                             (1, b"hoplanectl: the results could not be written\n"))
        done = subprocess.run(["sh", "-c", 'exec "$@" <&- 2>&-', "sh", *tool.COMMAND, "show"],
                              stdout=subprocess.PIPE, check=False)
        self.assertEqual(done.returncode, 0)
        self.assertIn(b"switching    on\n", done.stdout)

    def test_name_of_the_application_reaches_the_terminal_as_text(self):
        name = "\x1b[31mred"
        path = str(path_of(name)).replace("\x1b", r"\u001b")
        for status, arguments, told in (
                (1, ["show"], f"there is no {path}"),
                (0, ["set", "enabled", "on"], f"{path} is written\n"),
                (0, ["set", "enabled", "on"], f"nothing to change: {path} has"),
                (1, ["set", "server", "1", "192.0.2.1:0"], "nothing is changed"),
                (0, ["show"], f"application  \\u001b[31mred\nfile         {path}\n"),
                (64, ["sh\x1bow"], "sh\\u001bow")):
            result = self.expect(status, "--app", name, *arguments)
            self.assertIn(told, result.out + result.err)
            self.assertNotIn("\x1b", result.out + result.err)

    def test_full_output(self):
        write("device", COMPLETE)
        with open("/dev/full", "wb") as full:
            done = subprocess.run([*tool.COMMAND, "show"], stdout=full, stderr=subprocess.PIPE,
                                  check=False)
        self.assertEqual(done.returncode, 1)
        self.assertIn(b"the results could not be written", done.stderr)


class Set(tool.TestCase):
    """What is accepted, and how it is stored."""

    def test_server(self):
        write("device", COMPLETE)
        result = self.expect(0, "set", "server", "2", "203.0.113.7:65535")
        self.assertEqual(result.out, "server 2: 203.0.113.7:65535\n  was 192.0.2.1:9001\n"
                                     f"{path_of('device')} is written\n")
        self.assertEqual(stored(), COMPLETE | {"SecondServerIp": "203.0.113.7",
                                               "SecondServerPort": "65535"})

    def test_static_network(self):
        write("device", COMPLETE)
        result = self.expect(0, "set", "network", "2", "--address", "10.20.30.40/22", "--gateway",
                             "10.20.28.1", "--dns", "8.8.8.8", "--dns", "8.8.4.4")
        self.assertIn("network 2: static address 10.20.30.40/22, gateway 10.20.28.1, name servers "
                      "8.8.8.8, 8.8.4.4\n  was automatic addressing (DHCP)\n", result.out)
        self.assertEqual(stored(), COMPLETE | {
            "SecondIsAutomatically": "true", "SecondLocalIp": "10.20.30.40",
            "SecondLocalMask": "255.255.252.0", "SecondLocalGateWay": "10.20.28.1",
            "SecondPreferredDNS": "8.8.8.8", "SecondSpareDNS": "8.8.4.4"})

    def test_static_network_without_gateway_and_dns(self):
        write("device", COMPLETE)
        self.expect(0, "set", "network", "1", *STATIC)
        self.assertEqual(stored(), COMPLETE | {
            "FirstLocalIp": "10.0.0.2", "FirstLocalGateWay": "", "FirstPreferredDNS": "",
            "FirstSpareDNS": ""})

    def test_automatic_network(self):
        write("device", COMPLETE)
        self.expect(0, "set", "network", "1", "--dhcp")
        self.assertEqual(stored(), COMPLETE | {
            "FirstIsAutomatically": "false", "FirstLocalIp": "", "FirstLocalMask": "",
            "FirstLocalGateWay": "", "FirstPreferredDNS": "", "FirstSpareDNS": ""})

    def test_every_prefix(self):
        for prefix in [*range(1, 8), *range(9, 33)]:
            with self.subTest(prefix=prefix):
                self.expect(0, "--app", "device", "set", "network", "1", "--address",
                            f"100.100.100.101/{prefix}")
                bits = int("".join(f"{int(part):08b}"
                                   for part in stored()["FirstLocalMask"].split(".")), 2)
                self.assertEqual(f"{bits:032b}", "1" * prefix + "0" * (32 - prefix))

    def test_connection(self):
        write("device", COMPLETE)
        for name in ("Wired connection 1", "Kabel Büro", "eth0.100", "a,b", "x=y", "有线 1", "#1",
                     "[lan]", "a/b", "1", "true", "10.0.0.1", "n" * 1024):
            with self.subTest(name=name):
                self.expect(0, "set", "connection", name)
                shown = self.expect(0, "show", "--json").objects[0]
                self.assertEqual(shown["connection"], name)

    def test_enabled(self):
        write("device", COMPLETE)
        self.assertEqual(self.expect(0, "set", "enabled", "off").out,
                         f"switching: off\n  was on\n{path_of('device')} is written\n")
        self.assertEqual(stored(), COMPLETE | {"SwitchEnable": "false"})
        self.expect(0, "set", "enabled", "on")
        self.assertEqual(stored(), COMPLETE)

    def test_json(self):
        write("device", COMPLETE)
        self.assertEqual(self.expect(0, "set", "enabled", "off", "--json").objects,
                         [{"type": "change", "item": "switching", "old": "on", "new": "off",
                           "written": True}])

    def test_same_value(self):
        path = write("device", COMPLETE)
        before = tool.state_of(path)
        result = self.expect(0, "set", "enabled", "on")
        self.assertEqual(result.out, f"nothing to change: {path} has these values already\n")
        self.assertEqual(tool.state_of(path), before)

    def test_missing_key_is_written_though_it_means_the_same(self):
        write("device", {})
        self.expect(0, "set", "enabled", "off")
        self.assertEqual(stored(), {"SwitchEnable": "false"})

    def test_new_application(self):
        self.expect(0, "--app", "device", "set", "connection", "lan")
        self.assertEqual(stored(), {"connectionName": "lan"})
        self.assertEqual(os.listdir(path_of("device").parent), ["switch.ini"])

    def test_other_keys_and_groups_stay(self):
        path = write("device", COMPLETE | {"Own": "ours", "Blanks": '" kept "'})
        with path.open("a", encoding="utf-8") as file:
            file.write("\n[Group]\nKey=1\n")
        self.expect(0, "set", "enabled", "off")
        self.assertEqual(stored(), COMPLETE | {"SwitchEnable": "false", "Own": "ours",
                                               "Blanks": '" kept "', "Key": "1"})
        self.assertIn("[Group]\nKey=1", path.read_text(encoding="utf-8"))

    def test_permissions_stay(self):
        path = write("device", COMPLETE)
        for number, mode in enumerate((0o600, 0o640, 0o644, 0o660, 0o664, 0o666)):
            path.chmod(mode)
            self.expect(0, "set", "enabled", "on" if number % 2 else "off")
            self.assertEqual(path.stat().st_mode & 0o7777, mode)

    def test_link_stays(self):
        path = write("device", COMPLETE)
        target = tool.HOME / "elsewhere.ini"
        path.rename(target)
        path.symlink_to(target)
        self.expect(0, "set", "enabled", "off")
        self.assertTrue(path.is_symlink())
        self.assertIn("SwitchEnable=false", target.read_text(encoding="utf-8"))
        target.unlink()

    def test_chain_of_links_stays(self):
        path = write("device", COMPLETE)
        middle, target = tool.HOME / "middle.ini", tool.HOME / "elsewhere.ini"
        for link in (middle, target):
            self.addCleanup(link.unlink, missing_ok=True)
        path.rename(target)
        middle.symlink_to("elsewhere.ini")
        path.symlink_to(middle)
        self.expect(0, "set", "enabled", "off")
        self.assertTrue(path.is_symlink() and middle.is_symlink())
        self.assertIn("SwitchEnable=false", target.read_text(encoding="utf-8"))
        target.unlink()
        self.expect(0, "--app", "device", "set", "enabled", "on")
        self.assertTrue(path.is_symlink() and middle.is_symlink())
        self.assertIn("SwitchEnable=true", target.read_text(encoding="utf-8"))

    def test_files_of_similar_names_stay(self):
        path = write("device", COMPLETE)
        names = ["switch.ini", "switch.ini.newest-backup", "switch.ini.new.2", "switch.ini.new-1",
                 "switch.ini.new.AbCdEfG", "switch.ini.AbCdEf", "switch.ini.news"]
        for name in names[1:]:
            (path.parent / name).write_text("the user's", encoding="utf-8")
        self.expect(0, "set", "enabled", "off")
        self.assertEqual(sorted(os.listdir(path.parent)), sorted(names))

    def test_was_is_what_has_been_replaced(self):
        """Another program writes after the tool has looked at the file, before it has the lock."""
        path = write("device", COMPLETE)
        lock = path.parent / "switch.ini.lock"
        # To open it, as whoever waits for a lock does, waits for this test.
        os.mkfifo(lock)
        with subprocess.Popen([*tool.COMMAND, "set", "connection", "new"], stdout=subprocess.PIPE,
                              encoding="utf-8") as process:
            with lock.open("wb"):
                write("device", COMPLETE | {"connectionName": "meanwhile",
                                            "FirstServerPort": "1"})
                lock.unlink()
            out = process.communicate(timeout=60)[0]
        self.assertEqual(out, f"connection: new\n  was meanwhile\n{path} is written\n")
        self.assertEqual(stored(), COMPLETE | {"connectionName": "new", "FirstServerPort": "1"})

    def test_nothing_is_left_behind(self):
        path = write("device", COMPLETE)
        for name in ("switch.ini.new", "switch.ini.new.lock", "switch.ini.new.AbCdEf"):
            (path.parent / name).write_text("left by a run that was killed", encoding="utf-8")
        self.expect(0, "set", "enabled", "off")
        self.assertEqual(os.listdir(path.parent), ["switch.ini"])


class Failures(tool.TestCase):
    """What keeps the file from being replaced; it stays as it was."""

    def stays(self, result, reason):
        self.assertEqual(result.out, "")
        self.assertIn("nothing is changed: ", result.err)
        self.assertIn(reason, result.err)

    def test_folder_in_its_place(self):
        path = path_of("device")
        for make in (os.mkdir, os.mkfifo):
            path.parent.mkdir(parents=True, exist_ok=True)
            make(path)
            self.stays(self.expect(1, "--app", "device", "set", "enabled", "on"),
                       f"{path} is no regular file; hoplanectl check tells what helps\n")
            tool.remove_all()

    def test_file_where_the_folder_should_be(self):
        (tool.HOME / "Documents").mkdir()
        (tool.HOME / "Documents" / "device").touch()
        self.stays(self.expect(1, "--app", "device", "set", "enabled", "on"), "cannot be made")

    def mounted(self, path, *options):
        subprocess.run(["mount", *options, str(path.parent)], check=True)
        self.addCleanup(subprocess.run, ["umount", str(path.parent)], check=True)

    def test_read_only_folder(self):
        path = path_of("device")
        path.parent.mkdir(parents=True)
        self.mounted(path, "-t", "tmpfs", "tmpfs")
        write("device", COMPLETE)
        before = path.read_bytes()
        # With the device named: an ordinary user cannot give again the options that it already has.
        subprocess.run(["mount", "-o", "remount,ro", "tmpfs", str(path.parent)], check=True)
        self.stays(self.expect(1, "set", "enabled", "off"), "no file can be made in")
        self.assertEqual(path.read_bytes(), before)

    def test_full_disk(self):
        path = path_of("device")
        path.parent.mkdir(parents=True)
        self.mounted(path, "-t", "tmpfs", "-o", "size=64k", "tmpfs")
        write("device", COMPLETE)
        before = path.read_bytes()
        for spare in range(0, 3):
            filler = path.parent / "filler"
            filler.write_bytes(b"")
            blocks = os.statvfs(path.parent).f_bavail - spare
            filler.write_bytes(b"x" * 4096 * blocks)
            result = self.expect(1, "set", "connection", "n" * 1024)
            self.assertIn("nothing is changed: ", result.err)
            self.assertEqual(path.read_bytes(), before)
            self.assertEqual(sorted(os.listdir(path.parent)), ["filler", "switch.ini"])
        (path.parent / "filler").unlink()
        self.expect(0, "set", "connection", "n" * 1024)

    def test_copy_that_is_cut_off(self):
        """The copy would be too large, what is read of its beginning is not."""
        path = write("device", COMPLETE)
        with path.open("a", encoding="utf-8") as file:
            file.write("; a remark\n" * 1000 + "[Group]\nKey=1\n")
        before = path.read_bytes()
        done = subprocess.run(
            [*tool.COMMAND, "set", "enabled", "off"], stdout=subprocess.PIPE,
            stderr=subprocess.PIPE, encoding="utf-8", check=False,
            # Python ignores the signal that would end the tool; so does the tool then.
            restore_signals=False,
            preexec_fn=lambda: resource.setrlimit(resource.RLIMIT_FSIZE, (4096, 4096)))
        self.assertEqual(done.returncode, 1)
        self.stays(tool.Result(done), str(path))
        self.assertEqual(path.read_bytes(), before)

    def test_bytes_that_are_no_text(self):
        path = write("device", COMPLETE)
        path.write_bytes(path.read_bytes() + b"note=caf\xe9\n")
        before = path.read_bytes()
        self.stays(self.expect(1, "set", "enabled", "off"),
                   "it would not keep the bytes of note that are no UTF-8")
        self.assertEqual(path.read_bytes(), before)

    def test_bytes_that_are_no_text_where_they_are_replaced(self):
        path = write("device", COMPLETE)
        path.write_bytes(path.read_bytes().replace(b"=lan", b"=caf\xe9")
                         + "; \xe9\nOwn=\ufffd\n".encode("latin-1", "replace"))
        self.expect(0, "set", "connection", "lan")
        self.assertEqual(stored()["connectionName"], "lan")

    def test_links_in_circles(self):
        path = path_of("device")
        path.parent.mkdir(parents=True)
        path.symlink_to("other.ini")
        (path.parent / "other.ini").symlink_to("switch.ini")
        self.stays(self.expect(1, "--app", "device", "set", "enabled", "on"),
                   "is a link that leads to itself")

    def test_injected_errors(self):
        """The system refuses a step."""
        path = write("device", COMPLETE)
        before = path.read_bytes()
        for call, error, number, reason in (("fsync", "EIO", 1, "Input/output error"),
                                            ("fchmod", "EPERM", 1, "Operation not permitted"),
                                            # The first one is Qt's, which writes the copy anew.
                                            ("rename", "EACCES", 2, "Permission denied")):
            with self.subTest(call=call):
                done = traced(["-e", f"trace={call}", "-e",
                               f"inject={call}:error={error}:when={number}"], "enabled", "off")
                self.stays(tool.Result(done), reason)
                self.assertEqual(path.read_bytes(), before)
                self.assertEqual(os.listdir(path.parent), ["switch.ini"])

    def test_link_in_place_of_the_copy(self):
        """Somebody else makes a link by the copy's name, once what was left there is removed: what
        it leads to stays."""
        path = write("device", COMPLETE)
        victim = path.parent / "victim"
        victim.write_text("precious", encoding="utf-8")
        (path.parent / "switch.ini.new").symlink_to(victim)
        before = path.read_bytes()
        # As if it were there again.
        done = traced(["-e", "trace=unlink,unlinkat", "-e", "inject=unlink,unlinkat:retval=0"],
                      "enabled", "off")
        self.stays(tool.Result(done), "switch.ini.new: File exists")
        self.assertEqual((victim.read_text(encoding="utf-8"), path.read_bytes()),
                         ("precious", before))

    def test_link_in_place_of_the_new_file(self):
        """Somebody else replaces the copy by a link when it is complete."""
        path = write("device", COMPLETE)
        victim, copy, trace = (path.parent / name
                               for name in ("victim", "switch.ini.new", "trace"))
        victim.write_text("precious", encoding="utf-8")
        trace.touch()
        before = path.read_bytes()
        # The first renaming is Qt's, which writes the copy anew.
        with subprocess.Popen(["strace", "-o", str(trace), "-e", "trace=rename", "-e",
                               "inject=rename:signal=STOP:when=1", *tool.COMMAND, "set", "enabled",
                               "off"], stdout=subprocess.PIPE, stderr=subprocess.PIPE,
                              encoding="utf-8",
                              env=os.environ | {"ASAN_OPTIONS": "detect_leaks=0"}) as process:
            wait_until(lambda: "stopped by SIGSTOP" in trace.read_text(encoding="utf-8"), 30,
                       "the end of Qt's renaming")
            copy.unlink()
            copy.symlink_to(victim)
            children = pathlib.Path(f"/proc/{process.pid}/task/{process.pid}/children")
            os.kill(int(children.read_text(encoding="ascii")), signal.SIGCONT)
            out, err = process.communicate(timeout=60)
        self.assertEqual((process.returncode, out), (1, ""))
        self.assertIn("Too many levels of symbolic links", err)
        self.assertFalse(path.is_symlink())
        self.assertEqual((victim.read_text(encoding="utf-8"), path.read_bytes()),
                         ("precious", before))

    def test_folder_that_cannot_be_synchronised(self):
        """The file is replaced already."""
        path = write("device", COMPLETE)
        done = traced(["-e", "trace=fsync", "-e", "inject=fsync:error=EIO:when=2"], "enabled",
                      "off")
        self.assertEqual(done.returncode, 0)
        self.assertIn(f"{path} is written, but a power cut may still undo that: {path.parent}: "
                      "Input/output error", done.stderr)
        self.assertEqual(stored()["SwitchEnable"], "false")

    def test_not_an_ini_file(self):
        path = write("device", COMPLETE)
        path.write_bytes(b"[General\nSwitchEnable=true\n")
        before = path.read_bytes()
        # Also where it seems to have the value.
        for value in ("off", "on"):
            self.stays(self.expect(1, "set", "enabled", value),
                       f"{path} is no INI file throughout; hoplanectl check tells what helps\n")
            self.assertEqual(path.read_bytes(), before)

    def test_value_that_takes_all_memory(self):
        """Qt's reader ends whoever reads it; the tool says so."""
        write("device", COMPLETE)
        device = pathlib.Path("/userdata/netSettings.ini")
        for path, start in ((path_of("device"), path_of("device").read_bytes()),
                            (device, b"[NetworkConnections]\nconName=lan\n")):
            path.write_bytes(start + BINARY)
            before = path_of("device").read_bytes()
            commands = {("check",): 2, ("search",): 2, ("watch",): 2}
            commands |= {("import",): 1} if path == device else {
                ("show",): 1, ("show", "--raw"): 1, ("plan",): 1, ("set", "connection", "new"): 1}
            for words, status in commands.items():
                with self.subTest(path=path, command=words):
                    done = self.expect(status, *words)
                    self.assertIn(MEMORY, done.err)
                    self.assertEqual(path_of("device").read_bytes(), before)
                    self.assertEqual(os.listdir(path_of("device").parent), ["switch.ini"])
            write("device", COMPLETE)
        device.unlink()

    def test_spoilt_meanwhile(self):
        """Another program makes something else of the file after the tool has looked at it, before
        it has the lock."""
        for spoilt, reason in ((b"[General]\nSwitchEnable=true\nstray\n",
                                "nothing is changed: PATH: it is no INI file throughout"),
                               (b"[General]\n" + BINARY, MEMORY)):
            with self.subTest(spoilt=spoilt):
                self.spoil(spoilt, reason)

    def spoil(self, spoilt, reason):
        path = write("device", COMPLETE)
        lock = path.parent / "switch.ini.lock"
        # To open it, as whoever waits for a lock does, waits for this test.
        os.mkfifo(lock)
        with subprocess.Popen([*tool.COMMAND, "set", "connection", "new"], stdout=subprocess.PIPE,
                              stderr=subprocess.PIPE, encoding="utf-8") as process:
            with lock.open("wb"):
                path.write_bytes(spoilt)
                lock.unlink()
            out, err = process.communicate(timeout=60)
        self.assertEqual((process.returncode, out), (1, ""))
        self.assertIn(reason.replace("PATH", str(path)), err)
        self.assertEqual(path.read_bytes(), spoilt)
        self.assertEqual(os.listdir(path.parent), ["switch.ini"])

    def test_locked_by_a_writer(self):
        path = write("device", COMPLETE)
        holder = subprocess.Popen(["sleep", "infinity"])
        self.addCleanup(holder.wait)
        self.addCleanup(holder.kill)
        lock = path.parent / "switch.ini.lock"
        lock.write_text(f"{holder.pid}\nsleep\n{os.uname().nodename}\n", encoding="utf-8")
        # One that goes on writing; a lock that nobody renews is broken at last.
        done = threading.Event()

        def renew():
            while not done.wait(0.1):
                lock.touch()
        renewer = threading.Thread(target=renew)
        renewer.start()
        try:
            self.stays(self.expect(1, "set", "enabled", "off"), "another program is writing")
        finally:
            done.set()
            renewer.join()
        lock.unlink()


def traced(options, *arguments):
    """Runs `set` below strace."""
    return subprocess.run(["strace", "-f", "-qq", *options, *tool.COMMAND, "set", *arguments],
                          stdout=subprocess.PIPE, stderr=subprocess.PIPE, encoding="utf-8",
                          # Leaks cannot be looked for under strace.
                          env=os.environ | {"ASAN_OPTIONS": "detect_leaks=0"}, check=False)


def synchronisations():
    """What `set enabled off` hands to fsync, in order, "rename" where the file is replaced."""
    done = traced(["-y", "-e", "trace=fsync,fdatasync,rename,renameat,renameat2"], "enabled", "off")
    steps = []
    for line in done.stderr.splitlines():
        if match := re.search(r"sync\(\d+<(.*)>\)", line):
            steps.append(match[1])
        elif re.search(r'rename.*"\S+/switch\.ini"', line):
            steps.append("rename")
    return steps


def power_cuts(arguments, *calls):
    """Kills the tool at its first such system call, in the next run at its second one, and so on,
    until it comes through; yields before each run what it is killed at."""
    for call in calls:
        number = 1
        while True:
            yield f"{call} number {number}"
            done = subprocess.run(
                ["strace", "-qq", "-o", "/dev/null", "-e", f"trace={call}",
                 "-e", f"inject={call}:signal=KILL:when={number}", *tool.COMMAND, *arguments],
                stdout=subprocess.DEVNULL, stderr=subprocess.PIPE, check=False,
                # Leaks cannot be looked for under strace.
                env=os.environ | {"ASAN_OPTIONS": "detect_leaks=0"})
            if done.returncode == 0:
                break
            if done.returncode not in (-9, 137):
                raise AssertionError(done)
            number += 1


class PowerCut(tool.TestCase):
    """Whenever the tool is killed, the file is the old or the new one, and the next run works."""

    def test_in_the_middle_of_set(self):
        calls = ("write", "openat", "fsync", "chmod", "fchmod", "rename", "renameat2", "link",
                 "linkat", "unlink", "close")
        new = COMPLETE | {"SecondServerIp": "203.0.113.7", "SecondServerPort": "1"}
        arguments = ["set", "server", "2", "203.0.113.7:1"]
        seen = {"old": 0, "new": 0}
        for cut in power_cuts(arguments, *calls):
            if path_of("device").exists():
                values = stored()
                self.assertIn(values, (COMPLETE, new), f"before {cut}")
                seen["new" if values == new else "old"] += 1
            tool.remove_all()
            write("device", COMPLETE)
        self.assertGreater(seen["old"], 5)
        self.assertGreater(seen["new"], 5)

    def test_order(self):
        """The copy is on the disk before it replaces the file, and the new name afterwards."""
        path = write("device", COMPLETE)
        self.assertEqual(synchronisations()[-3:], [f"{path}.new", "rename", str(path.parent)])

    def test_afterwards(self):
        for _ in power_cuts(["set", "server", "2", "203.0.113.7:1"], "rename", "fsync", "write"):
            if path_of("device").exists():
                self.expect(0, "set", "server", "2", "203.0.113.8:2")
                self.assertEqual(stored()["SecondServerIp"], "203.0.113.8")
                self.assertEqual(os.listdir(path_of("device").parent), ["switch.ini"])
            write("device", COMPLETE)


class Import(tool.TestCase):
    """The device's own settings."""
    DEVICE = pathlib.Path("/userdata/netSettings.ini")
    TEXT = ("[NetworkConnections]\nconName=wan\nMasterNet\\bDhcpEnabled=false\n"
            "MasterNet\\ip=10.0.0.2\nMasterNet\\mask=255.255.255.0\nMasterNet\\gateway=10.0.0.1\n"
            "MasterNet\\dns1=10.0.0.53\nMasterNet\\dns2=10.0.0.54\nSlaveNet\\bDhcpEnabled=true\n")
    IMPORTED = {"connectionName": "wan", "FirstIsAutomatically": "true", "FirstLocalIp": "10.0.0.2",
                "FirstLocalMask": "255.255.255.0", "FirstLocalGateWay": "10.0.0.1",
                "FirstPreferredDNS": "10.0.0.53", "FirstSpareDNS": "10.0.0.54",
                "SecondIsAutomatically": "false"}

    def setUp(self):
        super().setUp()
        self.addCleanup(self.DEVICE.unlink, missing_ok=True)

    def test_import(self):
        write("device", COMPLETE)
        self.DEVICE.write_text(self.TEXT, encoding="utf-8")
        result = self.expect(0, "import")
        self.assertEqual(result.out, f"""\
connection: wan
  was lan
network 1: static address 10.0.0.2/24, gateway 10.0.0.1, name servers 10.0.0.53, 10.0.0.54
  was static address 198.51.100.2/24, gateway 198.51.100.1, name servers 198.51.100.53, \
198.51.100.54
{path_of("device")} is written
""")
        self.assertEqual(stored(), COMPLETE | self.IMPORTED)
        self.assertEqual(self.DEVICE.read_text(encoding="utf-8"), self.TEXT)

    def test_dry_run(self):
        path = write("device", COMPLETE)
        before = tool.state_of(path)
        other = tool.HOME / "device.ini"
        other.write_text(self.TEXT, encoding="utf-8")
        result = self.expect(0, "import", "--dry-run", "--from", str(other))
        self.assertIn("connection: wan\n  at present lan\n", result.out)
        self.assertIn(f"{path} is not changed\n", result.out)
        self.assertEqual(tool.state_of(path), before)
        objects = self.expect(0, "import", "--dry-run", "--from", str(other), "--json").objects
        self.assertEqual([(entry["item"], entry["written"]) for entry in objects],
                         [("connection", False), ("network 1", False)])
        other.unlink()

    def test_dry_run_into_what_cannot_be_changed(self):
        """It tells what the import itself would."""
        self.DEVICE.write_text(self.TEXT, encoding="utf-8")
        path = path_of("device")
        for make, reason in ((lambda: write("device", COMPLETE).write_bytes(b"\x7fELF\n"),
                              "is no INI file throughout"),
                             (lambda: path.mkdir(parents=True), "is no regular file")):
            make()
            for options in ([], ["--dry-run"]):
                with self.subTest(reason=reason, options=options):
                    result = self.expect(1, "--app", "device", "import", *options)
                    self.assertEqual((result.out, result.err),
                                     ("", f"hoplanectl: nothing is changed: {path} {reason}; "
                                          "hoplanectl check tells what helps\n"))
            tool.remove_all()

    def test_flag_of_the_group(self):
        write("device", COMPLETE)
        self.DEVICE.write_text("[NetworkConnections]\nbDhcpEnabled=false\nMasterNet\\ip=10.0.0.2\n",
                               encoding="utf-8")
        self.expect(0, "import")
        self.assertEqual((stored()["FirstIsAutomatically"], stored()["SecondIsAutomatically"]),
                         ("true", "true"))
        self.assertEqual(stored()["connectionName"], "")

    def test_refused(self):
        path = write("device", COMPLETE)
        before = path.read_bytes()
        folder = tool.HOME / "folder"
        folder.mkdir(exist_ok=True)
        broken, alien = tool.HOME / "broken.ini", tool.HOME / "alien.ini"
        broken.write_bytes(b"[NetworkConnections]\nconName=x\nstray\n")
        alien.write_bytes(b"[Other]\nconName=x\n")
        for name, reason in ((self.DEVICE, "there is no "), (folder, "it is no regular file"),
                             (broken, "it is no INI file"),
                             (alien, "it has no group NetworkConnections")):
            result = self.expect(1, "import", "--from", str(name))
            self.assertIn("nothing is changed: ", result.err)
            self.assertIn(str(name), result.err)
            self.assertIn(reason, result.err)
            self.assertEqual(path.read_bytes(), before)


if __name__ == "__main__":
    tool.main()

# SPDX-License-Identifier: MIT
"""What `check` finds, without a network: provoked by the file, by PATH, by permissions, by the
environment, and by a stand-in for nmcli."""

import contextlib
import grp
import os
import pathlib
import pty
import pwd
import re
import socket
import subprocess

import tool  # first: it tells where the laboratory is
from checking import (DEVICE_FILE, ITEMS, PROBES, CheckCase, fault, good, not_judged, warning)
from laboratory import add_interface
from tool import HOME, path_of, write

APP = "failover"
BIN = HOME / "bin"
CALLS = HOME / "calls"
PERMISSION = "org.freedesktop.NetworkManager."
UUID, OTHER_UUID = "11111111-2222-4333-8444-555555555555", "99999999-2222-4333-8444-555555555555"
PROFILE = "/etc/NetworkManager/system-connections/lan.nmconnection"

GOOD = {"SwitchEnable": "true", "connectionName": "lan",
        "FirstServerIp": "10.1.0.1", "FirstServerPort": "9000", "FirstIsAutomatically": "true",
        "FirstLocalIp": "10.1.0.2", "FirstLocalMask": "255.255.255.0",
        "FirstLocalGateWay": "10.1.0.254", "FirstPreferredDNS": "10.1.0.53",
        "FirstSpareDNS": "10.1.0.54",
        "SecondServerIp": "10.2.0.1", "SecondServerPort": "9001", "SecondIsAutomatically": "false",
        "SecondLocalIp": "", "SecondLocalMask": "", "SecondLocalGateWay": "",
        "SecondPreferredDNS": "", "SecondSpareDNS": ""}
SECOND_STATIC = {"SecondIsAutomatically": "true", "SecondLocalIp": "10.2.0.2",
                 "SecondLocalMask": "255.255.255.0", "SecondLocalGateWay": "10.2.0.254",
                 "SecondPreferredDNS": "10.2.0.53"}

# What a NetworkManager answers where all is good: (output, exit status).
RUNNING = "-t -f RUNNING,VERSION,STATE general"
LIST = "-t -f NAME,UUID,TYPE,DEVICE connection show"
NAMED = "-g connection.uuid connection show lan"
DEVICES = "-t -f DEVICE,TYPE,STATE device status"
FILES = "-t -f UUID,FILENAME connection show"
PERMISSIONS = "-t -f PERMISSION,VALUE general permissions"
INTERFACE = f"-g connection.interface-name connection show uuid {UUID}"
USERS = f"-g connection.permissions connection show uuid {UUID}"
BINDINGS = {name: f"-g {name} connection show uuid {UUID}" for name in (
    "802-3-ethernet.mac-address", "802-3-ethernet.mac-address-blacklist", "match.interface-name",
    "match.driver", "match.path", "match.kernel-command-line")}
LOGIN = f"-g 802-1x.eap connection show uuid {UUID}"
BRIDGE = f"-g connection.master connection show uuid {UUID}"
ITSELF = f"-g connection.autoconnect connection show uuid {UUID}"
NO_DEFAULT = f"-g ipv4.never-default connection show uuid {UUID}"
GATEWAY = f"-g ipv4.gateway connection show uuid {UUID}"
DNS = f"-g ipv4.dns connection show uuid {UUID}"
OPTION = "-g connection.uuid --version"
LAN = f"lan:{UUID}:802-3-ethernet:lo"


def fitting(name):
    """The question which profiles fit an interface."""
    return ("-t -f GENERAL.STATE,WIRED-PROPERTIES.CARRIER,CONNECTIONS.AVAILABLE-CONNECTIONS "
            f"device show {name}")


def fits(*uuids, state="100 (connected)", carrier="on"):
    """The answer to it."""
    return "\n".join([f"GENERAL.STATE:{state}", f"WIRED-PROPERTIES.CARRIER:{carrier}", *(
        f"CONNECTIONS.AVAILABLE-CONNECTIONS[{number}]:{uuid} | x\\:y"
        for number, uuid in enumerate(uuids, 1))]), 0


# The loopback interface plays the wired one: it has a carrier.
ANSWERS = {
    "--version": ("nmcli tool, version 1.42.4", 0), OPTION: ("nmcli tool, version 1.42.4", 0),
    RUNNING: ("running:1.42.4:connected", 0), LIST: (LAN, 0), NAMED: (UUID, 0),
    INTERFACE: ("lo", 0), BRIDGE: ("", 0), ITSELF: ("yes", 0),
    NO_DEFAULT: ("no", 0), LOGIN: ("", 0), GATEWAY: ("", 0), DNS: ("", 0),
    **{question: ("", 0) for question in BINDINGS.values()},
    **{fitting(name): fits(OTHER_UUID, UUID) for name in ("lo", "eth9", "wlan0")},
    DEVICES: ("lo:ethernet:connected", 0), FILES: (f"{UUID}:{PROFILE}", 0), USERS: ("", 0),
    PERMISSIONS: (f"{PERMISSION}network-control:yes\n{PERMISSION}settings.modify.own:yes\n"
                  f"{PERMISSION}settings.modify.system:yes", 0)}
NOT_RUNNING = "Error: NetworkManager is not running."
NO_SUCH = "Error: lan - no such connection profile."

UNUSED = ["enabled", "keys", "trust", "server-1", "server-2", "servers", "network-1", "network-2",
          "networks", "name"]
NO_FILE = not_judged("there is no configuration to read")
WITHOUT_FILE = {item: NO_FILE for item in
                [*UNUSED, "connection", "interface", "profile"]}
WITHOUT_MANAGER = ["connection", "interface", "profile", "permissions"]
NO_CONNECTION = not_judged("it is not clear which connection is meant")
WITHOUT_CONNECTION = {"interface": NO_CONNECTION, "profile": NO_CONNECTION}
SETTING = "hoplanectl set "
SPINS = warning("both networks are static: a device without any address skips both, and its search "
                "fails after 120 s; now it has none",
                "nmcli connection modify lan connection.autoconnect yes; nmcli connection up lan")


def nmcli(changes=None, missing=()):
    """Writes the stand-in for nmcli: it answers as above but for the changes, and notes what it was
    asked. An answer that is a text is a piece of shell."""
    lines = ["#!/bin/sh", f'echo "$*" >> {CALLS}', 'case "$*" in']
    for question, answer in (ANSWERS | (changes or {})).items():
        if isinstance(answer, tuple):
            text, status = answer
            stream = "" if status == 0 else " >&2"
            answer = f"/bin/cat{stream} <<'END'\n{text}\nEND\nexit {status}"
        if question not in missing:
            lines.append(f'"{question}") {answer}\n;;')
    lines += ['*) echo "not expected: $*" >&2; exit 99;;', "esac"]
    BIN.mkdir(exist_ok=True)
    (BIN / "nmcli").write_text("\n".join(lines) + "\n", encoding="utf-8")
    (BIN / "nmcli").chmod(0o755)


def fill(folder):
    """Leaves no room on the folder's file system."""
    # With the device named: an ordinary user cannot give again the options that it already has.
    subprocess.run(["mount", "-o", "remount,rw,size=64k", "tmpfs", folder], check=True)
    with contextlib.suppress(OSError), open(folder / "filler", "wb", buffering=0) as file:
        while True:
            file.write(bytes(4096))


class Case(CheckCase):
    """Each test begins with a configuration and a device where all is good."""

    def setUp(self):
        super().setUp()
        subprocess.run(["rm", "-rf", BIN, CALLS], check=True)
        nmcli()
        (BIN / "awk").symlink_to("/usr/bin/awk")
        write(APP, GOOD)

    def run_check(self, *arguments, environment=None, **options):
        return super().run_check(*arguments, environment={"PATH": str(BIN), **(environment or {})},
                                 **options)


class Everything(Case):
    def test_all_is_good(self):
        result = self.expect_findings({})
        self.assertEqual(result.status, 0)
        self.assertEqual(result.objects[-1], {
            "type": "summary", "app": APP, "file": str(path_of(APP)), "good": len(ITEMS),
            "warnings": 0, "faults": 0})

    def test_what_is_said_of_good_items(self):
        self.compare({
            "file": good(str(path_of(APP))), "keys": good("all 18 are there"),
            "trust": good("only root may write"), "enabled": good("on"),
            "server-1": good("10.1.0.1:9000"), "server-2": good("10.2.0.1:9001"),
            "network-1": good("static address 10.1.0.2/24, gateway 10.1.0.254, name servers "
                              "10.1.0.53, 10.1.0.54"),
            "network-2": good("DHCP"), "name": good('"lan"'),
            "nmcli": good(f"{BIN}/nmcli, version 1.42.4"), "awk": good(f"{BIN}/awk"),
            "manager": good("runs, version 1.42.4"),
            "connection": good(f'"lan", wired, {UUID}, active on lo'),
            "interface": good("lo, connected, with a carrier"), "profile": good(PROFILE),
            "permissions": good("root may change"), "device-file": good("there is no /userdata"),
            "link-events": good("link notifications of all interfaces"),
            "clock": good("is synchronised, it says 20"), "locale": good("UTF-8"),
        }, self.run_check("check", "--json"))

    def test_it_only_asks(self):
        before = path_of(APP).read_bytes(), os.stat(path_of(APP)).st_mtime_ns
        self.expect_findings({})
        self.assertEqual((path_of(APP).read_bytes(), os.stat(path_of(APP)).st_mtime_ns), before)
        self.assertEqual(sorted(os.listdir(path_of(APP).parent)), ["switch.ini"])
        calls = CALLS.read_text(encoding="utf-8").splitlines()
        self.assertTrue(calls)
        for call in calls:
            self.assertRegex(call, r"--version$|(general|permissions|device status|device show lo)$"
                                   r"|connection show( lan| uuid \S+)?$")

    def test_text_says_what_json_says(self):
        write(APP, GOOD | {"SwitchEnable": "false", "FirstServerPort": "0"})
        for arguments in (["check"], ["check", "--probe"], ["--app", "none", "check"]):
            objects = self.run_check(*arguments, "--json").objects
            lines = []
            for finding in objects[:-1]:
                marker = {"good": "good", "warning": "WARNING", "fault": "FAULT"}[finding["level"]]
                lines.append(f"{marker:7} {finding['item']:12} {finding['text']}")
                if finding["remedy"]:
                    lines.append(21 * " " + "remedy: " + finding["remedy"])
            summary = objects[-1]
            plural = "" if summary["warnings"] == 1 else "s"
            faults = "" if summary["faults"] == 1 else "s"
            lines.append(f"{summary['faults']} fault{faults}, {summary['warnings']} "
                         f"warning{plural}")
            result = self.run_check(*arguments)
            self.assertEqual(result.out.splitlines(), lines)
            self.assertEqual(result.status, 2)

    def test_last_line(self):
        self.assertEqual(self.run_check("check").out.splitlines()[-1], "all is good")
        write(APP, GOOD | {"SwitchEnable": "false"})
        result = self.run_check("check")
        self.assertEqual(result.out.splitlines()[-1], "0 faults, 1 warning")
        self.assertEqual(result.status, 1)

    def test_colours_on_a_terminal(self):
        write(APP, GOOD | {"SwitchEnable": "false", "FirstServerPort": "0"})
        reader, writer = pty.openpty()
        environment = os.environ | {"TERM": "xterm", "PATH": str(BIN)}
        environment.pop("NO_COLOR", None)
        with open(reader, "rb", buffering=0) as shown:
            with subprocess.Popen([*tool.COMMAND, "check"], stdout=writer,
                                  env=environment) as process:
                os.close(writer)
                text = b""
                try:
                    while piece := shown.read(65536):
                        text += piece
                except OSError:
                    pass  # the terminal is closed
            self.assertEqual(process.returncode, 2)
        for marker in (b"\x1b[32mgood\x1b[0m    file", b"\x1b[33mWARNING\x1b[0m enabled",
                       b"\x1b[31mFAULT\x1b[0m   server-1"):
            self.assertIn(marker, text)

    def test_wrong_usage(self):
        for arguments in (["check", "file"], ["check", "--prob"], ["check", "--probe=1"],
                          ["--app", "a/b", "check"], ["check", "--app", ""]):
            result = self.run_check(*arguments)
            self.assertEqual(result.status, 64, f"{arguments}: {result}")
            self.assertEqual(result.out, "")

    def test_several_applications(self):
        write("other", GOOD)
        result = self.run_check("check", "--json")
        self.assertEqual((result.status, result.out), (64, ""))
        self.assertIn("failover, other", result.err)
        self.expect_findings({}, "--app", "other")


class File(Case):
    def test_no_application(self):
        tool.remove_all()
        result = self.expect_findings(
            WITHOUT_FILE | {"file": fault(f"no application has a configuration in {HOME}/Documents",
                                          "hoplanectl --app NAME set server 1 IP:PORT")})
        self.assertEqual((result.objects[-1]["app"], result.objects[-1]["file"]), (None, None))

    def test_no_file(self):
        result = self.expect_findings(
            WITHOUT_FILE | {"file": fault(f"there is no {path_of('new one')}",
                                          "hoplanectl --app 'new one' set server 1 IP:PORT")},
            "--app", "new one")
        self.assertEqual((result.objects[-1]["app"], result.objects[-1]["file"]),
                         ("new one", str(path_of("new one"))))

    def test_not_a_file(self):
        path = path_of("odd")
        path.parent.mkdir()
        for make, text, remedy in (
                (path.mkdir, "is no regular file", f"mv {path} {path}.old"),
                (lambda: os.mkfifo(path), "is no regular file", f"mv {path} {path}.old"),
                (lambda: path.symlink_to("nowhere"), "is a link that leads nowhere",
                 f"rm {path}; then hoplanectl --app odd set server 1 IP:PORT")):
            make()
            self.expect_findings(WITHOUT_FILE | {"file": fault(f"{path} {text}", remedy)},
                                 "--app", "odd")
            subprocess.run(["rm", "-r", path], check=True)

    def test_unreadable(self):
        path_of(APP).chmod(0)
        powerless = ["/usr/bin/setpriv", "--bounding-set=-all", "--inh-caps=-all"]
        self.expect_findings(
            WITHOUT_FILE | {"file": fault(
                f"{path_of(APP)} cannot be read by the user root: Permission denied",
                f"run the check as the application's user; or chown root:root {path_of(APP)}")},
            within=powerless)

    def test_contents(self):
        path = path_of(APP)
        lines = [f"{key}={value}" for key, value in GOOD.items()]
        stored = ", and nothing can be stored"
        bad = fault(f"{path}: line 3 is none of an INI file{stored}",
                    f"correct {path} with an editor; remarks begin with ;")
        unknown = warning('the library does not know the key "rubbish"')
        for body, expected in (
                (["[General]", *lines, "", "; remark", ""], {}),
                (lines, {}),
                (["\ufeff[General]", *lines], {"file": fault(
                    f"{path}: it begins with a byte order mark{stored}")}),
                (["\ufeff[General]", *lines, "rubbish"], {"file": fault(
                    f"{path}: it begins with a byte order mark; line {len(lines) + 2} is none of "
                    f"an INI file{stored}")}),
                (["[general]", *lines], {}),
                (["[General]", lines[0], "rubbish", *lines[1:]], {"file": bad}),
                (["[General]", lines[0], "[rubbish", *lines[1:]], {"file": bad}),
                (["[General]", lines[0], "# remark", *lines[1:]], {"file": bad}),
                (["[General]", lines[0], "[rubbish", "a]"], {"file": bad}),
                (["[General]", lines[0], "a=\\", "", "a", "b"], {"file": fault(
                    f"{path}: line 5 is none of an INI file{stored}")}),
                (["[General]", lines[0], "rubbish;a=b"], {"file": fault(
                    f"{path}: it is no INI file throughout{stored}")}),
                (["[General]", *lines, "rubbish=1"], {"keys": unknown})):
            path.write_text("\n".join(body) + "\n", encoding="utf-8")
            with self.subTest(body=body):
                result = self.run_check("check", "--json")
                found = {finding["item"]: finding for finding in result.objects[:-1]}
                for item in ("file", "keys"):
                    if item in expected:
                        self.compare_item(item, [expected[item]], [found[item]], result)
                if not expected:
                    self.compare({}, result)
                # Whether something can be stored is as it is said.
                bad_file = expected.get("file", good(""))[0] == "fault"
                self.assertEqual(tool.tool("set", "enabled", "off").status, int(bad_file))

    def test_garbage(self):
        """As after a power cut; no remedy but one is offered, since no other works."""
        path = path_of(APP)
        for contents in (bytes(4096), bytes(16) + b"\n[General]\n", b"\xff" * 512,
                         b"rubbish\n", b"[General\n", b"[Other]\nSwitchEnable=true\nx\n"):
            with self.subTest(contents=contents[:30]):
                path.write_bytes(contents)
                result = self.expect_findings(WITHOUT_FILE | {"file": fault(
                    "is none of an INI file, it has none of the keys, and nothing can be stored",
                    f"mv {path} {path}.old; then hoplanectl --app {APP} set server 1 IP:PORT; then "
                    "server 2,")})
                # So it is.
                done = tool.tool("set", "enabled", "off")
                self.assertEqual(done.status, 1)
                self.assertTrue(done.err.endswith(
                    f"{path} is no INI file throughout; hoplanectl check tells what helps\n"), done)
                self.assertEqual(path.read_bytes(), contents)
                # The remedy is one.
                move, command = result.objects[0]["remedy"].split("; then ")[:2]
                subprocess.run(move.split(), check=True)
                command = command.replace("IP:PORT", "10.1.0.1:9000")
                self.assertEqual(tool.tool(*command.split()[1:]).status, 0)

    def test_no_utf_8(self):
        path_of(APP).write_bytes(path_of(APP).read_bytes() + b";\xfcber\n")
        self.expect_findings({"file": warning("has bytes that are no UTF-8", "correct ")})

    def test_empty(self):
        path_of(APP).write_bytes(b"")
        none = fault("there is none", SETTING + "server ")
        self.expect_findings({
            "keys": warning("the keys " + ", ".join(tool.KEYS), "; ".join([
                SETTING + "enabled on", SETTING + "connection NAME",
                SETTING + "server 1 IP:PORT",
                SETTING + "network 1 --dhcp, or --address IP/PREFIX --gateway IP",
                SETTING + "server 2 IP:PORT",
                SETTING + "network 2 --dhcp, or --address IP/PREFIX --gateway IP"])),
            "enabled": warning("switching is off", SETTING + "enabled on"),
            "server-1": none, "server-2": none,
            "servers": fault("both servers are the same, and so is the way"),
            "networks": warning("both networks are automatic", SETTING + "network 2 --address"),
            "name": warning("the connection has no name", SETTING + "connection NAME")})

    def test_keys(self):
        def without(key):
            return {name: value for name, value in GOOD.items() if name != key}

        table = [
            (without("SecondSpareDNS"), {"keys": warning(
                "takes the key SecondSpareDNS as false or empty: not in the file",
                SETTING + "network 2 --dhcp, or")}),
            (GOOD | {"switchEnable": "true"}, {"keys": warning(
                'does not know the key "switchEnable"; a slip', f"names in {path_of(APP)}")}),
            (GOOD | {"a": "1", "b/c": "2"}, {"keys": warning('the keys "a", "b/c"')}),
            (GOOD | {"a%1B[31m": "1"}, {"keys": warning('the key "a\\u001b[31m"')}),
            # Values with a comma.
            (GOOD | {"FirstPreferredDNS": "10.1.0.53, 10.1.0.54"}, {"keys": fault(
                'FirstPreferredDNS="10.1.0.53, 10.1.0.54": a value with a comma that is not in '
                "quotes is empty for the library", SETTING + "network 1 --dhcp, or")}),
            (GOOD | {"FirstPreferredDNS": '"10.1.0.53, 10.1.0.54"'}, {"network-1": fault(
                '"10.1.0.53, 10.1.0.54": the name server has to be')}),
            (GOOD | {"SwitchEnable": "true,"}, {
                "keys": fault("comma that is not in quotes is false for the library",
                              SETTING + "enabled on"),
                "enabled": warning("switching is off")}),
            # Values of an addressing that is not used.
            (GOOD | {"SecondLocalIp": "a, b", "SecondLocalMask": "255.0.0.0"}, {}),
        ]
        for values, expected in table:
            with self.subTest(values=values):
                write(APP, values)
                self.expect_findings(expected)

    def test_flags(self):
        for word, is_true in (("true", True), ("True", True), ("1", True), ("false", False),
                              ("FALSE", False), ("0", False), ("", False)):
            with self.subTest(word=word):
                write(APP, GOOD | {"SwitchEnable": word})
                self.expect_findings({} if is_true else {"enabled": warning("switching is off")})
        for word in ("off", "no", "yes", "on", "2"):
            with self.subTest(word=word):
                write(APP, GOOD | {"SwitchEnable": word})
                self.expect_findings({"keys": warning(
                    f'SwitchEnable="{word}": the library takes this for true',
                    SETTING + "enabled on")})

    def test_nothing_can_be_written(self):
        folder = path_of(APP).parent
        lost = "what the application saves or imports is lost, and nothing can be set"
        subprocess.run(["mount", "-t", "tmpfs", "tmpfs", folder], check=True)
        try:
            write(APP, GOOD)
            self.expect_findings({})
            fill(folder)
            self.expect_findings({"file": fault(f"{folder} is on a full disk: {lost}", "delete")})
            self.assertEqual(1, tool.tool("set", "enabled", "off").status)
            (folder / "filler").unlink()
            self.expect_findings({})
            subprocess.run(["mount", "-o", "remount,ro", "tmpfs", folder], check=True)
            self.expect_findings({"file": fault(f"{folder} is on a read-only file system: {lost}",
                                                "mount -o remount,rw")})
        finally:
            subprocess.run(["umount", folder], check=True)

    def test_room(self):
        """What counts is what anybody may have; a file system may not count its files."""
        for room, full in (("100 100 100 100", False), ("100 0 100 100", True),
                           ("100 100 100 0", True), ("100 100 0 0", False)):
            with self.subTest(room=room):
                finding = fault("is on a full disk")
                self.expect_findings({"file": finding, "profile": finding} if full else {},
                                     environment={"SURROUNDINGS_ROOM": room})

    def test_repeated(self):
        """The library takes the last one."""
        for last, enabled in (("SwitchEnable=true", good("switching is on")),
                              ("SwitchEnable = false", warning("switching is off"))):
            path = write(APP, GOOD)
            with path.open("a", encoding="utf-8") as file:
                file.write(f"{last}\n[Other]\nFirstServerIp=10.9.9.9\n")
            self.expect_findings({"enabled": enabled, "keys": [
                warning('"Other/FirstServerIp": the library looks into the group'),
                warning("the key SwitchEnable: several times in the file, and the library takes "
                        "the last", f"lines of {path} but the last")]})
        path = write(APP, GOOD)
        path.write_text("SwitchEnable=false\n" + path.read_text("utf-8"), encoding="utf-8")
        self.expect_findings({"keys": warning("the key SwitchEnable: several times")})

    def test_wrong_group(self):
        lines = [f"{key}={value}" for key, value in GOOD.items()]
        path_of(APP).write_text("\n".join([*lines[:16], "[Dns]", *lines[16:], ""]),
                                encoding="utf-8")
        self.expect_findings({"keys": [
            warning("takes the keys SecondPreferredDNS, SecondSpareDNS as false or empty"),
            warning('the keys "Dns/SecondPreferredDNS", "Dns/SecondSpareDNS": the library looks '
                    "into the group [General] only", f"{path_of(APP)} behind the line [General]"),
        ]})


class Trust(Case):
    CONSEQUENCE = ", and whoever does can run commands as the application"

    def others(self, who, path, remedy):
        return {"trust": fault(f"{who} may write {path}{self.CONSEQUENCE}", remedy)}

    def test_everybody(self):
        for path in (path_of(APP), path_of(APP).parent, HOME / "Documents", HOME):
            with self.subTest(path=path):
                mode = path.stat().st_mode
                path.chmod(mode | 0o002)
                self.expect_findings(self.others("everybody", path, f"chmod go-w {path}"))
                path.chmod(mode)

    def test_device_file(self):
        """What is in it gets into the file, and into the commands."""
        folder = DEVICE_FILE.parent
        folder.chmod(0o777)
        self.expect_findings(self.others("everybody", folder, f"chmod go-w {folder}"))
        folder.chmod(0o755)
        DEVICE_FILE.write_text("\n".join(DeviceFile.SAME), encoding="utf-8")
        self.expect_findings({})
        DEVICE_FILE.chmod(0o666)
        self.expect_findings(self.others("everybody", DEVICE_FILE, f"chmod go-w {DEVICE_FILE}"))

    def test_sticky_folder(self):
        path_of(APP).parent.chmod(0o1777)
        self.expect_findings({})
        path_of(APP).parent.chmod(0o755)
        # Of a file the bit means nothing.
        path_of(APP).chmod(0o1646)
        self.expect_findings(self.others("everybody", path_of(APP), f"chmod go-w {path_of(APP)}"))

    def test_group(self):
        path_of(APP).chmod(0o664)
        groups = HOME / "group"
        for text, expected in (("root:x:0:\n", {}), ("root:x:0:root\n", {}),
                               ("root:x:0:bob\n",
                                self.others("the group root", path_of(APP), "chmod g-w ")),
                               ("staff:x:0:\n",
                                self.others("the group staff", path_of(APP), "chmod g-w "))):
            with self.subTest(text=text):
                groups.write_text(text, encoding="utf-8")
                subprocess.run(["mount", "--bind", groups, "/etc/group"], check=True)
                try:
                    self.expect_findings(expected)
                finally:
                    subprocess.run(["umount", "/etc/group"], check=True)

    def test_another_user(self):
        number = 12345
        self.assertRaises(KeyError, pwd.getpwuid, number)
        self.assertRaises(KeyError, grp.getgrgid, number)
        as_user = ["/usr/bin/unshare", "--user", f"--map-user={number}", f"--map-group={number}"]
        own = {"trust": good(f"only root and {number} may write the file"),
               "permissions": good(f"the user {number} may")}
        self.expect_findings(own, within=as_user)
        path_of(APP).chmod(0o664)
        self.expect_findings(own | self.others(f"the group {number}", path_of(APP), "chmod g-w "),
                             within=as_user)

    def test_another_owner(self):
        for path in (path_of(APP), path_of(APP).parent, pathlib.Path("/sandbox")):
            for number, who in ((54321, "the user 54321"), (1, "the user daemon")):
                with self.subTest(path=path, who=who):
                    self.expect_findings(
                        self.others(who, path, "run the check as the application's user; or "
                                               f"chown root:root {path}"),
                        environment={"SURROUNDINGS_OWNER": f"{number} {path}"})

    def test_behind_a_link(self):
        folder = HOME / "elsewhere"
        folder.mkdir(exist_ok=True)
        folder.chmod(0o777)
        path_of(APP).rename(folder / "switch.ini")
        path_of(APP).symlink_to(folder / "switch.ini")
        self.expect_findings(self.others("everybody", folder, f"chmod go-w {folder}"))
        folder.chmod(0o755)
        self.expect_findings({})


class Values(Case):
    def test_table(self):
        # A gateway that is of no use is not repeated in the remedy.
        static = SETTING + "network 1 --address "
        rest = " --gateway 10.1.0.254 --dns 10.1.0.53 --dns 10.1.0.54"
        table = [
            ({"SwitchEnable": "false"}, {"enabled": warning(
                "switching is off: the library does nothing", SETTING + "enabled on")}),
            # Servers.
            ({"FirstServerIp": "", "FirstServerPort": ""}, {"server-1": fault(
                "there is none", SETTING + "server 1 IP:PORT")}),
            ({"SecondServerIp": "server"}, {"server-2": fault(
                '"server:9001": the server has to be an IPv4 address',
                SETTING + "server 2 IP:9001")}),
            ({"FirstServerPort": "http"}, {"server-1": fault(
                '"10.1.0.1:http": the port has to be a number',
                SETTING + "server 1 10.1.0.1:PORT")}),
            ({"SecondServerIp": "10.1.0.1", "SecondServerPort": "9000"}, {"servers": warning(
                "both servers are the same; only the way to them differs",
                SETTING + "server 2 IP:PORT")}),
            ({"SecondServerIp": "10.1.0.1"}, {}),
            # A static network.
            ({"FirstLocalIp": "10.1.0.300"}, {"network-1": fault(
                '"10.1.0.300": the address has to be an IPv4', static + "IP/24" + rest)}),
            ({"FirstLocalIp": ""}, {"network-1": fault('"": the address has to be')}),
            ({"FirstLocalIp": "10.1.0.0"}, {"network-1": fault("address of the network itself")}),
            ({"FirstLocalIp": "169.254.7.2", "FirstLocalMask": "255.255.0.0"}, {
                "network-1": fault("does not count addresses of 169.254.0.0/16",
                                   static + "IP/16")}),
            ({"FirstLocalMask": "255.0.0.0"}, {"network-1": fault(
                '"10.1.0.2/8": no netmask gives /8: the library applies 255.0.0.0 as /6',
                static + "10.1.0.2/PREFIX" + rest)}),
            ({"FirstLocalMask": "255.255.0.255"}, {"network-1": fault(
                "; the library applies it as /16", static + "10.1.0.2/PREFIX" + rest)}),
            ({"FirstLocalMask": "255.255.255"}, {"network-1": fault(
                "; the library applies it as /0")}),
            ({"FirstLocalMask": "24"}, {"network-1": fault("; the library applies it as /0")}),
            ({"FirstLocalMask": ""}, {"network-1": fault("; the library applies it as /0")}),
            ({"FirstLocalMask": "255.255.x.0"}, {"network-1": fault(
                "; the library applies it as /16")}),
            ({"FirstLocalMask": "255.0.0.x"}, {"network-1": fault(
                "; the library applies it as /6")}),
            ({"FirstLocalMask": "254.256.0.0"}, {"network-1": fault(
                "; the library applies it as /6")}),
            ({"FirstLocalMask": "254.257.0.0"}, {"network-1": fault(
                "; the library applies it as /8")}),
            ({"FirstLocalGateWay": "10.9.0.254"}, {"network-1": fault(
                "the gateway is outside the network",
                static + "10.1.0.2/24 --gateway IP --dns 10.1.0.53 --dns 10.1.0.54")}),
            ({"FirstPreferredDNS": "dns"}, {"network-1": fault(
                '"dns": the name server has to be',
                static + "10.1.0.2/24 --gateway 10.1.0.254 --dns IP --dns 10.1.0.54")}),
            ({"FirstPreferredDNS": "", "FirstLocalGateWay": ""}, {}),
            # The way to the server.
            ({"FirstServerIp": "10.9.0.1"}, {}),
            ({"FirstServerIp": "10.9.0.1", "FirstLocalGateWay": ""}, {"network-1": fault(
                "the server 10.9.0.1 is outside the network of 10.1.0.2/24, and there is no "
                "gateway", static + "10.1.0.2/24 --dns 10.1.0.53 --dns 10.1.0.54 --gateway IP")}),
            ({"FirstServerIp": "10.1.0.2"}, {"network-1": fault(
                "10.1.0.2 is the server's address, and here the device's own",
                static + "IP/24" + rest)}),
            ({"FirstServerIp": "10.1.0.255"}, {"network-1": fault(
                "no server has the address 10.1.0.255: in this network it is the broadcast",
                SETTING + "server 1 IP:9000")}),
            ({"FirstServerIp": "10.1.0.0"}, {"network-1": fault(
                "no server has the address 10.1.0.0: in this network it is that of the network")}),
            ({"FirstServerIp": "10.9.0.255"}, {}),
            ({"FirstServerIp": "10.1.0.3", "FirstLocalMask": "255.255.255.254",
              "FirstLocalGateWay": ""}, {}),
            # Two networks.
            ({"FirstIsAutomatically": "false"}, {"networks": warning(
                "both networks are automatic (DHCP), and so the same",
                SETTING + "network 2 --address IP/PREFIX --gateway IP")}),
            ({"FirstIsAutomatically": "false", "SecondServerIp": "10.1.0.1",
              "SecondServerPort": "9000"}, {
                  "networks": warning("both networks are automatic"),
                  "servers": fault("both servers are the same, and so is the way to them",
                                   SETTING + "server 2 IP:PORT")}),
            (SECOND_STATIC, {"networks": SPINS}),
            (SECOND_STATIC | {"SecondLocalIp": "10.1.0.2", "SecondLocalGateWay": "10.1.0.254"}, {
                "networks": [fault("both networks have the address 10.1.0.2: a device that has it "
                                   "skips both", SETTING + "network 2 --address IP/24"), SPINS]}),
            (SECOND_STATIC | {"SecondServerIp": "10.1.0.1", "SecondLocalIp": "10.1.0.22",
                              "SecondLocalGateWay": "10.1.0.254"}, {
                "networks": [fault("the text 10.1.0.2 is a part of 10.1.0.22: a device with the "
                                   "address 10.1.0.2 skips both networks",
                                   SETTING + "network 2 --address IP/24"), SPINS]}),
            (SECOND_STATIC | {"FirstServerIp": "10.2.0.1", "FirstLocalIp": "110.2.0.2",
                              "FirstLocalGateWay": "110.2.0.254"}, {
                "networks": [fault("the text 10.2.0.2 is a part of 110.2.0.2",
                                   SETTING + "network 1 --address IP/24"), SPINS]}),
            (SECOND_STATIC | {"SecondLocalGateWay": ""}, {"networks": [
                warning("network 2 has no gateway: that of network 1 stays in the profile",
                        SETTING + "network 2 --address 10.2.0.2/24 --dns 10.2.0.53 --gateway IP"),
                SPINS]}),
            (SECOND_STATIC | {"FirstPreferredDNS": "", "FirstSpareDNS": ""}, {"networks": [
                warning("network 1 has no name server: that of network 2 stays in the profile",
                        static + "10.1.0.2/24 --gateway 10.1.0.254 --dns IP"), SPINS]}),
            (SECOND_STATIC | {"connectionName": ""}, {
                "networks": warning("both networks are static", SETTING + "network 2 --dhcp"),
                "name": warning("the connection has no name")}),
            # The connection's name.
            ({"connectionName": "a`b"}, {
                "name": fault('"a`b": the name contains `', SETTING + "connection NAME"),
                "connection": not_judged("the name cannot be looked up"), **WITHOUT_CONNECTION}),
            ({"connectionName": '"tab\\there"'}, {
                "name": fault('"tab\\u0009here": the name contains a control character'),
                "connection": not_judged("the name cannot be looked up"), **WITHOUT_CONNECTION}),
        ]
        for changes, expected in table:
            with self.subTest(changes=changes):
                write(APP, GOOD | changes)
                self.expect_findings(expected)

    def test_both_static_and_an_address(self):
        add_interface(self.addCleanup, "eth9", "10.9.0.9/24")
        write(APP, GOOD | SECOND_STATIC)
        nmcli({LIST: (LAN[:-2] + "eth9", 0), DEVICES: ("eth9:ethernet:connected", 0)})
        result = self.expect_findings({"networks": good(
            "both are static, and the device has an address now, 10.9.0.9: a search")})
        self.assertEqual(result.status, 0)
        # What is wrong besides is told alone.
        write(APP, GOOD | SECOND_STATIC | {"SecondLocalGateWay": ""})
        self.expect_findings({"networks": warning("network 2 has no gateway")})

    def test_both_static_and_a_part_of_both_addresses(self):
        """Also where the connection's own interface has it."""
        for address, second, skips in (("10.0.0.2", "10.0.0.22", True),
                                       ("10.0.0.2", "10.0.1.22", False),
                                       ("10.0.0.21", "10.0.0.22", False)):
            with self.subTest(address=address, second=second), contextlib.ExitStack() as stack:
                add_interface(stack.callback, "eth9", address + "/24")
                nmcli({LIST: (LAN[:-2] + "eth9", 0), DEVICES: ("eth9:ethernet:connected", 0)})
                write(APP, GOOD | SECOND_STATIC | {
                    "FirstLocalIp": "10.0.0.21", "FirstLocalGateWay": "10.0.0.254",
                    "SecondLocalIp": second,
                    "SecondLocalGateWay": second[:second.rindex(".")] + ".254"})
                result = self.run_check("check", "--json")
                self.compare_item("networks", [fault(
                    f"the device has the address {address} now, and this text is a part of "
                    f"10.0.0.21 and of {second}: a search skips both, and fails after 120 s",
                    SETTING + "network 2 --address IP/24") if skips else good("does not skip both")
                    ], [row for row in result.objects if row.get("item") == "networks"], result)

    def test_current_address(self):
        """As the library finds it: of the last interface of all that broadcast, and no
        link-local one."""
        write(APP, GOOD | SECOND_STATIC)
        for addresses, more, found in (
                ({"eth8": "10.9.0.8/24", "eth9": "10.9.0.9/24"}, [], "10.9.0.9"),
                ({"eth9": "10.9.0.9/24", "eth8": "10.9.0.8/24"}, [], "10.9.0.8"),
                ({"eth9": "169.254.0.9/16"}, [], None),
                ({"eth8": "10.9.0.8/24", "eth9": "169.254.0.9/16"}, [], "10.9.0.8"),
                ({"eth9": "10.9.0.9/24"}, ["multicast", "off"], None),
                ({"eth9": "10.9.0.9/24"}, ["down"], None)):
            with self.subTest(addresses=addresses, more=more), contextlib.ExitStack() as stack:
                for name, address in addresses.items():
                    add_interface(stack.callback, name, address)
                if more:
                    subprocess.run(["ip", "link", "set", list(addresses)[-1], *more], check=True)
                result = self.run_check("check", "--json")
                expected = good(f"address now, {found}: ") if found else SPINS
                self.compare_item("networks", [expected], [
                    row for row in result.objects if row.get("item") == "networks"], result)

    def test_remedy_names_the_application(self):
        write("two words", GOOD | {"SwitchEnable": "false"})
        self.expect_findings({"enabled": warning(
            "switching is off", "hoplanectl --app 'two words' set enabled on")},
            "--app", "two words")

    def test_remedies_work(self):
        """What a remedy names is a command that takes the fault away."""
        for changes in ({"SwitchEnable": "false"},
                        {"SwitchEnable": "off"},
                        {"FirstServerPort": "0"},
                        {"FirstLocalMask": "255.0.0.0"},
                        {"FirstPreferredDNS": "10.1.0.53, 10.1.0.54"},
                        {"connectionName": "-x"}):
            with self.subTest(changes=changes):
                write(APP, GOOD | changes)
                found = [finding for finding in self.run_check("check", "--json").objects[:-1]
                         if finding["level"] != "good" and finding["judged"]]
                self.assertEqual(len(found), 1)
                command = found[0]["remedy"].split("; ")[0]
                for word, value in (("IP:PORT", "10.1.0.1:9000"), ("PORT", "9000"),
                                    ("PREFIX", "24"), ("NAME", "lan"), (" --dhcp, or", ""),
                                    ("IP/24", "10.1.0.2/24"), ("--gateway IP",
                                                               "--gateway 10.1.0.254")):
                    command = command.replace(word, value)
                done = tool.tool(*command.split()[1:])
                self.assertEqual(done.status, 0, f"{command}: {done}")
                self.expect_findings({})


class Programs(Case):
    def test_no_nmcli(self):
        (BIN / "nmcli").unlink()
        silent = not_judged("without nmcli NetworkManager cannot be asked")
        self.expect_findings({"nmcli": fault(f"it is not in PATH, which is {BIN}",
                                             "apt install network-manager"),
                              "manager": silent} | {item: silent for item in WITHOUT_MANAGER})

    def test_no_program(self):
        (BIN / "nmcli").write_text("#!/no/such/program\n", encoding="utf-8")
        silent = not_judged("without nmcli NetworkManager cannot be asked")
        self.expect_findings({"nmcli": fault(f"{BIN}/nmcli: ", "apt install --reinstall"),
                              "manager": silent} | {item: silent for item in WITHOUT_MANAGER})

    def test_killed(self):
        nmcli({"--version": "kill -9 $$"})
        silent = not_judged("without nmcli NetworkManager cannot be asked")
        self.expect_findings({"nmcli": fault(f"{BIN}/nmcli: nmcli is ended by signal 9"),
                              "manager": silent} | {item: silent for item in WITHOUT_MANAGER})

    def test_old_nmcli(self):
        nmcli({OPTION: ("Error: Option '-g' is unknown, try 'nmcli -help'.", 2)})
        self.expect_findings({"nmcli": fault(
            "version 1.42.4, does not know the option -g that the library uses: Error: Option '-g'",
            "newer NetworkManager")})

    def test_no_awk(self):
        (BIN / "awk").unlink()
        missing = f"it is not in PATH, which is {BIN}"
        self.expect_findings({"awk": warning(
            missing + "; it is needed for a connection without a name only", "apt install mawk")})
        write(APP, GOOD | {"connectionName": ""})
        self.expect_findings({"awk": fault(missing, "apt install mawk"),
                              "name": warning("no name")})


class Manager(Case):
    def trouble(self, finding, reason):
        return {"manager": finding} | {item: not_judged(reason) for item in WITHOUT_MANAGER}

    def test_not_running(self):
        nmcli({RUNNING: (NOT_RUNNING, 8)})
        result = self.expect_findings(self.trouble(
            fault("NetworkManager is not running", "systemctl enable --now NetworkManager"),
            "NetworkManager is not running"))
        self.assertNotIn("dbus", result.out)

    def test_no_bus(self):
        nmcli({RUNNING: ("Warning: one\nError: Could not connect: No such file.", 1)})
        self.expect_findings(self.trouble(
            fault("NetworkManager cannot be asked: Error: Could not connect: No such file.",
                  "systemctl start dbus.socket; systemctl enable --now NetworkManager"),
            "NetworkManager cannot be asked"))

    def test_other_words(self):
        for answer in ("not running:", "", "starting:1.42.4"):
            nmcli({RUNNING: (answer, 0)})
            self.expect_findings(self.trouble(fault("NetworkManager is not running"),
                                              "NetworkManager is not running"))

    def test_networking_is_off(self):
        nmcli({RUNNING: ("running:1.42.4:asleep", 0)})
        self.expect_findings(self.trouble(
            fault("networking is switched off: NetworkManager leaves all interfaces alone",
                  "nmcli networking on"), "networking is switched off"))

    def test_ends_of_children_are_ignored(self):
        """By whoever has started the tool, and so by the tool as it begins."""
        ignoring = ["/usr/bin/python3", "-c", "import os, signal, sys; signal.signal("
                    "signal.SIGCHLD, signal.SIG_IGN); os.execv(sys.argv[1], sys.argv[1:])"]
        self.expect_findings({}, within=ignoring)
        # It prints what it would print, and fails.
        nmcli({LIST: f"echo '{LAN}'; exit 8"})
        self.expect_findings({"connection": fault("nmcli ends with status 8")} | WITHOUT_CONNECTION,
                             within=ignoring)

    def test_silent(self):
        for end in ("exec /bin/sleep 300", "exec >&- 2>&-; exec /bin/sleep 300"):
            with self.subTest(end=end):
                nmcli({RUNNING: end})
                self.expect_findings(self.trouble(
                    fault("nmcli has no answer after 5 s", "systemctl restart NetworkManager"),
                    "NetworkManager does not answer"))
                self.assertNotIn("sleep", [pathlib.Path(name).read_text(encoding="utf-8").strip()
                                           for name in processes()])

    def test_talkative(self):
        """More messages, and more results, than a pipe holds."""
        lines = "i=0; while [ $i -lt 20000 ]; do echo other:%s::; i=$((i + 1)); done"
        nmcli({LIST: f"{lines % 1} >&2; {lines % 2}; echo '{LAN}'; {lines % 3} >&2"})
        self.expect_findings({"connection": good('"lan", wired')})

    def test_signals_while_it_answers(self):
        """Nothing of an answer is lost."""
        self.expect_findings({}, environment={"SURROUNDINGS_INTERRUPTED": "pipe"})

    def test_other_version(self):
        nmcli({RUNNING: ("running:1.40.0", 0)})
        self.expect_findings({"manager": warning(
            "NetworkManager runs in version 1.40.0, nmcli is of version 1.42.4",
            "systemctl restart NetworkManager")})

    def test_it_asks_in_english(self):
        answer = f'[ "$LC_ALL$LANGUAGE" = C.UTF-8 ] && echo {LAN}'
        nmcli({LIST: answer})
        self.expect_findings({}, environment={"LC_ALL": "de_DE.UTF-8", "LANGUAGE": "de"})

    def test_it_breaks_down(self):
        """NetworkManager goes between two questions."""
        gone = fault(NOT_RUNNING, "systemctl restart NetworkManager")
        for question, item, more in ((LIST, "connection", WITHOUT_CONNECTION),
                                     (NAMED, "connection", WITHOUT_CONNECTION),
                                     (DEVICES, "interface", {}), (FILES, "profile", {}),
                                     (PERMISSIONS, "permissions", {})):
            with self.subTest(item=item):
                nmcli({question: (NOT_RUNNING, 8)})
                self.expect_findings({item: gone} | more)


def processes():
    return list(pathlib.Path("/proc").glob("[0-9]*/comm"))


class TheConnection(Case):
    def connection(self, finding, **answers):
        nmcli(answers["answers"])
        self.expect_findings({"connection": finding} | WITHOUT_CONNECTION)

    def test_none_of_the_name(self):
        self.connection(fault('NetworkManager has no connection "lan"',
                              "nmcli connection add type ethernet ifname INTERFACE con-name lan"),
                        answers={NAMED: (NO_SUCH, 10), LIST: ("", 0)})
        others = (f"Wired connection 1:{UUID}:802-3-ethernet:\nair:{OTHER_UUID}:802-11-wireless:\n"
                  f"a\\:b\\\\c:{OTHER_UUID}:802-3-ethernet:")
        self.connection(fault('NetworkManager has no connection "lan"',
                              SETTING + "connection 'Wired connection 1'; or "
                              + SETTING + "connection 'a:b\\c'"),
                        answers={NAMED: (NO_SUCH, 10), LIST: (others, 0)})

    def test_two_of_the_name(self):
        self.connection(fault('2 connections are named "lan": the library takes them for one',
                              f"keep one: nmcli connection delete uuid {OTHER_UUID}"),
                        answers={NAMED: (f"{UUID}\n\n{OTHER_UUID}", 0),
                                 LIST: (f"{LAN}\nlan:{OTHER_UUID}:802-3-ethernet:", 0)})

    def test_not_wired(self):
        self.connection(fault('"lan" is no wired connection: its type is 802-11-wireless',
                              SETTING + "connection eth"),
                        answers={LIST: (f"lan:{UUID}:802-11-wireless:wlan0\n"
                                        f"eth:{OTHER_UUID}:802-3-ethernet:", 0)})

    def test_name_in_other_letters(self):
        write(APP, GOOD | {"connectionName": "Büro 2"})
        question = "-g connection.uuid connection show Büro 2"
        nmcli({question: (UUID, 0), LIST: (LAN.replace("lan", "Büro 2"), 0)})
        self.expect_findings({"connection": good('"Büro 2", wired')})

    def test_without_a_name(self):
        write(APP, GOOD | {"connectionName": ""})
        nameless = {"name": warning("the connection has no name: the library takes the active one")}
        nmcli(missing=[NAMED])
        self.expect_findings(nameless)
        two = f"{LAN}\nlo:{OTHER_UUID}:loopback:lo\nspare:{OTHER_UUID}:802-3-ethernet:"
        for rows, finding in (
                (LAN[:-2], fault("none is named and none is active",
                                 SETTING + "connection lan")),
                (two, fault('none is named and 2 are active, "lan" on lo, "lo" on lo: the library '
                            "takes them for one, and nothing is applied",
                            SETTING + "connection lan; or " + SETTING + "connection spare")),
                (f"air:{UUID}:802-11-wireless:wlan0\n{LAN[:-2]}", fault(
                    '"air" is no wired connection')),
                ("", fault("none is named and none is active", "con-name NAME"))):
            with self.subTest(rows=rows):
                nmcli({LIST: (rows, 0)}, missing=[NAMED])
                self.expect_findings(nameless | {"connection": finding} | (
                    WITHOUT_CONNECTION))

    def test_interface(self):
        idle = (LAN[:-2], 0)
        table = [
            # Not active: the one that the profile names, or the only one.
            ({LIST: idle}, good("lo, connected")),
            ({LIST: idle, INTERFACE: ("", 0)}, good("lo, connected")),
            ({LIST: idle, INTERFACE: ("", 0),
              DEVICES: ("eth0:ethernet:disconnected\nlo:loopback:unmanaged\n"
                        "eth1:ethernet:unavailable", 0)},
             warning("the connection may use any of eth0, eth1",
                     "nmcli connection modify lan connection.interface-name eth0")),
            ({LIST: idle, INTERFACE: ("", 0), DEVICES: ("lo:loopback:unmanaged", 0)},
             fault("there is no wired interface", "driver")),
            ({LIST: idle, INTERFACE: ("eth9", 0)},
             fault("there is no interface eth9",
                   "nmcli connection modify lan connection.interface-name INTERFACE")),
            ({DEVICES: ("lo:ethernet:unmanaged", 0)},
             fault("NetworkManager leaves lo alone (unmanaged)",
                   "nmcli device set lo managed yes")),
        ]
        for answers, finding in table:
            with self.subTest(answers=answers):
                nmcli(answers)
                self.expect_findings({"interface": finding} | ({
                    "connection": good("not active")} if LIST in answers else {}))

    def test_carrier(self):
        subprocess.run(["ip", "link", "set", "lo", "down"], check=True)
        try:
            self.expect_findings({"interface": warning("lo is down", "ip link set lo up")})
        finally:
            subprocess.run(["ip", "link", "set", "lo", "up"], check=True)

    def test_no_carrier(self):
        add_interface(self.addCleanup, "eth9", "10.9.0.9/24")
        subprocess.run(["ip", "link", "set", "eth9-port", "down"], check=True)
        nmcli({LIST: (LAN[:-2] + "eth9", 0), DEVICES: ("eth9:ethernet:unavailable", 0)})
        self.expect_findings({"interface": warning("eth9 has no carrier", "plug the cable in")})

    def test_profile_of_another_device(self):
        """NetworkManager tells which profiles fit, and the profile what it is bound to."""
        other, does_not = fits(OTHER_UUID), "the profile does not fit lo, and NetworkManager does"
        modify = f"nmcli connection modify uuid {UUID}"
        table = [
            ({}, good("lo, connected")),
            ({fitting("lo"): other}, fault(
                does_not, f"nmcli connection up uuid {UUID}, which tells the reason")),
            ({fitting("lo"): fits()}, fault(does_not)),
            ({fitting("lo"): fits("x" + UUID)}, fault(does_not)),
            ({fitting("lo"): fits(state="30 (disconnected)")}, fault(does_not)),
            # What it says before it has noticed the carrier means nothing.
            ({fitting("lo"): fits(state="20 (unavailable)")}, good("lo, connected")),
            ({fitting("lo"): fits(carrier="off")}, good("lo, connected")),
            ({fitting("lo"): (NOT_RUNNING, 8)}, fault(NOT_RUNNING)),
            # Active all the same, since it was bound later.
            ({fitting("lo"): other, INTERFACE: ("eth5", 0)}, fault(
                does_not + " not activate it: connection.interface-name is eth5",
                modify + " connection.interface-name ''"))]
        for name, question in BINDINGS.items():
            table.append(({fitting("lo"): other, question: (r"02\:00\:00\:00\:00\:0A", 0)}, fault(
                f"{does_not} not activate it: {name} is 02:00:00:00:00:0A", f"{modify} {name} ''")))
        table.append(({fitting("lo"): other, BINDINGS["match.driver"]: ("a", 0),
                       BINDINGS["match.path"]: ("b", 0)}, fault(
                           "activate it: match.driver is a, match.path is b",
                           modify + " match.driver '' match.path ''")))
        for answers, finding in table:
            with self.subTest(answers=answers):
                nmcli(answers)
                self.expect_findings({"interface": finding})

    def test_login(self):
        """Where it is active the login has succeeded."""
        nmcli({LOGIN: ("md5", 0)})
        self.expect_findings({})
        nmcli({LOGIN: ("md5", 0), LIST: (LAN[:-2], 0)})
        self.expect_findings({"interface": warning(
            "the profile wants a login at the wired port (802.1X, md5): where that fails, so does "
            "each activation", f"nmcli connection modify uuid {UUID} remove 802-1x")})

    def test_bad_profile(self):
        modify = f"nmcli connection modify uuid {UUID} "
        for answers, finding in (
                ({BRIDGE: ("br0", 0)}, fault(
                    "is a port of br0", modify + "connection.master '' connection.slave-type ''")),
                ({ITSELF: ("no", 0)}, good(PROFILE)),
                ({NO_DEFAULT: ("yes", 0)}, warning(
                    "never uses a gateway", modify + "ipv4.never-default no"))):
            nmcli(answers)
            self.expect_findings({"profile": finding})
        write(APP, GOOD | SECOND_STATIC)
        nmcli({ITSELF: ("no", 0)})
        self.expect_findings({"networks": SPINS, "profile": warning(
            "the connection is not activated by itself: a device that starts without any address",
            modify + "connection.autoconnect yes")})

    def test_rest_of_the_profile(self):
        """What no network of the file replaces stays as the profile has it."""
        own = {GATEWAY: ("203.0.113.1", 0), DNS: ("203.0.113.53", 0)}
        no_gateway = {"FirstLocalGateWay": ""}
        no_dns = {"FirstPreferredDNS": "", "FirstSpareDNS": ""}
        modify = f"nmcli connection modify uuid {UUID} "
        until = " until network 2 was applied once"

        def stays(number, what, value, end=""):
            setting = "ipv4.gateway" if what == "gateway" else "ipv4.dns"
            return warning(f"network {number} has no {what}: the profile's own, {value}, stays"
                           f"{end}", f"{modify}{setting} ''")

        gateway, dns = "203.0.113.1", "203.0.113.53"
        second = {"SecondLocalGateWay": "", "SecondPreferredDNS": ""}
        table = [
            ({}, own, [good(PROFILE)]),
            (no_gateway | no_dns, {}, [good(PROFILE)]),
            (no_gateway, own, [stays(1, "gateway", gateway, until)]),
            (no_dns, own, [stays(1, "name server", dns, until)]),
            ({"FirstPreferredDNS": ""}, own, [good(PROFILE)]),
            ({"FirstIsAutomatically": "false"} | no_gateway | no_dns, own, [good(PROFILE)]),
            (SECOND_STATIC | no_gateway | no_dns | second, own, [
                stays(1, "gateway", gateway), stays(1, "name server", dns),
                stays(2, "gateway", gateway), stays(2, "name server", dns)]),
            # That the other network's stay is told of the networks.
            (SECOND_STATIC | no_gateway | no_dns, own, [good(PROFILE)]),
            (SECOND_STATIC | second, own, [good(PROFILE)])]
        for changes, answers, findings in table:
            with self.subTest(changes=changes):
                write(APP, GOOD | changes)
                nmcli(answers)
                result = self.run_check("check", "--json")
                self.compare_item("profile", findings, [
                    row for row in result.objects if row.get("item") == "profile"], result)
                for finding, row in zip(findings, [row for row in result.objects
                                                   if row.get("item") == "profile"]):
                    self.assertTrue(row["text"].endswith(finding[1]), row)

    def test_another_interface(self):
        """The library takes the address of the last interface; the connection's is the first."""
        add_interface(self.addCleanup, "wlan0", "10.2.0.2/24")
        skipped = "takes the address 10.2.0.2 of wlan0 for that of lo, and skips network "
        for changes, finding in (
                ({}, fault(skipped + "2 (10.2.0.2) in", SETTING + "network 2 --address IP/24")),
                ({"SecondLocalIp": "10.2.0.20"}, fault(skipped + "2 (10.2.0.20) in every pass")),
                ({"SecondLocalIp": "10.2.0.3"}, good("lo, connected"))):
            with self.subTest(changes=changes):
                write(APP, GOOD | SECOND_STATIC | changes)
                self.expect_interface(finding)
        # It makes no difference where a network is automatic, nor the connection's own address.
        write(APP, GOOD)
        self.expect_interface(good("lo, connected"))
        write(APP, GOOD | SECOND_STATIC)
        nmcli({LIST: (LAN[:-2] + "wlan0", 0), DEVICES: ("wlan0:ethernet:connected", 0)})
        self.expect_interface(good("wlan0, connected"))

    def expect_interface(self, expected):
        result = self.run_check("check", "--json")
        self.compare_item("interface", [expected], [
            row for row in result.objects if row.get("item") == "interface"], result)

    def test_profile(self):
        memory = f"nmcli connection modify uuid {UUID} connection.id lan"
        for name, finding in (
                ("/run/NetworkManager/system-connections/lan.nmconnection",
                 warning("is gone after a restart of the device: it is in /run/Net", memory)),
                ("", warning("it is in memory only", memory)),
                ("/usr/lib/NetworkManager/system-connections/lan.nmconnection", good("/usr/lib"))):
            with self.subTest(name=name):
                nmcli({FILES: (f"{OTHER_UUID}:/x\n{UUID}:{name}", 0)})
                self.expect_findings({"profile": finding})
        # A profile that the system brought along is changed elsewhere.
        brought = pathlib.Path("/usr/local")
        subprocess.run(["mount", "-t", "tmpfs", "-o", "ro", "tmpfs", brought], check=True)
        try:
            nmcli({FILES: (f"{UUID}:{brought}/lan.nmconnection", 0)})
            self.expect_findings({"profile": good(str(brought))})
        finally:
            subprocess.run(["umount", brought], check=True)
        read_only = HOME / "read-only"
        read_only.mkdir(exist_ok=True)
        subprocess.run(["mount", "-t", "tmpfs", "-o", "ro", "tmpfs", read_only], check=True)
        try:
            for name in ("lan.nmconnection", "not/there/lan.nmconnection"):
                nmcli({FILES: (f"{UUID}:{read_only}/{name}", 0)})
                self.expect_findings({"profile": fault(
                    f"{read_only} is on a read-only file system", "mount -o remount,rw")})
            fill(read_only)
            self.expect_findings({"profile": fault(
                f"{read_only} is on a full disk: NetworkManager refuses each change", "delete")})
        finally:
            subprocess.run(["umount", read_only], check=True)


class Permissions(Case):
    def test_table(self):
        control, system = PERMISSION + "network-control", PERMISSION + "settings.modify.system"
        own = PERMISSION + "settings.modify.own"
        everything = {control: "yes", system: "yes", own: "yes"}
        rule = f'subject.user == "root" && (action.id == "{system}" || action.id == "{control}")'

        def refused(permission, text):
            return fault(f"for the user root {permission} {text}", rule)

        table = [
            ({system: "no"}, "", refused(system, "is refused")),
            ({control: "auth"}, "", refused(control, "asks for somebody's password")),
            ({control: "unknown"}, "", refused(control, "is unknown (unknown)")),
            ({control: "no", system: "auth"}, "", [refused(system, "asks for"),
                                                   refused(control, "is refused")]),
            ({own: "no"}, "", good("may")),
            ({system: "no"}, "user:root", good("may")),
            ({system: "no"}, "user\\:root", good("may")),
            ({system: "no"}, "user:bob", refused(system, "is refused")),
            ({own: "no"}, "user:root", fault(f"for the user root {own} is refused", f'"{own}"')),
            ({control: None}, "", not_judged(f"NetworkManager tells nothing of {control}")),
        ]
        for changes, users, finding in table:
            with self.subTest(changes=changes, users=users):
                rows = [f"{permission}:{value}"
                        for permission, value in (everything | changes).items() if value]
                nmcli({PERMISSIONS: ("\n".join(rows), 0), USERS: (users, 0)})
                self.expect_findings({"permissions": finding})

    def test_without_a_file(self):
        tool.remove_all()
        nmcli({PERMISSIONS: (f"{PERMISSION}network-control:no", 0)})
        found = self.run_check("check", "--json").objects
        self.assertIn("is refused", [row for row in found if row.get("item") == "permissions"
                                     ][1]["text"])


class DeviceFile(Case):
    SAME = ["[NetworkConnections]", "conName=lan", "bDhcpEnabled=false", "MasterNet\\ip=10.1.0.2",
            "MasterNet\\mask=255.255.255.0", "MasterNet\\gateway=10.1.0.254",
            "MasterNet\\dns1=10.1.0.53", "MasterNet\\dns2=10.1.0.54",
            "SlaveNet\\bDhcpEnabled=true"]
    OVERWRITTEN = f"the next start of the application takes over {DEVICE_FILE}: "
    REMEDY = f"correct {DEVICE_FILE}"

    def test_table(self):
        same, empties = self.SAME, "The next start of the application empties the connection's name"
        network = "network 1 becomes static address 10.1.0.2/"
        now = ("static address 10.1.0.2/24, gateway 10.1.0.254, name servers 10.1.0.53, 10.1.0.54")
        table = [
            (same, good("has the values that the file has already")),
            # Values that are not used make no difference.
            ([*same, "SlaveNet\\ip=10.2.0.2"], good("has already")),
            ([*same[:1], "conName=wan", *same[2:]], warning(
                self.OVERWRITTEN + 'the connection becomes "wan" (now "lan")',
                self.REMEDY + ", which comes first")),
            ([*same[:1], *same[2:]], [
                warning(self.OVERWRITTEN + 'the connection becomes "" (now "lan")'),
                warning("it has no conName", self.REMEDY)]),
            ([*same[:1], "conName=l;an", *same[2:]], warning('the connection becomes "l"')),
            ([*same[:1], 'conName="l;an"', *same[2:]], [
                warning('the connection becomes "l;an"'),
                fault('its conName: "l;an": the name contains ;', self.REMEDY)]),
            ([*same, "MasterNet\\mask=255.0.0.0"], [
                warning(self.OVERWRITTEN + network + "8 (applied as /6), gateway 10.1.0.254, name "
                        f"servers 10.1.0.53, 10.1.0.54 (now {now})"),
                fault('its group MasterNet: "10.1.0.2/8": no netmask gives /8', self.REMEDY)]),
            ([*same[:-1], "SlaveNet\\bDhcpEnabled=false"], [
                warning("network 2 becomes static address (none) netmask (none), gateway (none), "
                        "name servers (none) (now automatic addressing (DHCP))"),
                fault('its group SlaveNet: "": the address has to be')]),
            (["[NetworkConnections]", "conName=lan"], warning(
                self.OVERWRITTEN + "network 1 becomes automatic addressing (DHCP) (now " + now)),
            # A group below the group hides what stands before it.
            ([*same[:1], "conName=wan", "[NetworkConnections/MasterNet]", "ip=10.1.0.3"], [
                warning((self.OVERWRITTEN + 'the connection becomes "" (now "lan")', "network 1")),
                warning("it has no conName: the next start of the application empties")]),
            (["[General]", "conName=lan"], fault(
                f"{DEVICE_FILE}: it has no group NetworkConnections. {empties}",
                f"mv {DEVICE_FILE} {DEVICE_FILE}.old")),
            ([], fault("it has no group NetworkConnections")),
        ]
        for lines, finding in table:
            with self.subTest(lines=lines):
                DEVICE_FILE.write_text("\n".join(lines) + "\n", encoding="utf-8")
                self.expect_findings({"device-file": finding})

    def test_it_cannot_be_stored(self):
        """The library uses what it has imported all the same, until it ends."""
        DEVICE_FILE.write_text("\n".join([*self.SAME[:1], "conName=wan", *self.SAME[2:]]),
                               encoding="utf-8")
        lan = 'the connection becomes "wan" (now "lan")'
        self.expect_findings({"device-file": warning(self.OVERWRITTEN + lan)})
        path_of(APP).chmod(0o444)
        powerless = ["/usr/bin/setpriv", "--bounding-set=-all", "--inh-caps=-all"]
        self.expect_findings({
            "file": fault(f"{path_of(APP)} cannot be written by the user root: Permission denied",
                          f"chmod u+w {path_of(APP)}"),
            "device-file": warning(f"{self.OVERWRITTEN}{lan}; until it ends only, as it cannot "
                                   "store them")}, within=powerless)

    def test_set_tells_of_it(self):
        """What the next start overwrites is told at once, and nothing else is."""
        DEVICE_FILE.write_text("\n".join(self.SAME), encoding="utf-8")
        network = ["set", "network", "1", "--address"]
        kept = ["10.1.0.2/24", "--gateway", "10.1.0.254", "--dns", "10.1.0.53", "--dns",
                "10.1.0.54"]
        for arguments, message in (
                ([*network, "10.1.0.3/24"], self.OVERWRITTEN + "network 1 becomes static address "
                 "10.1.0.2/24, gateway 10.1.0.254, name servers 10.1.0.53, 10.1.0.54 (now static "
                 "address 10.1.0.3/24, gateway (none), name servers (none))"),
                ([*network, *kept], None),
                (["set", "connection", "wan"],
                 self.OVERWRITTEN + 'the connection becomes "lan" (now "wan")'),
                (["set", "enabled", "off"], None),
                (["set", "connection", "a;b"], '"a;b": ')):
            with self.subTest(arguments=arguments):
                done = tool.tool(*arguments)
                self.assertEqual(done.err.startswith(f"hoplanectl: {message}"), message is not None,
                                 done)
                self.assertEqual(not done.err, message is None, done)
        DEVICE_FILE.write_text("", encoding="utf-8")
        done = self.expect(0, "set", "connection", "wan2")
        self.assertIn(f"{DEVICE_FILE}: it has no group NetworkConnections. The next start",
                      done.err)

    def test_not_a_file(self):
        DEVICE_FILE.mkdir()
        self.expect_findings({"device-file": fault(f"{DEVICE_FILE}: it is no regular file")})
        DEVICE_FILE.rmdir()
        DEVICE_FILE.symlink_to("nowhere")
        self.expect_findings({"device-file": good("there is no")})

    def test_unreadable(self):
        DEVICE_FILE.write_text("\n".join(self.SAME), encoding="utf-8")
        DEVICE_FILE.chmod(0)
        self.expect_findings({"device-file": fault(f"{DEVICE_FILE}: Permission denied. The next")},
                             within=["/usr/bin/setpriv", "--bounding-set=-all", "--inh-caps=-all"])

    def test_without_a_configuration(self):
        tool.remove_all()
        DEVICE_FILE.write_text("\n".join(self.SAME), encoding="utf-8")
        nothing = fault("no application has a configuration")
        self.expect_findings(WITHOUT_FILE | {"file": nothing, "device-file": not_judged(
            f"there is no configuration that {DEVICE_FILE} would change")})
        self.expect_findings(WITHOUT_FILE | {
            "file": fault("there is no "),
            "device-file": warning('the connection becomes "lan" (now "")')}, "--app", "new")


class Surroundings(Case):
    def test_link_events(self):
        arm = {"SURROUNDINGS_ARCHITECTURE": "arm64"}
        refused = "cannot be received: "
        table = [
            ({"SURROUNDINGS_ARCHITECTURE": "x86_64"}, good("of all interfaces (x86_64)")),
            ({"SURROUNDINGS_REFUSED": "socket 0"}, fault(
                f"link notifications {refused}Address family not supported", "AF_NETLINK")),
            ({"SURROUNDINGS_REFUSED": "bind 0"}, fault(
                f"link notifications {refused}Operation not permitted")),
            ({"SURROUNDINGS_REFUSED": "socket 15"}, good("of all interfaces")),
            (arm, warning("there is no /sys/devices/virtual/switch/lan-switch: no event of the LAN "
                          "switch will come (arm64)", "driver")),
            (arm | {"SURROUNDINGS_REFUSED": "socket 15"}, fault(
                f"LAN switch's uevents {refused}Address family not supported")),
            (arm | {"SURROUNDINGS_REFUSED": "bind 15"}, fault(
                f"LAN switch's uevents {refused}Operation not permitted")),
        ]
        for environment, finding in table:
            with self.subTest(environment=environment):
                self.expect_findings({"link-events": finding}, environment=environment)

    def test_lan_switch(self):
        """The devices of this kind, with a LAN switch among them."""
        devices, mine = pathlib.Path("/sys/devices/virtual"), HOME / "devices"
        mine.mkdir(exist_ok=True)
        subprocess.run(["mount", "-t", "tmpfs", "tmpfs", mine], check=True)
        try:
            for device in devices.iterdir():
                (mine / device.name).mkdir()
                subprocess.run(["mount", "--rbind", device, mine / device.name], check=True)
            (mine / "switch/lan-switch").mkdir(parents=True)
            subprocess.run(["mount", "--rbind", mine, devices], check=True)
            self.expect_findings({"link-events": good("uevents of the LAN switch (arm64)")},
                                 environment={"SURROUNDINGS_ARCHITECTURE": "arm64"})
        finally:
            subprocess.run(["umount", "--recursive", "--lazy", devices], check=False)
            subprocess.run(["umount", "--recursive", "--lazy", mine], check=False)

    def test_clock(self):
        day = 24 * 60 * 60
        for clock, finding in (
                ("15999999 0", good("is synchronised")),
                ("16000000 0", warning("the clock is not synchronised, it says 20",
                                       "timedatectl set-ntp true")),
                (f"0 {20 * 365 * day}", warning(
                    "the clock is wrong, it says 1989-12-27 00:00 UTC; a jump during a search "
                    "changes its 120 s", "timedatectl set-ntp true")),
                (f"0 {50 * 365 * day + 13 * day - 1}", good("2020-01-01 23:59")),
                (f"0 {50 * 365 * day + 12 * day - 1}", warning("2019-12-31 23:59")),
                ("refused", not_judged("Operation not permitted"))):
            with self.subTest(clock=clock):
                self.expect_findings({"clock": finding},
                                     environment={"SURROUNDINGS_CLOCK": clock})

    def test_the_real_clock(self):
        """Whatever the kernel says of it, which timedatectl reads the same way."""
        result = self.run_check("check", "--json", clock=False)
        found = [row for row in result.objects if row.get("item") == "clock"]
        self.assertRegex(found[0]["text"], r"^the clock is (not )?synchronised, it says 20\d\d-")
        self.assertEqual(result.status, 0 if found[0]["level"] == "good" else 1)

    def test_locale(self):
        latin = {"SURROUNDINGS_CODEC": "ISO-8859-1"}
        self.expect_findings({"locale": good("ISO-8859-1, which is enough")}, environment=latin)
        self.expect_findings({"locale": good("UTF-8")}, environment={"SURROUNDINGS_CODEC": "UTF-8"})
        write(APP, GOOD | {"connectionName": "Büro"})
        nmcli({"-g connection.uuid connection show Büro": (UUID, 0)})
        self.expect_findings({"locale": warning(
            'in ISO-8859-1 the log shows the connection\'s name "Büro" in another spelling',
            "LC_ALL=C.UTF-8")}, environment=latin)
        self.expect_findings({})
        tool.remove_all()
        nmcli()
        path = write("Büro", GOOD)
        self.expect_findings({"locale": fault(f"in ISO-8859-1 the path {path} has another "
                                              "spelling", "LC_ALL=C.UTF-8")}, environment=latin)
        self.expect_findings({})


class Probes(Case):
    def probe(self, expected, values):
        write(APP, GOOD | values)
        self.compare(expected, self.run_check("check", "--probe", "--json"), ITEMS + PROBES)

    @staticmethod
    def elapsed(result):
        return [int(re.search(r"after (\d+) ms", row["text"])[1]) for row in result.objects
                if row.get("item") in PROBES]

    def test_accepting_refusing_silent(self):
        subprocess.run(["ip", "address", "add", "10.1.0.1/24", "dev", "lo"], check=True)
        subprocess.run(["ip", "address", "add", "10.2.0.1/24", "dev", "lo"], check=True)
        later = SETTING.replace("set ", "search")
        with socket.create_server(("10.1.0.1", 0)) as server, \
                socket.create_server(("10.2.0.1", 0), backlog=0) as full:
            values = {"FirstServerPort": server.getsockname()[1],
                      "SecondServerPort": full.getsockname()[1]}
            # A queue without room drops what asks for a connection.
            with socket.create_connection(full.getsockname()):
                result = self.run_check("check", "--probe", "--json")
                self.assertEqual(result.objects[-2]["item"], "probe-2")
                write(APP, GOOD | values)
                result = self.run_check("check", "--probe", "--json")
                self.compare({"probe-1": good(f"10.1.0.1:{values['FirstServerPort']} accepts, "),
                              "probe-2": warning(
                                  f"10.2.0.1:{values['SecondServerPort']}: no answer, after ",
                                  later)},
                             result, ITEMS + PROBES)
                self.assertLess(self.elapsed(result)[0], 500)
                self.assertGreaterEqual(self.elapsed(result)[1], 500)
        self.probe({"probe-1": warning("10.1.0.1:9000: Connection refused, after ", later),
                    "probe-2": warning(("10.2.0.1:9001: Connection refused, after ",
                                        " ms; with the addressing as it is now"), later)}, {})

    def test_unreachable(self):
        subprocess.run(["ip", "address", "flush", "dev", "lo", "scope", "global"], check=True)
        self.probe({"probe-1": warning("10.1.0.1:9000: Network is unreachable, after "),
                    "probe-2": warning("10.2.0.1:9001: Network is unreachable, after ")}, {})

    def test_remedy_names_the_application(self):
        subprocess.run(["ip", "address", "flush", "dev", "lo", "scope", "global"], check=True)
        write("two words", GOOD)
        found = self.run_check("--app", "two words", "check", "--probe", "--json").objects
        self.assertEqual(["hoplanectl --app 'two words' search"] * 2,
                         [row["remedy"] for row in found if row.get("item") in PROBES])

    def test_no_valid_server(self):
        subprocess.run(["ip", "address", "flush", "dev", "lo", "scope", "global"], check=True)
        self.probe({"server-1": fault("the port has to be"),
                    "probe-1": not_judged("the server is no valid one"),
                    "probe-2": warning("Network is unreachable")}, {"FirstServerPort": "0"})

    def test_without_a_file(self):
        tool.remove_all()
        self.compare(WITHOUT_FILE | {"file": fault("no application"), "probe-1": NO_FILE,
                                     "probe-2": NO_FILE},
                     self.run_check("check", "--probe", "--json"), ITEMS + PROBES)


if __name__ == "__main__":
    tool.main()

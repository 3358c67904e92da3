# SPDX-License-Identifier: MIT
"""switch.ini(5): its keys, what it says of the format, its examples."""

import json
import os
import pathlib
import re
import shutil
import stat
import subprocess
import unittest

from page import ROOT, Page

HOME = pathlib.Path("/sandbox/home")
DEVICE_SETTINGS = pathlib.Path("/userdata/netSettings.ini")
# The application of the laboratory has this name.
FILE = HOME / "Documents" / "laboratory" / "switch.ini"
PROGRAMS = {}
SECONDS = 30


def source_keys():
    """The keys' names, from the one place that knows them."""
    source = (ROOT / "worker/switchsettings.cpp").read_text(encoding="utf-8")
    return re.findall(r'QLatin1String(?: \w+)?\("(\w+)"\)', source)


def write(text, path=FILE):
    path.parent.mkdir(parents=True, exist_ok=True)
    path.write_bytes(text if isinstance(text, bytes) else text.encode())


def tool(*arguments, environment=None):
    return subprocess.run([PROGRAMS["hoplanectl"], *arguments], stdout=subprocess.PIPE,
                          stderr=subprocess.PIPE, encoding="utf-8", timeout=SECONDS, check=False,
                          env=environment or os.environ)


def shown(app="laboratory"):
    """What hoplanectl, which reads as the library does, takes the file for."""
    done = tool("--app", app, "show", "--json")
    # Of a file that is none throughout it tells that, too.
    if done.returncode != 0 and "no INI file throughout; shown is what" not in done.stderr:
        raise AssertionError(done.stderr)
    return json.loads(done.stdout)


def application(*commands, process=()):
    """Lets an application carry out commands, each a list of words; its log."""
    lines = "".join("\t".join(words) + "\n" for words in commands)
    return subprocess.run([*process, PROGRAMS["application"]], input=lines, encoding="utf-8",
                          stdout=subprocess.PIPE, stderr=subprocess.DEVNULL, timeout=SECONDS,
                          check=True).stdout


def keys_of(path=FILE):
    """The lines of the file that have a key."""
    return [line for line in path.read_text(encoding="utf-8").splitlines() if "=" in line]


class SwitchIni(unittest.TestCase):
    """Each test begins without configuration and device settings."""
    maxDiff = None
    page = Page("switch.ini.5")

    def setUp(self):
        shutil.rmtree(HOME / "Documents", ignore_errors=True)
        DEVICE_SETTINGS.unlink(missing_ok=True)

    # The keys.

    def items(self):
        """The page's items of keys: (names, text)."""
        parts = re.split(r"^\.It Cm (.*)\n", self.page.sections["KEYS"], flags=re.MULTILINE)
        return [(names.split(" , "), text) for names, text in zip(parts[1::2], parts[2::2])]

    def test_has_each_key_once_and_none_other(self):
        told = [name for names, _ in self.items() for name in names]
        self.assertEqual(len(told), 18)
        self.assertEqual(sorted(told), sorted(source_keys()))
        write("[General]\n")
        raw = [json.loads(line)["key"] for line in
               tool("--app", "laboratory", "show", "--raw", "--json").stdout.splitlines()]
        self.assertEqual(sorted(told), sorted(raw))

    def test_misspells_no_key(self):
        words = set(re.findall(r"\b(?:(?:First|Second)[A-Z]\w+|[Cc]onnectionName|SwitchEnable)\b",
                               self.page.source))
        self.assertEqual(words, set(source_keys()))

    def test_each_key_has_type_default_example_and_what_is_not_valid(self):
        fields = (ROOT / "worker/networkswitchworker_p.h").read_text(encoding="utf-8")
        for names, text in self.items():
            is_flag = re.search(rf"\bbool b{names[0]}\b", fields) is not None
            kind, default = ("Flag", "false") if is_flag else ("Text", "empty")
            self.assertTrue(text.startswith(f"{kind}.\nDefault: {default}.\n.Pp\n"), names)
            self.assertRegex(text, rf"\nExample:\n\.Li {names[0]}=\S")
            self.assertRegex(text, r"\nNot valid: \S")

    def test_defaults(self):
        write("[General]\n")
        self.assertEqual(self.read_as(shown()), ["enabled      false", "connection",
                                                 "server 1", "network 1    dhcp",
                                                 "server 2", "network 2    dhcp"])

    def test_examples_of_keys_are_read(self):
        lines = re.findall(r"^Example:\n\.Li (\S+=.*)$", self.page.sections["KEYS"], re.MULTILINE)
        self.assertEqual(len(lines), len(self.items()))
        write("[General]\n" + "\n".join(lines) + "\n")
        first = "\n".join(self.read_as(shown())).partition("\nserver 2")[0]
        expected = "\n".join(self.page.literals("EXAMPLES")[1]).partition("\nserver 2")[0]
        self.assertEqual(first, expected)

    def test_writers_write_what_the_page_says(self):
        told = dict(re.findall(r"^\.It Fn (\w+)\n((?:[^.].*\n)+)", self.page.sections["KEYS"],
                               re.MULTILINE))
        commands = {"saveSwitchInfoToFile": ["servers", "true", "1", "2", "3", "4"],
                    "saveConnectionName": ["connection", "lan"],
                    "saveFirstLocalInoToFile": ["first", "true", "1", "2", "3", "4", "5"],
                    "saveSecondLocalInfoToFile": ["second", "true", "1", "2", "3", "4", "5"]}
        self.assertEqual(set(told), set(commands))
        for name, command in commands.items():
            self.setUp()
            application(command)
            written = {line.partition("=")[0] for line in keys_of()}
            self.assertEqual(written, set(re.split(r",\s+", told[name].strip())), name)

    # The format.

    def table(self, block):
        """Lines of the file and what they are read as."""
        rows = [re.fullmatch(r"(.*?) *\[(.*)\]", line) for line in
                self.page.literals("FORMAT")[block]]
        self.assertNotIn(None, rows)
        self.assertGreater(len(rows), 10)
        return [(row[1], row[2]) for row in rows]

    def test_texts(self):
        for line, value in self.table(0):
            with self.subTest(line=line):
                # With a key after it, as nothing must reach over.
                write(f"[General]\n{line}\nFirstServerIp=192.0.2.1\n")
                read = shown()
                self.assertEqual(read["connection"], value)
                self.assertEqual(read["networks"][0]["server"], "192.0.2.1")

    def test_flags(self):
        for line, value in self.table(1):
            with self.subTest(line=line):
                write(f"[General]\n{line}\n")
                self.assertEqual(shown()["enabled"], {"true": True, "false": False}[value])

    def read_name(self, text):
        write(text)
        return shown()["connection"]

    def test_groups_and_lines(self):
        name = self.read_name
        self.assertEqual(name("connectionName=lan\n"), "lan")
        self.assertEqual(name("connectionName=lan\n[Other]\nx=1\n"), "lan")
        self.assertEqual(name("[Other]\nconnectionName=lan\n"), "")
        self.assertEqual(name("[General]\nConnectionName=lan\n"), "")
        self.assertEqual(name("[General]\nconnectionName=lan\nconnectionName=wan\n"), "wan")
        self.assertEqual(name("[General]\r\nconnectionName=lan\r\n"), "lan")
        self.assertEqual(name("; comment\n[General]\n;connectionName=no\nconnectionName=lan\n"),
                         "lan")
        self.assertEqual(name("# comment\n[General]\n#connectionName=no\nconnectionName=lan\n"),
                         "lan")
        self.assertEqual(name('[General]\nconnectionName="lan\nx=1\n'), "lan\nx=1\n")

    def test_byte_order_mark(self):
        mark = b"\xef\xbb\xbf"
        self.assertEqual(self.read_name(mark + b"[General]\nconnectionName=lan\n"), "lan")
        write(mark + b"connectionName=lan\nFirstServerIp=192.0.2.1\n")
        self.assertEqual(shown()["connection"], "")
        self.assertEqual(shown()["networks"][0]["server"], "192.0.2.1")

    def test_bytes_that_are_not_utf_8(self):
        self.assertEqual(self.read_name(b"[General]\nconnectionName=B\xfcro\n"), "B\ufffdro")

    def test_what_the_library_writes(self):
        write("; comment\n# comment\n[Other]\nx=1\n[General]\nzeta=9\nSwitchEnable=yes\n")
        name = 'B\u00fcro, "x"; y\\z@'
        application(["connection", name])
        text = FILE.read_text(encoding="utf-8")
        self.assertEqual(text, '[General]\nSwitchEnable=yes\n'
                               'connectionName="B\u00fcro, \\"x\\"; y\\\\z@"\nzeta=9\n\n'
                               '[Other]\nx=1\n')
        self.assertEqual(shown()["connection"], name)

    def test_characters_that_the_library_cannot_write(self):
        application(["connection", "a\U0001f600b\uffee"])
        self.assertEqual(shown()["connection"], "ab\uffee")

    # The file.

    def test_place(self):
        def path(home, **variables):
            environment = {key: value for key, value in os.environ.items() if key != "HOME"}
            if home:
                environment["HOME"] = str(home)
            error = tool("--app", "nobody", "show", environment=environment | variables).stderr
            return re.search(r"there is no /?(/.*/switch\.ini)", error)[1]

        self.assertEqual(path(HOME), f"{HOME}/Documents/nobody/switch.ini")
        self.assertEqual(path(None), "/Documents/nobody/switch.ini")
        folders = HOME / ".config"
        folders.mkdir(exist_ok=True)
        self.addCleanup(shutil.rmtree, folders)
        (folders / "user-dirs.dirs").write_text('XDG_DOCUMENTS_DIR="$HOME/Files"\n',
                                                encoding="ascii")
        self.assertEqual(path(HOME), f"{HOME}/Files/nobody/switch.ini")

    def test_permissions_of_a_new_file(self):
        os.umask(0o027)
        self.addCleanup(os.umask, 0o022)
        application(["connection", "lan"])
        self.assertEqual(stat.S_IMODE(FILE.stat().st_mode), 0o640)
        self.assertEqual(stat.S_IMODE(FILE.parent.stat().st_mode), 0o750)

    def test_replacement(self):
        write("[General]\n")
        FILE.chmod(0o600)
        before = FILE.stat()
        application(["connection", "lan"])
        self.assertEqual(FILE.stat().st_mode, before.st_mode)
        self.assertNotEqual(FILE.stat().st_ino, before.st_ino)
        real = FILE.with_name("real.ini")
        FILE.rename(real)
        FILE.symlink_to("real.ini")
        application(["connection", "wan"])
        self.assertTrue(FILE.is_symlink())
        self.assertEqual(keys_of(real), ["connectionName=wan"])

    def test_what_replacing_needs(self):
        # The root user of the sandbox without the right to pass over permissions.
        lesser = ["setpriv", "--bounding-set=-all", "--inh-caps=-all"]
        write("[General]\nconnectionName=old\n")
        application(["connection", "new"], process=lesser)
        self.assertEqual(keys_of(), ["connectionName=new"])
        for path, mode in ((FILE, 0o444), (FILE.parent, 0o555)):
            with self.subTest(path=path):
                kept = path.stat().st_mode
                path.chmod(mode)
                application(["connection", "newer"], process=lesser)
                path.chmod(kept)
                self.assertEqual(keys_of(), ["connectionName=new"])

    # The device's own settings.

    def test_example_of_the_device(self):
        device, values = self.page.literals("THE DEVICE'S OWN SETTINGS")
        write("\n".join(device) + "\n", DEVICE_SETTINGS)
        application()
        self.assertEqual(keys_of(), values)

    def test_each_key_of_the_device(self):
        section = self.page.sections["THE DEVICE'S OWN SETTINGS"]
        rows = re.findall(r"^\.It Li (\S+) Ta Cm (\w+)( , No negated)?$", section, re.MULTILINE)
        self.assertEqual(len(rows), 13)
        expected = {}
        lines = ["[NetworkConnections]"]
        for number, (key, own, negated) in enumerate(rows):
            value = "false" if negated else f"value{number}"
            lines.append(f"{key}={value}".replace(r"\e", "\\"))
            expected[own] = "true" if negated else value
        write("\n".join(lines) + "\n", DEVICE_SETTINGS)
        write("[General]\nSwitchEnable=true\nFirstServerIp=192.0.2.1\n")
        application()
        expected |= {"SwitchEnable": "true", "FirstServerIp": "192.0.2.1"}
        self.assertEqual(dict(line.split("=") for line in keys_of()), expected)

    def flags_of_the_device(self, text):
        write("[NetworkConnections]\n" + text, DEVICE_SETTINGS)
        application()
        values = dict(line.split("=", 1) for line in keys_of())
        return values["FirstIsAutomatically"], values["SecondIsAutomatically"]

    def test_missing_flags_of_the_device(self):
        self.assertEqual(self.flags_of_the_device(""), ("false", "false"))
        self.assertEqual(self.flags_of_the_device("bDhcpEnabled=false\n"), ("true", "true"))
        self.assertEqual(self.flags_of_the_device("bDhcpEnabled=false\nSlaveNet\\bDhcpEnabled=1\n"),
                         ("true", "false"))

    def test_section_of_a_network_hides_the_connection(self):
        write("[NetworkConnections]\nconName=lan\nbDhcpEnabled=false\n"
              "[NetworkConnections/MasterNet]\nip=10.0.0.2\n", DEVICE_SETTINGS)
        application()
        values = dict(line.split("=", 1) for line in keys_of())
        self.assertEqual(values["FirstLocalIp"], "10.0.0.2")
        self.assertEqual(values["connectionName"], "")
        self.assertEqual(values["SecondIsAutomatically"], "false")

    def test_no_settings_of_the_device(self):
        write("[General]\nconnectionName=lan\n")
        self.assertIn("NetSetting.ini not exist.", application())
        self.assertEqual(keys_of(), ["connectionName=lan"])
        self.assertIn("NetSetting.ini not exist.", self.page.source)

    # The examples.

    @staticmethod
    def read_as(read):
        """What hoplanectl shows, in the page's words."""
        rows = [("enabled", str(read["enabled"]).lower()), ("connection", read["connection"])]
        for number, network in enumerate(read["networks"], 1):
            port = f" port {network['port']}" if network["port"] else ""
            rows += [(f"server {number}", network["server"] + port),
                     (f"network {number}", network["addressing"])]
            if network["addressing"] == "static":
                rows += [(name, network[name]) for name in ("address", "netmask", "gateway")]
                rows += [("name server", server) for server in network["dns"] if server]
        return [f"{name:<13}{value}".rstrip() for name, value in rows]

    def test_examples(self):
        blocks = self.page.literals("EXAMPLES")
        self.assertEqual(len(blocks), 6)
        kinds = []
        folder = HOME / "bin"
        folder.mkdir(exist_ok=True)
        (folder / "hoplanectl").unlink(missing_ok=True)
        (folder / "hoplanectl").symlink_to(PROGRAMS["hoplanectl"])
        for file, told, commands in (blocks[:3], blocks[3:]):
            self.setUp()
            write("\n".join(file) + "\n")
            read = shown()
            self.assertEqual(self.read_as(read), told)
            kinds.append([network["addressing"] for network in read["networks"]])
            self.setUp()
            subprocess.run(["bash", "-e", "-c", "\n".join(commands)], check=True,
                           stdout=subprocess.DEVNULL,
                           env=os.environ | {"PATH": f"{folder}:{os.environ['PATH']}"})
            self.assertEqual(self.read_as(shown("failover")), told)
        self.assertEqual(kinds, [["static", "static"], ["dhcp", "dhcp"]])

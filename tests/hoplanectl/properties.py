# SPDX-License-Identifier: MIT
"""Whatever `set` accepts, `show` gives back, the library loads, and the shell takes for the words
that are meant; whatever it refuses, changes nothing. The values are random ones; HOPLANE_SEED=N
tries others than the usual ones."""

import ipaddress
import json
import os
import pathlib
import random
import re
import subprocess
import unicodedata

import tool
from tool import KEYS

SEED = os.environ.get("HOPLANE_SEED", "20261121")
# The application of the laboratory is called so, which imports as the library does.
APP = "laboratory"
BIN, CALLS, EMPTY = (pathlib.Path("/sandbox/tmp", name) for name in ("bin", "calls", "empty"))
SHELLS = [["/bin/sh", "-c"], ["/bin/bash", "--posix", "-c"]]
UUID = "3c9f1a52-77c0-4a47-9d3c-6b8f0f5f2d11"
HALVES = ["First", "Second"]
LOCALES = [{}, {"LC_ALL": "C"}]

# What may stand in a name.
SCRIPTS = [
    "abcXYZ", "0123456789", "äßÉøŁőğı", "αβγΩΣ", "жшщЯЇ", "աբգ", "אבגד", "ابتث", "नमस्ते", "ไทย",
    "აბგ", "ሀለሐ", "漢字有线网", "かなカナ", "한국어", "ᚠᚢ", "Ⅷ½²", "ﬁ①ａ", "\u212b\u2126",
    "\ue000\uf8ff"]
MARKS = ["e\u0301", "\u00e9", "a\u0323\u0307", "o\u0308\u0304", "\u1112\u1161\u11ab", "\u20dd",
         "\u034f", "\u0300" * 9, "\u0e33", "\u093f"]
# Some of them mean something in an INI file, at the beginning of a value or to Qt.
SIGNS = [",", "=", "#", "[", "]", "@", "/", ":", "*", "?", "!", "~", "^", "{", "}", "-", "+", ".",
         "_", "[General]", "@@", "@Variant", "@Invalid", "a=b", ", ", "{a,b}", "true", "x41", "n"]
FORMATS = ["\u200b", "\u200d", "\u202e", "\u00ad", "\u2060", "\ufffe", "\uffff", "\ufdd0"]
BLANKS = [" ", "  ", "\u00a0", "\u2003", "\u3000"]
# What may not.
CANARIES = ["$(touch x)", "`touch x`", "'; touch x; '", "'\"; touch x; \"", "' > x '", "&touch x",
            "'$(touch x)'", "a;touch x", "|touch x", "' & touch x '", "\n touch x\n", "a\ntouch x",
            "'\ntouch x\n'", "x' 'y", "'", "''", "lan'"]
DANGERS = CANARIES + [
    "\"", "\\", "\\x41", "\\n", "$HOME", "${x}", "<x", ">x", "(", ")", "@Variant(x)", "@Invalid()",
    "@ByteArray(x)", "%", "%1", "%2%1", "%L1", "%%", "%General", "%41",
    *map(chr, [*range(1, 32), *range(0x7F, 0xA0), 0x2028, 0x2029]),
    # What is no valid UTF-8.
    "\udcff", "\udce4", "a\udcc3", "\udced\udca0\udc80", "\ufffd",
    # Beyond what Qt's files keep.
    "\U0001f600", "\U0001f1e9\U0001f1ea", "\U0001d49c", "\U00020000", "\U0010ffff", "\ufeff"]
WORDS = ["id", "uuid", "path", "apath", "filename", "help", "-", "-x", "--", "--help", "-active"]

# Lines as Qt writes them, of keys that are none of the tool's business.
OTHERS = ["Own=ours", "Text=\"a;b, c\"", "List=a, b", "Name=Büro", "Hex=\\x1\\x1f", "Empty=",
          "Number=1.50", "Blanks=\" kept \"", "Schl%FCssel=1", "At=@@x",
          "Size=@Size(10 20)", "Blob=@ByteArray(\\0\\x1)", "Flag=false", "%U6709=3"]


def usable(text):
    """Whether one machine can have the address."""
    if not re.fullmatch(r"(0|[1-9][0-9]{0,2})(\.(0|[1-9][0-9]{0,2})){3}", text):
        return False
    parts = [int(part) for part in text.split(".")]
    return max(parts) <= 255 and 0 < parts[0] < 224 and parts[0] != 127


def usable_in(text, network):
    """Whether a machine of the network can have the address."""
    if not usable(text) or ipaddress.ip_address(text) not in network:
        return False
    return network.prefixlen > 30 or ipaddress.ip_address(text) not in (
        network.network_address, network.broadcast_address)


def number(text, first, last):
    return re.fullmatch("[1-9][0-9]{0,4}", text) and first <= int(text) <= last


def network_of(text):
    """The network of ADDRESS/PREFIX; None if no device can have that."""
    ip, _, prefix = text.partition("/")
    # The library makes 6 of the netmask of 8.
    if not usable(ip) or not number(prefix, 1, 32) or prefix == "8":
        return None
    network = ipaddress.ip_network(text, strict=False)
    return network if usable_in(ip, network) else None


class Values:
    """Random values, always the same ones for a seed and a test."""

    def __init__(self, name):
        self.random = random.Random(f"{SEED} {name}")
        self.pick = self.random.choice

    def ip(self):
        first = self.pick([1, 9, 10, 126, 128, 172, 192, 223, self.random.randint(1, 223)])
        rest = [self.pick([0, 1, 254, 255, self.random.randint(0, 255)]) for _ in range(3)]
        text = ".".join(map(str, [first, *rest]))
        return text if usable(text) else self.ip()

    def server(self):
        return f"{self.ip()}:{self.pick([1, 80, 9000, 65535, self.random.randint(1, 65535)])}"

    def address(self, prefix):
        """ADDRESS/PREFIX that a device can have."""
        text = f"{self.ip()}/{prefix}"
        return text if network_of(text) else self.address(prefix)

    def gateway(self, text):
        """One for the address, or none."""
        network = network_of(text)
        if network.prefixlen == 32:
            return None
        while True:
            gateway = str(network[self.random.randrange(network.num_addresses)])
            if usable_in(gateway, network) and gateway != text.partition("/")[0]:
                return gateway

    def servers_of_names(self):
        servers = [self.ip() for _ in range(self.random.randint(0, 2))]
        return servers if len(set(servers)) == len(servers) else self.servers_of_names()

    def network(self, prefix):
        """The options of a static network, as a person gives them, with the gateway or without."""
        address = self.address(prefix)
        gateway = self.gateway(address) if self.random.random() < 0.7 else None
        return address, gateway, self.servers_of_names()

    def options(self, index, network):
        """The words behind `set` for the static network, its options in any order."""
        address, gateway, dns = network
        options = [["--address", address]]
        options += [["--gateway", gateway]] if gateway is not None else []
        options.insert(self.random.randint(0, len(options)),
                       [word for server in dns for word in ("--dns", server)])
        return ["network", str(index + 1)] + [word for option in options for word in option]

    def spoilt(self, text):
        """The text with an edit or two; it may be good all the same."""
        for _ in range(self.random.randint(1, 2)):
            place = self.random.randint(0, len(text))
            end = place + self.random.randint(0, 2)
            insertion = self.pick(["", "", *"0123456789.:/ -+eExX\t\n\r,;%'\"$&|\\", "\u0660",
                                   "\uff11", "\u00b2", "\ufeff", "\u00a0", *CANARIES])
            text = text[:place] + insertion + text[end:]
        return text

    def pieces(self):
        """Of a name, without anything that may not be in one."""
        kinds = [SCRIPTS, SCRIPTS, MARKS, SIGNS, FORMATS, BLANKS]
        for _ in range(self.random.randint(1, 9)):
            kind = self.pick(kinds)
            if kind is SCRIPTS:
                letters = self.pick(SCRIPTS)
                yield "".join(self.pick(letters) for _ in range(self.random.randint(1, 6)))
            else:
                yield self.pick(kind)

    def good_name(self):
        name = "".join(self.pieces())
        if self.random.random() < 0.2:
            name = cut(name * 1000, self.pick([200, 1000, 1021, 1022, 1023, 1024]))
        name = unicodedata.normalize(self.pick(["NFC", "NFD"]), name)
        good = (name and name == name.strip() and not name.startswith("-") and name not in WORDS
                and len(name.encode()) <= 1024)
        return name if good else self.good_name()

    def bad_name(self):
        kind = self.random.random()
        if kind < 0.1:
            return self.pick(WORDS)
        if kind < 0.2:
            return self.pick([" ", "\u3000", "\u00a0"]) + self.good_name()
        if kind < 0.3:
            return self.good_name() + self.pick([" ", "  ", "\u2003"])
        if kind < 0.4:
            return "-" + self.good_name()
        if kind < 0.5:
            return cut(self.good_name() * 2000, self.random.randint(1030, 4000))
        pieces = list(self.pieces())
        pieces.insert(self.random.randint(0, len(pieces)), self.pick(DANGERS))
        return "".join(pieces)


def cut(text, size):
    """The beginning that has at most so many bytes."""
    return text.encode()[:size].decode(errors="ignore")


def shown(value):
    """What the messages may make of the value, as an expression."""
    long = len(value.encode(errors="surrogateescape")) > 1024
    parts = []
    for character in value[:18] if long else value:
        code = "".join(f"\\\\u{unit:04x}" for unit in units(character))
        if "\udc80" <= character <= "\udcff":
            parts.append("\ufffd*")
        else:
            parts.append(f"(?:{re.escape(character)}|{code}|\\\\u{ord(character):04x})")
    return "".join(parts) + (".*" if long else "")


def units(character):
    data = character.encode("utf-16-be", errors="surrogatepass")
    return [int.from_bytes(data[at:at + 2], "big") for at in range(0, len(data), 2)]


def recorder(name, answer=""):
    """A stand-in that notes the words it is called with, each ended by a zero."""
    program = BIN / name
    program.write_text(f"#!/bin/sh\nprintf '%s\\0' {name} \"$@\" > {CALLS}/{name}.$$\n{answer}\n",
                       encoding="utf-8")
    program.chmod(0o755)


def taken():
    """What was called since the last time, in the programs' order; forgotten then."""
    calls = []
    for path in sorted(CALLS.iterdir()):
        calls.append(path.read_bytes().decode(errors="surrogateescape").split("\0")[:-1])
        path.unlink()
    return sorted(calls)


class Model:
    """What has to be in the file: the texts of the eighteen keys, None for one that is missing."""

    def __init__(self, **values):
        self.values = dict.fromkeys(KEYS) | values

    def set_server(self, index, text):
        ip, port = text.split(":")
        self.values |= {HALVES[index] + "ServerIp": ip, HALVES[index] + "ServerPort": port}

    def set_network(self, index, network):
        """`network`: the address, the gateway and the name servers; None for the automatic."""
        address, gateway, dns = network or ("", None, [])
        ip, _, _ = address.partition("/")
        mask = str(network_of(address).netmask) if network else ""
        self.values |= {HALVES[index] + key: value for key, value in (
            ("IsAutomatically", "true" if network else "false"), ("LocalIp", ip),
            ("LocalMask", mask), ("LocalGateWay", gateway or ""),
            ("PreferredDNS", (dns + [""])[0]), ("SpareDNS", (dns + ["", ""])[1]))}

    def text(self, key):
        return self.values[key] or ""

    def half(self, index, key):
        return self.text(HALVES[index] + key)

    def is_static(self, index):
        return self.half(index, "IsAutomatically") == "true"

    def shown(self):
        """What `show --json` has to give."""
        return {"type": "settings", "app": APP, "file": str(tool.path_of(APP)),
                "enabled": self.text("SwitchEnable") == "true",
                "connection": self.text("connectionName"),
                "networks": [{
                    "server": self.half(index, "ServerIp"), "port": self.half(index, "ServerPort"),
                    "addressing": "static" if self.is_static(index) else "dhcp",
                    "address": self.half(index, "LocalIp"),
                    "netmask": self.half(index, "LocalMask"),
                    "gateway": self.half(index, "LocalGateWay"),
                    "dns": [self.half(index, "PreferredDNS"), self.half(index, "SpareDNS")]}
                    for index in (0, 1)]}

    def look_up(self):
        """The words of the programs that the look-up of the connection runs."""
        name = self.text("connectionName")
        if name:
            return [["nmcli", "-g", "connection.uuid", "c", "s", name]]
        return [["awk", "NR ==1 {next} {print $1}"],
                ["nmcli", "-f", "uuid", "connection", "show", "-active"]]

    def change(self, index):
        """The words of the command that gives the network's addressing to the connection."""
        words = ["nmcli", "connection", "modify", "uuid", UUID]
        if not self.is_static(index):
            return [words + ["ipv4.address", "", "ipv4.gateway", "", "ipv4.dns", "",
                             "ipv4.method", "auto"]]
        network = ipaddress.ip_network("0.0.0.0/" + self.half(index, "LocalMask"))
        words += ["ipv4.addresses", f"{self.half(index, 'LocalIp')}/{network.prefixlen}"]
        if gateway := self.half(index, "LocalGateWay"):
            words += ["ipv4.gateway", gateway]
        if dns := list(filter(None, (self.half(index, "PreferredDNS"),
                                     self.half(index, "SpareDNS")))):
            words += ["ipv4.dns", ",".join(dns)]
        return [words + ["connection.autoconnect", "yes", "ipv4.method", "manual"]]

    def commands(self, index):
        """The words of all that is run for the network."""
        return [self.look_up(), self.change(index),
                [["nmcli", "connection", "up", "uuid", UUID]]]


class PropertyCase(tool.TestCase):
    def setUp(self):
        super().setUp()
        for folder in (BIN, CALLS, EMPTY):
            folder.mkdir(exist_ok=True)
        taken()
        recorder("nmcli", f'case $1 in -f) echo "UUID  "; esac\necho "{UUID}"')
        recorder("awk")
        self.values = Values(self.id().rpartition(".")[2])

    def begin(self):
        """A configuration to begin with, or none; returns what is in it."""
        tool.remove_all()
        model = Model()
        if self.values.random.random() < 0.3:
            return model
        model.values |= {"SwitchEnable": "true", "connectionName": "lan"}
        for index in (0, 1):
            model.set_server(index, self.values.server())
            static = self.values.random.random() < 0.4
            model.set_network(index, self.values.network(24) if static else None)
        tool.write(APP, model.values)
        return model

    def case(self, number, value):
        shortened = ascii(value) if len(ascii(value)) < 300 else ascii(value)[:300] + "..."
        return self.subTest(seed=SEED, number=number, value=shortened)

    def set(self, accepted, arguments, value):
        """Runs `set`, which has to accept the value or has to refuse it."""
        path = tool.path_of(APP)
        before = path.read_bytes() if path.exists() else None
        result = tool.tool("--app", APP, "set", *arguments,
                           environment=self.values.pick(LOCALES))
        self.assertEqual(0 if accepted else 1, result.status, result)
        if accepted:
            self.assertEqual("", result.err)
            return
        self.assertEqual(before, path.read_bytes() if path.exists() else None)
        self.assertEqual("", result.out)
        self.assertRegex(result.err, re.compile(
            f'\\Ahoplanectl: "{shown(value)}": [^\\n]+; for example [^\\n]+\n'
            "hoplanectl: nothing is changed\n\\Z"))
        self.assertNotRegex(result.err, r"[\0-\x09\x0b-\x1f\x7f-\x9f]")

    def expect_model(self, model):
        """The tool and the library take out of the file what the model says."""
        if not tool.path_of(APP).exists():
            return
        self.assertEqual([model.shown()], self.lines("show"))
        raw = self.expect(0, "--app", APP, "show", "--raw").out
        self.assertEqual("".join(f"{key} is missing\n" if value is None else f"{key}={value}\n"
                                 for key, value in model.values.items()), raw)
        self.assertEqual(list(model.values.items()),
                         [(line["key"], line["value"])
                          for line in self.lines("show", "--raw")])
        self.expect_plan(model)

    def lines(self, *arguments, status=0):
        """The objects of a run; a line ends with a line feed, whatever else ends one elsewhere."""
        text = self.expect(status, "--app", APP, "--json", *arguments,
                           environment={"PATH": str(BIN)}).out
        return [json.loads(line) for line in text.split("\n")[:-1]]

    def expect_plan(self, model):
        """The library's own commands say what is meant, to the shell and to whom it runs."""
        taken()
        plan, *others = self.lines("plan", status=0 if model.text("SwitchEnable") == "true" else 1)
        # Its waiting time, where an automatic network may wait.
        timeout = ["nmcli", "-g", "ipv4.dhcp-timeout", "connection", "show", "uuid", UUID]
        is_automatic = not (model.is_static(0) and model.is_static(1))
        self.assertEqual(sorted(model.look_up()[-1:] + is_automatic * [timeout]), taken(),
                         "plan itself asks for the connection")
        self.assertEqual(UUID, plan["uuid"])
        self.assertEqual([], [text for text in plan["warnings"] if "shell" in text])
        for index in (0, 1):
            turns = [found for found in others if found["network"] == index + 1]
            networks = [found for found in turns if found["type"] == "network"]
            for network in networks:
                self.expect_network(model, index, network)
            if all(network["skipped"] for network in networks):
                # The other one's address is a part of this one's.
                self.assertIn(model.half(1 - index, "LocalIp"), model.half(index, "LocalIp"))
                continue
            commands = [found["command"] for found in turns if found["type"] == "command"]
            self.expect_words(model.commands(index), list(dict.fromkeys(commands)))

    def expect_network(self, model, index, network):
        """The library takes the server for the one that was meant."""
        ip, port = model.half(index, "ServerIp"), model.half(index, "ServerPort")
        self.assertEqual((ip, port), (network["server"], network["port"]))
        if ip and not network["skipped"]:
            self.assertEqual(([f"{ip}:{port}"], []), (network["targets"], network["warnings"]))

    def expect_words(self, expected, commands):
        """The shells run just these programs with just these words, and do nothing else."""
        for shell in SHELLS:
            seen = []
            for command in commands:
                done = subprocess.run([*shell, command], cwd=EMPTY, env={"PATH": str(BIN)},
                                      stdin=subprocess.DEVNULL, stdout=subprocess.DEVNULL,
                                      stderr=subprocess.PIPE, timeout=60, check=False)
                self.assertEqual((0, b""), (done.returncode, done.stderr), command)
                seen.append(taken())
                self.assertEqual([], os.listdir(EMPTY), command)
            self.assertEqual(expected, seen, shell)


class OneValue(PropertyCase):
    """A value that is set, in a configuration or where there is none yet."""

    def check_name(self, name, accepted):
        model = self.begin()
        self.set(accepted, ["--", "connection", name], name)
        if accepted:
            model.values["connectionName"] = name
            self.expect_model(model)

    def test_names_without_anything_special(self):
        for count in range(60):
            name = self.values.good_name()
            with self.case(count, name):
                self.check_name(name, True)

    def test_names_with_something_that_cannot_be_kept_or_not_be_quoted(self):
        for count in range(100):
            name = self.values.bad_name()
            with self.case(count, name):
                self.check_name(name, False)

    def test_each_danger_at_each_place(self):
        for count, danger in enumerate(DANGERS):
            place = count % 3
            for name in (danger, ["lan ", "", "a,"][place] + danger + ["", " lan", "b"][place]):
                with self.case(count, name):
                    self.check_name(name, False)

    def test_servers(self):
        for count in range(60):
            text = self.values.server()
            if count % 3:
                text = self.values.spoilt(text)
            ip, _, port = text.rpartition(":")
            accepted = bool(usable(ip) and number(port, 1, 65535))
            with self.case(count, text):
                model = self.begin()
                index = count % 2
                self.set(accepted, ["--", "server", str(index + 1), text], text)
                if accepted:
                    model.set_server(index, text)
                    self.expect_model(model)

    def check_network(self, index, network, spoilt=None):
        """`spoilt`: the value that has to be refused, if one has."""
        model = self.begin()
        self.set(spoilt is None, self.values.options(index, network), spoilt)
        if spoilt is None:
            model.set_network(index, network)
            self.expect_model(model)

    def test_addresses_with_every_prefix(self):
        for prefix in [*range(1, 8), *range(9, 33)]:
            for index in (0, 1):
                network = self.values.network(prefix)
                with self.case(prefix, network):
                    self.check_network(index, network)

    def test_addresses_with_the_prefix_that_is_applied_as_another(self):
        for index in (0, 1):
            address, *rest = self.values.network(9)
            address = address.replace("/9", "/8")
            with self.case(index, address):
                self.check_network(index, (address, *rest), address)

    def test_spoilt_addresses(self):
        for count in range(60):
            address, gateway, dns = self.values.network(self.values.pick([9, 16, 24, 30, 32]))
            address = self.values.spoilt(address)
            network = network_of(address)
            if network and gateway and not usable_in(gateway, network):
                gateway = None
            with self.case(count, address):
                self.check_network(count % 2, (address, gateway, dns),
                                   None if network else address)

    def test_spoilt_gateways(self):
        for count in range(40):
            address = self.values.address(self.values.pick([1, 9, 15, 24, 28, 30, 31]))
            gateway = self.values.spoilt(self.values.gateway(address))
            good = (usable_in(gateway, network_of(address))
                    and gateway != address.partition("/")[0])
            with self.case(count, (address, gateway)):
                self.check_network(count % 2, (address, gateway, []), None if good else gateway)

    def test_spoilt_name_servers(self):
        for count in range(40):
            address, gateway, _ = self.values.network(24)
            servers = [self.values.ip(), self.values.ip()]
            place = count % 2
            servers[place] = self.values.spoilt(servers[place])
            good = usable(servers[place]) and servers[0] != servers[1]
            with self.case(count, servers):
                self.check_network(place, (address, gateway, servers),
                                   None if good else servers[place])


class Sequences(PropertyCase):
    """Many commands, one after the other."""

    def step(self, model):
        """Sets something, in the model too if it is good."""
        index, good = self.values.pick([0, 1]), self.values.random.random() < 0.6
        kind = self.values.pick(["server", "network", "automatic", "connection", "enabled"])
        if kind == "server":
            text = self.values.server() if good else self.values.server() + self.values.pick(
                CANARIES)
            self.set(good, ["--", kind, str(index + 1), text], text)
            if good:
                model.set_server(index, text)
        elif kind == "network":
            address, *rest = self.values.network(self.values.pick([2, 9, 24, 31]))
            network = [address if good else address + self.values.pick(CANARIES), *rest]
            self.set(good, self.values.options(index, network), network[0])
            if good:
                model.set_network(index, network)
        elif kind == "automatic":
            self.set(True, ["network", str(index + 1), "--dhcp"], None)
            model.set_network(index, None)
        elif kind == "connection":
            name = self.values.good_name() if good else self.values.bad_name()
            self.set(good, ["--", kind, name], name)
            if good:
                model.values["connectionName"] = name
        else:
            word = self.values.pick(["on", "off"] if good else ["On", "1", "true", ""])
            self.set(good, [kind, word], word)
            if good:
                model.values["SwitchEnable"] = str(word == "on").lower()

    def test_random_commands_end_where_the_model_does(self):
        for count in range(6):
            model = self.begin()
            others = self.add_others()
            for number_of_step in range(20):
                with self.case((count, number_of_step), None):
                    self.step(model)
                    self.assertEqual(
                        model.values, {line["key"]: line["value"]
                                       for line in self.lines("show", "--raw")}
                        if tool.path_of(APP).exists() else Model().values)
                    self.assertEqual(others, lines_of_others())
            with self.case(count, "at the end"):
                self.expect_model(model)

    def add_others(self):
        """Gives the file keys and groups that are not the tool's, if there is a file."""
        path = tool.path_of(APP)
        if path.exists():
            text = path.read_text(encoding="utf-8")
            for group in ["", "[Group]\n", "[Kabel%20B%FCro]\n", "[%U6709%U7EBF]\n"]:
                lines = self.values.random.sample(OTHERS, 6)
                text += group + "".join(line + "\n" for line in lines)
            path.write_text(text, encoding="utf-8")
        return lines_of_others()

    def test_what_the_file_would_lose_stays(self):
        for line in ("Smile=\U0001f600", "Name=a\U00020000b", "List=a, \U0001d49c",
                     "connectionName=lan \U0001f600"):
            with self.case(0, line):
                path = tool.write(APP, {"SwitchEnable": "true"})
                text = path.read_text(encoding="utf-8") + line + "\n"
                path.write_text(text, encoding="utf-8")
                result = tool.tool("--app", APP, "set", "enabled", "off")
                if result.status == 0:
                    text = text.replace("=true", "=false")
                else:
                    self.assertIn("nothing is changed: ", result.err)
                self.assertEqual(sorted(text.split("\n")),
                                 sorted(path.read_text(encoding="utf-8").split("\n")))
                self.assertEqual([path.name], os.listdir(path.parent))


def lines_of_others():
    """The groups and keys of the file that are not the tool's, each line with its group."""
    path, group, found = tool.path_of(APP), "[General]", set()
    for line in path.read_text(encoding="utf-8").split("\n") if path.exists() else []:
        if line.startswith("["):
            group = line
        elif line and line.partition("=")[0] not in KEYS:
            found.add((group, line))
    return found


class Import(PropertyCase):
    """The device's own settings, against what the library itself makes of them."""
    DEVICE = pathlib.Path("/userdata/netSettings.ini")
    FLAGS = ["true", "false", "True", "FALSE", "1", "0", "yes", "", "2", '"false"', "@Invalid()"]

    def setUp(self):
        super().setUp()
        self.addCleanup(self.DEVICE.unlink, missing_ok=True)

    def written(self, value):
        """The value as an INI file may have it."""
        form = 1 if re.search(r"[\n\r]", value) else self.values.random.random()
        if form < 0.4:
            return value
        if form < 0.8:
            return '"' + value.replace("\\", "\\\\").replace('"', '\\"') + '"'
        return "".join(f"\\x{ord(character):x}" for character in value[:40])

    def device_text(self):
        values = self.values
        lines = [("conName", values.pick([values.good_name, values.bad_name])())]
        if values.random.random() < 0.3:
            lines.append(("bDhcpEnabled", values.pick(self.FLAGS)))
        for net in ("MasterNet", "SlaveNet"):
            lines += [(f"{net}\\{key}", values.pick(
                [values.ip(), "", "255.255.255.0", values.spoilt(values.ip()), "a, b", "  "]))
                for key in ("ip", "mask", "gateway", "dns1", "dns2", "other")]
            lines.append((f"{net}\\bDhcpEnabled", values.pick(self.FLAGS)))
        values.random.shuffle(lines)
        lines = lines[values.random.randint(0, 5):]
        text = "".join(f"{key}{values.pick(['=', ' = '])}"
                       f"{value if 'Dhcp' in key else self.written(value)}"
                       f"{values.pick(['', '', '  '])}\n" for key, value in lines)
        before = values.pick(["", "[Other]\nconName=other\n", "; a comment\n", "conName=none\n"])
        return before + "[NetworkConnections]\nk=1\n" + text + values.pick(["", "[Last]\na=1\n"])

    def import_by_the_library(self):
        """An application takes the library into use, which imports the device's settings."""
        build = pathlib.Path(tool.COMMAND[-1]).resolve().parents[2]
        program = build / "tests/lab/application/lab_application"
        with subprocess.Popen([program], stdin=subprocess.PIPE, stdout=subprocess.PIPE,
                              stderr=subprocess.DEVNULL) as application:
            ready = any(re.match(rb"@[0-9.]+ ready ", line) for line in application.stdout)
            application.stdin.close()
            application.stdout.read()
        self.assertTrue(ready, "the application does not start")

    def results(self):
        """All that the tool finds in the file, of itself and of the library's commands."""
        status = 0 if '"enabled":true' in self.expect(0, "show", "--json").out else 1
        return (self.lines("show"), self.lines("show", "--raw"),
                self.lines("plan", status=status))

    # The library's reader parses a section only when it looks for one of its keys.
    SECTIONS = ["[NetworkConnections/MasterNet]\nip=10.0.0.2\n"
                "[NetworkConnections]\nconName=wan\nbDhcpEnabled=true\n",
                "[NetworkConnections]\nconName=wan\nbDhcpEnabled=true\n"
                "[NetworkConnections/MasterNet]\nip=10.0.0.2\nbDhcpEnabled=true\n",
                "[NetworkConnections/SlaveNet]\nip=10.0.0.3\nbDhcpEnabled=true\n"
                "[NetworkConnections]\nconName=wan\nSlaveNet\\mask=255.0.0.0\n"]

    def test_the_same_as_the_librarys(self):
        done = 0
        for count, text in enumerate(self.SECTIONS + [self.device_text() for _ in range(25)]):
            with self.case(count, text):
                self.begin()
                path = tool.path_of(APP)
                before = path.read_bytes() if path.exists() else None
                self.DEVICE.write_bytes(text.encode(errors="surrogateescape"))
                self.import_by_the_library()
                wanted = self.results()
                done += self.compare(before, wanted)
        self.assertGreater(done, 16)

    def compare(self, before, wanted):
        """True if the tool imports; false if it rightly refuses to."""
        path, other = tool.path_of(APP), tool.HOME / "device.ini"
        self.DEVICE.rename(other)
        self.addCleanup(other.unlink, missing_ok=True)
        path.unlink()
        if before is not None:
            path.write_bytes(before)
        result = tool.tool("--app", APP, "import", "--from", str(other))
        if result.status == 0:
            self.assertEqual(wanted, self.results())
            return True
        # What the library would lose of a value, the tool does not begin to write.
        self.assertIn("nothing is changed: ", result.err)
        self.assertRegex(other.read_text("utf-8", "replace"),
                         r"[\U00010000-\U0010ffff]|\\xd[89a-f][0-9a-f]{2}")
        self.assertEqual(before, path.read_bytes() if path.exists() else None)
        return False


if __name__ == "__main__":
    tool.main()

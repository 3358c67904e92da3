# SPDX-License-Identifier: MIT
"""Bad input, by table: each is refused with its reason, and the file is as it was."""

import re

import tool
from tool import write

SERVER = ["set", "server", "1"]
NETWORK = ["set", "network", "1"]
CONNECTION = ["set", "connection"]
NUMBERS = "four numbers from 0 to 255"
PORT = "the port has to be a number from 1 to 65535"
PREFIX = "the prefix length has to be a number from 1 to 32"
SHELL = "which means something to the shell"
CONTROL = "the name contains a control character"
MISSING = "an argument is missing"


def refused(prefix, reason, *values):
    return [([*prefix, *(value if isinstance(value, list) else [value])], reason)
            for value in values]


# Values that no library could use: exit status 1.
VALUES = [
    # Servers.
    *refused(SERVER, "the port is missing", "", "192.0.2.1", "server", "192.0.2.1;9000",
             "192.0.2.1 9000", "9000"),
    *refused(SERVER, PORT, "192.0.2.1:", "192.0.2.1:0", "192.0.2.1:65536", "192.0.2.1:-1",
             "192.0.2.1:+9000", "192.0.2.1: 9000", "192.0.2.1:9000 ", "192.0.2.1:9000\n",
             "192.0.2.1:09000", "192.0.2.1:0x50", "192.0.2.1:9000.0", "192.0.2.1:http",
             "192.0.2.1:99999999999999999999", "192.0.2.1:٩٠٠٠", "192.0.2.1:9e3",
             "192.0.2.1:9000;reboot", "192.0.2.1:9000$(reboot)"),
    *refused(SERVER, NUMBERS, ":9000", "server:9000", "localhost:80", "example.com:80",
             "192.0.2:9000", "192.0.2.1.5:9000", "192.0.2.256:9000", "192.0.2.-1:9000",
             "192.0.2.1.:9000", ".192.0.2.1:9000", "192..2.1:9000", "192.0.2.01:9000",
             "0300.0.2.1:9000", "0xC0.0.2.1:9000", "3221225985:9000", " 192.0.2.1:9000",
             "192.0.2.1 :9000", "192.0.2. 1:9000", "192,0,2,1:9000", "192.0.2.1\n:9000",
             "[192.0.2.1]:9000", "[2001:db8::1]:9000", "2001:db8::1:9000", "http://192.0.2.1:9000",
             "192.0.2.1:9000:9000", "192.0.2.1/24:9000", "１92.0.2.1:9000", "'192.0.2.1':9000",
             "1e2.0.2.1:9000", "999999999999.0.2.1:9000", "$(id).0.2.1:9000"),
    *refused(SERVER, "belong to no machine", "0.0.0.0:9000", "0.1.2.3:9000"),
    *refused(SERVER, "loopback", "127.0.0.1:9000", "127.255.255.254:9000"),
    *refused(SERVER, "groups of machines", "224.0.0.1:9000", "239.255.255.255:9000"),
    *refused(SERVER, "reserved", "240.0.0.1:9000", "255.255.255.255:9000"),
    *refused(["set", "server"], "there are the networks and servers 1 and 2",
             *[[which, "192.0.2.1:9000"] for which in ("0", "3", "first", "01", "", "1 ", "１")]),
    # Static addresses.
    *refused(NETWORK + ["--address"], "the prefix length is missing", "", "10.0.0.2", "dhcp",
             "10.0.0.2 24"),
    *refused(NETWORK + ["--address"], PREFIX, "10.0.0.2/", "10.0.0.2/0", "10.0.0.2/33",
             "10.0.0.2/-1", "10.0.0.2/+24", "10.0.0.2/24 ", "10.0.0.2/024", "10.0.0.2/24/24",
             "10.0.0.2/255.255.255.0", "10.0.0.2/24\n", "10.0.0.2/a", "10.0.0.2/24;id",
             "10.0.0.2/9999999999"),
    *refused(NETWORK + ["--address"], "no netmask gives /8: the library applies 255.0.0.0 as /6",
             "10.0.0.2/8", "172.16.0.1/8"),
    *refused(NETWORK + ["--address"], NUMBERS, "/24", "10.0.0/24", "10.0.0.0.2/24", "10.0.0.256/24",
             "10.0.0.02/24", "ten/24", "fe80::1/64", " 10.0.0.2/24", "10.0.0.2\t/24",
             "10.0.0.2'/24", "`id`/24", "10.0.0.2%1/24"),
    *refused(NETWORK + ["--address"], "it is the address of the network itself", "10.0.0.0/24",
             "10.0.0.4/30", "10.128.0.0/9"),
    *refused(NETWORK + ["--address"], "it is the broadcast address", "10.0.0.255/24",
             "10.0.0.7/30", "10.255.255.255/9"),
    *refused(NETWORK + ["--address"], "loopback", "127.0.0.2/24"),
    *refused(NETWORK + ["--address"], "belong to no machine", "0.0.0.2/24"),
    *refused(NETWORK + ["--address"], "groups of machines", "224.0.0.2/24"),
    *refused(NETWORK + ["--address"], "reserved", "250.0.0.2/24"),
    *refused(NETWORK + ["--address"], "does not count addresses of 169.254.0.0/16",
             "169.254.7.2/16", "169.254.0.1/24", "169.254.255.254/30"),
    # Gateways and name servers.
    *refused(NETWORK + ["--address", "10.0.0.2/24", "--gateway"],
             "the gateway is outside the network 10.0.0.0/24", "10.0.1.1", "192.0.2.1", "8.8.8.8",
             "11.0.0.1"),
    *refused(NETWORK + ["--address", "10.0.0.130/25", "--gateway"],
             "the gateway is outside the network 10.0.0.128/25", "10.0.0.1", "10.0.0.127"),
    *refused(NETWORK + ["--address", "10.0.0.2/32", "--gateway"],
             "the gateway is outside the network 10.0.0.2/32", "10.0.0.1"),
    *refused(NETWORK + ["--address", "10.0.0.2/24", "--gateway"],
             "the gateway is the device's own address", "10.0.0.2"),
    *refused(NETWORK + ["--address", "10.0.0.2/24", "--gateway"], "the network itself",
             "10.0.0.0"),
    *refused(NETWORK + ["--address", "10.0.0.2/24", "--gateway"], "the broadcast address",
             "10.0.0.255"),
    *refused(NETWORK + ["--address", "10.0.0.2/24", "--gateway"], NUMBERS, "gateway", "10.0.0",
             "10.0.0.1/24", "10.0.0.1 ", "10.0.0.1;id", "10.0.0.1\n", "10.0.0.001"),
    *refused(NETWORK + ["--address", "10.0.0.2/24", "--gateway"], "the gateway is empty", ""),
    *refused(NETWORK + ["--address", "10.0.0.2/24", "--dns"], NUMBERS, "", "dns", "8.8.8",
             "8.8.8.8,8.8.4.4", "8.8.8.8 8.8.4.4", "8.8.8.8;id", "8.8.8.8\n", "2001:4860::8888",
             "'8.8.8.8'", "8.8.8.08"),
    *refused(NETWORK + ["--address", "10.0.0.2/24"], "there is room for two name servers only",
             ["--dns", "8.8.8.8", "--dns", "8.8.4.4", "--dns", "1.1.1.1"]),
    *refused(NETWORK + ["--address", "10.0.0.2/24"], "both name servers are the same",
             ["--dns", "8.8.8.8", "--dns", "8.8.8.8"]),
    *refused(NETWORK + ["--address", "10.0.0.2/24", "--dns"], "groups of machines", "224.0.0.53"),
    *refused(["set", "network"], "there are the networks and servers 1 and 2",
             *[[which, "--dhcp"] for which in ("0", "3", "second", "", "1 2")]),
    # Names of connections.
    *refused(CONNECTION, "the name is empty", ""),
    *refused(CONNECTION, SHELL, "'", "lan'", "l'an", "'; reboot; '", 'a"b', "a`id`", "$(id)",
             "$HOME", "a\\b", "a;b", "a|b", "a&b", "a<b", "a>b", "(lan)"),
    *refused(CONNECTION, CONTROL, "a\nb", "lan\n", "a\rb", "a\tb", "\x1b[31m", "a\x7fb", "a\x01",
             "a\u2028b", "a\u0085b"),
    *refused(CONNECTION, "the name begins or ends with a blank", " lan", "lan ", "  ", " ",
             "\u00a0lan"),
    *refused(CONNECTION, "nmcli does not take this word for a name", "id", "uuid", "path", "apath",
             "help", "h", "he", "hel"),
    *refused(["set", "connection", "--"], "nmcli does not take this word for a name", "-x",
             "--active", "-"),
    *refused(CONNECTION, "which the library may replace", "%1", "50%", "a%2b"),
    *refused(CONNECTION, "the name is longer than 1024 bytes", "n" * 1025, "ü" * 513),
    # Switching.
    *refused(["set", "enabled"], "it is either on or off", "", "yes", "true", "1", "ON", "on ",
             "no"),
    # Applications.
    *[(["--app", name, "set", "enabled", "on"], "not the name of an application")
      for name in ("", ".", "..", "a/b", "/", "../other", "/etc/passwd")],
    *[(["--app", name, "show"], "not the name of an application") for name in ("", "..", "a/b")],
    (["--app", "nobody", "show"], 'the application "nobody" has no configuration'),
    (["import", "--from", "/no/such/file"], "there is no /no/such/file"),
    (["import", "--from", ""], "there is no "),
]

# Wrong usage: exit status 64.
USAGE = [
    ([], "no command"),
    (["no-such"], 'there is no command "no-such"'),
    (["SHOW"], 'there is no command "SHOW"'),
    ([""], 'there is no command ""'),
    (["--no-such"], "unknown option --no-such"),
    (["-x", "show"], "unknown option -x"),
    (["--app"], "--app: the name is missing"),
    (["show", "--app"], "Missing value after '--app'"),
    (["show", "extra"], '"extra" is one argument too many'),
    (["show", "--no-such"], "Unknown option 'no-such'"),
    (["show", "--raw=1"], "Unexpected value after '--raw'"),
    (["set"], MISSING),
    (["set", "colour", "red"], '"colour" cannot be set'),
    (["set", "", "x"], '"" cannot be set'),
    (["set", "server"], MISSING),
    (["set", "server", "1"], MISSING),
    (["set", "server", "1", "192.0.2.1:9000", "more"], "too many"),
    (["set", "server", "1", "192.0.2.1:9000", "--dhcp"], "--dhcp is for set network"),
    (["set", "enabled"], MISSING),
    (["set", "enabled", "on", "off"], "too many"),
    (["set", "enabled", "on", "--gateway", "10.0.0.1"], "--gateway is for set network"),
    (["set", "connection"], MISSING),
    (["set", "connection", "Wired", "connection"], "too many"),
    (["set", "connection", "lan", "--dns", "8.8.8.8"], "--dns is for set network"),
    (["set", "connection", "-x"], "Unknown option 'x'"),
    (["set", "network"], MISSING),
    (["set", "network", "1"], "wants --dhcp, or --address"),
    (["set", "network", "1", "--gateway", "10.0.0.1"], "wants --dhcp, or --address"),
    (["set", "network", "1", "--dns", "8.8.8.8"], "wants --dhcp, or --address"),
    (["set", "network", "1", "--dhcp", "--address", "10.0.0.2/24"], "exclude each other"),
    (["set", "network", "1", "--dhcp", "--gateway", "10.0.0.1"], "exclude each other"),
    (["set", "network", "1", "--dhcp", "--dns", "8.8.8.8"], "exclude each other"),
    (["set", "network", "1", "--address"], "Missing value after '--address'"),
    (["set", "network", "1", "--dhcp=yes"], "Unexpected value after '--dhcp'"),
    (["set", "network", "1", "10.0.0.2/24"], "too many"),
    (["set", "network", "1", "--address", "10.0.0.2/24", "--address", "10.0.0.3/24"],
     "--address stands there twice"),
    (["set", "network", "1", "--address", "10.0.0.2/24", "--gateway", "10.0.0.1", "--gateway",
      "10.0.0.1"], "--gateway stands there twice"),
    (["import", "file"], "too many"),
    (["import", "--from"], "Missing value after '--from'"),
]


class Refused(tool.TestCase):
    """Each with the file before and after."""

    def setUp(self):
        super().setUp()
        self.path = write("device", {"SwitchEnable": "false", "connectionName": "lan"})
        self.before = tool.state_of(self.path)

    def stays(self, status, arguments, reason):
        with self.subTest(arguments=arguments):
            result = self.expect(status, *arguments)
            self.assertEqual(result.out, "")
            self.assertIn(reason, result.err)
            self.assertEqual(tool.state_of(self.path), self.before)
            return result

    def test_values(self):
        for arguments, reason in VALUES:
            self.stays(1, arguments, reason)

    def test_refused_value_is_named_with_an_example(self):
        for arguments, reason in VALUES:
            if arguments[0] == "set" and "/no/such" not in reason:
                result = tool.tool(*arguments)
                self.assertRegex(result.err, r'^hoplanectl: ".*": [^\n]+; for example [^\n]+\n'
                                             r"hoplanectl: nothing is changed\n$", str(arguments))

    def test_gateway_of_the_example_is_taken(self):
        for address, gateway in (("10.0.0.2/24", "10.0.1.1"), ("10.0.0.1/24", "10.0.1.1"),
                                 ("10.0.0.1/24", "10.0.0.1"), ("10.0.0.2/31", "10.0.1.1"),
                                 ("10.0.0.3/31", "10.0.0.3"), ("10.0.0.1/30", "10.0.0.3"),
                                 ("10.0.0.2/30", "ten"), ("10.0.0.7/1", "192.0.2.1"),
                                 ("126.255.255.255/1", "192.0.2.1")):
            with self.subTest(address=address, gateway=gateway):
                result = self.expect(1, *NETWORK, "--address", address, "--gateway", gateway)
                example = re.search(r"; for example (\S+)$", result.err, re.MULTILINE)[1]
                self.expect(0, *NETWORK, "--address", address, "--gateway", example)

    def test_no_gateway_fits_a_network_of_one_machine(self):
        for gateway in ("10.0.0.1", "10.0.0.2"):
            result = self.expect(1, *NETWORK, "--address", "10.0.0.2/32", "--gateway", gateway)
            self.assertIn("; for example no --gateway, or a shorter prefix\n", result.err)

    def test_usage(self):
        for arguments, reason in USAGE:
            result = self.stays(64, arguments, reason)
            self.assertRegex(result.err, r"hoplanectl: see hoplanectl( \w+)? --help\n$")

    def test_number(self):
        self.assertGreater(len(VALUES), 150)

    def test_nothing_of_the_message_reaches_the_terminal_raw(self):
        result = self.expect(1, "set", "connection", "\x1b[31mred\n")
        self.assertIn(r'"\u001b[31mred\u000a"', result.err)
        self.assertNotIn("\x1b", result.err)


if __name__ == "__main__":
    tool.main()

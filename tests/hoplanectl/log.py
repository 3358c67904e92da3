# SPDX-License-Identifier: MIT
"""hoplanectl log: what it makes of each line that the library can log, and of whole logs. The logs
of golden/ are real ones: of an application in the laboratory, and of a journal that it wrote to.
Run with HOPLANE_WRITE_GOLDEN set, it writes their accounts anew, to be read by a person."""

import datetime
import gzip
import json
import lzma
import os
import pathlib
import re
import subprocess
import tempfile

import tool

GOLDEN = pathlib.Path(__file__).resolve().parent / "golden"
SOURCES = pathlib.Path(__file__).resolve().parent.parent.parent
UUID = "b30e8b89-8abf-4bfc-906a-10587b48f011"
OTHER = "27abc201-2ad4-40d0-920a-cda8762190fb"
PORT = 9000
SERVERS = {1: "198.51.100.1", 2: "192.0.2.1"}
DEVICE = {1: "198.51.100.2", 2: "192.0.2.2"}
APPLY = {1: "setFirstStaticIpAddr", 2: "setSecondStaticIpAddr"}
TRY = {1: "doConnetFirstServer", 2: "doConnetSecondServer"}
ACTIVATED = "Connection successfully activated (D-Bus active path: /org/freedesktop/X/2)"
UP = f'"nmcli connection up uuid {UUID} "'
AUTO = (f'"nmcli connection modify uuid {UUID} ipv4.address \'\' ipv4.gateway \'\' ipv4.dns \'\'  '
        'ipv4.method auto "')
STATIC = (f'"nmcli connection modify uuid {UUID} ipv4.addresses 198.51.100.2/24 ipv4.gateway '
          '198.51.100.1  ipv4.dns 198.51.100.53,198.51.100.54 connection.autoconnect yes '
          'ipv4.method manual"')
LAN_SWITCH = "/devices/virtual/switch/lan-switch"
OUTCOMES = ("search", "reopening")

LOAD = [f'[ loadConfig ]  switch info:first serverIp: "{SERVERS[1]}" ,serverPort: "{PORT}"',
        f'[ loadConfig ]  switch info:second  serverIp: "{SERVERS[2]}" ,serverPort: "{PORT}"']
LOOKUP = ['[ getNetWorkUuid ] "nmcli -g connection.uuid c s \'lan\' "',
          f'[ getNetWorkUuid ] "{UUID}"']
NOT_FOUND = [LOOKUP[0], '[ getNetWorkUuid ] ""']
FINISHED = '[ slotFinish ] "slotFinish 71: addressChanged :0"'
TIME_OUT = "[ findAvailableIp ]  switch time out"
AGAIN = [*LOOKUP, f"[ tryConnectRemote ]  cmd:  {UP} bb  result:    {ACTIVATED}"]
CHANGED = '[ slotAddressChanged ] "slotAddressChanged 116: ip changed"'
BUSY = "[ slotAddressChanged ]  it's doing net switch."
NEW = "[ instance ] new Hoplane "


def switch_event(state, name="lan-switch", action="change"):
    return (f'[ parse_uevent ] "parse_uevent event {{ name={name}, action={action}, '
            f'path={LAN_SWITCH}, state={state}}}"')


def applying(network, modify=AUTO, function="setLocalIpAuto"):
    """The lines of an addressing that meets no trouble."""
    return [*LOOKUP, f"[ {function} ]  execute the cmd: {modify} result ",
            f"[ {function} ]  execute the cmd: {UP} result {ACTIVATED}",
            f"[ {APPLY[network]} ] run successful"]


def failing(network, times):
    return times * [f'[ tryConnectRemote ] connect to host fail:  "{SERVERS[network]}"    {PORT}'
                    '  locak address: ""']


def reached(network, local="192.0.2.147"):
    return [f'[ tryConnectRemote ] local IP =  "{local}"',
            f'[ tryConnectRemote ] host is available,  "{SERVERS[network]}" ,  {PORT}']


def compared(network, current, own=None):
    return (f'[ {TRY[network]} ] the net ip adddr: "{current}" ,the switch local ip addr: '
            f'"{own or DEVICE[network]}"')


def same(network, own=None):
    return f'[ {TRY[network]} ] it is the same net ip adddr  "{own or DEVICE[network]}"'


def turn(network, attempts=10):
    """An addressing and a server that does not accept."""
    if attempts <= 11:
        return applying(network) + failing(network, attempts)
    return applying(network) + failing(network, 11) + AGAIN + failing(network, attempts - 11)


TURN = [*LOAD, *applying(1)]

# A line, the lines before it, and what it adds to the account: (step, text) each. Outcomes are
# (type, text).
TABLE = [
    # the facade
    (NEW, [], [("started", "the application takes the library into use")]),
    ("[ loadSwitchLocalConfig ] NetSetting.ini not exist.", [],
     [("import", "the device has no network settings file: nothing is imported")]),
    ("[ networkOnline ] online is true,begin try find available server ip", [],
     [("online", "the device is online")]),
    ("[ networkOnline ] ,finish try find available server ip", [],
     [("online", "the device is online")]),
    ("[ networkOnline ] online false 949", [], [("online", "the device is offline")]),
    ('[ networkAdd ] name "eth0"', [], [("network", 'network configuration "eth0" added')]),
    ('[ networkChanged ] name "lan"', [], [("network", 'network configuration "lan" changed')]),
    ('[ networkRemove ] name "a \\"b\\" \\\\ c"', [],
     [("network", 'network configuration "a "b" \\ c" removed')]),
    # the watcher
    ("[ run ] first time to get uevent socket_fd result =  7", [],
     [("socket", "listening to the LAN switch")]),
    ("[ run ] first time to get uevent socket_fd result =  -1", [],
     [("socket", "the socket for the LAN switch's events cannot be opened; the library tries "
       "again every 5 s")]),
    ("[ run ] get uevent socket_fd success, fd =  7", [],
     [("socket", "listening to the LAN switch")]),
    ("[ parse_uevent ] cdev->action is NULL", [],
     [("switch-event", "an event of the LAN switch without an action: ignored")]),
    (switch_event(1), [], [("switch-event", "the LAN switch reports state 1")]),
    (switch_event(-3, name="", action="changed"), [],
     [("switch-event", "the LAN switch reports state -3")]),
    ("2: up eth0", [], [("link", "link eth0 is up")]),
    ("17: down", [], [("link", "link number 17 is down")]),
    (FINISHED, [], [("ended", "a search ended; the rest of it is not in the log")]),
    (FINISHED.replace(":0", ":1"), [],
     [("ended", "a search ended; the rest of it is not in the log")]),
    # the configuration
    ('[ loadConfig ]  switch congif file: "/x/switch.ini" not exist,can not do net switc.', [],
     [("configuration", "there is no configuration file /x/switch.ini: nothing is done")]),
    (LOAD[0], [], [("configuration", "the configuration was read, and nothing followed: a link "
                    "went down, or switching is disabled")]),
    (LOAD[1], [], [("configuration", "the configuration was read, and nothing followed: a link "
                    "went down, or switching is disabled")]),
    (LOAD[1], ["2: down eth0", LOAD[0]], []),
    # a search
    (LOOKUP[0], LOAD, []),
    (LOOKUP[1], [*LOAD, LOOKUP[0]],
     [("begin", "server 1 is 198.51.100.1:9000, server 2 is 192.0.2.1:9000"),
      ("lookup", f'network 1: connection "lan" is {UUID}')]),
    (NOT_FOUND[1], [*LOAD, NOT_FOUND[0]],
     [("begin", "server 1 is 198.51.100.1:9000, server 2 is 192.0.2.1:9000"),
      ("lookup", 'network 1: no connection "lan" is found')]),
    (f'[ getNetWorkUuid ] "{UUID} {OTHER}"', [*LOAD, LOOKUP[0]],
     [("begin", "server 1 is 198.51.100.1:9000, server 2 is 192.0.2.1:9000"),
      ("lookup", f'network 1: connection "lan": there are 2, and the commands name them all: '
       f"{UUID} {OTHER}")]),
    (f"[ getNetWorkUuid ] {UUID}\n", LOAD,
     [("begin", "server 1 is 198.51.100.1:9000, server 2 is 192.0.2.1:9000"),
      ("lookup", f"network 1: the active connection is {UUID}")]),
    (f"[ getNetWorkUuid ] {UUID}\n{OTHER}\n", LOAD,
     [("begin", "server 1 is 198.51.100.1:9000, server 2 is 192.0.2.1:9000"),
      ("lookup", "network 1: the active connection: there are 2, and the commands name them all: "
       f"{UUID} {OTHER}")]),
    ("[ getNetWorkUuid ] ", LOAD,
     [("begin", "server 1 is 198.51.100.1:9000, server 2 is 192.0.2.1:9000"),
      ("lookup", "network 1: no connection is active")]),
    ('[ setLocalIpAuto ] get uuid is empty,d->strConnectionName= "lan"', [*LOAD, *NOT_FOUND], []),
    ('[ setStaticIpAddr ] get uuid is empty,d->strConnectionName= ""', LOAD,
     [("begin", "server 1 is 198.51.100.1:9000, server 2 is 192.0.2.1:9000"),
      ("no-connection", "network 1: no connection is active")]),
    ('[ slotTryRefreshNetwork ] get uuid is empty,d->strConnectionName= "lan"', [],
     [("refresh", 'refresh: no connection "lan" is found')]),
    ('[ setStaticIpAddr ] LocalMask error: "255.255"', LOAD,
     [("begin", "server 1 is 198.51.100.1:9000, server 2 is 192.0.2.1:9000"),
      ("netmask", 'network 1: the netmask "255.255" has not four parts: prefix length 0')]),
    (f"[ setLocalIpAuto ]  execute the cmd: {AUTO} result ", [*LOAD, *LOOKUP],
     [("set", "network 1: automatic addressing (DHCP) handed to nmcli")]),
    (f"[ setLocalIpAuto ]  execute the cmd: {AUTO} result ",
     [*LOAD, *LOOKUP, "Error: not authorised"],
     [("set", "network 1: automatic addressing (DHCP) refused by nmcli")]),
    (f"[ setLocalIpAuto ]  execute the cmd: {AUTO} result ",
     [*LOAD, *LOOKUP, "Warning: there are two"],
     [("set", "network 1: automatic addressing (DHCP) handed to nmcli")]),
    (f"[ setStaticIpAddr ]  execute the cmd: {STATIC} result ", [*LOAD, *LOOKUP],
     [("set", "network 1: static address 198.51.100.2/24, gateway 198.51.100.1, name servers "
       "198.51.100.53, 198.51.100.54 handed to nmcli")]),
    (f'[ setStaticIpAddr ]  execute the cmd: "nmcli connection modify uuid {UUID} ipv4.addresses '
     '10.0.0.2/6     connection.autoconnect yes ipv4.method manual" result ', [*LOAD, *LOOKUP],
     [("set", "network 1: static address 10.0.0.2/6 handed to nmcli")]),
    (f"[ setLocalIpAuto ]  execute the cmd: {UP} result {ACTIVATED}\n",
     [*LOAD, *LOOKUP, f"[ setLocalIpAuto ]  execute the cmd: {AUTO} result "],
     [("activate", "network 1: connection activated")]),
    (f"[ setLocalIpAuto ]  execute the cmd: {UP} result ",
     [*LOAD, *LOOKUP, f"[ setLocalIpAuto ]  execute the cmd: {AUTO} result "],
     [("activate", "network 1: connection not activated: nmcli confirmed nothing")]),
    (f"[ setLocalIpAuto ]  execute the cmd: {UP} result ",
     [*LOAD, *LOOKUP, f"[ setLocalIpAuto ]  execute the cmd: {AUTO} result ", "Error: timed out"],
     [("activate", "network 1: connection not activated")]),
    (f"[ setLocalIpAuto ]  execute the cmd: {UP} result Error: refused\n",
     [*LOAD, *LOOKUP, f"[ setLocalIpAuto ]  execute the cmd: {AUTO} result "],
     [("activate", 'network 1: connection not activated: "Error: refused"')]),
    # the buffer still has what the first command printed; the language is the user's
    (f"[ setLocalIpAuto ]  execute the cmd: {UP} result hm\nVerbindung aktiviert\n",
     [*LOAD, *LOOKUP, f"[ setLocalIpAuto ]  execute the cmd: {AUTO} result hm\n"],
     [("activate", 'network 1: connection activated: "Verbindung aktiviert"')]),
    # nmcli has refused the addressing before
    (f"[ setLocalIpAuto ]  execute the cmd: {UP} result {ACTIVATED}\n",
     [*LOAD, *LOOKUP, "Error: no", f"[ setLocalIpAuto ]  execute the cmd: {AUTO} result "],
     [("activate", "network 1: connection activated with the addressing that it had")]),
    ("[ setFirstStaticIpAddr ] run successful", [*LOAD, *applying(1)[:-1]],
     [("addressing", "network 1: addressing applied")]),
    ("[ setSecondStaticIpAddr ] run successful", [*LOAD, *turn(1), *applying(2)[:-1]],
     [("addressing", "network 2: addressing applied")]),
    ("[ setFirstStaticIpAddr ] run failed", [*LOAD, *NOT_FOUND],
     [("addressing", "network 1: addressing not applied")]),
    ('[ tryConnectRemote ] 783 trans failed, port is  "abc"', TURN,
     [("port", 'network 1: "abc" is no port number: the server is not tried')]),
    (failing(1, 1)[0], TURN,
     [("attempt", "network 1: attempt 1 of 10 at 198.51.100.1:9000 failed")]),
    (failing(1, 1)[0], [*TURN, *failing(1, 9)],
     [("attempt", "network 1: attempt 10 of 10 at 198.51.100.1:9000 failed"),
      ("probe", "network 1: 198.51.100.1:9000 not reached in 10 attempts")]),
    (reached(1)[0], TURN, []),
    (reached(1)[1], [*TURN, *failing(1, 2), reached(1)[0]],
     [("reached", "network 1: 198.51.100.1:9000 reached at attempt 3 of 10, from 192.0.2.147")]),
    (FINISHED, [*TURN, *reached(1)],
     [("search", "reached 198.51.100.1:9000 through network 1, in pass 1")]),
    (compared(1, "192.0.2.147"), LOAD,
     [("begin", "server 1 is 198.51.100.1:9000, server 2 is 192.0.2.1:9000"),
      ("address", "network 1: the device's address is 192.0.2.147, this network's is "
       "198.51.100.2")]),
    (failing(1, 1)[0], [*LOAD, compared(1, "192.0.2.147"), *applying(1)],
     [("attempt", "network 1: attempt 1 of 20 at 198.51.100.1:9000 failed")]),
    (AGAIN[-1], [*LOAD, compared(1, "192.0.2.147"), *applying(1), *failing(1, 11), *AGAIN[:-1]],
     [("reactivate", "network 1: connection activated again")]),
    (f"[ tryConnectRemote ]  cmd:  {UP} bb  result:   ",
     [*LOAD, compared(1, "192.0.2.147"), *applying(1), *failing(1, 11), *AGAIN[:-1]],
     [("reactivate", "network 1: connection not activated again: nmcli confirmed nothing")]),
    (same(1), [*LOAD, compared(1, DEVICE[1])],
     [("skip", "network 1: skipped, the device has its address 198.51.100.2 already")]),
    (same(2), [*LOAD, compared(1, ""), same(1), compared(2, "")],
     [("skip", "network 2: skipped, the device has no address")]),
    (same(1, "10.0.0.12"), [*LOAD, compared(1, "10.0.0.1", "10.0.0.12")],
     [("skip", "network 1: skipped, its address 10.0.0.12 contains the device's, 10.0.0.1")]),
    (TIME_OUT, [*LOAD, *turn(1), *turn(2)],
     [("time-limit", "the time limit of 120 s is over")]),
    ('[ excuCmd ] "popen nmcli -g connection.uuid c s \'lan\'   error."', LOAD,
     [("cannot-start", "a command could not be started: nmcli -g connection.uuid c s 'lan'")]),
    ("[ excuCmd ] Get Disk data error bacause data memery is too large.", LOAD,
     [("oversized", "a command printed more than 4095 bytes: the rest is dropped")]),
    # the reactions to links
    (CHANGED, [], [("address-change", "a link is notified as up")]),
    (BUSY, [CHANGED], [("busy", "nothing is done about it: the library counts as busy")]),
    # the refresh
    ("[ slotTryRefreshNetwork ] 144  not fresh network", [], [("refresh", "refresh: none is due")]),
    ("[ slotTryRefreshNetwork ] 170  not fresh network", [], [("refresh", "refresh: taken back")]),
    (f"[ slotTryRefreshNetwork ]  execute the cmd: {UP} result {ACTIVATED}\n", LOOKUP,
     [("refresh", f'refresh: command "nmcli connection up uuid {UUID}" prints "{ACTIVATED}"')]),
    (f"[ slotTryRefreshNetwork ]  2 execute the cmd: {UP} result ", [],
     [("refresh", f'refresh: command "nmcli connection up uuid {UUID}" prints ""')]),
]


def account(objects):
    """What is told, as (step or type, text)."""
    return [(thing["step"] if thing["type"] == "step" else thing["type"], thing["text"])
            for thing in objects if thing["type"] in ("step", *OUTCOMES)]


class TestCase(tool.TestCase):
    def log(self, lines, *options, status=0):
        """Explains the lines."""
        text = lines if isinstance(lines, str) else "".join(line + "\n" for line in lines)
        return self.expect(status, "log", *options, stdin=text)

    def objects(self, lines, status=0):
        return self.log(lines, "--json", status=status).objects

    def told(self, lines):
        return account(self.objects(lines))

    def searches(self, lines):
        return [thing for thing in self.objects(lines) if thing["type"] in OUTCOMES]

    def check_golden(self, name, text):
        path = GOLDEN / name
        if "HOPLANE_WRITE_GOLDEN" in os.environ:
            path.write_text(text, encoding="utf-8")
        self.assertEqual(text, path.read_text(encoding="utf-8"), name)


class Lines(TestCase):
    """Each line that the library can log."""

    def test_each_line_is_understood(self):
        """Nothing is unknown, and nothing is taken for somebody else's."""
        for line, before, _ in TABLE:
            with self.subTest(line=line):
                total = self.objects([*before, line], status=0)[-1]
                self.assertEqual(total["type"], "sum")
                messages = sum(text.startswith(("Error", "Warning")) for text in before)
                # A line with line breaks is one.
                self.assertEqual((total["unknown"], total["others"], total["understood"]),
                                 (0, 0, len(before) + 1 - messages))

    def test_each_line_says_what_it_means(self):
        """What the line adds to the account of those before it."""
        for line, before, expected in TABLE:
            with self.subTest(line=line):
                earlier = self.steps(before, []) if before else []
                now = self.steps([*before, line], expected)
                kept = len(now) - len(expected)
                self.assertEqual(now[kept:], expected)
                # After its two lines alone, a configuration was read for nothing.
                if earlier[-1:] != now[kept - 1:kept] and earlier[-1][0] == "configuration":
                    earlier.pop()
                self.assertEqual(now[:kept], earlier)

    def steps(self, lines, expected):
        """What is told, without the outcome that a log has at its end, unless that is expected."""
        outcome = bool(expected) and expected[0][0] in OUTCOMES
        return [thing for thing in self.told(lines) if outcome or thing[0] not in OUTCOMES]

    def test_the_table_is_complete(self):
        """Each text that the sources log stands in a line of the table."""
        statement = re.compile(r"q(?:Info|Debug|Warning|Critical)\(\)(.*?);", re.DOTALL)
        literal = re.compile(r'"((?:[^"\\]|\\.)*)"')
        named = re.compile(r'constexpr char \w+\[\] = "( (?:2 )?execute the cmd:)"')
        lines = [re.sub(r"\s+", " ", line) for line, _, _ in TABLE]
        count = 0
        for source in [path for folder in ("facade", "worker", "watcher")
                       for path in (SOURCES / folder).glob("*.cpp")]:
            text = source.read_text(encoding="utf-8")
            logged = [part for found in statement.findall(text)
                      for part in literal.findall(found)] + named.findall(text)
            # A text that is put together before.
            logged += re.findall(r'const QString text = QString\("(.*?)"\)', text)
            for part in logged:
                for piece in re.split(r"%\d", part):
                    piece = re.sub(r"\s+", " ", piece).strip()
                    count += 1
                    self.assertTrue(any(piece in line for line in lines), (source.name, piece))
        self.assertGreater(count, 50)

    def test_lines_that_are_none(self):
        """A text that the library does not log is shown as unknown, and counted."""
        for line in ("[ tryConnectRemote ] something new", "[ loadConfig ] ",
                     "[ doConnetServer ] a function that logs nothing", "[ slotFinish ] 72"):
            with self.subTest(line=line):
                objects = self.objects([NEW, line])
                unknown = [thing for thing in objects if thing.get("step") == "unknown"]
                self.assertEqual([thing["line"] for thing in unknown], [line])
                self.assertEqual(objects[-1]["unknown"], 1)
                text = self.log([NEW, line]).out
                self.assertIn("unknown line: " + line.strip(), text)
                self.assertIn("1 line not understood", text)

    def test_lines_of_others(self):
        """Lines of other programs and of the application itself are counted, and left out."""
        result = self.log([NEW, "use server 192.0.2.1 port 9000", "12: around", "[ 1.5 ] boot",
                           "[  OK  ] Started Something.", "{not JSON", '{"MESSAGE2": "x"}'])
        self.assertIn("1 line of the library; 6 lines of others left out", result.out)

    def test_control_characters(self):
        """What a terminal would obey is not passed on."""
        result = self.log(['[ networkAdd ] name "\x1b[2Jx\x07"', "[ loadConfig ] \x1b]0;title\x07"])
        self.assertNotIn("\x1b", result.out)
        self.assertNotIn("\x07", result.out)


class Searches(TestCase):
    """Whole searches, and what surrounds them."""

    def outcome(self, lines, number=0):
        return self.searches(lines)[number]

    def test_second_server(self):
        """The first server does not accept, the second one does."""
        search = self.outcome([*LOAD, *turn(1), *applying(2), *reached(2), FINISHED])
        self.assertEqual((search["outcome"], search["server"], search["network"],
                          search["passes"]), ("reached", "192.0.2.1:9000", 2, 1))
        self.assertEqual(search["networks"][0]["reason"],
                         "198.51.100.1:9000 did not accept in 10 attempts")

    def test_failed_search(self):
        """No server accepts in three passes."""
        lines = [*LOAD, *3 * [*turn(1), *turn(2)], TIME_OUT, FINISHED]
        search = self.outcome(lines)
        self.assertEqual((search["outcome"], search["passes"], search["server"]),
                         ("failed", 3, None))
        self.assertEqual([network["attempts"] for network in search["networks"]], [30, 30])
        self.assertEqual(self.log(lines).out.splitlines()[-5:-2], [
            "  failed: no server reached in 3 passes",
            "    network 1: 198.51.100.1:9000 did not accept in 30 attempts",
            "    network 2: 192.0.2.1:9000 did not accept in 30 attempts"])

    def test_why_it_failed(self):
        """nmcli refuses one network's address; the other network's port is no number."""
        message = "Error: failed to modify ipv4.addresses: invalid IP address."
        first = [*LOOKUP, message, f"[ setStaticIpAddr ]  execute the cmd: {STATIC} result ",
                 f"[ setStaticIpAddr ]  execute the cmd: {UP} result {ACTIVATED}",
                 "[ setFirstStaticIpAddr ] run successful", *failing(1, 10)]
        second = [*applying(2), '[ tryConnectRemote ] 783 trans failed, port is  "90 00"']
        search = self.outcome([*LOAD, *2 * [*first, *second], TIME_OUT, FINISHED])
        self.assertEqual([network["reason"] for network in search["networks"]], [
            "198.51.100.1:9000 did not accept in 20 attempts; its addressing failed in 2 turns, at "
            f"last: {message}",
            '"90 00" is no port number'])
        self.assertEqual(search["networks"][0]["troubles"], 2)

    def test_no_connection(self):
        """There is no connection of the name: the addressing fails, for nmcli's own reason."""
        message = "Error: lan - no such connection profile."
        lines = [*LOAD, message, *NOT_FOUND,
                 '[ setLocalIpAuto ] get uuid is empty,d->strConnectionName= "lan"',
                 "[ setFirstStaticIpAddr ] run failed", *failing(1, 10), TIME_OUT, FINISHED]
        search = self.outcome(lines)
        self.assertIn(f'at last: no connection "lan" is found: {message}',
                      search["networks"][0]["reason"])
        self.assertEqual([step for step, _ in self.told(lines)].count("no-connection"), 0)

    def test_no_address(self):
        """The device has no address, both networks are static: hundreds of thousands of lines, told
        in a few."""
        passes = 50000
        skips = [compared(1, ""), same(1), compared(2, ""), same(2)]
        lines = "\n".join([*LOAD, *passes * skips, TIME_OUT, FINISHED]) + "\n"
        objects = self.objects(lines)
        self.assertLess(len(objects), 12)
        repeated = [thing for thing in objects if "times" in thing]
        self.assertEqual([thing["times"] for thing in repeated], [2 * passes - 2])
        search = objects[-2]
        self.assertEqual((search["outcome"], search["passes"]), ("failed", passes))
        self.assertEqual([network["skipped"] for network in search["networks"]], 2 * [passes])
        self.assertIn("the device has no address", search["networks"][1]["reason"])

    def test_skipped_each_pass(self):
        """The device has the first network's address: it is skipped in the first pass only, and
        tried from then on."""
        one = [compared(1, DEVICE[2]), *turn(1, 20)]
        two = [compared(2, DEVICE[1]), *turn(2, 20)]
        lines = [*LOAD, compared(1, DEVICE[1]), same(1), *two, *one, *two, TIME_OUT, FINISHED]
        search = self.outcome(lines)
        self.assertEqual([(network["turns"], network["skipped"], network["attempts"])
                          for network in search["networks"]], [(1, 1, 20), (2, 0, 40)])
        self.assertEqual(search["passes"], 2)

    def test_lan_switch(self):
        """The LAN switch goes to 1, and the second server accepts: a re-opening, and no search."""
        lines = [switch_event(1), *LOAD, *applying(2), *failing(2, 2), *reached(2)]
        outcome = self.outcome(lines)
        self.assertEqual((outcome["type"], outcome["outcome"], outcome["state"],
                          outcome["network"]), ("reopening", "reached", 1, 2))
        self.assertIn(("begin", "state 1 selects network 2, its server is 192.0.2.1:9000"),
                      self.told(lines))
        self.assertIn("of 20", self.log(lines).out)

    def test_lan_switch_without_success(self):
        """The selected server does not accept: twenty attempts, and the application learns
        nothing."""
        outcome = self.outcome([switch_event(0), *LOAD, *turn(1, 20)])
        self.assertEqual((outcome["type"], outcome["outcome"]), ("reopening", "failed"))
        self.assertIn("the application is told nothing", outcome["text"])
        self.assertEqual(outcome["networks"][0]["attempts"], 20)

    def test_lan_switch_twice(self):
        """Two events in a row: each has its re-opening."""
        lines = [switch_event(1), switch_event(0), *LOAD, *applying(2), *reached(2), *LOAD,
                 *applying(1), *reached(1)]
        self.assertEqual([(one["state"], one["outcome"], one["network"])
                          for one in self.searches(lines)], [(1, "reached", 2), (0, "reached", 1)])

    def test_lan_switch_disabled(self):
        """The LAN switch changes while switching is disabled."""
        self.assertEqual(self.told([switch_event(1), *LOAD, switch_event(0), *LOAD]), [
            ("switch-event", "the LAN switch reports state 1"),
            ("configuration", "switching is disabled: nothing is done"),
            ("switch-event", "the LAN switch reports state 0"),
            ("configuration", "switching is disabled: nothing is done")])

    def test_search_with_an_event_that_waits(self):
        """The LAN switch changes when a search has been asked for but has not begun: what is taken
        for a re-opening at first turns out to be the search; the re-opening follows it."""
        for state, end in ((0, [*reached(1), FINISHED]), (1, [*reached(1), FINISHED]),
                           (0, [*failing(1, 10), *applying(2), *reached(2), FINISHED])):
            with self.subTest(state=state, end=end):
                network = 2 if state else 1
                lines = [switch_event(state), *LOAD, *applying(1), *end,
                         *LOAD, *applying(network), *reached(network)]
                outcomes = self.searches(lines)
                self.assertEqual([(one["type"], one["outcome"]) for one in outcomes],
                                 [("search", "reached"), ("reopening", "reached")])
                self.assertEqual(outcomes[1]["state"], state)
                self.assertEqual([one.get("search", one.get("reopening")) for one in outcomes],
                                 [1, 1])
                self.assertIn("correction", [step for step, _ in self.told(lines)])

    def test_event_during_a_search(self):
        """The LAN switch changes during a search, between two static networks: the search goes on,
        and the re-opening follows it."""
        lines = [*LOAD, compared(1, "192.0.2.147"), *applying(1), *failing(1, 3), switch_event(0),
                 *reached(1), FINISHED, *LOAD, *applying(1), *reached(1)]
        self.assertEqual([(one["type"], one["outcome"]) for one in self.searches(lines)],
                         [("search", "reached"), ("reopening", "reached")])

    def test_link_down_and_up(self):
        """A cable is pulled and plugged: a begin, and a new search."""
        lines = ["2: down eth0", *LOAD, "2: up eth0", CHANGED, *LOAD, *applying(1), *reached(1),
                 FINISHED]
        told = self.told(lines)
        self.assertEqual([step for step, _ in told[:4]],
                         ["link", "configuration", "link", "address-change"])
        self.assertIn("a switch begins, if switching is enabled", told[1][1])
        self.assertEqual(told[-1][0], "search")

    def test_several_searches(self):
        """Searches one after the other are numbered and kept apart."""
        one = [*LOAD, *applying(1), *reached(1), FINISHED]
        self.assertEqual([search["search"] for search in self.searches(3 * one)], [1, 2, 3])
        self.assertIn("3 searches in", self.log(3 * one).out)

    def test_application_started_anew(self):
        """The application ends in the middle of a search and is started again."""
        search = self.outcome([*LOAD, *applying(1), *failing(1, 4), NEW, *LOAD, *applying(1),
                               *reached(1), FINISHED])
        self.assertEqual(search["outcome"], "unfinished")
        self.assertEqual(search["text"], "no outcome: the application was started anew")

    def test_message_before_a_new_start(self):
        """What a command said before the application was started anew belongs to no later one."""
        without = "[ setLocalIpAuto ] get uuid is empty,d->strConnectionName=  \"lan\""
        lines = [*LOAD, *LOOKUP, "Error: not authorised", NEW, *LOAD, *NOT_FOUND, without,
                 f"[ {APPLY[1]} ] run failed", *failing(1, 10), TIME_OUT, FINISHED]
        self.assertEqual(self.searches(lines)[1]["networks"][0]["reason"],
                         f"{SERVERS[1]}:{PORT} did not accept in 10 attempts; its addressing "
                         "failed in 1 turn, at last: no connection \"lan\" is found")

    def test_log_that_ends(self):
        """The log ends in the middle of a search: it is told where."""
        search = self.outcome([*LOAD, *applying(1), *failing(1, 4)])
        self.assertEqual(search["text"], "no outcome: the log ends here (network 1: attempt 5 of "
                         "10 at 198.51.100.1:9000)")

    def test_log_that_begins_in_the_middle(self):
        """The log begins in the middle of a search: how many attempts a turn has is not known."""
        lines = [*failing(1, 3), *applying(2), *failing(2, 2), *reached(2), FINISHED]
        told = self.told(lines)
        self.assertEqual(told[0], ("begin", "the log begins in the middle of this"))
        self.assertIn(("attempt", "attempt 1 at 198.51.100.1:9000 failed"), told)
        self.assertIn(("reached", "network 2: 192.0.2.1:9000 reached at attempt 3, from "
                       "192.0.2.147"), told)
        search = self.outcome(lines)
        self.assertEqual((search["partial"], search["outcome"], search["network"]),
                         (True, "reached", 2))

    def test_log_that_begins_with_a_look_up(self):
        """The first line belongs to the activation after eleven attempts, or to the next turn: the
        line after the look-up tells."""
        again = self.told([*AGAIN, *failing(1, 2)])
        self.assertEqual([step for step, _ in again[:3]], ["begin", "lookup", "reactivate"])
        self.assertEqual([step for step, _ in self.told([*LOOKUP, *failing(1, 2)])[:3]],
                         ["begin", "lookup", "attempt"])

    def test_log_that_begins_before_a_reactivation(self):
        """The log begins with the last of the eleven attempts before the connection is activated
        again: the look-up belongs to that, and the turn goes on."""
        told = self.told([*failing(1, 5), *AGAIN, *failing(1, 9), *applying(2), *reached(2),
                          FINISHED])
        steps = [step for step, _ in told if step != "attempt"]
        self.assertEqual(steps[:5], ["begin", "lookup", "reactivate", "probe", "lookup"])
        self.assertIn(("probe", f"{SERVERS[1]}:{PORT} not reached in 14 attempts"), told)

    def test_fragments(self):
        """A few lines of a search, or of a re-opening: the sentences have no holes."""
        lost = "the server not reached; the attempts are not in the log"
        middle = ("begin", "the log begins in the middle of this")
        over = ("time-limit", "the time limit of 120 s is over")
        reason = "the server did not accept; the attempts are not in the log"
        skips = [same(1)] + 2 * [f"[ {TRY[1]} ] it is the same net ip adddr  \"{DEVICE[1]}\""]
        for lines, expected, reasons in (
                ([TIME_OUT], [middle, over, ("search", "failed: no server reached")],
                 [None, None]),
                ([*failing(1, 1), TIME_OUT],
                 [middle, ("attempt", f"attempt 1 at {SERVERS[1]}:{PORT} failed"),
                  ("probe", f"{SERVERS[1]}:{PORT} not reached in 1 attempt"), over,
                  ("search", "failed: no server reached")], None),
                ([f"[ {APPLY[1]} ] run successful", TIME_OUT],
                 [middle, ("addressing", "network 1: addressing applied"),
                  ("probe", "network 1: " + lost), over, ("search", "failed: no server reached")],
                 [reason, None]),
                ([switch_event(0), f"[ {APPLY[1]} ] run successful", BUSY],
                 [("switch-event", "the LAN switch reports state 0"),
                  ("begin", "state 0 selects network 1, its server is (none)"),
                  ("addressing", "network 1: addressing applied"), ("probe", "network 1: " + lost),
                  ("reopening", "the server not reached; the application is told nothing of it"),
                  ("busy", "nothing is done about it: the library counts as busy")],
                 [reason, None]),
                (skips[:2], [middle, ("skip", "network 1: skipped, the device has its address "
                                      f"{DEVICE[1]} already"),
                             ("skip", "skipped once more for the same reason"),
                             ("search", "no outcome: the log ends here (network 2: looking up the "
                              "connection)")], None),
                (skips, [middle, ("skip", "network 1: skipped, the device has its address "
                                  f"{DEVICE[1]} already"),
                         ("skip", "skipped 2 more times for the same reason"),
                         ("search", "no outcome: the log ends here (network 2: looking up the "
                          "connection)")], None)):
            with self.subTest(lines=lines):
                self.assertEqual(self.told(lines), expected)
                networks = self.searches(lines)[0]["networks"]
                if reasons:
                    self.assertEqual([network["reason"] for network in networks], reasons)

    def test_reopening_without_its_end(self):
        """The last attempts of a re-opening are not in the log, and a search follows."""
        outcomes = self.searches([switch_event(0), *LOAD, *applying(1), *failing(1, 4), *LOAD,
                                  *applying(1), *reached(1), FINISHED])
        self.assertEqual([(one["type"], one["outcome"]) for one in outcomes],
                         [("reopening", "failed"), ("search", "reached")])
        self.assertTrue(outcomes[0]["networks"][0]["attemptsMissing"])

    def test_debug_lines_left_out(self):
        """The failed attempts, which are debug lines, are not in the log."""
        lines = [*LOAD, *applying(1), *applying(2), *reached(2), FINISHED]
        told = self.told(lines)
        self.assertIn(("probe", "network 1: 198.51.100.1:9000 not reached; the attempts are not in "
                       "the log"), told)
        search = self.outcome(lines)
        self.assertTrue(search["networks"][0]["attemptsMissing"])
        self.assertEqual((search["outcome"], search["network"]), ("reached", 2))

    def test_some_attempts_left_out(self):
        """Some of the attempts are not in the log, as a journal drops lines that come too fast."""
        told = self.told([*LOAD, *applying(1), *failing(1, 4), *applying(2), *reached(2), FINISHED])
        text = "198.51.100.1:9000 not reached in 4 attempts; the others are not in the log"
        self.assertIn(("probe", "network 1: " + text), told)

    def test_only_warnings(self):
        """Only warnings and worse are in the log."""
        critical = '[ setLocalIpAuto ] get uuid is empty,d->strConnectionName= "lan"'
        self.assertEqual(self.told([critical, critical, FINISHED]), [
            ("begin", "the log begins in the middle of this"),
            ("no-connection", 'no connection "lan" is found'),
            ("no-connection", 'no connection "lan" is found'),
            ("search", "no outcome: it ended, and how is not in the log")])

    def test_lines_missing_at_the_end(self):
        """A search whose end is missing, and the next one."""
        outcomes = self.searches([*LOAD, *applying(1), *failing(1, 4), *LOAD, *applying(1),
                                  *reached(1), FINISHED])
        self.assertEqual([one["outcome"] for one in outcomes], ["unfinished", "reached"])
        self.assertIn("its end is not in the log", outcomes[0]["text"])

    def test_interleaved_threads(self):
        """Lines of the other threads stand anywhere between those of a search."""
        noise = ['[ networkChanged ] name "lan"', "2: up eth0", switch_event(0),
                 "[ networkOnline ] online false 949"]
        quiet = [*LOAD, *turn(1), *applying(2), *reached(2), FINISHED]
        mixed = [line for one in quiet for line in (one, *noise)]
        one, two = self.outcome(quiet), self.outcome(mixed)
        self.assertEqual([one[key] for key in ("outcome", "server", "passes", "networks")],
                         [two[key] for key in ("outcome", "server", "passes", "networks")])


class Times(TestCase):
    """What stands before a line, and the times that are told."""
    FORMS = ("short", "short-iso", "short-precise", "short-iso-precise", "short-monotonic",
             "short-full", "short-unix", "json")

    def timed(self, seconds):
        """A search whose turn begins at the first, with that many seconds between its steps."""
        lines = [LOAD[0], LOAD[1], *applying(1), *reached(1), FINISHED]
        moments = [seconds[0]] * 2 + [seconds[1]] * 2 + seconds[2:4] + [seconds[3]] + \
            [seconds[4]] * 3
        return list(zip(moments, lines))

    def test_journal(self):
        """The same search, as journalctl shows it in each of its forms: the same account."""
        reference = None
        for form in self.FORMS:
            with self.subTest(form=form):
                log = (GOLDEN / f"journal-{form}.log").read_text(encoding="utf-8")
                objects = self.objects(log)
                self.assertEqual(objects[-1]["others"], 5)
                self.assertEqual(objects[-1]["unknown"], 0)
                texts = account(objects[:-2])
                search = objects[-2]
                self.assertTrue(all(thing.get("process") == "failover[110]"
                                    for thing in objects[:-1]), objects)
                if reference is None:
                    reference = texts
                self.assertEqual(texts, reference)
                self.assertAlmostEqual(search["duration"], 8.7,
                                       delta=1 if form in ("short", "short-iso", "short-full")
                                       else 0.02)

    def test_golden(self):
        """Real logs, told in words."""
        for log in sorted(GOLDEN.glob("*.log")):
            with self.subTest(log=log.name):
                result = self.expect(0, "log", str(log))
                self.check_golden(log.stem + ".txt", result.out)
                self.assertEqual(result.err, "")

    def test_golden_objects(self):
        """A real log, told in objects."""
        result = self.expect(0, "log", "--json", str(GOLDEN / "second-server.log"))
        self.check_golden("second-server.json", result.out)

    def test_forms(self):
        """Times as people let Qt, a system's log or an embedded device's write them."""
        begin = datetime.datetime(2024, 3, 9, 23, 59, 58, 250000)

        def ms(moment):
            return f"{moment.microsecond // 1000:03}"
        forms = {
            "ISO": lambda m: f"{m:%Y-%m-%dT%H:%M:%S}.{ms(m)} ",
            "ISO in brackets": lambda m: f"[{m:%Y-%m-%dT%H:%M:%S}.{ms(m)}] ",
            "ISO, level, category": lambda m: f"{m:%Y-%m-%d %H:%M:%S}.{ms(m)} info default: ",
            "ISO with zone": lambda m: f"{m:%Y-%m-%dT%H:%M:%S},{ms(m)}+01:00 W ",
            "UTC": lambda m: f"{m:%Y-%m-%dT%H:%M:%S}.{ms(m)}Z ",
            "time of day": lambda m: f"{m:%H:%M:%S}.{ms(m)} ",
            "epoch in brackets": lambda m: f"[{m.timestamp():.3f}] ",
            "since the start": lambda m: f"{(m - begin).total_seconds() + 5:10.3f} ",
            "application in front": lambda m: f"{m:%Y-%m-%dT%H:%M:%S}.{ms(m)} failover(12): ",
            "syslog": lambda m: f"{m:%b %e %H:%M:%S}.{ms(m)} host failover[12]: ",
            "syslog, facility": lambda m: f"{m:%b %e %H:%M:%S}.{ms(m)} host user.info failover: ",
            "RFC 5424": lambda m: f"<14>1 {m:%Y-%m-%dT%H:%M:%S}.{ms(m)}Z host failover 12 - - ",
            "RFC 5424, data": lambda m: f"<14>1 {m:%Y-%m-%dT%H:%M:%S}.{ms(m)}+01:00 host failover "
                                        '- ID [a@1 b="[c\\]"][d@2] \ufeff',
            "RFC 5424, no level": lambda m: f"1 {m:%Y-%m-%dT%H:%M:%S}.{ms(m)}Z - failover - - -  ",
            "syslog without host": lambda m: f"{m:%b %e %H:%M:%S}.{ms(m)} user.debug failover: ",
            "syslog, ISO": lambda m: f"{m:%Y-%m-%dT%H:%M:%S}.{ms(m)}+0100 host failover[1]: ",
        }
        for name, form in forms.items():
            with self.subTest(form=name):
                lines = [form(begin + datetime.timedelta(seconds=seconds)) + line
                         for seconds, line in self.timed([0, 1, 1.5, 4, 4.5])]
                objects = self.objects(lines)
                durations = {thing["step"]: thing.get("duration") for thing in objects
                             if thing["type"] == "step"}
                self.assertEqual([durations[step] for step in ("lookup", "set", "activate",
                                                               "reached")], [1, 0.5, 2.5, 0.5])
                self.assertEqual(objects[-1]["understood"], len(lines))
                self.assertEqual(objects[-2]["durations"],
                                 {"lookups": 1, "commands": 3, "attempts": 0.5, "estimated": False})

    def test_processes_of_rfc5424(self):
        """Two processes of one program are kept apart, and named as the journal's short forms do;
        the program's name is enough where there is no number."""
        lines = [f"<14>1 2026-01-01T08:00:00Z host failover {number} - - {NEW}"
                 for number in ("12", "13", "-")]
        self.assertEqual([thing["process"] for thing in self.objects(lines)[:-1]],
                         ["failover[12]", "failover[13]", "failover"])

    def test_times_of_nobody_known(self):
        """Times that are not understood: it is not said that there are none."""
        lines = [f"21.11.2026 10:00:00 {line}" for line in [*LOAD, *turn(1)]]
        self.assertIn("The log has no times that are understood.", self.log(lines).out)

    def test_new_year(self):
        """A log without years goes on over new year, and over a leap day."""
        for first, second in (("Dec 31 23:59:58", "Jan  1 00:00:03"),
                              ("Feb 28 23:59:58", "Feb 29 00:00:03")):
            with self.subTest(first=first):
                lines = [f"{first} h app[1]: {line}" for line in [*LOAD, *applying(1)]]
                lines += [f"{second} h app[1]: {line}" for line in [*reached(1), FINISHED]]
                search = self.searches(lines)[0]
                self.assertEqual(search["duration"], 5)

    def test_zone_changed(self):
        """Summer time begins during a search: the times have their zones, so no hour is added."""
        lines = [f"2024-03-31T01:59:58+01:00 h app[1]: {line}" for line in [*LOAD, *applying(1)]]
        lines += [f"2024-03-31T03:00:03+0200 h app[1]: {line}" for line in [*reached(1), FINISHED]]
        self.assertEqual(self.searches(lines)[0]["duration"], 5)

    def test_clock_set_back(self):
        """The clock is set back by an hour during a search: that is told, and no duration is."""
        lines = [f"Mar  3 10:00:00 h app[1]: {line}" for line in [*LOAD, *applying(1)]]
        lines += [f"Mar  3 09:00:05 h app[1]: {line}" for line in [*reached(1), FINISHED]]
        search = self.searches(lines)[0]
        self.assertEqual((search["outcome"], search["duration"]), ("reached", None))
        self.assertEqual(search["text"], "reached 198.51.100.1:9000 through network 1, in pass 1; "
                         "the clock was set back meanwhile")
        self.assertIn(("clock", "the clock was set back here, from Mar  3 10:00:00 to Mar  3 "
                       "09:00:05, or lines are missing"), self.told(lines))

    def test_clock_set_back_a_little(self):
        """By more than threads exchange lines, in whole seconds: two seconds are a clock that was
        set, one is not."""
        for seconds, is_set in ((9, False), (8, True)):
            lines = [f"Mar  3 10:00:10 h app[1]: {line}" for line in [*LOAD, *applying(1)]]
            lines += [f"Mar  3 10:00:{seconds:02} h app[1]: {line}"
                      for line in [*reached(1), FINISHED]]
            self.assertEqual("clock" in [step for step, _ in self.told(lines)], is_set, seconds)

    def test_lines_out_of_order(self):
        """Threads that write at the same time exchange two lines: the clock was not set."""
        lines = [f"2026-01-01T08:00:{seconds} h app[1]: {line}" for seconds, line in zip(
            ("10", "10", "10", "10", "11", "10", "11", "11", "12", "13"),
            [*LOAD, *applying(1), *reached(1), FINISHED], strict=True)]
        self.assertNotIn("clock", [step for step, _ in self.told(lines)])

    def jumping(self, first, second):
        """A search whose clock is at the first time before its attempts, at the second after."""
        return [f"{time} h app[1]: {line}" for time, lines in (
            (first, [*LOAD, *turn(1)]), (second, [*turn(2), TIME_OUT, FINISHED]))
            for line in lines]

    def test_clock_set_forward(self):
        """The clock of a device that begins without the time is set during a search: that is told,
        it is what ended the search, and no duration is told of it."""
        for first, second in (("1970-01-01T00:00:20+0000", "2026-01-01T08:00:00+0000"),
                              ("2026-01-01T08:00:00+0000", "2026-01-01T08:02:01+0000")):
            with self.subTest(first=first):
                objects = self.objects(self.jumping(first, second))
                clock, = [thing for thing in objects if thing.get("step") == "clock"]
                self.assertEqual(clock["text"], f"the clock was set forward here, from {first} to "
                                 f"{second}, or lines are missing")
                told = account(objects)
                self.assertIn(("time-limit", "the time limit of 120 s is over, as the clock was "
                               "set forward"), told)
                search = objects[-2]
                self.assertEqual((search["duration"], search["text"]), (
                    None, "failed: no server reached in 1 pass; the clock was set forward "
                    "meanwhile"))
                self.assertLess(max(thing.get("elapsed", 0) for thing in objects), 200)
                self.assertLess(max(search["durations"].values()), 200)

    def test_clock_not_set(self):
        """A long activation, and a search long after another, are no jumps of the clock."""
        lines = self.jumping("2026-01-01T08:00:00+0000", "2026-01-01T08:02:00+0000")
        late = [line.replace("08:02:00", "23:59:00").replace("08:00:00", "23:57:00")
                for line in lines]
        for told in (self.told([*lines, *late]), self.told([*lines[:-2], *late])):
            self.assertNotIn("clock", [step for step, _ in told])
        self.assertIn("after about 120 s", self.log(lines).out)

    def test_without_times(self):
        """Attempts are reckoned with half a second each; that is said once, and nothing else is
        reckoned."""
        lines = [*LOAD, *turn(1), *applying(2), *failing(2, 3), *reached(2), FINISHED]
        text = self.log(2 * lines).out
        self.assertEqual(text.count("The log has no times that are understood."), 1)
        self.assertIn("not reached in 10 attempts  (5.0 s)", text)
        self.assertIn("reached at attempt 4 of 10, from 192.0.2.147  (2.0 s)", text)
        self.assertNotIn("activated  (", text)
        objects = self.objects(lines)
        self.assertEqual([thing["type"] for thing in objects].count("note"), 1)
        self.assertEqual(objects[-2]["durations"], {"lookups": None, "commands": None,
                                                    "attempts": 7, "estimated": True})

    def test_lines_without_a_time_among_others(self):
        """What is printed beside a log with times does not make it one without."""
        self.assertNotIn("no times", self.expect(0, "log", str(GOLDEN / "cable.log")).out)

    def test_carriage_returns(self):
        """A file that went through another system."""
        lines = [*LOAD, *turn(1), *applying(2), *reached(2), FINISHED]
        self.assertEqual(self.told("".join(line + "\r\n" for line in lines)), self.told(lines))

    def test_output_of_several_lines(self):
        """A command's output with line breaks, as a file, a journal's text and a journal's objects
        have it."""
        begin = f"[ setLocalIpAuto ]  execute the cmd: {UP} result "
        expected = ("activate", 'network 1: connection activated: "one two three"')
        bare = [*LOAD, *LOOKUP, begin + "one", "two", "three", ""]
        stamped = [f"2024-03-09T10:00:00.000 {line}" for line in [*LOAD, *LOOKUP]]
        short = [f"Nov 21 16:29:15 device failover[7]: {line}" for line in [*LOAD, *LOOKUP]]
        indented = [*short, f"Nov 21 16:29:15 device failover[7]: {begin}one",
                    " " * 36 + "two", " " * 36 + "three"]
        apart = [*short, *(f"Nov 21 16:29:15 device failover[7]: {line}"
                           for line in (begin + "one", "two", "three"))]
        followed = [*stamped, f"2024-03-09T10:00:00.000 {begin}one two three",
                    "2024-03-09T10:00:00.000 use server"]
        interleaved = apart.copy()
        interleaved.insert(-1, "Nov 21 16:29:15 device kernel: two and a half")
        stamped += [f"2024-03-09T10:00:00.000 {begin}one", "two", "three", "",
                    "2024-03-09T10:00:00.000 use server"]
        objects = [json.dumps({"MESSAGE": text, "_PID": "7", "SYSLOG_IDENTIFIER": "failover"})
                   for text in (*LOAD, *LOOKUP, begin + "one\ntwo\nthree\n", "and more")]
        for name, lines in (("bare", bare), ("indented", indented), ("apart", apart),
                            ("interleaved", interleaved), ("stamped", stamped),
                            ("followed", followed), ("objects", objects)):
            with self.subTest(form=name):
                self.assertIn(expected, self.told(lines))

    def test_two_processes(self):
        """Two processes write to one journal at the same time: each has its own account."""
        one = [f"Nov 21 16:29:15 device failover[7]: {line}"
               for line in [*LOAD, *turn(1), *applying(2), *reached(2), FINISHED]]
        two = [f"Nov 21 16:29:15 device failover[8]: {line}"
               for line in [*LOAD, *applying(1), *failing(1, 6), *reached(1), FINISHED]]
        mixed = [line for pair in zip(one, two) for line in pair]
        mixed += one[len(two):] + two[len(one):]
        objects = self.objects(mixed)
        for process, lines in (("failover[7]", one), ("failover[8]", two)):
            own = [thing for thing in objects if thing.get("process") == process]
            self.assertEqual(account(own), self.told(lines))
        text = self.log(mixed).out
        self.assertIn("\nProcess failover[7]\n", text)
        self.assertIn("\nProcess failover[8]\n", text)
        self.assertEqual(objects[-1]["processes"], 2)

    def test_message_of_a_command_of_two_processes(self):
        """nmcli writes under the application's name, with a number of its own; another program's
        message is nobody's."""
        lines = [f"Nov 21 16:29:15 device {who}: {line}" for who, line in (
            ("failover[7]", LOAD[0]), ("failover[7]", LOAD[1]), ("failover[7]", LOOKUP[0]),
            ("failover[7]", LOOKUP[1]), ("failover[9]", "Error: not authorised"),
            ("other[10]", "Error: something else"),
            ("failover[7]", f"[ setLocalIpAuto ]  execute the cmd: {AUTO} result"))]
        told = self.told(lines)
        self.assertEqual(told[-3:-1], [
            ("message", "nmcli says: Error: not authorised"),
            ("set", "network 1: automatic addressing (DHCP) refused by nmcli")])

    def test_withheld_lines(self):
        """journalctl shows the size of a long or strange message, or null: that is said."""
        short = "Nov 21 16:29:15 device failover[7]: "
        null = '{"MESSAGE": null, "_PID": "7", "SYSLOG_IDENTIFIER": "failover"}'
        new = json.dumps({"MESSAGE": NEW, "_PID": "7", "SYSLOG_IDENTIFIER": "failover"})
        for lines in ([short + NEW, short + "[5.0K blob data]"],
                      [short + NEW, short + "[14B blob data]"],
                      [short + NEW, short + "[1.2M blob data]"],
                      [short + NEW, short + "[2G blob data]"], [new, null]):
            with self.subTest(lines=lines):
                result = self.log(lines)
                self.assertIn("a line that the journal does not show", result.out)
                self.assertIn("1 line not understood", result.out)

    def test_message_as_bytes(self):
        """A journal's object has a message that is no text as a list of numbers."""
        text = '[ networkAdd ] name "caf\u00e9"'
        line = json.dumps({"MESSAGE": list(text.encode()), "_PID": "7", "_COMM": "failover"})
        self.assertEqual(self.told([line]),
                         [("network", 'network configuration "caf\u00e9" added')])


class Files(TestCase):
    """Where the lines come from."""

    def test_file_and_standard_input(self):
        """A file, standard input, and - for it."""
        path = GOLDEN / "second-server.log"
        log = path.read_text(encoding="utf-8")
        expected = self.expect(0, "log", str(path)).out
        self.assertEqual(self.expect(0, "log", "-", stdin=log).out, expected)
        self.assertEqual(self.expect(0, "log", stdin=log).out, expected)

    def test_nothing_of_the_library(self):
        """Nothing in it is the library's."""
        for text in ("", "\n\n", "hello\nworld\n", "Error: of nobody\n", "\x00\x01\xff\n",
                     "[ main ] an application's own\n"):
            with self.subTest(text=text):
                result = self.expect(1, "log", stdin=text)
                self.assertIn("standard input has no line of the library's log", result.err)

    def test_unreadable(self):
        """A file that is not there, and a folder."""
        for name, reason in (("/sandbox/home/none", "No such file"), ("/sandbox", "directory")):
            with self.subTest(name=name):
                result = self.expect(2, "log", name)
                self.assertIn(f"{name} cannot be read", result.err)
                self.assertIn(reason, result.err)

    def test_journal_file(self):
        """A journal's own file: journalctl is what reads it."""
        content = b"LPKSHHRH\x00\x00\x00\n" + NEW.encode()
        with tempfile.NamedTemporaryFile(suffix=" 1.journal") as journal:
            journal.write(content)
            journal.flush()
            result = self.expect(2, "log", journal.name)
        hint = "cannot be read: it is a journal's own file; pipe \"journalctl --file {}\""
        self.assertEqual(result.out, "")
        self.assertIn(f"{journal.name} {hint.format(repr(journal.name))}", result.err)
        for words in ([], ["-"]):
            done = subprocess.run([*tool.COMMAND, "log", *words], input=content, timeout=60,
                                  stdout=subprocess.PIPE, stderr=subprocess.PIPE, check=False)
            self.assertEqual((done.returncode, done.stdout), (2, b""))
            self.assertIn(f"standard input {hint.format('FILE')}", done.stderr.decode())

    def test_newest_first(self):
        """A journal that journalctl --reverse shows: no account is made of that."""
        for name in ("journal-short", "journal-short-monotonic", "journal-json", "second-server"):
            with self.subTest(log=name):
                lines = (GOLDEN / f"{name}.log").read_text(encoding="utf-8").splitlines()
                result = self.log(lines[::-1], status=2)
                self.assertIn("standard input has its newest lines first; journalctl without "
                              "--reverse shows them in order", result.err)
                self.assertNotIn("of the library", result.out)

    def test_newest_last(self):
        """A clock that is set back now and then does not turn a log round."""
        lines = [f"2026-01-01T08:{minute:02}:{second:02} {NEW}" for minute in (9, 6, 3, 0)
                 for second in range(3)]
        self.assertEqual(self.log(lines).err, "")

    def test_not_plain_text(self):
        """What would be text after a command says which one."""
        text = (GOLDEN / "journal-json.log").read_text(encoding="utf-8")
        pretty = json.dumps(json.loads(text.splitlines()[0]), indent=1)
        for content, hint in (
                (pretty.encode(), "journalctl -o json gives an object a line"),
                (gzip.compress(text.encode()), "it is compressed"),
                (lzma.compress(text.encode()), "it is compressed"),
                (b"\x28\xb5\x2f\xfd\x04\x00\x09", "it is compressed"),
                (text.encode("utf-16"), "it is UTF-16; iconv -f UTF-16 -t UTF-8 turns it into"),
                ("\ufeff".encode("utf-16-be") + b"\0[", "it is UTF-16; iconv")):
            with self.subTest(content=content[:8]):
                done = subprocess.run([*tool.COMMAND, "log"], input=content, timeout=60,
                                      stdout=subprocess.PIPE, stderr=subprocess.PIPE, check=False)
                self.assertEqual(done.returncode, 1)
                self.assertIn("standard input has no line of the library's log; " + hint,
                              done.stderr.decode())

    def test_file_that_begins_like_a_journal(self):
        """A first letter alone makes no journal."""
        for first in ("Log of today", "LPKSHHR", "L"):
            text = first + "\n" + NEW + "\n"
            with self.subTest(first=first), tempfile.NamedTemporaryFile("w") as log:
                log.write(text)
                log.flush()
                self.assertIn("1 line of others", self.expect(0, "log", log.name).out)
            # A pipe cannot be read from its beginning again.
            sum_ = self.expect(0, "--json", "log", "/dev/stdin", stdin=text).objects[-1]
            self.assertEqual((sum_["lines"], sum_["others"]), (2, 1))

    def test_invalid_text(self):
        """Bytes that are no text do not stop it."""
        done = subprocess.run([*tool.COMMAND, "log"], stdout=subprocess.PIPE, check=False,
                              input=b"\xff\xfe\x00\n" + NEW.encode() + b"\n" + b"\xc3", timeout=60)
        self.assertEqual(done.returncode, 0)
        self.assertIn(b"1 line of the library; 2 lines of others", done.stdout)

    def test_end_without_line_break(self):
        """The last line has no end."""
        self.assertEqual(self.told(FINISHED), self.told([FINISHED]))

    def test_byte_order_mark_and_colours(self):
        """As an editor or a terminal leaves them."""
        self.assertEqual(self.told(["\ufeff" + NEW, "\x1b[32m" + FINISHED + "\x1b[0m"]),
                         self.told([NEW, FINISHED]))

    def test_followed(self):
        """Lines that come one by one are told one by one."""
        with subprocess.Popen([*tool.COMMAND, "log"], stdin=subprocess.PIPE, encoding="utf-8",
                              stdout=subprocess.PIPE) as process:
            for line, expected in ((NEW, "takes the library into use"),
                                   ("2: down eth0", "link eth0 is down"),
                                   ("[ networkOnline ] online false 949", "offline")):
                process.stdin.write(line + "\n")
                process.stdin.flush()
                self.assertIn(expected, process.stdout.readline())
            process.stdin.close()
            self.assertEqual(process.wait(30), 0)

    def test_many_lines(self):
        """Ten times the lines take about ten times as long, however fast the machine is."""
        one = "".join(f"Nov 21 16:29:15 device failover[7]: {line}\n"
                      for line in [*LOAD, *turn(1), *applying(2), *reached(2), FINISHED])

        def spent_on(count):
            before = os.times()
            self.assertEqual(self.objects(count * one)[-1]["searches"], count)
            after = os.times()
            # Of processors: what the tool itself took.
            return after.children_user + after.children_system - (
                before.children_user + before.children_system)
        self.assertLess(spent_on(1000), 20 * spent_on(100))

    def test_usage(self):
        """Two files are one too many."""
        self.assertIn("one argument too many", self.expect(64, "log", "a", "b").err)


if __name__ == "__main__":
    tool.main()

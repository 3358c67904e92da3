# SPDX-License-Identifier: MIT
"""hoplanectl plan: that it tells exactly what the library runs, that it does nothing itself, and
what it makes of values that nobody validated. A stand-in answers for nmcli."""

import contextlib
import os
import pathlib
import platform
import re
import resource
import shlex
import signal
import socket
import subprocess
import time

import tool  # first: it tells where the laboratory is
from laboratory import add_interface

BIN, CALLS, HARM = (pathlib.Path("/sandbox/tmp", name) for name in ("bin", "calls", "harm"))
TRACE = pathlib.Path("/sandbox/tmp/trace")
APPLICATION = "laboratory"
UUID, OTHER = "3c9f1a52-77c0-4a47-9d3c-6b8f0f5f2d11", "90b0b1de-4c1e-4f64-8f6d-0f5a4d1c7a22"
SEARCHES, IDLE, USAGE = 0, 1, 64

FIRST_STATIC = {"FirstIsAutomatically": "true", "FirstLocalIp": "198.51.100.2",
                "FirstLocalMask": "255.255.255.0", "FirstLocalGateWay": "198.51.100.1",
                "FirstPreferredDNS": "198.51.100.53", "FirstSpareDNS": "198.51.100.54"}
SECOND_STATIC = {"SecondIsAutomatically": "true", "SecondLocalIp": "192.0.2.2",
                 "SecondLocalMask": "255.255.255.0", "SecondLocalGateWay": "192.0.2.1",
                 "SecondPreferredDNS": "192.0.2.53", "SecondSpareDNS": "192.0.2.54"}
BOTH_AUTOMATIC = {"SwitchEnable": "true", "connectionName": "lan",
                  "FirstServerIp": "198.51.100.1", "FirstServerPort": "9000",
                  "FirstIsAutomatically": "false",
                  "SecondServerIp": "192.0.2.1", "SecondServerPort": "9001",
                  "SecondIsAutomatically": "false"}
BOTH_STATIC = BOTH_AUTOMATIC | FIRST_STATIC | SECOND_STATIC

LOOK_UP = "nmcli -g connection.uuid c s 'lan' "
LOOK_UP_ACTIVE = "nmcli -f uuid connection show -active |awk 'NR ==1 {next} {print $1}'"
UP = f"nmcli connection up uuid {UUID} "
AUTOMATIC = (f"nmcli connection modify uuid {UUID} ipv4.address '' ipv4.gateway '' ipv4.dns ''"
             "  ipv4.method auto ")
STATIC_1 = (f"nmcli connection modify uuid {UUID} ipv4.addresses 198.51.100.2/24 ipv4.gateway "
            "198.51.100.1  ipv4.dns 198.51.100.53,198.51.100.54 connection.autoconnect yes "
            "ipv4.method manual")
STATIC_2 = (f"nmcli connection modify uuid {UUID} ipv4.addresses 192.0.2.2/24 ipv4.gateway "
            "192.0.2.1  ipv4.dns 192.0.2.53,192.0.2.54 connection.autoconnect yes "
            "ipv4.method manual")
BY_DHCP, BY_STATIC_1, BY_STATIC_2 = ([LOOK_UP, change, UP]
                                     for change in (AUTOMATIC, STATIC_1, STATIC_2))
AGAIN = [LOOK_UP, UP]


def nmcli(output="", status=0, error="", shell=""):
    """Writes the stand-in for nmcli, which notes how it was called."""
    BIN.mkdir(exist_ok=True)
    program = BIN / "nmcli"
    program.write_text(f"""#!/bin/sh
printf '%s\\037' "$@" >> {CALLS}
echo >> {CALLS}
{shell}
printf '%s\\n' {shlex.quote(error)} >&2
printf %b {shlex.quote(output)}
exit {status}
""", encoding="utf-8")
    program.chmod(0o755)


def questions(*look_up, automatic=True):
    """What nmcli is asked: the look-up, and the time of a network that is automatic."""
    return [[*look_up]] + automatic * [["-g", "ipv4.dhcp-timeout", "connection", "show", "uuid",
                                        UUID]]


def calls():
    """The arguments of each call of nmcli."""
    if not CALLS.exists():
        return []
    return [line.split("\x1f")[:-1] for line in CALLS.read_text("utf-8").splitlines()]


def ip(*arguments):
    subprocess.run(["ip", *arguments], check=True)


def processor_seconds():
    """What the programs that have ended have used of the processor."""
    usage = resource.getrusage(resource.RUSAGE_CHILDREN)
    return usage.ru_utime + usage.ru_stime


def traced(calls_to_trace, *command):
    return ["strace", "-f", "-qq", "-xx", "-s", "9999", "-o", str(TRACE),
            "-e", f"trace={calls_to_trace}", *command]


def unhex(text):
    return bytes.fromhex(text.replace("\\x", "")).decode()


def executed():
    """The arguments of each program that was run under strace."""
    found = []
    for line in TRACE.read_text("ascii").splitlines():
        if match := re.search(r' execve\("[^"]*", \[(.*?)\], .* = 0$', line):
            found.append([unhex(word) for word in re.findall(r'"([^"]*)"', match[1])])
    return found


class Planned:
    """The objects of a run, in an order to compare them with."""

    def __init__(self, objects):
        self.plan, *rest = objects
        self.networks = [found for found in rest if found["type"] == "network"]
        self.commands = [found for found in rest if found["type"] == "command"]

    def turns(self, when):
        """Of each turn of the pass: the network, its command lines, and the attempts."""
        return [(network["network"],
                 [found["command"] for found in self.commands
                  if (found["pass"], found["turn"]) == (when, network["turn"])],
                 network["attempts"])
                for network in self.networks if network["pass"] == when]

    def passes(self):
        return list(dict.fromkeys(network["pass"] for network in self.networks))

    def warnings(self):
        return self.plan["warnings"] + [warning for network in self.networks
                                        for warning in network["warnings"]]


class PlanCase(tool.TestCase):
    def setUp(self):
        super().setUp()
        os.environ["PATH"] = f"{BIN}:/usr/sbin:/usr/bin:/sbin:/bin"
        for path in (CALLS, HARM):
            path.unlink(missing_ok=True)
        nmcli(UUID + "\\n")

    def plan(self, values, status=SEARCHES, **options):
        tool.write(APPLICATION, values)
        result = self.expect(status, "--json", "plan", **options)
        self.assertEqual("", result.err)
        return Planned(result.objects)

    def text(self, values, status=SEARCHES):
        tool.write(APPLICATION, values)
        result = self.expect(status, "plan")
        self.assertEqual("", result.err)
        return result.out

    def give_address(self, address, name="eth0"):
        add_interface(self.addCleanup, name, address)


class Commands(PlanCase):
    """On a processor that is no ARM, as the one that builds."""

    def test_both_networks_automatic(self):
        plan = self.plan(BOTH_AUTOMATIC)
        self.assertEqual(["each"], plan.passes())
        self.assertEqual([(1, BY_DHCP, 10), (2, BY_DHCP, 10)], plan.turns("each"))

    def test_the_first_one_static(self):
        plan = self.plan(BOTH_AUTOMATIC | FIRST_STATIC)
        self.assertEqual([(1, BY_STATIC_1, 10), (2, BY_DHCP, 10)], plan.turns("each"))
        self.assertFalse(plan.plan["exchanged"])

    def test_only_the_second_one_static(self):
        plan = self.plan(BOTH_AUTOMATIC | SECOND_STATIC)
        self.assertEqual([(2, BY_STATIC_2, 10), (1, BY_DHCP, 10)], plan.turns("each"))
        self.assertTrue(plan.plan["exchanged"])
        self.assertEqual(["192.0.2.1:9001"], plan.networks[0]["targets"])
        self.assertEqual(["198.51.100.1:9000"], plan.networks[1]["targets"])

    def test_only_the_second_one_static_and_one_server_in_both(self):
        same = {"SecondServerIp": "198.51.100.1", "SecondServerPort": "9000"}
        plan = self.plan(BOTH_AUTOMATIC | SECOND_STATIC | same)
        self.assertEqual([(2, BY_STATIC_2, 10), (1, BY_DHCP, 10)], plan.turns("each"))
        self.assertTrue(plan.plan["exchanged"])

    def test_both_static(self):
        self.give_address("203.0.113.2/24")
        plan = self.plan(BOTH_STATIC)
        self.assertEqual(["each"], plan.passes())
        self.assertEqual([(1, BY_STATIC_1 + AGAIN, 20), (2, BY_STATIC_2 + AGAIN, 20)],
                         plan.turns("each"))
        self.assertEqual(2 * [("look-up", 0), ("change", 0), ("activation", 0),
                              ("look-up", 11), ("activation", 11)],
                         [(found["purpose"], found["afterAttempts"]) for found in plan.commands])

    def test_variants_of_static_addressing(self):
        def changed(old, new):
            return STATIC_1.replace(old, new)
        for values, change in (
                ({"FirstLocalGateWay": ""},
                 changed("ipv4.gateway 198.51.100.1", "")),
                ({"FirstSpareDNS": ""}, changed(",198.51.100.54", "")),
                ({"FirstPreferredDNS": ""}, changed("198.51.100.53,", "")),
                ({"FirstPreferredDNS": "", "FirstSpareDNS": ""},
                 changed("ipv4.dns 198.51.100.53,198.51.100.54", "")),
                ({"FirstLocalMask": "255.0.0.0"}, changed("/24", "/6")),
                ({"FirstLocalMask": "255.255.255.252"}, changed("/24", "/30")),
                ({"FirstLocalMask": "24"}, changed("/24", "/0")),
                ({"FirstLocalIp": ""}, changed("198.51.100.2/", "/"))):
            with self.subTest(values):
                plan = self.plan(BOTH_AUTOMATIC | FIRST_STATIC | values)
                self.assertEqual([LOOK_UP, change, UP], plan.turns("each")[0][1])

    def test_the_active_connection(self):
        nmcli(f"UUID                                  \\n{UUID}  \\n")
        plan = self.plan(BOTH_AUTOMATIC | {"connectionName": ""})
        by_dhcp = [LOOK_UP_ACTIVE, AUTOMATIC, UP]
        self.assertEqual([(1, by_dhcp, 10), (2, by_dhcp, 10)], plan.turns("each"))
        self.assertEqual(questions("-f", "uuid", "connection", "show", "-active"), calls())
        self.assertEqual((UUID, False, []), (plan.plan["uuid"], plan.plan["placeholder"],
                                             plan.warnings()))

    def test_names_of_connections(self):
        for name in ("Wired connection 1", "lan; true", "$(touch /sandbox/tmp/harm)", "`x`", "%1",
                     "%2%1", "Büro", "a\\\\b", "--help", "id", " lan", '\\"lan\\"'):
            with self.subTest(name):
                CALLS.unlink(missing_ok=True)
                plan = self.plan(BOTH_AUTOMATIC | {"connectionName": f'"{name}"'})
                real = name.replace('\\"', '"').replace("\\\\", "\\")
                self.assertEqual(f"nmcli -g connection.uuid c s '{real}' ",
                                 plan.commands[0]["command"])
                self.assertEqual(questions("-g", "connection.uuid", "c", "s", real), calls())
                self.assertEqual((real, UUID), (plan.plan["connection"], plan.plan["uuid"]))
                self.assertFalse(HARM.exists())

    def test_a_name_is_utf8_in_any_locale(self):
        plan = self.plan(BOTH_AUTOMATIC | {"connectionName": "Büro"}, environment={"LC_ALL": "C"})
        self.assertEqual(questions("-g", "connection.uuid", "c", "s", "Büro"), calls())
        self.assertEqual("nmcli -g connection.uuid c s 'Büro' ", plan.commands[0]["command"])


class RealSearches(PlanCase):
    """The library's own searches, by an application under strace: they run what was planned."""

    def search(self, success):
        """Runs a search until it signals the success; returns its commands and failed attempts."""
        build = pathlib.Path(tool.COMMAND[-1]).parents[2]
        program = str(build / "tests/lab/application/lab_application")
        search = subprocess.Popen(traced("execve", program), stdin=subprocess.PIPE,
                                  stdout=subprocess.PIPE, stderr=subprocess.DEVNULL,
                                  encoding="utf-8", start_new_session=True)
        with search:
            try:
                search.stdin.write("start\n")
                search.stdin.flush()
                failures = 0
                for line in search.stdout:
                    failures += "connect to host fail" in line
                    if f" signal switchSuccess {success}" in line:
                        break
                else:
                    self.fail("the application ends before it finds the server")
            finally:
                os.killpg(search.pid, signal.SIGKILL)
        commands = [arguments[-1] for arguments in executed() if arguments[:2] == ["sh", "-c"]]
        return commands, failures

    @contextlib.contextmanager
    def servers(self, values):
        """The first one tried refuses, the other accepts."""
        with socket.socket() as refuses, socket.socket() as accepts:
            refuses.bind(("127.0.0.2", 0))
            accepts.bind(("127.0.0.3", 0))
            accepts.listen(5)
            swapped = "SecondLocalIp" in values and "FirstLocalIp" not in values
            halves = ("Second", "First") if swapped else ("First", "Second")
            for half, server in zip(halves, (refuses, accepts)):
                address, port = server.getsockname()
                values |= {f"{half}ServerIp": address, f"{half}ServerPort": str(port)}
            yield values, "{} {}".format(*accepts.getsockname())

    def compare(self, values):
        with self.servers(dict(values)) as (values, success):
            plan = self.plan(values)
            commands, failures = self.search(success)
        (_, first, attempts), (_, second, _) = plan.turns(plan.passes()[0])
        # The second server accepts at once, so nothing is activated again.
        self.assertEqual(first + second[:3], commands)
        self.assertEqual(attempts, failures)
        return commands

    def test_the_second_static_one_goes_first(self):
        commands = self.compare(BOTH_AUTOMATIC | SECOND_STATIC
                                | {"connectionName": "Büro $(touch /sandbox/tmp/harm) 1",
                                   "SecondLocalMask": "255.0.0.0", "SecondLocalGateWay": ""})
        self.assertEqual(6, len(commands))

    def test_both_static_so_that_the_connection_is_activated_again(self):
        self.give_address("203.0.113.2/24")
        self.assertEqual(8, len(self.compare(BOTH_STATIC)))

    def test_the_device_is_on_the_first_one_already(self):
        self.give_address("198.51.100.2/24")
        self.assertEqual(3, len(self.compare(BOTH_STATIC)))

    def test_no_connection_has_the_name(self):
        nmcli(status=10, error="Error: lan - no such connection profile.")
        self.assertEqual([LOOK_UP, LOOK_UP], self.compare(BOTH_AUTOMATIC))

    def test_nmcli_explains_itself_instead_of_answering(self):
        nmcli("Usage: nmcli connection show [help]\\n\\n  a:b  \\n")
        self.assertIn("nmcli connection up uuid Usage: nmcli connection show [help] a:b ",
                      self.compare(BOTH_AUTOMATIC | {"connectionName": "help"}))

    def test_several_connections_are_active(self):
        nmcli(f"UUID\\n{UUID}  \\n{OTHER}  \\n")
        commands = self.compare(BOTH_AUTOMATIC | {"connectionName": ""})
        self.assertEqual(LOOK_UP_ACTIVE, commands[0])
        self.assertEqual(f"nmcli connection up uuid {UUID} {OTHER} ", commands[2])


class Skipped(PlanCase):
    RUN_1, RUN_2 = (1, BY_STATIC_1 + AGAIN, 20), (2, BY_STATIC_2 + AGAIN, 20)
    SKIP_1, SKIP_2 = (1, [], 0), (2, [], 0)

    def skipped(self, plan):
        return [(network["pass"], network["network"], network["deviceAddress"])
                for network in plan.networks if network["skipped"]]

    def test_the_device_is_on_the_first_network(self):
        self.give_address("198.51.100.2/24")
        plan = self.plan(BOTH_STATIC)
        self.assertEqual(["first", "later"], plan.passes())
        self.assertEqual([self.SKIP_1, self.RUN_2], plan.turns("first"))
        self.assertEqual([self.RUN_1, self.RUN_2], plan.turns("later"))
        self.assertEqual([("first", 1, "198.51.100.2")], self.skipped(plan))

    def test_the_device_is_on_the_second_network(self):
        self.give_address("192.0.2.2/24")
        plan = self.plan(BOTH_STATIC)
        # It leaves it for the first one.
        self.assertEqual(["each"], plan.passes())
        self.assertEqual([self.RUN_1, self.RUN_2], plan.turns("each"))
        self.assertEqual([], self.skipped(plan))

    def test_a_network_whose_address_begins_with_the_devices(self):
        self.give_address("192.0.2.2/24")
        plan = self.plan(BOTH_STATIC | {"FirstLocalIp": "192.0.2.20",
                                        "SecondLocalIp": "203.0.113.2"})
        self.assertEqual([("first", 1, "192.0.2.2")], self.skipped(plan))

    def test_the_device_has_no_address(self):
        plan = self.plan(BOTH_STATIC)
        self.assertEqual(["each", "addressed"], plan.passes())
        self.assertEqual([self.SKIP_1, self.SKIP_2], plan.turns("each"))
        self.assertEqual([("each", 1, ""), ("each", 2, "")], self.skipped(plan))
        self.assertEqual([self.RUN_1, self.RUN_2], plan.turns("addressed"))
        self.assertIn("as the device is now, a search tries nothing and fails after its 120 s",
                      plan.plan["warnings"])

    def test_the_same_address_in_both(self):
        self.give_address("203.0.113.2/24")
        plan = self.plan(BOTH_STATIC | {"SecondLocalIp": "198.51.100.2"})
        self.assertEqual(["first", "later"], plan.passes())
        self.assertEqual([self.RUN_1, self.SKIP_2], plan.turns("first"))
        self.assertEqual([self.SKIP_1, self.SKIP_2], plan.turns("later"))
        self.assertIn("from the second pass on a search tries nothing, and fails after its 120 s",
                      plan.plan["warnings"])

    def test_a_device_that_cannot_be_changed_stays_where_it_is(self):
        nmcli(status=10)
        self.give_address("198.51.100.2/24")
        plan = self.plan(BOTH_STATIC)
        self.assertEqual(["each"], plan.passes())
        self.assertEqual([("each", 1, "198.51.100.2")], self.skipped(plan))
        # The activation after the eleventh failure is run without any UUID.
        self.assertEqual([LOOK_UP, LOOK_UP, "nmcli connection up uuid  "],
                         plan.turns("each")[1][1])

    def test_the_text_tells_of_an_address_that_contains_the_devices(self):
        self.give_address("192.0.2.2/24")
        text = self.text(BOTH_STATIC | {"FirstLocalIp": "192.0.2.20",
                                        "SecondLocalIp": "203.0.113.2"})
        self.assertIn("     skipped, because its address 192.0.2.20 contains the device's: "
                      "192.0.2.2\n", text)
        self.assertNotIn("has its address", text)

    def test_an_address_that_does_not_count(self):
        """Once the device has a link-local address only, it has none for the library."""
        self.give_address("203.0.113.2/24")
        plan = self.plan(BOTH_STATIC | {"FirstLocalIp": "169.254.7.2",
                                        "FirstLocalMask": "255.255.0.0"})
        self.assertEqual(["first", "later"], plan.passes())
        self.assertEqual(([], 0), plan.turns("first")[1][1:])
        self.assertEqual([self.SKIP_1, self.SKIP_2], plan.turns("later"))
        self.assertEqual([("first", 2, ""), ("later", 1, ""), ("later", 2, "")],
                         self.skipped(plan))

    def test_an_automatic_network_is_never_skipped(self):
        self.give_address("198.51.100.2/24")
        plan = self.plan(BOTH_AUTOMATIC | FIRST_STATIC)
        self.assertEqual([(1, BY_STATIC_1, 10), (2, BY_DHCP, 10)], plan.turns("each"))

    def test_the_text_tells_why(self):
        self.assertEqual(2, self.text(BOTH_STATIC).count(
            "     skipped, because the device has no address\n"))
        self.give_address("198.51.100.2/24")
        self.assertIn("\nThe first pass\n  1. network 1: server 198.51.100.1:9000; static address "
                      "198.51.100.2/24, gateway 198.51.100.1, name servers 198.51.100.53, "
                      "198.51.100.54\n     skipped, because the device has its address: "
                      "198.51.100.2\n", self.text(BOTH_STATIC))


class SecondInterface(PlanCase):
    """Another interface has an address too; the library takes the last one of all."""
    RUN_1, RUN_2, SKIP_1, SKIP_2 = Skipped.RUN_1, Skipped.RUN_2, Skipped.SKIP_1, Skipped.SKIP_2
    ASK = ["-g", "connection.interface-name,GENERAL.DEVICES", "connection", "show", "uuid", UUID]

    def connection_on(self, *lines):
        text = "\\n".join(lines)
        nmcli(UUID + "\\n", shell=f'case "$*" in *GENERAL*) printf "{text}\\n"; exit 0;; esac')

    def plan_with(self, second, **values):
        return self.plan(BOTH_STATIC | {"SecondLocalIp": second, **values})

    def found(self, plan):
        return [network["deviceAddress"] for network in plan.networks]

    def test_behind_the_connections_own(self):
        self.give_address("203.0.113.2/24")
        self.give_address("192.0.2.5/24", "wlan0")
        for lines in (("", "eth0"), ("eth0",), ("eth0", "", "eth0"), ("eth9", "eth0")):
            self.connection_on(*lines)
            plan = self.plan_with("192.0.2.50")
            self.assertEqual(["each"], plan.passes())
            self.assertEqual([self.RUN_1, self.SKIP_2], plan.turns("each"))
            self.assertEqual(2 * ["192.0.2.5"], self.found(plan))
        self.assertEqual(self.ASK, calls()[-1])

    def test_before_the_connections_own(self):
        self.give_address("192.0.2.5/24", "wlan0")
        self.give_address("203.0.113.2/24")
        self.connection_on("eth0")
        plan = self.plan(BOTH_STATIC)
        self.assertEqual((["each"], [self.RUN_1, self.RUN_2]),
                         (plan.passes(), plan.turns("each")))
        self.assertEqual(["203.0.113.2", "198.51.100.2"], self.found(plan))
        # It is the last one when the connection's address does not count.
        plan = self.plan_with("192.0.2.50", FirstLocalIp="169.254.7.2",
                              FirstLocalMask="255.255.0.0")
        self.assertEqual(["203.0.113.2", "192.0.2.5"], self.found(plan))
        self.assertEqual(self.SKIP_2, plan.turns("each")[1])

    def test_where_it_makes_no_difference_nobody_asks(self):
        self.give_address("203.0.113.2/24")
        self.plan(BOTH_AUTOMATIC | SECOND_STATIC)
        self.assertEqual(questions("-g", "connection.uuid", "c", "s", "lan"), calls())


class Uuid(PlanCase):
    PLACEHOLDER = [LOOK_UP, AUTOMATIC.replace(UUID, "UUID-OF-lan"), UP.replace(UUID, "UUID-OF-lan")]

    def expect_placeholder(self, reason, values=BOTH_AUTOMATIC, name="UUID-OF-lan", **options):
        plan = self.plan(values, **options)
        self.assertEqual((name, True), (plan.plan["uuid"], plan.plan["placeholder"]))
        warning = plan.plan["warnings"][0]
        self.assertTrue(warning.startswith(f"{name} is a placeholder for the UUID: "), warning)
        self.assertIn(reason, warning)
        return plan

    def test_nmcli_answers(self):
        plan = self.plan(BOTH_AUTOMATIC)
        self.assertEqual((UUID, False, []),
                         (plan.plan["uuid"], plan.plan["placeholder"], plan.warnings()))

    def test_nmcli_is_not_there(self):
        plan = self.expect_placeholder("nmcli cannot be run",
                                       environment={"PATH": "/nonexistent"})
        self.assertEqual([(1, self.PLACEHOLDER, 10), (2, self.PLACEHOLDER, 10)],
                         plan.turns("each"))

    def test_networkmanager_is_not_there(self):
        nmcli(status=8, error="Error: NetworkManager is not running.")
        plan = self.expect_placeholder("Error: NetworkManager is not running.")
        self.assertEqual(self.PLACEHOLDER, plan.turns("each")[0][1])

    def test_nmcli_reads_nothing(self):
        """What the tool itself may read is not for nmcli."""
        read = pathlib.Path("/sandbox/tmp/read")
        read.unlink(missing_ok=True)
        nmcli(UUID + "\\n", shell=f"cat >>{read}")
        self.plan(BOTH_AUTOMATIC, stdin="the user's\n")
        self.assertEqual("", read.read_text("utf-8"))

    def test_networkmanager_hangs(self):
        # The other one has nothing more to say.
        for hangs in ("exec sleep 1000", "exec sleep 1000 >&- 2>&-"):
            with self.subTest(hangs):
                nmcli(UUID, shell=hangs)
                begin, busy = time.monotonic(), processor_seconds()
                self.expect_placeholder("nmcli has no answer after 5 s")
                self.assertLess(time.monotonic() - begin, 20)
                self.assertLess(processor_seconds() - busy, 2.5)

    def test_placeholders_of_names(self):
        nmcli(status=8)
        for name, placeholder in (("Wired connection 1", "UUID-OF-Wired-connection-1"),
                                  ("Büro", "UUID-OF-B-ro"), ("", "ID-OF-THE-ACTIVE-CONNECTION"),
                                  ("UUID", "UUID-OF-UUID"), ("a;$(b)", "UUID-OF-a-b-")):
            with self.subTest(name):
                self.expect_placeholder("", BOTH_AUTOMATIC | {"connectionName": f'"{name}"'},
                                        placeholder)

    def test_a_name_that_the_shell_takes_apart_is_not_asked_for(self):
        name = "x' ; touch /sandbox/tmp/harm; '"
        plan = self.expect_placeholder("the connection's name ends the shell's quotes",
                                       BOTH_AUTOMATIC | {"connectionName": f'"{name}"'},
                                       "UUID-OF-x-touch-sandbox-tmp-harm-")
        self.assertEqual(f"nmcli -g connection.uuid c s '{name}' ", plan.commands[0]["command"])
        self.assertEqual([], calls())
        self.assertFalse(HARM.exists())

    def test_a_name_that_ends_the_command_is_not_asked_for(self):
        plan = self.expect_placeholder("the connection's name ends the shell's quotes",
                                       BOTH_AUTOMATIC | {"connectionName": r'"a\x0"'}, "UUID-OF-a-")
        self.assertEqual(("nmcli -g connection.uuid c s 'a", []),
                         (plan.commands[0]["command"], calls()))
        self.assertIn("contains a control character", plan.plan["warnings"][1])

    def test_there_is_no_such_connection(self):
        nmcli(status=10, error="Error: lan - no such connection profile.")
        plan = self.plan(BOTH_AUTOMATIC)
        self.assertEqual([(1, [LOOK_UP], 10), (2, [LOOK_UP], 10)], plan.turns("each"))
        self.assertEqual(["there is no connection lan: the library changes nothing"],
                         plan.warnings())

    def test_no_connection_is_active(self):
        nmcli("UUID  \\n")
        plan = self.plan(BOTH_AUTOMATIC | {"connectionName": ""})
        self.assertEqual([(1, [LOOK_UP_ACTIVE], 10), (2, [LOOK_UP_ACTIVE], 10)],
                         plan.turns("each"))
        self.assertEqual(["no connection is active: the library changes nothing"], plan.warnings())

    def test_several(self):
        for name, output in (("lan", f"{UUID}\\n\\n{OTHER}\\n"),
                             ("", f"UUID\\n{UUID}\\n{OTHER}\\n")):
            with self.subTest(name):
                nmcli(output)
                plan = self.plan(BOTH_AUTOMATIC | {"connectionName": name})
                self.assertEqual(f"{UUID} {OTHER}", plan.plan["uuid"])
                self.assertEqual(UP.replace(UUID, f"{UUID} {OTHER}"),
                                 plan.commands[2]["command"])
                self.assertEqual(["the look-up finds several UUIDs; nmcli will refuse the commands "
                                  "that have them all"], plan.warnings())


class Values(PlanCase):
    """What nobody has validated: told exactly, with a warning, and never given to a shell."""

    def test_what_the_shell_does_not_take_as_one_word(self):
        for character in "'\"`$;|&<>()*?[]{}~#! ":
            value = f"1{character}touch"
            escaped = value.replace('"', '\\"')
            for key in ("FirstLocalIp", "FirstLocalGateWay", "FirstPreferredDNS", "FirstSpareDNS"):
                with self.subTest(key=key, value=value):
                    plan = self.plan(BOTH_AUTOMATIC | FIRST_STATIC | {key: f'"{escaped}"'})
                    shown = "a blank" if character == " " else character
                    self.assertEqual([f'"{value}" contains {shown}: the shell that runs the '
                                      "commands may make something else of it"],
                                     plan.networks[0]["warnings"])
                    self.assertIn(value, plan.commands[1]["command"])

    def test_what_it_does_take(self):
        for value in ("10.0.0.1", "fe80::1", "a_b-c.d,e", "ä", "1/2", "50%"):
            with self.subTest(value):
                plan = self.plan(BOTH_AUTOMATIC | FIRST_STATIC | {"FirstLocalGateWay":
                                                                  f'"{value}"'})
                self.assertEqual([], plan.warnings())

    def test_addressing_that_is_not_applied_is_not_warned_of(self):
        plan = self.plan(BOTH_AUTOMATIC | {"FirstLocalIp": "a;b", "FirstLocalGateWay": "$x"})
        self.assertEqual([], plan.warnings())

    def test_a_control_character_does_not_reach_the_terminal(self):
        values = BOTH_AUTOMATIC | FIRST_STATIC | {"FirstLocalIp": '"1\\n2"',
                                                  "connectionName": '"a\\x1b[31mb"'}
        plan = self.plan(values)
        self.assertIn("ipv4.addresses 1\n2/24 ", plan.commands[1]["command"])
        self.assertIn("\x1b[31m", plan.commands[0]["command"])
        text = self.text(values)
        self.assertIn("ipv4.addresses 1\\u000a2/24 ", text)
        self.assertIn("c s 'a\\u001b[31mb' ", text)
        self.assertNotIn("\x1b", text)
        self.assertEqual(1, text.count("contains a control character: the shell that runs"), text)

    def test_what_nmcli_prints_is_a_value_too(self):
        nmcli("$(touch /sandbox/tmp/harm)")
        self.assertIn('"$(touch /sandbox/tmp/harm)" contains $: the shell that runs the commands '
                      "may make something else of it", self.plan(BOTH_AUTOMATIC).warnings())
        self.assertFalse(HARM.exists())

    def test_a_percent_sign_that_the_library_replaces(self):
        plan = self.plan(BOTH_AUTOMATIC | FIRST_STATIC | {"FirstLocalIp": "%4"})
        self.assertIn("ipv4.addresses ipv4.gateway 198.51.100.1/24 ", plan.commands[1]["command"])

    def test_commands_that_are_too_long(self):
        plan = self.plan(BOTH_AUTOMATIC | FIRST_STATIC | {"FirstLocalGateWay": "1" * 5000})
        self.assertEqual([(1, [LOOK_UP, UP], 10), (2, BY_DHCP, 10)], plan.turns("each"))
        self.assertEqual(["a value makes a command longer than the library's may be; it is not "
                          "run"], plan.warnings())
        plan = self.plan(BOTH_AUTOMATIC | {"connectionName": "n" * 5000})
        self.assertEqual([(1, [], 10), (2, [], 10)], plan.turns("each"))
        self.assertEqual(["the connection's name makes the look-up longer than the library's "
                          "commands may be; it is not run, and nothing is changed"],
                         plan.warnings())

    def test_servers(self):
        never = "server {} is never tried: its port is no number"
        for ip_text, port, attempts, targets, warning in (
                ("192.0.2.9", "x", 0, [], never.format("192.0.2.9:x")),
                ("192.0.2.9", "", 0, [], never.format("192.0.2.9:(none)")),
                ("192.0.2.9", "65536", 0, [], never.format("192.0.2.9:65536")),
                ("192.0.2.9", "0", 10, ["192.0.2.9:0"], None),
                ("192.0.2.9", "08", 10, ["192.0.2.9:8"],
                 "server 192.0.2.9:08 is taken for 192.0.2.9:8"),
                ("127.1", "80", 10, ["127.0.0.1:80"],
                 "server 127.1:80 is taken for 127.0.0.1:80"),
                ("server.invalid", "80", 10, [],
                 "server server.invalid:80 is no IPv4 address: each attempt also waits until the "
                 'name "server.invalid" is resolved, or is not')):
            with self.subTest(server=f"{ip_text}:{port}"):
                plan = self.plan(BOTH_AUTOMATIC | {"SecondServerIp": ip_text,
                                                   "SecondServerPort": port})
                second = plan.networks[1]
                self.assertEqual((attempts, targets, [warning] if warning else []),
                                 (second["attempts"], second["targets"], second["warnings"]))


# A file that the thread sanitizer makes and removes at once, as strace shows it.
SANITIZERS = "".join(f"\\x{byte:02x}" for byte in b"/tsan.rodata.")


class Effects(PlanCase):
    WATCHED = ("execve,connect,bind,sendto,sendmsg,openat,creat,rename,renameat2,unlink,unlinkat,"
               "mkdir,mkdirat,link,linkat,symlink,chmod,fchmod,fchmodat,truncate,ftruncate,ioctl,"
               "nanosleep,clock_nanosleep")

    def trace(self, values):
        # Leaks cannot be looked for under strace.
        tool.write(APPLICATION, values)
        before = self.files()
        done = subprocess.run(traced(self.WATCHED, *tool.COMMAND, "--json", "plan"), check=False,
                              stdout=subprocess.PIPE, stderr=subprocess.PIPE, encoding="utf-8",
                              env=os.environ | {"ASAN_OPTIONS": "detect_leaks=0"})
        self.assertEqual((SEARCHES, ""), (done.returncode, done.stderr))
        self.assertEqual(before, self.files())
        return TRACE.read_text("ascii").splitlines()

    @staticmethod
    def files():
        return {path: (path.stat().st_mtime_ns if path.is_file() else 0, path.stat().st_ino,
                       path.stat().st_mode)
                for path in pathlib.Path("/sandbox").rglob("*") if path != TRACE}

    def setUp(self):
        super().setUp()
        TRACE.touch()
        # One that writes nothing.
        (BIN / "nmcli").write_text(f"#!/bin/sh\necho {UUID}\n")
        self.give_address("203.0.113.2/24")

    def test_nothing_is_done_but_questions(self):
        for values in (BOTH_STATIC, BOTH_AUTOMATIC | SECOND_STATIC,
                       BOTH_AUTOMATIC | {"FirstServerIp": "server.invalid"},
                       BOTH_STATIC | {"connectionName": "x$(touch /sandbox/tmp/harm)"}):
            with self.subTest(values):
                lines = self.trace(values)
                programs = executed()
                both_static = values["FirstIsAutomatically"] == "true"
                look_up = questions("-g", "connection.uuid", "c", "s", values["connectionName"],
                                    automatic=not both_static)
                # The first is the tool, and the stand-in is a script.
                self.assertEqual(look_up + both_static * [SecondInterface.ASK],
                                 [program[1:] for program in programs[1:]])
                found = [line for line in lines if SANITIZERS not in line and re.search(
                    r"AF_INET|O_WRONLY|O_RDWR|O_CREAT|nl_groups=0*[1-9]"
                    r"| (rename|unlink|mkdir|link|symlink|f?chmod|f?truncate|creat)\w*\("
                    r"| (clock_)?nanosleep\(.*tv_nsec=500000000", line)]
                self.assertEqual([], found)

    def test_it_does_not_wait_as_a_search_does(self):
        begin = time.monotonic()
        self.plan(BOTH_STATIC)
        self.assertLess(time.monotonic() - begin, 10, "half of a search's pass")

    def test_results_come_alone_whatever_the_environment_wants_logged(self):
        for environment in ({"QT_LOGGING_RULES": "*=true", "QT_MESSAGE_PATTERN": "x %{message}"},
                            {"QT_LOGGING_RULES": "*=false"},
                            {"QT_LOGGING_RULES": "default.info=false"}):
            with self.subTest(environment):
                plan = self.plan(BOTH_AUTOMATIC | SECOND_STATIC, environment=environment)
                self.assertTrue(plan.plan["exchanged"])
                self.assertEqual([2, 1], [network["network"] for network in plan.networks])


class Idle(PlanCase):
    def test_switching_is_off(self):
        for values in (BOTH_AUTOMATIC | {"SwitchEnable": "false"},
                       {key: value for key, value in BOTH_AUTOMATIC.items()
                        if key != "SwitchEnable"}):
            plan = self.plan(values, status=IDLE)
            self.assertEqual((False, "switching is off"), (plan.plan["search"],
                                                           plan.plan["reason"]))
            self.assertEqual([(1, BY_DHCP, 10), (2, BY_DHCP, 10)], plan.turns("each"))
            self.assertTrue(self.text(values, status=IDLE).startswith(
                "A search would do nothing: switching is off. Otherwise it would do this:\n"))

    def test_there_is_no_file(self):
        result = self.expect(IDLE, "--app", "nobody", "plan")
        path = tool.path_of("nobody")
        self.assertEqual((f"A search would do nothing: there is no {path}\n", ""),
                         (result.out, result.err))
        plan, = self.expect(IDLE, "--app", "nobody", "--json", "plan").objects
        self.assertEqual({"type": "plan", "app": "nobody", "file": str(path), "search": False,
                          "reason": f"there is no {path}"}, plan)
        self.assertFalse(path.parent.exists())
        self.assertEqual([], calls())

    def test_no_application_has_a_file(self):
        result = self.expect(IDLE, "plan")
        self.assertIn("no application has a configuration", result.err)

    def test_a_folder_in_place_of_the_file(self):
        path = tool.path_of(APPLICATION)
        path.mkdir(parents=True)
        result = self.expect(IDLE, "--app", APPLICATION, "plan")
        self.assertIn(f"A search would do nothing: {path} is no regular file. ", result.out)

    def test_a_file_of_something_else(self):
        path = tool.write(APPLICATION, {})
        path.write_bytes(b"\x7fELF\n")
        result = self.expect(IDLE, "plan")
        self.assertIn(f"A search would do nothing: {path} is no INI file throughout. ", result.out)

    def test_half_an_ini_file(self):
        """Switching is on in what is understood of it: a search would run."""
        path = tool.write(APPLICATION, BOTH_AUTOMATIC)
        with path.open("a", encoding="utf-8") as file:
            file.write("stray\n")
        warning = f"{path} is no INI file throughout; planned is what the library makes of it"
        self.assertIn(f"\nwarning: {warning}\n", self.expect(SEARCHES, "plan").out)
        plan = Planned(self.expect(SEARCHES, "--json", "plan").objects)
        self.assertEqual((True, [warning]), (plan.plan["search"], plan.plan["warnings"]))

    def test_a_file_that_cannot_be_read(self):
        path = tool.write(APPLICATION, BOTH_AUTOMATIC)
        path.chmod(0)
        done = subprocess.run(["setpriv", "--bounding-set", "-dac_override,-dac_read_search",
                               *tool.COMMAND, "plan"], stdout=subprocess.PIPE, encoding="utf-8",
                              check=False)
        self.assertEqual(IDLE, done.returncode)
        self.assertIn(f"A search would do nothing: {path} cannot be read: Permission denied. ",
                      done.stdout)

    def test_usage(self):
        for arguments in (["plan", "now"], ["plan", "--fast"]):
            self.assertEqual("", self.expect(USAGE, *arguments).out)
        self.assertIn("nothing is changed", self.expect(SEARCHES, "plan", "--help").out)

    def test_a_full_disk_is_no_success(self):
        tool.write(APPLICATION, BOTH_AUTOMATIC)
        with open("/dev/full", "w", encoding="utf-8") as full:
            done = subprocess.run([*tool.COMMAND, "plan"], stdout=full, stderr=subprocess.PIPE,
                                  check=False)
        self.assertEqual(1, done.returncode)
        self.assertIn(b"could not be written", done.stderr)


class DeviceFile(PlanCase):
    PATH = pathlib.Path("/userdata/netSettings.ini")

    def test_the_next_start_takes_it_over(self):
        self.addCleanup(self.PATH.unlink)
        self.PATH.write_text("[NetworkConnections]\nconName=other\nbDhcpEnabled=true\n"
                             "SlaveNet\\bDhcpEnabled=true\n", encoding="utf-8")
        told = (f"the next start of the application takes over {self.PATH}: the connection becomes "
                '"other" (now "lan"); network 1 becomes automatic addressing (DHCP) (now static '
                "address 198.51.100.2/24, gateway 198.51.100.1, name servers 198.51.100.53, "
                "198.51.100.54)")
        values = BOTH_AUTOMATIC | FIRST_STATIC
        plan = self.plan(values)
        self.assertEqual([told], plan.plan["warnings"])
        self.assertEqual(BY_STATIC_1, plan.turns("each")[0][1])
        self.assertIn(f"\nwarning: {told}\n", self.text(values))
        self.assertEqual([], self.plan(BOTH_AUTOMATIC | {"connectionName": "other"})
                         .plan["warnings"])
        self.PATH.write_text("", encoding="utf-8")
        self.assertIn("it has no group NetworkConnections. The next start",
                      self.plan(values).plan["warnings"][0])


class LibrarysRules(PlanCase):
    """What `check` says of the library by itself is what the library does in the plan."""

    def item(self, name):
        # Whatever else it finds: of the system it asks for more than the stand-in knows.
        found = tool.tool("check", "--json").objects
        return next(thing["text"] for thing in found if thing.get("item") == name)

    def test_prefix_of_a_bad_netmask(self):
        for mask in ("255.0.255.0", "255.255.255", "24", "255.255.x.0", "255.0.0.x", "254.256.0.0",
                     "254.257.0.0", "255.255.0.255", "1.2.3.4", "255.254.0.0.0", "255.0.0.0",
                     "999.0.0.0", "255.255.255.511", "-1.0.0.0", "4294967296.0.0.0"):
            with self.subTest(mask):
                plan = self.plan(BOTH_AUTOMATIC | FIRST_STATIC | {"FirstLocalMask": mask})
                applied = re.search(r"ipv4.addresses \S+(/\d+) ", plan.commands[1]["command"])[1]
                self.assertRegex(self.item("network-1"), rf"(as|applies \S+ as) {applied}\b")

    def test_address_of_the_device(self):
        for addresses, extra in (({"eth8": "203.0.113.8/24", "eth9": "203.0.113.9/24"}, []),
                                 ({"eth9": "203.0.113.9/24", "eth8": "203.0.113.8/24"}, []),
                                 ({"eth8": "203.0.113.8/24", "eth9": "169.254.0.9/16"}, []),
                                 ({"eth9": "203.0.113.9/24"}, ["multicast", "off"]),
                                 ({"eth9": "203.0.113.9/24"}, ["down"])):
            with self.subTest(addresses=addresses, extra=extra):
                for name, address in addresses.items():
                    self.give_address(address, name)
                if extra:
                    ip("link", "set", name, *extra)
                found = self.plan(BOTH_STATIC).networks[0]["deviceAddress"]
                self.assertIn(f"address now, {found}: " if found else "now it has none",
                              self.item("networks"))
                self.doCleanups()


class Duration(PlanCase):
    def test_each_kind_of_configuration(self):
        self.give_address("203.0.113.2/24")
        for values, attempts, look_ups, changes, activations, automatic in (
                (BOTH_AUTOMATIC, 10, 2, 2, 2, 2), (BOTH_AUTOMATIC | FIRST_STATIC, 10, 2, 2, 2, 1),
                (BOTH_STATIC, 20, 4, 2, 4, 0),
                (BOTH_AUTOMATIC | {"FirstServerPort": "x"}, 5, 2, 2, 2, 2)):
            with self.subTest(values):
                plan = self.plan(values).plan
                self.assertEqual(
                    (attempts * 1000, look_ups, changes, activations, 120_000),
                    tuple(plan[key] for key in ("attemptsMs", "lookUps", "changes",
                                                "activations", "limitMs")))
                self.assertEqual((120 + attempts + 25 * (look_ups + changes) + 90 * activations)
                                 * 1000, plan["worstCaseMs"])
                self.assertEqual((120 + attempts + 45 * automatic) * 1000,
                                 plan["silentDhcpCaseMs"])

    def test_time_of_the_profile(self):
        for said, waits in (("", 45), ("0", 45), ("0 (default)", 45), ("1", 1), ("60", 60),
                            ("90", 90), ("91", 90), ("300", 90), ("2147483647", 90),
                            ("2147483647 (infinity)", 90), ("infinity", 90), ("-1", 45)):
            with self.subTest(said):
                nmcli(UUID + "\\n",
                      shell=f'case "$*" in *dhcp-timeout*) echo "{said}"; exit 0;; esac')
                plan = self.plan(BOTH_AUTOMATIC).plan
                self.assertEqual((120 + 10 + 2 * waits) * 1000, plan["silentDhcpCaseMs"])
                self.assertIn(f" + 2 activations × {waits} s = {130 + 2 * waits} s.\n",
                              self.text(BOTH_AUTOMATIC))

    def test_the_longest_pass_counts(self):
        self.give_address("198.51.100.2/24")
        plan = self.plan(BOTH_STATIC)
        self.assertEqual(["first", "later"], plan.passes())
        self.assertEqual((20000, 4), (plan.plan["attemptsMs"], plan.plan["activations"]))


class Text(PlanCase):
    def test_all_of_it(self):
        machine = platform.machine()
        tool.write(APPLICATION, {})
        path = tool.path_of(APPLICATION)
        self.assertEqual(f"""\
application  laboratory
file         {path}
processor    {machine}: network 2, which is static, goes before network 1, which is automatic; \
on ARM it would not
connection   lan
Each pass
  1. network 2: server 192.0.2.1:9001; static address 192.0.2.2/24, gateway 192.0.2.1, \
name servers 192.0.2.53, 192.0.2.54
     runs   {LOOK_UP}
     runs   {STATIC_2}
     runs   {UP}
     tries  192.0.2.1:9001, 10 attempts of 500 ms
  2. network 1: server 198.51.100.1:9000; automatic addressing (DHCP)
     runs   {LOOK_UP}
     runs   {AUTOMATIC}
     runs   {UP}
     tries  198.51.100.1:9000, 10 attempts of 500 ms
Time
  A pass takes 10 s of attempts, and what its commands take.
  At worst a search takes 120 s until the last pass begins + 10 s of attempts + 2 look-ups × 25 s \
+ 2 changes × 25 s + 2 activations × 90 s = 410 s.
  A command takes 25 s when NetworkManager hangs, and an activation 90 s when it is interrupted.
  With only the DHCP server silent it takes 120 s + 10 s of attempts + 1 activation × 45 s = 175 s.
""", self.text(BOTH_AUTOMATIC | SECOND_STATIC))

    def test_the_second_activation_has_its_place(self):
        self.give_address("203.0.113.2/24")
        text = self.text(BOTH_STATIC)
        self.assertIn(f"     runs   {UP}\n     tries  198.51.100.1:9000, 11 attempts of 500 ms\n"
                      f"     runs   {LOOK_UP}\n     runs   {UP}\n"
                      "     tries  198.51.100.1:9000, 9 attempts of 500 ms\n  2. network 2", text)
        self.assertIn(": the networks go in the file's order\n", text)

    def test_warnings(self):
        nmcli(status=8, error="Error: NetworkManager is not running.")
        text = self.text(BOTH_AUTOMATIC | {"SecondServerPort": "x"})
        self.assertIn("\nwarning: UUID-OF-lan is a placeholder for the UUID: Error: NetworkManager "
                      "is not running.\nEach pass\n", text)
        self.assertIn("     warning: server 192.0.2.1:x is never tried: its port is no number\n",
                      text)


if __name__ == "__main__":
    tool.main()

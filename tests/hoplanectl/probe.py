# SPDX-License-Identifier: MIT
"""hoplanectl probe: what it tells of servers that accept, refuse, do not answer, or are not there.
Everything happens in the sandbox's own network, which at first has a loopback interface only."""

import contextlib
import errno
import json
import os
import pathlib
import re
import socket
import subprocess
import time

import tool

ACCEPTS, REFUSES, NO_ANSWER, NOT_TRIED, WRONG_USAGE = 0, 1, 2, 3, 64


@contextlib.contextmanager
def bound(backlog=None):
    """A socket on a free port of the loopback interface, which refuses unless it listens."""
    with socket.socket() as server:
        server.bind(("127.0.0.1", 0))
        if backlog is not None:
            server.listen(backlog)
        yield server


@contextlib.contextmanager
def too_busy():
    """A server whose queue of connections is full: it drops each request in silence."""
    with bound(backlog=0) as server, socket.create_connection(server.getsockname()):
        yield server


def target(server):
    return "{}:{}".format(*server.getsockname())


def target_of(end):
    return f"{end['host']}:{end['port']}"


def ip(*arguments):
    subprocess.run(["ip", *arguments], check=True)


class Running:
    """The tool, whose objects are read as they come."""

    def __init__(self, *arguments):
        self._process = subprocess.Popen([*tool.COMMAND, "--json", "probe", *arguments],
                                         stdout=subprocess.PIPE, encoding="utf-8")

    def __enter__(self):
        return self

    def __exit__(self, *_):
        self._process.stdout.close()
        self._process.wait(60)

    def next(self):
        return json.loads(self._process.stdout.readline())

    def outcome(self):
        return self.next()["outcome"]

    def status(self):
        return self._process.wait(60)


class ProbeCase(tool.TestCase):
    def probe(self, status, *arguments, **options):
        """Probes with --json; returns the attempts and the conclusion."""
        *attempts, end = self.expect(status, "--json", "probe", *arguments, **options).objects
        self.assertEqual(["attempt"] * len(attempts) + ["probe"],
                         [found["type"] for found in (*attempts, end)])
        self.assertEqual(list(range(1, end["attempts"] + 1)),
                         [attempt["attempt"] for attempt in attempts])
        return attempts, end

    def add_network(self):
        """A network, 198.51.100.0/24, without any machine but this."""
        ip("link", "add", "here", "type", "veth", "peer", "name", "there")
        self.addCleanup(ip, "link", "del", "here")
        ip("address", "add", "198.51.100.2/24", "dev", "here")
        ip("link", "set", "there", "up")
        ip("link", "set", "here", "up")

    def expect_attempt(self, attempt, outcome, number, text):
        self.assertEqual((outcome, number, text),
                         (attempt["outcome"], attempt["errno"], attempt["error"]))


class OneAttempt(ProbeCase):
    def test_a_server_that_accepts(self):
        with bound(backlog=5) as server:
            (attempt,), end = self.probe(ACCEPTS, target(server))
            connection, peer = server.accept()
            with connection:
                connection.settimeout(10)
                self.assertEqual(b"", connection.recv(1), "nothing is sent, and it is closed")
            port = str(server.getsockname()[1])
        self.expect_attempt(attempt, "accepted", 0, "")
        self.assertEqual(("127.0.0.1", "127.0.0.1"), (attempt["localAddress"], peer[0]))
        self.assertEqual({"type": "probe", "host": "127.0.0.1", "port": port,
                          "address": "127.0.0.1", "attempts": 1, "verdict": "accepts",
                          "reason": ""}, end)

    def test_a_server_that_refuses(self):
        with bound() as server:
            (attempt,), end = self.probe(REFUSES, target(server))
        self.expect_attempt(attempt, "refused", errno.ECONNREFUSED, "Connection refused")
        self.assertEqual("", attempt["localAddress"])
        self.assertEqual(("refuses", f"{target_of(end)}: Connection refused"),
                         (end["verdict"], end["reason"]))

    def test_a_server_that_is_too_busy_to_answer(self):
        with too_busy() as server:
            (attempt,), end = self.probe(NO_ANSWER, target(server), "--interval", "150")
        self.expect_attempt(attempt, "no answer", errno.ETIMEDOUT, "Connection timed out")
        self.assertEqual("no answer", end["verdict"])

    def test_a_network_without_a_route(self):
        (attempt,), end = self.probe(NOT_TRIED, "192.0.2.1:9000")
        self.expect_attempt(attempt, "not tried", errno.ENETUNREACH, "Network is unreachable")
        self.assertEqual(("not tried", "192.0.2.1:9000: Network is unreachable"),
                         (end["verdict"], end["reason"]))

    def test_routes_that_say_no(self):
        for kind, number, text in (("unreachable", errno.EHOSTUNREACH, "No route to host"),
                                   ("prohibit", errno.EACCES, "Permission denied")):
            with self.subTest(kind):
                ip("route", "replace", kind, "203.0.113.0/24")
                self.addCleanup(ip, "route", "del", kind, "203.0.113.0/24")
                (attempt,), end = self.probe(NOT_TRIED, "203.0.113.7:9000")
                self.expect_attempt(attempt, "not tried", number, text)
                self.assertEqual("not tried", end["verdict"])
                self.doCleanups()

    def test_a_machine_that_is_not_there(self):
        # What asks for its hardware address is sent, so the server was tried.
        self.add_network()
        (attempt,), end = self.probe(NO_ANSWER, "198.51.100.1:9000", "--interval", "20000")
        self.expect_attempt(attempt, "no answer", errno.EHOSTUNREACH, "No route to host")
        self.assertEqual("no answer", end["verdict"])

    def test_a_name(self):
        with bound(backlog=5) as server:
            port = server.getsockname()[1]
            _, end = self.probe(ACCEPTS, f"localhost:{port}")
            self.assertEqual(("localhost", "127.0.0.1"), (end["host"], end["address"]))
            text = self.expect(ACCEPTS, "probe", f"localhost:{port}").out
        self.assertIn(f"localhost:{port} (127.0.0.1) accepts\n", text)

    def test_a_name_that_is_not_resolved(self):
        attempts, end = self.probe(NOT_TRIED, "nobody.invalid:9000")
        self.assertEqual(([], "not tried", None), (attempts, end["verdict"], end["address"]))
        self.assertRegex(end["reason"], r"^nobody\.invalid cannot be resolved: \w+")


class Time(ProbeCase):
    def test_what_is_told_is_the_time_until_the_answer(self):
        with bound() as server:
            (attempt,), _ = self.probe(REFUSES, target(server), "--interval", "50000", timeout=40)
        self.assertGreater(attempt["milliseconds"], 0)
        self.assertLess(attempt["milliseconds"], 30000)

    def test_an_attempt_without_an_answer_takes_its_interval(self):
        with too_busy() as server:
            for interval, options in ((500, ()), (150, ("--interval", "150")),
                                      (1, ("--interval", "1"))):
                with self.subTest(interval):
                    (attempt,), _ = self.probe(NO_ANSWER, target(server), *options)
                    self.assertGreaterEqual(attempt["milliseconds"], interval)
                    self.assertLess(attempt["milliseconds"], interval + 3000)

    def test_an_attempt_with_an_answer_takes_its_interval_too(self):
        with bound() as server:
            begin = time.monotonic()
            self.probe(REFUSES, target(server), "--attempts", "4", "--interval", "400")
        # There is nothing to wait for after the last one.
        self.assertGreaterEqual(time.monotonic() - begin, 3 * 0.4)

    def test_nothing_is_waited_for_after_the_last_attempt(self):
        with bound() as server:
            self.probe(REFUSES, target(server), "--interval", "60000", timeout=30)
        with bound(backlog=5) as server:
            self.probe(ACCEPTS, target(server), "--attempts", "3", "--interval", "60000",
                       timeout=30)


class SeveralAttempts(ProbeCase):
    def test_the_first_success_is_the_last_attempt(self):
        with bound(backlog=5) as server:
            attempts, end = self.probe(ACCEPTS, target(server), "--attempts", "5")
        self.assertEqual((1, "accepts"), (len(attempts), end["verdict"]))

    def test_a_server_that_accepts_at_the_third_attempt(self):
        with bound() as server, Running(target(server), "--attempts", "9",
                                        "--interval", "1500") as running:
            self.assertEqual(["refused", "refused"], [running.outcome() for _ in range(2)])
            # The second attempt's interval is not over yet.
            server.listen(5)
            third, end = running.next(), running.next()
            self.assertEqual((3, "accepted"), (third["attempt"], third["outcome"]))
            self.assertEqual(("accepts", 3, ""), (end["verdict"], end["attempts"], end["reason"]))
            self.assertEqual(ACCEPTS, running.status())

    def test_all_attempts_are_made_and_no_more(self):
        with bound() as server:
            attempts, end = self.probe(REFUSES, target(server), "--attempts", "25",
                                       "--interval", "1")
        self.assertEqual((["refused"] * 25, "refuses"),
                         ([attempt["outcome"] for attempt in attempts], end["verdict"]))

    def test_a_refusal_tells_more_than_silence_after_it(self):
        with bound() as server, Running(target(server), "--attempts", "2",
                                        "--interval", "1500") as running:
            self.assertEqual("refused", running.outcome())
            server.listen(0)
            with socket.create_connection(server.getsockname()):
                self.assertEqual("no answer", running.outcome())
                end = running.next()
        self.assertEqual(("refuses", f"{target_of(end)}: Connection refused"),
                         (end["verdict"], end["reason"]))
        self.assertEqual(REFUSES, running.status())

    def test_silence_tells_more_than_a_missing_route_after_it(self):
        self.add_network()
        with Running("198.51.100.1:9000", "--attempts", "3", "--interval", "1500") as running:
            self.assertEqual("no answer", running.outcome())
            # The second attempt may have begun.
            ip("address", "flush", "dev", "here")
            running.next()
            self.assertEqual("not tried", running.outcome())
            end = running.next()
            self.assertEqual("no answer", end["verdict"])
            self.assertNotIn("Network is unreachable", end["reason"])
            self.assertEqual(NO_ANSWER, running.status())


class Effects(ProbeCase):
    def test_no_command_is_run_however_many_attempts_fail(self):
        trace = pathlib.Path("/sandbox/tmp/trace")
        with bound() as server:
            subprocess.run(["strace", "-f", "-qq", "-o", str(trace), "-e", "trace=execve,connect",
                            *tool.COMMAND, "probe", target(server), "--attempts", "13",
                            "--interval", "1"], stdout=subprocess.DEVNULL, check=False,
                           # Leaks cannot be looked for under strace.
                           env=os.environ | {"ASAN_OPTIONS": "detect_leaks=0"})
            port = server.getsockname()[1]
        lines = trace.read_text(encoding="utf-8").splitlines()
        self.assertEqual(1, sum(" execve(" in line for line in lines), lines)
        connections = [line for line in lines if " connect(" in line]
        self.assertEqual(13, len(connections))
        for line in connections:
            self.assertIn(f"htons({port})", line)

    def test_a_signal_while_the_answer_is_awaited(self):
        with bound() as server:
            server.listen()
            done = subprocess.run(["strace", "-f", "-qq", "-o", "/dev/null", "-e", "trace=poll",
                                   "-e", "inject=poll:error=EINTR:when=1..2", *tool.COMMAND,
                                   "probe", target(server)], stdout=subprocess.PIPE,
                                  encoding="utf-8", check=False,
                                  env=os.environ | {"ASAN_OPTIONS": "detect_leaks=0"})
        self.assertEqual(0, done.returncode, done.stdout)
        self.assertIn("accepted", done.stdout)

    def test_an_attempt_leaves_nothing_open(self):
        with bound() as server:
            done = subprocess.run(["prlimit", "--nofile=32", *tool.COMMAND, "--json", "probe",
                                   target(server), "--attempts", "40", "--interval", "1"],
                                  stdout=subprocess.PIPE, encoding="utf-8", check=False)
        self.assertEqual((REFUSES, 40), (done.returncode, done.stdout.count('"refused"')))


class Text(ProbeCase):
    def text(self, status, *arguments):
        """What is printed, with a T for each time."""
        result = self.expect(status, "probe", *arguments)
        self.assertEqual("", result.err)
        return re.sub(r"\d+\.\d ms", "T", result.out)

    def test_each_outcome_and_verdict(self):
        with bound(backlog=5) as server:
            self.assertEqual(f"attempt 1  accepted after T, from 127.0.0.1\n"
                             f"{target(server)} accepts\n", self.text(ACCEPTS, target(server)))
        with bound() as server:
            self.assertEqual("attempt 1  refused after T: Connection refused\n"
                             "attempt 2  refused after T: Connection refused\n"
                             f"{target(server)} refuses: nothing accepts on that port\n",
                             self.text(REFUSES, target(server), "--attempts=2", "--interval=1"))
        with too_busy() as server:
            self.assertEqual("attempt 1  no answer after T: Connection timed out\n"
                             f"{target(server)} gives no answer\n",
                             self.text(NO_ANSWER, target(server), "--interval", "20"))
        self.assertEqual("attempt 1  not tried, nothing was sent: Network is unreachable\n"
                         "not tried: 192.0.2.1:9000: Network is unreachable\n",
                         self.text(NOT_TRIED, "192.0.2.1:9000"))

    def test_the_help_says_that_nothing_is_changed(self):
        self.assertIn("never touches the device's addressing", self.text(0, "--help"))


PORT = "the port has to be a number from 1 to 65535"
ADDRESS = "an IPv4 address has four numbers from 0 to 255 without leading zeros"
HOST = "the host is neither an IPv4 address nor a name"
MISSING = "the host or the port is missing"
ATTEMPTS = "it has to be a number from 1 to 1000"
INTERVAL = "it has to be a number from 1 to 60000"


class Refused(ProbeCase):
    TARGETS = [
        ("127.0.0.1:0", PORT), ("127.0.0.1:65536", PORT), ("127.0.0.1:99999", PORT),
        ("127.0.0.1:080", PORT), ("127.0.0.1:+80", PORT), ("127.0.0.1:-1", PORT),
        ("127.0.0.1: 80", PORT), ("127.0.0.1:80 ", PORT), ("127.0.0.1:80\n", PORT),
        ("127.0.0.1:http", PORT), ("127.0.0.1:8e1", PORT), ("127.0.0.1:\u0668\u0660", PORT),
        ("127.0.0.1:18446744073709551696", PORT),
        ("1.2.3:80", ADDRESS), ("127.1:80", ADDRESS), ("2130706433:80", ADDRESS),
        ("256.0.0.1:80", ADDRESS), ("127.0.0.01:80", ADDRESS), ("127.0.0.1.1:80", ADDRESS),
        ("...:80", ADDRESS), (".:80", ADDRESS),
        ("[::1]:80", HOST), ("::1:80", HOST), ("a b:80", HOST), (" 127.0.0.1:80", HOST),
        ("127.0.0.1\n:80", HOST), ("bücher.example:80", HOST), ("-x:80", HOST), ("a/b:80", HOST),
        ("a" * 254 + ":80", HOST), ("http://127.0.0.1:80", HOST),
    ]
    USAGE = [
        (["127.0.0.1"], MISSING), ([":80"], MISSING), (["127.0.0.1:"], MISSING), ([""], MISSING),
        ([":"], MISSING), ([], "an argument is missing"),
        (["127.0.0.1:80", "2"], "one argument too many"),
    ] + [
        (["127.0.0.1:80", option, value], f'{option} "{shown}": {reason}; for example {option} ')
        for option, most, reason in (("--attempts", 1000, ATTEMPTS),
                                     ("--interval", 60000, INTERVAL))
        for value, shown in ((value, value.replace("\n", "\\u000a")) for value in (
            "0", "00", "-1", "+1", "01", " 1", "1 ", "1\n", "1.5", "1e1", "", "x",
            str(most + 1), "99999999999999999999"))
    ] + [
        (["127.0.0.1:80", "--attempts", "2", "--attempts", "3"], "--attempts stands there twice"),
        (["127.0.0.1:80", "--interval=2", "--interval=2"], "--interval stands there twice"),
        (["127.0.0.1:80", "--attempts"], "attempts"), (["127.0.0.1:80", "--times", "1"], "times"),
    ]

    def test_what_is_no_server_is_not_tried(self):
        for text, reason in self.TARGETS:
            with self.subTest(text):
                attempts, end = self.probe(NOT_TRIED, "--", text)
                host, port = text.rsplit(":", 1)
                self.assertEqual(([], host, port, None, "not tried"),
                                 (attempts, end["host"], end["port"], end["address"],
                                  end["verdict"]))
                shown = text.replace("\n", "\\u000a")
                self.assertEqual(f'"{shown}": {reason}; for example 192.0.2.1:9000', end["reason"])
                printed = self.expect(NOT_TRIED, "probe", "--", text)
                self.assertEqual((f"not tried: {end['reason']}\n", ""),
                                 (printed.out, printed.err))

    def test_wrong_usage_says_what_is_wrong_and_prints_no_result(self):
        for arguments, reason in self.USAGE:
            with self.subTest(arguments):
                result = self.expect(WRONG_USAGE, "--json", "probe", *arguments)
                self.assertIn(reason, result.err)
                self.assertIn("hoplanectl probe --help", result.err)
                self.assertEqual("", result.out)

    def test_the_limits_themselves_are_taken(self):
        with bound(backlog=5) as server:
            self.probe(ACCEPTS, target(server), "--attempts", "1000", "--interval", "60000")
            self.probe(ACCEPTS, target(server), "--attempts", "1", "--interval", "60000")
        for port in ("1", "65535"):
            self.probe(REFUSES, f"127.0.0.1:{port}")


if __name__ == "__main__":
    tool.main()

# SPDX-License-Identifier: MIT
"""The library in broken surroundings: an application that makes its own worse searches, and tells
what came of it.

  surroundings.py [--sanitized] APPLICATION FAKE_NMCLI
                                                      in script/sandbox
  surroundings.py --processes LIBRARY APPLICATION FAKE_NMCLI
                                                      as another user, whose processes are limited
"""

import os
import pathlib
import re
import resource
import shutil
import socket
import subprocess
import sys
import threading
import unittest

sys.path.append(str(pathlib.Path(__file__).resolve().parent.parent / "lab"))
import users  # noqa: E402
from laboratory import LaboratoryError, wait_until  # noqa: E402

HOME = pathlib.Path("/sandbox/home")
FILE = HOME / "Documents" / "surroundings" / "switch.ini"
FAKE = pathlib.Path("/sandbox/tmp/fake-nmcli")
REPORT = pathlib.Path("/sandbox/tmp/report")
LOCALES = pathlib.Path("/sandbox/tmp/locales")
DEVICE = pathlib.Path("/sandbox/tmp/device")
SANDBOX = pathlib.Path(__file__).resolve().parents[2] / "script" / "sandbox"
APPLICATION, NMCLI = (pathlib.Path(path).resolve() for path in sys.argv[-2:])
AS_ANOTHER = []
SECONDS = 60
LOOK_UP = "nmcli -g connection.uuid c s 'lan' "
MEBIBYTE = 1 << 20
NO_UUID = 'log critical [ setLocalIpAuto ] get uuid is empty,d->strConnectionName= "lan"'


class Report:
    """What an application has told until now, or until its end."""

    def __init__(self, status=None):
        self.status = status
        # The application makes the file.
        self.lines = REPORT.read_text(encoding="utf-8").splitlines() if REPORT.exists() else []

    def of(self, kind):
        return [line.partition(" ")[2] for line in self.lines if line.partition(" ")[0] == kind]

    def texts(self, pattern):
        return [line for line in self.lines if re.search(pattern, line)]

    def __str__(self):
        return f"exit {self.status}\n" + "\n".join(self.lines)


class TestCase(unittest.TestCase):
    def setUp(self):
        for folder in (HOME / "Documents", FAKE):
            shutil.rmtree(folder, ignore_errors=True)
        REPORT.unlink(missing_ok=True)
        FAKE.mkdir()
        self.play("lookup print 5e6c\\n", "up print done\\n")
        self.server = socket.create_server(("127.0.0.1", 0), backlog=100)
        self.addCleanup(self.server.close)
        self.write(self.server.getsockname()[1])

    @staticmethod
    def play(*lines):
        (FAKE / "scenario").write_text("".join(line + "\n" for line in lines), encoding="utf-8")

    @staticmethod
    def write(port, **more):
        """Both servers are the same one."""
        values = {"SwitchEnable": "true", "connectionName": "lan"}
        for which in ("First", "Second"):
            values |= {f"{which}ServerIp": "127.0.0.1", f"{which}ServerPort": port,
                       f"{which}IsAutomatically": "false"}
        FILE.parent.mkdir(parents=True, exist_ok=True)
        FILE.write_text("[General]\n" + "".join(f"{key}={value}\n"
                                                for key, value in (values | more).items()),
                        encoding="utf-8")

    @staticmethod
    def environment(**changes):
        found = os.environ | {"FAKE_NMCLI": str(FAKE), "PATH": f"{NMCLI.parent}:/usr/bin:/bin"}
        found |= changes
        return {name: value for name, value in found.items() if value is not None}

    def start(self, *words, environment=None, **options):
        options = {"stdout": subprocess.DEVNULL} | options
        process = subprocess.Popen([*AS_ANOTHER, APPLICATION, REPORT, *words],
                                   stdin=subprocess.PIPE,
                                   env=environment or self.environment(), **options)
        self.addCleanup(process.wait)
        self.addCleanup(process.kill)
        return process

    def run_application(self, *words, environment=None, **options):
        """Runs it to its end."""
        options = {"stdin": subprocess.DEVNULL, "stdout": subprocess.DEVNULL} | options
        done = subprocess.run([*AS_ANOTHER, APPLICATION, REPORT, *words], timeout=SECONDS,
                              check=False, env=environment or self.environment(), **options)
        report = Report(done.returncode)
        REPORT.unlink()
        return report

    def expect_success(self, report):
        self.assertEqual(report.status, 0, report)
        self.assertEqual(report.of("signal"),
                         [f"switchSuccess 127.0.0.1 {self.server.getsockname()[1]}"], report)
        self.assertEqual(report.of("children"), ["0"], report)

    def expect_applied(self, report):
        """With all of the addressing's steps."""
        self.expect_success(report)
        self.assertEqual(report.texts("run (successful|failed)"),
                         ["log info [ setFirstStaticIpAddr ] run successful"], report)

    def expect_unapplied(self, report):
        """A success, since the server is reached without the addressing."""
        self.expect_success(report)
        self.assertEqual(report.texts("run (successful|failed)"),
                         ["log info [ setFirstStaticIpAddr ] run failed"], report)
        self.assertIn(NO_UUID, report.lines)

    def wait_for(self, pattern, count=1):
        def found():
            lines = Report().texts(pattern)
            return lines if len(lines) >= count else None
        try:
            return wait_until(found, SECONDS, pattern)
        except LaboratoryError as error:
            raise AssertionError(f"{error}\n{Report()}") from None

    def change_link(self):
        """Waits until the watcher has told of it."""
        before = len(Report().texts("^signal switchBegin$"))
        add_link(self.addCleanup)
        self.wait_for("^signal switchBegin$", before + 1)


def add_link(clean_up):
    ip = ["ip", "link"]
    subprocess.run([*ip, "add", "v0", "type", "veth", "peer", "v1"], check=True)
    clean_up(subprocess.run, [*ip, "delete", "v0"], check=True)


class Signals(TestCase):
    def test_well(self):
        self.expect_applied(self.run_application())

    def test_children_are_ignored(self):
        """The end of a command is not told to anybody; that is not looked at."""
        self.expect_applied(self.run_application("ignore-children"))

    def test_all_blocked(self):
        """Also in the commands, which inherit that."""
        self.expect_applied(self.run_application("block-signals"))


class StandardDescriptors(TestCase):
    def test_standard_ones_are_closed(self):
        for numbers in ((0,), (1,), (2,), (0, 1), (1, 2), (0, 1, 2)):
            with self.subTest(closed=numbers):
                words = [word for number in numbers for word in ("close", str(number))]
                self.expect_applied(self.run_application(*words))

    def test_link_event_without_standard_output(self):
        """What is printed of links goes to whatever has taken the number."""
        process = self.start("wait", "close", "1")
        self.wait_for("^ready$")
        self.assertNotIn("/", os.readlink(f"/proc/{process.pid}/fd/1"), "no file")
        self.change_link()
        process.stdin.write(b"start\n")
        process.stdin.flush()
        self.wait_for("^signal switchSuccess ")


class TooFewDescriptors(TestCase):
    """Not in sanitized builds: the check of an object's class needs two descriptors itself, and
    takes it for a wrong one without them."""

    def test_none_left(self):
        """The configuration cannot be opened: it reads as disabled, and nothing is signalled."""
        process = self.start("wait", "descriptors", "0")
        self.wait_for("^ready$")
        process.stdin.write(b"start\n")
        process.stdin.flush()
        self.wait_for("^done start$")
        # The summary of the empty values; then it is at rest, and can search when there are some.
        self.wait_for(r"switch info:second  serverIp: \"\"")
        process.stdin.write(b"limit 100\nstart\n")
        process.stdin.flush()
        self.wait_for("^signal switchSuccess ")
        self.assertEqual(Report().of("signal"),
                         [f"switchSuccess 127.0.0.1 {self.server.getsockname()[1]}"])

    def test_too_few_for_a_command(self):
        """One is enough for the file and for the socket, and a pipe needs two."""
        report = self.run_application("descriptors", "1")
        self.expect_unapplied(report)
        self.assertEqual(report.texts("popen"),
                         [f'log warning [ excuCmd ] "popen {LOOK_UP}  error."'])

    def test_too_few_for_a_socket(self):
        """Taken away while a command runs, and given back after some attempts."""
        self.play("lookup print 5e6c\\n", "up slow", "up print done\\n")
        process = self.start("wait")
        self.wait_for("^ready$")
        process.stdin.write(b"start\n")
        process.stdin.flush()
        calls = FAKE / "calls"
        wait_until(lambda: calls.exists() and b"up\x1f" in calls.read_bytes(), SECONDS, "nmcli up")
        found = resource.prlimit(process.pid, resource.RLIMIT_NOFILE)
        resource.prlimit(process.pid, resource.RLIMIT_NOFILE, (3, found[1]))
        (FAKE / "released").touch()
        self.wait_for("connect to host fail", 3)
        self.assertEqual(Report().of("signal"), [])
        resource.prlimit(process.pid, resource.RLIMIT_NOFILE, found)
        self.wait_for("^signal switchSuccess ")


class HeldDescriptors(TestCase):
    def count(self, process, number):
        """What it holds after its search of this number."""
        process.stdin.write(b"start\n")
        process.stdin.flush()
        self.wait_for("^signal switchSuccess ", number)
        self.wait_for(r"\[ slotFinish \]", number)
        return len(os.listdir(f"/proc/{process.pid}/fd"))

    def test_searches_hold_none(self):
        process = self.start("wait")
        self.wait_for("^ready$")
        counts = [self.count(process, number) for number in range(1, 31)]
        self.assertEqual(len(set(counts[1:])), 1, counts)

    def test_attempts_without_an_answer_hold_none(self):
        """Of a server whose queue is full."""
        process = self.start("wait")
        self.wait_for("^ready$")
        self.count(process, 1)
        before = self.count(process, 2)
        with socket.create_server(("127.0.0.1", 0), backlog=0) as busy, \
                socket.create_connection(busy.getsockname()):
            self.write(self.server.getsockname()[1], FirstServerPort=busy.getsockname()[1])
            self.assertEqual(self.count(process, 3), before)
        self.assertEqual(len(Report().texts("connect to host fail")), 10)


class Environment(TestCase):
    def test_no_home(self):
        """The documents' folder is another one then, in which there is no configuration."""
        process = self.start("wait", environment=self.environment(HOME=None))
        self.wait_for("^ready$")
        process.stdin.write(b"start\n")
        process.stdin.flush()
        self.wait_for(r"switch congif file: \"\S*/surroundings/switch.ini\" not exist")
        self.assertEqual(Report().of("signal"), [])

    def test_empty_path(self):
        self.expect_unapplied(self.run_application(environment=self.environment(PATH="")))

    def test_path_of_nothing(self):
        self.expect_unapplied(
            self.run_application(environment=self.environment(PATH="/nowhere:/sandbox/tmp")))

    def test_lost_folder(self):
        self.expect_applied(self.run_application("lost-folder"))

    def test_full_standard_output(self):
        """What is printed of links is lost, and nothing else."""
        with open("/dev/full", "wb") as full:
            process = self.start("wait", stdout=full)
        self.wait_for("^ready$")
        self.change_link()
        before = len(Report().texts("^signal switchBegin$"))
        subprocess.run(["ip", "link", "set", "v0", "up"], check=True)
        self.wait_for("^signal switchBegin$", before + 1)
        process.stdin.write(b"start\n")
        process.stdin.flush()
        self.wait_for("^signal switchSuccess ")

    def test_closed_reader_of_standard_output(self):
        """Whoever reads it is gone: by the default of SIGPIPE that ends the process at the next
        link event, as it does any program that prints."""
        process = self.start("wait", stdout=subprocess.PIPE)
        self.wait_for("^ready$")
        process.stdout.close()
        add_link(self.addCleanup)
        self.assertEqual(process.wait(SECONDS), -13)

    @classmethod
    def setUpClass(cls):
        LOCALES.mkdir(exist_ok=True)
        for name in ("pl_PL", "tr_TR"):
            subprocess.run(["localedef", "-i", name, "-f", "UTF-8", LOCALES / f"{name}.UTF-8"],
                           check=True)

    def test_locales(self):
        for name in ("pl_PL.UTF-8", "tr_TR.UTF-8", "C", "C.UTF-8"):
            with self.subTest(locale=name):
                self.write(self.server.getsockname()[1], SwitchEnable="TRUE",
                           FirstIsAutomatically="FALSE")
                report = self.run_application(environment=self.environment(
                    LC_ALL=name, LOCPATH=str(LOCALES)))
                self.assertEqual(report.of("locale"), [name])
                self.expect_applied(report)

    def test_text_in_another_language(self):
        """In a locale of single bytes the message stays what it is, byte by byte."""
        self.play("lookup print 5e6c\\n", "up print Połączenie\\n")
        for name in ("pl_PL.UTF-8", "tr_TR.UTF-8", "C", "C.UTF-8"):
            with self.subTest(locale=name):
                report = self.run_application(environment=self.environment(
                    LC_ALL=name, LOCPATH=str(LOCALES)))
                self.expect_applied(report)
                self.assertEqual(len(report.texts("Połączenie")), 1, report)


class File(TestCase):
    """What may stand in the place of the configuration."""

    def content(self):
        return FILE.read_bytes()

    def replace(self, content):
        FILE.unlink()
        FILE.write_bytes(content)

    def expect_disabled(self, pattern):
        """Nothing is searched, and nothing signalled."""
        process = self.start("wait")
        self.wait_for("^ready$")
        process.stdin.write(b"start\n")
        process.stdin.flush()
        self.wait_for(pattern)
        self.wait_for("^done start$")
        process.stdin.write(b"end\n")
        process.stdin.flush()
        process.wait(SECONDS)
        self.assertEqual(Report().of("signal"), [])
        self.assertFalse((FAKE / "calls").exists())

    def test_byte_order_mark(self):
        self.replace(b"\xef\xbb\xbf" + self.content())
        self.expect_applied(self.run_application())

    def test_line_ends_of_another_system(self):
        self.replace(self.content().replace(b"\n", b"\r\n"))
        self.expect_applied(self.run_application())

    def test_long_line_of_another_key(self):
        self.replace(self.content() + b"Remark=" + b"x" * MEBIBYTE + b"\n")
        self.expect_applied(self.run_application())

    def test_long_line_without_an_end(self):
        self.replace(self.content() + b"y" * MEBIBYTE)
        self.expect_applied(self.run_application())

    def test_many_long_lines(self):
        self.replace(self.content() + b"".join(b"Remark%d=" % number + b"x" * MEBIBYTE + b"\n"
                                               for number in range(64)))
        self.expect_applied(self.run_application())

    def test_long_name_of_the_connection(self):
        """No command line takes it, so the addressing is not applied."""
        self.write(self.server.getsockname()[1], connectionName="x" * MEBIBYTE)
        report = self.run_application()
        self.expect_success(report)
        self.assertEqual(report.texts("run (successful|failed)"),
                         ["log info [ setFirstStaticIpAddr ] run failed"])
        refused = report.texts(r"^log warning \[ excuCmd \] \"popen nmcli .*  error")
        self.assertEqual(len(refused), 1)
        self.assertFalse((FAKE / "calls").exists())

    def test_long_address_of_the_server(self):
        """It is none; the other server is reached."""
        self.write(self.server.getsockname()[1], FirstServerIp="1" * MEBIBYTE)
        report = self.run_application()
        self.expect_success_after_failures(report)

    def expect_success_after_failures(self, report):
        self.assertEqual(report.status, 0, str(report)[:2000])
        self.assertEqual(report.of("signal"),
                         [f"switchSuccess 127.0.0.1 {self.server.getsockname()[1]}"])
        self.assertEqual(report.of("children"), ["0"])

    def test_folder(self):
        FILE.unlink()
        FILE.mkdir()
        self.expect_disabled(r"switch info:second  serverIp: \"\"")

    def test_loop_of_links(self):
        FILE.unlink()
        FILE.symlink_to(FILE.with_name("other"))
        FILE.with_name("other").symlink_to(FILE)
        self.expect_disabled(r"switch congif file: \"\S*/surroundings/switch.ini\" not exist")

    def test_link_into_nothing(self):
        FILE.unlink()
        FILE.symlink_to("/sandbox/tmp/nowhere")
        self.expect_disabled(r"switch congif file: \"\S*/surroundings/switch.ini\" not exist")

    def test_null_device(self):
        FILE.unlink()
        FILE.symlink_to("/dev/null")
        self.expect_disabled(r"switch info:second  serverIp: \"\"")

    def test_value_in_binary_form(self):
        """One that asks for more memory than Qt gives ends the process when it is read, and nothing
        else happens."""
        self.replace(self.content() + b"Remark=@Variant(\\0\\0\\0\\t\\x30\\0\\0\\0\\0)\n")
        before = self.content()
        report = self.run_application(stderr=subprocess.PIPE)
        self.assertEqual(report.status, -6, report)
        self.assertEqual(report.of("signal"), [])
        self.assertFalse((FAKE / "calls").exists())
        self.assertEqual(self.content(), before)

    def test_changes_between_every_two_reads(self):
        """Two whole files take turns as fast as they can be renamed; each search goes by one of
        them."""
        other = socket.create_server(("127.0.0.2", 0), backlog=100)
        self.addCleanup(other.close)
        versions = []
        expected = set()
        pairs = set()
        for server, second in ((self.server, "127.0.0.3"), (other, "127.0.0.4")):
            address, port = server.getsockname()
            # The first network is static in one of them.
            self.write(port, FirstServerIp=address, SecondServerIp=second,
                       FirstIsAutomatically=str(server is other).lower(), FirstLocalIp="10.0.0.2",
                       FirstLocalMask="255.255.255.0")
            versions.append(self.content())
            expected.add(f"switchSuccess {address} {port}")
            pairs.add((address, str(port), second, str(port)))
        stop = threading.Event()

        def exchange():
            draft = FILE.with_suffix(".new")
            while not stop.is_set():
                for version in versions:
                    draft.write_bytes(version)
                    draft.rename(FILE)

        process = self.start("wait")
        self.wait_for("^ready$")
        changer = threading.Thread(target=exchange)
        changer.start()
        self.addCleanup(changer.join)
        self.addCleanup(stop.set)
        for number in range(1, 31):
            process.stdin.write(b"start\n")
            process.stdin.flush()
            self.wait_for("^signal switchSuccess ", number)
            self.wait_for(r"\[ slotFinish \]", number)
        self.assertEqual(set(Report().of("signal")), expected)
        servers = re.findall(r'switch info:(?:first|second) +serverIp: "(\S*)" '
                             r',serverPort: "(\S*)"', str(Report()))
        self.assertEqual({first + second for first, second in zip(servers[::2], servers[1::2])},
                         pairs)

    def test_written_over_while_it_is_read(self):
        """Another program writes the file in pieces. What is missing is empty, and nothing is read
        that was never there."""
        address, port = self.server.getsockname()
        whole = self.content()
        stop = threading.Event()

        def write_over():
            with FILE.open("r+b", buffering=0) as file:
                while not stop.is_set():
                    file.truncate(0)
                    file.seek(0)
                    for start in range(0, len(whole), 40):
                        file.write(whole[start:start + 40])

        process = self.start("wait")
        self.wait_for("^ready$")
        add_link(self.addCleanup)
        writer = threading.Thread(target=write_over)
        writer.start()
        self.addCleanup(writer.join)
        self.addCleanup(stop.set)
        for number in range(1, 101):
            for state in ("up", "down"):
                subprocess.run(["ip", "link", "set", "v0", state], check=True)
            self.wait_for("switch info:second", number)
        stop.set()
        writer.join()
        texts = set(re.findall(r'serverIp: "(\S*)"', str(Report())))
        self.assertLessEqual(texts, {address[:size] for size in range(len(address) + 1)})
        self.assertLess(1, len(texts), "the file was never read in pieces")
        ports = set(re.findall(r'serverPort: "(\S*)"', str(Report())))
        self.assertLessEqual(ports, {str(port)[:size] for size in range(len(str(port)) + 1)})
        process.stdin.write(b"start\n")
        process.stdin.flush()
        self.wait_for("^signal switchSuccess ")


class Processes(TestCase):
    """As a user without privileges, whom the kernel holds to the limit."""

    def test_well(self):
        self.expect_applied(self.run_application())

    def test_none_left(self):
        """No command runs, and none is waited for."""
        report = self.run_application("processes")
        self.expect_unapplied(report)
        self.assertEqual(report.texts("popen"),
                         [f'log warning [ excuCmd ] "popen {LOOK_UP}  error."'])


def become_another(library):
    """Everything of it in a place that the other user may enter, and his."""
    global APPLICATION, NMCLI  # pylint: disable=global-statement
    owner = users.USERS["stranger"]
    for folder in (DEVICE, HOME, HOME / "Documents", REPORT.parent):
        folder.mkdir(parents=True, exist_ok=True)
    APPLICATION, NMCLI = (pathlib.Path(shutil.copy(path, DEVICE)) for path in (APPLICATION, NMCLI))
    shutil.copy(library, DEVICE)
    if found := re.search(r"suppressions=(\S+)", os.environ.get("TSAN_OPTIONS", "")):
        copied = shutil.copy(found[1], DEVICE)
        os.environ["TSAN_OPTIONS"] = os.environ["TSAN_OPTIONS"].replace(found[1], copied)
    for path in (HOME, REPORT.parent, HOME.parent, DEVICE):
        path.chmod(0o755)
    for path in (HOME, REPORT.parent):
        os.chown(path, owner, owner)
    AS_ANOTHER[:] = ["setpriv", f"--reuid={owner}", f"--regid={owner}", "--clear-groups"]
    os.environ["LD_LIBRARY_PATH"] = str(DEVICE)
    os.umask(0)
    os.chdir("/")


def main():
    processes = sys.argv[1] == "--processes"
    if os.environ.get("HOME") != str(HOME):
        if not processes:
            return "surroundings.py: runs in script/sandbox only"
        try:
            users.enter()
        except users.UsersError as error:
            return f"surroundings.py: {error}"
        os.environ["PATH"] += ":/usr/sbin:/sbin"
        return subprocess.run([SANDBOX, "--inherit-users", "/usr/bin/python3", "-B", __file__,
                               *sys.argv[1:]], check=False).returncode
    cases = [Signals, StandardDescriptors, HeldDescriptors, Environment, File]
    if processes:
        become_another(sys.argv[2])
        cases = [Processes]
    elif sys.argv[1] != "--sanitized":
        cases.append(TooFewDescriptors)
    loader = unittest.defaultTestLoader
    suite = unittest.TestSuite(loader.loadTestsFromTestCase(case) for case in cases)
    return not unittest.TextTestRunner(verbosity=2).run(suite).wasSuccessful()


if __name__ == "__main__":
    sys.exit(main())

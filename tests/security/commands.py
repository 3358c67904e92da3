# SPDX-License-Identifier: MIT
"""Whoever can write the configuration or the device's own settings runs commands as the
application: the library hands the values to a shell as they are. hoplanectl refuses such values,
and finds those that are there. And who can read the values.

  commands.py PROGRAM FAKE_NMCLI HOPLANECTL
"""

import os
import pathlib
import shutil
import stat
import subprocess
import unittest

import device
from device import ARGUMENTS, CONFIGURATION, DEVICE_SETTINGS, SECONDS, wait_until

PROOF = pathlib.Path("/sandbox/tmp/proof")
FAKE = pathlib.Path("/sandbox/tmp/fake-nmcli")
COMMAND = f"touch {PROOF}"
QUOTED = f"lan'; {COMMAND}; '"
SUBSTITUTED = f"$({COMMAND})"
STATIC = ["10.0.0.2", "255.255.255.0", "10.0.0.1", "8.8.8.8", "8.8.4.4"]


def application():
    """NetworkManager is played by a program that knows one connection."""
    folder = pathlib.Path(ARGUMENTS[1]).parent
    return device.Device("arm64", FAKE_NMCLI=FAKE, PATH=f"{folder}:{os.environ['PATH']}")


def hoplanectl(*arguments):
    return subprocess.run([ARGUMENTS[2], "--app", "laboratory", *arguments],
                          stdout=subprocess.PIPE, stderr=subprocess.PIPE, encoding="utf-8",
                          timeout=SECONDS, check=False)


def static_with(index, value):
    values = list(STATIC)
    values[index] = value
    return values


class TestCase(unittest.TestCase):
    """Each test begins without configuration, device settings and proof."""

    def setUp(self):
        shutil.rmtree(CONFIGURATION.parent, ignore_errors=True)
        shutil.rmtree(FAKE, ignore_errors=True)
        FAKE.mkdir()
        (FAKE / "scenario").write_text("lookup print 5e6c\\n\n", encoding="ascii")
        DEVICE_SETTINGS.unlink(missing_ok=True)
        PROOF.unlink(missing_ok=True)

    def search(self, arm):
        """Asks for a search. Both ports are empty, so it tests no server and takes no time."""
        arm.do("servers", "true", "127.0.0.1", "", "127.0.0.1", "")
        self.assertFalse(PROOF.exists())
        arm.do("start")

    @staticmethod
    def sees_two_passes(arm):
        for _ in range(2):
            for which in ("First", "Second"):
                arm.see(rf'set{which}StaticIpAddr \] run successful')
                arm.see(r"trans failed, port is ")

    def assert_runs(self, arm):
        self.search(arm)
        wait_until(PROOF.exists, "the command has not run")


class Library(TestCase):
    """What runs a command."""

    def test_connection_name_with_a_quote(self):
        with application() as arm:
            arm.do("connection", QUOTED)
            self.assert_runs(arm)

    def test_connection_name_of_the_device(self):
        DEVICE_SETTINGS.write_text(f'[NetworkConnections]\nconName="{QUOTED}"\n', encoding="ascii")
        with application() as arm:
            self.assert_runs(arm)

    def test_addressing(self):
        for network in ("first", "second"):
            for index, what in ((0, "address"), (2, "gateway"), (3, "dns1"), (4, "dns2")):
                with self.subTest(network=network, value=what):
                    self.setUp()
                    with application() as arm:
                        arm.do("connection", "lan")
                        arm.do(network, "true", *static_with(index, SUBSTITUTED))
                        self.assert_runs(arm)

    def test_values_that_no_command_has(self):
        # One network at a time: two static ones are skipped by a device without an address.
        for network in ("first", "second"):
            with self.subTest(network=network), application() as arm:
                arm.do("connection", "lan")
                for which in ("first", "second"):
                    arm.do(which, str(which == network).lower(), *static_with(1, SUBSTITUTED))
                arm.do("servers", "true", *[SUBSTITUTED] * 4)
                arm.do("start")
                self.sees_two_passes(arm)
                self.assertFalse(PROOF.exists())

    def test_values_of_automatic_addressing(self):
        with application() as arm:
            arm.do("connection", "lan")
            for network in ("first", "second"):
                arm.do(network, "false", *[SUBSTITUTED] * 5)
            self.search(arm)
            self.sees_two_passes(arm)
            self.assertFalse(PROOF.exists())


class Readers(TestCase):
    """What another user of the device can read."""

    def sees_command(self, words):
        """A shell and an nmcli that have the words among their arguments, for all to read."""
        def found():
            programs = set()
            for process in pathlib.Path("/proc").glob("[0-9]*"):
                try:
                    line = (process / "cmdline").read_bytes().decode(errors="replace")
                    if all(word in line for word in words):
                        self.assertTrue((process / "cmdline").stat().st_mode & 0o004)
                        programs.add((process / "comm").read_text(encoding="utf-8").strip())
                except OSError:
                    pass
            return programs >= {"sh", "nmcli"}
        wait_until(found, f"a command with {words}")

    def test_commands_while_they_run(self):
        for verb, words in (("lookup", ["its-name"]),
                            ("modify", [*STATIC[:1], *STATIC[2:]])):
            with self.subTest(verb):
                self.setUp()
                (FAKE / "scenario").write_text(f"{verb} slow\nlookup print 5e6c\\n\n",
                                               encoding="ascii")
                with application() as arm:
                    arm.do("connection", "its-name")
                    arm.do("first", "true", *STATIC)
                    arm.do("second", "false", *STATIC)
                    self.search(arm)
                    self.sees_command(words)
                    (FAKE / "released").touch()
                    arm.see("setSecondStaticIpAddr")

    def test_configuration_has_what_the_umask_leaves(self):
        for umask, file, folder in ((0o022, 0o644, 0o755), (0o077, 0o600, 0o700)):
            with self.subTest(f"{umask:03o}"):
                self.setUp()
                self.addCleanup(os.umask, os.umask(umask))
                with application() as arm:
                    arm.do("connection", "lan")
                self.assertEqual(stat.S_IMODE(CONFIGURATION.stat().st_mode), file)
                self.assertEqual(stat.S_IMODE(CONFIGURATION.parent.stat().st_mode), folder)
                CONFIGURATION.chmod(0o640)
                with application() as arm:
                    arm.do("connection", "other")
                self.assertEqual(stat.S_IMODE(CONFIGURATION.stat().st_mode), 0o640)


class Tool(TestCase):
    """What hoplanectl makes of such values."""

    def refuses(self, *arguments):
        done = hoplanectl("set", *arguments)
        self.assertEqual(done.returncode, 1, done)
        self.assertIn("nothing is changed", done.stderr)
        self.assertFalse(CONFIGURATION.exists())

    def test_set_refuses(self):
        self.refuses("connection", QUOTED)
        self.refuses("network", "1", "--address", f"{SUBSTITUTED}/24")
        self.refuses("network", "1", "--address", "10.0.0.2/24", "--gateway", SUBSTITUTED)
        self.refuses("network", "2", "--address", "10.0.0.2/24", "--dns", SUBSTITUTED)
        self.refuses("server", "1", f"{SUBSTITUTED}:9000")

    def test_import_takes_what_the_library_takes(self):
        DEVICE_SETTINGS.write_text(f'[NetworkConnections]\nconName="{QUOTED}"\n', encoding="ascii")
        self.assertEqual(hoplanectl("import").returncode, 0)
        by_the_tool = CONFIGURATION.read_bytes()
        CONFIGURATION.unlink()
        with application():
            self.assertEqual(CONFIGURATION.read_bytes(), by_the_tool)
        self.assertIn(QUOTED.encode(), by_the_tool)

    def test_check_finds(self):
        with application() as arm:
            arm.do("connection", "lan")
        self.assertNotIn("means something to the shell", hoplanectl("check").stdout)
        with application() as arm:
            arm.do("connection", QUOTED)
        done = hoplanectl("check")
        self.assertNotEqual(done.returncode, 0)
        self.assertIn("means something to the shell", done.stdout)


if __name__ == "__main__":
    device.main()

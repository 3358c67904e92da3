#!/usr/bin/python3
# SPDX-License-Identifier: MIT
"""The sample files of examples/device/, used as on a device: systemd itself runs the unit, in the
laboratory with polkit. It needs a control group of its own, which root, or a user who may use sudo
without being asked for a password, can have; without one, that test is skipped.

service.py LIBRARY APPLICATION HOPLANECTL
"""

import contextlib
import json
import os
import pathlib
import re
import signal
import stat
import subprocess
import sys
import tempfile
import time
import unittest
import warnings

import run
import users
from laboratory import CONNECTION, NET1, NET2, PORT, wait_until
from laboratory import run as run_command
from polkit import DEVICE, HOMES, PolkitLaboratory

SAMPLES = pathlib.Path(__file__).resolve().parents[2] / "examples/device"
SYSTEMD = "/lib/systemd/systemd"
UNITS = pathlib.Path("/sandbox/units")
JOURNAL = pathlib.Path("/sandbox/journal")
DEVICE_FILE = pathlib.Path("/userdata/netSettings.ini")
GROUP = "HOPLANE_CONTROL_GROUP"
# What the sample leaves open on purpose, in the words of "systemd-analyze security": the network,
# the bus and the kernel's notifications, what an application of more than the failover may need,
# and what would do nothing for it.
LEFT_OPEN = {"RestrictAddressFamilies=~AF_(INET|INET6)", "RestrictAddressFamilies=~AF_NETLINK",
             "RestrictAddressFamilies=~AF_UNIX", "PrivateNetwork=", "IPAddressDeny=",
             "SystemCallFilter=~@privileged", "SystemCallFilter=~@resources", "PrivateUsers=",
             "ProcSubset=", "RemoveIPC=", "RootDirectory=/RootImage=", "PrivateMounts=",
             "DeviceAllow="}
# Where systemd is the first process of a machine that has nothing but the unit.
BOOT = f"""set -e
mount -t proc proc /proc
mount -t cgroup2 cgroup2 /sys/fs/cgroup
mount -t tmpfs -o mode=755 tmpfs /run
mount --bind {HOMES} /var/lib
export container=laboratory SYSTEMD_UNIT_PATH={UNITS}
exec {SYSTEMD} --system --unit=default.target --log-target=console --show-status=no
"""
# What is different in the laboratory: where the files lie, and where the bus is. A file stands for
# the journal.
DROP_IN = """[Service]
ExecStart=
ExecStart={device}/failover
EnvironmentFile=
EnvironmentFile={samples}/failover.env
Environment=LD_LIBRARY_PATH={device} DBUS_SYSTEM_BUS_ADDRESS={bus}
StandardOutput=append:{journal}
StandardError=inherit
"""


class Files(unittest.TestCase):
    def test_systemd_takes_the_unit(self):
        """It finds nothing to complain about."""
        text = (SAMPLES / "failover.service").read_text(encoding="utf-8")
        with tempfile.TemporaryDirectory() as folder:
            unit = pathlib.Path(folder) / "failover.service"
            # The program has to be there.
            unit.write_text(re.sub("^ExecStart=/usr/bin/failover$", "ExecStart=/bin/true", text,
                                   flags=re.MULTILINE), encoding="utf-8")
            self.assertEqual(run_command("systemd-analyze", "verify", "--man=no", str(unit)), "")

    def test_the_unit_is_closed(self):
        """As systemd itself sees it, up to what is left open."""
        told = json.loads(run_command("systemd-analyze", "security", "--offline=yes",
                                      "--json=short", str(SAMPLES / "failover.service")))
        self.assertGreater(len(told), 60)
        self.assertEqual({item["name"] for item in told if item["set"] is False} - LEFT_OPEN, set())


class Service(unittest.TestCase):
    maxDiff = None
    timeline = None

    def setUp(self):
        if not os.environ.get(GROUP):
            self.skipTest("no control group for systemd: see above")
        # The laboratory leaves pipes of programs that have ended.
        warnings.simplefilter("ignore", ResourceWarning)
        self._seen = 0
        self._lab = PolkitLaboratory()
        self._lab.__enter__()
        self.addCleanup(self._lab.__exit__, None, None, None)
        Service.timeline = self._lab.timeline

    def boot(self):
        """Starts systemd with the sample unit and nothing else; returns its process id."""
        (UNITS / "failover.service.d").mkdir(parents=True)
        (UNITS / "failover.service").write_bytes((SAMPLES / "failover.service").read_bytes())
        (UNITS / "failover.service.d/laboratory.conf").write_text(DROP_IN.format(
            device=DEVICE, samples=SAMPLES, bus=os.environ["DBUS_SYSTEM_BUS_ADDRESS"],
            journal=JOURNAL), encoding="utf-8")
        for name in ("sysinit", "basic", "shutdown", "multi-user", "umount"):
            (UNITS / f"{name}.target").write_text("[Unit]\nDefaultDependencies=no\n")
        (UNITS / "default.target").write_text(
            "[Unit]\nDefaultDependencies=no\nWants=failover.service\n")
        program = self._lab.start_application(
            ["unshare", "--pid", "--fork", "--mount", "--cgroup", "--kill-child",
             "--propagation", "private", "sh", "-c", BOOT],
            on_line=lambda line: self._lab.timeline.add("systemd", line))
        children = pathlib.Path(f"/proc/{program.pid}/task/{program.pid}/children")
        return int(wait_until(children.read_text, 10, "systemd").split()[0])

    def expect_line(self, text, seconds=40):
        """The next line of the unit's output, not looked at before, that has the text."""
        def find():
            if not JOURNAL.exists():
                return None
            lines = JOURNAL.read_text(encoding="utf-8").splitlines()
            for index, line in enumerate(lines[self._seen:], self._seen):
                if text in line:
                    self._seen = index + 1
                    return line
            return None
        return wait_until(find, seconds, f"the line {text}")

    @staticmethod
    def processes():
        """Those that the unit's program runs in, by their ids."""
        found = []
        for process in pathlib.Path("/proc").iterdir():
            with contextlib.suppress(OSError):
                if os.readlink(process / "exe") == str(DEVICE / "failover"):
                    found.append(int(process.name))
        return found

    def configure_servers(self):
        """The connection and the networks are imported."""
        for words in (("server", "1", f"{NET1.server}:{PORT}"),
                      ("server", "2", f"{NET2.server}:{PORT}"), ("enabled", "on")):
            done = self._lab.run_as("failover", str(DEVICE / "hoplanectl"), "--app", "failover",
                                    "set", *words)
            self.assertEqual(done[0], 0, done)

    @staticmethod
    def write_device_file():
        DEVICE_FILE.write_text(
            f"[NetworkConnections]\nconName={CONNECTION}\nMasterNet\\bDhcpEnabled=false\n"
            f"MasterNet\\ip={NET1.device}\nMasterNet\\mask=255.255.255.0\n"
            f"MasterNet\\gateway={NET1.server}\n", encoding="utf-8")
        DEVICE_FILE.chmod(0o644)

    def test_unit(self):
        lab = self._lab
        lab.set_rule((SAMPLES / "50-failover.rules").read_text(encoding="utf-8"))
        self.write_device_file()
        lab.start_server(NET2.server)
        manager = self.boot()

        # The import makes the configuration, for this user alone. Nothing is enabled yet.
        self.expect_line("second  serverIp: ")
        stored = HOMES / "failover/Documents/failover/switch.ini"
        for path, mode in ((stored, 0o600), (stored.parent, 0o700)):
            status = path.stat()
            self.assertEqual((stat.S_IMODE(status.st_mode), status.st_uid),
                             (mode, users.USERS["failover"]), path)

        # A search over both networks, after a restart.
        self.configure_servers()
        os.kill(self.processes()[0], signal.SIGKILL)
        self.assertEqual(self.expect_line(f"use server {NET2.server} port {PORT}")[:3], "<6>")
        process, = self.processes()
        status = pathlib.Path(f"/proc/{process}/status").read_text(encoding="ascii")
        self.assertRegex(status, fr"Uid:(\t{users.USERS['failover']}){{4}}\n")
        self.assertEqual(set(re.findall(r"^Cap\w+:\t(\w+)$", status, re.MULTILINE)), {"0" * 16})
        self.assertRegex(status, "NoNewPrivs:\t1\n")
        # Filtered.
        self.assertRegex(status, "Seccomp:\t2\n")
        # The import reached the file, and not only this process's memory of it.
        values = stored.read_text(encoding="utf-8")
        self.assertIn(f"\nconnectionName={CONNECTION}\n", values)
        self.assertIn(f"\nFirstLocalIp={NET1.device}\n", values)
        self.assertEqual(stat.S_IMODE(stored.stat().st_mode), 0o600)
        text = JOURNAL.read_text(encoding="utf-8")
        self.assertEqual(text.count("<7>[ tryConnectRemote ] connect to host fail: "), 10)
        self.assertIn("<4>[ slotFinish ]", text)

        # A link event.
        lab.start_server(NET1.server)
        lab.pull_cable()
        self.expect_line("the link changed")
        lab.plug_cable()
        self.expect_line(f"use server {NET1.server} port {PORT}")
        self.assertEqual(lab.addresses(), [NET1.device + "/24"])

        # Its end.
        os.kill(process, signal.SIGKILL)
        self.expect_line("new Hoplane")
        self.expect_line(f"use server {NET1.server} port {PORT}")
        again, = self.processes()
        self.assertNotEqual(again, process)

        # A stop, during a search.
        lab.stop_server(NET1.server)
        lab.stop_server(NET2.server)
        os.kill(again, signal.SIGKILL)
        self.expect_line("connect to host fail: ")
        began = time.monotonic()
        run_command("nsenter", "-t", str(manager), "--mount", "--pid", "systemctl", "stop",
                    "failover.service")
        self.assertLess(time.monotonic() - began, 5)
        self.assertEqual(self.processes(), [])


# Outside the sandbox.


def own_control_group():
    for line in pathlib.Path("/proc/self/mountinfo").read_text(encoding="utf-8").splitlines():
        mount, _, kind = line.partition(" - ")
        root, point = mount.split()[3:5]
        if kind.startswith("cgroup2 ") and root == "/":
            for entry in pathlib.Path("/proc/self/cgroup").read_text().splitlines():
                if entry.startswith("0::"):
                    return pathlib.Path(point + entry[3:])
    raise OSError("no control groups of version 2 are mounted")


def as_root(*command, text=None):
    """With sudo where that is needed."""
    words = command if os.getuid() == 0 else ("sudo", "-n", *command)
    done = subprocess.run(words, input=text, text=True, stdout=subprocess.PIPE,
                          stderr=subprocess.STDOUT, check=False)
    if done.returncode != 0:
        raise OSError(f"{' '.join(words)}: {done.stdout.strip()}")


@contextlib.contextmanager
def control_group():
    """A control group that belongs to the caller, or None where there can be none."""
    try:
        path = own_control_group() / f"hoplane-{os.getpid()}"
        as_root("mkdir", str(path))
    except OSError as error:
        print(f"service.py: systemd cannot be tried, it needs a control group: {error}", flush=True)
        yield None
        return
    try:
        as_root("chown", "-R", str(os.getuid()), str(path))
        yield path
    finally:
        # Those below it are the unit's. What was killed a moment ago is still in them.
        wait_until(lambda: "populated 0" in (path / "cgroup.events").read_text(), 20,
                   "the control group is empty")
        as_root("find", str(path), "-depth", "-type", "d", "-exec", "rmdir", "{}", ";")


def outside(arguments):
    missing = [name for name in (SYSTEMD, "/bin/systemctl", "/usr/bin/systemd-analyze")
               if not os.access(name, os.X_OK)]
    if missing:
        return "service.py: not installed: " + ", ".join(missing)
    with control_group() as group:
        if group:
            os.environ[GROUP] = str(group)
        return subprocess.run(["/usr/bin/python3", "-B", __file__, "--enter", *arguments],
                              check=False).returncode


def enter(arguments):
    if group := os.environ.get(GROUP):
        as_root("tee", f"{group}/cgroup.procs", text=f"{os.getpid()}\n")
    try:
        users.enter()
    except users.UsersError as error:
        return f"service.py: {error}"
    os.execv(run.SANDBOX, [str(run.SANDBOX), "--inherit-users", "/usr/bin/python3", "-B", __file__,
                           *arguments])


def main(arguments):
    if os.environ.get("HOME") == "/sandbox/home":
        os.chdir("/")
        PolkitLaboratory.install(*arguments)
        done = unittest.main(argv=["service.py"], exit=False).result
        if not done.wasSuccessful() and Service.timeline:
            print("\nThe timeline:", *Service.timeline.lines("dhcp"), "\nThe unit's output:",
                  JOURNAL.read_text(encoding="utf-8") if JOURNAL.exists() else "none", sep="\n")
        # What is left out is not green, but worse hides behind nothing.
        return 1 if not done.wasSuccessful() else 77 if done.skipped else 0
    # The tools of the network are not on everybody's search path.
    os.environ["PATH"] += ":/usr/sbin:/sbin"
    if arguments[:1] == ["--enter"]:
        return enter(arguments[1:])
    return outside(arguments)


if __name__ == "__main__":
    sys.exit(main(sys.argv[1:]))

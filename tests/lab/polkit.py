# SPDX-License-Identifier: MIT
"""The laboratory with users beside root, and with polkit, which NetworkManager asks what they may.
Runs inside script/sandbox --inherit-users, in a namespace of users.enter()."""

import os
import pathlib
import shutil
import subprocess

from laboratory import Laboratory, LaboratoryError, run
from users import USERS

POLKITD = "/usr/lib/polkit-1/polkitd"
# As on a device: who may own a name on the bus, and who may call it, say the services' own files.
BUS_CONFIGURATION = """<!DOCTYPE busconfig PUBLIC
 "-//freedesktop//DTD D-BUS Bus Configuration 1.0//EN"
 "http://www.freedesktop.org/standards/dbus/1.0/busconfig.dtd">
<busconfig>
  <type>system</type>
  <listen>unix:path={socket}</listen>
  <policy context="default">
    <allow user="*"/><deny own="*"/>
    <deny send_type="method_call"/><allow send_type="signal"/>
    <allow send_type="method_return" send_requested_reply="true"/>
    <allow send_type="error" send_requested_reply="true"/>
    <allow receive_type="method_call"/><allow receive_type="signal"/>
    <allow receive_type="method_return"/><allow receive_type="error"/>
    <allow send_destination="org.freedesktop.DBus"/>
  </policy>
  <includedir>/usr/share/dbus-1/system.d</includedir>
</busconfig>
"""
DEVICE = pathlib.Path("/sandbox/device")
HOMES = pathlib.Path("/sandbox/users")


class PolkitLaboratory(Laboratory):
    """Nobody but root may anything until a rule is set."""

    def __init__(self, *arguments, **options):
        super().__init__(*arguments, **options)
        self._rules = pathlib.Path("/sandbox/rules")
        self._polkit = None

    def _raise_bus(self):
        missing = [name for name in (POLKITD, "pkaction", "pkcheck", "setpriv")
                   if not shutil.which(name)]
        if missing:
            raise LaboratoryError("not installed: " + ", ".join(missing))
        # The bus lies there.
        self._folder.chmod(0o755)
        self._name_users()
        self._hide_the_machines_rules_and_sessions()
        super()._raise_bus()
        self._polkit = self._start([POLKITD], on_line=self._note("polkit"))
        if not self._polkit.wait_for(lambda line: "Acquired the name" in line, 20):
            raise LaboratoryError("polkit does not start:\n" + "\n".join(self._polkit.lines))

    def _manager_configuration(self):
        refusing, asking = "auth-polkit=false", "auth-polkit=true"
        configuration = super()._manager_configuration()
        assert refusing in configuration
        return configuration.replace(refusing, asking)

    @staticmethod
    def _bus_configuration(path):
        return BUS_CONFIGURATION.format(socket=path)

    def _name_users(self):
        rows = [("root", 0, os.environ["HOME"])]
        for user, number in USERS.items():
            home = HOMES / user
            home.mkdir(parents=True)
            home.chmod(0o700)
            os.chown(home, number, number)
            rows.append((user, number, home))
        for name, lines in (("passwd", [f"{user}:x:{number}:{number}::{home}:/bin/sh\n"
                                        for user, number, home in rows]),
                            ("group", [f"{user}:x:{number}:\n" for user, number, _ in rows])):
            (self._folder / name).write_text("".join(lines), encoding="ascii")
            (self._folder / name).chmod(0o644)
            run("mount", "--bind", str(self._folder / name), f"/etc/{name}")

    def _hide_the_machines_rules_and_sessions(self):
        """Whoever runs this may be logged in here, and polkit asks less of those."""
        empty = self._folder / "empty"
        for folder in (empty, self._rules):
            folder.mkdir()
            folder.chmod(0o755)
        run("mount", "--bind", str(self._rules), "/etc/polkit-1/rules.d")
        run("mount", "--bind", str(empty), "/usr/share/polkit-1/rules.d")
        state = pathlib.Path("/run/systemd")
        state.mkdir(exist_ok=True)
        run("mount", "-t", "tmpfs", "-o", "mode=755", "tmpfs", str(state))
        for name in ("machines", "seats", "sessions", "users"):
            (state / name).mkdir()

    # What the device's owner could do.

    def set_rule(self, text):
        """Puts a rule where polkit looks; waits until polkit has taken it."""
        self._change_rules(text, 1)

    def remove_rule(self):
        self._change_rules(None, 0)

    def _change_rules(self, text, expected):
        self.timeline.add("laboratory", "sets a polkit rule" if text else "removes polkit's rule")
        path = self._rules / "50-failover.rules"
        if text is None:
            path.unlink()
        else:
            whole = self._folder / "rule"
            whole.write_text(text, encoding="utf-8")
            whole.chmod(0o644)
            whole.rename(path)
        done = f"compiling and executing {expected} rules"
        if not self._polkit.wait_for(lambda line: done in line, 10):
            raise LaboratoryError("polkit does not take the rules:\n"
                                  + "\n".join(self._polkit.lines[-10:]))

    @staticmethod
    def install(*files):
        """Puts programs and libraries where each user may read them."""
        DEVICE.mkdir(exist_ok=True)
        DEVICE.chmod(0o755)
        for file in files:
            pathlib.Path(shutil.copy(file, DEVICE)).chmod(0o755)

    @staticmethod
    def as_user(user, *command):
        """The command line that runs a command as a user without any privilege, as a service."""
        return ["setpriv", f"--reuid={user}", f"--regid={user}", "--clear-groups",
                "--bounding-set=-all", "--inh-caps=-all", "--no-new-privs", "env", "-i",
                f"HOME={HOMES / user}", f"USER={user}", f"LD_LIBRARY_PATH={DEVICE}",
                *(f"{name}={os.environ[name]}"
                  for name in ("PATH", "LC_ALL", "DBUS_SYSTEM_BUS_ADDRESS")), *command]

    def run_as(self, user, *command):
        """Runs a command as the user; returns its exit status, its output and its messages."""
        done = subprocess.run(self.as_user(user, *command), stdin=subprocess.DEVNULL,
                              stdout=subprocess.PIPE, stderr=subprocess.PIPE, encoding="utf-8",
                              cwd="/", check=False, timeout=120)
        return done.returncode, done.stdout, done.stderr

    @staticmethod
    def actions():
        """All actions that polkit knows of."""
        return run("pkaction").split()

    @staticmethod
    def allowed(actions, process):
        """Those that polkit lets the process do without anybody's password."""
        return {action for action in actions if subprocess.run(
            ["pkcheck", "--action-id", action, "--process", str(process)],
            stdout=subprocess.DEVNULL, stderr=subprocess.DEVNULL, check=False).returncode == 0}

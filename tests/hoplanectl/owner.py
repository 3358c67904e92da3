# SPDX-License-Identifier: MIT
"""set and import as root, where the application is another user's: what it owned it owns
afterwards. Its arguments are the library and the tool. Enters a user namespace of several users
first, then script/sandbox."""

import contextlib
import grp
import os
import pathlib
import pwd
import shutil
import signal
import subprocess
import sys

import tool
# In the path since tool is imported.
import users
from laboratory import wait_until
from tool import path_of, write

SANDBOX = pathlib.Path(__file__).resolve().parent.parent.parent / "script" / "sandbox"
OWNER, OTHER = users.USERS["failover"], users.USERS["stranger"]
DOCUMENTS = tool.HOME / "Documents"
DEVICE = pathlib.Path("/sandbox/device")
TRACE = pathlib.Path("/sandbox/trace")


def owner_of(path):
    state = path.stat()
    return state.st_uid, state.st_gid


def as_user(user, *arguments):
    """Runs the tool as another user, whose home is the same."""
    done = subprocess.run([DEVICE / "hoplanectl", *arguments], stdout=subprocess.PIPE,
                          stderr=subprocess.PIPE, encoding="utf-8", timeout=60, user=user,
                          group=user, extra_groups=[], check=False, cwd="/",
                          env=os.environ | {"LD_LIBRARY_PATH": str(DEVICE)})
    return tool.Result(done)


def names(user):
    """The user's name and his group's; their numbers where they have none."""
    with contextlib.suppress(KeyError):
        return pwd.getpwuid(user).pw_name, grp_name(user)
    return str(user), grp_name(user)


def grp_name(group):
    with contextlib.suppress(KeyError):
        return grp.getgrgid(group).gr_name
    return str(group)


def chown_to(user):
    return "chown " + ":".join(names(user))


def file_item(user):
    """What `check` says of the file to this user."""
    result = as_user(user, "check", "--json")
    found, = (row for row in result.objects if row.get("item") == "file")
    return found


def library_saves(user, path):
    """Whether the library, in an application of this user, can store a connection's name."""
    before = path.resolve().read_bytes()
    # The name of the application.
    folder = DOCUMENTS / "laboratory"
    folder.symlink_to(path.parent)
    with subprocess.Popen([DEVICE / "lab_application"], stdin=subprocess.PIPE,
                          stdout=subprocess.PIPE, stderr=subprocess.DEVNULL, encoding="utf-8",
                          user=user, group=user, extra_groups=[], cwd="/",
                          env=os.environ | {"LD_LIBRARY_PATH": str(DEVICE)}) as application:
        application.stdin.write("connection\tstored\n")
        application.stdin.flush()
        while " done connection" not in (line := application.stdout.readline()):
            if not line or " unknown " in line:
                application.kill()
                raise RuntimeError(f"the application does not store the name: {line}")
        application.kill()
    folder.unlink()
    after = path.resolve().read_bytes()
    return after != before and b"connectionName=stored" in after


def setUpModule():  # noqa: N802
    """Puts the tool and its library where each user may read them."""
    DEVICE.mkdir()
    library = tool.COMMAND.pop(0)
    for file in library, tool.COMMAND[0]:
        pathlib.Path(shutil.copy(file, DEVICE)).chmod(0o755)
    application = pathlib.Path(tool.COMMAND[0]).parents[2] / "tests/lab/application/lab_application"
    pathlib.Path(shutil.copy(application, DEVICE)).chmod(0o755)


class Owner(tool.TestCase):
    def setUp(self):
        super().setUp()
        DOCUMENTS.mkdir()
        os.chown(DOCUMENTS, OWNER, OWNER)

    def configured(self, mode=0o600):
        path = write("device", {"SwitchEnable": "true", "connectionName": "lan"})
        os.chown(path.parent, OWNER, OWNER)
        os.chown(path, OWNER, OWNER)
        path.chmod(mode)
        return path

    def test_root_changes_the_file_of_the_applications_user(self):
        path = self.configured()
        self.expect(0, "set", "server", "1", "192.0.2.1:9000")
        self.assertEqual(owner_of(path), (OWNER, OWNER))
        self.assertEqual(path.stat().st_mode & 0o7777, 0o600)
        shown = as_user(OWNER, "show")
        self.assertIn("switching    on\n", shown.out)
        self.assertIn("server 192.0.2.1:9000", shown.out)

    def test_root_imports_into_the_file_of_the_applications_user(self):
        path = self.configured()
        device = tool.HOME / "device.ini"
        device.write_text("[NetworkConnections]\nconName=wan\n", encoding="utf-8")
        self.addCleanup(device.unlink)
        self.expect(0, "import", "--from", str(device))
        self.assertEqual(owner_of(path), (OWNER, OWNER))

    def test_group_stays(self):
        path = self.configured(0o640)
        os.chown(path, OWNER, OTHER)
        self.expect(0, "set", "enabled", "off")
        self.assertEqual(owner_of(path), (OWNER, OTHER))

    def test_root_makes_file_and_folder_for_the_owner_of_the_folder_above(self):
        self.expect(0, "--app", "device", "set", "enabled", "on")
        path = path_of("device")
        self.assertEqual(owner_of(path.parent), (OWNER, OWNER))
        self.assertEqual(owner_of(path), (OWNER, OWNER))

    def test_root_makes_several_folders(self):
        DOCUMENTS.rmdir()
        os.chown(tool.HOME, OWNER, OWNER)
        self.addCleanup(os.chown, tool.HOME, 0, 0)
        self.expect(0, "--app", "device", "set", "enabled", "on")
        for path in (DOCUMENTS, path_of("device").parent, path_of("device")):
            self.assertEqual(owner_of(path), (OWNER, OWNER))

    def test_another_user_keeps_what_he_makes_in_a_folder_for_all(self):
        path = path_of("device")
        path.parent.mkdir()
        os.chown(path.parent, OWNER, OWNER)
        path.parent.chmod(0o777)
        result = as_user(OTHER, "--app", "device", "set", "enabled", "on")
        self.assertEqual((result.status, result.err), (0, ""))
        self.assertEqual(owner_of(path), (OTHER, OTHER))

    def traced(self, call, what):
        """Begins `set` as root below strace, with that at its first system call."""
        process = subprocess.Popen(
            ["strace", "-o", str(TRACE), "-e", f"trace={call}",
             "-e", f"inject={call}:{what}:when=1", *tool.COMMAND, "--app", "device", "set",
             "enabled", "on"], stdout=subprocess.PIPE, stderr=subprocess.PIPE, encoding="utf-8",
            # Leaks cannot be looked for under strace.
            env=os.environ | {"ASAN_OPTIONS": "detect_leaks=0"})
        self.addCleanup(process.communicate)
        self.addCleanup(process.kill)
        return process

    def test_folder_that_cannot_be_given(self):
        """It is not left behind, and no file is made in it."""
        process = self.traced("?lchown,?fchownat", "error=EPERM")
        out, err = process.communicate(timeout=60)
        self.assertEqual((process.returncode, out), (1, ""))
        self.assertIn(f"the folder {path_of('device').parent} cannot be made", err)
        self.assertEqual(os.listdir(DOCUMENTS), [])

    def test_link_in_place_of_the_new_folder(self):
        """The owner of the folder above replaces the new one by a link, before he is given it: what
        the link leads to is not given to him."""
        victim = pathlib.Path("/sandbox/victim")
        victim.mkdir()
        self.addCleanup(shutil.rmtree, victim)
        TRACE.write_text("", encoding="utf-8")
        process = self.traced("?mkdir,?mkdirat", "signal=STOP")
        wait_until(lambda: "stopped by SIGSTOP" in TRACE.read_text(encoding="utf-8"), 30,
                   "a new folder")
        folder = path_of("device").parent
        folder.rmdir()
        folder.symlink_to(victim)
        children = pathlib.Path(f"/proc/{process.pid}/task/{process.pid}/children")
        os.kill(int(children.read_text(encoding="ascii")), signal.SIGCONT)
        process.communicate(timeout=60)
        self.assertEqual(owner_of(victim), (0, 0))

    def test_another_user_may_not_take_the_file_over(self):
        path = self.configured(0o644)
        path.parent.chmod(0o777)
        before = tool.state_of(path)
        result = as_user(OTHER, "set", "enabled", "off")
        self.assertEqual((result.status, result.out), (1, ""))
        self.assertIn("nothing is changed: ", result.err)
        self.assertIn(f"the user {names(OTHER)[0]} may not write it; run it as root, or "
                      f"{chown_to(OTHER)} {path}\n", result.err)
        self.assertEqual(tool.state_of(path), before)
        self.assertEqual(os.listdir(path.parent), ["switch.ini"])

    def test_who_may_write_the_file_may_not_take_it_over_either(self):
        path = self.configured(0o666)
        path.parent.chmod(0o777)
        before = tool.state_of(path)
        result = as_user(OTHER, "set", "enabled", "off")
        self.assertEqual((result.status, result.out), (1, ""))
        self.assertIn("its owner cannot be kept: Operation not permitted; run it as root, or "
                      f"{chown_to(OTHER)} {path}\n", result.err)
        self.assertEqual(tool.state_of(path), before)

    def test_group_that_the_owner_is_not_in(self):
        """His own takes its place, unless that gave or took somebody rights."""
        for mode, kept in ((0o600, True), (0o644, True), (0o664, False), (0o640, False),
                           (0o604, False)):
            with self.subTest(mode=oct(mode)):
                path = self.configured(mode)
                os.chown(path, OWNER, 0)
                before = tool.state_of(path)
                result = as_user(OWNER, "set", "enabled", "off")
                self.assertEqual(result.status, int(not kept), result)
                if kept:
                    self.assertEqual(owner_of(path), (OWNER, OWNER))
                    self.assertEqual(path.stat().st_mode & 0o7777, mode)
                    continue
                self.assertIn("its group cannot be kept: Operation not permitted; run it as root, "
                              f"or {chown_to(OWNER)} {path}\n", result.err)
                self.assertEqual(tool.state_of(path), before)
                # What it says helps.
                subprocess.run(result.err.split(" or ")[1].split(), check=True)
                self.assertEqual(as_user(OWNER, "set", "enabled", "off").status, 0)

    def test_the_remedy_of_check_makes_set_possible(self):
        """What the user may read and not write, the library cannot save to. `check` tells it, `set`
        tells it, and what they advise helps."""
        def link(path):
            path.rename(path.parent / "real.ini")
            path.symlink_to("real.ini")

        def foreign_link(path):
            os.chown(path.parent, 0, 0)
            target = tool.HOME / "target"
            target.mkdir(exist_ok=True)
            os.chown(target, OWNER, OWNER)
            path.rename(target / "switch.ini")
            path.symlink_to(target / "switch.ini")

        table = [
            # What is done to the file, and what is wrong with which path then.
            (lambda path: os.chown(path, 0, 0), 0o600, "{path} cannot be read by the user {user}",
             "{chown} {path}"),
            (lambda path: os.chown(path, 0, 0), 0o644,
             "{path} cannot be written by the user {user}: Permission denied; what the "
             "application saves or imports is lost", "{chown} {path}"),
            (lambda path: path.chmod(0o444), 0o644,
             "{path} cannot be written by the user {user}: Permission denied",
             "chmod u+w {path}"),
            (lambda path: os.chown(path.parent, 0, 0), 0o644,
             "{folder} cannot be written by the user {user}", "{chown} {folder}"),
            (lambda path: path.parent.chmod(0o555), 0o644,
             "{folder} cannot be written by the user {user}", "chmod u+wx {folder}"),
            (foreign_link, 0o644, "{folder} cannot be written by the user {user}",
             "{chown} {folder}"),
            (lambda path: (link(path), os.chown(path, 0, 0)), 0o644,
             "{folder}/real.ini cannot be written by the user {user}",
             "{chown} {folder}/real.ini"),
        ]
        for number, (spoil, mode, text, remedy) in enumerate(table):
            with self.subTest(number=number):
                tool.remove_all()
                DOCUMENTS.mkdir()
                os.chown(DOCUMENTS, OWNER, OWNER)
                path = self.configured(mode)
                self.assertEqual(file_item(OWNER)["level"], "good")
                spoil(path)
                words = {"path": path, "folder": path.parent, "user": names(OWNER)[0],
                         "chown": chown_to(OWNER)}
                found = file_item(OWNER)
                self.assertEqual(found["level"], "fault", found)
                self.assertTrue(found["text"].startswith(text.format(**words)), found)
                command = found["remedy"].rpartition("; or ")[2]
                self.assertEqual(command, remedy.format(**words))
                self.assertEqual(as_user(OWNER, "set", "enabled", "off").status,
                                 # The tool locks beside what a link leads to.
                                 int(spoil is not foreign_link))
                self.assertFalse(library_saves(OWNER, path))
                subprocess.run(command.split(), check=True)
                self.assertTrue(library_saves(OWNER, path))
                self.assertEqual(file_item(OWNER)["level"], "good")
                done = as_user(OWNER, "set", "enabled", "off")
                self.assertEqual((done.status, done.err), (0, ""), done)

    def test_write_protected_file(self):
        path = self.configured(0o444)
        result = as_user(OWNER, "set", "enabled", "off")
        self.assertEqual((result.status, result.out, result.err), (
            1, "", f"hoplanectl: nothing is changed: {path}: it is write-protected; chmod u+w "
                   f"{path}\n"))


def main():
    if os.environ.get("HOME") == str(tool.HOME):
        tool.main()
    try:
        users.enter()
    except users.UsersError as error:
        return f"owner.py: {error}"
    return subprocess.run([SANDBOX, "--inherit-users", "/usr/bin/python3", "-B", __file__,
                           *sys.argv[1:]], check=False).returncode


if __name__ == "__main__":
    sys.exit(main())

# SPDX-License-Identifier: MIT
"""set and import as root, where the application is another user's: what it owned it owns
afterwards. Its arguments are the library and the tool. Enters a user namespace of several users
first, then script/sandbox."""

import os
import pathlib
import shutil
import subprocess
import sys

import tool
# In the path since tool is imported.
import users
from tool import path_of, write

SANDBOX = pathlib.Path(__file__).resolve().parent.parent.parent / "script" / "sandbox"
OWNER, OTHER = users.USERS["failover"], users.USERS["stranger"]
DOCUMENTS = tool.HOME / "Documents"
DEVICE = pathlib.Path("/sandbox/device")


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


def setUpModule():  # noqa: N802
    """Puts the tool and its library where each user may read them."""
    DEVICE.mkdir()
    library = tool.COMMAND.pop(0)
    for file in library, tool.COMMAND[0]:
        pathlib.Path(shutil.copy(file, DEVICE)).chmod(0o755)


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

    def test_another_user_may_not_take_the_file_over(self):
        path = self.configured(0o644)
        path.parent.chmod(0o777)
        before = tool.state_of(path)
        result = as_user(OTHER, "set", "enabled", "off")
        self.assertEqual((result.status, result.out), (1, ""))
        self.assertIn("nothing is changed: ", result.err)
        self.assertIn("its owner cannot be kept", result.err)
        self.assertEqual(tool.state_of(path), before)
        self.assertEqual(os.listdir(path.parent), ["switch.ini"])


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

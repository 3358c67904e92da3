# SPDX-License-Identifier: MIT
"""A user namespace with more users than root. The kernel wants a privilege once, for the list of
its users; what runs in it has none outside. Whoever makes it becomes its root. Its other users are
numbers outside that no account has."""

import ctypes
import grp
import os
import pathlib
import pwd
import subprocess

# Beside root: name and number inside. Only the laboratory's programs need them.
USERS = {"polkitd": 101, "failover": 1000, "stranger": 1001}
# Debian gives these to no account, and systemd to no service.
UNUSED = 65520
CLONE_NEWUSER = 0x10000000


class UsersError(Exception):
    """The machine does not let such a namespace be made."""


def enter():
    """Moves this process into a namespace of its own."""
    told, unshared = os.pipe()
    helper = os.fork()
    if helper == 0:
        os.close(unshared)
        os._exit(0 if os.read(told, 1) and _list_users(os.getppid()) else 1)
    os.close(told)
    forbidden = ctypes.CDLL(None, use_errno=True).unshare(CLONE_NEWUSER) != 0
    reason = os.strerror(ctypes.get_errno())
    if not forbidden:
        os.write(unshared, b".")
    os.close(unshared)
    listed = os.waitpid(helper, 0)[1] == 0
    if forbidden:
        raise UsersError(f"no user namespace can be made: {reason}")
    if not listed:
        raise UsersError("no user namespace with several users can be made; see above")
    os.setgroups([])
    os.setresgid(0, 0, 0)
    os.setresuid(0, 0, 0)


def _list_users(process):
    """Gives the process's namespace its users, in the first way that is allowed."""
    reserved = [_table(own, UNUSED) for own in (os.getuid(), os.getgid())]
    reasons = []
    for way in (_write, _ask_uidmap, _ask_sudo):
        try:
            way(process, *reserved)
            return True
        except (OSError, KeyError, UsersError) as error:
            reasons.append(f"  {way.__doc__}: {error}")
    print("The test needs a user namespace with several users. Tried:", *reasons,
          "Root may make one. So may a user who has subordinate numbers and newuidmap:\n"
          "  apt-get install uidmap\n"
          "  usermod --add-subuids 100000-165535 --add-subgids 100000-165535 USER\n"
          "or who may use sudo without being asked for a password.", sep="\n", flush=True)
    return False


def _table(own, first):
    """Rows of (number inside, number outside, how many)."""
    return [(0, own, 1)] + [(inside, first + index, 1)
                            for index, inside in enumerate(USERS.values())]


def _text(table):
    return "".join(" ".join(map(str, row)) + "\n" for row in table)


def _run(*command, text=None):
    done = subprocess.run(command, input=text, stdout=subprocess.PIPE, stderr=subprocess.STDOUT,
                          text=True, check=False)
    if done.returncode != 0:
        raise UsersError(done.stdout.strip() or f"{command[0]} exits {done.returncode}")


def _write(process, users, groups):
    """as root"""
    pathlib.Path(f"/proc/{process}/gid_map").write_text(_text(groups), encoding="ascii")
    pathlib.Path(f"/proc/{process}/uid_map").write_text(_text(users), encoding="ascii")


def _ask_sudo(process, users, groups):
    """with sudo"""
    for name, table in (("gid_map", groups), ("uid_map", users)):
        _run("sudo", "-n", "dd", f"of=/proc/{process}/{name}", "bs=4096", "status=none",
             text=_text(table))


def _subordinates(path, name, number):
    for line in pathlib.Path(path).read_text(encoding="utf-8").splitlines():
        owner, first, count = line.split(":")
        if owner in (name, str(number)) and int(count) >= len(USERS):
            return int(first)
    raise UsersError(f"{path} has no numbers for {name}")


def _ask_uidmap(process, *_):
    """with newuidmap"""
    user, group = pwd.getpwuid(os.getuid()), grp.getgrgid(os.getgid())
    for program, own, path in (("newgidmap", group.gr_gid, "/etc/subgid"),
                               ("newuidmap", user.pw_uid, "/etc/subuid")):
        first = _subordinates(path, user.pw_name, user.pw_uid)
        _run(program, str(process), *(str(part) for row in _table(own, first) for part in row))

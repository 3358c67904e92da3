#!/usr/bin/python3
# SPDX-License-Identifier: MIT
"""A command, or a shell, in the laboratory; see script/lab. In it the word "lab" changes the
laboratory:

  lab server 1|2 on|off    lets a server accept, or refuse
  lab cable pull|plug      the device's network cable
  lab switch 0|1           the LAN switch, which the library heeds on ARM
  lab dhcp on|off          whether the second network's DHCP server answers
  lab manager stop|go      holds NetworkManager, or lets it go on
"""

import os
import pathlib
import socket
import subprocess
import sys
import tempfile
import threading

from laboratory import NET1, NET2, PORT, Laboratory, LaboratoryError

CONTROL = "HOPLANE_LABORATORY"
WELCOME = f"""A laboratory: NetworkManager with the connection "lan" on eth0, and two servers.
  server 1  {NET1.server}:{PORT}, off; the device needs a static address, such as {NET1.device}/24
  server 2  {NET2.server}:{PORT}, on; its network gives addresses by DHCP
"lab --help" tells how to change it; "exit" ends it, with all that is in it."""


class Control:
    """Carries out what "lab" asks for."""

    def __init__(self, lab):
        self._lab = lab
        self._servers = {"1": NET1.server, "2": NET2.server}
        self._running = set()
        self._words = {
            "server": self._server,
            "cable": {"pull": lab.pull_cable, "plug": lab.plug_cable},
            "switch": {"0": lambda: lab.flip_lan_switch(0), "1": lambda: lab.flip_lan_switch(1)},
            "dhcp": {"on": lab.start_dhcp, "off": lab.stop_dhcp},
            "manager": {"stop": lab.stop_manager, "go": lab.continue_manager},
        }

    def obey(self, words):
        """Returns what went wrong, or nothing."""
        try:
            if words[0] == "server" and len(words) == 3:
                return self._server(*words[1:])
            if words[0] != "server" and len(words) == 2:
                self._words[words[0]][words[1]]()
                return ""
        except (KeyError, LaboratoryError) as error:
            if isinstance(error, LaboratoryError):
                return str(error)
        return f"cannot do \"{' '.join(words)}\"; see lab --help"

    def _server(self, number, state):
        address = self._servers[number]
        if state not in ("on", "off"):
            raise KeyError(state)
        if (state == "on") == (number in self._running):
            return f"server {number} is {state} already"
        if state == "on":
            self._lab.start_server(address)
            self._running.add(number)
        else:
            self._lab.stop_server(address)
            self._running.remove(number)
        return ""

    def serve(self, listener):
        while True:
            connection, _ = listener.accept()
            with connection:
                words = connection.recv(4096).decode(errors="replace").split("\0")
                connection.sendall(self.obey(words).encode())


def tell(words):
    """The part of "lab"."""
    if not words or words[0] in ("-h", "--help"):
        print(__doc__.partition(":\n\n")[2].rstrip())
        return 0 if words else 64
    with socket.socket(socket.AF_UNIX) as client:
        client.connect(os.environ[CONTROL])
        client.sendall("\0".join(words).encode())
        client.shutdown(socket.SHUT_WR)
        trouble = client.recv(4096).decode()
    if trouble:
        print(f"lab: {trouble}", file=sys.stderr)
    return 1 if trouble else 0


def main(tools, command):
    with tempfile.TemporaryDirectory() as folder, Laboratory() as lab, \
            socket.socket(socket.AF_UNIX) as listener:
        os.environ[CONTROL] = str(pathlib.Path(folder) / "control")
        listener.bind(os.environ[CONTROL])
        listener.listen()
        control = Control(lab)
        control.obey(["server", "2", "on"])
        threading.Thread(target=control.serve, args=(listener,), daemon=True).start()
        word = pathlib.Path(folder) / "lab"
        word.write_text(f'#!/bin/sh\nexec /usr/bin/python3 -B "{__file__}" --tell "$@"\n',
                        encoding="utf-8")
        word.chmod(0o755)
        os.environ["PATH"] = f"{folder}:{tools}:" + os.environ["PATH"]
        if command:
            return subprocess.run(command, check=False).returncode
        print(WELCOME, flush=True)
        environment = os.environ | {"PS1": "laboratory$ "}
        return subprocess.run(["bash", "--norc", "--noprofile", "-i"], env=environment,
                              check=False).returncode


if __name__ == "__main__":
    if sys.argv[1:2] == ["--tell"]:
        sys.exit(tell(sys.argv[2:]))
    try:
        sys.exit(main(sys.argv[1], sys.argv[2:]))
    except LaboratoryError as failure:
        sys.exit(f"script/lab: {failure}")

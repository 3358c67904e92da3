# SPDX-License-Identifier: MIT
"""A laboratory for the whole system on one machine: the real NetworkManager, a DHCP server, two TCP
servers and a cable that can be pulled. Runs inside script/sandbox, as its first user, and ends with
it; nothing outside the sandbox is touched.

The device's end of the cable is eth0. The servers' end, port0, lies in a network namespace of its
own and has one address in each of two networks.
"""

import contextlib
import json
import os
import pathlib
import queue
import shutil
import stat
import subprocess
import sys
import tempfile
import threading
import time

FIRST = "198.51.100.1"  # the first network, TEST-NET-2: static addressing
SECOND = "192.0.2.1"  # the second network, TEST-NET-1: its DHCP server gives .100 to .150
PORT = 9000
CONNECTION = "lan"

BUS_CONFIGURATION = """<busconfig>
  <type>system</type>
  <listen>unix:path={socket}</listen>
  <policy context="default">
    <allow user="*"/><allow own="*"/>
    <allow send_type="method_call"/><allow send_type="signal"/>
    <allow send_type="method_return"/><allow send_type="error"/>
    <allow receive_type="method_call"/><allow receive_type="signal"/>
    <allow receive_type="method_return"/><allow receive_type="error"/>
  </policy>
</busconfig>
"""

MANAGER_CONFIGURATION = """[main]
plugins=keyfile
dhcp=internal
dns=none
no-auto-default=*
auth-polkit=false

[device-eth0]
match-device=interface-name:eth0
managed=1
"""

# Accepts and closes; one line for each thing that happens.
SERVER = """
import socket, sys
listener = socket.create_server((sys.argv[1], int(sys.argv[2])), backlog=16)
print("listening", flush=True)
while True:
    connection, peer = listener.accept()
    connection.close()
    print("accepted", peer[0], flush=True)
"""


class LaboratoryError(Exception):
    """The laboratory could not be raised, or something in it did not happen in time."""


def run(*command, check=True):
    """Runs a command to its end and returns what it printed."""
    done = subprocess.run(command, stdin=subprocess.DEVNULL, stdout=subprocess.PIPE,
                          stderr=subprocess.STDOUT, text=True, check=False)
    if check and done.returncode != 0:
        raise LaboratoryError(f"{' '.join(command)}: exit {done.returncode}\n{done.stdout}")
    return done.stdout


def wait_until(condition, seconds, what):
    """Asks until the condition holds; returns its value."""
    end = time.monotonic() + seconds
    while True:
        if value := condition():
            return value
        if time.monotonic() > end:
            raise LaboratoryError(f"{what}: not within {seconds} s")
        time.sleep(0.01)


class Program:
    """A program that runs in the background and whose lines are read as they come."""

    def __init__(self, command, on_line=None):
        self.lines = []
        self._news = queue.Queue()
        self._on_line = on_line
        self._process = subprocess.Popen(command, stdin=subprocess.DEVNULL, stdout=subprocess.PIPE,
                                         stderr=subprocess.STDOUT, encoding="utf-8",
                                         errors="replace")
        self._reader = threading.Thread(target=self._read, daemon=True)
        self._reader.start()

    def _read(self):
        for line in self._process.stdout:
            line = line.rstrip("\n")
            self.lines.append(line)
            if self._on_line:
                self._on_line(line)
            self._news.put(line)
        self._news.put(None)

    @property
    def pid(self):
        return self._process.pid

    def running(self):
        return self._process.poll() is None

    def wait_for(self, wanted, seconds):
        """Returns the next line, not looked at before, for which wanted(line) holds."""
        end = time.monotonic() + seconds
        while True:
            try:
                line = self._news.get(timeout=max(0.0, end - time.monotonic()))
            except queue.Empty:
                return None
            if line is None:
                self._news.put(None)
                return None
            if wanted(line):
                return line

    def stop(self):
        if self.running():
            self._process.terminate()
            try:
                self._process.wait(10)
            except subprocess.TimeoutExpired:
                self._process.kill()
        self._process.wait()
        self._reader.join(10)


class Laboratory:
    """Raised by `with Laboratory() as lab`."""

    def __init__(self):
        self._stack = contextlib.ExitStack()
        self._folder = None
        self._servers = {}
        self._servers_side = None
        self.manager = None

    def __enter__(self):
        if os.environ.get("HOME") != "/sandbox/home":
            raise LaboratoryError("the laboratory runs inside script/sandbox only")
        missing = [name for name in ("ip", "nsenter", "unshare", "dnsmasq", "dbus-daemon",
                                     "NetworkManager", "nmcli", "awk")
                   if not shutil.which(name, path="/usr/sbin:/usr/bin:/sbin:/bin")]
        if missing:
            raise LaboratoryError("not installed: " + ", ".join(missing))
        os.environ["PATH"] = "/usr/sbin:/usr/bin:/sbin:/bin"
        # Messages are compared here and there, so they are asked for untranslated.
        os.environ["LC_ALL"] = "C.UTF-8"
        self._folder = pathlib.Path(self._stack.enter_context(tempfile.TemporaryDirectory()))
        try:
            self._raise_cable()
            self._raise_dhcp()
            self._raise_manager()
        except BaseException:
            self._stack.close()
            raise
        return self

    def __exit__(self, *_):
        self._stack.close()
        # NetworkManager replaces a device that was named to it as one of its own files.
        if not stat.S_ISCHR(os.stat("/dev/null").st_mode):
            raise LaboratoryError("/dev/null is no character device any more")

    def _start(self, command, **options):
        program = Program(command, **options)
        self._stack.callback(program.stop)
        return program

    def there(self, *command):
        """The command line that runs a command on the servers' side."""
        return ("nsenter", "-t", str(self._servers_side.pid), "-n", *command)

    def _raise_cable(self):
        self._servers_side = self._start(["unshare", "-n", "sleep", "infinity"])
        own = os.readlink("/proc/self/ns/net")
        theirs = f"/proc/{self._servers_side.pid}/ns/net"
        wait_until(lambda: self._servers_side.running() and os.readlink(theirs) != own, 5,
                   "the servers' namespace")
        run("ip", "link", "add", "eth0", "type", "veth", "peer", "name", "port0", "netns",
            str(self._servers_side.pid))
        for address in (FIRST, SECOND):
            run(*self.there("ip", "address", "add", address + "/24", "dev", "port0"))
        run(*self.there("ip", "link", "set", "lo", "up"))
        run(*self.there("ip", "link", "set", "port0", "up"))
        run("ip", "link", "set", "eth0", "up")

    def _raise_dhcp(self):
        network = SECOND.rsplit(".", 1)[0]
        dhcp = self._start(self.there(
            "dnsmasq", "-d", "--port=0", "--conf-file=/dev/null", "--user=root", "--group=root",
            "--interface=port0", "--bind-interfaces", "--leasefile-ro",
            f"--dhcp-range={network}.100,{network}.150,255.255.255.0,1h"))
        if not dhcp.wait_for(lambda line: "DHCP, IP range" in line, 10):
            raise LaboratoryError("the DHCP server does not start:\n" + "\n".join(dhcp.lines))

    def _raise_manager(self):
        settings = self._folder / "NetworkManager"
        (settings / "system-connections").mkdir(parents=True)
        (settings / "NetworkManager.conf").write_text(MANAGER_CONFIGURATION)
        run("mount", "-t", "tmpfs", "tmpfs", "/var/lib/NetworkManager")
        run("mount", "--bind", str(settings), "/etc/NetworkManager")
        bus = self._folder / "bus"
        configuration = self._folder / "bus.conf"
        configuration.write_text(BUS_CONFIGURATION.format(socket=bus))
        os.environ["DBUS_SYSTEM_BUS_ADDRESS"] = f"unix:path={bus}"
        self._start(["dbus-daemon", f"--config-file={configuration}", "--nofork"])
        wait_until(bus.exists, 10, "the message bus")
        self.manager = self._start(["NetworkManager", "--no-daemon"])
        try:
            wait_until(lambda: run("nmcli", "-t", "-f", "RUNNING", "general", check=False).strip()
                       == "running", 20, "NetworkManager")
        except LaboratoryError as late:
            raise LaboratoryError("\n".join([str(late), *self.manager.lines[-20:]])) from None
        run("nmcli", "connection", "add", "type", "ethernet", "ifname", "eth0", "con-name",
            CONNECTION, "ipv4.method", "auto", "connection.autoconnect", "no", "ipv6.method",
            "disabled")

    # What a person could do to the network.

    def start_server(self, address, on_accept=None):
        """Lets the server at the address accept connections from now on."""
        server = self._start(self.there("/usr/bin/python3", "-c", SERVER, address, str(PORT)),
                             on_line=on_accept)
        if not server.wait_for(lambda line: line == "listening", 10):
            raise LaboratoryError(f"the server {address} does not listen: {server.lines}")
        self._servers[address] = server

    def stop_server(self, address):
        self._servers.pop(address).stop()

    def pull_cable(self):
        run(*self.there("ip", "link", "set", "port0", "down"))

    def plug_cable(self):
        run(*self.there("ip", "link", "set", "port0", "up"))

    # What the device is like now.

    @staticmethod
    def addresses():
        """The IPv4 addresses of eth0, each with its prefix length."""
        shown = json.loads(run("ip", "-j", "-4", "address", "show", "dev", "eth0"))
        return [f"{entry['local']}/{entry['prefixlen']}"
                for interface in shown for entry in interface.get("addr_info", [])]

    def watch_addresses(self, on_line):
        """Calls on_line with a line of `ip monitor` for each change of eth0's addresses."""
        self._start(["ip", "-o", "-4", "monitor", "address", "dev", "eth0"], on_line=on_line)

    def start_application(self, command, on_line=None):
        """Runs the application under test, in the laboratory's HOME."""
        return self._start(command, on_line=on_line)


def write_configuration(application, values):
    """Writes the application's switch.ini."""
    folder = pathlib.Path(os.environ["HOME"]) / "Documents" / application
    folder.mkdir(parents=True, exist_ok=True)
    path = folder / "switch.ini"
    lines = ["[General]"] + [f"{key}={value}" for key, value in values.items()]
    path.write_text("\n".join(lines) + "\n", encoding="utf-8")
    return path


if __name__ == "__main__":
    sys.exit("this is a module; see script/demo")

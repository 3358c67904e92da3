# SPDX-License-Identifier: MIT
"""A laboratory for the whole system on one machine: the real NetworkManager, a DHCP server, TCP
servers, a cable that can be pulled and a LAN switch that can be flipped. Runs inside
script/sandbox, as the root user that it makes of whoever runs it, and ends with it; nothing outside
the sandbox is touched.

The device's end of the cable is eth0. The servers' end, port0, lies in a network namespace of its
own and has one address in each of two networks.
"""

import collections
import contextlib
import ctypes
import dataclasses
import json
import os
import pathlib
import re
import shutil
import signal
import socket
import stat
import struct
import subprocess
import sys
import tempfile
import threading
import time

PORT = 9000
CONNECTION = "lan"
LAN_SWITCH = "/devices/virtual/switch/lan-switch"


@dataclasses.dataclass(frozen=True)
class Network:
    """A network of the laboratory, with its server's address and what the device has there."""
    prefix: str
    name: str

    @property
    def server(self):
        return self.prefix + ".1"

    @property
    def device(self):
        """The device's address, where it is configured as static."""
        return self.prefix + ".2"

    @property
    def dns(self):
        return [self.prefix + ".53", self.prefix + ".54"]


NET1 = Network("198.51.100", "first")  # TEST-NET-2, without a DHCP server
NET2 = Network("192.0.2", "second")  # TEST-NET-1, its DHCP server gives .100 to .150
LEASED = re.compile(re.escape(NET2.prefix) + r"\.1([0-4][0-9]|50)/24")

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

# The loopback interface is left alone: NetworkManager from 1.42 on lists it as an active
# connection.
MANAGER_CONFIGURATION = """[main]
plugins=keyfile
dhcp=internal
dns=none
no-auto-default=*
auth-polkit=false

[device-lo]
match-device=interface-name:lo
managed={manage_loopback}

[device-wired]
match-device=interface-name:eth*
managed=1
"""


class LaboratoryError(Exception):
    """The laboratory could not be raised, or something in it did not happen in time."""


def run(*command, check=True):
    """Runs a command to its end and returns what it printed."""
    try:
        done = subprocess.run(command, stdin=subprocess.DEVNULL, stdout=subprocess.PIPE,
                              stderr=subprocess.STDOUT, text=True, check=False, timeout=120)
    except subprocess.TimeoutExpired as late:
        raise LaboratoryError(f"{' '.join(command)}: no end\n{late.stdout}") from None
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


def add_interface(clean_up, name, address):
    """One that the library looks at; its other end is NAME-port. It goes when clean_up's time has
    come."""
    peer = f"{name}-port"
    for command in (["link", "add", name, "type", "veth", "peer", "name", peer],
                    ["address", "add", address, "dev", name],
                    ["link", "set", peer, "up"], ["link", "set", name, "up"]):
        subprocess.run(["ip", *command], check=True)
    clean_up(subprocess.run, ["ip", "link", "del", name], check=True)
    wait_until(
        lambda: pathlib.Path(f"/sys/class/net/{name}/operstate").read_text("ascii") == "up\n", 10,
        f"{name} is up")


class Timeline:
    """What happened, in order: (seconds of the monotonic clock, who, what)."""

    def __init__(self, on_event=None):
        self.begin = time.monotonic()
        self.events = []
        self._on_event = on_event
        self._lock = threading.Lock()

    def add(self, who, what, when=None):
        event = (time.monotonic() if when is None else when, who, what)
        with self._lock:
            self.events.append(event)
        if self._on_event:
            self._on_event(*event)

    def lines(self, *left_out):
        """The events as text, without those of the ones left out."""
        with self._lock:
            events = sorted(self.events, key=lambda event: event[0])
        return [f"{when - self.begin:8.3f} s  {who:<12} {what}"
                for when, who, what in events if who not in left_out]


class Program:
    """A program that runs in the background and whose lines are read as they come."""

    def __init__(self, command, on_line=None, stdin=subprocess.DEVNULL):
        self.lines = []
        self._news = threading.Condition()
        self._looked_at = 0
        self._on_line = on_line
        self._process = subprocess.Popen(command, stdin=stdin, stdout=subprocess.PIPE,
                                         stderr=subprocess.PIPE, encoding="utf-8",
                                         errors="replace")
        # Each stream has a pipe of its own, so that a text without an end of its line on one does
        # not swallow a line of the other.
        streams = (self._process.stdout, self._process.stderr)
        self._open = len(streams)
        self._readers = [threading.Thread(target=self._read, args=(stream,), daemon=True)
                         for stream in streams]
        for reader in self._readers:
            reader.start()

    def _read(self, stream):
        with stream:
            for line in stream:
                line = line.rstrip("\n")
                if self._on_line:
                    self._on_line(line)
                with self._news:
                    self.lines.append(line)
                    self._news.notify_all()
        with self._news:
            self._open -= 1
            self._news.notify_all()

    @property
    def pid(self):
        return self._process.pid

    def running(self):
        return self._process.poll() is None

    def say(self, line):
        """Writes a line to the program's standard input."""
        self._process.stdin.write(line + "\n")
        self._process.stdin.flush()

    def wait_for(self, wanted, seconds):
        """Returns the next line, not looked at before, for which wanted(line) holds."""
        end = time.monotonic() + seconds
        with self._news:
            while True:
                while self._looked_at < len(self.lines):
                    line = self.lines[self._looked_at]
                    self._looked_at += 1
                    if wanted(line):
                        return line
                left = end - time.monotonic()
                if self._open == 0 or left <= 0:
                    return None
                self._news.wait(left)

    def send(self, number):
        """Sends it a signal."""
        self._process.send_signal(number)

    def stop(self):
        if self.running():
            # A stopped process would not notice a request to end.
            self._process.send_signal(signal.SIGCONT)
            self._process.terminate()
            try:
                self._process.wait(10)
            except subprocess.TimeoutExpired:
                self._process.kill()
        self._process.wait()
        for reader in self._readers:
            reader.join(10)


class Server:
    """Accepts on the servers' side, and closes each connection at once."""

    def __init__(self, namespace, address, on_accept, on_listen):
        self._on_accept = on_accept
        self._on_listen = on_listen
        self._socket = None
        self._own_client = None
        self._thread = threading.Thread(target=self._serve, daemon=True)
        maker = threading.Thread(target=self._make, args=(namespace, address))
        maker.start()
        maker.join()
        if self._socket is None:
            raise LaboratoryError(f"no server can be made on {address}:{PORT}")

    def _make(self, namespace, address):
        # Only this thread enters the other namespace; the socket stays there.
        with open(namespace, "rb") as descriptor:
            clone_newnet = 0x40000000
            if ctypes.CDLL(None, use_errno=True).setns(descriptor.fileno(), clone_newnet) != 0:
                return
        made = socket.socket(socket.AF_INET, socket.SOCK_STREAM)
        made.setsockopt(socket.SOL_SOCKET, socket.SO_REUSEADDR, 1)
        made.bind((address, PORT))
        self._own_client = socket.socket(socket.AF_INET, socket.SOCK_STREAM)
        self._socket = made

    def be_too_busy(self):
        """From refusing to dropping each request in silence: the queue of connections is full."""
        self._socket.listen(0)
        self._own_client.connect(self._socket.getsockname())

    def listen(self):
        """Accepts from now on; until now connections were refused, or dropped."""
        self._socket.listen(16)
        self._on_listen()
        self._thread.start()

    def _serve(self):
        with contextlib.suppress(OSError):
            while True:
                connection, peer = self._socket.accept()
                connection.close()
                self._on_accept(peer[0])

    def stop(self):
        # Wakes the thread that accepts, which closing would not do.
        with contextlib.suppress(OSError):
            self._socket.shutdown(socket.SHUT_RDWR)
        if self._thread.is_alive():
            self._thread.join(10)
        self._socket.close()
        self._own_client.close()


class Laboratory:
    """Raised by `with Laboratory() as lab`."""

    def __init__(self, timeline=None, manage_loopback=False):
        self.timeline = timeline or Timeline()
        self._manage_loopback = manage_loopback
        self._stack = contextlib.ExitStack()
        self._folder = None
        self._servers = {}
        self._accepted = collections.Counter()
        self._servers_side = None
        self._dhcp = None
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
            self.start_dhcp()
            self._raise_bus()
            self.start_manager()
            self.add_profile(CONNECTION)
        except BaseException:
            self._stack.close()
            raise
        return self

    def __exit__(self, *_):
        self._stack.close()
        # Nobody may have made a plain file of it, as programs do that replace a file by its name.
        if not stat.S_ISCHR(os.stat("/dev/null").st_mode):
            raise LaboratoryError("/dev/null is no character device any more")

    def _start(self, command, **options):
        program = Program(command, **options)
        self._stack.callback(program.stop)
        return program

    def _note(self, who):
        return lambda line: self.timeline.add(who, line)

    def there(self, *command):
        """The command line that runs a command on the servers' side."""
        return ("nsenter", "-t", str(self._servers_side.pid), "-n", *command)

    def _raise_cable(self):
        self._servers_side = self._start(["unshare", "-n", "sleep", "infinity"])
        own = os.readlink("/proc/self/ns/net")
        theirs = f"/proc/{self._servers_side.pid}/ns/net"
        wait_until(lambda: self._servers_side.running() and os.readlink(theirs) != own, 5,
                   "the servers' namespace")
        self._add_cable("eth0", "port0")
        for network in (NET1, NET2):
            run(*self.there("ip", "address", "add", network.server + "/24", "dev", "port0"))
        run(*self.there("ip", "link", "set", "lo", "up"))

    def _add_cable(self, here, there):
        run("ip", "link", "add", here, "type", "veth", "peer", "name", there, "netns",
            str(self._servers_side.pid))
        run(*self.there("ip", "link", "set", there, "up"))
        run("ip", "link", "set", here, "up")

    def _raise_bus(self):
        settings = self._folder / "NetworkManager"
        (settings / "system-connections").mkdir(parents=True)
        (settings / "NetworkManager.conf").write_text(self._manager_configuration())
        run("mount", "-t", "tmpfs", "tmpfs", "/var/lib/NetworkManager")
        run("mount", "--bind", str(settings), "/etc/NetworkManager")
        bus = self._folder / "bus"
        configuration = self._folder / "bus.conf"
        configuration.write_text(self._bus_configuration(bus))
        os.environ["DBUS_SYSTEM_BUS_ADDRESS"] = f"unix:path={bus}"
        self._start(["dbus-daemon", f"--config-file={configuration}", "--nofork"])
        wait_until(bus.exists, 10, "the message bus")

    def _manager_configuration(self):
        return MANAGER_CONFIGURATION.format(manage_loopback=int(self._manage_loopback))

    @staticmethod
    def _bus_configuration(path):
        return BUS_CONFIGURATION.format(socket=path)

    # What a person could do to the network.

    def start_dhcp(self):
        """Lets the DHCP server of NET2 answer. It names no router."""
        self._dhcp = self._start(self.there(
            "dnsmasq", "-d", "--port=0", "--conf-file=/dev/null", "--user=root", "--group=root",
            "--interface=port0", "--bind-interfaces", "--leasefile-ro", "--dhcp-option=3",
            f"--dhcp-range={NET2.prefix}.100,{NET2.prefix}.150,255.255.255.0,1h"),
            on_line=self._note("dhcp"))
        if not self._dhcp.wait_for(lambda line: "DHCP, IP range" in line, 10):
            raise LaboratoryError("the DHCP server does not start:\n"
                                  + "\n".join(self._dhcp.lines))
        self.timeline.add("laboratory", "has started the DHCP server")

    def stop_dhcp(self):
        self.timeline.add("laboratory", "stops the DHCP server")
        self._dhcp.stop()

    def start_server(self, address, on_accept=None):
        """Lets the server at the address accept connections from now on."""
        self.prepare_server(address, on_accept).listen()

    def prepare_server(self, address, on_accept=None):
        """A server that refuses connections until its listen()."""
        def note(peer):
            self._accepted[address] += 1
            self.timeline.add("server", f"{address} accepted a connection from {peer}")
            if on_accept:
                on_accept(peer)
        server = Server(f"/proc/{self._servers_side.pid}/ns/net", address, note,
                        lambda: self.timeline.add("laboratory", f"the server {address} listens"))
        self._servers[address] = server
        return server

    def accepted(self, address):
        """How many connections the server has accepted so far."""
        return self._accepted[address]

    def stop_server(self, address):
        self._servers.pop(address).stop()
        self.timeline.add("laboratory", f"the server {address} is off")

    def pull_cable(self):
        self.timeline.add("person", "pulls the cable")
        run(*self.there("ip", "link", "set", "port0", "down"))
        self._wait_for_link("lowerlayerdown", "down")

    def plug_cable(self):
        self.timeline.add("person", "plugs the cable")
        run(*self.there("ip", "link", "set", "port0", "up"))
        self._wait_for_link("up")

    @staticmethod
    def _wait_for_link(*states):
        # The kernel tells of it later, by up to a second.
        state = pathlib.Path("/sys/class/net/eth0/operstate")
        wait_until(lambda: state.read_text().strip() in states, 10, f"eth0 {states[0]}")

    @staticmethod
    def sockets_without_an_answer(address):
        """The device's sockets that have asked the server for a connection and wait."""
        server = f"{socket.inet_aton(address)[::-1].hex().upper()}:{PORT:04X}"
        waiting = "02"
        rows = [line.split() for line in
                pathlib.Path("/proc/net/tcp").read_text().splitlines()[1:]]
        return {row[9] for row in rows if row[2:4] == [server, waiting]}

    def add_second_cable(self):
        """Another wired interface, eth1, which leads nowhere."""
        self._add_cable("eth1", "port1")

    def lose_answers_to(self, address):
        """Makes a black hole of the servers for the device at the address: it can be resolved, but
        all packets to it go to a machine that is not there."""
        run(*self.there("ip", "neighbour", "replace", address, "lladdr", "02:00:00:00:00:99",
                        "dev", "port0", "nud", "permanent"))

    @staticmethod
    def send_uevent(summary, *settings):
        """Hands the kernel a uevent, which it broadcasts in this network namespace and ends with a
        SEQNUM of its own."""
        payload = b"".join(text.encode() + b"\0" for text in (summary, *settings))
        netlink_kobject_uevent, message_type, request_and_acknowledge = 15, 16, 5
        header = struct.pack("=IHHII", 16 + len(payload), message_type, request_and_acknowledge, 0,
                             0)
        with socket.socket(socket.AF_NETLINK, socket.SOCK_DGRAM, netlink_kobject_uevent) as sender:
            sender.settimeout(10)
            sender.sendto(header + payload, (0, 0))
            answer = sender.recv(4096)
        # The acknowledgement: a header, and the error's number, which is 0 if it is none.
        error = struct.unpack_from("=i", answer, 16)[0]
        if error:
            raise LaboratoryError(f"the kernel refuses the uevent: {os.strerror(-error)}")

    def flip_lan_switch(self, state):
        self.timeline.add("person", f"flips the LAN switch to {state}")
        self.send_uevent(f"change@{LAN_SWITCH}", "ACTION=change", f"DEVPATH={LAN_SWITCH}",
                         "SUBSYSTEM=switch", "SWITCH_NAME=lan-switch", f"SWITCH_STATE={state}")

    # NetworkManager and its profiles.

    def start_manager(self):
        self.manager = self._start(["NetworkManager", "--debug"],
                                   on_line=self._note("manager"))
        try:
            wait_until(lambda: run("nmcli", "-t", "-f", "RUNNING", "general", check=False).strip()
                       == "running", 20, "NetworkManager")
            self.timeline.add("laboratory", "NetworkManager runs")
        except LaboratoryError as late:
            raise LaboratoryError("\n".join([str(late), *self.manager.lines[-20:]])) from None

    def stop_manager(self):
        self.timeline.add("person", "stops NetworkManager")
        self.manager.send(signal.SIGSTOP)

    def continue_manager(self):
        self.timeline.add("person", "lets NetworkManager go on")
        self.manager.send(signal.SIGCONT)

    def kill_manager(self):
        self.timeline.add("person", "kills NetworkManager")
        self.manager.send(signal.SIGKILL)
        self.manager.stop()

    @staticmethod
    def add_profile(name, interface="eth0", *settings):
        run("nmcli", "connection", "add", "type", "ethernet", "ifname", interface, "con-name",
            name, *(settings or ("ipv4.method", "auto")), "connection.autoconnect", "no",
            "ipv6.method", "disabled")

    def make_profiles_read_only(self, read_only):
        """Whether NetworkManager can store its profiles."""
        self.timeline.add("laboratory", f"profiles read-only: {read_only}")
        folder = "/etc/NetworkManager/system-connections"
        if read_only:
            run("mount", "--bind", folder, folder)
            run("mount", "-o", "remount,bind,ro", folder)
        else:
            run("umount", folder)

    # What the device is like now.

    @staticmethod
    def addresses(interface="eth0"):
        """The interface's IPv4 addresses, each with its prefix length."""
        shown = json.loads(run("ip", "-j", "-4", "address", "show", "dev", interface))
        return [f"{entry['local']}/{entry['prefixlen']}"
                for interface in shown for entry in interface.get("addr_info", [])]

    @staticmethod
    def default_gateway():
        """The gateways of the default routes, in one line; nothing without any."""
        routes = json.loads(run("ip", "-j", "route", "show", "default"))
        return " ".join(route["gateway"] for route in routes)

    @staticmethod
    def name_servers():
        return run("nmcli", "-g", "IP4.DNS", "device", "show", "eth0").strip().split(" | ")

    @staticmethod
    def profile(setting, name=CONNECTION):
        """A setting of a profile, as nmcli tells it."""
        return run("nmcli", "-g", setting, "connection", "show", name).strip()

    def watch_addresses(self, on_line):
        """Calls on_line with a line of `ip monitor` for each change of eth0's addresses."""
        self._start(["ip", "-o", "-4", "monitor", "address", "dev", "eth0"], on_line=on_line)

    def start_application(self, command, on_line=None, stdin=subprocess.DEVNULL):
        """Runs an application under test, in the laboratory's HOME."""
        return self._start(command, on_line=on_line, stdin=stdin)


def configuration_path(application):
    return pathlib.Path(os.environ["HOME"]) / "Documents" / application / "switch.ini"


def write_configuration(application, values):
    """Writes the application's switch.ini."""
    path = configuration_path(application)
    path.parent.mkdir(parents=True, exist_ok=True)
    lines = ["[General]"] + [f"{key}={value}" for key, value in values.items()]
    path.write_text("\n".join(lines) + "\n", encoding="utf-8")
    return path


if __name__ == "__main__":
    sys.exit("this is a module; see script/demo")

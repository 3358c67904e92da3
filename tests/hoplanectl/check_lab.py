# SPDX-License-Identifier: MIT
"""What `check` finds on a real NetworkManager: each fault is brought about for real."""

import contextlib
import json
import os
import pathlib
import platform
import re
import signal
import socket
import sys
import threading
import warnings

import tool  # first: it tells where the laboratory is
import laboratory
from checking import (DEVICE_FILE, ITEMS, PROBES, CheckCase, fault, good, not_judged,
                      warning)
from laboratory import CONNECTION, NET1, NET2, PORT, Laboratory, run, wait_until
from tool import HOME, path_of, write

APP = "failover"
# A second server beside the DHCP server's network, where both can be reached at once.
NEIGHBOUR = NET2.prefix + ".3"
WITHOUT_MANAGER = ["connection", "interface", "profile", "permissions"]
WITHOUT_CONNECTION = ["interface", "profile"]
UNCLEAR = not_judged("it is not clear which connection is meant")
PERMISSION = "org.freedesktop.NetworkManager."
CONTROL, MODIFY = PERMISSION + "network-control", PERMISSION + "settings.modify.system"
# The application of the library, built beside the tool.
APPLICATION = "examples/failover/failover"
# An emulated tool is the one that runs on a device.
EMULATED = len(sys.argv) > 2
STRANGER = 1000


def settings(first_ip=NET1.device, first_server=NET1.server, second_server=NET2.server,
             connection=CONNECTION):
    """The first network static, the second automatic."""
    return {"SwitchEnable": "true", "connectionName": connection,
            "FirstServerIp": first_server, "FirstServerPort": PORT,
            "FirstIsAutomatically": "true", "FirstLocalIp": first_ip,
            "FirstLocalMask": "255.255.255.0", "FirstLocalGateWay": first_server,
            "FirstPreferredDNS": "", "FirstSpareDNS": "",
            "SecondServerIp": second_server, "SecondServerPort": PORT,
            "SecondIsAutomatically": "false", "SecondLocalIp": "", "SecondLocalMask": "",
            "SecondLocalGateWay": "", "SecondPreferredDNS": "", "SecondSpareDNS": ""}


# The second network static too.
STATIC = {"SecondIsAutomatically": "true", "SecondLocalIp": NET2.device,
          "SecondLocalMask": "255.255.255.0", "SecondLocalGateWay": NET2.server}


def add_lan_switch(stack):
    """A LAN switch among the devices that the kernel shows."""
    devices, mine = pathlib.Path("/sys/devices/virtual"), HOME / "devices"
    mine.mkdir(exist_ok=True)
    run("mount", "-t", "tmpfs", "tmpfs", str(mine))
    stack.callback(run, "umount", "--recursive", "--lazy", str(mine), check=False)
    for device in devices.iterdir():
        (mine / device.name).mkdir()
        run("mount", "--rbind", str(device), str(mine / device.name))
    (mine / "switch/lan-switch").mkdir(parents=True)
    run("mount", "--rbind", str(mine), str(devices))
    stack.callback(run, "umount", "--recursive", "--lazy", str(devices), check=False)


def clear_up():
    """What a laboratory leaves to the end of its sandbox would be in the way of the next one."""
    for folder in ("/etc/NetworkManager", "/var/lib/NetworkManager"):
        run("umount", "--lazy", folder, check=False)
    run("rm", "-rf", "/run/NetworkManager")
    for link in json.loads(run("ip", "-j", "link", "show")):
        if link["ifname"] != "lo":
            # It may be gone with its other end meanwhile.
            run("ip", "link", "delete", link["ifname"], check=False)
    wait_until(lambda: len(json.loads(run("ip", "-j", "link", "show"))) == 1, 20,
               "only the loopback interface is left")


class LaboratoryCase(CheckCase):
    """Each test has a laboratory of its own, with a configuration where all is good."""

    def setUp(self):
        super().setUp()
        # The laboratory leaves pipes of programs that have ended.
        warnings.simplefilter("ignore", ResourceWarning)

    def raise_laboratory(self, kind=Laboratory, **options):
        stack = contextlib.ExitStack()
        self.addCleanup(stack.close)
        add_lan_switch(stack)
        stack.callback(clear_up)
        lab = stack.enter_context(kind(**options))
        write(APP, settings())
        return lab

    def expect_without_connection(self, finding, more=None):
        self.expect_findings({"connection": finding} | (more or {})
                             | {item: UNCLEAR for item in WITHOUT_CONNECTION})


class Good(LaboratoryCase):
    def test_idle(self):
        """The connection is there and not active yet."""
        lab = self.raise_laboratory()
        self.assertEqual(lab.addresses(), [])
        result = self.expect_findings({
            "connection": good(f'"lan", wired, {lab.profile("connection.uuid")}, not active'),
            "interface": good("eth0, disconnected, with a carrier"),
            "profile": good("/etc/NetworkManager/system-connections/lan.nmconnection"),
            "link-events": good("uevents of the LAN switch (arm64)" if EMULATED
                                else f"of all interfaces ({platform.machine()})")})
        self.assertEqual(result.status, 0)

    def test_active_with_both_servers(self):
        """All is good: the device has an address, and both servers accept."""
        lab = self.raise_laboratory()
        run(*lab.there("ip", "address", "add", NEIGHBOUR + "/24", "dev", "port0"))
        write(APP, settings(first_ip=NET2.device, first_server=NEIGHBOUR))
        lab.start_server(NEIGHBOUR)
        lab.start_server(NET2.server)
        run("nmcli", "connection", "up", CONNECTION)
        version = run("nmcli", "--version").split()[-1]
        result = self.run_check("check", "--probe", "--json")
        self.compare({
            "nmcli": good(f"/usr/bin/nmcli, version {version}"),
            "manager": good(f"NetworkManager runs, version {version}"),
            "connection": good("active on eth0"),
            "interface": good("eth0, connected, with a carrier"),
            "permissions": good("the user root may change and activate connections"),
            "probe-1": good(f"{NEIGHBOUR}:{PORT} accepts, after "),
            "probe-2": good(f"{NET2.server}:{PORT} accepts, after ")}, result, ITEMS + PROBES)
        self.assertEqual(result.status, 0)
        text = self.run_check("check", "--probe")
        self.assertEqual((text.status, text.out.splitlines()[-1]), (0, "all is good"))
        self.assertNotIn("WARNING", text.out)

    def test_it_changes_nothing(self):
        lab = self.raise_laboratory()
        run("nmcli", "connection", "up", CONNECTION)

        def state():
            audits = [line for line in lab.manager.lines if "audit: " in line]
            return (run("nmcli", "connection", "show", CONNECTION), lab.addresses(), audits,
                    path_of(APP).read_bytes(), sorted(os.listdir(path_of(APP).parent)))

        before = state()
        self.assertTrue(before[2])
        self.expect_findings({})
        self.assertEqual(state(), before)


class Manager(LaboratoryCase):
    def expect_trouble(self, finding, reason):
        self.expect_findings({"manager": finding}
                             | {item: not_judged(reason) for item in WITHOUT_MANAGER})

    def test_not_running(self):
        self.raise_laboratory().kill_manager()
        self.expect_trouble(fault("NetworkManager is not running", "systemctl enable --now"),
                            "NetworkManager is not running")

    def test_stopped(self):
        lab = self.raise_laboratory()
        lab.manager.send(signal.SIGSTOP)
        self.expect_trouble(fault("nmcli has no answer after 5 s", "systemctl restart"),
                            "NetworkManager does not answer")
        lab.manager.send(signal.SIGCONT)
        running = ("nmcli", "-g", "RUNNING", "general")
        wait_until(lambda: run(*running, check=False).strip() == "running", 20,
                   "NetworkManager goes on")
        self.expect_findings({})

    def test_networking_is_off(self):
        self.raise_laboratory()
        run("nmcli", "networking", "off")
        off = fault("networking is switched off: ", "nmcli networking on")
        self.expect_trouble(off, "networking is switched off")
        # What helps an unmanaged interface does not help here.
        run("nmcli", "device", "set", "eth0", "managed", "yes")
        self.expect_trouble(off, "networking is switched off")
        run("nmcli", "networking", "on")
        self.expect_findings({})

    def test_no_bus(self):
        self.raise_laboratory()
        os.environ["DBUS_SYSTEM_BUS_ADDRESS"] = "unix:path=/sandbox/no-bus"
        self.expect_trouble(fault("NetworkManager cannot be asked: Error: Could not create "
                                  "NMClient object: ", "systemctl start dbus.socket; "),
                            "NetworkManager cannot be asked")


class TheConnection(LaboratoryCase):
    def test_none_of_the_name(self):
        self.raise_laboratory()
        write(APP, settings(connection="wan"))
        self.expect_without_connection(fault('NetworkManager has no connection "wan"',
                                             f"hoplanectl set connection {CONNECTION}"))

    def test_two_of_the_name(self):
        lab = self.raise_laboratory()
        lab.add_profile(CONNECTION)
        # What the library would be told.
        uuids = run("nmcli", "-g", "connection.uuid", "connection", "show", CONNECTION).split()
        self.assertEqual(len(uuids), 2)
        self.expect_without_connection(fault(
            '2 connections are named "lan": the library takes them for one, and nothing is '
            "applied",
            f"keep one: nmcli connection delete uuid {uuids[1]}"))
        # The remedy is one.
        run("nmcli", "connection", "delete", "uuid", uuids[1])
        self.expect_findings({})

    def test_wrong_type(self):
        self.raise_laboratory()
        run("nmcli", "connection", "add", "type", "bridge", "ifname", "bridge0", "con-name",
            "bridge", "connection.autoconnect", "no")
        write(APP, settings(connection="bridge"))
        self.expect_without_connection(fault('"bridge" is no wired connection: its type is bridge',
                                             f"hoplanectl set connection {CONNECTION}"))

    def test_odd_names(self):
        lab = self.raise_laboratory()
        for name in ("Wired connection 1", "Büro:2", "[x]", "a*b?",
                     lab.profile("connection.uuid")):
            with self.subTest(name=name):
                if name != lab.profile("connection.uuid"):
                    lab.add_profile(name)
                write(APP, settings(connection=f'"{name}"'))
                self.expect_findings({"connection": good(", wired, ")})

    def test_two_active_without_a_name(self):
        lab = self.raise_laboratory()
        write(APP, settings(connection=""))
        nameless = {"name": warning("the connection has no name")}
        remedy = f"hoplanectl set connection {CONNECTION}"
        self.expect_without_connection(fault("none is named and none is active", remedy), nameless)
        run("nmcli", "connection", "up", CONNECTION)
        self.expect_findings(nameless | {"connection": good('"lan", wired')})
        lab.add_second_cable()
        lab.add_profile("second", "eth1", "ipv4.method", "manual", "ipv4.addresses", "10.9.9.9/24")
        run("nmcli", "connection", "up", "second")
        self.expect_without_connection(fault("none is named and 2 are active", remedy), nameless)

    def test_loopback_is_active(self):
        """NetworkManager manages the loopback interface, as it does from 1.42 on by itself."""
        self.raise_laboratory(manage_loopback=True)
        write(APP, settings(connection=""))
        run("nmcli", "connection", "up", CONNECTION)
        self.expect_without_connection(
            fault(("none is named and 2 are active, ", '"lan" on eth0', '"lo" on lo', ": the "
                   "library takes them for one, and nothing is applied"),
                  f"hoplanectl set connection {CONNECTION}"),
            {"name": warning("the connection has no name")})
        write(APP, settings())
        self.expect_findings({})


class Interface(LaboratoryCase):
    def test_cable_out(self):
        lab = self.raise_laboratory()
        run("nmcli", "connection", "up", CONNECTION)
        lab.pull_cable()
        self.expect_findings({"interface": warning("eth0 has no carrier", "plug the cable in")})
        lab.plug_cable()
        self.expect_findings({})

    def test_down(self):
        self.raise_laboratory()
        run("nmcli", "connection", "up", CONNECTION)
        run("ip", "link", "set", "eth0", "down")
        result = self.expect_findings({"interface": warning("eth0 is down", "ip link set eth0 up")})
        remedy, = (row["remedy"] for row in result.objects if row.get("item") == "interface")
        run("sh", "-c", remedy)
        Laboratory._wait_for_link("up")  # pylint: disable=protected-access
        self.expect_findings({})

    def test_address_of_another_interface(self):
        """The library takes it for the device's own, and skips a network in every pass."""
        lab = self.raise_laboratory()
        write(APP, settings() | STATIC)
        lab.add_second_cable()
        lab.add_profile("second", "eth1", "ipv4.method", "manual", "ipv4.addresses",
                        NET2.device + "/24")
        run("nmcli", "connection", "modify", CONNECTION, "connection.autoconnect", "yes",
            "ipv4.method", "manual", "ipv4.addresses", NET1.device + "/24")
        run("nmcli", "connection", "up", CONNECTION)
        self.expect_findings({})
        run("nmcli", "connection", "up", "second")
        self.expect_findings({"interface": fault(
            f"the library takes the address {NET2.device} of eth1 for that of eth0, and skips "
            f"network 2 ({NET2.device}) in every pass",
            "hoplanectl set network 2 --address IP/24")})
        # So does the library in its rehearsal.
        turns = [row for row in tool.tool("plan", "--json").objects if "network" in row]
        self.assertEqual([(row["network"], row["skipped"]) for row in turns if "skipped" in row],
                         [(1, False), (2, True)])
        run("nmcli", "connection", "down", "second")
        self.expect_findings({})

    def test_unmanaged(self):
        self.raise_laboratory()
        run("nmcli", "device", "set", "eth0", "managed", "no")
        self.expect_findings({"interface": fault("NetworkManager leaves eth0 alone (unmanaged)",
                                                 "nmcli device set eth0 managed yes")})
        run("nmcli", "device", "set", "eth0", "managed", "yes")
        self.expect_findings({})

    def refused(self):
        """NetworkManager does not activate the connection; returns the finding's remedy."""
        self.assertIn("Error", run("nmcli", "connection", "up", CONNECTION, check=False))
        rows = self.run_check("check", "--json").objects
        found, = (row for row in rows if row.get("item") == "interface")
        self.assertEqual(found["level"], "fault", found)
        self.assertIn("the profile does not fit eth0, and NetworkManager does not activate it: ",
                      found["text"])
        return found["remedy"]

    def test_profile_of_another_device(self):
        self.raise_laboratory()
        address = pathlib.Path("/sys/class/net/eth0/address").read_text("ascii").strip()
        for setting, value in (("802-3-ethernet.mac-address", "02:00:00:00:00:0A"),
                               ("802-3-ethernet.mac-address-blacklist", address),
                               ("match.interface-name", "eth5"), ("match.driver", "e1000"),
                               ("match.path", "pci-0000:00:19.0"),
                               ("match.kernel-command-line", "not-there=1")):
            for active in (False, True):
                with self.subTest(setting=setting, active=active):
                    run("nmcli", "connection", "up" if active else "down", CONNECTION,
                        check=active)
                    run("nmcli", "connection", "modify", CONNECTION, setting, value)
                    remedy = self.refused()
                    self.assertIn(setting, remedy)
                    # The remedy is one.
                    run("sh", "-c", remedy)
                    self.expect_findings({})
                    run("nmcli", "connection", "up", CONNECTION)

    def test_hardware_address(self):
        """What counts is the address that the adapter had from the beginning, in any letters."""
        self.raise_laboratory()
        file, changed = pathlib.Path("/sys/class/net/eth0/address"), "02:00:00:00:ab:cd"
        own = file.read_text("ascii").strip()

        def name(address):
            run("nmcli", "connection", "modify", CONNECTION, "802-3-ethernet.mac-address", address)

        def expect_fitting():
            self.expect_findings({})
            run("nmcli", "connection", "up", CONNECTION)
            run("nmcli", "connection", "down", CONNECTION)

        for spelling in (own, own.upper()):
            name(spelling)
            expect_fitting()
        # As a board's start script does.
        run("ip", "link", "set", "eth0", "address", changed)
        self.assertEqual(file.read_text("ascii").strip(), changed)
        expect_fitting()
        for spelling in (changed, changed.upper()):
            name(spelling)
            self.refused()

    def test_login(self):
        self.raise_laboratory()
        run("nmcli", "connection", "modify", CONNECTION, "802-1x.eap", "md5", "802-1x.identity",
            "x", "802-1x.password", "y")
        self.assertIn("Error", run("nmcli", "connection", "up", CONNECTION, check=False))
        result = self.expect_findings({"interface": warning("a login at the wired port (802.1X, "
                                                            "md5)")})
        remedy, = (row["remedy"] for row in result.objects if row.get("item") == "interface")
        run("sh", "-c", remedy[remedy.rindex("nmcli connection modify"):])
        self.expect_findings({})
        run("nmcli", "connection", "up", CONNECTION)

    def test_no_such_interface(self):
        self.raise_laboratory()
        run("nmcli", "connection", "modify", CONNECTION, "connection.interface-name", "eth7")
        self.expect_findings({"interface": fault(
            "there is no interface eth7",
            "nmcli connection modify lan connection.interface-name INTERFACE")})

    def test_no_interface_named(self):
        lab = self.raise_laboratory()
        run("nmcli", "connection", "modify", CONNECTION, "connection.interface-name", "")
        self.expect_findings({"interface": good("eth0, ")})
        lab.add_second_cable()
        wait_until(lambda: "eth1:ethernet:disconnected" in run(
            "nmcli", "-t", "-f", "DEVICE,TYPE,STATE", "device"), 10, "eth1 is managed")
        run("nmcli", "connection", "down", CONNECTION, check=False)
        result = self.run_check("check", "--json")
        found = [row["text"] for row in result.objects if row.get("item") == "interface"]
        self.assertRegex(found[0], "^the connection may use any of eth[01], eth[01]$")
        self.assertEqual(result.status, 1)


class Profile(LaboratoryCase):
    def test_read_only(self):
        lab = self.raise_laboratory()
        lab.make_profiles_read_only(True)
        self.addCleanup(lab.make_profiles_read_only, False)
        # NetworkManager refuses indeed.
        self.assertIn("Error", run("nmcli", "connection", "modify", CONNECTION, "ipv4.gateway", "",
                                   "connection.autoconnect", "yes", check=False))
        self.expect_findings({"profile": fault(
            "/etc/NetworkManager/system-connections is on a read-only file system: NetworkManager "
            "refuses each change", "mount -o remount,rw")})

    def test_full_disk(self):
        self.raise_laboratory()
        folder = pathlib.Path("/etc/NetworkManager/system-connections")
        file, = folder.iterdir()
        contents = file.read_bytes()
        run("mount", "-t", "tmpfs", "-o", "size=64k", "tmpfs", str(folder))
        self.addCleanup(run, "umount", "--lazy", str(folder), check=False)
        file.write_bytes(contents)
        file.chmod(0o600)
        self.expect_findings({})
        with contextlib.suppress(OSError), open(folder / ".filler", "wb", buffering=0) as filler:
            while True:
                filler.write(bytes(4096))
        # NetworkManager refuses indeed.
        modify = ("nmcli", "connection", "modify", CONNECTION, "ipv4.dns", NET1.dns[0])
        self.assertIn("Error", run(*modify, check=False))
        self.expect_findings({"profile": fault(f"{folder} is on a full disk: NetworkManager "
                                               "refuses each change", "delete")})
        (folder / ".filler").unlink()
        self.expect_findings({})
        run(*modify)

    def test_port_of_a_bridge(self):
        lab = self.raise_laboratory()
        run("nmcli", "connection", "modify", CONNECTION, "connection.master", "br0",
            "connection.slave-type", "bridge")
        # NetworkManager refuses indeed.
        command = ["nmcli", "connection", "modify", CONNECTION, "ipv4.method", "auto"]
        self.assertIn("Error", run(*command, check=False))
        uuid = lab.profile("connection.uuid", CONNECTION)
        remedy = (f"nmcli connection modify uuid {uuid} connection.master '' "
                  "connection.slave-type ''")
        self.expect_findings({"profile": fault("the connection is a port of br0", remedy)})
        run("sh", "-c", remedy)
        self.expect_findings({})
        run(*command)

    def test_no_gateway(self):
        self.raise_laboratory()
        run("nmcli", "connection", "modify", CONNECTION, "ipv4.never-default", "yes")
        result = self.expect_findings({"profile": warning("the profile never uses a gateway")})
        remedy, = (row["remedy"] for row in result.objects if row.get("item") == "profile")
        run("sh", "-c", remedy)
        self.expect_findings({})

    def test_rest_of_the_profile(self):
        """What no network of the file replaces stays in the profile and in the routes, as told."""
        lab = self.raise_laboratory()
        other = NET1.prefix + ".254"
        run("nmcli", "connection", "modify", CONNECTION, "ipv4.method", "manual", "ipv4.addresses",
            NET1.prefix + ".9/24", "ipv4.gateway", other, "ipv4.dns", NET1.dns[0])
        write(APP, settings() | {"FirstLocalGateWay": ""})
        result = self.expect_findings({"profile": [
            warning(f"network 1 has no gateway: the profile's own, {other}, stays until network 2"),
            warning(f"network 1 has no name server: the profile's own, {NET1.dns[0]}, stays")]})

        def apply():
            # As the library makes it.
            run("sh", "-c", f"nmcli connection modify uuid {lab.profile('connection.uuid')} "
                            f"ipv4.addresses {NET1.device}/24     connection.autoconnect yes "
                            "ipv4.method manual")
            run("nmcli", "connection", "up", CONNECTION)
            return lab.default_gateway(), lab.name_servers()

        self.assertEqual(apply(), (other, NET1.dns[:1]))
        for row in result.objects:
            if row.get("item") == "profile":
                run("sh", "-c", row["remedy"])
        self.expect_findings({})
        self.assertEqual(apply(), ("", [""]))

    def test_in_memory(self):
        lab = self.raise_laboratory()
        run("nmcli", "connection", "add", "save", "no", "type", "ethernet", "ifname", "eth0",
            "con-name", "volatile", "connection.autoconnect", "no")
        write(APP, settings(connection="volatile"))
        uuid = lab.profile("connection.uuid", "volatile")
        remedy = f"nmcli connection modify uuid {uuid} connection.id volatile"
        self.expect_findings({"profile": warning(
            "the profile is gone after a restart of the device: it is in /run/NetworkManager/",
            remedy)})
        # The remedy is one.
        run(*remedy.split())
        self.expect_findings({"profile": good("/etc/NetworkManager/")})


class StrangersLaboratory(Laboratory):
    """A laboratory whose message bus takes everybody for the user 1000, and so does NetworkManager.
    It lies in a user namespace where this user's number is another one; so a relay
    tells the bus that number in the place of the real one."""
    polkit = "root-only"

    def _raise_bus(self):
        with laboratory_settings("auth-polkit=false", f"auth-polkit={self.polkit}"):
            super()._raise_bus()
        relay = self._folder / "relay"
        server = socket.socket(socket.AF_UNIX)
        self._stack.callback(server.close)
        server.bind(str(relay))
        server.listen(50)
        threading.Thread(target=self._relay, args=(server,), daemon=True).start()
        os.environ["DBUS_SYSTEM_BUS_ADDRESS"] = f"unix:path={relay}"

    def _start(self, command, **options):
        if command[0] == "dbus-daemon":
            command = ["unshare", "--user", f"--map-user={STRANGER}", f"--map-group={STRANGER}",
                       *command]
        return super()._start(command, **options)

    def _relay(self, server):
        with contextlib.suppress(OSError):
            while True:
                client, _ = server.accept()
                bus = socket.socket(socket.AF_UNIX)
                bus.connect(str(self._folder / "bus"))
                for source, target in ((client, bus), (bus, client)):
                    threading.Thread(target=self._pass_on, args=(source, target),
                                     daemon=True).start()

    @staticmethod
    def _pass_on(source, target):
        def authentication(number):
            return b"AUTH EXTERNAL " + str(number).encode().hex().encode() + b"\r\n"

        with contextlib.suppress(OSError):
            while data := source.recv(65536):
                target.sendall(data.replace(authentication(0), authentication(STRANGER)))
        for end in (source, target):
            with contextlib.suppress(OSError):
                end.shutdown(socket.SHUT_RDWR)

    def add_profile(self, *_):  # pylint: disable=arguments-differ
        """This user may not; NetworkManager reads a file as well."""
        path = pathlib.Path("/etc/NetworkManager/system-connections/lan.nmconnection")
        path.write_text(f"[connection]\nid={CONNECTION}\ntype=ethernet\ninterface-name=eth0\n"
                        "uuid=11111111-2222-4333-8444-555555555555\nautoconnect=false\n"
                        "[ipv4]\nmethod=auto\n[ipv6]\nmethod=disabled\n", encoding="utf-8")
        path.chmod(0o600)
        self.kill_manager()
        self.start_manager()


class PolkitsLaboratory(StrangersLaboratory):
    """NetworkManager is to ask polkit, which does not run."""
    polkit = "true"


@contextlib.contextmanager
def laboratory_settings(old, new):
    """The laboratory's NetworkManager has another setting."""
    kept = laboratory.MANAGER_CONFIGURATION
    assert old in kept
    laboratory.MANAGER_CONFIGURATION = kept.replace(old, new)
    try:
        yield
    finally:
        laboratory.MANAGER_CONFIGURATION = kept


class Permissions(LaboratoryCase):
    def expect_refused(self, meaning):
        # NetworkManager refuses both indeed. (nmcli would wait for ever with the activation, since
        # it takes no answer from a NetworkManager that the bus calls an ordinary user's.)
        path = run("nmcli", "-g", "DBUS-PATH", "connection", "show").strip()
        for command in (
                ["nmcli", "connection", "modify", CONNECTION, "connection.autoconnect", "yes"],
                ["dbus-send", "--system", "--print-reply", "--dest=org.freedesktop.NetworkManager",
                 "/org/freedesktop/NetworkManager",
                 "org.freedesktop.NetworkManager.ActivateConnection", f"objpath:{path}",
                 "objpath:/", "objpath:/"]):
            self.assertRegex(run(*command, check=False),
                             "Error.*(Insufficient privileges|[Nn]ot authorized|authorization)")
        rule = f'(action.id == "{MODIFY}" || action.id == "{CONTROL}")'
        self.expect_findings({"permissions": [
            fault(f"for the user root {MODIFY} {meaning}", rule),
            fault(f"for the user root {CONTROL} {meaning}", rule)]})

    def test_refused(self):
        self.raise_laboratory(StrangersLaboratory)
        self.expect_refused("is refused")

    def test_polkit_does_not_run(self):
        self.raise_laboratory(PolkitsLaboratory)
        self.expect_refused("is unknown (unknown), as where polkit does not run, and so is refused")


class DeviceFile(LaboratoryCase):
    def test_overwriting(self):
        """What it says of the next start is what the application then does."""
        lab = self.raise_laboratory()
        DEVICE_FILE.write_text(
            "[NetworkConnections]\nconName=lan\nbDhcpEnabled=true\n"
            "SlaveNet\\bDhcpEnabled=false\nSlaveNet\\ip=198.51.100.9\n"
            "SlaveNet\\mask=255.255.255.0\nSlaveNet\\gateway=198.51.100.1\n", encoding="utf-8")
        values = settings(second_server="198.51.100.1", first_server=NEIGHBOUR) | {
            "SwitchEnable": "false"}
        write(APP, values)
        off = {"enabled": warning("switching is off")}
        first = (f"static address {NET1.device}/24, gateway {NEIGHBOUR}, name servers (none)")
        second = "static address 198.51.100.9/24, gateway 198.51.100.1, name servers (none)"
        dhcp = "automatic addressing (DHCP)"
        self.expect_findings(off | {
            "network-1": fault("the gateway is outside"),
            "device-file": warning(
                f"the next start of the application takes over {DEVICE_FILE}: network 1 becomes "
                f"{dhcp} (now {first}); network 2 becomes {second} (now {dhcp})",
                f"correct {DEVICE_FILE}, which comes first; or mv {DEVICE_FILE} ")})
        before = path_of(APP).read_bytes()
        build = pathlib.Path(tool.COMMAND[-1]).resolve().parents[2]
        lab.start_application([*tool.COMMAND[:-1], str(build / APPLICATION)])
        wait_until(lambda: path_of(APP).read_bytes() != before
                   and b"198.51.100.9" in path_of(APP).read_bytes(), 20, "the import")
        self.expect_findings(off | {
            "network-1": good(dhcp), "network-2": good(second),
            "device-file": good("has the values that the file has already")})


class BothStatic(LaboratoryCase):
    def test_address(self):
        """What the device has now is told, and with an address all is good."""
        lab = self.raise_laboratory()
        write(APP, settings() | STATIC)
        text = "a device without any address skips both, and its search fails after 120 s; now it "
        remedy = "nmcli connection modify lan connection.autoconnect yes; nmcli connection up lan"
        self.expect_findings({"networks": warning(text + "has none", remedy),
                              "profile": warning("the connection is not activated by itself")})
        # The remedy is one.
        run("sh", "-c", remedy)
        address = lab.addresses()[0].split("/")[0]
        self.expect_findings({"networks": good(f"the device has an address now, {address}: ")})

    def test_activated_by_itself(self):
        """Whether a device that starts has an address."""
        lab = self.raise_laboratory()
        write(APP, settings() | STATIC)
        run("nmcli", "connection", "up", CONNECTION)

        def start_again():
            lab.kill_manager()
            run("ip", "address", "flush", "dev", "eth0")
            run("rm", "-rf", "/run/NetworkManager")
            lab.start_manager()
            wait_until(lambda: run("nmcli", "-g", "STARTUP", "general").strip() == "started", 20,
                       "NetworkManager has started all that it starts by itself")

        finding = warning("the connection is not activated by itself: a device that starts without "
                          "any address")
        result = self.expect_findings({"profile": finding})
        start_again()
        self.assertEqual(lab.addresses(), [])
        self.expect_findings({"profile": finding,
                              "networks": warning("a device without any address skips both")})
        remedy, = (row["remedy"] for row in result.objects if row.get("item") == "profile")
        run("sh", "-c", remedy)
        start_again()
        self.assertNotEqual(lab.addresses(), [])
        self.expect_findings({})


class Probes(LaboratoryCase):
    def test_accepting_refusing_silent(self):
        lab = self.raise_laboratory()
        run("nmcli", "connection", "up", CONNECTION)
        run(*lab.there("ip", "address", "add", NEIGHBOUR + "/24", "dev", "port0"))
        write(APP, settings(first_ip=NET2.device, first_server=NEIGHBOUR))
        neighbour = lab.prepare_server(NEIGHBOUR)
        lab.start_server(NET2.server)
        accepts = good(f"{NET2.server}:{PORT} accepts, after ")
        remedy = "hoplanectl search"

        def expect(first):
            result = self.run_check("check", "--probe", "--json")
            self.compare({"probe-1": first, "probe-2": accepts}, result, ITEMS + PROBES)
            return int(re.search(r"after (\d+) ms", result.objects[-3]["text"])[1])

        took = expect(warning(f"{NEIGHBOUR}:{PORT}: Connection refused, after ", remedy))
        self.assertLess(took, 500)
        neighbour.be_too_busy()
        took = expect(warning(f"{NEIGHBOUR}:{PORT}: no answer, after ", remedy))
        self.assertGreaterEqual(took, 500)
        neighbour.listen()
        expect(good(f"{NEIGHBOUR}:{PORT} accepts, after "))

    def test_other_network(self):
        """The first server needs an addressing that the device does not have now."""
        lab = self.raise_laboratory()
        run("nmcli", "connection", "up", CONNECTION)
        lab.start_server(NET1.server)
        lab.start_server(NET2.server)
        self.compare({"probe-1": warning(f"{NET1.server}:{PORT}: Network is unreachable, after ")},
                     self.run_check("check", "--probe", "--json"), ITEMS + PROBES)


if __name__ == "__main__":
    tool.main()

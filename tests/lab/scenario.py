# SPDX-License-Identifier: MIT
"""What a scenario is made of. A scenario is a function of one of the modules in scenarios/, with
its situation as its text:

    @scenario()
    def first_server_alive(lab):
        \"\"\"The first server accepts, and its network gives addresses by DHCP.\"\"\"
        lab.configure(first=dhcp(NET2), second=dhcp(NET1))
        lab.start_server(NET2.server)
        app = lab.application()
        app.start()
        app.expect_signal(success(NET2))

What holds in every scenario is looked at after its last step; see Bench.check_at_the_end().
"""

import re
import time

from application import Application, check, check_equal, success
from laboratory import (CONNECTION, LEASED, NET1, PORT, Laboratory, LaboratoryError,
                        configuration_path, run, wait_until, write_configuration)

SCENARIOS = {}
NATIVE, ARM = "native", "arm"
MASK24 = "255.255.255.0"
AUDIT = re.compile(r'\[(\d+\.\d+)\] audit: op="connection-(update|activate)" .*result="(\w+)"')


def scenario(only=None, slow=False, **laboratory):
    """Makes a scenario of a function: only on NATIVE (link notifications) or ARM (uevents); slow if
    it takes more than some 40 s; what else it needs of the laboratory."""
    def register(function):
        check(function.__name__ not in SCENARIOS, f"two scenarios are named {function.__name__}")
        function.only, function.slow, function.laboratory = only, slow, laboratory
        SCENARIOS[function.__name__] = function
        return function
    return register


def dhcp(network):
    """Automatic addressing, beside the network's server."""
    return {"server": network.server, "flag": "false", "ip": "", "mask": "", "gateway": "",
            "dns1": "", "dns2": ""}


def static(network, mask=MASK24, ip=None):
    """Static addressing with all that belongs to it, beside the network's server."""
    return {"server": network.server, "flag": "true", "ip": ip or network.device, "mask": mask,
            "gateway": network.server, "dns1": network.dns[0], "dns2": network.dns[1]}


def addressing(half):
    """What the writers of a network's addressing take."""
    return {key: value for key, value in half.items() if key != "server"}


def automatic_commands(uuid):
    return [f"nmcli connection modify uuid {uuid} ipv4.address '' ipv4.gateway '' ipv4.dns ''"
            "  ipv4.method auto ", f"nmcli connection up uuid {uuid} "]


def static_commands(uuid, half, prefix=24):
    return [f"nmcli connection modify uuid {uuid} ipv4.addresses {half['ip']}/{prefix}"
            f" ipv4.gateway {half['gateway']}  ipv4.dns {half['dns1']},{half['dns2']}"
            " connection.autoconnect yes ipv4.method manual", f"nmcli connection up uuid {uuid} "]


def fails(network):
    """The pattern of a failed attempt's log line."""
    return rf'connect to host fail:  "{network.server}" '


def has_lease(lab):
    """The device has one address, and it comes from the DHCP server."""
    addresses = lab.addresses()
    check(len(addresses) == 1 and LEASED.fullmatch(addresses[0]),
          f"eth0 has {addresses}, expected one address by DHCP")
    check_equal(lab.default_gateway(), "", "default gateway, of which the DHCP server names none")
    check_equal(set(lab.profile("ipv4.method").split()), {"auto"}, "the profile's method")


def has_lease_as_before(lab, app):
    """The first network's static addressing has been run and is not applied: the device has a lease
    while the first server is still tried."""
    app.expect_log("setFirstStaticIpAddr . run successful$")
    has_lease(lab)


def has_static(lab, network):
    check_equal(lab.addresses(), [network.device + "/24"], "addresses of eth0")
    check_equal(lab.default_gateway(), network.server, "default gateway")
    check_equal(lab.name_servers(), network.dns, "name servers")
    check_equal(lab.profile("ipv4.method"), "manual", "the profile's method")


def pull_and_plug(lab, app):
    """One begin, then one new search."""
    lab.pull_cable()
    app.expect_output(r"^\d+: down eth0$")
    app.expect_signal("switchBegin")
    app.expect_no_signal()
    lab.plug_cable()
    app.expect_output(r"^\d+: up eth0$")
    app.expect_signal("start")
    app.expect_signal(success(NET1))
    app.expect_no_signal()


class Bench(Laboratory):
    """The laboratory with one application in it."""

    def __init__(self, timeline, command, processor, **options):
        super().__init__(timeline, **options)
        self._command = command
        self.native = processor == NATIVE
        self.app = None
        self._started = 0

    def configure(self, first, second, enabled=True, connection=CONNECTION):
        """Writes the application's configuration, whole."""
        values = {"SwitchEnable": str(enabled).lower(), "connectionName": connection}
        for which, half in (("First", first), ("Second", second)):
            values |= {f"{which}ServerIp": half["server"], f"{which}ServerPort": PORT,
                       f"{which}IsAutomatically": half["flag"], f"{which}LocalIp": half["ip"],
                       f"{which}LocalMask": half["mask"],
                       f"{which}LocalGateWay": half["gateway"],
                       f"{which}PreferredDNS": half["dns1"], f"{which}SpareDNS": half["dns2"]}
        return write_configuration("laboratory", values)

    @property
    def configuration(self):
        return configuration_path("laboratory")

    def application(self, *options, within=()):
        """Starts the application; `within` is a command line that runs another."""
        check(self.app is None, "one laboratory has one application")
        emulated = [] if self.native else ["--emulated"]
        self._started = time.time()
        self.app = Application(self, [*within, *self._command, *emulated, *options])
        return self.app

    @property
    def uuid(self):
        return self.profile("connection.uuid")

    def give_address(self, half, connection=CONNECTION):
        """Lets the device have an address before the application starts."""
        if half["flag"] == "true":
            run("nmcli", "connection", "modify", connection, "ipv4.method", "manual",
                "ipv4.addresses", half["ip"] + "/24")
        run("nmcli", "connection", "up", connection)

    def check_commands(self, expected):
        """The application has run these command lines and no others; NetworkManager's own account
        of what it was asked since the application was started is the same."""
        check_equal(self.app.commands(), expected, "commands")
        self.check_requests(["update" if " modify " in command else "activate"
                             for command in expected])

    def check_requests(self, requests):
        """So much of what the commands were to do has reached NetworkManager, which has done it, or
        has refused an "update refused"."""
        try:
            wait_until(lambda: self._requests() == requests, 5, "the same requests")
        except LaboratoryError:
            check_equal(self._requests(), requests, "requests, as NetworkManager counts them")

    def _requests(self):
        found = [AUDIT.search(line) for line in self.manager.lines]
        return [match[2] + ("" if match[3] == "success" else " refused")
                for match in found if match and float(match[1]) >= self._started]

    def seen_too_late(self, network):
        """How many attempts at most have failed though the server accepted: the library looks for
        the outcome for 1 ms, and on a busy machine that has passed before it looks."""
        successes = sum(event.kind == "signal" and event.text == success(network)
                        for event in self.app.events)
        return max(0, self.accepted(network.server) - successes)

    def check_failed(self, network, expected):
        """So many attempts at the network's server have failed because it did not accept."""
        failed = self.app.logged(fails(network))
        check(expected <= failed <= expected + self.seen_too_late(network),
              f"failed attempts at {network.server}: {failed}, expected {expected}")

    def check_at_the_end(self):
        """What holds at the end of every scenario."""
        if self.app:
            self.app.finish()
        check(self.manager.running(), "NetworkManager has ended")

# SPDX-License-Identifier: MIT
"""The main job, told step by step: two servers, one cable, a real NetworkManager. Each step is
checked; the exit status is 1 if one did not happen. See script/demo."""

import argparse
import os
import re
import signal
import sys
import threading
import time

from laboratory import (CONNECTION, LEASED, NET1, NET2, PORT, Laboratory, LaboratoryError,
                        Timeline, write_configuration)

FIRST, SECOND = NET1.server, NET2.server
FIRST_ADDRESS = NET1.device + "/24"
FAILURE = "网络切换超时，请检查双网配置信息或网络线路"
# What the application itself prints; the rest is the library's log, its link notifications, and
# the messages of the commands that it runs.
APPLICATION_LINE = re.compile(r"the link changed$|use server |no server: ")


class StepFailed(Exception):
    """A step of the story did not happen."""


class Story:
    """Prints what happens on either side, one line each, with the time since the beginning."""

    def __init__(self, verbose):
        self._begin = time.monotonic()
        self._lock = threading.Lock()
        self._verbose = verbose
        self._colours = sys.stdout.isatty() and "NO_COLOR" not in os.environ
        self.log = []
        self.manager_log = []

    def _print(self, who, what, style=""):
        elapsed = time.monotonic() - self._begin
        line = f"{elapsed:7.2f} s  {who:<13} {what}"
        if self._colours and style:
            line = f"\x1b[{style}m{line}\x1b[0m"
        with self._lock:
            print(line, flush=True)

    def heading(self, text):
        with self._lock:
            print(f"\n{text}", flush=True)

    def laboratory(self, what):
        self._print("laboratory", what)

    def check(self, what):
        self._print("checked", what, "32")

    def application_line(self, line):
        if APPLICATION_LINE.match(line):
            self._print("application", line, "1")
        else:
            self.log.append(line)
            if self._verbose and line:
                self._print("library log", line, "2")

    def address_line(self, line):
        if match := re.search(r"inet (\S+)", line):
            gone = line.startswith("Deleted")
            self._print("device", f"eth0 {'loses' if gone else 'has'} the address {match[1]}")

    def event(self, _when, who, what):
        """An event of the laboratory's timeline."""
        if who == "server":
            address, _, rest = what.partition(" ")
            self._print("first server" if address == FIRST else "second server", rest)
        elif who == "person":
            self._print("person", what)
        elif who == "manager":
            self.manager_log.append(what)


def expect(condition, what):
    if not condition:
        raise StepFailed(what)


def expect_line(application, wanted, seconds):
    expect(application.wait_for(lambda line: line == wanted, seconds),
           f"the application did not say within {seconds} s: {wanted}")


def switch_to_second(lab, story, command):
    story.heading("1. The first server is dead, the second is alive: the switch to the second")
    lab.start_server(SECOND)
    story.laboratory(f"the second server accepts on {SECOND}:{PORT}, the first one is off")
    application = lab.start_application(command, story.application_line)
    story.laboratory("the application starts and asks for a search")
    expect_line(application, f"use server {SECOND} port {PORT}", 40)
    addresses = lab.addresses()
    expect(len(addresses) == 1 and LEASED.fullmatch(addresses[0]),
           f"eth0 has {addresses}, expected one address of the second network's DHCP server")
    story.check(f"switched to the second server; eth0 has {addresses[0]}, by DHCP")
    return application


def change_link(lab, story, application, arm):
    """Gives the device the event that makes the library look again, towards the first network."""
    if arm:
        lab.flip_lan_switch(0)
        expect_line(application, "the link changed", 10)
    else:
        lab.pull_cable()
        expect_line(application, "the link changed", 10)
        lab.plug_cable()
    story.laboratory("the kernel has told of it")


def switch_back(lab, story, application, arm):
    event = ("the LAN switch is flipped" if arm
             else "the cable is pulled and plugged")
    story.heading(f"2. The second server dies, the first comes back, {event}: the switch back")
    lab.stop_server(SECOND)
    story.laboratory("the second server is off")
    lab.start_server(FIRST)
    story.laboratory(f"the first server accepts on {FIRST}:{PORT}")
    change_link(lab, story, application, arm)
    expect_line(application, f"use server {FIRST} port {PORT}", 40)
    expect(lab.addresses() == [FIRST_ADDRESS],
           f"eth0 has {lab.addresses()}, expected {FIRST_ADDRESS}")
    story.check(f"switched back to the first server; eth0 has {FIRST_ADDRESS}, as configured")


def fail(lab, story, command):
    story.heading("3. Both servers are dead: the failure, after 120 seconds")
    lab.stop_server(FIRST)
    story.laboratory("both servers are off")
    begin = time.monotonic()
    application = lab.start_application(command, story.application_line)
    story.laboratory("the application starts anew and asks for a search, for 2 minutes")
    expect_line(application, f"no server: {FAILURE} (-1)", 180)
    elapsed = time.monotonic() - begin
    expect(elapsed >= 120, f"the failure came after {elapsed:.1f} s, before the 120 s were over")
    story.check(f"the search failed after {elapsed:.1f} s with its text and code -1")


def tell(lab, story, options):
    path = write_configuration("failover", {
        "SwitchEnable": "true", "connectionName": CONNECTION,
        "FirstServerIp": FIRST, "FirstServerPort": PORT, "FirstIsAutomatically": "true",
        "FirstLocalIp": FIRST_ADDRESS.split("/", maxsplit=1)[0],
        "FirstLocalMask": "255.255.255.0", "FirstLocalGateWay": FIRST,
        "SecondServerIp": SECOND, "SecondServerPort": PORT, "SecondIsAutomatically": "false"})
    story.laboratory("up: NetworkManager, a DHCP server, two networks on one cable")
    story.laboratory(f"the application's configuration is written: {path}")
    lab.watch_addresses(story.address_line)
    application = switch_to_second(lab, story, options.application)
    switch_back(lab, story, application, options.arm)
    application.stop()
    if options.full:
        fail(lab, story, options.application)
    else:
        story.heading("3. Both servers dead, the failure after 120 seconds: skipped, run"
                      " script/demo --full for it")


def main():
    # Ends quietly when whoever reads the output has seen enough.
    signal.signal(signal.SIGPIPE, signal.SIG_DFL)
    parser = argparse.ArgumentParser(description=__doc__)
    parser.add_argument("--full", action="store_true")
    parser.add_argument("--verbose", action="store_true")
    parser.add_argument("--arm", action="store_true",
                        help="the application is built for ARM: the LAN switch, not the cable")
    parser.add_argument("application", nargs="+", help="the command line that runs it")
    options = parser.parse_args()

    story = Story(options.verbose)
    processor = "ARM, run by an emulator" if options.arm else "this machine"
    story.heading(f"The library is built for {processor}.\n"
                  f"Server 1 is {FIRST}: the device needs the static address {FIRST_ADDRESS}.\n"
                  f"Server 2 is {SECOND}: the device gets an address by DHCP.")
    try:
        with Laboratory(Timeline(story.event)) as lab:
            tell(lab, story, options)
    except (StepFailed, LaboratoryError) as failure:
        print("\nThe library's log:", *story.log, sep="\n  ")
        print("NetworkManager's last lines:", *story.manager_log[-20:], sep="\n  ")
        print(f"\nNot as it should be: {failure}", file=sys.stderr)
        return 1
    print("\nEverything shown was checked. The laboratory is gone, with the namespaces of its own"
          " in which all of it ran.")
    return 0


if __name__ == "__main__":
    sys.exit(main())

# SPDX-License-Identifier: MIT
"""Who can make the library believe in an event of the kernel: a process with CAP_NET_ADMIN over the
network namespace (CAP_SYS_ADMIN over its user namespace if it lets the kernel send). No other, the
kernel refuses it.

  events.py PROGRAM                            the tests
  events.py send PROTOCOL PORT GROUPS HEX      sends one message; prints "sent" or the error's name
  events.py broadcast HEX                      has the kernel send one; likewise
"""

import errno
import re
import socket
import struct
import subprocess
import sys
import unittest

import device
from device import ROUTE, UEVENT

LAN_SWITCH = "/devices/virtual/switch/lan-switch"
EVERY_CAPABILITY = []


def without(*capabilities):
    """The beginning of the command line of a process that lacks them, and cannot get them."""
    lost = ",".join("-" + capability for capability in capabilities)
    return ["setpriv", f"--bounding-set={lost}", f"--inh-caps={lost}"]


def netlink(protocol):
    return socket.socket(socket.AF_NETLINK, socket.SOCK_RAW, protocol)


def send(protocol, port, groups, message):
    with netlink(protocol) as sender:
        try:
            sender.sendto(message, (port, groups))
        except OSError as error:
            return errno.errorcode[error.errno]
    return "sent"


def broadcast(message):
    request_and_acknowledge = 5
    header = struct.pack("=IHHII", 16 + len(message), 16, request_and_acknowledge, 0, 0)
    with netlink(UEVENT) as sender:
        sender.settimeout(device.SECONDS)
        sender.sendto(header + message, (0, 0))
        number = -struct.unpack_from("=i", sender.recv(4096), 16)[0]
    return errno.errorcode[number] if number else "sent"


def by(process, *arguments):
    """What another process makes of it."""
    return subprocess.check_output([*process, sys.executable, "-B", __file__, *map(str, arguments)],
                                   text=True, timeout=device.SECONDS).strip()


def uevent(state):
    texts = [f"change@{LAN_SWITCH}", "ACTION=change", f"DEVPATH={LAN_SWITCH}", "SUBSYSTEM=switch",
             "SWITCH_NAME=lan-switch", f"SWITCH_STATE={state}"]
    return "".join(text + "\0" for text in texts).encode().hex()


def link(index):
    """A notification of a link that is down."""
    new_link, down = 16, 0
    body = struct.pack("=BxHiII", 0, 1, index, down, 0)
    return (struct.pack("=IHHII", 16 + len(body), new_link, 0, 0, 0) + body).hex()


class Uevents(unittest.TestCase):
    """On ARM: the LAN switch."""

    def test_sending_an_event_of_the_lan_switch(self):
        with device.Device("arm64") as arm:
            port = arm.port(UEVENT)

            def seen(state):
                return arm.see(rf"parse_uevent event .*state={state}\}}")

            # Who may, reaches the library by each road.
            self.assertEqual(by(EVERY_CAPABILITY, "broadcast", uevent(11)), "sent")
            seen(11)
            self.assertEqual(by(EVERY_CAPABILITY, "send", UEVENT, 0, 1, uevent(12)), "sent")
            seen(12)
            self.assertEqual(by(EVERY_CAPABILITY, "send", UEVENT, port, 0, uevent(13)), "sent")
            seen(13)

            # Who lacks nothing but the capability, by none.
            lacking = without("net_admin")
            self.assertEqual(by(lacking, "send", UEVENT, 0, 1, uevent(21)), "EPERM")
            self.assertEqual(by(lacking, "send", UEVENT, 0, 0xFFFFFFFF, uevent(22)), "EPERM")
            self.assertEqual(by(lacking, "send", UEVENT, port, 0, uevent(23)), "EPERM")
            lacking = without("sys_admin")
            self.assertEqual(by(lacking, "broadcast", uevent(24)), "EPERM")
            lacking = without("all")
            self.assertEqual(by(lacking, "send", UEVENT, 0, 1, uevent(25)), "EPERM")
            self.assertEqual(by(lacking, "send", UEVENT, port, 0, uevent(26)), "EPERM")
            self.assertEqual(by(lacking, "broadcast", uevent(27)), "EPERM")

            # Events arrive in their order, so whatever had passed would stand before this one.
            self.assertEqual(by(EVERY_CAPABILITY, "broadcast", uevent(14)), "sent")
            seen(14)
            states = re.findall(r"parse_uevent event .*state=(\d+)\}", "\n".join(arm.program.lines))
            self.assertEqual(states, ["11", "12", "13", "14"])


class Links(unittest.TestCase):
    """On other processors: link notifications."""

    def test_sending_a_link_notification(self):
        with device.Device("x86_64") as other:
            port = other.port(ROUTE)

            def seen(index):
                return other.see(rf"^{index}: down$")

            self.assertEqual(by(EVERY_CAPABILITY, "send", ROUTE, port, 0, link(4711)), "sent")
            seen(4711)
            self.assertEqual(by(EVERY_CAPABILITY, "send", ROUTE, 0, 1, link(4712)), "sent")
            seen(4712)
            for lacking in (without("net_admin"), without("all")):
                self.assertEqual(by(lacking, "send", ROUTE, port, 0, link(4721)), "EPERM")
                self.assertEqual(by(lacking, "send", ROUTE, 0, 1, link(4722)), "EPERM")
            self.assertEqual(by(EVERY_CAPABILITY, "send", ROUTE, port, 0, link(4713)), "sent")
            seen(4713)
            indices = re.findall(r"^(47\d\d): down$", "\n".join(other.program.lines), re.MULTILINE)
            self.assertEqual(indices, ["4711", "4712", "4713"])


if __name__ == "__main__":
    if sys.argv[1] == "send":
        print(send(*map(int, sys.argv[2:5]), bytes.fromhex(sys.argv[5])))
    elif sys.argv[1] == "broadcast":
        print(broadcast(bytes.fromhex(sys.argv[2])))
    else:
        device.main()

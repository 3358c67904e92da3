# SPDX-License-Identifier: MIT
"""What the library opens: one netlink socket, connections to the configured servers during a
search, and nothing that another machine could connect to."""

import pathlib
import socket
import unittest

import device
from device import ROUTE, UEVENT

ANY_GROUP = 0xFFFFFFFF
LINK_GROUP = 1
LISTENING = "0A"


def inet():
    """The sockets of the network namespace: (kind, local port, remote port, state)."""
    rows = []
    for kind in ("tcp", "tcp6", "udp", "udp6", "raw", "raw6"):
        for line in pathlib.Path(f"/proc/net/{kind}").read_text(encoding="ascii").splitlines()[1:]:
            _, local, remote, state, *_ = line.split()
            rows.append((kind, int(local.rpartition(":")[2], 16),
                         int(remote.rpartition(":")[2], 16), state))
    return rows


class Sockets(unittest.TestCase):
    """The sandbox has a network of its own, so all sockets in it are the application's or this
    program's."""

    def test_idle_on_arm(self):
        with device.Device("arm64") as arm:
            arm.port(UEVENT)
            netlink = [(protocol, groups) for protocol, _, groups in arm.netlink()]
            self.assertEqual(netlink, [(UEVENT, ANY_GROUP)])
            self.assertEqual(inet(), [])

    def test_idle_on_another_processor(self):
        with device.Device("x86_64") as other:
            other.port(ROUTE)
            netlink = [(protocol, groups) for protocol, _, groups in other.netlink()]
            self.assertEqual(netlink, [(ROUTE, LINK_GROUP)])
            self.assertEqual(inet(), [])

    def test_search(self):
        with socket.create_server(("127.0.0.1", 0)) as server, device.Device("arm64") as arm:
            port = server.getsockname()[1]
            arm.do("servers", "true", "127.0.0.1", str(port), "", "")
            arm.do("start")
            server.settimeout(device.SECONDS)
            accepted, (_, client) = server.accept()
            with accepted:
                # The library sends nothing and closes.
                accepted.settimeout(device.SECONDS)
                self.assertEqual(accepted.recv(1), b"")
                arm.see(rf"signal switchSuccess 127\.0\.0\.1 {port}$")
                listening = [row for row in inet() if row[3] == LISTENING]
                self.assertEqual(listening, [("tcp", port, 0, LISTENING)])
                strange = [row for row in inet() if row[1] not in (port, client)]
                self.assertEqual(strange, [])


if __name__ == "__main__":
    device.main()

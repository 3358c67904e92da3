# SPDX-License-Identifier: MIT
"""Settings: the device's own, and those that the application writes."""

import pathlib

from application import check_equal, success
from laboratory import CONNECTION, NET1, NET2
from scenario import (addressing, automatic_commands, dhcp, fails, has_lease, has_static, scenario,
                      static, static_commands)

DEVICE_FILE = pathlib.Path("/userdata/netSettings.ini")


def write_device_file(master, slave, connection=CONNECTION):
    """The device's settings: its main and its spare network."""
    lines = ["[NetworkConnections]", f"conName={connection}"]
    for name, half in (("MasterNet", master), ("SlaveNet", slave)):
        lines.append(f"{name}\\bDhcpEnabled={'true' if half['flag'] == 'false' else 'false'}")
        lines += [f"{name}\\{key}={half[key]}" for key in ("ip", "mask", "gateway", "dns1", "dns2")]
    DEVICE_FILE.write_text("\n".join(lines) + "\n", encoding="utf-8")


@scenario()
def device_file_imported(lab):
    """The device's file has a static main network and a spare one with DHCP; the configuration file
    has the servers, another connection and the networks exchanged. The search uses what was
    imported, and what is written later is not imported over."""
    lab.configure(first=dhcp(NET1), second=static(NET2), connection="wan")
    write_device_file(master=static(NET1), slave=dhcp(NET2))
    before = DEVICE_FILE.read_bytes()
    lab.start_server(NET2.server)
    app = lab.application()
    app.start()
    app.expect_signal(success(NET2))
    lab.check_commands(static_commands(lab.uuid, static(NET1)) + automatic_commands(lab.uuid))
    check_equal(DEVICE_FILE.read_bytes(), before, "the device's file")
    has_lease(lab)
    app.expect_no_signal()
    app.save_connection("wan")
    app.start()
    app.expect_signal(success(NET2))
    check_equal(app.logged('get uuid is empty,d->strConnectionName= "wan"$'), 2,
                "look-ups of the connection that was written later")


@scenario()
def device_file_is_a_folder(lab):
    """The device's file is a folder: the connection's name and the addressing are emptied, so the
    active connection is taken, with automatic addressing."""
    lab.configure(first=static(NET2), second=static(NET1), connection="wan")
    lab.give_address(static(NET1))
    DEVICE_FILE.mkdir()
    lab.start_server(NET2.server)
    app = lab.application()
    app.start()
    app.expect_signal(success(NET2))
    lab.check_commands(automatic_commands(lab.uuid))
    has_lease(lab)


@scenario()
def writers_called_during_a_search(lab):
    """The application writes other servers, addressing and another connection's name while a search
    is in its first pass: the second pass goes on with the old ones, the next search has the new."""
    lab.configure(first=static(NET1), second=dhcp(NET2))
    lab.add_profile("other")
    app = lab.application()
    app.start()
    app.expect_log(fails(NET1), times=2)
    new_first, new_second = static(NET2), static(NET1, ip="198.51.100.7")
    app.save_servers(True, NET2.server, NET1.server)
    app.save_addressing("first", addressing(new_first))
    app.save_addressing("second", addressing(new_second))
    app.save_connection("other")
    app.expect_log(fails(NET1), times=9)  # The ninth is the first of the second pass.
    lab.start_server(NET2.server)
    app.expect_signal(success(NET2))
    has_lease(lab)
    app.expect_no_signal()
    old = static_commands(lab.uuid, static(NET1)) + automatic_commands(lab.uuid)
    lab.check_commands(2 * old)
    lab.check_failed(NET1, 20)
    lab.check_failed(NET2, 10)

    lab.stop_server(NET2.server)
    lab.start_server(NET1.server)
    app.start()
    app.expect_signal(success(NET1))
    check_equal(lab.addresses(), ["198.51.100.7/24"], "addresses of eth0")
    other = lab.profile("connection.uuid", "other")
    first = static_commands(other, new_first)
    lab.check_commands([*old, *old, *first, first[1], *static_commands(other, new_second)])
    lab.check_failed(NET2, 10 + 20)


@scenario()
def enabled_by_the_writer(lab):
    """Switching is disabled: a search signals nothing. The application enables it: the next one
    works."""
    lab.configure(first=static(NET1), second=dhcp(NET2), enabled=False)
    lab.start_server(NET1.server)
    app = lab.application()
    app.start()
    app.expect_no_signal()
    lab.check_commands([])
    app.save_servers(True, NET1.server, NET2.server)
    app.start()
    app.expect_signal(success(NET1))
    has_static(lab, NET1)


@scenario()
def notice_of_the_current_server(lab):
    """The application tells which server it uses: accepted, without any effect."""
    lab.configure(first=static(NET1), second=dhcp(NET2))
    lab.start_server(NET1.server)
    lab.start_server(NET2.server)
    app = lab.application()
    app.tell("current", NET2.server)
    app.expect_no_signal()
    lab.check_commands([])
    app.start()
    app.expect_signal(success(NET1))
    lab.check_commands(static_commands(lab.uuid, static(NET1)))

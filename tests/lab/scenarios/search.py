# SPDX-License-Identifier: MIT
"""Searches: which server is reached, over which addressing, after how many attempts."""

import time

from application import check, check_equal, success
from laboratory import NET1, NET2, run, wait_until
from scenario import (ARM, NATIVE, automatic_commands, dhcp, fails, has_lease, has_lease_as_before,
                      has_static, pull_and_plug, scenario, static, static_commands)

# Of a search, in seconds.
LIMIT = 120
# The library reads the wall clock in whole milliseconds, the laboratory the monotonic one, and the
# two of one machine differ a little over such a time.
TWO_CLOCKS = 0.1
# A request goes through a pipe and two threads before the search begins.
ON_THE_WAY = 2


@scenario()
def first_server_alive_by_dhcp(lab):
    """The first server accepts, and its network gives addresses by DHCP."""
    lab.configure(first=dhcp(NET2), second=dhcp(NET1))
    lab.start_server(NET2.server)
    app = lab.application()
    app.start()
    app.expect_signal(success(NET2))
    has_lease(lab)
    lab.check_commands(automatic_commands(lab.uuid))
    lab.check_failed(NET2, 0)
    app.expect_no_signal()
    check_equal(app.logged("slotFinish"), 1, "finished searches")


@scenario()
def second_static_server_alive(lab):
    """Both networks are static. The first server is dead, the second accepts."""
    lab.configure(first=static(NET1), second=static(NET2))
    lab.give_address(dhcp(NET2))
    lab.start_server(NET2.server)
    app = lab.application()
    app.start()
    app.expect_signal(success(NET2))
    has_static(lab, NET2)
    check_equal(lab.profile("connection.autoconnect"), "yes", "the profile's autoconnect")
    lab.check_failed(NET1, 20)
    first, second = static_commands(lab.uuid, static(NET1)), static_commands(lab.uuid, static(NET2))
    lab.check_commands([*first, first[1], *second])


@scenario(slow=True)
def both_servers_dead(lab):
    """Neither server accepts: the failure, when the pass that began last is over."""
    lab.configure(first=static(NET1), second=dhcp(NET2))
    app = lab.application()
    began = app.start()
    failed = app.expect_failure(within=180)
    app.expect_no_signal()
    attempts = [event for event in app.events
                if event.kind == "log" and "connect to host fail" in event.text]
    passes, rest = divmod(len(attempts), 20)
    check_equal(rest, 0, "attempts beside those of whole passes")
    for number in range(passes):
        of_this = attempts[20 * number:20 * (number + 1)]
        networks = [network for event in of_this for network in (NET1, NET2)
                    if f'"{network.server}"' in event.text]
        check_equal(networks, 10 * [NET1] + 10 * [NET2], f"attempts of pass {number + 1}")
    ends = [event.when - began for event in attempts[19::20]]
    check(ends[-2] < LIMIT + ON_THE_WAY, f"a pass began after {ends[-2]:.3f} s")
    check(ends[-1] > LIMIT - TWO_CLOCKS, f"none began, though only {ends[-1]:.3f} s had passed")
    # Nothing lies between the last attempt and the end.
    after = [event.text for event in app.events[app.events.index(attempts[-1]) + 1:]
             if event.kind in ("log", "signal") and " [ network" not in event.text]
    check_equal(after[:1], ["info [ findAvailableIp ]  switch time out"], "the line after it")
    check(failed - attempts[-1].when < 2, f"told {failed - attempts[-1].when:.1f} s later")
    check_equal((app.logged("switch time out"), app.logged("slotFinish")), (1, 1),
                "lines of the time limit and of the end")
    lab.check_commands(passes * (static_commands(lab.uuid, static(NET1))
                                 + automatic_commands(lab.uuid)))
    lab.start_server(NET1.server)
    if lab.native:
        pull_and_plug(lab, app)
    else:
        app.start()
        app.expect_signal(success(NET1))


@scenario()
def second_server_alive_in_the_second_pass(lab):
    """Both servers are dead at first; the second one accepts after its first probe has failed."""
    lab.configure(first=static(NET1), second=dhcp(NET2))
    app = lab.application()
    app.start()
    app.expect_log(fails(NET2), times=10, within=60)
    lab.start_server(NET2.server)
    app.expect_signal(success(NET2), within=60)
    has_lease(lab)
    lab.check_failed(NET1, 20)
    lab.check_failed(NET2, 10)


@scenario()
def first_server_answers_at_the_third_attempt(lab):
    """The first server is too busy to answer two attempts, and answers the third."""
    lab.configure(first=static(NET1), second=dhcp(NET2))
    server = lab.prepare_server(NET1.server)
    server.be_too_busy()
    app = lab.application()
    app.start()
    app.expect_log(fails(NET1))
    # At the end of an attempt Qt's socket asks once more and does not wait, so a socket that stays
    # is the next attempt's.
    looks = [set()]
    wait_until(lambda: looks.append(lab.sockets_without_an_answer(NET1.server))
               or looks[-1] & looks[-2], 10, "the second attempt")
    server.listen()
    listens = time.monotonic()
    app.expect_signal(success(NET1))
    # Two, unless the laboratory itself was late: then that attempt too which ran at that time, or
    # was about to.
    before = sum(event.kind == "log" and event.when < listens and "host fail" in event.text
                 for event in app.events)
    failed = app.logged(fails(NET1))
    check(before <= failed <= before + 1 + lab.seen_too_late(NET1),
          f"{failed} failed attempts, {before} of them before the server answered")
    has_static(lab, NET1)


@scenario()
def first_server_is_a_black_hole(lab):
    """The first server listens, but its answers are lost on the way."""
    lab.configure(first=static(NET1), second=dhcp(NET2))
    accepted = []
    lab.start_server(NET1.server, accepted.append)
    lab.start_server(NET2.server, accepted.append)
    lab.lose_answers_to(NET1.device)
    app = lab.application()
    app.start()
    times = [app.expect_log(fails(NET1)) for _ in range(10)]
    app.expect_signal(success(NET2))
    lab.check_failed(NET1, 10)
    check(4.5 <= times[-1] - times[0] < 7, f"nine of them took {times[-1] - times[0]:.2f} s")
    has_lease(lab)
    check_equal({f"{peer}/24" for peer in accepted}, set(lab.addresses()), "who was accepted")


@scenario()
def first_network_skipped_on_its_own_address(lab):
    """Both networks are static, and the device is on the first one's address already."""
    lab.configure(first=static(NET1), second=static(NET2))
    lab.give_address(static(NET1))
    lab.start_server(NET1.server)
    lab.start_server(NET2.server)
    app = lab.application()
    app.start()
    app.expect_signal(success(NET2))
    check_equal(app.logged(f'it is the same net ip adddr  "{NET1.device}"$'), 1,
                "lines of the skipped network")
    lab.check_commands(static_commands(lab.uuid, static(NET2)))


@scenario(only=NATIVE, slow=True)
def both_static_and_no_address(lab):
    """Both networks are static and the device has no address at all: the search spins until its
    limit, without a command, an attempt or a pause."""
    lab.configure(first=static(NET1), second=static(NET2))
    lab.start_server(NET1.server)
    app = lab.application("--once")
    used_before, waited_before = app.awake_seconds()
    lines_before = app.answer("lines")
    began = app.start()
    took = app.expect_failure(within=150) - began
    used, waited = app.awake_seconds()
    used, waited = used - used_before, waited - waited_before
    check(LIMIT - TWO_CLOCKS < took < LIMIT + ON_THE_WAY, f"the failure came after {took:.3f} s")
    app.expect_no_signal()
    lab.check_commands([])
    turns = [f"info [ {function} ] {text}"
             for function, ip in (("doConnetFirstServer", NET1.device),
                                  ("doConnetSecondServer", NET2.device))
             for text in (f'the net ip adddr: "" ,the switch local ip addr: "{ip}"',
                          f'it is the same net ip adddr  "{ip}"')]
    check_equal([text for text in app.log_lines("") if " [ network" not in text][4:],
                [*turns, "info [ findAvailableIp ]  switch time out",
                 'warning [ slotFinish ] "slotFinish 71: addressChanged :0"'], "the log's texts")
    check(used + waited > 0.5 * took, f"on a processor for {used:.1f} s, ready for one for "
          f"{waited:.1f} s, of {took:.1f} s")
    lines = app.answer("lines") - lines_before
    lab.timeline.add("measured", f"{used / took:.2f} processors, "
                                 f"{lines / 4 / took:.0f} passes a second")


@scenario(only=NATIVE)
def static_network_tried_first(lab):
    """The first network is automatic, the second static: tried in the other order."""
    lab.configure(first=dhcp(NET2), second=static(NET1))
    lab.start_server(NET1.server)
    lab.start_server(NET2.server)
    app = lab.application()
    app.start()
    app.expect_signal(success(NET1))
    has_static(lab, NET1)
    lab.check_commands(static_commands(lab.uuid, static(NET1)))


@scenario(only=NATIVE)
def automatic_network_tried_second(lab):
    """The first network is automatic, the second static and its server dead: the other order to its
    end, and the file keeps its own."""
    path = lab.configure(first=dhcp(NET2), second=static(NET1))
    before = path.read_bytes()
    lab.start_server(NET2.server)
    app = lab.application()
    app.start()
    app.expect_signal(success(NET2))
    has_lease(lab)
    lab.check_failed(NET1, 10)
    lab.check_commands(static_commands(lab.uuid, static(NET1)) + automatic_commands(lab.uuid))
    check_equal(path.read_bytes(), before, "the configuration file")


@scenario(only=ARM)
def order_of_the_file_on_arm(lab):
    """The first network is automatic, the second static: tried in the file's order."""
    lab.configure(first=dhcp(NET2), second=static(NET1))
    lab.start_server(NET1.server)
    lab.start_server(NET2.server)
    app = lab.application()
    app.start()
    app.expect_signal(success(NET2))
    has_lease(lab)
    lab.check_commands(automatic_commands(lab.uuid))


@scenario(only=ARM)
def second_static_server_alive_on_arm(lab):
    """The first network is automatic and its server dead, the second static and its server
    alive."""
    lab.configure(first=dhcp(NET2), second=static(NET1))
    lab.start_server(NET1.server)
    app = lab.application()
    app.start()
    app.expect_signal(success(NET1))
    has_static(lab, NET1)
    lab.check_failed(NET2, 10)


@scenario()
def cable_out_then_plugged(lab):
    """The cable is out when the search begins, and plugged when its first pass is over."""
    lab.configure(first=static(NET1), second=dhcp(NET2))
    lab.start_server(NET1.server)
    lab.pull_cable()
    app = lab.application()
    app.start()
    app.expect_log(fails(NET2), times=10, within=90)
    lab.plug_cable()
    app.expect_signal(success(NET1))
    lab.check_failed(NET2, 10)
    if lab.native:
        # The notice that the link is up waited for the end of the search, and asks for another.
        app.expect_signal("start")
        app.expect_signal(success(NET1))
    has_static(lab, NET1)


@scenario()
def unknown_connection_name(lab):
    """NetworkManager does not know the connection: nothing is applied, but the server is reachable
    with the address that the device has."""
    lab.configure(first=static(NET1), second=dhcp(NET2), connection="wan")
    lab.give_address(dhcp(NET2))
    lab.start_server(NET2.server)
    app = lab.application()
    app.start()
    app.expect_signal(success(NET2), within=60)
    lab.check_commands([])
    for function in ("setStaticIpAddr", "setLocalIpAuto"):
        check_equal(app.logged(rf'critical \[ {function} \] get uuid is empty,'
                               r'd->strConnectionName= "wan"$'), 1, f"lines of {function}")
    check_equal(app.logged("run failed$"), 2, "failed addressings")
    has_lease(lab)


@scenario()
def name_with_blanks_and_other_letters(lab):
    """The connection's name has blanks and letters beyond ASCII."""
    name = "Kabel Büro 1"
    lab.add_profile(name)
    lab.configure(first=static(NET1), second=dhcp(NET2), connection=name)
    lab.start_server(NET1.server)
    app = lab.application()
    app.start()
    app.expect_signal(success(NET1))
    lab.check_commands(static_commands(lab.profile("connection.uuid", name), static(NET1)))
    check_equal(lab.addresses(), [NET1.device + "/24"], "addresses of eth0")


@scenario()
def empty_name_and_one_active_connection(lab):
    """No connection is named, and one is active: that one is taken."""
    lab.configure(first=static(NET1), second=dhcp(NET2), connection="")
    lab.give_address(dhcp(NET2))
    lab.start_server(NET1.server)
    app = lab.application()
    app.start()
    app.expect_signal(success(NET1))
    lab.check_commands(static_commands(lab.uuid, static(NET1)))
    has_static(lab, NET1)


@scenario()
def empty_name_and_two_active_connections(lab):
    """No connection is named, and two are active: the commands name both and change neither."""
    lab.configure(first=static(NET1), second=dhcp(NET2), connection="")
    lab.give_address(dhcp(NET2))
    lab.add_second_cable()
    lab.add_profile("other", "eth1", "ipv4.method", "manual", "ipv4.addresses", "203.0.113.2/24")
    run("nmcli", "connection", "up", "other")
    lab.start_server(NET2.server)
    app = lab.application()
    app.start()
    has_lease_as_before(lab, app)
    app.expect_signal(success(NET2), within=60)
    lab.check_requests([])
    names = {lab.uuid, lab.profile("connection.uuid", "other")}
    for command in app.commands():
        check(command.startswith("nmcli connection ") and
              names == set(command.split(" uuid ")[1].split()[:2]), f"unexpected: {command}")
    check_equal(len(app.commands()), 4, "number of commands")
    check_equal((lab.profile("ipv4.method"), lab.profile("ipv4.method", "other")),
                ("auto", "manual"), "methods of the two profiles")
    has_lease(lab)


@scenario(manage_loopback=True)
def empty_name_and_a_listed_loopback(lab):
    """No connection is named, one is active, and NetworkManager lists the loopback interface as
    another, as it does from 1.42 on: as with any second one, nothing is applied."""
    lab.configure(first=static(NET1), second=dhcp(NET2), connection="")
    lab.give_address(dhcp(NET2))
    lab.start_server(NET2.server)
    app = lab.application()
    app.start()
    has_lease_as_before(lab, app)
    app.expect_signal(success(NET2), within=60)
    lab.check_requests([])
    check_equal(app.logged("getNetWorkUuid"), 2, "look-ups")
    loopback = lab.profile("connection.uuid", "lo")
    for command in app.commands():
        check_equal(set(command.split(" uuid ")[1].split()[:2]), {lab.uuid, loopback}, command)
    check_equal(len(app.commands()), 4, "number of commands")
    has_lease(lab)


def never_signals(lab):
    """A search that is asked for signals nothing; returns the application."""
    app = lab.application()
    app.start()
    app.expect_no_signal()
    lab.check_commands([])
    return app


def searches_again(lab, app):
    """With a right file the next search works."""
    lab.configure(first=static(NET1), second=dhcp(NET2))
    lab.start_server(NET1.server)
    app.start()
    app.expect_signal(success(NET1))


@scenario()
def no_file(lab):
    """There is no configuration file, at first, and once more later: nothing is signalled."""
    app = never_signals(lab)
    check_equal(app.logged(rf'  switch congif file: "{lab.configuration}" '
                           'not exist,can not do net switc.$'), 1, "lines of the missing file")
    searches_again(lab, app)
    app.expect_no_signal()
    lab.configuration.unlink()
    app.start()
    app.expect_no_signal()
    lab.check_commands(static_commands(lab.uuid, static(NET1)))


@scenario()
def empty_file(lab):
    """The configuration file is empty: nothing is signalled."""
    lab.configuration.parent.mkdir(parents=True)
    lab.configuration.touch()
    app = never_signals(lab)
    check_equal(app.logged(' switch info:first serverIp: "" ,serverPort: ""$'), 1, "summaries")
    searches_again(lab, app)


@scenario()
def unreadable_file(lab):
    """The application may not read the configuration file: nothing is signalled."""
    lab.configure(first=static(NET1), second=dhcp(NET2))
    lab.configuration.chmod(0)
    # Root without its capability to read everything.
    app = lab.application(within=["setpriv", "--bounding-set", "-dac_override,-dac_read_search"])
    app.start()
    app.expect_no_signal()
    lab.check_commands([])
    check_equal(app.logged(' switch info:first serverIp: "" ,serverPort: ""$'), 1, "summaries")
    lab.configuration.chmod(0o600)
    searches_again(lab, app)


@scenario()
def three_starts_in_a_row(lab):
    """Three searches are asked for at once: three, one after the other."""
    lab.configure(first=static(NET1), second=dhcp(NET2))
    lab.start_server(NET1.server)
    app = lab.application()
    app.tell("start", times=3)
    for _ in range(3):
        app.expect_signal("start")
    for _ in range(3):
        app.expect_signal(success(NET1))
    app.expect_no_signal()
    check_equal(app.logged("slotFinish"), 3, "finished searches")
    lab.check_commands(3 * static_commands(lab.uuid, static(NET1)))


@scenario()
def activated_again_after_the_eleventh_attempt(lab):
    """Both networks are static and the first server is dead: one more activation during its twenty
    attempts, after the eleventh."""
    lab.configure(first=static(NET1), second=static(NET2))
    lab.give_address(dhcp(NET2))
    lab.start_server(NET2.server)
    app = lab.application()
    app.start()
    app.expect_signal(success(NET2))
    lines = app.log_lines(rf"\[ tryConnectRemote \] ({fails(NET1).strip()}| cmd: )")
    at = [index for index, text in enumerate(lines) if " cmd: " in text]
    check_equal((len(lines), at), (21, [11]), "lines of attempts, and places of the activation")
    lab.check_failed(NET2, 0)
    commands = static_commands(lab.uuid, static(NET1))
    lab.check_commands([*commands, commands[1], *static_commands(lab.uuid, static(NET2))])


@scenario()
def netmask_of_a_class_a_network(lab):
    """The first network's netmask is 255.0.0.0: applied with the prefix length 6."""
    half = static(NET1, mask="255.0.0.0")
    lab.configure(first=half, second=dhcp(NET2))
    lab.start_server(NET1.server)
    app = lab.application()
    app.start()
    app.expect_signal(success(NET1))
    check_equal(lab.addresses(), [NET1.device + "/6"], "addresses of eth0")
    lab.check_commands(static_commands(lab.uuid, half, prefix=6))


@scenario()
def text_that_is_no_address(lab):
    """The first network's address is not an address: nmcli refuses it, and the profile is activated
    as it was."""
    lab.configure(first=static(NET1, ip="198.51.100.999"), second=dhcp(NET2))
    lab.start_server(NET2.server)
    app = lab.application()
    app.start()
    has_lease_as_before(lab, app)
    app.expect_signal(success(NET2))
    lab.check_requests(["activate", "update", "activate"])
    check_equal(lab.profile("connection.autoconnect"), "no", "the profile's autoconnect")


@scenario()
def gateway_and_name_servers_left_out(lab):
    """Both networks are static, and the second one has no gateway and no name servers: the profile
    keeps those of the first one."""
    second = static(NET2) | {"gateway": "", "dns1": "", "dns2": ""}
    lab.configure(first=static(NET1), second=second)
    lab.give_address(dhcp(NET2))
    lab.start_server(NET2.server)
    app = lab.application()
    app.start()
    app.expect_signal(success(NET2))
    check_equal(lab.addresses(), [NET2.device + "/24"], "addresses of eth0")
    check_equal((lab.default_gateway(), lab.name_servers()), (NET1.server, NET1.dns),
                "default gateway and name servers")
    check_equal(app.commands()[-2], f"nmcli connection modify uuid {lab.uuid} ipv4.addresses "
                f"{NET2.device}/24    connection.autoconnect yes ipv4.method manual", "command")


@scenario()
def reached_server_dies(lab):
    """The server that a search reached dies; the next search reaches the other one."""
    lab.configure(first=static(NET1), second=dhcp(NET2))
    lab.start_server(NET1.server)
    lab.start_server(NET2.server)
    app = lab.application()
    app.start()
    app.expect_signal(success(NET1))
    lab.stop_server(NET1.server)
    app.expect_no_signal()
    app.start()
    app.expect_signal(success(NET2))

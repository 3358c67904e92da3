# SPDX-License-Identifier: MIT
"""Events: the LAN switch on the device, links on other processors."""

from application import check, check_equal, success
from laboratory import LAN_SWITCH, NET1, NET2, wait_until
from scenario import (ARM, NATIVE, automatic_commands, dhcp, fails, has_lease, has_static,
                      pull_and_plug, scenario, static, static_commands)

OTHER = "/devices/virtual/net/eth7"


def waiting_application(lab, first=static(NET1), second=dhcp(NET2)):
    """An application that has not searched yet; both servers accept."""
    lab.configure(first=first, second=second)
    lab.start_server(NET1.server)
    lab.start_server(NET2.server)
    return lab.application()


def send_and_expect_nothing(lab, app, *settings):
    """Nothing follows from the uevent; the watcher goes on and handles the next one."""
    lab.send_uevent(f"change@{LAN_SWITCH}", *settings)
    app.expect_no_signal()
    lab.check_commands([])
    check_equal(app.logged(" event {"), 0, "lines of events")
    lab.flip_lan_switch(0)
    app.expect_signal("switchBegin")
    app.expect_signal(success(NET1))
    lab.check_commands(static_commands(lab.uuid, static(NET1)))


@scenario(only=ARM)
def lan_switch_to_1(lab):
    """The LAN switch goes to 1: the second network is applied, and its server answers."""
    app = waiting_application(lab)
    lab.flip_lan_switch(1)
    app.expect_signal("switchBegin")
    app.expect_signal(success(NET2))
    has_lease(lab)
    lab.check_commands(automatic_commands(lab.uuid))
    check_equal(app.logged(r'^warning \[ parse_uevent \] "parse_uevent event { name=lan-switch, '
                           f'action=change, path={LAN_SWITCH}, state=1}}"$'), 1, "lines of events")
    app.expect_no_signal()
    check_equal(app.logged("slotFinish"), 0, "finished searches")


@scenario(only=ARM)
def lan_switch_to_0(lab):
    """The LAN switch goes to 0: the first network is applied, and its server answers."""
    app = waiting_application(lab)
    lab.flip_lan_switch(0)
    app.expect_signal("switchBegin")
    app.expect_signal(success(NET1))
    has_static(lab, NET1)
    lab.check_commands(static_commands(lab.uuid, static(NET1)))


@scenario(only=ARM)
def lan_switch_twice_the_same(lab):
    """The LAN switch reports the same state twice: both are handled, one after the other."""
    app = waiting_application(lab)
    lab.flip_lan_switch(0)
    lab.flip_lan_switch(0)
    for _ in range(2):
        app.expect_signal("switchBegin")
        app.expect_signal(success(NET1))
    lab.check_commands(2 * static_commands(lab.uuid, static(NET1)))


@scenario(only=ARM)
def lan_switch_to_1_and_back(lab):
    """The LAN switch goes to 1 and back: each network in its turn."""
    app = waiting_application(lab)
    lab.flip_lan_switch(1)
    app.expect_signal("switchBegin")
    app.expect_signal(success(NET2))
    has_lease(lab)
    lab.flip_lan_switch(0)
    app.expect_signal("switchBegin")
    app.expect_signal(success(NET1))
    has_static(lab, NET1)


@scenario(only=ARM)
def lan_switch_to_2(lab):
    """The LAN switch goes to 2: the second network, as with each state that is not 0."""
    app = waiting_application(lab)
    lab.flip_lan_switch(2)
    app.expect_signal("switchBegin")
    app.expect_signal(success(NET2))
    has_lease(lab)


@scenario(only=ARM)
def lan_switch_to_the_network_in_use(lab):
    """Both networks are static, and the LAN switch selects the one on whose address the device is
    already: applied and tried all the same."""
    lab.give_address(static(NET1))
    app = waiting_application(lab, first=static(NET1), second=static(NET2))
    lab.flip_lan_switch(0)
    app.expect_signal("switchBegin")
    app.expect_signal(success(NET1))
    lab.check_commands(static_commands(lab.uuid, static(NET1)))


@scenario(only=ARM)
def event_with_unusual_values(lab):
    """The action only begins with "change", and the state is no number: a change to 0."""
    app = waiting_application(lab)
    lab.send_uevent(f"change@{LAN_SWITCH}", "ACTION=changed", f"DEVPATH={LAN_SWITCH}",
                    "SWITCH_STATE=abc")
    app.expect_signal("switchBegin")
    app.expect_signal(success(NET1))


@scenario(only=ARM)
def event_of_a_shorter_path(lab):
    """The path is only the beginning of the LAN switch's: nobody's business."""
    app = waiting_application(lab)
    send_and_expect_nothing(lab, app, "ACTION=change", f"DEVPATH={LAN_SWITCH[:-7]}",
                            "SWITCH_STATE=1")


@scenario(only=ARM)
def socket_overrun(lab):
    """More events of other devices than the watcher's socket can hold while the application does
    not run: some are lost, and the watcher goes on."""
    app = waiting_application(lab)
    app.hold()
    # How many it can hold depends on the machine.
    sent = 0
    while app.netlink_losses() == 0:
        check(sent < 100000, "the socket can hold them all")
        for _ in range(100):
            lab.send_uevent(f"change@{OTHER}", "ACTION=change", f"DEVPATH={OTHER}", "SUBSYSTEM=net")
        sent += 100
    app.go_on()
    app.expect_no_signal()
    lab.flip_lan_switch(0)
    app.expect_signal("switchBegin")
    app.expect_signal(success(NET1))


@scenario(only=ARM)
def event_of_another_device(lab):
    """A switch of nearly the same name changes: nobody's business."""
    app = waiting_application(lab)
    send_and_expect_nothing(lab, app, "ACTION=change", f"DEVPATH={LAN_SWITCH}2", "SWITCH_STATE=1")
    check_equal(app.logged("parse_uevent"), 1, "lines of the one that was handled")


@scenario(only=ARM)
def event_with_action_add(lab):
    """The LAN switch is added, not changed: nothing."""
    app = waiting_application(lab)
    send_and_expect_nothing(lab, app, "ACTION=add", f"DEVPATH={LAN_SWITCH}", "SWITCH_STATE=1")
    check_equal(app.logged("parse_uevent"), 1, "lines of the one that was handled")


@scenario(only=ARM)
def event_without_state(lab):
    """The LAN switch has gone to 1; then it changes and names no state: taken for 0."""
    app = waiting_application(lab)
    lab.flip_lan_switch(1)
    app.expect_signal("switchBegin")
    app.expect_signal(success(NET2))
    lab.send_uevent(f"change@{LAN_SWITCH}", "ACTION=change", f"DEVPATH={LAN_SWITCH}")
    app.expect_signal("switchBegin")
    app.expect_signal(success(NET1))


@scenario(only=ARM)
def event_without_action(lab):
    """The LAN switch's event lacks its action: a critical line and nothing else."""
    app = waiting_application(lab)
    send_and_expect_nothing(lab, app, f"DEVPATH={LAN_SWITCH}", "SWITCH_STATE=1")
    check_equal(app.logged(r"^critical \[ parse_uevent \] cdev->action is NULL$"), 1,
                "lines of the missing action")


@scenario(only=ARM)
def selected_server_dead(lab):
    """The LAN switch selects a network whose server is dead: the begin and nothing more, though the
    other server accepts."""
    lab.configure(first=static(NET1), second=dhcp(NET2))
    lab.start_server(NET2.server)
    app = lab.application()
    lab.flip_lan_switch(0)
    app.expect_signal("switchBegin")
    app.expect_no_signal()
    lab.check_failed(NET1, 20)
    commands = static_commands(lab.uuid, static(NET1))
    lab.check_commands([*commands, commands[1]])


@scenario(only=ARM)
def event_with_switching_disabled(lab):
    """The LAN switch changes while switching is disabled, before and after a search is asked for:
    nothing. Once it is enabled the next change is handled, without a search."""
    lab.configure(first=static(NET1), second=dhcp(NET2), enabled=False)
    lab.start_server(NET1.server)
    app = lab.application()
    lab.flip_lan_switch(0)
    app.expect_log("parse_uevent")
    app.expect_no_signal()
    app.start()
    lab.flip_lan_switch(0)
    app.expect_log("parse_uevent")
    app.expect_no_signal()
    lab.check_commands([])
    app.save_servers(True, NET1.server, NET2.server)
    lab.flip_lan_switch(0)
    app.expect_signal("switchBegin")
    app.expect_signal(success(NET1))
    app.expect_no_signal()
    app.start()
    app.expect_signal(success(NET1))
    lab.check_commands(2 * static_commands(lab.uuid, static(NET1)))


@scenario(only=ARM)
def event_during_a_search(lab):
    """The LAN switch goes to 1 while a search runs: handled when the search is over."""
    lab.configure(first=static(NET1), second=dhcp(NET2))
    server = lab.prepare_server(NET1.server)
    lab.start_server(NET2.server)
    app = lab.application()
    app.start()
    app.expect_log(fails(NET1), times=3)
    lab.flip_lan_switch(1)
    app.expect_log("parse_uevent")
    server.listen()
    app.expect_signal(success(NET1))
    app.expect_signal("switchBegin")
    app.expect_signal(success(NET2))
    has_lease(lab)


@scenario(only=ARM)
def a_thousand_events_of_others(lab):
    """Three events of the LAN switch among a thousand of other devices: exactly three."""
    app = waiting_application(lab)
    for number in range(1000):
        lab.send_uevent(f"change@{OTHER}", "ACTION=change", f"DEVPATH={OTHER}", "SUBSYSTEM=net",
                        "SWITCH_NAME=lan-switch", "SWITCH_STATE=1")
        if number in (0, 499, 999):
            lab.flip_lan_switch(0)
        # The kernel drops what a full socket cannot take.
        if number % 50 == 0:
            wait_until(lambda: app.netlink_queue() == 0, 10, "the watcher reads its socket")
    for _ in range(3):
        app.expect_signal("switchBegin")
        app.expect_signal(success(NET1))
    check_equal(app.logged("parse_uevent"), 3, "lines of events")


def changes_are_logged(app, searches, most_busy):
    """Each search of these was led to by one change. Further deliveries of it find the worker busy:
    those of the other connections that were queued before the first one removed them all. How many
    they are depends on the two threads: from none up to all but the first."""
    busy = app.logged(r"\[ slotAddressChanged \]  it's doing net switch.$")
    check_equal(app.logged("slotAddressChanged 116: ip changed") - busy, searches,
                "changes that led to a search")
    check(busy <= most_busy, f"{busy} lines of a busy worker, {most_busy} at most")


@scenario(only=NATIVE)
def cable_pulled_and_plugged(lab):
    """The cable is pulled and plugged, twice: each time one begin, then one new search."""
    app = waiting_application(lab)
    app.start()
    app.expect_signal(success(NET1))
    app.settle()
    pull_and_plug(lab, app)
    pull_and_plug(lab, app)
    # The first time the slot was connected by the construction and by the search.
    changes_are_logged(app, searches=2, most_busy=1)
    lab.check_commands(3 * static_commands(lab.uuid, static(NET1)))


@scenario(only=NATIVE)
def cable_pulled_and_plugged_after_three_searches(lab):
    """After three searches the slot is connected four times: still one new search."""
    app = waiting_application(lab)
    for _ in range(3):
        app.start()
        app.expect_signal(success(NET1))
    app.settle()
    pull_and_plug(lab, app)
    changes_are_logged(app, searches=1, most_busy=3)


@scenario(only=NATIVE)
def cable_pulled_before_any_search(lab):
    """The cable is pulled and plugged before the application has searched: the watcher listens from
    the construction on."""
    app = waiting_application(lab)
    lab.pull_cable()
    app.expect_signal("switchBegin")
    lab.plug_cable()
    app.expect_signal("start")
    app.expect_signal(success(NET1))
    app.settle()
    check_equal(app.logged("it's doing net switch.$"), 0, "lines of a busy worker")


@scenario(only=NATIVE)
def cable_pulled_with_switching_disabled(lab):
    """Switching is disabled at the first search, then enabled: a pulled cable is told again, a
    plugged one is never more than logged, until a search finds switching enabled."""
    lab.configure(first=static(NET1), second=dhcp(NET2), enabled=False)
    lab.start_server(NET1.server)
    app = lab.application()
    app.start()
    lab.pull_cable()
    app.expect_output("down eth0")
    app.expect_no_signal()
    app.save_servers(True, NET1.server, NET2.server)
    lab.plug_cable()
    app.expect_output("up eth0")
    app.expect_no_signal()
    check_equal(app.logged("it's doing net switch.$"), 2, "lines of a busy worker")
    lab.pull_cable()
    app.expect_signal("switchBegin")
    lab.plug_cable()
    app.expect_output("up eth0")
    app.expect_no_signal()
    lab.check_commands([])
    app.start()
    app.expect_signal(success(NET1))
    app.expect_no_signal()
    pull_and_plug(lab, app)
    lab.check_commands(2 * static_commands(lab.uuid, static(NET1)))


@scenario(only=NATIVE)
def ten_quick_flaps(lab):
    """The cable is pulled and plugged ten times, as fast as the kernel tells of it: a begin for
    each notice that the link is down, an outcome for each search, the right address in the end."""
    lab.configure(first=static(NET1), second=dhcp(NET2))
    lab.start_server(NET1.server)
    app = lab.application()
    app.start()
    app.expect_signal(success(NET1))
    for _ in range(10):
        lab.pull_cable()
        lab.plug_cable()
    for _ in range(10):
        app.expect_output("up eth0")
    signals = app.signals_until_rest()
    downs, ups = app.printed("down eth0"), app.printed("up eth0")
    check_equal((downs, ups), (10, 10), "notices of the link")
    check_equal(signals.count("switchBegin"), downs, "begins")
    searches = signals.count("start")
    check(1 <= searches <= ups, f"{searches} searches after {ups} notices")
    check_equal(signals.count(success(NET1)), searches, "outcomes")
    check_equal(len(signals), downs + 2 * searches, f"number of signals in {signals}")
    check_equal(app.logged("116: ip changed") - app.logged("it's doing net switch.$"), searches,
                "changes that led to a search")
    has_static(lab, NET1)

# SPDX-License-Identifier: MIT
"""NetworkManager in trouble. Each search has exactly one outcome, within the time of its attempts
and of the commands, whose own limits are nmcli's, and the next search works."""

from application import check, check_equal, success
from laboratory import CONNECTION, NET1, NET2, run, wait_until
from scenario import (dhcp, fails, has_lease, has_lease_as_before, has_static, scenario,
                      static)

# Ten failed attempts, in seconds.
PROBE = 5
# What an addressing whose commands meet no trouble takes at most, and with it all that a busy
# machine, and one that emulates another, adds.
ADDRESSING = 10


def takes(began, ended, least, most):
    check(least <= ended - began < most,
          f"it took {ended - began:.1f} s, not {least} to {most}")


def next_search_works(lab, app):
    """The second server goes, the first one comes: the next search reaches it."""
    lab.stop_server(NET2.server)
    lab.start_server(NET1.server)
    app.start()
    app.expect_signal(success(NET1))
    has_static(lab, NET1)


def searching_application(lab):
    """An application whose search is at its third attempt at the first server, which is dead."""
    lab.configure(first=static(NET1), second=dhcp(NET2))
    lab.start_server(NET2.server)
    app = lab.application()
    return app, begin_search(app)


def begin_search(app):
    """Returns the time of its beginning, after two attempts at the first server."""
    began = app.start()
    app.expect_log(fails(NET1), times=2)
    return began


def run_failed(app):
    return app.logged("run failed$")


@scenario()
def manager_not_running(lab):
    """NetworkManager does not run when the search begins; it is started after the first pass."""
    lab.configure(first=static(NET1), second=dhcp(NET2))
    lab.start_server(NET2.server)
    app = lab.application()
    lab.kill_manager()
    began = app.start()
    app.expect_log(fails(NET2))
    check_equal((run_failed(app), app.commands()), (2, []), "addressings and commands")
    app.expect_log(fails(NET2), times=9)
    lab.start_manager()
    takes(began, app.expect_signal(success(NET2)), 3 * PROBE, 3 * PROBE + 4 * ADDRESSING)
    has_lease(lab)
    next_search_works(lab, app)


@scenario()
def manager_absent_at_the_start(lab):
    """NetworkManager does not run yet when the application starts; the first search is asked for
    when it does."""
    lab.configure(first=static(NET1), second=dhcp(NET2))
    lab.start_server(NET2.server)
    lab.kill_manager()
    app = lab.application()
    lab.start_manager()
    began = app.start()
    takes(began, app.expect_signal(success(NET2)), PROBE, PROBE + 2 * ADDRESSING)
    has_lease(lab)
    next_search_works(lab, app)


@scenario()
def manager_stopped(lab):
    """NetworkManager is stopped: the look-up of the connection takes its 25 s and finds nothing;
    the server is reachable with the address that the device has."""
    lab.configure(first=static(NET1), second=dhcp(NET2))
    lab.give_address(static(NET1))
    lab.start_server(NET1.server)
    app = lab.application()
    lab.stop_manager()
    began = app.start()
    reached = app.expect_signal(success(NET1), within=60)
    takes(began, reached, 25, 25 + ADDRESSING)
    check_equal((run_failed(app), app.commands()), (1, []), "addressings and commands")
    lab.continue_manager()
    lab.start_server(NET2.server)
    lab.stop_server(NET1.server)
    app.start()
    app.expect_signal(success(NET2), within=60)
    has_lease(lab)


@scenario(slow=True)
def manager_killed_during_an_activation(lab):
    """NetworkManager is killed while nmcli waits for an address: nmcli gives up after its 90 s."""
    lab.configure(first=static(NET1), second=dhcp(NET2))
    lab.stop_dhcp()
    lab.start_server(NET2.server)
    app = lab.application()
    began = app.start()
    app.expect_log(r'execute the cmd: ".* ipv4.method auto "')
    wait_until(lambda: any("beginning transaction" in line for line in lab.manager.lines), 20,
               "NetworkManager asks for an address")
    lab.kill_manager()
    lab.start_manager()
    lab.start_dhcp()
    reached = app.expect_signal(success(NET2), within=150)
    takes(began, reached, PROBE + 90, 3 * PROBE + 90 + 4 * ADDRESSING)
    has_lease(lab)
    next_search_works(lab, app)


@scenario()
def manager_restarted_during_a_search(lab):
    """NetworkManager is killed and started again while the first server is tried."""
    app, began = searching_application(lab)
    lab.kill_manager()
    lab.start_manager()
    # A machine that is slow to start it lets the first pass end without it.
    takes(began, app.expect_signal(success(NET2)), PROBE, 3 * PROBE + 4 * ADDRESSING)
    check_equal(app.logged(fails(NET1)) % 10, 0, "failed attempts beside those of whole turns")
    has_lease(lab)
    next_search_works(lab, app)


@scenario()
def profile_deleted_during_a_search(lab):
    """The profile is deleted while the first server is tried, and made again after a pass without
    it."""
    app, began = searching_application(lab)
    run("nmcli", "connection", "delete", CONNECTION)
    app.expect_log(fails(NET2))
    check_equal(run_failed(app), 1, "addressings that failed")
    app.expect_log(fails(NET2), times=9)
    lab.add_profile(CONNECTION)
    takes(began, app.expect_signal(success(NET2)), 3 * PROBE, 3 * PROBE + 4 * ADDRESSING)
    has_lease(lab)
    next_search_works(lab, app)


@scenario()
def profile_folder_read_only(lab):
    """NetworkManager cannot store a change: it refuses it, and activates the profile as it was."""
    lab.configure(first=static(NET1), second=dhcp(NET2))
    lab.start_server(NET2.server)
    lab.make_profiles_read_only(True)
    app = lab.application()
    began = app.start()
    has_lease_as_before(lab, app)
    takes(began, app.expect_signal(success(NET2)), PROBE, PROBE + 2 * ADDRESSING)
    check_equal(app.logged("run successful$"), 2, "addressings that were run")
    lab.check_requests(2 * ["update refused", "activate"])
    check_equal(lab.profile("connection.autoconnect"), "no", "the profile's autoconnect")
    has_lease(lab)
    lab.make_profiles_read_only(False)
    next_search_works(lab, app)


@scenario()
def two_profiles_of_one_name(lab):
    """Two profiles have the connection's name: the commands name both and change neither; without
    the second one the next search works."""
    lab.give_address(dhcp(NET2))
    uuid = lab.uuid
    lab.add_profile(CONNECTION)
    other = next(name for name in lab.profile("connection.uuid").split() if name != uuid)
    lab.configure(first=static(NET1), second=dhcp(NET2))
    lab.start_server(NET2.server)
    app = lab.application()
    began = app.start()
    has_lease_as_before(lab, app)
    takes(began, app.expect_signal(success(NET2)), PROBE, PROBE + 2 * ADDRESSING)
    for command in app.commands():
        check_equal(set(command.split(" uuid ")[1].split()[:2]), {uuid, other}, command)
    check_equal(len(app.commands()), 4, "number of commands")
    lab.check_requests([])
    has_lease(lab)
    run("nmcli", "connection", "delete", other)
    next_search_works(lab, app)


@scenario(slow=True)
def dhcp_server_silent(lab):
    """The second network's DHCP server does not answer: the activation takes its 45 s and fails;
    the next pass finds it answering."""
    lab.configure(first=static(NET1), second=dhcp(NET2))
    lab.stop_dhcp()
    lab.start_server(NET2.server)
    app = lab.application()
    began = app.start()
    tried = app.expect_log(fails(NET2), within=120)
    takes(began, tried, PROBE + 45, PROBE + 45 + 2 * ADDRESSING)
    # NetworkManager activates the profile again by itself: an answer now would end this pass.
    app.expect_log(fails(NET2), times=9)
    lab.start_dhcp()
    reached = app.expect_signal(success(NET2))
    takes(began, reached, 3 * PROBE + 45, 3 * PROBE + 45 + 4 * ADDRESSING)
    lab.check_failed(NET1, 20)
    lab.check_failed(NET2, 10)
    has_lease(lab)
    next_search_works(lab, app)

#!/usr/bin/python3
# SPDX-License-Identifier: MIT
"""Measures one quantity of one program, inside script/sandbox, and prints what it saw as JSON.

  measure.py BUILD QUANTITY PROGRAM [COUNT]

BUILD is the folder of a build of this project. The quantities and their programs are listed by
`measure.py --list`. Times are in milliseconds unless the quantity says otherwise.
"""

import contextlib
import inspect
import json
import os
import pathlib
import random
import re
import shutil
import signal
import socket
import statistics
import subprocess
import sys
import tempfile
import textwrap
import threading
import time

HERE = pathlib.Path(__file__).resolve().parent
sys.path.append(str(HERE.parent / "tests" / "lab"))
from laboratory import (CONNECTION, NET1, NET2, Laboratory, LaboratoryError,  # noqa: E402
                        run, wait_until, write_configuration)

# The end of the cable that the programs listen to, and the one that is changed.
NEAR, FAR = "bench0", "port0"
DISPATCHER = "/usr/lib/NetworkManager/nm-dispatcher"
KEEPALIVED = """global_defs {{ script_user root }}
vrrp_instance bench {{
  state BACKUP
  interface {interface}
  virtual_router_id 51
  priority 100
  advert_int 255
  virtual_ipaddress {{ 198.51.100.200/32 }}
  notify_backup "{command} up"
  notify_fault "{command} down"
}}
"""
HAPROXY = """defaults
  mode tcp
  timeout connect 1s
  timeout client 1s
  timeout server 1s
listen bench
  bind 127.0.0.1:{own}
  server first 127.0.0.1:{port} check inter 500 fall 20 rise 1
"""


class BenchError(Exception):
    """Something could not be measured."""


def quantity(**programs):
    """A function that measures a quantity; its programs by their names, each with a count."""
    def mark(function):
        function.programs = {name.replace("_", "-"): count for name, count in programs.items()}
        QUANTITIES[function.__name__.replace("_", "-")] = function
        return function
    return mark


QUANTITIES = {}


class Place:
    """A folder, what runs in it, and a cable if one is wanted. All of it ends with `with`."""

    def __init__(self, build):
        self.bench = pathlib.Path(build).resolve() / "bench"
        self._stack = contextlib.ExitStack()
        self.folder = pathlib.Path(self._stack.enter_context(tempfile.TemporaryDirectory()))
        self.reactions = self.folder / "reactions"
        self.reactions.touch()
        (self.folder / "log").touch()
        # A copy, as it writes beside itself.
        self.command = self.folder / "timed_command"
        shutil.copy(self.bench / "timed_command", self.command)
        # What runs our own programs, where they are built for another processor.
        self.emulator = []
        # For an nmcli that has done all at once.
        self.quick = self.folder / "quick"
        self.quick.mkdir()
        shutil.copy(self.bench / "quick" / "nmcli", self.quick)
        self.far_side = None

    def __enter__(self):
        return self

    def __exit__(self, *_):
        self._stack.close()

    def program(self, name, *arguments):
        """The command line of one of our own programs."""
        return [*self.emulator, str(self.bench / name), *map(str, arguments)]

    def start(self, command, output=None):
        """Runs a program until the end of the place; its output goes to the log or to a file."""
        with open(self.folder / "log", "ab") as log, open(output or log.name, "ab") as out:
            process = subprocess.Popen(command, stdin=subprocess.DEVNULL, stdout=out, stderr=log,
                                       process_group=0)
        self._stack.callback(end, process)
        return process

    def log(self):
        return (self.folder / "log").read_text(encoding="utf-8", errors="replace")

    def lay_cable(self):
        self.far_side = self.start(["unshare", "-n", "sleep", "infinity"])
        theirs = f"/proc/{self.far_side.pid}/ns/net"
        wait_until(lambda: os.readlink(theirs) != os.readlink("/proc/self/ns/net"), 5,
                   "the far side")
        # Of two ends with the same number the kernel tells once a second only.
        run("ip", "link", "add", NEAR, "index", "100", "type", "veth", "peer", "name", FAR, "netns",
            str(self.far_side.pid))
        # The far side's end alone would take it away some time later, in the way of the next cable.
        self._stack.callback(run, "ip", "link", "delete", NEAR)
        run(*self.there("ip", "link", "set", FAR, "up"))
        run("ip", "address", "add", "198.51.100.2/24", "dev", NEAR)
        run("ip", "link", "set", NEAR, "up")
        wait_until(lambda: self.link_state() == "up", 5, "the cable")

    @staticmethod
    def link_state():
        return pathlib.Path(f"/sys/class/net/{NEAR}/operstate").read_text("ascii").strip()

    def there(self, *command):
        return ["nsenter", "-t", str(self.far_side.pid), "-n", *command]


def end(process):
    """Ends a program and what it has started."""
    with contextlib.suppress(ProcessLookupError):
        os.killpg(process.pid, signal.SIGTERM)
    try:
        process.wait(10)
    except subprocess.TimeoutExpired:
        os.killpg(process.pid, signal.SIGKILL)
        process.wait()


def stamps(text):
    """Lines of "NANOSECONDS WHAT" as pairs; a last line that is not whole yet is left out."""
    lines = text[:text.rfind("\n") + 1].splitlines()
    return [(int(when), what) for when, _, what in (line.partition(" ") for line in lines)]


def matched(changes, reactions):
    """How many milliseconds after each change its first reaction came, before the next change; and
    how many changes had none. Of one that had none it is the time to the next change: less than the
    reaction would have taken, so that a median of fewer than half of those is right."""
    found, missed, ends = [], 0, [when for when, _ in changes[1:]] + [float("inf")]
    for (begin, what), until in zip(changes, ends):
        later = [when for when, told in reactions if told == what and begin <= when < until]
        missed += not later
        if later or until < float("inf"):
            found.append((min(later, default=until) - begin) / 1e6)
    return found, missed


def in_monotonic(pairs, offset):
    """Stamps of the clock of the day as those of the monotonic one."""
    return [(when - offset, what) for when, what in pairs]


def clock_offset():
    """How far the clock of the day is ahead of the monotonic one, in nanoseconds: of a hundred
    readings the one between the closest two of the other clock."""
    readings = [(time.monotonic_ns(), time.time_ns(), time.monotonic_ns()) for _ in range(100)]
    before, day, after = min(readings, key=lambda reading: reading[2] - reading[0])
    return day - (before + after) // 2


def told_by(command):
    """What a program that does its work and ends has told; its errors go where ours go."""
    done = subprocess.run([str(word) for word in command], stdin=subprocess.DEVNULL,
                          stdout=subprocess.PIPE, text=True, check=False, timeout=300)
    if done.returncode != 0:
        raise BenchError(f"{command[0]} ended with {done.returncode}")
    return done.stdout


# Reactions.

def react_by_shell(place, source, states):
    """A shell that reads the lines of a program, stamps each, and runs a command for it."""
    cases = " ".join(f"*{pattern}*) what={what} ;;" for pattern, what in states)
    script = f"""{source} | while read -r line; do
      now=$EPOCHREALTIME
      case $line in {cases} *) continue ;; esac
      {place.command} $what
      echo "${{now/[.,]/}}000 $what"
    done"""
    return place.start(["bash", "-c", script], place.folder / "read")


def listen_to_links(place, program):
    if program in OWN:
        start_own(place, program, "links")
    elif program == "netplugd":
        start_netplugd(place)
    elif program == "ifplugd":
        start_ifplugd(place)
    elif program == "keepalived":
        start_keepalived(place)
    elif program in ("ip-monitor", "ip-monitor-read"):
        react_by_shell(place, f"ip -o monitor link dev {NEAR}",
                       (("LOWER_UP", "up"), (NEAR, "down")))


def start_netplugd(place):
    """It tells "in" and "out"."""
    return place.start(["netplugd", "-F", "-P", "-c", "/dev/null", "-i", NEAR,
                        "-s", str(place.command)])


def start_ifplugd(place):
    return place.start(["ifplugd", "-n", "-s", "-b", "-I", "-a", "-i", NEAR, "-u", "0", "-d", "0",
                        "-r", str(place.command)])


def start_keepalived(place):
    configuration = place.folder / "keepalived.conf"
    configuration.write_text(KEEPALIVED.format(interface=NEAR, command=place.command))
    return place.start(["keepalived", "-n", "-l", "-P", "-f", str(configuration),
                        "-p", str(place.folder / "pid"), "-r", str(place.folder / "vrrp")])


def listen_to_uevents(place, program):
    if program in OWN:
        start_own(place, program, "uevents")
    else:
        react_by_shell(place, "stdbuf -oL udevadm monitor --kernel --property",
                       (("SWITCH_STATE=1", "1"), ("SWITCH_STATE=0", "0")))


OWN = {"library": ("reaction_library",), "raw": ("reaction_raw",),
       "raw-two-threads": ("reaction_raw", "--two-threads"),
       "raw-event-loop": ("reaction_raw", "--event-loop")}


def start_own(place, program, kind):
    name, *options = OWN[program]
    place.start(place.program(name, kind, *options), place.reactions)


def reactions(place, program):
    """What has been told so far, in the words of change."""
    if program.endswith("-read"):
        path = place.folder / "read"
        return in_monotonic(stamps(path.read_text("ascii")), clock_offset())
    words = {"in": "up", "out": "down"}
    return [(when, words.get(what, what))
            for when, what in stamps(place.reactions.read_text("ascii"))]


def change(place, kind, count, gap_ms):
    """Changes something, and returns when each change began."""
    command = place.program("change", kind, *([FAR] if kind == "link" else []), count, gap_ms)
    return stamps(told_by(place.there(*command) if kind == "link" else command))


def react(place, program, kind, count, gap_ms, patience=30):
    """The milliseconds from each of the changes to the reaction."""
    def told(changes):
        return matched(changes, reactions(place, program))[1] == 0

    def is_awake():
        warm = change(place, kind, 2, max(gap_ms, 50))
        with contextlib.suppress(LaboratoryError):
            return wait_until(lambda: told(warm), 2, "a reaction")
        return None

    try:
        wait_until(is_awake, patience, "a reaction")
    except LaboratoryError:
        raise LaboratoryError(f"{program} does not react:\n{place.log()}") from None
    for _ in range(3):
        changes = change(place, kind, count, gap_ms)
        with contextlib.suppress(LaboratoryError):
            wait_until(lambda: told(changes[-1:]), 3, "the last reaction")
        found, missed = matched(changes, reactions(place, program))
        if missed <= count / 10:
            return found
    print(f"\nmeasure.py: {program}: {missed} of {count} changes had no reaction before the next: "
          "this machine is too busy", file=sys.stderr)
    return found


def react_to_links(place, program, count, gap_ms):
    """The kernel takes longer for the one direction than for the other: the mean of both."""
    place.lay_cable()
    listen_to_links(place, program)
    found = react(place, program, "link", count, gap_ms)
    return {program: [(down + up) / 2 for down, up in zip(found[::2], found[1::2])]}


def react_to_uevents(place, program, count, gap_ms):
    listen_to_uevents(place, program)
    return {program: react(place, program, "uevent", count, gap_ms)}


@quantity(raw=100, raw_two_threads=100, raw_event_loop=100, library=100, ip_monitor=100,
          ip_monitor_read=100, netplugd=100, keepalived=100, ifplugd=8, dispatcher=2)
def links(place, program, count):
    """From a cable's change to the reaction, each after a rest of 30 ms."""
    if program == "dispatcher":
        return {program: dispatched(place, count)}
    # ifplugd asks once a second.
    return react_to_links(place, program, count, 1200 if program == "ifplugd" else 30)


@quantity(raw=200, raw_two_threads=200, raw_event_loop=200, library=200)
def links_in_succession(place, program, count):
    """From a cable's change to the reaction, 2 ms apart."""
    return react_to_links(place, program, count, 2)


@quantity(raw=100, raw_two_threads=100, raw_event_loop=100, library=100, udevadm=100,
          udevadm_read=100)
def uevents(place, program, count):
    """From a uevent of the LAN switch to the reaction, each after a rest of 30 ms."""
    return react_to_uevents(place, program, count, 30)


@quantity(raw=200, raw_two_threads=200, raw_event_loop=200, library=200)
def uevents_in_succession(place, program, count):
    """From a uevent of the LAN switch to the reaction, 2 ms apart."""
    return react_to_uevents(place, program, count, 2)


def dispatched(place, count):
    """From plugging the cable in to NetworkManager's dispatcher running a command, as it connects
    by itself then. Pulled, it waits for some seconds first."""
    with Laboratory() as lab:
        scripts = pathlib.Path("/etc/NetworkManager/dispatcher.d")
        scripts.mkdir(exist_ok=True)
        shutil.copy(place.command, scripts / "bench")
        told = scripts / "reactions"
        place.start([DISPATCHER, "--debug", "--persist"])
        run("nmcli", "connection", "modify", CONNECTION, "ipv4.method", "manual",
            "ipv4.addresses", NET1.device + "/24", "connection.autoconnect", "yes")
        run("nmcli", "connection", "up", CONNECTION)
        found = []
        for _ in range(count):
            begin = time.monotonic_ns()
            lab.pull_cable()
            dispatched_after(begin, told, "down")
            begin = stamps(run(*lab.there(*place.program("change", "link", FAR, 1, 30))))[0][0]
            found.append((dispatched_after(begin, told, "up") - begin) / 1e6)
        return found


def dispatched_after(begin, path, what):
    """When the dispatcher first told it after the time."""
    def told():
        pairs = stamps(path.read_text("ascii")) if path.exists() else []
        return next((when for when, word in pairs if word == what and when > begin), None)
    return wait_until(told, 30, f"the dispatcher tells {what}")


# Floods.

@quantity(raw=20000, library=20000, libudev=20000)
def flood(place, program, count):
    """Processor time for a uevent of another device, in microseconds."""
    lines = told_by(place.program(f"flood_{program}", count)).splitlines()
    seen = {program: [float(lines[0].removesuffix(" ns")) / 1000]}
    if program == "library":
        seen["allocations"] = [int(lines[1].split()[0])]
    return seen


@quantity(events=3)
def events_growth(place, _, powers):
    """The library's watcher over more and more events: microseconds each, bytes kept."""
    seen = {}
    for count in (10, 1000, 100000)[:powers]:
        each, _, kept = (line.split()[0] for line in told_by(
            place.program("flood_library", count)).splitlines())
        seen[str(count)] = {"each": float(each) / 1000, "bytes": int(kept)}
    return seen


# Searches.

@contextlib.contextmanager
def server():
    """One that accepts, on the loopback interface."""
    with socket.create_server(("127.0.0.1", 0), backlog=64) as listening:
        def serve():
            with contextlib.suppress(OSError):
                while True:
                    listening.accept()[0].close()
        threading.Thread(target=serve, daemon=True).start()
        yield listening.getsockname()[1]


def configure(first, second, connection="lan", port=9000, second_is_static=True):
    """The switch.ini of search_library; the networks are (server, the device's address) each."""
    values = {"SwitchEnable": "true", "connectionName": connection}
    for name, (address, own), is_static in (("First", first, True),
                                            ("Second", second, second_is_static)):
        values |= {f"{name}ServerIp": address, f"{name}ServerPort": port,
                   f"{name}IsAutomatically": str(is_static).lower(), f"{name}LocalIp": own,
                   f"{name}LocalMask": "255.255.255.0"}
    write_configuration("bench", values)


def beyond_commands(pairs, slept):
    """The milliseconds of each search without its sleep and its commands."""
    took = durations(pairs, "begin", "success")
    commands = [nanoseconds / 1e6 for nanoseconds, what in pairs if what == "commands"]
    return [all_of_it - slept - spent for all_of_it, spent in zip(took, commands, strict=True)]


def durations(pairs, begin, until):
    """The milliseconds between two words, each time."""
    found, began = [], None
    for when, what in pairs:
        if what == begin:
            began = when
        elif what == until and began is not None:
            found.append((when - began) / 1e6)
            began = None
    return found


@quantity(floor=20, library=20, script=20)
def search(place, program, count):
    """A search whose first server answers at once, less the fixed sleep of 500 ms and less its
    commands. The nmcli is one that has done all at once."""
    with quick_commands(place) as port:
        own = "127.0.0.1"
        command = {
            "library": place.program("search_library", count),
            "floor": place.program("search_floor", count, own, port),
            "script": [str(HERE / "search_script.sh"), str(count), "lan", "10", str(port),
                       own, own + "/8", own, own + "/8"]}[program]
        pairs = stamps(told_by(command))
    return {program: beyond_commands(pairs, 0 if program == "script" else 500)}


@contextlib.contextmanager
def quick_commands(place):
    """A search finds its server at once, and commands that have done all at once."""
    own = "127.0.0.1"
    os.environ["PATH"] = f"{place.quick}:{os.environ['PATH']}"
    with server() as port:
        # Of two static networks one that has no address is left out.
        configure((own, own), (own, own), port=port, second_is_static=False)
        yield port


@quantity(by_start=3, by_link=3)
def searches_growth(place, program, powers):
    """The library over more and more searches, without their sleep, asked for by start() or by a
    link: milliseconds each, bytes kept."""
    more = []
    if program == "by-link":
        run("ip", "link", "add", NEAR, "type", "veth", "peer", "name", FAR)
        run("ip", "link", "set", NEAR, "up")
        run("ip", "link", "set", FAR, "up")
        more = ["--by-link", FAR]
    seen = {}
    with quick_commands(place):
        for count in (1, 100, 1000)[:powers]:
            pairs = stamps(told_by(place.program("search_library", count, "--no-sleep", *more)))
            took = durations(pairs, "begin", "success")
            seen[f"{program} {count}"] = {
                "each": statistics.median(took), "searches": len(took), "bytes": pairs[-1][0]}
    return seen


@quantity(library=1, script=1)
def switch(place, program, count):
    """With the real NetworkManager, the first server dead: until it is given up after twenty
    attempts, and from there to the second server's success."""
    with Laboratory() as lab:
        lab.start_server(NET2.server)
        first, second = (NET1.server, NET1.device), (NET2.server, NET2.device)
        configure(first, second, CONNECTION)
        # A device that has no address tries neither of two static networks.
        run("nmcli", "connection", "modify", CONNECTION, "ipv4.method", "manual",
            "ipv4.addresses", NET2.device + "/24")
        run("nmcli", "connection", "up", CONNECTION)
        script = [str(HERE / "search_script.sh"), str(count), CONNECTION, "20", "9000",
                  first[0], first[1] + "/24", second[0], second[1] + "/24"]
        pairs = stamps(told_by(script if program == "script" else place.program(
            "search_library", count, "--dead", NET1.server)))
    halves = durations(pairs, "begin", "dead"), durations(pairs, "dead", "success")
    if [len(half) for half in halves] != [count, count]:
        raise BenchError(f"the first server was not given up and the second reached: {pairs}")
    return {f"{program}-dead": halves[0], f"{program}-success": halves[1]}


@quantity(haproxy=1)
def detection(place, program, count):
    """From a server's end to the peer's word that it is down, by twenty attempts too."""
    return {program: [detected(place, program) for _ in range(count)]}


def free_port():
    with socket.create_server(("127.0.0.1", 0)) as listening:
        return listening.getsockname()[1]


def detected(place, program):
    own_port, runs = free_port(), place.log().count("Using epoll")
    with socket.create_server(("127.0.0.1", 0)) as listening:
        port = listening.getsockname()[1]
        configuration = place.folder / "haproxy.cfg"
        configuration.write_text(HAPROXY.format(own=own_port, port=port))
        process = place.start(["haproxy", "-d", "-f", str(configuration)])
        wait_until(lambda: place.log().count("Using epoll") > runs, 10, f"{program} runs")
        # At any moment between two checks.
        time.sleep(random.uniform(0, 0.5))
    begin = time.monotonic_ns()
    before = place.log().count("is DOWN")
    wait_until(lambda: place.log().count("is DOWN") > before, 20, f"{program}: DOWN")
    took = (time.monotonic_ns() - begin) / 1e6
    end(process)
    return took


# An application at rest.

# The names that the library's two threads have.
OWN_THREADS = ("QThread", "CAddressWatcher")


@quantity(plain=20, library=20)
def startup(place, program, count):
    """From the start of the process to its event loop; and instance(), or its like."""
    loop, instance = [], []
    for _ in range(count):
        path = place.folder / "started"
        begin = time.monotonic_ns()
        path.unlink(missing_ok=True)
        process = place.start(place.program(f"application_{program}"), path)
        pairs = wait_until(lambda: told_twice(path), 10, "the event loop")
        loop.append((pairs["loop"] - begin) / 1e6)
        instance.append(pairs["instance"] / 1e6)
        end(process)
    return {program: loop, f"{program}-instance": instance}


def told_twice(path):
    pairs = {what: when for when, what in stamps(path.read_text("ascii"))}
    return pairs if len(pairs) == 2 else None


@quantity(all=30)
def rest(place, _, seconds):
    """Of programs at rest: KiB of their own (USS), threads, and how often they woke."""
    with Laboratory() as lab, server() as port:
        place.lay_cable()
        # What a process has of its own differs a little from one to the next.
        memory = [ours_at_rest(place) for _ in range(2)]
        ours = start_ours(place)
        peers = start_peers(place, port)
        processes = {name: process.pid for name, process in (ours | peers).items()}
        processes["NetworkManager"] = lab.manager.pid
        # What is ours has begun; the others' timers have no common rest.
        wait_until(lambda: are_at_rest(ours), 30, "both applications at rest")
        before = {name: wakings(pid) for name, pid in processes.items()}
        time.sleep(seconds)
        after = {name: wakings(pid) for name, pid in processes.items()}
        memory.append({name: own_memory(pid) for name, pid in processes.items()})
        if ended := [name for name, one in (ours | peers).items() if one.poll() is not None]:
            raise BenchError(f"{', '.join(ended)} ended:\n{place.log()}")
        return {name: {"wakings": woken(before[name], after[name]), "seconds": seconds,
                       "own": woken(before[name], after[name], OWN_THREADS),
                       "uss": statistics.median(seen[name] for seen in memory if name in seen),
                       "threads": len(after[name])} for name, pid in processes.items()}


def start_ours(place):
    return {name: place.start(place.program(f"application_{name}")) for name in
            ("plain", "library")}


def ours_at_rest(place):
    """The memory of one of each, as one runs on a device."""
    ours = start_ours(place)
    wait_until(lambda: are_at_rest(ours), 30, "both applications at rest")
    memory = {name: own_memory(process.pid) for name, process in ours.items()}
    for process in ours.values():
        end(process)
    return memory


def start_peers(place, port):
    configuration = place.folder / "haproxy.cfg"
    configuration.write_text(HAPROXY.format(own=free_port(), port=port))
    return {"netplugd": start_netplugd(place), "ifplugd": start_ifplugd(place),
            "keepalived": start_keepalived(place),
            "haproxy": place.start(["haproxy", "-db", "-f", str(configuration)])}


def family(pid):
    """A process and what it has started."""
    yield pid
    for task in pathlib.Path("/proc", str(pid), "task").iterdir():
        children = []
        with contextlib.suppress(FileNotFoundError, ProcessLookupError):
            children = (task / "children").read_text("ascii").split()
        for child in children:
            yield from family(int(child))


def wakings(pid):
    """How often each of its threads has gone to sleep, by (number, name)."""
    seen = {}
    for one in family(pid):
        for task in pathlib.Path("/proc", str(one), "task").iterdir():
            # One that ends meanwhile is none.
            with contextlib.suppress(FileNotFoundError, ProcessLookupError):
                status = (task / "status").read_text("ascii")
                seen[task.name, re.search(r"^Name:\s+(.*)$", status, re.MULTILINE)[1]] = int(
                    re.search(r"^voluntary_ctxt_switches:\s+(\d+)$", status, re.MULTILINE)[1])
    return seen


def woken(before, after, names=None):
    """How often threads have woken between, all of them or those of the names."""
    return sum(count - before.get(task, 0) for task, count in after.items()
               if names is None or task[1] in names)


def own_memory(pid):
    """KiB that nobody else uses."""
    return sum(int(size) for one in family(pid) for size in re.findall(
        r"^Private_(?:Clean|Dirty):\s+(\d+) kB", pathlib.Path(
            "/proc", str(one), "smaps_rollup").read_text("ascii"), re.MULTILINE))


def are_at_rest(processes):
    """They have not run for a second; the timer of one ticks every three."""
    before = [wakings(process.pid) for process in processes.values()]
    time.sleep(1)
    return [wakings(process.pid) for process in processes.values()] == before


# The files themselves.

def installed(name):
    """A program of one of the peers."""
    return shutil.which(name, path="/usr/sbin:/usr/bin:/sbin:/bin")


@quantity(all=1)
def size(place, *_):
    """Bytes of text, relocations and exported functions, of the files without their symbols."""
    stripped = place.folder / "library"
    run("strip", "-o", str(stripped), str(place.bench.parent / "libhoplane.so.1"))
    triplet = run("gcc", "-print-multiarch").strip()
    files = {"library": stripped, "netplugd": installed("netplugd"),
             "ifplugd": installed("ifplugd"), "keepalived": installed("keepalived"),
             "libudev": f"/lib/{triplet}/libudev.so.1"}
    seen = {name: sizes(path) for name, path in files.items()}
    for name, record in seen.items():
        if name != "library":
            del record["foreign"]
    return seen


def sizes(path):
    sections = run("size", str(path)).splitlines()[1].split()
    symbols = run("nm", "--dynamic", "--defined-only", "--demangle", str(path)).splitlines()
    names = [line.split(None, 2)[2].partition("@")[0] for line in symbols]
    own = re.compile(r"^(?:(?:vtable|typeinfo|typeinfo name) for |non-virtual thunk to )?"
                     r"(?:Hoplane|NetworkSwitchWorker|CAddressWatcher)\b")
    return {"text": int(sections[0]), "exported": len(names),
            "foreign": [name for name in names if not own.match(name) and name != "HOPLANE_1"],
            "relocations": len(re.findall(r" R_\w+", run("readelf", "--relocs", "--wide",
                                                         str(path))))}


def main(arguments):
    if arguments == ["--list"]:
        for name, function in QUANTITIES.items():
            print(f"{name}: {', '.join(function.programs)}")
            print(textwrap.indent(inspect.getdoc(function), "    "))
        return 0
    if len(arguments) not in (3, 4) or arguments[1] not in QUANTITIES \
            or arguments[2] not in QUANTITIES[arguments[1]].programs:
        print(__doc__, file=sys.stderr)
        return 64
    if os.environ.get("HOME") != "/sandbox/home":
        print("measure.py: run this through script/sandbox", file=sys.stderr)
        return 64
    build, name, program, *count = arguments
    if not (pathlib.Path(build) / "bench").is_dir():
        print(f"measure.py: {build} is no folder of a build", file=sys.stderr)
        return 64
    if count and not (count[0].isdigit() and int(count[0]) > 0):
        print(f"measure.py: {count[0]} is no number of times", file=sys.stderr)
        return 64
    function = QUANTITIES[name]
    os.environ["PATH"] += ":/usr/sbin:/sbin"
    try:
        with Place(build) as place:
            seen = function(place, program, int(count[0]) if count else function.programs[program])
    except (BenchError, LaboratoryError) as error:
        print(f"measure.py: {name} of {program}: {error}", file=sys.stderr)
        return 1
    print(json.dumps(seen))
    return 0


if __name__ == "__main__":
    sys.exit(main(sys.argv[1:]))

# SPDX-License-Identifier: MIT
"""The laboratory's application as its scenarios see it: what it is told to do, what it tells, and
what it holds of the machine. See application/main.cpp."""

import collections
import os
import pathlib
import re
import signal
import subprocess
import time

from laboratory import PORT, LaboratoryError, wait_until

EVENT = re.compile(r"@(\d+\.\d+) (\w+) ?(.*)")
COMMAND = re.compile(r' (?:execute the )?cmd:  ?"(.*?)" ?(?:result|bb  result:)')
FAILURE = "网络切换超时，请检查双网配置信息或网络线路"

Event = collections.namedtuple("Event", "when kind text")


class Unexpected(Exception):
    """Something that had to be seen was not, or something else was."""


def check(condition, what):
    if not condition:
        raise Unexpected(what)


def check_equal(seen, expected, what):
    check(seen == expected, f"{what}:\n  seen:     {seen}\n  expected: {expected}")


def _read(path):
    """The text of a file of /proc, whose thread may just have ended."""
    try:
        return path.read_text()
    except (FileNotFoundError, ProcessLookupError):
        return ""


def success(network):
    """The signal of a search or a link event that reached the network's server."""
    return f"switchSuccess {network.server} {PORT}"


class Application:
    """Runs until the laboratory ends. Signals have to come exactly as they are expected: one after
    the other, and none beside them."""

    def __init__(self, lab, command):
        self._lab = lab
        self.events = []
        self._of_kind = collections.defaultdict(list)
        self._looked_at = collections.Counter()
        self._fences = 0
        self._program = lab.start_application(command, on_line=self._note, stdin=subprocess.PIPE)
        self._next("ready", lambda event: True, 30, "the application does not start")
        wait_until(self._watcher_waits, 30, "the watcher does not listen")
        wait_until(self._asleep, 30, "the application's threads do not come to rest")
        self.at_first = self.holds()

    def _note(self, line):
        if match := EVENT.match(line):
            event = Event(float(match[1]), match[2], match[3])
        else:
            event = Event(None, "output", line)
        self.events.append(event)
        self._of_kind[event.kind].append(event)
        who = {"log": "library log", "output": "output"}.get(event.kind, "application")
        self._lab.timeline.add(who, event.text if who != "application"
                               else f"{event.kind} {event.text}", event.when)

    def _next(self, kind, wanted, seconds, what):
        """The next event of the kind, not looked at before, for which wanted(event) holds."""
        def find():
            events = self._of_kind[kind]
            while self._looked_at[kind] < len(events):
                event = events[self._looked_at[kind]]
                self._looked_at[kind] += 1
                if wanted(event):
                    return event
            check(self._program.running(), "the application has ended")
            return None
        try:
            return wait_until(find, seconds, what)
        except LaboratoryError as late:
            raise Unexpected(str(late)) from None

    # What it is told to do.

    def tell(self, *words, times=1):
        """Gives it a command so many times at once, and waits until that has been carried out."""
        for _ in range(times):
            self._program.say("\t".join(words))
        for _ in range(times):
            self._next("done", lambda event: event.text == words[0], 30, f"not done: {words[0]}")

    def start(self):
        """Emits start(); returns the time just before it."""
        began = time.monotonic()
        self.tell("start")
        self.expect_signal("start")
        return began

    def save_connection(self, name):
        self.tell("connection", name)

    def save_servers(self, enabled, first, second):
        self.tell("servers", str(enabled).lower(), first, str(PORT), second, str(PORT))

    def save_addressing(self, which, addressing):
        """Calls the writer of the "first" or the "second" network's addressing."""
        self.tell(which, *addressing.values())

    def hold(self):
        """Stops all its threads, until go_on()."""
        self._lab.timeline.add("person", "stops the application")
        self._program.send(signal.SIGSTOP)

    def go_on(self):
        self._lab.timeline.add("person", "lets the application go on")
        self._program.send(signal.SIGCONT)

    def end(self):
        self._program.stop()

    # What it tells.

    def expect_signal(self, text, within=60):
        """The next signal is this one; returns its time."""
        event = self._next("signal", lambda event: True, within, f"no signal {text}")
        check_equal(event.text, text, "another signal came")
        return event.when

    def expect_failure(self, within=60):
        return self.expect_signal(f"switchFailed -1 {FAILURE}", within)

    def expect_log(self, pattern, within=60, times=1):
        """So many further log lines match; returns the last one's time."""
        for _ in range(times):
            event = self._next("log", lambda event: re.search(pattern, event.text), within,
                               f"the library does not log: {pattern}")
        return event.when

    def expect_output(self, pattern, within=60):
        self._next("output", lambda event: re.search(pattern, event.text), within,
                   f"the library does not print: {pattern}")

    def log_lines(self, pattern):
        """The log lines that match, so far."""
        return [event.text for event in self._of_kind["log"] if re.search(pattern, event.text)]

    def logged(self, pattern):
        """How many log lines match so far."""
        return len(self.log_lines(pattern))

    def printed(self, pattern):
        """How many lines of standard output match so far."""
        return sum(re.search(pattern, event.text) is not None for event in self._of_kind["output"])

    def commands(self):
        """The command lines that were to change something, so far."""
        return [match[1] for event in self._of_kind["log"]
                if (match := COMMAND.search(event.text))]

    def answer(self, question):
        """The number that it answers to a question."""
        self.tell(question)
        event = self._next(question, lambda event: True, 30, f"no answer to {question}")
        return int(event.text)

    def settle(self, within=90):
        """Waits until all three threads have dealt with everything that had happened before."""
        end = time.monotonic() + within
        while True:
            check(time.monotonic() < end, "signals come without an end")
            seen = len(self._of_kind["signal"])
            wait_until(self._watcher_waits, within, "the watcher does not come to rest")
            self._fences += 1
            name = str(self._fences)
            self.tell("fence", name)
            self._next("fence", lambda event, name=name: event.text == name, within,
                       "the library does not come to rest")
            if len(self._of_kind["signal"]) == seen and self._watcher_waits():
                return

    def signals_until_rest(self):
        """All signals that nobody has looked at, once all have come to rest."""
        self.settle()
        left = [event.text for event in self._of_kind["signal"][self._looked_at["signal"]:]]
        self._looked_at["signal"] += len(left)
        return left

    def expect_no_signal(self):
        """Nothing was signalled but what was expected, now that all have come to rest."""
        check_equal(self.signals_until_rest(), [], "signals that nobody expected")

    def forget(self):
        """What it has told until now, but for stalls and strays: for runs of hours."""
        self.events.clear()
        for kind, events in self._of_kind.items():
            if kind not in ("stall", "stray"):
                events.clear()
                self._looked_at[kind] = 0

    def stalls(self):
        """How long the event loop was kept from running, each time, in milliseconds."""
        return [int(event.text) for event in self._of_kind["stall"]]

    # What it holds of the machine.

    def _process(self, *path):
        return pathlib.Path("/proc", str(self._program.pid), *path)

    def _tasks(self):
        return list(self._process("task").iterdir())

    def _asleep(self):
        # A thread that has begun has its descriptors and has named itself. An emulator has one
        # thread of its own, and so has the thread sanitizer.
        names = [_read(task / "comm").strip() for task in self._tasks()]
        own = _read(self._process("comm")).strip()
        more = own.startswith("qemu-") or "/libtsan." in _read(self._process("maps"))
        return names.count(own) == (2 if more else 1) and all(
            _read(task / "stat").rpartition(")")[2].split()[:1] == ["S"] for task in self._tasks())

    def _files(self):
        names = []
        for entry in self._process("fd").iterdir():
            # One that is closed meanwhile is none.
            try:
                names.append(os.readlink(entry))
            except FileNotFoundError:
                pass
        return names

    def holds(self):
        """How many descriptors, threads and children it has."""
        children = " ".join(_read(task / "children") for task in self._tasks())
        return {"descriptors": len(self._files()), "threads": len(self._tasks()),
                "children": len(children.split())}

    def zombies(self):
        """How many children have ended without anybody having waited for them."""
        children = " ".join(_read(task / "children") for task in self._tasks()).split()
        states = [_read(pathlib.Path("/proc", child, "stat")).rpartition(")")[2].split()[:1]
                  for child in children]
        return states.count(["Z"])

    def resident(self):
        """Its memory in use, in KiB."""
        return int(re.search(r"^VmRSS:\s+(\d+) kB$", _read(self._process("status")), re.M)[1])

    def netlink_queue(self):
        """How many bytes wait in the watcher's socket; nothing before it is bound."""
        row = self._netlink_row()
        return row and int(row[4])

    def netlink_losses(self):
        """How many messages the kernel has dropped because the watcher's socket was full."""
        return int(self._netlink_row()[8])

    def _netlink_row(self):
        own = {match[1] for name in self._files() if (match := re.match(r"socket:\[(\d+)\]", name))}
        for line in pathlib.Path("/proc/net/netlink").read_text().splitlines()[1:]:
            row = line.split()
            if row[9] in own and (row[1], int(row[3], 16)) in (("0", 1), ("15", 0xFFFFFFFF)):
                return row
        return None

    def _watcher_waits(self):
        check(self._program.running(), "the application has ended")
        watchers = [task for task in self._tasks()
                    if _read(task / "comm").strip() == "CAddressWatcher"]
        return (self.netlink_queue() == 0 and len(watchers) == 1
                and "wait_for_more_packets" in _read(watchers[0] / "wchan"))

    def awake_seconds(self):
        """The time that its threads have been on a processor, and ready for one, so far."""
        readings = [_read(task / "schedstat").split()[:2] for task in self._tasks()]
        return tuple(sum(int(reading[index]) for reading in readings if reading) / 1e9
                     for index in (0, 1))

    def finish(self):
        """What holds at the end of every scenario."""
        self.expect_no_signal()
        check(self._program.running(), "the application has ended")
        stalls = [event.text for event in self._of_kind["stall"]]
        check_equal(stalls, [], "the event loop was kept from running, for so many ms")
        strays = [event.text for event in self._of_kind["stray"]]
        check_equal(strays, [], "signals outside the application's thread")
        try:
            wait_until(lambda: self.holds() == self.at_first, 5, "the same as at first")
        except LaboratoryError:
            check_equal(self.holds(), self.at_first, "the application does not hold what it did "
                        "at first")

#!/usr/bin/python3
# SPDX-License-Identifier: MIT
"""Measures the library and what people use instead of it, in turn, and says how they compare.

  performance.py BUILD OUTPUT [--quick] [--docs] [--samples FILE] [QUANTITY...]

See script/bench, which builds first. OUTPUT is a folder for the samples and what is drawn of them.
"""

import argparse
import dataclasses
import json
import os
import pathlib
import statistics
import subprocess
import sys
import time
import typing

HERE = pathlib.Path(__file__).resolve().parent
TOP = HERE.parent
sys.path.append(str(TOP / "tests" / "lab"))
import users  # noqa: E402

PAGE = TOP / "docs" / "performance.md"
BEGIN, END = "<!-- measured -->", "<!-- end of what was measured -->"
PICTURES = ("reactions", "memory", "growth")


@dataclasses.dataclass(frozen=True)
class Quantity:
    """What is measured of several programs, in turn, some rounds of it."""
    name: str
    title: str
    unit: str
    programs: typing.Dict[str, str]  # and what they are called
    rounds: int = 5
    count: typing.Optional[int] = None  # what measure.py takes if it is not told
    quick: typing.Optional[int] = None
    once: typing.Tuple[str, ...] = ()  # programs that one or two rounds are enough for


FLOORS = {"raw": "floor: raw read", "raw-two-threads": "floor: raw read, then a second thread",
          "raw-event-loop": "floor: raw read, then an event loop of Qt"}
QUANTITIES = [
    Quantity("links", "A link's change, after a rest of 30 ms, to the worker's slot or a command",
             "ms", FLOORS | {
                 "library": "library", "ip-monitor": "`ip monitor` to a shell, to its command",
                 "ip-monitor-read": "`ip monitor` to a shell, to its line", "netplugd": "netplugd",
                 "keepalived": "keepalived's notify", "ifplugd": "`ifplugd -u0 -d0`",
                 "dispatcher": "NetworkManager's dispatcher, plugged in"},
             quick=20, once=("dispatcher", "ifplugd")),
    Quantity("links-in-succession", "Links change 2 ms apart", "ms", FLOORS | {
        "library": "library"}, quick=50),
    Quantity("uevents",
             "A uevent of the LAN switch, after a rest of 30 ms, to the slot or a command", "ms",
             FLOORS | {
                 "library": "library", "udevadm": "`udevadm monitor` to a shell, to its command",
                 "udevadm-read": "`udevadm monitor` to a shell, to its line"}, quick=20),
    Quantity("uevents-in-succession", "Uevents 2 ms apart", "ms", FLOORS | {
        "library": "library"}, quick=50),
    Quantity("flood", "Processor time for a uevent of another device, in a flood", "µs", {
        "raw": "floor: raw receive and scan", "library": "library", "libudev": "libudev's monitor"},
        quick=5000),
    Quantity("search", "A search, first server at once, beyond the sleep and the commands", "ms", {
        "floor": "floor: the same commands, sleep and connection", "library": "library",
        "script": "shell script"}, count=10, quick=3),
    Quantity("switch", "The first server dead, 20 attempts, real NetworkManager", "ms", {
        "library": "library", "script": "shell script"}, rounds=3),
    Quantity("detection", "A server's end until it is given up, 20 attempts", "ms", {
        "haproxy": "haproxy, `inter 500 fall 20`"}, rounds=3),
    Quantity("startup", "Start of a process to its event loop", "ms", {
        "plain": "application with Qt's configuration manager alone",
        "library": "application with the library"},
        quick=3),
    Quantity("rest", "Programs at rest", "", {"all": "all"}, rounds=1, quick=6),
    Quantity("size", "Files", "", {"all": "all"}, rounds=1),
    Quantity("events-growth", "More and more uevents of other devices", "", {"events": "library"},
             rounds=1),
    Quantity("searches-growth", "More and more searches, without their sleep", "", {
        "by-start": "library, asked by `start()`", "by-link": "library, asked by a link"},
        rounds=1, quick=2),
]
PEERS = ("ip-monitor", "netplugd", "keepalived", "ifplugd", "dispatcher")


class Missing(Exception):
    """A bar asks for what was not measured."""


class Samples:
    """What was seen: for each quantity and program a list of rounds."""

    def __init__(self, seen=None):
        self.seen = seen or {}

    def add(self, quantity, result):
        for program, values in result.items():
            self.seen.setdefault(quantity, {}).setdefault(program, []).append(values)

    def rounds(self, quantity, program):
        """The median of each round."""
        try:
            return [statistics.median(values) for values in self.seen[quantity][program]]
        except KeyError:
            raise Missing(f"{quantity} of {program}") from None

    def median(self, quantity, program):
        return statistics.median(self.rounds(quantity, program))

    def has(self, quantity, program):
        return program in self.seen.get(quantity, {})

    def ratios(self, quantity, program, to="library"):
        """Round by round, as what is compared was measured in turn."""
        own = self.rounds(quantity, to)
        return [other / mine for other, mine in zip(self.rounds(quantity, program), own)]

    def record(self, quantity, program):
        """Of what is not a list of times: the one that was seen."""
        try:
            return self.seen[quantity][program][-1]
        except KeyError:
            raise Missing(f"{quantity} of {program}") from None


@dataclasses.dataclass(frozen=True)
class Bar:
    """What we want of a quantity."""
    quantities: typing.Tuple[str, ...]
    text: str
    judge: typing.Callable  # of the samples: what was seen, as text, and whether it is met
    steady: bool = False  # does not depend on what else the machine does


def number(value):
    """With three digits that count."""
    digits = max(0, 2 - len(str(int(abs(value)))) + 1) if abs(value) >= 1 else 3
    return f"{value:,.{digits}f}"


def most(limit, unit, value):
    return lambda samples: (f"{number(value(samples))} {unit}".strip(), value(samples) <= limit)


def least(limit, unit, value):
    return lambda samples: (f"{number(value(samples))} {unit}".strip(), value(samples) >= limit)


def best_peer(samples):
    """How many times the library's time the best peer's is."""
    peers = [statistics.median(samples.ratios("links", name)) for name in PEERS
             if samples.has("links", name)]
    if not peers:
        raise Missing("a peer of links")
    return min(peers)


def beyond(quantity, program, other):
    return lambda samples: samples.median(quantity, program) - samples.median(quantity, other)


def times(quantity, program, other):
    return lambda samples: statistics.median(samples.ratios(quantity, program, other))


def growing(samples, quantity, program=""):
    """The records of larger and larger counts, as (count, record)."""
    counts = sorted((int(name.split()[-1]), name) for name in samples.seen.get(quantity, {})
                    if name.startswith(program))
    if len(counts) < 2:
        raise Missing(quantity)
    return [(count, samples.record(quantity, name)) for count, name in counts]


def kept_by_events(samples):
    return growing(samples, "events-growth")[-1][1]["bytes"] / 1024


def kept_by_searches(program):
    """By each, from the last count but one to the last: without what is kept once."""
    def judge(samples):
        (fewer, before), (more, after) = growing(samples, "searches-growth", program)[-2:]
        return (after["bytes"] - before["bytes"]) / (more - fewer)
    return judge


def linear(quantity, *programs):
    """How many times as long each takes at the last count as at the one before; the worst."""
    def judge(samples):
        pairs = [growing(samples, quantity, program)[-2:] for program in programs]
        return max(after["each"] / before["each"] for (_, before), (_, after) in pairs)
    return judge


def allocations(samples):
    """In all rounds."""
    try:
        return sum(map(sum, samples.seen["flood"]["allocations"]))
    except KeyError:
        raise Missing("allocations of flood") from None


def one_tick(samples):
    """Of the library's own threads; a tick may lie on either side of the time's ends."""
    record = samples.record("rest", "library")
    count, seconds = record["own"], record["seconds"]
    return f"{count} in {seconds} s", count > 0 and abs(count - seconds / 3) <= 1


def memory(samples):
    return samples.record("rest", "library")["uss"] - samples.record("rest", "plain")["uss"]


def foreign(samples):
    names = samples.record("size", "library")["foreign"]
    return ", ".join(names) or "nothing", not names


BARS = [
    Bar(("links",), "a link's change to the slot: at most 0.2 ms",
        most(0.2, "ms", lambda samples: samples.median("links", "library"))),
    Bar(("links-in-succession",), "the same 2 ms apart",
        most(0.2, "ms", lambda samples: samples.median("links-in-succession", "library"))),
    Bar(("links",), "15 times faster than the best peer", least(15, "times", best_peer)),
    Bar(("uevents",), "a uevent to the slot: at most 0.15 ms",
        most(0.15, "ms", lambda samples: samples.median("uevents", "library"))),
    Bar(("uevents-in-succession",), "the same 2 ms apart",
        most(0.15, "ms", lambda samples: samples.median("uevents-in-succession", "library"))),
    Bar(("flood",), "processor time in a flood: at most 1.3 times raw",
        most(1.3, "times", times("flood", "library", "raw"))),
    Bar(("flood",), "4 times less than libudev", least(4, "times",
                                                       times("flood", "libudev", "library"))),
    Bar(("flood",), "no heap allocation", most(0, "", allocations), steady=True),
    Bar(("search",), "a search: at most 2 ms over the floor",
        most(2, "ms", beyond("search", "library", "floor"))),
    Bar(("search",), "ahead of the script", most(0, "ms", beyond("search", "library", "script"))),
    Bar(("switch",), "dead server given up: no slower than the script",
        most(0, "ms", beyond("switch", "library-dead", "script-dead"))),
    Bar(("switch",), "from there to success: no slower than the script",
        most(0, "ms", beyond("switch", "library-success", "script-success"))),
    Bar(("rest",), "memory over the application without the library: at most 400 KiB",
        most(400, "KiB", memory), steady=True),
    Bar(("startup",), "start-up over that: at most 3 ms",
        most(3, "ms", beyond("startup", "library", "plain"))),
    Bar(("rest",), "at rest the library's threads wake once in 3 s", one_tick, steady=True),
    Bar(("size",), "at most 90 KiB of text",
        most(90, "KiB", lambda samples: samples.record("size", "library")["text"] / 1024),
        steady=True),
    Bar(("size",), "nothing exported beyond the three classes", foreign, steady=True),
    Bar(("events-growth",), "memory flat over events, to 64 KiB", most(64, "KiB", kept_by_events),
        steady=True),
    Bar(("events-growth",), "time linear over events, to 1.3 times",
        most(1.3, "times", linear("events-growth", ""))),
    Bar(("searches-growth",), "memory flat over searches by links, to 32 bytes each",
        most(32, "bytes", kept_by_searches("by-link")), steady=True),
    Bar(("searches-growth",), "at most 256 bytes kept by a search by `start()`",
        most(256, "bytes", kept_by_searches("by-start")), steady=True),
    Bar(("searches-growth",), "time linear over searches, to 1.3 times",
        most(1.3, "times", linear("searches-growth", "by-start", "by-link"))),
]


# Measuring.

def measure(build, quantity, program, count):
    """One round of one program, in a sandbox of its own."""
    command = [str(TOP / "script" / "sandbox"), "--inherit-users", "/usr/bin/python3", "-B",
               str(HERE / "measure.py"), build, quantity.name, program]
    done = subprocess.run(command + ([str(count)] if count else []), stdout=subprocess.PIPE,
                          text=True, check=False, timeout=600)
    if done.returncode != 0:
        sys.exit(f"script/bench: {quantity.name} of {program} cannot be measured; see above")
    return json.loads(done.stdout)


def measure_all(build, quantities, quick):
    """In turn, so that what else the machine does meets all of them."""
    samples = Samples()
    for quantity in quantities:
        began = time.monotonic()
        print(f"{quantity.title} ", end="", flush=True)
        for turn in range(1 if quick else quantity.rounds):
            for program in quantity.programs:
                if turn > 1 and program in quantity.once:
                    continue
                count = quantity.quick if quick else quantity.count
                if program in quantity.once:
                    count = 2 if quick else None
                samples.add(quantity.name, measure(build, quantity, program, count))
                print(".", end="", flush=True)
        print(f" {time.monotonic() - began:.0f} s")
    return samples


# Telling.

def table(head, rows):
    """As Markdown."""
    lines = [" | ".join(["", *cells, ""]).strip() for cells in [head, *rows]]
    return [lines[0], "|" + "---|" * len(head), *lines[1:]]


def spread(values):
    return f"{number(min(values))} to {number(max(values))}" if len(values) > 1 else ""


def rows_of_times(samples, quantity):
    rows = []
    shown = dict(quantity.programs)
    if quantity.name == "switch":
        shown = {f"{program}-{half}": f"{name}, {text}" for half, text in
                 (("dead", "the first given up"), ("success", "from there to success"))
                 for program, name in quantity.programs.items()}
    if quantity.name == "startup":
        shown |= {"plain-instance": "in it the configuration manager of Qt",
                  "library-instance": "in it `instance()`"}
    for program, name in shown.items():
        if not samples.has(quantity.name, program):
            continue
        ours = "library" + program[len(program.partition("-")[0]):] \
            if quantity.name in ("switch", "startup") else "library"
        rounds = samples.rounds(quantity.name, program)
        ratio = ""
        if program != ours and samples.has(quantity.name, ours):
            ratios = samples.ratios(quantity.name, program, ours)
            ratio = number(statistics.median(ratios))
            ratio += f" ({spread(ratios)})" if len(ratios) > 1 else ""
        rows.append([name, number(statistics.median(rounds)), spread(rounds), ratio])
    return rows


def rows_of_rest(samples, _):
    called = next(one for one in QUANTITIES if one.name == "startup").programs
    return [[called.get(name, name), number(record["uss"]), str(record["threads"]),
             f"{record['wakings'] / record['seconds']:.2f}"]
            for name, record in ((name, samples.record("rest", name))
                                 for name in samples.seen["rest"])]


def rows_of_size(samples, _):
    return [[name, f"{record['text']:,}", f"{record['relocations']:,}", f"{record['exported']:,}"]
            for name, record in ((name, samples.record("size", name))
                                 for name in samples.seen["size"])]


def rows_of_growth(samples, quantity):
    rows = []
    unit = "µs" if quantity.name == "events-growth" else "ms"
    for name in samples.seen[quantity.name]:
        record = samples.record(quantity.name, name)
        rows.append([name.replace("-", " "), f"{number(record['each'])} {unit}",
                     f"{record['bytes']:,}"])
    return rows


KINDS = {
    "rest": (["program", "KiB of its own", "threads", "wakings a second"], rows_of_rest),
    "size": (["file", "bytes of text", "relocations", "exported"], rows_of_size),
    "events-growth": (["events", "each", "bytes kept"], rows_of_growth),
    "searches-growth": (["searches", "each", "bytes kept"], rows_of_growth)}


def section(samples, quantity):
    """A quantity's heading, table and command."""
    head, rows = KINDS.get(quantity.name, (
        ["program", f"median, {quantity.unit}", "rounds", "times the library's"], rows_of_times))
    return [f"### {quantity.title}", "", f"`script/bench {quantity.name}`", "",
            *table(head, rows(samples, quantity)), ""]


def judged(samples, quantities):
    """The bars of what was measured: (bar, what was seen, whether it is met)."""
    names = {quantity.name for quantity in quantities}
    return [(bar, *bar.judge(samples)) for bar in BARS if names.issuperset(bar.quantities)]


def bars_table(verdicts):
    return ["### Bars", "", *table(["bar", "seen", ""], [
        [bar.text, seen, "met" if met else "**missed**"] for bar, seen, met in verdicts]), ""]


def report(samples, quantities):
    lines = []
    for quantity in quantities:
        lines += section(samples, quantity)
    return "\n".join(lines + bars_table(judged(samples, quantities)))


def machine():
    """What it was measured on."""
    model = next((line.partition(":")[2].strip() for line in pathlib.Path(
        "/proc/cpuinfo").read_text("utf-8").splitlines() if line.startswith("model name")), "?")
    processors = os.cpu_count()
    kernel = pathlib.Path("/proc/sys/kernel/osrelease").read_text("ascii").split("-")[0]
    packages = subprocess.run(
        ["dpkg-query", "-W", "-f", "${Package} ${Version}\\n", "network-manager", "netplug",
         "ifplugd", "keepalived", "haproxy", "iproute2", "udev", "libudev1", "libqt5core5a",
         "netcat-openbsd", "bash"],
        stdout=subprocess.PIPE, text=True, check=True).stdout
    # One may be installed for several architectures.
    packages = ", ".join(sorted(set(packages.splitlines())))
    return f"Measured on {processors} processors ({model}), Linux {kernel}; {packages}."


def wrapped(text, width=99):
    lines = [""]
    for word in text.split():
        if lines[-1] and len(lines[-1]) + 1 + len(word) > width:
            lines.append("")
        lines[-1] += (" " if lines[-1] else "") + word
    return "\n".join(lines)


def write_page(text):
    """Puts it in place of what was measured before."""
    page = PAGE.read_text(encoding="utf-8")
    if page.count(BEGIN) != 1 or page.count(END) != 1 or page.index(END) < page.index(BEGIN):
        sys.exit(f"script/bench: {PAGE} has no place for what was measured")
    before, _, rest = page.partition(BEGIN)
    new = before + BEGIN + "\n\n" + wrapped(machine()) + "\n\n" + text + "\n" + END \
        + rest.partition(END)[2]
    temporary = PAGE.with_suffix(".new")
    temporary.write_text(new, encoding="utf-8")
    temporary.replace(PAGE)


# Drawing.

def reactions_data(samples):
    """A row a program: name, from, median and to of nine tenths of its values, whether it is ours;
    two blocks."""
    rows = []
    for name in "links", "uevents":
        quantity = next(quantity for quantity in QUANTITIES if quantity.name == name)
        for program, title in quantity.programs.items():
            values = sorted(sum(samples.seen[name].get(program, []), []))
            if values:
                twentieth = len(values) // 20
                rows.append([title.replace("`", ""), values[twentieth], statistics.median(values),
                             values[-1 - twentieth], int(program == "library")])
        rows += [[], []]
    return rows


def memory_data(samples):
    plain = samples.record("rest", "plain")["uss"]
    rows = [["the library, over the application", samples.record("rest", "library")["uss"] - plain],
            ["application without it", plain]]
    return rows + [[name, samples.record("rest", name)["uss"]] for name in samples.seen["rest"]
                   if name not in ("plain", "library")]


def growth_data(samples):
    rows = []
    for quantity, unit in (("events-growth", 1), ("searches-growth", 1000)):
        for name in samples.seen[quantity]:
            record = samples.record(quantity, name)
            what, _, count = name.rpartition(" ")
            rows.append([what or "events", count, record["each"] * unit,
                         max(0, record["bytes"]) / 1024])
    return rows


def draw(samples, output, pictures):
    for name, data in zip(PICTURES, (reactions_data, memory_data, growth_data)):
        path = output / f"{name}.tsv"
        path.write_text("".join("\t".join(map(str, row)) + "\n" for row in data(samples)), "utf-8")
        picture = pictures / f"bench-{name}.svg"
        subprocess.run(["gnuplot", "-e", f"samples='{path}'; picture='{picture}'",
                        str(HERE / f"plot-{name}.gp")], check=True)
        print(f"picture: {picture}")


def options():
    parser = argparse.ArgumentParser(prog="script/bench", description=__doc__)
    parser.add_argument("build")
    parser.add_argument("output", type=pathlib.Path)
    parser.add_argument("--quick", action="store_true")
    parser.add_argument("--docs", action="store_true")
    parser.add_argument("--samples", type=pathlib.Path)
    parser.add_argument("names", nargs="*")
    return parser.parse_intermixed_args()


def main():
    chosen = options()
    names = [quantity.name for quantity in QUANTITIES]
    for name in chosen.names:
        if name not in names:
            print(f"script/bench: there is no {name}; there are {', '.join(names)}",
                  file=sys.stderr)
            return 64
    quantities = [quantity for quantity in QUANTITIES
                  if not chosen.names or quantity.name in chosen.names]
    if chosen.samples:
        samples = Samples(json.loads(chosen.samples.read_text("utf-8")))
    else:
        try:
            users.enter()
        except users.UsersError as error:
            print(f"script/bench: {error}", file=sys.stderr)
            return 77
        samples = measure_all(chosen.build, quantities, chosen.quick)
        (chosen.output / "samples.json").write_text(json.dumps(samples.seen), "utf-8")
    try:
        return tell(samples, quantities, chosen)
    except Missing as missing:
        print(f"script/bench: {missing} was not measured", file=sys.stderr)
        return 1


def tell(samples, quantities, chosen):
    """Prints and writes all that is wanted; returns the exit status."""
    text = report(samples, quantities)
    print("\n" + text)
    if not chosen.names:
        draw(samples, chosen.output, TOP / "docs" / "pictures" if chosen.docs else chosen.output)
    if chosen.docs:
        write_page(text)
        print(f"written: {PAGE.relative_to(TOP)}")
    missed = [bar.text for bar, _, met in judged(samples, quantities) if bar.steady and not met]
    for bar in missed:
        print(f"Not as it should be: {bar}", file=sys.stderr)
    return 1 if missed else 0


if __name__ == "__main__":
    sys.exit(main())

# SPDX-License-Identifier: MIT
"""One application in the laboratory for a long time: searches and cable events, one after the
other, with what it holds after each. See script/soak, which runs this in a sandbox.

  soak.py --minutes N --samples FILE COMMAND...
"""

import argparse
import pathlib
import statistics
import sys
import time

sys.path.append(str(pathlib.Path(__file__).resolve().parent.parent / "lab"))
from application import Unexpected, check, success  # noqa: E402
from laboratory import NET1, NET2, LaboratoryError, Timeline  # noqa: E402
from scenario import NATIVE, Bench, dhcp, static  # noqa: E402

COLUMNS = ("seconds", "what", "latency", "resident", "descriptors", "threads", "children",
           "zombies", "processor")
# Kibibytes that may be more at the end than after the first tenth: what an allocator keeps.
GROWTH = 256
SLOWER = 0.2
KINDS = {"second": "search: the first server is dead", "first": "search: the first server answers",
         "cable": "cable plugged"}


class RecentTimeline(Timeline):
    """Keeps the last lines only."""

    def add(self, who, what, when=None):
        super().add(who, what, when)
        del self.events[:-500]


class Soak:
    """What is done again and again, and what is seen each time."""

    def __init__(self, lab, app, path):
        self.lab = lab
        self.app = app
        self.began = time.monotonic()
        self.samples = []
        self._out = open(path, "w", encoding="ascii", buffering=1)
        self._out.write("\t".join(COLUMNS) + "\n")

    def minutes(self):
        return (time.monotonic() - self.began) / 60

    def sample(self, what, latency):
        """After all has come to rest."""
        self.app.expect_no_signal()
        self.app.forget()
        holds = self.app.holds()
        row = dict(zip(COLUMNS, (round(time.monotonic() - self.began, 2), what, round(latency, 3),
                                 self.app.resident(), holds["descriptors"],
                                 holds["threads"], holds["children"], self.app.zombies(),
                                 round(self.app.awake_seconds()[0], 3))))
        self.samples.append(row)
        self._out.write("\t".join(map(str, row.values())) + "\n")

    def search(self, network, what):
        began = self.app.start()
        self.sample(what, self.app.expect_signal(success(network)) - began)

    def round(self):
        """To the second server and back, by searches, and once by the cable."""
        self.lab.start_server(NET2.server)
        self.search(NET2, "second")
        self.lab.start_server(NET1.server)
        self.search(NET1, "first")
        self.lab.pull_cable()
        self.app.expect_signal("switchBegin")
        self.app.expect_no_signal()
        began = time.monotonic()
        self.lab.plug_cable()
        self.app.expect_signal("start")
        self.sample("cable", self.app.expect_signal(success(NET1)) - began)
        self.lab.stop_server(NET1.server)
        self.lab.stop_server(NET2.server)


def verdict(samples):
    """Says what came of it; returns what is wrong."""
    for what, text in KINDS.items():
        seen = [row["latency"] for row in samples if row["what"] == what]
        print(f"{len(seen):5} x {text}: {statistics.median(seen):.2f} s, at most {max(seen):.2f} s")
    tenth = max(1, len(samples) // 10)
    warm = samples[tenth:]
    wrong = []
    for column in ("descriptors", "threads", "children"):
        values = sorted({row[column] for row in warm})
        print(f"{column}: {', '.join(map(str, values))}")
        if len(values) > 1:
            wrong.append(f"{column} do not stay as they are: {values}")
    zombies = sum(row["zombies"] for row in samples)
    print(f"zombies: {zombies}")
    if zombies:
        wrong.append("there were zombies")
    early, late = (round(statistics.median(row["resident"] for row in part))
                   for part in (warm[:tenth], warm[-tenth:]))
    print(f"resident memory: {early} KiB after the first tenth, {late} KiB in the last one")
    if late > early + GROWTH:
        wrong.append(f"the resident memory grows, by {late - early} KiB")
    for what in KINDS:
        seen = [row["latency"] for row in samples if row["what"] == what]
        third = max(1, len(seen) // 3)
        before, after = statistics.median(seen[:third]), statistics.median(seen[-third:])
        if after > before + SLOWER:
            wrong.append(f"{what}: from {before:.2f} s to {after:.2f} s")
    spent = samples[-1]["processor"]
    print(f"processor time: {spent:.1f} s, {spent / len(samples) * 1000:.1f} ms each")
    return wrong


def main():
    parser = argparse.ArgumentParser(description=__doc__)
    parser.add_argument("--minutes", type=float, required=True)
    parser.add_argument("--samples", required=True)
    parser.add_argument("command", nargs="+", help="runs the laboratory's application")
    options = parser.parse_args()

    timeline = RecentTimeline()
    try:
        with Bench(timeline, options.command, NATIVE) as lab:
            lab.configure(first=static(NET1), second=dhcp(NET2))
            soak = Soak(lab, lab.application(), options.samples)
            said = 0
            while soak.minutes() < options.minutes or not soak.samples:
                soak.round()
                if soak.minutes() >= said + 1:
                    said = int(soak.minutes())
                    print(f"{said} min: {len(soak.samples)} switches,"
                          f" {soak.samples[-1]['resident']} KiB", flush=True)
            check(lab.manager.running(), "NetworkManager has ended")
            stalls = lab.app.stalls()
    except (Unexpected, LaboratoryError) as unexpected:
        print(*timeline.lines("manager", "dhcp"), sep="\n")
        print(f"\nNot as it should be: {unexpected}", file=sys.stderr)
        return 1
    print()
    wrong = verdict(soak.samples)
    print(f"the event loop was kept from running {len(stalls)} times,"
          f" for {max(stalls, default=0)} ms at most")
    for what in wrong:
        print(f"Not as it should be: {what}", file=sys.stderr)
    return 1 if wrong else 0


if __name__ == "__main__":
    sys.exit(main())

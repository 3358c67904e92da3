# SPDX-License-Identifier: MIT
"""The manual pages hoplane(3) and switch.ini(5) against the sources, the library and hoplanectl,
and the documents at the top of the tree. Runs in script/sandbox:

  pages.py HOPLANECTL APPLICATION LIBRARY COMPILER OPTION...
"""

import os
import re
import socket
import subprocess
import sys
import tempfile
import threading
import unittest

import switchini
from page import MANUALS, ROOT, Page, plain
from switchini import SwitchIni  # noqa: F401

PROGRAMS = switchini.PROGRAMS
SECONDS = 30
KINDS = {"public": "Functions", "Q_SIGNALS": "Signals", "public Q_SLOTS": "Slots"}
# Of no interest to a user of the library: a timer without effect, parts of other limits, and a
# function that nothing calls.
INTERNAL = {"noTimer", "statisticsIntervalMs", "lineSize", "maxRetries"}
LEVELS = {"qCritical": "Critical", "qWarning": "Warning", "qInfo": "Information",
          "qDebug": "Debug"}


def library_sources():
    return {path.relative_to(ROOT).as_posix(): path.read_text(encoding="utf-8")
            for folder in ("facade", "worker", "watcher")
            for path in sorted((ROOT / folder).iterdir())
            if path.suffix in (".cpp", ".h")}


def declared():
    """The public members of the facade: {kind: [(type, name, parameters)]}."""
    text = (ROOT / "facade/hoplane.h").read_text(encoding="utf-8")
    text = re.sub(r"/\*.*?\*/|//[^\n]*", "", text, flags=re.DOTALL)
    body = text.partition("class Q_DECL_EXPORT Hoplane")[2].partition("private:")[0]
    found = {}
    parts = re.split(r"^(public|Q_SIGNALS|public Q_SLOTS):$", body, flags=re.MULTILINE)
    for access, part in zip(parts[1::2], parts[2::2]):
        found[KINDS[access]] = [
            (" ".join(before.split()), name, [" ".join(p.split()) for p in parameters.split(",")
                                              if p.strip()])
            for before, name, parameters in re.findall(
                r"([^;()]*?)(~?\w+)\(([^)]*)\)(?: override)?;", part)]
    return found


def synopsis(page):
    """The same, from the page."""
    found = {}
    parts = re.split(r"^\.Ss (\w+)\n", page.sections["SYNOPSIS"], flags=re.MULTILINE)
    for kind, part in zip(parts[1::2], parts[2::2]):
        functions, returned = [], ""
        for line in part.splitlines():
            if match := re.match(r"\.Ft (.*)", line):
                returned = match[1]
            elif match := re.match(r"\.F[no] Hoplane::(~?\w+)(.*)", line):
                functions.append((returned, match[1], re.findall(r'"([^"]*)"', match[2])))
                returned = ""
            elif match := re.match(r'\.Fa "(.*)"', line):
                functions[-1][2].append(match[1])
        found[kind] = functions
    return found


class HoplanePage(unittest.TestCase):
    """hoplane(3)."""
    maxDiff = None
    page = Page("hoplane.3")

    def test_synopsis_is_the_headers(self):
        header = declared()
        # Words of the declaration that are not a type.
        for functions in header.values():
            functions[:] = [(re.sub(r"\bexplicit\b", "", before).strip(), name, parameters)
                            for before, name, parameters in functions]
        self.assertEqual({kind: len(functions) for kind, functions in header.items()},
                         {"Functions": 8, "Signals": 5, "Slots": 5})
        self.assertEqual(synopsis(self.page), header)

    def test_header_is_read_in_full(self):
        symbols = subprocess.check_output(["nm", "-DC", "--defined-only", PROGRAMS["library"]],
                                          text=True)
        exported = set(re.findall(r" T Hoplane::(~?\w+)\(", symbols))
        moc = {"metaObject", "qt_metacast", "qt_metacall", "qt_static_metacall"}
        self.assertEqual({name for functions in declared().values() for _, name, _ in functions},
                         exported - moc)

    def test_each_member_is_explained(self):
        for kind, functions in declared().items():
            part = re.search(rf"^\.Ss {kind}\n(.*?)(?=^\.Ss |\Z)",
                             self.page.sections["DESCRIPTION"], re.MULTILINE | re.DOTALL)[1]
            told = re.findall(r"^\.It Fn (\S+)\n[^.]", part, re.MULTILINE)
            self.assertEqual(told, [name for _, name, _ in functions])

    def test_names_no_other_member(self):
        known = {name for functions in declared().values() for _, name, _ in functions}
        told = set(re.findall(r"^\.(?:It )?Fn (\S+)", self.page.sections["DESCRIPTION"],
                              re.MULTILINE))
        self.assertEqual(told - known, {"main"})

    def test_parameters_are_those_of_the_header(self):
        known = {parameter.split()[-1].lstrip("*&") for functions in declared().values()
                 for _, _, parameters in functions for parameter in parameters}
        told = set(re.findall(r"^\.Fa (\w+)", self.page.sections["DESCRIPTION"], re.MULTILINE))
        self.assertEqual(told - known, set())

    def test_constants(self):
        sources = library_sources()
        part = self.page.sections["DESCRIPTION"].partition(".Ss Times and limits\n")[2]
        files = re.split(r"^\.It Pa (\S+)\n", part, flags=re.MULTILINE)
        told = [(file, *row) for file, text in zip(files[1::2], files[2::2])
                for row in re.findall(r"^\.It Va (\w+) Ta (\S+)", text, re.MULTILINE)]
        self.assertGreater(len(told), 10)
        for file, name, value in told:
            self.assertRegex(sources[file], rf"\bconstexpr [\w ]+ {name} = {plain(value)};")
        defined = {(file, name) for file, text in sources.items() for name in
                   re.findall(r"\bconstexpr [\w ]+ (\w+) = -?\d+;", text)}
        self.assertEqual({(file, name) for file, name, _ in told},
                         {(file, name) for file, name in defined if name not in INTERNAL})
        values = {name: int(plain(value)) for _, name, value in told}
        self.assertEqual(values["lastPassStartMs"] + 1, 120 * 1000)
        costs = [values[tries] * values["attemptMs"] / 1000 for tries in ("fewTries", "manyTries")]
        self.assertIn("{:g} seconds, or {:g} if both".format(*costs), part)

    def test_log_lines(self):
        sources = "\n".join(library_sources().values())
        diagnostics = self.page.sections["DIAGNOSTICS"]
        items = re.findall(r'^\.It Li "?(.*?)"?\n(\w+)[.,]', diagnostics, re.MULTILINE)
        self.assertGreater(len(items), 10)
        self.assertEqual(len(items), diagnostics.count("\n.It "))
        for text, level in items:
            self.assertEqual(sources.count(text), 1, text)
            before = sources[:sources.index(text)]
            self.assertEqual(LEVELS[re.findall(r"\b(q[A-Z]\w+)\(\)", before)[-1]], level, text)

    def test_each_warning_is_told_of(self):
        page = " ".join(self.page.sections["DIAGNOSTICS"].split())
        found = 0
        for text in library_sources().values():
            for match in re.finditer(r"\b(?:qWarning|qCritical)\(\).*?;", text, re.DOTALL):
                function = re.findall(r"^\w[^\n]*::(\w+)\(", text[:match.start()], re.MULTILINE)[-1]
                pieces = [" ".join(piece.split()) for piece in re.findall(r'"([^"]+)"', match[0])]
                told = [piece for piece in [function, *pieces] if piece in page]
                self.assertTrue(told, match[0])
                found += 1
        self.assertGreater(found, 5)

    def test_example_is_built_and_works(self):
        code = "\n".join(self.page.literals("EXAMPLES")[0]) + "\n"
        with tempfile.TemporaryDirectory() as folder:
            program = f"{folder}/example"
            done = subprocess.run(
                [PROGRAMS["compiler"], "-std=c++17", "-fPIC", "-Wall", "-Wextra", "-Werror", "-x",
                 "c++", "-", "-x", "none", "-o", program, *PROGRAMS["options"],
                 f"-Wl,-rpath,{os.path.dirname(PROGRAMS['library'])}"],
                input=code, stdout=subprocess.PIPE, stderr=subprocess.STDOUT, text=True,
                check=False)
            self.assertEqual(done.returncode, 0, done.stdout)
            self.assertEqual(done.stdout, "")
            self.assertEqual(self.first_message(program, ("198.51.100.1", 9000)),
                             "connect to 198.51.100.1 port 9000")

    def first_message(self, program, server):
        """What the application says first by itself, with the server on this machine."""
        subprocess.run(["ip", "address", "add", f"{server[0]}/32", "dev", "lo"], check=True)
        with socket.create_server(server), subprocess.Popen(
                [program], stdout=subprocess.DEVNULL, stderr=subprocess.PIPE,
                encoding="utf-8") as process:
            late = threading.Timer(SECONDS, process.kill)
            late.start()
            try:
                for line in process.stderr:
                    if re.match(r"connect|no server|the network", line):
                        return line.rstrip("\n")
            finally:
                late.cancel()
                process.kill()
        return None


class AllPages(unittest.TestCase):
    """What holds for both pages."""
    pages = [Page("hoplane.3"), Page("switch.ini.5")]

    def test_well_formed(self):
        for page in self.pages:
            self.assertEqual(page.lint(), "")

    def test_fit_a_terminal(self):
        for page in self.pages:
            for line in page.rendered(80).splitlines():
                self.assertLessEqual(len(line), 80, line)

    def test_literal_blocks_are_shown_as_they_are(self):
        for page in self.pages:
            rendered = page.rendered(200)
            for section in page.sections:
                for line in sum(page.literals(section), []):
                    self.assertIn(line, rendered)

    def test_references_to_pages_of_this_tree(self):
        own = {tuple(path.name.rsplit(".", 1)) for path in MANUALS.iterdir()}
        names = {name for name, _ in own}
        for page in self.pages:
            for name, section in re.findall(r"^\.Xr (\S+) (\d)", page.source, re.MULTILINE):
                if name in names:
                    self.assertIn((name, section), own)
            title = tuple(page.path.name.rsplit(".", 1))
            self.assertIn(f".Dt {title[0].upper()} {title[1]}\n", page.source)


class Documents(unittest.TestCase):
    """What stands at the top of the tree."""

    @staticmethod
    def text(name):
        return (ROOT / name).read_text(encoding="utf-8")

    def version(self):
        return re.search(r"project\(Hoplane VERSION (\S+)", self.text("CMakeLists.txt"))[1]

    def test_changelog_tells_of_this_version(self):
        first = re.search(r"^## (\S+), (\S+)$", self.text("CHANGELOG.md"), re.MULTILINE)
        self.assertEqual(first[1], self.version())
        self.assertRegex(first[2], r"^(unreleased|\d{4}-\d\d-\d\d)$")

    def test_this_version_is_supported(self):
        minor = self.version().rpartition(".")[0]
        self.assertRegex(self.text("SECURITY.md"), rf"\n\| {re.escape(minor)} +\| yes +\|\n")

    def test_licence(self):
        text = self.text("LICENSE")
        self.assertTrue(text.startswith("MIT License\n\nCopyright (c) 2026 The Hoplane authors\n"))
        for words in ("Permission is hereby granted, free of charge, to any person",
                      "The above copyright notice and this permission notice shall be included in",
                      'THE SOFTWARE IS PROVIDED "AS IS", WITHOUT WARRANTY OF ANY KIND',
                      "IN NO EVENT SHALL THE\nAUTHORS OR COPYRIGHT HOLDERS BE LIABLE"):
            self.assertIn(words, text)

    def test_named_files_are_there(self):
        for document in ("CONTRIBUTING.md", "SECURITY.md", "CHANGELOG.md"):
            names = set(re.findall(r"(?:script|tests|examples|bench|facade|worker|watcher|tools"
                                   r"|docs|\.ci)/[\w./-]*", self.text(document)))
            self.assertGreater(len(names), 0)
            for name in names - {"docs/NAME.md"}:
                self.assertTrue((ROOT / name).exists(), f"{document}: {name}")

    def test_lines_are_short(self):
        for document in ("CONTRIBUTING.md", "SECURITY.md", "CHANGELOG.md"):
            for line in self.text(document).splitlines():
                self.assertLessEqual(len(line), 100, line)


def main():
    if os.environ.get("HOME") != str(switchini.HOME):
        sys.exit("runs in script/sandbox only")
    names = ("hoplanectl", "application", "library", "compiler")
    PROGRAMS.update(zip(names, sys.argv[1:5]))
    PROGRAMS["options"] = sys.argv[5:]
    unittest.main(argv=sys.argv[:1])


if __name__ == "__main__":
    main()

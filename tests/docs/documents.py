# SPDX-License-Identifier: MIT
"""Holds the documents to what they tell of: the sources' constants, commands and log lines, the
pictures and the .dot files that they are made from, links, and the length of lines.

Usage: documents.py SOURCE_FOLDER TOPIC
TOPIC is one of constants, logs, links, pictures and columns.
"""

import ast
import collections
import html.parser
import operator
import os
import pathlib
import re
import subprocess
import sys
import unittest
import urllib.parse
import xml.etree.ElementTree

import sources

ROOT = pathlib.Path(sys.argv[1]).resolve()
TOPIC = sys.argv[2]
DOCS = ROOT / "docs"
PICTURES = DOCS / "pictures"
# Drawn from measurements, by script/bench and script/soak.
MEASURED = ["bench-growth.svg", "bench-memory.svg", "bench-reactions.svg", "soak.svg"]
LIBRARY = sources.Code(ROOT)


def markdown_files():
    """All of the tree, but not those of build folders."""
    for folder, folders, files in os.walk(ROOT):
        folders[:] = sorted(name for name in folders
                            if not name.startswith((".git", "build", "__pycache__")))
        yield from (pathlib.Path(folder) / name for name in sorted(files) if name.endswith(".md"))


def without_fences(text):
    """Keeps the number of lines."""
    return re.sub(r"^(```|~~~).*?^\1$", lambda fence: "\n" * fence[0].count("\n"), text,
                  flags=re.MULTILINE | re.DOTALL)


def between(text, first, last):
    return text.partition(first)[2].partition(last)[0]


# Constants.

OPERATORS = {ast.Add: operator.add, ast.Sub: operator.sub, ast.Mult: operator.mul,
             ast.Div: operator.truediv}
QUANTITY = re.compile(r"(?<![\w.$%-])\d+(?:\.\d+)? (?:ms|s|min|bytes|attempts?|seconds|minutes)\b")
NUMBER = r"-?(?:0x[0-9A-F]+|\d+(?:\.\d+)?)"
MARK = re.compile(rf"(?:(?P<number>{NUMBER})(?: (?P<unit>[a-z]+))?|`(?P<text>[^`]+)`)?"
                  r"<!-- = (?P<expression>[^>]*?) -->")
UNITS = {"ms", "s", "bytes"}


def names_of(expression):
    return {node.id for node in ast.walk(ast.parse(expression, mode="eval"))
            if isinstance(node, ast.Name)}


def calculate(expression, values):
    def value(node):
        if isinstance(node, ast.Expression):
            return value(node.body)
        if isinstance(node, ast.Constant):
            return node.value
        if isinstance(node, ast.Name):
            return values[node.id]
        return OPERATORS[type(node.op)](value(node.left), value(node.right))
    return value(ast.parse(expression, mode="eval"))


def agrees(number, value):
    """To as many digits as are written."""
    if number.startswith("0x"):
        return int(number, 16) == value
    digits = len(number.partition(".")[2])
    return abs(float(number) - value) <= 0.5 * 10 ** -digits + 1e-9


def rows(text):
    """The cells of a table's rows, without its heading."""
    lines = [line for line in text.splitlines() if line.startswith("|")]
    return [[cell.strip() for cell in line.strip("|").split("|")] for line in lines[2:]]


def read_document(name):
    return (ROOT / name).read_text(encoding="utf-8")


class Constants(unittest.TestCase):
    """The numbers and texts of these documents are those of the sources."""

    # What each document has to name beside its number. A comment that is taken away is missed.
    MARKED = {
        "docs/behaviour.md": {
            "attemptMs", "changeAction", "classAPrefixLength", "commandResultSize", "commandSize",
            "deviceSettingsPath", "dhcpNoCable", "dhcpNoCableAgain", "dhcpSilent", "dhcpUp",
            "fewTries", "lanSwitchPath", "lastPassStartMs", "lookUp", "managerHangs",
            "managerKilled", "manyTries", "maxRetries", "modify", "mySwitchFailed", "notRunning",
            "openRetrySeconds", "reactivationAttempt", "receiveBuffer", "bufferSize",
            "staticNoCable", "staticUp", "statisticsIntervalMs", "timeoutCode", "ueventSize",
            "waitForConnected"},
        "docs/architecture.md": {"attemptMs", "classAPrefixLength", "fewTries", "manyTries"},
        "docs/integration.md": {
            "attemptMs", "deviceSettingsPath", "dhcpUp", "lastPassStartMs", "lookUp",
            "managerKilled", "manyTries", "modify", "receiveBuffer", "timeoutCode",
            "waitForConnected"},
        "README.md": {
            "attemptMs", "deviceSettingsPath", "dhcpSilent", "dhcpUp", "fewTries",
            "lastPassStartMs", "lookUp", "manyTries", "modify", "staticUp", "timeoutCode",
            "waitForConnected"},
        "SECURITY.md": {"deviceSettingsPath"},
    }
    # Constants of the sources that nobody outside them needs to know.
    LEFT_OUT = {"noTimer"}

    @classmethod
    def setUpClass(cls):
        text = read_document("docs/behaviour.md")
        cls.table = rows(between(text, "<!-- constants -->", "<!-- end of constants -->"))
        cls.measured = rows(between(text, "<!-- measured -->", "<!-- end of measured -->"))
        cls.formulas = rows(between(text, "<!-- formulas -->", "<!-- end of formulas -->"))
        cls.definitions = {name.strip("`"): formula.strip("`") for name, formula, _ in cls.formulas}
        cls.values, cls.units = {"mySwitchFailed": LIBRARY.failure_text()}, {}
        for name, written, file, _ in cls.table:
            key = name.strip("`").removesuffix("()")
            cls.values[key] = LIBRARY.constant(file.strip("`"), name.strip("`"))
            cls.units[key] = written.partition(" ")[2]
        for name, written, _ in cls.measured:
            cls.values[name.strip("`")] = float(written.partition(" ")[0])
            cls.units[name.strip("`")] = written.partition(" ")[2]
        for name, expression in cls.definitions.items():
            cls.values[name] = calculate(expression, cls.values)
            cls.units[name] = "s"

    def test_table_has_the_sources_values(self):
        self.assertGreater(len(self.table), 15)
        for name, written, file, meaning in self.table:
            with self.subTest(name):
                self.assertTrue(meaning)
                value = self.values[name.strip("`").removesuffix("()")]
                self.assertIsNotNone(value, f"{file} has no such constant")
                if isinstance(value, str):
                    self.assertEqual(written, f"`{value}`")
                else:
                    self.assertRegex(written, rf"^{NUMBER}(?: ({'|'.join(UNITS)}))?$")
                    self.assertTrue(agrees(written.split()[0], value), f"{written} and {value}")

    def test_table_leaves_no_number_out(self):
        listed = {(file.strip("`"), name.strip("`")) for name, _, file, _ in self.table}
        numbers = {(file, name) for (file, name), value in LIBRARY.constants.items()
                   if isinstance(value, int) and name not in self.LEFT_OUT}
        self.assertGreater(len(numbers), 15)
        self.assertLessEqual(numbers, listed)

    def test_measured_times_are_seconds(self):
        self.assertGreater(len(self.measured), 8)
        for name, written, what in self.measured:
            self.assertRegex(written, r"^\d+(\.\d+)? s$", name)
            self.assertTrue(what, name)

    def test_each_formula_is_explained_and_used(self):
        self.assertGreater(len(self.formulas), 25)
        self.assertEqual(len(self.formulas), len(self.definitions), "a name stands twice")
        expressions = [*self.definitions.values(),
                       *(mark["expression"] for mark in self.marks("docs/behaviour.md"))]
        used = set().union(*map(names_of, expressions))
        for name, _, what in self.formulas:
            self.assertTrue(what, name)
            self.assertIn(name.strip("`"), used)

    def marks(self, name):
        return list(MARK.finditer(without_fences(read_document(name))))

    def test_marked_values_are_the_sources(self):
        for document in self.MARKED:
            marks = self.marks(document)
            self.assertEqual(len(marks), read_document(document).count("<!-- ="))
            for mark in marks:
                with self.subTest(f"{document}: {mark[0]}"):
                    self.check_mark(mark)

    def check_mark(self, mark):
        value = calculate(mark["expression"], self.values)
        if isinstance(value, str):
            self.assertEqual(mark["text"], value)
            return
        self.assertIsNotNone(mark["number"], "no number stands before the comment")
        self.assertTrue(agrees(mark["number"], value), f"{mark['number']} and {value}")
        if mark["expression"] in self.units:
            unit = mark["unit"] if mark["unit"] in UNITS else ""
            self.assertEqual(unit, self.units[mark["expression"]])

    def test_each_constant_is_marked(self):
        for document, expected in self.MARKED.items():
            pending = set().union(*(names_of(mark["expression"])
                                    for mark in self.marks(document)))
            named = set()
            while pending:
                name = pending.pop()
                named.add(name)
                pending |= names_of(self.definitions.get(name, "0")) - named
            self.assertEqual(named - set(self.definitions), expected, document)

    def test_no_quantity_is_unmarked(self):
        for document in self.MARKED:
            text = without_fences(read_document(document))
            for begin, end in (("constants", "end of constants"), ("measured", "end of measured")):
                text = text.replace(between(text, f"<!-- {begin} -->", f"<!-- {end} -->"), "")
            unmarked = [match[0] for match in QUANTITY.finditer(text)
                        if not text.startswith("<!-- =", match.end())]
            self.assertEqual(unmarked, [], document)

    def test_commands_are_the_sources(self):
        block = between(read_document("docs/behaviour.md"), "<!-- commands -->", "\n## ")
        shown = re.search(r"^```\n(.*?)^```$", block, re.MULTILINE | re.DOTALL)[1]
        # A backslash joins two lines, and the sign stands for a blank at a line's end.
        shown = re.sub(r"\\\n +", "", shown).replace("␣", " ").splitlines()
        self.assertEqual(len(shown), 5)
        self.assertCountEqual(shown, LIBRARY.commands())


# Log lines.

LEVELS = {"debug", "info", "warning", "critical"}


class LogTable(html.parser.HTMLParser):
    """The rows of the table: their cells, and the code in each cell."""

    def __init__(self):
        super().__init__()
        self.rows = []
        self._in_code = False

    def handle_starttag(self, tag, attrs):
        if tag == "tr":
            self.rows.append([])
        elif tag == "td":
            self.rows[-1].append({"text": "", "code": []})
        elif tag == "code" and self.rows[-1]:
            self._in_code = True
            self.rows[-1][-1]["code"].append("")

    def handle_endtag(self, tag):
        if tag == "code":
            self._in_code = False

    def handle_data(self, data):
        if self.rows and self.rows[-1]:
            self.rows[-1][-1]["text"] += data
            if self._in_code:
                self.rows[-1][-1]["code"][-1] += data


class Logs(unittest.TestCase):
    """The table of log lines has those of the sources, each once, and no other."""

    @classmethod
    def setUpClass(cls):
        table = LogTable()
        table.feed(between(read_document("docs/behaviour.md"), "<!-- log lines -->",
                           "<!-- end of log lines -->"))
        cls.rows = [row for row in table.rows if row]

    def test_rows_are_complete(self):
        self.assertGreater(len(self.rows), 30)
        for row in self.rows:
            with self.subTest(row[0]["text"]):
                self.assertEqual(len(row), 5)
                self.assertIn(row[2]["text"].strip(), LEVELS)
                self.assertEqual([re.match(r"\[ (\w+) \] ", text)[1] for text in row[0]["code"]],
                                 row[1]["code"])
                self.assertRegex(row[3]["text"], r"\w.*\.\s*$")
                self.assertRegex(row[4]["text"], r"\w.*\.\s*$")

    def test_lines_are_the_sources(self):
        listed = collections.Counter(
            (level["text"].strip(), re.sub(r"\$\w+", "$", text))
            for texts, _, level, _, _ in self.rows for text in texts["code"])
        logged = collections.Counter(LIBRARY.log_lines())
        self.assertGreater(sum(logged.values()), 45)
        self.assertEqual(sorted((logged - listed).elements()), [], "missing in the table")
        self.assertEqual(sorted((listed - logged).elements()), [], "not in the sources")

    def test_printed_lines_are_the_sources(self):
        formats = LIBRARY.printed()
        self.assertEqual(formats, ["%u: %s", " %s", "\n"])
        shape = re.compile(re.escape("".join(formats[:2])).replace("%u", r"\d+")
                           .replace("%s", r"\w+"))
        text = between(read_document("docs/behaviour.md"), "### What else is printed", "\n#")
        shown = [code for code in re.findall(r"`([^`]+)`", text) if code[0].isdigit()]
        self.assertEqual(len(shown), 2)
        for line in shown:
            self.assertTrue(shape.fullmatch(line), line)


# Links.

INLINE = re.compile(r"\]\(\s*<?([^()\s>]+)>?(?:\s+\"[^\"]*\")?\s*\)")
REFERENCE = re.compile(r"^ {0,3}\[([^\]]+)\]:\s+<?([^\s>]+)", re.MULTILINE)
USE = re.compile(r"\[[^\]]+\]\[([^\]]*)\]")
ATTRIBUTE = re.compile(r"\b(?:href|src|srcset)=\"([^\"]+)\"")


def prose(text):
    """Without fences, comments and code: nothing in them is a link."""
    text = re.sub(r"<!--.*?-->", "", without_fences(text), flags=re.DOTALL)
    return re.sub(r"(`+)(?!`).+?(?<!`)\1(?!`)", "", text, flags=re.DOTALL)


def anchors(path):
    """The names that headings get where the documents are shown, and those that are given."""
    text = without_fences(path.read_text(encoding="utf-8"))
    found = set(re.findall(r"\b(?:id|name)=\"([^\"]+)\"", text))
    seen = collections.Counter()
    for heading in re.findall(r"^#{1,6} +(.+?)(?: +#+)? *$", text, re.MULTILINE):
        heading = re.sub(r"<!--.*?-->", "", heading)
        heading = re.sub(r"!?\[([^\]]*)\]\([^)]*\)", r"\1", heading)
        slug = re.sub(r"[^\w\- ]", "", heading.strip().lower()).replace(" ", "-")
        found.add(f"{slug}-{seen[slug]}" if seen[slug] else slug)
        seen[slug] += 1
    return found


def links(path):
    text = prose(path.read_text(encoding="utf-8"))
    yield from INLINE.findall(text)
    yield from (target for _, target in REFERENCE.findall(text))
    yield from ATTRIBUTE.findall(text)


class Links(unittest.TestCase):
    """Links in all documents of the tree lead to files, and to headings, that are there."""

    def test_targets_are_there(self):
        checked = 0
        for path in markdown_files():
            for link in links(path):
                parts = urllib.parse.urlsplit(link)
                if parts.scheme or parts.netloc:
                    continue
                with self.subTest(f"{path.relative_to(ROOT)}: {link}"):
                    self.check(path, parts)
                checked += 1
        self.assertGreater(checked, 50)

    def check(self, path, parts):
        self.assertFalse(parts.path.startswith("/"), "a link has to be relative")
        target = path
        if parts.path:
            target = pathlib.Path(os.path.normpath(path.parent / urllib.parse.unquote(parts.path)))
            self.assertIn(ROOT, [target, *target.parents], "it leads out of the tree")
            self.assertTrue(target.exists(), "no such file")
        if parts.fragment:
            self.assertEqual(target.suffix, ".md", "only a document has headings")
            self.assertIn(urllib.parse.unquote(parts.fragment), anchors(target), "no such heading")

    def test_references_are_defined(self):
        for path in markdown_files():
            text = prose(path.read_text(encoding="utf-8"))
            defined = {name.lower() for name, _ in REFERENCE.findall(text)}
            for used in USE.findall(text):
                self.assertIn(used.lower(), defined, path)


# Pictures.

SVG = "{http://www.w3.org/2000/svg}"


def parts_of(svg):
    """What a picture shows, less what differs between versions of graphviz: of each node and edge
    its title, its texts, how it is drawn, where its texts are, and where an edge goes. Places are
    in points, from the first text on."""
    root = xml.etree.ElementTree.fromstring(svg)
    shown, origin = [], None
    for group in root.iter(f"{SVG}g"):
        if group.get("class") not in ("node", "edge"):
            continue
        texts = [(text.text or "") for text in group.iter(f"{SVG}text")]
        places = [(float(text.get("x")), float(text.get("y"))) for text in group.iter(f"{SVG}text")]
        middle = tuple(sum(axis) / len(places) for axis in zip(*places)) if places else None
        origin = origin or middle
        place = middle and tuple(value - start for value, start in zip(middle, origin))
        shapes = [shape for shape in group if shape.tag != f"{SVG}title"]
        dashes = {shape.get("stroke-dasharray") for shape in group.iter(f"{SVG}path")} - {None}
        fills = {shape.get("fill") for shape in shapes
                 if shape.tag in (f"{SVG}path", f"{SVG}polygon")}
        shown.append((group.get("class"), group.findtext(f"{SVG}title"), texts, len(dashes),
                      sorted(fills - {None}), place,
                      road_of(shapes) if group.get("class") == "edge" else []))
    # Nodes may be drawn after edges; the first text is known only then.
    return sorted(((*part[:6], [(x - origin[0], y - origin[1]) for x, y in part[6]])
                   for part in shown), key=lambda part: part[:3])


def road_of(shapes):
    """The points of an edge's line, and of its arrow."""
    drawn = " ".join(shape.get("d") or shape.get("points") or "" for shape in shapes)
    numbers = list(map(float, re.findall(r"-?\d+(?:\.\d+)?", drawn)))
    return list(zip(numbers[::2], numbers[1::2]))


class Pictures(unittest.TestCase):
    """Each picture is made from its .dot file as it stands, and shows on each background."""

    def setUp(self):
        self.sources = sorted(PICTURES.glob("*.dot"))
        self.assertGreater(len(self.sources), 3)

    @staticmethod
    def picture(source):
        return source.with_suffix(".svg").read_text(encoding="utf-8")

    def test_each_has_a_source(self):
        self.assertEqual(sorted([source.with_suffix(".svg") for source in self.sources]
                                + [PICTURES / name for name in MEASURED]),
                         sorted(PICTURES.glob("*.svg")))

    def test_they_are_made_from_their_sources(self):
        for source in self.sources:
            try:
                drawn = subprocess.run(["dot", "-Tsvg", source], stdout=subprocess.PIPE, check=True)
            except FileNotFoundError:
                self.fail("dot is needed: apt-get install graphviz")
            with self.subTest(source.name):
                expected = parts_of(drawn.stdout)
                kept = parts_of(self.picture(source))
                self.assertEqual([part[:5] for part in kept], [part[:5] for part in expected],
                                 "script/pictures draws it anew")
                for ours, theirs in zip(kept, expected):
                    for one, other in zip(ours[5] or (), theirs[5] or ()):
                        self.assertAlmostEqual(one, other, delta=4, msg=f"place of {ours[2]}")
                    self.check_road(ours[1], ours[6], theirs[6])

    def check_road(self, edge, ours, theirs):
        self.assertEqual(len(ours), len(theirs), f"road of {edge}")
        for point, expected in zip(ours, theirs):
            for one, other in zip(point, expected):
                self.assertAlmostEqual(one, other, delta=4, msg=f"road of {edge}")

    def test_their_background_is_white(self):
        for source in self.sources:
            root = xml.etree.ElementTree.fromstring(self.picture(source))
            first = next(root.iter(f"{SVG}polygon"))
            self.assertEqual(first.get("fill"), "white", source.name)
            corners = [tuple(map(float, point.split(","))) for point in first.get("points").split()]
            width, height = (max(axis) - min(axis) for axis in zip(*corners))
            box = list(map(float, root.get("viewBox").split()))
            self.assertGreaterEqual(width, box[2] - 1, source.name)
            self.assertGreaterEqual(height, box[3] - 1, source.name)

    def test_each_is_shown_and_described(self):
        shown = {}
        for path in markdown_files():
            for text, target in re.findall(r"!\[([^\]]*)\]\(([^)]+\.svg)\)",
                                           path.read_text(encoding="utf-8")):
                shown[(path.parent / target).resolve()] = text
        for picture in PICTURES.glob("*.svg"):
            self.assertGreater(len(shown.get(picture, "")), 40, picture.name)

    def test_their_quantities_are_the_sources(self):
        values = {name: value for (_, name), value in LIBRARY.constants.items()
                  if isinstance(value, int)}
        for source in self.sources:
            text = source.read_text(encoding="utf-8")
            told = dict(re.findall(r"^// (\d.*?) = (.+)$", text, re.MULTILINE))
            labels = " ".join(label.replace("\\n", " ")
                              for label in re.findall(r'label="((?:[^"\\]|\\.)*)"', text))
            with self.subTest(source.name):
                for quantity, expression in told.items():
                    self.assertIn(quantity, labels)
                    value = calculate(expression, values)
                    self.assertTrue(agrees(quantity.split()[0], value), f"{quantity} and {value}")
                self.assertLessEqual(set(QUANTITY.findall(labels)), set(told))

    def test_the_texts_are_large_enough(self):
        for source in self.sources:
            root = xml.etree.ElementTree.fromstring(self.picture(source))
            width = float(root.get("viewBox").split()[2])
            for text in root.iter(f"{SVG}text"):
                # Shown 800 points wide at most, it is made smaller by as much.
                size = float(text.get("font-size")) * min(1, 800 / width)
                self.assertGreaterEqual(size, 9, f"{source.name}: {text.text}")


# Columns.

class Columns(unittest.TestCase):
    """No line of a document is longer than 100 columns."""

    # Its tables name functions and keys that make their rows longer.
    LEFT_OUT = {ROOT / "README.md"}

    def test_lines_are_short_enough(self):
        paths = [path for path in markdown_files() if path not in self.LEFT_OUT]
        self.assertGreaterEqual(len(paths), 2)
        for path in paths:
            lines = path.read_text(encoding="utf-8").split("\n")
            long = [number for number, line in enumerate(lines, 1) if len(line) > 100]
            self.assertEqual(long, [], f"{path.relative_to(ROOT)}: lines over 100 columns")


TOPICS = {case.__name__.lower(): case for case in (Constants, Logs, Links, Pictures, Columns)}

if __name__ == "__main__":
    tests = unittest.defaultTestLoader.loadTestsFromTestCase(TOPICS[TOPIC])
    result = unittest.TextTestRunner(verbosity=2).run(tests)
    sys.exit(not result.wasSuccessful())

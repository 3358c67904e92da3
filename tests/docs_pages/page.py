# SPDX-License-Identifier: MIT
"""A manual page as the tests see it: its source in sections, and its text."""

import pathlib
import re
import subprocess

ROOT = pathlib.Path(__file__).resolve().parent.parent.parent
MANUALS = ROOT / "docs" / "man"
ESCAPES = {r"\e": "\\", r"\(:u": "ü", r"\-": "-", r"\(dq": '"'}


def plain(text):
    """A literal line or word of the source as it is shown."""
    return re.sub(r"\\(?:\(..|.)", lambda match: ESCAPES[match[0]], text)


class Page:
    """One page of docs/man."""

    def __init__(self, name):
        self.path = MANUALS / name
        self.source = self.path.read_text(encoding="utf-8")
        parts = re.split(r"^\.Sh (.*)\n", self.source, flags=re.MULTILINE)
        self.sections = dict(zip(parts[1::2], parts[2::2]))

    def rendered(self, width):
        text = subprocess.check_output(["mandoc", "-T", "utf8", "-O", f"width={width}", self.path],
                                       encoding="utf-8")
        return re.sub(".\b", "", text)

    def lint(self):
        """What mandoc warns of."""
        return subprocess.run(["mandoc", "-T", "lint", "-W", "warning", self.path],
                              stdout=subprocess.PIPE, stderr=subprocess.STDOUT, encoding="utf-8",
                              check=False).stdout

    def literals(self, section):
        """The literal blocks of a section, as lists of lines."""
        return [[plain(line) for line in block.splitlines()] for block in
                re.findall(r"^\.Bd -literal.*\n((?:.*\n)*?)\.Ed$", self.sections[section],
                           re.MULTILINE)]

# SPDX-License-Identifier: MIT
"""The README's way from nothing to a search, as a person types it in the laboratory's shell."""

import pathlib
import re
import subprocess
import sys

import tool

ROOT = pathlib.Path(__file__).resolve().parent.parent.parent
# A sandbox of its own each time.
SHELL = [str(ROOT / "script" / "sandbox"), sys.executable, "-B", str(tool.LABORATORY / "shell.py")]


class Readme(tool.TestCase):
    """Each command works; the warnings of check are those of a device whose first server is off."""

    def test_from_nothing_to_a_search(self):
        text = (ROOT / "README.md").read_text(encoding="utf-8")
        commands = re.search(r"^```console\n(.*?)^```$", text, re.MULTILINE | re.DOTALL)[1]
        self.assertIn("hoplanectl search", commands)
        # Warnings are all right: the laboratory's clock, for one, is whatever the machine's is.
        commands, checks = re.subn(r"^hoplanectl check\b.*$", r"hoplanectl check || [ $? -eq 1 ]",
                                   commands, flags=re.MULTILINE)
        self.assertEqual(checks, 1)
        # As a word, whatever runs it.
        word = (f"mkdir ~/bin; PATH=~/bin:$PATH\n"
                f"printf '#!/bin/sh\\nexec {' '.join(tool.COMMAND)} \"$@\"\\n' >~/bin/hoplanectl\n"
                "chmod 755 ~/bin/hoplanectl\n")
        done = subprocess.run([*SHELL, "/nowhere", "bash", "-e", "-c", word + commands],
                              stdout=subprocess.PIPE, stderr=subprocess.STDOUT, encoding="utf-8",
                              timeout=200, check=False)
        self.assertEqual(done.returncode, 0, done.stdout)
        self.assertIn("192.0.2.1:9000", done.stdout.splitlines()[-1], done.stdout)

    def test_word_lab(self):
        script = ("lab --help >/dev/null\nlab server 1 on\nlab server 2 off\nlab cable pull\n"
                  "lab cable plug\nlab switch 1\nlab dhcp off\nlab dhcp on\nlab manager stop\n"
                  "lab manager go\n! lab server 1 on\n! lab server 3 on\n! lab cable\n! lab x y\n")
        done = subprocess.run([*SHELL, "/nowhere", "bash", "-e", "-c", script],
                              stdout=subprocess.PIPE, stderr=subprocess.PIPE, encoding="utf-8",
                              timeout=200, check=False)
        self.assertEqual(done.returncode, 0, done.stderr)
        self.assertEqual(done.stderr.splitlines(), [
            "lab: server 1 is on already", 'lab: cannot do "server 3 on"; see lab --help',
            'lab: cannot do "cable"; see lab --help', 'lab: cannot do "x y"; see lab --help'])


if __name__ == "__main__":
    tool.main()

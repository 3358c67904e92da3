# SPDX-License-Identifier: MIT
"""The help, the manual page and the completions tell of the same commands and options."""

import pathlib
import re
import subprocess

import tool

ROOT = pathlib.Path(__file__).resolve().parent.parent.parent
PAGE = ROOT / "docs" / "man" / "hoplanectl.1"
COMPLETION = ROOT / "tools" / "hoplanectl" / "completion"
SHARED = {"--app", "--json", "--help"}


def rendered():
    """The manual page as text, and what mandoc finds wrong with it."""
    done = subprocess.run(["mandoc", "-T", "utf8", "-W", "warning", PAGE], stdout=subprocess.PIPE,
                          stderr=subprocess.PIPE, encoding="utf-8", check=False)
    return re.sub(".\b", "", done.stdout), done.stderr


def section(text, title):
    """The part of the page under a title; subsections are titles with three blanks before them."""
    match = re.search(rf"^( *){re.escape(title)}\n(.*?)(?=^\1?\S|^   \S|\Z)", text,
                      re.MULTILINE | re.DOTALL)
    return match[2] if match else ""


class Help(tool.TestCase):
    """What --help says against the other two."""

    def setUp(self):
        super().setUp()
        overview = self.expect(0, "--help").out
        self.commands = re.findall(r"^  (\w+) ", overview.partition("Commands:\n")[2]
                                   .partition("\n\n")[0], re.MULTILINE)

    def options(self, command):
        """The command's own options."""
        text = self.expect(0, command, "--help").out.rpartition("Options:\n")[2]
        return set(re.findall(r"^  (?:-\w, )?(--[\w-]+)", text, re.MULTILINE)) - SHARED

    def test_commands(self):
        self.assertEqual(self.commands, ["show", "set", "import", "check", "plan", "probe",
                                         "search", "watch", "log"])

    def test_every_command_has_help(self):
        for command in self.commands:
            for option in ("--help", "-h"):
                text = self.expect(0, command, option).out
                self.assertTrue(text.startswith(f"Usage: hoplanectl {command} [OPTION...]"), text)
                for line in text.splitlines():
                    self.assertLessEqual(len(line), 100, line)
        self.assertEqual(self.expect(0, "-h").out, self.expect(0, "--help").out)

    def test_version(self):
        version = re.search(r"project\(Hoplane VERSION (\S+)", (ROOT / "CMakeLists.txt").read_text(
            encoding="utf-8"))[1]
        for option in ("--version", "-v"):
            self.assertEqual(self.expect(0, option).out, f"hoplanectl {version}\n")

    def test_page_is_well_formed(self):
        self.assertEqual(rendered()[1], "")

    def test_page_has_every_option(self):
        text = rendered()[0]
        for command in self.commands:
            part = section(text, command)
            self.assertTrue(part, f"the page has no section {command}")
            told = set(re.findall(r"(?<![\w-])--[a-z][\w-]*", part))
            self.assertEqual(told - SHARED, self.options(command), command)

    def test_bash_offers_every_option(self):
        script = (f"source '{COMPLETION}/hoplanectl.bash'\n"
                  "COMP_WORDS=(hoplanectl \"$@\"); COMP_CWORD=$#; _hoplanectl\n"
                  "printf '%s\\n' \"${COMPREPLY[@]}\"")

        def offered(*words):
            done = subprocess.run(["bash", "-c", script, "bash", *words], stdout=subprocess.PIPE,
                                  stderr=subprocess.PIPE, encoding="utf-8", check=False)
            self.assertEqual(done.stderr, "")
            return set(done.stdout.split())

        self.assertEqual(offered(""), set(self.commands))
        self.assertEqual(offered("--"), SHARED | {"--version"})
        self.assertEqual(offered("--app", "x", "s"), {"show", "set", "search"})
        for command in self.commands:
            words = ["network", "1"] if command == "set" else []
            self.assertEqual(offered(command, *words, "--"), SHARED | self.options(command))
        self.assertEqual(offered("set", ""), {"server", "network", "connection", "enabled"})
        self.assertEqual(offered("set", "network", ""), {"1", "2"})
        self.assertEqual(offered("set", "enabled", "o"), {"on", "off"})

    def test_bash_offers_the_applications(self):
        tool.write("my device", {})
        script = (f"source '{COMPLETION}/hoplanectl.bash'\nCOMP_WORDS=(hoplanectl --app m)\n"
                  "COMP_CWORD=2; _hoplanectl\nprintf '%s\\n' \"${COMPREPLY[@]}\"")
        self.assertEqual(subprocess.check_output(["bash", "-c", script], text=True),
                         "my\\ device\n")

    def test_zsh_knows_every_option(self):
        text = (COMPLETION / "_hoplanectl").read_text(encoding="utf-8")
        subprocess.run(["zsh", "-n", COMPLETION / "_hoplanectl"], check=True)
        for command in self.commands:
            self.assertRegex(text, rf"'{command}:|\"{command}:")
            part = re.search(rf"^ +(?:\w+ \| )*{command}(?: \| \w+)*\)(.*?)"
                             r"(?=^ +[\w |]+\)|^  esac)", text, re.MULTILINE | re.DOTALL)[1]
            if command == "set":
                part = text.partition("_hoplanectl_set() {")[2].partition("\n}")[0]
            told = set(re.findall(r"(--[a-z][\w-]*)\[", part))
            self.assertEqual(told, self.options(command), command)


if __name__ == "__main__":
    tool.main()

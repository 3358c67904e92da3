# SPDX-License-Identifier: MIT
"""The help, the manual page and the completions tell of the same commands, options and exit
statuses; what the manual page tells of the JSON objects and the items of check is what the tool
writes, and what stands in its sources."""

import collections
import os
import pathlib
import pty
import re
import shlex
import socket
import shutil
import subprocess
import tempfile

import log
import tool
from live import Running, run, wait_for_link_socket

ROOT = pathlib.Path(__file__).resolve().parent.parent.parent
PAGE = ROOT / "docs" / "man" / "hoplanectl.1"
SOURCES = ROOT / "tools" / "hoplanectl"
COMPLETION = SOURCES / "completion"
SHARED = {"--app", "--json", "--help"}
WIDTH = 80

# The parts of the page's section JSON that have the fields which a source names.
STORY = ["Steps", "Accounts"]
FIELDS_OF = {"show.cpp": ["show"], "change.cpp": ["set, import"], "check.cpp": ["check"],
             "plan.cpp": ["plan"], "probe.cpp": ["probe"], "search.cpp": ["search"],
             "watch.cpp": ["watch"], "log.cpp": ["log", *STORY],
             "livecommand.cpp": ["search", *STORY], "narrator.cpp": ["Steps"],
             "narratorlines.cpp": ["Steps"], "searchaccount.cpp": ["Accounts"]}
# Pairs of texts that are no fields: the values of change's item.
NO_FIELDS = {"change.cpp": {"switching", "connection"}}
# What only a search that fails after its 120 s tells.
LATE = {("watch", "signal"): {"error", "code"}}

# Answers as NetworkManager's does: with colons escaped unless told not to.
NMCLI = r"""#!/bin/sh
case "$*" in
  "-e no -g NAME,TYPE connection show") sed 's/\\//' ;;
  "-g NAME,TYPE connection show") cat ;;
esac <<'end'
Wired connection 1:802-3-ethernet
lo:loopback
Home of 802-3-ethernet:802-11-wireless
a\:b:802-3-ethernet
My net\:x 1:802-3-ethernet
[lan]:802-3-ethernet
it's:802-3-ethernet
a;b:802-3-ethernet
50%:802-3-ethernet
-x:802-3-ethernet
 x:802-3-ethernet
x :802-3-ethernet
hel:802-3-ethernet
path:802-3-ethernet
end
"""
# Completes each line of the file "lines" as the Tab key does; tells what was offered, and then what
# became of the line.
ZSHRC = r"""
fpath=($COMPLETION $fpath)
unsetopt auto_menu
autoload -Uz compinit
compinit -D -u
compadd() {
  local -a fitting
  (( $@[(I)-[ADO]*] )) || builtin compadd -O fitting "$@"
  offered+=($fitting)
  builtin compadd "$@"
}
zle-line-init() {
  local line
  local -aU offered
  for line in ${(f)"$(<$ZDOTDIR/lines)"}; do
    offered=()
    BUFFER=$line CURSOR=$#line
    zle complete-word
    print -r -- ${(j:|:)offered} >> $ZDOTDIR/answers
    print -r -- $BUFFER >> $ZDOTDIR/answers
  done
  exit
}
zle -N zle-line-init
"""
# The same of bash, which is told a line at a time, with Tab and Control-X A behind it.
BASHRC = r"""
PS1='<ready>'
source $COMPLETION/hoplanectl.bash
offer() {
  _hoplanectl "$@"
  local IFS='|'
  offered="${COMPREPLY[*]}"
}
complete -F offer hoplanectl
tell() {
  printf '%s\n' "$offered" "$READLINE_LINE" >> $FOLDER/answers
  READLINE_LINE='' READLINE_POINT=0 offered=''
  printf '<%s>' told
}
bind 'set completion-query-items 0'
bind -x '"\C-xa": tell'
"""


def with_nmcli(folder):
    """An environment in which NMCLI is found before others; its folder is made."""
    program = pathlib.Path(folder) / "bin" / "nmcli"
    program.parent.mkdir()
    program.write_text(NMCLI, encoding="utf-8")
    program.chmod(0o755)
    return os.environ | {"PATH": f"{program.parent}:{os.environ['PATH']}"}


def start(words, environment):
    """Starts a shell on a terminal, as it wants for completion; its number and the terminal."""
    process, terminal = pty.fork()
    if process == 0:
        try:
            os.execvpe(words[0], words, environment | {"TERM": "xterm"})
        finally:
            os._exit(127)
    return process, terminal


def read_until(terminal, mark):
    """Reads until the mark comes, or the terminal's other end is closed."""
    text = b""
    try:
        while mark not in text:
            text += os.read(terminal, 65536)
    except OSError:
        pass


def in_pairs(folder):
    """What was offered for each line, and what the line is then."""
    answers = (folder / "answers").read_text(encoding="utf-8").split("\n")
    return [(set(offered.split("|")) - {""}, line)
            for offered, line in zip(answers[::2], answers[1::2])]


def zsh_answers(lines):
    """What zsh offers behind each line, and what the line is then."""
    with tempfile.TemporaryDirectory() as name:
        folder = pathlib.Path(name)
        (folder / ".zshrc").write_text(ZSHRC, encoding="utf-8")
        (folder / "lines").write_text("".join(line + "\n" for line in lines), encoding="utf-8")
        process, terminal = start(["zsh", "-d", "-i"], with_nmcli(folder) | {
            "ZDOTDIR": name, "COMPLETION": str(COMPLETION)})
        read_until(terminal, b"\0")
        os.close(terminal)
        os.waitpid(process, 0)
        return in_pairs(folder)


def bash_answers(lines):
    """What bash offers behind each line, and what the line is then."""
    with tempfile.TemporaryDirectory() as name:
        folder = pathlib.Path(name)
        (folder / "bashrc").write_text(BASHRC, encoding="utf-8")
        process, terminal = start(["bash", "--rcfile", f"{name}/bashrc", "-i"],
                                  with_nmcli(folder) | {"FOLDER": name,
                                                        "COMPLETION": str(COMPLETION)})
        read_until(terminal, b"<ready>")
        for line in lines:
            os.write(terminal, line.encode() + b"\t\x18a")
            read_until(terminal, b"<told>")
        os.write(terminal, b"exit\r")
        read_until(terminal, b"\0")
        os.close(terminal)
        os.waitpid(process, 0)
        return in_pairs(folder)


class Item:
    """An item of a list of the page, with the lists in it and the lines before each of them."""

    def __init__(self, head):
        self.head = head
        self.names = re.findall(r"[\w-]+", re.sub(r"\b(Cm|Fl|Ar|Ns)\b", "", head))
        self.text = ""
        self.fields = []  # of other objects, that it names
        self.quoted = []
        self.lists = []

    def add(self, line):
        words = re.sub(r"^\.\w\w ", "", line)
        if line.startswith(".Cm "):
            self.fields += re.findall(r"[\w-]+", words)
        if line.startswith(".Dq "):
            self.quoted.append(words.rstrip(" .,:;"))
        self.text += " " + words

    def parts(self):
        """What the lists in it have, by name: the item, and the lines before its list."""
        return {name: (item, lead) for lead, items in self.lists for item in items
                for name in item.names}


def read_list(lines):
    """The items up to the list's end."""
    items, lead = [], ""
    for line in lines:
        if line == ".El":
            break
        if line.startswith(".It "):
            items.append(Item(line[4:]))
            lead = ""
        elif line.startswith(".Bl "):
            items[-1].lists.append((lead, read_list(lines)))
        elif line != ".Pp":
            items[-1].add(line)
            lead = line
    return items


def read_part(lines):
    """The lists of a part of the page, each with the line before it."""
    lists, lead = [], ""
    lines = iter(lines)
    for line in lines:
        if line.startswith(".Bl "):
            lists.append((lead, read_list(lines)))
        elif line != ".Pp":
            lead = line
    return lists


def read_page():
    """The lines of each part of the page, by its section and its subsection."""
    parts = collections.defaultdict(list)
    section = subsection = ""
    for line in PAGE.read_text(encoding="utf-8").splitlines():
        if line.startswith(".Sh "):
            section, subsection = line[4:], ""
        elif line.startswith(".Ss "):
            subsection = line[4:]
        elif not line.startswith('.\\"'):
            parts[section, subsection].append(line)
    return parts


def options_in(lines):
    """The long options that the lines name."""
    return {"--" + name for line in lines for name in re.findall(r"Fl Fl ([\w-]+)", line)}


def source(name):
    return (SOURCES / name).read_text(encoding="utf-8")


def joined_literals():
    """The texts of all sources, those in pieces put together."""
    text = "".join(source(path.name) for path in SOURCES.glob("*.cpp"))
    return re.sub(r'"\s*"', "", text)


def rendered(*options):
    """The manual page as text, and what mandoc finds wrong with it."""
    done = subprocess.run(["mandoc", "-T", "utf8", "-W", "warning", *options, PAGE],
                          stdout=subprocess.PIPE, stderr=subprocess.PIPE, encoding="utf-8",
                          check=False)
    return re.sub(".\b", "", done.stdout), done.stderr


class TestCase(tool.TestCase):
    """Knows the commands that --help lists, and the page."""

    def setUp(self):
        super().setUp()
        overview = self.expect(0, "--help").out
        self.commands = re.findall(r"^  (\w+) ", overview.partition("Commands:\n")[2]
                                   .partition("\n\n")[0], re.MULTILINE)
        self.page = read_page()

    def options(self, command):
        """The command's own options."""
        text = self.expect(0, command, "--help").out.rpartition("Options:\n")[2]
        return set(re.findall(r"^  (?:-\w, )?(--[\w-]+)", text, re.MULTILINE)) - SHARED


class Help(TestCase):
    """What --help says against the page and the completions."""

    def test_commands(self):
        self.assertEqual(self.commands, ["show", "set", "import", "check", "plan", "probe",
                                         "search", "watch", "log"])
        self.assertEqual([part for section, part in self.page if section == "COMMANDS" and part],
                         self.commands)

    def test_every_command_has_help(self):
        for command in self.commands:
            for option in ("--help", "-h"):
                text = self.expect(0, command, option).out
                self.assertTrue(text.startswith(f"Usage: hoplanectl {command} [OPTION...]"), text)
                for line in text.splitlines():
                    self.assertLessEqual(len(line), 100, line)
        self.assertEqual(self.expect(0, "-h").out, self.expect(0, "--help").out)

    def test_help_and_version_are_text_with_json_too(self):
        for option in ("--help", "--version"):
            self.assertEqual(self.expect(0, "--json", option).out, self.expect(0, option).out)

    def test_version(self):
        version = re.search(r"project\(Hoplane VERSION (\S+)", (ROOT / "CMakeLists.txt").read_text(
            encoding="utf-8"))[1]
        for option in ("--version", "-v"):
            self.assertEqual(self.expect(0, option).out, f"hoplanectl {version}\n")

    def test_page_is_well_formed(self):
        text, trouble = rendered("-O", f"width={WIDTH}")
        self.assertEqual(trouble, "")
        self.assertEqual([line for line in text.splitlines() if len(line) > WIDTH], [])
        self.assertNotIn("@", PAGE.read_text(encoding="utf-8"))

    def test_page_has_every_option(self):
        self.assertEqual(options_in(self.page["DESCRIPTION", ""]), SHARED | {"--version"})
        for command in self.commands:
            told = options_in(self.page["COMMANDS", command])
            self.assertEqual(told - SHARED, self.options(command), command)

    def offered_by(self, answers, table):
        """Each line of the table has the offers that it should have."""
        self.assertEqual(len(answers), len(table))
        for (words, expected), (offered, _) in zip(table, answers):
            with self.subTest(line=words):
                self.assertEqual(offered - {"-h", "-v"}, expected)

    def test_bash_offers(self):
        """At each position of a line what may stand there."""
        tool.write("my device", {})
        tool.write("failover", {})
        commands, applications = set(self.commands), {r"my\ device", "failover"}
        names = {r"Wired\ connection\ 1", "a:b", r"My\ net:x\ 1", r"\[lan\]"}
        network = SHARED | self.options("set")
        static = network - {"--dhcp"}
        table = [("", commands), ("--", SHARED | {"--version"}),
                 ("--app ", applications), ("--app=", applications), ("--app=f", {"failover"}),
                 ("--app=failover ", commands), ("--app x s", {"show", "set", "search"}),
                 ("--app=failover set enabled ", {"on", "off"}), ("show --app f", {"failover"}),
                 (r"--app my\ ", {r"my\ device"}), ("show --app=x --", SHARED | {"--raw"}),
                 ("set ", {"server", "network", "connection", "enabled"}),
                 ("set server ", {"1", "2"}), ("set server 1 ", set()),
                 ("set network ", {"1", "2"}), ("set network 1 ", set()),
                 ("set network 1 --address=10.0.0.2/24 ", set()),
                 ("set network --", network), ("set network 1 --", network),
                 ("set network 1 --dhcp --", SHARED),
                 ("set network 1 --address 10.0.0.2/24 --", static - {"--address"}),
                 ("set network 1 --gateway=10.0.0.1 --", static - {"--gateway"}),
                 ("set network 1 --address=10.0.0.2/24 --gateway 10.0.0.1 --",
                  static - {"--address", "--gateway"}),
                 ("set network 1 --dns 10.0.0.1 --", static),
                 ("set network 1 --address", {"--address"}), ("set network 1 --dh", {"--dhcp"}),
                 ("set connection a:", {"b"}), ("set connection a : ", set()),
                 ("set server 1 10.0.0.1:80 --", SHARED),
                 ("set server 1 --", SHARED), ("set enabled of", {"off"}),
                 ("set connection ", names), ("set connection W", {r"Wired\ connection\ 1"}),
                 (r"set connection Wired\ c", {r"Wired\ connection\ 1"}),
                 ('set connection "Wired c', {"Wired connection 1"}),
                 ("set connection 'Wi", {"Wired connection 1"}), ("set connection x ", set()),
                 *((f"{command} --", SHARED | self.options(command)) for command in self.commands
                   if command != "set")]
        self.offered_by(bash_answers(["hoplanectl " + words for words, _ in table]), table)

    def test_bash_completes(self):
        """Names with blanks and folders are taken over as the shell wants them."""
        folder = tool.HOME / "a folder"
        folder.mkdir(exist_ok=True)
        (folder / "x y.log").touch()
        table = [("set connection W", r"set connection Wired\ connection\ 1 "),
                 ('set connection "Wi', 'set connection "Wired connection 1" '),
                 ("set connection 'Wi", "set connection 'Wired connection 1' "),
                 ("set connection a", "set connection a:b "),
                 ("set connection a:", "set connection a:b "),
                 ('set connection "a:', 'set connection "a:b" '),
                 (r"set connection My\ net:", r"set connection My\ net:x\ 1 "),
                 (r"set connection My\ net:x\ ", r"set connection My\ net:x\ 1 "),
                 ("--app a:b set en", "--app a:b set enabled "),
                 (f"log {tool.HOME}/a", rf"log {tool.HOME}/a\ folder/"),
                 (f'import --from "{tool.HOME}/a', f'import --from "{tool.HOME}/a folder"/'),
                 (f'log "{tool.HOME}/a folder"/', rf'log {tool.HOME}/a\ folder/x\ y.log '),
                 (f"import --from={tool.HOME}/a", rf"import --from={tool.HOME}/a\ folder/")]
        answers = bash_answers(["hoplanectl " + words for words, _ in table])
        self.assertEqual([line for _, line in answers],
                         ["hoplanectl " + expected for _, expected in table])

    def test_documents_elsewhere(self):
        """The user's documents are not in Documents: the tool and both completions know that."""
        settings = tool.HOME / ".config" / "user-dirs.dirs"
        settings.parent.mkdir(exist_ok=True)
        self.addCleanup(settings.unlink)
        for folder, written in ((tool.HOME / "My papers", "$HOME/My papers"),
                                (pathlib.Path("/sandbox/tmp/papers"), "/sandbox/tmp/papers")):
            self.addCleanup(shutil.rmtree, folder)
            (folder / "elsewhere").mkdir(parents=True)
            settings.write_text(f'# ours\nXDG_MUSIC_DIR="$HOME"\nXDG_DOCUMENTS_DIR="{written}"\n',
                                encoding="utf-8")
            with self.subTest(folder=folder):
                self.expect(0, "--app", "elsewhere", "set", "enabled", "on")
                path = folder / "elsewhere" / "switch.ini"
                self.assertIn(f"file         {path}\n", self.expect(0, "show").out)
                for answers in bash_answers, zsh_answers:
                    self.assertEqual(answers(["hoplanectl --app "]),
                                     [({"elsewhere"}, "hoplanectl --app elsewhere ")])

    def test_zsh_knows_every_option(self):
        text = (COMPLETION / "_hoplanectl").read_text(encoding="utf-8")
        subprocess.run(["zsh", "-n", COMPLETION / "_hoplanectl"], check=True)
        for command in self.commands:
            self.assertRegex(text, rf"'{command}:|\"{command}:")
            part = re.search(rf"^ +(?:\w+ \| )*{command}(?: \| \w+)*\)(.*?)"
                             r"(?=^ +[\w |]+\)|^  esac)", text, re.MULTILINE | re.DOTALL)[1]
            if command == "set":
                part = text.partition("_hoplanectl_set() {")[2].partition("\n}")[0]
            told = set(re.findall(r"(--[a-z][\w-]*)=?\[", part))
            self.assertEqual(told, self.options(command), command)

    def test_zsh_offers(self):
        """At each position of a line what may stand there, and only options behind the last."""
        tool.write("my device", {})
        tool.write("failover", {})
        number, state = {"1", "2"}, {"on", "off"}
        names = {"Wired connection 1", "a:b", "My net:x 1", "[lan]"}
        network = SHARED | self.options("set")
        table = [("", set(self.commands)), ("--", SHARED | {"--version"}),
                 ("--app ", {"my device", "failover"}), ("--app=", {"my device", "failover"}),
                 ("show --app f", {"failover"}),
                 ("set ", {"server", "network", "connection", "enabled"}),
                 ("set server ", number), ("set server 1 ", set()),
                 ("set server 1 192.0.2.1:9000 ", SHARED),
                 ("set network ", number), ("set network 1 ", set()),
                 ("set network --", network), ("set network 1 --", network),
                 ("set --app x network 1 --", network),
                 ("set network 1 --dhcp --", SHARED),
                 ("set network 1 --address 10.0.0.2/24 --", network - {"--address", "--dhcp"}),
                 ("set network 1 --dns=10.0.0.1 --", network - {"--dhcp"}),
                 ("set server 1 --", SHARED),
                 ("set enabled ", state), ("set enabled of", {"off"}), ("set enabled on ", set()),
                 ("set connection ", names), ("set connection W", {"Wired connection 1"}),
                 ("set connection x ", set()), ("--json --app x set enabled ", state),
                 ("log /sandb", {"sandbox"}), ("import --from /sandb", {"sandbox"}),
                 *((f"{command} --", SHARED | self.options(command)) for command in self.commands
                   if command != "set")]
        self.offered_by(zsh_answers(["hoplanectl " + words for words, _ in table]), table)

    def test_zsh_completes(self):
        """A name with blanks is taken over as the shell wants it."""
        for words, expected in (("set connection W", r"set connection Wired\ connection\ 1 "),
                                ('set connection "W', 'set connection "Wired connection 1" '),
                                ("set enabled of", "set enabled off ")):
            with self.subTest(line=words):
                (_, line), = zsh_answers(["hoplanectl " + words])
                self.assertEqual(line, "hoplanectl " + expected)


class Statuses(TestCase):
    """Exit statuses: of the help, of each command's part of the page, and of the page's table."""

    def of_help(self, command):
        text = self.expect(0, command, "--help").out
        told = re.search(r"Exit status:(.*?)\n(?:\n|\Z)", text, re.DOTALL)
        return set(re.findall(r"\b\d+\b", told[1])) if told else set()

    def of_part(self, command):
        return {re.match(r"\d+", item.head)[0]
                for lead, items in read_part(self.page["COMMANDS", command])
                if lead == "Exit status:" for item in items}

    def table(self):
        """By command: the statuses that have a meaning."""
        heads, *rows = [item.head.split(" Ta ") for item in
                        read_part(self.page["EXIT STATUS", ""])[0][1]]
        heads = [re.search(r"\d+", head)[0] for head in heads[1:]]
        return {row[0].removeprefix("Cm "): {head for head, cell in zip(heads, row[1:], strict=True)
                                             if cell != "-"} for row in rows}

    def test_help_and_page(self):
        named = {command: self.of_help(command) for command in self.commands}
        self.assertEqual({command for command in named if not named[command]},
                         {"show", "set", "import"})
        for command in self.commands:
            self.assertEqual(self.of_part(command), named[command], command)

    def test_table(self):
        """All of them, wrong usage, and success and failure where the help names none."""
        table = self.table()
        self.assertEqual(list(table), self.commands)
        for command in self.commands:
            expected = (self.of_help(command) or {"0", "1"}) | {"64"}
            self.assertEqual(table[command], expected, command)

    def test_wrong_usage(self):
        for command in self.commands:
            result = self.expect(64, command, "--nonsense")
            self.assertIn(f"see hoplanectl {command} --help", result.err)

    def test_no_application(self):
        """What the page says of a command that does not know which application is meant."""
        tool.write("one", {})
        tool.write("two", {})
        for command, status in (("show", 1), ("import", 1), ("plan", 1), ("check", 64),
                                ("search", 2), ("watch", 2)):
            device = tool.HOME / "device.ini"
            device.write_text("[NetworkConnections]\nconName=lan\n", encoding="utf-8")
            words = [command] + (["--from", str(device)] if command == "import" else [])
            self.assertIn("several applications have", self.expect(status, *words).err)
        self.expect(1, "set", "enabled", "on")

    def test_results_that_cannot_be_written(self):
        tool.write("one", {})
        for words in (["show"], ["show", "--help"], ["--help"], ["--version"], ["-h"], ["-v"]):
            with self.subTest(words), open("/dev/full", "w", encoding="utf-8") as full:
                done = subprocess.run([*tool.COMMAND, *words], stdout=full, stderr=subprocess.PIPE,
                                      encoding="utf-8", check=False)
                self.assertEqual((done.returncode, done.stderr),
                                 (1, "hoplanectl: the results could not be written\n"))


class Words(TestCase):
    """Items of check, examples and messages."""

    def items(self):
        return [name for lead, items in read_part(self.page["COMMANDS", "check"])
                if lead.startswith("The items") for item in items for name in item.names]

    def test_items_of_check(self):
        """The sources', the page's and those of a run are the same, in the same order."""
        ids = re.findall(r'^    \{ "([a-z0-9-]+)", [\w |]+, ', source("check.cpp"), re.MULTILINE)
        self.assertGreater(len(ids), 20)
        self.assertEqual(self.items(), ids)
        tool.write("failover", {})
        told = [found["item"] for found in self.expect(2, "check", "--probe", "--json").objects
                if found["type"] == "check"]
        self.assertEqual(list(dict.fromkeys(told)), ids)

    def example_lines(self):
        for lines in self.page.values():
            inside = False
            for line in lines:
                if line.startswith((".Bd", ".Ed")):
                    inside = line.startswith(".Bd")
                elif inside:
                    yield line

    def test_examples(self):
        """Each names commands and options that there are; what they set can be set."""
        count = 0
        for line in self.example_lines():
            for part in re.split(r"[|>]", line):
                words = shlex.split(part) if "hoplanectl" in part else []
                if words[:1] != ["hoplanectl"]:
                    continue
                count += 1
                if words[1] == "--app":
                    del words[1:3]
                self.assertIn(words[1], self.commands)
                told = {word for word in words if word.startswith("--")}
                self.assertLessEqual(told, SHARED | self.options(words[1]), line)
            if line.startswith("hoplanectl") and " set " in line:
                self.expect(0, *shlex.split(line)[1:])
        self.assertGreater(count, 9)
        self.expect(0, "plan")

    def test_messages(self):
        """Those that the page explains stand in the sources."""
        literals = joined_literals()
        messages = read_part(self.page["DIAGNOSTICS", ""])[0][1]
        self.assertGreater(len(messages), 5)
        for message in messages:
            for piece in re.split(r"Ar \w+(?: No)?", message.head):
                self.assertIn(piece.strip(), literals)


class Objects(TestCase):
    """The fields of each type of object, as the tool writes them."""

    def setUp(self):
        super().setUp()
        # It never takes what it accepts.
        listener = socket.create_server(("127.0.0.1", 0), backlog=100)
        self.addCleanup(listener.close)
        self.port = listener.getsockname()[1]

    def types(self, *parts):
        """The types that parts of the section JSON have, each with its item of the page."""
        found = {}
        for part in parts:
            lists = read_part(self.page["JSON", part])
            self.assertTrue(lists, part)
            for lead, items in lists:
                if not lead.startswith("The kinds"):
                    found |= {name: item for item in items for name in item.names}
        return found

    def check_value(self, where, value, item):
        """The page tells what kind of value this is, and which texts there are."""
        words = {bool: "True or false", int: "Number", float: "Number", list: "List",
                 dict: "Object"}
        text = item.text.strip()
        if value is None:
            self.assertIn("null", text, where)
        elif isinstance(value, str):
            self.assertNotRegex(text, "^(True or false|Number|List|Object)", where)
            if item.quoted:
                self.assertIn(value, item.quoted, where)
        else:
            self.assertTrue(text.startswith(words[type(value)]), (where, value, text))

    def check_fields(self, where, objects, item, late=frozenset()):
        """The page names the fields that are there, no others, and those that may be missing."""
        parts = item.parts()
        told = {name for thing in objects for name in thing} - {"type"}
        self.assertEqual(set(parts) - late, told, where)
        for name in told:
            field, lead = parts[name]
            values = [thing[name] for thing in objects if name in thing]
            if len(values) < len(objects):
                self.assertRegex(field.text + lead, "Missing|Only|only|also", (*where, name))
            for value in values:
                self.check_value((*where, name), value, field)
            self.assertEqual("null" in field.text, None in values, (*where, name))
            inner = [thing for value in values
                     for thing in (value if isinstance(value, list) else [value])
                     if isinstance(thing, dict)]
            if inner:
                self.check_fields((*where, name), inner, field)

    def check_objects(self, objects, *parts):
        """The page's types are the objects' types, with their fields."""
        types = self.types(*parts)
        self.assertEqual({thing["type"] for thing in objects}, set(types), parts)
        for item in types.values():
            things = [thing for thing in objects if thing["type"] in item.names]
            self.check_fields((*parts, item.head), things, item,
                              LATE.get((parts[0], item.names[0]), frozenset()))

    def configure(self, enabled=True, **values):
        """A server that accepts beside the first network; both networks automatic."""
        tool.write("failover", {"SwitchEnable": str(enabled).lower(), "connectionName": "lan",
                                "FirstServerIp": "127.0.0.1", "FirstServerPort": self.port,
                                "FirstIsAutomatically": "false", "SecondServerIp": "127.0.0.1",
                                "SecondServerPort": 1, "SecondIsAutomatically": "false"} | values)

    def both_static(self):
        static = {"IsAutomatically": "true", "LocalMask": "255.255.255.0"}
        values = {which + key: value for which in ("First", "Second")
                  for key, value in static.items()}
        self.configure(FirstLocalIp="198.51.100.2", SecondLocalIp="192.0.2.2", **values)

    def objects(self, status, *arguments, **options):
        return self.expect(status, *arguments, "--json", **options).objects

    def device_file(self):
        path = tool.HOME / "device.ini"
        path.write_text("[NetworkConnections]\nconName=wired\nMasterNet\\bDhcpEnabled=false\n",
                        encoding="utf-8")
        return str(path)

    def test_show(self):
        self.configure()
        self.check_objects(self.objects(0, "show") + self.objects(0, "show", "--raw"), "show")

    def test_set_and_import(self):
        self.configure()
        objects = (self.objects(0, "set", "server", "1", "192.0.2.9:1")
                   + self.objects(0, "set", "server", "2", "192.0.2.9:2")
                   + self.objects(0, "set", "enabled", "off")
                   + self.objects(0, "import", "--dry-run", "--from", self.device_file()))
        self.check_objects(objects, "set, import")
        words = self.types("set, import")["change"].parts()["item"][0].quoted
        self.assertLessEqual(NO_FIELDS["change.cpp"], set(words))

    def test_check(self):
        objects = self.objects(2, "check")
        self.configure()
        self.check_objects(objects + self.objects(2, "check", "--probe"), "check")

    def test_plan(self):
        objects = self.objects(1, "plan", "--app", "nobody")
        self.configure()
        objects += self.objects(0, "plan")
        self.both_static()
        self.check_objects(objects + self.objects(0, "plan"), "plan")

    def test_probe(self):
        objects = (self.objects(0, "probe", f"localhost:{self.port}")
                   + self.objects(1, "probe", "127.0.0.1:1", "--attempts", "2", "--interval", "1")
                   + self.objects(3, "probe", "127.0.0:1"))
        self.check_objects(objects, "probe")

    def own(self, objects, command):
        """The objects of a command that are not those of a story."""
        story = self.types(*STORY)
        self.assertEqual(set(story) & set(self.types(command)), set())
        return [thing for thing in objects if thing["type"] not in story]

    def searched(self):
        """Searches that end in all ways but after 120 s, without NetworkManager."""
        self.configure(enabled=False)
        objects = self.objects(2, "search")
        self.configure()
        objects += self.objects(0, "search", "--verbose")
        self.configure(FirstServerPort=1, SecondIsAutomatically="true", SecondServerPort=2)
        return objects + self.objects(1, "search", "--timeout", "1")

    def watched(self):
        """A link goes down and comes up again."""
        run("ip", "link", "add", "eth0", "type", "veth", "peer", "name", "port0")
        self.addCleanup(run, "ip", "link", "del", "eth0")
        for name in ("eth0", "port0"):
            run("ip", "link", "set", name, "up")
        self.configure()
        program = Running("watch", "--json")
        self.addCleanup(program.stop)
        wait_for_link_socket(program.pid)
        run("ip", "link", "set", "eth0", "down")
        program.expect('"signal":"switchBegin"')
        run("ip", "link", "set", "eth0", "up")
        program.expect('"signal":"switchSuccess"')
        self.assertEqual(program.end(), 130)
        return tool.Result(subprocess.CompletedProcess([], 130, "\n".join(program.lines),
                                                       "")).objects

    def logged(self):
        """Each line that the library may log, and each real log."""
        skips = [log.compared(1, ""), log.same(1), log.compared(2, ""), log.same(2)]
        logs = [[*before, line] for line, before, _ in log.TABLE] + [
            [log.switch_event(0), *log.LOAD, *log.turn(1), *log.turn(2)],
            [*log.LOAD, *3 * skips],
            ["[ loadConfig ] something new"],
            [*log.failing(1, 2), "[ tryConnectRemote ] local IP =  \"\"", log.reached(1)[1]]]
        logs.append([f"2026-01-0{day}T08:00:00 {line}" for day, line in enumerate(log.TURN, 1)])
        lines = "".join(line + "\n" for lines in logs for line in [log.NEW, *lines])
        objects = self.objects(0, "log", stdin=lines)
        for path in sorted(log.GOLDEN.glob("*.log")):
            objects += self.objects(0, "log", str(path))
        return objects

    def test_search(self):
        self.check_objects(self.own(self.searched(), "search"), "search")

    def test_watch(self):
        self.check_objects(self.own(self.watched(), "watch"), "watch")

    def test_log(self):
        self.check_objects(self.own(self.logged(), "log"), "log")

    def kinds(self):
        """The kinds of steps, each with its item of the page."""
        return {name: item for lead, items in read_part(self.page["JSON", "Steps"])
                if lead.startswith("The kinds") for item in items for name in item.names}

    def test_steps(self):
        """What search, watch and log tell of what happens, and of how it ends."""
        objects = [thing for part in (self.searched(), self.watched(), self.logged())
                   for thing in part if thing["type"] in self.types(*STORY)]
        self.check_objects(objects, *STORY)
        kinds = self.kinds()
        names = re.search(r"names\[\] = \{(.*?)\}", source("narrator.cpp"), re.DOTALL)[1]
        self.assertEqual(list(kinds), re.findall(r'"([\w-]+)"', names))
        by_kind = collections.defaultdict(list)
        for thing in objects:
            if thing["type"] == "step":
                by_kind[thing["step"]].append(thing)
        self.assertEqual(set(by_kind), set(kinds))
        step = self.types("Steps")["step"]
        common, special = ({name for item in items for name in item.names}
                           for _, items in step.lists)
        self.assertEqual(common & special, set())
        self.assertEqual(special, {name for item in kinds.values() for name in item.fields})
        for kind, things in by_kind.items():
            told = {name for thing in things for name in thing} & special
            self.assertEqual(told, set(kinds[kind].fields), kind)
            if any(set(thing) & special != told for thing in things):
                self.assertRegex(kinds[kind].text, r"\b(Of|If|unless) ", kind)
        timed = {kind for kind, things in by_kind.items()
                 if any("duration" in thing for thing in things)}
        told = re.search(r"Only of (.*?)\.", step.parts()["duration"][0].text)[1]
        self.assertEqual(timed, set(re.findall(r"\w+", told)) - {"and"})

    def test_sources(self):
        """Each name that the sources give a field stands in its part of the page, and no other."""
        value = r'(?:[^\[\]{}",;]*\? ?)?QStringLiteral\("([a-z]\w*)"\)' \
            r'(?:\s*:\s*QStringLiteral\("([a-z]\w*)"\))?'
        in_page = collections.defaultdict(set)
        in_sources = collections.defaultdict(set)
        for path in sorted(SOURCES.glob("*.cpp")):
            text = re.sub(r"line\.add\(\s*\{.*?\}\s*\)", "", source(path.name), flags=re.DOTALL)
            found = set(re.findall(rf"\[\s*{value}\s*\]", text))
            if re.search(r"QJsonObject|object\(\{", text):
                found |= set(re.findall(rf"\{{\s*{value}\s*,", text))
            names = {name for pair in found for name in pair if name}
            types = re.findall(r'QStringLiteral\("type"\)[ ,\]=}]*\s*(?:kind[^"]*)?'
                               r'QStringLiteral\("(\w+)"\)', text)
            types += re.findall(r'placed\("(\w+)"', text)
            names = (names | set(types)) - {"type"} - NO_FIELDS.get(path.name, set())
            if not names:
                continue
            self.assertIn(path.name, FIELDS_OF, "where does the page have its fields?")
            for part in FIELDS_OF[path.name]:
                in_page[path.name] |= self.names(self.types(part).values())
            self.assertLessEqual(names, in_page[path.name], path.name)
            for part in FIELDS_OF[path.name]:
                in_sources[part] |= names
        self.assertEqual(set(in_page), set(FIELDS_OF))
        for part, names in in_sources.items():
            self.assertEqual(self.names(self.types(part).values()) - names, set(), part)

    def names(self, items):
        """Of the items and of all in them."""
        return {name for item in items for name in item.names} | {
            name for item in items for _, inner in item.lists for name in self.names(inner)}


if __name__ == "__main__":
    tool.main()

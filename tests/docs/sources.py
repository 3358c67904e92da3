# SPDX-License-Identifier: MIT
"""What the documents tell of the library's sources: its constants, commands and log lines.

It understands as much of C++ as the sources use. What it does not understand is an error, never
left out: a new kind of log line has to be taught here.
"""

import collections
import re

FOLDERS = ("facade", "worker", "watcher")
LITERAL = r'"(?:[^"\\]|\\.)*"'
Function = collections.namedtuple("Function", "file name signature body")
Call = collections.namedtuple("Call", "level function pieces")


class NotUnderstood(Exception):
    pass


def text_of(literals):
    """The text of adjacent C++ literals."""
    joined = "".join(literal[1:-1] for literal in re.findall(LITERAL, literals))
    return re.sub(r"\\(.)", lambda escape: {"n": "\n", "t": "\t"}.get(escape[1], escape[1]), joined)


def is_literals(text):
    return re.fullmatch(rf"(?:{LITERAL}\s*)+", text) is not None


def value_of(expression):
    """Of a literal, or of a product of them; None of anything else."""
    expression = expression.strip()
    if is_literals(expression):
        return text_of(expression)
    number = r"-?(?:0x[0-9A-Fa-f]+|\d+)"
    if not re.fullmatch(rf"{number}(?: \* {number})*", expression):
        return None
    product = 1
    for factor in expression.split(" * "):
        product *= int(factor, 0)
    return product


def split(text, separator):
    """At the separators that stand in no literal and in no brackets."""
    parts, depth, begin, position = [], 0, 0, 0
    while position < len(text):
        if literal := re.compile(LITERAL).match(text, position):
            position = literal.end()
            continue
        character = text[position]
        depth += (character in "([{") - (character in ")]}")
        if depth == 0 and text.startswith(separator, position):
            parts.append(text[begin:position].strip())
            position += len(separator)
            begin = position
            continue
        position += 1
    return [*parts, text[begin:].strip()]


def in_brackets(text, begin):
    """What stands in the brackets that open at this position."""
    depth, position = 0, begin
    while True:
        if literal := re.compile(LITERAL).match(text, position):
            position = literal.end()
            continue
        depth += (text[position] == "(") - (text[position] == ")")
        if depth == 0:
            return text[begin + 1:position]
        position += 1


class Code:
    def __init__(self, root):
        self._texts = {}
        for folder in FOLDERS:
            for path in sorted((root / folder).glob("*")):
                if path.suffix in (".cpp", ".h"):
                    code = path.read_text(encoding="utf-8")
                    code = re.sub(r"/\*.*?\*/", "", code, flags=re.DOTALL)
                    self._texts[path.name] = re.sub(r"^\s*//.*$", "", code, flags=re.MULTILINE)
        self._functions = [function for file, text in self._texts.items()
                           for function in self._functions_of(file, text)]
        self.constants = self._find_constants()

    # Constants.

    def _find_constants(self):
        found = {}
        for file, text in self._texts.items():
            for name, expression in re.findall(
                    r"\bconst(?:expr)? [\w: ]+?\b(\w+)(?:\[\])? = ([^;]+);", text):
                value = value_of(expression)
                if value is not None:
                    if found.setdefault((file, name), value) != value:
                        raise NotUnderstood(f"{file} has two constants {name}")
        return found

    def constant(self, file, name):
        """None if there is none. A name with brackets is that of a function that is called with one
        number."""
        if not name.endswith("()"):
            return self.constants.get((file, name))
        numbers = set(re.findall(rf"\b{name[:-2]}\((\d+)\)", self._texts.get(file, "")))
        return int(numbers.pop()) if len(numbers) == 1 else None

    def failure_text(self):
        texts = re.findall(r"mySwitchFailed\(QStringLiteral\(((?:\"[^\"]*\"\s*)+)\)",
                           self._texts["failover.cpp"])
        return text_of(texts[0]) if len(texts) == 1 else None

    def commands(self):
        return [value for value in self.constants.values()
                if isinstance(value, str) and value.startswith("nmcli ")]

    # Functions.

    @staticmethod
    def _functions_of(file, text):
        for match in re.finditer(r"^\{\n(.*?)^\}", text, re.MULTILINE | re.DOTALL):
            signature = re.split(r"\n\s*\n|^\}.*$|;\n", text[:match.start()],
                                 flags=re.MULTILINE)[-1].strip()
            if name := re.search(r"(~?\w+)\(", signature):
                yield Function(file, name[1], signature, match[1])

    def _parameters(self, function):
        begin = function.signature.index("(")
        declared = split(in_brackets(function.signature, begin), ",")
        return [re.search(r"(\w*)$", parameter.split(" = ")[0])[1] for parameter in declared]

    def _calls_of(self, name):
        """Each place that calls the function: the caller, and the arguments."""
        for caller in self._functions:
            for match in re.finditer(rf"(?<![\w:.>]){name}\(", caller.body):
                yield caller, split(in_brackets(caller.body, match.end() - 1), ",")

    def _named(self, function, identifier):
        """The texts that an identifier stands for: a constant, or what callers hand down."""
        if identifier == "__func__":
            return [function.name]
        if is_literals(identifier):
            return [text_of(identifier)]
        constants = {value for (file, name), value in self.constants.items()
                     if name == identifier and file == function.file}
        if constants:
            return list(constants)
        parameters = self._parameters(function)
        if identifier not in parameters:
            raise NotUnderstood(f"{function.file}: what is {identifier} in {function.name}?")
        place = parameters.index(identifier)
        return [text for caller, arguments in self._calls_of(function.name)
                for text in self._named(caller, arguments[place])]

    # Log lines.

    def _log_calls(self):
        for function in self._functions:
            for match in re.finditer(r"\bq(Debug|Info|Warning|Critical)\(\)\s*<<(.*?);\n",
                                     function.body, re.DOTALL):
                yield Call(match[1].lower(), function, split(match[2], "<<"))

    def log_lines(self):
        """Of each line its level and its text, with $ for what varies."""
        calls = list(self._log_calls())
        mentioned = sum(len(re.findall(r"\bq(?:C?Debug|C?Info|C?Warning|C?Critical|Fatal)\b", text))
                        for text in self._texts.values())
        if len(calls) != mentioned:
            raise NotUnderstood(f"{mentioned} calls of the logger, {len(calls)} understood")
        for call in calls:
            # Once for each name, however many places hand it down.
            yield from dict.fromkeys(self._lines_of(call))

    def _lines_of(self, call):
        prefix = re.fullmatch(r"LogPrefix\((\w+)\)", call.pieces[0])
        if not prefix:
            raise NotUnderstood(f"{call.function.name}: a line without its function's name")
        pieces = call.pieces[1:]
        for name, handed in self._origins(call.function, prefix[1], pieces):
            texts = [f"[ {name} ]"]
            for piece in pieces:
                shown = [handed[piece]] if piece in handed else self._shown(call.function, piece)
                texts = [f"{text} {one}" for text in texts for one in shown]
            yield from ((call.level, text) for text in texts)

    def _origins(self, function, identifier, pieces):
        """Each function's name that the line may carry, with the texts that are handed down beside
        it."""
        parameters = self._parameters(function)
        if identifier not in parameters:
            yield from ((name, {}) for name in self._named(function, identifier))
            return
        texts = [piece for piece in pieces if piece in parameters
                 and f"const char *{piece}" in function.signature]
        for caller, arguments in self._calls_of(function.name):
            handed = {}
            for piece in texts:
                values = self._named(caller, arguments[parameters.index(piece)])
                if len(values) != 1:
                    raise NotUnderstood(f"{caller.name} hands down {values}")
                handed[piece] = values[0]
            for name in self._named(caller, arguments[parameters.index(identifier)]):
                yield name, handed

    def _shown(self, function, piece):
        """What the logger makes of a piece: each text that it may be."""
        if is_literals(piece):
            return [text_of(piece)]
        if re.fullmatch(r"-?\d+", piece):
            return [piece]
        if choice := re.fullmatch(rf"\(\w+ \? ({LITERAL}) : ({LITERAL})\)", piece):
            return [text_of(choice[1]), text_of(choice[2])]
        if ".arg(" in piece:
            return [f'"{self._filled(function, piece)}"']
        if re.fullmatch(r"[\w.()]+\.(?:toString|name)\(\)|d->str\w+", piece):
            return ['"$"']
        return ['"$"' if self._type(function, piece) == "QString" else "$"]

    def _type(self, function, identifier):
        declared = set(re.findall(
            rf"\b(QString|char|int|quint16|bool) [&*]?{identifier}\b",
            function.signature + "\n" + function.body))
        if len(declared) != 1 or not re.fullmatch(r"\w+", identifier):
            raise NotUnderstood(f"{function.file}: of what type is {identifier} in {function.name}?"
                                f" {sorted(declared)}")
        return declared.pop()

    def _filled(self, function, piece):
        """A text with its places filled in, as far as that is fixed."""
        beginning, *arguments = split(re.sub(r"\s*\.arg\(", "\0(", piece), "\0")
        if re.fullmatch(r"\w+", beginning):
            local = re.search(rf"\b{beginning} = (QString\({LITERAL}\));", function.body)
            if not local:
                raise NotUnderstood(f"{function.name}: what is {beginning}?")
            beginning = local[1]
        template = re.fullmatch(r"QString\((.*)\)", beginning, re.DOTALL)
        text = text_of(template[1])
        number = 0
        for argument in arguments:
            for value in split(argument[1:-1], ","):
                number += 1
                is_name = value in ("__func__", "QString(__func__)")
                fixed = function.name if is_name else value if value.isdigit() else "$"
                text = text.replace(f"%{number}", fixed)
        return text

    def printed(self):
        """The formats of what goes to standard output past the logger."""
        return [text_of(format_) for text in self._texts.values()
                for format_ in re.findall(rf"\bprintf\(({LITERAL})", text)]

# SPDX-License-Identifier: MIT
"""A terminal of the tests' own that the tool runs on, and the texts of golden/ to compare with."""

import fcntl
import os
import pathlib
import pty
import re
import select
import struct
import termios
import time

import tool

PATIENCE = 60
GOLDEN = pathlib.Path(__file__).resolve().parent / "golden"


def golden(name, text):
    """The golden text of that name; with HOPLANE_WRITE_GOLDEN set it is the given one from now
    on."""
    if "HOPLANE_WRITE_GOLDEN" in os.environ:
        (GOLDEN / name).write_text(text, encoding="utf-8")
    return (GOLDEN / name).read_text(encoding="utf-8")


class Terminal:
    """The tool on a terminal of its own."""

    def __init__(self, *arguments, columns=80, environment=None):
        self.output = b""
        self.status = None
        self.pid, self._end = pty.fork()
        if self.pid == 0:
            try:
                os.environ.update({"TERM": "xterm"} | (environment or {}))
                # Before the tool can ask for it.
                fcntl.ioctl(1, termios.TIOCSWINSZ, struct.pack("HHHH", 50, columns, 0, 0))
                os.execvp(tool.COMMAND[0], [*tool.COMMAND, *arguments])
            finally:
                os._exit(127)

    def read_until(self, pattern, seconds=PATIENCE):
        """Reads until the output has the pattern."""
        limit = time.monotonic() + seconds
        while not re.search(pattern, self.output.decode(errors="replace")):
            if time.monotonic() > limit or not self._read(1):
                raise AssertionError(f"no {pattern}: {self.output.decode(errors='replace')}")

    def read_all(self, seconds=PATIENCE):
        """Reads until the tool ends."""
        limit = time.monotonic() + seconds
        while self._read(1):
            if time.monotonic() > limit:
                raise AssertionError(f"no end: {self.output.decode(errors='replace')}")
        self.status = os.waitstatus_to_exitcode(os.waitpid(self.pid, 0)[1])
        os.close(self._end)

    def hang_up(self):
        """As a line that is cut."""
        os.close(self._end)

    def wait(self):
        """The tool's exit status, at its end."""
        return os.waitstatus_to_exitcode(os.waitpid(self.pid, 0)[1])

    def send(self, number):
        os.kill(self.pid, number)

    def type(self, text):
        """As typed by a person."""
        os.write(self._end, text)

    def _read(self, seconds):
        """False at the end of the output."""
        if not select.select([self._end], [], [], seconds)[0]:
            return True
        try:
            part = os.read(self._end, 65536)
        except OSError:
            return False
        self.output += part
        return bool(part)

    @property
    def drawn(self):
        """Each line as it was drawn anew in place, in the order in which they were."""
        text = self.output.decode()
        return [part.split("\x1b[K")[0] for part in text.split("\r") if "\x1b[K" in part]

    @property
    def screen(self):
        """What stays on the screen, without styles."""
        lines = []
        for line in self.output.decode().split("\n"):
            # Each return of the carriage is followed by the erasure of what was there.
            kept = [part for part in line.rstrip("\r").split("\r")]
            shown = kept[-1].split("\x1b[K")[-1] if "\x1b[K" in kept[-1] else kept[-1]
            lines.append(re.sub(r"\x1b\[\d*m", "", shown))
        return "\n".join(lines)

"""What can go wrong with a box. Every message says what was wrong with what, and what to do."""

from __future__ import annotations

SHOWN = 200  # characters of what a stranger has said
MAX_SECONDS = 1e6  # the system's own limits are some thousand times as much


def shown(text: str, most: int = SHOWN) -> str:
    """A text of a stranger's on its way into a message: on one line, nothing that steers a terminal, not long."""
    line = "".join(character if character.isprintable() else " " for character in text[:10 * most])
    line = " ".join(line.split())
    return line if len(line) <= most else line[:most] + "..."


def is_time(seconds: float) -> bool:
    """Whether something can be waited for so long."""
    return 0 < seconds <= MAX_SECONDS


class Error(Exception):
    """Whatever this module raises of its own."""


class BadArgument(Error, ValueError):
    """A value that no box could do anything with; nothing was sent."""


class Unreachable(Error):
    """The box does not answer, or not in time."""


class NotFound(Unreachable):
    """No box answers that is asked for."""


class Ambiguous(Error):
    """Several boxes answer where one is meant."""


class NotUnderstood(Error):
    """What answers does not answer as a box does."""


# The arguments of those below are kept as they came, so that they can be copied to another process.


class Fault(Error):
    """The box could not read the request, or failed. `text` is what it says, whole and unchecked."""

    def __init__(self, who: str, text: str):
        super().__init__(who, text)
        self.who = who
        self.text = text

    def __str__(self) -> str:
        return f"{self.who} answers with a fault: {shown(self.text)}"


class Refused(Error):
    """The box has understood and will not. `code` is its error code, `words` what that means, `owner` who has
    reserved it, if that is why and the box says it."""

    def __init__(self, who: str, code: int, words: str, owner: str = ""):
        super().__init__(who, code, words, owner)
        self.who = who
        self.code = code
        self.words = words
        self.owner = owner

    def __str__(self) -> str:
        by = f" by {shown(self.owner, 64)!r}" if self.owner else ""
        what, separator, advice = self.words.partition("; ")
        return f"{self.who} refuses, code {self.code}: {what}{by}{separator}{advice}"


class CommandFailed(Error):
    """A command has run on the box and failed. `output` is what it says, whole and unchecked."""

    def __init__(self, who: str, command: str, output: str):
        super().__init__(who, command, output)
        self.who = who
        self.command = command
        self.output = output

    def __str__(self) -> str:
        return f"{self.who}: the command {shown(self.command)!r} fails: {shown(self.output) or 'it does not say why'}"

"""A picture of what `zelctl watch` shows on a terminal: of a workshop with five boxes, one of which has just been
reserved. Runs in the simulated box and prints an SVG."""

import contextlib
import fcntl
import itertools
import os
import pathlib
import pty
import select
import signal
import struct
import subprocess
import sys
import termios
import time
from xml.sax.saxutils import escape

sys.dont_write_bytecode = True
import pyte

from stage import ALONE, DHCP, PROJECT, ZELCTL, Failed, Program, in_network, output_of, serving

LINES, COLUMNS = 40, 110
WIDTH, HEIGHT, MARGIN = 8.4, 18, 12  # of a character, and around them, in pixels
FOREGROUND, BACKGROUND = "d8d8d8", "1e1e1e"
NAMES = {"default": None, "black": "1e1e1e", "red": "cc6666", "green": "8fb573", "brown": "e0b060", "blue": "6a9fb5",
         "magenta": "aa759f", "cyan": "75b5aa", "white": "d8d8d8"}
PATIENCE = 60  # seconds


class Terminal:
    """A command on a terminal of its own, and what it shows there."""

    def __init__(self, *command):
        self.screen = pyte.Screen(COLUMNS, LINES)
        self.stream = pyte.ByteStream(self.screen)
        self.process, self.descriptor = pty.fork()
        if self.process == 0:
            os.execvpe(command[0], command, {**os.environ, "TERM": "xterm-256color", "COLORTERM": "truecolor"})
        fcntl.ioctl(self.descriptor, termios.TIOCSWINSZ, struct.pack("4H", LINES, COLUMNS, 0, 0))

    def wait_until(self, condition, what):
        end = time.monotonic() + PATIENCE
        while not condition("\n".join(self.screen.display)):
            if time.monotonic() > end:
                raise Failed(f"{what}: not within {PATIENCE} s:\n" + "\n".join(self.screen.display).rstrip())
            if select.select([self.descriptor], [], [], 0.1)[0]:
                self.stream.feed(os.read(self.descriptor, 65536))

    def end(self):
        os.kill(self.process, signal.SIGINT)
        with contextlib.suppress(OSError):  # the terminal has gone with the command
            while os.read(self.descriptor, 65536):
                pass
        os.waitpid(self.process, 0)
        os.close(self.descriptor)


def look(cell):
    """Foreground, background (None: that of the picture) and weight of a cell."""
    foreground, background = (NAMES.get(color, color) for color in (cell.fg, cell.bg))
    if cell.reverse:
        foreground, background = background or BACKGROUND, foreground or FOREGROUND
    return foreground or FOREGROUND, background, "bold" if cell.bold else "normal"


def svg(screen):
    """The part of the screen that has text."""
    rows = max(number for number, line in enumerate(screen.display, 1) if line.strip())
    columns = max(len(line.rstrip()) for line in screen.display)
    width, height = round(columns * WIDTH + 2 * MARGIN), rows * HEIGHT + 2 * MARGIN
    yield (f'<svg xmlns="http://www.w3.org/2000/svg" viewBox="0 0 {width} {height}" width="{width}" height="{height}" '
           f'font-family="DejaVu Sans Mono, Menlo, Consolas, monospace" font-size="14">')
    yield f'<rect width="100%" height="100%" rx="6" fill="#{BACKGROUND}"/>'
    for row in range(rows):
        top, column = MARGIN + row * HEIGHT, 0
        for (foreground, background, weight), cells in itertools.groupby(
                (screen.buffer[row][column] for column in range(columns)), look):
            text = "".join(cell.data for cell in cells)
            left, length = round(MARGIN + column * WIDTH, 1), round(len(text) * WIDTH, 1)
            column += len(text)
            if background:
                yield f'<rect x="{left}" y="{top}" width="{length}" height="{HEIGHT}" fill="#{background}"/>'
            if text.strip():
                yield (f'<text x="{left}" y="{top + 13}" textLength="{length}" xml:space="preserve" '
                       f'fill="#{foreground}" font-weight="{weight}">{escape(text)}</text>')
    yield "</svg>"


def main():
    # The box has no terminals of its own.
    output_of("mount", "-t", "devpts", "-o", "ptmxmode=0666", "devpts", "/dev/pts")
    os.symlink("pts/ptmx", "/dev/ptmx")
    boxes = Program([sys.executable, PROJECT / "workshop/boxes"], pathlib.Path("/tmp/boxes.out"))
    try:
        with serving(ALONE.replace("white", "red") + DHCP + "tavo.hostname=bay-7\n"):
            terminal = Terminal(*in_network("client", ZELCTL, "watch"))
            terminal.wait_until(lambda text: all(name in text for name in ("bay-1", "bay-4", "bay-7", "alice", "bob")),
                                "all boxes are shown")
            subprocess.run(in_network("client", ZELCTL, "reserve", "bay-3", "--owner", "carol"), check=True,
                           stdout=subprocess.DEVNULL)
            terminal.wait_until(lambda text: "carol" in text, "the reservation is shown")
            print("\n".join(svg(terminal.screen)))
            terminal.end()
    finally:
        boxes.stop()


if __name__ == "__main__":
    main()

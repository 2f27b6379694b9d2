"""Writes the tables of docs/performance.md anew, and its pictures. Arguments: the results of bench/suite.py, of
the levels of optimisation, and of bench/board_counts.py.

A table stands between <!-- table NAME … --> and <!-- end -->: NAME is "about", "levels", "board" or "rows", the
last followed by experiments.
"""

import pathlib
import re
import sys

sys.dont_write_bytecode = True
import pictures
import rows

DOCUMENT = pathlib.Path("docs/performance.md")
PICTURES = pathlib.Path("docs/performance")


def table_of_rows(result, experiments):
    """Columns that are empty in all of the rows are left out."""
    found = rows.rows(result, *experiments)
    missing = set(experiments) - {row.kind.experiment for row in found}
    if missing:
        raise SystemExit(f"not measured: {', '.join(sorted(missing))}")
    table = list(zip(rows.HEAD, *(row.cells() for row in found)))
    kept = [column for column in table if any(column[1:])]
    head, *lines = zip(*kept)
    return rows.markdown_table(head, lines)


LEVELS = {"Os": "`-Os`", "O2": "`-O2`"}  # by the folder of the build


def table_of_levels(levels):
    requests = list(next(iter(levels.values()))["counts"])
    lines = [(LEVELS.get(pathlib.Path(agent).parent.name, "as released"), rows.number(found["file"] / 1024),
              *(rows.number(found["counts"][name]["instructions"]) for name in requests))
             for agent, found in levels.items()]
    return rows.markdown_table(("level", "file, KiB", *requests), lines)


def table_of_board(board):
    return rows.markdown_table(("request", "instructions", "system calls"), [
        (name, rows.number(found["instructions"]), rows.number(found["calls"])) for name, found in board.items()])


def main():
    result, levels, board = map(rows.read, sys.argv[1:])

    def table(match):
        name, *arguments = match[1].split()
        text = {"about": lambda: rows.about(result) + ".", "levels": lambda: table_of_levels(levels),
                "board": lambda: table_of_board(board), "rows": lambda: table_of_rows(result, arguments)}[name]()
        return f"<!-- table {match[1]} -->\n{text}\n<!-- end -->"

    text = re.sub(r"<!-- table (.*?) -->\n.*?<!-- end -->", table, DOCUMENT.read_text(), flags=re.S)
    PICTURES.mkdir(exist_ok=True)
    pictures.draw_all(result, PICTURES)
    DOCUMENT.write_text(text)


if __name__ == "__main__":
    main()

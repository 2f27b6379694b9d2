"""Draws what bench/suite.py has measured, one line a server. Arguments: the result, and the folder of the pictures."""

import pathlib
import sys

import matplotlib
matplotlib.use("Agg")
from matplotlib import pyplot

sys.dont_write_bytecode = True
import rows

COLOURS = {"agent": "#c2410c", "responder": "#64748b", "lighttpd": "#2563eb", "lighttpd with a log": "#7dd3fc",
           "constants": "#64748b", "live values": "#15803d", "echo": "#64748b"}
PERCENTILES = {"p50": "50 %", "p90": "90 %", "p99": "99 %", "p999": "99.9 %", "max": "all"}
# Experiments whose quantities depend on how many ask.
BY_CLIENTS = {"get-kept": rows.GET, "get-new": rows.NEW, "soap-kept": rows.SOAP, "attributes": rows.SLP}


def spreads(measured, side, quantity):
    """Those of the rounds of a server, by load."""
    return [rows.Spread.of(entry[quantity] for entry in sides[side]) for sides in measured.values()]


def draw(axes, positions, found, side):
    medians = [spread.median for spread in found]
    errors = ([spread.median - spread.low for spread in found], [spread.high - spread.median for spread in found])
    axes.errorbar(positions, medians, errors, label=side, color=COLOURS[side], marker="o", markersize=4, capsize=3,
                  linewidth=2.2 if side == "agent" else 1.3)


def finish(axes, title, across, up):
    axes.set_title(title, fontsize=10)
    axes.set_xlabel(across)
    axes.set_ylabel(up)
    axes.grid(alpha=0.3)
    axes.legend(fontsize=8)


def requests(measured, figure):
    for axes, (name, title) in zip(figure.subplots(2, 2).flat, BY_CLIENTS.items()):
        loads, sides = list(measured[name]), next(iter(measured[name].values()))
        for side in sides:
            draw(axes, range(len(loads)), spreads(measured[name], side, "rate"), side)
        axes.set_xticks(range(len(loads)), loads)
        axes.set_ylim(bottom=0)
        axes.yaxis.set_major_formatter("{x:,.0f}")
        finish(axes, title, "clients" if name in ("attributes", "get-new") else "connections", "requests/s")


def latency(measured, figure):
    """At the most clients that ask."""
    for axes, (name, title) in zip(figure.subplots(2, 2).flat, BY_CLIENTS.items()):
        load, sides = list(measured[name].items())[-1]
        for side, results in sides.items():
            draw(axes, range(len(PERCENTILES)),
                 [rows.Spread.of(entry[key] / 1000 for entry in results) for key in PERCENTILES], side)
        axes.set_xticks(range(len(PERCENTILES)), PERCENTILES.values())
        axes.set_yscale("log")
        axes.yaxis.set_major_formatter("{x:g}")
        finish(axes, f"{title}, {load} clients", "share of the requests answered within", "ms")


def memory(measured, figure):
    axes = figure.subplots()
    found = {load: sides for load, sides in measured["memory"].items() if load.isdecimal()}
    for side in found["0"]:
        draw(axes, [spread.median for spread in spreads(found, side, "open")], spreads(found, side, "memory"), side)
    axes.set_ylim(bottom=0)
    axes.yaxis.set_major_formatter("{x:,.0f}")
    finish(axes, rows.MEMORY, "connections that are open", "KiB")


PICTURES = {"requests": ((9, 7), requests, BY_CLIENTS), "latency": ((9, 7), latency, BY_CLIENTS),
            "memory": ((6, 4), memory, ("memory",))}


def draw_all(result, folder):
    """Those of whose experiments there are results."""
    # The same picture is the same file, with its texts as texts.
    matplotlib.rcParams.update({"svg.hashsalt": "zel", "svg.fonttype": "none"})
    for name, (size, fill, experiments) in PICTURES.items():
        if any(experiment not in result["measured"] for experiment in experiments):
            continue
        figure = pyplot.figure(figsize=size, layout="constrained")
        fill(result["measured"], figure)
        figure.savefig(pathlib.Path(folder, f"{name}.svg"), metadata={"Date": None})


if __name__ == "__main__":
    draw_all(rows.read(sys.argv[1]), sys.argv[2])

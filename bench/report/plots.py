"""Plots, all in one style."""

from collections.abc import Sequence
from dataclasses import dataclass
from pathlib import Path

from .tables import short


@dataclass(frozen=True)
class Curve:
    label: str
    place: int  # among all that the run's plots may show; gives it the same colour in each
    points: Sequence[tuple[float, float]]


@dataclass(frozen=True)
class Plot:
    """Both axes are logarithmic."""

    file: str
    title: str
    x_title: str
    curves: Sequence[Curve]


COLOURS = ("#c1272d", "#f4a582", "#0868ac", "#43a2ca", "#7bccc4", "#636363")
STYLE = {
    "axes.grid": True,
    "axes.grid.axis": "y",
    "axes.spines.right": False,
    "axes.spines.top": False,
    "axes.titlesize": "medium",
    "grid.color": "#dddddd",
    "legend.frameon": False,
    "lines.marker": "o",
    "lines.markersize": 4,
    "svg.fonttype": "none",  # text stays text
    "svg.hashsalt": "",  # the same names in the file each time
}
INCHES = (8, 4.2)


def draw(plot: Plot, folder: Path) -> None:
    """Writes the plot's file, an SVG picture."""
    # Here, so that all else can be done without this package.
    import matplotlib
    from matplotlib.figure import Figure
    from matplotlib.ticker import LogLocator

    with matplotlib.rc_context(STYLE):
        figure = Figure(figsize=INCHES, layout="constrained")
        axes = figure.subplots()
        for curve in plot.curves:
            axes.plot(*zip(*curve.points), label=curve.label, color=COLOURS[curve.place % len(COLOURS)])
        axes.set(title=plot.title, xlabel=plot.x_title, xscale="log", yscale="log")
        axes.set_xticks(sorted({x for curve in plot.curves for x, _ in curve.points}))
        axes.yaxis.set_major_locator(LogLocator(subs=(1, 2, 5)))
        axes.minorticks_off()
        for axis in (axes.xaxis, axes.yaxis):
            axis.set_major_formatter(lambda value, _: short(value))
        axes.legend(loc="upper left", bbox_to_anchor=(1, 1))
        figure.savefig(folder / plot.file, metadata={"Date": None})

"""Plots, all in one style."""

from collections.abc import Mapping, Sequence
from dataclasses import dataclass, field
from pathlib import Path

from .tables import short


@dataclass(frozen=True)
class Curve:
    label: str
    place: int  # among all that the run's plots may show; gives it the same colour in each
    points: Sequence[tuple[float, float]]
    dashed: bool = False


@dataclass(frozen=True)
class Plot:
    """Both axes are logarithmic. Ticks: of the x axis, with their labels; without them every x of the curves has one."""

    file: str
    title: str
    x_title: str
    curves: Sequence[Curve]
    ticks: Mapping[float, str] = field(default_factory=dict)


COLOURS = ("#c1272d", "#f4a582", "#0868ac", "#43a2ca", "#7bccc4", "#636363", "#8856a7")
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
            style = {"color": COLOURS[curve.place % len(COLOURS)], "linestyle": "--" if curve.dashed else "-"}
            axes.plot(*zip(*curve.points), label=curve.label, **style)
        axes.set(title=plot.title, xlabel=plot.x_title, xscale="log", yscale="log")
        xs = sorted({x for curve in plot.curves for x, _ in curve.points})
        ticks = {x: text for x, text in plot.ticks.items() if x <= xs[-1]} or {x: short(x) for x in xs}
        axes.set_xticks(list(ticks), list(ticks.values()))
        axes.yaxis.set_major_locator(LogLocator(subs=(1, 2, 5)))
        axes.minorticks_off()
        axes.yaxis.set_major_formatter(lambda value, _: short(value))
        axes.legend(loc="upper left", bbox_to_anchor=(1, 1))
        figure.savefig(folder / plot.file, metadata={"Date": None})

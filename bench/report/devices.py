"""What each device that exists in the engine for speed alone gains or costs: the engine against itself without it."""

from collections.abc import Sequence

from .contenders import ENGINE_C, WITHOUT_DEVICE, Contender
from .figures import Figures, Spread
from .tables import Cell, Table
from .workloads import DEVICES, Series

TITLE = "What each device gains: this engine against itself without it, above 1 where it helps (least to greatest)"


def table(figures: Figures, series: Sequence[Series]) -> Table:
    """A row for each device, a column for each setting that was measured."""
    chosen = [one for one in series if one.workload == DEVICES]
    without = [contender for contender in WITHOUT_DEVICE if chosen]
    header = ["", *(f"{one.quantities[0].name}, {column.heading}" for one in chosen for column in one.columns)]
    rows = [[contender.label.removeprefix("without "), *_gains(figures, chosen, contender)] for contender in without]
    return Table(TITLE, header, [row for row in rows if any(row[1:])])


def _gains(figures: Figures, chosen: Sequence[Series], without: Contender) -> list[Cell]:
    return [str(_gain(figures, one, without, index) or "") for one in chosen for index in range(len(one.columns))]


def _gain(figures: Figures, series: Series, without: Contender, index: int) -> Spread | None:
    column, quantity = series.columns[index], series.quantities[0]
    pair = [series.measurement(contender, column) for contender in (ENGINE_C, without)]
    above, below = pair if quantity.more_is_better else reversed(pair)
    return figures.ratio(above, below, quantity)

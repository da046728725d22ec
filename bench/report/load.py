"""Latency of messages that are sent by the clock, whatever happens: a table of each load, and curves of percentiles."""

import statistics
from collections.abc import Callable, Iterator, Mapping, Sequence
from typing import Any, NamedTuple

from .contenders import Contender, Settings
from .figures import Figures
from .plots import Curve, Plot
from .tables import Cell, Table, short
from .workloads import LOAD, Series

PLOTTED_FROM = 100_000  # messages a second, when they come evenly
UNSENT_MAX = 0.01  # of the messages that were sent, if the publisher held the rate
PERCENTILES = {
    2.0: "p50",
    10.0: "p90",
    1e2: "p99",
    1e3: "p99.9",
    1e4: "p99.99",
    1e5: "p99.999",
}  # by one message in so many


class Contestant(NamedTuple):
    """What it did under a load, round by round."""

    contender: Contender
    spins: bool
    results: Sequence[Mapping[str, Any]]

    def name(self, label: str) -> str:
        return f"{label}, spinning" if self.spins else label


Label = Callable[[str], str]  # of a contender's key


def tables(figures: Figures, series: Sequence[Series], label: Label) -> list[Table]:
    return [
        Table.of(
            f"One-way latency at {heading}, microseconds",
            [{"": one.name(label(one.contender.key)), **_row(one.results)} for one in contestants],
        )
        for heading, _, contestants in _by_load(figures, series)
    ]


def plots(figures: Figures, series: Sequence[Series], label: Label, places: Sequence[str]) -> list[Plot]:
    """places: the keys of all contenders that the run's plots may show."""
    return [
        Plot(
            file=f"load-{load['rate']}.svg",
            title=f"One-way latency at {heading}, microseconds",
            x_title="percentile",
            curves=[
                Curve(one.name(label(key)), places.index(key), _curve(one.results), dashed=one.spins)
                for one in contestants
                for key in [one.contender.key]
            ],
            ticks=PERCENTILES,
        )
        for heading, load, contestants in _by_load(figures, series)
        if load["burst"] == 1 and int(load["rate"]) >= PLOTTED_FROM
    ]


def _by_load(figures: Figures, series: Sequence[Series]) -> Iterator[tuple[str, Settings, list[Contestant]]]:
    """Of each load its name, its settings and those that were measured under it."""
    chosen = [(one, column) for one in series if one.workload == LOAD for column in one.columns]
    loads = {column.heading: column.settings for _, column in chosen}
    for heading in sorted(loads, key=lambda name: (loads[name]["burst"], loads[name]["rate"])):
        contestants = [
            Contestant(contender, bool(column.settings.get("spin")), results)
            for one, column in chosen
            if column.heading == heading
            for contender in one.contenders
            if (results := figures.results(one.measurement(contender, column)))
        ]
        if contestants:
            yield heading, loads[heading], contestants


def _row(results: Sequence[Mapping[str, Any]]) -> Mapping[str, Cell]:
    def median(key: str, divisor: float) -> float | str:
        values = [result[key] for result in results]
        return "-" if None in values else statistics.median(values) / divisor

    def sum_of(key: str) -> int:
        return sum(result[key] for result in results)

    held = all(result["unsent"] <= UNSENT_MAX * result["sent"] for result in results)
    rate = short(statistics.median(result["rate"] for result in results))
    return {
        "rate": "held" if held else f"NOT HELD: {rate}",
        "sent": sum_of("sent"),
        "received": sum_of("received"),
        "lost": sum_of("lost"),
        **{key: median(key, 1000) for key in ("p50", "p90", "p99", "p99.9", "p99.99")},
        "longest": max(result["max"] for result in results) / 1000,
        "sent late, p50": median("late_p50", 1000),
        "p99 of that": median("late_p99", 1000),
        "processor, publisher": median("publisher_processor", 1),
        "receiver": median("receiver_processor", 1),
        "server": median("server_processor", 1),
    }


def _curve(results: Sequence[Mapping[str, Any]]) -> list[tuple[float, float]]:
    """The percentiles that every round has, without those too short for the clock."""
    points = [
        (one_in[0], statistics.median(nanoseconds) / 1000)
        for one_in, nanoseconds in (zip(*of_rounds) for of_rounds in zip(*(result["curve"] for result in results)))
    ]
    return [(x, y) for x, y in points if y > 0]

"""Medians and ratios of what was recorded in rounds."""

import statistics
from collections.abc import Iterable, Mapping, Sequence
from typing import Any, NamedTuple

from .tables import short
from .workloads import BASE, LOAD, Measurement, Quantity

LIKE_DISTANCE = 1.5  # the most between the longest and the shortest way of figures that are compared


class Figure(NamedTuple):
    """Of one round. The distances are those of the processors before and after it was measured."""

    value: float
    distances: Sequence[float]

    def is_like(self, other: "Figure") -> bool:
        """Whether the way between the processors was the same for both."""
        ways = [*self.distances, *other.distances]
        return max(ways) <= LIKE_DISTANCE * min(ways)


class Spread(NamedTuple):
    median: float
    least: float
    greatest: float

    def __str__(self) -> str:
        return f"{short(self.median)} ({short(self.least)} to {short(self.greatest)})"

    @staticmethod
    def over(values: Sequence[float]) -> "Spread | None":
        return Spread(statistics.median(values), min(values), max(values)) if values else None


class Figures:
    """Looks recorded measurements up."""

    def __init__(self, recorded: Iterable[Mapping[str, Any]]) -> None:
        self._rounds = {_identity(measurement): measurement["rounds"] for measurement in recorded}

    def rounds(self, measurement: Measurement, quantity: Quantity) -> list[Figure | None]:
        """None for a round in which the measurement failed; empty when it was not made."""
        rounds = self._rounds.get(_identity(measurement.recorded()), [])
        return [Figure(result[quantity.key], result["distance"]) if result else None for result in rounds]

    def results(self, measurement: Measurement) -> list[Mapping[str, Any]]:
        """Of the rounds in which it succeeded."""
        return [result for result in self._rounds.get(_identity(measurement.recorded()), []) if result]

    def median(self, measurement: Measurement, quantity: Quantity) -> float | None:
        values = [figure.value for figure in self.rounds(measurement, quantity) if figure]
        return statistics.median(values) if values else None

    def ratio(self, above: Measurement, below: Measurement, quantity: Quantity) -> Spread | None:
        """Taken within each round, as the machine's speed may change between rounds. A round counts if the way between
        the processors was the same for both figures; all count when it was in none.
        """
        pairs = [
            (a, b)
            for a, b in zip(self.rounds(above, quantity), self.rounds(below, quantity))
            if a is not None and b is not None and b.value != 0
        ]
        counting = [(a, b) for a, b in pairs if a.is_like(b)] or pairs
        return Spread.over([a.value / b.value for a, b in counting])

    def steadiness(self, measurement: Measurement, quantity: Quantity) -> Spread | None:
        """How many times the least of the rounds the greatest is."""
        values = [figure.value for figure in self.rounds(measurement, quantity) if figure]
        return Spread.over([max(values) / min(values)]) if len(values) > 1 and min(values) > 0 else None

    def distances(self) -> list[float]:
        """The ways between the processors beside all measurements, in ascending order."""
        return sorted(result["distance"][1] for rounds in self._rounds.values() for result in rounds if result)

    def lost(self) -> int:
        """Messages of all measurements but those in which a publisher does not wait for anybody."""
        return sum(
            result.get("lost", 0)
            for (kind, *_), rounds in self._rounds.items()
            if kind != LOAD
            for result in rounds
            if result
        )


def _identity(recorded: Mapping[str, Any]) -> tuple[str, str, frozenset[tuple[str, Any]]]:
    settings = {name: value for name, value in recorded.items() if name not in ("kind", "contender", "rounds")}
    return recorded["kind"], recorded["contender"], frozenset({**BASE, **settings}.items())

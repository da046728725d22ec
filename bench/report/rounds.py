"""Measures in rounds."""

from collections.abc import Callable, Sequence

from .programs import Result
from .workloads import Measurement

Progress = Callable[[str, int, int], None]  # told the round, and how many of how many measurements of it are done


def measure_in_rounds(
    measurements: Sequence[Measurement],
    rounds: int,
    measure: Callable[[Measurement], Result | None],
    distance: Callable[[], float | None],
    progress: Progress,
) -> dict[Measurement, list[Result | None]]:
    """The result of each round, None where it failed. Every other round goes backwards, so that a machine that becomes
    faster or slower favours nobody.

    Where the machine is a virtual one, even the way between its processors may change from one second to the next. It is
    measured between all measurements, and each result has the one before and the one after it as its "distance".
    """
    results: dict[Measurement, list[Result | None]] = {measurement: [None] * rounds for measurement in measurements}
    before = distance() if measurements else None
    for number in range(rounds):
        for place, measurement in enumerate(measurements if number % 2 == 0 else measurements[::-1], start=1):
            result = measure(measurement)
            after = distance()
            if result is not None and before is not None and after is not None:
                results[measurement][number] = {**result, "distance": [before, after]}
            before = after
            progress(f"round {number + 1} of {rounds}", place, len(measurements))
    return results

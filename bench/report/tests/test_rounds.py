import unittest
from typing import Any

from report.contenders import ENGINE, NNG, ZEROMQ
from report.rounds import measure_in_rounds
from report.workloads import Measurement

MEASUREMENTS = [Measurement.of("rate", contender) for contender in (ENGINE, ZEROMQ, NNG)]


class Machine:
    """Measures what it is told to, with distances that count up and results that say when they were made."""

    def __init__(self) -> None:
        self.made: list[str] = []
        self.failing: set[int] = set()  # which measurements, counted from 1
        self.failing_distances: set[int] = set()
        self.distances = 0

    def measure(self, measurement: Measurement) -> dict[str, Any] | None:
        self.made.append(measurement.contender.key)
        return None if len(self.made) in self.failing else {"slowest": len(self.made)}

    def distance(self) -> float | None:
        self.distances += 1
        return None if self.distances in self.failing_distances else self.distances

    def run(self, rounds: int) -> dict[str, list[Any]]:
        results = measure_in_rounds(MEASUREMENTS, rounds, self.measure, self.distance, lambda *_: None)
        return {measurement.contender.key: of_rounds for measurement, of_rounds in results.items()}


class MeasureInRounds(unittest.TestCase):
    def test_every_other_round_goes_backwards(self) -> None:
        machine = Machine()
        results = machine.run(rounds=3)
        forwards = ["engine", "zeromq", "nng"]
        self.assertEqual(machine.made, [*forwards, *reversed(forwards), *forwards])
        self.assertEqual([result["slowest"] for result in results["engine"]], [1, 6, 7])

    def test_a_result_has_the_distances_just_before_and_after_it(self) -> None:
        results = Machine().run(rounds=2)
        self.assertEqual([result["distance"] for result in results["zeromq"]], [[2, 3], [5, 6]])

    def test_a_failure_costs_its_own_round_alone_and_leaves_no_old_distance(self) -> None:
        machine = Machine()
        machine.failing = {2}
        results = machine.run(rounds=2)
        self.assertEqual([result and result["distance"] for result in results["zeromq"]], [None, [5, 6]])
        self.assertEqual([result["distance"] for result in results["nng"]], [[3, 4], [4, 5]])

    def test_a_result_without_a_distance_does_not_count(self) -> None:
        machine = Machine()
        machine.failing_distances = {3}
        results = machine.run(rounds=1)
        self.assertEqual([results["zeromq"], results["nng"]], [[None], [None]])
        self.assertIsNotNone(results["engine"][0])

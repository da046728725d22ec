import unittest
from collections.abc import Sequence
from typing import Any

from report.contenders import ENGINE, RING, ZEROMQ
from report.figures import Figures
from report.workloads import RATE, Measurement

Rounds = Sequence[dict[str, Any] | None]
NEAR, FAR = (240, 250), (900, 930)


def result(value: float, distances: tuple[float, float] = NEAR, lost: int = 0) -> dict[str, Any]:
    return {"slowest": value, "lost": lost, "distance": list(distances)}


def recorded(contender: str, *rounds: dict[str, Any] | None, **settings: Any) -> dict[str, Any]:
    return {"kind": "rate", "contender": contender, **settings, "rounds": list(rounds)}


class Ratio(unittest.TestCase):
    above = Measurement.of("rate", ENGINE)
    below = Measurement.of("rate", RING)

    def ratio(self, above: Rounds, below: Rounds) -> tuple[float, ...] | None:
        figures = Figures([recorded("engine", *above), recorded("ring", *below)])
        return figures.ratio(self.above, self.below, RATE)

    def test_is_taken_within_each_round(self) -> None:
        above = [result(20), result(120), result(40)]
        below = [result(10), result(20), result(40)]
        self.assertEqual(self.ratio(above, below), (2, 1, 6))

    def test_counts_rounds_in_which_the_processors_were_equally_far_apart(self) -> None:
        above = [result(20), result(90, NEAR), result(30, FAR), result(7, (240, 900))]
        below = [result(10), result(10, FAR), result(10, FAR), result(1, (240, 900))]
        self.assertEqual(self.ratio(above, below), (2.5, 2, 3))

    def test_counts_distances_up_to_one_and_a_half_times_the_least(self) -> None:
        above = [result(20, (200, 300)), result(50, (200, 301))]
        self.assertEqual(self.ratio(above, [result(10, (250, 250))] * 2), (2, 2, 2))

    def test_counts_all_rounds_when_the_distance_was_the_same_in_none(self) -> None:
        self.assertEqual(self.ratio([result(20, FAR), result(40)], [result(10), result(10, FAR)]), (3, 2, 4))

    def test_leaves_out_rounds_in_which_either_failed(self) -> None:
        above = [None, result(30), result(20), result(50)]
        below = [result(10), None, result(10), result(0)]
        self.assertEqual(self.ratio(above, below), (2, 2, 2))
        self.assertIsNone(self.ratio([None], [result(10)]))
        self.assertIsNone(Figures([recorded("engine", result(1))]).ratio(self.above, self.below, RATE))


class Median(unittest.TestCase):
    def test_is_of_the_rounds_that_succeeded(self) -> None:
        figures = Figures([recorded("engine", result(5), None, result(1), result(3)), recorded("ring", None)])
        self.assertEqual(figures.median(Measurement.of("rate", ENGINE), RATE), 3)
        self.assertIsNone(figures.median(Measurement.of("rate", RING), RATE))
        self.assertIsNone(figures.median(Measurement.of("rate", ZEROMQ), RATE))

    def test_belongs_to_its_settings_whether_the_base_is_written_out_or_not(self) -> None:
        figures = Figures(
            [recorded("engine", result(1), payload=64, spin=True), recorded("engine", result(2), topics=9)]
        )
        self.assertEqual(figures.median(Measurement.of("rate", ENGINE, {"spin": True}), RATE), 1)
        self.assertEqual(figures.median(Measurement.of("rate", ENGINE, {"topics": 9, "receivers": 1}), RATE), 2)
        self.assertIsNone(figures.median(Measurement.of("rate", ENGINE), RATE))


class Sums(unittest.TestCase):
    def test_losses_and_distances_are_those_of_all_measurements(self) -> None:
        figures = Figures([recorded("engine", result(1, FAR, lost=3), None), recorded("ring", result(1, NEAR, lost=4))])
        self.assertEqual(figures.lost(), 7)
        self.assertEqual(figures.distances(), [250, 930])

    def test_messages_that_nobody_waits_for_do_not_count_as_lost(self) -> None:
        under_load = {**recorded("nng", result(1, lost=3)), "kind": "load", "rate": 1_000_000}
        self.assertEqual(Figures([under_load]).lost(), 0)


class Steadiness(unittest.TestCase):
    def test_is_that_of_the_rounds_that_succeeded(self) -> None:
        measurement = Measurement.of("rate", ENGINE)
        self.assertEqual(
            Figures([recorded("engine", result(2), None, result(3))]).steadiness(measurement, RATE), (1.5, 1.5, 1.5)
        )
        self.assertIsNone(Figures([recorded("engine", result(2), None)]).steadiness(measurement, RATE))

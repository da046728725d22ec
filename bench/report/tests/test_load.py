import unittest
from typing import Any

from report import load
from report.contenders import ENGINE_C, NATS, NNG, RING, Contender
from report.figures import Figures
from report.workloads import FULL, Measurement, all_series

RATE = {"rate": 100_000}
BURST = {"rate": 10_000, "burst": 64}


def result(microseconds: float, **others: Any) -> dict[str, Any]:
    quantiles = dict.fromkeys(("p50", "p90", "p99", "p99.9", "p99.99", "max"), microseconds * 1000)
    return {
        **quantiles,
        "rate": 100_000,
        "sent": 1000,
        "received": 1000,
        "unsent": 0,
        "lost": 0,
        "curve": [[1, 0], [10, microseconds * 1000], [100, microseconds * 2000]],
        "late_p50": 10,
        "late_p99": 20,
        "publisher_processor": 30,
        "receiver_processor": 40,
        "server_processor": None,
        "distance": [240, 240],
        **others,
    }


def recorded(contender: Contender, settings: dict[str, Any], *rounds: dict[str, Any] | None) -> dict[str, Any]:
    return {**Measurement.of("load", contender, settings).recorded(), "rounds": list(rounds)}


class Report(unittest.TestCase):
    def setUp(self) -> None:
        spin = {"rate": 100_000, "spin": True}
        few = {"p99.99": None, "curve": [[1, 500], [10, 5000]]}
        figures = Figures(
            [
                recorded(RING, spin, result(1), result(3), result(2)),
                recorded(ENGINE_C, RATE, result(9), None, result(5, **few)),
                recorded(NNG, RATE, result(70), result(80, rate=50_000, unsent=11, received=900, lost=100)),
                recorded(NATS, BURST, result(7, server_processor=50)),
            ]
        )
        series = all_series(FULL)
        self.bursts, self.even = sorted(load.tables(figures, series, str), key=lambda table: "even" in table.title)
        self.plots = load.plots(figures, series, str, ["engine_c", "ring", "nng"])

    def row(self, name: str) -> dict[str, Any]:
        return next(dict(zip(self.even.header, row)) for row in self.even.rows if row[0] == name)

    def test_tells_those_that_spin_from_those_that_wait_at_the_same_load(self) -> None:
        self.assertEqual([row[0] for row in self.even.rows], ["ring, spinning", "engine_c", "nng"])
        self.assertEqual([row[0] for row in self.bursts.rows], ["nats"])

    def test_shows_the_median_of_the_rounds_and_the_longest_of_all(self) -> None:
        row = self.row("ring, spinning")
        self.assertEqual((row["p50"], row["p99.99"], row["longest"]), (2, 2, 3))

    def test_shows_no_percentile_that_a_round_had_too_few_messages_for(self) -> None:
        self.assertEqual((self.row("engine_c")["p99.9"], self.row("engine_c")["p99.99"]), (7, "-"))

    def test_says_which_publisher_did_not_hold_the_rate_in_any_round_and_what_was_lost(self) -> None:
        row = self.row("nng")
        self.assertEqual(
            (row["rate"], row["sent"], row["received"], row["lost"]), ("NOT HELD: 75,000", 2000, 1900, 100)
        )
        self.assertEqual(self.row("engine_c")["rate"], "held")

    def test_plots_what_every_round_has_and_the_clock_can_tell(self) -> None:
        (plot,) = self.plots
        self.assertEqual(plot.file, "load-100000.svg")
        curves = {curve.label: (curve.dashed, list(curve.points)) for curve in plot.curves}
        self.assertEqual(curves["ring, spinning"], (True, [(10, 2), (100, 4)]))
        self.assertEqual(curves["engine_c"], (False, [(1, 0.25), (10, 7)]))

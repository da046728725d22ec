import json
import tempfile
import unittest
from pathlib import Path
from typing import Any, ClassVar

from report import comparison
from report.__main__ import choose
from report.aims import Bound, Check
from report.comparison import Report
from report.figures import Spread
from report.page import figures_of
from report.programs import Programs
from report.workloads import Size

SIZE = Size(
    rounds=2,
    milliseconds=1,
    payloads=[64, 128],
    receivers=[],
    topics=[],
    load_rounds=1,
    loads=[],
    threads=[],
    domains=[(100, 100), (200, 200), (300, 300)],
    common_domains=[10, 1000],
    contexts=[],
    idle_seconds=0,
)
DESCRIPTION = '{"version": "1", "transport": "shouting", "pacing": "none", "pinned": true, "window": 0}'


def contender(rate: int, round_trip: int) -> str:
    return f"""case $1 in
describe) echo '{DESCRIPTION}' ;;
rate) echo '{{"slowest": {rate}, "lost": 1}}' ;;
round-trip) echo '{{"p50": {round_trip}, "p99": {round_trip}, "p99.9": {round_trip}}}' ;;
esac"""


# The one of 200 contexts is too large.
DOMAINS = """case "$2 $6" in
"100 0") echo '{"contexts": 100, "sources": 100, "common": 0, "join_seconds": [3, 1, 2]}' ;;
*" 0") echo '{"contexts": 200, "sources": 200, "common": 0, "stopped": "memory ran short"}' ;;
"10 10") echo '{"contexts": 10, "sources": 10, "common": 10, "join_seconds": [0.5, 0.25, 1]}' ;;
*) echo '{"contexts": 1000, "sources": 1000, "common": 10, "found_seconds": 2, "descriptors": 40000, "kernel_kib": 500000,
  "join_seconds": [1, 2, 0.5]}' ;;
esac"""


class Run(unittest.TestCase):
    """Of programs that know their results beforehand; one cannot be started, and one fails at the larger payload."""

    recorded: ClassVar[comparison.Run]
    report: ClassVar[Report]

    @classmethod
    def setUpClass(cls) -> None:
        with tempfile.TemporaryDirectory() as temporary:
            scripts = {
                "ring": contender(9000, 240),
                "engine": contender(8000, 480),
                "engine_c": contender(8000, 480),
                "zeromq": contender(1000, 960),
                "nng": f'case "$*" in *128*) exit 1 ;; esac\n{contender(500, 2000)}',
                "joining": DOMAINS,
            }
            for name, script in scripts.items():
                file = Path(temporary) / f"compare_{name}"
                file.write_text(f"#!/bin/sh\n{script}\n")
                file.chmod(0o755)
            programs = Programs(Path(temporary), Path(temporary))
            run = comparison.measure(programs, None, ["rate", "joining"], SIZE, lambda *_: None)
        cls.recorded = json.loads(json.dumps(run))
        cls.report = Report(cls.recorded)

    def table(self, title: str) -> list[list[Any]]:
        return next([list(row) for row in table.rows] for table in self.report.tables() if table.title == title)

    def test_shows_what_others_did_when_a_contender_is_missing_or_fails(self) -> None:
        self.assertEqual(
            self.table("Thousand messages a second, one receiver, waiting"),
            [
                ["this engine, std::function", 8, 8],
                ["this engine, C interface", 8, 8],
                ["libzmq", 1, 1],
                ["nng", 0.5, None],
                ["bare ring", 9, 9],
            ],
        )
        self.assertNotIn("NATS", [row[0] for row in self.table("Contenders")])

    def test_counts_failures_and_losses(self) -> None:
        # NATS cannot be started; nng fails in both rounds. All others, and nng at 64 bytes, lose a message each time.
        self.assertEqual(len(self.recorded["failures"]), 3)
        measured = 2 * (4 * 2 + 1 + 3 * 2)
        self.assertEqual(self.report.closing(), f"Messages lost or damaged: {measured}. Measurements that failed: 3.")

    def test_does_not_show_workloads_that_were_not_measured(self) -> None:
        titles = [table.title for table in self.report.tables()]
        self.assertFalse([title for title in titles if "peers" in title or "Round trip" in title or "device" in title])
        self.assertEqual([plot.file for plot in self.report.plots()], ["rate.svg", "rate-spinning.svg"])

    def test_says_whether_aims_are_met(self) -> None:
        verdicts = {row[1]: (row[0], row[3]) for row in self.report.aims().rows}
        self.assertEqual(verdicts["rate against libzmq, both waiting"], ("met", "8 (8 to 8)"))
        self.assertEqual(verdicts["seconds to join 100 contexts with 10,000 sources"], ("NOT MET", "2 (1 to 3)"))
        self.assertEqual(verdicts["round trip against libzmq, both waiting with default options"], ("not measured", ""))

    def test_measures_common_topics_in_a_large_domain_against_a_small_one(self) -> None:
        verdicts = {row[1]: (row[0], row[3]) for row in self.report.aims().rows}
        self.assertEqual(verdicts["joining 1,000 contexts against joining 10, ten sources"], ("met", "2 (1 to 4)"))
        self.assertEqual(verdicts["descriptors of each of 1,000 contexts"], ("NOT MET", "40 (40 to 40)"))
        _, large = self.table(
            "Domains of this engine in which all receive 10 topics, a source each, and hear of no others"
        )
        self.assertEqual((large[0], large[2], large[3], large[5]), (1000, 2000, 1000, 500))

    def test_stops_at_the_first_domain_that_is_too_large(self) -> None:
        rows = self.table("Domains of this engine in which everybody hears of every source")
        self.assertEqual(
            [(row[0], row[3], row[-1]) for row in rows], [(100, 2000, ""), (200, None, "memory ran short")]
        )

    def test_plots_have_a_colour_for_each_contender_and_the_points_that_there_are(self) -> None:
        rate, spinning = self.report.plots()
        self.assertEqual([(curve.label, curve.place) for curve in spinning.curves][-1], ("bare ring", 4))
        points = {curve.label: list(curve.points) for curve in rate.curves}
        self.assertEqual((points["bare ring"], points["nng"]), ([(64, 9), (128, 9)], [(64, 0.5)]))

    def test_does_not_plot_single_points(self) -> None:
        measurements = [measured for measured in self.recorded["measurements"] if measured["payload"] == 64]
        self.assertEqual(Report({**self.recorded, "measurements": measurements}).plots(), [])

    def test_page_has_everything(self) -> None:
        page = figures_of(self.report, "pictures")
        for table in [self.report.aims(), *self.report.tables()]:
            self.assertIn(table.as_markdown(), page)
        self.assertIn("(pictures/rate-spinning.svg)", page)


class Aim(unittest.TestCase):
    def test_is_met_by_a_median_on_its_bound(self) -> None:
        for median, upper, verdict in (
            (4, False, "met"),
            (3.9, False, "NOT MET"),
            (4, True, "met"),
            (4.1, True, "NOT MET"),
        ):
            self.assertEqual(Check("", Bound(4, upper), Spread(median, 1, 9)).verdict(), verdict)

    def test_of_all_rounds_is_met_by_the_least_of_them(self) -> None:
        for least, verdict in ((4, "met"), (3.9, "NOT MET")):
            self.assertEqual(Check("", Bound(4, False), Spread(5, least, 9), least_round=True).verdict(), verdict)


class Choose(unittest.TestCase):
    def test_takes_everything_unless_told_which_parts(self) -> None:
        everything = [name for name in comparison.WORKLOADS if name != "devices"]
        self.assertEqual(choose([], ["log", "triage"]), (["log", "triage"], everything))
        self.assertEqual(choose(["devices"], ["log"]), ([], ["devices"]))
        self.assertEqual(choose(["joining", "log", "rate"], ["log", "triage"]), (["log"], ["rate", "joining"]))
        self.assertEqual(choose(["compare"], ["log"]), ([], everything))
        with self.assertRaisesRegex(ValueError, "'nonsense'.*log.*joining"):
            choose(["log", "nonsense"], ["log"])

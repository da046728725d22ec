import unittest
from typing import Any

from report import small


def benchmark(name: str, place: int, time: float, **members: Any) -> dict[str, Any]:
    """A median, with a clock that shows ten times the processor's time."""
    return {
        "name": f"{name}_median",
        "run_name": name,
        "aggregate_name": "median",
        "family_index": place,
        "per_family_instance_index": 0,
        "cpu_time": time,
        "real_time": time * 10,
        "time_unit": "ns",
        **members,
    }


class Summary(unittest.TestCase):
    def rows(self, *benchmarks: dict[str, Any]) -> list[list[Any]]:
        table = small.summary({"programs": {"log": {"benchmarks": list(benchmarks)}}})
        return [list(row) for row in table.rows]

    def test_measures_a_benchmark_against_the_one_that_its_label_names(self) -> None:
        rows = self.rows(
            benchmark("Enabled", 1, 30, label="vs Disabled"),
            benchmark("Disabled", 0, 20),
            benchmark("Other", 2, 5, label="versus nothing"),
            benchmark("Lost", 3, 5, label="vs Gone"),
        )
        self.assertEqual(
            rows,
            [
                ["log", "Disabled", 20, None, None, "", ""],
                ["log", "Enabled", 30, 1.5, 10, "Disabled", ""],
                ["log", "Other", 5, None, None, "", ""],
                ["log", "Lost", 5, None, None, "Gone", ""],
            ],
        )

    def test_takes_medians_alone(self) -> None:
        mean = benchmark("A", 0, 99, aggregate_name="mean")
        iteration = benchmark("A", 0, 98)
        del iteration["aggregate_name"]
        self.assertEqual([row[1:3] for row in self.rows(iteration, mean, benchmark("A", 0, 7))], [["A", 7]])
        # There is no median when there was but one repetition.
        self.assertEqual([row[1:3] for row in self.rows(iteration)], [["A", 98]])

    def test_is_in_nanoseconds_of_the_processor_or_of_the_clock_if_asked_for(self) -> None:
        rows = self.rows(
            benchmark("A/1000", 0, 3, time_unit="us"),
            benchmark("A/iterations:1/manual_time", 1, 3, time_unit="ms"),
            benchmark("A/real_time/threads:2", 2, 3),
        )
        self.assertEqual([row[2] for row in rows], [3e3, 30e6, 30])

    def test_shows_the_counters_of_a_benchmark(self) -> None:
        (row,) = self.rows(benchmark("A", 0, 3, p50_ns=65417.2, allocations=0.0, threads=1, iterations=9))
        self.assertEqual(row[-1], "allocations=0 p50_ns=65,417")

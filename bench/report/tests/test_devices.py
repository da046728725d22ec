import unittest
from typing import Any

from report import devices
from report.contenders import ENGINE_C, WITHOUT_DEVICE, Contender
from report.figures import Figures
from report.workloads import QUICK, Measurement, all_series


def recorded(kind: str, contender: Contender, quantity: str, value: float) -> dict[str, Any]:
    measurement = Measurement.of(kind, contender)
    return {**measurement.recorded(), "rounds": [{quantity: value, "distance": [240, 240]}]}


class Gains(unittest.TestCase):
    def test_are_above_one_where_the_engine_is_worse_without_the_device(self) -> None:
        without = WITHOUT_DEVICE[0]
        figures = Figures(
            [
                recorded("rate", ENGINE_C, "slowest", 8000),
                recorded("rate", without, "slowest", 4000),
                recorded("round-trip", ENGINE_C, "p50", 300),
                recorded("round-trip", without, "p50", 600),
            ]
        )
        table = devices.table(figures, all_series(QUICK))
        self.assertEqual(table.header[1], "rate, 64 bytes")
        (cells,) = table.rows
        row = dict(zip(table.header, cells))
        self.assertEqual((row["rate, 64 bytes"], row["round trip, 64 bytes"]), ("2 (2 to 2)", "2 (2 to 2)"))
        self.assertEqual(row["rate, spinning"], "")

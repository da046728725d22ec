import os
import tempfile
import time
import unittest
from pathlib import Path
from unittest.mock import patch

from report import idle, outage
from report.programs import Programs


class Measure(unittest.TestCase):
    def measure(self, script: str) -> tuple[idle.Recorded, list[str]]:
        with tempfile.TemporaryDirectory() as temporary, patch.object(idle, "SETTLE_SECONDS", 0):
            program = Path(temporary) / outage.PROGRAM
            program.write_text(f"#!/bin/sh\n{script}\n")
            program.chmod(0o755)
            programs = Programs(Path(temporary), Path(temporary), seconds_max=30)
            return idle.measure(programs, 0.05), programs.failures

    def test_is_the_processor_time_of_that_while_alone(self) -> None:
        recorded, failures = self.measure("echo '{}'; read line")
        self.assertEqual(failures, [])
        used = idle.percent(recorded)
        assert used
        self.assertLess(used.median, 50)
        self.assertIn("100", idle.tables(recorded)[0].as_text())

    def test_counts_what_a_process_uses(self) -> None:
        before = idle.processor_nanoseconds(os.getpid())
        deadline = time.process_time() + 0.05
        while time.process_time() < deadline:
            pass
        self.assertGreater(idle.processor_nanoseconds(os.getpid()) - before, 40_000_000)

    def test_a_failure_is_told_and_leaves_nothing_to_show(self) -> None:
        recorded, failures = self.measure("echo no room >&2; exit 1")
        self.assertEqual((failures, idle.percent(recorded)), (["100 idle contexts: no room"], None))
        self.assertEqual([table.rows for table in idle.tables(recorded)], [[]])

import tempfile
import unittest
from pathlib import Path

from report.contenders import Contender
from report.programs import Programs
from report.workloads import Measurement

ECHO_ARGUMENTS = """printf '{"told": "%s"}' "$*" """


class Measure(unittest.TestCase):
    def setUp(self) -> None:
        temporary = tempfile.TemporaryDirectory()
        self.addCleanup(temporary.cleanup)
        self.folder = Path(temporary.name)
        self.programs = Programs(self.folder, self.folder, seconds_max=30)

    def have(self, program: str, script: str) -> None:
        file = self.folder / program
        file.write_text(f"#!/bin/sh\n{script}\n")
        file.chmod(0o755)

    def test_tells_the_program_what_differs_from_the_base_and_how_the_contender_is_set(self) -> None:
        self.have("compare_engine", ECHO_ARGUMENTS)
        variant = Contender("variant", "Variant", program="engine", settings={"ring-size": "1M", "spread": False})
        result = self.programs.measure(Measurement.of("rate", variant, {"spin": True, "payload": 64}), 150)
        self.assertEqual(result, {"told": "rate --milliseconds 150 --spin --ring-size 1M"})

    def test_keeps_what_programs_leave_behind_together(self) -> None:
        self.have("compare_one", """printf '{"place": "%s"}' "$TMPDIR" """)
        self.assertEqual(self.programs.describe(Contender("one", "One")), {"place": str(self.folder)})

    def test_says_which_program_failed_and_why(self) -> None:
        for script, reason in (
            ("echo no probe came back in time >&2; exit 1", "no probe came back in time"),
            ("kill -KILL $$", "died with <Signals.SIGKILL: 9>"),
            ("echo no JSON", "Expecting value"),
            (None, "No such file"),
        ):
            with self.subTest(script=script):
                (self.folder / "compare_one").unlink(missing_ok=True)
                if script:
                    self.have("compare_one", script)
                self.assertIsNone(self.programs.measure(Measurement.of("round-trip", Contender("one", "One")), 5))
                self.assertIn("compare_one round-trip --milliseconds 5: ", self.programs.failures[-1])
                self.assertIn(reason, self.programs.failures[-1])

    def test_ends_a_program_that_takes_too_long(self) -> None:
        self.have("compare_one", "exec sleep 60")
        programs = Programs(self.folder, self.folder, seconds_max=0.05)
        self.assertIsNone(programs.describe(Contender("one", "One")))
        self.assertIn("timed out", programs.failures[0])

"""What scripts/test says of what the builds and the tests end with."""

import os
import subprocess
import tempfile
import unittest
from pathlib import Path

SOURCE = Path(__file__).parents[2]


class ResultTest(unittest.TestCase):
    def run_with(self, build_fails_for, summaries):
        """Its last lines and exit code, with tools that build nothing and say the summaries of the presets."""
        with tempfile.TemporaryDirectory() as directory:
            tools = Path(directory)
            (tools / "cmake").write_text(f'#!/bin/sh\n[ "$1 $3" != "--build {build_fails_for}" ]\n')
            cases = "".join(f"{preset}) echo '{said}'; exit {code} ;;\n" for preset, (said, code) in summaries.items())
            (tools / "ctest").write_text(f'#!/bin/sh\ncase "$2" in\n{cases}esac\n')
            for tool in tools.iterdir():
                tool.chmod(0o755)
            done = subprocess.run(
                [SOURCE / "scripts/test", "debug", "release"],
                env=dict(os.environ, PATH=f"{tools}:{os.environ['PATH']}", PRICE_CONNECTOR_SKIP_SETUP="1"),
                capture_output=True,
                text=True,
                check=False,
            )
        return done.stdout.splitlines(), done.returncode

    def test_presets_add_up(self):
        passed = ("1/9 Test #1: a ...***Skipped\n100% tests passed, 0 tests failed out of 9", 0)
        lines, code = self.run_with("none", {"debug": passed, "release": passed})
        self.assertRegex(lines[0], r"^debug passed: 8 tests \(1 more skipped\) in \d+ s, building included$")
        self.assertEqual((lines[-1], code), ("16 passed, 0 failed", 0))

    def test_a_failure_of_one_preset_is_in_the_sum(self):
        passed = ("100% tests passed, 0 tests failed out of 9", 0)
        failed = ("67% tests passed, 3 tests failed out of 9", 8)
        lines, code = self.run_with("none", {"debug": failed, "release": passed})
        self.assertEqual(lines[0], "debug FAILED: 3 tests failed out of 9")
        self.assertEqual((lines[-1], code), ("15 passed, 3 failed", 1))

    def test_what_does_not_build_or_run_is_a_failure(self):
        lines, code = self.run_with("release", {"debug": ("No tests were found", 1)})
        self.assertEqual(lines[:2], ["debug FAILED: no tests were run", "release FAILED: does not build"])
        self.assertEqual((lines[-1], code), ("0 passed, 2 failed", 1))


if __name__ == "__main__":
    unittest.main()

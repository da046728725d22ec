"""The installed man pages are there, and as the formatter wants them."""

import os
import shutil
import subprocess
import unittest
from pathlib import Path

PREFIX = Path(os.environ["PREFIX"])


class ManPagesTest(unittest.TestCase):
    def test_every_program_has_a_page(self):
        for program in (PREFIX / "bin").iterdir():
            self.assertTrue((PREFIX / "share/man/man1" / f"{program.name}.1").is_file(), program.name)

    @unittest.skipUnless(shutil.which("mandoc"), "mandoc is not installed")
    def test_the_formatter_has_nothing_to_say(self):
        pages = sorted((PREFIX / "share/man").glob("man*/*"))
        self.assertGreaterEqual(len(pages), 6)
        check = subprocess.run(
            ["mandoc", "-M", PREFIX / "share/man", "-T", "lint", "-W", "style", *pages],
            capture_output=True,
            text=True,
            check=False,
        )
        # Nobody has made an index of a folder that has just been installed.
        said = [line for line in (check.stdout + check.stderr).splitlines() if "outdated mandoc.db" not in line]
        self.assertEqual(said, [])


if __name__ == "__main__":
    unittest.main()

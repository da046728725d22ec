"""What the comparison of the operations guide with the sources finds."""

import tempfile
import unittest
from pathlib import Path

from check import Guide, Sources, faults_between

GUIDE = """# A guide

| Variable | Meaning |
|---|---|
| `TOLD_OF` | |

## Log lines

| Text | Level | Meaning | What to do |
|---|---|---|---|
| `Told topic=… of …` | INFO | | |
| `Told in full` | INFO | | |
| `Failed to tell: …` | ERROR | | |

| Text | Meaning | What to do |
|---|---|---|
| `lbm warning: odd …` | Odd. | |
"""

SOURCE = """// ZQLOG(ZQLOG_INFO, 0, "a comment prints nothing");
constexpr auto kFailed = "Failed "
                         "to tell";
void Tell(const char* given) {
  Environment("TOLD_OF");
  ZQLOG(ZQLOG_INFO, 0, "Told topic=" << Topic("a, b)") << " of " << given);
  ZQLOG_FORMAT(ZQLOG_INFO, 0, "Told topic=%s of %u", topic, 2);
  ThrowIfFailed(Call("(", ','), kFailed);
  warnings.Tell([&] { return given.empty() ? given : "odd " + given + "; really"; });
"""


def faults_of(added_source="", guide=GUIDE):
    with tempfile.TemporaryDirectory() as directory:
        root = Path(directory)
        (root / "docs").mkdir()
        (root / "docs/operations.md").write_text(guide, encoding="utf-8")
        (root / "lbm/source").mkdir(parents=True)
        source = SOURCE + '  LBM_LOG(ZQLOG_INFO, kPlace,\n          "Told in "\n          "full");\n' + added_source
        (root / "lbm/source/tell.cpp").write_text(source + "\n}\n", encoding="utf-8")
        return faults_between(Sources(root), Guide(root / "docs/operations.md"))


class CheckTest(unittest.TestCase):
    def test_a_guide_that_tells_everything_has_no_faults(self):
        self.assertEqual(faults_of(), [])

    def test_every_way_to_print_needs_a_row(self):
        for call, line in (
            ('ZQLOG(ZQLOG_INFO, 0, "New")', "New"),
            ('ZQLOG(ZQLOG_INFO, 0, "Told in fullness")', "Told in fullness"),
            ('ZQLOG_FORMAT(ZQLOG_INFO, 0, "new=%d", 1)', "new=…"),
            ('ZQLOG_AT(ZQLOG_INFO, 0, Source("a"), kFile, 1, "New " << 1)', "New …"),
            ('TRIAGE_LOG(ZQLOG_INFO, kPlace, "New")', "New"),
            ('LogLbmError("Failed anew")', "Failed anew: …"),
            ('PrintLine("New ", 1)', "New "),
            ('ReportTrouble(std::string("new ") + given)', "zq::logging: new …"),
            ('Notice(LBM_LOG_ERROR, "new")', "lbm error: new"),
            ('WriteAll(STDERR_FILENO, "new\\n")', "new"),
        ):
            with self.subTest(call):
                expected = f'lbm/source/tell.cpp:13: prints "{line}", of which docs/operations.md has no row'
                self.assertEqual(faults_of(call + ";"), [expected])

    def test_a_line_at_another_level_is_a_fault(self):
        (fault,) = faults_of('ZQLOG(ZQLOG_ERROR, 0, "Told in full");')
        self.assertIn("at ERROR; docs/operations.md says INFO", fault)

    def test_a_text_from_elsewhere_is_a_fault_unless_its_giver_is_known(self):
        (fault,) = faults_of("ZQLOG(ZQLOG_INFO, 0, given << 1);")
        self.assertIn("tell.cpp:13: ZQLOG prints a text whose beginning is not to be seen: given", fault)

    def test_a_row_without_a_line_is_a_fault(self):
        (fault,) = faults_of(guide=GUIDE + "| `Gone …` | Odd. | |\n")
        self.assertIn('tells of "Gone …"', fault)

    def test_a_variable_without_a_row_is_a_fault(self):
        (fault,) = faults_of('Environment("NEW");')
        self.assertIn("reads NEW", fault)


if __name__ == "__main__":
    unittest.main()

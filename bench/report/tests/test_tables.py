import unittest

from report.page import with_figures
from report.tables import Table, short

TABLE = Table("Rates", ["", "16 bytes", "64 bytes", "note"], [["ring", 47472.4, None, ""], ["nng", 0.3267, 2, "lost"]])


class Layout(unittest.TestCase):
    def test_sets_numbers_to_the_right_and_text_to_the_left(self) -> None:
        self.assertEqual(
            TABLE.as_text().splitlines(),
            ["Rates", "      16 bytes  64 bytes  note", "ring    47,472", "nng      0.327         2  lost"],
        )

    def test_is_the_same_in_markdown(self) -> None:
        self.assertEqual(
            TABLE.as_markdown().splitlines(),
            [
                "**Rates**",
                "",
                "|  | 16 bytes | 64 bytes | note |",
                "| --- | --: | --: | --- |",
                "| ring | 47,472 |  |  |",
                "| nng | 0.327 | 2 | lost |",
            ],
        )

    def test_numbers_have_three_digits_or_all_before_the_point(self) -> None:
        numbers = {
            0: "0",
            0.0111234: "0.0111",
            9.996: "10",
            99.96: "100",
            100.4: "100",
            -104.3: "-104",
            1008400: "1,008,400",
        }
        self.assertEqual({number: short(number) for number in numbers}, numbers)


class WithFigures(unittest.TestCase):
    page = "# Title\n\n<!-- tables -->\nold\n<!-- end of tables -->\n\nAfter\n"

    def test_replaces_what_is_between_the_markers_and_nothing_else(self) -> None:
        figures = r"100 \1 \g<0> new"
        once = with_figures(self.page, figures)
        self.assertEqual(once, f"# Title\n\n<!-- tables -->\n\n{figures}\n<!-- end of tables -->\n\nAfter\n")
        self.assertEqual(with_figures(once, figures), once)

    def test_refuses_a_page_without_a_place_for_them(self) -> None:
        for page in ("# Title\n", self.page.replace("end of", ""), self.page.replace("<!-- tables -->\n", "")):
            with self.subTest(page=page), self.assertRaisesRegex(ValueError, "place"):
                with_figures(page, "new")

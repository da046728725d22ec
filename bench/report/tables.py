"""One layout of tables for the terminal and for Markdown."""

from collections.abc import Mapping, Sequence
from dataclasses import dataclass

Cell = str | float | None


@dataclass(frozen=True)
class Table:
    """Columns of numbers are set to the right, those with any text to the left. None is an empty cell."""

    title: str
    header: Sequence[str]
    rows: Sequence[Sequence[Cell]]

    @classmethod
    def of(cls, title: str, rows: Sequence[Mapping[str, Cell]]) -> "Table":
        """Of rows that all have the same columns."""
        return cls(title, list(rows[0]) if rows else [], [list(row.values()) for row in rows])

    def as_text(self) -> str:
        cells = [self.header, *self._cells()]
        widths = [max(map(len, column)) for column in zip(*cells)]
        layout = list(zip(widths, self._numbers()))
        lines = (
            "  ".join(cell.rjust(width) if number else cell.ljust(width) for cell, (width, number) in zip(row, layout))
            for row in cells
        )
        return "\n".join([self.title, *(line.rstrip() for line in lines)])

    def as_markdown(self) -> str:
        rule = ["--:" if number else "---" for number in self._numbers()]
        lines = (f"| {' | '.join(row)} |" for row in [self.header, rule, *self._cells()])
        return "\n".join([f"**{self.title}**", "", *lines])

    def _cells(self) -> list[list[str]]:
        return [[cell if isinstance(cell, str) else short(cell) for cell in row] for row in self.rows]

    def _numbers(self) -> list[bool]:
        return [not any(isinstance(cell, str) for cell in column) for column in zip(*self.rows)]


def short(value: float | None) -> str:
    """Three significant digits, or all of a larger number's that stand before its point."""
    if value is None:
        return ""
    return f"{value:,.0f}" if abs(value) >= 100 else f"{value:.3g}"

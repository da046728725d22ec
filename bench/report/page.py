"""Puts the comparison's figures into a page of documentation."""

from .comparison import Report

BEGIN = "<!-- tables -->\n"
END = "<!-- end of tables -->"


def with_figures(page: str, figures: str) -> str:
    """The page, with these figures between the markers instead of what stood there."""
    before, begin, rest = page.partition(BEGIN)
    _, end, after = rest.partition(END)
    if not end:
        raise ValueError(f"the page has no place for figures between {BEGIN.strip()} and {END}")
    return f"{before}{begin}\n{figures}\n{end}{after}"


def figures_of(report: Report, pictures: str) -> str:
    """Everything that the report has, as Markdown, with the plots in that folder."""
    headline = "\n".join(f"{line}  " for line in report.headline())
    tables = [table.as_markdown() for table in [report.aims(), *report.tables()]]
    plots = [f"![{plot.title}]({pictures}/{plot.file})" for plot in report.plots()]
    return "\n\n".join([headline, *tables, *plots]) + "\n"

"""Makes the man pages of section 7 from the tables of the pages of documentation.

    section7.py price_connector|price_connector-options <folder of the pages> > <man page>

In mdoc(7). The date is that of the environment variable SOURCE_DATE_EPOCH, otherwise today's.
"""

import os
import re
import sys
import textwrap
import time
from pathlib import Path

SEE_ALSO = (("price_client", 1), ("price_server", 1), ("price_stat", 1), ("triage", 1))


def text(markdown):
    """Short lines of roff for one line of Markdown, with a new one for each sentence."""
    plain = re.sub(r"\[([^]]*)\]\([^)]*\)", r"\1", markdown)
    plain = plain.replace("**", "").replace("\\", "\\e").replace("-", "\\-")
    sentences = re.sub(r"`([^`]*)`", r"\\fB\1\\fR", plain).replace(". ", ".\n").splitlines()
    lines = [
        line
        for sentence in sentences
        for line in textwrap.wrap(sentence, 76, break_long_words=False, break_on_hyphens=False)
    ]
    return "\n".join(("\\&" if line[0] in ".'" else "") + line for line in lines)


def cells_of(row):
    return [cell.strip() for cell in row.strip().strip("|").split("|")]


def tables_of(page):
    """The page's tables by the heading above: the cells of the rows, with those of the head first."""
    tables, heading = {}, ""
    for line in page.splitlines():
        if line.startswith("#"):
            heading = line.lstrip("# ").replace("`", "")
        elif line.startswith("|") and not line.startswith("|---"):
            tables.setdefault(heading, []).append(cells_of(line))
    return tables


def item(tag, *paragraphs):
    return f".It {tag}\n" + "\n".join(text(paragraph) for paragraph in paragraphs if paragraph) + "\n"


def listed(items):
    return ".Bl -tag -width Ds\n" + "".join(items) + ".El\n"


def page_of(name, about, body, see_also):
    day = time.gmtime(int(os.environ.get("SOURCE_DATE_EPOCH", time.time())))
    others = "".join(f".Xr {other} {section} ,\n" for other, section in see_also)
    return (
        f".Dd {time.strftime('%B', day)} {day.tm_mday}, {day.tm_year}\n.Dt {name.upper()} 7\n.Os\n.Sh NAME\n.Nm {name}\n.Nd {about}\n"
        + body
        + ".Sh SEE ALSO\n"
        + others.removesuffix(" ,\n")
        + "\n"
    )


def environment_and_files(folder):
    tables = tables_of((folder / "operations.md").read_text(encoding="utf-8"))
    variables = [
        item(f"Ev {row[0].strip('`')}", row[2], f"Read {row[1]}.") for row in tables["Environment variables"][1:]
    ]
    files = [item(f"Pa {row[0].strip('`')}", row[1]) for row in tables["Files"][1:]]
    return page_of(
        "price_connector",
        "environment and files of programs that use the price connector",
        ".Sh DESCRIPTION\nPrograms that are linked with the price connector, its command line tools\nincluded, read these "
        "variables and use these files.\n.Sh ENVIRONMENT\nA variable that is empty counts as unset, unless it says "
        "otherwise.\n" + listed(variables) + ".Sh FILES\n" + listed(files),
        (*SEE_ALSO, ("price_connector-options", 7)),
    )


def options(folder):
    body = (
        ".Sh DESCRIPTION\nThe embedded engine reads defaults for the whole process from the file that\nthe environment "
        "variable\n.Ev LBM_CONFIG_FILE\nnames: a scope, an option and its value on each line.\nPrograms may set other "
        "values on the objects that they make.\n"
    )
    tables = tables_of((folder / "engine-options.md").read_text(encoding="utf-8"))
    for heading, rows in tables.items():
        body += f".Ss {heading}\n"
        items = []
        for name, _, default, allowed, change, meaning in rows[1:]:
            facts = [f"Default: {default}." if default else "", f"Allowed: {allowed}." if allowed else ""]
            items.append(item(f"Cm {name.strip('`')}", meaning, *facts, f"Can be set: {change}."))
        body += listed(items)
    body += (
        ".Sh EXAMPLES\nContexts of this process meet others through a NATS server, and sources wait\nfor their "
        "receivers:\n.Bd -literal -offset indent\ncontext transport host,nats\ncontext nats_servers "
        "nats://10.0.0.1:4222\nsource transport_pacing receiver\n.Ed\n"
    )
    return page_of(
        "price_connector-options", "options of the embedded messaging engine", body, (*SEE_ALSO, ("price_connector", 7))
    )


PAGES = {"price_connector": environment_and_files, "price_connector-options": options}

if __name__ == "__main__":
    sys.stdout.write(PAGES[sys.argv[1]](Path(sys.argv[2])))

"""Prints a header with its comments as Doxygen looks for them: those of the file, directly above or behind declarations.

    doc_comments.py <header>
"""

import re
import sys
from pathlib import Path

BEHIND = re.compile(r"^(?P<code>\s*(#define\b|[^\s/#}]).*?[;,{})\]\w]\s+)(?P<mark>//|/\*)(?P<text> .*)$")
TAG = re.compile(r"<([a-z ]+)>")


def documented(lines):
    block, is_first = [], True
    for line in [*lines, ""]:
        text = line.strip()
        is_open = bool(block) and block[0].lstrip().startswith("/*") and "*/" not in block[-1]
        if is_open or text.startswith("//") or (text.startswith("/*") and not block):
            block.append(TAG.sub(r"\<\1\>", line))
            continue
        if block:
            yield from marked(block, is_first, bool(text))
            is_first, block = False, []
        yield behind(line)


def marked(block, is_first, has_declaration):
    """A block of comment lines: of the file, of the declaration that follows, or of neither."""
    if not is_first and not has_declaration:
        return block
    if block[0].lstrip().startswith("/*"):
        return [block[0].replace("/*", "/** @file\n *" if is_first else "/**", 1), *block[1:]]
    lines = [line.replace("//", "///", 1) for line in block]
    return ["/// @file", *lines] if is_first else lines


def behind(line):
    found = BEHIND.match(line)
    if not found or "NOLINT" in line:
        return line
    return found["code"] + found["mark"] + ("/<" if found["mark"] == "//" else "*<") + TAG.sub(r"\<\1\>", found["text"])


if __name__ == "__main__":
    print("\n".join(documented(Path(sys.argv[1]).read_text(encoding="utf-8").splitlines())))

"""Fails when the operations guide and the sources drift apart.

Every environment variable that the sources read has a row in the guide, every line that they can print has one with its
level, and every row tells of a line that is in the sources.

    check.py <source tree>
"""
import re
import sys
from pathlib import Path

ROOMS = ("lbm", "messaging", "misc", "platform", "price_server", "tools")
VALUE = "…"  # stands for a value in the texts of the guide and here

# Who logs: which argument is the level, and which one the text.
STATEMENTS = {
    "ZQLOG": (0, 2),
    "ZQLOG_FORMAT": (0, 2),
    "ZQLOG_AT": (0, 5),
    "LBM_LOG": (0, 2),
    "LBM_LOG_FROM": (1, 3),
    "TRIAGE_LOG": (0, 2),
}
REASON = ": " + VALUE
# Functions that hand a text on to a statement: its level, which argument the text is, and what they put behind it.
FORWARDERS = {
    "ThrowLbmError": ("ERROR", 0, REASON),
    "LogLbmError": ("ERROR", 0, REASON),
    "ThrowIfFailed": ("ERROR", 1, REASON),
    "ReadTextOption": ("ERROR", 1, REASON),
    "Trace": ("INFO_SEARCH", 1, VALUE),
    "TakeNumber": ("WARNING", 3, VALUE),
    "Make": ("INFO", 2, VALUE),
    "Create": ("INFO", 1, VALUE),
}
# Names that mean something else in other files.
ONLY_IN = dict.fromkeys(("Make", "Create"), "price_server/ps_common/connector/source/lbm_client_resource_mgr.cpp")
# What is printed beside the log, and what stands before its text.
STREAMS = {
    "PrintLine": ("", 0),
    "ReportTrouble": ("zq::logging: ", 0),
    "Tell": ("lbm warning: ", 0),
    "WarnOfRefusal": ("lbm warning: ", 0),
    "Notice": ("lbm error: ", 1),
    "WriteAll": ("", 1),
}
# Texts that somebody else has given, who is in one of the tables above.
GIVEN = {
    "lbm/include/lbm/errors.h": {"msg"},
    "lbm/source/errors.cpp": {"error", "msg"},
    "lbm/source/text_option.h": {"msg"},
    "lbm/source/triage_handler.cpp": {"invalid"},
    "lbm/source/triage_requests.cpp": {"event"},
    "misc/logger/source/backend/output.cpp": {"line"},
    "misc/logger/source/backend/sinks.cpp": {"LineOf", "m_line"},
    "misc/logger/source/backend/trouble.cpp": {'"zq::logging: "'},
    "platform/lbm/embedded/source/api/transports.cpp": {"text"},
    "platform/lbm/embedded/source/transport/host/link/acceptor.cpp": {"compose", "TextOf"},
    "price_server/ps_common/connector/source/lbm_client_resource_mgr.cpp": {"logPrefix", "std"},
}

LITERAL = r'"(?:[^"\\\n]|\\.)*"'
LITERALS = rf"{LITERAL}(?:\s*{LITERAL})*"
VARIABLE = re.compile(r'(?:getenv|Environment|envname|Variable(?:\[\])?)(?: = )?\(?"([A-Z][A-Z0-9_]*)"')
CONSTANT = re.compile(rf"\b(k[A-Z]\w*)(?:\[\])?\s*=\s*({LITERAL}(?:\s*(?:{LITERAL}|\w+))*)")
PRINTER = re.compile(rf"\b({'|'.join([*STATEMENTS, *FORWARDERS, *STREAMS])})(?:<[\w:]+>)?\(")
# The last result of a lambda, and of a choice in it.
LAMBDA = re.compile(rf'^\[.*\breturn\s+(?:[^;?"]*\?[^;?"]*?:\s+)?((?:{LITERAL}|[^;"])*);\s*\}}$', re.S)
DECLARED = re.compile(r"(?:const|std::string|Compose|typename)\b [&*\w]")  # a parameter, where a call has a text
CHARACTER = r"'(?:[^'\\\n]|\\.)+'"
COMMENT = re.compile(rf"({LITERAL}|{CHARACTER})|//[^\n]*|/\*.*?\*/", re.S)
DIRECTIVE = re.compile(r"()^[ \t]*#(?:[^\n\\]|\\.)*", re.M | re.S)
TOKEN = re.compile(rf"{LITERAL}|{CHARACTER}|\w+|<<|\S")


def text_of(literals):
    """The text that adjacent literals make."""
    pieces = re.findall(LITERAL, literals)
    return "".join(piece[1:-1] for piece in pieces).replace('\\"', '"').removesuffix("\\n")


def without(what, source):
    """The source without what, on the same lines; a group of what stays."""
    return what.sub(lambda match: match[1] or " " + "\n" * match[0].count("\n"), source)


def arguments_at(source, begin):
    """The arguments of a call whose opening parenthesis stands before begin."""
    arguments, depth, start = [], 0, begin
    for token in TOKEN.finditer(source, begin):
        if token[0] in ("(", "[", "{"):
            depth += 1
        elif token[0] in (")", "]", "}") and depth > 0:
            depth -= 1
        elif depth == 0 and token[0] in (",", ")"):
            arguments.append(source[start : token.start()].strip())
            start = token.end()
            if token[0] == ")":
                break
    return arguments


def skeleton_of(expression, constants):
    """What an expression prints, with VALUE for what is not known."""
    expression = re.sub(rf"\bstd::string\(\s*({LITERALS})\s*\)", r"\1", expression)
    expression = re.sub(r"(?:\w+(?:<\w+>)?::)*\b(k[A-Z]\w*)", lambda name: constants.get(name[1], name[0]), expression)
    skeleton, depth = "", 0
    for token in TOKEN.findall(expression):
        depth += (token in "([{") - (token in ")]}")
        if depth == 0 and token.startswith('"'):
            skeleton += text_of(token)
        elif token not in ("<<", "+", "'\\n'") and not skeleton.endswith(VALUE):
            skeleton += VALUE
    return re.sub(r"%\w+", VALUE, skeleton)


class Sources:
    """The lines that the sources can print, and the variables that they read."""

    def __init__(self, root):
        self.faults = []
        self.variables = {}  # name: file
        self.lines = []  # (level or nothing, skeleton, place)
        files = {}
        for room in ROOMS:
            for path in sorted((root / room).rglob("*")):
                name = path.relative_to(root).as_posix()
                if path.suffix in (".cpp", ".h") and "/tests/" not in name and "/scripted/" not in name:
                    files[name] = without(COMMENT, path.read_text(encoding="utf-8"))
        # Constants of one name print different texts in different files.
        everywhere = {}
        for name, source in files.items():
            for variable in VARIABLE.findall(source):
                self.variables.setdefault(variable, name)
            everywhere.update(CONSTANT.findall(source))
        for name, source in files.items():
            self.collect(name, without(DIRECTIVE, source), everywhere | dict(CONSTANT.findall(source)))

    def collect(self, name, source, constants):
        for call in PRINTER.finditer(source):
            printer, arguments = call[1], arguments_at(source, call.end())
            before, behind = "", ""
            if printer in STATEMENTS:
                level, at = STATEMENTS[printer]
                level = arguments[level].rpartition("ZQLOG_")[2]
            elif printer in FORWARDERS:
                level, at, behind = FORWARDERS[printer]
            else:
                level, (before, at) = None, STREAMS[printer]
                if arguments[0] == "LBM_LOG_WARNING":
                    before = "lbm warning: "
            if ONLY_IN.get(printer, name) != name or printer == "WriteAll" and arguments[0] != "STDERR_FILENO":
                continue
            if at >= len(arguments) or DECLARED.match(arguments[at]):
                continue
            place = f"{name}:{source.count(chr(10), 0, call.start()) + 1}"
            text = LAMBDA.sub(r"\1", arguments[at])
            if re.match(rf"{LITERAL}|\w*", text)[0] in GIVEN.get(name, ()):
                continue
            skeleton = skeleton_of(text, constants)
            line = (before + skeleton + behind).replace(VALUE + VALUE, VALUE)
            if skeleton == VALUE or line.startswith(VALUE):
                self.faults.append(f"{place}: {printer} prints a text whose beginning is not to be seen: {text}")
            else:
                self.lines.append((level, line, place))


class Guide:
    """The rows of the guide's tables."""

    def __init__(self, path):
        self.text = path.read_text(encoding="utf-8")
        self.rows = []  # (level or nothing, text)
        for cells in re.findall(r"^\| `([^`]+)` \| ([^|]*) \|", self.text.partition("\n## Log lines")[2], re.M):
            self.rows.append((cells[1] if re.fullmatch("[A-Z_]+", cells[1]) else None, cells[0]))

    def has_variable(self, name):
        return f"\n| `{name}` |" in self.text


def tells_of(row, line):
    """Whether a row is about a line: its pieces are in the line in their order, and the line begins with the first."""
    pattern = ".*".join(map(re.escape, row.split(VALUE)))
    return re.fullmatch(pattern, line) is not None


def faults_between(sources, guide):
    faults = list(sources.faults)
    for variable, name in sources.variables.items():
        if not guide.has_variable(variable):
            faults.append(f"{name}: reads {variable}, of which docs/operations.md has no row")
    told = set()
    for level, line, place in sources.lines:
        rows = [row for row in guide.rows if tells_of(row[1], line)]
        told.update(rows)
        if not rows:
            faults.append(f'{place}: prints "{line}", of which docs/operations.md has no row')
        elif level not in [row[0] for row in rows]:
            faults.append(f'{place}: prints "{line}" at {level}; docs/operations.md says {rows[0][0]}')
    for row in guide.rows:
        if row not in told:
            faults.append(f'docs/operations.md: tells of "{row[1]}", which is not in the sources')
    return faults


def main(root):
    sources, guide = Sources(root), Guide(root / "docs/operations.md")
    faults = faults_between(sources, guide)
    if not sources.variables or not sources.lines or not guide.rows:
        faults.append("nothing to compare")
    for fault in faults:
        print(fault)
    print(f"{len(sources.variables)} variables, {len(sources.lines)} places that print, {len(guide.rows)} rows")
    return 1 if faults else 0


if __name__ == "__main__":
    sys.exit(main(Path(sys.argv[1])))

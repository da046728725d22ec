"""The pages that teach by commands: every command and program on them, run in the order of the page.

A block marked as console has commands behind "$ ", each with what it prints below it, where "…" stands for anything and
a line of it alone for any number of lines. Another block is a file if the line above it ends with its name and a colon.
What a test cannot do, such as becoming root, stands behind a comment that begins with "not run" and says why.

Commands of different machines have these names before "$ ". Here each machine is a folder and a runtime directory, the
addresses are this machine's, and the ports free ones.
"""

import contextlib
import os
import re
import signal
import socket
import subprocess
import tempfile
import unittest
from pathlib import Path

PREFIX = Path(os.environ["PREFIX"])
SOURCE = Path(os.environ["SOURCE"])
DOCS = SOURCE / "docs"
PAGES = [
    *(DOCS / name for name in ("tutorial.md", "operations.md", "many-machines.md")),
    *sorted((DOCS / "howto").glob("*.md")),
]

BLOCK = re.compile(r"^```(\w*)\n(.*?)^```$", re.M | re.S)
NAME = re.compile(r"`([\w./-]+)`:\s*\Z")
PROMPT = re.compile(r"(\w*)\$ (.*)")
NOT_RUN = re.compile(r"<!-- not run: [^>]+ -->\s*\Z")


class Command:
    def __init__(self, machine, line):
        self.machine = machine
        self.line = line
        self.expected = []

    def pattern(self):
        lines = [
            "(?:.*\n)*" if line == "…" else ".*".join(map(re.escape, line.split("…"))) + "\n" for line in self.expected
        ]
        return "".join(lines)


def steps_of(page):
    """Commands and files (pairs of name and text), in their order."""
    steps, end = [], 0
    for block in BLOCK.finditer(page):
        before, (kind, text) = page[end : block.start()], block.groups()
        end = block.end()
        name = NAME.search(before)
        if NOT_RUN.search(before):
            continue
        if kind == "console":
            for line in text.splitlines():
                if prompt := PROMPT.match(line):
                    steps.append(Command(*prompt.groups()))
                elif steps[-1].line.endswith("\\"):
                    steps[-1].line += "\n" + line
                else:
                    steps[-1].expected.append(line)
        elif name:
            steps.append((name[1], text))
    return steps


def licensed_library(directory):
    """The embedded engine in the place of the licensed library, under the names that one has."""
    root = Path(directory) / "licensed"
    (root / "include/lbm").mkdir(parents=True)
    (root / "lib").mkdir()
    (root / "include/lbm/lbm.h").symlink_to(PREFIX / "include/price_connector/lbm/lbm.h")
    (engine,) = PREFIX.glob("lib*/**/libprice_connector_lbm_embedded.so")
    (root / "lib/liblbm.so").symlink_to(engine)
    return root


def free_port():
    with socket.socket() as probe:
        probe.bind(("127.0.0.1", 0))
        return str(probe.getsockname()[1])


def here(page):
    """The page, for this machine."""
    for there, place in (
        ("0.0.0.0", "127.0.0.1"),
        ("nats://hub:", "nats://127.0.0.1:"),
        ("4222", free_port()),
        ("8222", free_port()),
        ("/usr/share/price_connector/prices", f"{SOURCE}/data"),
    ):
        page = page.replace(there, place)
    return page


class Shell:
    """A bash that has the installation in its path, and all that it starts."""

    def __init__(self, directory):
        directory.mkdir(exist_ok=True)
        environment = dict(
            {name: value for name, value in os.environ.items() if name != "DISABLE_LBM_TRIAGE_HANDLER"},
            PATH=f"{PREFIX}/bin:{os.environ['PATH']}",
            CMAKE_PREFIX_PATH=str(PREFIX),
            CMAKE_GENERATOR="Ninja",
            CMAKE_BUILD_PARALLEL_LEVEL="2",
            HOME=str(directory),
            LBM_RUNTIME_DIR=f"{directory}/lbm",
            LBM_ROOT=str(licensed_library(directory)),
            ZQ_STATISTICS_DIR=f"{directory}/statistics",
            PRICE_CONNECTOR_SOURCE=str(SOURCE),
        )
        self.process = subprocess.Popen(
            ["bash"],
            stdin=subprocess.PIPE,
            stdout=subprocess.PIPE,
            stderr=subprocess.STDOUT,
            text=True,
            cwd=directory,
            env=environment,
            start_new_session=True,
        )

    def close(self):
        os.killpg(self.process.pid, signal.SIGKILL)
        self.process.communicate()

    def run(self, line):
        """What the command has printed, and its exit code."""
        self.process.stdin.write(f"{line}\nprintf '\\n\\002%d\\n' $?\n")
        self.process.stdin.flush()
        said = ""
        for text in self.process.stdout:
            if text.startswith("\x02"):
                return said.removesuffix("\n"), int(text[1:])
            said += text
        raise AssertionError(f"the shell ended in {line!r}:\n{said}")


class PagesTest(unittest.TestCase):
    def follow(self, page):
        steps = steps_of(here(page.read_text(encoding="utf-8")))
        self.assertTrue(steps)
        with tempfile.TemporaryDirectory(ignore_cleanup_errors=True) as directory, contextlib.ExitStack() as at_end:
            shells = {}
            for machine in {step.machine for step in steps if isinstance(step, Command)}:
                shells[machine] = Shell(Path(directory) / machine)
                at_end.callback(shells[machine].close)
            for step in steps:
                if isinstance(step, tuple):
                    for machine in shells:
                        file = Path(directory) / machine / step[0]
                        file.parent.mkdir(parents=True, exist_ok=True)
                        file.write_text(step[1], encoding="utf-8")
                    continue
                said, code = shells[step.machine].run(step.line)
                self.assertEqual(code, 0, f"{page.name}: $ {step.line}\n{said}")
                if step.expected and not re.fullmatch(step.pattern(), said if said.endswith("\n") else said + "\n"):
                    self.fail(f"{page.name}: $ {step.line}\nis to print\n{step.pattern()}\nand prints\n{said}")

    def test_the_versions_of_the_protocols_are_told(self):
        told = (SOURCE / "docs/howto/upgrading.md").read_text(encoding="utf-8")
        transport = SOURCE / "platform/lbm/embedded/source/transport"
        for file, where in (("host/wire/frames.h", "in shared memory"), ("nats/wire.h", "through NATS")):
            version = re.search(r"kVersion = (\d+);", (transport / file).read_text(encoding="utf-8"))[1]
            self.assertIn(f"| the protocol {where}, version {version} |", told)

    def test_every_page_says_what_happens(self):
        self.assertGreater(len(PAGES), 5)
        for page in PAGES:
            with self.subTest(page.name):
                self.follow(page)


if __name__ == "__main__":
    unittest.main()

"""What an interactive bash makes of the beginning of a command line and the Tab key."""

import os
import pty
import select
import subprocess
import tempfile
import time
import unittest
from pathlib import Path

PREFIX = Path(os.environ["PREFIX"])
PROMPT = "ready> "


class Shell:
    """An interactive bash that has read the installed completions."""

    def __init__(self, directory):
        self.master, slave = pty.openpty()
        environment = dict(os.environ, PATH=f"{PREFIX}/bin:{os.environ['PATH']}", PS1=PROMPT, TERM="dumb")
        self.process = subprocess.Popen(
            ["bash", "--norc", "--noprofile", "-i"],
            stdin=slave,
            stdout=slave,
            stderr=slave,
            cwd=directory,
            env=environment,
            start_new_session=True,
        )
        os.close(slave)
        self.read_until(PROMPT)
        # All candidates after one Tab, no question when they are many, and the line as it is after Ctrl-G.
        self.run("bind 'set show-all-if-ambiguous on' 'set completion-query-items 0' 'set page-completions off'")
        self.run("bind 'set enable-bracketed-paste off'")
        self.run(r"""bind -x '"\C-g": printf "\002%s\003" "$READLINE_LINE"'""")
        self.run(f"for file in {PREFIX}/share/bash-completion/completions/*; do source $file; done")

    def close(self):
        self.process.kill()
        self.process.wait()
        os.close(self.master)

    def read_until(self, text):
        said, deadline = "", time.monotonic() + 20
        while not said.endswith(text):
            if not select.select([self.master], [], [], max(0, deadline - time.monotonic()))[0]:
                raise TimeoutError(f"waited for {text!r} and got {said!r}")
            said += os.read(self.master, 4096).decode()
        return said

    def run(self, command):
        os.write(self.master, command.encode() + b"\n")
        self.read_until(PROMPT)

    def tab(self, line):
        """The line as it is after the Tab key, and the candidates if there are several."""
        os.write(self.master, line.encode() + b"\t\x07\x15\n")
        shown, completed = self.read_until("\r\n" + PROMPT).partition("\x03")[0].rsplit("\x02", 1)
        return completed, set(shown.partition("\r\n")[2].rpartition(PROMPT)[0].split())


class CompletionTest(unittest.TestCase):
    def setUp(self):
        directory = tempfile.TemporaryDirectory()
        self.addCleanup(directory.cleanup)
        (Path(directory.name) / "prices.csv").touch()
        (Path(directory.name) / "pages").mkdir()
        self.shell = Shell(directory.name)
        self.addCleanup(self.shell.close)

    def test_a_word_that_can_only_be_one_is_completed(self):
        for line, completed in (
            ("price_client --inst", "price_client --instance "),
            ("price_server --prices pri", "price_server --prices prices.csv "),
            ("price_server --prices=pri", "price_server --prices=prices.csv "),
            ("price_client --segments a", "price_client --segments auto "),
            ("price_stat --log-level=deb", "price_stat --log-level=debug "),
            ("price_stat li", "price_stat list "),
            ("price_stat --directory pa", "price_stat --directory pages/"),
            ("price_stat watch --view rec", "price_stat watch --view receivers "),
            ("price_stat diff pri", "price_stat diff prices.csv "),
            ("triage nak-kill --dry", "triage nak-kill --dry-run "),
        ):
            with self.subTest(line):
                self.assertEqual(self.shell.tab(line)[0], completed)

    def test_all_that_is_possible_is_shown(self):
        for line, some, others in (
            ("triage ", {"test", "nak-kill", "--version"}, {"--dry-run", "--timeout"}),
            ("triage test --", {"--timeout", "--expect", "--log-level"}, {"--dry-run"}),
            ("price_stat --generate ", {"man", "bash"}, {"--help"}),
        ):
            with self.subTest(line):
                candidates = self.shell.tab(line)[1]
                self.assertLessEqual(some, candidates)
                self.assertFalse(others & candidates)

    def test_a_value_of_which_nothing_is_known_is_left_to_the_user(self):
        self.assertEqual(self.shell.tab("price_client --seconds "), ("price_client --seconds ", set()))


if __name__ == "__main__":
    unittest.main()

"""What interactive shells make of the beginning of a command line and the Tab key."""

import os
import pty
import select
import shutil
import subprocess
import tempfile
import time
import unittest
from pathlib import Path

PREFIX = Path(os.environ["PREFIX"])
PROMPT = "ready> "

# How they are started, and what they are told first: all candidates after one Tab, no question when they are many, the
# line as it is after Ctrl-G, and where the completions are.
SHELLS = {
    "bash": (
        "bash --norc --noprofile -i",
        "bind 'set show-all-if-ambiguous on' 'set completion-query-items 0' 'set page-completions off'",
        r"""bind -x '"\C-g": printf "\002%s\003" "$READLINE_LINE"'""",
        f"for file in {PREFIX}/share/bash-completion/completions/*; do source $file; done",
    ),
    "zsh": (
        "zsh -f -i",
        "unsetopt prompt_cr prompt_sp auto_menu auto_list; bindkey -e",
        f"fpath+=({PREFIX}/share/zsh/site-functions); autoload -Uz compinit; compinit -D -u",
        r"""show() { printf '\002%s\003' "$BUFFER" }; zle -N show; bindkey '^G' show""",
    ),
}


class Shell:
    """An interactive shell that has read the installed completions."""

    def __init__(self, name, directory):
        command, *settings = SHELLS[name]
        self.master, slave = pty.openpty()
        environment = dict(os.environ, PATH=f"{PREFIX}/bin:{os.environ['PATH']}", PS1=PROMPT, TERM="dumb")
        self.process = subprocess.Popen(
            command.split(),
            stdin=slave,
            stdout=slave,
            stderr=slave,
            cwd=directory,
            env=environment,
            start_new_session=True,
        )
        os.close(slave)
        self.read_until(PROMPT)
        for line in settings:
            self.run(line)

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
            said = said.replace("\x1b[?2004h", "").replace("\x1b[?2004l\r", "")  # about what is pasted
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
        self.directory = directory.name

    def shell(self, name):
        shell = Shell(name, self.directory)
        self.addCleanup(shell.close)
        return shell

    def check_what_can_only_be_one(self, shell, after_option):
        for line, completed in (
            ("price_client --inst", "price_client --instance" + after_option),
            ("price_stat list --direc", "price_stat list --directory" + after_option),
            ("price_server --prices pri", "price_server --prices prices.csv "),
            ("price_server --prices=pri", "price_server --prices=prices.csv "),
            ("price_client --segments a", "price_client --segments auto "),
            ("price_stat --log-level=deb", "price_stat --log-level=debug "),
            ("price_stat li", "price_stat list "),
            ("price_stat --directory pa", "price_stat --directory pages/"),
            ("price_stat watch --view rec", "price_stat watch --view receivers "),
            ("price_stat diff pri", "price_stat diff prices.csv "),
            ("triage nak-kill --dry", "triage nak-kill --dry-run "),
            ("triage test --dry", "triage test --dry"),
            ("price_client --seconds ", "price_client --seconds "),
        ):
            with self.subTest(line):
                self.assertEqual(shell.tab(line)[0], completed)

    def test_bash_completes_a_word_that_can_only_be_one(self):
        self.check_what_can_only_be_one(self.shell("bash"), " ")

    @unittest.skipUnless(shutil.which("zsh"), "zsh is not installed")
    def test_zsh_completes_a_word_that_can_only_be_one(self):
        self.check_what_can_only_be_one(self.shell("zsh"), "=")

    def test_bash_shows_all_that_is_possible(self):
        shell = self.shell("bash")
        for line, some, others in (
            ("triage ", {"test", "nak-kill", "--version"}, {"--dry-run", "--timeout"}),
            ("triage test --", {"--timeout", "--expect", "--log-level"}, {"--dry-run"}),
            ("price_stat --generate ", {"man", "bash", "zsh"}, {"--help"}),
        ):
            with self.subTest(line):
                candidates = shell.tab(line)[1]
                self.assertLessEqual(some, candidates)
                self.assertFalse(others & candidates)


if __name__ == "__main__":
    unittest.main()

"""The page of price_stat serve in a headless browser; skipped (77) where there is none."""

import itertools
import json
import os
import select
import shutil
import signal
import subprocess
import sys
import tempfile
import time
import unittest
from collections.abc import Callable
from typing import Any

PRICE_STAT, PLAYED_PROCESS = sys.argv[1:3]
BROWSER = next(filter(None, map(shutil.which, ["chromium", "chromium-headless-shell"])), None)
PATIENCE_SECONDS = 60


class Browser:
    """One page of a browser, driven through its debugging pipe."""

    def __init__(self, profile: str) -> None:
        assert BROWSER
        to_browser, self.commands = os.pipe()
        self.answers, from_browser = os.pipe()
        # The browser reads commands from descriptor 3 and writes answers to 4.
        pipes = f'exec {BROWSER} "$@" 3<&{to_browser} 4>&{from_browser}'
        options = [
            "--headless",
            "--no-sandbox",
            "--disable-gpu",
            "--disable-dev-shm-usage",
            "--remote-debugging-pipe",
            "--window-size=1280,1000",
            f"--user-data-dir={profile}",
        ]
        self.process = subprocess.Popen(
            ["bash", "-c", pipes, "browser", *options, "about:blank"],
            pass_fds=[to_browser, from_browser],
            stderr=subprocess.DEVNULL,
            start_new_session=True,
        )
        os.close(to_browser)
        os.close(from_browser)
        self.pending = b""
        self.numbers = itertools.count(1)
        self.complaints: list[str] = []
        self.session: str | None = None
        target = self.call("Target.createTarget", url="about:blank")["targetId"]
        self.session = self.call("Target.attachToTarget", targetId=target, flatten=True)["sessionId"]
        for domain in ("Page", "Runtime", "Log"):
            self.call(domain + ".enable")

    def close(self) -> None:
        os.close(self.commands)
        os.killpg(self.process.pid, signal.SIGKILL)
        self.process.wait()
        os.close(self.answers)

    def receive(self, deadline: float) -> dict[str, Any]:
        while b"\0" not in self.pending:
            ready, _, _ = select.select([self.answers], [], [], max(0, deadline - time.monotonic()))
            if not ready:
                raise TimeoutError("the browser does not answer")
            received = os.read(self.answers, 1 << 16)
            if not received:
                raise EOFError("the browser has ended")
            self.pending += received
        message, self.pending = self.pending.split(b"\0", 1)
        decoded: dict[str, Any] = json.loads(message)
        return decoded

    def call(self, method: str, **parameters: Any) -> dict[str, Any]:
        number = next(self.numbers)
        command = {"id": number, "method": method, "params": parameters}
        if self.session:
            command["sessionId"] = self.session
        os.write(self.commands, json.dumps(command).encode() + b"\0")
        deadline = time.monotonic() + PATIENCE_SECONDS
        while (message := self.receive(deadline)).get("id") != number:
            if message.get("method") in ("Runtime.exceptionThrown", "Log.entryAdded"):
                self.complaints.append(json.dumps(message["params"]))
        if "error" in message:
            raise RuntimeError(f"{method}: {message['error']}")
        result: dict[str, Any] = message["result"]
        return result

    def value(self, script: str) -> Any:
        return self.call("Runtime.evaluate", expression=script, returnByValue=True)["result"].get("value")

    def press(self, key: str) -> None:
        text = {"Enter": "\r"}.get(key, key if len(key) == 1 else "")
        code = {"Enter": 13, "Escape": 27, "Tab": 9}.get(key, 0)
        for kind in ("keyDown", "keyUp"):
            self.call(
                "Input.dispatchKeyEvent",
                type=kind,
                key=key,
                text=text if kind == "keyDown" else "",
                windowsVirtualKeyCode=code,
            )


CELLS = (
    "[...document.querySelectorAll('#contexts tbody tr')].map((row) => [...row.cells].map((cell) => cell.innerText))"
)


class BrowserTest(unittest.TestCase):
    def setUp(self) -> None:
        profile = tempfile.TemporaryDirectory(ignore_cleanup_errors=True)
        self.addCleanup(profile.cleanup)
        pages = tempfile.TemporaryDirectory()
        self.addCleanup(pages.cleanup)
        self.pages = pages.name
        self.server = self.start([PRICE_STAT, "--directory", self.pages, "serve", "--listen", "127.0.0.1:0"])
        assert self.server.stdout
        self.address = self.server.stdout.readline().split()[0]
        self.browser = Browser(profile.name)
        self.addCleanup(self.browser.close)

    def start(self, command: list[str]) -> subprocess.Popen[str]:
        process = subprocess.Popen(
            command,
            env={**os.environ, "ZQ_STATISTICS_DIR": self.pages},
            stdin=subprocess.PIPE,
            stdout=subprocess.PIPE,
            text=True,
        )

        def end() -> None:
            process.kill()
            process.communicate()

        self.addCleanup(end)
        return process

    def play(self, contexts: int) -> subprocess.Popen[str]:
        player = self.start([PLAYED_PROCESS, str(contexts), "5"])
        assert player.stdout
        self.assertEqual("ready\n", player.stdout.readline())
        return player

    def wait(self, script: str, meanwhile: Callable[[], object] = lambda: None) -> None:
        deadline = time.monotonic() + PATIENCE_SECONDS
        while not self.browser.value(script):
            if time.monotonic() > deadline:
                text = self.browser.value("document.body.innerText")
                self.fail(f"never true: {script}\n{text}\n{self.browser.complaints}")
            meanwhile()
            select.select([], [], [], 0.05)

    def wait_for_state(self, process: subprocess.Popen[str], state: str) -> None:
        self.wait(f"{CELLS}.some((cells) => cells[0].endsWith('.{process.pid}') && cells[2].startsWith('{state}'))")

    def test_shows_each_process_as_what_it_is(self) -> None:
        self.browser.call("Page.navigate", url=self.address)
        self.wait("!document.getElementById('none').hidden")
        running, stopped, killed, ended = (self.play(1) for _ in range(4))
        for player in (running, stopped, killed, ended):
            self.wait_for_state(player, "running")
        stopped.send_signal(signal.SIGSTOP)
        killed.kill()
        ended.communicate()
        with open(os.path.join(self.pages, "torn.1.page"), "w") as file:
            file.write("torn")
        self.wait_for_state(running, "running")
        self.wait_for_state(stopped, "stopped")
        self.wait_for_state(killed, "ended, page left behind")
        self.wait_for_state(ended, "ended ")
        self.wait("document.getElementById('unreadable').innerText.includes('torn.1.page: ')")
        self.wait("document.querySelectorAll('#contexts tr.over').length === 2")
        # What hurts is on top: one that is stopped.
        self.wait(f"{CELLS}[0][2] === 'stopped'")
        self.server.kill()
        self.wait("!document.getElementById('fault').hidden && document.body.classList.contains('stale')")

    def test_is_used_with_the_keyboard_alone(self) -> None:
        player = self.play(2)
        self.browser.call("Page.navigate", url=self.address)
        # Names are texts, whatever is in them; rates come with the second look.
        self.wait(
            f"{CELLS}.some((cells) => cells[1] === '<i>prices</i>.1' && /^[0-9.]+ k$/.test(cells[3]))",
            meanwhile=lambda: print("receive 1000", file=player.stdin, flush=True),
        )
        self.assertEqual([], self.browser.value("[...document.querySelectorAll('table i')]"))
        self.browser.press("/")
        for key in "<i>":
            self.browser.press(key)
        self.wait(f"{CELLS}.length === 1")
        while not self.browser.value("document.activeElement.matches('#contexts tbody button')"):
            self.browser.press("Tab")
        self.browser.press("Enter")
        self.wait("document.getElementById('details-title').innerText.includes('<i>prices</i>.1')")
        self.wait("document.getElementById('tables').innerText.includes('prices.4')")
        self.browser.press("Escape")
        self.wait("document.getElementById('details').hidden")
        self.browser.press("t")
        self.wait("['dark', 'light'].includes(document.documentElement.dataset.theme)")
        self.browser.press("p")
        self.wait("document.getElementById('status').innerText.includes('paused')")
        self.assertEqual([], self.browser.complaints)


if __name__ == "__main__":
    if BROWSER is None:
        print("skipped: there is no browser here (Debian package chromium)")
        sys.exit(77)
    unittest.main(argv=sys.argv[:1], verbosity=2)

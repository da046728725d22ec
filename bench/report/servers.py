"""NATS servers on free ports of this machine, which end with whoever uses them."""

import json
import os
import shutil
import subprocess
import time
import urllib.request
from collections.abc import Callable, Iterator, Sequence
from contextlib import ExitStack, contextmanager
from pathlib import Path
from typing import Any, TypeVar

Found = TypeVar("Found")

ADDRESS = "127.0.0.1"
SECONDS_MAX = 15  # to start, and to find each other


class Server:
    """One that runs. Raises OSError when it does not start. within: what it is started with, for another network."""

    def __init__(self, folder: Path, *options: str, address: str = ADDRESS, within: Sequence[str] = ()) -> None:
        # Debian has it where only administrators look for programs.
        program = shutil.which("nats-server", path=f"{os.environ.get('PATH', '')}:/usr/sbin") or "nats-server"
        free = ["--addr", address, "--port", "-1", "--http_port", "-1", "--ports_file_dir", str(folder)]
        self._process = subprocess.Popen([*within, program, *free, *options], stderr=subprocess.DEVNULL)
        try:
            self._ports = _await("the server does not start", lambda: self._read_ports(folder))
        except OSError:
            self.kill()
            raise

    @property
    def url(self) -> str:
        return self._ports["nats"][0]

    @property
    def process(self) -> int:
        return self._process.pid

    @property
    def cluster_url(self) -> str:
        return self._ports["cluster"][0]

    def look(self, page: str = "varz") -> dict[str, Any]:
        """What the server tells of itself."""
        with urllib.request.urlopen(f"{self._ports['monitoring'][0]}/{page}", timeout=SECONDS_MAX) as answer:
            told: dict[str, Any] = json.load(answer)
            return told

    def kill(self) -> None:
        self._process.kill()
        self._process.wait()

    def _read_ports(self, folder: Path) -> dict[str, list[str]] | None:
        if self._process.poll() is not None:
            raise OSError("nats-server ended as soon as it was started")
        try:
            ports: dict[str, list[str]] = json.loads((folder / f"nats-server_{self._process.pid}.ports").read_text())
            return ports
        except (FileNotFoundError, json.JSONDecodeError):
            return None  # not written yet, or not to its end


@contextmanager
def one(folder: Path, address: str = ADDRESS, within: Sequence[str] = ()) -> Iterator[Server]:
    server = Server(folder, address=address, within=within)
    try:
        yield server
    finally:
        server.kill()


@contextmanager
def cluster(folder: Path, size: int) -> Iterator[Sequence[Server]]:
    """Servers that all know each other."""
    with ExitStack() as stack:
        members: list[Server] = []
        for _ in range(size):
            options = ["--cluster_name", "bench", "--cluster", "nats://127.0.0.1:-1"]
            members.append(Server(folder, *options, *(["--routes", members[0].cluster_url] if members else [])))
            stack.callback(members[-1].kill)
        _await(
            "the servers do not find each other",
            lambda: all(len(member.look()["connect_urls"]) == size for member in members) or None,
        )
        yield members


def _await(failure: str, look: Callable[[], Found | None]) -> Found:
    deadline = time.monotonic() + SECONDS_MAX
    while (found := look()) is None:
        if time.monotonic() > deadline:
            raise OSError(f"nats-server: {failure}")
        time.sleep(0.01)
    return found

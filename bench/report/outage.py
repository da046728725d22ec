"""Pairs of contexts whose way to their server is cut for a while.

    python3 -m report.outage <folder of the programs> [--seconds 60]
"""

import argparse
import os
import subprocess
import tempfile
import time
from collections.abc import Iterator
from contextlib import contextmanager
from pathlib import Path
from typing import Any

from . import servers
from .programs import Programs

PROGRAM = "compare_network"
PAIRS = 50
WATCHED_SECONDS = 5  # a pair without delivery so long after the end of its outage has failed
SERVER_ADDRESS, CLIENT_ADDRESS = "10.98.0.1", "10.98.0.2"


class Link:
    """Between two networks, as of two machines."""

    def __init__(self, server_side: str, client_side: str) -> None:
        self.server_side = ["ip", "netns", "exec", server_side]  # what a program there is started with
        self.client_side = ["ip", "netns", "exec", client_side]
        self._ends = (server_side, client_side)

    def set(self, state: str) -> None:
        for end in self._ends:
            _ip("-n", end, "link", "set", end, state)


@contextmanager
def link() -> Iterator[Link]:
    """Raises PermissionError where this process cannot make networks."""
    ends = f"lbms{os.getpid()}", f"lbmc{os.getpid()}"
    try:
        for end in ends:
            _ip("netns", "add", end)
        _ip("link", "add", ends[0], "netns", ends[0], "type", "veth", "peer", "name", ends[1], "netns", ends[1])
        for end, address in zip(ends, (SERVER_ADDRESS, CLIENT_ADDRESS)):
            _ip("-n", end, "addr", "add", f"{address}/24", "dev", end)
        made = Link(*ends)
        made.set("up")
        yield made
    finally:
        for end in ends:
            subprocess.run(["ip", "netns", "del", end], stderr=subprocess.DEVNULL, check=False)


def _ip(*arguments: str) -> None:
    try:
        subprocess.run(["ip", *arguments], check=True, stderr=subprocess.PIPE, text=True)
    except (FileNotFoundError, subprocess.CalledProcessError) as error:
        reason = str(getattr(error, "stderr", None) or error).strip()
        raise PermissionError(f"networks of its own need the right of root and the program ip: {reason}") from None


def measure(programs: Programs, seconds: float) -> dict[str, Any]:
    """How long after the end of a cut of so many seconds each pair had no delivery; None for one without any."""
    with tempfile.TemporaryDirectory() as folder, link() as between:
        with servers.one(Path(folder), SERVER_ADDRESS, between.server_side) as server:
            settings = {"pairs": PAIRS, "seconds": WATCHED_SECONDS}
            with programs.converse(PROGRAM, "cut", settings, server.url, between.client_side) as pairs:
                pairs.hear()
                between.set("down")
                cut = time.monotonic()
                time.sleep(seconds)
                between.set("up")
                cut = time.monotonic() - cut
                pairs.say()
                gaps = pairs.hear()["gap_seconds"]
    return {"cut_seconds": cut, "gap_seconds": [None if gap is None else max(gap - cut, 0) for gap in gaps]}


def main() -> None:
    parser = argparse.ArgumentParser(description="How soon pairs of contexts have delivery again after a cut link.")
    parser.add_argument("folder", type=Path, help="of the programs")
    parser.add_argument("--seconds", type=float, default=60, help="how long the link is cut")
    arguments = parser.parse_args()
    with tempfile.TemporaryDirectory() as temporary:
        gaps = measure(Programs(arguments.folder, Path(temporary)), arguments.seconds)["gap_seconds"]
    back = sorted(gap for gap in gaps if gap is not None)
    print(f"{len(back)} of {len(gaps)} pairs came back", end="")
    print(f", half of them after {back[len(back) // 2]:.2f} s, all after {back[-1]:.2f} s" if back else "")


if __name__ == "__main__":
    main()

"""Runs the programs of the comparison, each of which makes one measurement and prints its result as JSON."""

import json
import os
import subprocess
import tempfile
from collections.abc import Iterator, Sequence
from contextlib import contextmanager
from pathlib import Path
from typing import IO, Any

from .contenders import RING, Contender, Settings
from .workloads import Measurement

Result = dict[str, Any]

SECONDS_MAX = 600  # a backstop: the programs limit themselves
DISTANCE = Measurement.of("round-trip", RING, {"spin": True})
DISTANCE_MILLISECONDS = 40


SERVER_VARIABLE = "COMPARE_NATS_SERVER"
SERVER_PROCESS_VARIABLE = "COMPARE_NATS_SERVER_PROCESS"


class Conversation:
    """With a program that prints results while it runs, and runs until its input ends."""

    def __init__(self, process: subprocess.Popen[str], complaints: IO[str]) -> None:
        self._process = process
        self._complaints = complaints

    @property
    def process(self) -> int:
        return self._process.pid

    def hear(self) -> Result:
        """Raises OSError when the program has ended instead."""
        assert self._process.stdout
        line = self._process.stdout.readline()
        if not line:
            self._process.wait()
            self._complaints.seek(0)
            raise OSError(self._complaints.read().strip() or "it ended early")
        result: Result = json.loads(line)
        return result

    def say(self) -> None:
        """A line, which lets it go on."""
        assert self._process.stdin
        self._process.stdin.write("\n")
        self._process.stdin.flush()


class Programs:
    """Those of a folder. A program that fails has no result, and failures says why. server: URL of the NATS server for
    those that need one; its process, if its processor time is to be measured.
    """

    def __init__(
        self,
        folder: Path,
        temporary: Path,
        server: str = "",
        server_process: int | None = None,
        seconds_max: float = SECONDS_MAX,
    ) -> None:
        self.failures: list[str] = []
        self._folder = folder
        self._environment = {**os.environ, "TMPDIR": str(temporary), SERVER_VARIABLE: server}
        if server_process is not None:
            self._environment[SERVER_PROCESS_VARIABLE] = str(server_process)
        self._seconds_max = seconds_max

    def describe(self, contender: Contender) -> Result | None:
        return self._run(contender.executable, "describe")

    def measure(self, measurement: Measurement, milliseconds: int) -> Result | None:
        contender = measurement.contender
        settings: Settings = {"milliseconds": milliseconds, **dict(measurement.settings), **contender.settings}
        return self._run(contender.executable, measurement.kind, *_options(settings))

    def distance(self) -> float | None:
        """How far apart the processors are: nanoseconds there and back through the bare ring."""
        result = self.measure(DISTANCE, DISTANCE_MILLISECONDS)
        return result["p50"] if result else None

    def join(self, contexts: int, sources: int, common: int = 0) -> Result | None:
        settings: Settings = {"contexts": contexts, "sources": sources, "common": common}
        return self._run("compare_joining", *_options(settings))

    @contextmanager
    def converse(
        self, program: str, command: str, settings: Settings, server: str, within: Sequence[str] = ()
    ) -> Iterator[Conversation]:
        """The program has ended when this ends. within: what it is started with, for another network."""
        with (
            tempfile.TemporaryFile("w+") as complaints,  # a pipe would fill up unread
            subprocess.Popen(
                [*within, str(self._folder / program), command, *_options(settings)],
                stdin=subprocess.PIPE,
                stdout=subprocess.PIPE,
                stderr=complaints,
                text=True,
                env={**self._environment, SERVER_VARIABLE: server},
            ) as process,
        ):
            try:
                yield Conversation(process, complaints)
                process.communicate(timeout=self._seconds_max)
            finally:
                process.kill()

    def _run(self, program: str, *arguments: str) -> Result | None:
        """Returns when the program has ended, and with it the processes that it started."""
        command = [str(self._folder / program), *arguments]
        try:
            done = subprocess.run(
                command, capture_output=True, text=True, timeout=self._seconds_max, check=True, env=self._environment
            )
            result: Result = json.loads(done.stdout)
            return result
        except (OSError, subprocess.SubprocessError, json.JSONDecodeError) as error:
            told = getattr(error, "stderr", None) or error
            self.failures.append(f"{' '.join(command)}: {str(told).strip()}")
            return None


def _options(settings: Settings) -> list[str]:
    options: list[str] = []
    for name, value in settings.items():
        if value is True:
            options.append(f"--{name}")
        elif value is not False:
            options += [f"--{name}", str(value)]
    return options

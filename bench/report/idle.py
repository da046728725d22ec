"""Contexts of this engine that nobody talks to."""

import json
import subprocess
import time
from collections.abc import Iterator, Mapping
from contextlib import contextmanager
from pathlib import Path
from typing import Any

from . import outage
from .contenders import Settings
from .figures import Spread
from .programs import Programs
from .tables import Table

NAME = "idle"
CONTEXTS = 100
SETTLE_SECONDS = 1
SECONDS = 5

Recorded = Mapping[str, Any]


def measure(programs: Programs, seconds: float = SECONDS) -> Recorded:
    """Many of one machine in one process. Empty when it fails, which is told of among the programs' failures."""
    try:
        with contexts_without_peers(programs, "", "host", CONTEXTS) as process:
            before, start = processor_nanoseconds(process), time.monotonic()
            time.sleep(seconds)
            used, passed = processor_nanoseconds(process) - before, time.monotonic() - start
    except (OSError, subprocess.SubprocessError, json.JSONDecodeError) as error:
        programs.failures.append(f"{CONTEXTS} idle contexts: {error}")
        return {}
    return {"contexts": CONTEXTS, "seconds": passed, "processor_seconds": used / 1e9}


@contextmanager
def contexts_without_peers(programs: Programs, server: str, transport: str, contexts: int) -> Iterator[int]:
    """A process with some that have settled, each with a source that nobody wants and a receiver of what nobody has."""
    settings: Settings = {"transport": transport, "contexts": contexts}
    with programs.converse(outage.PROGRAM, "idle", settings, server) as idle:
        idle.hear()
        time.sleep(SETTLE_SECONDS)
        yield idle.process


def processor_nanoseconds(process: int) -> int:
    """That its threads have used."""
    tasks = Path(f"/proc/{process}/task").iterdir()
    return sum(int((task / "schedstat").read_text().split()[0]) for task in tasks)


def percent(recorded: Recorded) -> Spread | None:
    """Of a processor, all contexts together."""
    return Spread.over([100 * recorded["processor_seconds"] / recorded["seconds"]]) if recorded else None


def tables(recorded: Recorded) -> list[Table]:
    used = percent(recorded)
    rows = [{"contexts": recorded["contexts"], "percent of a processor, all together": used.median}] if used else []
    return [Table.of("Idle contexts of one process, default options", rows)]

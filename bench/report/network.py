"""This engine's contexts on a network: idle ones, many that look for the same sources, and some that lose their server."""

import json
import statistics
import subprocess
import tempfile
import time
from collections.abc import Callable, Iterator, Mapping
from pathlib import Path
from typing import Any

from . import outage, servers
from .figures import Spread
from .idle import contexts_without_peers
from .programs import Programs
from .servers import Server
from .tables import Cell, Table
from .workloads import Size

CONTEXTS = 1000  # that look for the same sources, in the aim
MORE_CONTEXTS = 10  # in the same process, to see what each further one takes
MEMORY_ROUNDS = 3
TRANSPORTS = ("host", "nats")
CLUSTER = 3
CUT_SECONDS = 5  # of the link between contexts and server

Recorded = Mapping[str, Any]


def measure(programs: Programs, server: Server, size: Size) -> Recorded:
    """What failed is not in the result, and told of among the programs' failures."""
    recorded: dict[str, Any] = {"discovery": []}

    def attempt(what: str, steps: Callable[[], object]) -> None:
        try:
            steps()
        except (OSError, subprocess.SubprocessError, json.JSONDecodeError) as error:
            programs.failures.append(f"{what}: {error}")

    attempt("idle contexts", lambda: recorded.update(idle=_idle(programs, server, size.idle_seconds)))
    for contexts in size.contexts:
        attempt(f"{contexts} contexts", lambda: recorded["discovery"].append(_discovery(programs, server, contexts)))
    attempt("killed server", lambda: recorded.update(kill=_kill(programs)))
    attempt(f"cut of {CUT_SECONDS} s", lambda: recorded.update(cut=_cut(programs)))
    return recorded


def _idle(programs: Programs, server: Server, seconds: float) -> Recorded:
    def watch(transport: str) -> Recorded:
        with contexts_without_peers(programs, server.url, transport, 1) as process:
            messages, switches = server.look()["in_msgs"], dict(_switches(process))
            time.sleep(seconds)
            return {
                "messages": server.look()["in_msgs"] - messages,
                "wakeups": {name: count - switches.get(name, 0) for name, count in _switches(process)},
            }

    def memory(transport: str, contexts: int) -> int:
        with contexts_without_peers(programs, server.url, transport, contexts) as process:
            return _private_kib(process)

    rounds = [
        {transport: [memory(transport, contexts) for contexts in (1, 1 + MORE_CONTEXTS)] for transport in TRANSPORTS}
        for _ in range(MEMORY_ROUNDS)
    ]
    return {"seconds": seconds, "private_kib": rounds, **{transport: watch(transport) for transport in TRANSPORTS}}


def _switches(process: int) -> Iterator[tuple[str, int]]:
    """Each thread's name and how often it has waited."""
    for task in sorted(Path(f"/proc/{process}/task").iterdir()):
        status = dict(line.split(":", 1) for line in (task / "status").read_text().splitlines())
        yield f"{status['Name'].strip()} {task.name}", int(status["voluntary_ctxt_switches"])


def _private_kib(process: int) -> int:
    """Memory that no other process shares."""
    lines = Path(f"/proc/{process}/smaps_rollup").read_text().splitlines()
    return sum(int(line.split()[1]) for line in lines if line.startswith("Private_"))


def _discovery(programs: Programs, server: Server, contexts: int) -> Recorded:
    before = server.look()
    with programs.converse(outage.PROGRAM, "discovery", {"contexts": contexts}, server.url) as discovery:
        result = discovery.hear()
        after = server.look()
    return {**result, **{key: after[key] - before[key] for key in ("in_msgs", "out_msgs")}}


def _kill(programs: Programs) -> Recorded:
    with tempfile.TemporaryDirectory() as folder, servers.cluster(Path(folder), CLUSTER) as members:
        # All contexts begin with this server; they hear from it of the others.
        settings = {"pairs": outage.PAIRS, "seconds": outage.WATCHED_SECONDS}
        with programs.converse(outage.PROGRAM, "cut", settings, members[0].url) as pairs:
            pairs.hear()
            members[0].kill()
            pairs.say()
            return pairs.hear()


def _cut(programs: Programs) -> Recorded:
    try:
        return outage.measure(programs, CUT_SECONDS)
    except PermissionError as error:
        return {"skipped": str(error), "gap_seconds": []}


def idle_messages(recorded: Recorded) -> Spread | None:
    return _single(idle["nats"]["messages"] / idle["seconds"]) if (idle := recorded.get("idle")) else None


def idle_wakeups(recorded: Recorded) -> Spread | None:
    idle = recorded.get("idle")
    return _single(max(idle["nats"]["wakeups"].values()) / idle["seconds"]) if idle else None


def idle_memory(recorded: Recorded) -> Spread | None:
    idle = recorded.get("idle")
    return Spread.over([one["nats"][0] - one["host"][0] for one in idle["private_kib"]]) if idle else None


def seconds_to_find(recorded: Recorded) -> Spread | None:
    found = [one["found_seconds"] for one in recorded.get("discovery", []) if one["contexts"] == CONTEXTS]
    return Spread.over(found)


def seconds_after_kill(recorded: Recorded) -> Spread | None:
    return Spread.over(_gaps(recorded, "kill"))


def longest_seconds_after_cut(recorded: Recorded) -> Spread | None:
    gaps = _gaps(recorded, "cut")
    return _single(max(gaps)) if gaps else None


def _gaps(recorded: Recorded, outage_kind: str) -> list[float]:
    """Pairs that did not come back count as without delivery for the whole time."""
    gaps = recorded.get(outage_kind, {}).get("gap_seconds", [])
    return [float(outage.WATCHED_SECONDS) if gap is None else gap for gap in gaps]


def _single(value: float) -> Spread:
    return Spread(value, value, value)


def tables(recorded: Recorded) -> list[Table]:
    """Those of what was measured."""
    made = [Table.of("Contexts on a network that look for the same ten sources", _discovery_rows(recorded))]
    if idle := recorded.get("idle"):
        made.insert(0, Table.of("Idle contexts", _idle_rows(idle)))
    if kill := recorded.get("kill"):
        rows = [_outage_row("server killed", kill["gap_seconds"])]
        if cut := recorded.get("cut"):
            skipped = f" (skipped: {cut['skipped']})" if "skipped" in cut else ""
            rows.append(_outage_row(f"since the end of a cut of {CUT_SECONDS} s{skipped}", cut["gap_seconds"]))
        made.append(Table.of("Contexts that lose their server", rows))
    return made


def _idle_rows(idle: Recorded) -> list[Mapping[str, Cell]]:
    def row(transport: str) -> Mapping[str, Cell]:
        wakeups = idle[transport]["wakeups"].values()
        alone, together = (statistics.median(kib) for kib in zip(*(one[transport] for one in idle["private_kib"])))
        return {
            "": transport,
            "messages sent a second": idle[transport]["messages"] / idle["seconds"],
            "wake-ups a second": sum(wakeups) / idle["seconds"],
            "of the busiest thread": max(wakeups) / idle["seconds"],
            "memory of a process with one, KiB": alone,
            "of each further one, KiB": (together - alone) / MORE_CONTEXTS,
        }

    return [row(transport) for transport in TRANSPORTS]


def _discovery_rows(recorded: Recorded) -> list[Mapping[str, Cell]]:
    return [
        {
            "contexts": one["contexts"],
            "made in, s": one["create_seconds"],
            "then all know all, ms": one["found_seconds"] * 1000,
            "messages to the server for each": one["in_msgs"] / one["contexts"],
            "from the server": one["out_msgs"] / one["contexts"],
        }
        for one in recorded.get("discovery", [])
    ]


def _outage_row(outage_kind: str, gaps: list[float | None]) -> Mapping[str, Cell]:
    back = [gap * 1000 for gap in gaps if gap is not None]
    return {
        "": outage_kind,
        "pairs": len(gaps),
        "without delivery, p50, ms": statistics.median(back) if back else None,
        "longest, ms": max(back, default=None),
        "pairs that did not come back": len(gaps) - len(back),
    }

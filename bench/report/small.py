"""The small benchmarks of parts of the library, programs of the Google Benchmark library."""

import json
import subprocess
import sys
from collections.abc import Iterator, Mapping, Sequence
from pathlib import Path
from typing import Any

from .machine import machine_line
from .tables import Cell, Table, short

Document = Mapping[str, Any]  # what a program wrote
Benchmark = Mapping[str, Any]  # one of a document's results
Run = Mapping[str, Any]

NANOSECONDS = {"ns": 1.0, "us": 1e3, "ms": 1e6, "s": 1e9}
AGAINST = "vs "  # begins the label of a benchmark that names the one it is measured against
# All other members are counters of the benchmark's own.
STANDARD_MEMBERS = frozenset(
    "aggregate_name aggregate_unit cpu_time family_index iterations label name per_family_instance_index real_time "
    "repetition_index repetitions run_name run_type threads time_unit".split()
)


def run(program: Path, result: Path, options: Sequence[str]) -> dict[str, Any]:
    """Has the program write its result there; what it prints goes into a file beside it."""
    command = [str(program), f"--benchmark_out={result}", "--benchmark_out_format=json"]
    command += ["--benchmark_enable_random_interleaving=true", *options]
    log = result.with_suffix(".log")
    with log.open("w") as output:
        done = subprocess.run(command, stdout=output, stderr=subprocess.STDOUT, check=False)
    if done.returncode != 0:
        sys.exit(f"{log.read_text()}{program} failed")
    document: dict[str, Any] = json.loads(result.read_text())
    del document["context"]["host_name"]
    return document


def recorded(machine: Mapping[str, Any], documents: Mapping[str, Document]) -> Run:
    """All that is recorded of a run, ready for JSON."""
    return {
        "revision": machine["revision"],
        "machine": machine,
        "compiler": next(iter(documents.values()))["context"]["compiler"],
        "programs": documents,
    }


def headline(run: Run) -> list[str]:
    return [machine_line(run["machine"]), f"{run['compiler']}, revision {run['revision']}"]


def summary(run: Run) -> Table:
    """A row for each benchmark of each program."""
    rows = [{"program": program, **row} for program, document in run["programs"].items() for row in _rows(document)]
    return Table.of("Parts of the library", rows)


def _rows(document: Document) -> Iterator[dict[str, Cell]]:
    results: list[Benchmark] = document["benchmarks"]
    # One repetition has no median.
    medians = [one for one in results if one.get("aggregate_name") == "median"] or results
    in_order = sorted(medians, key=lambda one: (one["family_index"], one["per_family_instance_index"]))
    by_name = {one["run_name"]: one for one in in_order}
    for name, one in by_name.items():
        time = _nanoseconds(one)
        against = _against(one)
        base = _nanoseconds(by_name[against]) if against in by_name else None
        yield {
            "benchmark": name,
            "median ns": time,
            "ratio": time / base if base else None,
            "ns over": time - base if base else None,
            "measured against": against,
            "counters": " ".join(f"{key}={short(one[key])}" for key in sorted(one.keys() - STANDARD_MEMBERS)),
        }


def _nanoseconds(benchmark: Benchmark) -> float:
    """Processor time, or the clock for the benchmarks that ask for it."""
    by_clock = {"real_time", "manual_time"} & set(benchmark["run_name"].split("/"))
    time: float = benchmark["real_time" if by_clock else "cpu_time"]
    return time * NANOSECONDS[benchmark["time_unit"]]


def _against(benchmark: Benchmark) -> str:
    label: str = benchmark.get("label", "")
    return label.removeprefix(AGAINST) if label.startswith(AGAINST) else ""

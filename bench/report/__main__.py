"""Builds and runs the benchmarks: small ones of parts of the library, and the comparison with other messaging libraries.

Results: build/bench/results/<program>.json, and all of them with machine and versions in build/bench/results.json; of the
comparison build/bench/results/compare/compare.json and plots. BENCH_REPETITIONS (9, or 3 with --quick) says how often each
small benchmark is run; its runs alternate with those of the others.
"""

import argparse
import json
import os
import shutil
import subprocess
import sys
import tempfile
from collections.abc import Collection, Sequence
from pathlib import Path

from . import comparison, servers, small
from .comparison import Report, Run
from .machine import describe_machine
from .page import figures_of, with_figures
from .plots import draw
from .programs import Programs
from .workloads import FULL, QUICK

BUILD = Path("build/bench")
PROGRAMS = BUILD / "bench"
RESULTS = BUILD / "results"
PAGE = Path("docs/performance.md")
WHOLE_COMPARISON = "compare"


def parse(arguments: Sequence[str]) -> argparse.Namespace:
    parser = argparse.ArgumentParser(
        prog="scripts/bench", description=__doc__, formatter_class=argparse.RawDescriptionHelpFormatter
    )
    parser.add_argument(
        "--quick",
        action="store_true",
        help="fewer repetitions and settings: for a first look, not for figures to quote",
    )
    parser.add_argument("--docs", action="store_true", help=f"put the comparison's tables and plots into {PAGE}")
    parser.add_argument(
        "--only",
        action="append",
        default=[],
        metavar="PART",
        help=f"a program of bench/CMakeLists.txt (log, delivery, ...), a workload of the comparison "
        f"({', '.join(comparison.WORKLOADS)}), or {WHOLE_COMPARISON!r} for all of them but {', '.join(comparison.ON_REQUEST)}; "
        f"when not given, all parts but those",
    )
    parser.add_argument(
        "--recorded", type=Path, metavar="FILE", help="show what this compare.json recorded instead of measuring"
    )
    return parser.parse_args(arguments)


def choose(only: Collection[str], programs: Sequence[str]) -> tuple[list[str], list[str]]:
    """The small programs and the workloads of the comparison that are to run. Raises ValueError for an unknown part."""
    parts = [*programs, *comparison.WORKLOADS, WHOLE_COMPARISON]
    for part in only:
        if part not in parts:
            raise ValueError(f"no part is called {part!r}; there are: {' '.join(parts)}")
    wanted = [*(only or programs)]
    if WHOLE_COMPARISON in only or not only:
        wanted += [name for name in comparison.WORKLOADS if name not in comparison.ON_REQUEST]
    return [name for name in programs if name in wanted], [name for name in comparison.WORKLOADS if name in wanted]


def configure() -> list[str]:
    """The names of the small programs."""
    subprocess.run(["cmake", "--preset", "bench"], stdout=subprocess.DEVNULL, check=True)
    return (PROGRAMS / "programs.txt").read_text().split()


def build() -> None:
    command = ["cmake", "--build", "--preset", "bench", "--parallel", str(os.cpu_count()), "--", "--quiet"]
    subprocess.run(command, stdout=sys.stderr, check=True)


def run_small(programs: Sequence[str], quick: bool) -> None:
    options = [f"--benchmark_repetitions={os.environ.get('BENCH_REPETITIONS', 3 if quick else 9)}"]
    if quick:
        options.append("--benchmark_min_time=0.02")
    documents = {}
    for name in programs:
        print(f"running {name}", file=sys.stderr)
        documents[name] = small.run(PROGRAMS / f"bench_{name}", RESULTS / f"{name}.json", options)
    run = small.recorded(describe_machine(), documents)
    RESULTS.with_suffix(".json").write_text(json.dumps(run, indent=1) + "\n")
    print("\n".join([*small.headline(run), "", small.summary(run).as_text(), ""]))


def run_comparison(workloads: Sequence[str], quick: bool) -> Path:
    """Returns the file with what was measured."""
    in_memory = Path("/dev/shm")
    with (
        tempfile.TemporaryDirectory(prefix="compare-", dir=in_memory if in_memory.is_dir() else None) as temporary,
        servers.one(Path(temporary)) as server,
    ):
        programs = Programs(PROGRAMS / "compare", Path(temporary), server.url, server.process)
        run = comparison.measure(programs, server, workloads, QUICK if quick else FULL, show_progress)
    file = RESULTS / "compare" / "compare.json"
    file.parent.mkdir()
    file.write_text(json.dumps(run, indent=1) + "\n")
    return file


def show_progress(what: str, done: int, total: int) -> None:
    """Counts on a terminal, and elsewhere only says what is done."""
    if sys.stderr.isatty():
        print(f"\r{what}, {done} of {total}", end="\n" if done == total else "", file=sys.stderr, flush=True)
    elif done == total:
        print(f"{what} done", file=sys.stderr)


def show(file: Path, docs: bool) -> int:
    """Shows what the comparison recorded in that file. Returns the exit code: 0 if nothing failed."""
    run: Run = json.loads(file.read_text())
    report = Report(run)
    print("\n".join(report.headline()))
    for table in [*report.tables(), report.aims()]:
        print(f"\n{table.as_text()}")
    print(f"\n{report.closing()}")
    for failure in run["failures"]:
        print(failure, file=sys.stderr)
    folders = [file.parent]
    if docs:
        PAGE.write_text(with_figures(PAGE.read_text(), figures_of(report, PAGE.stem)))
        folders.append(PAGE.with_suffix(""))
    for folder in folders:
        for plot in report.plots():
            draw(plot, folder)
    return 1 if run["failures"] else 0


def main(arguments: Sequence[str]) -> int:
    options = parse(arguments)
    subprocess.run(["scripts/setup", "bench"], check=True)
    if options.recorded:
        return show(options.recorded, options.docs)
    try:
        programs, workloads = choose(options.only, configure())
        if options.docs and not workloads:
            raise ValueError("--docs shows the comparison, and no part of it was chosen")
    except ValueError as error:
        print(f"scripts/bench: {error}", file=sys.stderr)
        return 2
    build()
    shutil.rmtree(RESULTS, ignore_errors=True)
    RESULTS.mkdir()
    if programs:
        run_small(programs, options.quick)
    return show(run_comparison(workloads, options.quick), options.docs) if workloads else 0


if __name__ == "__main__":
    try:
        sys.exit(main(sys.argv[1:]))
    except subprocess.CalledProcessError as error:
        sys.exit(error.returncode)  # it has said itself what is wrong
    except OSError as error:
        sys.exit(f"scripts/bench: {error}")
    except KeyboardInterrupt:
        sys.exit(130)

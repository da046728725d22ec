#!/usr/bin/env python3
"""Runs the contenders' programs in turn, several rounds, and shows medians, ratios and whether our aims are met.

Ratios are taken within a round and only then summed up, as the machine's speed may change between rounds. Where the
machine is a virtual one, even the way between its processors may change from one second to the next: it is measured
before and after everything else, and a ratio counts if the way was the same for both of its figures.
"""
import argparse
import datetime
import json
import os
import pathlib
import platform
import re
import statistics
import subprocess
import sys
import tempfile

CONTENDERS = ["engine", "engine_c", "zeromq", "nng", "nats", "ring"]
WORKLOADS = ["rate", "round-trip", "receivers", "topics", "peers", "joining"]
BASE = {"payload": 64, "receivers": 1, "topics": 1, "spread": False, "idle-peers": 0, "spin": False}
FULL = {"rounds": 5, "milliseconds": 400, "payloads": [16, 64, 256, 1024, 8192], "receivers": [4, 16],
        "topics": [(100, False), (100, True), (10_000, False), (10_000, True)], "domains": [(100, 10_000), (200, 200),
                                                                                          (500, 500), (1000, 1000)]}
QUICK = {"rounds": 3, "milliseconds": 150, "payloads": [64], "receivers": [4], "topics": [(10_000, False)],
         "domains": [(100, 10_000)]}
IDLE_PEERS = 64
SECONDS_MAX = 600  # for one measurement; a backstop, as the programs limit themselves
DISTANCE_MILLISECONDS = 40
LIKE_DISTANCE = 1.5  # the most between the longest and the shortest way of figures that are compared
DOCS_TABLES = re.compile(r"(<!-- tables -->\n).*(<!-- end of tables -->)", re.DOTALL)


def cells_of(workloads, size, descriptions):
    """Every measurement of a round: its kind, contender and settings. What will be compared stands close together."""
    cells = []

    def add(kind, contenders, **settings):
        for contender in contenders:
            description = descriptions[contender]
            if settings.get("spin") and not description["spins"]:
                continue
            if not description["topics"] and (settings.get("topics", 1) > 1 or settings.get("idle-peers")):
                continue
            cells.append((kind, contender, tuple(sorted({**BASE, **settings}.items()))))

    waiting = [contender for contender in CONTENDERS if contender != "ring"]
    base_last = sorted(size["payloads"], key=lambda payload: payload == BASE["payload"])
    for payload in base_last if "rate" in workloads else []:
        add("rate", CONTENDERS, payload=payload, spin=True)
        add("rate", CONTENDERS, payload=payload)
    if {"topics", "peers", "receivers"} & set(workloads) and "rate" not in workloads:
        add("rate", CONTENDERS)
    if "peers" in workloads:
        add("rate", waiting, **{"idle-peers": IDLE_PEERS})
    for topics, spread in size["topics"] if "topics" in workloads else []:
        add("rate", waiting, topics=topics, spread=spread)
    for receivers in size["receivers"] if "receivers" in workloads else []:
        add("rate", CONTENDERS, receivers=receivers)
    for payload in size["payloads"] if "round-trip" in workloads else []:
        add("round-trip", waiting, payload=payload)
        add("round-trip", CONTENDERS, payload=payload, spin=True)
    return cells


class Runner:
    def __init__(self, programs):
        self.programs = programs
        in_memory = pathlib.Path("/dev/shm")
        self.directory = tempfile.TemporaryDirectory(prefix="compare-", dir=in_memory if in_memory.is_dir() else None)

    def run(self, program, *arguments):
        """The program's result. Its processes end with it."""
        command = [str(self.programs / f"compare_{program}"), *map(str, arguments)]
        done = subprocess.run(command, capture_output=True, text=True, timeout=SECONDS_MAX, check=False,
                              env={**os.environ, "TMPDIR": self.directory.name})
        if done.returncode != 0:
            raise RuntimeError(f"{' '.join(command)}: {done.stderr.strip() or done.returncode}")
        return json.loads(done.stdout)

    def distance(self):
        """How far apart the processors are: nanoseconds there and back through the bare ring."""
        return self.run("ring", "round-trip", "--spin", "--milliseconds", DISTANCE_MILLISECONDS)["p50"]

    def measure(self, cell, milliseconds):
        kind, contender, settings = cell
        arguments = ["--milliseconds", milliseconds]
        for name, value in settings:
            if value is True:
                arguments.append(f"--{name}")
            elif value is not False and (kind == "rate" or name == "payload"):
                arguments += [f"--{name}", value]
        return self.run(contender, kind, *arguments)


def measure_all(runner, cells, size):
    """Rounds in alternating order: {cell: [result or None of each round]}, and what failed."""
    results = {cell: [None] * size["rounds"] for cell in cells}
    failures = []
    before = runner.distance() if cells else None
    for number in range(size["rounds"]):
        for place, cell in enumerate(cells if number % 2 == 0 else reversed(cells)):
            if sys.stderr.isatty():
                print(f"\rround {number + 1} of {size['rounds']}, {place + 1} of {len(cells)} ", end="", file=sys.stderr)
            try:
                result = runner.measure(cell, size["milliseconds"])
                after = runner.distance()
                results[cell][number] = {**result, "distance": [before, after]}
                before = after
            except (RuntimeError, subprocess.TimeoutExpired) as error:
                failures.append(str(error))
                print(f"\n{error}", file=sys.stderr)
        print(f"\rround {number + 1} of {size['rounds']} done      ", file=sys.stderr)
    return results, failures


class Figures:
    """Looks results up: the kind's measure of a contender under settings, other settings being those of BASE."""

    def __init__(self, results):
        self.results = results

    def of(self, measure, contender, **settings):
        """(value, distances before and after) of each round, None where it failed."""
        kind = "rate" if measure in ("slowest", "all") else "round-trip"
        cell = (kind, contender, tuple(sorted({**BASE, **settings}.items())))
        return [result and (result[measure], result["distance"]) for result in self.results.get(cell, [])]

    def median(self, measure, contender, **settings):
        values = [figure[0] for figure in self.of(measure, contender, **settings) if figure]
        return statistics.median(values) if values else None

    def distances(self):
        """Of all measurements, in ascending order."""
        return sorted(result["distance"][1] for rounds in self.results.values() for result in rounds if result)

    def ratio(self, above, below):
        """Median, least and greatest of the ratios of the rounds that count, or None. All count when none would."""
        def alike(a, b):
            return max(a[1] + b[1]) <= LIKE_DISTANCE * min(a[1] + b[1])

        pairs = [(a, b) for a, b in zip(above, below) if a and b and b[0]]
        ratios = [a[0] / b[0] for a, b in [pair for pair in pairs if alike(*pair)] or pairs]
        return (statistics.median(ratios), min(ratios), max(ratios)) if ratios else None


def requirements(figures, domains):
    """What we want to be true: text, bound, whether it is an upper one, measured (median, least, greatest) or None."""
    rate, trip = (lambda *a, **k: figures.of("slowest", *a, **k)), (lambda *a, **k: figures.of("p50", *a, **k))
    ratio = figures.ratio
    joins = next((domain["join_seconds"] for domain in domains
                  if domain["contexts"] == 100 and "join_seconds" in domain), None)
    idle_topics = max(FULL["topics"])[0]
    return [
        ("rate against libzmq, both waiting", 4, False, ratio(rate("engine"), rate("zeromq"))),
        ("rate against the bare ring, both spinning", 0.6, False,
         ratio(rate("engine", spin=True), rate("ring", spin=True))),
        ("rate against the bare ring, this engine waiting", 0.6, False,
         ratio(rate("engine"), rate("ring", spin=True))),
        ("round trip against the bare ring, both spinning", 2, True,
         ratio(trip("engine", spin=True), trip("ring", spin=True))),
        ("round trip against libzmq, both waiting", 1, True, ratio(trip("engine"), trip("zeromq"))),
        ("rate of std::function against the C interface", 0.9, False, ratio(rate("engine"), rate("engine_c"))),
        (f"rate with {idle_topics:,} topics, one busy, against one", 0.9, False,
         ratio(rate("engine", topics=idle_topics), rate("engine"))),
        (f"rate with {IDLE_PEERS} idle peers against none", 0.9, False,
         ratio(rate("engine", **{"idle-peers": IDLE_PEERS}), rate("engine"))),
        ("seconds to join 100 contexts with 10,000 sources", 1, True,
         joins and (statistics.median(joins), min(joins), max(joins))),
    ]


def short(value):
    """Three significant digits."""
    if value is None:
        return ""
    if isinstance(value, str):
        return value
    return f"{value:,.0f}" if abs(value) >= 100 else f"{value:.3g}"


def microseconds(nanoseconds):
    return None if nanoseconds is None else nanoseconds / 1000


def tables(figures, run):
    """(title, header, rows of cells) of everything that was measured."""
    names = {contender: description["name"] for contender, description in run["contenders"].items()}
    spinning = [contender for contender in CONTENDERS if run["contenders"][contender]["spins"]]

    def by(title, measure, columns, scale, contenders=None):
        """A row for each contender that has a figure besides that of BASE, a column for each (heading, settings)."""
        rows = [[names[contender], *(scale(figures.median(measure, contender, **settings)) for _, settings in columns)]
                for contender in contenders or CONTENDERS]
        own = [place for place, (_, settings) in enumerate(columns, start=1) if settings]
        rows = [row for row in rows if any(row[place] is not None for place in own)]
        if rows:
            yield title, ["", *(heading for heading, _ in columns)], rows

    size = run["size"]
    payloads = [(f"{payload} bytes", {"payload": payload}) for payload in size["payloads"]]
    spin_payloads = [(heading, {**settings, "spin": True}) for heading, settings in payloads]
    thousands = lambda value: None if value is None else value / 1000
    yield from by("Thousand messages a second, one receiver, waiting", "slowest", payloads, thousands)
    yield from by("Thousand messages a second, one receiver, spinning", "slowest", spin_payloads, thousands, spinning)
    for how, columns in (("waiting", payloads), ("spinning", spin_payloads)):
        for measure in ("p50", "p99", "p99.9"):
            yield from by(f"Round trip, {measure}, microseconds, both sides {how}", measure, columns, microseconds)
    receivers = [("1", {})] + [(str(count), {"receivers": count}) for count in size["receivers"]]
    yield from by("Thousand messages a second that every receiver got, by receivers, 64 bytes", "slowest", receivers,
                  thousands)
    topics = [("1", {})] + [(f"{count:,}, {'all' if spread else 'one'} busy", {"topics": count, "spread": spread})
                            for count, spread in size["topics"]]
    yield from by("Thousand messages a second by topics, 64 bytes", "slowest", topics, thousands)
    peers = [("no idle peers", {}), (f"{IDLE_PEERS} idle peers", {"idle-peers": IDLE_PEERS})]
    yield from by("Thousand messages a second beside idle peers, 64 bytes", "slowest", peers, thousands)
    rows = []
    distances = figures.distances()
    if distances:
        share = lambda part: distances[round(part * (len(distances) - 1))]
        yield ("The way between the processors: round trip of the bare ring beside all measurements, nanoseconds",
               ["", "least", "10%", "median", "90%", "greatest"],
               [["there and back", *map(share, (0, 0.1, 0.5, 0.9, 1))]])
    for domain in run["domains"]:
        join = domain.get("join_seconds")
        rows.append([f"{domain['contexts']:,}", f"{domain['sources']:,}", domain.get("settle_seconds"),
                     join and statistics.median(join) * 1000, domain.get("heap_mib"), domain.get("kernel_mib"),
                     domain.get("descriptors"), domain.get("stopped", "")])
    if rows:
        yield ("Domains of this engine", ["contexts", "sources", "all know all, s", "one more joins, ms",
                                          "heap, MiB", "kernel, MiB", "descriptors", "stopped because"], rows)


def check_list(checks):
    rows = []
    for text, bound, upper, measured in checks:
        if measured is None:
            verdict, figure = "not measured", ""
        else:
            verdict = "met" if (measured[0] <= bound if upper else measured[0] >= bound) else "NOT MET"
            figure = f"{short(measured[0])} ({short(measured[1])} to {short(measured[2])})"
        rows.append([verdict, text, f"{'at most' if upper else 'at least'} {bound}", figure])
    return "Aims: median of the rounds' ratios (least to greatest)", ["", "", "aim", "measured"], rows


def as_text(title, header, rows):
    cells = [header, *([short(cell) for cell in row] for row in rows)]
    widths = [max(len(row[column]) for row in cells) for column in range(len(header))]
    numbers = [not isinstance(rows[0][column], str) for column in range(len(header))]
    lines = ["  ".join(cell.rjust(width) if number else cell.ljust(width)
                       for cell, width, number in zip(row, widths, numbers)).rstrip() for row in cells]
    return "\n".join(["", title, *lines])


def as_markdown(title, header, rows):
    lines = [header, ["---" if isinstance(cell, str) else "--:" for cell in rows[0]],
             *([short(cell) for cell in row] for row in rows)]
    return "\n".join([f"**{title}**", "", *("| " + " | ".join(line) + " |" for line in lines), ""])


def plot(figures, run, directory):
    """One SVG for each picture that has data; returns their names."""
    names = {contender: description["name"] for contender, description in run["contenders"].items()}
    colours = dict(zip(CONTENDERS, ["#c1272d", "#f4a582", "#0868ac", "#43a2ca", "#7bccc4", "#636363"]))
    style = ("set terminal svg size 800,420 dynamic font 'sans-serif,13' background rgb 'white'\n"
             "set grid ytics lc rgb '#dddddd'; set border 3 lc rgb '#888888'; set tics nomirror\n"
             "set key outside right top; set logscale y; set style data linespoints\n")
    drawn = []
    directory.mkdir(parents=True, exist_ok=True)

    def draw(file, title, unit, measure, columns, scale, x_title, contenders=None):
        curves, blocks = [], []
        for contender in contenders or CONTENDERS:
            points = [(heading, figures.median(measure, contender, **settings)) for heading, settings in columns]
            points = [(heading, value) for heading, value in points if value is not None]
            if points:
                curves.append(f"$d{len(blocks)} using 2:xticlabels(1) title '{names[contender]}' lw 2 pt 7 ps 0.6 "
                              f"lc rgb '{colours[contender]}'")
                blocks.append(f"$d{len(blocks)} << E\n" + "".join(f'"{h}" {v * scale}\n' for h, v in points) + "E\n")
        if not curves or len(columns) < 2:
            return
        script = (style + "".join(blocks) + f"set output '{directory / file}'\nset title '{title}'\n"
                  f"set ylabel '{unit}'\nset xlabel '{x_title}'\nset xrange [-0.2:{len(columns) - 0.8}]\n"
                  f"plot {', '.join(curves)}\n")
        subprocess.run(["gnuplot"], input=script, text=True, check=True)
        drawn.append((file, title))

    size = run["size"]
    payloads = [(payload, {"payload": payload}) for payload in size["payloads"]]
    spinning = [(payload, {"payload": payload, "spin": True}) for payload in size["payloads"]]
    draw("rate.svg", "Messages a second, one receiver, waiting", "messages a second", "slowest", payloads, 1,
         "bytes of payload")
    draw("rate-spinning.svg", "Messages a second, one receiver, spinning", "messages a second", "slowest", spinning, 1,
         "bytes of payload")
    draw("round-trip.svg", "Round trip, median, both sides waiting", "microseconds", "p50", payloads, 1e-3,
         "bytes of payload")
    draw("round-trip-spinning.svg", "Round trip, median, both sides spinning", "microseconds", "p50", spinning, 1e-3,
         "bytes of payload")
    draw("receivers.svg", "Messages a second that every receiver got, 64 bytes", "messages a second", "slowest",
         [(count, {"receivers": count}) for count in [1, *size["receivers"]]], 1, "receivers")
    draw("topics.svg", "Messages a second over all topics in turn, 64 bytes", "messages a second", "slowest",
         [(1, {})] + [(count, {"topics": count, "spread": True}) for count, spread in size["topics"] if spread], 1,
         "topics")
    return drawn


def describe_machine():
    def output(*command):
        return subprocess.run(command, capture_output=True, text=True, check=False).stdout.strip()

    cpu = re.search(r"^model name[^:]*: (.*)$", pathlib.Path("/proc/cpuinfo").read_text(), re.MULTILINE)
    return {"date": datetime.datetime.now(datetime.timezone.utc).isoformat(timespec="seconds"),
            "revision": output("git", "describe", "--always", "--dirty"),
            "cpu": cpu[1] if cpu else platform.machine(),
            "cores": len(os.sched_getaffinity(0)),
            "kernel": f"{platform.system()} {platform.release()}",
            "system": platform.freedesktop_os_release()["PRETTY_NAME"],
            "compiler": output("c++", "--version").split("\n")[0],
            "load_before": os.getloadavg()[0]}


def headline(run):
    machine = run["machine"]
    size = run["size"]
    return [f"{machine['cpu']}, {machine['cores']} cores, {machine['system']}, {machine['kernel']}; "
            f"{machine['compiler']}",
            f"Revision {machine['revision']}, {machine['date']}; load {machine['load_before']:.1f} at the start, "
            f"{machine['load_after']:.1f} at the end",
            f"{size['rounds']} rounds, {size['milliseconds']} ms each measurement"]


def contender_table(run):
    rows = [[description["name"], description["version"], description["transport"], description["pacing"],
             "one core a process" if description["pinned"] and run["machine"]["cores"] > 1 else "free"]
            for description in run["contenders"].values()]
    return "Contenders", ["", "version", "transport", "what keeps messages from being lost", "processors"], rows


def main():
    parser = argparse.ArgumentParser(description=__doc__)
    parser.add_argument("--programs", type=pathlib.Path, required=True, help="where the programs compare_* are")
    parser.add_argument("--results", type=pathlib.Path, required=True, help="JSON file to write; plots go beside it")
    parser.add_argument("--quick", action="store_true", help="fewer rounds and settings")
    parser.add_argument("--only", action="append", choices=WORKLOADS, help="these workloads")
    parser.add_argument("--docs", type=pathlib.Path, help="page to put tables into, plots into the folder of its name")
    options = parser.parse_args()
    workloads = options.only or WORKLOADS
    size = QUICK if options.quick else FULL

    machine = describe_machine()
    runner = Runner(options.programs)
    descriptions = {contender: runner.run(contender, "describe") for contender in CONTENDERS}
    results, failures = measure_all(runner, cells_of(workloads, size, descriptions), size)
    domains = []
    for contexts, sources in size["domains"] if "joining" in workloads else []:
        print(f"domain of {contexts} contexts", file=sys.stderr)
        try:
            domains.append(runner.run("joining", "--contexts", contexts, "--sources", sources))
        except (RuntimeError, subprocess.TimeoutExpired) as error:
            failures.append(str(error))
        if domains and "stopped" in domains[-1]:
            break
    machine["load_after"] = os.getloadavg()[0]

    figures = Figures(results)
    checks = requirements(figures, domains)
    run = {"machine": machine, "size": size, "contenders": descriptions, "domains": domains, "failures": failures,
           "measurements": [{"kind": kind, "contender": contender, **dict(settings), "rounds": rounds}
                            for (kind, contender, settings), rounds in results.items()],
           "aims": [{"aim": text, "bound": bound, "upper": upper, "measured": measured}
                    for text, bound, upper, measured in checks]}
    plot(figures, run, options.results.parent)
    options.results.write_text(json.dumps(run, indent=1) + "\n")

    all_tables = [contender_table(run), *tables(figures, run), check_list(checks)]
    print("\n".join(headline(run)))
    for table in all_tables:
        print(as_text(*table))
    lost = sum(result.get("lost", 0) for rounds in results.values() for result in rounds if result)
    print(f"\nMessages lost or damaged: {lost}. Measurements that failed: {len(failures)}.")
    if options.docs:
        pictures = plot(figures, run, options.docs.with_suffix(""))
        page = "\n".join([*(line + "  " for line in headline(run)), "",
                          *(as_markdown(*table) for table in [check_list(checks), *all_tables[:-1]]),
                          *(f"![{title}]({options.docs.stem}/{file})\n" for file, title in pictures)])
        options.docs.write_text(DOCS_TABLES.sub(lambda found: f"{found[1]}\n{page}\n{found[2]}",
                                                options.docs.read_text()))
    return 1 if failures else 0


if __name__ == "__main__":
    sys.exit(main())

"""The comparison with other messaging libraries: measures it, and makes tables and plots of what was recorded."""

from collections.abc import Collection, Iterator
from dataclasses import asdict
from typing import Any

from . import aims, devices, idle, joining, load, network, workloads
from .figures import Figures
from .machine import describe_machine, machine_line, machine_load
from .plots import Curve, Plot
from .programs import Programs, Result
from .rounds import Progress, measure_in_rounds
from .servers import Server
from .tables import Cell, Table
from .workloads import Measurement, Quantity, Series, Size

WORKLOADS = [*workloads.NAMES, joining.NAME, idle.NAME]
ON_REQUEST = {workloads.DEVICES}  # not part of the whole

Run = dict[str, Any]  # all that is recorded of one, ready for JSON


def measure(programs: Programs, server: Server | None, names: Collection[str], size: Size, progress: Progress) -> Run:
    """Measures the workloads of these names. A contender that cannot even say what it is is left out. server: the one
    that the programs use; without it there is no network.
    """
    machine = describe_machine()
    planned = workloads.plan(series for series in workloads.all_series(size) if series.workload in names)
    contenders: dict[str, Result] = {}
    for contender in dict.fromkeys(measurement.contender for measurement in planned):
        description = programs.describe(contender)
        if description is not None:
            contenders[contender.key] = {"name": contender.label, **description}
    possible = [measurement for measurement in planned if measurement.contender.key in contenders]

    def in_rounds(loaded: bool, rounds: int, prefix: str) -> dict[Measurement, list[Result | None]]:
        return measure_in_rounds(
            [measurement for measurement in possible if (measurement.kind == workloads.LOAD) == loaded],
            rounds,
            lambda measurement: programs.measure(measurement, size.milliseconds_of(measurement)),
            programs.distance,
            lambda what, done, total: progress(prefix + what, done, total),
        )

    rounds = {**in_rounds(False, size.rounds, ""), **in_rounds(True, size.load_rounds, "under load, ")}
    measurements = [{**measurement.recorded(), "rounds": results} for measurement, results in rounds.items()]
    domains = joining.measure(programs, size.domains, size.common_domains) if joining.NAME in names else []
    idle_contexts = idle.measure(programs) if idle.NAME in names else {}
    contexts = network.measure(programs, server, size) if server and workloads.NETWORK in names else {}
    return {
        "machine": {**machine, "load_after": machine_load()},
        "server": server.look()["version"] if server else "",
        "size": asdict(size),
        "workloads": list(names),
        "contenders": contenders,
        "domains": domains,
        "idle": idle_contexts,
        "network": contexts,
        "failures": programs.failures,
        "measurements": measurements,
        "aims": [check.recorded() for check in aims.check_all(Figures(measurements), domains, idle_contexts, contexts)],
    }


class Report:
    """Shows a run, whether it has just been made or was read from a file."""

    def __init__(self, run: Run) -> None:
        self._run = run
        self._figures = Figures(run["measurements"])
        self._series = [one for one in workloads.all_series(Size(**run["size"])) if one.workload in run["workloads"]]

    def headline(self) -> list[str]:
        machine, size = self._run["machine"], self._run["size"]
        server = f"; nats-server {self._run['server']}" if self._run["server"] else ""
        return [
            f"{machine_line(machine)}; {machine['compiler']}{server}",
            f"Revision {machine['revision']}, {machine['date']}; load {machine['load_before']:.1f} at the start, "
            f"{machine['load_after']:.1f} at the end",
            f"{size['rounds']} rounds, {size['milliseconds']} ms each measurement; under load {size['load_rounds']} rounds",
        ]

    def aims(self) -> Table:
        return aims.table(aims.check_all(self._figures, self._run["domains"], self._run["idle"], self._run["network"]))

    def tables(self) -> list[Table]:
        """All of them but the aims, without those that would be empty."""
        measured = [self._table(series, quantity) for series in self._series for quantity in series.quantities]
        tables = [
            self._contenders(),
            *measured,
            *load.tables(self._figures, self._series, self._label),
            devices.table(self._figures, self._series),
            self._distances(),
            *joining.tables(self._run["domains"]),
            *idle.tables(self._run["idle"]),
            *network.tables(self._run["network"]),
        ]
        return [table for table in tables if table.rows]

    def plots(self) -> list[Plot]:
        """Those that have a line to show."""
        plots = [self._plot(series, series.quantities[0]) for series in self._series if series.plot]
        plots += load.plots(self._figures, self._series, self._label, list(self._run["contenders"]))
        return [plot for plot in plots if any(len(curve.points) > 1 for curve in plot.curves)]

    def closing(self) -> str:
        failed = len(self._run["failures"])
        return f"Messages lost or damaged: {self._figures.lost()}. Measurements that failed: {failed}."

    def _contenders(self) -> Table:
        def row(contender: Result) -> list[Cell]:
            pinned = contender["pinned"] and self._run["machine"]["cores"] > 1
            told = [contender[key] for key in ("name", "version", "transport", "pacing")]
            return [*told, "one core a process" if pinned else "free"]

        header = ["", "version", "transport", "what keeps messages from being lost", "processors"]
        return Table("Contenders", header, [row(contender) for contender in self._run["contenders"].values()])

    def _table(self, series: Series, quantity: Quantity) -> Table:
        rows = [[self._label(key), *values] for key, values in self._medians(series, quantity)]
        return Table(series.title(quantity), ["", *(column.heading for column in series.columns)], rows)

    def _plot(self, series: Series, quantity: Quantity) -> Plot:
        contenders = list(self._run["contenders"])
        curves = []
        for key, values in self._medians(series, quantity):
            points = [(column.x, value) for column, value in zip(series.columns, values) if column.x and value]
            if points:
                curves.append(Curve(self._label(key), contenders.index(key), points))
        return Plot(series.plot, series.title(quantity), series.x_title, curves)

    def _label(self, key: str) -> str:
        label: str = self._run["contenders"][key]["name"]
        return label

    def _medians(self, series: Series, quantity: Quantity) -> Iterator[tuple[str, list[float | None]]]:
        """A value for each column, of each contender that has one."""
        for contender in series.contenders:
            medians = [
                self._figures.median(series.measurement(contender, column), quantity) for column in series.columns
            ]
            if any(median is not None for median in medians):
                values = [None if median is None else median / quantity.divisor for median in medians]
                yield contender.key, values

    def _distances(self) -> Table:
        distances = self._figures.distances()
        shares = {"least": 0.0, "10%": 0.1, "median": 0.5, "90%": 0.9, "greatest": 1.0}
        values = {name: distances[round(share * (len(distances) - 1))] for name, share in shares.items() if distances}
        title = "The way between the processors: round trip of the bare ring beside all measurements, nanoseconds"
        return Table.of(title, [{"": "there and back", **values}] if values else [])

"""What is measured, and the tables and plots that show it."""

from collections.abc import Iterable, Sequence
from dataclasses import dataclass, field
from functools import partial
from itertools import groupby, zip_longest
from typing import Any

from .contenders import (
    ALL,
    ENGINE,
    ENGINE_C,
    ENGINE_C_WAITING,
    ENGINE_HOST_NATS,
    ENGINE_NATS,
    LOADED,
    NATS,
    RING,
    SPINNING,
    WITHOUT_DEVICE,
    WITHOUT_RING,
    Contender,
    Setting,
    Settings,
)

# What a setting is when a measurement does not name it, here and in the programs.
BASE: Settings = {
    "payload": 64,
    "receivers": 1,
    "topics": 1,
    "spread": False,
    "idle-peers": 0,
    "spin": False,
    "threads": 1,
    "own-nodes": False,
    "burst": 1,
}
IDLE_PEERS = 64
MANY_TOPICS = 10_000
NETWORK = "network"  # a workload: this engine beside what carries its messages between machines
NETWORK_RECEIVERS = 16
LOAD = "load"  # a workload, and its measurements: messages sent by the clock
PROCESSOR_RATE = 2000  # at which processor time is compared
THREADS = "threads"  # a workload, and its measurements: messages from several threads of one process
DEVICES = "devices"  # a workload: the engine against itself without each device for speed


@dataclass(frozen=True)
class Size:
    """How much is measured. Topics: how many, and whether all are busy. Loads: messages a second, how many of them are due
    at once, and milliseconds. Threads: of the publisher. Domains: contexts and sources. Common domains: contexts that all
    receive the same topics. Contexts: of a network, when they look for each other. Idle seconds: how long such contexts are
    watched.
    """

    rounds: int
    milliseconds: int
    payloads: Sequence[int]
    receivers: Sequence[int]
    topics: Sequence[tuple[int, bool]]
    load_rounds: int
    loads: Sequence[tuple[int, int, int]]
    threads: Sequence[int]
    domains: Sequence[tuple[int, int]]
    common_domains: Sequence[int]
    contexts: Sequence[int]
    idle_seconds: float

    def milliseconds_of(self, measurement: "Measurement") -> int:
        if measurement.kind != LOAD:
            return self.milliseconds
        settings = {**BASE, **dict(measurement.settings)}
        return next(time for rate, burst, time in self.loads if (rate, burst) == (settings["rate"], settings["burst"]))


FULL = Size(
    rounds=5,
    milliseconds=400,
    payloads=(16, 64, 256, 1024, 8192),
    receivers=(4, 16),
    topics=((100, False), (100, True), (MANY_TOPICS, False), (MANY_TOPICS, True)),
    load_rounds=3,
    loads=(
        (1_000, 1, 1000),
        (PROCESSOR_RATE, 1, 500),
        (10_000, 1, 500),
        (100_000, 1, 1000),
        (1_000_000, 1, 300),
        (10_000, 64, 500),
        (1_000_000, 64, 300),
    ),
    threads=(1, 2, 4, 8),
    domains=((100, 10_000), (200, 200)),
    common_domains=(10, 100, 1000),
    contexts=(10, 100, 1000),
    idle_seconds=20,
)
QUICK = Size(
    rounds=3,
    milliseconds=150,
    payloads=(64,),
    receivers=(16,),
    topics=((MANY_TOPICS, False),),
    load_rounds=3,
    loads=((PROCESSOR_RATE, 1, 300), (100_000, 1, 300)),
    threads=(1, 4),
    domains=((100, 10_000),),
    common_domains=(10, 100),
    contexts=(10, 100),
    idle_seconds=5,
)


@dataclass(frozen=True)
class Measurement:
    """One run of a contender's program: the kind is its command, the settings are those that differ from BASE."""

    kind: str
    contender: Contender
    settings: frozenset[tuple[str, Setting]]

    @classmethod
    def of(cls, kind: str, contender: Contender, settings: Settings = BASE) -> "Measurement":
        return cls(kind, contender, frozenset(settings.items() - BASE.items()))

    def recorded(self) -> dict[str, Any]:
        return {"kind": self.kind, "contender": self.contender.key, **BASE, **dict(self.settings)}


@dataclass(frozen=True)
class Quantity:
    """A number of a measurement's result, and what it is called once it is divided."""

    key: str
    name: str
    title: str
    more_is_better: bool = False
    divisor: float = 1000


RATE = Quantity("slowest", "rate", "Thousand messages a second", more_is_better=True)
P50, P99, P999 = (Quantity(key, "round trip", f"Round trip, {key}, microseconds") for key in ("p50", "p99", "p99.9"))
ONE_WAY_P50, ONE_WAY_P99, ONE_WAY_P999 = (
    Quantity(key, "latency", f"One-way latency, {key}, microseconds") for key in ("p50", "p99", "p99.9")
)
PROCESSOR = Quantity("processor", "processor time", "Processor time of publisher and receiver, %", divisor=1)


@dataclass(frozen=True)
class Column:
    """A column of a table, and a point of the plot when it has a place on the x axis."""

    heading: str
    settings: Settings = field(default_factory=dict)
    x: int | None = None


@dataclass(frozen=True)
class Series:
    """One kind of measurement of some contenders with one column of settings after the other. It is shown as a table of
    each quantity and a plot of the first. A workload is the series that name it.
    """

    workload: str
    kind: str
    circumstances: str  # follows the quantity in titles
    contenders: Sequence[Contender]
    columns: Sequence[Column]
    quantities: Sequence[Quantity]
    plot: str = ""  # its file; there is none without
    x_title: str = "bytes of payload"

    def title(self, quantity: Quantity) -> str:
        return quantity.title + self.circumstances

    def measurement(self, contender: Contender, column: Column) -> Measurement:
        return Measurement.of(self.kind, contender, column.settings)


def _spinning(columns: Iterable[Column]) -> list[Column]:
    return [Column(column.heading, {**column.settings, "spin": True}, column.x) for column in columns]


def all_series(size: Size) -> list[Series]:
    """In the order of measuring and of showing. Workloads that are compared with each other stand together."""
    payloads = [Column(f"{payload} bytes", {"payload": payload}, payload) for payload in size.payloads]
    spinning = _spinning(payloads)
    peers = [Column("no idle peers"), Column(f"{IDLE_PEERS} idle peers", {"idle-peers": IDLE_PEERS})]
    topics = [Column("1", x=1)]
    for count, busy in size.topics:
        heading, x = (f"{count:,}, all busy", count) if busy else (f"{count:,}, one busy", None)
        topics.append(Column(heading, {"topics": count, "spread": busy}, x))
    receivers = [Column("1", x=1), *(Column(str(count), {"receivers": count}, count) for count in size.receivers)]
    devices = [
        Column("64 bytes"),
        Column("spinning", {"spin": True}),
        Column("8,192 bytes", {"payload": 8192}),
        Column("4 receivers", {"receivers": 4}),
        Column("16 receivers", {"receivers": 16}),
        Column(f"{MANY_TOPICS:,} topics", {"topics": MANY_TOPICS}),
        Column(f"{IDLE_PEERS} idle peers", {"idle-peers": IDLE_PEERS}),
    ]
    network = [
        Column("64 bytes"),
        Column("1024 bytes", {"payload": 1024}),
        Column(f"64 bytes, {NETWORK_RECEIVERS} receivers", {"receivers": NETWORK_RECEIVERS}),
    ]
    loads = [
        Column(
            f"{number:,} messages a second, {'even' if burst == 1 else f'in bursts of {burst}'}",
            {"rate": number, "burst": burst},
        )
        for number, burst, _ in size.loads
    ]
    for_processor_time = [column for column in loads if column.settings["rate"] == PROCESSOR_RATE]
    for_latency = [column for column in loads if column not in for_processor_time]
    networked = [ENGINE_NATS, NATS, ENGINE_HOST_NATS, ENGINE]
    rate = partial(Series, kind="rate", quantities=[RATE])
    load = partial(Series, LOAD, LOAD, circumstances=" under load", quantities=[])
    threads = partial(Series, THREADS, THREADS, contenders=[ENGINE_C], quantities=[RATE])
    round_trip = partial(Series, "round-trip", kind="round-trip", quantities=[P50, P99, P999])
    return [
        rate("rate", circumstances=", one receiver, waiting", contenders=ALL, columns=payloads, plot="rate.svg"),
        rate(
            "rate",
            circumstances=", one receiver, spinning",
            contenders=SPINNING,
            columns=spinning,
            plot="rate-spinning.svg",
        ),
        rate("peers", circumstances=" beside idle peers, 64 bytes", contenders=WITHOUT_RING, columns=peers),
        rate(
            "topics",
            circumstances=" by topics, 64 bytes",
            contenders=WITHOUT_RING,
            columns=topics,
            plot="topics.svg",
            x_title="topics, all busy",
        ),
        rate(
            "receivers",
            circumstances=" that every receiver got, by receivers, 64 bytes",
            contenders=ALL,
            columns=receivers,
            plot="receivers.svg",
            x_title="receivers",
        ),
        round_trip(
            circumstances=", both sides waiting",
            contenders=[*WITHOUT_RING, ENGINE_C_WAITING],
            columns=payloads,
            plot="round-trip.svg",
        ),
        round_trip(
            circumstances=", both sides spinning", contenders=SPINNING, columns=spinning, plot="round-trip-spinning.svg"
        ),
        load(contenders=[ENGINE_C, RING], columns=_spinning(for_latency)),
        load(contenders=LOADED, columns=for_latency),
        load(contenders=[ENGINE_C, ENGINE_C_WAITING], columns=for_processor_time),
        threads(
            circumstances=" by threads that send, sources of one context",
            columns=[Column(str(count), {"threads": count}) for count in size.threads],
        ),
        threads(
            circumstances=" by threads that send, a context each",
            columns=[Column(str(count), {"threads": count, "own-nodes": True}) for count in size.threads],
        ),
        rate(NETWORK, circumstances=" on a network", contenders=networked, columns=network),
        Series(
            NETWORK,
            "round-trip",
            circumstances=" on a network, both sides waiting",
            contenders=networked,
            columns=network[:2],
            quantities=[P50, P99],
        ),
        Series(
            NETWORK,
            "round-trip",
            circumstances=" on one machine, both sides spinning",
            contenders=[ENGINE_HOST_NATS, ENGINE],
            columns=[Column("64 bytes", {"spin": True})],
            quantities=[P50],
        ),
        rate(DEVICES, circumstances=", without each device", contenders=[ENGINE_C, *WITHOUT_DEVICE], columns=devices),
        Series(
            DEVICES,
            "round-trip",
            circumstances=", without each device",
            contenders=[ENGINE_C, *WITHOUT_DEVICE],
            columns=devices[:2],
            quantities=[P50],
        ),
    ]


NAMES = list(dict.fromkeys(series.workload for series in all_series(QUICK)))


def plan(series: Iterable[Series]) -> list[Measurement]:
    """Every measurement of a round, once. What is compared stands close together: the series of a workload take turns
    column by column, and what is nearest to BASE, where other workloads start from, comes last.
    """
    planned = []
    for _, group in groupby(series, key=lambda one: one.workload):
        one_workload = list(group)
        for columns in zip_longest(*(_nearest_to_base_last(one.columns) for one in one_workload)):
            for one, column in zip(one_workload, columns):
                if column is not None:
                    planned += [one.measurement(contender, column) for contender in one.contenders]
    return list(dict.fromkeys(planned))


def _nearest_to_base_last(columns: Sequence[Column]) -> list[Column]:
    return sorted(columns, key=lambda column: len(column.settings.items() - BASE.items()), reverse=True)

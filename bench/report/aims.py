"""What we want to be true."""

from collections.abc import Callable, Sequence
from dataclasses import dataclass
from functools import partial
from typing import Any

from . import idle, joining, network
from .contenders import ENGINE, ENGINE_C, ENGINE_C_WAITING, ENGINE_HOST_NATS, ENGINE_NATS, NATS, RING, ZEROMQ, Settings
from .figures import Figures, Spread
from .joining import Domain
from .tables import Table
from .workloads import (
    IDLE_PEERS,
    LOAD,
    MANY_TOPICS,
    NETWORK_RECEIVERS,
    ONE_WAY_P50,
    ONE_WAY_P99,
    ONE_WAY_P999,
    P50,
    P999,
    PROCESSOR,
    PROCESSOR_RATE,
    RATE,
    THREADS,
    Measurement,
    Quantity,
)


@dataclass(frozen=True)
class Bound:
    value: float
    upper: bool

    def __str__(self) -> str:
        return f"at {'most' if self.upper else 'least'} {self.value}"

    def holds(self, value: float) -> bool:
        return value <= self.value if self.upper else value >= self.value


def at_least(value: float) -> Bound:
    return Bound(value, upper=False)


def at_most(value: float) -> Bound:
    return Bound(value, upper=True)


@dataclass(frozen=True)
class RatioAim:
    """Of the median of the rounds, or with least_round of the least."""

    text: str
    bound: Bound
    quantity: Quantity
    above: Measurement
    below: Measurement
    least_round: bool = False


rate = partial(Measurement.of, "rate")
trip = partial(Measurement.of, "round-trip")
load = partial(Measurement.of, LOAD)
threads = partial(Measurement.of, THREADS)
SPIN: Settings = {"spin": True}
PEERS: Settings = {"idle-peers": IDLE_PEERS}
TOPICS: Settings = {"topics": MANY_TOPICS}
LARGE: Settings = {"payload": 1024}
RECEIVERS: Settings = {"receivers": NETWORK_RECEIVERS}
SIXTEEN: Settings = {"receivers": 16}
HUNDRED_THOUSAND: Settings = {"rate": 100_000}
HUNDRED_THOUSAND_SPIN: Settings = {**HUNDRED_THOUSAND, **SPIN}
SPARSE: Settings = {"rate": PROCESSOR_RATE}
FOUR_THREADS: Settings = {"threads": 4}
ONE_CONTEXT: Settings = {"own-nodes": True}
FOUR_CONTEXTS: Settings = {**FOUR_THREADS, **ONE_CONTEXT}
MANY_TOPICS_AGAINST_ONE = f"rate with {MANY_TOPICS:,} topics, one busy, against one"
RATIO_AIMS = [
    RatioAim("rate against libzmq, both waiting", at_least(4), RATE, rate(ENGINE), rate(ZEROMQ)),
    RatioAim("rate against the bare ring, both spinning", at_least(0.9), RATE, rate(ENGINE, SPIN), rate(RING, SPIN)),
    RatioAim(
        "rate against the bare ring, both spinning, least of the rounds",
        at_least(0.6),
        RATE,
        rate(ENGINE, SPIN),
        rate(RING, SPIN),
        least_round=True,
    ),
    RatioAim("rate against the bare ring, this engine waiting", at_least(0.6), RATE, rate(ENGINE), rate(RING, SPIN)),
    RatioAim(
        "rate to 16 receivers against the bare ring", at_least(0.6), RATE, rate(ENGINE, SIXTEEN), rate(RING, SIXTEEN)
    ),
    RatioAim(
        "round trip against the bare ring, both spinning", at_most(1.2), P50, trip(ENGINE, SPIN), trip(RING, SPIN)
    ),
    RatioAim(
        "round trip against the bare ring, both spinning, p99.9", at_most(2), P999, trip(ENGINE, SPIN), trip(RING, SPIN)
    ),
    RatioAim(
        "round trip against libzmq, both waiting with default options", at_most(0.1), P50, trip(ENGINE), trip(ZEROMQ)
    ),
    RatioAim("rate of std::function against the C interface", at_least(0.95), RATE, rate(ENGINE), rate(ENGINE_C)),
    RatioAim(MANY_TOPICS_AGAINST_ONE, at_least(0.9), RATE, rate(ENGINE, TOPICS), rate(ENGINE)),
    RatioAim(f"rate with {IDLE_PEERS} idle peers against none", at_least(0.9), RATE, rate(ENGINE, PEERS), rate(ENGINE)),
    RatioAim(
        "latency at 100,000 a second against libzmq, default options, p99",
        at_most(0.2),
        ONE_WAY_P99,
        load(ENGINE_C, HUNDRED_THOUSAND),
        load(ZEROMQ, HUNDRED_THOUSAND),
    ),
    RatioAim(
        "latency at 100,000 a second against libzmq, default options, p99.9",
        at_most(0.333),
        ONE_WAY_P999,
        load(ENGINE_C, HUNDRED_THOUSAND),
        load(ZEROMQ, HUNDRED_THOUSAND),
    ),
    RatioAim(
        "latency at 100,000 a second against the bare ring, both spinning, p50",
        at_most(2),
        ONE_WAY_P50,
        load(ENGINE_C, HUNDRED_THOUSAND_SPIN),
        load(RING, HUNDRED_THOUSAND_SPIN),
    ),
    RatioAim(
        "latency at 100,000 a second against the bare ring, both spinning, p99.9",
        at_most(3),
        ONE_WAY_P999,
        load(ENGINE_C, HUNDRED_THOUSAND_SPIN),
        load(RING, HUNDRED_THOUSAND_SPIN),
    ),
    RatioAim(
        f"processor time at {PROCESSOR_RATE:,} a second, default options against spin_time 0",
        at_most(1.3),
        PROCESSOR,
        load(ENGINE_C, SPARSE),
        load(ENGINE_C_WAITING, SPARSE),
    ),
    RatioAim(
        "rate of 4 threads with sources of one context against one thread",
        at_least(1),
        RATE,
        threads(ENGINE_C, FOUR_THREADS),
        threads(ENGINE_C),
    ),
    RatioAim(
        "rate of 4 threads with a context each against one thread",
        at_least(1),
        RATE,
        threads(ENGINE_C, FOUR_CONTEXTS),
        threads(ENGINE_C, ONE_CONTEXT),
    ),
    RatioAim("rate, nats against bare NATS", at_least(3), RATE, rate(ENGINE_NATS), rate(NATS)),
    RatioAim(
        "rate at 1024 bytes, nats against bare NATS", at_least(1.5), RATE, rate(ENGINE_NATS, LARGE), rate(NATS, LARGE)
    ),
    RatioAim(
        f"rate to {NETWORK_RECEIVERS} receivers, nats against bare NATS",
        at_least(2),
        RATE,
        rate(ENGINE_NATS, RECEIVERS),
        rate(NATS, RECEIVERS),
    ),
    RatioAim("round trip, nats against bare NATS", at_most(1.1), P50, trip(ENGINE_NATS), trip(NATS)),
    RatioAim("rate, host,nats on one machine against host", at_least(0.97), RATE, rate(ENGINE_HOST_NATS), rate(ENGINE)),
    RatioAim(
        "round trip, host,nats on one machine against host, waiting",
        at_most(1.03),
        P50,
        trip(ENGINE_HOST_NATS),
        trip(ENGINE),
    ),
    RatioAim(
        "round trip, host,nats on one machine against host, spinning",
        at_most(1.03),
        P50,
        trip(ENGINE_HOST_NATS, SPIN),
        trip(ENGINE, SPIN),
    ),
]
# Of the greatest rate of the rounds to the least.
STEADINESS_AIM = "rate at 8,192 bytes, the greatest of the rounds against the least", at_most(1.3)
STEADY = rate(ENGINE, {"payload": 8192})
JOINING_AIMS: list[tuple[str, Bound, Callable[[Sequence[Domain]], Spread | None]]] = [
    (f"seconds to join {joining.CONTEXTS} contexts with 10,000 sources", at_most(1), joining.seconds_to_join),
    (f"seconds until {joining.MANY:,} contexts know ten sources", at_most(5), joining.seconds_to_find_common),
    (f"descriptors of each of {joining.MANY:,} contexts", at_most(30), joining.descriptors),
    (
        f"joining {joining.MANY:,} contexts against joining {joining.FEW}, ten sources",
        at_most(2),
        joining.joining_many_against_few,
    ),
]
IDLE_AIM = f"percent of a processor of {idle.CONTEXTS} idle contexts together", at_most(0.1)
NETWORK_AIMS: list[tuple[str, Bound, Callable[[network.Recorded], Spread | None]]] = [
    ("messages a second that an idle context sends, nats", at_most(2), network.idle_messages),
    ("wake-ups a second of the busiest thread of an idle context", at_most(1), network.idle_wakeups),
    ("KiB of memory beyond host of an idle context", at_most(200), network.idle_memory),
    (f"seconds until {network.CONTEXTS:,} contexts know ten sources, nats", at_most(5), network.seconds_to_find),
    ("seconds until delivery again after a killed server, p50", at_most(1), network.seconds_after_kill),
    (
        f"seconds until delivery again after a cut of {network.CUT_SECONDS} s, longest",
        at_most(2),
        network.longest_seconds_after_cut,
    ),
]


@dataclass(frozen=True)
class Check:
    """An aim, and what was measured of it."""

    text: str
    bound: Bound
    measured: Spread | None
    least_round: bool = False

    def verdict(self) -> str:
        if self.measured is None:
            return "not measured"
        return (
            "met" if self.bound.holds(self.measured.least if self.least_round else self.measured.median) else "NOT MET"
        )

    def recorded(self) -> dict[str, Any]:
        return {"aim": self.text, "bound": self.bound.value, "upper": self.bound.upper, "measured": self.measured}


def check_all(
    figures: Figures, domains: Sequence[Domain], idle_contexts: idle.Recorded, contexts: network.Recorded
) -> list[Check]:
    ratios = [
        Check(aim.text, aim.bound, figures.ratio(aim.above, aim.below, aim.quantity), aim.least_round)
        for aim in RATIO_AIMS
    ]
    return [
        *ratios,
        Check(*STEADINESS_AIM, figures.steadiness(STEADY, RATE)),
        *(Check(text, bound, of(domains)) for text, bound, of in JOINING_AIMS),
        Check(*IDLE_AIM, idle.percent(idle_contexts)),
        *(Check(text, bound, of(contexts)) for text, bound, of in NETWORK_AIMS),
    ]


def table(checks: Sequence[Check]) -> Table:
    return Table(
        "Aims: median of the rounds' ratios (least to greatest)",
        ["", "", "aim", "measured"],
        [[check.verdict(), check.text, str(check.bound), str(check.measured or "")] for check in checks],
    )

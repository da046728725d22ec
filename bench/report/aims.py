"""What we want to be true."""

from collections.abc import Callable, Sequence
from dataclasses import dataclass
from functools import partial
from typing import Any

from . import joining, network
from .contenders import ENGINE, ENGINE_C, ENGINE_HOST_NATS, ENGINE_NATS, NATS, RING, ZEROMQ, Settings
from .figures import Figures, Spread
from .joining import Domain
from .tables import Table
from .workloads import IDLE_PEERS, MANY_TOPICS, NETWORK_RECEIVERS, P50, RATE, Measurement, Quantity


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
    text: str
    bound: Bound
    quantity: Quantity
    above: Measurement
    below: Measurement


rate = partial(Measurement.of, "rate")
trip = partial(Measurement.of, "round-trip")
SPIN: Settings = {"spin": True}
PEERS: Settings = {"idle-peers": IDLE_PEERS}
TOPICS: Settings = {"topics": MANY_TOPICS}
LARGE: Settings = {"payload": 1024}
RECEIVERS: Settings = {"receivers": NETWORK_RECEIVERS}
MANY_TOPICS_AGAINST_ONE = f"rate with {MANY_TOPICS:,} topics, one busy, against one"
RATIO_AIMS = [
    RatioAim("rate against libzmq, both waiting", at_least(4), RATE, rate(ENGINE), rate(ZEROMQ)),
    RatioAim("rate against the bare ring, both spinning", at_least(0.6), RATE, rate(ENGINE, SPIN), rate(RING, SPIN)),
    RatioAim("rate against the bare ring, this engine waiting", at_least(0.6), RATE, rate(ENGINE), rate(RING, SPIN)),
    RatioAim("round trip against the bare ring, both spinning", at_most(2), P50, trip(ENGINE, SPIN), trip(RING, SPIN)),
    RatioAim("round trip against libzmq, both waiting", at_most(1), P50, trip(ENGINE), trip(ZEROMQ)),
    RatioAim("rate of std::function against the C interface", at_least(0.9), RATE, rate(ENGINE), rate(ENGINE_C)),
    RatioAim(MANY_TOPICS_AGAINST_ONE, at_least(0.9), RATE, rate(ENGINE, TOPICS), rate(ENGINE)),
    RatioAim(f"rate with {IDLE_PEERS} idle peers against none", at_least(0.9), RATE, rate(ENGINE, PEERS), rate(ENGINE)),
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
JOINING_AIM = f"seconds to join {joining.CONTEXTS} contexts with 10,000 sources", at_most(1)
NETWORK_AIMS: list[tuple[str, Bound, Callable[[network.Recorded], Spread | None]]] = [
    ("messages a second that an idle context sends, nats", at_most(2), network.idle_messages),
    ("wake-ups a second of the busiest thread of an idle context", at_most(1), network.idle_wakeups),
    ("KiB of memory beyond host of an idle context", at_most(200), network.idle_memory),
    (f"seconds until {network.CONTEXTS:,} contexts know ten sources", at_most(5), network.seconds_to_find),
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

    def verdict(self) -> str:
        if self.measured is None:
            return "not measured"
        return "met" if self.bound.holds(self.measured.median) else "NOT MET"

    def recorded(self) -> dict[str, Any]:
        return {"aim": self.text, "bound": self.bound.value, "upper": self.bound.upper, "measured": self.measured}


def check_all(figures: Figures, domains: Sequence[Domain], contexts: network.Recorded) -> list[Check]:
    ratios = [Check(aim.text, aim.bound, figures.ratio(aim.above, aim.below, aim.quantity)) for aim in RATIO_AIMS]
    seconds_to_join = Check(*JOINING_AIM, joining.seconds_to_join(domains))
    return [*ratios, seconds_to_join, *(Check(text, bound, of(contexts)) for text, bound, of in NETWORK_AIMS)]


def table(checks: Sequence[Check]) -> Table:
    return Table(
        "Aims: median of the rounds' ratios (least to greatest)",
        ["", "", "aim", "measured"],
        [[check.verdict(), check.text, str(check.bound), str(check.measured or "")] for check in checks],
    )

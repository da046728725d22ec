"""Who takes part in the comparison."""

from collections.abc import Mapping
from dataclasses import dataclass, field

Setting = int | bool | str
Settings = Mapping[str, Setting]


@dataclass(frozen=True)
class Contender:
    """One way to exchange messages: a program compare_<program>, its settings, a label.

    The key names the contender in results; without a program of its own it is that of the key. The settings go to the
    program with those of each measurement.
    """

    key: str
    label: str
    program: str = ""
    settings: Settings = field(default_factory=dict, hash=False)

    @property
    def executable(self) -> str:
        return f"compare_{self.program or self.key}"


ENGINE = Contender("engine", "this engine, std::function")
ENGINE_C = Contender("engine_c", "this engine, C interface")
ZEROMQ = Contender("zeromq", "libzmq")
NNG = Contender("nng", "nng")
NATS = Contender("nats", "NATS")
RING = Contender("ring", "bare ring")

# The first of them with other values of the option "transport".
ENGINE_NATS = Contender("engine_nats", "this engine, nats")
ENGINE_HOST_NATS = Contender("engine_host_nats", "this engine, host,nats")
# The second of them with contexts that never look on before they wait; the others have the engine's default options.
ENGINE_C_WAITING = Contender("engine_c_waiting", "this engine, C interface, spin_time 0")

ALL = (ENGINE, ENGINE_C, ZEROMQ, NNG, NATS, RING)
# The ring has no topics, and nothing to wait on: its receiver yields the processor instead.
WITHOUT_RING = (ENGINE, ENGINE_C, ZEROMQ, NNG, NATS)
# Those that save time when they are polled in a loop.
SPINNING = (ENGINE, ENGINE_C, RING)
# Under load, when they wait.
LOADED = (ENGINE_C, ENGINE_C_WAITING, ZEROMQ, NNG, NATS)

# This engine built without one of the devices that exist for speed alone; see system/tuning.h there.
WITHOUT_DEVICE = tuple(
    Contender(f"without_{key}", f"without {label}")
    for key, label in (
        ("busy_word", "the busy word"),
        ("biased_mutex", "the biased mutex"),
        ("poll_backoff", "the poll backoff"),
        ("prefetch", "the producer's prefetch"),
        ("yield", "the yield before parking"),
    )
)

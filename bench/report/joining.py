"""Domains of this engine: what they cost, and how long one more context takes to join."""

import statistics
from collections.abc import Callable, Iterable, Mapping, Sequence
from typing import Any, TypeVar

from .figures import Spread
from .programs import Programs
from .tables import Cell, Table

NAME = "joining"
CONTEXTS = 100  # of the domain in which everybody hears of every source, in the aim
FEW, MANY = 10, 1000  # contexts of domains in which all receive the same topics, in the aims
COMMON = 10  # those topics

Domain = Mapping[str, Any]
Size = TypeVar("Size")


def measure(programs: Programs, sizes: Iterable[tuple[int, int]], common_sizes: Iterable[int]) -> list[Domain]:
    """Domains of so many contexts and sources in which everybody hears of every source, and domains of so many contexts in
    which all receive the same topics and hear of no others. The sizes of each kind go up until one is too large for the
    machine.
    """
    everything = _until_stopped(lambda size: programs.join(contexts=size[0], sources=size[1]), sizes)
    common = _until_stopped(lambda size: programs.join(contexts=size, sources=size, common=COMMON), common_sizes)
    return [*everything, *common]


def _until_stopped(join: Callable[[Size], Domain | None], sizes: Iterable[Size]) -> list[Domain]:
    domains: list[Domain] = []
    for domain in filter(None, map(join, sizes)):
        domains.append(domain)
        if "stopped" in domain:
            break
    return domains


def seconds_to_join(domains: Sequence[Domain]) -> Spread | None:
    domain = _find(domains, CONTEXTS, 0)
    return Spread.over(domain["join_seconds"]) if domain else None


def seconds_to_find_common(domains: Sequence[Domain]) -> Spread | None:
    domain = _find(domains, MANY, COMMON)
    return Spread.over([domain["found_seconds"]]) if domain else None


def descriptors(domains: Sequence[Domain]) -> Spread | None:
    """Of a context in the largest domain."""
    domain = _find(domains, MANY, COMMON)
    return Spread.over([domain["descriptors"] / MANY]) if domain else None


def joining_many_against_few(domains: Sequence[Domain]) -> Spread | None:
    """The joins to the large domain, each against the median of those to the small one."""
    few, many = (_find(domains, contexts, COMMON) for contexts in (FEW, MANY))
    if few is None or many is None:
        return None
    usual = statistics.median(few["join_seconds"])
    return Spread.over([seconds / usual for seconds in many["join_seconds"]])


def _find(domains: Sequence[Domain], contexts: int, common: int) -> Domain | None:
    """One that was built to its end."""
    for domain in domains:
        if domain["contexts"] == contexts and domain["common"] == common and "join_seconds" in domain:
            return domain
    return None


def tables(domains: Sequence[Domain]) -> list[Table]:
    everything = [domain for domain in domains if domain["common"] == 0]
    common = [domain for domain in domains if domain["common"] > 0]
    return [
        Table.of("Domains of this engine in which everybody hears of every source", list(map(_row, everything))),
        Table.of(
            f"Domains of this engine in which all receive {COMMON} topics, a source each, and hear of no others",
            list(map(_common_row, common)),
        ),
    ]


def _row(domain: Domain) -> dict[str, Cell]:
    return {
        "contexts": domain["contexts"],
        "sources": domain["sources"],
        "all know all, s": domain.get("settle_seconds"),
        "one more joins, ms": _join_milliseconds(domain),
        "heap, MiB": _divided(domain.get("heap_kib"), 1024),
        "kernel, MiB": _divided(domain.get("kernel_kib"), 1024),
        "descriptors": domain.get("descriptors"),
        "stopped because": domain.get("stopped", ""),
    }


def _common_row(domain: Domain) -> dict[str, Cell]:
    contexts = domain["contexts"]
    return {
        "contexts": contexts,
        "made in, s": domain.get("create_seconds"),
        "then all know all, ms": _divided(domain.get("found_seconds"), 0.001),
        "one more joins, ms": _join_milliseconds(domain),
        "heap of a context, KiB": _divided(domain.get("heap_kib"), contexts),
        "kernel, KiB": _divided(domain.get("kernel_kib"), contexts),
        "descriptors": _divided(domain.get("descriptors"), contexts),
        "stopped because": domain.get("stopped", ""),
    }


def _join_milliseconds(domain: Domain) -> float | None:
    joins = domain.get("join_seconds")
    return statistics.median(joins) * 1000 if joins else None


def _divided(value: float | None, divisor: float) -> float | None:
    return None if value is None else value / divisor

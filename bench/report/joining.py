"""Domains of this engine: what they cost, and how long one more context takes to join."""

import statistics
from collections.abc import Iterable, Mapping, Sequence
from typing import Any

from .figures import Spread
from .programs import Programs
from .tables import Cell, Table

NAME = "joining"
CONTEXTS = 100  # of the domain that we have an aim for

Domain = Mapping[str, Any]


def measure(programs: Programs, sizes: Iterable[tuple[int, int]]) -> list[Domain]:
    """The sizes go up until one is too large for the machine."""
    domains: list[Domain] = []
    for contexts, sources in sizes:
        domain = programs.join(contexts, sources)
        if domain is not None:
            domains.append(domain)
            if "stopped" in domain:
                break
    return domains


def seconds_to_join(domains: Sequence[Domain]) -> Spread | None:
    for domain in domains:
        if domain["contexts"] == CONTEXTS and "join_seconds" in domain:
            return Spread.over(domain["join_seconds"])
    return None


def table(domains: Sequence[Domain]) -> Table:
    def row(domain: Domain) -> dict[str, Cell]:
        joins = domain.get("join_seconds")
        return {
            "contexts": domain["contexts"],
            "sources": domain["sources"],
            "all know all, s": domain.get("settle_seconds"),
            "one more joins, ms": statistics.median(joins) * 1000 if joins else None,
            "heap, MiB": domain.get("heap_mib"),
            "kernel, MiB": domain.get("kernel_mib"),
            "descriptors": domain.get("descriptors"),
            "stopped because": domain.get("stopped", ""),
        }

    return Table.of("Domains of this engine", [row(domain) for domain in domains])

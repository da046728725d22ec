import mmap
import os
import tempfile
import unittest
from collections.abc import Sequence
from contextlib import AbstractContextManager, nullcontext
from dataclasses import replace
from pathlib import Path
from typing import Any
from unittest.mock import patch

from report import idle, network, outage, servers
from report.aims import check_all
from report.figures import Figures
from report.network import Recorded
from report.programs import Programs
from report.servers import Server
from report.workloads import QUICK

SIZE = replace(QUICK, contexts=[10, 20, 1000], idle_seconds=0.1)
# 20 contexts do not find each other, and one pair of contexts has no delivery after it lost its server.
PROGRAM = """#!/bin/sh
case "$*" in
idle*) echo '{}'; read line ;;
*20) echo finding all sources took too long >&2; exit 1 ;;
discovery*) echo '{"contexts": '$3', "create_seconds": 1, "found_seconds": 0.25}'; read line ;;
cut*) echo '{}'; read line; echo '{"gap_seconds": [0.5, 0.25, null]}'; read line ;;
esac
"""


class CountingServer(Server):
    """Stands for one that gets 400 messages and sends 800 between any two looks."""

    def __init__(self) -> None:
        self._looks = 0

    @property
    def url(self) -> str:
        return "nats://nowhere"

    def look(self, page: str = "varz") -> dict[str, Any]:
        self._looks += 1
        return {"in_msgs": 400 * self._looks, "out_msgs": 800 * self._looks}

    def kill(self) -> None:
        pass


def three(*_: Any) -> AbstractContextManager[Sequence[Server]]:
    return nullcontext([CountingServer() for _ in range(3)])


def one(*_: Any) -> AbstractContextManager[Server]:
    return nullcontext(CountingServer())


class StillLink(outage.Link):
    """Of this machine's own network, and cut for no time at all."""

    def __init__(self) -> None:
        self.server_side = self.client_side = []

    def set(self, state: str) -> None:
        pass


class Measure(unittest.TestCase):
    recorded: Recorded
    failures: Sequence[str]

    @classmethod
    def setUpClass(cls) -> None:
        with tempfile.TemporaryDirectory() as temporary:
            program = Path(temporary) / outage.PROGRAM
            program.write_text(PROGRAM)
            program.chmod(0o755)
            programs = Programs(Path(temporary), Path(temporary))
            with (
                patch.multiple(network, CUT_SECONDS=0),
                patch.multiple(idle, SETTLE_SECONDS=0),
                patch.multiple(servers, cluster=three, one=one),
                patch.object(outage, "link", lambda: nullcontext(StillLink())),
            ):
                cls.recorded = network.measure(programs, CountingServer(), SIZE)
        cls.failures = programs.failures

    def test_goes_on_after_what_failed_and_says_why(self) -> None:
        self.assertEqual([one["contexts"] for one in self.recorded["discovery"]], [10, 1000])
        self.assertEqual(self.failures, ["20 contexts: finding all sources took too long"])

    def test_counts_what_the_server_routed_meanwhile_for_each_context(self) -> None:
        _, discovery, _ = network.tables(self.recorded)
        self.assertEqual([list(row) for row in discovery.rows], [[10, 1, 250, 40, 80], [1000, 1, 250, 0.4, 0.8]])

    def test_says_which_pairs_did_not_come_back(self) -> None:
        *_, outages = network.tables(self.recorded)
        killed, cut = (list(row) for row in outages.rows)
        self.assertEqual(killed[1:], [3, 375, 500, 1])
        self.assertEqual((cut[1], cut[4]), (3, 1))

    def test_counts_from_the_end_of_a_cut(self) -> None:
        cut = self.recorded["cut"]
        self.assertEqual(cut["gap_seconds"], [0.5 - cut["cut_seconds"], 0.25 - cut["cut_seconds"], None])
        self.assertEqual(network.longest_seconds_after_cut(self.recorded), (5, 5, 5))

    def test_says_that_a_cut_needs_a_right_and_does_not_fail(self) -> None:
        with patch.object(outage, "_ip", side_effect=PermissionError("no right")):
            recorded = {**self.recorded, "cut": network._cut(Programs(Path(), Path()))}
        *_, outages = network.tables(recorded)
        self.assertIn("skipped: no right", str(list(outages.rows[1])[0]))
        self.assertIsNone(network.longest_seconds_after_cut(recorded))

    def test_takes_for_the_aims_the_largest_network_and_all_pairs(self) -> None:
        verdicts = {check.text: check for check in check_all(Figures([]), [], {}, self.recorded)}
        self.assertEqual(verdicts["seconds until 1,000 contexts know ten sources, nats"].measured, (0.25, 0.25, 0.25))
        cut = verdicts["seconds until delivery again after a killed server, p50"]
        self.assertEqual((cut.measured, cut.verdict()), ((0.5, 0.25, outage.WATCHED_SECONDS), "met"))
        messages = verdicts["messages a second that an idle context sends, nats"]
        self.assertEqual((messages.measured, messages.verdict()), ((4000, 4000, 4000), "NOT MET"))

    def test_counts_waits_of_a_process_and_memory_of_its_own(self) -> None:
        before = sum(count for _, count in network._switches(os.getpid()))
        kib = network._private_kib(os.getpid())
        # Not from the heap, which may have been as large before; it may shrink meanwhile, but not by that much.
        with mmap.mmap(-1, 32 << 20, flags=mmap.MAP_PRIVATE | mmap.MAP_ANONYMOUS) as block:
            for page in range(0, len(block), mmap.PAGESIZE):
                block[page] = 1
            os.waitpid(os.spawnlp(os.P_NOWAIT, "sleep", "sleep", "0.05"), 0)
            self.assertGreater(sum(count for _, count in network._switches(os.getpid())), before)
            self.assertGreaterEqual(network._private_kib(os.getpid()) - kib, 24 << 10)

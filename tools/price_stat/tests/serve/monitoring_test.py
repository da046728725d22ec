"""What is shipped for monitoring systems, checked with promtool; skipped (77) where there is none."""

import json
import pathlib
import re
import shutil
import subprocess
import sys
import tempfile
import unittest
import urllib.request
from typing import Iterator

PRICE_STAT, PLAYED_PROCESS = sys.argv[1:3]
MONITORING = pathlib.Path(__file__).parents[2] / "monitoring"
ALERTS = MONITORING / "alerts.yaml"
DASHBOARD = MONITORING / "grafana-dashboard.json"
NAME = re.compile(r"price_connector_\w+")


def promtool(*arguments: str, text: str = "") -> None:
    done = subprocess.run(["promtool", *arguments], input=text, capture_output=True, text=True, cwd=MONITORING)
    if done.returncode != 0:
        raise AssertionError(done.stdout + done.stderr)


def metrics() -> str:
    """What a process with rows of every kind exports."""
    with tempfile.TemporaryDirectory() as directory:
        player = subprocess.Popen(
            [PLAYED_PROCESS, "2", "3"],
            env={"ZQ_STATISTICS_DIR": directory},
            stdin=subprocess.PIPE,
            stdout=subprocess.PIPE,
            text=True,
        )
        server = subprocess.Popen(
            [PRICE_STAT, "--directory", directory, "serve", "--listen", "127.0.0.1:0"],
            stdout=subprocess.PIPE,
            text=True,
        )
        try:
            assert player.stdout and player.stdout.readline() == "ready\n"
            assert server.stdout
            address = server.stdout.readline().split()[0]
            with urllib.request.urlopen(address + "metrics", timeout=60) as answer:
                return str(answer.read(), "utf-8")
        finally:
            server.terminate()
            player.communicate()
            server.communicate()


def expressions(node: object) -> Iterator[str]:
    if isinstance(node, dict):
        if "expr" in node:
            yield node["expr"]
        for value in node.values():
            yield from expressions(value)
    elif isinstance(node, list):
        for value in node:
            yield from expressions(value)


class MonitoringTest(unittest.TestCase):
    exported = metrics()

    def test_promtool_accepts_the_metrics(self) -> None:
        promtool("check", "metrics", text=self.exported)

    def test_alerts_fire_when_they_should_and_not_otherwise(self) -> None:
        promtool("check", "rules", "alerts.yaml")
        promtool("check", "config", "prometheus.yaml")
        promtool("test", "rules", "alerts_test.yaml")

    def test_the_dashboard_asks_what_can_be_answered(self) -> None:
        rules = [
            {"record": f"panel:{i}", "expr": re.sub(r"\$__\w+", "1m", expression)}
            for i, expression in enumerate(expressions(json.loads(DASHBOARD.read_text())))
        ]
        self.assertGreater(len(rules), 10)
        with tempfile.NamedTemporaryFile("w", suffix=".yaml") as file:
            json.dump({"groups": [{"name": "dashboard", "rules": rules}]}, file)
            file.flush()
            promtool("check", "rules", file.name)

    def test_alerts_and_dashboard_name_only_metrics_that_there_are(self) -> None:
        there = {re.split("[ {]", line)[0] for line in self.exported.splitlines() if line[0] != "#"}
        for path in (ALERTS, DASHBOARD):
            named = set(NAME.findall(path.read_text()))
            self.assertEqual(set(), named - there, path.name)


if __name__ == "__main__":
    if shutil.which("promtool") is None:
        print("skipped: promtool is not here (Debian package prometheus)")
        sys.exit(77)
    unittest.main(argv=sys.argv[:1], verbosity=2)

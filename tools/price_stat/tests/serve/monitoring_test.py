"""What is shipped for monitoring systems, checked with promtool and Prometheus; skipped (77) where there is none."""

import contextlib
import http
import json
import pathlib
import re
import select
import shutil
import subprocess
import sys
import tempfile
import time
import unittest
import urllib.error
import urllib.parse
import urllib.request
from typing import Any, Iterator

PRICE_STAT, PLAYED_PROCESS = sys.argv[1:3]
MONITORING = pathlib.Path(__file__).parents[2] / "monitoring"
ALERTS = MONITORING / "alerts.yaml"
CONFIGURATION = MONITORING / "prometheus.yaml"
DASHBOARD = MONITORING / "grafana-dashboard.json"
NAME = re.compile(r"price_connector_\w+")
MESSAGES = 1234567  # that each receiver got
PATIENCE_SECONDS = 60


def promtool(*arguments: str, text: str = "") -> None:
    done = subprocess.run(["promtool", *arguments], input=text, capture_output=True, text=True, cwd=MONITORING)
    if done.returncode != 0:
        raise AssertionError(done.stdout + done.stderr)


@contextlib.contextmanager
def serving() -> Iterator[str]:
    """Serves what a process with rows of every kind counts, at the address that is yielded."""
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
            assert player.stdin and player.stdout and server.stdout
            assert player.stdout.readline() == "ready\n"
            print("receive", MESSAGES, file=player.stdin, flush=True)
            assert player.stdout.readline() == "done\n"
            yield server.stdout.readline().split()[0]
        finally:
            server.terminate()
            player.communicate()
            server.communicate()


def metrics() -> str:
    with serving() as address, urllib.request.urlopen(address + "metrics", timeout=60) as answer:
        return str(answer.read(), "utf-8")


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


@contextlib.contextmanager
def prometheus(directory: str) -> Iterator[str]:
    """Runs one that has its configuration and its store in the directory, at the address that is yielded."""
    process = subprocess.Popen(
        [
            "prometheus",
            f"--config.file={directory}/prometheus.yaml",
            f"--storage.tsdb.path={directory}/store",
            "--web.listen-address=127.0.0.1:0",
            "--log.format=json",
        ],
        stderr=subprocess.PIPE,
        text=True,
    )
    try:
        assert process.stderr
        said = ""
        for line in process.stderr:
            said += line
            if '"Listening on"' in line:
                yield f"http://{json.loads(line)['address']}"
                return
        raise AssertionError("prometheus did not come to listen:\n" + said)
    finally:
        process.kill()
        process.communicate()


def answer_to(address: str, query: str) -> list[dict[str, Any]]:
    """The series that answer a query as of now; none as long as it is starting."""
    try:
        url = f"{address}/api/v1/query?" + urllib.parse.urlencode({"query": query})
        with urllib.request.urlopen(url, timeout=60) as answer:
            return list(json.load(answer)["data"]["result"])
    except urllib.error.HTTPError as error:
        if error.code != http.HTTPStatus.SERVICE_UNAVAILABLE:
            raise
        return []


@unittest.skipIf(shutil.which("prometheus") is None, "prometheus is not here (Debian package prometheus)")
class ScrapeTest(unittest.TestCase):
    def test_prometheus_takes_the_numbers_with_the_configuration_that_is_shipped(self) -> None:
        with tempfile.TemporaryDirectory() as directory, serving() as served:
            text = CONFIGURATION.read_text()
            for shipped, ours in (("127.0.0.1:9911", urllib.parse.urlsplit(served).netloc), (" 5s", " 1s")):
                self.assertIn(shipped, text)
                text = text.replace(shipped, ours)
            pathlib.Path(directory, CONFIGURATION.name).write_text(text)
            shutil.copy(ALERTS, directory)
            with prometheus(directory) as address:
                query = (
                    'price_connector_receiver_messages_total{job="price_connector",context="prices.0",topic="prices.2"}'
                )
                deadline = time.monotonic() + PATIENCE_SECONDS
                while not (series := answer_to(address, query)) and time.monotonic() < deadline:
                    select.select([], [], [], 0.05)
                targets = answer_to(address, "up")
            self.assertEqual([str(MESSAGES)], [one["value"][1] for one in series], f"{query}; targets: {targets}")


if __name__ == "__main__":
    if shutil.which("promtool") is None:
        print("skipped: promtool is not here (Debian package prometheus)")
        sys.exit(77)
    unittest.main(argv=sys.argv[:1], verbosity=2)

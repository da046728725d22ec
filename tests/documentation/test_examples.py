"""The examples: built against the installation as a user would, and run beside a price server."""

import os
import subprocess
import tempfile
import unittest
from pathlib import Path

PREFIX = Path(os.environ["PREFIX"])
SOURCE = Path(os.environ["SOURCE"])


def run(*command, **options):
    done = subprocess.run(command, stdout=subprocess.PIPE, stderr=subprocess.STDOUT, text=True, check=False, **options)
    if done.returncode != 0:
        raise AssertionError(f"{command} ended with {done.returncode}:\n{done.stdout}")
    return done.stdout


class ExamplesTest(unittest.TestCase):
    @classmethod
    def setUpClass(cls):
        directory = tempfile.TemporaryDirectory()
        cls.addClassCleanup(directory.cleanup)
        cls.build = Path(directory.name) / "build"
        cls.environment = dict(os.environ, LBM_RUNTIME_DIR=f"{directory.name}/lbm", ZQLOG_LEVEL="WARNING")
        run("cmake", "-S", SOURCE / "examples", "-B", cls.build, "-G", "Ninja",
            f"-DCMAKE_PREFIX_PATH={PREFIX}", "-DCMAKE_CXX_FLAGS=-Wall -Wextra -Werror")  # fmt: skip
        run("cmake", "--build", cls.build, "--parallel", "2")

    def start_server(self, *options):
        """A server with a console, which ends with the test."""
        command = [PREFIX / "bin/price_server", "--market=1", "--submarket=1", "--node=1", "--market-name=STOCKS",
                   f"--prices={SOURCE}/data/stocks.csv", "--loop", "--console", *options]  # fmt: skip
        server = subprocess.Popen(
            command, env=self.environment, stdin=subprocess.PIPE, stdout=subprocess.PIPE, text=True
        )
        self.addCleanup(server.communicate)
        self.addCleanup(server.terminate)
        return server

    def example(self, name, *arguments):
        return run(self.build / name, *arguments, env=self.environment, timeout=60)

    def test_prices_are_received_and_decoded(self):
        self.start_server("--rate=200")
        said = self.example("receive_prices").splitlines()
        self.assertEqual(said[0], "the server is there")
        self.assertRegex(said[1], r"^[A-Z]+ \d+\.\d+ of \d{4}-\d\d-\d\d$")
        self.assertGreaterEqual(len(said), 11)

    def test_a_request_is_answered_in_full(self):
        self.start_server()
        said = self.example("request_with_timeout").splitlines()
        products = [line for line in said if line.endswith(" on segment 0")]
        self.assertIn("MSFT on segment 0", products)
        self.assertEqual(len(products), 5)

    def test_the_dispatch_thread_reads_a_socket_and_works(self):
        self.assertRegex(
            self.example("own_socket"), "the dispatch thread read: buy 100 MSFT\npieces of work left: [0-9]+"
        )

    def test_commands_are_obeyed(self):
        server = self.start_server("--quiet")
        client = subprocess.Popen([self.build / "commands"], env=self.environment, stdout=subprocess.PIPE, text=True)
        self.addCleanup(client.kill)
        for command, answer in (("report", r"#1 from example on desk: ok; \d+ updates"), ("quit", "#2 .*: ok; ends")):
            server.stdin.write(f"client example {command}\n")
            server.stdin.flush()
            self.assertRegex(server.stdout.readline(), "sent")
            self.assertRegex(server.stdout.readline(), answer)
        self.assertRegex(client.communicate(timeout=60)[0], r"an operator ended this after \d+ updates")
        self.assertEqual(client.returncode, 0)

    def test_the_log_goes_to_the_applications_own(self):
        self.assertIn("my log: level=", self.example("own_log_backend"))

    def test_a_pinned_client_measures_latencies(self):
        self.start_server()
        cpu = min(os.sched_getaffinity(0))
        self.assertRegex(self.example("pin_and_spin", str(cpu)), rf"updates on CPU {cpu}, median latency \d+ ns")

    def test_the_client_under_test_passes(self):
        self.assertIn("[  PASSED  ] 1 test.", self.example("price_book_test"))


if __name__ == "__main__":
    unittest.main()

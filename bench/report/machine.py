"""What figures depend on besides the code: the machine, its software, its load."""

import datetime
import os
import platform
import re
import subprocess
from collections.abc import Mapping
from pathlib import Path
from typing import Any


def describe_machine() -> dict[str, Any]:
    cpu = re.search(r"^model name[^:]*: (.*)$", Path("/proc/cpuinfo").read_text(), re.MULTILINE)
    return {
        "date": datetime.datetime.now(datetime.timezone.utc).isoformat(timespec="seconds"),
        "revision": _output("git", "describe", "--always", "--dirty") or "unknown",
        "cpu": cpu[1] if cpu else platform.machine(),
        "cores": len(os.sched_getaffinity(0)),
        "kernel": f"{platform.system()} {platform.release()}",
        "system": platform.freedesktop_os_release()["PRETTY_NAME"],
        "compiler": _output("c++", "--version").split("\n")[0],
        "load_before": machine_load(),
    }


def machine_load() -> float:
    """Processes that ran or wanted to, on average over the last minute."""
    return os.getloadavg()[0]


def machine_line(machine: Mapping[str, Any]) -> str:
    return f"{machine['cpu']}, {machine['cores']} cores, {machine['system']}, {machine['kernel']}"


def _output(*command: str) -> str:
    """Empty when there is no such command, or it fails."""
    try:
        return subprocess.run(command, capture_output=True, text=True, check=False).stdout.strip()
    except OSError:
        return ""

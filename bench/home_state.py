"""What the measurements share that run in a home: its bus, its hosts, its processes."""

import json
import re
import subprocess
import sys
import time

DEADLINE = 30


def call(obj, method, args=None):
    command = ["ubus", "-S", "-t", "10", "call", obj, method, json.dumps(args or {})]
    return json.loads(subprocess.run(command, capture_output=True, text=True, check=True).stdout or "{}")


def wait_until(condition, what):
    end = time.monotonic() + DEADLINE
    while not condition():
        if time.monotonic() > end:
            sys.exit(f"within {DEADLINE} s there was no {what}")
        time.sleep(0.05)


def set_hosts(count, active):
    """A state with that many hosts, so many of them active."""
    known = call("qzcapd.emulator", "state")["laninfo"]
    for first in range(0, count, 50):  # what fits a bus message
        hosts = {f"02C0FFEE{i:04X}": {**known["02C0FFEE0002"], "index": i, "ipaddr": f"192.168.1.{i % 250}", "active": int(i <= active)}
                 for i in range(first + 1, min(first + 50, count) + 1)}
        call("qzcapd.emulator", "patch", {"patch": {"laninfo": hosts}})


def field(pid, file, name):
    with open(f"/proc/{pid}/{file}") as text:
        return int(re.search(rf"(?m)^{name}:\s*(\d+)", text.read()).group(1))

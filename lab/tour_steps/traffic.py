"""The bus, and the traffic of the access point with its peers as the peers recorded it."""

import json
import os
import subprocess
import threading
import time


class Failed(Exception):
    """A step did not happen; the text says what was expected."""


def call(path, method, message=None):
    """Calls a bus method and returns its answer."""
    done = subprocess.run(["ubus", "call", path, method, json.dumps(message or {})], capture_output=True, text=True)
    if done.returncode != 0:
        raise Failed(f"ubus call {path} {method}: {done.stderr.strip() or done.stdout.strip()}")
    return json.loads(done.stdout or "{}")


class Traffic:
    """The traffic with one peer in the order of its passing."""

    def __init__(self, peer, deadline):
        self.peer = peer  # its bus object
        self.deadline = deadline  # seconds for each wait
        self.frames = []
        self.news = threading.Event()
        # Notifications say that there is something to fetch; the peer's record is complete and in order.
        self.watcher = subprocess.Popen(["ubus", "subscribe", peer], stdout=subprocess.PIPE)
        threading.Thread(target=self._listen, daemon=True).start()

    def _listen(self):
        while os.read(self.watcher.stdout.fileno(), 65536):
            self.news.set()

    def close(self):
        self.watcher.terminate()
        self.watcher.wait()

    def wait_for(self, what, wanted, after=None):
        """The first frame past `after` for which `wanted` holds."""
        deadline = time.monotonic() + self.deadline
        first = after["number"] if after else 0
        while True:
            self.news.clear()
            last = self.frames[-1]["number"] if self.frames else 0
            self.frames += call(self.peer, "messages", {"direction": "both", "after": last})["messages"]
            for frame in self.frames:
                if frame["number"] > first and wanted(frame):
                    return frame
            left = deadline - time.monotonic()
            if left <= 0:
                raise Failed(f"{what} did not come within {self.deadline:g} s")
            self.news.wait(min(left, 0.5))


class Link(Traffic):
    """The gateway link. Messages have a "type"; an acknowledgement repeats the sequence of its message."""

    def __init__(self, deadline):
        super().__init__("lab.gateway", deadline)

    def from_ap(self, kind, **options):
        return self.wait_for(f'"{kind}" from the access point', is_message("rx", kind), **options)

    def from_gateway(self, kind, **options):
        return self.wait_for(f'"{kind}" from the gateway', is_message("tx", kind), **options)

    def acknowledgement(self, frame):
        sequence = frame["message"]["sequence"]
        return self.wait_for(
            f"the acknowledgement of sequence {sequence}",
            lambda other: is_message("tx", "ack")(other) and other["message"]["sequence"] == sequence,
            after=frame,
        )


class Cloud(Traffic):
    """The cloud connection. A message has an "RPCMethod"; an acknowledgement repeats it as "Ack"."""

    def __init__(self, deadline):
        super().__init__("lab.cloud", deadline)

    def from_ap(self, method, **options):
        return self.wait_for(f"{method} from the access point",
                             lambda frame: frame["direction"] == "rx" and frame["message"].get("RPCMethod") == method,
                             **options)

    def acknowledgement(self, frame):
        """The answer to a message, in whichever direction."""
        method, other = frame["message"]["RPCMethod"], {"rx": "tx", "tx": "rx"}[frame["direction"]]
        return self.wait_for(f"the answer to {method}",
                             lambda f: f["direction"] == other and f["message"].get("Ack") == method, after=frame)


def is_message(direction, kind):
    return lambda frame: frame["direction"] == direction and frame["message"].get("type") == kind


def require(holds, text):
    if not holds:
        raise Failed(text)



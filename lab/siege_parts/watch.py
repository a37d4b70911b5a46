"""Looks at the agent during a siege: its memory, how long a question waits, what it refuses."""

import collections
import os
import re
import socket
import struct
import threading
import time

from . import clients, wire

MEMORY_PERIOD = 0.05  # seconds between looks; the kernel keeps the peak between them
QUESTION_PERIOD = 0.1
PATIENCE = 600  # longer than anybody may have to wait
LOG_MAX = 32 << 20  # bytes, before it is cut
REFUSALS = re.compile(rb"\[(?:WARNING|ERROR)\] ([^\n]*)")
SANITIZER = re.compile(rb"(?:ERROR: \w+Sanitizer|runtime error: )[^\n]*")


def anonymous(pid):
    """In KiB: what the process has, and the most that it has had since it was last asked."""
    with open(f"/proc/{pid}/status") as text:
        value = {name: int(size) for name, size in re.findall(r"(?m)^(\w+):\s*(\d+) kB", text.read())}
    with open(f"/proc/{pid}/clear_refs", "w") as peak:
        peak.write("5")
    return value["RssAnon"], value["VmHWM"] - value["RssFile"] - value["RssShmem"]


def own_time(pid):
    """Seconds, less those for which the process was ready to run and the machine was busy with others."""
    try:
        with open(f"/proc/{pid}/schedstat") as text:
            return time.monotonic() - int(text.read().split()[1]) / 1e9
    except (OSError, IndexError):
        return time.monotonic()  # it has ended


def descriptors(pid):
    return len(os.listdir(f"/proc/{pid}/fd"))


class Memory:
    """The highest value since the last look."""

    def __init__(self, pid):
        self.pid, self.peak, self.last = pid, 0, 0
        threading.Thread(target=self._run, daemon=True).start()

    def _run(self):
        while True:
            try:
                self.last, peak = anonymous(self.pid)
            except (OSError, KeyError):
                return  # it has ended
            self.peak = max(self.peak, self.last, peak)
            time.sleep(MEMORY_PERIOD)

    def take(self):
        peak, self.peak = self.peak, self.last
        return peak


class Log:
    """The agent's, which is counted and cut as it grows."""

    def __init__(self, path):
        self.path, self.at = path, 0
        self.refused, self.sanitizer, self.end = collections.Counter(), [], b""

    def read(self):
        """How many warnings and errors have come since the last time."""
        with open(self.path, "rb") as file:
            file.seek(self.at)
            text = file.read()
        self.at += len(text)
        if self.at > LOG_MAX:
            os.truncate(self.path, 0)
            self.at = 0
        found = REFUSALS.findall(text)
        for line in found:
            # What is said, without names and numbers.
            words = re.sub(rb"\x1b.*|[\"'{].*|<-.*|0x\w+", b"", line)[:60]
            self.refused[re.sub(rb"-?\d+", b"N", words).decode("utf-8", "replace").strip(" :,.")] += 1
        self.sanitizer += SANITIZER.findall(text)
        self.end = (self.end + text[-3000:])[-3000:]
        return len(found)


class Question:
    """Asks the agent the same thing all the time, on a thread; keeps how long it waited.

    `ask` asks once and waits for the answer; it is false when the question did not reach the agent. What the agent itself waited
    for the machine, which others use, too, does not count.
    """

    def __init__(self, pid, ask):
        self.pid, self.ask = pid, ask
        self.since, self.longest, self.answers = None, 0.0, 0
        self.open = True
        threading.Thread(target=self._run, daemon=True).start()

    def _run(self):
        while self.open:
            self.since = own_time(self.pid)
            if self.ask():
                self.longest = max(self.longest, own_time(self.pid) - self.since)
                self.answers += 1
            self.since = None
            time.sleep(QUESTION_PERIOD)

    def take(self):
        """The longest wait since the last time, also one that is not over."""
        since, longest = self.since, self.longest
        self.longest = 0.0
        return max(longest, own_time(self.pid) - since if since else 0.0)


class Client:
    """A client on the LAN that asks who the device is. It may be put out in favour of another one, and comes back."""

    ADDRESS = wire.GATEWAY

    def __init__(self):
        self.socket, self.put_out = None, 0

    def ask(self):
        try:
            if not self.socket:
                self.socket = socket.create_connection((wire.AP, clients.PORT), PATIENCE, (self.ADDRESS, 0))
            self.socket.sendall(clients.QUESTION)
            header = self._exactly(4)
            self._exactly(struct.unpack(">I", header)[0])
            return True
        except OSError:
            if self.socket:
                self.socket.close()
                self.put_out += 1
            self.socket = None
            return False

    def _exactly(self, count):
        data = b""
        while len(data) < count:
            piece = self.socket.recv(count - len(data))
            if not piece:
                raise ConnectionError
            data += piece
        return data

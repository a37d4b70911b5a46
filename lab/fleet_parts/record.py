"""One line a second of what the operator's side and the homes do."""

import csv
import os
import threading
import time

from .failure import Bus

STATES = ("open", "boot", "challenge", "activating", "connecting", "connected")
METHODS = {"boots": "Boot", "challenges": "GetChallengeCode", "enrolments": "Activate", "connects": "Connect",
           "heartbeats": "Heartbeat"}
SERVERS = ("bss", "abi1", "abi2", "abi3", "abi4", "abi5")
# Counted since the line before; the rest is as it is at that moment.
COUNTED = ("accepted", *METHODS, "refused", "frames_in", "frames_out", "bytes_in", "bytes_out", "server_ms")
COLUMNS = ("real_s", "device_s", *COUNTED, "busy_percent", "off", "starting", "away", *STATES, *SERVERS)


def busy_and_all():
    """Processor time of the machine in ticks: worked, and in all."""
    with open("/proc/stat", encoding="ascii") as file:
        ticks = [int(value) for value in file.readline().split()[1:9]]
    return sum(ticks) - ticks[3] - ticks[4], sum(ticks)


class Recorder(threading.Thread):
    """Writes seconds.csv while it runs, and events.csv as it is told."""

    def __init__(self, homes, clock, folder):
        super().__init__(daemon=True)
        self.homes, self.clock = homes, clock
        self.bus = Bus(os.environ["UBUS_SOCKET"])
        self.seconds = open(os.path.join(folder, "seconds.csv"), "w", encoding="utf-8", newline="")
        self.events = open(os.path.join(folder, "events.csv"), "w", encoding="utf-8", newline="")
        self.lines, self.marks = csv.writer(self.seconds), csv.writer(self.events)
        self.lines.writerow(COLUMNS)
        self.marks.writerow(("real_s", "device_s", "event", "server_ms", "agents_s", "segments_in", "segments_out"))
        self.lock, self.over, self.failure = threading.Lock(), threading.Event(), None
        self.before = self.totals(self.look())
        self.busy = busy_and_all()

    def look(self, segments=False):
        with self.lock:
            return self.bus.call("lab.cloud", "statistics", {"segments": segments}, 30)

    @staticmethod
    def totals(seen):
        totals = {name: seen["answered"][method] for name, method in METHODS.items()}
        return {**totals, "accepted": seen["accepted"], "refused": seen["refused"],
                "frames_in": seen["received"]["frames"], "frames_out": seen["sent"]["frames"],
                "bytes_in": seen["received"]["bytes"], "bytes_out": seen["sent"]["bytes"], "server_ms": seen["cpu_ms"]}

    def line(self):
        seen, busy = self.look(), busy_and_all()
        real, device = self.clock()
        totals = self.totals(seen)
        states = [sum(server[state] for server in seen["servers"]) for state in STATES]
        stages = [home.stage for home in self.homes.homes]
        on, off = stages.count("on"), stages.count("off")
        worked = 100 * (busy[0] - self.busy[0]) / max(1, busy[1] - self.busy[1])
        self.lines.writerow((f"{real:.2f}", f"{device:.2f}", *(totals[name] - self.before[name] for name in COUNTED),
                             f"{worked:.1f}", off, len(stages) - on - off, max(0, on - sum(states)), *states,
                             *(server["connected"] for server in seen["servers"])))
        self.before, self.busy = totals, busy

    def mark(self, text):
        """An event, with what has been worked until then."""
        real, device = self.clock()
        seen = self.look(segments=True)
        self.marks.writerow((f"{real:.2f}", f"{device:.2f}", text, seen["cpu_ms"], f"{self.homes.agent_seconds():.4f}",
                             seen["segments"]["received"], seen["segments"]["sent"]))
        self.events.flush()

    def run(self):
        due = time.monotonic() + 1
        try:
            while not self.over.wait(max(0, due - time.monotonic())):
                self.line()
                due = max(due + 1, time.monotonic())
        except Exception as error:  # told by whoever waits for the fleet
            self.failure = error

    def close(self):
        self.over.set()
        self.join()
        if not self.failure:
            self.line()
        self.seconds.close()
        self.events.close()

"""What a fleet's files say: lines, events, and the outages among them."""

import csv
import json
import math
import os
from cmath import exp, pi

from . import policy
from .events import GROUPS

HEARTBEAT_S = 100
MINUTE = 60
PICTURES = ("cold-start", "reconnections", "servers", "heartbeats")
FILES = ("seconds.csv", "events.csv", "figures.json", "report.md", *(name + ".svg" for name in PICTURES))


class Outage:
    """Servers that went, and maybe came back. Times are the devices'."""

    def __init__(self, text, begin):
        self.text, self.begin = text, begin
        self.end = self.back = None  # servers up again; the last device connected
        self.lost = 0

    @property
    def title(self):
        if self.end is None:
            return self.text
        away = self.end - self.begin
        return f"{self.text} for {away / MINUTE:.0f} min" if away >= MINUTE else f"{self.text} for {away:.0f} s"

    @property
    def total(self):
        return self.names() == set(GROUPS["business"])

    def names(self):
        return {name for word in self.text.split()[1:] for name in GROUPS.get(word, [word]) if name != "bss"}

    def since(self):
        """When devices can come back from."""
        return self.end if self.total else self.begin

    def expected(self):
        """The policy's word: share of those concerned that come back in each second since the beginning."""
        horizon = round((self.back or self.since()) - self.begin) + 30 * MINUTE
        return policy.after_outage(self.end - self.begin, horizon) if self.total else policy.after_lost_server(horizon)


class Results:
    def __init__(self, folder):
        with open(os.path.join(folder, "seconds.csv"), encoding="utf-8") as file:
            self.lines = [{name: float(value) for name, value in line.items()} for line in csv.DictReader(file)]
        with open(os.path.join(folder, "events.csv"), encoding="utf-8") as file:
            self.events = [{name: value if name == "event" else float(value) for name, value in line.items()}
                           for line in csv.DictReader(file)]
        with open(os.path.join(folder, "figures.json"), encoding="utf-8") as file:
            self.figures = json.load(file)
        self.homes, self.speed = self.figures["homes"], self.figures["speed"]
        self.outages = self._outages()

    def _outages(self):
        outages, last = [], None
        for event in self.events:
            text, at = event["event"], event["device_s"]
            if text.startswith("down ") and text != "down bss":
                last = Outage(text, at)
                outages.append(last)
            elif text.startswith("up ") and last and last.end is None and last.back is None and text.split()[1:] == last.text.split()[1:]:
                last.end = at
            elif text.startswith("connected ") and last and last.back is None and int(text.split()[1]) == self.homes:
                last.back = at
            elif text.split()[0] in ("power", "recall"):
                last = None
        for outage in outages:
            at_once = self.between(outage.begin, outage.begin + 3 * self.speed)
            outage.lost = self.homes - (0 if outage.total else min((line["connected"] for line in at_once), default=self.homes))
        return [outage for outage in outages if outage.back is not None and (outage.end is not None or not outage.total)]

    def first(self, text):
        """The time of the first event that begins so."""
        return next((event for event in self.events if event["event"].startswith(text)), None)

    def between(self, begin, end):
        return [line for line in self.lines if begin < line["device_s"] <= end]

    def counted(self, name, begin, end):
        return sum(line[name] for line in self.between(begin, end))

    def back_after(self, outage, share):
        """Seconds of the devices until that share of those who were lost is back."""
        wanted = self.homes - outage.lost * (1 - share)
        reached = (line["device_s"] for line in self.lines
                   if line["device_s"] > outage.since() and line["connected"] >= wanted - 1e-9)
        return min(next(reached, outage.back), outage.back) - outage.since()

    def spread(self, name, begin, end):
        """What the lines of a time have counted, second by second: a line's count belongs to all of its time."""
        for before, line in zip(self.lines, self.lines[1:]):
            since, until = max(before["device_s"], begin), min(line["device_s"], end)
            if since < until and line[name]:
                parts = math.ceil(until - since)
                for part in range(parts):
                    yield since + (part + 0.5) * (until - since) / parts, line[name] / parts

    def rates(self, name, begin, end, window_s=MINUTE):
        """Per second of the devices, in windows of `window_s` from `begin` on: the middle of each, and the rate."""
        windows = [0.0] * (math.floor((end - begin) / window_s) + 1)
        for at, count in self.spread(name, begin, end):
            windows[int((at - begin) // window_s)] += count
        return [((number + 0.5) * window_s, count / window_s) for number, count in enumerate(windows)]

    def by_phase(self, begin, end, bins):
        """How many heartbeats fall into each part of their common interval."""
        counts = [0.0] * bins
        for at, count in self.spread("heartbeats", begin, end):
            counts[int(at % HEARTBEAT_S * bins / HEARTBEAT_S)] += count
        return counts

    def in_step(self, begin, end):
        """How much the heartbeats of a time fall into step: 1 when all come at once, near 0 for moments drawn by chance. Their common
        interval is a circle, each heartbeat a direction on it; this is the length of their mean."""
        counts = self.by_phase(begin, end, HEARTBEAT_S)
        total = sum(counts)
        return abs(sum(count * exp(2j * pi * at / HEARTBEAT_S) for at, count in enumerate(counts))) / total if total else None

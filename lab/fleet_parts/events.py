"""What can happen to a fleet, in words: a script's lines, and what `lab-fleet` takes.

  wait 10 minutes                   lets time pass: seconds, minutes or hours of the devices
  down abi2 [abi3...]               servers go, with their connections: bss, abi1 to abi5, business (those five), all
  up abi2 [abi3...]                 they are back
  names fail                        what the name service answers: answer, fail, reserved, mixed, hang
  power off 30%                     that share of the homes loses its power
  power on                          it is back
  servers abi2 abi4                 what the bootstrap server names from now on, each device another one first
  recall                            RequestConnectBSS to all that are connected
  until connected [90%] [within 2 hours]    waits until so many of the homes with power are connected
  measure                           the agents' memory now, and their processor time since the last event

Time is that of the devices: with --speed 12, twelve minutes of them pass in one. "#" begins a remark.
"""

import random
import re
import subprocess

from .failure import Failure

ADDRESSES = {"bss": "100.64.0.1", **{f"abi{n}": f"100.64.0.{n + 1}" for n in range(1, 6)}}
GROUPS = {"business": [f"abi{n}" for n in range(1, 6)], "all": list(ADDRESSES)}
UNITS = {"second": 1, "minute": 60, "hour": 3600}
NUMBER = r"[0-9]+(?:\.[0-9]+)?"
MODES = ("answer", "fail", "reserved", "mixed", "hang")  # of lab-names
LONGEST_S = 4 * 3600
ALL_BUSINESS = [f"{name}.arvok.example:8088" for name in GROUPS["business"]]


class Wrong(Exception):
    """A line that is no event."""


def duration(text):
    match = re.fullmatch(rf"({NUMBER}) (second|minute|hour)s?", text)
    if not match:
        raise Wrong(f"not a time: {text}")
    return float(match[1]) * UNITS[match[2]]


def share(text):
    if not re.fullmatch(NUMBER + "%", text) or not 0 < float(text[:-1]) <= 100:
        raise Wrong(f"not a share: {text}")
    return float(text[:-1]) / 100


def server_names(words):
    names = [name for word in words for name in GROUPS.get(word, [word])]
    if not names or any(name not in ADDRESSES for name in names):
        raise Wrong(f"not servers: {' '.join(words)}")
    return names


class Events:
    """Does what a line says. `fleet` is the fleet."""

    def __init__(self, fleet):
        self.fleet = fleet
        self.chance = random.Random(17)

    def parse(self, line):
        """What to do for the line, or nothing for a remark; raises Wrong."""
        words = line.partition("#")[0].split()
        if not words:
            return None
        kind, rest = words[0], words[1:]
        if kind == "wait":
            seconds = duration(" ".join(rest))
            return lambda: self.fleet.wait(seconds)
        if kind in ("down", "up"):
            names = server_names(rest)
            return lambda: self._turn(names, kind == "up")
        if kind == "names" and len(rest) == 1 and rest[0] in MODES:
            return lambda: self._names(rest[0])
        if kind == "power" and rest[:1] == ["off"] and len(rest) == 2:
            part = share(rest[1])
            return lambda: self._power_off(part)
        if words == ["power", "on"]:
            return lambda: self.fleet.power_on()
        if kind == "servers":
            named = server_names(rest)
            return lambda: self.fleet.cloud("set", {"business": [f"{name}.arvok.example:8088" for name in named]})
        if words == ["recall"]:
            return self._recall
        if words[:2] == ["until", "connected"]:
            match = re.fullmatch(rf"({NUMBER}%)? ?(?:within (.+))?", " ".join(words[2:]))
            if not match:
                raise Wrong(f"not understood: {line.strip()}")
            part = share(match[1] or "100%")
            limit = duration(match[2]) if match[2] else LONGEST_S
            return lambda: self.fleet.until_connected(part, limit)
        if words == ["measure"]:
            return lambda: self.fleet.measure()
        raise Wrong(f"not understood: {line.strip()}")

    def check(self, lines):
        """Raises Wrong, with the line's number, before anything is started."""
        for number, line in enumerate(lines, 1):
            try:
                self.parse(line)
            except Wrong as wrong:
                raise Wrong(f"line {number}: {wrong}") from None

    def run(self, line):
        work = self.parse(line)
        if work:
            text = " ".join(line.partition("#")[0].split())
            self.fleet.begin(text)
            work()

    def _turn(self, names, on):
        for name in names:
            self.fleet.cloud("turn", {"server": ADDRESSES[name], "on": on})

    @staticmethod
    def _names(mode):
        if subprocess.run(["lab-names", mode], check=False).returncode != 0:
            raise Failure(f"lab-names {mode} failed")

    def _power_off(self, part):
        powered = [home for home in self.fleet.homes.homes if home.stage == "on"]
        self.fleet.homes.power_off(self.chance.sample(powered, round(part * len(powered))))

    def _recall(self):
        # The platform takes it for the caller's fault when nobody is there.
        if self.fleet.connected():
            message = {"RPCMethod": "RequestConnectBSS", "ID": "fleet", "Server": "", "Port": ""}
            self.fleet.cloud("send", {"mac": "all", "message": message})

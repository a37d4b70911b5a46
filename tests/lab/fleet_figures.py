"""A run that never was, with figures that can be reckoned by hand: 100 homes at speed 10, a line for each ten seconds of the
devices. They enrol until 50, are quiet until 650, are without their servers until 950 and without one from 1400 on."""

import csv
import json
import os

from fleet_parts.record import COLUMNS

HOMES, SPEED = 100, 10
ENROLLED, DOWN, UP, BACK, LOST, FOUND, END = 50, 650, 950, 1000, 1400, 1500, 1550
CONNECTED = {960: 20, 970: 50, 980: 80, 990: 95, **dict.fromkeys(range(LOST + 10, 1460, 10), 80),
             **dict.fromkeys(range(1460, 1490, 10), 90), 1490: 99}
HEARTBEAT_MS, ENROLMENT_MS, CONNECT_MS = 0.5, 5, 2


def _connected(at):
    return 2 * at if at <= ENROLLED else 0 if DOWN < at <= UP else CONNECTED.get(at, HOMES)


def _heartbeats(at):
    """Those who come at the start beat once before the last one is there. After the outage all do within ten seconds."""
    if at <= DOWN:
        return {40: HOMES}.get(at, 0 if at <= ENROLLED else HOMES / 10)
    return HOMES if at > BACK and at % 100 == 0 else 0


def _line(at):
    arrived = max(0, _connected(at) - _connected(at - SPEED))
    beaten, enrolled = _heartbeats(at), arrived if at <= ENROLLED else 0
    worked = HEARTBEAT_MS * beaten + (ENROLMENT_MS if enrolled else CONNECT_MS) * arrived
    return {**dict.fromkeys(COLUMNS, 0), "real_s": at / SPEED, "device_s": at, "connected": _connected(at), "connects": arrived,
            "enrolments": enrolled, "heartbeats": beaten, "server_ms": worked, "bytes_in": 100 * beaten, "bytes_out": 50 * beaten,
            "busy_percent": 40 if ENROLLED < at <= DOWN else 80}


def write(folder, end=END):
    """The run, or how it would be had it ended earlier."""
    lines = [_line(at) for at in range(SPEED, end + 1, SPEED)]
    said = {0: "start", ENROLLED: f"all {HOMES} are enrolled", DOWN: "down business", UP: "up business", BACK: f"connected {HOMES}",
            LOST: "down abi1", FOUND: f"connected {HOMES}", FOUND + 10: "up abi1"}
    said = {**{at: text for at, text in said.items() if at < end}, end: "end"}
    with open(os.path.join(folder, "seconds.csv"), "w", encoding="utf-8", newline="") as file:
        writer = csv.DictWriter(file, COLUMNS)
        writer.writeheader()
        writer.writerows(lines)
    with open(os.path.join(folder, "events.csv"), "w", encoding="utf-8", newline="") as file:
        writer = csv.writer(file)
        writer.writerow(("real_s", "device_s", "event", "server_ms", "agents_s", "segments_in", "segments_out"))
        for at, text in said.items():
            worked = sum(line["server_ms"] for line in lines if line["device_s"] <= at)
            writer.writerow((at / SPEED, at, text, worked, 0.01 * at, 4 * at, 6 * at))
    with open(os.path.join(folder, "figures.json"), "w", encoding="utf-8") as file:
        json.dump({"homes": HOMES, "speed": SPEED, "measured": [], "started_s": 5, "enrolled_s": ENROLLED / SPEED}, file)

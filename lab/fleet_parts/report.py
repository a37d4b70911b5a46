"""The table of a run, and what follows from it for a million devices."""

import os
import subprocess
import sys
import textwrap

from . import policy
from .failure import Failure
from .results import HEARTBEAT_S, MINUTE, Results

MILLION = 10 ** 6
DAY = 86400
HEADERS = 52  # of IP and TCP, with the time stamps that both ends use
SHORTEST_MS = 0.01  # what is told is not more exact
CHANCE = 0.89  # the mean length of the sum of n random directions, by the root of n
LENGTHS = (("10 s", 10), ("1 min", 60), ("5 min", 300), ("15 min", 900), ("30 min", 1800), ("1 h", 3600), ("4 h", 4 * 3600))


def minutes(seconds):
    return "-" if seconds is None else f"{seconds / 60:.1f}"


def words(text):
    return "\n".join(textwrap.wrap(text, 130, break_on_hyphens=False)) + "\n"


def table(head, rows):
    lines = ["| " + " | ".join(head) + " |", "|" + "---|" * len(head)]
    return "\n".join(lines + ["| " + " | ".join(str(cell) for cell in row) + " |" for row in rows])


class Report:
    def __init__(self, folder):
        self.run = Results(folder)
        self.homes = self.run.homes
        self.enrolled = self.run.first("all ")
        self.quiet()
        self.start()

    # ---- figures -----------------------------------------------------------------------------------------------------

    def start(self):
        lines = [line for line in self.run.lines if line["device_s"] <= self.enrolled["device_s"] + self.run.speed]
        begin = self.run.first("start")
        self.peak_enrolments = max(line["enrolments"] for line in lines)
        self.enrolment_ms = self.server_ms(begin, self.enrolled) / self.homes

    def quiet(self):
        """The quiet time after the start: until the first event that is no waiting."""
        after = self.run.events[self.run.events.index(self.enrolled) + 1:]
        end = next((event for event in after if event["event"].split()[0] not in ("wait", "measured")), after[-1])
        # Whole intervals, and without the lines that the last enrolments are in.
        intervals = (end["device_s"] - self.enrolled["device_s"] - 3 * self.run.speed) // HEARTBEAT_S
        lines = self.run.between(end["device_s"] - intervals * HEARTBEAT_S - self.run.speed, end["device_s"])
        self.quiet_lines = lines
        self.quiet_s = lines[-1]["device_s"] - lines[0]["device_s"] if lines else 0
        worked = {name: sum(line[name] for line in lines[1:])
                  for name in ("heartbeats", "bytes_in", "bytes_out", "connects", "server_ms")}
        # A few homes may not have been work for a millisecond.
        self.was_quiet = self.quiet_s >= HEARTBEAT_S and worked["heartbeats"] > 0 and worked["server_ms"] > 0
        if not self.was_quiet:
            self.heartbeat_ms = 0
            return
        self.heartbeat_ms = worked["server_ms"] / worked["heartbeats"]
        self.idle_server_ms = worked["server_ms"] / (self.homes * self.quiet_s)
        days = self.homes * self.quiet_s / DAY
        self.heartbeats_day, self.in_day, self.out_day, self.handshakes_day = (
            worked[name] / days for name in ("heartbeats", "bytes_in", "bytes_out", "connects"))
        begin = self.enrolled
        quiet_days = self.homes * (end["device_s"] - begin["device_s"]) / DAY
        self.segments_day = sum(end[name] - begin[name] for name in ("segments_in", "segments_out")) / quiet_days
        self.agent_percent = 100 * (end["agents_s"] - begin["agents_s"]) / self.homes / (end["device_s"] - begin["device_s"])

    def connect_ms(self, outage):
        """Processor time of the servers for a device that comes back."""
        events = self.run.events
        begin = next(event for event in events if event["device_s"] >= outage.since() - 1e-6)
        end = next(event for event in events if event["device_s"] >= outage.back - 1e-6)
        return self.server_ms(begin, end) / max(1, self.run.counted("connects", begin["device_s"], end["device_s"]))

    def server_ms(self, begin, end):
        """Processor time of the servers from one event to another, without what heartbeats take."""
        beaten = self.run.counted("heartbeats", begin["device_s"], end["device_s"])
        return end["server_ms"] - begin["server_ms"] - self.heartbeat_ms * beaten

    @staticmethod
    def busy(lines):
        return f"{sum(line['busy_percent'] for line in lines) / max(1, len(lines)):.0f} %"

    # ---- tables ------------------------------------------------------------------------------------------------------

    def of_the_run(self):
        figures = self.run.figures
        rows = [("homes", self.homes), ("speed of the agents' clocks", self.run.speed),
                ("all processes up after", f"{figures['started_s']:.0f} s"),
                ("all enrolled after", f"{figures['enrolled_s']:.0f} s"),
                ("most enrolments in a second", f"{self.peak_enrolments:.0f}"),
                ("the servers' processor time for one enrolment" + ", without heartbeats" * self.was_quiet,
                 f"{self.enrolment_ms:.2f} ms"),
                ("how busy the machine was, with all that ran on it", self.busy(self.run.lines))]
        if self.was_quiet:
            rows += self.of_the_quiet()
        for measured in figures["measured"][:1]:
            memory = measured["anonymous_kib"]
            rows.append(("an idle agent's anonymous memory, mean and most", f"{memory['mean']:.0f} KiB, {memory['most']:.0f} KiB"))
        return table(("what", "measured"), rows)

    def of_the_quiet(self):
        return [("how busy it was in the quiet time", self.busy(self.quiet_lines[1:])),
                ("heartbeats per device and day", f"{self.heartbeats_day:.0f}"),
                ("bytes of frames per device and day, to the platform and back", f"{self.in_day:.0f}, {self.out_day:.0f}"),
                ("TCP segments per device and day, both ways, keepalives among them", f"{self.segments_day:.0f}"),
                (f"bytes per device and day with {HEADERS} of headers for each segment, both ways",
                 f"{self.in_day + self.out_day + HEADERS * self.segments_day:.0f}"),
                ("handshakes per device and day, without an outage", f"{self.handshakes_day:.2f}"),
                ("the servers' processor time for one heartbeat", f"{self.heartbeat_ms:.3f} ms"),
                ("an idle agent's share of a core", f"{self.agent_percent:.4f} %")]

    def of_outages(self):
        rows = []
        for outage in self.run.outages:
            expected, since = outage.expected(), round(outage.since() - outage.begin)
            # The line in which the servers went may have seen others.
            begin = outage.since() + (0 if outage.total else self.run.speed)
            rates = self.run.rates("connects", begin, outage.back)
            peak = max((rate for _, rate in rates), default=0)
            policy_peak = policy.peak(expected, MINUTE, since) * outage.lost
            cells = [f"{minutes(self.run.back_after(outage, share))} ({minutes(policy.time_until(expected, share, since))})"
                     for share in (0.5, 0.95, 1)]
            handshakes = self.run.counted("connects", begin, outage.back + self.run.speed) / max(1, outage.lost)
            rows.append((outage.title, f"{outage.lost:.0f}",
                         *cells, f"{peak:.2f} ({policy_peak:.2f})", f"{100 * peak / max(1, outage.lost):.3f} %",
                         f"{handshakes:.2f}", f"{self.connect_ms(outage):.2f}" if outage.total else "-", self.step_around(outage)))
        head = ("event", "devices lost", "50 % back after", "95 %", "100 %", "most connections per second",
                "of those lost", "handshakes per device",
                "ms of the servers per handshake", "in step before, after")
        return table(head, rows)

    def step_around(self, outage):
        """Of the heartbeats in the five minutes before and after."""
        before = self.run.in_step(outage.begin - 5 * MINUTE, outage.begin)
        after = self.run.in_step(outage.back + MINUTE, outage.back + 6 * MINUTE)
        return ", ".join("-" if value is None else f"{value:.2f}" for value in (before, after))

    def of_a_million(self):
        rows = [("idle: heartbeats", f"{MILLION * self.heartbeats_day / DAY:.0f}", f"{MILLION * self.idle_server_ms / 1000:.1f}"),
                ("one core, idle", "", f"{1000 / self.idle_server_ms:.0f} devices"),
                ("one core, enrolling", f"{1000 / max(self.enrolment_ms, SHORTEST_MS):.0f}",
                 f"{MILLION * self.enrolment_ms / 3600e3:.1f} hours for all")]
        return table(("a million devices", "per second", "cores of the servers"), rows)

    def of_lengths(self):
        """The policy's word on outages of all business servers, and what a million devices ask of the servers then."""
        cost = [self.connect_ms(outage) for outage in self.run.outages if outage.total]
        rows = []
        for name, away in LENGTHS:
            expected = policy.after_outage(away, away + 4 * 3600)
            peak = policy.peak(expected, 1, away)
            back = [minutes(policy.time_until(expected, share, away)) for share in (0.5, 0.95, 0.9999)]
            cores = f"{MILLION * peak * cost[-1] / 1000:.0f}" if cost else "-"
            rows.append((name, *back, f"{100 * peak:.2f} %", f"{MILLION * peak:.0f}", cores))
        return table(("all business servers away for", "50 % back after", "95 %", "99.99 %", "at most per second", "of a million",
                      "cores"), rows)

    def text(self):
        parts = ["## The run\n", self.of_the_run()]
        if self.run.outages:
            parts += ["\n## Outages\n", words(
                "Times are minutes of the devices since servers were there again, or, where one stays away, since it went; in brackets what "
                "the retry policy lets expect of very many devices. Most per second: the mean of a minute. In step: how much the "
                "heartbeats of five minutes come at once, from 0 to 1; chance alone gives "
                f"{CHANCE / self.homes ** 0.5:.2f}."), self.of_outages()]
        if self.was_quiet:
            parts += ["\n## A million\n", self.of_a_million(), "", words(
                "What the policy lets expect when all business servers are away: minutes until devices are back, and what a million of "
                "them ask of the servers, at the cost of a handshake in the last such outage here."), self.of_lengths()]
        return "\n".join(parts + [""])


def write(out):
    text = Report(out).text()
    with open(os.path.join(out, "report.md"), "w", encoding="utf-8") as file:
        file.write(text)
    return text


def draw(out, script):
    """By whichever Python has matplotlib: this one, or the system's."""
    for python in (sys.executable, "/usr/bin/python3"):
        if subprocess.run([python, "-c", "import matplotlib"], capture_output=True, check=False).returncode == 0:
            if subprocess.run([python, "-B", script, out], check=False).returncode != 0:
                raise Failure("the pictures cannot be drawn")
            return
    raise Failure("no Python here has matplotlib, so there are no pictures")

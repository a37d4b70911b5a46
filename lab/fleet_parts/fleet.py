"""The fleet while it runs: time, waiting, progress, and the figures at the end."""

import contextlib
import json
import os
import signal
import socket
import subprocess
import sys
import time

from . import processes
from .events import ALL_BUSINESS, Events, Wrong
from .failure import Bus, Failure
from .homes import Homes
from .record import Recorder

START_PATIENCE_S = 600  # real, for all
TICK_S = 0.02
LOOK_S = 0.5  # real; the platform is kept from its work by each look
ASK_PATIENCE_S = 5  # real, for an event to be told


class Fleet:
    def __init__(self, options):
        self.options = options
        self.start_ns = time.clock_gettime_ns(time.CLOCK_MONOTONIC), time.clock_gettime_ns(time.CLOCK_REALTIME)
        self.bus = Bus(os.environ["UBUS_SOCKET"])
        self.cloud("set", {"business": ALL_BUSINESS, "spread": True})
        self.homes = Homes(options.count, options.speed, self.start_ns, options.logs)
        self.recorder = Recorder(self.homes, self.clock, ".")
        self.events = Events(self)
        self.figures = {"homes": options.count, "speed": options.speed, "measured": []}
        self.said = 0
        self.asker = None  # whose event it is

    def clock(self):
        """Seconds since the start: real ones, and the devices'."""
        real = (time.clock_gettime_ns(time.CLOCK_MONOTONIC) - self.start_ns[0]) / 1e9
        return real, real * self.options.speed

    def cloud(self, method, arguments):
        return self.bus.call("lab.cloud", method, arguments, 60)

    def say(self, text, end="\n"):
        with contextlib.suppress(OSError):  # the terminal may have gone
            print(f"lab/fleet: {self.clock()[0]:6.1f} s  {text}", end=end, file=sys.stderr, flush=True)

    def progress(self, text):
        """A line that the next one writes over; once in ten seconds where it is no terminal. Only then `text` is called for it."""
        terminal = sys.stderr.isatty()
        if time.monotonic() - self.said > (0.5 if terminal else 10):
            self.said = time.monotonic()
            self.say(text(), "   \r" if terminal else "\n")

    # ---- what events are made of -------------------------------------------------------------------------------------

    def begin(self, text):
        self.recorder.mark(text)
        self.say(text)

    def look(self):
        """Whether all is as it must be; called while anything is waited for."""
        self.homes.reap()
        if self.homes.ended_badly:
            raise Failure("ended: " + ", ".join("home %d's %s (%s)" % ended for ended in self.homes.ended_badly[:5]))
        if self.recorder.failure:
            raise Failure(f"no more figures: {self.recorder.failure!r}")

    def wait(self, device_s):
        end = self.clock()[1] + device_s
        while (left := (end - self.clock()[1]) / self.options.speed) > 0:
            time.sleep(min(left, 0.2))
            self.look()
            self.heed_asker()

    def heed_asker(self):
        """Nothing is waited for any longer when who asked for it has gone."""
        if self.asker and processes.readable(self.asker, 0):
            raise Failure("who asked has gone")

    def connected(self):
        return self.recorder.look()["connected"]

    def rise(self):
        while self.homes.rise():
            self.look()
            self.progress(lambda: f"{self.homes.count()} of {self.options.count} homes run, {self.connected()} connected")
            time.sleep(TICK_S)

    def power_on(self):
        self.homes.power_on([home for home in self.homes.homes if home.stage == "off"])
        self.rise()

    def until_connected(self, part=1.0, limit_s=4 * 3600):
        end = self.clock()[1] + limit_s
        while True:
            self.look()
            self.heed_asker()
            wanted = round(part * self.homes.count())
            there = self.connected()
            if there >= wanted:
                break
            if self.clock()[1] > end:
                raise Failure(f"{there} of {wanted} are connected after {limit_s / 60:.0f} minutes")
            self.progress(lambda: f"{there} of {wanted} connected")
            time.sleep(LOOK_S)
        self.recorder.mark(f"connected {there}")

    def measure(self):
        memory = sorted(self.homes.anonymous_kib())
        if not memory:
            raise Failure("no agents to measure")
        self.figures["measured"].append({"device_s": self.clock()[1], "agents": len(memory),
                                         "anonymous_kib": {"mean": sum(memory) / len(memory), "most": memory[-1]}})
        self.recorder.mark("measured")

    # ---- the run -----------------------------------------------------------------------------------------------------

    def cold_start(self):
        self.recorder.start()
        self.begin("start")
        self.homes.power_on(list(self.homes.homes))
        self.rise()
        self.figures["started_s"] = self.clock()[0]
        while (there := self.connected()) < self.options.count:
            self.look()
            self.progress(lambda: f"{there} of {self.options.count} connected")
            if self.clock()[0] > START_PATIENCE_S:
                raise Failure(f"{there} of {self.options.count} are connected after {START_PATIENCE_S} s")
            time.sleep(LOOK_S)
        self.figures["enrolled_s"] = self.clock()[0]
        self.begin(f"all {self.options.count} are enrolled")

    def run_command(self, command):
        """Runs it with `lab-fleet` on its PATH, and does what it asks for; returns its exit status."""
        path = os.path.join(os.environ["LAB_DIR"], "fleet.sock")
        with socket.socket(socket.AF_UNIX) as server:
            server.bind(path)
            server.listen()
            # A terminal interrupts the command by itself, and the command decides what becomes of it.
            signal.signal(signal.SIGINT, signal.SIG_IGN)
            child = subprocess.Popen(command, cwd=self.options.folder,
                                     preexec_fn=lambda: signal.signal(signal.SIGINT, signal.SIG_DFL))
            try:
                while child.poll() is None:
                    if processes.readable(server, 0.1):
                        self._serve(server.accept()[0])
                    else:
                        self.look()
            finally:
                child.terminate()
        return child.wait()

    def _serve(self, connection):
        """One event. Who asks may say anything, and go at any time; that is no matter of the fleet's."""
        connection.settimeout(ASK_PATIENCE_S)
        with connection, connection.makefile("rb") as asked:
            line, answer = b"", ""
            with contextlib.suppress(OSError):
                line = asked.readline()
            self.asker = connection
            try:
                self.events.run(line.decode())
            except (Wrong, Failure) as error:
                answer = " ".join(str(error).split())
            except UnicodeDecodeError:
                answer = "not UTF-8"
            finally:
                self.asker = None
            with contextlib.suppress(OSError):
                connection.sendall(answer.encode() + b"\n")

    def run_lines(self, lines):
        for line in lines:
            self.events.run(line)

    def end(self):
        """The homes in any case; and the figures, which make a report possible, when all had been there once."""
        try:
            self.begin("end")
            self.recorder.close()
        finally:
            self.homes.end()
        self.figures["ended_s"] = self.clock()[0]
        if "enrolled_s" in self.figures:
            with open("figures.json", "w", encoding="utf-8") as file:
                json.dump(self.figures, file, indent=1)
        if self.homes.ended_badly:
            raise Failure("badly ended: " + ", ".join("home %d's %s (%s)" % ended
                                                      for ended in self.homes.ended_badly[:5]))

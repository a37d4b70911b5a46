"""lab/fleet: every event once in a fleet of twenty, and what must be so afterwards; and two homes that are ended early."""

import csv
import json
import os
import re
import shutil
import signal
import subprocess
import sys
import tempfile
import time
import unittest
from xml.etree import ElementTree

REPO = os.path.realpath(os.path.join(os.path.dirname(__file__), "../.."))
FLEET = os.path.join(REPO, "lab/fleet")
sys.path[:0] = [os.path.join(REPO, "lab"), os.path.join(REPO, "tests/agent")]

from fleet_parts.results import FILES  # noqa: E402

HOMES = 20
CUT = 6  # lose their power
AGENTS = ("off", "starting", "away", "open", "boot", "challenge", "activating", "connecting", "connected")
PICTURES = ("cold-start", "reconnections", "servers")
STRANGERS = {"README.md", "notes.csv", "figure.svg"}


def processes(folder):
    """Those of a fleet with its TMPDIR in `folder`, wherever they are: no process of a home is without it."""
    found = []
    for pid in filter(str.isdigit, os.listdir("/proc")):
        try:
            with open(f"/proc/{pid}/environ", "rb") as file:
                if f"TMPDIR={folder}/tmp\0".encode() in file.read() and int(pid) != os.getpid():
                    found.append(pid)
        except OSError:
            pass
    return found


class FleetTest(unittest.TestCase):
    @classmethod
    def setUpClass(cls):
        folder = tempfile.TemporaryDirectory()
        cls.addClassCleanup(folder.cleanup)
        cls.folder, cls.out = folder.name, os.path.join(folder.name, "out")
        os.makedirs(os.path.join(folder.name, "tmp"))
        os.makedirs(cls.out)
        for name in STRANGERS:
            open(os.path.join(cls.out, name), "w", encoding="utf-8").close()
        shutil.copy(os.path.join(REPO, "lab/fleet_parts/small.script"), os.path.join(cls.folder, "own.script"))
        command = [sys.executable, "-B", FLEET, str(HOMES), "--speed", "12", "--script", "own.script", "--out", "out"]
        cls.most = 0
        with open(os.path.join(cls.folder, "log"), "w+b") as log:
            fleet = subprocess.Popen(command, cwd=cls.folder, stdout=subprocess.DEVNULL, stderr=log,
                                     env={**os.environ, "TMPDIR": os.path.join(folder.name, "tmp")})
            while fleet.poll() is None:
                cls.most = max(cls.most, len(processes(cls.folder)))
                time.sleep(1)
            log.seek(0)
            if fleet.returncode == 77:
                sys.exit(77)
            assert fleet.returncode == 0, log.read()[-4000:].decode()
        with open(os.path.join(cls.out, "seconds.csv"), encoding="utf-8") as file:
            cls.lines = [{name: float(value) for name, value in line.items()} for line in csv.DictReader(file)]
        with open(os.path.join(cls.out, "events.csv"), encoding="utf-8") as file:
            cls.events = [line["event"] for line in csv.DictReader(file)]

    def test_everybody_is_back_after_each_event(self):
        with open(os.path.join(REPO, "lab/fleet_parts/small.script"), encoding="utf-8") as file:
            kinds = [line.strip() for line in file if line.strip() and not line.startswith("#")]
        told = [event for event in self.events if not re.match("connected|measured|start|all |end", event)]
        self.assertEqual(told, kinds)
        there = [int(event.split()[1]) for event in self.events if event.startswith("connected ")]
        self.assertEqual(there, [HOMES, HOMES - CUT, HOMES, HOMES])
        self.assertEqual(self.lines[-1]["connected"], HOMES)

    def test_a_line_a_second(self):
        self.assertGreater(len(self.lines), 0.8 * self.lines[-1]["real_s"], "lines are missing")
        for before, line in zip(self.lines, self.lines[1:]):
            self.assertLess(line["real_s"] - before["real_s"], 5, "lines are missing")
            self.assertAlmostEqual(line["device_s"], 12 * line["real_s"], delta=1)
        for line in self.lines:
            self.assertEqual(line["connected"], sum(line[name] for name in ("bss", "abi1", "abi2", "abi3", "abi4", "abi5")))
        total = {name: sum(line[name] for line in self.lines) for name in self.lines[0]}
        # Once at the start, and once when they were recalled; who was without power in between had kept its identity. A busy machine
        # may have let one or the other try again.
        self.assertGreaterEqual(total["enrolments"], 2 * HOMES)
        self.assertLess(total["enrolments"], 2 * HOMES + CUT)
        self.assertGreaterEqual(total["connects"], 3 * HOMES + CUT)
        self.assertGreater(total["bytes_in"], total["frames_in"] * 12)
        last = self.lines[-1]
        self.assertEqual(sum(last[name] for name in AGENTS), HOMES)
        self.assertEqual([last["abi1"], last["abi2"], last["abi3"], last["abi4"], last["abi5"]], [0, 0, 0, HOMES / 2, HOMES / 2])

    def test_table_and_pictures(self):
        with open(os.path.join(self.out, "figures.json"), encoding="utf-8") as file:
            measured = json.load(file)["measured"]
        self.assertEqual(measured[0]["agents"], HOMES)
        with open(os.path.join(self.out, "report.md"), encoding="utf-8") as file:
            self.assertIn("| down business for 1 min | 20 |", file.read())
        self.assertEqual(set(os.listdir(self.out)) - set(FILES), STRANGERS)
        for name in PICTURES:
            root = ElementTree.parse(os.path.join(self.out, name + ".svg")).getroot()
            self.assertEqual(root.tag, "{http://www.w3.org/2000/svg}svg")
            self.assertGreater(len(list(root.iter("{http://www.w3.org/2000/svg}path"))), 10)

    def test_nothing_is_left(self):
        self.assertGreater(self.most, 3 * HOMES)
        self.assertEqual(processes(self.folder), [])
        self.assertEqual(os.listdir(os.path.join(self.folder, "tmp")), [])


class EndTest(unittest.TestCase):
    """Two homes, and what a person does to them in another order than was thought of."""

    def start(self, *arguments, **given):
        folder = tempfile.TemporaryDirectory()
        self.addCleanup(folder.cleanup)
        os.mkdir(os.path.join(folder.name, "tmp"))
        self.folder, self.log = folder.name, os.path.join(folder.name, "log")
        with open(self.log, "wb") as log:
            command = [sys.executable, "-B", FLEET, "2", "--speed", "12", "--no-plots", "--out", "out", *arguments]
            fleet = subprocess.Popen(command, cwd=folder.name, stdout=subprocess.DEVNULL, stderr=log, start_new_session=True,
                                     env={**os.environ, "TMPDIR": os.path.join(folder.name, "tmp")}, **given)
        self.addCleanup(fleet.wait)
        self.addCleanup(fleet.kill)
        return fleet

    def said(self):
        with open(self.log, encoding="utf-8") as file:
            return file.read()

    def wait_until_said(self, fleet, text):
        deadline = time.monotonic() + 60
        while text not in self.said():
            if fleet.poll() == 77:
                self.skipTest("no namespaces here")
            self.assertTrue(fleet.poll() is None and time.monotonic() < deadline, self.said())
            time.sleep(0.1)

    def test_an_interrupt_ends_the_fleet_that_stays(self):
        terminal = os.openpty()
        self.addCleanup(lambda: [os.close(end) for end in terminal])
        fleet = self.start(stdin=terminal[1])
        self.wait_until_said(fleet, "all 2 are enrolled")
        os.killpg(fleet.pid, signal.SIGINT)  # as the terminal does
        self.assertEqual(fleet.wait(60), 0, self.said())
        self.assertNotIn("Traceback", self.said())
        self.assertEqual([processes(self.folder), os.listdir(os.path.join(self.folder, "tmp"))], [[], []])
        self.assertTrue(os.path.exists(os.path.join(self.folder, "out/report.md")))

    def test_what_fails_is_told_to_who_asked(self):
        fleet = self.start("--", "sh", "-c", """
            lab-fleet names foo; lab-fleet down all; lab-fleet recall; timeout 1 lab-fleet wait 4 hours; lab-fleet power off 100%
            lab-fleet measure; echo done >&2; exec sleep 1000""", stdin=subprocess.DEVNULL)
        self.wait_until_said(fleet, "done")
        fleet.terminate()
        self.assertEqual(fleet.wait(60), 130, self.said())
        self.assertEqual(re.findall("^lab-fleet: (.*)", self.said(), re.M), ["not understood: names foo", "no agents to measure"])
        self.assertNotIn("Traceback", self.said())
        self.assertEqual(processes(self.folder), [])
        self.assertTrue(os.path.exists(os.path.join(self.folder, "out/report.md")))


if __name__ == "__main__":
    unittest.main()

"""lab/fleet: every event once in a fleet of twenty, and what must be so afterwards."""

import csv
import json
import os
import re
import subprocess
import sys
import tempfile
import unittest
from xml.etree import ElementTree

REPO = os.path.realpath(os.path.join(os.path.dirname(__file__), "../.."))
FLEET = os.path.join(REPO, "lab/fleet")
sys.path[:0] = [os.path.join(REPO, "lab"), os.path.join(REPO, "tests/agent")]

from fleet_parts import events, policy  # noqa: E402

HOMES = 20
CUT = 6  # lose their power
AGENTS = ("off", "starting", "away", "open", "boot", "challenge", "activating", "connecting", "connected")
PICTURES = ("cold-start", "reconnections", "servers")


def processes(folder):
    """Those that were started with `folder`, wherever they are."""
    found = []
    for pid in filter(str.isdigit, os.listdir("/proc")):
        try:
            with open(f"/proc/{pid}/environ", "rb") as file:
                if f"FLEET_PWD={folder}\0".encode() in file.read() and int(pid) != os.getpid():
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
        command = [sys.executable, "-B", FLEET, str(HOMES), "--speed", "12", "--script", "small", "--out", cls.out]
        cls.fleet = subprocess.run(command, cwd=cls.folder, capture_output=True, text=True, check=False,
                                 env={**os.environ, "TMPDIR": os.path.join(folder.name, "tmp")})
        if cls.fleet.returncode == 77:
            sys.exit(77)
        assert cls.fleet.returncode == 0, cls.fleet.stderr[-4000:]
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
        for before, line in zip(self.lines, self.lines[1:]):
            self.assertLess(line["real_s"] - before["real_s"], 10, "a line is missing")
            self.assertAlmostEqual(line["device_s"], 12 * line["real_s"], delta=1)
        for line in self.lines:
            self.assertGreaterEqual(sum(line[name] for name in AGENTS), HOMES, line)
            self.assertEqual(line["connected"], sum(line[name] for name in ("bss", "abi1", "abi2", "abi3", "abi4", "abi5")))
        total = {name: sum(line[name] for line in self.lines) for name in self.lines[0]}
        # Once at the start, and once when they were recalled; who was without power in between had kept its identity. A busy machine
        # may have let one or the other try again.
        self.assertGreaterEqual(total["enrolments"], 2 * HOMES)
        self.assertLess(total["enrolments"], 2 * HOMES + CUT)
        self.assertGreaterEqual(total["connects"], 3 * HOMES + CUT)
        self.assertGreater(total["bytes_in"], total["frames_in"] * 12)
        last = self.lines[-1]
        self.assertEqual([last["abi1"], last["abi2"], last["abi3"], last["abi4"], last["abi5"]], [0, 0, 0, HOMES / 2, HOMES / 2])

    def test_table_and_pictures(self):
        with open(os.path.join(self.out, "figures.json"), encoding="utf-8") as file:
            measured = json.load(file)["measured"]
        self.assertEqual(measured[0]["agents"], HOMES)
        with open(os.path.join(self.out, "report.md"), encoding="utf-8") as file:
            self.assertIn("| down business for 1 min | 20 |", file.read())
        for name in PICTURES:
            root = ElementTree.parse(os.path.join(self.out, name + ".svg")).getroot()
            self.assertEqual(root.tag, "{http://www.w3.org/2000/svg}svg")
            self.assertGreater(len(list(root.iter("{http://www.w3.org/2000/svg}path"))), 10)

    def test_nothing_is_left(self):
        self.assertEqual(processes(self.folder), [])
        self.assertEqual(os.listdir(os.path.join(self.folder, "tmp")), [])


class WordsTest(unittest.TestCase):
    """What a script may say, and the policy's own arithmetic; neither needs a fleet."""

    def test_what_is_no_event_is_refused(self):
        parser = events.Events(None)
        for line in ("wait", "wait 5", "wait 5 years", "down", "down abi6", "names", "power off", "power off 0%",
                     "power off 101%", "until connected within", "until connected 5", "servers", "recall all", "rest"):
            with self.assertRaises(events.Wrong, msg=line):
                parser.parse(line)
        self.assertIsNone(parser.parse("  # a remark"))
        with self.assertRaisesRegex(events.Wrong, "line 2: "):
            parser.check(["wait 1 minute", "nonsense"])

    def test_the_policy_adds_up(self):
        shared = policy.after_outage(300, 3600)
        self.assertAlmostEqual(sum(shared), 1, places=6)
        self.assertEqual(sum(shared[:300]), 0)
        # Nobody has failed twice before second 90, so who comes back there from a moment's absence has drawn 0 to 90.
        brief = policy.after_outage(1, 600)
        for at in range(1, 90):
            self.assertAlmostEqual(brief[at], 1 / 91)
        self.assertEqual(policy.time_until(shared, 1, 300), next(at for at in range(3599, 0, -1) if shared[at] > 1e-12) - 300)
        lost = policy.after_lost_server(3600)
        self.assertEqual([sum(lost[:1350]), sum(lost[2791:])], [0, 0])
        self.assertAlmostEqual(sum(lost), 1, places=6)
        self.assertAlmostEqual(sum(at * value for at, value in enumerate(lost)), 2070, delta=1)


if __name__ == "__main__":
    unittest.main()

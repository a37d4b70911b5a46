"""lab/fleet without a home: what it takes, who asks it, and what it reckons."""

import math
import os
import resource
import socket
import subprocess
import sys
import tempfile
import unittest

REPO = os.path.realpath(os.path.join(os.path.dirname(__file__), "../.."))
FLEET = os.path.join(REPO, "lab/fleet")
sys.path[:0] = [os.path.join(REPO, "lab"), os.path.join(REPO, "tests/agent")]

import fleet_figures as figures  # noqa: E402
from fleet_parts import events, fleet, policy, report  # noqa: E402
from fleet_parts.failure import Failure  # noqa: E402


class WordsTest(unittest.TestCase):
    def test_what_is_no_event_is_refused(self):
        parser = events.Events(None)
        for line in ("wait", "wait 5", "wait 5 years", "wait . minutes", "wait 1.2.3 hours", "down", "down abi6", "names",
                     "names foo", "power off", "power off 0%", "power off 101%", "power off .%", "until connected within",
                     "until connected 5", "until connected .% within 1 hour", "servers", "recall all", "rest"):
            with self.assertRaises(events.Wrong, msg=line):
                parser.parse(line)
        self.assertIsNone(parser.parse("  # a remark"))
        with self.assertRaisesRegex(events.Wrong, "line 2: "):
            parser.check(["wait 1 minute", "nonsense"])

    def test_what_cannot_run_is_told_in_a_line(self):
        with tempfile.TemporaryDirectory() as folder:
            for name, text in (("wrong", b"names answer\nnames foo\n"), ("bytes", b"\xff\n"), ("long", b"#" * 100000)):
                with open(os.path.join(folder, name), "wb") as file:
                    file.write(text)
            os.mkdir(os.path.join(folder, "bin"))
            agent = os.path.join(folder, "bin/arvokclt")
            for status, told, *arguments in (
                    (2, "N is from 1", "0"), (2, "S is from 1", "5", "--speed", "61"), (2, "one of", "5", "--minutes", "1", "--", "true"),
                    (2, "minutes", "5", "--minutes", "-5"), (2, "minutes", "5", "--minutes", "nan"),
                    (2, "No such file", "5", "--script", "none"), (2, "Is a directory", "5", "--script", "."),
                    (2, "wrong, line 2: not understood: names foo", "5", "--script", "wrong"), (2, "not UTF-8", "5", "--script", "bytes"),
                    (2, "longer than", "5", "--script", "long"), (1, "arvokclt is missing", "5"),
                    (1, "liblab_speed.so is missing", "5", "--speed", "2"), (1, "File exists", "5", "--out", "wrong")):
                if "arvokclt" not in told and status == 1:
                    open(agent, "w", encoding="utf-8").close()
                ended = subprocess.run([sys.executable, "-B", FLEET, *arguments], cwd=folder, capture_output=True, text=True, check=False,
                                       env={**os.environ, "ARVOK_BIN": os.path.dirname(agent)})
                lines = [line for line in ended.stderr.splitlines() if not line.startswith("usage: ")]
                self.assertEqual((ended.returncode, len(lines)), (status, 1), ended.stderr)
                self.assertIn(told, lines[0])

    def test_who_asks_may_say_anything_and_go(self):
        class Listener:
            def run(self, line):
                heard.append(line)
                if "fail" in line:
                    raise Failure("it\nfailed")

        heard, asked = [], fleet.Fleet.__new__(fleet.Fleet)
        asked.events = Listener()
        for said, goes, answer in ((b"measure\n", False, b"\n"), (b"fail\n", False, b"it failed\n"), (b"\xff\n", False, b"not UTF-8\n"),
                                   (b"measure\n", True, b""), (b"", True, b"")):
            ours, theirs = socket.socketpair()
            with ours:
                ours.sendall(said)
                if goes:
                    ours.close()
                asked._serve(theirs)
                self.assertEqual(b"" if goes else ours.recv(100), answer)
        self.assertEqual(heard, ["measure\n", "fail\n", "measure\n", ""])
        # As in a fleet of a thousand.
        files = resource.getrlimit(resource.RLIMIT_NOFILE)
        resource.setrlimit(resource.RLIMIT_NOFILE, (min(2000, files[1]), files[1]))
        self.addCleanup(resource.setrlimit, resource.RLIMIT_NOFILE, files)
        for _ in range(1100):
            self.addCleanup(os.close, os.open(os.devnull, os.O_RDONLY))
        asked.asker, theirs = socket.socketpair()
        with asked.asker, theirs:
            asked.heed_asker()
            theirs.close()
            self.assertRaises(Failure, asked.heed_asker)


class ArithmeticTest(unittest.TestCase):
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

    def test_a_run_is_reckoned_right(self):
        with tempfile.TemporaryDirectory() as folder:
            figures.write(folder)
            made = report.Report(folder)
            text = report.write(folder)
        self.assertEqual((made.peak_enrolments, made.was_quiet), (20, True))
        for name, value in (("enrolment_ms", figures.ENROLMENT_MS), ("heartbeat_ms", figures.HEARTBEAT_MS), ("idle_server_ms", 0.005),
                            ("heartbeats_day", 864), ("in_day", 86400), ("out_day", 43200), ("handshakes_day", 0),
                            ("segments_day", 8640), ("agent_percent", 0.01)):
            self.assertAlmostEqual(getattr(made, name), value, msg=name)
        whole, one = made.run.outages
        self.assertEqual((whole.title, whole.lost, one.title, one.lost), ("down business for 5 min", 100, "down abi1", 20))
        self.assertEqual([made.run.back_after(whole, share) for share in (0.5, 0.95, 1)], [20, 40, 50])
        self.assertEqual([made.run.back_after(one, share) for share in (0.5, 0.95, 1)], [60, 90, 100])
        self.assertAlmostEqual(made.connect_ms(whole), figures.CONNECT_MS)
        self.assertAlmostEqual(max(rate for _, rate in made.run.rates("connects", whole.since(), whole.back)), 100 / 60)
        # Moments evenly over the hundred seconds, and over ten of them.
        self.assertAlmostEqual(made.run.in_step(350, 650), 0)
        tenth = math.sin(math.pi / 10) / (10 * math.sin(math.pi / 100))
        self.assertAlmostEqual(made.run.in_step(1060, 1360), tenth)
        for row in ("| how busy it was in the quiet time | 40 % |", "| one core, enrolling | 200 |", "| idle: heartbeats | 10000 | 5.0 |",
                    f"| 1.00 | 2.00 | 0.00, {tenth:.2f} |"):
            self.assertIn(row, text)

    def test_a_run_may_end_at_any_time(self):
        for end, parts in ((60, ()), (800, ("A million",)), (1200, ("Outages", "A million"))):
            with self.subTest(end=end), tempfile.TemporaryDirectory() as folder:
                figures.write(folder, end)
                text = report.write(folder)
                self.assertEqual([part for part in ("Outages", "A million") if f"## {part}" in text], list(parts))


if __name__ == "__main__":
    unittest.main()

"""lab/ladder from outside: recordings in, pictures out."""

import base64
import json
import os
import re
import struct
import subprocess
import sys
import time
import unittest

HERE = os.path.dirname(os.path.abspath(__file__))
sys.path.insert(1, os.path.join(HERE, "../wireshark"))

import dissected
from dissected import ACK, CLOUD, DEVICE, GATEWAY, LOCAL, RST, SERVER, SYN, Capture
from drawn import REPO, Page, drawn, frames, run

TRAFFIC = os.path.join(HERE, "../wireshark/traffic.py")
NASTY = "</script><b>&\"'\u0001\ud800]]>"


def setUpModule():
    global work
    work = dissected.folder()


class Recorded(unittest.TestCase):
    """A home: what is drawn is what the peers and the app say has passed."""

    @classmethod
    def setUpClass(cls):
        capture, record = os.path.join(work, "home.pcap"), os.path.join(work, "record.json")
        cls.asked = {"CmdType": "<b>&\"", "SequenceId": "7", "number": -3, "list": [1.5, True, {"a": "\u00e9"}]}
        script = 'set -e; "$@"; ubus call qzapp.arvokclt postmsg "$ASKED" >"$RECORD.app"'
        done = subprocess.run(
            [os.path.join(REPO, "lab/home"), "--capture", capture, "--", "sh", "-c", script, "sh", sys.executable, "-B", TRAFFIC,
             record], capture_output=True, text=True, timeout=120,
            env={**os.environ, "ASKED": json.dumps(cls.asked), "RECORD": record})
        if done.returncode == 77:
            sys.exit(77)
        assert done.returncode == 0, done.stdout + done.stderr
        with open(record, encoding="utf-8") as file:
            cls.record = json.load(file)
        with open(record + ".app", encoding="utf-8") as file:
            cls.answer = json.load(file)
        cls.capture = capture
        (cls.picture, cls.said), (cls.page, _) = drawn(capture), drawn(capture, kind=Page)

    def test_every_message_once(self):
        self.assertEqual(self.said, "")
        ciphers = {"plain": "in clear", "rsa": "encrypted with RSA", "client key": "encrypted with the client key",
                   "server key": "encrypted with the server key"}
        for record, lane in (("gateway", "gateway 192.168.1.1"), ("cloud", "platform 100.64.0")):
            for direction, way in (("rx", "device to " + lane), ("tx", ", " + lane)):
                expected = [
                    (ciphers.get(entry.get("cipher"), "encrypted" if entry["encrypted"] else "in clear"), entry["message"])
                    for entry in self.record[record] if entry["direction"] == direction]
                found = self.page.messages(way)
                self.assertTrue(expected)
                with self.subTest(record, direction=direction):
                    self.assertEqual(found[:len(expected)], expected)
        local = [json.loads(text) for text in self.record["local"]]
        self.assertEqual([message for _, message in self.page.messages("local clients 192.168.1.1")], local)
        self.assertEqual([json.loads(text) for article in self.page.articles for kind, text in article
                          if kind == "pre.carried" and "GET_SN_INFO" in text][0]["CmdType"], "GET_SN_INFO")

    def test_apps(self):
        bodies = [json.loads(text) for article in self.page.articles for kind, text in article
                  if kind == "pre." and "an app" in article[1][1]]
        self.assertEqual(bodies, [self.asked, self.answer])
        asked, answer = [row for row in self.picture.rows if row[0] == "bus" and '<b>&"' in row[4]]
        self.assertFalse(asked[3])
        self.assertEqual((answer[2], answer[3]), ('<b>&", Status -2', True))

    def test_picture(self):
        labels = self.picture.labels()
        self.assertEqual(self.picture.lanes, ["gateway", "device", "platform", "apps, bus", "local clients"])
        order = [labels.index(label) for label in (
            "connects to 192.168.1.1", "keyngreq 0", "keyngack 0", "dev_reg 2", "ack 2", "dev_report 4 · 4 hosts")]
        self.assertEqual(order, sorted(order))
        order = [labels.index(label) for label in (
            "Boot", "Ack Boot · 2 servers", "Activate", "Ack Activate", "Connect", "Heartbeat")]
        self.assertEqual(order, sorted(order))
        kinds = {label: kind for kind, _, label, _, _ in self.picture.rows}
        self.assertEqual([kinds[label] for label in ("keyngreq 0", "dev_reg 2", "Boot", "Ack Boot · 2 servers")],
                         ["plain", "aes", "rsa", "aes"])
        times = [time for _, time, _, _, _ in self.picture.rows]
        self.assertEqual(times, sorted(times))
        self.assertTrue(any(bad and "errcode 10001" in title for _, _, _, bad, title in self.picture.rows))
        self.assertRegex(" ".join(labels), r"nobody_knows × [34]")
        self.assertEqual(labels.count("closes"), sum(label.startswith("connects") for label in labels))
        self.assertEqual(len(self.page.articles), len(self.picture.rows))

    def test_without_keys_and_bus(self):
        """What is plain is drawn, and so is that there was something else."""
        path = os.path.join(work, "alone.pcap")
        os.link(self.capture, path)
        picture, said = drawn(path)
        self.assertRegex(said, r"alone\.pcap\.keys: .*cannot be decrypted\n.*alone\.pcap\.bus: .*\n\Z")
        self.assertNotIn("apps, bus", picture.lanes)
        closed = [row for row in picture.rows if row[0] == "closed"]
        self.assertTrue(all(label.startswith("cannot be decrypted") for _, _, label, _, _ in closed))
        plain = lambda rows: [row[4] for row in rows if row[0] == "plain"]
        self.assertEqual(plain(picture.rows), plain(self.picture.rows))
        self.assertNotIn("dev_reg", picture.labels())
        self.assertGreater(len(closed), 10)

    def test_window(self):
        everything = self.picture.rows
        middle = everything[len(everything) // 2][1]
        first, _ = drawn(self.capture, "--seconds", str(middle))
        last, _ = drawn(self.capture, "--start", str(middle), "--title", NASTY.split("\ud800")[0])
        titles = lambda picture: [row[4] for row in picture.rows if row[1] != middle]
        self.assertEqual(titles(first) + titles(last), titles(self.picture))
        self.assertTrue(titles(first) and titles(last))
        self.assertIn("</script><b>&\"'\ufffd", [text.text for text in last.root.iter() if text.get("class") == "title"])


class Written(unittest.TestCase):
    """Captures that this test writes."""

    def setUp(self):
        self.path = os.path.join(work, self.id())

    def test_cuts_and_repetitions(self):
        """However the frames are cut, whatever comes twice, late or not at all, each is there once and in its place."""
        stream = b"".join(frames(*({"type": "a%d" % n, "filling": "x" * 50 * n} for n in range(4))))
        pieces = [(at, stream[at:at + 37]) for at in range(0, len(stream), 37)]
        shuffled = pieces[:1] + pieces[2:4] + pieces[1:2] + pieces[:3] + pieces[:3:-1]
        overlapping = [(at, stream[at:at + 60]) for at in range(0, len(stream), 37)]
        for sent in (pieces, shuffled, overlapping, [(0, stream)]):
            with Capture(self.path) as capture:
                source, target = (DEVICE, 40000), (SERVER, GATEWAY)
                capture.packet(source, target, 2**32 - 50, SYN)
                capture.packet(target, source, 1, SYN | ACK)
                for at, piece in sent:
                    capture.packet(source, target, (2**32 - 49 + at) % 2**32, ACK, piece)
            self.assertEqual(drawn(self.path)[0].labels(), ["connects to 100.64.0.1", "a0", "a1", "a2", "a3"])

    def test_what_is_wrong(self):
        good, = frames({"type": "good"})
        cloud = lambda body: b"QZSGWMP2" + struct.pack(">I", len(body)) + body
        local = lambda body: struct.pack(">I", len(body)) + body
        cases = [  # port, segments, labels, and how the connection goes
            (GATEWAY, [good + b"\x3f\x72\x1f\xb6" + good], ["good", "wrong magic: no frame", "closes"], {}),
            (GATEWAY, [good + good[:4] + bytes(4)], ["good", "wrong length 0: no frame", "closes"], {}),
            (GATEWAY, frames(b"x" * 16, b"{\"a"), ["cannot be decrypted · 16 bytes", "unreadable · no JSON object",
                                                        "closes"], {}),
            (GATEWAY, [good + good[:9]], ["good", "resets the connection"], {"end": RST}),
            (GATEWAY, [good + good[:9]], ["good", "closes inside of a frame"], {}),
            (GATEWAY, [good, good], ["12 bytes were not recorded", "12 bytes were not recorded", "closes"], {"recorded": 12}),
            (CLOUD, [cloud(b"e30="), cloud(b"e3!=\r\n"), cloud(base64.b64encode(b'{"RPCMethod":"x"}') + b"\r\n")],
             ["unreadable · no CR LF at the…", "unreadable · no base64", "x", "closes"], {}),
            (9999, [cloud(base64.b64encode(b'{"Ack":"x","Result":-1,"ID":"%s"}' % (b"9" * 40)) + b"\r\n")],
             ["Ack x, Result -1", "closes"], {}),
            (9999, [cloud(base64.b64encode(b'{"Ack":"x","Result":0,"return_Parameter":"%s"}' % base64.b64encode(
                b'{"type":"ack","errcode":10000}')) + b"\r\n")], ["Ack x · ack, errcode 10000", "closes"], {}),
            (9998, [b"GET / HTTP/1.1\r\n"], [], {}),
            (LOCAL, [local(b'{"RPCMethod":"x"}') + bytes(4)], ["x", "wrong length 0: no frame", "closes"], {}),
        ]
        for port, segments, labels, how in cases:
            with Capture(self.path) as capture:
                capture.connection(GATEWAY, [good])  # so that there is one message
                capture.connection(port, segments, **how)
            rows = drawn(self.path)[0].rows[3:]
            with self.subTest(labels=labels):
                found = [label for _, _, label, _, _ in rows if not label.startswith("connects")]
                self.assertEqual(found, labels)
                for _, _, label, bad, _ in rows:
                    harmless = label.split()[0] in ("good", "x", "connects", "closes", "cannot") and "inside" not in label
                    self.assertEqual(bad, not harmless, label)

    def test_refused(self):
        with Capture(self.path) as capture:
            capture.packet((DEVICE, 40000), (SERVER, GATEWAY), 1, SYN)
            capture.packet((SERVER, GATEWAY), (DEVICE, 40000), 0, RST | ACK)
        self.assertEqual(drawn(self.path)[0].labels(), ["connects to 100.64.0.1", "refuses the connection"])

    def test_from_the_middle(self):
        """A connection that is older than the recording, or than the window, is there from the first row on."""
        first, second = frames({"type": "first"}, {"type": "second"})
        with Capture(self.path) as capture:
            capture.packet((DEVICE, 40000), (SERVER, GATEWAY), 1000, ACK, first[9:] + second)
        picture, _ = drawn(self.path)
        self.assertEqual(picture.labels(), ["second"])
        with Capture(self.path) as capture:
            capture.connection(GATEWAY, [first], end=RST)
            capture.connection(CLOUD, [b"QZSGWMP2"], end=0)
            capture.time += 900000
            capture.connection(GATEWAY, [second], end=0)
        picture, _ = drawn(self.path, "--start", "0.5")
        self.assertEqual(picture.labels(), ["connects to 100.64.0.1", "second"])
        self.assertEqual(picture.bars, [False])
        with Capture(self.path) as capture:
            capture.connection(GATEWAY, [first], end=0)
            source, sequence = (DEVICE, capture.port), 1001 + len(first)
            capture.time += 900000
            capture.packet(source, (SERVER, GATEWAY), sequence, ACK, second)
        picture, _ = drawn(self.path, "--start", "0.5")
        self.assertEqual((picture.labels(), picture.bars), (["second"], [True]))

    def test_texts(self):
        """Nothing that a message says becomes part of the page."""
        with Capture(self.path) as capture:
            capture.connection(GATEWAY, frames({"type": NASTY, "sequence": NASTY, "errcode": 1, "text": NASTY,
                                                     "Parameter": NASTY},
                                                    b'{"type":"deep","a":' + b"[" * 9000 + b"]" * 9000 + b"}",
                                                    b'{"type":"\xff\xfe","number":1e999}'))
        (picture, _), (page, _) = drawn(self.path), drawn(self.path, kind=Page)
        self.assertTrue(picture.rows[1][2].startswith("</script><b>&\"'\ufffd\ufffd"))
        self.assertEqual(json.loads(page.articles[1][-1][1])["text"], NASTY.replace("\ud800", "\ufffd"))
        self.assertNotIn("b", page.elements)

    def test_hostile_names(self):
        """A name as long as a message may be is cut, and one of several lines is one row of the page."""
        names = ["x" * 16000, "\u5b57" * 5000, "a\nb"]
        with Capture(self.path) as capture:
            capture.connection(GATEWAY, frames(*({"type": name} for name in names)))
        began = time.monotonic()
        (picture, _), (page, _) = drawn(self.path), drawn(self.path, kind=Page)
        self.assertLess(time.monotonic() - began, 10)
        self.assertEqual(picture.labels()[1:-1], ["x" * 29 + "\u2026", "\u5b57" * 14 + "\u2026", "a b"])
        self.assertEqual(page.bands, len(picture.rows))

    def test_useless_bus(self):
        """Without a usable recording of the bus the rest is drawn."""
        with Capture(self.path) as capture:
            capture.connection(GATEWAY, frames({"type": "first"}))
        with open(self.path, "rb") as file:
            of_network = file.read()
        for data, text in ((b"", "is empty"), (b"x" * 100, "is no pcap"), (of_network, "is a recording of another kind")):
            with open(self.path + ".bus", "wb") as file:
                file.write(data)
            picture, said = drawn(self.path)
            self.assertEqual(picture.labels(), ["connects to 100.64.0.1", "first", "closes"])
            self.assertRegex(said, rf"\.bus {text}.*not drawn\n\Z")

    def test_folding_and_waits(self):
        """Equal messages are one row, with how many they are, and so are questions and answers in turn; long waits are waves."""
        question, answer = {"type": "get_status", "get": [{"name": "cputemp"}]}, {"type": "status", "status": {"cputemp": 1}}
        with Capture(self.path) as capture:
            source, target = (DEVICE, 40000), (SERVER, GATEWAY)
            sequence = {source: 1, target: 1}
            def say(end, message, pause=1000):
                frame, = frames(message)
                capture.time += pause
                capture.packet(end, target if end == source else source, sequence[end], ACK, frame)
                sequence[end] += len(frame)
            capture.packet(source, target, 0, SYN)
            for n in range(12):
                say(source, {"type": "event", "sequence": n})
            for n in range(5):
                say(target, {**question, "sequence": n})
                say(source, {**answer, "sequence": n})
            say(source, {"type": "other"}, 600000)
            for n in range(2):
                say(source, {"type": "twice"})
        (picture, _), (page, _) = drawn(self.path), drawn(self.path, kind=Page)
        self.assertEqual([re.sub(r" in .*", "", label) for label in picture.labels()],
                         ["connects to 100.64.0.1", "event × 12", "get_status · cputemp × 5", "status · cputemp × 5", "other",
                          "twice", "twice"])
        self.assertEqual(picture.waves, 1)
        self.assertEqual([sum(kind == "pre." for kind, _ in article) for article in page.articles], [0, 12, 5, 5, 1, 1, 1])

    def test_not_a_recording(self):
        """A cut capture is drawn as far as it goes; for anything else there is one line and status 1."""
        with Capture(self.path) as capture:
            capture.connection(GATEWAY, frames({"type": "first"}, {"type": "second"}))
        with open(self.path, "rb") as file:
            whole = file.read()
        def write(data):
            with open(self.path, "wb") as file:
                file.write(data)
        write(whole[:-90])
        picture, said = drawn(self.path)
        self.assertEqual(picture.labels(), ["connects to 100.64.0.1", "first"])
        self.assertIn("ends inside of packet 3", said)
        cases = [(b"", "is empty"), (b"\n\r\r\n" + whole, "is pcapng"), (b"x" * 100, "is no pcap"), (whole[:24], "no message"),
                 (whole[:10], "is no pcap"), (whole[:20] + b"\x69" + whole[21:], "another kind")]
        for data, text in cases:
            write(data)
            done = run(self.path, "-o", self.path + ".svg")
            self.assertEqual((done.returncode, done.stderr.count("Traceback")), (1, 0), done.stderr)
            self.assertIn(text, done.stderr)
        for arguments, status in ((("/nowhere", "-o", "x.svg"), 1), ((self.path, "-o", "x.png"), 2), ((self.path,), 2),
                                  ((self.path, "-o", "x.svg", "--seconds", "-1"), 2), ((work, "-o", "x.svg"), 1)):
            done = run(*arguments)
            self.assertEqual((done.returncode, done.stderr.count("Traceback")), (status, 0), done.stderr)
        write(whole)
        done = run(self.path, "-o", os.path.join(work, "no/x.svg"))
        self.assertEqual(done.returncode, 1)
        done = run(self.path, "-o", self.path + ".svg", "--start", "5")
        self.assertRegex(done.stderr, r"\nlab/ladder: .*no message in this window.*\n\Z")


if __name__ == "__main__":
    unittest.main()

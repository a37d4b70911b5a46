"""The Wireshark dissector: on what a home's traffic is, recorded, and on captures that no home would produce."""

import base64
import json
import os
import re
import struct
import subprocess
import sys
import unittest

import dissected
from dissected import CLOUD, Capture, FIN, GATEWAY, LOCAL, RST, rows

HERE = os.path.dirname(os.path.abspath(__file__))
HOME = os.path.join(dissected.REPO, "lab/home")


def setUpModule():
    global work
    work = dissected.folder()


def gateway_frame(body, magic=b"\x3f\x72\x1f\xb5", length=None):
    return magic + struct.pack(">I", len(body) if length is None else length) + body


def cloud_frame(text, magic=b"QZSGWMP2", line=None):
    body = base64.b64encode(text) + b"\r\n" if line is None else line
    return magic + struct.pack(">I", len(body)) + body


def sealed(mode, key, text):
    command = ["openssl", "enc", "-aes-128-" + mode, "-nopad", "-K", key] + ["-iv", "0" * 32] * (mode == "cbc")
    return subprocess.run(command, check=True, input=text, capture_output=True).stdout


def local_frame(body, length=None):
    return struct.pack(">I", len(body) if length is None else length) + body


class Recorded(unittest.TestCase):
    """A home's traffic: what is shown of it is what the peers say has passed."""

    @classmethod
    def setUpClass(cls):
        cls.capture, record = os.path.join(work, "home.pcap"), os.path.join(work, "record.json")
        cls.keys = cls.capture + ".keys"
        done = subprocess.run([HOME, "--capture", cls.capture, "--peers", "gateway,cloud", "--", sys.executable, "-B",
                               os.path.join(HERE, "traffic.py"), record], capture_output=True, text=True, timeout=120)
        if done.returncode == 77:
            sys.exit(77)
        assert done.returncode == 0, done.stdout + done.stderr
        with open(record, encoding="utf-8") as file:
            cls.record = json.load(file)

    def shown(self, link, keys):
        """What is shown of a link, as [from the device?, cipher, length, text] of each frame."""
        frames = []
        for addresses, ciphers, lengths, texts in rows(self.capture, "ip.src", "arvok.cipher", "arvok.length", "arvok.text",
                                                       keys=keys, select="arvok_" + link):
            self.assertEqual(len(ciphers), len(lengths))
            texts += [None] * (len(lengths) - len(texts))
            frames += [[addresses == ["192.168.1.2"], *frame] for frame in zip(ciphers, lengths, texts)]
        return frames

    def test_all_messages(self):
        ciphers = {"client key": "client-key", "server key": "server-key"}
        for link in ("gateway", "cloud"):
            opened, closed = self.shown(link, self.keys), self.shown(link, None)
            for received in (True, False):
                direction = "rx" if received else "tx"
                expected = []
                for entry in self.record[link]:
                    cipher = entry.get("cipher", "key" if entry["encrypted"] else "plain")
                    if entry["direction"] == direction:
                        expected.append((ciphers.get(cipher, cipher), str(entry["length"]), entry["message"]))
                self.assertTrue(expected)
                with self.subTest(link, direction=direction, keys=True):
                    frames = [frame[1:] for frame in opened if frame[0] == received][:len(expected)]
                    self.assertEqual([(c, length, json.loads(text)) for c, length, text in frames], expected)
                with self.subTest(link, direction=direction, keys=False):
                    frames = [frame[1:] for frame in closed if frame[0] == received][:len(expected)]
                    self.assertEqual([(c, length, text and json.loads(text)) for c, length, text in frames],
                                     [row if row[0] == "plain" else ("encrypted", row[1], None) for row in expected])
        self.assertEqual([text for *_, text in self.shown("local", None)], self.record["local"])

    def test_requests_and_replies(self):
        """Each reply names its request and the time since then, also when packets are looked at once more."""
        for options in ((), ("-2",)):
            messages = {}
            for time, *cells in rows(self.capture, "frame.time_epoch", "frame.number", "tcp.stream", "arvok.type", "arvok.id",
                                     "arvok.reply", "arvok.request_in", "arvok.time", keys=self.keys, options=options,
                                     select="arvok_gateway || arvok_cloud || arvok_local"):
                if len(cells[2]) == 1:
                    messages[cells[0][0]] = (float(time[0]), *cells[1:])
            answered = []
            for time, stream, kind, number, reply, request, elapsed in messages.values():
                if not request:
                    self.assertFalse(reply)
                    self.assertNotIn(kind, (["ack"], ["status"], ["keyngack"]))
                    continue
                asked = messages.get(request[0])
                if not asked:
                    continue  # in a segment with other messages
                self.assertEqual((stream, number), (asked[1], asked[3]))
                self.assertAlmostEqual(float(elapsed[0]), time - asked[0], delta=2e-6)
                answered.append((asked[2][0], kind[0]))
            self.assertLessEqual({("keyngreq", "keyngack"), ("dh", "dh"), ("dev_reg", "ack"), ("get_status", "status"),
                                  ("Boot", "Boot"), ("Heartbeat", "Heartbeat"), ("ListPlugin", "ListPlugin")}, set(answered))

    def test_fields_and_columns(self):
        def infos(select):
            return [info[0] for (info,) in rows(self.capture, "_ws.col.Info", keys=self.keys, select=select)]
        self.assertEqual(infos('arvok.carried.type == "get_status"'), ["SetPluginParams 2 (get_status), 218 bytes"])
        self.assertEqual(infos('json.path_with_value == "/status/cputemp:52" && arvok_cloud'),
                         ["Ack SetPluginParams 2 (status), 258 bytes"])
        self.assertRegex(infos("arvok.result == 10001")[0], r"^status \d+ errcode 10001, \d+ bytes$")
        self.assertRegex(infos('arvok.type == "nobody_knows"')[0],
                         r"^nobody_knows \d+, 64 bytes(; nobody_knows \d+, 64 bytes){2}$")
        self.assertEqual("; ".join(infos("arvok_local")),
                         "Post1 1 (GET_SN_INFO), 99 bytes; Nothing 2, 30 bytes; "
                         "Ack Post1 1 (GET_SN_INFO), 243 bytes; Ack Nothing 2 Result -1, 71 bytes")
        self.assertEqual(rows(self.capture, "_ws.col.Protocol", select='arvok.type == "dh"'), [(["ARVOK-GW"],)] * 2)
        experts = [message for (messages,) in rows(self.capture, "_ws.expert.message", keys=self.keys, select="arvok_cloud")
                   for message in messages if not message.startswith("Connection ")]
        self.assertEqual(experts, [])


class Written(unittest.TestCase):
    """Captures that this test writes."""

    def capture(self):
        self.path = os.path.join(work, self.id())
        return Capture(self.path)

    def shown(self, *fields, **options):
        """For each connection, by the device's port, the values of each field from all its packets."""
        shown = {}
        for source, target, *cells in rows(self.path, "tcp.srcport", "tcp.dstport", *fields, **options):
            port = max(int(source[0]), int(target[0]))
            for values, cell in zip(shown.setdefault(port, [[] for _ in fields]), cells):
                values += cell
        return shown

    def test_every_cut(self):
        """Three frames, cut in two at every place, byte by byte, and in one piece with half of the next one."""
        kinds = {GATEWAY: [gateway_frame(b'{"type":"a%d"}' % n) for n in range(3)],
                 CLOUD: [cloud_frame(b'{"RPCMethod":"a%d"}' % n) for n in range(3)],
                 LOCAL: [local_frame(b'{"RPCMethod":"a%d"}' % n) for n in range(3)]}
        with self.capture() as capture:
            ports = {}
            for port, frames in kinds.items():
                stream = b"".join(frames)
                cuts = [[stream[:at], stream[at:]] for at in range(1, len(stream))]
                cuts += [[stream], [stream[at:at + 1] for at in range(len(stream))]]
                ports.update((capture.connection(port, cut), cut) for cut in cuts)
            middle = len(kinds[GATEWAY][0]) * 3 // 2
            stream = b"".join(kinds[GATEWAY])
            two_parts = capture.connection(GATEWAY, [stream[:middle], stream[middle:]])
            elsewhere = capture.connection(9999, [b"".join(kinds[CLOUD])])
        shown = self.shown("arvok.type", "_ws.expert.message", "_ws.col.Info")
        for port, cut in ports.items():
            with self.subTest(cut=cut):
                self.assertEqual(shown[port][0], ["a0", "a1", "a2"])
                self.assertFalse([text for text in shown[port][1] if not text.startswith(("Connection", "This frame"))])
        self.assertIn("a1, 13 bytes; a2, 13 bytes", shown[two_parts][2])
        self.assertEqual(shown[elsewhere][0], ["a0", "a1", "a2"])

    def test_broken_frames(self):
        """What is wrong is said, and what came before it is shown."""
        good = gateway_frame(b'{"type":"good"}')
        cloud_text = cloud_frame(b'{"RPCMethod":"good"}')
        cases = [  # port, segments, expert text, types, and how the connection goes
            (GATEWAY, [good + b"\x3f\x72\x1f\xb6" + good[4:]], "Wrong magic", ["good"], {}),
            (GATEWAY, [good + gateway_frame(b"", length=0)], "wrong: 0", ["good"], {}),
            (GATEWAY, [gateway_frame(b'{"type":"x"') + good], "not a JSON object", ["good"], {}),
            (GATEWAY, [gateway_frame(b"\0" * 16)], "No key opens", [], {}),
            (GATEWAY, [good + good[:9]], "ends 14 bytes before", ["good"], {"end": RST}),
            (GATEWAY, [good], "12 of 23 bytes were recorded", [], {"recorded": 12}),
            (CLOUD, [cloud_text[:7] + b"1" + cloud_text[8:]], "Wrong magic", [], {}),
            (CLOUD, [cloud_frame(b"", line=b"e30=")], "no CR LF", [], {}),
            (CLOUD, [cloud_frame(b"", line=b"e3!=\r\n")], "no base64", [], {}),
            (CLOUD, [cloud_frame(b"12345") + cloud_text], "neither JSON nor whole blocks", ["good"], {}),
            (CLOUD, [cloud_text[:20]], "ends 22 bytes before", [], {"reverse": True}),
            (LOCAL, [local_frame(b"", length=0)], "wrong: 0", [], {}),
            (LOCAL, [local_frame(b'{"RPCMethod":"x\xff\n"}')], "not a JSON object", [], {}),
        ]
        with self.capture() as capture:
            ports = [capture.connection(port, segments, **how) for port, segments, *_, how in cases]
        shown = self.shown("arvok.type", "_ws.expert.message")
        for port, (_, segments, text, kinds, _) in zip(ports, cases):
            with self.subTest(segments=[segment[:40] for segment in segments], expected=text):
                self.assertEqual(shown[port][0], kinds)
                own = [message for message in shown[port][1] if not message.startswith(("Connection", "This frame"))]
                self.assertEqual(len(own), 1, own)
                self.assertIn(text, own[0])

    def test_key_log(self):
        """Keys of others, broken lines, and a line that is still being written do no harm."""
        key, text = "00112233445566778899aabbccddeeff", b'{"type":"secret"}'
        padding = b'{"Ack":"secret"}' + b"\x10" * 16, b'{"Ack":"secret"}' + b"\x0f" + b"\x10" * 15
        with self.capture() as capture:
            ports = [capture.connection(GATEWAY, [gateway_frame(sealed("cbc", key, text.ljust(32, b"\0")))])
                     for _ in range(6)]
            ports += [capture.connection(CLOUD, [cloud_frame(sealed("ecb", key, text))]) for text in padding]
        line = "gateway 192.168.1.2:%d 100.64.0.1:32768 key %s\n"
        keys = self.path + ".keys"
        with open(keys, "w", encoding="ascii") as log:
            log.write("nonsense\n\n" + line % (ports[0], "00") + line % (ports[0], "f" * 31) + line % (ports[0], key[::-1]))
            log.write(line % (ports[1], key) + line % (ports[1], key[::-1]))  # the port has been used twice
            log.write(line.replace("gateway", "cloud") % (ports[2], key) + line.replace(" key", " else") % (ports[3], key))
            log.write("gateway 100.64.0.1:32768 192.168.1.2:%d key %s\n" % (ports[4], key))
            log.writelines("cloud 100.64.0.1:8088 192.168.1.2:%d server-key %s\n" % (port, key) for port in ports[6:])
            log.write((line % (ports[5], key))[:-2])
        shown = self.shown("arvok.type", "arvok.cipher", keys=keys)
        nothing, opened = [[], ["encrypted"]], [["secret"], ["key"]]
        self.assertEqual([shown[port] for port in ports], [nothing, opened, nothing, nothing, opened, nothing,
                                                           [["secret"], ["server-key"]], nothing])
        for missing in (keys + ".none", work):
            self.assertEqual(self.shown("arvok.type", "arvok.cipher", keys=missing)[ports[1]], nothing)

    def test_key_log_that_grows(self):
        """What passes while the peers run is read with the keys that they have agreed by then."""
        key = "00112233445566778899aabbccddeeff"
        with self.capture() as capture:
            capture.connection(GATEWAY, [gateway_frame(b'{"type":"first"}')])
            behind_first = capture.file.tell()
            port = capture.connection(GATEWAY, [gateway_frame(sealed("cbc", key, b'{"type":"last"}\0'))])
        with open(self.path, "rb") as file:
            packets = file.read()
        with open(self.path + ".keys", "w", encoding="ascii") as log, subprocess.Popen(
                dissected.command("-r", "-", "-l", "-Y", "arvok.cipher", "-T", "fields", "-e", "arvok.cipher",
                                  "-o", "arvok.keylog:" + log.name), **dissected.PIPES) as reader:
            for part, kind in ((packets[:behind_first], b"plain\n"), (packets[behind_first:], b"key\n")):
                reader.stdin.write(part)
                reader.stdin.flush()
                self.assertEqual(reader.stdout.readline(), kind)
                print("gateway 192.168.1.2:%d 100.64.0.1:32768 key %s" % (port, key), file=log, flush=True)
            reader.stdin.close()
            self.assertEqual(reader.stdout.read(), b"")


class Modules(unittest.TestCase):
    def test_vectors(self):
        capture = os.path.join(work, "empty.pcap")
        Capture(capture).file.close()
        said = dissected.tshark("-X", "lua_script:" + os.path.join(HERE, "vectors.lua"), "-r", capture)
        self.assertRegex(said, re.compile(r"\A\d+ vectors hold\n\Z"))


if __name__ == "__main__":
    unittest.main()

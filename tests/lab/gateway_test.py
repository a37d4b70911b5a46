"""lab-gateway against a client that shares nothing with it, steered over the bus."""

import json
import unittest

from access_point import MAGIC, SAFE_PRIME, SHORT_PRIME, AccessPoint, frame, to_text
from peer_case import PeerCase
from wire import Ended

GATEWAY_MAC = "0A0B0C0D0E0F"


class GatewayTest(PeerCase):
    program = "lab-gateway"
    object = "lab.gateway"
    arguments = ("-a", "127.0.0.1", "-p", "0", "--mac", "0a:0b:0c:0d:0e:0f")

    @classmethod
    def setUpClass(cls):
        super().setUpClass()
        cls.port = int(cls.call("peer")["port"])

    def connect(self, negotiated=True):
        point = AccessPoint(self.port)
        self.addCleanup(point.socket.close)
        if negotiated:
            point.negotiate()
        return point

    # ---- the protocol ------------------------------------------------------------------------------------------

    def test_link_from_key_request_to_keepalive(self):
        point = self.connect(negotiated=False)
        self.assertEqual(
            point.ask_for_key(), {"type": "keyngack", "sequence": 0, "mac": GATEWAY_MAC, "keymode": "dh"}
        )
        self.assertEqual(self.call("peer")["state"], "negotiating")
        answer = point.exchange()
        self.assertEqual((answer["type"], answer["sequence"], answer["mac"]), ("dh", 1, GATEWAY_MAC))
        self.assertEqual(answer["data"]["dh_p"], to_text(SAFE_PRIME))
        self.assertEqual(answer["data"]["dh_g"], to_text(2))
        point.agree(answer)
        self.assertEqual(self.call("peer")["key"], point.key.hex())

        states = {"dev_reg": "registered", "keepalive": "linked"}
        for kind in ("dev_reg", "keepalive", "wan_report", "dev_report", "map_report", "cfg", "aprssi", "event",
                     "ubus_notify"):
            sent = point.send(kind, link_mac="AABBCCDDEEFF")
            expected = {"type": "ack", "sequence": sent["sequence"], "mac": GATEWAY_MAC, "errcode": 0}
            self.assertEqual(point.receive(), expected, kind)
            if kind in states:
                self.assertEqual(self.call("peer")["state"], states[kind])

        peer = self.call("peer")
        self.assertEqual(
            (peer["address"], peer["mac"], peer["link_mac"], peer["keepalives"], peer["received"], peer["sent"]),
            (point.address, "025A10000001", "AABBCCDDEEFF", 1, 11, 11),
        )
        record = self.call("messages", {"direction": "both"})["messages"]
        self.assertEqual([entry["direction"] for entry in record], ["rx", "tx"] * 11)
        self.assertEqual([entry["encrypted"] for entry in record], [False] * 4 + [True] * 18)
        self.assertEqual([entry["number"] for entry in record], sorted(entry["number"] for entry in record))
        self.assertEqual(self.call("messages", {"direction": "tx", "after": record[-4]["number"]})["messages"],
                         [record[-3], record[-1]])
        self.assertEqual(self.call("messages", {"type": "dev_reg", "clear": True})["messages"], [record[4]])
        self.assertEqual(self.call("messages")["messages"], [])

    def test_shared_number_of_fifteen_bytes(self):
        point = self.connect(negotiated=False)
        self.assertEqual(len(point.negotiate(SHORT_PRIME)), 15)
        self.assertEqual(self.call("peer")["key"], point.key.hex())
        point.send("keepalive")
        self.assertEqual(point.receive()["type"], "ack")

    def test_frames_however_they_are_cut(self):
        point = self.connect()
        for byte in point.packed(point.message("keepalive")):
            point.socket.sendall(bytes([byte]))
        self.assertEqual(point.receive()["type"], "ack")
        messages = [point.message("keepalive") for _ in range(5)]
        longest = point.message("event", data="x" * 16300)
        stream = b"".join(point.packed(message) for message in messages + [longest])
        point.socket.sendall(stream[:50])
        point.socket.sendall(stream[50:])
        for message in messages + [longest]:
            self.assertEqual(point.receive()["sequence"], message["sequence"])

    def test_hostile_input_closes_its_connection_only(self):
        bystander = self.connect()
        good = {"type": "keyngreq", "sequence": 0, "keymodelist": [{"keymode": "dh"}]}
        plain = {
            "bad magic": b"GET / HTTP/1.1\r\n",
            "no body": MAGIC + bytes(4),
            "body too long": MAGIC + (16385).to_bytes(4, "big"),
            "huge length": MAGIC + b"\xff" * 4,
            "no JSON": frame(b"{\"type\":"),
            "more than JSON": frame(json.dumps(good).encode() + b"}"),
            "no object": frame(b"[1,2]"),
            "nested without end": frame(b"[" * 16000),
            "no type": frame(b"{\"sequence\":0}"),
            "type is a number": frame(b"{\"type\":1,\"sequence\":0}"),
            "no sequence": frame(json.dumps({**good, "sequence": "0"}).encode()),
            "other key modes": frame(json.dumps({**good, "keymodelist": [{"keymode": "DH"}, 7]}).encode()),
        }
        for name, data in plain.items():
            with self.subTest(name), AccessPoint(self.port) as point:
                point.socket.sendall(data)
                self.assertTrue(point.closed_by_peer())

        exchanges = {
            "no base64": {"dh_key": "!!!!"},
            "cut base64": {"dh_p": "abc"},
            "empty": {"dh_key": ""},
            "missing": {"dh_g": None},
            "no text": {"dh_key": 5},
            "zero modulus": {"dh_p": "AAAA"},
            "even modulus": {"dh_p": to_text(SAFE_PRIME + 1)},
            "modulus too long": {"dh_p": to_text(2**4096 - 1)},
            "public value 1": {"dh_key": to_text(1)},
            "public value p - 1": {"dh_key": to_text(SAFE_PRIME - 1)},
            "public value beyond p": {"dh_key": to_text(SAFE_PRIME + 2)},
            "generator 1": {"dh_g": to_text(1)},
        }
        for name, changes in exchanges.items():
            with self.subTest(name), AccessPoint(self.port) as point:
                point.ask_for_key()
                with self.assertRaises(Ended):
                    point.exchange(**changes)

        with self.subTest("key before request"), AccessPoint(self.port) as point, self.assertRaises(Ended):
            point.exchange()

        for name, data in {"not encrypted": frame(b"x" * 15), "another key": frame(b"x" * 32)}.items():
            with self.subTest(name), AccessPoint(self.port) as point:
                point.negotiate()
                point.socket.sendall(data)
                self.assertTrue(point.closed_by_peer())

        bystander.send("keepalive")
        self.assertEqual(bystander.receive()["type"], "ack")
        self.assertEqual(self.call("peer")["address"], bystander.address)

    # ---- the bus object ----------------------------------------------------------------------------------------

    def test_request_takes_the_reply_with_its_sequence(self):
        point = self.connect()
        first = self.started("request", {"type": "get_status", "get": [{"name": "cputemp"}]})
        asked = point.receive()
        self.assertEqual((asked["type"], asked["get"], asked["mac"]), ("get_status", [{"name": "cputemp"}], GATEWAY_MAC))
        second = self.started("request", {"message": {"type": "cfg", "sequence": 77, "mac": "M"}, "timeout": 8000})
        self.assertEqual(point.receive(), {"type": "cfg", "sequence": 77, "mac": "M"})

        # Messages of the access point's own with the same number are no replies.
        point.sequence = asked["sequence"]
        for kind in ("keepalive", "wan_report", "cfg", "aprssi", "event", "ubus_notify"):
            point.sequence = asked["sequence"]
            point.send(kind)
            self.assertEqual(point.receive()["type"], "ack")
        replies = {}
        for process, sequence, kind in ((second, 77, "ack"), (first, asked["sequence"], "status")):
            replies[kind] = {"type": kind, "sequence": sequence, "mac": "m", "list": [1, {"deep": True}], "x": 1.5}
            point.socket.sendall(point.packed(replies[kind]))
            out, errors = process.communicate(timeout=10)
            self.assertEqual((process.returncode, json.loads(out or "null")), (0, replies[kind]), errors)

    def test_request_without_an_answer(self):
        self.assertEqual(self.refused("request", {"type": "cfg"}), "Command failed: Not found")
        self.assertEqual(self.refused("send", {"type": "cfg"}), "Command failed: Not found")
        self.assertEqual(self.refused("raw", {"hex": "00"}), "Command failed: Not found")
        point = self.connect()
        self.assertEqual(
            self.refused("request", {"message": {"type": "cfg"}, "timeout": 50}), "Command failed: Request timed out"
        )
        waiting = self.started("request", {"type": "cfg"})
        point.receive()
        point.receive()
        point.socket.close()
        self.assertEqual(waiting.communicate(timeout=4)[1].strip(), "Command failed: Not found")

        with self.connect():
            self.all_invalid(
                ("request", {"sequence": 1}),
                ("request", {"type": "cfg", "sequence": "1"}),
                ("request", {"message": {"type": "cfg"}, "tiemout": 5}),
                ("request", {"message": {"type": "cfg"}, "timeout": -1}),
                ("send", {"message": {"type": "cfg"}, "split": 0}),
                ("send", {"message": {"type": "cfg"}, "repeat": 1 << 40}),
                ("raw", {"hex": "3f7"}),
                ("raw", {"hex": "xy"}),
                ("raw", {}),
                ("messages", {"direction": "up"}),
                ("messages", {"after": "1"}),
                ("peer", {"verbose": True}),
            )

    def test_send_in_every_form(self):
        point = self.connect()
        self.call("send", {"type": "cfg", "sequence": 5})
        self.assertEqual(point.receive()["sequence"], 5)
        self.call("send", {"message": {"type": "cfg"}, "split": 48, "interval": 400})
        piece = point.socket.recv(1000)
        self.assertEqual(len(piece), 48)
        point.read(8 + int.from_bytes(piece[4:8], "big") - 48)
        self.call("send", {"message": {"type": "cfg", "sequence": 100}, "repeat": 3})
        self.assertEqual([point.receive()["sequence"] for _ in range(3)], [100, 101, 102])
        self.call("send", {"message": {"type": "cfg"}, "encrypt": False})
        self.assertEqual(json.loads(point.receive_body())["type"], "cfg")
        self.call("raw", {"hex": "3F721fb50000000561", "split": 1})
        self.assertEqual(point.read(9), MAGIC + b"\0\0\0\5a")

        plain = self.connect(negotiated=False)
        plain.ask_for_key()
        self.assertEqual(
            self.refused("send", {"message": {"type": "cfg"}, "encrypt": True}), "Command failed: Invalid argument"
        )
        self.call("send", {"type": "to_the_newest"})
        self.assertEqual(plain.receive()["type"], "to_the_newest")

    def test_traffic_is_shown_as_it_passes(self):
        point, marker = self.connect(), None

        def act():
            nonlocal marker
            marker = point.send("event", data=["é", None, -(2**31), 1.25])
            point.receive()
            point.socket.close()

        shown = self.shown_while(act)
        seen = [entry["rx"] for entry in shown if "rx" in entry and entry["rx"]["message"] == marker]
        self.assertEqual(len(seen), 1, shown)
        self.assertTrue(seen[0]["encrypted"])
        acks = [entry["tx"] for entry in shown if "tx" in entry]
        self.assertEqual(acks[-1]["message"]["sequence"], marker["sequence"])

    # ---- faults ------------------------------------------------------------------------------------------------

    def test_faults_in_an_answer(self):
        def is_garbage(point):
            with self.assertRaises(ValueError):
                point.receive()

        def is_dropped(point):
            point.send("keepalive")
            self.assertEqual(point.receive()["sequence"], point.sequence - 1)

        def has_bad_length(point):
            self.assertEqual(point.read(8), MAGIC + (9).to_bytes(4, "big"))

        def is_cut(point):
            length = int.from_bytes(point.read(8)[4:], "big")
            point.read(length // 2)
            point.send("keepalive")
            self.assertEqual(point.read(4), MAGIC)

        def is_closed(point):
            self.assertTrue(point.closed_by_peer())

        def is_overtaken(point):
            late = point.sequence - 1
            point.send("keepalive")
            self.assertEqual([point.receive()["sequence"] for _ in range(2)], [late + 1, late])

        def is_changed(point):
            answer = point.receive()
            self.assertEqual((answer["errcode"], answer["data"], "mac" in answer), (7, {"a": {"b": 1}}, False))

        for fault, check in {
            ("drop",): is_dropped,
            ("delay", ("delay", 150)): is_overtaken,
            ("bad_magic",): is_garbage,
            ("bad_length", ("length", 9)): has_bad_length,
            ("truncated_body",): is_cut,
            ("wrong_key",): is_garbage,
            ("bad_json",): is_garbage,
            ("close",): is_closed,
            ("edit", ("set", '{"errcode":7,"mac":null,"data":{"a":{"b":1,"c":null}}}')): is_changed,
        }.items():
            with self.subTest(fault[0]), AccessPoint(self.port) as point:
                point.negotiate()
                options = {name: json.loads(value) if name == "set" else value for name, value in fault[1:]}
                self.call("misbehave", {"fault": fault[0], "on": "event", **options})
                point.send("keepalive")
                self.assertEqual(point.receive()["errcode"], 0, "another answer suffered")
                point.send("event")
                check(point)
                self.assertEqual(self.call("peer")["faults"], "none", "it was used up")

    def test_faults_that_change_the_negotiation(self):
        self.call("misbehave", {"fault": "edit", "on": "keyngreq", "set": {"keymode": "DH"}})
        self.call("misbehave", {"fault": "edit", "on": "dh", "set": {"data": {"dh_g": None, "dh_key": "Ag=="}}})
        point = self.connect(negotiated=False)
        self.assertEqual(point.ask_for_key()["keymode"], "DH")
        self.assertEqual(point.exchange()["data"], {"dh_key": "Ag==", "dh_p": to_text(SAFE_PRIME)})

    def test_faults_that_last(self):
        with self.subTest("times"):
            point = self.connect()
            self.call("misbehave", {"fault": "drop", "times": 2})
            for _ in range(3):
                point.send("keepalive")
            self.assertEqual(point.receive()["sequence"], point.sequence - 1)
        with self.subTest("close after messages"):
            self.call("misbehave", {"fault": "close", "after": 2})
            point.send("keepalive")
            point.receive()
            point.send("keepalive")
            self.assertTrue(point.closed_by_peer())
        with self.subTest("silent"):
            self.call("misbehave", {"fault": "silent"})
            point = self.connect(negotiated=False)
            for _ in range(3):
                point.send("keyngreq", keymodelist=[{"keymode": "dh"}])
            self.call("send", {"type": "told_to"})
            self.assertEqual(point.receive()["type"], "told_to")
            self.assertEqual(self.call("peer")["received"], 3)
        with self.subTest("refuse"):
            self.call("misbehave", {"fault": "refuse"})
            self.assertFalse(self.call("peer")["listening"])
            with self.assertRaises(ConnectionRefusedError):
                AccessPoint(self.port)
            self.call("misbehave", {"fault": "none"})
            self.connect()

    def test_faults_that_nobody_knows(self):
        self.all_invalid(*(("misbehave", argument) for argument in (
            {},
            {"fault": "explode"},
            {"fault": "drop", "on": "keepalvie"},
            {"fault": "drop", "on": 3},
            {"fault": "drop", "time": 1},
            {"fault": "drop", "times": -1},
            {"fault": "drop", "times": 1.0e300},
            {"fault": "bad_length", "length": 1 << 32},
            {"fault": "edit"},
            {"fault": "edit", "set": 5},
            {"fault": "drop", "set": {}},
        )))
        self.assertEqual(self.call("peer")["faults"], "none")

    # ---- the command line --------------------------------------------------------------------------------------

    def test_options(self):
        self.options_end_with(
            (["-h"], 0, "usage: lab-gateway"),
            (["-a", "300.1.1.1"], 1, "not an IPv4 address: 300.1.1.1"),
            (["-p", "65536"], 1, "not a port: 65536"),
            (["-p", "-1"], 1, "not a port: -1"),
            (["--mac", "00:11:22"], 1, "not a MAC: 00:11:22"),
            (["--mac", "0:0112233445:5"], 1, "not a MAC"),
            (["--nonsense"], 1, "usage: lab-gateway"),
            (["more"], 1, "unexpected argument: more"),
            (["-s", "/nonexistent/bus"], 1, "cannot connect to the bus at /nonexistent/bus"),
            (["-s", self.bus, "-a", "127.0.0.1", "-p", str(self.port)], 1, "cannot listen on 127.0.0.1"),
            (["-s", self.bus, "-a", "127.0.0.1", "-p", "0"], 1, "cannot publish lab.gateway"),
        )


if __name__ == "__main__":
    unittest.main()

"""lab-gateway against a client that shares nothing with it, steered over the bus."""

import json
import unittest

from access_point import MAGIC, SAFE_PRIME, SHORT_PRIME, AccessPoint, aes, frame, to_text
from peer_case import PeerCase, reason
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
        self.assertEqual(self.refused("request", {"type": "cfg"}), "Not found")
        self.assertEqual(self.refused("send", {"type": "cfg"}), "Not found")
        self.assertEqual(self.refused("raw", {"hex": "00"}), "Not found")
        point = self.connect()
        self.assertEqual(
            self.refused("request", {"message": {"type": "cfg"}, "timeout": 50}), "Request timed out"
        )
        waiting = self.started("request", {"type": "cfg"})
        point.receive()
        point.receive()
        point.socket.close()
        self.assertEqual(reason(waiting.communicate(timeout=4)[1]), "Not found")

        with self.connect():
            self.all_invalid(("request", {"sequence": 1}), ("send", {"message": {"type": "cfg"}, "split": 0}),
                             ("raw", {"hex": "3f7"}))

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
            self.refused("send", {"message": {"type": "cfg"}, "encrypt": True}), "Invalid argument"
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

    def test_what_an_agent_must_not_send_ends_its_connection(self):
        """A peer that lets it pass hides a fault of the agent."""
        for name, act in {
            "bad magic": lambda point: point.socket.sendall(b"GET / HTTP/1.1\r\n"),
            "body too long": lambda point: point.socket.sendall(MAGIC + (1024 * 1024 + 1).to_bytes(4, "big")),
            "no sequence": lambda point: point.socket.sendall(frame(b'{"type":"keyngreq"}')),
            "key before request": lambda point: point.exchange(),
            "public value beyond p": lambda point: (point.ask_for_key(), point.exchange(dh_key=to_text(SAFE_PRIME + 2))),
            "not encrypted": lambda point: (point.negotiate(), point.socket.sendall(frame(b"x" * 32))),
        }.items():
            with self.subTest(name), AccessPoint(self.port) as point, self.assertRaises(Ended):
                act(point)
                point.receive_body()

    def test_faults_that_no_agent_test_orders(self):
        for fault, seen in ({"fault": "wrong_key"}, 1), ({"fault": "truncated_body"}, 0.5):
            with self.subTest(fault), AccessPoint(self.port) as point:
                point.negotiate()
                self.call("misbehave", {**fault, "on": "event"})
                point.send("event")
                body = point.read(int(int.from_bytes(point.read(8)[4:], "big") * seen))
                self.assertNotIn(b"errcode", aes(point.key, body[:len(body) & ~15], decrypt=True)[16 * (seen < 1):])
                point.send("keepalive")
                self.assertEqual(point.receive()["type"], "ack")
        self.call("misbehave", {"fault": "bad_length", "length": 9})
        with self.assertRaises(ValueError):
            self.connect(negotiated=False).ask_for_key()
        self.all_invalid(*(("misbehave", argument) for argument in (
            {"fault": "explode"}, {"fault": "drop", "on": "keepalvie"}, {"fault": "drop", "time": 1})))


if __name__ == "__main__":
    unittest.main()

"""lab-cloud against a device that shares nothing with it, steered over the bus."""

import base64
import json
import unittest

from cloud_device import Device, frame, line, rsa
from peer_case import PeerCase, reason
from wire import Ended

MAC = "025A10000001"
OK = {"Result": 0}


class CloudTest(PeerCase):
    program = "lab-cloud"
    object = "lab.cloud"
    arguments = ("--bss", "127.0.0.1:0", "--business", "127.0.0.1:0,127.0.0.1:0,127.0.0.1:0")

    @classmethod
    def setUpClass(cls):
        super().setUpClass()
        cls.servers = [server["server"] for server in cls.call("peer")["servers"]]
        cls.ports = [int(server.partition(":")[2]) for server in cls.servers]

    def setUp(self):
        super().setUp()
        self.call("forget")
        self.call("set", {"business": self.servers[1:3], "acknowledge": ["InstallNotification"]})

    def device(self, server=1, enrolled=False, **options):
        device = Device(self.ports[server], **options)
        self.addCleanup(device.socket.close)
        if enrolled:
            device.enrol()
        return device

    def registered(self, mac=MAC):
        return {device["mac"]: device for device in self.call("devices")["devices"]}[mac]

    # ---- the protocol ------------------------------------------------------------------------------------------

    def test_enrolment_from_boot_to_heartbeat(self):
        named = [{"ServerAddr": "127.0.0.1", "ServerPort": port} for port in self.ports[1:3]]
        with self.device(server=0) as device:
            answer = device.ask("Boot", "rsa", Vendor="Acme", Model="M1", bootstrap="1")
            self.assertEqual(answer, {"Ack": "Boot", **OK, "BizPlat": named})
            self.assertEqual(self.call("peer")["state"], "boot")
        device = self.device()
        answer = device.ask("GetChallengeCode", "plain")
        device.code = answer.pop("ChallengeCode")
        self.assertEqual((answer, len(device.code)), ({"Ack": "GetChallengeCode", **OK}, 32))
        answer = device.activate(Model="M2", SN="S")
        self.assertEqual((answer["Ack"], answer["Result"]), ("Activate", 0))
        self.assertEqual(self.call("peer")["state"], "activating")
        self.assertEqual(self.registered()["state"], "registered")
        self.assertNotEqual(device.challenge(), None)
        answer = device.connect(IPAddr="10.9.8.7", Flag=0)
        self.assertEqual((answer["Ack"], answer["Result"], len(answer["SKey"])), ("Connect", 0, 16))
        self.assertEqual(device.ask("Heartbeat", IPAddr="10.9.8.6"), {"Ack": "Heartbeat", **OK})

        peer = self.call("peer")
        self.assertEqual({name: peer[name] for name in ("connected", "state", "server", "address", "mac", "client_key",
                                                        "server_key", "heartbeats", "received", "sent")},
                         {"connected": True, "state": "connected", "server": self.servers[1], "address": device.address,
                          "mac": MAC, "client_key": device.client_key, "server_key": device.server_key,
                          "heartbeats": 1, "received": 5, "sent": 5})
        entry = self.registered()
        self.assertRegex(entry.pop("last_heartbeat"), r"^\d\d:\d\d:\d\d\.\d{3}$")
        self.assertEqual(entry, {
            "mac": MAC, "state": "connected", "dev_id": device.identity["DevID"],
            "dev_token": device.identity["DevToken"], "connection": peer["connection"], "boots": 1, "activations": 1,
            "connects": 1, "heartbeats": 1,
            "facts": {"Vendor": "Acme", "Model": "M2", "SN": "S", "IPAddr": "10.9.8.6", "Flag": 0}})

        record = self.call("messages", {"direction": "both"})["messages"]
        self.assertEqual([entry["direction"] for entry in record], ["rx", "tx"] * 6)
        self.assertEqual([entry["cipher"] for entry in record], [
            "rsa", "client key", "plain", "plain", "rsa", "client key", "plain", "plain", "rsa", "client key",
            "server key", "server key"])
        self.assertEqual([entry["server"] for entry in record], self.servers[:1] * 2 + self.servers[1:2] * 10)
        self.assertEqual(self.call("messages", {"type": "Connect", "direction": "both"})["messages"], record[8:10])

        device.socket.close()
        again = self.device(server=2, identity=device.identity)
        self.assertEqual(again.enrol()["Result"], 0)
        other = self.device(server=3, mac="0A0B0C0D0E0F", enrolled=True)
        self.assertNotEqual(other.identity["DevID"], again.identity["DevID"])
        self.assertEqual(self.registered()["connects"], 2)
        other.socket.close()
        again.ask("Heartbeat")
        self.assertEqual((self.registered()["state"], self.registered("0A0B0C0D0E0F")["state"]), ("connected", "registered"))

    def test_identity_and_challenge_are_checked(self):
        device = self.device()
        device.code = "x" * 32
        self.assertEqual(device.activate()["Result"], -1, "nobody handed that code out")
        used = device.challenge()
        device.activate()
        device.code = used
        self.assertEqual(device.activate()["Result"], -1, "a code is good once")
        self.assertEqual(device.connect()["Result"], -1)
        for change in ({"DevID": "x"}, {"DevToken": "x"}, {"DevID": None}, {"DevToken": 5}):
            device.challenge()
            self.assertEqual(device.connect(**change)["Result"], -2, change)
        self.assertEqual(self.call("peer")["state"], "connecting")
        device.challenge()
        self.assertEqual(device.connect()["Result"], 0)

        self.call("forget", {"mac": MAC})
        self.assertEqual(self.refused("forget", {"mac": MAC}), "Not found")
        self.assertEqual(self.device(identity=device.identity).enrol()["Result"], -2)

    def test_servers_are_turned_off_and_on(self):
        before = self.call("statistics", {"segments": True})
        first, second, third = (self.device(server=n, mac="0A0B0C0D0E" + mac, enrolled=True)
                                for n, mac in ((1, "01"), (1, "02"), (2, "03")))
        self.call("turn", {"server": self.servers[1], "on": False})
        for device in (first, second):
            self.assertRaises(Ended, device.receive)
        self.assertRaises(ConnectionRefusedError, self.device, server=1)
        self.assertEqual(third.ask("Heartbeat"), {"Ack": "Heartbeat", **OK})
        self.call("turn", {"on": False})
        self.assertRaises(Ended, third.receive)
        self.call("turn", {"on": True})
        again = self.device(server=1, mac=first.mac, identity=first.identity, enrolled=True)

        after = self.call("statistics", {"segments": True})
        # Each frame is a segment, and as each connection begins and ends there are more.
        for way in ("received", "sent"):
            taken = after["segments"][way] - before["segments"][way]
            self.assertGreaterEqual(taken, after[way]["frames"] - before[way]["frames"] + 4, way)
            self.assertLess(taken, 200, way)
        counts = {name: after["answered"][name] - before["answered"][name] for name in ("Activate", "Connect", "Heartbeat")}
        self.assertEqual(counts, {"Activate": 3, "Connect": 4, "Heartbeat": 1})
        self.assertEqual((after["accepted"] - before["accepted"], after["connected"]), (4, 1))
        self.assertEqual([server["connected"] for server in after["servers"]], [0, 1, 0, 0])
        sent = {name: after["sent"][name] - before["sent"][name] for name in ("frames", "bytes")}
        self.assertEqual(sent["frames"], after["received"]["frames"] - before["received"]["frames"])
        self.assertGreater(sent["bytes"], 12 * sent["frames"])
        again.ask("Heartbeat")
        self.all_invalid(("turn", {}), ("turn", {"on": 1}), ("turn", {"on": True, "server": "127.0.0.9"}),
                         ("set", {"spread": 1}), ("statistics", {"x": 1}), ("statistics", {"segments": 1}))

    def test_many_devices_at_once(self):
        named = self.call("set", {"spread": True})["business"]
        for n in range(3):
            with self.device(server=0, mac=f"0A0B0C0D0F0{n}") as device:
                turned = device.ask("Boot", "rsa")["BizPlat"]
            self.assertEqual(turned, named[n % 2:] + named[:n % 2])
        self.call("set", {"spread": False})
        crowd = [self.device(mac=f"0A0B0C0E00{n:02X}", enrolled=n < 3) for n in range(100)]
        self.call("send", {"mac": "all", "message": {"RPCMethod": "ListPlugin", "ID": "7"}})
        for device in crowd[:3]:
            self.assertEqual(device.receive()["ID"], "7")
        crowd[99].challenge()

    def test_notifications(self):
        device = self.device(enrolled=True)
        device.send("PluginNotification", ID="1", Message="bQ==")
        self.assertEqual(device.ask("InstallNotification", ID="u-2"), {"Ack": "InstallNotification", "ID": "u-2", **OK})
        self.assertEqual(len(self.call("messages", {"type": "PluginNotification"})["messages"]), 1)
        self.call("set", {"acknowledge": ["PluginNotification"]})
        device.send("InstallNotification", ID="3")
        self.assertEqual(device.ask("PluginNotification", ID="4"), {"Ack": "PluginNotification", "ID": "4", **OK})

    def test_every_length_and_every_cut(self):
        device = self.device()
        size = len(json.dumps(device.message("Boot", CKey="0" * 16, Vendor="")).encode())
        for length in (255, 256, 257, 511, 512, 3 * 256):
            # The first 256 fill a whole block with zeros.
            self.assertEqual(device.ask("Boot", "rsa", Vendor="v" * (length - size))["Result"], 0, length)
        device.enrol()
        for byte in device.packed(device.message("Heartbeat")):
            device.socket.sendall(bytes([byte]))
        self.assertEqual(device.receive()["Result"], 0)
        longest = device.message("Heartbeat", x="")
        longest["x"] = "x" * (12271 - len(json.dumps(longest)))
        packed = device.packed(longest)
        self.assertEqual(len(packed), 12 + 16366)
        stream = device.packed(device.message("Heartbeat")) * 3 + packed
        device.socket.sendall(stream[:100])
        device.socket.sendall(stream[100:])
        for _ in range(4):
            self.assertEqual(device.receive(), {"Ack": "Heartbeat", **OK})

    # ---- the bus object ----------------------------------------------------------------------------------------

    def test_request_takes_the_reply_to_method_and_id(self):
        device = self.device(enrolled=True)
        first = self.started("request", {"RPCMethod": "ListPlugin"})
        asked = device.receive()
        self.assertEqual(set(asked), {"RPCMethod", "ID"})
        second = self.started("request", {"message": {"RPCMethod": "Stop", "ID": asked["ID"]}, "mac": MAC, "timeout": 8000})
        stop = device.receive()
        # The right number under another method, and the right method with another number, are no replies.
        device.reply({"RPCMethod": "Run", "ID": asked["ID"]})
        device.reply({"RPCMethod": "Stop", "ID": "0"})
        device.reply({"RPCMethod": "Stop", "ID": 7})
        device.reply(stop, Result=-14, FailReason="no such")
        device.reply(asked, Plugin=[{"Run": 1}])
        for process, expected in ((second, {"Ack": "Stop", "ID": asked["ID"], "Result": -14, "FailReason": "no such"}),
                                  (first, {"Ack": "ListPlugin", "ID": asked["ID"], **OK, "Plugin": [{"Run": 1}]})):
            out, errors = process.communicate(timeout=10)
            self.assertEqual((process.returncode, json.loads(out or "null")), (0, expected), errors)

    def test_parameters_are_coded_and_decoded(self):
        device = self.device(enrolled=True)

        def text(value):
            return base64.b64encode(value.encode()).decode()

        message = {"RPCMethod": "SetPluginParams", "Parameter": {"a": [1]}}
        for argument, sent, returned, shown in (
            ({"message": message}, text('{"a":[1]}'), text('{"b":{"c":"é"}}'), {"b": {"c": "é"}}),
            ({"message": message, "parameter_text": "[not JSON"}, text("[not JSON"), text("neither"), "neither"),
            ({"message": {**message, "Parameter": "as it is"}}, "as it is", "no base64", None),
            (message, {"a": [1]}, None, None),
        ):
            with self.subTest(argument=argument):
                waiting = self.started("request", argument)
                asked = device.receive()
                self.assertEqual(asked["Parameter"], sent)
                device.reply(asked, **({} if returned is None else {"return_Parameter": returned}))
                reply = json.loads(waiting.communicate(timeout=10)[0])
                self.assertEqual((reply.get("return_Parameter"), reply.get("return")), (returned, shown))

    def test_request_without_an_answer(self):
        for method, argument in (("request", {"RPCMethod": "Run"}), ("send", {"RPCMethod": "Run"}), ("raw", {"hex": "00"})):
            self.assertEqual(self.refused(method, argument), "Not found")
        device = self.device()
        device.challenge()
        self.assertEqual(self.refused("request", {"RPCMethod": "Run"}), "Not found", "no key yet")
        device.enrol()
        self.assertEqual(self.refused("request", {"message": {"RPCMethod": "Run"}, "timeout": 50}),
                         "Request timed out")
        self.assertEqual(self.refused("request", {"message": {"RPCMethod": "Run"}, "mac": "0A0B0C0D0E0F"}),
                         "Not found")
        waiting = self.started("request", {"RPCMethod": "Run"})
        device.receive()
        device.receive()
        device.socket.close()
        self.assertEqual(reason(waiting.communicate(timeout=4)[1]), "Not found")

        with self.device(enrolled=True):
            self.all_invalid(("request", {"message": {"RPCMethod": "Run"}, "timeout": 0}))

    def test_send_in_every_form(self):
        device = self.device()
        self.call("send", {"early": 1})
        self.assertEqual(device.receive(), {"early": 1})
        device.code = "0" * 32
        device.activate()
        self.call("send", {"RPCMethod": "Run"})
        self.assertEqual(device.receive(), {"RPCMethod": "Run"}, "under the client key")
        device.enrol()
        self.call("send", {"message": {"RPCMethod": 5, "ID": None}, "repeat": 3})
        self.assertEqual([device.receive() for _ in range(3)], [{"RPCMethod": 5, "ID": None}] * 3)
        self.call("send", {"message": {"RPCMethod": "Run"}, "encrypt": False, "split": 9, "interval": 400})
        self.assertEqual(len(device.socket.recv(1000)), 9)
        device.read(12 + 30 - 9)
        self.call("raw", {"hex": "515a5300"})
        self.assertEqual(device.read(4), b"QZS\0")

        other = self.device(mac="0A0B0C0D0E0F")
        other.challenge()
        self.call("send", {"message": {"to": "the first"}, "mac": MAC})
        self.call("send", {"to": "the newest"})
        self.assertEqual((device.receive()["to"], other.receive()["to"]), ("the first", "the newest"))

    def test_traffic_is_shown_as_it_passes(self):
        def act():
            with self.device(server=2) as device:
                device.challenge()

        shown = [(kind, entry) for notification in self.shown_while(act) for kind, entry in notification.items()]
        self.assertEqual([kind for kind, _ in shown], ["connected", "rx", "tx", "disconnected"])
        self.assertEqual({entry["server"] for _, entry in shown}, {self.servers[2]})
        self.assertEqual(shown[1][1]["message"], {"RPCMethod": "GetChallengeCode", "MAC": MAC})

    # ---- faults ------------------------------------------------------------------------------------------------

    def test_what_a_device_must_not_send_ends_its_connection(self):
        """A peer that lets it pass hides a fault of the agent."""
        good = {"RPCMethod": "GetChallengeCode", "MAC": MAC}
        boot = {"RPCMethod": "Boot", "MAC": MAC, "CKey": "0" * 16}
        under_rsa = lambda message: rsa(json.dumps(message).encode(), Device.modulus)
        for name, body in {
            "no end of line": base64.b64encode(json.dumps(good).encode()),
            "no base64": b"!!!!\r\n",
            "odd MAC": line(json.dumps({**good, "MAC": "02:5A:10:00:00:01"}).encode()),
            "Boot that is not encrypted": line(json.dumps(boot).encode()),
            "challenge that is encrypted": line(under_rsa(good)),
            "short CKey": line(under_rsa({**boot, "CKey": "0" * 15})),
            "half a block": line(under_rsa(boot)[:128]),
        }.items():
            with self.subTest(name), self.device(server=0) as device:
                device.socket.sendall(frame(body))
                self.assertTrue(device.closed_by_peer())
        for seal in ("plain", "rsa"):
            with self.subTest(seal), self.device(enrolled=True) as device, self.assertRaises(Ended):
                device.ask("Heartbeat", seal)

    def test_faults_that_no_agent_test_orders(self):
        for fault in ("bad_magic", "bad_length", "no_crlf", "bad_base64", "wrong_key", "bad_json"):
            with self.subTest(fault), self.device(enrolled=True) as device:
                self.call("misbehave", {"fault": fault, "on": "Heartbeat", **({"length": 9} if "length" in fault else {})})
                self.assertEqual(device.ask("InstallNotification", ID="1")["ID"], "1", "another answer suffered")
                with self.assertRaises(ValueError):
                    device.ask("Heartbeat")
                self.assertEqual(self.call("peer")["faults"], "none", "it was used up")
        with self.subTest("fill"), self.device(enrolled=True) as device:
            self.call("misbehave", {"fault": "fill", "on": "Heartbeat", "length": 16384})
            device.send("Heartbeat")
            text = device.receive_body()
            self.assertEqual((len(text), text[-3:]), (16384, b" \r\n"))
        with self.subTest("truncated body"), self.device(enrolled=True) as device:
            self.call("misbehave", {"fault": "truncated_body", "on": "Heartbeat"})
            device.send("Heartbeat")
            device.read(int.from_bytes(device.read(12)[8:], "big") // 2)
            self.assertEqual(device.ask("Heartbeat"), {"Ack": "Heartbeat", **OK})
        with self.subTest("hang up"):
            self.call("misbehave", {"fault": "hang_up", "server": self.servers[2], "times": 2})
            self.assertEqual([self.device(server=2).closed_by_peer() for _ in range(2)], [True] * 2)
            self.device(server=2).challenge()
        self.all_invalid(*(("misbehave", argument) for argument in (
            {"fault": "drop", "on": "RequestConnectBSS"}, {"fault": "drop", "server": "127.0.0.2"}, {"fault": "prefix"})))


if __name__ == "__main__":
    unittest.main()

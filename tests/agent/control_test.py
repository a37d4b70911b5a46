"""What the gateway commands: envelopes, the eight commands, and the device actions that follow the reply."""

import base64
import json
import unittest

from desk import LinkedCase, UnkeyedCase, call

AGENT_MAC = "025A10000001"


def encoded(digits):
    return base64.b64encode(digits.encode()).decode()


class Envelope(UnkeyedCase):
    def test_requests_that_are_not_answered(self):
        put = lambda message, line: self.put(line, message)
        for kind, member, good, end in (("get_status", "get", [{"name": "cputemp"}], "\n"),
                                        ("control", "data", [{"command": "reset"}], "\n"),
                                        ("cfg", "set", {"ledswitch": {"status": "OFF"}}, "")):
            whole = {"type": kind, "sequence": 7, "mac": "x", member: good}
            for name, wrong, line in (("sequence", ("7", None, [7], True), "[ERROR] invalid sequence" + end),
                                      ("mac", (7, None, ["x"]), "[ERROR] invalid mac" + end),
                                      (member, ("x", None, 5, {} if member != "set" else []),
                                       "[ERROR] invalid %s\n" % member)):
                put({key: value for key, value in whole.items() if key != name}, line)
                for value in wrong:
                    put({**whole, name: value}, line)
            put({"type": kind}, "[ERROR] invalid sequence" + end)
        for kind in ("deassociation", "getrssiinfo", "startaprssiquery", "startstabsstransitionrequest"):
            put({"type": kind, "mac": "x", "data": {}}, "[ERROR] invalid sequence\n")
            put({"type": kind, "sequence": 7, "mac": ["x"], "data": {}}, "[ERROR] invalid mac\n")
        for message, line in (({"kind": "x"}, "type not found"), ({"type": 5, "sequence": 1}, "type not found"),
                              ([{"type": "control"}], "type not found"),
                              ({"type": "Control", "sequence": 1, "mac": "x", "data": []}, "unknown type: Control"),
                              ({"type": "", "sequence": 1}, "unknown type: ")):
            put(message, "[ERROR] (arvok) %s\n" % line)
        put({"type": "qlink", "sequence": 1, "mac": "x"}, "[ERROR] (10001) Arvok AP without this interface\n")
        # Any number is a sequence, and is given back as it came; nothing is left of the errors before.
        for sequence in ("0", "-5", "1.5", "9007199254740992", "4294967296"):
            reply = '{"type":"ack","sequence":%s,"mac":"%s","errcode":0,"errmsg":""}' % (sequence, AGENT_MAC)
            put({"type": "control", "mac": "", "data": [], "sequence": json.loads(sequence)},
                "[INFO] (arvok) -> %s (%d)\n" % (reply, len(reply)))
        self.agent.expect('"sequence":4294967296,"mac":"%s"' % AGENT_MAC)
        self.assert_logged()
        self.assertEqual([name for name in self.calls() if "get" not in name],
                         ["qzcap_delete_vsie_beacontx_by_name"])  # as at every start


class Commands(LinkedCase):
    def table(self, rows, functions):
        for elements, error, calls in rows:
            with self.subTest(elements=str(elements)[:200]):
                self.assertEqual(self.control(*elements), error)
                self.assertEqual(self.journal(*functions), calls)

    def test_elements_without_effect(self):
        agent = self.link()
        for elements, error in (((), (0, "")), (({"command": "save"},), (0, "")),
                                (({"command": "save", "more": [1]},), (0, "")),
                                (({"command": "Save"},), (10001, "unknown command: Save")),
                                (({"command": ""},), (10001, "unknown command: ")),
                                (({"command": "x" * 300},), (10001, ("unknown command: " + "x" * 300)[:255]))):
            with self.subTest(elements=elements):
                self.assertEqual(self.control(*elements), error)
        self.assertEqual(self.control({}, {"command": 7}, "reset", None, {"command": "save"}), (0, ""))
        for _ in range(4):
            agent.expect("[ERROR] invalid command\n")
        self.assertNotIn("qzcap_reset", self.calls())

    def test_deassociation(self):
        self.link()
        name, phone, tablet = "qzcap_wifi_deassociation", "02C0FFEE0002", "02c0ffee0003"
        command = lambda **members: ({"command": "deassociation", **members},)
        self.table([(command(**members), (10002, "invalid mac"), [])
                    for members in ({}, {"mac": 5}, {"mac": None}, {"mac": {}}, {"mac": [phone, 5]}, {"mac": []})] + [
            (command(mac="nobody"), (10004, name + " failed: no such station: nobody"), [(name, {"macs": ["nobody"]})]),
            (command(mac=phone), (0, ""), [(name, {"macs": [phone]})]),
            (command(mac=[tablet, "02C0FFEE0004"]), (0, ""), [(name, {"macs": [tablet, "02C0FFEE0004"]})]),
        ], [name])
        active = [host["active"] for host in self.state()["laninfo"].values()]
        self.assertEqual(active, [1, 0, 0, 0, 0, 0])

    def test_beacon_elements(self):
        self.link()
        add, act = "qzcap_add_vsie_beacontx", "qzcap_vsie_beacontx_action"
        good = {"command": "sendvsie", "id": "a", "band": "2.4G", "data": encoded("dd05"), "persist": 60}
        without = lambda *names: ({key: value for key, value in good.items() if key not in names},)
        rows = []
        for name, wrong in (("id", 5), ("band", None), ("data", []), ("persist", "60")):
            for element in (without(name), ({**good, name: wrong},)):
                rows.append((element, (10002, "invalid " + name), []))
        rows += [(without("id", "band"), (10002, "invalid id"), []),
                 (without("band", "data"), (10002, "invalid band"), []),
                 (without("data", "persist"), (10002, "invalid data"), []),
                 (({**good, "data": "?"},), (10002, "invalid data"), []),
                 (({**good, "data": encoded("0" * 513)},), (10002, "invalid data"), []),
                 (({**good, "id": "i" * 256},), (10002, "invalid id"), [])]
        index = None

        def sent(digits, lifetime, payload):
            nonlocal index
            former, index = index, 1 if index == 0 else 0
            record = {"name": "arvokclt", "flag": 1, "lifetime": lifetime, "data": payload}
            begin = [(add, {"record": record}), (act, {"index": index, "action": "start"})]
            if former is None:
                return begin
            return begin + [(act, {"index": former, "action": "stop"})]  # its index is free, and the next one's

        for persist, lifetime in ((0, 300), (1, 1), (300, 300), (301, 300), (1000, 300), (-5, 300), (1e12, 300)):
            rows.append((({**good, "persist": persist, "band": ""},), (0, ""), sent("dd05", lifetime, "dd05")))
        # Two digits to a byte; an odd last one is a high half; letters in either case; what is no digit counts 0.
        for digits, payload in (("dd05", "dd05"), ("dd0", "dd00"), ("f", "f0"), ("DdAB", "ddab"), ("zz1g", "0010"),
                                ("ab" * 255, "ab" * 255)):
            rows.append((({**good, "data": encoded(digits)},), (0, ""), sent(digits, 60, payload)))
        # 512 digits fill the buffer; that an element has at most 255 bytes is the platform's to say.
        for digits in ("cd" * 256, "cd" * 255 + "c"):
            full = sent(digits, 60, (digits + "0")[:512])[:1]
            rows.append((({**good, "data": encoded(digits)},),
                         (10004, add + " failed: data: longer than 255 bytes"), full))
        self.table(rows, [add, act])
        self.assertEqual([e["state"] for e in self.state()["vsie_beacontx"].values()].count("started"), 1)

    def test_stopping_elements(self):
        self.link()
        add, act = "qzcap_add_vsie_beacontx", "qzcap_vsie_beacontx_action"
        send = lambda name: {"command": "sendvsie", "id": name, "band": "5G", "data": encoded("dd05"), "persist": 0}
        stop = lambda **members: ({"command": "stopvsie", **members},)
        stopped = lambda index: [(act, {"index": index, "action": "stop"})]
        missing = (10002, "id not found")
        self.assertEqual(self.control(send("a"), send("twice"), send("twice"), send("i" * 255), send("")), (0, ""))
        self.fail_call(act)
        self.assertEqual(self.control(send("not started")), (10004, act + " failed: on demand"))
        self.fail_call(add, reason="")
        self.assertEqual(self.control(send("not added")), (10004, add + " failed: "))
        self.journal()
        self.table([(stop(), (10002, "invalid id"), []), (stop(id=1), (10002, "invalid id"), []),
                    (stop(id="b"), missing, []), (stop(id="not started"), missing, []),
                    (stop(id="not added"), missing, []),
                    (stop(id="twice"), (0, ""), stopped(2)), (stop(id="twice"), missing, []),
                    (stop(id="i" * 256), (10002, "invalid id"), []),
                    (stop(id="i" * 255), (0, ""), stopped(1)), (stop(id=""), (0, ""), stopped(3))], [act])
        self.fail_call(act, reason="stuck")
        self.table([(stop(id="a"), (10004, act + " failed: stuck"), stopped(0)), (stop(id="a"), missing, [])], [act])

    def test_probe_responses(self):
        self.link()
        name = "qzcap_add_vsie_proberesp"
        good = {"command": "proberesp", "id": "a", "band": "x", "mac": "02:AA", "data": encoded("dd0")}
        without = lambda *names: ({key: value for key, value in good.items() if key not in names},)
        rows = []
        for member in ("id", "band", "data", "mac"):
            rows += [(without(member), (10002, "invalid " + member), []),
                     (({**good, member: 5},), (10002, "invalid " + member), [])]
        rows += [(without("data", "mac"), (10002, "invalid data"), []),
                 (without("band", "mac"), (10002, "invalid band"), []),
                 (({**good, "data": encoded("0" * 513)},), (10002, "invalid data"), []),
                 ((good,), (0, ""), [(name, {"record": {"mac": "02:AA", "flag": 0, "data": "dd00"}})]),
                 (({**good, "mac": "", "data": encoded("1")},), (10004, name + " failed: mac: must not be empty"),
                  [(name, {"record": {"mac": "", "flag": 0, "data": "10"}})])]
        self.table(rows, [name])

    def test_scan_and_several_failures(self):
        self.link()
        scan = {"command": "channelscan"}
        self.assertEqual((self.control(scan), self.journal()), ((0, ""), [("qzcap_wifi_channelscan", {})]))
        for mode, reason in (("error", "busy"), ("error", "r" * 300)):
            self.fail_call("qzcap_wifi_channelscan", reason=reason, mode=mode)
            self.assertEqual(self.control(scan), (10004, ("qzcap_wifi_channelscan failed: " + reason)[:255]))
        self.fail_call("qzcap_wifi_channelscan", reason="busy")
        bad = {"command": "deassociation"}
        self.journal()
        self.assertEqual(self.control(scan, {"command": "x"}, bad, scan), (10002, "invalid mac"))
        self.assertEqual(len(self.journal()), 2)
        self.assertEqual(self.control(bad, {"command": "x"}, scan), (10001, "unknown command: x"))
        self.assertEqual(self.control(), (0, ""))


class Actions(LinkedCase):
    def test_reply_then_reset_then_reboot(self):
        agent = self.link()
        for function in ("qzcap_reset", "qzcap_reboot"):
            self.fail_call(function)
        elements = [{"command": "reboot"}, {"command": "nonsense"}, {"command": "reset"}, {"command": "reboot"}]
        self.assertEqual(self.control(*elements), (10001, "unknown command: nonsense"))
        for line in ("(10001) unknown command: nonsense\n", '-> {"type":"ack"', "[ERROR] qzcap_reset failed\n",
                     "[ERROR] qzcap_reboot failed\n"):
            agent.expect(line)
        self.assertEqual(self.journal(), [("qzcap_reset", {}), ("qzcap_reboot", {})])

        for elements, calls in (([{"command": "reboot"}, {"command": "reset"}], ["qzcap_reset", "qzcap_reboot"]),
                                ([{"command": "reboot"}], ["qzcap_reboot"]), ([{"command": "reset"}], ["qzcap_reset"])):
            self.assertEqual(self.control(*elements), (0, ""))
            self.control({"command": "save"})  # its reply comes after what the first one left to do
            self.assertEqual([name for name, _ in self.journal()], calls)
        self.assertEqual(self.state()["waninfo"]["onlinetime"], 86400)

    def test_reply_does_not_wait_for_the_reset(self):
        agent = self.link()
        self.fail_call("qzcap_reset", mode="timeout")
        call("lab.gateway", "send", {"type": "control", "data": [{"command": "reset"}]})
        self.wait_for_message("ack")
        self.assertNotIn("qzcap_reset failed", agent.lines())
        agent.expect("[ERROR] qzcap_reset failed\n")

    def test_message_without_a_reply(self):
        agent = self.link()
        for message, line in (({"type": "qlink"}, "(10001) Arvok AP without this interface"),
                              ({"type": "cFG", "set": {}}, "(arvok) unknown type: cFG")):
            call("lab.gateway", "send", message)
            agent.expect("[ERROR] %s\n" % line)
        self.assertEqual(self.control(), (0, ""))
        self.assertEqual(len(self.received()) - len(self.received("keepalive")), 1)
        self.assertEqual(self.journal(), [])


if __name__ == "__main__":
    unittest.main(verbosity=2)

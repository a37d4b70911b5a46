"""What the gateway does on the platform's bus: calls, with what comes of odd objects, and subscriptions."""

import json
import os
import subprocess
import time
import unittest

from desk import LinkedCase, UnkeyedCase, call, wait_until
from local_test import Client, question

LAN = 5
ARGUMENTS = {"text": "ä\n\"", "number": 7, "big": 123456789012345, "negative": -1, "fraction": 1.5, "yes": True,
             "none": None, "list": [1, "two", {"three": 3}], "table": {}}


class BridgeCase(LinkedCase):
    def ask(self, message, timeout=10):
        """The reply without its envelope, its members in their order."""
        reply = call("lab.gateway", "request", {"message": {"sequence": 71, **message}, "timeout": timeout * 1000},
                     timeout + 5)
        self.assertEqual([reply.pop(key) for key in ("sequence", "mac")], [71, "025A10000001"])
        return reply

    def single(self, obj, method, timeout=10, **more):
        return self.ask({"type": "ubus_call", "object": obj, "method": method, **more}, timeout)

    def subscribe(self, obj, enable=1):
        reply = self.ask({"type": "ubus_subscribe", "object": obj, "enable": enable})
        self.assertEqual(list(reply), ["type", "errcode", "errmsg"])
        self.assertEqual(reply["type"], "ack")
        return reply["errcode"], reply["errmsg"]


class Calls(BridgeCase):
    def assert_reply(self, reply, errcode, errmsg, **members):
        expected = {"type": "ubus_result", "errcode": errcode, "errmsg": errmsg, **members}
        self.assertEqual(json.dumps(reply), json.dumps(expected))

    def test_list_of_calls(self):
        self.link()
        self.publish("odd")
        element = lambda obj="odd", method="echo", message=ARGUMENTS: {"object": obj, "method": method,
                                                                      "message": message}
        failed = lambda **members: {key: value for key, value in element(**members).items() if key != "message"}
        no_object = "qzcap_get_objid_by_name failed: nobody"
        no_method = "ubus_invoke failed: Method not found"
        led = {"object": "qzcapd.emulator", "method": "state", "message": {}}
        for data, results, error in (
                ([], [], (0, "")),
                ([element(), element(message={})], [element(), element(message={})], (0, "")),
                ([element(obj="nobody"), element()], [failed(obj="nobody"), element()], (10004, no_object)),
                ([element(obj="nobody"), element(method="x")], [failed(obj="nobody"), failed(method="x")],
                 (10004, no_method)),
                ([led], [{**led, "message": self.state()}], (0, ""))):
            with self.subTest(data=data):
                self.assert_reply(self.ask({"type": "ubus_call", "data": data}), *error, data=results)

    def test_single_call(self):
        self.link()
        self.publish("odd")
        for more, message in (({}, {}), ({"message": ARGUMENTS}, ARGUMENTS), ({"message": "text"}, {}),
                              ({"message": [1]}, {}), ({"data": {"object": "nobody"}}, {})):
            with self.subTest(more=more):
                self.assert_reply(self.single("odd", "echo", **more), 0, "", object="odd", method="echo", data=message)
        for obj, method, error in (("nobody", "echo", "qzcap_get_objid_by_name failed: nobody"),
                                   ("", "echo", "qzcap_get_objid_by_name failed: "),
                                   ("n" * 300, "echo", ("qzcap_get_objid_by_name failed: " + "n" * 300)[:255]),
                                   ("odd", "", "ubus_invoke failed: Method not found"),
                                   ("odd", "refuse", "ubus_invoke failed: Permission denied"),
                                   ("odd", "quiet", "blobmsg_format_json failed")):
            with self.subTest(obj=obj, method=method):
                self.assert_reply(self.single(obj, method), 10004, error, object=obj, method=method)
        reply = self.single("odd", "deep")
        self.assertIn(reply["errmsg"], ("blobmsg_format_json failed", "cJSON_Parse failed"))
        self.assert_reply(reply, 10004, reply["errmsg"], object="odd", method="deep")

    def test_object_that_leaves_during_a_call(self):
        agent = self.link()
        process = self.publish("odd")
        reply = self.single("odd", "vanish", 30)
        self.assertEqual((reply["errcode"], list(reply)[-1]), (10004, "method"))
        self.assertRegex(reply["errmsg"], "^ubus_invoke failed: [A-Z]")
        self.assertEqual(process.wait(20), 0)
        self.assertEqual(self.single("odd", "echo")["errmsg"], "qzcap_get_objid_by_name failed: odd")
        agent.expect("[ERROR] (10004) qzcap_get_objid_by_name failed: odd\n")

    def test_list_whose_reply_is_full_is_not_gone_through(self):
        self.link()
        self.publish("odd")
        element = lambda size: {"object": "odd", "method": "work", "message": {"ms": 0, "size": size}}
        count = lambda: self.single("odd", "work", message=element(0)["message"])["data"]["count"]
        before = count()
        call("lab.gateway", "send", {"message": {"type": "ubus_call", "sequence": 1, "mac": "x", "data": [element(250_000)] * 20}})
        after = count()
        reply = json.loads(self.received_texts("ubus_result")[-2])
        self.assertEqual((reply["errcode"], reply["errmsg"], len(reply["data"])), (10004, "reply too long", 20))
        answered = [item for item in reply["data"] if "message" in item]
        self.assertEqual(answered, reply["data"][:len(answered)])
        self.assertEqual((len(answered), after - before - 1), (2, 3))

    def test_own_objects_are_not_called(self):
        """Nobody would answer: the agent would wait for itself."""
        self.link()
        for name in ("qzapp.arvokclt", "qzapp.arvok*"):
            began = time.monotonic()
            reply = self.single(name, "postmsg", 40, message={"CmdType": "GET_STATUS"})
            self.assertLess(time.monotonic() - began, 1)
            self.assertEqual((reply["errcode"], list(reply)[-1]), (10004, "method"))
        self.assertEqual(reply["errmsg"], "ubus_invoke failed: Operation not supported")


class Refused(UnkeyedCase):
    def test_requests_that_are_not_answered(self):
        self.publish("odd")
        put = lambda line, **message: self.put(line + "\n", message)
        envelope = {"sequence": 1, "mac": "x"}
        valid = {"object": "odd", "method": "echo", "message": {}}
        for kind in ("ubus_call", "ubus_subscribe"):
            put("[ERROR] invalid sequence", type=kind, mac="x", **valid)
            put("[ERROR] invalid mac", type=kind, sequence=1, **valid)
        for name in ("object", "method", "message"):
            for wrong in (5, None, "x" if name == "message" else {}, []):
                element = {**valid, name: wrong}
                put("[ERROR] invalid " + name, type="ubus_call", **envelope, data=[valid, element, valid])
                if name != "message":
                    put("[ERROR] invalid " + name, type="ubus_call", **envelope, **element)
        for element in (5, None, "x", [], {}):
            put("[ERROR] invalid object", type="ubus_call", **envelope, data=[element])
        for wrong in ("1", None, True, {}):
            put("[ERROR] invalid enable", type="ubus_subscribe", **envelope, object="odd", enable=wrong)
        put("[ERROR] invalid object", type="ubus_subscribe", **envelope, object=5, enable=1)
        # What the bus library does not read is told: it takes no message that nests this deep.
        deep = json.loads('{"a":' * 100 + "1" + "}" * 100)
        put("[ERROR] (10004) blobmsg_add_json_from_string failed", type="ubus_call", **envelope,
            **{**valid, "message": deep})
        self.agent.expect("blobmsg_add_json_from_string failed\n[INFO] (arvok) -> ")
        self.assert_logged()


class Slow(BridgeCase):
    """Objects that take their time, or never answer: nobody waits for them but who has called them."""

    def begin(self, *elements):
        """Has the gateway call the methods, of an object that comes with it, and waits until the first has been called."""
        called = self.publish("odd").stdout
        data = [{"object": obj, "method": method, "message": {}} for obj, method in elements]
        call("lab.gateway", "send", {"type": "ubus_call", "sequence": 71, "mac": "x", "data": data})
        self.assertEqual(called.readline(), b"hang\n")

    def test_others_are_served_meanwhile(self):
        """Its sender waits, and so do its next requests: they are answered in their order."""
        agent = self.link()
        self.publish("odd")
        self.publish("even")
        self.assertEqual(self.subscribe("even"), (0, ""))
        self.forget()
        began = time.monotonic()
        for ms in (3000, 20):
            call("lab.gateway", "send", {"message": {"type": "ubus_call", "sequence": ms, "mac": "x", "object": "odd",
                                                     "method": "work", "message": {"ms": ms, "size": 5}}})
        call("lab.gateway", "send", {"message": {"type": "get_status", "sequence": 4, "get": [{"name": "cputemp"}]}})
        agent.expect('"ms":3000')
        client = Client()
        for notified in range(3):
            asked = time.monotonic()
            client.send(question(1))
            self.assertTrue(client.receive())
            self.assertEqual(call("qzapp.arvokclt", "postmsg", {"CmdType": "GET_STATUS"})["arvokclt"]["arvok_status"], 1)
            call("even", "notify", {"method": "n", "message": {}})
            self.wait_for_message("ubus_notify", notified + 1, 1)
            self.assertLess(time.monotonic() - asked, 1)
        client.close()
        self.assertEqual(self.received("ubus_result"), [])
        reply = self.wait_for_message("status")[-1]
        self.assertGreater(time.monotonic() - began, 3)
        self.assertEqual(reply["errcode"], 0)
        first, second = self.received("ubus_result")
        for reply, ms, count in ((first, 3000, 1), (second, 20, 2)):
            self.assertEqual((reply["sequence"], reply["errcode"], reply["data"]), (ms, 0, {"count": count, "text": "xxxxx"}))
        self.assertEqual([m["type"] for m in self.received() if m["type"] in ("ubus_result", "status")],
                         ["ubus_result", "ubus_result", "status"])

    def test_calls_that_are_never_answered(self):
        """Each has twenty seconds. In a list, who has not answered is not asked again, and nobody after two of them. The
        acknowledgements of the keepalives, which lie behind the request, are not missed meanwhile."""
        self.hold_timers()
        agent = self.link()
        self.publish("even")
        keepalives = self.peer()["keepalives"]
        self.begin(*[("odd", "hang")] * 50, ("odd", "echo"), ("even", "hang"), ("odd", "echo"), ("odd", "heard"))
        for _ in range(19):
            self.timers.ahead(2)
        self.assertEqual(self.received("ubus_result"), [])
        self.assertGreater(self.peer()["keepalives"], keepalives)
        self.timers.ahead(3)
        reply, = self.wait_for_message("ubus_result")
        self.assertEqual((reply["errcode"], reply["errmsg"]), (10004, "ubus_invoke failed: Request timed out"))
        self.assertEqual(["message" in item for item in reply["data"]], [False] * 50 + [True] + [False] * 3)
        self.assertEqual(self.single("odd", "echo")["data"], {})
        self.assertEqual((self.peer()["connections"], self.peer()["state"]), (1, "linked"), agent.lines()[-3000:])

    def test_end_of_the_agent(self):
        agent = self.link()
        self.begin(*[("odd", "hang")] * 3)
        began = time.monotonic()
        self.assertEqual(agent.stop(), 0)
        self.assertLess(time.monotonic() - began, 1)

    def test_end_of_the_connection(self):
        """What was called for it is nobody's on the next one."""
        self.hold_timers()
        agent = self.link()
        self.begin(*[("odd", "hang")] * 3)
        self.misbehave(fault="close")
        with self.assertRaises(subprocess.CalledProcessError):
            call("lab.gateway", "send", {"type": "nobody_knows"})
        for _ in range(2):
            self.timers.ahead(1)
        agent.expect("[ERROR] (arvok) tcp connection broken\n")
        self.assertEqual(self.received("ubus_result"), [])
        self.forget()
        self.pass_until(lambda: self.received("dev_report"), "linked again")
        for _ in range(15):
            self.timers.ahead(2)
        self.assertEqual(self.received("ubus_result"), [])
        self.assertEqual(self.single("odd", "echo")["data"], {})


class Subscriptions(BridgeCase):
    def notified(self, obj, method, message):
        call(obj, "notify", {"method": method, "message": message})

    def told(self):
        """What the gateway was told since the last look. The agent hears it in the turn of the loop after that, and passes it
        on in one more: a third reply on the link shows that nothing more is on its way."""
        for _ in range(3):
            self.status("cputemp")
        told = [(m["object"], m["method"], m["data"]) for m in self.received("ubus_notify")]
        for message in self.received("ubus_notify"):
            self.assertEqual(list(message), ["type", "sequence", "mac", "object", "method", "data"])
            self.assertEqual(message["mac"], "025A10000001")
        self.forget()
        return told

    def test_notifications_are_passed_on(self):
        agent = self.link()
        self.publish("odd")
        self.publish("even")
        self.assertEqual(self.subscribe("odd"), (0, ""))
        agent.expect("[DEBUG] arvok_ubus_subscribe 'arvok' 'odd' '1' \n")
        self.assertEqual(self.subscribe("even", 7), (0, ""))
        self.assertEqual(self.subscribe("odd"), (10002, "object 'odd' is subscribed"))
        expected = []
        for number, obj in enumerate(("odd", "even", "odd", "odd", "even")):
            self.notified(obj, "n%d" % number, {**ARGUMENTS, "count": number})
            expected.append((obj, "n%d" % number, {**ARGUMENTS, "count": number}))
        self.notified("odd", "", {})
        self.assertEqual(self.told(), expected + [("odd", "", {})])
        sequences = [m["sequence"] for m in self.received()]
        self.assertEqual(sequences, sorted(sequences))

        self.assertEqual(self.subscribe("odd", 0), (0, ""))
        agent.expect("[DEBUG] arvok_ubus_subscribe 'arvok' 'odd' '0' \n")
        self.assertEqual(self.subscribe("odd", 0), (10002, "object 'odd' is not subscribed"))
        self.notified("odd", "late", {})
        self.notified("even", "still", {})
        self.assertEqual(self.told(), [("even", "still", {})])

    def test_noisy_object(self):
        """The bus drops what the agent does not read in time. What it reads, it passes on, and it lives. The link may
        not: so many acknowledgements come at once that one is cut where its length gets lost."""
        agent = self.link()
        self.publish("odd")
        self.assertEqual(self.subscribe("odd"), (0, ""))
        for count, size in ((20000, 4000), (30, 900000)):
            call("odd", "burst", {"count": count, "size": size}, 60)
            reply = call("qzapp.arvokclt", "postmsg", {"CmdType": "GET_STATUS"}, 60)
            self.assertEqual(reply["CmdType"], "GET_STATUS")
        self.assertEqual({message["method"] for message in self.received("ubus_notify")}, {"burst"})
        self.assertIsNone(agent.process.poll())

    def test_platform_object_beside_the_agents_own_subscription(self):
        self.link()
        self.assertEqual(self.subscribe("qzcapd.laninfo"), (0, ""))
        self.notify(LAN, "nothing", {"mac": "x"})
        self.assertEqual(self.told(), [("qzcapd.laninfo", "nothing", {"mac": "x"})])

    def test_what_cannot_be_subscribed(self):
        self.link()
        longest = "n" * 127
        for name in ("nobody", "", longest + "n"):
            with self.subTest(name=name):
                failed = (10004, "qzcap_ubus_subscribe failed: " + name)
                self.assertEqual(self.subscribe(name), failed)
                self.assertEqual(self.subscribe(name), failed)
                self.assertEqual(self.subscribe(name, 0), (10002, "object '%s' is not subscribed" % name))
        # Of a longer name the beginning is kept, and that is what it is known by from then on.
        self.publish(longest + "X")
        self.assertEqual(self.subscribe(longest + "X"), (0, ""))
        self.assertEqual(self.subscribe(longest + "X"), (10002, "object '%sX' is subscribed" % longest))
        self.notified(longest + "X", "m", {})
        self.assertEqual(self.told(), [(longest, "m", {})])
        self.assertEqual(self.subscribe(longest + "X", 0), (10004, "qzcap_ubus_subscribe failed: " + longest))
        self.assertEqual(self.subscribe(longest + "X"), (0, ""))

    def come_back(self, process, name):
        process.kill()
        process.wait()
        return self.publish(name)

    def wait_for_subscriber(self, obj):
        wait_until(lambda: call(obj, "heard")["heard"], "a subscriber of %s" % obj, 5)

    def test_object_that_disappears(self):
        self.link()
        odd, even = self.publish("odd"), self.publish("even")
        for obj in ("odd", "even"):
            self.assertEqual(self.subscribe(obj), (0, ""))
        even.kill()
        even.wait()
        self.assertEqual(self.subscribe("even"), (10002, "object 'even' is subscribed"))
        even = self.publish("even")
        self.wait_for_subscriber("even")
        self.notified("even", "back", {})
        self.assertEqual(self.told(), [("even", "back", {})])
        # What is given up while it is away stays away, though another one comes back.
        even.kill()
        even.wait()
        self.assertEqual(self.subscribe("even", 0), (10004, "qzcap_ubus_subscribe failed: even"))
        self.assertEqual(self.subscribe("even"), (10004, "qzcap_ubus_subscribe failed: even"))
        self.publish("even")
        self.come_back(odd, "odd")
        self.wait_for_subscriber("odd")
        self.notified("even", "unheard", {})
        self.notified("odd", "heard", {})
        self.assertEqual(self.told(), [("odd", "heard", {})])
        self.assertEqual(self.subscribe("even"), (0, ""))

    def test_object_that_comes_and_goes(self):
        agent = self.link()
        self.subscribe("qzcapd.laninfo")

        def work():
            with open("/proc/%d/stat" % agent.process.pid) as stat:
                ticks = sum(int(n) for n in stat.read().rpartition(")")[2].split()[11:13])
            return len(os.listdir("/proc/%d/fd" % agent.process.pid)), ticks

        process = self.publish("odd")
        self.assertEqual(self.subscribe("odd"), (0, ""))
        descriptors, ticks = work()
        for _ in range(50):
            process = self.come_back(process, "odd")
        self.wait_for_subscriber("odd")
        self.notified("odd", "still", {})
        self.assertEqual(self.told(), [("odd", "still", {})])
        self.assertEqual(work()[0], descriptors)
        self.assertLess((work()[1] - ticks) / os.sysconf("SC_CLK_TCK"), 5)

    def test_subscriptions_outlive_the_connection(self):
        agent = self.link()
        self.publish("odd")
        self.subscribe("odd")
        for again in range(2):
            if again:  # the answer that completes the key comes late
                self.misbehave(fault="delay", on="dh", delay=500)
            self.forget()
            self.patch({"wifi_switch": {"arvoksync": "off"}})
            self.patch({"wifi_switch": {"arvoksync": "on"}})
            agent.expect("[INFO] (arvok) disconnect fd")
            if again:
                self.wait_for_message("dh")
            self.notified("odd", "unheard", {})
            self.wait_for_message("dev_report")
            self.notified("odd", "heard", {})
            self.assertEqual(len(self.received("keyngreq")), 1)
            self.assertEqual(self.told(), [("odd", "heard", {})])


if __name__ == "__main__":
    unittest.main(verbosity=2)

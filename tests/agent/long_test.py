"""Long replies: what they are bounded by, and what they take of the agent's memory."""

import json
import re
import unittest

from cloud_test import CloudCase
from desk import call, wait_until

TOO_LONG = [("errmsg", "reply too long")]
LONGEST = 768 * 1024
MANY = 500  # of the longest item that fit into a request


def status(*names):
    return {"type": "get_status", "get": [{"name": name} for name in names]}


class Replies(CloudCase):
    @staticmethod
    def hosts(count):
        """A device with so many active hosts."""
        one = call("qzcapd.emulator", "state")["laninfo"]["02C0FFEE0002"]
        for first in range(0, count, 200):
            added = {"02C0FF%06X" % i: {**one, "index": 10 + i, "vmac": "02C0FF%06X" % i, "active": 1}
                     for i in range(first, min(count, first + 200))}
            call("qzcapd.emulator", "patch", {"patch": {"laninfo": added}})

    def ask(self, *names):
        """Status items in their order, with the text that they came in."""
        before = len(self.received_texts("status"))
        call("lab.gateway", "send", {"message": status(*names)})
        text = wait_until(lambda: self.received_texts("status")[before:], "a reply")[0]
        return text, json.loads(text, object_pairs_hook=lambda pairs: pairs)

    def memory(self, name):
        """KiB; nothing under a sanitizer, which keeps what has been freed."""
        pid = self.agent.process.pid
        with open("/proc/%d/maps" % pid) as maps, open("/proc/%d/status" % pid) as told:
            return 0 if "libasan" in maps.read() else int(re.search(name + r":\s*(\d+)", told.read()).group(1))

    def test_one_item_named_hundreds_of_times(self):
        self.hosts(64)
        self.enrol()
        wait_until(lambda: self.received_texts("dev_report"), "the first reports")
        self.ask("real_devinfo")
        calls = lambda: [c["call"] for c in call("qzcapd.emulator", "calls", {"clear": True})["calls"]]
        for where in ("gateway", "cloud"):
            with self.subTest(where), open("/proc/%d/clear_refs" % self.agent.process.pid, "w") as peak:
                idle, anonymous = self.memory("VmRSS"), self.memory("RssAnon")
                peak.write("5")
                peak.flush()
                calls()
                if where == "gateway":
                    text, reply = self.ask(*["real_devinfo"] * MANY)
                    self.assertLessEqual(len(text), LONGEST)
                    self.assertGreater(len(text), LONGEST * 0.9)
                    items = [item for _, item in dict(reply)["status"]]
                    whole = [item for item in items if item != TOO_LONG]
                    self.assertEqual((dict(reply)["errcode"], len(items)), (10004, MANY))
                    self.assertGreater(len(whole), 10)
                    self.assertTrue(all(len(item) >= 64 for item in whole))
                else:
                    reply = self.through_cloud(status(*["real_devinfo"] * (MANY // 2)))
                    self.assertEqual(reply, {"Result": -1, "FailReason": "reply too long"})
                self.assertEqual(calls().count("qzcap_list_laninfo"), 1)
                self.assertLess(self.memory("VmHWM") - idle, 4096)
                wait_until(lambda: self.memory("RssAnon") - anonymous < 512, "the memory given back", 12)
        # One that fails is not tried again either.
        self.fail_call("qzcap_get_wifiinfo", 10000)
        calls()
        _, reply = self.ask(*["load"] * MANY)
        self.assertEqual([item for _, item in dict(reply)["status"]], [[("errmsg", "update_wifi_info failed")]] * MANY)
        self.assertEqual(calls().count("qzcap_get_wifiinfo"), 1)
        call("qzcapd.emulator", "fail", {"call": "qzcap_get_wifiinfo", "times": 0})
        # What fits comes whole.
        self.assertEqual(self.through_cloud(status(*["real_devinfo"] * 8))["Result"], 0)
        self.assertFalse("(arvok) disconnect" in self.agent.lines())

    @staticmethod
    def through_cloud(message):
        reply = call("lab.cloud", "request", {"message": {
            "RPCMethod": "SetPluginParams", "ID": "1", "Plugin_Name": "ArvokAP", "Version": "any",
            "Parameter": message}, "timeout": 15000}, 20)
        return {name: reply[name] for name in ("Result", "FailReason") if name in reply}

    def test_notifications(self):
        """What is too long to be passed on is not made, and of the rest there is one copy at a time."""
        self.enrol()
        wait_until(lambda: self.received_texts("dev_report"), "the first reports")
        self.publish("odd")
        subscription = {"type": "ubus_subscribe", "sequence": 1, "mac": "x", "object": "odd", "enable": 1}
        call("lab.gateway", "request", {"message": subscription, "timeout": 10000}, 15)
        self.assertEqual(self.through_cloud(subscription)["Result"], 0)
        told = lambda: len(self.received_texts("ubus_notify"))
        for size, passed_on in ((500_000, True), (900_000, False)):
            with self.subTest(size), open("/proc/%d/clear_refs" % self.agent.process.pid, "w") as peak:
                idle, before = self.memory("VmRSS"), told()
                peak.write("5")
                peak.flush()
                for _ in range(5):
                    call("odd", "burst", {"count": 3, "size": size}, 60)
                    call("qzapp.arvokclt", "postmsg", {"CmdType": "GET_STATUS"}, 60)
                    self.ask("cputemp")
                self.assertEqual(told() > before, passed_on)
                self.assertLess(self.memory("VmHWM") - idle, 4096 if passed_on else 2048)

    def test_a_thousand_hosts(self):
        self.hosts(1000)
        self.run_agent()
        report = json.loads(wait_until(lambda: self.received_texts("dev_report"), "the report of all hosts")[-1])
        self.assertGreaterEqual(len(report["dev"]), 1000)
        text, reply = self.ask("real_devinfo")
        self.assertGreaterEqual(len(dict(dict(reply)["status"])["real_devinfo"]), 1000)
        self.assertFalse("(arvok) disconnect" in self.agent.lines())


if __name__ == "__main__":
    unittest.main()

"""Peers that go at every step of their handshakes, stay away for a while, and come back. The agent's timers are in the
test's hand, so that nothing is waited for."""

import os
import unittest

from cloud_test import CloudCase
from desk import call, wait_until
from sweep_rows import order

GATEWAY = os.environ["GATEWAY_ADDR"]
BROKEN = "tcp connection broken\n"


class PeersThatGo(CloudCase):
    def setUp(self):
        super().setUp()
        self.hold_timers()

    def said(self, line, count):
        return lambda: self.agent.lines().count(line) >= count

    def registered(self):
        return self.received("dev_reg") and self.peer()["state"] in ("registered", "linked")

    def test_gateway(self):
        for step in ("keyngreq", "dh", "dev_reg", "keepalive"):
            with self.subTest(step=step):
                self.once_more()
                self.misbehave(fault="close", on=step)
                self.run_agent()
                self.pass_until(self.said("[ERROR] (arvok) " + BROKEN, 1), "the connection closed")
                self.misbehave(fault="refuse")
                self.pass_until(self.said("[ERROR] (arvok) " + BROKEN, 2), "a connection refused")
                self.misbehave(fault="none")
                call("lab.gateway", "messages", {"clear": True})
                self.pass_until(self.registered, "registered again")
                self.assertIn("cputemp", call("lab.gateway", "request", {
                    "type": "get_status", "get": [{"name": "cputemp"}]})["status"])

    def test_cloud(self):
        for step in ("Boot", "GetChallengeCode", "Activate", "Connect", "Heartbeat"):
            with self.subTest(step=step):
                self.once_more()
                self.fault(fault="close", on=step, times=0)  # it may be back at once: its delay is random
                self.run_agent()
                self.pass_until(self.said("[ERROR] (cloud) " + BROKEN, 1), "the connection closed")
                self.fault(fault="refuse")
                self.pass_until(self.said("[ERROR] (cloud) " + BROKEN, 2), "a connection refused", 8)
                self.fault(fault="none")
                self.pass_until(lambda: self.cloud()["state"] == "connected" and self.cloud().get("heartbeats", 0) > 0,
                                self.cloud, 8)
                self.assertEqual(self.request(RPCMethod="ListPlugin", ID="1")["Result"], 0)
                # Whatever was lost on the way, the device is activated once.
                self.assertEqual(self.device()["activations"], 1)

    def test_both_at_once_and_for_long(self):
        """Two weeks without anybody: the agent goes on trying, and is there when they come back."""
        self.run_agent()
        self.wait_for_heartbeat()
        wait_until(self.registered, "registered")
        descriptors = len(os.listdir("/proc/%d/fd" % self.agent.process.pid))
        self.misbehave(fault="refuse")
        self.fault(fault="refuse")
        call("lab.gateway", "misbehave", {"fault": "close", "after": 1})
        wait_until(self.said("[ERROR] (arvok) " + BROKEN, 1), "the link lost")
        for _ in range(14 * 24):
            self.timers.ahead(3600)
        self.misbehave(fault="none")
        self.fault(fault="none")
        call("lab.gateway", "messages", {"clear": True})
        self.pass_until(self.registered, "registered again")
        self.pass_until(lambda: self.cloud()["state"] == "connected" and self.cloud().get("heartbeats", 0) > 0,
                        self.cloud, 600)
        self.assertEqual(len(os.listdir("/proc/%d/fd" % self.agent.process.pid)), descriptors)

    def test_installation_without_an_end(self):
        """The platform library gives up after ten minutes; the connections have been served meanwhile."""
        self.run_agent()
        self.wait_for_heartbeat()
        wait_until(self.registered, "registered")
        connections = [self.peer()["connections"], self.cloud()["connections"]]
        call("qzcapd.emulator", "fail", {"call": "qzcap_install_app", "completion": True, "mode": "timeout"})
        self.assertEqual(self.request(RPCMethod="Install", ID="1", **order("nothing.ipk", "0"))["Result"], 0)
        self.pass_until(self.said("[WARNING] plugin_install_cb: req or msg is null\n", 1), "the end of it", 4)
        self.assertEqual([self.peer()["connections"], self.cloud()["connections"]], connections)


if __name__ == "__main__":
    unittest.main(verbosity=2)

"""A platform that does not answer: what it costs a message, those that wait meanwhile, and the end."""

import os
import re
import signal
import subprocess
import time
import unittest

from desk import LinkedCase, call, wait_until

TIMEOUT = 1.5  # seconds until the platform library gives up
GETTERS = ("qzcap_get_devinfo", "qzcap_diagnostics_get", "qzcap_diagnostics_netstat", "qzcap_get_terminalnum",
           "qzcap_get_led_switch", "qzcap_get_waninfo", "qzcap_list_laninfo", "qzcap_get_wifi_switch",
           "qzcap_get_wifiinfo", "qzcap_wifi_ap_list", "qzcap_wifi_ap_get", "qzcap_wifi_ap_stats", "qzcap_wifi_timer_list",
           "qzcap_get_neighbourinfo", "qzcap_get_channel_score", "qzcap_get_mesh", "qzcap_mesh_topo")
SETTERS = ("qzcap_set_led_switch", "qzcap_set_mesh_role", "qzcap_set_blacklist")
ITEMS = ("wifi", "wifitimer", "ledswitch", "wifiswitch", "wpsswitch", "bandsupport", "diaginfo", "cpurate", "cputemp",
         "uploadspeed", "wlanstats", "channel", "onlineTime", "terminalNum", "load", "real_devinfo", "neighborinfo",
         "workmode", "netstatPorts", "mapInfo", "mapTopology", "channelQuality", "waninfo")


class SilenceCase(LinkedCase):
    def link(self):
        self.agent = self.start("-g", os.environ["GATEWAY_ADDR"],
                                env={**os.environ, "QZCAP_TIMEOUT": str(int(TIMEOUT * 1000))})
        self.wait_for_message("dev_report")
        self.forget()
        return self.agent

    def all_fail(self, functions, mode):
        for function in functions:
            self.fail_call(function, times=10000, mode=mode)

    def all_mend(self, functions):
        for function in functions:
            self.mend(function)

    def assert_within(self, timeouts, began):
        self.assertLess(time.monotonic() - began, timeouts * TIMEOUT + 0.5)

    def ask(self, message):
        return call("lab.gateway", "request", {"message": message, "timeout": 60000}, 70)

    def status(self, *names):
        reply = self.ask({"type": "get_status", "get": [{"name": name} for name in names]})
        return reply["errcode"], {name: value for name, value in reply["status"].items() if name != "onlineTime"}

    def heard(self, count, active=0):
        """So many hosts notify at once: the agent hears of all of them together."""
        self.agent.process.send_signal(signal.SIGSTOP)
        for number in range(count):
            self.notify(5, "devicestatus", {"mac": "02AA%08d" % number, "active": active})
        self.agent.process.send_signal(signal.SIGCONT)


class Silence(SilenceCase):
    def test_reading(self):
        self.link()
        usual = self.status("cputemp", "ledswitch", "wifiswitch", "wpsswitch", "workmode")
        self.all_fail(GETTERS, "error")
        refused = self.status(*ITEMS)
        self.all_fail(GETTERS, "timeout")
        self.journal()
        for attempt in range(2):
            began = time.monotonic()
            self.assertEqual(self.status(*ITEMS), refused)
            self.assert_within(2, began)
            self.assertEqual(len(self.journal(*GETTERS)), 2)
        self.all_mend(GETTERS)
        self.assertEqual(self.status("cputemp", "ledswitch", "wifiswitch", "wpsswitch", "workmode"), usual)

    def test_one_function(self):
        self.link()
        self.fail_call("qzcap_get_wifi_switch", 10000, mode="timeout")
        self.journal()
        began = time.monotonic()
        errcode, items = self.status("wifiswitch", "wpsswitch", "syncswitch", "cputemp", "ledswitch")
        self.assert_within(1, began)
        self.assertEqual((errcode, items.pop("cputemp"), list(items.pop("ledswitch"))), (10004, 52, ["status"]))
        self.assertEqual(items, {name: {"errmsg": "qzcap_get_wifi_switch failed"}
                                 for name in ("wifiswitch", "wpsswitch", "syncswitch")})
        self.assertEqual(len(self.journal("qzcap_get_wifi_switch")), 1)

    def test_setting(self):
        """What is given up is as if it had not answered; what was done before stays done."""
        self.link()
        self.all_fail(SETTERS, "timeout")
        self.journal()
        began = time.monotonic()
        reply = self.ask({"type": "cfg", "set": {
            "wpsswitch": {"status": "ON"}, "ledswitch": {"status": "OFF"}, "setMapRole": "agent",
            "blacklist": {"enable": "OFF", "mac": []}}})
        self.assert_within(2, began)
        self.assertEqual((reply["errcode"], reply["errmsg"]), (10004, "qzcap_set_mesh_role failed: Request timed out"))
        self.assertEqual([name for name, _ in self.journal(*SETTERS, "qzcap_set_wifi_switch")],
                         ["qzcap_set_led_switch", "qzcap_set_wifi_switch", "qzcap_set_blacklist"])

    def test_those_that_wait(self):
        """Whoever asks meanwhile waits for two time-outs at most, of others or their own."""
        self.link()
        self.all_fail(GETTERS, "timeout")
        self.notify(5, "devicestatus", {"mac": "02C0FFEE0001", "active": 0})
        request = {"type": "get_status", "get": [{"name": name} for name in ITEMS]}
        call("lab.gateway", "send", {"message": request, "repeat": 3})
        time.sleep(0.3)
        began = time.monotonic()
        self.status(*ITEMS)
        self.assert_within(2, began)
        self.assertEqual(len(self.received("status")), 4)

    def test_end(self):
        for sent in ({"type": "get_status", "get": [{"name": name} for name in ITEMS]},
                     {"type": "cfg", "set": {"ledswitch": {"status": "OFF"}, "wpsswitch": {"status": "ON"}}}):
            with self.subTest(sent=sent):
                agent = self.link()
                self.all_fail(GETTERS + SETTERS, "timeout")
                self.journal()
                call("lab.gateway", "send", {"message": sent})
                wait_until(lambda: call("qzcapd.emulator", "calls")["calls"], "the first call")
                began = time.monotonic()
                agent.process.terminate()
                self.assertEqual(agent.process.wait(60), 0)
                self.assert_within(1, began)
                self.agents.clear()
                self.all_mend(GETTERS + SETTERS)
                wait_until(lambda: not self.peer()["connected"], "the gateway's connection closed")
                self.forget()

    def test_end_between_two_calls(self):
        """What the platform still answers is not followed by a call past the library."""
        agent = self.link()
        platform = int(subprocess.check_output(["pgrep", "-x", "qzcapd"]))
        os.kill(platform, signal.SIGSTOP)
        self.addCleanup(os.kill, platform, signal.SIGCONT)
        call("lab.gateway", "send", {"message": {"type": "cfg", "set": {"wpsswitch": {"status": "ON"}}}})
        agent.expect('<- {"type":"cfg"')
        time.sleep(0.1)
        agent.process.terminate()
        os.kill(platform, signal.SIGCONT)
        self.assertEqual(agent.process.wait(60), 0)
        self.agents.clear()
        self.assertEqual([name for name, _ in self.journal()], ["qzcap_get_wifi_switch"])


class Noise(SilenceCase):
    """Objects that the gateway has subscribed to notify as much as they like."""

    def memory(self, name):
        """KiB; nothing under a sanitizer, which keeps what has been freed."""
        pid = self.agent.process.pid
        with open("/proc/%d/maps" % pid) as maps, open("/proc/%d/status" % pid) as told:
            return 0 if "libasan" in maps.read() else int(re.search(name + r":\s*(\d+)", told.read()).group(1))

    def subscribe(self, obj, enable=1):
        reply = self.ask({"type": "ubus_subscribe", "object": obj, "enable": enable})
        return reply["errcode"], reply["errmsg"]

    def test_while_the_platform_is_silent(self):
        """Nobody reads it meanwhile, and the bus keeps little of it."""
        self.link()
        self.publish("odd")
        self.assertEqual(self.subscribe("odd"), (0, ""))
        self.status("cputemp")
        self.fail_call("qzcap_get_wifi_switch", 10000, mode="timeout")
        idle = self.memory("VmRSS")
        with open("/proc/%d/clear_refs" % self.agent.process.pid, "w") as peak:
            peak.write("5")
        call("lab.gateway", "send", {"message": {"type": "get_status", "get": [{"name": "wifiswitch"}]}})
        self.agent.expect('<- {"type":"get_status"')
        began = time.monotonic()
        call("odd", "burst", {"count": 20, "size": 600_000})
        self.assertLess(time.monotonic() - began, TIMEOUT)
        self.wait_for_message("status")
        self.wait_for_message("ubus_notify")
        self.assertLess(self.memory("VmHWM") - idle, 4096)
        self.mend("qzcap_get_wifi_switch")
        self.assertEqual(self.subscribe("odd", 0), (0, ""))


class Flood(SilenceCase):
    """Many hosts come and go at once."""
    HOSTS = 300

    def link(self):
        super().link()
        self.assertEqual(self.cfg(eventsub=["online", "offline"]), (0, ""))
        self.journal()
        return self.agent

    def lists(self):
        return len(self.journal("qzcap_list_laninfo"))

    def test_each_is_reported(self):
        """In their order, from few looks at the hosts."""
        self.link()
        self.heard(self.HOSTS)
        self.wait_for_message("dev_report", self.HOSTS)
        gone = [message["data"][0]["mac"] for message in self.received("event")]
        self.assertEqual(gone, ["02AA%08d" % number for number in range(self.HOSTS)])
        self.assertLess(self.lists(), self.HOSTS / 10)

    def test_host_that_comes_during_a_batch_is_found(self):
        self.link()
        self.heard(self.HOSTS)
        self.patch({"laninfo": {"02C0FFEE0005": {"active": 1}}})
        wait_until(lambda: "02C0FFEE0005" in [m["data"][0]["mac"] for m in self.received("event")], "the event")

    def test_silent_platform(self):
        """Who asks meanwhile does not wait for all of them."""
        for active in (0, 1):
            self.link()
            self.all_fail(GETTERS, "timeout")
            self.heard(self.HOSTS, active)
            for attempt in range(3):
                began = time.monotonic()
                self.status(*ITEMS)
                self.assert_within(2, began)
            self.all_mend(GETTERS)
            self.assertEqual(self.status("ledswitch")[0], 0)
            self.heard(1)
            self.wait_for_message("dev_report")
            self.stop_agents()
            wait_until(lambda: not self.peer()["connected"], "the gateway's connection closed")
            call("lab.gateway", "messages", {"clear": True})

    def test_end(self):
        agent = self.link()
        self.all_fail(GETTERS, "timeout")
        self.heard(self.HOSTS)
        wait_until(self.lists, "the first look")
        began = time.monotonic()
        agent.process.terminate()
        self.assertEqual(agent.process.wait(60), 0)
        self.assert_within(1, began)
        self.agents.clear()


if __name__ == "__main__":
    unittest.main()

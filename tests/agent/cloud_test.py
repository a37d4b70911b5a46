"""The cloud platform as the agent lives with it: enrolment, restarts, failures of every step, names, the network."""

import os
import subprocess
import time
import unittest

from desk import AgentCase, call, wait_until

MAC = "025A10000001"
DEVICE = ["Vendor", "Model", "FirmwareVer", "HardwareVer"]


class CloudCase(AgentCase):
    """A test with a device that has no identity yet, at a platform that has never heard of it."""

    def setUp(self):
        super().setUp()
        call("qzcapd.system", "reset")
        call("lab.cloud", "misbehave", {"fault": "none"})
        call("lab.cloud", "messages", {"clear": True})
        self.forget_device()
        self.agent = None

    @staticmethod
    def forget_device():
        subprocess.run(["ubus", "call", "lab.cloud", "forget", '{"mac":"%s"}' % MAC], capture_output=True)

    def run_agent(self, *args):
        self.agent = self.start("-g", os.environ["GATEWAY_ADDR"], *args)
        subprocess.run(["ubus", "-t", "10", "wait_for", "qzapp.arvokclt"], check=True)
        return self.agent

    def once_more(self):
        """Begins a further case of a test as the test itself began."""
        self.stop_agents()
        CloudCase.setUp(self)

    def enrol(self, *args):
        self.run_agent(*args)
        self.wait_for_heartbeat()

    @staticmethod
    def cloud():
        return call("lab.cloud", "peer")

    @staticmethod
    def device():
        devices = call("lab.cloud", "devices")["devices"]
        return next((d for d in devices if d["mac"] == MAC), None)

    def wait_for_heartbeat(self, deadline=20.0):
        wait_until(lambda: self.cloud()["state"] == "connected" and self.cloud().get("heartbeats", 0) > 0,
                   lambda: "connected: %s\n%s" % (self.cloud(), self.agent.lines()[-2000:]), deadline)

    @staticmethod
    def heard(method=None):
        """What the platform received, in order: (server, message)."""
        entries = call("lab.cloud", "messages")["messages"]
        return [(e["server"].split(":")[0], e["message"]) for e in entries
                if method is None or e["message"].get("RPCMethod") == method]

    def methods(self):
        return [message.get("RPCMethod", message.get("Ack")) for _, message in self.heard()]

    @staticmethod
    def fault(**fault):
        call("lab.cloud", "misbehave", fault)

    @staticmethod
    def told():
        """What the agent tells about its cloud connection: server, state in words, timers in milliseconds."""
        status = call("qzapp.arvokclt", "postmsg", {"CmdType": "GET_STATUS"})["arvokclt"]
        return status["addr"], status["status"], status["timer"]

    @staticmethod
    def stored():
        return call("qzcapd.emulator", "state")["serverinfo"]

    @staticmethod
    def request(**message):
        return call("lab.cloud", "request", message)


class Enrolment(CloudCase):
    def test_first_enrolment_and_restart(self):
        self.patch({"waninfo": {"pppoe_user": "user@isp"}})
        self.enrol()
        heard = self.heard()
        self.assertEqual([(server, m["RPCMethod"]) for server, m in heard],
                         [("100.64.0.1", "Boot")] +
                         [("100.64.0.2", m) for m in ("GetChallengeCode", "Activate", "GetChallengeCode", "Connect",
                                                      "Heartbeat")])
        boot, challenge, activate, _, connect, heartbeat = (message for _, message in heard)
        envelope = ["RPCMethod", "MAC"]
        self.assertEqual(list(boot), envelope + ["CKey", *DEVICE, "DevType", "bootstrap", "QZEI"])
        self.assertEqual((boot["bootstrap"], boot["DevType"]), ("1", "Arvok AP"))
        self.assertEqual(list(challenge), envelope)
        self.assertEqual(list(activate), envelope + DEVICE + [
            "SN", "CKey", "ChallengeCode", "IPAddr", "CloudClientVer", "MiddleWareVer", "MiddleWareBakVer", "LOID",
            "PlatformID", "QZEI"])
        self.assertEqual([activate[k] for k in ("SN", "IPAddr", "CloudClientVer", "LOID", "PlatformID")],
                         ["F" * 22 + MAC, "192.168.1.2", "1.0.7", "", "SMARTAP"])
        self.assertEqual(list(connect), envelope + DEVICE + [
            "DevID", "DevToken", "CKey", "ChallengeCode", "IPAddr", "UPPER_MAC", "CloudClientVer", "MiddleWareVer",
            "MiddleWareBakVer", "LOID", "PlatformID", "upgrade_ID", "Flag", "Version", "DBusInterfaceVersion",
            "PPPoEName", "QZEI"])
        self.assertEqual([connect[k] for k in ("Flag", "Version", "DBusInterfaceVersion", "PPPoEName")],
                         [0, "3.0", "V2019.1.0", "user@isp"])
        self.assertRegex(connect["UPPER_MAC"], "^[0-9A-F]{12}$")
        self.assertEqual(len({m["CKey"] for m in (boot, activate, connect)}), 3)
        self.assertEqual(heartbeat, {"RPCMethod": "Heartbeat", "MAC": MAC, "IPAddr": "192.168.1.2"})
        self.assertNotIn("Heartbeat", self.agent.lines())

        identity = self.device()
        self.assertEqual(self.stored(), {"bss": "100.64.0.1:8088", "abi": "100.64.0.2:8088",
                                         "devtoken": identity["dev_token"], "devid": identity["dev_id"],
                                         "abi_list": ["100.64.0.3:8088"]})
        addr, words, timers = self.told()
        self.assertEqual((addr, words), ("100.64.0.2:8088", "心跳保活中"))
        self.assertEqual((timers["connect"], timers["ack"]), (-1, -1))
        self.assertGreater(timers["heartbeat"], 90000)

        self.agent.stop()
        self.agent.expect("[INFO] (cloud) disconnect fd: ")
        self.agent.expect("[INFO] (arvok) disconnect fd: ")  # in this order
        call("lab.cloud", "messages", {"clear": True})
        serial = "S" + "0123456789" * 3 + "012"
        self.patch({"devinfo": {"sn": serial}})
        self.enrol()
        self.assertEqual(self.methods(), ["GetChallengeCode", "Connect", "Heartbeat"])
        self.assertEqual({server for server, _ in self.heard()}, {"100.64.0.2"})
        self.assertIn("[INFO] bss:       100.64.0.1:8088\n[INFO] abi[0]:    100.64.0.2:8088\n"
                      "[INFO] abi[1]:    100.64.0.3:8088\n", self.agent.lines())
        self.assertEqual(self.device()["activations"], 1)

        # A platform that has forgotten the device makes it enrol anew.
        self.agent.stop()
        self.forget_device()
        call("lab.cloud", "messages", {"clear": True})
        self.enrol("-d")
        self.assertEqual(self.methods(), ["GetChallengeCode", "Connect", "GetChallengeCode", "Activate",
                                          "GetChallengeCode", "Connect", "Heartbeat"])
        self.assertEqual(self.heard("Activate")[0][1]["SN"], serial)
        self.assertNotEqual(self.stored()["devtoken"], identity["dev_token"])

    def test_stored_settings_are_checked(self):
        """What cannot be used is passed over: invalid servers, half an identity, more servers than fit."""
        self.patch({"serverinfo": {
            "bss": "no_host:8088", "abi": "bad_name:1", "devid": "id", "devtoken": "",
            "abi_list": ["100.64.0.4:8088", "100.64.0.5:0", "100.64.0.6:8088", "nocolon", "100.64.0.3:8088"]}})
        self.enrol()
        self.assertIn("[INFO] bss:       bss.arvok.example:8088\n[INFO] abi[1]:    100.64.0.4:8088\n"
                      "[INFO] abi[3]:    100.64.0.6:8088\n", self.agent.lines())
        self.assertEqual(self.heard()[0][0], "100.64.0.4")
        self.assertIn("Activate", self.methods())
        self.assertEqual((self.stored()["bss"], self.stored()["abi"], self.stored()["abi_list"]),
                         ("bss.arvok.example:8088", "100.64.0.4:8088", ["100.64.0.6:8088"]))

    def test_no_business_server_is_stored(self):
        self.patch({"serverinfo": {"abi": "bad_name:1", "abi_list": ["100.64.0.9:0"]}})
        self.fault(fault="edit", on="Boot", set={"BizPlat": [{"ServerAddr": "bad_name", "ServerPort": 1}]})
        self.run_agent().expect("[INFO] abi[0]:    :\n")
        wait_until(lambda: self.stored() == {"bss": "100.64.0.1:8088", "devtoken": "", "devid": "", "abi_list": []},
                   self.stored)

    def test_a_given_bootstrap_server(self):
        self.patch({"serverinfo": {"abi": "100.64.0.5:8088"}})
        self.enrol("-b", "100.64.0.1:8088")
        self.assertEqual(self.methods()[0], "Boot")

    def test_sent_to_a_bootstrap_server(self):
        self.misbehave(fault="refuse")  # a gateway's messages would make the agent read its records anew
        self.enrol()
        before = self.device()["dev_token"]
        # Both are noticed when the device connects.
        self.patch({"devinfo": {"swversion": "9.9"}, "waninfo": {"pppoe_user": "user@next"}})
        for server, result in (({"Server": "bad_name", "Port": "80"}, -1), ({"Server": "100.64.0.1"}, -1),
                               ({"Server": "h" * 32, "Port": "80"}, -1),  # cut, these would be other servers
                               ({"Server": "100.64.0.1", "Port": "00080880"}, -1)):
            reply = self.request(RPCMethod="RequestConnectBSS", ID="a", **server)
            self.assertEqual(reply, {"Ack": "RequestConnectBSS", "ID": "a", "Result": result})
        call("lab.cloud", "messages", {"clear": True})
        reply = self.request(RPCMethod="RequestConnectBSS", ID="b", Server="bss.arvok.example", Port="8088")
        self.assertEqual(reply, {"Ack": "RequestConnectBSS", "ID": "b", "Result": 0})
        self.assertEqual((self.stored()["devid"], self.stored()["bss"]), ("", "bss.arvok.example:8088"))
        wait_until(lambda: "Activate" in self.methods(), "enrolment anew")
        self.wait_for_heartbeat()
        self.assertEqual(self.heard("Boot")[0][1]["bootstrap"], "2")
        self.assertEqual([m["FirmwareVer"] for _, m in self.heard("Activate") + self.heard("Connect")],
                         ["2.4.1", "9.9"])
        self.assertEqual(self.heard("Connect")[0][1]["PPPoEName"], "user@next")
        self.assertNotEqual(self.device()["dev_token"], before)
        self.assertEqual(self.request(RPCMethod="Nothing", ID="c"),
                         {"Ack": "Nothing", "ID": "c", "Result": -1, "FailReason": "UNRECOGNIZE_REQUEST"})


class Failures(CloudCase):
    """What a failing step leads to is seen in the state that the agent tells."""

    def test_results(self):
        for method, words in (("Boot", "未获取到能力平台地址"), ("Connect", "已激活")):
            with self.subTest(method=method):
                self.once_more()
                self.fault(fault="edit", on=method, set={"Result": 17})
                self.run_agent()
                wait_until(lambda: "平台返回17" in self.told()[1], self.told)
                addr, text, timers = self.told()
                self.assertEqual(addr, "100.64.0.1:8088" if method == "Boot" else "100.64.0.2:8088")
                self.assertRegex(text, "^%s，平台返回17，等待(9000|8[0-9]{3})秒后连接$" % words)
                self.assertEqual((timers["ack"], timers["heartbeat"]), (-1, -1))

    def test_split_repeated_and_late_frames(self):
        self.fault(fault="split", times=0)
        self.enrol()
        self.fault(fault="none")
        self.fault(fault="prefix", message={"RPCMethod": "ListPlugin", "ID": "before"})
        self.assertEqual(self.request(RPCMethod="Nothing", ID="after")["ID"], "after")
        self.fault(fault="repeat", copies=3)
        self.assertEqual(self.request(RPCMethod="Nothing", ID="thrice")["ID"], "thrice")
        wait_until(lambda: [m.get("ID") for _, m in self.heard() if m.get("Ack")]
                   == ["before", "after", "thrice", "thrice", "thrice"], self.heard)
        self.once_more()
        self.fault(fault="delay", on="Connect", delay=1500)
        self.enrol()
        self.assertEqual(self.methods().count("Connect"), 1)


class Retries(CloudCase):
    def test_refused_again_and_again(self):
        """Five retries of a second each more, the long wait, and the connection that was there all the time."""
        self.fault(fault="refuse", server="100.64.0.1", times=0)
        self.hold_timers()
        self.run_agent("-d")
        for count in range(1, 6):
            self.expect_later(self.agent, "[ERROR] (cloud) tcp connection broken\n[INFO] (cloud) retry count %d cycle 1\n"
                              % count, "[INFO] (cloud) reconnect current server after %d seconds\n" % count, seconds=1)
        self.assertIn("，TCP连接断开，等待", self.told()[1])
        self.expect_later(self.agent, "[INFO] (cloud) reconnect bss server after 150 minutes\n"
                          "[DEBUG] (cloud) modify interval to 10s\n", seconds=1)
        call("lab.cloud", "misbehave", {"fault": "none"})
        self.timers.ahead(10)
        self.wait_for_heartbeat()


class OtherServers(CloudCase):
    def test_another_business_server(self):
        """After five retries the next business server; a broken connection begins at the challenge code again."""
        self.fault(fault="refuse", server="100.64.0.2", times=0)
        self.hold_timers()
        self.run_agent("-d")
        self.expect_later(self.agent, "[INFO] (cloud) retry count 5 cycle 1\n", "[INFO] (cloud) change abi server addr\n",
                          '[INFO] (cloud) connect abi "100.64.0.3:8088"\n', seconds=1)
        self.wait_for_heartbeat()
        self.assertEqual(self.told()[0], "100.64.0.3:8088")
        call("lab.cloud", "messages", {"clear": True})
        self.fault(fault="close")
        self.request_nothing()
        self.agent.expect("[INFO] (cloud) retry count 1 cycle 1\n")
        self.pass_until(lambda: "Connect" in self.methods(), self.methods, 1)
        self.wait_for_heartbeat()
        self.assertNotIn("Boot", self.methods())

    @staticmethod
    def request_nothing():
        subprocess.run(["ubus", "-t", "3", "call", "lab.cloud", "request", '{"RPCMethod":"Nothing"}'],
                       capture_output=True)


class Names(CloudCase):
    def setUp(self):
        super().setUp()
        self.patch({"serverinfo": {"bss": ""}})
        self.names("answer")

    @staticmethod
    def names(*mode):
        subprocess.run(["lab-names", *mode], check=True)

    def tearDown(self):
        super().tearDown()
        self.names("answer")

    def test_names_that_do_not_lead_anywhere(self):
        self.names("fail")
        self.run_agent("-d").expect('[ERROR] resolv bss: "bss.arvok.example" failed: Name or service not known\n')
        self.agent.expect("[INFO] (cloud) retry count 1 cycle 1\n")
        self.assertIn("平台域名解析失败", self.told()[1])
        self.names("reserved")
        self.agent.expect("[INFO] getaddrinfo skip 192.168.7.7 (bss.arvok.example)\n")
        self.agent.expect("[ERROR] (cloud) resolv server failed\n")
        call("lab.cloud", "set", {"business": ["abi1.arvok.example:8088", "abi2.arvok.example:8088"]})
        self.addCleanup(call, "lab.cloud", "set", {"business": ["100.64.0.2:8088", "100.64.0.3:8088"]})
        self.names("mixed")
        self.wait_for_heartbeat()
        self.assertIn("[INFO] bss_ip[0]: 100.64.0.1:8088\n", self.agent.lines())
        self.assertIn("[INFO] abi_ip[1]: 100.64.0.3:8088\n", self.agent.lines())
        self.assertEqual(self.told()[0], "abi1.arvok.example:8088")
        self.assertEqual(self.stored()["abi_list"], ["abi2.arvok.example:8088"])

    def test_a_name_service_that_hangs_holds_nothing_up(self):
        self.names("hang")
        self.run_agent()
        wait_until(lambda: self.told()[1] == "平台域名解析中", self.told)
        call("qzcapd.emulator", "notify", {"object": 6, "method": "wan", "message": {"status": "up"}})
        self.agent.expect("[INFO] (cloud) resolving\n")
        self.wait_for_message("dev_report")
        start = time.monotonic()
        self.assertEqual(self.agent.stop(), 0)
        self.assertLess(time.monotonic() - start, 5)


class Network(CloudCase):
    def test_the_wan_goes_and_comes(self):
        self.enrol()

        def wan(status, **more):
            call("qzcapd.emulator", "notify", {"object": 6, "method": "wan", "message": {**more, "status": status}})

        wan("up")  # nothing to do
        wan('"status":"down"')  # these words have their quotes escaped
        self.assertEqual(self.request(RPCMethod="Nothing", ID="1")["ID"], "1")
        wan("other", list=[{"status": "down"}])  # wherever it stands
        wait_until(lambda: not self.cloud()["connected"], "disconnected")
        self.assertEqual(self.told()[1:], ("获取挑战码中", {"connect": -1, "heartbeat": -1, "ack": -1}))
        wan("down")
        wan("other", list=[{"status": "up"}])
        wait_until(lambda: self.cloud()["connected"], "connected again")
        self.wait_for_heartbeat()
        self.assertEqual(self.methods().count("Boot"), 1)

    def test_an_address_that_does_not_answer(self):
        """The network swallows the connection attempt; what ends it is the acknowledgement's deadline."""
        self.run_agent("-b", "100.65.1.1:8088")
        self.agent.expect('[INFO] (cloud) connect bss "100.65.1.1:8088"\n')
        wait_until(lambda: self.told()[2]["ack"] > 25000, self.told)
        self.assertEqual(self.told()[1], "获取能力平台地址中")


if __name__ == "__main__":
    unittest.main()

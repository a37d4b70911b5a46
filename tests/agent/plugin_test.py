"""What the platform asks of the device's apps and of the agent itself, and what it is told."""

import base64
import json
import os
import re
import subprocess
import time
import unittest

from cloud_test import CloudCase
from desk import call, wait_until

MKAPP = os.path.join(os.path.dirname(__file__), "..", "..", "lab", "mkapp")
PREFIX = "com.marobelvinta.all.smartap."
VENDOR = "Tandoril Networks"
INVALID = {"Result": -1, "FailReason": "json format invalid"}
DONE = {"Result": 0}
ACTIONS = {"Uninstall": "qzcap_uninstall_app", "Stop": "qzcap_stop_app", "Run": "qzcap_run_app",
           "RestorePlugin": "qzcap_restore_app"}
WEATHER = {"Plugin_Name": PREFIX + "weather_ipq5018x", "Version": "0.3.2"}
SELF = {"Plugin_Name": "ArvokAP", "Version": "any"}


def plugin(name, version="1.1.0"):
    return {"Plugin_Name": PREFIX + name, "Version": version}


def failed(reason):
    return {"Result": -1, "FailReason": reason}


def without(members, name):
    return {key: value for key, value in members.items() if key != name}


class PluginCase(CloudCase):
    def setUp(self):
        super().setUp()
        self.enrol()
        self.journal()

    @staticmethod
    def journal(*functions):
        """The calls since the last look of these functions, with their arguments; forgets them."""
        calls = call("qzcapd.emulator", "calls", {"clear": True})["calls"]
        return [(c["call"], c["args"]) for c in calls if c["call"] in functions]

    def ask(self, method, **members):
        """The reply without its envelope, and without what the lab makes of it."""
        reply = call("lab.cloud", "request", {"message": {"RPCMethod": method, "ID": "id 7", **members}})
        self.assertEqual(list(reply)[:3], ["Ack", "ID", "Result"])
        self.assertEqual((reply.pop("Ack"), reply.pop("ID")), (method, "id 7"))
        reply.pop("return", None)
        return reply

    def table(self, method, rows):
        for members, expected in rows:
            with self.subTest(method=method, members=str(members)[:200]):
                self.assertEqual(json.dumps(self.ask(method, **members)), json.dumps(expected))

    def refusals(self, method, members):
        """What does not say which app it means."""
        for name in members:
            yield without(members, name), INVALID
            for wrong in (5, None, ["x"]):
                yield {**members, name: wrong}, INVALID
        own = lambda name, **more: {**members, **plugin(name), **more}
        yield own("weather"), failed("invalid plugin name")
        yield {**members, "Plugin_Name": "weather"}, failed("invalid plugin name")
        yield own("weather_ipq5018x" + "x" * 128), failed("invalid plugin name")
        yield own("nobody_ipq5018x"), {"Result": -14}
        # What would lead out of the folder of the apps, or to a hidden file there.
        for name in ("../info/weather", "/weather", ".weather"):
            yield own(name + "_ipq5018x"), failed("invalid plugin name")
        yield {**members, **plugin("weather_ipq5018x", "0.3.20")}, {"Result": -6}


class Plugins(PluginCase):
    def test_list(self):
        names = [PREFIX + "arvokclt_ipq5018x", PREFIX + "weather_ipq5018x", PREFIX + "printshop_ipq5018x_" + VENDOR]
        listed = [{"Plugin_Name": name, "Version": version, "Run": run}
                  for name, version, run in zip(names, ("1.0.7", "0.3.2", "1.1.0"), (1, 1, 0))]
        self.table("ListPlugin", [({}, {"Result": 0, "Plugin": listed}),
                                  ({"Plugin_Name": 5}, {"Result": 0, "Plugin": listed})])
        self.patch({"app": None})
        self.assertEqual(self.ask("ListPlugin"), {"Result": 0, "Plugin": []})

    def test_actions(self):
        for method, function in ACTIONS.items():
            self.table(method, self.refusals(method, WEATHER))
            self.assertEqual(self.journal(*ACTIONS.values()), [])
            # With and without the vendor, whatever the app's control file says.
            rows = [(WEATHER, DONE), (plugin("printshop_ipq5018x_" + VENDOR), DONE)]
            names = ["weather", "printshop"]
            if method != "Uninstall":
                rows += [(plugin("weather_ipq5018x_" + VENDOR, "0.3.2"), DONE), (plugin("printshop_ipq5018x"), DONE)]
                names *= 2
            for own in ("ArvokAP", PREFIX + "ArvokAP_ipq5018x", PREFIX + "arvokclt_ipq5018x_" + VENDOR):
                rows.append(({**SELF, "Plugin_Name": own}, DONE))
                names.append("arvokclt")
                if method == "Uninstall":
                    break
            self.table(method, rows)
            self.assertEqual(self.journal(*ACTIONS.values()), [(function, {"name": name}) for name in names])
            call("qzcapd.system", "reset")
        self.agent.expect("[ERROR] plugin version mismatch, [0.3.20]:[0.3.2]\n")
        control = os.path.join(os.environ["LAB_DIR"], "qzcap/apps/qzcap/apps/opkg/info/weather.control")
        with open(control) as file:
            whole = file.read()
        for lines, result in (("Version: 0.3.2\n", -14), ("Package: weather\n", -6), ("", -14),
                              ("Package: other\nVersion: 0.3.2\n", -1), (whole, 0)):
            with open(control, "w") as file:
                file.write(lines)
            self.assertEqual(self.ask("Stop", **WEATHER)["Result"], result)
        self.agent.expect("[ERROR] plugin id mismatch, [%sweather_ipq5018x]:[%sother_ipq5018x]\n" % (PREFIX, PREFIX))
        self.assertEqual(self.ask("Uninstall", **WEATHER), DONE)
        self.assertEqual(self.ask("Run", **WEATHER), {"Result": -14})


class Installing(PluginCase):
    def order(self, package, **members):
        return {**plugin("radio_ipq5018x", "2.0"), "Download_url": "http://100.64.0.9/" + package,
                "Plugin_size": "0x400", "NeedRun": "0", "OS": "linux", "upgrade_ID": "up 5", **members}

    def installed(self):
        """How the next installation ended, as the platform is told."""
        told = wait_until(lambda: self.heard("InstallNotification"), lambda: self.agent.lines()[-2000:])
        call("lab.cloud", "messages", {"clear": True})
        (_, message), = told
        self.assertEqual(list(message)[:9], ["RPCMethod", "MAC", "ID", "Time", "Plugin_Name", "Version", "upgrade_ID",
                                             "Result", "errcode"])
        self.assertRegex(message["ID"], r"^[0-9a-f]{8}-[0-9a-f]{4}-4[0-9a-f]{3}-[0-9a-f]{4}-[0-9a-f]{12}$")
        self.assertRegex(message["Time"], r"^20\d{12}$")
        self.assertEqual((message["Plugin_Name"], message["upgrade_ID"]), (PREFIX + "radio_ipq5018x", "up 5"))
        return {key: message[key] for key in list(message)[7:]}

    def test_installed_and_run(self):
        package = subprocess.check_output([MKAPP, "radio", "2.0"], text=True).strip()
        good = self.order(package, NeedRun="1")
        refused = self.order(package, **plugin("../radio_ipq5018x", "2.0"))
        rows = [(without(good, name), INVALID) for name in good]
        rows += [({**good, name: 5}, INVALID) for name in good]
        self.table("Install", [*rows, (refused, failed("invalid Plugin_Name")), (good, DONE)])
        self.assertEqual(self.installed(), {"Result": 0, "errcode": 0})
        wait_until(lambda: self.journal("qzcap_run_app") == [("qzcap_run_app", {"name": "radio"})], "radio runs")
        self.assertEqual(self.ask("ListPlugin")["Plugin"][-1], {**plugin("radio_ipq5018x", "2.0"), "Run": 1})
        # Another version than was ordered is installed all the same, and not run.
        self.table("Install", [(self.order(package, Version="3"), DONE)])
        self.assertEqual(self.installed(), {"Result": 0, "errcode": 0})
        self.agent.expect("[WARNING] plugin version mismatch, 2.0:3\n")
        self.assertEqual(self.ask("ListPlugin")["Plugin"][-1]["Run"], 0)

    def test_failures(self):
        self.assertEqual(self.ask("Install", **self.order("nothing.ipk", NeedRun="1")), DONE)
        told = self.installed()
        self.assertEqual((told["Result"], told["errcode"], list(told)), (-1, 1, ["Result", "errcode", "FailReason"]))
        self.assertTrue(told["FailReason"])
        self.agent.expect("[WARNING] plugin_install_cb: qzcap_run_app failed: no such app: radio\n")
        # One that is still under way when the agent ends has no outcome.
        call("qzcapd.emulator", "fail", {"call": "qzcap_install_app", "completion": True, "mode": "timeout"})
        self.assertEqual(self.ask("Install", **self.order("radio_2.0_ipq5018x.ipk")), DONE)
        self.assertEqual(self.agent.stop(), 0)
        self.agent.expect("[WARNING] plugin_install_cb: req or msg is null\n")


class Parameters(PluginCase):
    def params(self, parameter, whom=None):
        """A message to an app and its answer; a text goes as it is, anything else as JSON."""
        text = parameter if isinstance(parameter, str) else json.dumps(parameter, separators=(",", ":"))
        reply = self.ask("SetPluginParams", **(whom or SELF), Parameter=base64.b64encode(text.encode()).decode())
        if "return_Parameter" not in reply:
            return reply
        self.assertEqual((reply["Result"], list(reply)), (0, ["Result", "return_Parameter"]))
        return json.loads(base64.b64decode(reply["return_Parameter"], validate=True))

    def acknowledged(self, message):
        answer = self.params(message)
        self.assertEqual([answer.pop(key) for key in ("type", "sequence", "mac")], ["ack", 0, "025A10000001"])
        return answer

    def test_refusals(self):
        self.table("SetPluginParams", self.refusals("SetPluginParams", {**WEATHER, "Parameter": "e30="}))
        for whom in (SELF, WEATHER):
            self.table("SetPluginParams", [({**whom, "Parameter": "?"}, failed("Parameter base64 encode failed"))])
        for text in ("CmdType SequenceId", '{"CmdType":"SequenceId"'):
            self.assertEqual(self.params(text), failed("Parameter is not json format"))
        self.assertEqual(self.params('["CmdType","SequenceId"]'), failed("load param failed"))
        self.assertEqual(self.params("", WEATHER), failed("Parameter is not json format"))

    def test_messages_to_an_app(self):
        self.assertEqual(self.params({"x": 1}, WEATHER), {"Status": "0", "Sky": "clear"})
        self.agent.expect('[INFO] (weather) <- {"x":1} (7)\n')
        (_, args), = self.journal("qzcap_app_postmsg")
        self.assertEqual(args, {"name": "weather", "message": '{"x":1}'})
        self.assertEqual(self.params({}, plugin("printshop_ipq5018x")),
                         failed("qzcap_app_postmsg failed: app is not running: printshop"))

    def test_calls_of_bus_objects_take_their_time(self):
        """The platform's next request waits for them, and nobody else does."""
        self.publish("odd")
        element = lambda ms: {"object": "odd", "method": "work", "message": {"ms": ms, "size": 1}}
        params = lambda message: {**SELF, "Parameter": base64.b64encode(json.dumps(message).encode()).decode()}
        call("lab.cloud", "send", {"message": {"RPCMethod": "SetPluginParams", "ID": "slow",
                                               **params({"type": "ubus_call", "data": [element(1500)] * 2})}})
        self.agent.expect('"ms":')
        began = time.monotonic()
        reply = call("lab.gateway", "request", {"type": "get_status", "get": [{"name": "cputemp"}]})
        self.assertEqual(reply["errcode"], 0)
        self.assertLess(time.monotonic() - began, 1)
        self.assertEqual(self.ask("SetPluginParams", **params({"type": "qlink"}))["Result"], 0)
        self.assertGreater(time.monotonic() - began, 2.5)
        slow, quick = [message for _, message in self.heard() if message.get("Ack") == "SetPluginParams"]
        self.assertEqual((slow["ID"], quick["ID"], slow["Result"]), ("slow", "id 7", 0))
        answer = json.loads(base64.b64decode(slow["return_Parameter"]))
        self.assertEqual([item["message"]["count"] for item in answer["data"]], [1, 2])
        self.assertEqual((answer["type"], answer["errcode"]), ("ubus_result", 0))

    def test_calls_for_a_connection_that_has_gone(self):
        called = self.publish("odd").stdout
        hang = {"type": "ubus_call", "object": "odd", "method": "hang"}
        call("lab.cloud", "send", {"message": {"RPCMethod": "SetPluginParams", "ID": "slow", **SELF,
                                               "Parameter": base64.b64encode(json.dumps(hang).encode()).decode()}})
        self.assertEqual(called.readline(), b"hang\n")
        self.fault(fault="close")
        with self.assertRaises(subprocess.CalledProcessError):
            call("lab.cloud", "send", {"message": {"RPCMethod": "Nobody", "ID": "x"}})
        self.agent.expect("[ERROR] (cloud) tcp connection broken\n", 5)
        call("lab.cloud", "messages", {"clear": True})
        call("qzcapd.emulator", "notify", {"object": 6, "method": "wan", "message": {"status": "up"}})
        self.wait_for_heartbeat()
        self.assertEqual(self.params({"type": "ubus_call", "object": "odd", "method": "echo"})["data"], {})
        self.assertEqual(self.methods().count("SetPluginParams"), 1)

    def test_messages_of_the_gateway_link(self):
        message = {"type": "get_status", "get": [{"name": "cputemp"}]}
        for own in ("ArvokAP", PREFIX + "arvokclt_ipq5018x"):
            answer = self.params(message, {**SELF, "Plugin_Name": own})
            self.assertEqual(list(answer.items()), [("type", "status"), ("sequence", 0), ("mac", "025A10000001"),
                                                    ("errcode", 0), ("status", {"cputemp": 52})])
        for line in ("<- " + json.dumps(message, separators=(",", ":")),
                     "-> " + json.dumps(answer, separators=(",", ":"))):
            self.agent.expect("[INFO] (arvok) %s (%d)\n" % (line, len(line) - 3))
        for kind, members in (("deassociation", {}), ("startaprssiquery", {"mac": 5}),
                              ("startstabsstransitionrequest", {}), ("cfg", {"set": {"blacklist": {"enable": "ON"}}})):
            self.assertEqual(self.acknowledged({"type": kind, **members}), {"errcode": 10002, "errmsg": "invalid mac"})
        self.assertEqual([station["mac"] for station in self.params({"type": "getrssiinfo"})["data"]],
                         ["02C0FFEE0002", "02C0FFEE0003", "02C0FFEE0004"])
        # A result goes to who asked for it.
        query = {"type": "startaprssiquery", "data": {"mac": "02c0ffee0002", "band": "5G", "duration": 1}}
        self.assertEqual(self.acknowledged(query), {"errcode": 0, "errmsg": ""})
        (_, told), = wait_until(lambda: self.heard("PluginNotification"), "the result")
        told = json.loads(base64.b64decode(told["Message"]))
        self.assertEqual((told["type"], told["data"]), ("aprssi", {"mac": "02C0FFEE0002", "rssi": -48}))
        self.assertEqual(self.received("aprssi"), [])
        # Of two who wait for the same station, it is the one whose result is due.
        query["data"]["duration"] = 60
        self.assertEqual(self.acknowledged(query), {"errcode": 0, "errmsg": ""})
        query["data"]["duration"] = 1
        self.assertEqual(call("lab.gateway", "request", {"message": query})["errcode"], 0)
        wait_until(lambda: self.received("aprssi"), "the gateway's result")
        self.assertEqual(len(self.heard("PluginNotification")), 1)
        # What is none, and what the agent takes from its gateway only, or does not answer there either.
        for message in ("", "no JSON", [], {"type": "nonsense"}, {"type": "qlink"}, {"type": "ack"}, {"type": "dh"},
                        {"type": "ubus_call", "object": "x"}, {"type": "get_status", "CmdType": "x"},
                        {"type": "get_status", "SequenceId": "x"}):
            with self.subTest(message=message):
                self.assertEqual(self.params(message), {"type": "ack", "errcode": 10000,
                                                        "errmsg": "handle_arvok_msg failed"})

    def test_commands_of_the_app_manager(self):
        answer = self.params({"CmdType": "GET_STATUS", "SequenceId": "42"})
        self.assertEqual(list(answer), ["CmdType", "SequenceId", "arvokclt"])
        self.assertEqual((answer["SequenceId"], answer["arvokclt"]["addr"]), ("42", "100.64.0.2:8088"))
        self.agent.expect('[INFO] (extcc) <- {"CmdType":"GET_STATUS","SequenceId":"42"} (42)\n')
        self.assertEqual(self.params({"SequenceId": 1, "CmdType": "x"}), {
            "CmdType": "x", "SequenceId": "", "Status": "-2", "FailReason": "unknown CmdType"})

    def test_reset_and_reboot_follow_the_reply(self):
        actions = ("qzcap_reset", "qzcap_reboot")
        control = lambda *names: {"type": "control", "data": [{"command": name} for name in names]}
        for names, expected in ((["reboot", "reset"], ["qzcap_reset", "qzcap_reboot"]), (["reboot"], ["qzcap_reboot"]),
                                (["save"], [])):
            for function in expected:
                self.fail_call(function)
            self.agent.seen = len(self.agent.lines())
            self.assertEqual(self.acknowledged(control(*names)), {"errcode": 0, "errmsg": ""})
            for line in ['[INFO] (cloud) -> {"Ack"'] + ["[ERROR] %s failed\n" % name for name in expected]:
                self.agent.expect(line, 5)
            # Whatever comes next, they do not run again.
            self.params({"CmdType": "x", "SequenceId": "1"})
            self.ask("ListPlugin")
            self.assertEqual([name for name, _ in self.journal(*actions)], expected)
        self.fail_call("qzcap_reboot")
        self.wait_for_message("dev_report")
        call("lab.gateway", "request", control("reboot"))
        self.params({"CmdType": "x", "SequenceId": "1"})
        self.assertEqual([name for name, _ in self.journal(*actions)], ["qzcap_reboot"])

    def test_the_bus_through_the_cloud(self):
        self.wait_for_message("dev_report")
        process = self.publish("odd")
        answer = self.params({"type": "ubus_call", "object": "odd", "method": "echo", "message": {"a": 1}})
        self.assertEqual((answer["type"], answer["errcode"], answer["data"]), ("ubus_result", 0, {"a": 1}))
        subscribe = lambda enable: {"type": "ubus_subscribe", "object": "odd", "enable": enable}
        self.assertEqual(call("lab.gateway", "request", subscribe(1))["errcode"], 0)
        self.assertEqual(self.acknowledged(subscribe(1)), {"errcode": 0, "errmsg": ""})
        self.agent.expect("[DEBUG] arvok_ubus_subscribe 'cloud' 'odd' '1' \n")
        self.assertEqual(self.acknowledged(subscribe(1)), {"errcode": 10002, "errmsg": "object 'odd' is subscribed"})

        call("odd", "notify", {"method": "m", "message": {"b": 2}})
        (_, told), = wait_until(lambda: self.heard("PluginNotification"), "the notification")
        self.assertEqual(list(told), ["RPCMethod", "MAC", "ID", "Time", "Plugin_Name", "Version", "Message"])
        self.assertEqual((told["Plugin_Name"], told["Version"]), ("ArvokAP", "1.0.7"))
        self.assertTrue(re.fullmatch(r"[0-9a-f-]{36}", told["ID"]) and re.fullmatch(r"\d{14}", told["Time"]))
        message = json.loads(base64.b64decode(told["Message"]))
        self.assertEqual([key for key in message], ["type", "sequence", "mac", "object", "method", "data"])
        self.assertEqual([message[key] for key in ("type", "object", "method", "data")],
                         ["ubus_notify", "odd", "m", {"b": 2}])
        self.wait_for_message("ubus_notify")

        # Both hear it still when it has been away.
        process.kill()
        process.wait()
        self.publish("odd")
        wait_until(lambda: call("odd", "heard")["heard"], "a subscriber", 5)
        call("odd", "notify", {"method": "m", "message": {}})
        wait_until(lambda: len(self.heard("PluginNotification")) == 2, "the cloud is told")
        self.wait_for_message("ubus_notify", 2)

        # Each gives up its own subscription only, and waits for no acknowledgement of what it was told.
        self.assertEqual(self.acknowledged(subscribe(0)), {"errcode": 0, "errmsg": ""})
        call("odd", "notify", {"method": "m", "message": {}})
        self.wait_for_message("ubus_notify", 3)
        self.ask("ListPlugin")
        self.assertEqual(len(self.heard("PluginNotification")), 2)
        self.assertEqual(self.told()[2]["ack"], -1)


if __name__ == "__main__":
    unittest.main(verbosity=2)

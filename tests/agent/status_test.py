"""The 37 status items: whole answers, failures one by one, and the cases in which an item has to decide."""

import json
import os
import re
import unittest

from desk import LinkedCase, call

DATA = os.path.join(os.path.dirname(os.path.abspath(__file__)), "data")


def golden(name):
    with open(os.path.join(DATA, name)) as text:
        return json.load(text)


DUAL = golden("status_dual.json")
SINGLE = {**DUAL, **golden("status_single.json")}  # the file has the items that differ
WITHOUT_INTERFACE = ("blacklist", "whitelist")


class StatusCase(LinkedCase):
    def check(self, expected, names=None):
        """Asks for the items and compares values and the order of their keys; the error code."""
        errcode, items = self.status(*(names or expected))
        if "onlineTime" in items:
            with open("/proc/uptime") as uptime:
                self.assertAlmostEqual(int(items["onlineTime"]), float(uptime.read().split()[0]), delta=5)
            items["onlineTime"] = "uptime"
        for name, value in expected.items():
            self.assertEqual(json.dumps(items[name]), json.dumps(value), name)
        self.assertEqual(list(items), list(expected))
        return errcode


class Items(StatusCase):
    def test_dual_band_device(self):
        self.link()
        self.assertEqual(len(DUAL), 37)
        self.assertEqual(self.check(DUAL), 10001)  # of the two access lists

    def test_single_band_device(self):
        self.link({"devinfo": {"support_5g": "no"}})
        self.assertEqual(self.check(SINGLE), 10001)
        asked = [args.get("band") for _, args in
                 self.journal("qzcap_get_wifiinfo", "qzcap_wifi_ap_list", "qzcap_wifi_ap_stats")]
        self.assertFalse({9, 11} & set(asked), asked)

    def test_device_that_lost_its_second_band(self):
        self.link()
        self.check(DUAL)  # the agent now holds records of both bands
        self.patch({"devinfo": {"support_5g": "no"}})
        self.status("workmode")
        self.assertEqual(self.check(SINGLE), 10001)

    def test_names(self):
        agent = self.link()
        unknown = {"errmsg": "unrecognized request"}
        for get, errcode, text in (
                ([], 0, {}),
                ([{"name": "CPUTEMP"}, {"name": "webserver"}], 0, {"CPUTEMP": 52, "webserver": DUAL["webServer"]}),
                ([{}, {"name": 7}, {"name": None}, "cputemp", 5, None, ["x"], {"Name": "cputemp"}], 0, {}),
                ([{"name": "cputemp"}, {"name": "cputem"}], 10001, {"cputemp": 52, "cputem": unknown}),
                ([{"name": ""}, {"name": "cputemp", "more": 1}], 10001, {"": unknown, "cputemp": 52}),
                ([{"name": "blacklist"}], 10001, {"blacklist": {"errmsg": "V2019.1.0 without this interface"}})):
            with self.subTest(get=get):
                reply = self.request({"type": "get_status", "get": get})
                self.assertEqual((reply["type"], reply["mac"]), ("status", "025A10000001"))
                self.assertEqual((reply["errcode"], json.dumps(reply["status"])), (errcode, json.dumps(text)))
        self.status("cpurate", "cpurate")
        agent.expect('"status":{"cpurate":"17%","cpurate":"17%"}} (')

    def test_one_fetch_for_a_message(self):
        self.link()
        for names, function, count in ((("cputemp", "cpurate", "flashStat", "cputemp"), "qzcap_diagnostics_get", 1),
                                       (("waninfo", "networktype"), "qzcap_get_waninfo", 1),
                                       (("workmode", "bandsupport", "capability"), "qzcap_get_devinfo", 1),
                                       (("channel", "load", "wifi"), "qzcap_get_wifiinfo", 2),
                                       (("wlanstats", "real_devinfo"), "qzcap_wifi_ap_list", 4),
                                       (("onlineTime", "arvokstat", "blacklist"), None, 0)):
            for _ in range(2):  # and fetched anew for the next
                self.journal()
                self.status(*names)
                calls = [name for name, _ in self.journal() if function in (name, None)]
                self.assertEqual(len(calls), count, (names, calls))

    def test_values(self):
        self.link()
        neighbour = {"rfband": "5G", "ssidname": "", "bssid": "b", "networktype": "AP", "channel": 1, "rssi": 5,
                     "bandwidth": 7}
        for patch, items in (
                ({"diagnostics": {"cpurate": 1234567}}, {"cpurate": "1234567"}),  # the buffer holds no more
                ({"wifi_switch": {"wifiswitch": "off", "wpsswitch": "on"}},
                 {"wifiswitch": {"status": "OFF"}, "wpsswitch": {"status": "ON"}, "syncswitch": {"status": "ON"}}),
                ({"wifi_switch": {"wifiswitch": "ON", "wpsswitch": "yes"}},
                 {"wifiswitch": {"status": "OFF"}, "wpsswitch": {"status": "OFF"}}),
                ({"terminalnum": {"wired": 3, "wireless_2g": 5, "wireless_5g": 7}},
                 {"terminalNum": {"wiredNum": 3, "2.4GwirelessNum": 5, "5GwirelessNum": 7}}),
                ({"waninfo": {"gateway": "g", "dns1": "d", "status": "s", "status6": "t"}},
                 {"waninfo": {**DUAL["waninfo"], "gateway": "g", "dns1": "d", "status": "s", "status6": "t"}}),
                ({"wifiinfo": {"5G": {"supported_auth": "x", "supported_modes": "y"}}},
                 {"capability": {**DUAL["capability"], "WiFi": [DUAL["capability"]["WiFi"][0], {
                     **DUAL["capability"]["WiFi"][1], "auth": "x", "wifimode": "y"}]}}),
                ({"diagnostics": {"cpurate": 100, "memoryusage": 0}}, {"cpurate": "100%", "memoryuserate": "0%"}),
                ({"devinfo": {"lanports": None}}, {"ethLanPortIndex": {"errmsg": "lanports is null"},
                                                   "ethWanPortIndex": [4]}),
                ({"devinfo": {"wanports": None}}, {"ethWanPortIndex": {"errmsg": "wanports is null"}}),
                ({"devinfo": {"lanports": []}}, {"ethLanPortIndex": []}),
                ({"devinfo": {"support_5g2": "yes"}}, {"bandsupport": ["2.4G", "5G-2", "5G"]}),
                ({"devinfo": {"support_5g2": "yes", "support_5g": "no"}}, {"bandsupport": ["2.4G", "5G-2", "5G"]}),
                ({"devinfo": {"support_5g": "YES"}}, {"bandsupport": ["2.4G"]}),
                ({"devinfo": {"mode": "router", "webUrl": None}},
                 {"workmode": "router", "webServer": {"support": "yes", "wepIp": "192.168.1.2", "webUrl": ""}}),
                ({"netstatinfo": {"tcp": None, "udp": []}}, {"netstatPorts": {"tcp": [], "udp": []}}),
                ({"led_switch": "off"}, {"ledswitch": {"status": "OFF"}}),
                ({"led_switch": "ON"}, {"ledswitch": {"status": "OFF"}}),
                ({"wifi_timer": {"1": {"enable": "yes "}, "2": None}},
                 {"wifitimer": [{"weekday": "1,2,3,4,5", "time": "06:30", "enable": "0"}]}),
                ({"wifi_timer": {"1": None, "2": None}, "neighbourinfo": [], "laninfo": None},
                 {"wifitimer": [], "neighborinfo": [], "real_devinfo": []}),
                ({"neighbourinfo": [neighbour, {**neighbour, "bandwidth": 6}, {**neighbour, "bandwidth": 5}, {**neighbour, "bandwidth": 2}]},
                 {"neighborinfo": [{"rfband": "5G", "ssidname": "", "bssid": "b", "networktype": "AP", "channel": 1,
                                    "rssi": "5", "standard": "", "bandwidth": word}
                                   for word in ("unknown", "unknown", "80+80", "0")]}),
                ({"mesh": {"role": "agent"}}, {"mapInfo": {"mapRole": "agent", "mapAlmac": "02:5A:10:00:00:01"},
                                               "mapTopology": [{**DUAL["mapTopology"][0], "mapRole": "agent"}]}),
                ({"mesh": {"role": "Controller", "onlinetime": 7}, "mesh_topo": {"agents": []}},
                 {"mapInfo": {"mapRole": "Controller", "mapAlmac": "02:5A:10:00:00:01"},
                  "mapTopology": [{"agents": [], "mapRole": "Controller", "mapAlmac": "02:5A:10:00:00:01",
                                   "onlineTime": 7}]})):
            with self.subTest(patch=patch):
                call("qzcapd.system", "reset")
                self.patch(patch)
                errors = [v for v in items.values() if "errmsg" in v]
                self.assertEqual(self.check(items), 10004 if errors else 0)

    def test_hosts(self):
        self.link()
        hosts = {
            "wired": ({"connecttype": 0, "port": 1, "band": "2.4G"}, ""),
            "second interface": ({"connecttype": 1, "port": 2, "band": "2.4G"}, "Home-2"),
            "5 GHz": ({"connecttype": 1, "port": 2, "band": "5G"}, "Home-5G-2"),
            "other word for 5 GHz": ({"connecttype": 1, "port": 1, "band": "5G-2"}, "Home"),
            "no such interface": ({"connecttype": 1, "port": 3, "band": "5G"}, ""),
            "neither wired nor wireless": ({"connecttype": 2, "port": 1, "band": "5G"}, ""),
            "no band": ({"connecttype": 1, "port": 3}, "Home-3"),
        }
        self.patch({"laninfo": None})
        self.patch({"laninfo": {name: {**host, "active": 1, "vmac": "behind " + name} for name, (host, _) in hosts.items()}})
        items = self.status("real_devinfo")[1]["real_devinfo"]
        self.assertEqual([(i["mac"], i["vmac"], i["ssid"]) for i in items],
                         [(name, "behind " + name, ssid) for name, (_, ssid) in hosts.items()])
        self.patch({"wifi_ap": {"2.4G": {"3": {"ssid": "s" * 62 + "é"}}}, "laninfo": {"wired": {"active": -1}}})
        items = self.status("real_devinfo")[1]["real_devinfo"]
        self.assertEqual((items[0]["active"], items[-1]["ssid"]), (-1, "s" * 62))

    def test_large_counters_keep_their_digits(self):
        agent = self.link()
        numbers = ["9007199254740992", "9007199254740991", "4294967296", "1000000000000001"]
        self.patch({"wifi_apstat": {"2.4G": {"1": dict(zip(
            ("bytessent", "bytesreceived", "packetssent", "packetsreceived"), numbers))}},
            "laninfo": {"02C0FFEE0001": dict(zip(
                ("bytessent", "bytesreceived", "packetssent", "packetsreceived"), numbers))}})
        self.status("wlanstats", "real_devinfo")
        agent.expect('"totalBytesSent":%s,"totalBytesReceived":%s,"totalPacketsSent":%s,"totalPacketsReceived":%s,'
                     % tuple(numbers))
        agent.expect('"bytessent":%s,"bytesreceived":%s,"packetssent":%s,"packetsreceived":%s,' % tuple(numbers))
        self.patch({"wifi_apstat": {"2.4G": {"1": {"bytessent": "-1", "bytesreceived": "", "packetssent": "12x"}}}})
        counters = self.status("wlanstats")[1]["wlanstats"][0]
        self.assertEqual([counters["total" + name] for name in ("BytesSent", "BytesReceived", "PacketsSent")], [-1, 0, 12])


class Sweep(StatusCase):
    # What each failing call costs; the fault sweep goes through all of them.
    ITEMS = {
        "update_wifi_info": "wifi channel load capability",
        "update_ap_info": "wifi wlanstats real_devinfo",
        "qzcap_wifi_timer_list": "wifitimer",
        "qzcap_get_led_switch": "ledswitch",
        "qzcap_get_wifi_switch": "wifiswitch wpsswitch syncswitch",
        "qzcap_get_devinfo": "bandsupport workmode webServer ethWanPortIndex ethLanPortIndex capability",
        "qzcap_diagnostics_get": "diaginfo cpurate cputemp memoryuserate flashusage flashfree flashStat",
        "qzcap_get_waninfo": "uploadspeed downloadspeed networktype waninfo",
        "qzcap_wifi_ap_stats": "wlanstats",
        "qzcap_get_terminalnum": "terminalNum",
        "qzcap_list_laninfo": "real_devinfo",
        "qzcap_get_neighbourinfo": "neighborinfo",
        "qzcap_diagnostics_netstat": "netstatPorts",
        "qzcap_get_mesh": "mapInfo mapTopology",
        "qzcap_mesh_backhaulbss": "mapInfo",
        "qzcap_mesh_topo": "mapTopology",
        "qzcap_get_channel_score": "channelQuality",
    }
    # What stands behind the two refreshes that have a name of their own.
    CALLS = {"update_wifi_info": "qzcap_get_wifiinfo", "update_ap_info": "qzcap_wifi_ap_list"}
    PLAIN = {name: value for name, value in DUAL.items() if name not in WITHOUT_INTERFACE}

    def expected(self, failed):
        return {**self.PLAIN, **{item: {"errmsg": failed + " failed"} for item in self.ITEMS[failed].split()}}

    def test_every_item_has_its_call(self):
        covered = set(" ".join(self.ITEMS.values()).split())
        self.assertEqual(set(self.PLAIN) - covered, {"onlineTime", "arvokstat"})

    def test_call_for_the_second_band_failing(self):
        agent = self.link()
        for patch, failed, line in (
                ({"wifiinfo": {"5G": None}}, "update_wifi_info", "update_wifi_info qzcap_get_wifiinfo 5G failed"),
                ({"wifi_ap": {"5G": None}}, "update_ap_info", "update_ap_info qzcap_wifi_ap_list 5G failed"),
                ({"wifi_apstat": {"5G": {"2": None}}}, "qzcap_wifi_ap_stats", "(10004) qzcap_wifi_ap_stats failed"),
                ({"channel_score": {"5G": None}}, "qzcap_get_channel_score", "(10004) qzcap_get_channel_score failed")):
            with self.subTest(patch=patch):
                self.patch(patch)
                self.assertEqual(self.check(self.expected(failed)), 10004)
                agent.expect("[ERROR] %s\n" % line)
                call("qzcapd.system", "reset")
                self.assertEqual(self.check(self.PLAIN), 0)

    def test_items_that_say_so_in_the_log(self):
        agent = self.link()
        self.fail_call("qzcap_get_waninfo", 2)
        self.status("waninfo", "nothing", "networktype")
        for line in ("(10004) qzcap_get_waninfo failed", "(10001) unrecognized request",
                     "(10004) qzcap_get_waninfo failed"):
            agent.expect("[ERROR] %s\n" % line)
        self.assertTrue(re.search(r"qzcap_get_waninfo failed\n.* -> \{", agent.text()))


if __name__ == "__main__":
    unittest.main(verbosity=2)

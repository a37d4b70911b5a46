"""The probe for bringing up a device: what it shows is what the agent reports, and it changes nothing."""

import json
import os
import re
import signal
import socket
import subprocess
import tempfile
import unittest

from desk import LinkedCase, wait_until

REPO = os.path.dirname(os.path.dirname(os.path.dirname(os.path.realpath(__file__))))
PROBE = ("lab-ap", "qzcap-probe")
READING = re.compile(r'"(qzcap_(?:\w+_)?(?:get|list|stats|diagnostics|backhaulbss|topo)(?:_\w+)?)"')


def start(**environment):
    return subprocess.Popen(PROBE, env={**os.environ, **environment}, text=True, bufsize=1,
                            stdout=subprocess.PIPE, stderr=subprocess.PIPE)


def end_of(process):
    """The exit status, what was shown, and the remarks."""
    out, err = process.communicate(timeout=30)
    return process.returncode, json.loads(out), err.splitlines()


class Probe(LinkedCase):
    def shown(self):
        status, shown, remarks = end_of(start())
        self.assertEqual((status, shown["usable"], remarks), (0, True, []))
        return {name: call.get("record", call.get("list")) for name, call in shown["calls"].items()}

    def test_shows_what_the_agent_reports(self):
        self.agent = self.start("-g", os.environ["GATEWAY_ADDR"])
        self.wait_for_message("dev_report")
        shown = self.shown()
        errcode, items = self.status("diaginfo", "netstatPorts", "ethLanPortIndex", "ethWanPortIndex", "terminalNum",
                                     "waninfo", "real_devinfo", "neighborinfo", "channelQuality", "wlanstats", "wifi",
                                     "webServer", "mapInfo")
        self.assertEqual(errcode, 0)
        device = shown["qzcap_get_devinfo"]
        self.assertEqual(items["diaginfo"], shown["qzcap_diagnostics_get"])
        self.assertEqual(items["netstatPorts"], shown["qzcap_diagnostics_netstat"])
        self.assertEqual(items["terminalNum"], shown["qzcap_get_terminalnum"])
        self.assertEqual(items["waninfo"], shown["qzcap_get_waninfo"])
        self.assertEqual(items["neighborinfo"], shown["qzcap_get_neighbourinfo"])
        self.assertEqual((items["ethLanPortIndex"], items["ethWanPortIndex"]), (device["lanports"], device["wanports"]))
        self.assertEqual([quality["quality"] for quality in items["channelQuality"]],
                         [shown["qzcap_get_channel_score %s" % band] for band in ("2.4G", "5G")])

        def among(reported, record, *beside):
            self.assertEqual({key: value for key, value in reported.items() if key not in beside},
                             {key: record.get(key) for key in reported if key not in beside})

        among(self.received("dev_reg")[0]["data"], device, "ipaddr", "mapAlmac")
        among(items["webServer"], device)
        among(items["mapInfo"], shown["qzcap_get_mesh"], "backhaulBSS")
        among(items["mapInfo"]["backhaulBSS"], shown["qzcap_mesh_backhaulbss"], "key")
        for reported, record in zip(items["real_devinfo"],
                                    [host for host in shown["qzcap_list_laninfo"] if host["active"]], strict=True):
            among(reported, record, "ssid")
        among(items["wlanstats"][0], shown["qzcap_wifi_ap_stats 2.4G"], "apidx", "ssid", "band")
        for band, reported in zip(("2.4G", "5G"), items["wifi"], strict=True):
            among(reported["radio"], shown["qzcap_get_wifiinfo %s" % band], "mode")
            for interface, record in zip(reported["ap"], shown["qzcap_wifi_ap_list %s" % band], strict=True):
                among(interface, record, "key")

    def test_calls_every_reading_function_and_no_other(self):
        with open(os.path.join(REPO, "device/libcapi/calls.h")) as header:
            reading = set(READING.findall(header.read()))
        before = self.state()
        self.journal()
        self.shown()
        self.assertEqual({call for call, _ in self.journal()}, reading)
        self.assertEqual(self.state(), before)

    def test_what_the_agent_would_not_take(self):
        self.patch({"devinfo": {"vendor": None, "mode": "mesh", "lanports": None},
                    "diagnostics": {"cpurate": 101},
                    "netstatinfo": {"udp": list(range(1, 1025))},
                    "serverinfo": {"bss": "bss.example", "devtoken": "a-secret-token"},
                    "wifi_ap": {"2.4G": {"1": {"ssid": "é" * 40, "bssid": "02:5A:10"}}},
                    "wifi_apstat": {"5G": {"1": {"bytessent": "many"}}},
                    "neighbourinfo": [{"bssid": "027731000001", "bandwidth": 6, "ssidname": "line\nfeed"}]})
        self.fail_call("qzcap_mesh_topo")
        status, shown, remarks = end_of(start())
        for remark in ('remark: qzcap_get_devinfo: vendor: null, reported as ""',
                       'remark: qzcap_get_devinfo: mode: "mesh" is taken for "bridge"',
                       "remark: qzcap_get_devinfo: lanports: null: the item ethLanPortIndex is answered with an error",
                       "remark: qzcap_diagnostics_get: cpurate: 101 is not from 0 to 100",
                       "error: qzcap_diagnostics_netstat: udp: no zero ends the list within 1024 numbers",
                       'remark: qzcap_get_serverinfo: bss: no server: "bss.example": the one that is built in is asked',
                       "remark: qzcap_wifi_ap_list 2.4G: [0] ssid: 80 bytes, of which hosts and events tell 63",
                       'remark: qzcap_wifi_ap_list 2.4G: [0] bssid: no MAC: "02:5A:10"',
                       'remark: qzcap_wifi_ap_stats 5G: totalBytesSent: no decimal number: "many"',
                       "remark: qzcap_get_neighbourinfo: [0] bandwidth: 6 is not from 0 to 5",
                       "remark: qzcap_mesh_topo: failed: what the agent needs it for is answered with an error"):
            self.assertIn(remark, remarks)
        self.assertEqual((status, shown["usable"]), (1, False))
        self.assertEqual(shown["calls"]["qzcap_diagnostics_netstat"]["errors"],
                         ["udp: no zero ends the list within 1024 numbers"])
        self.assertNotIn("a-secret-token", json.dumps(shown))
        self.assertNotIn("lavender-teapot", json.dumps(shown))

    def test_device_that_nobody_could_tell_from_another(self):
        for patch, error in (({"mac": "02:5A:10:00:00"}, '"02:5A:10:00:00"'), ({"mac": None}, "null")):
            self.patch({"devinfo": patch})
            status, _, remarks = end_of(start())
            self.assertEqual(status, 1)
            self.assertIn("error: qzcap_get_devinfo: mac: no MAC: %s: nobody could tell this device from another" % error,
                          remarks)

    def test_every_wait_ends(self):
        silent = socket.socket(socket.AF_UNIX)
        self.addCleanup(silent.close)
        folder = tempfile.TemporaryDirectory()
        self.addCleanup(folder.cleanup)
        silent.bind(folder.name + "/bus")
        silent.listen()

        self.fail_call("qzcap_get_devinfo", mode="timeout", times=3)
        waiting = [start(QZCAP_TIMEOUT="60000") for _ in range(2)]
        wait_until(lambda: self.calls().count("qzcap_get_devinfo") == 2, "both wait")
        slow = start(QZCAP_TIMEOUT="5500")
        unheard, without = [start(UBUS_SOCKET=folder.name + "/" + name) for name in ("bus", "none")]
        waiting[1].send_signal(signal.SIGABRT)

        for process, error in ((waiting[0], "qzcap_get_devinfo: did not come back in 10 s"),
                               (waiting[1], "qzcap_get_devinfo: crashed, or gave out memory that is not there"),
                               (without, "qzcap_ubus_start: there is no bus")):
            status, shown, remarks = end_of(process)
            self.assertEqual((status, shown["usable"], remarks), (1, False, ["error: " + error]))
        status, shown, remarks = end_of(unheard)  # which the bus library may give up itself
        self.assertEqual((status, shown["usable"]), (1, False))
        self.assertRegex(remarks[-1], r"^error: qzcap_ubus_start: ")
        status, shown, remarks = end_of(slow)
        self.assertEqual((status, shown["usable"]), (1, False))
        self.assertEqual(shown["calls"]["qzcap_get_devinfo"]["errors"][1],
                         "failed: without this record the agent does not begin")
        self.assertRegex(remarks[0], r"^error: qzcap_get_devinfo: took [5-9]\d{3} ms: the gateway gives up")
        self.assertIn("qzcap_mesh_topo", shown["calls"])

    def test_options(self):
        for options, status in ((["-h"], 0), (["--help"], 0), (["-x"], 2), (["-h", "-h"], 2)):
            done = subprocess.run([*PROBE, *options], capture_output=True, text=True)
            self.assertEqual(done.returncode, status)
            self.assertIn("usage: qzcap-probe", done.stderr if status else done.stdout)


if __name__ == "__main__":
    unittest.main(verbosity=2)

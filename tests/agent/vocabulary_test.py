"""The settings of the device and its hosts, and the steering of stations: every member missing, of a wrong kind, at its
limits and beyond; what the platform is told."""

import os
import subprocess
import unittest

from desk import LinkedCase, wait_until

MKAPP = os.path.join(os.path.dirname(__file__), "..", "..", "lab", "mkapp")
DONE = (0, "")
DESK, PHONE, TABLET, THERMOSTAT, LAPTOP = ("02C0FFEE000%d" % i for i in range(1, 6))
NO_TEXT = (None, 5, True, ["x"], {})
NO_NUMBER = (None, "5", True, [5], {})
NO_SWITCH = (*NO_TEXT, "on", "", "yes")


def invalid(what):
    return 10002, "invalid " + what


def number(low, high):
    """What is no whole number from low to high, and the two limits."""
    return (*NO_NUMBER, low - 1, high + 1, low + 0.5, 1e300), (low, high)


class VocabularyCase(LinkedCase):
    def members(self, send, good, checks, optional=()):
        """Sends each member missing and wrong: it is the one named, before those behind it, and nothing is called that
        changes anything. Then each at its limits."""
        self.journal()
        behind = {}
        for name, (wrong, right) in reversed(list(checks.items())):
            behind[name] = wrong[0]
            broken = {**good, **behind}
            rest = {key: value for key, value in broken.items() if key != name}
            if name not in optional:
                with self.subTest(missing=name):
                    self.assertEqual(send(rest), invalid(name))
            for value in wrong:
                with self.subTest(name=name, wrong=value):
                    self.assertEqual(send({**broken, name: value}), invalid(name))
            harmless = ("qzcap_get_", "qzcap_list_", "qzcap_set_serverinfo")  # the last is the enrolment's, beside it
            self.assertEqual([c for c, _ in self.journal() if not c.startswith(harmless)], [])
            for value in right:
                with self.subTest(name=name, right=value):
                    self.assertEqual(send({**good, name: value}), DONE)
            self.journal()


class DeviceRows(VocabularyCase):
    def test_software(self):
        agent = self.link()
        good = {"downurl": "http://192.168.1.1/image.bin", "fileSize": 4711, "chksum": "c0ffee"}
        wrong_sizes = (None, True, [1], {}, 0, -1, 1.5, 4294967296, "", "0", "12a", "-1", " 1", "+1", "4294967296",
                       "9" * 30)
        checks = {"downurl": (NO_TEXT, ()), "fileSize": (wrong_sizes, (1, 4294967295, "1", "0012", "4294967295")),
                  "chksum": (NO_TEXT, ("",))}
        upgrade = lambda value: self.cfg(upgrade=value)
        self.members(upgrade, good, checks)
        for value in NO_TEXT[:-1]:
            self.assertEqual(upgrade(value), invalid("downurl"))
        upgrade({**good, "fileSize": "4711"})
        self.assertEqual(self.journal("qzcap_upgrade"),
                         [("qzcap_upgrade", {"url": good["downurl"], "size": 4711, "chksum": "c0ffee"})])
        # The agent's own package goes through the app manager; how that ends is for the log.
        client = lambda value: self.cfg(upgrade_client=value)
        self.assertEqual(client({**good, "fileSize": 0, "chksum": 5}), invalid("fileSize"))
        for name, line in (("arvokclt", "[INFO] client upgrade installed arvokclt 9.1\n"),
                           ("radio", "[ERROR] client upgrade installed radio\n")):
            package = subprocess.check_output([MKAPP, name, "9.1"], text=True).strip()
            self.assertEqual(client({**good, "downurl": "http://100.64.0.9/" + package}), DONE)
            agent.expect(line)
        self.assertEqual(wait_until(lambda: self.journal("qzcap_run_app", "qzcap_uninstall_app")[1:], "what follows"),
                         [("qzcap_uninstall_app", {"name": "radio"})])
        self.assertEqual(self.state()["app"]["arvokclt"]["state"], "running")
        self.assertNotIn("radio", self.state()["app"])
        self.assertEqual(client({**good, "downurl": "http://100.64.0.9/nothing"}), DONE)
        agent.expect("[ERROR] client upgrade failed: ")

    def test_ctrlcommand(self):
        self.link()
        for value in (*NO_TEXT, "", "Reboot", "deassociation"):
            self.assertEqual(self.cfg(ctrlcommand=value), invalid("ctrlcommand"))
        self.assertEqual(self.cfg(ctrlcommand="save"), DONE)
        self.assertEqual(self.journal("qzcap_reboot", "qzcap_reset"), [])
        for word in ("reboot", "reset"):
            self.assertEqual(self.cfg(ctrlcommand=word), DONE)
            wait_until(lambda: self.journal("qzcap_" + word), word)  # follows the reply

    def test_roaming(self):
        self.link()
        checks = {"enable": (NO_SWITCH, ("ON", "OFF")), "rssi2G": number(-100, 0), "rssi5G": number(-100, 0),
                  "interval": number(1, 3600)}
        good = {"enable": "ON", "rssi2G": -70, "rssi5G": -65, "interval": 30}
        for row, stored in (("roaming_set", "roaming"), ("map_roaming_set", "mesh_roaming")):
            send = lambda value: self.cfg(**{row: value})
            self.members(send, good, checks, optional=checks)
            for nothing in (*NO_TEXT, {"difference": 3}):
                self.assertEqual(send(nothing), invalid(row))
            before = self.state()[stored]
            for name, value, kept in (("enable", "OFF", "no"), ("rssi2G", -62, -62), ("rssi5G", -61, -61),
                                      ("interval", 61, 61)):  # alone, over what is set
                before[{"rssi2G": "rssi_2g", "rssi5G": "rssi_5g"}.get(name, name)] = kept
                self.assertEqual((send({name: value}), self.state()[stored]), (DONE, before))
            self.assertEqual(send(good), DONE)
            self.assertEqual(self.state()[stored],
                             {**before, "enable": "yes", "rssi_2g": -70, "rssi_5g": -65, "interval": 30})

    def test_blacklist(self):
        self.link()
        send = lambda value: self.cfg(blacklist=value)
        macs = ["02C0FFEE%04X" % i for i in range(65)]
        checks = {"enable": (NO_SWITCH, ("ON", "OFF")),
                  "mac": ((None, 5, PHONE, {}, [5], [PHONE, None], ["nobody"], [PHONE + "0"], ["02:C0:FF:EE:00:0g"], macs),
                          ([], macs[:64], ["02:c0:ff:ee:00:01", "02-c0-ff-ee-00-02"]))}
        self.members(send, {"enable": "ON", "mac": [PHONE]}, checks)
        self.assertEqual(send({"enable": "ON", "mac": [PHONE, TABLET]}), DONE)
        self.assertEqual(send({"enable": "OFF", "mac": [TABLET]}), DONE)  # replaced, not added to
        self.assertEqual(self.state()["blacklist"], {"enable": "no", "macs": [TABLET]})
        spellings = ["02:c0:ff:ee:00:02", TABLET.lower(), "02-C0-FF-EE-00-02"]
        self.assertEqual(send({"enable": "ON", "mac": spellings + macs[:64]}), DONE)
        self.assertEqual(self.state()["blacklist"]["macs"],
                         [PHONE, TABLET] + [mac for mac in macs[:64] if mac not in (PHONE, TABLET)])

    def test_role_and_television(self):
        self.link()
        for value in (*NO_TEXT, "", "Agent", "bridge"):
            self.assertEqual(self.cfg(setMapRole=value), invalid("setMapRole"))
        for role in ("agent", "auto", "controller"):
            self.assertEqual((self.cfg(setMapRole=role), self.state()["mesh"]["role"]), (DONE, role))

        send = lambda value: self.cfg(iptv=value)
        ports = self.state()["devinfo"]["lanports"]
        checks = {"enable": (NO_SWITCH, ("ON", "OFF")), "vlan": number(1, 4094),
                  "ports": ((None, 1, {}, [0], ["1"], [ports[0], max(ports) + 1], [ports[0] + 0.5], [-1], [1e300]),
                            ([], ports))}
        good = {"enable": "ON", "vlan": 85, "ports": ports[-1:]}
        self.members(send, good, checks)
        self.assertEqual(send(good), DONE)
        self.assertEqual(self.state()["iptv"], {"enable": "yes", "vlan": 85, "ports": ports[-1:]})
        self.assertEqual(send({**good, "ports": ports[::-1] * 9}), DONE)
        self.assertEqual(self.state()["iptv"]["ports"], ports[::-1])
        self.patch({"devinfo": {"lanports": list(range(1, 34))}})
        self.assertEqual(send({**good, "ports": list(range(1, 34))}), invalid("ports"))
        self.assertEqual(send({**good, "ports": list(range(2, 34))}), DONE)
        self.patch({"devinfo": {"lanports": None}})
        self.assertEqual(send(good), invalid("ports"))

    def test_hosts(self):
        self.link()
        describe = lambda *hosts: self.cfg(real_devinfo=list(hosts))
        limit = lambda *hosts: self.cfg(speedlimit=list(hosts))
        for row in ("real_devinfo", "speedlimit"):
            for value in (None, 5, "x", {}):
                self.assertEqual(self.cfg(**{row: value}), invalid(row))
            self.assertEqual(self.cfg(**{row: []}), DONE)
            for element in (None, 5, "x", [], {}):
                self.assertEqual(self.cfg(**{row: [element]}), invalid("mac"))
        texts = {name: (NO_TEXT, ("", "Küche")) for name in ("hostname", "brand", "model")}
        numbers = {name: number(0, 2) for name in ("internetaccess", "storageaccess")}
        good = {"mac": PHONE, "hostname": "kitchen", "brand": "B", "model": "M", "internetaccess": 1, "storageaccess": 0}
        self.members(describe, good, {"mac": (NO_TEXT, (PHONE.lower(),)), **texts, **numbers},
                     optional=(*texts, *numbers))
        limits = {"uplimit": number(0, 2147483647), "downlimit": number(0, 2147483647)}
        self.members(limit, {"mac": PHONE, "uplimit": 1, "downlimit": 2}, {"mac": (NO_TEXT, ()), **limits})

        before = self.state()["laninfo"]
        self.assertEqual(describe(good, {"mac": DESK, "model": "tower"}, {"mac": PHONE, "brand": "C"}), DONE)
        self.assertEqual(limit({"mac": DESK, "uplimit": 100, "downlimit": 200}), DONE)
        expected = {**before, PHONE: {**before[PHONE], **good, "brand": "C"},
                    DESK: {**before[DESK], "model": "tower", "uplimit": 100, "downlimit": 200}}
        del expected[PHONE]["mac"]
        self.assertEqual(self.state()["laninfo"], expected)
        self.assertEqual(limit({"mac": DESK, "uplimit": 0, "downlimit": 0}), DONE)
        self.assertEqual(self.state()["laninfo"][DESK]["uplimit"], 0)
        # All is checked before anything is set, and the first refusal ends the row.
        self.journal()
        self.assertEqual(describe(good, {"mac": "nobody", "model": "x"}), (10002, "unknown mac nobody"))
        self.assertEqual(limit({"mac": DESK, "uplimit": 1, "downlimit": 1}, {"mac": ""}), invalid("uplimit"))
        self.assertEqual(self.journal("qzcap_set_laninfo"), [])

    def test_hosts_that_are_named_again(self):
        """Each is set once, in the order in which they came, to what was said last; what was not said again stays."""
        self.link()
        self.journal()
        self.assertEqual(self.cfg(real_devinfo=[
            {"mac": PHONE, "hostname": "first", "internetaccess": 1}, {"mac": TABLET, "hostname": "tablet"},
            *[{"mac": PHONE.lower(), "hostname": f"name {n}"} for n in range(150)]]), DONE)
        records = [args["record"] for _, args in self.journal("qzcap_set_laninfo")]
        self.assertEqual([(record["hostname"], record["internetaccess"]) for record in records], [("name 149", 1), ("tablet", 2)])

    def test_several_rows(self):
        self.link()
        self.assertEqual(self.cfg(speedlimit=[{"mac": "nobody", "uplimit": 0, "downlimit": 0}], setMapRole="agent",
                                  blacklist=7, iptv={"enable": "ON", "vlan": 4095}, ledswitch={"status": "OFF"},
                                  roaming_set={"enable": "ON"}, ctrlcommand="save"), (10002, "unknown mac nobody"))
        self.agent.expect("[ERROR] (10002) invalid enable\n")  # the blacklist
        self.agent.expect("[ERROR] (10002) invalid vlan\n")
        # All rows, against their order.
        software = {"downurl": "http://100.64.0.9/nothing", "fileSize": 1, "chksum": ""}
        rows = {"ledswitch": {"status": "ON"}, "upgrade": software, "upgrade_client": software, "ctrlcommand": "reboot",
                "roaming_set": {"interval": 9}, "map_roaming_set": {"interval": 9}, "blacklist": {"enable": "ON", "mac": []},
                "real_devinfo": [{"mac": PHONE, "model": "M"}], "setMapRole": "auto",
                "iptv": {"enable": "OFF", "vlan": 1, "ports": []},
                "speedlimit": [{"mac": PHONE, "uplimit": 1, "downlimit": 1}]}
        order = ["qzcap_set_led_switch", "qzcap_upgrade", "qzcap_install_app", "qzcap_set_roaming", "qzcap_set_mesh_roaming",
                 "qzcap_set_blacklist", "qzcap_set_laninfo", "qzcap_set_mesh_role", "qzcap_set_iptv", "qzcap_set_laninfo",
                 "qzcap_reboot"]
        self.journal()
        self.assertEqual(self.cfg(**dict(reversed(rows.items()))), DONE)
        done = []
        wait_until(lambda: done.extend(name for name, _ in self.journal(*order)) or "qzcap_reboot" in done, "the reboot")
        self.assertEqual(done, order)
        # A command does not undo what another row asks for.
        self.patch({"devinfo": {"mode": "router"}})
        self.cfg(wifi=[{"radio": {"mode": "2.4G", "channel": 11}, "ap": []}], ctrlcommand="save")
        wait_until(lambda: self.state()["devinfo"]["mode"] == "bridge", "the bridge")


class Stations(VocabularyCase):
    def ask(self, kind, **members):
        return self._acknowledged({"type": kind, "data": members})

    def test_deassociation(self):
        self.link({"laninfo": {LAPTOP: {"active": 1}}})
        name = "qzcap_wifi_deassociation"
        self.members(lambda m: self.ask("deassociation", **m), {"mac": PHONE},
                     {"mac": ((None, 5, {}, [], [PHONE, 5]), (LAPTOP.lower(),))})
        self.assertEqual(self.ask("deassociation", mac=[PHONE, THERMOSTAT]), DONE)
        self.assertEqual(self.journal(name), [(name, {"macs": [PHONE, THERMOSTAT]})])
        self.assertEqual(self._acknowledged({"type": "deassociation", "mac": TABLET}), DONE)
        self.assertEqual(self.ask("deassociation", mac=PHONE), (10004, name + " failed: no such station: " + PHONE))

    def test_rssi_of_stations(self):
        self.link()
        self.patch({"wifiinfo": {"5G": {"current_channel": 44}}})

        def ask(**members):
            return request(data=members)

        def request(**members):
            reply = self.request({"type": "getrssiinfo", **members})
            self.assertEqual(list(reply), ["type", "sequence", "mac", "errcode", "errmsg", "data"])
            self.assertEqual((reply["type"], reply["mac"]), ("rssiinfo", "025A10000001"))
            return (reply["errcode"], reply["errmsg"]), reply["data"]

        hosts = self.state()["laninfo"]
        channels = {"2.4G": self.state()["wifiinfo"]["2.4G"]["current_channel"], "5G": 44}
        station = lambda mac: {"mac": mac, "band": hosts[mac]["band"], "rssi": hosts[mac]["rssi"],
                               "channel": channels[hosts[mac]["band"]]}
        wireless = [mac for mac, host in hosts.items() if host["active"] and host["connecttype"] == 1]
        self.assertEqual(wireless, [PHONE, TABLET, THERMOSTAT])
        self.assertEqual(ask(), (DONE, [station(mac) for mac in wireless]))
        self.assertEqual(ask(mac=PHONE.lower()), (DONE, [station(PHONE)]))
        self.assertEqual(ask(mac=[THERMOSTAT, "nobody", PHONE, LAPTOP, DESK]),
                         (DONE, [station(PHONE), station(THERMOSTAT)]))
        self.assertEqual(ask(mac="nobody"), (DONE, []))
        for wrong in (None, 5, {}, [], [PHONE, 5]):
            self.assertEqual(ask(mac=wrong), (invalid("mac"), []))
        # Beside the envelope; where it is no station's, it is the gateway's own.
        self.assertEqual(request(mac=PHONE), (DONE, [station(PHONE)]))
        for mac in (DESK, "nobody"):
            self.assertEqual(request(mac=mac), ask())
        for data in (None, 5, [{"mac": PHONE}]):
            self.assertEqual(request(data=data), (invalid("data"), []))
            self.assertEqual(self._acknowledged({"type": "deassociation", "data": data}), invalid("data"))

    def test_rssi_query(self):
        self.link()
        good = {"mac": TABLET, "band": "5G", "duration": 1}
        send = lambda members: self.ask("startaprssiquery", **members)
        self.members(send, good, {"mac": (NO_TEXT, ()), "band": ((*NO_TEXT, "5g", "5G-2", ""), ("2.4G", "5G")),
                                  "duration": number(1, 60)})
        self.forget()
        self.assertEqual(send({**good, "mac": PHONE}), DONE)
        self.assertEqual(self.journal("qzcap_start_rssi_query"), [("qzcap_start_rssi_query", {"record": {
            "mac": PHONE, "band": "5G", "channel": 36, "duration": 1000}})])
        found = {"mac": PHONE, "rssi": self.state()["laninfo"][PHONE]["rssi"]}
        other = {"mac": TABLET, "rssi": self.state()["laninfo"][TABLET]["rssi"]}  # from the queries before
        wait_until(lambda: found in [report["data"] for report in self.received("aprssi")], "the report")
        self.assertEqual(list(self.received("aprssi")[0]), ["type", "sequence", "mac", "data"])
        # What is no result, or one that nobody has asked for, is not reported, and a result is no roaming report.
        self.assertEqual(send({**good, "mac": PHONE, "duration": 60}), DONE)
        self.forget()
        for message in ({}, {"mac": PHONE}, {"mac": 5, "rssi": -40}, {"mac": PHONE, "rssi": "-40"},
                        {"mac": LAPTOP, "rssi": -40}, {"mac": PHONE, "rssi": -39}, {"mac": PHONE, "rssi": -38}):
            self.notify(16, "aprssi", message)
        self.notify(16, "roamingreport", {"roamingreport": [{"mac": "last"}]})
        self.assertEqual(len(self.wait_for_message("cfg")), 1)
        self.assertEqual([report["data"] for report in self.received("aprssi") if report["data"] != other],
                         [{"mac": PHONE, "rssi": -39}])
        self.assertEqual(send({**good, "mac": DESK}),
                         (10004, "qzcap_start_rssi_query failed: no such station: " + DESK))
        # A device without that radio.
        self.patch({"devinfo": {"support_5g": "no"}})
        self.stop_agents()
        self.link()
        self.assertEqual(send(good), invalid("band"))

    def test_bss_transition(self):
        self.link()
        good = {"mac": PHONE, "bssid": "02:5A:10:00:01:01", "band": "2.4G", "channel": 6}
        send = lambda members: self.ask("startstabsstransitionrequest", **members)
        self.members(send, good, {"mac": (NO_TEXT, ()), "bssid": (NO_TEXT, ("02:5A:10:00:02:01",)),
                                  "band": ((*NO_TEXT, "6G"), ("2.4G", "5G")), "channel": number(1, 255)})
        self.forget()
        self.assertEqual(send(good), DONE)
        self.assertEqual(self.journal("qzcap_bss_transition"), [("qzcap_bss_transition", {"record": {
            "mac": PHONE, "bssid": good["bssid"], "channel": 6, "timeout": 0}})])
        self.assertEqual(self.wait_for_message("cfg")[0]["roaming_report"][0]["mac"], PHONE)


if __name__ == "__main__":
    unittest.main()

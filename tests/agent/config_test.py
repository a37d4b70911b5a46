"""What the gateway configures: radios and main interfaces, the schedule, the LED, the switches, and how a message of
several rows runs."""

import time
import unittest

from desk import LinkedCase, call

RADIO_SET, AP_SET = "qzcap_set_wifiinfo_async", "qzcap_wifi_ap_set_async"
MAIN = {"encrypt": "aes", "auth": "wpa2psk", "key": "lavender-teapot", "ssid": "Home", "enable": "yes"}
MAIN_5G = {**MAIN, "ssid": "Home-5G"}
CURRENT_2G = {"mode": "2.4G", "channel": 0, "txpower": "100", "bandwidth": "20", "wifimode": "b/g/n/ax"}
CURRENT_5G = {"mode": "5G", "channel": 36, "txpower": "100", "bandwidth": "80", "wifimode": "a/n/ac/ax"}
AS_IT_IS = [{"radio": CURRENT_2G, "ap": [{"apidx": 0, **MAIN}]}, {"radio": CURRENT_5G, "ap": [{"apidx": 0, **MAIN_5G}]}]
DONE = (0, "")


def invalid(what):
    return 10002, "invalid " + what


def failed(text):
    return 10004, text


def band(radio=None, ap=(), mode="2.4G"):
    return {"radio": {"mode": mode, **(radio or {})}, "ap": list(ap)}


def ap(**members):
    return {"apidx": 0, **members}


class Wifi(LinkedCase):
    def applied(self):
        """What was set since the last look: ("2.4G" or "5G", members of the record that are set)."""
        words = {8: "2.4G", 9: "5G", 10: "2.4G", 11: "5G"}
        out = []
        for name, args in self.journal(RADIO_SET, AP_SET):
            self.assertEqual(args.get("index", 1), 1)
            out.append((name, words[args["band"]], args["record"]))
        return out

    def radio(self, word="2.4G", **changed):
        current, code = (CURRENT_2G, 0) if word == "2.4G" else (CURRENT_5G, 3)
        current = {"enable": "yes", **{k: v for k, v in current.items() if k != "mode"}, "bandwidth": code}
        return (RADIO_SET, word, {**current, **changed})

    def interface(self, word="2.4G", **changed):
        return (AP_SET, word, {**(MAIN if word == "2.4G" else MAIN_5G), **changed})

    def table(self, rows, patch=None):
        """Each row on a fresh device: the value, what is answered, what is set. Records compare by what the row names;
        what a radio record does not set is zero or not there."""
        for value, error, expected in rows:
            with self.subTest(value=value):
                call("qzcapd.system", "reset")
                if patch:
                    self.patch(patch)
                self.journal()
                self.assertEqual(self.cfg(wifi=value), error)
                applied = self.applied()
                self.assertEqual([a[:2] for a in applied], [e[:2] for e in expected])
                for (name, _, record), (_, _, wanted) in zip(applied, expected):
                    if name == RADIO_SET:
                        rest = {k: v for k, v in record.items() if k not in wanted and v}
                        self.assertEqual((rest, {k: record.get(k, 0) for k in wanted}), ({}, wanted))
                    else:
                        self.assertEqual({k: record[k] for k in wanted}, wanted)

    def test_what_counts_as_a_change(self):
        agent = self.link()
        same = [AS_IT_IS, AS_IT_IS[:1], [], [band()], [band({"channel": "0"})], [band({"channel": "00x"})],
                [band({"channel": 36.0, "enable": "yes"}, mode="5G")], [band(ap=[ap(), ap(enable="yes")])],
                # What is no text, or for the channel no number either, is not given.
                [band({"enable": 1, "channel": None, "txpower": 50, "bandwidth": 4, "wifimode": []})],
                [band(ap=[ap(ssid=1, key=None, auth=[], encrypt={}, enable=True, bssid="x", more=1)])]]
        self.table([(value, DONE, []) for value in same])
        for _ in same:
            agent.expect("[INFO] wifi config no changed\n")
        self.assertNotIn("router mode", agent.lines())

        rows = []
        for given, became in (({"enable": "no"}, {"enable": "no"}), ({"channel": 11}, {"channel": 11}),
                              ({"channel": "11"}, {"channel": 11}), ({"channel": "9x"}, {"channel": 9}),
                              ({"txpower": "50"}, {"txpower": "50"}), ({"txpower": ""}, {"txpower": ""}),
                              ({"bandwidth": "40"}, {"bandwidth": 1}), ({"wifimode": "b"}, {"wifimode": "b"}),
                              ({"enable": "no", "channel": "3", "txpower": "1", "bandwidth": "0", "wifimode": "n"},
                               {"enable": "no", "channel": 3, "txpower": "1", "bandwidth": 2, "wifimode": "n"})):
            rows.append(([band(given)], DONE, [self.radio(**became)]))
        for word, code in (("20", 0), ("0", 2), ("160", 4), ("80+80", 5)):
            rows.append(([band({"bandwidth": word}, mode="5G")], DONE, [self.radio("5G", bandwidth=code)]))
        for member in MAIN:
            value = "no" if member == "enable" else "new"
            rows.append(([band(ap=[ap(**{member: value})])], DONE, [self.interface(**{member: value})]))
        self.table(rows)

    def test_what_is_applied(self):
        self.link()
        self.table([
            # Every element is written, changed or not; a text that was replaced stays replaced for the next.
            ([band(ap=[ap(), ap(ssid="A"), ap(key="k")])], DONE,
             [self.interface(), self.interface(ssid="A"), self.interface(ssid="A", key="k")]),
            # One difference, and all bands are written from the first on.
            ([AS_IT_IS[0], band({"channel": 40}, [ap()], "5G")], DONE,
             [self.interface(), self.radio("5G", channel=40), self.interface("5G")]),
            # "enable" counts as changed whenever it is given; alone it is no difference.
            ([band({"enable": "yes"})], DONE, []),
            ([band({"enable": "yes"}), band({"channel": 40}, mode="5G")], DONE,
             [self.radio(), self.radio("5G", channel=40)]),
            ([band({"enable": "yes"}, [ap(ssid="A")])], DONE, [self.radio(), self.interface(ssid="A")]),
            # The check ends at the first difference; what is wrong behind it is found while applying.
            ([band({"channel": 1}), band(mode="6G")], invalid('mode "6G"'), [self.radio(channel=1)]),
            ([band({"channel": 1}, [{"apidx": 1}])], invalid("apidx"), [self.radio(channel=1)]),
            ([{"radio": {"mode": "2.4G", "channel": 1}}], invalid("ap"), [self.radio(channel=1)]),
            ([band({"channel": 1}, [ap(ssid="A"), {"ssid": "B"}])], invalid("apidx"),
             [self.radio(channel=1), self.interface(ssid="A")]),
        ])
        self.cfg(wifi=[band({"channel": 1, "bandwidth": "80+80"}, [ap(ssid="Read back")])])
        radio, aps = (self.status("wifi")[1]["wifi"][0][part] for part in ("radio", "ap"))
        self.assertEqual((radio["channel"], radio["currentChannel"], radio["bandwidth"], aps[0]["ssid"]),
                         (1, 1, "80+80", "Read back"))

    def test_what_is_refused(self):
        self.link()
        self.table([(value, error, []) for value, error in (
            ({}, invalid("wifi")), ("x", invalid("wifi")), (None, invalid("wifi")),
            ([band(mode="5G-2")], invalid('mode "5G-2"')), ([band(mode="2.4g")], invalid('mode "2.4g"')),
            ([band(mode="m" * 300)], (10002, ('invalid mode "' + "m" * 300)[:255])),
            ([{}], invalid('mode ""')), ([7], invalid('mode ""')), ([band({"mode": 5})], invalid('mode ""')),
            ([band({"bandwidth": "100"})], invalid('bandwidth "100"')),
            ([band({"bandwidth": "100", "channel": 11})], invalid('bandwidth "100"')),
            ([band({"bandwidth": ""})], invalid('bandwidth ""')),
            ([{"radio": CURRENT_2G}], invalid("ap")), ([{"radio": CURRENT_2G, "ap": {}}], invalid("ap")),
            ([band(ap=[{}])], invalid("apidx")), ([band(ap=[{"apidx": 1, "ssid": "A"}])], invalid("apidx")),
            ([band(ap=[{"apidx": "0", "ssid": "A"}])], invalid("apidx")),
            ([band(ap=[{"apidx": 0.5}])], invalid("apidx")),
            ([band(), band({"bandwidth": "x"}, mode="5G")], invalid('bandwidth "x"')))])

    def test_single_band_device(self):
        agent = self.link({"devinfo": {"support_5g": "no"}})
        single = {"devinfo": {"support_5g": "no"}}
        five = band({"channel": 40}, mode="5G")
        self.table([([five], DONE, []), ([five, band({"channel": 11})], DONE, []), ([band(), five], DONE, [])], single)
        for _ in range(3):
            agent.expect("[INFO] dev not support 5G\n[INFO] wifi config no changed\n")
        self.table([([band({"channel": 11}), five, band({"channel": 1})], DONE, [self.radio(channel=11)])], single)

    def test_order_of_the_calls_and_of_the_comparison(self):
        self.link()
        later = [band(ap=[ap()]), band({"channel": 40, "bandwidth": "x"}, mode="5G")]
        self.journal()
        # The channel differs before the bandwidth is looked at: the first band is applied, the second refused.
        self.assertEqual(self.cfg(wifi=later), invalid('bandwidth "x"'))
        self.assertEqual([(name, args.get("band")) for name, args in self.journal()],
                         [("qzcap_get_wifiinfo", 8), ("qzcap_get_wifiinfo", 9), ("qzcap_get_devinfo", None),
                          ("qzcap_wifi_ap_get", 10), ("qzcap_wifi_ap_get", 11), (AP_SET, 10)])
        self.assertEqual(self.cfg(wifi=[band(), band({"bandwidth": "x", "wifimode": "y"}, mode="5G")]),
                         invalid('bandwidth "x"'))
        self.assertEqual(self.applied(), [])

    def test_router_becomes_a_bridge_after_the_reply(self):
        agent = self.link({"devinfo": {"mode": "router"}})
        mode = "qzcap_set_workmode"
        self.fail_call(mode, reason="not now")
        self.assertEqual(self.cfg(wifi=AS_IT_IS), DONE)
        for line in ("[INFO] router mode\n", '-> {"type":"ack"', "[ERROR] qzcap_set_workmode failed: not now\n"):
            agent.expect(line)
        self.assertNotIn("no changed", agent.lines())
        router = {"devinfo": {"mode": "router"}}
        for rows, error, bridge in (
                ({"wifi": AS_IT_IS}, DONE, True), ({"wifi": []}, DONE, True),
                ({"wifi": AS_IT_IS, "mode": "SET"}, DONE, True), ({"wifi": AS_IT_IS, "mode": "set"}, DONE, False),
                ({"wifi": [band(mode="6G")]}, invalid('mode "6G"'), False),
                ({"wifi": [band({"bandwidth": "9"})]}, invalid('bandwidth "9"'), False),
                ({"wifi": AS_IT_IS, "whitelist": 1}, (10001, "V2019.1.0 without this interface"), True),
                ({"wifi": [band({"channel": 40}, mode="5G")], "single": 1}, DONE, True),
                ({"wifi": AS_IT_IS, "refused": 1}, failed(AP_SET + " failed"), False),
                ({"ledswitch": {"status": "OFF"}}, DONE, False)):
            with self.subTest(rows=rows):
                single, refused = rows.pop("single", 0), rows.pop("refused", 0)
                self.patch(router)
                self.patch({"devinfo": {"support_5g": "no" if single else "yes"}})
                self.status("workmode")
                if refused:
                    self.fail_call(AP_SET)
                self.journal()
                self.assertEqual(self.cfg(**rows), error)
                self.control()  # its reply comes after what the first one left to do
                calls = self.journal()
                self.assertEqual([args for name, args in calls if name == mode], [{"mode": "bridge"}] if bridge else [])
                if error == DONE and rows.get("wifi") == AS_IT_IS:
                    self.assertEqual([name for name, _ in calls if name in (RADIO_SET, AP_SET)], [AP_SET, AP_SET])
        self.patch({"devinfo": {"mode": "bridge"}})
        self.assertEqual(self.cfg(wifi=[band({"channel": 3})]), DONE)
        self.control()
        self.assertEqual(self.journal(mode), [])


class Switches(LinkedCase):
    def test_schedule(self):
        self.link()
        SET, ADD, DELETE = ("qzcap_wifi_timer_" + verb for verb in ("set", "add", "delete"))
        entry = lambda day, enable="1": {"weekday": day, "time": "10:00", "enable": enable}
        record = lambda day, enable="yes": {"weekday": day, "time": "10:00", "enable": enable}
        a, b, c = (entry(day) for day in "abc")

        def calls(*wanted):
            return [(name, {key: ({k: v for k, v in value.items() if k != "id"} if key == "record" else value)
                            for key, value in args.items()}) for name, args in wanted]

        put = lambda number, day: (SET, {"id": number, "record": record(day)})
        add = lambda day: (ADD, {"record": record(day)})
        drop = lambda number: (DELETE, {"id": number})
        for value, error, expected in (
                ([], DONE, [drop(3), drop(7)]),
                ([a], DONE, [put(3, "a"), drop(7)]),
                ([a, b], DONE, [put(3, "a"), put(7, "b")]),
                ([a, b, c, a], DONE, [put(3, "a"), put(7, "b"), add("c"), add("a")]),
                ([entry("a", "0"), entry("b", 1)], DONE, [(SET, {"id": 3, "record": record("a", "no")}),
                                                                (SET, {"id": 7, "record": record("b", "no")})]),
                ([7], failed("qzcap_wifi_timer_delete 3 failed: wifi_timer.weekday: must not be empty"),
                 [(SET, {"id": 3, "record": {"weekday": "", "time": "", "enable": "no"}})]),
                ({}, invalid("wifitimer"), []), ("x", invalid("wifitimer"), [])):
            with self.subTest(value=value):
                old = {"weekday": "1", "time": "06:30", "enable": "yes"}
                self.patch({"wifi_timer": None})
                self.patch({"wifi_timer": {"3": old, "7": old}})
                self.journal()
                self.assertEqual(self.cfg(wifitimer=value), error)
                self.assertEqual(calls(*self.journal(SET, ADD, DELETE)), expected)
        self.cfg(wifitimer=[a, entry("b", "0"), c])
        self.assertEqual(self.status("wifitimer"), (0, {"wifitimer": [a, entry("b", "0"), c]}))

    def test_led(self):
        self.link()
        name = "qzcap_set_led_switch"
        for value, error, calls in (({"status": "ON"}, DONE, ["on"]), ({"status": "OFF"}, DONE, ["off"]),
                                    ({"status": "on"}, invalid("status: on"), []),
                                    ({"status": ""}, invalid("status: "), []),
                                    ({"status": 1}, invalid("status"), []), ({}, invalid("status"), []),
                                    ("ON", invalid("status"), []), (None, invalid("status"), [])):
            with self.subTest(value=value):
                self.assertEqual(self.cfg(ledswitch=value), error)
                self.assertEqual([args["status"] for _, args in self.journal(name)], calls)
        self.assertEqual(self.status("ledswitch"), (0, {"ledswitch": {"status": "OFF"}}))

    def relinked(self):
        """The link starts anew when sync comes on."""
        for line in ("[DEBUG] ec_arvoksync_on (", '-> {"type":"dev_report"'):
            self.agent.expect(line)

    def turn(self, key, word):
        changes = self.state()["wifi_switch"][key] != word
        self.patch({"wifi_switch": {key: word}})
        if changes and (key, word) == ("arvoksync", "on"):
            self.relinked()

    def test_three_switches(self):
        self.link()
        for row, key, skips, text in (("wifiswitch", "wifiswitch", True, "set_wifi_switch failed: "),
                                      ("wpsswitch", "wpsswitch", False, "set_wps_switch failed: "),
                                      ("syncswitch", "arvoksync", True, "set_arvoksync failed: ")):
            on, off = {key: "on"}, {key: "off"}
            for current, value, error, calls in (
                    ("on", {"status": "ON"}, DONE, [] if skips else [on]), ("on", {"status": "OFF"}, DONE, [off]),
                    ("off", {"status": "ON"}, DONE, [on]), ("off", {"status": "OFF"}, DONE, [] if skips else [off]),
                    ("on", {"status": "oN"}, DONE if skips else invalid("status: oN"), []),
                    ("on", {"status": "off"}, invalid("status: off"), []),
                    ("on", {"status": 1}, invalid("status"), []), ("on", [], invalid("status"), [])):
                with self.subTest(row=row, current=current, value=value):
                    # "mode" lets the message through while sync is off.
                    self.turn(key, current)
                    self.journal()
                    self.assertEqual(self.cfg(mode="set", **{row: value}), error)
                    self.assertEqual([args for _, args in self.journal("qzcap_set_wifi_switch")], calls)
                    self.assertEqual(self.state()["wifi_switch"][key], calls[0][key] if calls else current)
                    if row == "syncswitch" and calls == [on]:
                        self.relinked()
            self.turn(key, "on")
            for mode, reason in (("error", "locked"), ("empty", "no answer"), ("timeout", "Request timed out")):
                with self.subTest(row=row, mode=mode):
                    self.fail_call("qzcap_set_wifi_switch", reason="locked", mode=mode)
                    began = time.monotonic()
                    self.assertEqual(self.cfg(mode="set", **{row: {"status": "OFF"}}), failed(text + reason))
                    if mode == "timeout":
                        self.assertAlmostEqual(time.monotonic() - began, 2.4, delta=0.5)


class Rows(LinkedCase):
    OFF = (10003, "arvoksync is off")
    LED = {"ledswitch": {"status": "OFF"}}

    def test_sync_decides_whether_a_message_runs(self):
        agent = self.link()
        sync = lambda word, **more: self.cfg(syncswitch={"status": word}, **more)
        self.assertEqual(sync("OFF"), DONE)
        for rows in (self.LED, {"syncswitch": {"status": "ON"}}, {}, {"nothing": 1}, {"mode": "SET"}, {"mode": 1}):
            with self.subTest(rows=rows):
                self.journal()
                self.assertEqual((self.cfg(**rows), self.journal()), (self.OFF, []))
        self.assertEqual(self.cfg(mode="set", **self.LED), DONE)
        self.assertEqual(self.cfg(**self.LED), self.OFF)  # for that message only
        self.assertEqual(self.control({"command": "save"}), DONE)
        # A refused setting leaves it as it was.
        self.fail_call("qzcap_set_wifi_switch")
        self.assertEqual(sync("ON", mode="set"), failed("set_arvoksync failed: on demand"))
        self.assertEqual(self.cfg(**self.LED), self.OFF)
        # Switched on, the platform tells, and the link starts anew.
        self.assertEqual(sync("ON", mode="set"), DONE)
        agent.expect("[DEBUG] ec_arvoksync_on (")
        self.wait_for_message("dev_reg")
        self.wait_for_message("dev_report")
        self.assertEqual(self.cfg(**self.LED), DONE)

    def test_sync_is_learned_from_the_platform(self):
        # Off at the start; reading the item tells that it is on, and so does an unchanged setting.
        agent = self.link({"wifi_switch": {"arvoksync": "off"}})
        for read in (lambda: self.status("syncswitch"),
                     lambda: self.cfg(mode="set", syncswitch={"status": "on"})):
            self.assertEqual(self.cfg(**self.LED), self.OFF)
            self.patch({"wifi_switch": {"arvoksync": "on"}})
            agent.expect("[DEBUG] ec_arvoksync_on (")
            agent.expect('-> {"type":"dev_report"')
            self.notify(7, "arvoksync", {"arvoksync": "off"})  # though it is on
            agent.expect('json: {"arvoksync":"off"}')
            self.assertEqual(self.cfg(**self.LED), self.OFF)
            read()
            self.assertEqual(self.cfg(**self.LED), DONE)
            self.patch({"wifi_switch": {"arvoksync": "off"}})
            agent.expect('json: {"arvoksync":"off"}')
        # And the other way round: off, though the platform's notification says on.
        for read in (lambda: self.status("syncswitch"),
                     lambda: self.cfg(syncswitch={"status": "OFF"})):
            self.notify(7, "arvoksync", {"arvoksync": "on"})
            agent.expect("[DEBUG] ec_arvoksync_on (")
            agent.expect('-> {"type":"dev_report"')
            self.assertEqual(self.cfg(**self.LED), DONE)
            read()
            self.assertEqual(self.cfg(**self.LED), self.OFF)

    def test_a_setting_counts_at_once(self):
        # Two messages in one segment: the second is handled before the platform's notification of the first can be.
        self.link()
        message = {"type": "cfg", "set": {"syncswitch": {"status": "OFF"}}}
        call("lab.gateway", "send", {"message": message, "repeat": 2})
        acks = self.wait_for_message("ack", 2)
        self.assertEqual([ack["errcode"] for ack in acks], [0, 10003])

    def test_rows(self):
        self.link()
        whitelist = (10001, "V2019.1.0 without this interface")
        unknown = (10001, "unknown cfg set")
        for rows, error in [
                ({"whitelist": {}}, whitelist), ({}, unknown), ({"mode": "set"}, unknown),
                ({"WIFI": [], "ledSwitch": {"status": "ON"}}, unknown), ({"ledswitch": {"status": "ON"}, "x": 1}, DONE),
                # The rows run in their own order, whatever the message's; the last failure is told.
                ({"whitelist": 1, "blacklist": 1, "wifi": 1}, whitelist),
                ({"iptv": 1, "wifitimer": 1}, invalid("enable")),
                ({"ledswitch": {}, "wifi": 1, "wifitimer": 1}, invalid("status")),
                ({"eventsub": 1, "speedlimit": 1}, invalid("eventsub")),
                ({"eventsub": [], "wifi": 1}, invalid("wifi"))]:
            with self.subTest(rows=rows):
                self.assertEqual(self.cfg(**rows), error)
        self.journal()
        rows = {"wpsswitch": {"status": "ON"}, "wifitimer": [], "ledswitch": {"status": "x"},
                "wifi": [band({"channel": 11})], "iptv": {}, "wifiswitch": {"status": "OFF"}}
        self.assertEqual(self.cfg(**rows), invalid("enable"))
        self.assertEqual([name for name, _ in self.journal() if "get" not in name and "list" not in name],
                         [RADIO_SET] + ["qzcap_wifi_timer_delete"] * 2 + ["qzcap_set_wifi_switch"] * 2)

    def test_eventsub(self):
        """Which events one set makes is the tests' of events; a refused set leaves the one before."""
        self.link()
        for value, error in ((["rolechange", "rolechange"], DONE), (["online", "x"], invalid('event "x"')),
                             (["Online"], invalid('event "Online"')), ([1], invalid('event ""')),
                             ({}, invalid("eventsub")), ("online", invalid("eventsub"))):
            with self.subTest(value=value):
                self.assertEqual(self.cfg(eventsub=value), error)
                self.forget()
                self.notify(5, "devicestatus", {"mac": "02C0FFEE0001", "active": 1})
                self.notify(15, "mode", {"mode": "agent"})
                self.wait_for_message("map_report")
                self.assertEqual([m["data"][0]["event"] for m in self.received("event")], ["rolechange"])
        self.assertEqual(self.cfg(eventsub=[]), DONE)
        self.notify(15, "mode", {"mode": "agent"})
        self.wait_for_message("map_report", 2)
        self.assertEqual(len(self.received("event")), 1)


if __name__ == "__main__":
    unittest.main(verbosity=2)

"""What the device tells on its own: reports, events, and what each notification of the platform makes of itself."""

import base64
import json
import time
import unittest

from desk import LinkedCase, call, wait_until

LAN, WAN, WIFI, MESH, ROAMING, VSIE = 5, 6, 7, 15, 16, 30
DESK, PHONE, LAPTOP, PRINTER = ("02C0FFEE00%02d" % n for n in (1, 2, 5, 6))
DNS = ["192.168.1.1", "100.64.0.1"]
ALL = ["online", "offline", "vsie", "rolechange"]
LONG_SSID = "s" * 62 + "é"  # its last character does not fit
BACKHAUL = {"ssid": "Home-backhaul", "key": "copper-lantern", "auth": "wpa2psk", "encrypt": "aes"}


def event(kind, **members):
    return {"type": "event", "data": [{"event": kind, **members}]}


def wan(**status):
    return {"type": "wan_report", "status": {**status, "dns": DNS}}


def role(word):
    report = {"type": "map_report", "mapRole": word, "mapAlmac": "02:5A:10:00:00:01"}
    return report if word != "controller" else {**report, "backhaulBSS": BACKHAUL}


def online(mac, band="", ssid="", bssid="", vmac=None):
    return event("online", band=band, mac=mac, ssid=ssid, bssid=bssid, vmac=mac if vmac is None else vmac,
                 firstOnline="time")


class EventCase(LinkedCase):
    mark = 0

    def hosts(self):
        """The LAN report of the hosts that are active now."""
        return {"type": "dev_report", "dev": [
            {"mac": mac, "vmac": host.get("vmac", ""), "connecttype": host.get("connecttype", 0), "firstOnline": "time"}
            for mac, host in self.state()["laninfo"].items() if host.get("active")]}

    def sent(self):
        """What was sent since the last look. A WAN notification behind it shows that nothing more is on its way."""
        EventCase.mark += 1
        last = wan(mark=self.mark, status="ip_changed")
        self.notify(WAN, "mark", {"mark": self.mark})
        wait_until(lambda: any(m.get("status") == last["status"] for m in self.received("wan_report")), "the mark")
        messages = [m for m in self.received() if m["type"] not in ("keepalive", "ack")]
        self.forget()
        # Each has a number of its own; an event overtakes a report that waits for the loop's next turn.
        self.assertEqual(len({m.pop("sequence") for m in messages}), len(messages))
        self.assertEqual({m.pop("mac") for m in messages}, {"025A10000001"})
        self.assertEqual(messages.pop(), last)
        for item in [i for m in messages for i in m.get("dev", m.get("data", ())) if "firstOnline" in i]:
            self.assertLess(abs(item["firstOnline"] - time.time()), 120)
            item["firstOnline"] = "time"
        return messages

    def assert_sent(self, *expected):
        """Compares also the order of the members."""
        self.assertEqual([json.dumps(m) for m in self.sent()], [json.dumps(m) for m in expected])


class Changes(EventCase):
    """The device changes, and tells."""

    def changes(self):
        """Each change with what tells of it; the LAN report, where it comes, is that of the hosts then."""
        host = lambda mac, **members: lambda: self.patch({"laninfo": {mac: members}})
        state = lambda **patch: lambda: self.patch(patch)
        home = {"band": "2.4G", "ssid": "Home", "bssid": "02:5A:10:00:01:01"}
        return (
            (host(LAPTOP, active=1), [online(LAPTOP, **home), "hosts"]),
            (host(PRINTER, active=1), [online(PRINTER), "hosts"]),
            (host(DESK, active=0), [event("offline", mac=DESK), "hosts"]),
            (host(DESK, active=1, connecttype=1, band="5G", port=2, vmac="v"),
             [online(DESK, "5G", "Home-5G-2", "02:5A:10:00:02:02", "v"), "hosts"]),
            (host("02:AA", active=1, connecttype=1, band="5G", port=7), [online("02:AA", "5G", vmac=""), "hosts"]),
            (host("02:BB", active=0), []),
            (state(wifi_ap={"5G": {"1": {"ssid": LONG_SSID}}},
                   laninfo={"02:CC": {"active": 1, "connecttype": 1, "band": "5G", "port": 1}}),
             [online("02:CC", "5G", LONG_SSID[:62], "02:5A:10:00:02:01", ""), "hosts"]),
            (state(laninfo={"02:CC": None}), [event("offline", mac="02:CC"), "hosts"]),
            (state(laninfo={"02:AA": None}), [event("offline", mac="02:AA"), "hosts"]),
            (lambda: self.control({"command": "deassociation", "mac": PHONE}), [event("offline", mac=PHONE), "hosts"]),
            (state(waninfo={"status": "down"}), [wan(status="down", ipaddr="192.168.1.2")]),
            (state(waninfo={"status": "up", "ipaddr": "10.0.0.2"}), [wan(status="up", ipaddr="10.0.0.2")]),
            (state(waninfo={"ipaddr": "10.0.0.3"}), [wan(ipaddr="10.0.0.3", status="ip_changed")]),
            (lambda: self.notify(WAN, "wan", {"dns": ["1.1.1.1"], "status": "up"}), [wan(status="up")]),
            (state(mesh={"role": "agent"}), [event("rolechange", role="agent"), role("agent")]),
            (state(mesh={"role": "controller"}), [event("rolechange", role="controller"), role("controller")]),
            (state(wifi_switch={"wpsswitch": "on"}), []),
            (lambda: call("qzcapd.roaming", "bss_transition", {"record": {
                "mac": "02C0FFEE0004", "bssid": "02:5A:10:00:02:01", "channel": 36, "timeout": 0}}),
             [{"type": "cfg", "roaming_report": [
                 {"mac": "02C0FFEE0004", "connect_time": 86000, "rssi": -70, "channel": 36}]}]),
            (lambda: self.notify(VSIE, "vsie", {"band": 0, "mac": "m", "vsie": [221, 5]}),
             [event("vsie", band="2.4G", mac="m", data="ZGQwNQ==")]))

    def run_changes(self, heard):
        self.link()
        if heard is not None:
            self.assertEqual(self.cfg(eventsub=heard), (0, ""))
        for number, (change, expected) in enumerate(self.changes()):
            with self.subTest(number=number, expected=expected):
                self.sent()
                change()
                self.assert_sent(*[self.hosts() if m == "hosts" else m for m in expected
                                   if m == "hosts" or m["type"] != "event" or m["data"][0]["event"] in (heard or ())])

    def test_subscribed_to_everything(self):
        self.run_changes(ALL)

    def test_not_subscribed(self):
        self.run_changes(None)

    def test_subscribed_to_some(self):
        self.run_changes(["offline", "vsie"])

    def test_name_servers_are_those_of_now(self):
        self.link()
        self.sent()
        servers = ["100.64.0.%d" % n for n in range(60, 65)]
        told = lambda: [m["status"] for m in self.received("wan_report") if "server" in m["status"]]
        for server in servers:  # no message of the gateway in between makes the agent forget what it knows
            before = len(told())
            self.patch({"waninfo": {"dns1": server}})
            self.notify(WAN, "x", {"server": server})
            wait_until(lambda: len(told()) > before, "the report")
        self.assertEqual([(s["server"], s["dns"][0]) for s in told()], [(s, s) for s in servers])

    def test_first_seen_stays(self):
        self.link()
        self.cfg(eventsub=["online"])
        known = time.time()
        wait_until(lambda: time.time() > int(known) + 1, "another second")
        for active in (0, 1):
            self.patch({"laninfo": {DESK: {"active": active}}})
        self.patch({"laninfo": {LAPTOP: {"active": 1}}})
        self.wait_for_message("dev_report", 3)
        first = {i["data"][0]["mac"]: i["data"][0]["firstOnline"] for i in self.received("event")}
        self.assertLessEqual(first[DESK], known)
        self.assertGreater(first[LAPTOP], known)
        reported = {d["mac"]: d["firstOnline"] for d in self.received("dev_report")[2]["dev"]}
        self.assertEqual(reported[LAPTOP], first[LAPTOP])

    def test_sync_on_restarts_the_link(self):
        agent = self.link()
        self.patch({"wifi_switch": {"arvoksync": "off"}})
        for word in ("ON", "On", "yes", ""):
            self.notify(WIFI, "arvoksync", {"arvoksync": word})
        for message in ({"arvoksync": 1}, {"arvoksync": None}, {"sync": "on"}, {}, {"wifiswitch": "on"}):
            self.notify(WIFI, "arvoksync", message)
        self.assert_sent()
        self.assertEqual(self.cfg(ledswitch={"status": "ON"}), (10003, "arvoksync is off"))
        self.assertNotIn("ec_arvoksync_on", agent.lines())
        began = time.monotonic()
        self.notify(WIFI, "anything", {"arvoksync": "on", "more": 1})
        agent.expect("[DEBUG] ec_arvoksync_on (")
        agent.expect("[INFO] (arvok) disconnect fd: ")
        agent.expect("[INFO] (arvok) connect ")
        took = time.monotonic() - began
        self.assertTrue(0.9 < took < 5, took)  # one second, not the ten after a fault
        self.wait_for_message("dev_report")
        self.notify(WIFI, "arvoksync", {"arvoksync": "OFF"})
        self.assertEqual(self.cfg(ledswitch={"status": "ON"}), (0, ""))


class Notifications(EventCase):
    """Notifications as no device should send them."""

    def test_members(self):
        agent = self.link()
        self.assertEqual(self.cfg(eventsub=ALL), (0, ""))
        hosts = self.hosts()
        desk = online(DESK)
        vsie = lambda band, word, data="": ((VSIE, "v", {"band": band, "mac": "m", "vsie": []}),
                                            [event("vsie", band=word, mac="m", data=data)])
        stations = [{"mac": "m", "connecttime": "7", "rssi": -1.5, "channel": [1], "more": 1}, {"rssi": None}, {}, 5]
        for (number, method, message), expected in (
                # A host came or went: the report always, the event only when the members fit and the host is known.
                ((LAN, "devicestatus", {"mac": DESK, "active": 1, "more": {"x": [1]}}), [desk, hosts]),
                ((LAN, "devicestatus", {"mac": DESK.lower(), "active": 1}), [online(DESK.lower(), vmac=DESK), hosts]),
                ((LAN, "devicestatus", {"mac": "nobody", "active": 1}), [hosts]),
                ((LAN, "devicestatus", {"mac": "nobody", "active": 0}), [event("offline", mac="nobody"), hosts]),
                ((LAN, "devicestatus", {"mac": DESK, "active": 2}), [hosts]),
                ((LAN, "devicestatus", {"mac": DESK, "active": "1"}), [hosts]),
                ((LAN, "devicestatus", {"mac": 1, "active": 0}), [hosts]),
                ((LAN, "devicestatus", {"active": 1}), [hosts]), ((LAN, "devicestatus", {"mac": DESK}), [hosts]),
                ((LAN, "devicestatus", {}), [hosts]), ((LAN, "DeviceStatus", {"mac": DESK, "active": 1}), []),
                ((LAN, "newdevice", {"mac": DESK, "active": 1}), []), ((LAN, "newdevice", {}), []),
                # The WAN's message travels as it is.
                ((WAN, "x", {}), [wan(status="ip_changed")]), ((WAN, "x", {"status": 5}), [wan(status=5)]),
                ((WAN, "x", {"status": "up", "a": {"b": [1, "c"]}}), [wan(status="up", a={"b": [1, "c"]})]),
                # Stations' members keep their types; what is not there stays away.
                ((ROAMING, "x", {"roamingreport": stations, "more": 1}), [{"type": "cfg", "roaming_report": [
                    {"mac": "m", "connect_time": "7", "rssi": -1.5, "channel": [1]}, {"rssi": None}, {}, {}]}]),
                ((ROAMING, "x", {"roamingreport": []}), [{"type": "cfg", "roaming_report": []}]),
                ((ROAMING, "roamingreport", {}), []), ((ROAMING, "x", {"roamingreport": {"mac": "m"}}), []),
                ((ROAMING, "x", {"roamingreport": "m"}), []),
                # The mesh report always, the event with the word that came.
                ((MESH, "x", {"mode": "any"}), [event("rolechange", role="any"), role("controller")]),
                ((MESH, "mode", {}), [role("controller")]), ((MESH, "mode", {"mode": 1}), [role("controller")]),
                # Elements.
                vsie(0, "2.4G"), vsie(1, "5G"), vsie(2, "5G-2"), vsie(-1, "5G-2"), vsie(99, "5G-2"),
                ((VSIE, "x", {"band": "0", "mac": "m", "vsie": []}), []), ((VSIE, "x", {"mac": "m", "vsie": []}), []),
                ((VSIE, "x", {"band": 0, "mac": 1, "vsie": []}), []), ((VSIE, "x", {"band": 0, "vsie": []}), []),
                ((VSIE, "x", {"band": 0, "mac": "m", "vsie": "dd05"}), []), ((VSIE, "x", {"band": 0, "mac": "m"}), [])):
            with self.subTest(object=number, method=method, message=message):
                self.notify(number, method, message)
                self.assert_sent(*expected)
        agent.expect('[DEBUG] dev_event_cb: method newdevice, json: {}\n')
        agent.expect('[DEBUG] roaming_event_cb: method roamingreport, json: {}\n')
        agent.expect('[DEBUG] map_event_cb: method mode, json: {"mode":1}\n')
        agent.expect('[DEBUG] vsie_event_cb: method v, json: {"band":0,"mac":"m","vsie":[]}\n')

    def test_elements(self):
        self.link()
        self.cfg(eventsub=["vsie"])
        for numbers, digits in (([0, 255, 16, 171], "00ff10ab"), ([1, "2", 3], "01"), (["x", 1], ""),
                                ([1, None, 3], "01"),
                                ([256 + 18, -1], "12ff"), (list(range(127)), bytes(range(127)).hex()),
                                (list(range(128)), bytes(range(128)).hex()),
                                (list(range(129)), bytes(range(128)).hex()),
                                ([7] * 1000, "07" * 128)):
            with self.subTest(numbers=numbers[:5], length=len(numbers)):
                self.notify(VSIE, "vsie", {"band": 1, "mac": "m", "vsie": numbers})
                self.assert_sent(event("vsie", band="5G", mac="m", data=base64.b64encode(digits.encode()).decode()))

    def test_long_interface_names_are_cut(self):
        self.link({"wifi_ap": {"2.4G": {"1": {"ssid": "s" * 70, "bssid": "b" * 70}}}})
        self.cfg(eventsub=["online"])
        self.notify(LAN, "devicestatus", {"mac": "02C0FFEE0004", "active": 1})
        self.assert_sent(online("02C0FFEE0004", "2.4G", "s" * 63, "b" * 63), self.hosts())


class Unlinked(LinkedCase):
    """Whatever happens, nothing is sent and the platform is not asked while the device is not registered."""

    STREAM = ((LAN, "devicestatus", {"mac": DESK, "active": 1}), (LAN, "devicestatus", {"mac": DESK, "active": 0}),
              (LAN, "newdevice", {"mac": DESK, "active": 0}), (WAN, "x", {"status": "up"}),
              (WIFI, "x", {"arvoksync": "off"}), (ROAMING, "x", {"roamingreport": [{}]}),
              (MESH, "x", {"mode": "agent"}), (VSIE, "x", {"band": 0, "mac": "m", "vsie": [1]}))

    def check(self, agent):
        self.journal()
        before = agent.lines().count("(arvok) -> ")
        for number, method, message in (*self.STREAM, (WAN, "last", {})):
            self.notify(number, method, message)
        agent.expect("[DEBUG] wan_event_cb: method last, json: {}\n")
        self.assertEqual(self.journal(), [])
        self.assertEqual(agent.lines().count("(arvok) -> "), before)

    def test_not_connected(self):
        self.misbehave(fault="refuse", times=0)
        agent = self.start("-g", "192.168.1.1")
        agent.expect("[INFO] (arvok) disconnect fd: ")
        self.check(agent)

    def test_connected_but_not_registered(self):
        self.misbehave(fault="drop", on="dh")
        agent = self.start("-g", "192.168.1.1")
        agent.expect('-> {"type":"dh"')
        self.check(agent)

    def test_connection_lost(self):
        agent = self.link()
        self.assertEqual(self.cfg(eventsub=ALL), (0, ""))
        self.misbehave(fault="close")
        agent.expect("[INFO] (arvok) disconnect fd: ")
        self.check(agent)


if __name__ == "__main__":
    unittest.main(verbosity=2)

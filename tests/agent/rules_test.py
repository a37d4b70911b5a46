"""Rules that hold: whatever the order of commands, restarts, refusals and settings of the clock."""

import unittest

from desk import call, wait_until
from extended_test import (CLOSING, DESK, DONE, INDEX, NIGHT, NOBODY, PARENT, PHONE, SCHEDULES, SUCCESS, TABLET,
                           ExtendedCase)

HOST = 5  # the platform's object of the LAN hosts
FREED = "extcc-lhf.cfg"


class RulesCase(ExtendedCase):
    def setUp(self):
        self.remove(FREED)
        super().setUp()

    def schedule(self, mac, *rules):
        self.check("SET_LANHOST_TIMER", {"MAC": mac, "Info": list(rules)}, SUCCESS)

    def block(self, mac, access="0"):
        self.check("SET_LANHOST_INTERNET", {"Info": [{"MAC": mac, "InternetAccess": access}]}, SUCCESS)

    def told(self, mac):
        return [(rule["ContinueID"], rule["GroupID"]) for rule in self.ask("GET_LANHOST_TIMER", MAC=mac)["Info"]]

    def link(self):
        if not self.timers:
            self.hold_timers()
        return super().link()

    def evaluated(self):
        """Has the rules looked at because of a host that they say nothing of."""
        self.agent.seen = len(self.agent.lines())
        self.notify(HOST, "newdevice", {"mac": NOBODY, "active": 1})
        self.agent.expect("method newdevice, json")
        self.timers.ahead(1)

    def access(self, *macs):
        return [self.host(mac, "internetaccess") for mac in macs]


class Holding(RulesCase):
    def test_freed_hosts(self):
        # Two that are freed one right after the other.
        for mac in (PHONE, TABLET, DESK):
            self.schedule(mac, NIGHT)
        self.wait_for_host(DESK, internetaccess=1)
        self.schedule(PHONE)
        self.schedule(TABLET)
        self.wait_for_host(TABLET, internetaccess=2)
        self.wait_for_host(PHONE, internetaccess=2)
        # Freed, then blocked: it stays blocked, as the answers say.
        self.schedule(DESK)
        self.wait_for_host(DESK, internetaccess=2)
        self.block(DESK)
        self.wait_for_host(DESK, internetaccess=0)
        self.timers.ahead(86402)
        self.assertEqual((self.access(DESK), self.dump()["ParentRules"][0]["Exec"]), ([0], "True"))

    def test_a_host_that_is_away_when_it_is_freed(self):
        self.schedule(TABLET, NIGHT)
        self.wait_for_host(TABLET, internetaccess=1)
        record = self.state()["laninfo"][TABLET]
        self.patch({"laninfo": {TABLET: None}})
        self.schedule(TABLET)
        self.evaluated()
        self.assertEqual(self.file(FREED), TABLET + "\n")
        self.restart()
        self.patch({"laninfo": {TABLET: record}})
        self.wait_for_host(TABLET, internetaccess=2)
        # Once: who restricts it from then on is somebody else.
        wait_until(lambda: self.file(FREED) is None, "the file goes")
        self.patch({"laninfo": {TABLET: {"internetaccess": 0}}})
        self.evaluated()
        self.assertEqual(self.access(TABLET), [0])

    def test_a_rule_belongs_to_its_host_alone(self):
        colons = "02:c0:ff:ee:00:01"
        self.schedule(DESK, NIGHT, {**NIGHT, "GroupID": PHONE})
        self.schedule(PHONE, NIGHT)
        for mac in (PHONE, "", PHONE.lower()):
            self.schedule(mac)
            self.assertEqual((self.told(DESK), self.told(PHONE)), ([("c1", "g1"), ("c1", PHONE)], []), mac)
        for spelling in (DESK.lower(), colons, "02-C0-FF-EE-00-01"):
            self.schedule(spelling, NIGHT)
            for _ in range(2):
                rules = self.dump()["TimeRules"]
                self.assertEqual([(host["mac"], host["num"]) for host in rules], [(spelling, 1)])
                self.assertEqual((self.told(DESK), self.told(colons)), ([("c1", "g1")],) * 2)
                self.wait_for_host(DESK, internetaccess=1)
                self.restart()
            self.assertEqual(self.file(SCHEDULES), spelling + "|0|22:00|6:00|1|c1|g1\n")
        self.check("SET_LANHOST_INTERNET", {"Info": [{"MAC": colons, "InternetAccess": "0"}]},
                   {"FailReason": "MAC already in timer rules", "Status": "-1000"})
        self.schedule(DESK)
        self.wait_for_host(DESK, internetaccess=2)
        self.block(colons)
        self.wait_for_host(DESK, internetaccess=0)
        self.check("SET_LANHOST_TIMER", {"MAC": DESK.lower(), "Info": [NIGHT]},
                   {"FailReason": "MAC already in internet rules", "Status": "-1000"})
        for exe in ("True", "False"):
            self.check("GET_LANHOST_INTERNET", {},
                       {"Info": [{"MAC": colons, "InternetAccess": "0", "Exec": exe}], **SUCCESS})
            self.restart()
        self.assertEqual(self.dump()["TimeRules"], [])

    def test_one_writer(self):
        # What restricts nothing does not lift a schedule, whoever joins.
        self.block(DESK)
        self.wait_for_host(DESK, internetaccess=0)
        self.block(DESK, "2")
        self.wait_for_host(DESK, internetaccess=2)
        self.schedule(DESK, NIGHT)
        self.wait_for_host(DESK, internetaccess=1)
        self.evaluated()
        self.assertEqual(self.access(DESK), [1])
        # A host that first appears inside its range is restricted at once; blocking and rates of others are left to
        # whoever asks for them.
        self.schedule(NOBODY, NIGHT)
        self.block(PHONE)
        self.wait_for_host(PHONE, internetaccess=0)
        self.patch({"laninfo": {PHONE: {"internetaccess": 2}}})
        self.agent.seen = len(self.agent.lines())
        self.schedule(TABLET)
        self.agent.expect("extcc next check is")
        self.assertEqual(self.access(PHONE), [2])
        self.forget()
        self.patch({"laninfo": {NOBODY: {"internetaccess": 2}}})
        self.wait_for_host(NOBODY, internetaccess=1)
        self.assertEqual(self.access(PHONE), [0])
        self.restart()
        self.evaluated()
        self.assertEqual(len(self.journal("qzcap_set_laninfo")), 0)

    def test_refusals_are_tried_again(self):
        writes = lambda: len(self.journal("qzcap_set_laninfo"))
        self.fail_call("qzcap_set_laninfo", times=7)
        self.schedule(DESK, NIGHT)
        wait_until(writes, "the first try")
        for seconds in (10, 20, 40, 80, 160, 300, 300):
            self.timers.ahead(seconds - 5)
            self.assertEqual((writes(), self.access(DESK)), (0, [2]), seconds)
            self.timers.ahead(6)
            wait_until(writes, "a try after %d s" % seconds)
        self.wait_for_host(DESK, internetaccess=1)
        # Blocking, too, and not when it is not wanted any more.
        self.fail_call("qzcap_set_laninfo", times=100)
        self.block(PHONE)
        wait_until(writes, "the first try")
        self.assertEqual(self.ask("GET_LANHOST_INTERNET")["Info"][0]["Exec"], "False")
        self.ask("SET_LANHOST_INTERNET", Info=[])
        self.mend("qzcap_set_laninfo")
        self.timers.ahead(11)
        self.evaluated()
        self.assertEqual(self.access(PHONE), [2])

    def test_a_list_that_cannot_be_read(self):
        self.schedule(DESK, NIGHT)
        self.wait_for_host(DESK, internetaccess=1)
        self.fail_call("qzcap_list_laninfo", times=100)
        self.patch({"laninfo": {DESK: {"internetaccess": 2}}})
        self.agent.seen = len(self.agent.lines())
        self.notify(HOST, "devicestatus", {"mac": DESK, "active": 1})
        self.agent.expect("extcc next check is 10s")
        self.mend("qzcap_list_laninfo")
        self.assertEqual(self.access(DESK), [2])
        self.timers.ahead(11)
        self.wait_for_host(DESK, internetaccess=1)

    def test_a_clock_that_is_set(self):
        self.clock("2026-11-18 12:00:00")
        self.schedule(DESK, NIGHT)
        self.agent.expect("extcc next check is")
        for time, access in (("2026-11-18 22:30:00", 1), ("2026-11-19 12:00:00", 2), ("2026-11-19 05:00:00", 1)):
            self.clock(time)
            self.wait_for_host(DESK, internetaccess=access)
        # A device that boots with a stale date.
        for stale in ("2000-01-01 23:00:00", "2026-11-18 12:00:00"):
            self.clock(stale)
            self.restart()
            self.patch({"laninfo": {DESK: {"internetaccess": 2}}})
            self.clock("2026-11-18 23:00:00")
            self.wait_for_host(DESK, internetaccess=1)

    def test_texts_are_cut_between_characters(self):
        self.schedule(DESK, {**NIGHT, "ContinueID": "a" * 14 + "é", "GroupID": "家" * 6})
        self.schedule(PHONE, {**NIGHT, "ContinueID": "é" * 8, "GroupID": "g" * 12 + "😀"})
        # What is not told of them is not kept, either.
        self.assertEqual([line.split("|", 5)[5] for line in self.file(SCHEDULES).splitlines()],
                         ["a" * 14 + "|" + "家" * 5, "é" * 7 + "|" + "g" * 12])
        for _ in range(2):
            self.assertEqual(self.told(DESK) + self.told(PHONE),
                             [("a" * 14, "家" * 5), ("é" * 7, "g" * 12)])
            self.restart()
        self.block("家里的电视机")
        self.block("x家里的电视机")
        for _ in range(2):
            self.assertEqual({entry["MAC"] for entry in self.ask("GET_LANHOST_INTERNET")["Info"]},
                             {"家里的电视", "x家里的电"})
            self.restart()

    def test_files_of_older_programs(self):
        self.agent.stop()
        half = "家" * 5  # cut by the byte, behind an x
        self.file(SCHEDULES, "02:C0:FF:EE:00:01|0|22:00|6:00|1|nocid|\n02C0FFEE0002|0|22:00|6:00|1|c|g\n")
        with open(self.path(PARENT), "wb") as file:
            file.write(("02c0ffee0003|2|0|0|0\n" + "x" + half).encode()[:-1] + b"|2|1|0|0\n02C0FFEE0003|1|0|5|6\n")
        self.restart()
        self.wait_for_host(DESK, internetaccess=1)
        self.wait_for_host(PHONE, internetaccess=1)
        self.assertEqual([rule["MAC"] for rule in self.ask("GET_LANHOST_INTERNET")["Info"]],
                         ["x" + half[:-1], "02c0ffee0003"])
        self.assertEqual(self.dump()["ParentRules"][1]["dsbandwidth"], 5)
        self.block("x" + half)
        self.assertEqual(len(self.dump()["ParentRules"]), 2)


class Visitors(RulesCase):
    """The guest network."""

    NETWORK = {"SSID": "Visitors", "PWD": "come-in!", "ENCRYPT": "5", "Enable": "1", "SSIDHide": "0"}

    def create(self, **members):
        self.check("SET_GUEST_WIFI", {"Info": [{**self.NETWORK, **members}]}, DONE)

    def close_in(self, minutes, enable="1"):
        self.check("SET_GUEST_WIFI_CLOSE_TIMER", {"Info": [{"LastTime": minutes, "Enable": enable}]}, DONE)
        self.agent.expect("extcc_guestssid_cb (")

    def enabled(self):
        return self.state()["wifi_ap"]["2.4G"]["5"]["enable"]

    def wait_enabled(self, value):
        wait_until(lambda: self.enabled() == value, "enable is " + value)

    def test_nothing_to_apply(self):
        self.create()
        self.check("SET_GUEST_WIFI_CLOSE_TIMER", {}, DONE)
        self.timers.ahead(1)
        self.assertEqual((self.enabled(), self.file(CLOSING)), ("yes", None))

    def test_a_closing_that_is_refused(self):
        self.create()
        self.close_in("10")
        self.fail_call("qzcap_wifi_ap_set", times=2)
        self.clock("2026-11-18 23:10:01")
        for seconds in (10, 20):
            wait_until(lambda: "qzcap_wifi_ap_set" in dict(self.journal()), "a try")
            self.assertEqual(self.enabled(), "yes")
            self.timers.ahead(seconds - 5)
            self.assertEqual(self.journal("qzcap_wifi_ap_set"), [])
            self.timers.ahead(6)
        self.wait_enabled("no")
        # One that cannot even be read.
        self.create()
        self.close_in("10")
        self.fail_call("qzcap_wifi_ap_get", times=1)
        self.fail_call("qzcap_wifi_ap_list", times=1)
        self.clock("2026-11-18 23:30:00")
        self.agent.expect("extcc_guestssid_cb (")
        self.timers.ahead(11)
        self.wait_enabled("no")

    def test_a_restart(self):
        # inside the window: it is closed in time; behind it: at once
        for restarted, after in (("2026-11-18 23:05:00", "yes"), ("2026-11-18 23:20:00", "no")):
            self.clock("2026-11-18 23:00:00")
            self.create()
            self.close_in("10")
            self.assertEqual(self.agent.stop(), 0)
            self.patch({"wifi_ap": {"2.4G": {"5": {"enable": "no" if after == "yes" else "yes"}}}})
            self.clock(restarted)
            self.restart()
            self.wait_enabled(after)
            self.clock("2026-11-18 23:10:01")
            self.timers.ahead(301)
            self.wait_enabled("no")
        # Opened again by a later command, it stays open.
        self.create()
        self.restart()
        self.evaluated()
        self.assertEqual(self.enabled(), "yes")

    def test_a_read_that_fails_once(self):
        for failing in (["qzcap_wifi_ap_get"], ["qzcap_wifi_ap_get", "qzcap_wifi_ap_list"]):
            self.create()
            for function in failing:
                self.fail_call(function)
            self.check("GET_GUEST_WIFI", {}, {"Info": [], **SUCCESS})
            self.assertEqual(self.file(INDEX), "5")
            self.check("DELETE_GUEST_WIFI", {}, SUCCESS)
            self.assertNotIn("5", self.state()["wifi_ap"]["2.4G"])


if __name__ == "__main__":
    unittest.main()

"""What other apps set for the hosts on the LAN and for the guest network, and what the platform and the files get."""

import json
import os
import re
import subprocess
import unittest

from desk import LinkedCase, call, wait_until

FOLDER = os.path.join(os.environ["LAB_DIR"], "qzcap/apps/arvokclt")
SCHEDULES, PARENT, INDEX, CLOSING = ("extcc-%s.cfg" % name for name in ("lht", "lhpc", "gst-idx", "gst-tmr"))
DESK, PHONE, TABLET, NOBODY = "02C0FFEE0001", "02C0FFEE0002", "02C0FFEE0003", "02C0FFEE0099"
SUCCESS = {"Status": "0", "FailReason": ""}
NIGHT = {"ContinueID": "c1", "GroupID": "g1", "Mode": "0", "StartTime": "22:00", "EndTime": "6:00", "Enable": "1"}
NO_ARRAY = (None, {}, "x", 5)


def outcome(reason, status):
    return {"FailReason": reason, "Status": status}


DONE = outcome("", "0")


def spoilt(members, name, *wrong):
    """The members without the one, with another type in its place, and with these values."""
    yield {key: value for key, value in members.items() if key != name}
    for value in (1, None, [members[name]], *wrong):
        yield {**members, name: value}


class ExtendedCase(LinkedCase):
    """One agent with empty rules. Its clock is set before it starts."""

    def setUp(self):
        super().setUp()
        for name in (SCHEDULES, PARENT, INDEX, CLOSING):
            self.remove(name)
        self.clock("2026-11-18 23:00:00")  # a Wednesday
        self.addCleanup(self.clock, "real")
        self.link()

    @staticmethod
    def clock(time):
        subprocess.run(["lab-clock", time], check=True)

    @staticmethod
    def remove(name):
        path = os.path.join(FOLDER, name)
        if os.path.lexists(path):
            os.remove(path)

    @staticmethod
    def path(name):
        return os.path.join(FOLDER, name)

    @staticmethod
    def file(name, content=None):
        """The content of a rule file, None without one; or makes it."""
        path = ExtendedCase.path(name)
        if content is not None:
            with open(path, "w") as file:
                file.write(content)
        if not os.path.exists(path):
            return None
        with open(path) as file:
            return file.read()

    def ask(self, command, **members):
        """The answer without what repeats the request."""
        answer = call("qzapp.arvokclt", "postmsg", {"CmdType": command, "SequenceId": "9", **members})
        self.assertEqual(list(answer.items())[:2], [("CmdType", command), ("SequenceId", "9")])
        return dict(list(answer.items())[2:])

    def check(self, command, members, expected):
        """Asks and compares, order included."""
        with self.subTest(command=command, members=str(members)[:200]):
            self.assertEqual(json.dumps(self.ask(command, **members)), json.dumps(expected))

    def restart(self):
        self.assertEqual(self.agent.stop(), 0)
        wait_until(lambda: not self.peer()["connected"], "the gateway's connection closed")
        self.forget()
        self.link()

    def host(self, mac, *fields):
        record = self.state()["laninfo"][mac]
        return tuple(record[field] for field in fields) if len(fields) > 1 else record[fields[0]]

    def wait_for_host(self, mac, **fields):
        wait_until(lambda: all(self.host(mac, name) == value for name, value in fields.items()),
                   lambda: "%s of %s: %s" % (fields, mac, self.state()["laninfo"][mac]))

    def dump(self):
        return self.ask("EXTCC_DUMP")


class Hosts(ExtendedCase):
    def test_list(self):
        command = "GET_LANHOST_INFO"
        for members in ({}, {"OprType": 2}, {"OprType": None}):
            self.check(command, members, outcome("invalid msg, OprType", "-201"))
        listed = lambda kind: [host["ObjP"][-1] for host in self.ask(command, OprType=kind)["Info"]]
        self.assertEqual([listed(kind) for kind in ("0", "1", "2", "3", "x")],
                         [["5", "6"], ["1", "2", "3", "4"], ["1", "2", "3", "4", "5", "6"], [], ["5", "6"]])
        record = dict(self.state()["laninfo"][TABLET], port=7, rssi=-61, active=5, uplimit=11, downlimit=-22,
                      storageaccess=0, internetaccess=1, inactivetime="later")
        self.patch({"laninfo": {mac: None for mac in self.state()["laninfo"]}})
        self.check(command, {"OprType": "2"}, {"Status": "0", "FailReason": "", "Info": []})
        self.patch({"laninfo": {TABLET: record, DESK: {"active": 5, "index": 4000000000}}})
        self.ask("SET_LANHOST_TIMER", MAC=TABLET.lower(), Info=[NIGHT])
        given = ["02C0FFEE0003", "tablet", "Kitchen tablet", "1", "1", "0", "11", "-22", "8", "96", "192.168.1.22",
                 "1", "7", "Brixolane", "Slate 2", "5", "2026-03-01 09:30:00", "later", "1800", "4194304", "131072",
                 "-61", "", "", "1", "1", "1", "qzcapd.laninfo.3"]
        bare = [DESK, "", "", "0", "0", "0", "0", "0", "", "", "", "0", "0", "", "", "5", "", "", "0", "", "", "0",
                "", "", "1", "1", "0", "qzcapd.laninfo.4000000000"]
        keys = ("MAC HN DN FB IA SA MUB MDB US DS IP CT Po Br Mo Act LAT LIT OT RB TB PL OS DT CS DON LTS ObjP").split()
        self.check(command, {"OprType": "5"},
                   {**SUCCESS, "Info": [dict(zip(keys, values)) for values in (given, bare)]})
        for (up, down, storage, access, band), expected in {
                (0, 0, 1, 2, "5G-2"): ("0", "2"), (1, 0, 1, 2, "2.4G"): ("1", "0"), (0, 1, 1, 2, "5G"): ("1", "1"),
                (0, 0, 0, 2, "5g"): ("1", "0"), (0, 0, 1, 1, "5G-"): ("1", "0"), (0, 0, -1, 2, ""): ("0", "0")}.items():
            self.patch({"laninfo": {DESK: {"uplimit": up, "downlimit": down, "storageaccess": storage,
                                           "internetaccess": access, "band": band}}})
            host = self.ask(command, OprType="5")["Info"][1]
            self.assertEqual((host["CS"], host["FB"]), expected, (up, down, storage, access, band))

    def test_schedule_faults(self):
        command = "SET_LANHOST_TIMER"
        for members in spoilt({"MAC": DESK, "Info": []}, "MAC"):
            self.check(command, members, outcome("MAC not found", "-202"))
            self.check("GET_LANHOST_TIMER", members, outcome("MAC not found", "-202"))
        self.check(command, {"MAC": DESK}, outcome("Info is not array", "-201"))
        for info in NO_ARRAY:
            self.check(command, {"MAC": DESK, "Info": info}, outcome("Info is not array", "-201"))
        # What stands before the faulty rule is kept, in memory and in the file.
        times = ("", "24:01", "24:000", "9:0", "9:000", "09-00", "x9:00", "9:x0", "009:00", "90:0", "+9:00", "099:0")
        for name, reason, wrong in (("StartTime", "invalid StartTime/EndTime", times),
                                    ("EndTime", "invalid StartTime/EndTime", times),
                                    ("Mode", "invalid Mode", ("8", "-1", "", "1x", "18446744073709551616")),
                                    ("Enable", "invalid Enable", ("2", "-1", "", "yes"))):
            for rule in (*spoilt(NIGHT, name, *wrong), "x", None):
                fault = reason if isinstance(rule, dict) else "invalid StartTime/EndTime"
                self.check(command, {"MAC": DESK, "Info": [NIGHT, rule, NIGHT]}, outcome(fault, "-1"))
                self.assertEqual(self.file(SCHEDULES), DESK + "|0|22:00|6:00|1|c1|g1\n")
                self.assertEqual([host["num"] for host in self.dump()["TimeRules"]], [1])
        self.wait_for_host(DESK, internetaccess=1)
        self.check(command, {"MAC": DESK, "Info": [{**NIGHT, "Mode": "00000003", "Enable": "+01"}]}, SUCCESS)
        self.assertEqual(self.file(SCHEDULES), DESK + "|3|22:00|6:00|1|c1|g1\n")
        self.check(command, {"MAC": DESK, "Info": [NIGHT]}, SUCCESS)
        self.wait_for_host(DESK, internetaccess=1)
        # One that is faulty at once leaves nothing, and the access as it was: it is not said to be free.
        self.agent.seen = len(self.agent.lines())
        self.check(command, {"MAC": DESK, "Info": [{}]}, outcome("invalid StartTime/EndTime", "-1"))
        self.agent.expect("extcc next check is")
        self.assertEqual((self.host(DESK, "internetaccess"), self.file(SCHEDULES)), (1, ""))

    def test_schedules(self):
        command, ask = "SET_LANHOST_TIMER", "GET_LANHOST_TIMER"
        noon = {"Mode": "7", "StartTime": "12:75", "EndTime": "24:00", "Enable": "0"}
        cut = NOBODY + "|0|8:0"  # a file that lost its end
        self.file(SCHEDULES, cut)
        self.restart()
        self.check(command, {"MAC": DESK, "Info": [NIGHT, noon]}, SUCCESS)
        self.check(command, {"MAC": PHONE, "Info": [{**noon, "ContinueID": "", "GroupID": "g" * 14 + "\n" + NOBODY}]},
                   SUCCESS)
        desk = DESK + "|0|22:00|6:00|1|c1|g1\n" + DESK + "|7|12:75|24:00|0|nocid|\n"
        phone = PHONE + "|7|12:75|24:00|0|nocid|" + "g" * 14 + " \n"  # what is told of it
        self.assertEqual(self.file(SCHEDULES), cut + "\n" + desk + phone)
        told = lambda rule: {"ContinueID": "", "GroupID": "", **rule}
        keys = ("ContinueID", "Mode", "StartTime", "EndTime", "Enable", "GroupID")
        rules = [{key: told(rule)[key] for key in keys} for rule in (NIGHT, noon)]
        self.wait_for_host(DESK, internetaccess=1)
        schedules = lambda: [host for host in self.dump()["TimeRules"] if host["mac"] != NOBODY]
        before = schedules()
        self.assertEqual([list(host.items())[:3] for host in before],
                         [[("mac", PHONE), ("num", 1), ("internet", 2)], [("mac", DESK), ("num", 2), ("internet", 1)]])
        self.assertEqual([list(rule.items()) for rule in before[1]["rules"]],
                         [[("start", "12:75"), ("end", "24:00"), ("enable", 0), ("weekday", 7)],
                          [("start", "22:00"), ("end", "6:00"), ("enable", 1), ("weekday", 0)]])
        for _ in range(2):
            self.check(ask, {"MAC": DESK.lower()}, {"Info": rules, **SUCCESS})
            self.check(ask, {"MAC": DESK[:-1]}, {"Info": [], **SUCCESS})
            self.assertEqual(schedules(), before)
            self.restart()
        # An empty schedule frees the host.
        self.check(command, {"MAC": DESK, "Info": []}, SUCCESS)
        self.wait_for_host(DESK, internetaccess=2)
        self.assertEqual((self.file(SCHEDULES), [host["mac"] for host in schedules()]), (cut + "\n" + phone, [PHONE]))
        # However a MAC is spelled, it meets its own rule.
        for mac in (DESK, "02:C0:FF:EE:00:01"):
            self.check(command, {"MAC": mac, "Info": [NIGHT]}, SUCCESS)
        self.assertEqual(schedules()[0]["num"], 1)
        self.assertEqual(self.file(SCHEDULES), cut + "\n" + phone + "02:C0:FF:EE:00:01|0|22:00|6:00|1|c1|g1\n")

    def test_blocking(self):
        command, ask = "SET_LANHOST_INTERNET", "GET_LANHOST_INTERNET"
        block = lambda mac, access="0": {"MAC": mac, "InternetAccess": access}
        told = lambda *hosts: {"Info": [{**block(*host[:2]), "Exec": host[2]} for host in hosts], **SUCCESS}
        for info in NO_ARRAY:
            self.check(command, {"Info": info}, outcome("Info is not array", "-201"))
        self.check(command, {"Info": [block(DESK), block(NOBODY, "1"), block(PHONE, "2")]}, SUCCESS)
        self.assertEqual(self.file(PARENT), PHONE + "|2|2|0|0\n" + NOBODY + "|2|1|0|0\n" + DESK + "|2|0|0|0\n")
        self.wait_for_host(DESK, internetaccess=0)
        self.check(ask, {}, told((NOBODY, "1", "False"), (DESK, "0", "True")))
        # What stands before a fault is stored and applied.
        before = self.file(PARENT)
        for member, reason, status, wrong in (("MAC", "MAC not found", "-202", ()), (
                "InternetAccess", "invalid InternetAccess", "-1", ("3", "-1", "", "1 "))):
            for host in (*spoilt(block(PHONE), member, *wrong), *(["x"] if member == "MAC" else [])):
                self.check(command, {"Info": [block(TABLET, "1"), host, block("A")]}, outcome(reason, status))
        self.assertEqual(self.file(PARENT), TABLET + "|2|1|0|0\n" + before)
        self.wait_for_host(TABLET, internetaccess=1)
        wait_until(lambda: self.ask(ask)["Info"] == told((TABLET, "1", "True"), (NOBODY, "1", "False"),
                                                         (DESK, "0", "True"))["Info"], lambda: self.ask(ask))
        # Schedules and blocking exclude each other, in both directions; what is free may have a schedule.
        for mac in (DESK, DESK.lower()):
            self.check("SET_LANHOST_TIMER", {"MAC": mac, "Info": [NIGHT]},
                       outcome("MAC already in internet rules", "-1000"))
        self.check("SET_LANHOST_TIMER", {"MAC": PHONE, "Info": [NIGHT]}, SUCCESS)
        self.check(command, {"Info": [block(PHONE.lower(), "x")]}, outcome("MAC already in timer rules", "-1000"))
        self.check(command, {"Info": [block(PHONE), block(DESK.lower(), "1")]}, SUCCESS)
        self.wait_for_host(DESK, internetaccess=1)
        # None at all: the rate limits stay.
        self.ask("SET_LANHOST_BANDWIDTH", Info=[{"MAC": DESK, "MaxUSBandwidth": "5", "MaxDSBandwidth": "0"}])
        self.check(command, {"Info": []}, SUCCESS)
        self.assertEqual(self.file(PARENT), DESK + "|1|1|0|5\n")
        self.check("SET_LANHOST_BANDWIDTH", {"Info": [{"MAC": NOBODY, "MaxUSBandwidth": "0", "MaxDSBandwidth": "1"}]},
                   SUCCESS)
        self.check(ask, {}, told())

    def test_rate_limits(self):
        command, ask = "SET_LANHOST_BANDWIDTH", "GET_LANHOST_BANDWIDTH"
        limit = lambda mac, up, down: {"MAC": mac, "MaxUSBandwidth": up, "MaxDSBandwidth": down}
        told = lambda *hosts: {"Info": [{**limit(*host[:3]), "Exec": host[3]} for host in hosts], **SUCCESS}
        for info in NO_ARRAY:
            self.check(command, {"Info": info}, outcome("Info is not array", "-201"))
        self.ask("SET_LANHOST_TIMER", MAC=DESK, Info=[NIGHT])  # schedules and limits know nothing of each other
        self.check(command, {"Info": [limit(DESK, "2147483648", "0"), limit(PHONE, "0", "0")]}, SUCCESS)
        self.check(command, {"Info": [limit(TABLET, "7", "2147483647"), limit(PHONE.lower(), "0", "00")]}, SUCCESS)
        self.check("SET_LANHOST_TIMER", {"MAC": DESK, "Info": [NIGHT]}, SUCCESS)
        self.wait_for_host(TABLET, uplimit=7, downlimit=2147483647, internetaccess=2)
        self.assertEqual(self.host(DESK, "uplimit", "downlimit"), (-2147483648, 0))
        self.check(ask, {}, told((TABLET, "7", "2147483647", "True"), (DESK, "-2147483648", "0", "True")))
        kept = "%s|1|0|2147483647|7\n%s|1|0|0|0\n%s|1|0|0|2147483648\n" % (TABLET, PHONE.lower(), DESK)
        self.assertEqual(self.file(PARENT), kept)
        wrong = ("2147483649", "-1", "", "1.5", "99999999999999999999")
        for member, reason, status in (("MAC", "MAC not found", "-202"), ("MaxUSBandwidth", "invalid US", "-1"),
                                       ("MaxDSBandwidth", "invalid DS", "-1")):
            for host in spoilt(limit(PHONE, "1", "2"), member, *(wrong if status == "-1" else ())):
                self.check(command, {"Info": [limit(TABLET, "8", "9"), host]}, outcome(reason, status))
        self.assertEqual(self.file(PARENT), kept.replace("2147483647|7", "9|8"))
        # Both kinds share an entry; the next one applied is the whole of it.
        self.ask("SET_LANHOST_INTERNET", Info=[{"MAC": TABLET, "InternetAccess": "0"}])
        self.wait_for_host(TABLET, uplimit=8, downlimit=9, internetaccess=0)
        before = self.dump()["ParentRules"]
        self.assertEqual(json.dumps(before), json.dumps([
            {"mac": TABLET, "dsbandwidth": 9, "usbandwidth": 8, "internetaccess": 0, "Exec": "True"},
            {"mac": PHONE.lower(), "dsbandwidth": 0, "usbandwidth": 0, "Exec": "True"},
            {"mac": DESK, "dsbandwidth": 0, "usbandwidth": -2147483648, "Exec": "True"}]))
        self.restart()
        self.assertEqual(self.dump()["ParentRules"], [{**rule, "Exec": "False"} for rule in before[::-1]])
        self.check(command, {"Info": []}, SUCCESS)
        self.assertEqual(self.file(PARENT), TABLET + "|2|0|9|8\n")
        self.check(ask, {}, told())

    def test_new_hosts_get_their_restrictions(self):
        self.hold_timers()
        self.restart()
        self.ask("SET_LANHOST_INTERNET", Info=[{"MAC": NOBODY, "InternetAccess": "0"}])
        self.ask("SET_LANHOST_BANDWIDTH", Info=[{"MAC": NOBODY, "MaxUSBandwidth": "7", "MaxDSBandwidth": "9"}])
        self.timers.ahead(1)
        self.patch({"laninfo": {NOBODY: {"internetaccess": 2, "uplimit": 0, "downlimit": 0}}})
        self.wait_for_host(NOBODY, internetaccess=0, uplimit=7, downlimit=9)
        self.patch({"laninfo": {NOBODY: {"internetaccess": 2}}})
        for method, access in (("devicestatus", 2), ("newdevice", 0)):
            self.notify(5, method, {"mac": NOBODY, "active": 0})
            self.agent.expect("method %s, json" % method)
            self.timers.ahead(1)
            self.assertEqual(self.host(NOBODY, "internetaccess"), access)

    def test_nowhere_to_keep_the_rules(self):
        rules = lambda: [[rule["mac"] for rule in self.dump()[kind]] for kind in ("TimeRules", "ParentRules")]
        block = lambda mac: {"Info": [{"MAC": mac, "InternetAccess": "0"}]}
        failed = outcome("save failed", "-1")
        os.rename(FOLDER, FOLDER + ".away")
        self.addCleanup(lambda: os.path.exists(FOLDER) or os.rename(FOLDER + ".away", FOLDER))
        self.check("SET_LANHOST_TIMER", {"MAC": DESK, "Info": [NIGHT]}, failed)
        self.agent.expect("[ERROR] set_lanhost_timer: failed to save /qzcap/apps/arvokclt/extcc-lht.cfg "
                          "No such file or directory\n")
        self.check("SET_LANHOST_INTERNET", block(PHONE), failed)
        self.agent.expect("[ERROR] /qzcap/apps/arvokclt/extcc-lhpc.cfg: failed to save _save_pr_cfg "
                          "No such file or directory\n")
        self.check("GET_LANHOST_TIMER", {"MAC": DESK}, {"Info": [], **SUCCESS})
        self.check("DELETE_GUEST_WIFI", {}, SUCCESS)
        self.assertEqual(rules(), [[], []])
        os.rename(FOLDER + ".away", FOLDER)
        # Whatever stands in the file's place goes, and what an interrupted save has left does no harm.
        os.symlink("/dev/full", self.path(PARENT))
        self.file(PARENT + ".bk", "02C0FFEE0001|")
        self.addCleanup(self.remove, PARENT + ".bk")
        self.check("SET_LANHOST_INTERNET", block(TABLET), SUCCESS)
        self.wait_for_host(TABLET, internetaccess=0)
        self.file(SCHEDULES + ".bk", NOBODY + "|0|22:00|6:00|1|c1|g1\n")
        self.restart()
        self.assertEqual(rules(), [[], [TABLET]])

    def test_dump_and_boundaries(self):
        command = {"MAC": DESK, "Info": [NIGHT, {**NIGHT, "StartTime": "23:30", "EndTime": "23:40"}]}
        self.assertEqual(list(self.dump()), ["Time", "LANHostNextCheck", "TimeRules", "ParentRules"])
        self.clock("2026-11-18 21:50:00")
        self.check("SET_LANHOST_TIMER", command, SUCCESS)
        for time, access, left in (("2026-11-18 21:50:00", 2, 600), ("2026-11-18 23:45:00", 1, 901)):
            self.clock(time)
            self.agent.seen = len(self.agent.lines())
            self.check("SET_LANHOST_TIMER", command, SUCCESS)
            self.agent.expect("extcc next check is")
            self.wait_for_host(DESK, internetaccess=access)
            dump = self.dump()
            self.assertEqual(dump["Time"][:15], time[:15])
            seconds, h, m, s = map(int, re.fullmatch(r"(\d+)s \((\d+)h(\d+)m(\d+)s\)",
                                                     dump["LANHostNextCheck"]).groups())
            self.assertEqual(h * 3600 + m * 60 + s, seconds)
            self.assertTrue(left - 30 < seconds <= left and m < 60 and s < 60, (time, dump))


class Guest(ExtendedCase):
    NETWORK = {"SSID": "Visitors", "PWD": "come-in!", "ENCRYPT": "5", "Enable": "1", "SSIDHide": "0"}

    def aps(self):
        return self.state()["wifi_ap"]["2.4G"]

    def guest(self, index, *fields):
        record = self.aps()[index]
        return tuple(record.get(field) for field in fields)

    def create(self, **members):
        self.check("SET_GUEST_WIFI", {"Info": [{**self.NETWORK, **members}]}, DONE)

    def test_faults(self):
        for info in NO_ARRAY:
            self.check("SET_GUEST_WIFI", {"Info": info}, outcome("Info is not array", "-201"))
        missing = outcome("Enable/ENCRYPT/SSID/PWD not found", "-201")
        for name, wrong in (("SSID", ()), ("PWD", ()), ("ENCRYPT", ("0", "6", "", "wpa")), ("Enable", ("2", "", "-1")),
                            ("SSIDHide", ("2", "", "yes"))):
            for network in spoilt(self.NETWORK, name, *wrong):
                invalid = isinstance(network.get(name), str) or name == "SSIDHide"
                self.check("SET_GUEST_WIFI", {"Info": [network]},
                           outcome("invalid " + name, "-1") if invalid else missing)
        self.check("SET_GUEST_WIFI", {"Info": ["x"]}, missing)
        self.check("SET_GUEST_WIFI", {"Info": [{**self.NETWORK, "Enable": "2", "SSIDHide": "2", "ENCRYPT": "6"}]},
                   outcome("invalid Enable", "-1"))
        self.assertEqual((list(self.aps()), self.file(INDEX)), (["1", "2", "3", "4"], None))

    def test_created_changed_read_and_deleted(self):
        self.check("GET_GUEST_WIFI", {}, {"Info": [], **SUCCESS})
        for number, auth, encrypt in (("5", "wpa2psk", "aestkip"), ("1", "open", "none"), ("2", "share", "none"),
                                      ("3", "wpa", "aestkip"), ("4", "wpa2", "aestkip")):
            hide = str(int(number) % 2)
            self.create(ENCRYPT=number, SSIDHide=hide, Enable=hide)
            enable = "yes" if hide == "1" else "no"
            self.assertEqual(self.guest("5", "ssid", "key", "auth", "encrypt", "enable", "hidden", "guest"),
                             ("Visitors", "come-in!", auth, encrypt, enable, int(hide), 1))
            self.assertEqual((self.file(INDEX), len(self.aps())), ("5", 5))
            told = {"SSID1": "Home", "SSID2": "Home-5G", "SSIDIndex": "5", "GuestSSID": "Visitors",
                    "SSIDObjectPath": "qzcapd.wifi.1.ap.5", "Encrypt": number, "PWD": "come-in!", "SSIDEnable": hide,
                    "SSIDHide": hide, "TimerEnable": "", "GuestWifiStartTime": "", "LastTime": ""}
            self.check("GET_GUEST_WIFI", {}, {"Info": [told], **SUCCESS})
        # The file is found again by the guest mark; a stale one is dropped.
        self.remove(INDEX)
        self.patch({"devinfo": {"support_5g": "no"}, "wifi_ap": {"2.4G": {"5": {"auth": None, "key": None}}}})
        self.check("GET_GUEST_WIFI", {},
                   {"Info": [{**told, "SSID2": "", "Encrypt": "5", "PWD": ""}], **SUCCESS})
        self.assertEqual(self.file(INDEX), "5")
        for stale in ("7", "-5", "none", "99999999999999999999"):
            self.file(INDEX, stale)
            self.check("GET_GUEST_WIFI", {}, {"Info": [], **SUCCESS})
            self.assertEqual(self.file(INDEX), None)

        for command, members in (("DELETE_GUEST_WIFI", {}), ("SET_GUEST_WIFI", {"Info": []})):
            self.create()
            self.file(CLOSING, "x")
            self.check(command, members, SUCCESS)
            self.assertEqual((self.file(INDEX), self.file(CLOSING), len(self.aps())), (None, None, 4))
        self.file(CLOSING, "x")
        self.check("DELETE_GUEST_WIFI", {}, SUCCESS)
        self.assertEqual(self.file(CLOSING), None)

    def test_a_platform_that_adds_none(self):
        add, names = "qzcap_wifi_ap_add", ("ssid", "enable", "guest")
        for taken, index in (({}, "3"), ({"3": {"inuse": 1}}, "4"), ({"3": {"enable": "yes"}}, "4")):
            self.patch({"wifi_ap": {"2.4G": taken}})
            self.fail_call(add, reason="no room")
            self.create()
            self.agent.expect("): extcc wifi ap add failed: no room, try find available ap\n")
            self.assertEqual((self.guest(index, *names), self.file(INDEX)), (("Visitors", "yes", 1), index))
            call("qzcapd.system", "reset")
        self.fail_call(add)
        self.patch({"wifi_ap": {"2.4G": {"3": {"inuse": 1}, "4": None}}})
        self.check("SET_GUEST_WIFI", {"Info": [self.NETWORK]}, outcome("failed to add/set guest wifi", "-102"))

    def test_refused_deletions(self):
        kept = {"Status": "-102"}
        for orders, answer, enabled in (
                (["qzcap_wifi_ap_delete"], SUCCESS, "no"),
                (["qzcap_wifi_ap_delete", "qzcap_wifi_ap_set"], {**kept, "FailReaon": "on demand"}, "yes"),
                (["qzcap_wifi_ap_delete", "qzcap_wifi_ap_get"], {**kept, "FailReaon": "guest delete/disable failed"},
                 "yes")):
            self.create()
            self.file(CLOSING, "x")
            for function in orders:
                self.fail_call(function)
            self.check("DELETE_GUEST_WIFI", {}, answer)
            self.assertEqual((*self.guest("5", "enable"), self.file(INDEX), self.file(CLOSING)), (enabled, None, None))

    def test_closing_time(self):
        command = "SET_GUEST_WIFI_CLOSE_TIMER"
        closing = {"LastTime": "1440", "Enable": "0"}
        self.check(command, {"Info": [closing]}, outcome("Guest WiFi not found", "-105"))
        self.create()
        for name, wrong in (("LastTime", ("0", "1441", "", "-1", "-1112", "1h")), ("Enable", ("2", "", "x"))):
            for members in spoilt(closing, name, *wrong):
                self.check(command, {"Info": [members]}, outcome("invalid " + name, "-1") if isinstance(
                    members.get(name), str) else outcome("Enable/LastTime not found", "-201"))
        self.clock("2020-06-01 07:58:00")
        self.check(command, {"Info": [closing]}, outcome("Time not sync", "-107"))
        self.assertEqual(self.file(CLOSING), None)

        wait_enabled = lambda value: wait_until(lambda: self.guest("5", "enable") == (value,), "enable is " + value)
        self.check(command, {"Info": [{"LastTime": "-1111", "Enable": "0"}]}, outcome("Time not sync", "-107"))
        self.clock("2026-11-18 23:00:00")
        self.check(command, {"Info": [{"LastTime": "-1111", "Enable": "0"}]}, DONE)
        self.assertEqual(self.file(CLOSING), "5\t0\t0\t0\t0\t-1111\n")
        wait_enabled("no")
        self.assertNotIn("GuestNextCheck", self.dump())
        self.check(command, {"Info": [closing]}, DONE)
        line = re.fullmatch("5\t0\t2026-11-18 23:00\t(\\d+)\t2026-11-19 23:00\t1440\n", self.file(CLOSING))
        self.assertTrue(0 <= int(line.group(1)) - 1795014000 < 60, line)  # 2026-11-18 23:00 in China
        wait_enabled("yes")
        self.assertRegex(self.dump()["GuestNextCheck"], r"^86[34]\d\ds \(~(23h59|24h0)m\)$")
        network = self.ask("GET_GUEST_WIFI")["Info"][0]
        self.assertEqual([network[key] for key in ("TimerEnable", "GuestWifiStartTime", "LastTime", "SSIDEnable")],
                         ["0", "2026-11-18 23:00", "1440", "1"])
        # Anything but a new time applies what is stored.
        self.clock("2026-11-19 23:01:00")
        for members in ({}, {"Info": []}, {"Info": "x"}):
            self.patch({"wifi_ap": {"2.4G": {"5": {"enable": "yes"}}}})
            self.check(command, members, DONE)
            wait_enabled("no")
        # Numbers are stored as numbers, later ones than 32 bits hold, too; and nothing closes what comes after a deleted
        # network.
        self.clock("2039-01-01 00:00:00")
        self.check(command, {"Info": [{"LastTime": "00000060", "Enable": "+01"}]}, DONE)
        self.assertRegex(self.file(CLOSING), "^5\t1\t.*\t60\n$")
        wait_enabled("yes")
        self.assertIn("GuestNextCheck", self.dump())
        self.check("DELETE_GUEST_WIFI", {}, SUCCESS)
        self.assertNotIn("GuestNextCheck", self.dump())


if __name__ == "__main__":
    unittest.main()

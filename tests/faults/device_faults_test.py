"""The device around the agent fails: its bus, its platform, its disk, its clock."""

import datetime
import json
import os
import signal
import subprocess
import unittest

from desk import LinkedCase, call, wait_until
from extended_test import (CLOSING, DESK, INDEX, NIGHT, PARENT, PHONE, SCHEDULES, SUCCESS, TABLET,
                           ExtendedCase)

LAB = os.environ["LAB_DIR"]
FOLDER = "/qzcap/apps/arvokclt"  # as the agent sees it


def time_after(time, seconds):
    return str(datetime.datetime.fromisoformat(time) + datetime.timedelta(seconds=seconds))


class OwnDevice(LinkedCase):
    """A bus and a platform beside the home's, which the test may stop."""

    def setUp(self):
        super().setUp()
        self.env = {**os.environ, "UBUS_SOCKET": os.path.join(LAB, "own.sock")}
        self.state_file = os.path.join(LAB, "state.json")
        with open(self.state_file, "w") as out:
            out.write(json.dumps(call("qzcapd.emulator", "state")))
        self.start_bus()
        self.start_platform()
        self.addCleanup(self.stop_device)

    def start_bus(self):
        self.bus = subprocess.Popen(["ubusd", "-s", self.env["UBUS_SOCKET"]])
        listed = lambda: subprocess.run(["ubus", "list"], env=self.env, stderr=subprocess.DEVNULL).returncode == 0
        wait_until(listed, "the bus")

    def start_platform(self):
        self.platform = subprocess.Popen(["qzcapd", "--state", self.state_file], env=self.env,
                                         stderr=subprocess.DEVNULL)
        subprocess.run(["ubus", "-t", "10", "wait_for", "qzcapd.emulator"], env=self.env, check=True)

    def stop_device(self):
        for process in (self.platform, self.bus):
            process.kill()
            process.wait()

    def stop_platform(self):
        self.platform.kill()
        self.platform.wait()

    def restart_platform(self, **changes):
        """What the records have become meanwhile, nobody is told."""
        state = self.own("qzcapd.emulator", "state", {})
        self.stop_platform()
        for record, members in changes.items():
            state[record].update(members)
        with open(self.state_file, "w") as out:
            out.write(json.dumps(state))
        self.start_platform()

    def own(self, obj, method, args):
        out = subprocess.run(["ubus", "call", obj, method, json.dumps(args)], env=self.env, check=True,
                             stdout=subprocess.PIPE).stdout
        return json.loads(out or "null")

    def notified(self, status):
        """Whether a notification of the platform reaches the gateway. A request follows it through the agent."""
        self.own("qzcapd.emulator", "notify", {"object": 6, "method": "x", "message": {"status": status}})
        self.own("qzcapd.emulator", "state", {})
        self.own("qzapp.arvokclt", "postmsg", {"CmdType": "GET_STATUS"})
        self.control()
        self.control()
        return any(message["status"].get("status") == status for message in self.received("wan_report"))

    def linked(self, *args):
        self.forget()
        self.agent = self.start("-g", os.environ["GATEWAY_ADDR"], *args, env=self.env)
        self.wait_for_message("dev_report")

    def test_platform_that_restarts(self):
        self.linked()
        self.assertTrue(self.notified("before"))
        connections = self.peer()["connections"]
        self.stop_platform()
        # What needs the platform says so, what does not is answered as ever.
        self.assertEqual(self.status("terminalNum", "arvokstat"),
                         (10004, {"terminalNum": {"errmsg": "qzcap_get_terminalnum failed"},
                                  "arvokstat": {"connectedGateway": "yes"}}))
        self.assertEqual(self.control({"command": "channelscan"}),
                         (10004, "qzcap_wifi_channelscan failed: qzcapd.wifi channelscan: Not found"))
        self.assertEqual(self.cfg(wpsswitch={"status": "ON"}), (10004, "qzcap_get_wifi_switch failed"))
        reply = self.request({"type": "ubus_call", "object": "qzcapd.system", "method": "get_led"})
        self.assertEqual((reply["errcode"], reply["errmsg"]), (10004, "qzcap_get_objid_by_name failed: qzcapd.system"))
        self.start_platform()
        self.assertEqual(self.status("terminalNum")[0], 0)
        self.assertEqual(self.control({"command": "channelscan"}), (0, ""))
        self.assertEqual(self.cfg(wpsswitch={"status": "ON"}), (0, ""))
        self.assertEqual(self.peer()["connections"], connections)
        # Its objects have other ids now, and the agent has subscribed to those.
        wait_until(lambda: self.notified("behind"), "the WAN's notifications", 5)
        for patch, report in (({"laninfo": {PHONE: {"active": 0}}}, "dev_report"), ({"mesh": {"role": "agent"}}, "map_report")):
            self.forget()
            self.own("qzcapd.emulator", "patch", {"patch": patch})
            self.wait_for_message(report)
        # Other apps reach the agent as before.
        answer = self.own("qzcapd.emulator", "app", {"message": {"CmdType": "GET_STATUS"}})
        self.assertIn("arvokclt", json.dumps(answer))
        self.assertEqual(self.peer()["connections"], connections)

    def test_changes_while_the_platform_is_away(self):
        self.linked("-d")
        cloud = lambda: call("lab.cloud", "peer")
        wait_until(lambda: cloud()["state"] == "connected", cloud)
        # Rules of hosts, which a new platform does not know.
        access = lambda: self.own("qzcapd.emulator", "state", {})["laninfo"][DESK]["internetaccess"]
        self.own("qzapp.arvokclt", "postmsg", {"CmdType": "SET_LANHOST_INTERNET",
                                               "Info": [{"MAC": DESK, "InternetAccess": "0"}]})
        wait_until(lambda: access() == 0, "the host's access")
        host = self.own("qzcapd.emulator", "state", {})["laninfo"][DESK]
        self.restart_platform(laninfo={DESK: {**host, "internetaccess": 2}}, waninfo={"status": "down"},
                              wifi_switch={"arvoksync": "off"})
        wait_until(lambda: access() == 0, "the host's access", 5)
        wait_until(lambda: not cloud()["connected"], cloud, 5)
        wait_until(lambda: self.cfg(ledswitch={"status": "ON"}) == (10003, "arvoksync is off"), "sync is off", 5)
        connections = self.peer()["connections"]
        self.forget()
        self.restart_platform(waninfo={"status": "up"}, wifi_switch={"arvoksync": "on"})
        wait_until(lambda: self.peer()["connections"] == connections + 1, "the link starts over")
        self.wait_for_message("dev_report")
        self.assertEqual(self.cfg(ledswitch={"status": "ON"}), (0, ""))
        wait_until(lambda: cloud()["state"] == "connected", cloud)

    def lose_bus(self, agent):
        self.bus.kill()
        self.bus.wait()
        self.assertEqual(agent.process.wait(10), 0)
        self.agents.remove(agent)
        agent.expect("[ERROR] ubus connection lost\n")
        self.assertNotIn("[ERROR] ubus connection lost\n", agent.lines()[agent.seen:])
        self.platform.wait()

    def test_bus_that_goes(self):
        """The agent ends in an orderly way, and the one that its supervisor starts takes up the work."""
        self.linked()
        self.lose_bus(self.agent)
        wait_until(lambda: not self.peer()["connected"], "the connection closed")
        self.start_bus()
        self.start_platform()
        self.linked()
        self.assertTrue(self.notified("again"))
        self.assertEqual(self.status("cputemp"), (0, {"cputemp": 52}))

    def test_bus_that_goes_before_there_is_a_device(self):
        self.own("qzcapd.emulator", "fail", {"call": "qzcap_get_devinfo", "reason": "", "times": 9})
        agent = self.start("-g", os.environ["GATEWAY_ADDR"], env=self.env)
        agent.expect("[ERROR] update_dev_info failed\n")
        self.lose_bus(agent)

    def test_bus_that_goes_during_a_call(self):
        self.own("qzcapd.emulator", "fail", {"call": "qzcap_get_devinfo", "reason": "", "times": 9, "mode": "timeout"})
        agent = self.start("-g", os.environ["GATEWAY_ADDR"], env=self.env)
        wait_until(lambda: "qzapp.arvokclt" in subprocess.run(["ubus", "list"], env=self.env, capture_output=True,
                                                              text=True).stdout, "the call")
        self.lose_bus(agent)

    def test_bus_that_does_not_answer(self):
        """The bus library waits for its daemon without limit."""
        self.linked()
        self.bus.send_signal(signal.SIGSTOP)
        call("lab.gateway", "send", {"type": "ubus_call", "sequence": 1, "mac": "x", "object": "o", "method": "m"})
        self.assertEqual(self.agent.process.wait(28), 1)
        self.agents.remove(self.agent)
        self.agent.expect("[ERROR] ubus does not answer\n")


class Disk(ExtendedCase):
    """The rule files on a disk that is full."""

    def setUp(self):
        subprocess.run(["mount", "-t", "tmpfs", "-o", "size=32k", "none", FOLDER], check=True)
        self.addCleanup(subprocess.run, ["umount", "-l", FOLDER], check=True)
        super().setUp()

    def link(self):
        if not self.timers:
            self.hold_timers()
        return super().link()

    @staticmethod
    def file(name, content=None):
        """The content of a rule file, on the disk that the agent has."""
        with open(os.path.join(FOLDER, name)) as file:
            return file.read()

    def fill(self):
        with open(os.path.join(FOLDER, "filler"), "wb", buffering=0) as filler:
            try:
                while True:
                    filler.write(bytes(4096))
            except OSError:
                pass

    def empty(self):
        os.unlink(os.path.join(FOLDER, "filler"))

    def snapshot(self):
        """All that a command might change."""
        files = {name: self.file(name) for name in os.listdir(FOLDER) if name != "filler"}
        state, dump = self.state(), self.dump()
        return files, state["laninfo"], state["wifi_ap"], dump["TimeRules"], dump["ParentRules"]

    def test_full(self):
        """A command that cannot be stored says so and leaves everything as it was."""
        failed = {"FailReason": "save failed", "Status": "-1"}
        line = lambda mac: mac + "|0|22:00|6:00|1|c1|g1\n"
        whole = 4096 // len(line(DESK)) - 2
        network = [{"SSID": "Visitors", "PWD": "come-in!", "ENCRYPT": "5", "Enable": "1", "SSIDHide": "0"}]
        self.ask("SET_LANHOST_TIMER", MAC=DESK, Info=[NIGHT] * whole)
        self.ask("SET_LANHOST_INTERNET", Info=[{"MAC": PHONE, "InternetAccess": "0"}])
        self.wait_for_host(DESK, internetaccess=1)
        self.wait_for_host(PHONE, internetaccess=0)
        commands = [
            ("SET_LANHOST_TIMER", {"MAC": TABLET, "Info": [NIGHT] * 3}, "set_lanhost_timer: failed to save %s", SCHEDULES),
            ("SET_LANHOST_TIMER", {"MAC": DESK, "Info": []}, "set_lanhost_timer: failed to save %s", SCHEDULES),
            ("SET_LANHOST_TIMER", {"MAC": DESK, "Info": [NIGHT, {}]}, "set_lanhost_timer: failed to save %s", SCHEDULES),
            ("SET_LANHOST_INTERNET", {"Info": [{"MAC": PHONE, "InternetAccess": "2"}]},
             "%s: failed to save _save_pr_cfg", PARENT),
            ("SET_LANHOST_INTERNET", {"Info": [{"MAC": TABLET, "InternetAccess": "0"}]},
             "%s: failed to save _save_pr_cfg", PARENT),
            ("SET_LANHOST_BANDWIDTH", {"Info": [{"MAC": TABLET, "MaxUSBandwidth": "1", "MaxDSBandwidth": "1"}]},
             "%s: failed to save _save_pr_cfg", PARENT),
            ("SET_GUEST_WIFI", {"Info": network}, "extcc: failed to save %s", INDEX)]
        for command, members, line_of, name in commands:
            with self.subTest(command=command, members=str(members)[:100]):
                self.fill()
                before = self.snapshot()
                self.agent.seen = len(self.agent.lines())
                self.check(command, members, failed)
                log = self.agent.lines()[self.agent.seen:]
                self.assertEqual(log.count("[ERROR]"), 1, log)
                self.assertIn("[ERROR] " + line_of % (FOLDER + "/" + name) + " No space left on device\n", log)
                self.timers.ahead(1)
                self.assertEqual(self.snapshot(), before)
                self.empty()
        # With room again it works, and what was stored is still there after a restart.
        for command, members, *_ in commands[3:]:
            self.assertEqual(self.ask(command, **members)["Status"], "0")
        self.fill()
        self.check("SET_GUEST_WIFI_CLOSE_TIMER", {"Info": [{"LastTime": "60", "Enable": "1"}]}, failed)
        self.assertNotIn(CLOSING, os.listdir(FOLDER))
        self.empty()
        self.assertEqual(self.file(SCHEDULES), line(DESK) * whole)
        self.check("SET_LANHOST_TIMER", {"MAC": DESK, "Info": []}, SUCCESS)
        self.wait_for_host(DESK, internetaccess=2)
        self.restart()
        dump = self.dump()
        self.assertEqual((dump["TimeRules"], {rule["mac"] for rule in dump["ParentRules"]}), ([], {PHONE, TABLET}))
        self.assertEqual(len(self.ask("GET_GUEST_WIFI")["Info"]), 1)


class Clock(ExtendedCase):
    """Somebody sets the clock while timers are armed: what holds then is applied at once, and later what comes then."""

    def link(self):
        self.hold_timers()
        super().link()

    def next_check(self):
        return int(self.dump()["LANHostNextCheck"].split("s")[0])

    def test_schedules(self):
        self.clock("2026-11-18 21:00:00")  # a Wednesday
        self.ask("SET_LANHOST_TIMER", MAC=DESK, Info=[NIGHT])
        self.ask("SET_LANHOST_TIMER", MAC=PHONE, Info=[{**NIGHT, "Mode": "4"}])
        wait_until(lambda: 3500 < self.next_check() <= 3600, self.dump)
        for jump, access, boundary, then in (
                ("2026-11-19 20:00:00", (2, 2), 7200, (1, 1)),  # a day ahead: Thursday's night is still to come
                ("2026-11-18 23:00:00", (1, 2), 3601, (1, 2)),  # a day back: Wednesday's
                ("2026-11-20 05:30:00", (1, 1), 1800, (2, 2)),  # the end of Thursday's
                ("2026-11-18 07:00:00", (2, 2), 54000, (1, 2))):
            with self.subTest(jump=jump):
                self.clock(jump)
                wait_until(lambda: boundary - 60 < self.next_check() <= boundary, self.dump)
                for mac, value in zip((DESK, PHONE), access):
                    self.assertEqual(self.host(mac, "internetaccess"), value)
                # The clock runs on to the boundary, and so do the timers.
                self.timers.ahead(boundary - 60)
                for mac, value in zip((DESK, PHONE), access):
                    self.assertEqual(self.host(mac, "internetaccess"), value)
                self.clock(time_after(jump, boundary + 1))
                for mac, value in zip((DESK, PHONE), then):
                    self.wait_for_host(mac, internetaccess=value)

    def test_guest_network(self):
        enabled = lambda: self.state()["wifi_ap"]["2.4G"]["5"]["enable"]
        self.ask("SET_GUEST_WIFI", Info=[{"SSID": "Visitors", "PWD": "come-in!", "ENCRYPT": "5", "Enable": "1",
                                          "SSIDHide": "0"}])
        self.ask("SET_GUEST_WIFI_CLOSE_TIMER", Info=[{"LastTime": "60", "Enable": "1"}])
        wait_until(lambda: "GuestNextCheck" in self.dump(), self.dump)
        # A day back the clock tells nothing: it stays open, until the time is known. A day ahead it is over, for good.
        self.clock("2026-11-18 00:00:00")
        wait_until(lambda: int(self.dump()["GuestNextCheck"].split("s")[0]) <= 60, self.dump)
        self.assertEqual(enabled(), "yes")
        self.patch({"wifi_ap": {"2.4G": {"5": {"enable": "no"}}}})
        for time, value in (("2026-11-18 23:00:05", "yes"), ("2026-11-19 23:00:00", "no")):
            with self.subTest(time=time):
                self.clock(time)
                wait_until(lambda: enabled() == value, self.dump)
        self.assertNotIn("GuestNextCheck", self.dump())


if __name__ == "__main__":
    unittest.main(verbosity=2)

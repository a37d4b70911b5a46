"""Every call of the platform that the agent makes fails, once in each way, while both peers are at work."""

import os
import re
import subprocess
import unittest

import sweep_rows
from desk import AgentCase, call, wait_until
from events_test import DESK, LAN, WAN
from sweep_case import SweepCase
from sweep_rows import DONE, NETWORK, SUCCESS

# What cannot fail by itself: the callbacks and the parser of what a bus call brings, which is what the rows spoil; what
# belongs to the session; what lets go of a subscriber, in any case; and the log.
CANNOT_FAIL = {"qzcap_data_cb", "qzcap_data_blob_cb", "qzcap_parse_result_and_failreason", "qzcap_get_ubus_context",
               "qzcap_ubus_done", "qzcap_ubus_unsubscribe", "qzcap_unregister_appmgtcb", "qzcap_printf"}


class Coverage(unittest.TestCase):
    def test_every_call_of_the_agent_has_its_row(self):
        symbols = subprocess.check_output(["readelf", "--dyn-syms", "-W", os.environ["AGENT_PROGRAM"]], text=True)
        calls = {name for name in re.findall(r"\bUND (qzcap_\w+)", symbols) if not name.startswith("qzcap_free")}
        self.assertGreater(len(calls), 50)
        swept = {row.call for row in sweep_rows.ALL_ROWS} | set(Start.CALLS) | set(Library.CALLS)
        self.assertEqual(calls - swept, CANNOT_FAIL, "calls without a row")
        self.assertEqual(swept - calls, set(), "rows without a call")


class Status(SweepCase):
    def test_sweep(self):
        self.sweep(sweep_rows.STATUS)


class Commands(SweepCase):
    def test_sweep(self):
        self.sweep(sweep_rows.COMMANDS)


class Settings(SweepCase):
    def test_sweep(self):
        self.sweep(sweep_rows.SETTINGS)


class Apps(SweepCase):
    def test_notifications(self):
        self.sweep(sweep_rows.NOTIFICATIONS)

    def test_commands(self):
        self.sweep(sweep_rows.EXTENDED)


class Cloud(SweepCase):
    def test_sweep(self):
        self.sweep(sweep_rows.CLOUD)


class Start(SweepCase):
    """A device that is not ready for its agent. Whatever fails, the agent links and enrols, and knows better later."""

    # What it says of the failure, and what a setting of the gateway gets: the switch for those counts as off until
    # it is read.
    UNKNOWN = 10003, "arvoksync is off"
    CALLS = {
        "qzcap_get_devinfo": ("[ERROR] update_dev_info failed\n", DONE),
        "qzcap_get_wifi_switch": ("", UNKNOWN),
        "qzcap_delete_vsie_beacontx_by_name": ("", DONE),
        "qzcap_get_serverinfo": ("[ERROR] qzcap get serverinfo failed\n", DONE),
        "qzcap_get_mesh": ("", DONE),
        "qzcap_get_waninfo": ("[ERROR] update_wan_info failed\n", DONE),
        "qzcap_list_laninfo": ("", DONE),
    }
    WITHOUT_RECORD = "qzcap_delete_vsie_beacontx_by_name"

    def test_sweep(self):
        for function, (line, setting) in self.CALLS.items():
            for mode in ("error", "timeout", "empty", "blank"):
                if (mode == "blank" and function == self.WITHOUT_RECORD) or (
                        function == "qzcap_get_devinfo" and mode in ("error", "empty")):  # asked again after 5 s
                    continue
                with self.subTest(call=function, mode=mode):
                    self.stop_agents()
                    call("qzcapd.system", "reset")
                    call("qzcapd.emulator", "calls", {"clear": True})
                    self.fail_call(function, mode=mode)
                    self.enrolled()
                    self.assertIn(function, self.calls())
                    self.assertIn(line if mode != "blank" else "", self.agent.lines())
                    self.assertEqual(self.cfg(ledswitch={"status": "ON"}), setting)
                    self.status("syncswitch")  # tells the agent, too
                    self.assertEqual(self.cfg(ledswitch={"status": "ON"}), DONE)
                    self.assert_well()


class Library(SweepCase):
    """What fails in the library itself, before it comes to the platform."""

    def fail_next(self, function):
        with open(self.order, "w") as order:
            order.write(function)

    def assert_failed(self):
        self.assertEqual(os.path.getsize(self.order), 0, "not called")

    def launch(self, **env):
        self.order = os.path.join(os.environ["LAB_DIR"], "fail")
        open(self.order, "a").close()
        return super().launch(LD_PRELOAD=os.environ["FAIL_LIBRARY"], FAIL_FILE=self.order)

    def subscribe(self, enable, obj="qzcapd.laninfo"):
        reply = self.request({"type": "ubus_subscribe", "object": obj, "enable": enable})
        return reply["errcode"], reply["errmsg"]

    def is_heard(self, obj):
        """Whether what the object notifies is passed on, soon."""
        def told():
            self.notify(WAN, "nothing", {})
            return [message for message in self.received("ubus_notify") if message["object"] == obj]
        return bool(wait_until(told, "a notification", 5, pause=0.2))

    def bus_call(self):
        reply = self.request({"type": "ubus_call", "object": "qzcapd.system", "method": "get_led"})
        return reply["errcode"], reply["errmsg"]

    def guest(self):
        answer = self.ask_app("SET_GUEST_WIFI", Info=[NETWORK])
        self.ask_app("DELETE_GUEST_WIFI")
        return answer

    def set_name(self):
        change = [sweep_rows.band(ap=[sweep_rows.ap(ssid="A")])]
        return self.cfg(wifi=change)

    # While the agent runs: what shows the failure.
    RUNNING = (
        *[(call, lambda t: (t.subscribe(1), t.subscribe(1), t.subscribe(0)),
           ((10004, "qzcap_ubus_subscribe failed: qzcapd.laninfo"), DONE, DONE))
          for call in ("ubus_connect", "ubus_register_subscriber", "ubus_subscribe")],
        # The library would not let go of it: so the connection goes, and the other subscription comes on a new one.
        ("ubus_remove_object", lambda t: (t.subscribe(1), t.subscribe(1, "qzcapd.wan"), t.subscribe(0),
                                                  t.subscribe(0), t.is_heard("qzcapd.wan"), t.subscribe(0, "qzcapd.wan")),
         (DONE, DONE, DONE, (10002, "object 'qzcapd.laninfo' is not subscribed"), True, DONE)),
        ("qzcap_get_objid_by_name", lambda t: (t.bus_call(), t.bus_call()),
         ((10004, "qzcap_get_objid_by_name failed: qzcapd.system"), DONE)),
        ("qzcap_calloc", lambda t: (t.guest(), t.guest()),
         ({"FailReason": "failed to add/set guest wifi", "Status": "-102"}, SUCCESS)),
        ("qzcap_calloc", sweep_rows.enrol_again, {"Result": 0}),
        ("qzcap_strdup", sweep_rows.enrol_again, {"Result": 0}),
        ("qzcap_strdup", lambda t: (t.set_name(), t.set_name()), (DONE, DONE)),
    )
    STARTING = ("qzcap_ubus_start", "qzcap_register_appmgtcb", "qzcap_get_objid_by_id", "qzcap_ubus_subscribe")
    CALLS = [call for call, *_ in RUNNING if call.startswith("qzcap_")] + [*STARTING]

    def test_running(self):
        for function, act, expected in self.RUNNING:
            with self.subTest(call=function):
                self.fail_next(function)
                self.assertEqual(act(self), expected)
                self.assert_failed()
                self.assert_well()

    def test_starting(self):
        for function in self.STARTING:
            with self.subTest(call=function):
                self.stop_agents()
                call("qzcapd.system", "reset")
                self.fail_next(function)
                if function == "qzcap_ubus_start":
                    agent = self.launch()
                    self.assertEqual(agent.process.wait(20), 255)
                    self.agents.remove(agent)
                    continue
                self.enrolled()
                self.assert_failed()
                # An app that is not on the bus gets no messages; what could not be subscribed to is tried again.
                names = subprocess.check_output(["ubus", "list"], text=True).split()
                self.assertEqual("qzapp.arvokclt" in names, function != "qzcap_register_appmgtcb")
                self.forget()

                def reported():
                    self.notify(LAN, "devicestatus", {"mac": DESK, "active": 1})
                    return self.received("dev_report")
                wait_until(reported, "a report", 5, pause=0.2)
                self.assert_well()


if __name__ == "__main__":
    unittest.main(verbosity=2)

"""The process itself: options, start-up, ends, and the platform around it."""

import os
import signal
import subprocess
import time
import unittest

from desk import AgentCase, call, wait_until

USAGE = (
    "usage:\n"
    "\tarvokclt [-g <ip>] [-b <ip:port>] [-p <port>]\n"
    "\tarvokclt {-v|--version|-h|--help}\n"
    "\n"
    "\t-d, --debug           open debug mode and display log\n"
    "\t-g, --gw-addr         set the address of the connected gateway\n"
    "\t-b, --bss-server      set the server of the BSS platform\n"
    "\t-p, --local-port      set the port that the local server listens on\n"
    "\n")
MARKER = "/tmp/arvokclt_test_mode"
# A library between the agent and the platform's writes down the calls that nobody else sees.
TRACED = {"LD_PRELOAD": os.environ["TRACE_LIBRARY"], "ASAN_OPTIONS": "verify_asan_link_order=0"}


def run(*args, **env):
    done = subprocess.run(["arvokclt", *args], stdout=subprocess.PIPE, stderr=subprocess.PIPE,
                          env={**os.environ, **env}, timeout=20)
    return done.returncode, done.stdout.decode(), done.stderr.decode()


class Options(unittest.TestCase):
    def test_usage(self):
        for args in (["-h"], ["--help"], ["-e"], ["-c"], ["-l"], ["-L", "x"], ["-L"], ["-x"], ["--unknown"],
                     ["-g"], ["-g", "10.0.0.300"], ["-g", "gateway"], ["-p", "0"], ["-p", "65536"], ["-p", "80x"],
                     ["-p", ""], ["-b", "1.2.3.4"], ["-b", "1.2.3.4:0"], ["-b", ":80"], ["-b", "-host:80"],
                     ["-g", "10.0.0.3", "-p", "17999", "-b", "host.example:80", "-g", "10.0.0"]):
            with self.subTest(args=args):
                self.assertEqual(run(*args), (255, USAGE, ""))

    def test_version(self):
        pattern = r"arvokclt 1\.0\.7 ipq5018x\nsvn: 677\nbuild: \d\d:\d\d:\d\d [A-Z][a-z]{2} [ \d]\d \d{4}\n"
        for args in (["-v"], ["--version"], ["-v", "-g", "nonsense"], ["-d", "-g", "10.0.0.3", "-v"]):
            status, out, err = run(*args)
            self.assertEqual((status, err), (0, ""))
            self.assertRegex(out, "^%s$" % pattern)

    def test_no_bus(self):
        told = run("-g", "10.0.0.3", UBUS_SOCKET="/nowhere/ubus.sock", TRACE_FILE="/dev/stderr", **TRACED)
        self.assertEqual(told, (255, "", "qzcap_ubus_start\n"))  # and nothing of the platform after it


class TestMode(AgentCase):
    def test_marker_overrides_the_option(self):
        self.addCleanup(os.unlink, MARKER)
        for address, line in (("192.168.1.1", '-> {"type":"dev_reg"'),
                              ("192.168.1.1\r", "[ERROR] (arvok) create socket failed: ")):
            with open(MARKER, "w", newline="") as marker:
                marker.write(address + "\n")
            agent = self.start("-g", "192.168.1.200")
            agent.expect('[INFO] (arvok) connect "%s:32768" (0)\n' % address.replace("\r", "\\x0d"))
            agent.expect(line)
            self.assertEqual(agent.stop(), 0)
        for text in ("", "\n"):
            with open(MARKER, "w") as marker:
                marker.write(text)
            agent = self.start()
            agent.expect('[INFO] (arvok) connect "192.168.1.1:32768" (1)\n')  # found, not told
            self.assertEqual(agent.stop(), 0)


class Life(AgentCase):
    def test_start_asks_the_platform_in_order(self):
        self.start("-g", "192.168.1.1")
        self.wait_for_message("wan_report")
        wanted = ["qzcap_get_devinfo", "qzcap_get_wifi_switch", "qzcap_delete_vsie_beacontx_by_name"]
        self.assertEqual(self.calls()[:3], wanted)
        calls = call("qzcapd.emulator", "calls")["calls"]
        self.assertEqual(calls[2]["args"]["name"], "arvokclt")

    def test_device_that_is_not_ready_is_asked_every_five_seconds(self):
        self.fail_call("qzcap_get_devinfo")
        began = time.monotonic()
        agent = self.start("-g", "192.168.1.1")
        agent.expect("[ERROR] update_dev_info failed\n")
        agent.expect("[INFO] (arvok) connect ")
        self.assertAlmostEqual(time.monotonic() - began, 5, delta=2)

    def test_device_record_that_cannot_be_refreshed(self):
        self.misbehave(fault="refuse", times=0)
        self.hold_timers()
        agent = self.start()
        agent.expect("[ERROR] (arvok) tcp connection broken\n")
        self.fail_call("qzcap_get_devinfo")
        self.expect_later(agent, "[WARNING] (arvok) devinfo get failed\n")

    def test_ends_in_order_from_every_state(self):
        def registered(agent):
            self.wait_for_message("wan_report")

        def key_answer_awaited(agent):
            agent.expect('-> {"type":"keyngreq"')

        def dh_answer_awaited(agent):
            agent.expect('-> {"type":"dh"')

        def waiting_to_reconnect(agent):
            agent.expect("disconnect fd")

        for state, fault in ((registered, {"fault": "none"}),
                             (key_answer_awaited, {"fault": "silent", "times": 0}),
                             (dh_answer_awaited, {"fault": "drop", "on": "dh"}),
                             (waiting_to_reconnect, {"fault": "refuse", "times": 0})):
            for number in (signal.SIGTERM, signal.SIGINT):
                with self.subTest(state=state.__name__, signal=number):
                    self.misbehave(fault="none")
                    self.misbehave(**fault)
                    call("lab.gateway", "messages", {"clear": True})
                    agent = self.start("-g", "192.168.1.1")
                    state(agent)
                    self.assertEqual(agent.stop(number), 0)

    def test_ends_in_order_while_the_device_is_waited_for(self):
        for number in (signal.SIGTERM, signal.SIGINT):
            self.fail_call("qzcap_get_devinfo")
            agent = self.start()
            agent.expect("[ERROR] update_dev_info failed\n")
            agent.process.send_signal(number)
            self.assertEqual(agent.process.wait(2), 0)

    def test_ends_in_order_from_its_first_line_on(self):
        for delay in range(20):
            agent = self.start("-g", "192.168.1.1")
            wait_until(lambda: agent.takes(signal.SIGTERM), "main begins", pause=0)
            time.sleep(delay / 1000)
            agent.process.send_signal(signal.SIGTERM)
            self.assertEqual(agent.process.wait(10), 0, agent.lines())

    def test_connection_in_the_making(self):
        # Nobody answers for this address: the connection stays in the making.
        subprocess.run(["lab-ap", "ip", "neigh", "replace", "192.168.1.77", "lladdr", "02:00:00:00:00:77", "dev",
                        "br-lan", "nud", "permanent"], check=True)
        self.hold_timers()
        agent = self.start("-g", "192.168.1.77")
        self.expect_later(agent, '-> {"type":"keyngreq"', "[ERROR] (arvok) wait ack timeout\n", "disconnect fd")

    def test_platform_that_hangs_or_goes(self):
        self.hold_timers()
        agent = self.start("-g", "192.168.1.1")
        self.pass_until(lambda: self.received("keepalive"), "the first keepalive", 1)
        self.wait_for_message("dev_report")
        call("qzcapd.emulator", "fail", {"call": "qzcap_get_waninfo", "reason": "", "times": 1, "mode": "timeout"})
        call("qzcapd.emulator", "fail", {"call": "qzcap_get_devinfo", "reason": "", "times": 1, "mode": "timeout"})
        self.misbehave(fault="close", after=1)
        self.expect_later(agent, "[ERROR] (arvok) tcp connection broken\n", "[INFO] (arvok) connect ")
        self.wait_for_message("dev_report", 2)
        self.assertIn("[ERROR] update_wan_info failed\n", agent.lines())

    def test_platform_session_from_start_to_end(self):
        trace = os.path.join(os.environ["LAB_DIR"], "session.trace")
        agent = self.start("-g", "192.168.1.1", env={**os.environ, "TRACE_FILE": trace, **TRACED})
        self.wait_for_message("wan_report")
        call("lab.gateway", "request", {"type": "ubus_subscribe", "object": "qzcapd.laninfo", "enable": 1})
        self.assertEqual(agent.stop(), 0)
        with open(trace) as lines:
            calls = lines.read().split("\n")[:-1]
        subscribed = [call for n in (5, 6, 7, 16, 15, 30) for call in ("qzcap_get_objid_by_id %d" % n, "qzcap_ubus_subscribe")]
        # The mesh subscriber, of object 15, is handed back with the roaming object's number.
        handed_back = [call for n in (5, 6, 7, 16, 16, 30) for call in ("qzcap_get_objid_by_id %d" % n,
                                                                        "qzcap_ubus_unsubscribe")]
        begin = ["qzcap_ubus_start", "uloop_run_timeout -1", "qzcap_register_appmgtcb", *subscribed]
        end = calls.index("uloop_done")
        self.assertEqual(calls[:len(begin)], begin)
        self.assertEqual([c for c in calls[len(begin):end] if "ubus_" in c],
                         ["ubus_connect", "ubus_subscribe", "ubus_free"])  # the gateway's, on a connection of its own
        self.assertEqual(calls[end:], ["uloop_done", *handed_back, "qzcap_unregister_appmgtcb", "qzcap_ubus_done",
                                       "qzcap_free_devinfo", "qzcap_free_waninfo"])

    def test_no_standard_descriptors(self):
        self.start("-c", 'exec lab-ap arvokclt -g 192.168.1.1 0<&- 1>&- 2>&-', program=("sh",))
        self.wait_for_message("wan_report")


if __name__ == "__main__":
    unittest.main(verbosity=2)

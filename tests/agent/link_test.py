"""The gateway link end to end: the real agent against the gateway peer, on the emulated device."""

import os
import re
import subprocess
import time
import unittest

from desk import AgentCase, call

GATEWAY = "192.168.1.1"


def neighbour_mac():
    """The gateway's MAC as the kernel of the access point has it."""
    table = subprocess.run(["lab-ap", "cat", "/proc/net/arp"], stdout=subprocess.PIPE, check=True).stdout.decode()
    return re.search(r"^192\.168\.1\.1\s+\S+\s+\S+\s+(\S+)", table, re.M).group(1).replace(":", "").upper()


class Registration(AgentCase):
    def test_messages_of_a_registration(self):
        self.patch({"waninfo": {"status": "down"}})  # the first report says "up" all the same
        self.addCleanup(self.patch, {"waninfo": {"status": "up"}})
        self.hold_timers()
        agent = self.start("-g", GATEWAY)
        self.wait_for_message("dev_report")
        self.pass_until(lambda: self.received("keepalive"), "the first keepalive", 1)
        self.timers.ahead(3)
        self.assertEqual(len(self.received("keepalive")), 1)
        self.timers.ahead(2)
        self.wait_for_message("keepalive", 2, 2)
        messages = self.received()
        self.assertEqual([m["type"] for m in messages],
                         ["keyngreq", "dh", "dev_reg", "wan_report", "dev_report", "keepalive", "keepalive"])
        self.assertEqual([m["sequence"] for m in messages], list(range(7)))
        self.assertEqual({m["mac"] for m in messages}, {"025A10000001"})
        encrypted = [entry["encrypted"] for entry in call("lab.gateway", "messages")["messages"]]
        self.assertEqual(encrypted, [False, False] + [True] * 5)

        keyngreq, dh, dev_reg, wan, lan = messages[:5]
        self.assertEqual(list(keyngreq), ["type", "sequence", "mac", "version", "keymodelist"])
        self.assertEqual((keyngreq["version"], keyngreq["keymodelist"]), ("V2019.1.0", [{"keymode": "dh"}]))
        self.assertEqual(list(dh["data"]), ["dh_key", "dh_p", "dh_g"])

        state = call("qzcapd.emulator", "state")
        device = state["devinfo"]
        self.assertEqual(list(dev_reg), ["type", "sequence", "mac", "link_mac", "data"])
        self.assertEqual(dev_reg["link_mac"], neighbour_mac())
        self.assertEqual(list(dev_reg["data"].items()), [
            ("vendor", device["vendor"]), ("model", device["model"]), ("swversion", device["swversion"]),
            ("hdversion", device["hdversion"]), ("sn", device["sn"]), ("ipaddr", "192.168.1.2"), ("url", device["url"]),
            ("wireless", device["wireless"]), ("QZEI", device["QZEI"]), ("devtype", device["devtype"]),
            ("supportMesh", 1), ("mapAlmac", state["mesh"]["almac"]), ("description", device["description"])])

        record = state["waninfo"]
        self.assertEqual(list(wan["status"].items()),
                         [("ipaddr", record["ipaddr"]), ("status", "up"), ("dns", [record["dns1"], record["dns2"]])])
        active = {mac: host for mac, host in state["laninfo"].items() if host["active"]}
        self.assertEqual([(d["mac"], d["vmac"], d["connecttype"]) for d in lan["dev"]],
                         [(mac, host["vmac"], host["connecttype"]) for mac, host in active.items()])
        for host in lan["dev"]:
            self.assertLess(abs(host["firstOnline"] - time.time()), 60)

        log = agent.lines()
        self.assertNotIn("keepalive", log)
        for direction, kind in (("->", "keyngreq"), ("<-", "keyngack"), ("->", "dh"), ("<-", "dh"), ("->", "dev_reg"),
                                ("<-", "ack"), ("->", "wan_report"), ("->", "dev_report")):
            line = re.search(r'^\[INFO\] \(arvok\) %s (\{"type":"%s".*\}) \((\d+)\)$' % (direction, kind), log, re.M)
            self.assertEqual(len(line.group(1).encode()), int(line.group(2)))

    def test_device_without_mesh_and_first_online_across_connections(self):
        self.patch({"devinfo": {"supportMesh": 0}})
        self.addCleanup(self.patch, {"devinfo": {"supportMesh": 1}})
        self.hold_timers()
        agent = self.start("-g", GATEWAY)
        first = self.wait_for_message("dev_report")[0]["dev"]
        data = self.received("dev_reg")[0]["data"]
        self.assertEqual(data["supportMesh"], 0)
        self.assertNotIn("mapAlmac", data)
        self.patch({"devinfo": {"supportMesh": 1}})
        self.misbehave(fault="close", after=1)
        self.expect_later(agent, "[ERROR] (arvok) tcp connection broken\n", "[INFO] (arvok) connect ")
        self.assertEqual(self.wait_for_message("dev_report", 2)[1]["dev"], first)
        data = self.received("dev_reg")[1]["data"]
        self.assertEqual(data["supportMesh"], 1)
        self.assertIn("mapAlmac", data)


class Enabled(AgentCase):
    """Where another client is installed, a setting decides whether the link runs."""

    def setUp(self):
        super().setUp()
        # A /usr/bin of this test's own, with the other client and a `uci` that says what the test wants.
        upper = os.path.join(os.environ["LAB_DIR"], "usr-bin")
        os.makedirs(upper, exist_ok=True)
        subprocess.run(["mount", "-t", "tmpfs", "none", upper], check=True)
        for part in ("upper", "work"):
            os.makedirs(os.path.join(upper, part))
        subprocess.run(["mount", "-t", "overlay", "overlay", "-o", "lowerdir=/usr/bin,upperdir=%s/upper,workdir=%s/work"
                        % (upper, upper), "/usr/bin"], check=True)
        self.addCleanup(subprocess.run, ["umount", upper], check=True)
        self.addCleanup(subprocess.run, ["umount", "-l", "/usr/bin"], check=True)
        self.write("kestrau_clt", "")

    @staticmethod
    def write(name, text):
        path = os.path.join("/usr/bin", name)
        with open(path, "w") as out:
            out.write(text)
        os.chmod(path, 0o755)

    def uci(self, commands):
        self.write("uci", '#!/bin/sh\n[ "$*" = "get network.globals.arvok_enable" ] || exit 1\n%s\n' % commands)

    def test_setting(self):
        for commands, value, runs in (("echo 1", 1, True), ("echo 7x", 7, True), ("echo 0", 0, False), ("", 0, False),
                                      ("exit 3", 0, False), ("echo; echo 1", 0, False), ("echo 00000001", 0, False)):
            with self.subTest(uci=commands):
                self.uci(commands)
                agent = self.start("-g", GATEWAY)
                agent.expect("[DEBUG] arvok_enable uci: %d\n" % value)
                if runs:
                    agent.expect("[INFO] (arvok) connect ")
                else:
                    agent.expect("[DEBUG] arvok disabled\n")
                self.assertEqual(agent.stop(), 0)
                self.assertEqual("(arvok) connect " in agent.lines(), runs)


class Addresses(AgentCase):
    def setUp(self):
        super().setUp()
        self.hold_timers()

    def test_default_and_discovered_gateway_alternate(self):
        self.misbehave(fault="refuse", times=0)
        commands = [["ip", "address", "add", "192.168.1.9/24", "dev", "lan0"],
                    ["lab-ap", "ip", "route", "replace", "default", "via", "192.168.1.9"]]
        undo = [["ip", "address", "del", "192.168.1.9/24", "dev", "lan0"],
                ["lab-ap", "ip", "route", "replace", "default", "via", "192.168.1.1"]]
        for command in commands:
            subprocess.run(command, check=True)
        for command in undo:
            self.addCleanup(subprocess.run, command, check=True)
        agent = self.start()
        for address, flag in ((GATEWAY, 1), ("192.168.1.9", 0), (GATEWAY, 1)):
            self.expect_later(agent, '[INFO] (arvok) connect "%s:32768" (%d)\n' % (address, flag))
            agent.expect("[ERROR] (arvok) tcp connection broken\n")
        self.misbehave(fault="none")
        self.expect_later(agent, '[INFO] (arvok) connect "192.168.1.9:32768" (0)\n')
        self.wait_for_message("dev_reg")

    def test_no_gateway_is_looked_for_again(self):
        self.misbehave(fault="refuse", times=0)
        subprocess.run(["lab-ap", "ip", "route", "del", "default"], check=True)
        self.addCleanup(subprocess.run, ["lab-ap", "ip", "route", "add", "default", "via", GATEWAY], check=True)
        agent = self.start()
        for _ in range(2):  # every second attempt finds nobody, and says nothing
            self.expect_later(agent, '[INFO] (arvok) connect "192.168.1.1:32768" (1)\n')
            agent.expect("[ERROR] (arvok) tcp connection broken\n")
        self.assertEqual(agent.lines().count("(arvok) connect "), 2)

    def test_unset_gateway_is_the_default_address(self):
        agent = self.start()
        agent.expect('[INFO] (arvok) connect "192.168.1.1:32768" (1)\n')
        self.wait_for_message("wan_report")


class Faults(AgentCase):
    def setUp(self):
        super().setUp()
        self.hold_timers()

    def test_each_fault_has_its_line_and_costs_the_connection_ten_seconds(self):
        for fault, line in (({"fault": "bad_magic"}, "[ERROR] (arvok) invalid msg header, 0\n"),
                            ({"fault": "bad_json", "on": "dev_reg"}, "[ERROR] (arvok) invalid msg (not json format)\n"),
                            ({"fault": "drop", "on": "keyngreq"}, "[ERROR] (arvok) wait ack timeout\n"),
                            ({"fault": "drop", "on": "keepalive", "times": 0},
                             "[ERROR] (arvok) wait keepalive ack timeout\n"),
                            ({"fault": "close"}, "[ERROR] (arvok) tcp connection broken\n")):
            self.misbehave(**fault)
            agent = self.start("-g", GATEWAY)
            self.expect_later(agent, line)
            agent.expect("[INFO] (arvok) disconnect fd: ")
            self.misbehave(fault="none")
            self.forget()
            self.timers.ahead(7)  # it may have been two seconds ahead when the line came
            self.assertNotIn("(arvok) connect ", agent.lines()[agent.seen:])
            self.timers.ahead(3)
            self.assertIn("(arvok) connect ", agent.lines()[agent.seen:])
            self.wait_for_message("wan_report")
            self.stop_agents()

    def test_three_short_connections_lead_to_the_long_pause(self):
        """Each ends while an answer to a keepalive is awaited, and no such wait cuts the pause short."""
        agent = self.start("-g", GATEWAY)
        for count in (1, 2, 3):
            self.misbehave(fault="close", on="keepalive")
            self.expect_later(agent, "[WARNING] (arvok) connect time < 30s, count %d\n" % count, seconds=1)
        agent.expect("[WARNING] (arvok) refused count >= 3, reconnect after 4 hours\n")
        for seconds in (25, 15, 4 * 3600 - 60):
            self.timers.ahead(seconds)
        self.assertNotIn("(arvok) ", agent.lines()[agent.seen:].split("disconnect fd", 1)[1].split("\n", 1)[1])
        self.forget()
        self.timers.ahead(60)
        self.wait_for_message("dev_reg")

    def test_pieces_and_floods(self):
        agent = self.start("-g", GATEWAY)
        self.wait_for_message("wan_report")
        text = {"type": "flood", "pad": "x" * 40}
        call("lab.gateway", "send", {"message": text, "repeat": 50})
        for _ in range(50):
            agent.expect("[ERROR] (arvok) unknown type: flood\n")
        call("lab.gateway", "send", {"message": {"type": "piecemeal", "pad": "x" * 4000}, "split": 1000, "interval": 20})
        agent.expect("[INFO] (arvok) wait for the TCP fragmentation, 992/")
        agent.expect("[ERROR] (arvok) unknown type: piecemeal\n")
        # The longest body: what zero padding makes 16384 bytes of.
        overhead = len('{"type":"longest","pad":"","sequence":10000,"mac":"000000000000"}')
        call("lab.gateway", "send", {"message": {"type": "longest", "pad": "x" * (16384 - overhead)}})
        agent.expect("[ERROR] (arvok) unknown type: longest\n")
        # A header that comes with less than its body is forgotten. The first piece holds both, whatever the kernel makes
        # of the pieces behind it.
        call("lab.gateway", "send", {"message": text, "split": 12, "interval": 1000})
        agent.expect("[ERROR] invalid magic 0x")
        agent.expect("[INFO] (arvok) disconnect fd: ")


if __name__ == "__main__":
    unittest.main(verbosity=2)

"""Every JSON example of the pages. What can be sent is sent as it stands, and what is shown behind it must be its answer;
everything else must be among what a home exchanges. An example that is neither is a fault of its page."""

import base64
import glob
import json
import os
import re
import struct
import subprocess
import unittest

from cloud_test import MAC, CloudCase
from desk import call, wait_until
from examples import EXAMPLE, LEFT_OUT, blocks, inside, like, objects, steps
from extended_test import FOLDER
from local_test import Client

ROOT = os.path.join(os.path.dirname(os.path.abspath(__file__)), "..", "..")
PAGES = sorted(glob.glob(os.path.join(ROOT, "docs", "*.md"))) + [os.path.join(ROOT, "README.md")]

COMMANDS = ("ubus ", "exec ", "printf ", "head ")  # with which those of a page begin that are run
SUBSCRIBE = "ubus subscribe "
# What is neither sent nor exchanged: a part of it, and why.
ELSEWHERE = {"-z expert,error": "a comment beside a command of the dissector, which has a test of its own",
             '"qzcap_diagnostics_get"': "what the probe shows, which has a test of its own"}
NO_REQUESTS = ("keyngack", "dh", "ack")  # of the gateway


class Examples(CloudCase):
    provoked = []  # what a home exchanged in which everything was made to happen

    def setUp(self):
        super().setUp()
        self.apps = []  # commands of apps and their answers, which no peer sees
        self.told = []  # what the agent tells when all that is on the page has been done
        if not Examples.provoked:
            self.begin()
            Examples.provoked = self.provoke()
            self.once_more()
        for rules in glob.glob(FOLDER + "/extcc*"):
            os.remove(rules)
        subprocess.run(["lab-clock", "2026-11-18 23:00:00"], check=True)
        self.begin()

    def begin(self):
        """An agent that is linked and enrolled: the one at work, if it still is. The platform sees a call of it."""
        if not self.is_at_work():
            self.stop_agents()
            self.forget()
            self.enrol()
            self.wait_for_message("dev_report")
            self.status_of("waninfo")
        self.gateway = self.peer()["gateway_mac"]

    def is_at_work(self):
        """A link that the block before has broken may end only while it is asked."""
        if not self.agents or not self.peer()["connected"] or self.cloud()["state"] != "connected":
            return False
        try:
            return self.status_of("waninfo")
        except subprocess.CalledProcessError:
            return False

    def tearDown(self):
        subprocess.run(["lab-clock", "real"], check=True)
        super().tearDown()

    def exchanged(self):
        entries = [entry for peer in ("lab.gateway", "lab.cloud")
                   for entry in call(peer, "messages", {"direction": "both"})["messages"]]
        return [found for message in [entry["message"] for entry in entries] + self.apps for found in inside(message)]

    @staticmethod
    def gateway_asks(message):
        return call("lab.gateway", "request", {"message": message, "timeout": 15000}, 20)

    def status_of(self, *names):
        return self.gateway_asks({"type": "get_status", "get": [{"name": name} for name in names]})["status"]

    def app_asks(self, command):
        answer = call("qzapp.arvokclt", "postmsg", command)
        self.apps += [command, answer]
        return answer

    def provoke(self):
        """Every report and event, all status items, a plugin's installation, and the tour's rule."""
        with open(os.path.join(ROOT, "tests", "agent", "data", "status_dual.json")) as items:
            names = list(json.load(items))
        self.status_of(*names)
        self.status_of("cputemp")
        self.gateway_asks({"type": "cfg", "set": {"eventsub": ["online", "offline", "vsie", "rolechange"]}})
        self.gateway_asks({"type": "ubus_subscribe", "object": "qzcapd.laninfo", "enable": 1})
        for patch in ({"laninfo": {"02C0FFEE0001": {"active": 0}}}, {"laninfo": {"02C0FFEE0002": {"active": 0}}},
                      {"laninfo": {"02C0FFEE0002": {"active": 1}}}, {"waninfo": {"ipaddr": "192.168.1.3"}},
                      {"mesh": {"role": "agent"}}, {"mesh": {"role": "controller"}}):
            self.patch(patch)
        for number, method, message in (
                (30, "vsie", {"band": 1, "mac": "02C0FFEE0003", "vsie": [221, 5, 80, 111, 154, 28]}),
                (16, "roamingreport", {"roamingreport": [
                    {"mac": "02C0FFEE0002", "connecttime": 3600, "rssi": -48, "channel": 36}]})):
            call("qzcapd.emulator", "notify", {"object": number, "method": method, "message": message})
        package = subprocess.run([ROOT + "/lab/mkapp", "radio", "2.0"], capture_output=True, text=True, check=True).stdout
        call("lab.cloud", "request", {
            "RPCMethod": "Install", "Plugin_Name": "com.marobelvinta.all.smartap.radio_ipq5018x", "Version": "2.0",
            "Plugin_size": "1000", "NeedRun": "0", "OS": "openwrt", "upgrade_ID": "tour-1",
            "Download_url": "http://100.64.0.9/" + package.strip()})
        wait_until(lambda: self.heard("InstallNotification"), "the installation's end")
        self.wait_for_message("event", 6)
        self.app_asks({"CmdType": "SET_LANHOST_TIMER", "SequenceId": "tour", "MAC": "02C0FFEE0003", "Info": []})
        return self.exchanged()

    # --- one page ---

    def check_page(self, page):
        page = [list(steps(block)) for block in blocks(page)]
        self.subscribe(command for block in page for command, _ in block)
        for block in page:
            if not any(EXAMPLE.search(text) for step in block for text in step):
                continue
            self.begin()
            printed = self.run_commands([command for command, _ in block])
            for command, shown in block:
                if any(part in command + shown for part in ELSEWHERE):
                    continue
                with self.subTest(command=command, shown=shown):
                    if command in printed:
                        for example in objects(shown):
                            self.find(example, printed[command])
                    else:
                        self.assertEqual(objects(command), [], "in a command that is not run")
                        self.check_messages(objects(shown))
            self.withdraw(block)
        for example in self.told:
            with self.subTest(told=example):
                self.find(example, ask={"CmdType": example["CmdType"]})

    @staticmethod
    def withdraw(block):
        """What a block has ordered to fail works again."""
        for peer in ("lab.gateway", "lab.cloud"):
            call(peer, "misbehave", {"fault": "none"})
        for command, _ in block:
            if command.startswith("ubus call qzcapd.emulator fail "):
                call("qzcapd.emulator", "fail", {**objects(command)[0], "times": 0})

    def subscribe(self, commands):
        """Begins the subscriptions of a page, so that none of what it does is missed."""
        self.notified = os.path.join(os.environ["LAB_DIR"], "notified")
        with open(self.notified, "w") as file:
            for command in commands:
                if command.startswith(SUBSCRIBE):
                    process = subprocess.Popen(["bash", "-c", "exec " + command], stdout=file)
                    self.addCleanup(lambda process=process: (process.terminate(), process.wait()))

    def run_commands(self, commands):
        """Runs those that a home knows, in one shell, and returns what each has printed."""
        commands = [c for c in commands if c.startswith(COMMANDS) and not c.startswith(SUBSCRIBE)]
        script = "\n".join(command + "\nprintf '\\036%d\\036' $?" for command in commands)
        done = subprocess.run(["bash", "-c", script], cwd=ROOT, capture_output=True, text=True, timeout=60)
        parts = done.stdout.split("\036")
        self.assertEqual(parts[1::2], ["0"] * len(commands), "%s\n%s" % (commands, done.stderr))
        return dict(zip(commands, parts[::2]))

    def find(self, example, printed="", ask=None):
        """Waits until the example is among what a command has printed, was notified or exchanged."""
        def found():
            if ask:
                self.app_asks(ask)
            with open(self.notified) as notified:
                texts = objects(printed) + objects(notified.read().rpartition("\n")[0])
            there = [each for text in texts for each in inside(text)] + self.exchanged() + self.provoked
            self.similar = [each for each in there if list(each)[:1] == list(example)[:1]][-3:]
            return any(like(example, each, self.gateway) for each in there)
        wait_until(found, lambda: "a home exchanges\n%s\nbut at most\n%s" % (
            json.dumps(example), "\n".join(map(json.dumps, self.similar))), 10)

    def check_messages(self, examples):
        """Sends what can be sent; what is shown next is its answer, if it can be one."""
        while examples:
            example, *examples = examples
            send = self.sender(example)
            if not send:
                is_told = example.get("CmdType", "").startswith(("GET_", "EXTCC_"))
                self.told.append(example) if is_told else self.find(example)
                continue
            answered = bool(examples) and self.may_answer(examples[0], example)
            answer = send(example, answered)
            if answered:
                self.assertTrue(like(examples[0], answer, self.gateway), "the answer is\n%s" % json.dumps(answer))
                examples = examples[1:]

    @staticmethod
    def may_answer(answer, example):
        return (answer.get("Ack", example) == example.get("RPCMethod") or
                "CmdType" in answer and answer["CmdType"] == example.get("CmdType") or
                "type" in answer and answer["type"] != example.get("type") and answer.get("mac") == MAC)

    def sender(self, example):
        """How the example is sent: as the gateway, the platform, an app or a client on the LAN; nothing for what a home
        says by itself."""
        if LEFT_OUT in example:
            return None
        if "type" in example and example.get("mac") != MAC and example["type"] not in NO_REQUESTS:
            return self.send_to_link
        if "RPCMethod" in example and "MAC" not in example:
            return self.send_to_cloud if isinstance(example.get("ID"), str) else self.send_to_server
        if "CmdType" in example and "Status" not in example and "Time" not in example:
            return self.send_to_server if example["CmdType"] == "GET_SN_INFO" else self.send_to_app
        return None

    def send_to_link(self, message, answered):
        return self.gateway_asks(message) if answered else call("lab.gateway", "send", {"message": message})

    def send_to_cloud(self, message, _):
        reply = call("lab.cloud", "request", {"message": message})
        self.assertEqual(reply["Result"], 0, reply)
        return reply

    def send_to_server(self, message, _):
        """A request; a command is wrapped into one, and its answer taken out."""
        is_command = "CmdType" in message
        if is_command:
            text = base64.b64encode(json.dumps(message).encode()).decode()
            message = {"RPCMethod": "Post1", "ID": 1, "Parameter": text}
        text = json.dumps(message).encode()
        client = Client()
        self.addCleanup(client.close)
        client.send(struct.pack(">I", len(text)) + text)
        reply = client.receive()
        return json.loads(base64.b64decode(reply["return_Parameter"])) if is_command else reply

    def send_to_app(self, command, answered):
        answer = self.app_asks(command)
        if not answered:
            self.assertEqual((answer["Status"], answer["FailReason"]), ("0", ""), answer)
        return answer

    def test_members_of_status_items(self):
        """The tables of members name all of them, in their order, with the kind of their values."""
        kinds = {str: "text", int: "number", dict: "object", list: "array"}
        with open(os.path.join(ROOT, "docs", "gateway-status.md")) as page:
            sections = re.findall(r"(?m)^### (\w+)\n\n\| member \| kind \| \|\n((?:\|.*\n)+)", page.read())
        self.assertGreater(len(sections), 5)
        items = self.status_of(*(name for name, _ in sections))
        for name, table in sections:
            rows = re.findall(r"(?m)^\| (.+?) \| (\w*) ?\|", table)
            told = [(member, kind) for cell, kind in rows for member in re.findall(r"`(\w+)`", cell)]
            for item in items[name] if isinstance(items[name], list) else [items[name]]:
                real = [(member, kinds[type(value)]) for member, value in item.items()]
                with self.subTest(name=name):
                    self.assertEqual(told, [each for each in real if (LEFT_OUT, "") not in rows or each in told])


def page_test(page):
    return lambda self: self.check_page(page)


for each in PAGES:
    setattr(Examples, "test_" + re.sub(r"\W", "_", os.path.basename(each)[:-3]), page_test(each))

if __name__ == "__main__":
    unittest.main()

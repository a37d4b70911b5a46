"""The desk as a test sees it: the bus, the gateway peer, the device state, the agent and its log.

Runs inside a home (lab/home --no-agent -- ...); everything is awaited with a deadline, nothing is slept for.
"""

import json
import os
import re
import signal
import subprocess
import time
import unittest

from bus import call
from waiting import DEADLINE, Timers, wait_until

class Agent:
    """One run of the agent on the access point, and its log."""

    def __init__(self, *args, program=("lab-agent",), **kwargs):
        self.path = os.path.join(os.environ["LAB_DIR"], "agent-%d.log" % time.monotonic_ns())
        with open(self.path, "wb") as log:
            self.process = subprocess.Popen([*program, *args], stdout=log, stderr=log, stdin=subprocess.DEVNULL,
                                            **kwargs)
        self.seen = 0

    def text(self):
        with open(self.path, "rb") as log:
            return log.read().decode("utf-8", "replace")

    def lines(self):
        """The log without the times that begin its lines."""
        return re.sub(r"(?m)^\d\d:\d\d:\d\d\.\d{3} ", "", self.text())

    def expect(self, line, deadline=DEADLINE):
        """Waits for a text in the log behind the last one found."""
        def found():
            at = self.lines().find(line, self.seen)
            if at >= 0:
                self.seen = at + len(line)
            return at >= 0
        wait_until(found, lambda: "%r in the log:\n%s" % (line, self.lines()[-3000:]), deadline)

    def takes(self, number):
        """Whether a signal leads to an orderly end by now: it is held back, or the loop's. An emulator holds none back,
        and takes SIGTERM for itself, so that SIGCHLD tells there."""
        try:
            if not os.path.basename(os.readlink("/proc/%d/exe" % self.process.pid)).startswith(("arvokclt", "qemu")):
                return False  # still what starts it
            with open("/proc/%d/status" % self.process.pid) as status:
                masks = re.findall(r"(SigBlk|SigCgt):\s*(\w+)", status.read())
        except OSError:
            return True  # it has ended
        has = lambda mask, of: int(dict(masks).get(mask, "0"), 16) >> (of - 1) & 1
        return has("SigBlk", number) or has("SigCgt", signal.SIGCHLD)

    def stop(self, number=signal.SIGTERM):
        """Ends the agent in an orderly way and returns its exit status."""
        if self.process.poll() is None:
            wait_until(lambda: self.takes(number), "main begins")
            self.process.send_signal(number)
        try:
            return self.process.wait(DEADLINE)
        except subprocess.TimeoutExpired:
            self.process.kill()
            self.process.wait()
            raise AssertionError("the agent did not end:\n" + self.lines()[-3000:])


class AgentCase(unittest.TestCase):
    """A test with the device and the gateway in their default state; the agents that it starts must end well."""

    timers = None

    def hold_timers(self):
        """The agents that are started from now on have their timers in the test's hand: `timers` and `pass_until`."""
        self.timers = Timers()

    def pass_until(self, condition, what, seconds=2):
        """Lets time pass on the agent's clock until it is so, in steps that leave every answer its deadline."""
        def passed():
            if condition():
                return True
            self.timers.ahead(seconds)
            return condition()
        return wait_until(passed, what, 60, pause=0.05)

    def expect_later(self, agent, *lines, seconds=2):
        """The lines come one after the other while time passes on the agent's clock."""
        for line in lines:
            self.pass_until(lambda: line in agent.lines()[agent.seen:],
                            lambda: "%r in the log:\n%s" % (line, agent.lines()[-3000:]), seconds)
            agent.expect(line)

    def setUp(self):
        call("lab.gateway", "misbehave", {"fault": "none"})
        call("lab.gateway", "messages", {"clear": True})
        call("qzcapd.emulator", "calls", {"clear": True})
        self.agents = []

    def tearDown(self):
        self.stop_agents()
        wait_until(lambda: not self.peer()["connected"], "the gateway's connection closed")

    def stop_agents(self):
        """Ends the agents that the test has started; they must end well."""
        while self.agents:
            agent = self.agents.pop()
            status = agent.stop()
            self.assertEqual(status, 0, "exit status of the agent:\n" + agent.lines()[-3000:])
            for report in ("ERROR: AddressSanitizer", "ERROR: LeakSanitizer", "runtime error:"):
                self.assertNotIn(report, agent.text())

    def start(self, *args, **kwargs):
        if self.timers:
            kwargs["env"] = {**kwargs.get("env", os.environ), **self.timers.environment}
        agent = Agent(*args, **kwargs)
        self.agents.append(agent)
        return agent

    def publish(self, name):
        """Puts an object of the test's own on the bus and returns its process."""
        process = subprocess.Popen(["bus_object", name], stdout=subprocess.PIPE)
        self.addCleanup(lambda: (process.terminate(), process.wait()))
        subprocess.run(["ubus", "-t", "10", "wait_for", name], check=True)
        return process

    @staticmethod
    def peer():
        return call("lab.gateway", "peer")

    @staticmethod
    def forget():
        call("lab.gateway", "messages", {"clear": True})
        call("qzcapd.emulator", "calls", {"clear": True})

    @staticmethod
    def misbehave(**fault):
        call("lab.gateway", "misbehave", fault)

    @staticmethod
    def received(kind=None):
        """What the gateway received, in order; of one type only, if given."""
        messages = [entry["message"] for entry in call("lab.gateway", "messages")["messages"]]
        return [m for m in messages if kind is None or m.get("type") == kind]

    @staticmethod
    def received_texts(kind):
        """The texts of that type: the bus does not carry the longest messages."""
        with open(os.path.join(os.environ["LAB_DIR"], "gateway.log"), errors="replace") as log:
            return re.findall(r'(?m)^\S+ #\d+ <- (\{"type":"%s",.*\})$' % kind, log.read())

    def wait_for_message(self, kind, count=1, deadline=DEADLINE):
        return wait_until(lambda: len(self.received(kind)) >= count and self.received(kind),
                          "%d of type %s" % (count, kind), deadline)

    @staticmethod
    def calls():
        return [entry["call"] for entry in call("qzcapd.emulator", "calls")["calls"]]

    @staticmethod
    def patch(patch):
        call("qzcapd.emulator", "patch", {"patch": patch})

    @staticmethod
    def fail_call(function, times=1, reason="on demand"):
        call("qzcapd.emulator", "fail", {"call": function, "reason": reason, "times": times})


class LinkedCase(AgentCase):
    """A test of what passes on the link: one agent, registered, on a device in the state of the start."""

    def setUp(self):
        super().setUp()
        call("qzcapd.system", "reset")
        self.agent = None

    def link(self, patch=None, *args):
        """Starts the agent and waits until it is registered; the journal and the gateway's record begin then."""
        if patch:
            self.patch(patch)
        self.agent = self.start("-g", os.environ["GATEWAY_ADDR"], *args)
        self.wait_for_message("dev_report")
        self.forget()
        return self.agent

    def fail_call(self, function, times=1, reason="on demand", mode="error"):
        call("qzcapd.emulator", "fail", {"call": function, "reason": reason, "times": times, "mode": mode})
        self.addCleanup(self.mend, function)

    @staticmethod
    def mend(function):
        call("qzcapd.emulator", "fail", {"call": function, "times": 0})

    @staticmethod
    def journal(*functions):
        """The calls since the last look with their arguments, of these functions only, if given; forgets them."""
        calls = call("qzcapd.emulator", "calls", {"clear": True})["calls"]
        return [(c["call"], c["args"]) for c in calls if not functions or c["call"] in functions]

    @staticmethod
    def notify(number, method, message):
        call("qzcapd.emulator", "notify", {"object": number, "method": method, "message": message})

    @staticmethod
    def state():
        return call("qzcapd.emulator", "state")

    @staticmethod
    def request(message):
        return call("lab.gateway", "request", {"message": message, "timeout": 15000}, 20)

    def status(self, *names):
        """Asks for status items; the error code and the values by name."""
        reply = self.request({"type": "get_status", "get": [{"name": name} for name in names]})
        self.assertEqual(list(reply), ["type", "sequence", "mac", "errcode", "status"])
        return reply["errcode"], reply["status"]

    def _acknowledged(self, message):
        reply = self.request(message)
        self.assertEqual(list(reply), ["type", "sequence", "mac", "errcode", "errmsg"])
        self.assertEqual((reply["type"], reply["mac"]), ("ack", "025A10000001"))
        return reply["errcode"], reply["errmsg"]

    def control(self, *elements):
        return self._acknowledged({"type": "control", "data": list(elements)})

    def cfg(self, **rows):
        return self._acknowledged({"type": "cfg", "set": rows})


class UnkeyedCase(AgentCase):
    """A link that has no key yet, so that any text can be put on it, one behind the other."""

    def setUp(self):
        super().setUp()
        self.misbehave(fault="drop", on="keyngreq", times=0)
        self.agent = self.start("-g", os.environ["GATEWAY_ADDR"])
        self.agent.expect('-> {"type":"keyngreq"')
        self.logged = ""
        # Consumed, though not answered: it ends the wait for the answer to the key request.
        self.put("[ERROR] (10001) Arvok AP without this interface\n", {"type": "qlink"})

    def put(self, line, message):
        """Sends a message that makes the agent log the line."""
        text = json.dumps(message, separators=(",", ":"))
        frame = bytes.fromhex("3f721fb5") + len(text).to_bytes(4, "big") + text.encode()
        call("lab.gateway", "raw", {"hex": frame.hex()})
        self.logged += "[INFO] (arvok) <- %s (%d)\n%s" % (text, len(text), line)

    def assert_logged(self):
        """All that was put, and nothing in between."""
        # The cloud and its search for servers go their own way.
        log = re.sub(r"\[\w+\] (\(cloud\)|\w+_ip\[).*\n", "", self.agent.lines())
        self.assertEqual(log[log.index("[INFO] (arvok) <- "):][:len(self.logged)], self.logged)

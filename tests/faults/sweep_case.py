"""The engine of the fault sweep: a row names a call of the platform, what makes the agent call it, what comes of it.

Each row runs once in each way in which its call can fail, on an agent that is linked with the gateway and enrolled at
the cloud. The same action must work right afterwards, and the agent must be as well as before.
"""

import os
import re
from collections import namedtuple

from desk import call, wait_until
from events_test import EventCase

REPOSITORY = os.path.join(os.path.dirname(os.path.abspath(__file__)), "..", "..")
SILENCE_MS = 1000  # how long the platform library waits here; a loaded machine answers within it

# call    the function of the platform library that fails
# act     does what makes the agent call it, and returns what is seen of it
# good    what `act` returns when nothing fails
# bad     what it returns when the call fails, {} being the platform's reason
# blank   what it returns when the record, list or text is there and empty; None: the answer carries none
# log     a line that the agent writes when the call fails, {} being the reason
# first   what has to be done before, to a device in the state of its start
# modes   the ways in which it fails
# times   how many calls of `act` fail, from the first on
MODES = ("error", "timeout", "empty", "blank")
Row = namedtuple("Row", "call act good bad blank log first modes times", defaults=(None, None, None, MODES, 1))


def bus_methods():
    """The bus method that carries each function, as the library's error texts name it."""
    with open(os.path.join(REPOSITORY, "device/libcapi/calls.h")) as header:
        return {function: "%s %s" % (obj, method) for function, obj, method in
                re.findall(r'\{"(\w+)", "([\w.]+)", "(\w+)"\}', header.read())}


METHODS = bus_methods()
REASONS = {"error": "on demand", "timeout": "%s: Request timed out", "empty": "%s: no result in the answer"}


def with_reason(value, reason):
    """The expected value with the reason in place of {}, at any depth."""
    if isinstance(value, str):
        return value.replace("{}", reason)
    if isinstance(value, dict):
        return {key: with_reason(member, reason) for key, member in value.items()}
    if isinstance(value, (list, tuple)):
        return type(value)(with_reason(member, reason) for member in value)
    return value


class SweepCase(EventCase):
    def setUp(self):
        super().setUp()
        call("lab.cloud", "misbehave", {"fault": "none"})
        call("lab.cloud", "forget")
        self.enrolled()

    def enrolled(self):
        """Starts the agent and waits until it is linked and enrolled."""
        self.forget()
        self.agent = self.launch()
        wait_until(lambda: self.peer()["state"] in ("registered", "linked"), self.peer)
        self.wait_for_heartbeat()
        self.control()
        self.pid = self.agent.process.pid
        self.note_connections()
        self.descriptors = self.open_descriptors()

    def launch(self, **env):
        # In debug mode it is back at the cloud within seconds.
        return self.start("-d", "-g", os.environ["GATEWAY_ADDR"], env={
            **os.environ, "QZCAP_TIMEOUT": str(SILENCE_MS), "ASAN_OPTIONS": "verify_asan_link_order=0", **env})

    @staticmethod
    def wait_for_heartbeat():
        cloud = lambda: call("lab.cloud", "peer")
        wait_until(lambda: cloud()["state"] == "connected" and cloud().get("heartbeats", 0) > 0, cloud)

    @staticmethod
    def ask_cloud(method, **members):
        message = {"RPCMethod": method, "ID": "1", **members}
        reply = call("lab.cloud", "request", {"message": message, "timeout": 15000}, 20)
        return {key: value for key, value in reply.items() if key not in ("Ack", "ID")}

    @staticmethod
    def ask_app(command, **members):
        answer = call("qzapp.arvokclt", "postmsg", {"CmdType": command, "SequenceId": "9", **members}, 20)
        return {key: value for key, value in answer.items() if key not in ("CmdType", "SequenceId")}

    @staticmethod
    def forget():
        """What the gateway has received; the journal is kept, to see what was called."""
        call("lab.gateway", "messages", {"clear": True})

    def settle(self):
        """Until the platform has told what there was to tell, and the agent has heard it."""
        call("qzcapd.emulator", "calls", {"clear": True})
        self.ask_app("GET_STATUS")

    def quiet(self):
        """Until what the agent has to report has been sent. A report waits for one turn of the loop."""
        self.control()
        self.control()
        self.forget()

    def note_connections(self):
        self.connections = self.count_connections()

    @staticmethod
    def count_connections():
        return [call("lab." + peer, "peer")["connections"] for peer in ("gateway", "cloud")]

    def open_descriptors(self):
        return sorted(os.readlink("/proc/%d/fd/%s" % (self.pid, fd)).split(":")[0]
                      for fd in os.listdir("/proc/%d/fd" % self.pid))

    def anonymous_memory(self):
        """In KiB; 0 under a sanitizer, which keeps what has been freed."""
        with open("/proc/%d/maps" % self.pid) as maps, open("/proc/%d/status" % self.pid) as status:
            return 0 if "libasan" in maps.read() else int(re.search(r"RssAnon:\s*(\d+)", status.read()).group(1))

    def assert_well(self):
        """The same process serves both peers on the same connections, with the same descriptors."""
        self.assertIsNone(self.agent.process.poll(), self.agent.lines()[-3000:])
        self.assertEqual(self.status("cputemp"), (0, {"cputemp": 52}))
        self.assertEqual(self.ask_cloud("ListPlugin")["Result"], 0)
        self.assertEqual(self.count_connections(), self.connections)
        self.assertEqual(self.open_descriptors(), self.descriptors)

    def prepare(self, row):
        call("qzcapd.system", "reset")
        if row.first:
            row.first(self)
        self.settle()

    def fault(self, row, mode):
        reason = REASONS.get(mode, "").replace("%s", METHODS[row.call])
        self.prepare(row)
        self.agent.seen = len(self.agent.lines())
        self.fail_call(row.call, mode=mode, times=row.times)
        outcome = row.act(self)
        self.assertIn(row.call, self.calls(), "not called")
        self.assertEqual(outcome, row.blank if mode == "blank" else with_reason(row.bad, reason))
        if row.log and mode != "blank":
            self.agent.expect(with_reason(row.log, reason))
        self.mend(row.call)
        self.prepare(row)
        self.assertEqual(row.act(self), row.good)
        self.assert_well()

    def sweep(self, rows):
        for number, row in enumerate(rows):
            if number == 1:
                before = self.anonymous_memory()
            for mode in row.modes:
                if mode == "blank" and row.blank is None:
                    continue
                with self.subTest(call=row.call, mode=mode, seen=row.good):
                    self.fault(row, mode)
        # Room for the platform's largest answer; small leaks are the sanitized build's to find.
        self.assertLess(self.anonymous_memory(), before + 512)

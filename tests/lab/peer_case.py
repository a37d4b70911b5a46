"""A peer of the desk on a bus of its own, steered by the `ubus` command."""

import json
import os
import re
import shutil
import subprocess
import tempfile
import unittest

BIN = os.environ.get("ARVOK_BIN") or os.path.join(os.path.dirname(__file__), "../../build/bin")


def program(name):
    bus = os.environ.get("ARVOK_BUS")  # as lab/home takes it
    if bus and name in ("ubusd", "ubus"):
        return shutil.which(name, path="%s/sbin:%s/bin" % (bus, bus))
    return os.path.join(BIN, name)


def reason(errors):
    """What the command says of a call that failed, with the call or without, as its release has it."""
    return re.fullmatch(r"Command failed: (?:ubus call .* \()?([\w ]+)\)?", errors.splitlines()[0])[1]


class PeerCase(unittest.TestCase):
    """Derived classes name the `program`, its bus `object` and its `arguments`."""

    @classmethod
    def setUpClass(cls):
        cls.folder = tempfile.mkdtemp()
        cls.addClassCleanup(shutil.rmtree, cls.folder)
        cls.bus = os.path.join(cls.folder, "bus")
        cls.log = os.path.join(cls.folder, "log")
        busd = cls.begin([program("ubusd"), "-s", cls.bus])
        while subprocess.run([program("ubus"), "-s", cls.bus, "list"], capture_output=True).returncode != 0:
            assert busd.poll() is None, "ubusd ended"
        with open(cls.log, "w", encoding="utf-8") as log:
            cls.peer = cls.begin([program(cls.program), "-s", cls.bus, *cls.arguments], stdout=log,
                                 stderr=subprocess.STDOUT)
        cls.ubus("-t", "10", "wait_for", cls.object)

    @classmethod
    def begin(cls, command, **options):
        process = subprocess.Popen(command, **options)
        cls.addClassCleanup(process.wait)
        cls.addClassCleanup(process.kill)
        return process

    @classmethod
    def tearDownClass(cls):
        cls.peer.terminate()
        status = cls.peer.wait(10)
        with open(cls.log, encoding="utf-8") as log:
            assert status == 0, log.read()[-4000:]

    def setUp(self):
        self.call("misbehave", {"fault": "none"})
        self.call("messages", {"clear": True})

    @classmethod
    def ubus(cls, *arguments):
        return subprocess.run([program("ubus"), "-s", cls.bus, *arguments], capture_output=True, text=True, check=True)

    @classmethod
    def call(cls, method, argument=None):
        return json.loads(cls.ubus("call", cls.object, method, json.dumps(argument or {})).stdout or "{}")

    def refused(self, method, argument):
        """The bus's word for why a call fails."""
        with self.assertRaises(subprocess.CalledProcessError) as caught:
            self.call(method, argument)
        return reason(caught.exception.stderr)

    def all_invalid(self, *calls):
        for method, argument in calls:
            with self.subTest(method, argument=argument):
                self.assertEqual(self.refused(method, argument), "Invalid argument")

    def started(self, method, argument):
        """A call that goes on in the background."""
        command = [program("ubus"), "-s", self.bus, "call", self.object, method, json.dumps(argument)]
        return subprocess.Popen(command, stdout=subprocess.PIPE, stderr=subprocess.PIPE, text=True)

    def shown_while(self, act):
        """What `ubus subscribe` shows of what `act` causes, which ends with the end of a connection."""
        command = [program("ubus"), "-s", self.bus, "subscribe", self.object]
        with subprocess.Popen(command, stdout=subprocess.PIPE, text=True) as watcher:
            self.addCleanup(watcher.terminate)
            while not self.call("peer")["subscribers"]:
                self.assertIsNone(watcher.poll())
            act()
            text, shown, decoder = "", [], json.JSONDecoder()
            while not any("disconnected" in entry for entry in shown):
                line = watcher.stdout.readline()
                self.assertTrue(line, "the subscription ended")
                text += line
                try:
                    entry, end = decoder.raw_decode(text.lstrip())
                except ValueError:
                    continue
                shown.append(entry)
                text = text.lstrip()[end:]
            watcher.terminate()
        return shown

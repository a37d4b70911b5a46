"""What the agent's memory holds of its keys when the connections that they were for have ended."""

import re
import unittest

from cloud_test import CloudCase
from desk import call, wait_until


def memory(pid):
    """Everything that the process could write to, with where it is."""
    with open("/proc/%d/maps" % pid) as maps, open("/proc/%d/mem" % pid, "rb") as mem:
        for line in maps:
            first, last, rights = re.match(r"(\w+)-(\w+) (\S+)", line).groups()
            if rights.startswith("rw") and "[v" not in line:
                mem.seek(int(first, 16))
                yield line.strip(), mem.read(int(last, 16) - int(first, 16))


class Secrets(CloudCase):
    def secrets(self):
        """By what they are called, as bytes: those of the link, and those that the cloud's messages carried."""
        found = {"key of the link": bytes.fromhex(self.peer()["key"])}
        for name in ("CKey", "SKey", "DevToken"):
            texts = set(re.findall('"%s":"([^"]+)"' % name, self.agent.lines()))
            self.assertTrue(texts, name)
            found.update(("%s %s" % (name, text), text.encode()) for text in texts)
        return found

    def left(self, secrets):
        for where, part in memory(self.agent.process.pid):
            for name, text in secrets.items():
                for found in re.finditer(re.escape(text), part):
                    yield "%s in %s at %#x: %r" % (name, where, found.start(),
                                                   part[max(0, found.start() - 60):found.end() + 60])

    def test_nothing_is_left_when_the_connections_have_ended(self):
        for identity in ("new", "stored"):
            with self.subTest(identity=identity):
                self.stop_agents()
                self.forget()
                self.misbehave(fault="none")
                self.enrol()
                self.wait_for_message("keepalive")
                secrets = self.secrets()
                # What is of use now is there, so that the search can find it.
                self.assertTrue(any(line.startswith("key of the link") for line in self.left(secrets)))
                self.agent.seen = len(self.agent.lines())
                call("qzcapd.emulator", "notify", {"object": 6, "method": "wan", "message": {"status": "down"}})
                self.misbehave(fault="close", after=1)
                wait_until(lambda: {"cloud", "arvok"} == set(re.findall(r"\((\w+)\) disconnect fd",
                                                                       self.agent.lines()[self.agent.seen:])),
                           lambda: self.agent.lines()[-2000:])
                left = list(self.left(secrets))
                self.assertFalse(left, "\n".join(left))


if __name__ == "__main__":
    unittest.main(verbosity=2)

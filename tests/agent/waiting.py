"""Waiting for what happens, with a deadline; and the agent's timers in the test's hand."""

import mmap
import os
import struct
import time

DEADLINE = 20.0


def wait_until(condition, what, deadline=DEADLINE, pause=0.02):
    """Polls until condition() is true and returns what it returned."""
    end = time.monotonic() + deadline
    while True:
        value = condition()
        if value:
            return value
        if time.monotonic() > end:
            raise AssertionError("did not happen within %.0f s: %s" % (deadline, what() if callable(what) else what))
        time.sleep(pause)


class Timers:
    """Let the agent's monotonic clock run ahead; $LAB_TIMERS and the library that reads it are for the agent only."""

    def __init__(self):
        path = os.path.join(os.environ["LAB_DIR"], "timers")
        with open(path, "wb") as file:
            file.write(bytes(mmap.PAGESIZE))
        with open(path, "r+b") as file:
            self.page = mmap.mmap(file.fileno(), mmap.PAGESIZE)
        self.environment = {"LAB_TIMERS": path, "LD_PRELOAD": os.environ["TIMERS_LIBRARY"],
                            "ASAN_OPTIONS": "verify_asan_link_order=0"}

    def _read(self):
        return struct.unpack_from("=3q", self.page)

    def ahead(self, seconds):
        """Moves the clock, and waits until the agent has done what was due then: until its loop waits once more."""
        struct.pack_into("=q", self.page, 0, self._read()[0] + int(seconds * 1000))
        wait_until(lambda: self._read()[1] == self._read()[0], "the agent's loop waits", pause=0.001)
        waits = self._read()[2]
        wait_until(lambda: self._read()[2] != waits, "the agent's loop waits again", pause=0.001)

"""The agent's timers in the test's hand."""

import mmap
import os
import struct

from desk import wait_until


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
        """Moves the clock, and waits until the agent's loop has taken it."""
        struct.pack_into("=q", self.page, 0, self._read()[0] + int(seconds * 1000))
        wait_until(lambda: self._read()[1] == self._read()[0], "the agent's loop waits")

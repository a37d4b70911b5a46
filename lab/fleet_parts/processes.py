"""What the system tells of a process."""

import select
import signal
import socket


def listens(path):
    with socket.socket(socket.AF_UNIX) as probe:
        return probe.connect_ex(path) == 0


def readable(what, seconds):
    """Waits for input, or its end. A fleet has more descriptors open than select() knows."""
    poll = select.poll()
    poll.register(what, select.POLLIN)
    return bool(poll.poll(1000 * seconds))


def takes_end(pid):
    """Whether the process handles SIGTERM: one that has just been started does not yet."""
    try:
        with open(f"/proc/{pid}/status", encoding="ascii", errors="replace") as file:
            caught = next(line for line in file if line.startswith("SigCgt:"))
    except (OSError, StopIteration):
        return True
    return bool(int(caught.split()[1], 16) >> signal.SIGTERM - 1 & 1)


def processor_ns(pid):
    try:
        with open(f"/proc/{pid}/schedstat", encoding="ascii") as file:
            return int(file.read().split()[0])
    except OSError:
        return 0


def anonymous_kib(pid):
    with open(f"/proc/{pid}/smaps_rollup", encoding="ascii") as file:
        return int(next(line for line in file if line.startswith("Anonymous:")).split()[1])


def sanitizer_reported(log):
    return any(sign in log for sign in ("ERROR: AddressSanitizer", "ERROR: LeakSanitizer", "runtime error: "))

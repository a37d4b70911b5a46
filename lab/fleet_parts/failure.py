"""What makes a run fail, and the bus, on which much of it happens."""

import subprocess

import bus


class Failure(Exception):
    """The fleet, or a home of it, is not as it must be."""


class Bus(bus.Bus):
    """A call that comes to nothing is a failure of the fleet, whatever it was."""

    def call(self, obj, method, args, timeout):
        try:
            return super().call(obj, method, args, timeout)
        except subprocess.CalledProcessError as error:
            raise Failure(f"{obj} {method}: status {error.returncode} of the bus") from None
        except OSError as error:
            raise Failure(f"{obj} {method}: {error}") from None

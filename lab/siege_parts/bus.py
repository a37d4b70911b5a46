"""The home's bus as a hostile program on the device uses it: objects of its own, and messages that nobody asked for."""

import os
import struct
import subprocess
import time

import bus as client  # the tests' own

ADD_OBJECT, REMOVE_OBJECT, NOTIFY = 6, 7, 10
NO_REPLY = 10
STOPPED = 2.0  # seconds; a platform that is stopped answers nobody


class Noise(client.Bus):
    """A connection of its own, which also has objects."""

    def __init__(self):
        super().__init__(os.environ["UBUS_SOCKET"])

    def add(self, name):
        """The object's number."""
        body = client._attribute(client.ATTR_OBJPATH, client._text(name)) + client._attribute(6, b"")
        status, data = self._request(ADD_OBJECT, 0, body, time.monotonic() + 30)
        if status != 0:
            raise ConnectionError(f"the bus refuses {name}: {status}")
        return data[client.ATTR_OBJID]

    def remove(self, number):
        self._request(REMOVE_OBJECT, 0, client._attribute(client.ATTR_OBJID, number), time.monotonic() + 30)

    def notification(self, number, method, message):
        """The bytes of a notification to which nobody answers."""
        data = b"".join(client._encode(*member) for member in message.items())
        body = (client._attribute(client.ATTR_OBJID, number) + client._attribute(client.ATTR_METHOD, client._text(method)) +
                client._attribute(NO_REPLY, b"\1") + client._attribute(client.ATTR_DATA, data))
        return struct.pack("!BBHI", 0, NOTIFY, 0, 0) + client._attribute(0, body)

    def send(self, data):
        """Blocks while the bus does not read."""
        self.socket.settimeout(60)
        self.socket.sendall(data)


def emulator(what, **args):
    """A call of the emulated device; nothing when it fails or the platform is stopped."""
    try:
        return client.call("qzcapd.emulator", what, args, STOPPED)
    except (OSError, subprocess.CalledProcessError):
        client._connected.clear()  # what is still to come would be taken for the next answer
        return None


def notify(number, method, **message):
    return emulator("notify", object=number, method=method, message=message)


def recall_gateway():
    """Has the agent connect to the gateway again, also while it rests: gateway sync is switched on."""
    notify(7, "arvoksync", arvoksync="on")


def recall_cloud():
    """The same for the cloud: the WAN is down, and up again."""
    notify(6, "wanstatus", status="down")
    notify(6, "wanstatus", status="up", ipaddr="192.168.1.2")

"""A client of the bus, for calls: a command of its own for each would take longer than the call."""

import os
import socket
import struct
import subprocess
import time

HELLO, STATUS, DATA, LOOKUP, INVOKE = 0, 1, 2, 4, 5
ATTR_STATUS, ATTR_OBJPATH, ATTR_OBJID, ATTR_METHOD, ATTR_DATA = 1, 2, 3, 4, 7
ARRAY, TABLE, STRING, INT64, INT32, INT16, BOOL, DOUBLE = range(1, 9)
NUMBERS = {INT64: "!q", INT32: "!i", INT16: "!h", DOUBLE: "!d"}
TIMEOUT = 7


def _pad(data):
    return data + bytes(-len(data) % 4)


def _attribute(number, payload):
    return _pad(struct.pack("!I", number << 24 | len(payload) + 4) + payload)


def _text(value):
    return value.split("\0")[0].encode("utf-8", "surrogatepass") + b"\0"


def _encode(name, value):
    """One named value, as the bus carries JSON."""
    if isinstance(value, bool):
        kind, data = BOOL, bytes([value])
    elif isinstance(value, int):
        kind = INT32 if -2 ** 31 <= value < 2 ** 31 else INT64
        data = struct.pack(NUMBERS[kind], max(-2 ** 63, min(value, 2 ** 63 - 1)))
    elif isinstance(value, float):
        kind, data = DOUBLE, struct.pack("!d", value)
    elif isinstance(value, str):
        kind, data = STRING, _text(value)
    elif isinstance(value, dict):
        kind, data = TABLE, b"".join(_encode(key, member) for key, member in value.items())
    elif isinstance(value, (list, tuple)):
        kind, data = ARRAY, b"".join(_encode("", member) for member in value)
    else:
        kind, data = 0, b""
    name = name.encode()
    return _attribute(0x80 | kind, _pad(struct.pack("!H", len(name)) + name + b"\0") + data)


def _attributes(data):
    """Number and payload of each attribute."""
    while len(data) >= 4:
        head, = struct.unpack_from("!I", data)
        length = max(head & 0xffffff, 4)
        yield head >> 24 & 0x7f, data[4:length]
        data = data[length + -length % 4:]


def _members(data):
    """Name and value of each attribute of a table or array."""
    for kind, payload in _attributes(data):
        length, = struct.unpack_from("!H", payload)
        name, payload = payload[2:2 + length].decode(), payload[(length + 6) // 4 * 4:]
        if kind in NUMBERS:
            value, = struct.unpack(NUMBERS[kind], payload)
        elif kind == TABLE:
            value = dict(_members(payload))
        elif kind == ARRAY:
            value = [member for _, member in _members(payload)]
        else:
            value = payload[:-1].decode() if kind == STRING else bool(payload[0]) if kind == BOOL else None
        yield name, value


class Bus:
    def __init__(self, path):
        self.socket = socket.socket(socket.AF_UNIX)
        self.socket.connect(path)
        self.sequence = 0
        self._message(time.monotonic() + 10)  # HELLO

    def _exactly(self, count, deadline):
        data = b""
        while len(data) < count:
            self.socket.settimeout(max(deadline - time.monotonic(), 0.001))
            piece = self.socket.recv(count - len(data))
            if not piece:
                raise ConnectionError("the bus has gone")
            data += piece
        return data

    def _message(self, deadline):
        _, kind, sequence, _, head = struct.unpack("!BBHII", self._exactly(12, deadline))
        length = (head & 0xffffff) - 4
        return kind, sequence, dict(_attributes(self._exactly(length + -length % 4, deadline)))

    def _request(self, kind, peer, body, deadline):
        """The status, and the data that came before it."""
        self.sequence = self.sequence % 65535 + 1
        self.socket.sendall(struct.pack("!BBHI", 0, kind, self.sequence, peer) + _attribute(0, body))
        data = {}
        while True:
            try:
                answer, sequence, attributes = self._message(deadline)
            except socket.timeout:
                return TIMEOUT, {}
            if sequence == self.sequence and answer == STATUS:
                return struct.unpack("!I", attributes[ATTR_STATUS])[0], data
            if sequence == self.sequence and answer == DATA:
                data = attributes

    def call(self, obj, method, args, timeout):
        """The answer as a dictionary; a bus error raises CalledProcessError with the status as its code."""
        deadline = time.monotonic() + timeout
        status, data = self._request(LOOKUP, 0, _attribute(ATTR_OBJPATH, _text(obj)), deadline)
        if status == 0:
            number = data[ATTR_OBJID]
            body = (_attribute(ATTR_OBJID, number) + _attribute(ATTR_METHOD, _text(method)) +
                    _attribute(ATTR_DATA, b"".join(_encode(*member) for member in args.items())))
            status, data = self._request(INVOKE, struct.unpack("!I", number)[0], body, deadline)
        if status != 0:
            raise subprocess.CalledProcessError(status, [obj, method])
        return dict(_members(data.get(ATTR_DATA, b"")))


_connected = []


def call(obj, method, args=None, timeout=10):
    """Calls a bus method over a connection that stays, and returns its answer."""
    if not _connected:
        _connected.append(Bus(os.environ["UBUS_SOCKET"]))
    return _connected[0].call(obj, method, args or {}, timeout)

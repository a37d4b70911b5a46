"""What passes between the agent and the bus, as messages: commands of other apps, their answers, and notifications.

What the agent itself asks the bus is left out: on a device that is inside of the platform's library.
"""

import json
import struct

from .messages import Message
from .names import fault_of

STATUS, DATA, LOOKUP, INVOKE, ADD_OBJECT, SUBSCRIBE = 1, 2, 4, 5, 6, 8
ATTRIBUTES = {1: "status", 2: "path", 3: "object", 4: "method", 7: "data", 8: "target", 10: "no_reply"}
NUMBERS = {"status", "object", "target"}
FROM_BUS = 1


def attributes(data):
    """(id, content) of each attribute."""
    at = 0
    while at + 4 <= len(data):
        head, = struct.unpack(">I", data[at:at + 4])
        size = head & 0xffffff
        if size < 4:
            return
        yield head >> 24 & 0x7f, data[at + 4:at + size]
        at += size + 3 & ~3


def value_of(kind, data):
    if kind in (1, 2):
        pairs = members(data)
        return dict(pairs) if kind == 2 else [value for _, value in pairs]
    if kind == 3:
        return data.rstrip(b"\0").decode("utf-8", "replace")
    if kind == 8 and len(data) == 8:
        return struct.unpack(">d", data)[0]
    number = int.from_bytes(data, "big", signed=kind != 7)
    return bool(number) if kind == 7 else number


def members(data):
    for kind, content in attributes(data):
        if len(content) < 2:
            continue
        size, = struct.unpack(">H", content[:2])
        yield content[2:2 + size].decode("utf-8", "replace"), value_of(kind, content[size + 3 + 3 & ~3:])


def content_of(found):
    try:
        return dict(members(found.get("data", b"")))
    except RecursionError:
        return {"?": "nested too deep"}


class Session:
    """One connection of the agent to the bus."""

    def __init__(self, messages):
        self.messages = messages
        self.buffers = {True: bytearray(), False: bytearray()}
        self.asked = {}   # what the agent has asked, by sequence number
        self.own = {}     # the agent's own objects: id to path, "" for those without
        self.paths = {}   # other objects: id to path
        self.subscribed = {}  # the agent's objects to the ids of what they are subscribed to
        self.waiting = {}  # (peer, sequence number) of commands that have no answer yet

    def take(self, time, from_agent, piece):
        buffer = self.buffers[from_agent]
        buffer += piece
        while len(buffer) >= 12:
            size = 8 + (int.from_bytes(buffer[8:12], "big") & 0xffffff)
            if len(buffer) < size:
                return
            _, kind, number, peer = struct.unpack(">BBHI", buffer[:8])
            found = {ATTRIBUTES[n]: int.from_bytes(content, "big") if ATTRIBUTES[n] in NUMBERS else content
                     for n, content in attributes(bytes(buffer[12:size])) if n in ATTRIBUTES}
            del buffer[:size]
            (self.from_agent if from_agent else self.from_bus)(time, kind, number, peer, found)

    def say(self, time, from_device, name, value, **more):
        self.messages.append(Message(time, "apps", from_device, name, cipher="bus",
                                     texts=[json.dumps(value, ensure_ascii=False)], **more))

    def from_agent(self, time, kind, number, peer, found):
        if kind in (LOOKUP, ADD_OBJECT):
            self.asked[number] = (kind, text_of(found, "path"))
        elif kind == SUBSCRIBE:
            self.subscribed.setdefault(found.get("object"), []).append(found.get("target"))
        elif kind in (DATA, STATUS) and (peer, number) in self.waiting:
            name = self.waiting[peer, number]
            if kind == DATA:
                answer = content_of(found)
                self.say(time, True, name, answer, peer="an app", fault=fault_of(answer))
            else:
                del self.waiting[peer, number]
                if found.get("status"):
                    self.say(time, True, name, {"status": found["status"]}, peer="an app",
                             fault=f"bus status {found['status']}")

    def from_bus(self, time, kind, number, peer, found):
        asked, path = self.asked.get(number, (None, ""))
        if kind == DATA and asked == ADD_OBJECT and "object" in found:
            self.own[found["object"]] = path
        elif kind == DATA and asked == LOOKUP and "object" in found:
            self.paths[found["object"]] = text_of(found, "path")
        elif kind == STATUS:
            self.asked.pop(number, None)
        elif kind == INVOKE:
            method = text_of(found, "method")
            content = content_of(found)
            if self.own.get(found.get("object")):
                name = content.get("CmdType") if isinstance(content.get("CmdType"), str) else method
                if "no_reply" not in found:
                    self.waiting[peer, number] = name
                self.say(time, False, name, content, peer="an app")
            else:
                targets = self.subscribed.get(found.get("object"), [])
                source = ", ".join(dict.fromkeys(self.paths[target] for target in targets if target in self.paths))
                self.say(time, False, method, content, detail=source, peer=source or "an object of the bus")


def text_of(found, name):
    return found.get(name, b"").rstrip(b"\0").decode("utf-8", "replace")


def read_bus(recording, messages):
    sessions = {}
    for time, packet in recording.packets:
        if len(packet) >= 5:
            connection, direction = struct.unpack(">IB", packet[:5])
            session = sessions.get(connection) or sessions.setdefault(connection, Session(messages))
            session.take(time, direction != FROM_BUS, packet[5:])

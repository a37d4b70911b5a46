"""Hostile cloud platforms."""

import itertools
import json
import random
import secrets
import time

from . import messages, wire
from .peers import as_cloud


class Keyless(wire.CloudLink):
    """A server that has taken the platform's address and cannot read what is encrypted for it."""

    def play(self):
        guesses = [None, bytes(16), b"0" * 16]
        acknowledgements = [
            {"Ack": "GetChallengeCode", "Result": 0, "ChallengeCode": secrets.token_hex(16)},
            {"Ack": "Boot", "Result": 0, "BizPlat": [{"ServerAddr": "100.64.0.9", "ServerPort": 8088}]},
            {"Ack": "Activate", "Result": 0, "DevID": "siege", "DevToken": "siege"},
            {"Ack": "Connect", "Result": 0, "SKey": "0" * 16},
            {"Ack": "Heartbeat", "Result": 0},
        ]
        self.receive_body()
        for message in [*acknowledgements, *messages.requests_of_platform()] * 4:
            for key in guesses:
                self.raw(self.packed(message, key))
        self.socket.settimeout(5)
        while self.receive_body():
            for message in messages.requests_of_platform():
                for key in guesses:
                    self.raw(self.packed(message, key))


def keyless():
    """Has not the platform's private key, and orders what only the platform may"""
    as_cloud(Keyless.play, Keyless)


class Early(wire.CloudLink):
    """The platform itself, which does not wait until the device is connected, and names servers that are none."""

    turns = itertools.count()

    def acknowledgement(self, method):
        members, key = super().acknowledgement(method)
        for message in messages.requests_of_platform():
            self.raw(self.packed(message, key))
        if method == "Boot" and next(self.turns) % 2:
            members = {"BizPlat": [{"ServerAddr": "a" * 600, "ServerPort": "8" * 600}] * 12}
        return members, key


def early():
    """Orders things before the device is connected, and names servers longer than their fields"""
    def play(link):
        while not link.connected:
            link.serve()
        for name, port in (("a" * 32, "8088"), ("100.64.0.2", "00008088"), ("a" * 8000, "8" * 8000), ("", "1")):
            link.ask({"RPCMethod": "RequestConnectBSS", "ID": "1", "Server": name, "Port": port})
        link.socket.settimeout(1)
        while link.receive():
            pass
    as_cloud(play, Early)


def large_requests():
    return [messages.inside_platform_request(message) for message in messages.large(messages.CLOUD_ROOM)]


def large():
    """Asks for the same things hundreds of times in one message, and reads every answer"""
    def play(link):
        link.enrol()
        for request in itertools.cycle(large_requests()):
            link.ask(request)
            link.socket.settimeout(10)
            while "Ack" not in link.serve():
                pass
    as_cloud(play)


def mute():
    """Asks for a great deal, and does not read"""
    def play(link):
        link.enrol()
        subscription = {"type": "ubus_subscribe", "sequence": 1, "mac": messages.MAC, "object": "qzcapd.emulator", "enable": 1}
        link.ask(messages.inside_platform_request(subscription))
        flood = b"".join(link.packed(request, link.server_key) for request in large_requests())
        while True:
            link.raw(flood)
    as_cloud(play, receive_buffer=4096)


def rubbish(link, key):
    deep = b"[" * 12000
    line = lambda data: link.frame(data + b"\r\n")
    yield from (secrets.token_bytes(1 << 16), wire.CLOUD_MAGIC + bytes(4), wire.CLOUD_MAGIC + b"\0\0\x40\1", wire.CLOUD_MAGIC + b"\xff" * 4)
    yield from (wire.CLOUD_MAGIC, line(b"A" * 1000)[:500], link.frame(b"A" * 1000), line(b"\xff" * 1000), line(b"A" * 16381), line(b""))
    yield from (link.packed(body, key) for body in (
        deep, b'{"a":' * 2000, secrets.token_bytes(12000), b"[]", b"", b'{"RPCMethod":"' + b"x" * 12000 + b'","ID":"1"}',
        b'{"Ack":"' + b"x" * 12000 + b'"}', b'{"RPCMethod":1,"ID":[]}',
        json.dumps({"RPCMethod": "x", "ID": "y" * 12000}).encode(),
        json.dumps({"RPCMethod": "ListPlugin", "ID": "y" * 12000}).encode()))


def garbage():
    """Sends what is no message, and half of what is one"""
    turns = itertools.count()

    def play(link):
        if next(turns) % 2:
            link.enrol()
        else:
            link.receive()
        for each in random.sample([*rubbish(link, link.server_key), *rubbish(link, None)], 3):
            link.raw(each)
            time.sleep(0.1)
        time.sleep(0.5)
    as_cloud(play)


PLAYS = {"cloud-keyless": keyless, "cloud-early": early, "cloud-large": large, "cloud-mute": mute, "cloud-garbage": garbage}

"""Hostile gateways."""

import itertools
import random
import secrets
import socket
import threading
import time

from . import messages, wire
from .device import make_noise
from .peers import as_gateway

OWN_NOISE = "siege.gateway"
SUBSCRIPTIONS = ("qzcapd.laninfo", "qzcapd.emulator", OWN_NOISE)


def subscribe(link):
    """Everything that can be told is told."""
    link.send({"type": "cfg", "sequence": 1, "set": {"mode": "set", "eventsub": ["online", "offline", "vsie", "rolechange"]}})
    for name in SUBSCRIPTIONS:
        link.send({"type": "ubus_subscribe", "sequence": 1, "object": name, "enable": 1})


def large():
    """Asks for the same things hundreds of times in one message, and reads every answer"""
    def play(link):
        link.register()
        for number, request in enumerate(itertools.cycle(messages.large()), 1000):
            link.send({**request, "sequence": number})
            link.socket.settimeout(10)
            try:
                while link.serve().get("sequence") != number:
                    pass
            except socket.timeout:
                pass  # not every request has an answer
    as_gateway(play)


def mute():
    """Asks for a great deal, has everything told, and does not read"""
    threading.Thread(target=make_noise, args=([OWN_NOISE],), daemon=True).start()

    def play(link):
        link.register()
        subscribe(link)
        flood = b"".join(link.packed(request) for request in messages.large())
        while True:
            link.raw(flood)
    as_gateway(play, receive_buffer=4096)


def slow():
    """Asks for a great deal, and reads the answers slowly"""
    def play(link):
        link.register()
        subscribe(link)
        flood = b"".join(link.packed(request) for request in messages.large())
        threading.Thread(target=lambda: [link.raw(flood) for _ in range(1000)], daemon=True).start()
        while True:  # 64 KiB a second
            if not link.socket.recv(4096):
                return
            time.sleep(1 / 16)
    as_gateway(play, receive_buffer=4096)


def vanish():
    """Is gone, with and without a word, at every step of the negotiation"""
    steps = itertools.cycle([(step, reset) for step in range(6) for reset in (False, True)])

    def play(link):
        step, reset = next(steps)
        if step == 0:
            pass  # at once
        elif step == 1:
            link.receive()
        elif step == 2:
            link.serve()  # answers with keyngack
        elif step == 3:
            link.serve()
            link.receive()
            link.raw(link.frame(b"x" * 64)[:40])  # half an answer
        elif step == 4:
            link.serve()
            link.receive()
            time.sleep(3)  # says nothing to the prime
        else:
            link.register()
        link.close(reset)
    as_gateway(play)


def negotiate():
    """Wants a new key, again and again"""
    def play(link):
        again = link.packed({"type": "keyngack", "sequence": 0, "mac": messages.MAC, "keymode": "dh"})
        link.receive()
        link.raw(again * 1000)
        if random.random() < 0.5:  # or only as often as it may
            link.raw(again * 3)
            time.sleep(1)
        while link.socket.recv(65536):
            pass
    as_gateway(play)


def rubbish(frame):
    """What is no message, whole frames and others."""
    deep = b"[" * (wire.BODY_MAX - 2)
    yield from (secrets.token_bytes(1 << 16), wire.LINK_MAGIC + bytes(4), wire.LINK_MAGIC + b"\0\0\x40\1", wire.LINK_MAGIC + b"\xff" * 4)
    yield from (wire.LINK_MAGIC, frame(b"x" * 1000)[:500], frame(b"x" * wire.BODY_MAX)[:-1])
    yield from (frame(body) for body in (
        secrets.token_bytes(wire.BODY_MAX), secrets.token_bytes(1000), b"x", deep, b'{"a":' * 3000, b"[]", b"null",
        b'{"type":' + b'"' + b"x" * 16000 + b'"}', b'{"type":"\xff\xfe\x00"}', b'{"type":"get_status","get":' + deep[:16000],
        b'{"type":1e99999,"sequence":-1e308,"mac":[]}', b'{"type":"dh","data":{"dh_key":"' + b"A" * 16000 + b'"}}'))


def garbage():
    """Sends what is no message, and half of what is one"""
    turns = itertools.count()

    def play(link):
        turn = next(turns)
        if turn % 2:
            link.register()
        sealed = [*rubbish(link.frame), *(rubbish(link.packed) if link.key else ())]
        for each in random.sample(sealed, 3):
            link.raw(each)
            time.sleep(0.1)
        time.sleep(0.5)
    as_gateway(play)


PLAYS = {"gateway-large": large, "gateway-mute": mute, "gateway-slow": slow, "gateway-vanish": vanish,
         "gateway-negotiate": negotiate, "gateway-garbage": garbage}

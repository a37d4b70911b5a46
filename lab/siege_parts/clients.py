"""A crowd on the LAN: clients of the agent's local server."""

import json
import select
import socket
import struct
import subprocess
import threading
import time

from . import wire

PORT = 17998
ADDRESSES = [f"192.168.1.{number}" for number in range(201, 206)]  # of clients, besides the gateway's
IDLE_OF_ADDRESS = 80  # more than one address may have
PAUSE = 0.01  # between connections, so that the queue of those who wait is not full for others


def frame(message):
    body = message if isinstance(message, bytes) else json.dumps(message).encode()
    return struct.pack(">I", len(body)) + body


QUESTION = frame({"RPCMethod": "Post1", "ID": 1, "Parameter": "eyJDbWRUeXBlIjoiR0VUX1NOX0lORk8iLCJTZXF1ZW5jZUlkIjoiMSJ9"})
REFUSED = frame({"RPCMethod": "x" * 16000, "ID": 1})
RUBBISH = [bytes(4), b"\xff" * 4, b"\0\0\x40\1", b"\0\0", QUESTION[:50], frame(b"x" * wire.BODY_MAX), frame(b"[" * wire.BODY_MAX),
           frame(b'{"a":' * 3000), frame({"RPCMethod": 1, "ID": "x"})]


class Client:
    """Sends the same bytes over and over as far as they are taken; reads what comes, or does not."""

    def __init__(self, address, flood=b"", reads=True):
        self.address, self.flood, self.reads = address, flood, reads
        self.socket, self.rest = None, b""

    def connect(self):
        self.socket = socket.socket()
        self.socket.bind((self.address, 0))
        self.socket.settimeout(10)
        self.socket.connect((wire.AP, PORT))
        self.socket.setblocking(False)
        self.rest = b""
        time.sleep(PAUSE)

    def tend(self):
        """Connects again when it was disconnected."""
        try:
            if not self.socket:
                self.connect()
            self.rest = self.rest or self.flood
            try:
                self.rest = self.rest[self.socket.send(self.rest):] if self.rest else b""
            except BlockingIOError:
                pass
            if self.reads and select.select([self.socket], [], [], 0)[0] and not self.socket.recv(1 << 16):
                raise ConnectionError
        except OSError:
            if self.socket:
                self.socket.close()
            self.socket = None


def tend(clients):
    while True:
        for client in clients:
            client.tend()
        time.sleep(PAUSE)


def crowd():
    """Clients that are idle, too many of one address; that ask without end; that do not read; that send what is nothing"""
    for address in ADDRESSES:
        subprocess.run(["ip", "address", "add", address + "/24", "dev", "lan0"], stderr=subprocess.DEVNULL)
    idle = [Client(address) for address in ADDRESSES for _ in range(IDLE_OF_ADDRESS)]
    busy = [Client(ADDRESSES[0], QUESTION * 50) for _ in range(4)]
    deaf = [Client(ADDRESSES[1], flood, reads=False) for flood in (QUESTION * 200, REFUSED * 10) for _ in range(4)]
    odd = [Client(ADDRESSES[2], each) for each in RUBBISH]
    for clients in (idle, busy + deaf + odd):
        threading.Thread(target=tend, args=(clients,), daemon=True).start()
    threading.Event().wait()


PLAYS = {"clients": crowd}

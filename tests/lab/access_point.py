"""An access point's side of the gateway link, written from the wire up: sockets, pow() and the openssl command."""

import base64
import json
import secrets
import subprocess

from wire import Wire

MAGIC = bytes.fromhex("3f721fb5")
MAC = "025A10000001"

SAFE_PRIME = 0xED2F612706161BEBAB2EB71060926887  # 128 bits
# 16 bytes long, but so near to 2**120 that every number below it has 15: the shared number gets a leading zero.
SHORT_PRIME = 2**120 + 451


def to_bytes(number):
    return number.to_bytes((number.bit_length() + 7) // 8, "big")


def to_text(number):
    return base64.b64encode(to_bytes(number)).decode()


def aes(key, data, decrypt=False):
    command = ["openssl", "enc", "-aes-128-cbc", "-nopad", "-K", key.hex(), "-iv", "00" * 16]
    return subprocess.run(command + ["-d"] * decrypt, input=data, capture_output=True, check=True).stdout


def frame(body):
    return MAGIC + len(body).to_bytes(4, "big") + body


class AccessPoint(Wire):
    def __init__(self, port):
        super().__init__(port)
        self.key = None
        self.sequence = 0

    def packed(self, message):
        body = json.dumps(message).encode()
        return frame(aes(self.key, body + bytes(-len(body) % 16)) if self.key else body)

    def message(self, kind, **members):
        built = {"type": kind, "sequence": self.sequence, "mac": MAC, **members}
        self.sequence += 1
        return built

    def send(self, kind, **members):
        built = self.message(kind, **members)
        self.socket.sendall(self.packed(built))
        return built

    def receive_body(self):
        header = self.read(8)
        if header[:4] != MAGIC:
            raise ValueError("magic " + header[:4].hex())
        return self.read(int.from_bytes(header[4:], "big"))

    def receive(self):
        body = self.receive_body()
        return json.loads((aes(self.key, body, decrypt=True) if self.key else body).rstrip(b"\0"))

    def ask_for_key(self):
        self.send("keyngreq", version="V2019.1.0", keymodelist=[{"keymode": "dh"}])
        return self.receive()

    def exchange(self, prime=SAFE_PRIME, **changes):
        """Sends the group and the public value; returns the gateway's answer, without using it."""
        self.prime = prime
        self.private = secrets.randbits(prime.bit_length() - 1) | 1 << (prime.bit_length() - 2)
        data = {"dh_key": to_text(pow(2, self.private, prime)), "dh_p": to_text(prime), "dh_g": to_text(2)}
        data.update(changes)
        self.send("dh", data={name: value for name, value in data.items() if value is not None})
        return self.receive()

    def agree(self, answer):
        """Takes the key from the gateway's answer; returns the bytes of the shared number."""
        theirs = int.from_bytes(base64.b64decode(answer["data"]["dh_key"]), "big")
        shared = to_bytes(pow(theirs, self.private, self.prime))
        self.key = shared[:16].ljust(16, b"\0")
        return shared

    def negotiate(self, prime=SAFE_PRIME):
        self.ask_for_key()
        return self.agree(self.exchange(prime))

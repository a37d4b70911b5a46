"""A device's side of the cloud protocol, written from the wire up: sockets, pow() and the openssl command."""

import base64
import json
import os
import secrets
import subprocess

from wire import Wire

MAGIC = b"QZSGWMP2"
PUBLIC_KEY = os.path.join(os.path.dirname(__file__), "../../lab/keys/platform_public.pem")


def modulus_of(path):
    shown = subprocess.run(["openssl", "rsa", "-pubin", "-in", path, "-noout", "-modulus"], capture_output=True,
                           text=True, check=True).stdout
    return int(shown.partition("=")[2], 16)


def rsa(text, modulus, exponent=65537):
    size = (modulus.bit_length() + 7) // 8
    count = size - len(text) % size
    text += bytes([count % 256]) * count
    blocks = [int.from_bytes(text[at:at + size], "big") for at in range(0, len(text), size)]
    return b"".join(pow(block, exponent, modulus).to_bytes(size, "big") for block in blocks)


def aes(key, data, decrypt=False):
    command = ["openssl", "enc", "-aes-128-ecb", "-K", key.encode().hex()]
    return subprocess.run(command + ["-d"] * decrypt, input=data, capture_output=True, check=True).stdout


def frame(body):
    return MAGIC + len(body).to_bytes(4, "big") + body


def line(data):
    return base64.b64encode(data) + b"\r\n"


class Device(Wire):
    """One connection of the device `mac`; its identity outlives it in `identity`."""

    modulus = modulus_of(PUBLIC_KEY)

    def __init__(self, port, mac="025A10000001", identity=None):
        super().__init__(port)
        self.mac = mac
        self.identity = identity or {}
        self.client_key = self.server_key = None
        self.sealed_by = "plain"

    # ---- bytes -------------------------------------------------------------------------------------------------

    def receive_body(self):
        header = self.read(12)
        if header[:8] != MAGIC:
            raise ValueError("magic " + header[:8].hex())
        return self.read(int.from_bytes(header[8:], "big"))

    def receive(self):
        body = self.receive_body()
        if not body.endswith(b"\r\n"):
            raise ValueError("no end of line")
        data = base64.b64decode(body[:-2].rstrip(b" "), validate=True)
        if self.sealed_by != "plain":
            try:
                data = aes(self.server_key if self.sealed_by == "server key" else self.client_key, data, decrypt=True)
            except subprocess.CalledProcessError as error:
                raise ValueError("another key") from error
        return json.loads(data)

    def packed(self, message, seal="server key"):
        data = json.dumps(message).encode()
        if seal == "rsa":
            data = rsa(data, self.modulus)
        elif seal == "server key":
            data = aes(self.server_key, data)
        return frame(line(data))

    # ---- messages ----------------------------------------------------------------------------------------------

    def message(self, method, **members):
        return {"RPCMethod": method, "MAC": self.mac, **members}

    def send(self, method, seal="server key", **members):
        if seal == "rsa":
            self.client_key = secrets.token_hex(8)
            members = {"CKey": self.client_key, **members}
        self.sealed_by = {"rsa": "client key"}.get(seal, seal)
        built = self.message(method, **{name: value for name, value in members.items() if value is not None})
        self.socket.sendall(self.packed(built, seal))
        return built

    def ask(self, method, seal="server key", **members):
        self.send(method, seal, **members)
        return self.receive()

    def reply(self, request, **members):
        self.socket.sendall(self.packed({"Ack": request["RPCMethod"], "ID": request["ID"], "Result": 0, **members}))

    def challenge(self):
        self.code = self.ask("GetChallengeCode", "plain").get("ChallengeCode")
        return self.code

    def activate(self, **members):
        answer = self.ask("Activate", "rsa", **{"ChallengeCode": self.code, "Vendor": "Acme", **members})
        if answer["Result"] == 0:
            self.identity.update(DevID=answer["DevID"], DevToken=answer["DevToken"])
        return answer

    def connect(self, **members):
        answer = self.ask("Connect", "rsa", **{"ChallengeCode": self.code, **self.identity, **members})
        self.server_key = answer.get("SKey")
        self.sealed_by = "server key" if self.server_key else "plain"
        return answer

    def enrol(self):
        self.challenge()
        if not self.identity:
            self.activate()
            self.challenge()
        return self.connect()

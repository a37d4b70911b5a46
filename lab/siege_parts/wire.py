"""The wire: sockets, and the ciphers of both protocols."""

import base64
import ctypes
import ctypes.util
import json
import os
import re
import secrets
import socket
import struct
import subprocess
import threading

AP, GATEWAY, CLOUD = (os.environ.get(name, "") for name in ("AP_ADDR", "GATEWAY_ADDR", "CLOUD_ADDR"))
LINK_MAGIC, CLOUD_MAGIC = bytes.fromhex("3f721fb5"), b"QZSGWMP2"
BODY_MAX = 16384  # of what the agent takes
KEYS = os.path.join(os.path.dirname(os.path.dirname(os.path.abspath(__file__))), "keys")


class Ended(Exception):
    """The agent has closed the connection, or says what nobody expects."""


# ---- ciphers ---------------------------------------------------------------------------------------------------

_crypto = ctypes.CDLL(ctypes.util.find_library("crypto"))
for _name in ("EVP_CIPHER_CTX_new", "EVP_aes_128_cbc", "EVP_aes_128_ecb"):
    getattr(_crypto, _name).restype = ctypes.c_void_p


def _aes(kind, key, data, encrypting, padded, iv=None):
    context = ctypes.c_void_p(_crypto.EVP_CIPHER_CTX_new())
    out, length, last = ctypes.create_string_buffer(len(data) + 32), ctypes.c_int(), ctypes.c_int()
    good = _crypto.EVP_CipherInit_ex(context, ctypes.c_void_p(kind()), None, key, iv, int(encrypting))
    good = good and _crypto.EVP_CIPHER_CTX_set_padding(context, int(padded))
    good = good and _crypto.EVP_CipherUpdate(context, out, ctypes.byref(length), data, len(data))
    good = good and _crypto.EVP_CipherFinal_ex(context, ctypes.byref(out, length.value), ctypes.byref(last))
    _crypto.EVP_CIPHER_CTX_free(context)
    if not good:
        raise Ended("another key")
    return out.raw[:length.value + last.value]


def link_cipher(key, data, encrypting):
    return _aes(_crypto.EVP_aes_128_cbc, key, data + bytes(-len(data) % 16), encrypting, False, bytes(16))


class HeadCipher:
    """Decrypts the beginnings of a link's messages, with a key that is prepared once."""

    def __init__(self, key):
        self.context = ctypes.c_void_p(_crypto.EVP_CIPHER_CTX_new())
        self.out, self.length = ctypes.create_string_buffer(HEAD + 16), ctypes.c_int()
        _crypto.EVP_CipherInit_ex(self.context, ctypes.c_void_p(_crypto.EVP_aes_128_cbc()), None, key, bytes(16), 0)
        _crypto.EVP_CIPHER_CTX_set_padding(self.context, 0)

    def __del__(self):
        _crypto.EVP_CIPHER_CTX_free(self.context)

    def decrypt(self, data):
        _crypto.EVP_CipherInit_ex(self.context, None, None, None, bytes(16), 0)
        _crypto.EVP_CipherUpdate(self.context, self.out, ctypes.byref(self.length), data, len(data))
        return self.out.raw[:self.length.value]


def cloud_cipher(key, data, encrypting):
    return _aes(_crypto.EVP_aes_128_ecb, key, data, encrypting, True)


def number_text(number):
    return base64.b64encode(number.to_bytes((number.bit_length() + 7) // 8, "big")).decode()


def number_of(text):
    return int.from_bytes(base64.b64decode(text), "big")


class PlatformKey:
    """The platform's private key."""

    def __init__(self):
        shown = subprocess.run(["openssl", "rsa", "-in", os.path.join(KEYS, "platform_private.pem"), "-noout", "-text"],
                               capture_output=True, text=True, check=True).stdout
        find = lambda name: int(re.search(name + r":\s+((?:[0-9a-f]{2}:?\s*)+)", shown)[1].translate({ord(c): None for c in ": \n"}), 16)
        self.modulus, self.exponent = find("modulus"), find("privateExponent")
        self.size = (self.modulus.bit_length() + 7) // 8

    def decrypt(self, data):
        blocks = (int.from_bytes(data[at:at + self.size], "big") for at in range(0, len(data), self.size))
        text = b"".join(pow(block, self.exponent, self.modulus).to_bytes(self.size, "big") for block in blocks)
        return text[:text.rindex(b"}") + 1]


# ---- sockets ---------------------------------------------------------------------------------------------------

def listen(address, port, receive_buffer=0):
    """Takes connections at once also where an earlier listener has just gone."""
    server = socket.socket()
    server.setsockopt(socket.SOL_SOCKET, socket.SO_REUSEADDR, 1)
    server.setsockopt(socket.SOL_SOCKET, socket.SO_REUSEPORT, 1)
    if receive_buffer:
        server.setsockopt(socket.SOL_SOCKET, socket.SO_RCVBUF, receive_buffer)
    server.bind((address, port))
    server.listen(16)
    return server


class Wire:
    """One connection, whole frames: a magic, a length of 32 bits, a body."""

    magic = b""

    def __init__(self, connected):
        self.socket = connected
        self.socket.setsockopt(socket.IPPROTO_TCP, socket.TCP_NODELAY, 1)
        self.socket.settimeout(30)
        self.input, self.at = b"", 0  # what has come, and how much of it has been taken
        self.sending = threading.Lock()  # frames of several threads stay whole

    def close(self, reset=False):
        if reset:
            self.socket.setsockopt(socket.SOL_SOCKET, socket.SO_LINGER, struct.pack("ii", 1, 0))
        self.socket.close()

    def frame(self, body):
        return self.magic + struct.pack(">I", len(body)) + body

    def raw(self, data):
        with self.sending:
            self.socket.sendall(data)

    def receive_body(self):
        """The next frame's body. What came of it stays when a time-out ends the wait."""
        header = len(self.magic) + 4
        while True:
            body = self.at + header
            if len(self.input) >= body:
                if not self.input.startswith(self.magic, self.at):
                    raise Ended("bad magic")
                length, = struct.unpack_from(">I", self.input, body - 4)
                if len(self.input) >= body + length:
                    self.at = body + length
                    return self.input[body:self.at]
            piece = self.socket.recv(1 << 20)
            if not piece:
                raise Ended("closed")
            self.input, self.at = self.input[self.at:] + piece, 0


# ---- the gateway's end -----------------------------------------------------------------------------------------

HEAD = 64  # bytes; what a message begins with
BEGINNING = re.compile(rb'{"type":"(\w+)","sequence":(\d+)')


class Link(Wire):
    """The gateway's end of a link."""

    magic = LINK_MAGIC
    mac = "1E4DBE81FCE2"

    def __init__(self, connected):
        super().__init__(connected)
        self.key = self.head = None
        self.registered = False

    def packed(self, message):
        """The frame of a message, or of a text."""
        body = message if isinstance(message, bytes) else json.dumps(message, separators=(",", ":")).encode()
        return self.frame(link_cipher(self.key, body, True) if self.key else body)

    def send(self, message):
        self.raw(self.packed({"mac": self.mac, **message}))

    def receive(self):
        """Only type and number, which is fast: who reads it all is slower than who writes it."""
        body = self.receive_body()
        kind, number = BEGINNING.match(self.head.decrypt(body[:HEAD]) if self.key else body[:HEAD]).groups()
        if kind == b"dh":
            return json.loads(link_cipher(self.key, body, False).rstrip(b"\0") if self.key else body)
        return {"type": kind.decode(), "sequence": int(number)}

    def agree(self, message):
        """Answers "dh"; both have the key then."""
        data = message["data"]
        prime, private = number_of(data["dh_p"]), secrets.randbits(127) | 1 << 126
        answer = {"dh_key": number_text(pow(2, private, prime)), "dh_p": data["dh_p"], "dh_g": data["dh_g"]}
        self.send({"type": "dh", "sequence": message["sequence"], "data": answer})
        shared = pow(number_of(data["dh_key"]), private, prime)
        self.key = shared.to_bytes((shared.bit_length() + 7) // 8, "big").ljust(16, b"\0")
        self.head = HeadCipher(self.key)

    def serve(self):
        """Takes the next message, answers it as a gateway does, and returns it."""
        message = self.receive()
        kind = message.get("type")
        if kind == "keyngreq":
            self.send({"type": "keyngack", "sequence": message["sequence"], "keymode": "dh"})
        elif kind == "dh":
            self.agree(message)
        elif kind not in ("status", "ack", "ubus_result", "ubus_notify", "rssiinfo"):
            self.registered |= kind == "dev_reg"
            self.send({"type": "ack", "sequence": message["sequence"], "errcode": 0})
        return message

    def register(self):
        while not self.registered:
            self.serve()
        return self


# ---- the platform's end ----------------------------------------------------------------------------------------

class CloudLink(Wire):
    """The platform's end of a cloud connection: a bootstrap server, and a business server."""

    magic = CLOUD_MAGIC
    platform_key = None

    def __init__(self, connected):
        super().__init__(connected)
        self.client_key = self.server_key = None
        self.connected = False
        CloudLink.platform_key = CloudLink.platform_key or PlatformKey()

    def packed(self, message, key=None):
        """The frame of a message or text, encrypted with the key, or plain without one."""
        data = message if isinstance(message, bytes) else json.dumps(message, separators=(",", ":")).encode()
        return self.frame(base64.b64encode(cloud_cipher(key, data, True) if key else data) + b"\r\n")

    def ask(self, request):
        self.raw(self.packed(request, self.server_key))

    def receive(self):
        data = base64.b64decode(self.receive_body()[:-2])
        if self.connected:
            data = cloud_cipher(self.server_key, data, False)
        elif not data.startswith(b"{"):
            data = self.platform_key.decrypt(data)
        return json.loads(data)

    def acknowledgement(self, method):
        """What is answered, and with which key."""
        if method == "Boot":
            named = [{"ServerAddr": "100.64.0.2", "ServerPort": 8088}, {"ServerAddr": "100.64.0.3", "ServerPort": 8088}]
            return {"BizPlat": named}, self.client_key
        if method == "GetChallengeCode":
            return {"ChallengeCode": secrets.token_hex(16)}, None
        if method == "Activate":
            return {"DevID": "siege", "DevToken": secrets.token_hex(8)}, self.client_key
        if method == "Connect":
            self.server_key = secrets.token_hex(8).encode()
            return {"SKey": self.server_key.decode()}, self.client_key
        return {}, self.server_key

    def serve(self):
        """Takes the next message, answers it as the platform does, and returns it."""
        message = self.receive()
        method = message.get("RPCMethod")
        if method and not method.endswith("Notification"):
            self.client_key = message.get("CKey", "").encode() or self.client_key
            members, key = self.acknowledgement(method)
            self.raw(self.packed({"Ack": method, "Result": 0, **members}, key))
            self.connected |= method == "Connect"
        return message

    def enrol(self):
        """Until the agent is connected here; a bootstrap server's connection ends before."""
        while not self.connected:
            self.serve()
        return self

"""What passes the cable, as messages: frames, put together from segments, decrypted with the key log, and named."""

import dataclasses

from siege_parts.wire import CLOUD_MAGIC, LINK_MAGIC, Ended, cloud_cipher, link_cipher

from .names import from_base64, members_of, named

LONGEST, LONGEST_OF_DEVICE = 16384, 1 << 20


@dataclasses.dataclass
class Message:
    """One arrow of the picture, or, with an `event`, what happens to a connection."""
    time: int  # in nanoseconds
    lane: str  # gateway, platform, apps or clients
    from_device: bool
    name: str
    peer: str  # who it is, besides the device
    number: str = ""  # its sequence or ID
    detail: str = ""  # what it is about
    connection: str = ""  # which of the peer's
    cipher: str = ""  # plain, encrypted (no key opens it), bus, or the kind of key that opened it
    size: int = 0  # of the body, in bytes
    texts: list = dataclasses.field(default_factory=list)  # what it says, and what that carries
    fault: str = ""
    event: str = ""  # open, end

    @property
    def label(self):
        return " ".join(part for part in (self.name, self.number, self.detail and "· " + self.detail) if part)


# ---- keys --------------------------------------------------------------------------------------------------------

class KeyLog:
    """The secrets of each connection, the newest first. What is no line of a key log is passed over."""

    def __init__(self, text):
        self.secrets = {}
        for line in text.splitlines():
            try:
                protocol, remote, local, kind, *values = line.split()
                secret = (kind, *map(bytes.fromhex, values))
            except ValueError:
                continue
            if values:
                self.secrets.setdefault((protocol, frozenset((remote, local))), []).insert(0, secret)

    def of(self, protocol, client, server):
        return self.secrets.get((protocol, frozenset((client, server))), [])


# ---- bodies ------------------------------------------------------------------------------------------------------

def read_in_clear(data):
    """What is a message, or a broken one rather than bytes that happen to begin like one."""
    return data if data.startswith(b'{"') or members_of(data) is not None else None


def open_link(secret, body):
    if secret[0] == "key" and len(secret[1]) == 16 and len(body) % 16 == 0:
        text = link_cipher(secret[1], body, False).split(b"\0", 1)[0]
        return read_in_clear(text)
    return None


def open_cloud(secret, body):
    if secret[0] == "rsa":
        return secret[2] if len(secret) > 2 and body[:16] == secret[1] else None
    if len(secret[1]) == 16:
        try:
            return read_in_clear(cloud_cipher(secret[1], body, False))
        except Ended:
            pass
    return None


def unwrap_cloud(body):
    """What the body carries, or what is wrong with it."""
    if not body.endswith(b"\r\n"):
        return None, "no CR LF at the end"
    data = from_base64(body[:-2])
    return (data, "") if data else (None, "no base64")


@dataclasses.dataclass
class Link:
    lane: str
    protocol: str  # in the key log
    magic: bytes
    device_is_client: bool
    unseal: object  # of a secret and a body
    names: tuple  # the members that name a message; the second one makes it an acknowledgement
    number: str
    result: str


LINKS = {
    32768: Link("gateway", "gateway", LINK_MAGIC, True, open_link, ("type",), "sequence", "errcode"),
    8088: Link("platform", "cloud", CLOUD_MAGIC, True, open_cloud, ("RPCMethod", "Ack"), "ID", "Result"),
    17998: Link("clients", "", b"", False, None, ("RPCMethod", "Ack"), "ID", "Result"),
}
LINKS_OF_MAGIC = [link for link in LINKS.values() if link.magic]


# ---- connections -------------------------------------------------------------------------------------------------

class Conversation:
    """A connection of one of the links; what is on others is passed over."""

    def __init__(self, client, server, whole, keys, messages):
        self.client, self.server, self.keys, self.messages = client, server, keys, messages
        self.link = LINKS.get(int(server.rsplit(":", 1)[1]))
        self.opened, self.ended = None, False
        self.buffers = {True: bytearray(), False: bytearray()}
        self.adrift = set() if whole else {True, False}  # the sides whose next frame has to be looked for
        self.broken = set()  # the sides of which nobody knows where the next frame begins

    def open(self, time):
        self.opened = time
        if self.link and not self.adrift:
            self.say(time, True, "connects", event="open")

    def say(self, time, from_client, name, **more):
        link = self.link
        self.messages.append(Message(time, link.lane, from_client == link.device_is_client, name,
                                     self.server if link.device_is_client else self.client, connection=self.client, **more))

    def refuse(self, time):
        if self.link:
            self.say(time, False, "refuses the connection", event="end", fault="refused")

    def end(self, time, from_client, reset):
        if not self.link:
            return
        left = len(self.buffers[from_client]) if from_client not in self.broken else 0
        self.buffers[from_client].clear()
        fault = "reset" if reset else "inside of a frame" if left else ""
        if fault or not self.ended:
            self.say(time, from_client, "resets the connection" if reset else f"closes {fault}".strip(), event="end",
                     fault=fault)
        self.ended = True

    def lack(self, time, from_client, count):
        if self.link:
            self.say(time, from_client, f"{count} bytes were not recorded", fault="not recorded")
        self.buffers[from_client].clear()
        self.adrift.add(from_client)

    def take(self, time, from_client, data):
        buffer = self.buffers[from_client]
        buffer += data
        if not self.link:
            self.link = next((link for link in LINKS_OF_MAGIC if bytes(buffer).startswith(link.magic)), None)
            if not self.link:
                if len(buffer) >= len(CLOUD_MAGIC):
                    buffer.clear()
                return
            if not self.adrift:
                self.say(self.opened, True, "connects", event="open")
        if from_client in self.adrift and not self.find_frame(from_client, buffer):
            return
        while from_client not in self.broken and self.frame(time, from_client, buffer):
            pass

    def find_frame(self, from_client, buffer):
        """Drops what is before the next magic; false when there is none."""
        magic = self.link.magic
        if not magic:
            self.broken.add(from_client)
        at = buffer.find(magic) if magic else -1
        del buffer[:at if at >= 0 else max(0, len(buffer) - len(magic) + 1)]
        if at >= 0:
            self.adrift.discard(from_client)
        return at >= 0

    def frame(self, time, from_client, buffer):
        """Takes a whole frame out of the buffer; false when there is none yet."""
        magic = self.link.magic
        header = len(magic) + 4
        if not buffer.startswith(magic[:len(buffer)]):
            return self.give_up(time, from_client, "wrong magic: no frame")
        if len(buffer) < header:
            return False
        length = int.from_bytes(buffer[len(magic):header], "big")
        of_device = from_client == self.link.device_is_client
        longest = (LONGEST_OF_DEVICE if self.link.magic else 7 * LONGEST) if of_device else LONGEST
        if not 0 < length <= longest:
            return self.give_up(time, from_client, f"wrong length {length}: no frame")
        if len(buffer) < header + length:
            return False
        body = bytes(buffer[header:header + length])
        del buffer[:header + length]
        self.message(time, from_client, body)
        return True

    def give_up(self, time, from_client, why):
        self.say(time, from_client, why, fault="no frame", cipher="plain")
        self.broken.add(from_client)
        return False

    def message(self, time, from_client, body):
        cipher, text, problem = self.read(body)
        if cipher == "encrypted":
            self.say(time, from_client, "cannot be decrypted", detail=f"{len(body)} bytes", cipher=cipher, size=len(body))
            return
        members = None if problem else members_of(text)
        shown = (text or b"").decode("utf-8", "replace")
        if members is None:
            self.say(time, from_client, "unreadable", detail=problem or "no JSON object", cipher=cipher, size=len(body),
                     texts=[shown], fault="unreadable")
            return
        about = named(members, self.link.names, self.link.number, self.link.result)
        about["texts"].insert(0, shown)
        self.say(time, from_client, cipher=cipher, size=len(body), **about)

    def read(self, body):
        """How the body is encrypted, its text, and what is wrong with it."""
        if self.link.unseal is open_cloud:
            sealed, problem = unwrap_cloud(body)
            if problem:
                return "plain", body, problem
        else:
            sealed = body
        if not self.link.unseal or read_in_clear(sealed) is not None:
            return "plain", sealed, ""
        if len(sealed) % 16:
            return "plain", sealed, "neither JSON nor whole blocks of a cipher"
        for secret in self.keys.of(self.link.protocol, self.client, self.server):
            if text := self.link.unseal(secret, sealed):
                return secret[0], text, ""
        return "encrypted", None, ""


class Conversations:
    """All of a recording; `messages` has them in the order in which they were complete."""

    def __init__(self, keys):
        self.keys, self.messages = keys, []

    def __call__(self, time, client, server, whole):
        conversation = Conversation(client, server, whole, self.keys, self.messages)
        conversation.open(time)
        return conversation

"""Recordings: the packets of a pcap file, and the TCP connections in them."""

import struct

ETHERNET, RAW_IP, USER0 = 1, 101, 147
FIN, SYN, RST, ACK = 1, 2, 4, 16
LONGEST = 1 << 20


class Unreadable(Exception):
    """A file is no recording; the text says why."""


class Recording:
    """A pcap file: its link type, its packets as (time in nanoseconds, bytes), and, in `fault`, where it ends too early."""

    def __init__(self, path):
        try:
            with open(path, "rb") as file:
                data = file.read()
        except OSError as error:
            raise Unreadable(f"{path}: {error.strerror}") from None
        self.packets, self.fault = [], None
        order, unit = {b"\xa1\xb2\x3c\x4d": (">", 1), b"\x4d\x3c\xb2\xa1": ("<", 1), b"\xa1\xb2\xc3\xd4": (">", 1000),
                       b"\xd4\xc3\xb2\xa1": ("<", 1000)}.get(data[:4], (None, None))
        if not order or len(data) < 24:
            what = "is empty" if not data else "is pcapng; save it as pcap" if data[:4] == b"\n\r\r\n" else "is no pcap file"
            raise Unreadable(f"{path} {what}")
        self.link_type = struct.unpack(order + "I", data[20:24])[0] & 0xffff
        self._read(data, order, unit)

    def _read(self, data, order, unit):
        at = 24
        while at < len(data):
            header = data[at:at + 16]
            size = struct.unpack(order + "I", header[8:12])[0] if len(header) == 16 else 0
            if len(header) < 16 or size > LONGEST or at + 16 + size > len(data):
                self.fault = f"ends inside of packet {len(self.packets) + 1}"
                return
            seconds, fraction = struct.unpack(order + "II", header[:8])
            self.packets.append((seconds * 10**9 + fraction * unit, data[at + 16:at + 16 + size]))
            at += 16 + size


class Segment:
    """A TCP segment. `lost` is how much of its data the recording lacks."""

    def __init__(self, packet):
        header = (packet[0] & 15) * 4
        length, = struct.unpack(">H", packet[2:4])
        source, target, self.sequence, self.acknowledged, offset, self.flags = struct.unpack(
            ">HHIIBB", packet[header:header + 14])
        self.source = "%d.%d.%d.%d:%d" % (*packet[12:16], source)
        self.target = "%d.%d.%d.%d:%d" % (*packet[16:20], target)
        # A packet that the interface still cuts into frames may be too long to say how long it is.
        whole = length or len(packet)
        self.data = packet[header + (offset >> 4) * 4:whole]
        self.lost = max(0, whole - max(len(packet), header + (offset >> 4) * 4))


def segment_of(packet, link_type):
    """None for what is no TCP over IPv4."""
    if link_type == ETHERNET:
        if packet[12:14] != b"\x08\x00":
            return None
        packet = packet[14:]
    if len(packet) < 40 or packet[0] >> 4 != 4 or packet[9] != 6:
        return None
    header, fragment = (packet[0] & 15) * 4, int.from_bytes(packet[6:8], "big") & 0x1fff
    if header < 20 or fragment or len(packet) < header + 20 or packet[header + 12] >> 4 < 5:
        return None
    return Segment(packet)


class Direction:
    """What one side of a connection has sent, in order and once. `take(time, bytes)` gets it, `lack(time, count)` is told of
    what the recording does not have."""

    def __init__(self, take, lack):
        self.take, self.lack = take, lack
        self.next = None  # the sequence number that is due
        self.early = {}   # segments from behind it

    def add(self, time, segment):
        if segment.flags & SYN:
            self.next = (segment.sequence + 1) % 2**32
        elif self.next is None:
            self.next = segment.sequence
        if segment.data or segment.lost:
            self.early.setdefault(segment.sequence, []).append((segment.data, segment.lost))
            self._drain(time)

    def _ahead(self, sequence):
        """How far a sequence number is ahead of the one that is due."""
        return (sequence - self.next + 2**31) % 2**32 - 2**31

    def _drain(self, time):
        while ready := [sequence for sequence in self.early if self._ahead(sequence) <= 0]:
            for sequence in ready:
                for data, lost in self.early.pop(sequence):
                    known = -self._ahead(sequence)
                    if new := data[known:]:
                        self._advance(len(new))
                        self.take(time, new)
                    if lost and known < len(data) + lost:
                        missing = lost - max(0, known - len(data))
                        self._advance(missing)
                        self.lack(time, missing)

    def _advance(self, count):
        self.next = (self.next + count) % 2**32

    def confirm(self, time, number):
        """The other side has received everything before `number`: what is missing of it, the recording has missed."""
        while self.next is not None and self._ahead(number) > 0:
            start = min((self._ahead(sequence) for sequence in self.early), default=self._ahead(number))
            missing = min(start, self._ahead(number))
            # The acknowledgement of a FIN counts one more.
            if missing > 1 or self.early:
                self.lack(time, missing)
            self._advance(missing)
            self._drain(time)


def read_connections(recording, open_connection):
    """Goes through the packets. Of each new connection `open_connection(time, client, server, whole)` returns who is told
    about it: an object with take(time, from_client, bytes), lack(time, from_client, count), refuse(time) and
    end(time, from_client, reset). It is not `whole` when it is older than the recording."""
    connections = {}

    def connection_of(time, segment):
        key = frozenset((segment.source, segment.target))
        known = connections.get(key)
        if segment.flags & SYN and not segment.flags & ACK and known and not known.repeated(segment):
            known = None  # its port is used once more
        if not known:
            known = connections[key] = Connection(time, segment, open_connection)
        return known

    for time, packet in recording.packets:
        segment = segment_of(packet, recording.link_type)
        if segment:
            connection_of(time, segment).add(time, segment)


class Connection:
    def __init__(self, time, segment, open_connection):
        port = lambda end: int(end.rsplit(":", 1)[1])
        ends = [segment.source, segment.target]
        # Without its beginning, the lower port is taken for the server's.
        if segment.flags & (SYN | ACK) == SYN | ACK or not segment.flags & SYN and port(ends[0]) < port(ends[1]):
            ends.reverse()
        self.client, server = ends
        self.first = segment.sequence
        self.answered = not segment.flags & SYN
        self.ended = set()
        self.told = told = open_connection(time, self.client, server, bool(segment.flags & SYN))
        self.directions = {
            from_client: Direction(lambda time, data, side=from_client: told.take(time, side, data),
                                   lambda time, count, side=from_client: told.lack(time, side, count))
            for from_client in (True, False)}

    def repeated(self, segment):
        """Is this SYN the connection's own, sent again?"""
        return segment.sequence == self.first

    def add(self, time, segment):
        from_client = segment.source == self.client
        if "reset" in self.ended:
            return
        if segment.flags & RST:
            if not self.answered and not from_client:
                self.told.refuse(time)
            elif len(self.ended) < 2:
                self.told.end(time, from_client, True)
            self.ended.add("reset")
            return
        self.answered = self.answered or not from_client
        if segment.flags & ACK and not segment.flags & SYN:
            self.directions[not from_client].confirm(time, segment.acknowledged)
        self.directions[from_client].add(time, segment)
        if segment.flags & FIN and from_client not in self.ended:
            self.ended.add(from_client)
            self.told.end(time, from_client, False)

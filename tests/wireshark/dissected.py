"""Captures as a test writes them, and what tshark shows of a capture."""

import os
import struct
import subprocess
import tempfile
import unittest

REPO = os.path.realpath(os.path.join(os.path.dirname(__file__), "../.."))
SCRIPT = os.path.join(REPO, "tools/wireshark/arvok.lua")

DEVICE, SERVER = "192.168.1.2", "100.64.0.1"
GATEWAY, CLOUD, LOCAL = 32768, 8088, 17998
RAW_IP = 101
FIN, SYN, RST, ACK = 1, 2, 4, 16


def folder():
    """Of this module's tests, while they run."""
    made = tempfile.TemporaryDirectory()
    unittest.addModuleCleanup(made.cleanup)
    return made.name


def address(text):
    return bytes(int(part) for part in text.split("."))


class Capture:
    """A pcap file of TCP connections between DEVICE and SERVER; each goes by the device's port."""

    def __init__(self, path):
        self.file = open(path, "wb")
        self.file.write(struct.pack("<IHHIIII", 0xa1b2c3d4, 2, 4, 0, 0, 65535, RAW_IP))
        self.time = 0
        self.port = 40000

    def __enter__(self):
        return self

    def __exit__(self, *_):
        self.file.close()

    def packet(self, source, target, sequence, flags, data=b"", recorded=None):
        tcp = struct.pack(">HHIIBBHHH", source[1], target[1], sequence, 0, 5 << 4, flags, 65535, 0, 0)
        ip = struct.pack(">BBHHHBBH4s4s", 0x45, 0, 40 + len(data), 0, 0, 64, 6, 0, address(source[0]), address(target[0]))
        whole = ip + tcp + data
        kept = whole[:40 + recorded] if recorded is not None else whole
        self.time += 1
        self.file.write(struct.pack("<IIII", 0, self.time, len(kept), len(whole)) + kept)

    def connection(self, port, segments, end=FIN, reverse=False, recorded=None):
        """One connection to the server's `port`, on which the device (`reverse`: the server) sends the segments; only
        `recorded` bytes of each are in the capture. Returns the device's port."""
        self.port += 1
        source, target = (DEVICE, self.port), (SERVER, port)
        if reverse:
            source, target = target, source
        sequence = 1000
        self.packet(source, target, sequence, SYN)
        sequence += 1
        for segment in segments:
            self.packet(source, target, sequence, ACK, segment, recorded)
            sequence += len(segment)
        if end:
            self.packet(source, target, sequence, end | ACK)
        return self.port


PIPES = {"stdin": subprocess.PIPE, "stdout": subprocess.PIPE, "stderr": subprocess.DEVNULL}


def command(*arguments):
    """tshark with the dissector, without what the user has set or installed."""
    return ["env", "-i", "PATH=" + os.environ["PATH"], "HOME=/nonexistent", "tshark", "-X", "lua_script:" + SCRIPT, *arguments]


def tshark(*arguments):
    """What tshark says; it must not complain about the dissector."""
    done = subprocess.run(command(*arguments), capture_output=True, timeout=100)
    said = done.stdout.decode("utf-8", "replace")
    assert done.returncode == 0 and "Lua Error" not in said and b"ua:" not in done.stderr, \
        said[-1000:] + done.stderr.decode()
    return said


def rows(path, *fields, keys=None, select="tcp", options=()):
    """The fields of the selected packets: for each packet a tuple of lists. A packet that makes the dissector fail is an
    error, selected or not."""
    arguments = ["-r", path, "-T", "fields", "-E", "separator=/t", "-E", "aggregator=\x1f", *options]
    if keys:
        arguments += ["-o", "arvok.keylog:" + keys]
    for field in ("_ws.expert.message", *fields):
        arguments += ["-e", field]
    lines = tshark(*arguments, "-Y", "(%s) || _ws.lua.error" % select).splitlines()
    return [tuple(cell.split("\x1f") if cell else [] for cell in line.split("\t")[1:]) for line in lines]

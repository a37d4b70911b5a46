"""Runs inside a home with both peers and the agent: makes traffic of every kind, and writes what the peers and the local
client saw of it to the file named by the argument."""

import base64
import json
import os
import socket
import struct
import subprocess
import sys
import time


def call(obj, method, argument):
    done = subprocess.run(["ubus", "-S", "-t", "10", "call", obj, method, json.dumps(argument)], capture_output=True,
                          text=True, check=True)
    return json.loads(done.stdout or "{}")


def wait_until(condition, what):
    end = time.monotonic() + 20
    while not condition():
        assert time.monotonic() < end, what
        time.sleep(0.02)


def passed(obj):
    return call(obj, "messages", {"direction": "both"})["messages"]


def ask_local_server(requests):
    """The requests in one segment; the bodies of both sides."""
    with socket.create_connection((os.environ["AP_ADDR"], 17998), 10) as client, client.makefile("rb") as replies:
        client.sendall(b"".join(struct.pack(">I", len(body)) + body for body in requests))
        return [replies.read(struct.unpack(">I", replies.read(4))[0]).decode() for _ in requests]


def main(path):
    wait_until(lambda: call("lab.cloud", "peer", {})["state"] == "connected", "the device is enrolled")
    wait_until(lambda: any(entry["message"]["type"] == "dev_report" for entry in passed("lab.gateway")), "it is linked")

    # An answer that no segment holds, one that tells an error, and three requests in one segment.
    for name in ("capability", "nonsense"):
        call("lab.gateway", "request", {"type": "get_status", "get": [{"name": name}] * 10})
    call("lab.gateway", "send", {"message": {"type": "nobody_knows"}, "repeat": 3})
    # A frame in many segments, none of which ends where a header does.
    call("lab.gateway", "send", {"message": {"type": "nobody_knows", "filling": "x" * 500}, "split": 99})
    call("lab.cloud", "request", {"RPCMethod": "ListPlugin"})
    call("lab.cloud", "request", {"message": {
        "RPCMethod": "SetPluginParams", "Plugin_Name": "ArvokAP", "Version": "",
        "Parameter": {"type": "get_status", "get": [{"name": "cputemp"}]}}})
    command = base64.b64encode(b'{"CmdType":"GET_SN_INFO","SequenceId":"1"}').decode()
    requests = [b'{"RPCMethod":"Post1","ID":1,"Parameter":"%s"}' % command.encode(), b'{"RPCMethod":"Nothing","ID":2}']
    replies = ask_local_server(requests)
    # The last message above is answered by nothing, so an answer to another one tells that it has arrived.
    call("lab.gateway", "request", {"type": "get_status", "get": [{"name": "cputemp"}]})

    with open(path, "w", encoding="utf-8") as file:
        json.dump({"gateway": passed("lab.gateway"), "cloud": passed("lab.cloud"),
                   "local": [body.decode() for body in requests] + replies}, file)


main(sys.argv[1])

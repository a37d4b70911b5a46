"""The steps with clients of the local server."""

import base64
import datetime
import json
import os
import socket
import struct

from .traffic import require

PORT = 17998


def exchange(tour, message):
    """Connects as a client on the LAN, sends a request and returns the reply; shows both."""

    def show(direction, length, what):
        tour.screen.message({"direction": direction, "server": "local client", "encrypted": False, "length": length,
                             "time": datetime.datetime.now().strftime("%H:%M:%S.%f")[:-3], "message": what})

    text = json.dumps(message, separators=(",", ":")).encode()
    with socket.create_connection((os.environ["AP_ADDR"], PORT), tour.link.deadline) as client:
        show("tx", len(text), message)
        client.sendall(struct.pack(">I", len(text)) + text)
        with client.makefile("rb") as stream:
            header = stream.read(4)
            require(len(header) == 4, "the agent closed the connection")
            body = stream.read(struct.unpack(">I", header)[0])
    reply = json.loads(body)
    show("rx", len(body), reply)
    return reply


def local_client_asks(tour):
    """A client on the LAN asks the agent itself for the device's identity"""
    command = {"CmdType": "GET_SN_INFO", "SequenceId": "1"}
    parameter = base64.b64encode(json.dumps(command, separators=(",", ":")).encode()).decode()
    reply = exchange(tour, {"RPCMethod": "Post1", "ID": 1, "Parameter": parameter})
    require(reply["Ack"] == "Post1" and reply["ID"] == 1 and reply["Result"] == 0, f"the request failed: {reply}")
    answer = json.loads(base64.b64decode(reply["return_Parameter"]))
    tour.screen.note("inside, the question and the answer:")
    tour.screen.json(command)
    tour.screen.json(answer)
    require(answer["Status"] == 0 and answer["MAC"] == tour.device["mac"].replace(":", "").upper(),
            "that is another device")


STEPS = [local_client_asks]

"""The local server as clients on the LAN see it."""

import base64
import json
import os
import resource
import socket
import struct
import time
import unittest

from desk import Agent, AgentCase

QUESTION = {"CmdType": "GET_SN_INFO", "SequenceId": "1"}
IDENTITY = {"CmdType": "GET_SN_INFO", "SequenceId": "1", "Status": 0, "BussinessStatus": "", "MAC": "025A10000001",
            "LOID": "", "DevType": "1", "Version": "V2019.1.0"}


def question(number):
    parameter = base64.b64encode(json.dumps(QUESTION).encode()).decode()
    text = json.dumps({"RPCMethod": "Post1", "ID": number, "Parameter": parameter}).encode()
    return struct.pack(">I", len(text)) + text


class Client:
    def __init__(self, port=17998, address=""):
        self.socket = socket.create_connection((os.environ["AP_ADDR"], port), 20, (address, 0))
        self.input = self.socket.makefile("rb")

    def send(self, data):
        self.socket.sendall(data)

    def receive(self):
        """The next reply, or None at the end of the connection."""
        header = self.input.read(4)
        return json.loads(self.input.read(struct.unpack(">I", header)[0])) if header else None

    def close(self):
        self.input.close()
        self.socket.close()


class LocalCase(AgentCase):
    def connect(self, *args):
        client = Client(*args)
        self.addCleanup(client.close)
        return client

    def serve(self, *args):
        agent = self.start("-g", os.environ["GATEWAY_ADDR"], *args)
        self.wait_for_message("dev_report")
        return agent

    def expect_identity(self, client, number):
        reply = client.receive()
        self.assertEqual(list(reply), ["Ack", "ID", "Result", "return_Parameter"])
        self.assertEqual((reply["Ack"], reply["ID"], reply["Result"]), ("Post1", number, 0))
        answer = json.loads(base64.b64decode(reply["return_Parameter"]))
        self.assertEqual((list(answer), answer), (list(IDENTITY), IDENTITY))


class Server(LocalCase):
    def test_port(self):
        agent = self.serve("-p", "18000")
        agent.expect('[INFO] (local) server start "0.0.0.0:18000"\n')
        client = self.connect(18000)
        client.send(question(1))
        self.expect_identity(client, 1)
        with self.assertRaises(ConnectionRefusedError):
            Client()
        # A second agent finds the port taken and does not run without it.
        second = Agent("-g", os.environ["GATEWAY_ADDR"], "-p", "18000")
        self.addCleanup(second.process.kill)
        self.assertEqual(second.process.wait(20), 255)
        second.expect('[INFO] (local) server start "0.0.0.0:18000"\n')
        second.expect("[ERROR] (local) create socket failed: Address already in use\n")
        client.send(question(2))
        self.expect_identity(client, 2)
        self.assertEqual(agent.stop(), 0)
        agent.expect("[INFO] (local) server stop ")
        self.assertIsNone(client.receive())


class Crowd(LocalCase):
    def setUp(self):
        super().setUp()
        _, most = resource.getrlimit(resource.RLIMIT_NOFILE)
        resource.setrlimit(resource.RLIMIT_NOFILE, (most, most))

    @staticmethod
    def limit(agent, descriptors):
        _, most = resource.prlimit(agent.process.pid, resource.RLIMIT_NOFILE)
        resource.prlimit(agent.process.pid, resource.RLIMIT_NOFILE, (descriptors, most))

    @staticmethod
    def resident_kib(agent):
        with open("/proc/%d/status" % agent.process.pid) as status:
            return int(next(line for line in status if line.startswith("VmRSS:")).split()[1])

    @staticmethod
    def sanitized(agent):
        with open("/proc/%d/maps" % agent.process.pid) as maps:
            return "asan" in maps.read()

    @staticmethod
    def cpu_seconds(agent):
        with open("/proc/%d/stat" % agent.process.pid) as stat:
            fields = stat.read().rsplit(") ", 1)[1].split()
        return (int(fields[11]) + int(fields[12])) / os.sysconf("SC_CLK_TCK")

    def test_a_thousand_clients_of_one_host(self):
        agent = self.serve()
        other = self.connect(17998, os.environ["CLOUD_ADDR"])
        before = self.resident_kib(agent)
        whole = question(1)
        # Some send nothing, some begin a header or a body, some read no replies, and some go at once.
        clients = []
        for number in range(1000):
            clients.append(self.connect())
            try:
                clients[-1].send([b"", whole[:3], whole[:40], whole * 100, whole][number % 5])
            except ConnectionError:
                self.fail("client %d was not let in" % number)
            if number % 5 == 4:
                self.expect_identity(clients[-1], 1)
        if not self.sanitized(agent):  # which multiplies what memory is taken
            self.assertLess(self.resident_kib(agent) - before, 2048)
        self.wait_for_message("keepalive", len(self.received("keepalive")) + 1)
        self.assertIsNone(clients[0].receive())
        for number, client in list(enumerate(clients))[-64:-32]:
            if number % 5 < 3:
                client.send([whole, whole[3:], whole[40:]][number % 5])
                self.expect_identity(client, 1)
            elif number % 5 == 3:
                for _ in range(100):
                    self.expect_identity(client, 1)
        other.send(question(2))
        self.expect_identity(other, 2)
        self.assertNotIn("accept failed", agent.lines())
        # The rest are still stuck, and do not delay the end.
        began = time.monotonic()
        self.assertEqual(agent.stop(), 0)
        self.assertLess(time.monotonic() - began, 5)

    def test_without_descriptors_clients_wait_and_nothing_spins(self):
        agent = self.serve()
        self.limit(agent, 33)
        first, second = self.connect(), self.connect()
        second.send(question(1))
        self.expect_identity(second, 1)
        self.assertIsNone(first.receive())
        self.limit(agent, 32)
        refused = [self.connect() for _ in range(20)]
        agent.expect("[ERROR] (local) accept failed\n")
        began, cpu, accepted = time.monotonic(), self.cpu_seconds(agent), agent.lines().count("accept client")
        agent.expect("[ERROR] (local) accept failed\n")
        self.assertGreater(time.monotonic() - began, 0.5)
        self.wait_for_message("keepalive", len(self.received("keepalive")) + 1)
        self.assertLess(self.cpu_seconds(agent) - cpu, 0.5)
        self.assertLess(agent.lines().count("accept failed"), 12)
        self.assertEqual(agent.lines().count("accept client"), accepted)
        second.send(question(2))
        self.expect_identity(second, 2)
        self.limit(agent, 1024)
        for client in refused:
            client.send(question(3))
            self.expect_identity(client, 3)


if __name__ == "__main__":
    unittest.main(verbosity=2)

"""Command messages of other apps on the device."""

import json
import subprocess
import unittest

from desk import AgentCase, call


class Messages(AgentCase):
    def setUp(self):
        super().setUp()
        self.start("-g", "192.168.1.1")
        self.wait_for_message("dev_report")

    @staticmethod
    def ask(**message):
        return call("qzapp.arvokclt", "postmsg", message)

    def test_refusals(self):
        invalid = {"FailReason": "invalid msg, CmdType", "Status": "-2"}
        for message, answer in (
                ({}, invalid), ({"CmdType": 5}, invalid), ({"CmdType": None, "SequenceId": "1"}, invalid),
                ({"CmdType": ["GET_STATUS"]}, invalid),
                ({"CmdType": "get_status", "SequenceId": "7"},
                 {"CmdType": "get_status", "SequenceId": "7", "Status": "-2", "FailReason": "unknown CmdType"}),
                ({"CmdType": "", "SequenceId": 7},
                 {"CmdType": "", "SequenceId": "", "Status": "-2", "FailReason": "unknown CmdType"}),
                ({"CmdType": "x" * 20000},
                 {"CmdType": "x" * 20000, "SequenceId": "", "Status": "-2", "FailReason": "unknown CmdType"})):
            with self.subTest(message=str(message)[:80]):
                self.assertEqual(list(self.ask(**message).items()), list(answer.items()))

    def test_an_answer_that_the_bus_does_not_carry(self):
        long = "x" * 400_000
        self.assertEqual(self.ask(CmdType=long, SequenceId=long), {"FailReason": "reply too long", "Status": "-102"})
        self.assertEqual(self.ask(CmdType=long)["CmdType"], long)

    def test_status(self):
        answer = self.ask(CmdType="GET_STATUS", SequenceId="42", more={"ignored": [1]})
        self.assertEqual(list(answer), ["CmdType", "SequenceId", "arvokclt"])
        status = answer["arvokclt"]
        self.assertEqual(list(status), ["tul", "addr", "status", "arvok_status", "debug", "timer"])
        self.assertEqual(list(status["timer"]), ["connect", "heartbeat", "ack"])
        self.assertEqual((answer["SequenceId"], status["tul"], status["arvok_status"], status["debug"]),
                         ("42", "TUL1.0_QZ_TANDORIL_IPQ5018X_V2.1.3", 1, 0))
        self.stop_agents()
        self.misbehave(fault="refuse", times=0)
        self.start("-d", "-g", "192.168.1.1").expect("[INFO] (arvok) disconnect fd: ")
        status = self.ask(CmdType="GET_STATUS")["arvokclt"]
        self.assertEqual((status["arvok_status"], status["debug"]), (0, 1))

    def test_the_other_slots_are_not_offered(self):
        for method in ("start", "stop", "restore"):
            done = subprocess.run(["ubus", "call", "qzapp.arvokclt", method, json.dumps({})], capture_output=True)
            self.assertNotEqual(done.returncode, 0)
            self.assertIn(b"Method not found", done.stderr)


if __name__ == "__main__":
    unittest.main()

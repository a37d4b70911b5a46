"""Servers for the agent: who is the gateway or the cloud at the moment."""

import select
import socket
import threading
import time

from . import bus, wire
from .messages import MAC

PATIENCE = 1.5  # seconds without a connection, before the agent is called again
SOON = 0.1  # before it is called for the first time: it has noticed that the one before has gone


def serve(address, port, kind, recall, play, receive_buffer=0):
    """Plays with every connection of the agent, one at a time, for ever. An agent that stays away is called."""
    listener = wire.listen(address, port, receive_buffer)
    patience = SOON
    while True:
        if not select.select([listener], [], [], patience)[0]:
            recall()
            patience = PATIENCE
            continue
        connection = kind(listener.accept()[0])
        try:
            play(connection)
        except (wire.Ended, OSError, ValueError, KeyError):
            pass
        connection.close()


def as_gateway(play, receive_buffer=0):
    serve(wire.GATEWAY, 32768, wire.Link, bus.recall_gateway, play, receive_buffer)


def as_cloud(play, kind=wire.CloudLink, receive_buffer=0):
    serve("0.0.0.0", 8088, kind, bus.recall_cloud, play, receive_buffer)


class Friend:
    """A gateway or a platform that does what it should, on a thread of its own, and can be asked how the agent is."""

    def __init__(self, address, port, kind):
        self.kind, self.link, self.answers, self.sequence = kind, None, {}, 1 << 16
        self.listener = wire.listen(address, port)
        self.changed = threading.Condition()
        self.open = True
        threading.Thread(target=self._run, daemon=True).start()

    def close(self):
        """The agent's connections, too."""
        self.open = False
        try:
            self.listener.shutdown(socket.SHUT_RDWR)
        except OSError:
            pass
        self.listener.close()
        link = self.link
        if link:
            link.socket.shutdown(socket.SHUT_RDWR)

    def _run(self):
        while self.open:
            try:
                threading.Thread(target=self._serve, args=(self.kind(self.listener.accept()[0]),), daemon=True).start()
            except OSError:
                return

    def _serve(self, link):
        """A message at a time. The newest connection that has come far enough is the one that is asked."""
        link.socket.settimeout(None)
        try:
            while True:
                message = link.serve()
                with self.changed:
                    if self.is_ready(link):
                        self.link = link
                    self.answers[self.number_of(message)] = message
                    self.changed.notify_all()
        except (wire.Ended, OSError, ValueError, KeyError):
            pass
        link.close()
        with self.changed:
            if self.link is link:
                self.link = None
            self.changed.notify_all()

    def ask(self):
        """Asks for the status and waits for the answer. False when there is no connection, or none any more."""
        with self.changed:
            link = self.link
            if not link:
                return False
            self.sequence += 1
            self.answers.clear()
            number = self.sequence
        try:
            self.send_question(link, number)
        except OSError:
            return False
        with self.changed:
            self.changed.wait_for(lambda: number in self.answers or self.link is not link)
            return number in self.answers

    def wait(self, deadline):
        with self.changed:
            return self.changed.wait_for(lambda: self.link is not None, max(deadline - time.monotonic(), 0))


class Gateway(Friend):
    def __init__(self):
        super().__init__(wire.GATEWAY, 32768, wire.Link)
        self.items = ["arvokstat", "terminalNum"]  # which ask the platform once

    @staticmethod
    def is_ready(link):
        return link.registered

    @staticmethod
    def number_of(message):
        return message.get("sequence") if message.get("type") == "status" else None

    def send_question(self, link, number):
        link.send({"type": "get_status", "sequence": number, "get": [{"name": name} for name in self.items]})

    def send(self, message):
        link = self.link
        if link:
            try:
                link.send({"sequence": 1, "mac": MAC, **message})
            except OSError:
                pass


class Cloud(Friend):
    QUESTION = "eyJ0eXBlIjoiZ2V0X3N0YXR1cyIsImdldCI6W3sibmFtZSI6InRlcm1pbmFsTnVtIn1dfQ=="  # get_status of terminalNum

    def __init__(self):
        super().__init__("0.0.0.0", 8088, wire.CloudLink)

    @staticmethod
    def is_ready(link):
        return link.connected

    @staticmethod
    def number_of(message):
        return int(message["ID"]) if message.get("Ack") == "SetPluginParams" else None

    def send_question(self, link, number):
        link.ask({"RPCMethod": "SetPluginParams", "ID": str(number), "Plugin_Name": "ArvokAP", "Version": "",
                  "Parameter": self.QUESTION})

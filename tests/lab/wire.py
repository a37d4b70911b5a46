"""What the devices' sides of all protocols stand on: one TCP connection to a peer on this machine."""

import socket


class Ended(Exception):
    """The peer closed the connection."""


class Wire:
    def __init__(self, port):
        self.socket = socket.create_connection(("127.0.0.1", port), timeout=5)
        self.socket.setsockopt(socket.IPPROTO_TCP, socket.TCP_NODELAY, 1)
        self.address = "%s:%d" % self.socket.getsockname()

    def __enter__(self):
        return self

    def __exit__(self, *_):
        self.socket.close()

    def read(self, count):
        data = b""
        while len(data) < count:
            try:
                piece = self.socket.recv(count - len(data))
            except ConnectionResetError:
                piece = b""
            if not piece:
                raise Ended(data)
            data += piece
        return data

    def closed_by_peer(self):
        try:
            self.read(1 << 20)
        except Ended:
            return True
        return False

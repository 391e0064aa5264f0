"""Clients and targets: sockets in their namespaces, driven from the test itself."""
import contextlib
import itertools
import socket
import struct
import threading

from . import netns, network
from .wait import PATIENCE


def reset(connection):
    """Closes with an RST."""
    connection.setsockopt(socket.SOL_SOCKET, socket.SO_LINGER, struct.pack("ii", 1, 0))
    connection.close()


def read_exactly(connection, size):
    received = b""
    while len(received) < size:
        piece = connection.recv(size - len(received))
        if not piece:
            raise ConnectionError(f"the peer ended after {len(received)} of {size} bytes")
        received += piece
    return received


def read_to_end(connection):
    """What comes until the peer's FIN."""
    received = b""
    while piece := connection.recv(65536):
        received += piece
    return received


class Traffic:
    """Connections through a node. Every socket that it gives has a time-out, and is closed with it."""

    def __init__(self, net, timeout=PATIENCE):
        self.net = net
        self.timeout = timeout
        # Each client has a port of its own, below those that the kernel gives out: a port tells a session.
        self.source_ports = itertools.cycle(range(20000, 32000))
        self.listeners = {}
        self.sockets = []

    def keep(self, connection):
        connection.settimeout(self.timeout)
        self.sockets.append(connection)
        return connection

    def listen(self, port, address=network.TARGET):
        """A target: the listening socket of that address and port, made once."""
        if (address, port) not in self.listeners:
            listener = self.keep(netns.socket_in(self.net.target))
            listener.setsockopt(socket.SOL_SOCKET, socket.SO_REUSEADDR, 1)
            listener.bind((address, port))
            listener.listen(1024)
            self.listeners[address, port] = listener
        return self.listeners[address, port]

    def accept(self, port, address=network.TARGET):
        return self.keep(self.listen(port, address).accept()[0])

    def connect(self, port, address=network.NODE_IN, source_port=0):
        """A client's connection to the node."""
        client = self.keep(netns.socket_in(self.net.client))
        client.setsockopt(socket.SOL_SOCKET, socket.SO_REUSEADDR, 1)
        client.bind((network.CLIENT, source_port or next(self.source_ports)))
        client.connect((address, port))
        return client

    def connect_in_vain(self, port, address=network.NODE_IN):
        """A client whose session leads nowhere: its source port, and "FIN" or "RST" by the way in which it ended.

        The RST may come before the client has seen its connection stand.
        """
        client = self.keep(netns.socket_in(self.net.client))
        source_port = next(self.source_ports)
        client.bind((network.CLIENT, source_port))
        try:
            client.connect((address, port))
            read_to_end(client)
            return source_port, "FIN"
        except ConnectionResetError:
            return source_port, "RST"
        finally:
            client.close()

    def session(self, service, source_port=0):
        """Both ends of a session: the client's socket and the target's."""
        self.listen(service["external_port_out"])
        client = self.connect(service["external_port_in"], source_port=source_port)
        return client, self.accept(service["external_port_out"])

    def close(self):
        for connection in self.sockets:
            with contextlib.suppress(OSError):
                connection.close()


class WebTarget:
    """An HTTP/1.1 target in threads: a path /N is answered with N bytes, any other with 404."""

    def __init__(self, listener):
        self.listener = listener
        self.sent = 0
        self.received = 0
        self.lock = threading.Lock()
        self.thread = threading.Thread(target=self._accept, daemon=True)
        self.thread.start()

    def _accept(self):
        while True:
            try:
                connection = self.listener.accept()[0]
            except TimeoutError:
                continue
            except OSError:
                return
            threading.Thread(target=self._serve, args=(connection,), daemon=True).start()

    def _serve(self, connection):
        connection.settimeout(20)
        try:
            with connection, connection.makefile("rb") as stream:
                while path := self._read_request(stream):
                    self._send(connection, self._answer(path))
        except (OSError, ValueError):
            pass

    def _read_request(self, stream):
        """The path of the next request, whose bytes are counted; None at the peer's FIN."""
        line = self._count(stream.readline())
        path = line.split(b" ")[1] if line.count(b" ") == 2 else None
        length = 0
        while line not in (b"\r\n", b""):
            line = self._count(stream.readline())
            if line.lower().startswith(b"content-length:"):
                length = int(line.split(b":")[1])
        self._count(stream.read(length))
        return path

    def _count(self, data):
        with self.lock:
            self.received += len(data)
        return data

    @staticmethod
    def _answer(path):
        path = path.lstrip(b"/")
        if not path.isdigit():
            return b"HTTP/1.1 404 Not Found\r\nContent-Length: 0\r\n\r\n"
        body = bytes(int(path))
        return b"HTTP/1.1 200 OK\r\nContent-Length: %d\r\n\r\n%s" % (len(body), body)

    def _send(self, connection, data):
        connection.sendall(data)
        with self.lock:
            self.sent += len(data)

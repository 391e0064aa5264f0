"""The demo's traffic: sessions of every kind, with the bytes that both ends really sent and received."""
import itertools
import random
import socket
import threading

from . import network, traffic
from .node import service

SERVICES = [
    service(1),
    service(2),
    service(3, external_port_out=9999),     # nobody listens there
    service(4, host=network.SILENT),        # takes packets and answers none
]
STAY_S = 0.2  # what moves at once may be counted before a busy daemon has heard whose it is
NAMES = ("shop", "mail", "files")


def head_of_request(name):
    return (f"GET /{name} HTTP/1.1\r\nHost: {name}.example.test\r\nUser-Agent: demo-{name}/1.0\r\n\r\n").encode()


def head_of_answer(size):
    return f"HTTP/1.1 200 OK\r\nContent-Length: {size}\r\n\r\n".encode()


class Truth:
    """What was really sent and received; filled by the workers."""

    def __init__(self):
        self.lock = threading.Lock()
        self.sessions = []
        self.problems = []

    def add(self, **session):
        with self.lock:
            self.sessions.append(session)

    def wrong(self, what):
        with self.lock:
            self.problems.append(what)

    def totals(self):
        keys = ("client_sent", "client_received", "target_sent", "target_received")
        with self.lock:
            return {key: sum(session[key] for session in self.sessions) for key in keys}


class Scenes:
    """One worker for each service, so that a worker knows which target's socket belongs to its client's."""

    def __init__(self, node):
        self.node = node
        self.truth = Truth()
        self.stop = threading.Event()
        self.random = random.Random(1)
        for row in node.services[:2]:
            node.traffic.listen(row["external_port_out"])
        self.threads = [threading.Thread(target=self._work, args=(row, scene), daemon=True)
                        for row, scene in zip(node.services, (self._web, self._web, self._no_way, self._no_way))]

    def start(self):
        for thread in self.threads:
            thread.start()

    def finish(self):
        self.stop.set()
        for thread in self.threads:
            thread.join(30)

    def _work(self, row, scene):
        for number in itertools.count():
            try:
                scene(row, number)
            except OSError as error:
                if not self.stop.is_set():
                    self.truth.wrong(f"service {row['service_id']}: {error}")
            if self.stop.wait(self.random.uniform(0.05, 0.5)):
                return

    def _web(self, row, number):
        """A request, an answer, and one of the four ends."""
        client, target = self.node.traffic.session(row)
        port = client.getsockname()[1]
        self.stop.wait(STAY_S)
        question = head_of_request(NAMES[number % len(NAMES)])
        body = bytes(self.random.randrange(100, 200_000))
        answer = head_of_answer(len(body)) + body
        client.sendall(question)
        asked = traffic.read_exactly(target, len(question))
        sender = threading.Thread(target=target.sendall, args=(answer,))
        sender.start()
        answered = traffic.read_exactly(client, len(answer))
        sender.join()
        if asked != question or answered != answer:
            self.truth.wrong(f"service {row['service_id']}: bytes were changed on their way")
        end = ("client's FIN", "target's FIN", "client's RST", "target's RST")[number % 4]
        self._end(end, client, target)
        self.truth.add(service_id=row["service_id"], client_port=port, end=end, client_sent=len(question),
                       client_received=len(answered), target_sent=len(answer), target_received=len(asked))

    @staticmethod
    def _end(end, client, target):
        first, last = (client, target) if end.startswith("client") else (target, client)
        try:
            if end.endswith("FIN"):
                first.shutdown(socket.SHUT_WR)
                traffic.read_to_end(last)
                last.close()
                traffic.read_to_end(first)
                first.close()
            else:
                traffic.reset(first)
                traffic.read_to_end(last)
        except ConnectionResetError:
            pass
        last.close()

    def _no_way(self, row, number):
        """A client whose target can't be reached."""
        port, _ = self.node.traffic.connect_in_vain(row["external_port_in"])
        self.truth.add(service_id=row["service_id"], client_port=port, end="no way onward", client_sent=0,
                       client_received=0, target_sent=0, target_received=0)
        self.stop.wait(1)

"""A scripted name server over UDP (RFC 1035), in a thread of its own."""
import socket
import struct
import threading

from . import netns

TYPE_A, TYPE_CNAME = 1, 5
SERVFAIL, NXDOMAIN = 2, 3


def encode_name(name):
    labels = [label.encode() for label in name.rstrip(".").split(".")]
    return b"".join(bytes([len(label)]) + label for label in labels) + b"\0"


def decode_name(packet, at):
    labels = []
    while packet[at] != 0:
        labels.append(packet[at + 1:at + 1 + packet[at]].decode("latin-1"))
        at += 1 + packet[at]
    return ".".join(labels).lower(), at + 1


class Query:
    """A question as it came, and the replies that fit it."""

    def __init__(self, packet):
        self.packet = packet
        self.id = packet[:2]
        self.name, end = decode_name(packet, 12)
        self.type = struct.unpack_from(">H", packet, end)[0]
        self.question = packet[12:end + 4]

    def reply(self, records=(), code=0, truncated=False, reply_id=None):
        """`records` are (type, ttl, data) for the name that was asked, or (name, type, ttl, data)."""
        flags = 0x8180 | code | (0x0200 if truncated else 0)
        head = (reply_id or self.id) + struct.pack(">HHHHH", flags, 1, len(records), 0, 0)
        answers = b""
        for record in records:
            name, kind, ttl, data = record if len(record) == 4 else (self.name, *record)
            answers += encode_name(name) + struct.pack(">HHIH", kind, 1, ttl, len(data)) + data
        return head + self.question + answers


def a_record(address, ttl=60):
    return TYPE_A, ttl, socket.inet_aton(address)


def cname_record(name, ttl=60):
    return TYPE_CNAME, ttl, encode_name(name)


class NameServer:
    """Answers from `names`, name to a list of addresses or to a function.

    A function takes the Query and gives the reply's bytes, a list of such, or None for silence. A name that isn't
    there doesn't exist. Questions are kept in `asked`, by name and type.
    """

    def __init__(self, namespace, address="127.0.0.1", port=53, names=None, ttl=60):
        self.names = dict(names or {})
        self.ttl = ttl
        self.asked = []
        self.socket = netns.socket_in(namespace, socket.SOCK_DGRAM)
        self.socket.bind((address, port))
        self.thread = threading.Thread(target=self._serve, daemon=True)
        self.thread.start()

    def _serve(self):
        while True:
            try:
                packet, peer = self.socket.recvfrom(4096)
            except OSError:
                return
            if not packet:
                return
            try:
                query = Query(packet)
                self.asked.append((query.name, query.type))
                replies = self._replies(query)
            except (IndexError, struct.error):
                continue
            for reply in replies:
                self.socket.sendto(reply, peer)

    def _replies(self, query):
        known = self.names.get(query.name)
        if known is None:
            return [query.reply(code=NXDOMAIN)]
        if callable(known):
            made = known(query)
            return [] if made is None else [made] if isinstance(made, bytes) else made
        records = [a_record(address, self.ttl) for address in known] if query.type == TYPE_A else []
        return [query.reply(records)]

    def close(self):
        try:
            self.socket.shutdown(socket.SHUT_RDWR)
        except OSError:
            pass
        self.socket.close()
        self.thread.join(5)

"""Writes entries into a namespace's connection table over netlink (linux/netfilter/nfnetlink_conntrack.h)."""
import errno
import os
import socket
import struct

from . import netns

NETLINK_NETFILTER = 12
NEW, DELETE = 1 << 8, 1 << 8 | 2
REQUEST, CREATE, EXCL = 0x1, 0x400, 0x200
NESTED = 0x8000
ESTABLISHED = 3
ASSURED_AND_REPLIED = 0xE
BATCH = 400


def attribute(kind, data):
    size = 4 + len(data)
    return struct.pack("=HH", size, kind) + data + bytes(-size % 4)


def end_to_end(kind, source, source_port, destination, destination_port, protocol):
    addresses = attribute(1, socket.inet_aton(source)) + attribute(2, socket.inet_aton(destination))
    ports = (attribute(1, bytes([protocol])) + attribute(2, struct.pack(">H", source_port))
             + attribute(3, struct.pack(">H", destination_port)))
    return attribute(kind | NESTED, attribute(1 | NESTED, addresses) + attribute(2 | NESTED, ports))


def message(kind, flags, attributes):
    body = struct.pack("=BBH", socket.AF_INET, 0, 0) + attributes
    return struct.pack("=IHHII", 16 + len(body), kind, REQUEST | flags, 0, 0) + body


def created(source, source_port, destination, destination_port, mark, timeout=600):
    """An established TCP connection without packets."""
    ends = (source, source_port, destination, destination_port)
    back = (destination, destination_port, source, source_port)
    tcp = attribute(1 | NESTED, attribute(1, bytes([ESTABLISHED])))
    return message(NEW, CREATE | EXCL,
                   end_to_end(1, *ends, socket.IPPROTO_TCP) + end_to_end(2, *back, socket.IPPROTO_TCP)
                   + attribute(3, struct.pack(">I", ASSURED_AND_REPLIED)) + attribute(4 | NESTED, tcp)
                   + attribute(7, struct.pack(">I", timeout)) + attribute(8, struct.pack(">I", mark)))


def deleted(source, source_port, destination, destination_port):
    return message(DELETE, 0, end_to_end(1, source, source_port, destination, destination_port, socket.IPPROTO_TCP))


def check_answers(connection):
    """The kernel answers only to what failed."""
    try:
        while answer := connection.recv(65536, socket.MSG_DONTWAIT):
            error = -struct.unpack_from("=i", answer, 16)[0]
            if error:
                raise OSError(error, os.strerror(error))
    except OSError as error:
        if error.errno != errno.EAGAIN:
            raise


def send(namespace, messages):
    with netns.socket_in(namespace, socket.SOCK_RAW, socket.AF_NETLINK, NETLINK_NETFILTER) as connection:
        connection.bind((0, 0))
        for start in range(0, len(messages), BATCH):
            connection.send(b"".join(messages[start:start + BATCH]))
            check_answers(connection)


def crowd(count):
    """The ends of that many connections, of clients of their own."""
    return [(f"10.{n >> 16 & 255}.{n >> 8 & 255}.{n & 255}", 1024 + n % 60000, "198.51.100.1", 8001)
            for n in range(1, count + 1)]

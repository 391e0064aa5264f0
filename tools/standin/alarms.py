"""The records by which the node's processes tell the daemon of what is wrong."""
import socket
import struct

FAILURE, FAILOPEN, BLACK_HOLE, NEXT_HOP, ANOMALY, BGP = 7, 8, 26, 29, 32, 42


def failure(ports, count=None, status=0, address="192.0.2.1"):
    both = [*ports, 0, 0][:2]
    count = len(ports) if count is None else count
    return socket.inet_aton(address) + struct.pack("<HHBI", *both, count, status)


def black_hole(target):
    return target.encode().ljust(256, b"\0")


def anomaly(target, in_target, cumulative):
    return socket.inet_aton(target) + struct.pack("<II", in_target, cumulative)


def send(node, kind, body=b"", name="wanproxy"):
    """`name` is that of the sending process, which must not run."""
    node.cli("--name", name, "raw", kind, "-", data=body.hex())

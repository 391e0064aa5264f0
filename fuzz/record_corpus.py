#!/usr/bin/python3
"""Records the seed corpora of the fuzz targets: real messages of this machine's kernel and of dnsmasq, and IPC
records as the proxy sends them. Run as root; everything happens in a network namespace of its own.

  unshare --net fuzz/record_corpus.py
"""
import os
import pathlib
import socket
import struct
import subprocess
import time

CORPUS = pathlib.Path(__file__).resolve().parent / "corpus"
NETLINK_ROUTE, NETLINK_NETFILTER, NETLINK_SOCK_DIAG = 0, 12, 4
RTMGRP_IPV4_ROUTE = 64


def save(target, name, content):
    folder = CORPUS / target
    folder.mkdir(parents=True, exist_ok=True)
    (folder / name).write_bytes(content)


def run(*command):
    subprocess.run(command, check=True, stdout=subprocess.DEVNULL)


def record_conntrack():
    """NEW, UPDATE and DESTROY of marked and unmarked connections, TCP and UDP."""
    listener = socket.socket(socket.AF_NETLINK, socket.SOCK_RAW, NETLINK_NETFILTER)
    listener.bind((0, 7))
    listener.settimeout(1)
    tcp = ["-p", "tcp", "-s", "10.0.0.10", "-d", "11.0.0.11", "--sport", "40000", "--dport", "80"]
    udp = ["-p", "udp", "-s", "10.0.0.10", "-d", "11.0.0.11", "--sport", "5000", "--dport", "53"]
    run("conntrack", "-I", *tcp, "--state", "ESTABLISHED", "-u", "SEEN_REPLY,ASSURED", "-t", "100", "-m", "272")
    run("conntrack", "-U", *tcp, "-m", str(0x1000110))
    run("conntrack", "-U", *tcp, "--state", "TIME_WAIT")
    run("conntrack", "-D", *tcp)
    run("conntrack", "-I", *udp, "-u", "SEEN_REPLY", "-t", "100")
    run("conntrack", "-D", *udp)
    run("conntrack", "-I", *tcp, "--state", "ESTABLISHED", "-u", "SEEN_REPLY", "-t", "100", "-m", str(0x1a0))
    run("conntrack", "-U", *tcp, "--state", "CLOSE", "-m", str(0x20001a0))
    run("conntrack", "-D", *tcp)
    number = 0
    try:
        while True:
            save("conntrack_message", f"event-{number:02}", listener.recv(8192))
            number += 1
    except TimeoutError:
        return


def record_tcp_diag():
    """The kernel's answer for a few real sockets, and for none."""
    request = struct.pack("=IHHII", 76, 18, 0x301, 123456, 0) + struct.pack("=BBBB", 2, 0, 0, 10) + bytes(48)
    request += struct.pack("=II", 4095, 0)

    def ask(name):
        asker = socket.socket(socket.AF_NETLINK, socket.SOCK_RAW, NETLINK_SOCK_DIAG)
        asker.settimeout(1)
        asker.send(request)
        number = 0
        done = False
        while not done:
            answer = asker.recv(8192)
            save("tcp_diag_answer", f"{name}-{number:02}", answer)
            done = struct.unpack_from("=H", answer, 4)[0] in (2, 3)
            number += 1

    ask("empty")
    server = socket.create_server(("127.0.0.1", 0))
    clients = [socket.create_connection(server.getsockname()) for _ in range(3)]
    accepted = [server.accept()[0] for _ in clients]
    accepted[0].close()
    ask("sockets")


def dns_query(name, kind=1):
    labels = b"".join(bytes([len(part)]) + part.encode() for part in name.split("."))
    return struct.pack(">HHHHHH", 0x1234, 0x0100, 1, 0, 0, 0) + labels + b"\0" + struct.pack(">HH", kind, 1)


def record_dns():
    """dnsmasq's replies: one address, several, an alias, no such name, another type."""
    server = subprocess.Popen(
        ["dnsmasq", "--no-daemon", "--conf-file=/dev/null", "--no-resolv", "--no-hosts", "--port=53", "--user=root",
         "--listen-address=127.0.0.1", "--bind-interfaces", "--local-ttl=77", "--address=/example.org/192.0.2.1",
         "--address=/many.test/192.0.2.1", "--address=/many.test/192.0.2.2", "--address=/many.test/192.0.2.3",
         "--cname=alias.test,example.org", "--host-record=host.test,192.0.2.9", "--txt-record=text.test,hello",
         "--local=/test/"],
        stdout=subprocess.DEVNULL, stderr=subprocess.DEVNULL)
    try:
        asker = socket.socket(socket.AF_INET, socket.SOCK_DGRAM)
        asker.settimeout(0.5)
        for name, kind in [("example.org", 1), ("many.test", 1), ("alias.test", 1), ("absent.test", 1),
                           ("text.test", 16), ("refused.invalid", 1)]:
            for _ in range(20):
                try:
                    asker.sendto(dns_query(name, kind), ("127.0.0.1", 53))
                    save("dns_reply", name, asker.recv(4096))
                    break
                except (TimeoutError, ConnectionRefusedError):
                    time.sleep(0.1)
    finally:
        server.terminate()
        server.wait()
    reply = bytearray((CORPUS / "dns_reply" / "example.org").read_bytes())
    save("dns_reply", "cut", bytes(reply[:-3]))
    reply[2] |= 2
    save("dns_reply", "truncated", bytes(reply))


def ipc(kind, body=b""):
    message = struct.pack("=H25si25s", kind, b"wanproxy0", 77, b"zol_monitor") + body
    return struct.pack("<H", len(message)) + message


def record_ipc():
    """Each record at its size, and a session's whole life."""
    uuid = bytes(range(16))
    client, node, target = (socket.inet_aton(text) for text in ("10.0.0.10", "10.0.0.1", "11.0.0.11"))

    def leg(outbound):
        ends = node + struct.pack(">H", 50000) if outbound else client + struct.pack(">H", 40000)
        return ipc(16, struct.pack("=B", outbound) + ends + struct.pack(">H", 80) + target + uuid + client +
                   struct.pack(">H", 40000) + b"\1" + target + b"www.example.org".ljust(256, b"\0") +
                   b"agent/1".ljust(256, b"\0") + struct.pack("=HHBB", 80, 1, 0, 0) + target + struct.pack(">H", 80))

    diag = ipc(17, b"\0" + client + uuid + struct.pack(">H", 40000) + bytes(104) + struct.pack("=II", 5, 6))
    failure = ipc(20, client + struct.pack(">H", 40000) + uuid + target + struct.pack("=H", 80) + b"\3")
    http = ipc(24, uuid + b"\1")
    ignored = ipc(27, uuid)
    records = {
        "in-leg": leg(0), "out-leg": leg(1), "diag": diag, "failure-reason": failure, "http": http, "ignored": ignored,
        "pool": ipc(28, struct.pack("=6I", *range(6))), "reload": ipc(2), "terminate": ipc(5),
        "failure": ipc(7, target + struct.pack("=HHBI", 80, 81, 1, 0)), "failopen": ipc(8, b"\1"),
        "dump": ipc(18), "invalid-host": ipc(22), "black-hole": ipc(26, b"unknown".ljust(256, b"\0")),
        "next-hop": ipc(29), "anomaly": ipc(32, bytes(12)), "vpn-log": ipc(36), "vpn-info": ipc(37),
        "bgp": ipc(42, target), "unknown-type": ipc(999), "short": struct.pack("<H", 20) + bytes(20),
        "life": leg(0) + leg(1) + diag + http + ignored + leg(1),
        "refused": leg(0) + failure + diag,
    }
    for name, content in records.items():
        save("ipc_message", name, content)


CONFIGURATION = b"""
General: { zol_id = "zol-1"; external_ip = "192.0.2.1"; network_id = "net"; hop_id = "hop-1"; };
Monitoring: { report_resolution_ms = 60000; polling_rate_ms = 100; reporter_total_retries = 2; unmarked_target = "x"; };
IPTables: { internal_port_range_start = 9000; internal_port_range_end = 9100; };
Networking: { interfaces = ( { interface = "10.0.0.1"; external_ip = "192.0.2.1"; is_private = false; },
                             { interface = "10.1.0.1"; is_private = true; } ); };
SharedNetworkData: { possible_floating_ips = ( "192.0.2.7", "192.0.2.8" ); };
MultipleTargets: { services = (
  { service_id = 1; logical_network_id = "net-1"; public_host = "a"; host = "b"; aux_host = "c"; external_port_in = 80;
    internal_port = 8080; external_port_out = 80; is_port_owned = true; is_tcp = true; },
  { service_id = 300; host = 7; external_port_in = 70000; } ); };
HopData: { out_mode = "unlimited";
  hops = ( { hop_id = "hop-1"; ha_mode = "autonomous"; zol_ips = ( "192.0.2.1" ); floating_ips = ( "192.0.2.7" );
             communication_groups = ( "g" ); is_ucpe = true; routing_id = 7; metadata = "m"; fqdn = "h.example"; },
           { hop_id = "hop-2"; zol_ips = ( "192.0.2.2" ); communication_groups = ( "g" ); } );
  clusters = ( { internal_site_id = "s"; virtual_router_id = 1; hops = ( { hop_id = "hop-1"; priority = 10; } ); } ); };
"""


def record_configuration():
    save("configuration_text", "node", CONFIGURATION)
    save("configuration_text", "empty", b"\n")
    save("configuration_text", "cut", CONFIGURATION[:900])
    save("configuration_text", "odd-types", b"General = 5; MultipleTargets: { services = [ 1, 2 ]; }; HopData = ( 1 );\n")
    save("configuration_text", "nested", b"a: { b: { c: ( ( 1, [ 2L, 3L ] ), { d = 1.5; e = true; f = \"x\\n\"; } ); }; };\n")


def ones_sum(data):
    total = sum(struct.unpack(f">{len(data) // 2}H", data))
    while total > 0xffff:
        total = (total >> 16) + (total & 0xffff)
    return ~total & 0xffff


def record_probe_packets():
    """The kernel's answers to an echo request and to a SYN, and what a raw socket also hears."""
    localhost = socket.inet_aton("127.0.0.1")
    icmp = socket.socket(socket.AF_INET, socket.SOCK_RAW, socket.IPPROTO_ICMP)
    icmp.settimeout(1)
    payload = bytes(range(0x41, 0x41 + 40))
    checksum = ones_sum(struct.pack(">BBHHH", 8, 0, 0, 40000, 1) + payload)
    icmp.sendto(struct.pack(">BBHHH", 8, 0, checksum, 40000, 1) + payload, ("127.0.0.1", 0))
    save("probe_packet", "echo-request", icmp.recv(1514))
    reply = icmp.recv(1514)
    save("probe_packet", "echo-reply", reply)
    for size in (0, 19, 20, 27, 28, 67):
        save("probe_packet", f"echo-reply-{size:02}", reply[:size])
    save("probe_packet", "echo-reply-other-id", reply[:24] + b"\x9c\x41" + reply[26:])
    save("probe_packet", "echo-reply-other-sequence", reply[:26] + b"\0\2" + reply[28:])
    save("probe_packet", "echo-reply-other-host", reply[:12] + b"\x7f\0\0\2" + reply[16:])
    save("probe_packet", "echo-reply-options", b"\x46" + reply[1:20] + b"\1\1\1\0" + reply[20:])
    socket.socket(socket.AF_INET, socket.SOCK_DGRAM).sendto(b"x", ("127.0.0.1", 9))
    save("probe_packet", "unreachable", icmp.recv(1514))

    tcp = socket.socket(socket.AF_INET, socket.SOCK_RAW, socket.IPPROTO_TCP)
    tcp.settimeout(1)

    def answer_to_syn(name):
        header = struct.pack(">HHIIHHHH", 20000, 20001, 0x01020304, 0, 0x5002, 2048, 0, 0)
        checksum = ones_sum(localhost + localhost + struct.pack(">HH", 6, 20) + header)
        tcp.sendto(header[:16] + struct.pack(">HH", checksum, 0), ("127.0.0.1", 0))
        packet = b""
        while len(packet) < 40 or struct.unpack_from(">H", packet, 22)[0] != 20000:
            packet = tcp.recv(1514)
        save("probe_packet", name, packet)
        return packet

    rst = answer_to_syn("rst")
    save("probe_packet", "rst-other-acknowledgement", rst[:28] + b"\1\2\3\4" + rst[32:])
    with socket.create_server(("127.0.0.1", 20001)):
        accepted = answer_to_syn("syn-ack")
    for size in (39, 40):
        save("probe_packet", f"syn-ack-{size}", accepted[:size])


def record_routes():
    """Notifications of routes of all kinds, a dump, and messages whose lengths or attributes are wrong."""
    for name in ("vti1", "eth1"):
        run("ip", "link", "add", name, "type", "veth", "peer", "name", f"far-{name}")
        run("ip", "link", "set", name, "up")
        run("ip", "link", "set", f"far-{name}", "up")
    run("ip", "address", "add", "192.0.2.1/24", "dev", "eth1")
    listener = socket.socket(socket.AF_NETLINK, socket.SOCK_RAW, NETLINK_ROUTE)
    listener.bind((0, RTMGRP_IPV4_ROUTE))
    listener.settimeout(1)

    def change(name, verb, *words):
        run("ip", "route", verb, "table", "1005", *words)
        message = listener.recv(32768)
        save("route_message", name, message)
        return message

    plain = change("gateway", "add", "10.1.0.0/16", "via", "192.0.2.2")
    change("replaced", "replace", "10.1.0.0/16", "via", "192.0.2.3")
    change("deleted", "del", "10.1.0.0/16")
    change("tunnel", "add", "10.2.3.4/32", "dev", "vti1")
    change("default", "add", "default", "via", "192.0.2.2", "metric", "7")
    change("link-local", "add", "10.3.0.0/16", "via", "169.254.7.7", "dev", "eth1", "onlink")
    change("multipath", "add", "10.4.0.0/16", "nexthop", "via", "192.0.2.2", "nexthop", "via", "192.0.2.3")
    metrics = change("metrics", "add", "10.5.0.0/16", "via", "192.0.2.2", "src", "192.0.2.1", "mtu", "1400")
    change("blackhole", "add", "blackhole", "10.6.0.0/16")
    listener.send(struct.pack("=IHHII", 28, 26, 0x301, 1, 0) + struct.pack("=BBBBBBBBI", 2, 0, 0, 0, 0, 0, 0, 0, 0x100))
    dump = listener.recv(32768)
    save("route_message", "dump", dump)
    done = listener.recv(32768)
    save("route_message", "done", done)
    save("route_message", "dump-interrupted", dump[:6] + struct.pack("=H", 0x12) + dump[8:])
    save("route_message", "done-with-error", done[:16] + struct.pack("=i", -22) + done[20:])
    save("route_message", "refused", struct.pack("=IHHIIi", 36, 2, 0, 1, 1, -16) + bytes(16))
    for size in (0, 15, 16, 27, 28, 31, len(plain) - 1):
        save("route_message", f"cut-{size:02}", plain[:size])
    save("route_message", "length-above-int-max", struct.pack("=I", 0xfffffff0) + plain[4:])
    save("route_message", "length-too-small", struct.pack("=I", 15) + plain[4:])
    save("route_message", "length-ends-in-header", struct.pack("=I", 27) + plain[4:])
    save("route_message", "prefix-33", plain[:17] + b"\x21" + plain[18:])
    save("route_message", "attribute-too-long", plain[:28] + struct.pack("=H", 4096) + plain[30:])
    save("route_message", "attribute-too-short", plain[:28] + struct.pack("=H", 3) + plain[30:])
    save("route_message", "attribute-of-7", plain[:28] + struct.pack("=H", 7) + plain[30:])
    at = metrics.index(struct.pack("=H", 8), 28)
    save("route_message", "attribute-unknown", metrics[:at + 2] + struct.pack("=H", 77) + metrics[at + 4:])
    bare = struct.pack("=BBBBBBBBI", 2, 24, 0, 0, 252, 12, 0, 1, 0)
    for name, attributes in (("no-attributes", b""), ("no-destination", struct.pack("=HHI", 8, 15, 1005)),
                             ("metrics-of-3", struct.pack("=HHI", 8, 15, 1005) + b"\7\0\x08\0abc\0")):
        save("route_message", name, struct.pack("=IHHII", 28 + len(attributes), 24, 0, 1, 1) + bare + attributes)


def main():
    os.environ["LC_ALL"] = "C"
    run("ip", "link", "set", "lo", "up")
    record_conntrack()
    record_tcp_diag()
    record_dns()
    record_probe_packets()
    record_ipc()
    record_configuration()
    record_routes()
    for folder in sorted(CORPUS.iterdir()):
        print(folder.name, len(list(folder.iterdir())))


if __name__ == "__main__":
    main()

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
NETLINK_NETFILTER, NETLINK_SOCK_DIAG = 12, 4


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


def main():
    os.environ["LC_ALL"] = "C"
    run("ip", "link", "set", "lo", "up")
    record_conntrack()
    record_tcp_diag()
    record_dns()
    record_ipc()
    record_configuration()
    for folder in sorted(CORPUS.iterdir()):
        print(folder.name, len(list(folder.iterdir())))


if __name__ == "__main__":
    main()

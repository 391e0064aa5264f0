"""Messages to the daemon: their sizes, what it doesn't know, bursts, strangers, and peers that come and go."""
import json
import re
import signal
import time

import pytest

from standin import conf
from standin.wait import run_and_expect

HEADER = 56
# Behind the header, by type: the text of the type, and the bytes of a record of the minimum size.
RECORDS = {
    2: ("reloadconf", 0),
    7: ("failure", 13),
    8: ("failopen", 1),
    16: ("session_identification", 564),
    17: ("tcp_conn_diag_info", 135),
    18: ("dump_session_info", 0),
    20: ("termination_reason", 29),
    22: ("invalid_public_host", 0),
    24: ("http_notification", 17),
    26: ("black_hole_event", 256),
    27: ("ignored_session_info", 16),
    28: ("unknown", 24),
    29: ("next_hop_api_event", 0),
    32: ("unknown", 12),
    36: ("vpn_log", 0),
    37: ("vpn_info", 0),
    42: ("unknown", 4),
}
WITH_BODY = sorted(kind for kind, (_, size) in RECORDS.items() if size > 0)
# Types of the node that the daemon sends only, types that nobody has, and both ends of the field.
UNKNOWN = (0, 1, 3, 4, 6, 9, 10, 11, 14, 15, 19, 21, 23, 25, 30, 31, 33, 38, 40, 41, 43, 44, 256, 65535)
BURST = 100000
# Every identification record leaves two debug lines of this one category; all others are quiet.
BURST_LOG = conf.LOG_PROPERTIES.replace("DEBUG", "INFO") + "log4cpp.category.ZOLSessions=DEBUG\n"
NO_REPORTS = {"Monitoring.session_report_resolution_ms": 0}


def wait_beats(node, more=2):
    node.watchdog.wait_event("beat", node.beats() + more)


def start(make_node, *options, log=None, **more):
    node = make_node(settings=NO_REPORTS, **more)
    if log is not None:
        node.write_file("log.properties", log)
    node.start_watchdog("--once", *options)
    node.watchdog.wait_event("beat")
    return node


@pytest.fixture(scope="module")
def daemon(make_module_node):
    """One daemon for all the messages that it has to outlive."""
    node = start(make_module_node)
    yield node
    wait_beats(node)


def send(node, sender, kind, body=b""):
    node.cli("--name", sender, "raw", kind, "-", data=body.hex())


def wait_line(node, line):
    """Waits for a log line with that end."""
    node.wait_log(line + "\n")


def accepted(kind, sender):
    return f"parse_msg: {RECORDS[kind][0]} requested by: [ {sender} ]."


def refused(kind, size):
    return f"parse_msg: invalid message size: {size} for type: {RECORDS[kind][0]}"


@pytest.mark.parametrize("kind", sorted(RECORDS))
def test_minimum_size(daemon, kind):
    """Verifies that a record of each type is taken at its minimum size."""
    body = bytes(RECORDS[kind][1])
    send(daemon, f"minimum{kind}", kind, body)
    wait_line(daemon, accepted(kind, f"minimum{kind}"))
    assert refused(kind, HEADER + len(body)) + "\n" not in daemon.log()


@pytest.mark.parametrize("kind", sorted(RECORDS))
def test_longer(daemon, kind):
    """Verifies that a record with more behind it is taken: a sender may add fields."""
    for more in (1, 5000):
        body = bytes(RECORDS[kind][1]) + b"\xff" * more
        sender = f"longer{kind}by{more}"
        send(daemon, sender, kind, body)
        wait_line(daemon, accepted(kind, sender))
        assert refused(kind, HEADER + len(body)) + "\n" not in daemon.log()


@pytest.mark.parametrize("kind", WITH_BODY)
def test_one_byte_less(daemon, kind):
    """Verifies that a record that is one byte short, or all header, is refused with its size and type."""
    for size in {RECORDS[kind][1] - 1, 0}:
        sender = f"short{kind}by{size}"
        before = daemon.log().count(refused(kind, HEADER + size) + "\n")
        send(daemon, sender, kind, b"\xff" * size)
        daemon.wait_log(refused(kind, HEADER + size) + "\n", before + 1)
        assert accepted(kind, sender) not in daemon.log()
        assert f"handle_ipc_msg: unsupported message type: {kind}\n" not in daemon.log()


@pytest.mark.parametrize("kind", UNKNOWN)
def test_unknown_type(daemon, kind):
    """Verifies that a type that the daemon doesn't take gets its line, whatever follows the header."""
    for count, body in enumerate((b"", b"\x01" * 700), start=1):
        send(daemon, f"unknown{kind}", kind, body)
        daemon.wait_log(f"handle_ipc_msg: unsupported message type: {kind}\n", count)
    assert f"requested by: [ unknown{kind} ]" not in daemon.log()


@pytest.mark.parametrize("size", [1, 2, 55])
def test_less_than_a_header(daemon, size):
    """Verifies that a message that is shorter than the header is dropped, even when it names a known type."""
    terminate = (5).to_bytes(2, "little") + bytes(53)
    daemon.cli("raw-bytes", "-", data=terminate[:size].hex())
    wait_line(daemon, f"handle_ipc_msg: incoming message size ({size}) is too small.")


def test_names_without_an_end(daemon):
    """Verifies that a header whose names fill their fields is taken without reading past them."""
    header = (22).to_bytes(2, "little") + b"s" * 25 + bytes(4) + b"d" * 25
    daemon.cli("raw-bytes", "-", data=header.hex())
    daemon.wait_log("parse_msg: invalid_public_host requested by: [ " + "s" * 24)
    assert "s" * 26 not in daemon.log()


def identification(number, domain=b"", outbound=0, size=564):
    """A record for a session whose uuid ends in `number`."""
    body = bytearray(size)
    body[0] = outbound
    body[13:29] = number.to_bytes(16, "big")
    body[29:33] = bytes([192, 0, 2, number % 250 + 1])
    body[40:40 + len(domain)] = domain
    return bytes(body)


def uuid(number):
    text = f"{number:032x}"
    return "-".join((text[:8], text[8:12], text[12:16], text[16:20], text[20:]))


def test_fields_reach_the_table(daemon):
    """Verifies that an identification record makes a session, and that a text without an end stops with its field."""
    send(daemon, "wanproxy", 16, identification(77, b"a" * 256))
    dumps = daemon.log().count("By Session-ID Address")
    daemon.cli("dump_session_info")
    daemon.wait_log("By Session-ID Address", dumps + 1)
    told = f"ID: {uuid(77)} Client Addr: 192.0.2.78:0 .*Domain Name: a{{256}} User-Agent:  Start Time"
    run_and_expect(lambda: re.search(told, daemon.log()) is not None, True)


def test_answers_of_the_command_line(daemon):
    """Verifies that the connection queries are answered."""
    assert json.loads(daemon.cli("vpn_info").stdout) == []
    assert re.fullmatch(r"(\S+Z VPN Log (Started|Stopped)\n)+\n", daemon.cli("vpn_log").stdout)


@pytest.mark.parametrize("more", [0, 40])
def test_terminate_of_any_size(make_node, more):
    """Verifies that "terminate" ends the daemon at its minimum size, and longer."""
    node = start(make_node)
    send(node, "zol_cli", 5, bytes(more))
    assert node.watchdog.wait_event("exited").get("status") == 0


class LogTail:
    """What a log holds of one pattern, read once and on."""

    def __init__(self, path, pattern):
        self.file = open(path, encoding="utf-8", errors="replace")
        self.pattern = re.compile(pattern)
        self.rest = ""
        self.found = []

    def read(self):
        lines = (self.rest + self.file.read()).split("\n")
        self.rest = lines.pop()
        self.found += [match[1] for match in map(self.pattern.search, lines) if match]
        return self.found

    def __enter__(self):
        return self

    def __exit__(self, *unused):
        self.file.close()


def burst_uuid(number):
    return f"{number:08x}-0000-0000-0000-000000000001"


IDENTIFIED = r"set_session_identification Inbound .* Session_ID: ([0-9a-f-]{36})"


def start_burst(node, name="burster"):
    return node.spawn(node.bin / "zol_cli", "--node", node.node_id, "--name", name, "burst", BURST)


def test_burst_while_the_daemon_is_busy(make_node):
    """Verifies that 100,000 records sent while the daemon is busy for two seconds arrive whole, once and in order."""
    node = start(make_node, log=BURST_LOG)
    with LogTail(node.folder / "monitor.log", IDENTIFIED) as tail:
        node.signal_monitor(signal.SIGSTOP)
        stopped = time.monotonic()
        try:
            burst = start_burst(node)
            run_and_expect(lambda: time.monotonic() - stopped, lambda busy: busy >= 2)
            assert burst.is_running(), "the queue took all, so that nothing was tested"
            assert tail.read() == []
        finally:
            node.signal_monitor(signal.SIGCONT)
        assert burst.popen.wait(240) == 0
        run_and_expect(lambda: len(tail.read()), lambda count: count >= BURST, timeout=120)
        wait_beats(node)
        arrived = tail.read()
    assert arrived == [burst_uuid(number) for number in range(BURST)]
    assert "invalid message size" not in node.log() and "too small" not in node.log()


def test_terminate_in_a_burst(make_node):
    """Verifies that "terminate" in the midst of a burst ends the daemon with status 0."""
    node = start(make_node, log=BURST_LOG)
    with LogTail(node.folder / "monitor.log", IDENTIFIED) as tail:
        burst = start_burst(node)
        run_and_expect(lambda: len(tail.read()), lambda count: count > 100)
        assert burst.is_running() and len(tail.found) < BURST
        node.cli("terminate")
        ended = node.watchdog.wait_event("exited", timeout=120)
        assert ended.get("status") == 0
        node.wait_log("Monitoring terminating ...")
        arrived = tail.read()
    assert arrived == [burst_uuid(number) for number in range(len(arrived))]


STRANGER = """\
import os, socket, sys
os.setgroups([])
os.setgid(65534)
os.setuid(65534)
own = socket.socket(socket.AF_UNIX, socket.SOCK_SEQPACKET)
own.settimeout(20)
try:
    own.connect(sys.argv[1])
    own.send((5).to_bytes(2, "little") + b"stranger".ljust(25, b"\\0") + bytes(4) + b"zol_monitor".ljust(25, b"\\0"))
    print("answered" if own.recv(100) else "closed")
except OSError as error:
    print(type(error).__name__)
"""


def test_stranger(make_node):
    """Verifies that another uid can't reach the socket, and is refused and unheard where the folder lets it in."""
    node = start(make_node)
    folder = f"/run/zol/{node.node_id}"
    path = f"{folder}/zol_monitor"
    assert node.run("stat", "-c", "%a %u", folder, path).stdout == "700 0\n600 0\n"
    script = ("python3", "-c", STRANGER, path)
    assert node.run(*script).stdout == "PermissionError\n"
    assert "refused a connection" not in node.log()
    node.run("chmod", "711", folder)
    node.run("chmod", "666", path)
    for _ in range(3):
        assert node.run(*script).stdout.strip() in ("closed", "ConnectionResetError", "BrokenPipeError")
    node.wait_log("[WARN] IPCEndpoint: read_msg: refused a connection from uid 65534, pid ")
    wait_beats(node)  # the daemon lives, so that the stranger's "terminate" wasn't heard
    assert "terminate requested by" not in node.log()
    assert node.log().count("refused a connection") == 1, "one line each minute at most"
    send(node, "friend", 22)
    wait_line(node, accepted(22, "friend"))


def test_watchdog_that_restarts(make_node):
    """Verifies that beats find a watchdog that was killed and started again, with one line for each change."""
    node = make_node(settings=NO_REPORTS)
    watchdog = (node.bin / "zol_node", "--monitor", "/bin/true", "--node", node.node_id, "--once")
    first = node.spawn(*watchdog)
    first.wait_event("exited", status=0)  # of /bin/true; the daemon is nobody's child here, so that it can outlive
    daemon = node.spawn(node.bin / "zol_monitor")
    pid = first.wait_event("beat", 2)["pid"]
    assert "couldn't send" not in node.log()

    inner = int(node.run("pgrep", "-x", "zol_node").stdout)
    node.run("kill", "-9", inner)
    node.wait_log(f"[WARN] IPCOutbox: send_msg: couldn't send to /run/zol/{node.node_id}/watchdog: ")
    node.wait_log("[DEBUG] IPCOutbox: send_msg: couldn't send to ", 2)
    second = node.spawn(*watchdog)
    assert second.wait_event("beat", 3)["pid"] == pid
    node.wait_log(f"send_msg: /run/zol/{node.node_id}/watchdog answers again")
    assert node.log().count("[WARN] IPCOutbox:") == 1
    node.cli("terminate")
    assert daemon.popen.wait(30) == 0


def test_daemon_that_restarts(make_node):
    """Verifies that a sender's connection is made anew to a daemon that was killed and took over its stale socket."""
    node = make_node(settings=NO_REPORTS)
    node.expect_clean = False  # killed on purpose
    node.start_watchdog()
    node.start_proxy()
    node.watchdog.wait_event("beat")
    client, _ = node.traffic.session(node.services[0])
    opened = "parse_msg: session_identification requested by: [ wanproxy ].\n"
    node.wait_log(opened, 2)
    client.close()

    node.signal_monitor(signal.SIGKILL)
    second = node.watchdog.wait_event("started", 2)["pid"]
    node.watchdog.wait_event("beat", pid=second)
    node.wait_log(f"start_socket: took over the stale socket /run/zol/{node.node_id}/zol_monitor\n")
    before = node.log().count(opened)
    node.traffic.session(node.services[1])
    node.wait_log(opened, before + 2)


def test_second_daemon_is_refused(make_node):
    """Verifies that a second daemon of the node doesn't take the name of the one that lives."""
    node = start(make_node)
    other = node.spawn(node.bin / "zol_monitor")
    node.wait_log("[ERROR] Monitor: Failed to open IPC socket\n")
    assert f"start_socket: another process answers on /run/zol/{node.node_id}/zol_monitor\n" in node.log()
    wait_beats(node, 3)
    assert {beat["pid"] for beat in node.watchdog.select("beat")} == {node.monitor_pid()}
    send(node, "friend", 22)
    wait_line(node, accepted(22, "friend"))
    other.stop(signal.SIGKILL)
    wait_beats(node)

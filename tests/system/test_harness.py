"""The stand-in node itself: its rules set the mark from real segments, its receiver checks, nothing stays behind."""
import hashlib
import hmac
import time

import pytest

from standin import netns, network, traffic
from standin.conf import write
from standin.node import Node, SERVER_PORT, service
from standin.wait import run_and_expect

FIN_IN, RST_IN, RST_OUT = 0x1000000, 0x2000000, 0x4000000
LONG_LIVED = [f"net.netfilter.nf_conntrack_tcp_timeout_{state}=60" for state in ("time_wait", "close", "last_ack")]


@pytest.fixture
def relay(make_node):
    """A node with the proxy alone; ended connections stay in the kernel's table for a look."""
    node = make_node(services=[service(1), service(2, external_port_out=9999)])
    netns.execute(node.network.node, "sysctl", "-q", "-w", *LONG_LIVED)
    node.start_proxy()
    return node


def marks(node, service_id=1):
    """The marks of a service's connections: {"in": ..., "out": ...}."""
    sides = {1: "in", 2: "out"}
    return {sides[entry.nibble]: entry.mark for entry in node.connections() if entry.service_id == service_id}


def expect_marks(node, in_bits, out_bits, service_id=1):
    base = service_id << 8
    run_and_expect(lambda: marks(node, service_id),
                   {"in": base | 0x10 | in_bits, "out": base | 0x20 | out_bits})


def test_open_session_has_no_event_bits(relay):
    """Verifies that both legs carry the service id and their nibble, and nothing else while they are open."""
    client, target = relay.traffic.session(relay.services[0])
    client.sendall(b"question")
    assert traffic.read_exactly(target, 8) == b"question"
    target.sendall(b"answer")
    assert traffic.read_exactly(client, 6) == b"answer"
    expect_marks(relay, 0, 0)
    found = {entry.nibble: entry for entry in relay.connections()}
    ends = {nibble: (entry.source, entry.destination, entry.destination_port) for nibble, entry in found.items()}
    assert ends == {1: (network.CLIENT, network.NODE_IN, 8001), 2: (network.NODE_OUT, network.TARGET, 9001)}


def test_fin_of_one_side_marks_its_leg(relay):
    """Verifies that a FIN marks the leg on which this node received it, and passes on to the other side."""
    client, target = relay.traffic.session(relay.services[0])
    client.shutdown(traffic.socket.SHUT_WR)
    assert traffic.read_to_end(target) == b""
    expect_marks(relay, FIN_IN, 0)
    target.close()
    assert traffic.read_to_end(client) == b""
    expect_marks(relay, FIN_IN, FIN_IN)


def test_reset_by_client(relay):
    """Verifies that a client's RST marks the In leg as received and the Out leg as sent."""
    client, target = relay.traffic.session(relay.services[0])
    traffic.reset(client)
    with pytest.raises(ConnectionResetError):
        target.recv(1)
    expect_marks(relay, RST_IN, RST_OUT)


def test_reset_by_target(relay):
    """Verifies that a target's RST marks the Out leg as received and the In leg as sent."""
    client, target = relay.traffic.session(relay.services[0])
    traffic.reset(target)
    with pytest.raises(ConnectionResetError):
        client.recv(1)
    expect_marks(relay, RST_OUT, RST_IN)


def test_refused_target_resets_client(relay):
    """Verifies that a refused connection onward resets the client and leaves an In leg alone."""
    assert relay.traffic.connect_in_vain(8002)[1] == "RST"
    run_and_expect(lambda: marks(relay, 2), {"in": 0x210 | RST_OUT})


def test_half_close_delivers_everything(relay):
    """Verifies that bytes sent after the other side's FIN arrive whole, more than the relay holds at once."""
    client, target = relay.traffic.session(relay.services[0])
    client.sendall(b"all?")
    client.shutdown(traffic.socket.SHUT_WR)
    assert traffic.read_to_end(target) == b"all?"
    text = bytes(range(256)) * 20000
    sender = traffic.threading.Thread(target=lambda: (target.sendall(text), target.close()))
    sender.start()
    assert traffic.read_to_end(client) == text
    sender.join()


def test_previous_hop_comes_in_on_the_internal_port(relay):
    """Verifies that a connection to the internal port is an In leg of the same service."""
    relay.traffic.listen(9001)
    relay.traffic.connect(5001)
    relay.traffic.accept(9001)
    expect_marks(relay, 0, 0)


def post(node, body, token, path="/zolSessionReport"):
    url = f"https://{network.SERVER}:{SERVER_PORT}{path}?key={node.node_id}&token={token}"
    command = ("curl", "-sk", "-m", "5", "-o", "/dev/null", "-w", "%{http_code}", "--data-binary", "@-", url)
    return node.run(*command, data=body, check=False)


def token_of(node, body, windows=0):
    window = time.time_ns() // 1_000_000 // node.setting("Monitoring.hmac_timeout") + windows
    return hmac.new(node.secret.encode(), f"{body}{window}".encode(), hashlib.sha256).hexdigest()


@pytest.fixture
def server(make_node):
    node = make_node()
    node.start_receiver()
    return node


def test_receiver_takes_what_is_signed(server):
    """Verifies that a signed request is answered with 200 and stored as parsed JSON."""
    body = '{"session_info": []}'
    assert post(server, body, token_of(server, body)).stdout == "200"
    record, = server.requests()
    assert record["verified"] and record["body"] == {"session_info": []} and record["path"] == "/zolSessionReport"
    assert record["query"]["key"] == server.node_id and record["headers"]["Content-Length"] == str(len(body))


@pytest.mark.parametrize("windows", [-3, 3])
def test_receiver_refuses_other_windows(server, windows):
    """Verifies that a token of a distant time window is refused."""
    assert post(server, "{}", token_of(server, "{}", windows)).stdout == "403"
    assert [record["verified"] for record in server.requests()] == [False]


def test_receiver_refuses_another_body(server):
    """Verifies that a token doesn't fit a body that was changed."""
    assert post(server, '{"a": 2}', token_of(server, '{"a": 1}')).stdout == "403"


def test_receiver_keeps_text_that_is_no_json(server):
    """Verifies that a signed body that is no JSON is stored as text."""
    assert post(server, "{broken", token_of(server, "{broken")).stdout == "200"
    record, = server.requests()
    assert record["body_text"] == "{broken" and "body" not in record


def test_receiver_faults(server):
    """Verifies that each fault does what it says, and that clearing ends it."""
    token = token_of(server, "{}")
    server.control(fault="status", path="/zolSessionReport", status=500, count=1)
    assert post(server, "{}", token).stdout == "500"
    server.control(fault="reset", path="/zolSessionReport")
    assert post(server, "{}", token).returncode != 0
    assert post(server, "{}", token, path="/zolReport").stdout == "200"
    server.control(clear=True)
    server.control(listen=False)
    assert post(server, "{}", token).returncode == 7
    server.control(listen=True)
    assert post(server, "{}", token).stdout == "200"
    assert server.control(stats=True)["attempts"] == {"/zolSessionReport": 3, "/zolReport": 1}


def test_configuration_text():
    """Verifies the text of every kind of setting."""
    tree = {"G": {"a": 1, "b": 2**40, "c": True, "d": "x\"\\\n", "e": 1.0, "l": [{"m": 1}, "t"]}}
    assert write(tree) == ('G = {\n  a = 1;\n  b = 1099511627776L;\n  c = true;\n  d = "x\\"\\\\\\n";\n  e = 1.0;\n'
                           '  l = ({\n    m = 1;\n  }, "t");\n};\n')


def test_nothing_stays_behind(tmp_path):
    """Verifies that a node that fails while it is up leaves no namespace and no process."""
    with pytest.raises(ZeroDivisionError):
        with Node(tmp_path / "node") as node:
            node.start_receiver()
            node.start_proxy()
            names = [node.network.client, node.network.node, node.network.target]
            pids = [process.popen.pid for process in node.processes] + [int(node.holder_pid)]
            assert all(netns.exists(name) for name in names)
            raise ZeroDivisionError
    assert not any(netns.exists(name) for name in names)
    for pid in pids:
        with pytest.raises(FileNotFoundError):
            open(f"/proc/{pid}/status", encoding="ascii")


def test_nodes_do_not_see_each_other(make_node):
    """Verifies that two nodes have IPC folders, shared memory, name files and processes of their own."""
    one, other = make_node(), make_node()
    one.run("sh", "-c", "mkdir -p /run/zol/of-one && touch /dev/shm/of-one /tmp/of-one && "
                        "echo 192.0.2.1 of-one >> /etc/hosts")
    sleeper = one.spawn("sleep", "4242")
    look = ("sh", "-c", "ls -a /run/zol /dev/shm /tmp; cat /etc/hosts; ps -eo args=")
    run_and_expect(lambda: one.run(*look, check=False).stdout.count("of-one"), 4)
    assert "sleep 4242" in one.run(*look).stdout and sleeper.is_running()
    seen = other.run(*look, check=False).stdout
    assert "of-one" not in seen and "sleep 4242" not in seen
    with open("/etc/hosts", encoding="utf-8") as file:
        assert "of-one" not in file.read()

"""The daemon's own name resolution, against a scripted name server and against dnsmasq."""
import pytest

from standin import netns, network, traffic
from standin.names import NXDOMAIN, SERVFAIL, a_record, cname_record
from standin.node import SERVER_NAME, service
from standin.wait import run_and_expect

NEXT_HOP = "hop.zol.test"
TO_NEXT_HOP = service(6, external_port_out=5906)  # the next hop is another node


def report_of_one_session(node):
    """Carries a session to the next hop; its entry in the report."""
    node.traffic.listen(5906)
    client = node.traffic.connect(8006)
    port = client.getsockname()[1]
    target = node.traffic.accept(5906)
    client.close()
    traffic.read_to_end(target)
    target.close()
    entry, = run_and_expect(lambda: [found for found in node.sessions() if found["source_port"] == port],
                            lambda found: len(found) == 1, timeout=60)
    return entry


def make(make_node, names, **settings):
    return make_node(services=[TO_NEXT_HOP], settings={"TrafficReport.next_hop": NEXT_HOP, **settings}, names=names)


def test_canonical_name_in_lower_case(make_node):
    """Verifies that the next hop's alias is reported in lower case."""
    node = make(make_node, {NEXT_HOP: lambda query: query.reply(
        [cname_record("Real.ZOL.Test"), ("real.zol.test", *a_record(network.TARGET))])}).start()
    node.wait_log(f"resolve_complete_cb: next_hop_name: {NEXT_HOP} canonical name real.zol.test")
    entry = report_of_one_session(node)
    assert (entry["next_hop"], entry["next_hop_cname"]) == (NEXT_HOP, "real.zol.test")


def test_alias_without_address(make_node):
    """Verifies that a reply with nothing but an alias gives the name."""
    node = make(make_node, {NEXT_HOP: lambda query: query.reply([cname_record("only.zol.test")])}).start()
    node.wait_log(f"resolve_complete_cb: next_hop_name: {NEXT_HOP} canonical name only.zol.test")


def test_time_to_live_paces_the_questions(make_node):
    """Verifies that the next hop is asked for again when its answer's time is over."""
    node = make(make_node, {NEXT_HOP: lambda query: query.reply([a_record(network.TARGET, ttl=1)])}).start()
    run_and_expect(lambda: node.name_server.asked.count((NEXT_HOP, 1)), lambda count: count >= 3)


@pytest.mark.parametrize("answer", [
    pytest.param(lambda query: query.reply(code=NXDOMAIN), id="no such name"),
    pytest.param(lambda query: query.reply(code=SERVFAIL), id="server failure"),
    pytest.param(lambda query: query.reply([a_record(network.TARGET)], truncated=True), id="truncated"),
    pytest.param(lambda query: query.packet[:2] + b"\x81\x80\xff\xff", id="malformed"),
    pytest.param(lambda query: None, id="silence"),
    pytest.param(lambda query: query.reply([a_record(network.TARGET)], reply_id=b"\0\0"), id="foreign id"),
])
def test_failed_answer_leaves_no_canonical_name(make_node, answer):
    """Verifies that a next hop that can't be resolved has no canonical name, and that the daemon goes on."""
    node = make(make_node, {NEXT_HOP: answer}).start()
    node.wait_log(f"resolve_complete_cb: next_hop_name: {NEXT_HOP} canonical name \n")
    assert report_of_one_session(node)["next_hop_cname"] == ""
    assert node.name_server.asked.count((NEXT_HOP, 1)) == 1  # the next question is 30 seconds away


def test_bad_answers_before_a_good_one(make_node):
    """Verifies that the server's name is asked for again after answers that may be better next time."""
    answers = [lambda query: query.reply(code=SERVFAIL),
               lambda query: query.reply([a_record(network.SERVER)], truncated=True)]

    def scripted(query):
        return answers.pop(0)(query) if answers else query.reply([a_record(network.SERVER)])

    node = make(make_node, {SERVER_NAME: scripted, NEXT_HOP: [network.TARGET]}).start()
    report_of_one_session(node)
    assert not answers
    assert "response_function_cb Got error in DNS response,  try again ..." in node.log()


def test_forged_reply_is_passed_over(make_node):
    """Verifies that a reply with a foreign id neither counts as the answer nor ends the wait for it."""
    node = make(make_node, {NEXT_HOP: [network.TARGET], SERVER_NAME: lambda query: [
        query.reply([a_record(network.SILENT)], reply_id=bytes([query.id[0] ^ 1, query.id[1]])),
        query.reply([a_record(network.SERVER)])]}).start()
    report_of_one_session(node)
    assert f"Sending HTTP request to: https://{network.SILENT}" not in node.log()


def test_static_name(make_node):
    """Verifies that a name of /etc/hosts is taken from there and never asked for."""
    node = make(make_node, {NEXT_HOP: [network.TARGET]})
    node.name_server.names.pop(SERVER_NAME)
    (node.folder / "etc" / "hosts").write_text(f"127.0.0.1 localhost\n{network.SERVER} {SERVER_NAME}\n")
    node.start()
    report_of_one_session(node)
    assert f"Static resolutions for [{SERVER_NAME}]" in node.log()
    assert not [name for name, _ in node.name_server.asked if name == SERVER_NAME]


def test_answers_are_kept(make_node):
    """Verifies that the server's name is asked for once as long as its answer is good."""
    node = make(make_node, {NEXT_HOP: [network.TARGET]}).start()
    report_of_one_session(node)
    report_of_one_session(node)
    assert node.name_server.asked.count((SERVER_NAME, 1)) == 1
    assert f"DNS results for [{SERVER_NAME}] in cache" in node.log()


def test_end_with_a_question_in_flight(make_node):
    """Verifies that the daemon ends cleanly while a name server keeps it waiting."""
    node = make(make_node, {NEXT_HOP: lambda query: None}).start()
    run_and_expect(lambda: node.name_server.asked.count((NEXT_HOP, 1)), 1)
    node.cli("terminate")
    assert node.watchdog.wait_event("exited")["status"] == 0


def test_dnsmasq(make_node):
    """Verifies the road with a real name server: an alias for the next hop, an address for the management server."""
    node = make(make_node, {})
    node.name_server.close()
    node.spawn("dnsmasq", "--no-daemon", "--conf-file=/dev/null", "--no-resolv", "--no-hosts", "--user=root",
               "--listen-address=127.0.0.1", "--bind-interfaces", "--local-ttl=60",
               f"--host-record={SERVER_NAME},{network.SERVER}", f"--host-record=real.zol.test,{network.TARGET}",
               f"--cname={NEXT_HOP},real.zol.test")
    run_and_expect(lambda: netns.execute(node.network.node, "ss", "-Hlun", "sport", "=", ":53"),
                   lambda text: "127.0.0.1:53" in text)
    node.start()
    node.wait_log(f"resolve_complete_cb: next_hop_name: {NEXT_HOP} canonical name real.zol.test")
    entry = report_of_one_session(node)
    assert (entry["next_hop"], entry["next_hop_cname"]) == (NEXT_HOP, "real.zol.test")

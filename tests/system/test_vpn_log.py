"""The connection log on the whole daemon: changes over the three protocols, and the reasons of IPsec failures."""
import pathlib
import re
import signal
import subprocess
import time

import pytest

import vpn_node
from standin import netns, network
from standin.processes import Process
from standin.wait import run_and_expect
from vpn_node import NORTH, NORTH_NAME, SOUTH, SOUTH_NAME, connections, entry, reports, site

TIME = r"\d{4}-\d\d-\d\dT\d\d:\d\d:\d\dZ"
HELPER = "/opt/zol/get_pluto_fail_reason.sh"
NORTH_LINE = f"north-office - {NORTH}, status changed from"
SOUTH_LINE = f"south-office - {SOUTH}, status changed from"
# Nothing is known of a tunnel that stays down, which is asked about once a minute.
ONLY_SHORT = "[ $3 = short ] || { echo unknown; exit 0; }"
LAN_PEER, LAN_INNER = "192.0.2.41", network.SILENT  # it answers for its hardware address, and nothing else


def one_ipsec_site():
    return [site("north", "ipsec", [entry(NORTH, "hub.example", id_as_text=True)])]


def log_path(node):
    return node.folder / "bin" / "vpnconn.log"


def log_lines(node):
    return log_path(node).read_text().splitlines()


def changes(node):
    """The lines of changes, without their time."""
    return [line.split(": ", 1)[1] for line in log_lines(node) if ": " in line]


def answer(node):
    """What the command line is told."""
    return node.cli("vpn_log").stdout


def start(node):
    node.start_receiver()
    node.start_watchdog()
    node.watchdog.wait_event("beat")


def ipsec_node(make_node, **settings):
    node, programs = vpn_node.make(make_node, sites=one_ipsec_site(), **settings)
    programs.set_gre([])
    programs.set_ipsec(vpn_node.ipsec_up(NORTH_NAME))
    return node, programs


def set_helper(node, text):
    """The program that is asked for reasons: it notes what it is asked, and then runs the text."""
    noted = f"printf '%s|' \"$@\" >>{node.folder}/asked; echo >>{node.folder}/asked\n"
    node.write_file("helper", "#!/bin/sh\n" + noted + text + "\n")
    (node.folder / "helper").chmod(0o755)
    node.run("mkdir", "-p", "/opt/zol")
    node.run("ln", "-sf", node.folder / "helper", HELPER)


def asked(node):
    path = node.folder / "asked"
    return [line.split("|")[:-1] for line in path.read_text().splitlines()] if path.exists() else []


def incidents(node):
    """Those of all reports, in their order."""
    return [incident for report in reports(node)
            for connection in report.get("vpn-info", {}).get("connections", [])
            for incident in connection.get("incidents", [])]


def wait_up(node):
    run_and_expect(lambda: changes(node)[-1:], [f"{NORTH_LINE} disconnected to connected"])


# --- the log ----------------------------------------------------------------------------------------------------------

def test_changes_over_ipsec(make_node):
    """Verifies each change of a tunnel in the log, the peer's resolved address, and that file and answer are one."""
    node, programs = ipsec_node(make_node)
    set_helper(node, "echo unknown")
    programs.set_ipsec([])
    start(node)
    run_and_expect(lambda: len(vpn_node.published(node)), 1)  # a first cycle, in which it is down: no line
    programs.set_ipsec(vpn_node.ipsec_connecting(NORTH_NAME))
    run_and_expect(lambda: changes(node), [f"{NORTH_LINE} disconnected to connecting"])
    programs.set_ipsec(vpn_node.ipsec_up(NORTH_NAME, peer="192.0.2.99"))
    resolved = f"north-office - {NORTH} (Resolved to 192.0.2.99), status changed from"
    run_and_expect(lambda: changes(node)[1:], [f"{resolved} connecting to connected"])
    programs.set_ipsec([])
    run_and_expect(lambda: changes(node)[2:], [f"{resolved} connected to disconnected unknown"])
    lines = log_lines(node)
    assert re.fullmatch(f"{TIME} VPN Log Started", lines[0])
    assert all(re.match(f"{TIME}: ", line) for line in lines[1:])
    assert answer(node).splitlines()[:len(lines)] == lines


def test_log_outlives_the_process(make_node):
    """Verifies that an orderly end and the next start are lines of their own, behind those of before."""
    node, _ = ipsec_node(make_node)
    start(node)
    wait_up(node)
    node.cli("terminate")
    node.watchdog.wait_event("started", count=2)
    run_and_expect(lambda: len(log_lines(node)), 5)
    kinds = [re.sub(TIME, "T", line) for line in log_lines(node)]
    up = f"T: {NORTH_LINE} disconnected to connected"
    assert kinds == ["T VPN Log Started", up, "T VPN Log Stopped", "T VPN Log Started", up]


def test_hundred_lines(make_node):
    """Verifies that the file keeps a hundred lines, the oldest going first."""
    node, programs = ipsec_node(make_node)
    set_helper(node, "echo text; echo reason")
    log_path(node).parent.mkdir(exist_ok=True)
    log_path(node).write_text("".join(f"line {number}\n" for number in range(100)))
    start(node)
    wait_up(node)
    programs.set_ipsec([])
    run_and_expect(lambda: log_lines(node)[-1].endswith("to disconnected reason"), True)
    lines = log_lines(node)
    assert len(lines) == 100
    assert lines[0] == "line 3"
    assert lines[96] == "line 99"
    assert answer(node) == "\n".join(lines) + "\n\n"


def test_log_file_cannot_be_used(make_node):
    """Verifies that a log that can't be read or written costs a warning, and that the answer still has the lines."""
    node, _ = ipsec_node(make_node)
    log_path(node).mkdir(parents=True)
    start(node)
    run_and_expect(lambda: f"{NORTH_LINE} disconnected to connected" in answer(node), True)
    assert node.log().count("[WARN] VPNConnDataAgg: Failed to open file") >= 3


# --- the reasons ------------------------------------------------------------------------------------------------------

def fail_once(node, programs):
    """One failure; the log's last line, and the questions and incidents that it made."""
    programs.set_ipsec(vpn_node.ipsec_up(NORTH_NAME))
    wait_up(node)
    questions, before = len(asked(node)), len(incidents(node))
    programs.set_ipsec([])
    run_and_expect(lambda: "to disconnected" in changes(node)[-1], True)
    run_and_expect(lambda: len(incidents(node)) > before, True)
    return changes(node)[-1], [each for each in asked(node)[questions:] if each[2] == "short"], \
        [each for each in incidents(node)[before:]]


def test_reason_in_log_and_report(make_node):
    """Verifies that the helper is asked with time, name and "short", and that its answer is in the log and, once, in
    the report of that time."""
    node, programs = ipsec_node(make_node)
    set_helper(node, f"{ONLY_SHORT}; echo 'STATE_MAIN_I1: 60 second timeout'; echo 'The peer does not answer'")
    start(node)
    began = int(time.time())
    line, questions, found = fail_once(node, programs)
    assert line == f"{NORTH_LINE} connected to disconnected The peer does not answer"
    assert len(questions) == 1
    assert questions[0][1:] == [NORTH_NAME, "short"]
    assert began <= int(questions[0][0]) <= time.time()
    assert [(each["log_text"], each["reason"]) for each in found] == \
        [("STATE_MAIN_I1: 60 second timeout", "The peer does not answer")]
    assert re.fullmatch(r"\d{4}-\d\d-\d\dT\d\d:\d\d:\d\d\.\d{3}Z", found[0]["timestamp"])
    count = len(reports(node))
    run_and_expect(lambda: len(reports(node)) >= count + 3, True)
    short = [each for each in incidents(node) if each["timestamp"] == found[0]["timestamp"]]
    assert len(short) == 1  # told once
    assert "incidents" not in connections(node)["north", NORTH]


@pytest.mark.parametrize("text, reason, log_text, warned", [
    ("echo unknown", "unknown", "no match", "Pluto failure reason not found for"),
    ("exit 0", "", "", "Bad output from ipsec fail reason parser!"),
    ("echo one line", "", "", "Bad output from ipsec fail reason parser!"),
    ("echo a; echo b; exit 1", "unknown", "failed to execute", "Failed to get pluto log failure reason for"),
    ("kill -9 $$", "unknown", "failed to execute", "Failed to get pluto log failure reason for"),
    ("trap '' TERM; echo a; echo b; sleep 1000", "unknown", "failed to execute",
     "Failed to get pluto log failure reason for"),
    (None, "unknown", "failed to execute", "Failed to get pluto log failure reason for"),
], ids=["unknown", "empty", "one-line", "failing", "killed", "hanging", "missing"])
def test_helper_without_an_answer(make_node, text, reason, log_text, warned):
    """Verifies that whatever the helper does the change is logged, the failure is reported, and the next is asked."""
    node, programs = ipsec_node(make_node)
    if text is not None:
        set_helper(node, text)
    start(node)
    line, _, found = fail_once(node, programs)
    assert line == f"{NORTH_LINE} connected to disconnected {reason}".rstrip()
    assert [(each["reason"], each["log_text"]) for each in found][:1] == [(reason, log_text)]
    assert warned in node.log()
    set_helper(node, f"{ONLY_SHORT}; echo text; echo 'now it answers'")
    line, questions, found = fail_once(node, programs)
    assert line.endswith("now it answers")
    assert len(questions) == 1
    assert found[-1]["reason"] == "now it answers"
    assert "sleep 1000" not in node.run("ps", "-eo", "args").stdout


def test_question_of_the_minute(make_node):
    """Verifies that a tunnel that stays down is asked about, with "long", ten seconds behind the full minute, and that
    the answer is an incident without a line in the log."""
    node, programs = ipsec_node(make_node)
    programs.set_ipsec([])
    set_helper(node, "[ $3 = long ] && echo 'AUTHENTICATION_FAILED' && echo 'Wrong key'")
    start(node)
    found = run_and_expect(lambda: incidents(node), lambda all_: len(all_) > 0, timeout=90)
    assert (found[0]["log_text"], found[0]["reason"]) == ("AUTHENTICATION_FAILED", "Wrong key")
    # This end's address is known from the tunnel's own name, which hasn't been seen yet.
    assert asked(node)[0][1:] == [NORTH_NAME.replace(network.NODE_OUT, ""), "long"]
    # Timers run on a clock of their own, from which the wall clock may differ by a little.
    assert 9 <= int(asked(node)[0][0]) % 60 <= 14
    assert "Checking pluto failures in the passed minute" in node.log()
    assert changes(node) == []


# --- against the machine's own commands -------------------------------------------------------------------------------

GRED = f"""\
#!/bin/sh
# Up while the other end of the tunnel's device is, on its way while only this end is.
[ "$1" = status ] || exit 1
state=Disconnected
flags=$(ip -o link show dev vti1 2>/dev/null | sed 's/.*<\\(.*\\)>.*/,\\1,/')
case $flags in *,LOWER_UP,*) state=Established;; *,UP,*) state=Connecting;; esac
echo 'GRED: 1 tunnel'
echo '{SOUTH_NAME}: ResolvedIP: {SOUTH} State: '$state
"""


def test_gre_by_its_device(make_node):
    """Verifies the states of a GRE tunnel whose keeper asks `ip` for the real device."""
    node, programs = vpn_node.make(make_node, sites=[vpn_node.the_sites()[1]])
    programs.set_ipsec([])
    node.write_file("keeper", GRED)
    (node.folder / "keeper").chmod(0o755)
    node.run("ln", "-sf", node.folder / "keeper", "/opt/gred/gred.sh")
    start(node)
    run_and_expect(lambda: changes(node), [f"{SOUTH_LINE} disconnected to connected"])
    netns.run("ip", "-n", node.network.target, "link", "set", "vti1", "down")
    run_and_expect(lambda: changes(node)[1:], [f"{SOUTH_LINE} connected to connecting"])
    netns.run("ip", "-n", node.network.node, "link", "set", "vti1", "down")
    run_and_expect(lambda: changes(node)[2:], [f"{SOUTH_LINE} connecting to disconnected"])
    netns.run("ip", "-n", node.network.target, "link", "set", "vti1", "up")
    netns.run("ip", "-n", node.network.node, "link", "set", "vti1", "up")
    run_and_expect(lambda: changes(node)[-1], f"{SOUTH_LINE} disconnected to connected", timeout=40)


def test_lan_by_the_arp_table(make_node):
    """Verifies that a local site is up while the kernel's own ARP table holds its peer, and down when it doesn't."""
    sites = [site("west", "lan", [entry(LAN_PEER, "west-peer",
                                        route_based=vpn_node.way(LAN_INNER, network.NODE_OUT))])]
    node, programs = vpn_node.make(make_node, sites=sites)
    programs.set_ipsec([])
    programs.set_gre([])
    line = f"west-office - {LAN_PEER}, status changed from"
    start(node)
    run_and_expect(lambda: len(vpn_node.published(node)), 1)
    assert changes(node) == []
    node.run("ping", "-c", "1", "-W", "1", LAN_INNER, check=False)  # nobody answers but the kernel's ARP
    run_and_expect(lambda: changes(node), [f"{line} disconnected to connected"])
    run_and_expect(lambda: connections(node)["west", LAN_PEER]["state"], "connected")
    netns.run("ip", "-n", node.network.node, "neigh", "del", LAN_INNER, "dev", network.TARGET_DEVICE)
    run_and_expect(lambda: changes(node)[1:], [f"{line} connected to disconnected"])
    run_and_expect(lambda: connections(node)["west", LAN_PEER]["state"], "disconnected")


def test_hanging_status_command(make_node):
    """Verifies that a status command that doesn't end holds the daemon until the watchdog replaces it, and that the
    log goes on."""
    node, _ = ipsec_node(make_node, **{"Watchdog.max_missed_threshold_ms": 2500})
    node.expect_clean = False
    start(node)
    wait_up(node)
    node.run("sh", "-c", "printf '#!/bin/sh\\nexec sleep 1000\\n' >/opt/gred/gred.sh")
    node.watchdog.wait_event("beats-missed")
    assert node.watchdog.wait_event("exited")["signal"] == signal.SIGKILL
    node.run("sh", "-c", "printf '#!/bin/sh\\n' >/opt/gred/gred.sh")
    node.watchdog.wait_event("started", count=2)
    run_and_expect(lambda: sum("VPN Log Started" in line for line in log_lines(node)) >= 2, True)
    wait_up(node)


# --- two real IKE daemons ---------------------------------------------------------------------------------------------

PLUTO = "/usr/libexec/ipsec/pluto"
IKE_NAME = vpn_node.conn_name("north", "@hub.example", network.TARGET)
IKE_CONF = """\
config setup
    uniqueids=yes
conn "{name}"
    left={left}
    leftid={left_id}
    leftsubnet={left_net}
    right={right}
    rightid={right_id}
    rightsubnet={right_net}
    authby=secret
    ikev2=insist
    auto=add
"""


def write_ike(folder, **conf):
    (folder / "nss").mkdir(parents=True)
    (folder / "ipsec.conf").write_text(IKE_CONF.format(**conf))
    (folder / "ipsec.secrets").write_text(': PSK "a-key-of-a-test-that-is-long-enough"\n')
    subprocess.run(["ipsec", "initnss", "--nssdir", folder / "nss"], check=True, capture_output=True)
    return ["--nofork", "--config", folder / "ipsec.conf", "--secretsfile", folder / "ipsec.secrets", "--nssdir",
            folder / "nss", "--logfile", folder / "pluto.log"]


def start_peer(node):
    """The site's end, in the target's namespace."""
    folder = node.folder / "peer"
    options = write_ike(folder, name="back", left=network.TARGET, left_id="@hub.example", left_net="10.50.0.0/16",
                        right=network.NODE_OUT, right_id="@node.example", right_net="198.51.100.0/24")
    command = ["ip", "netns", "exec", node.network.target, PLUTO, *options, "--rundir", folder]
    node.processes.append(Process(list(map(str, command)), folder / "pluto.err"))


def start_own_ike(node):
    options = write_ike(node.folder / "ike", name=IKE_NAME, left=network.NODE_OUT, left_id="@node.example",
                        left_net="198.51.100.0/24", right=network.TARGET, right_id="@hub.example",
                        right_net="10.50.0.0/16")
    node.run("rm", "/usr/local/sbin/ipsec")  # the scripted one
    node.run("mkdir", "-p", "/run/pluto")
    node.spawn(PLUTO, *options)
    run_and_expect(lambda: IKE_NAME in node.run("ipsec", "whack", "--status", check=False).stdout, True)


@pytest.mark.skipif(not pathlib.Path(PLUTO).exists(), reason="libreswan isn't installed")
def test_two_real_ike_daemons(make_node):
    """Verifies, with the real status command over two real peers, that a tunnel whose key exchange stands is on its
    way, and that its end is asked about. The data's own protocol isn't needed for that, and not every kernel has it."""
    sites = [site("north", "ipsec", [entry(network.TARGET, "hub.example", id_as_text=True)])]
    node, programs = vpn_node.make(make_node, sites=sites)
    programs.set_gre([])
    set_helper(node, "echo 'deleting state'; echo 'Taken down'")
    start_peer(node)
    start_own_ike(node)
    start(node)
    run_and_expect(lambda: len(vpn_node.published(node)), 1)
    line = f"north-office - {network.TARGET}, status changed from"
    node.run("ipsec", "whack", "--name", IKE_NAME, "--initiate", "--asynchronous")
    run_and_expect(lambda: changes(node)[:1], [f"{line} disconnected to connecting"])
    run_and_expect(lambda: connections(node)["north", network.TARGET]["state"], lambda state: state != "disconnected")
    node.run("ipsec", "whack", "--name", IKE_NAME, "--terminate")
    run_and_expect(lambda: changes(node)[-1].endswith("to disconnected Taken down"), True)
    assert asked(node)[-1][1] == IKE_NAME

"""The stand-in node as one object: its namespaces, files and processes.

    with Node(folder, build) as node:
        node.start()
        client, target = node.traffic.session(node.services[0])
        ...
        node.wait_session(lambda session: ...)

Everything of a node is in its folder and its namespaces; leaving the block removes the namespaces and ends every
process, also after a failure. The folder stays for whoever wants to look.
"""
import contextlib
import json
import os
import pathlib
import secrets
import shutil
import signal
import socket
import subprocess
import sys
import threading

from . import conf, netns, network, rules, tracking
from .names import NameServer
from .network import Network
from .processes import Process
from .traffic import Traffic
from .wait import PATIENCE, run_and_expect

ROOT = pathlib.Path(__file__).resolve().parent.parent.parent
HERE = pathlib.Path(__file__).resolve().parent
SERVER_NAME = "hqs.zol.test"
SERVER_PORT = 8443
IDENTIFIED = "parse_msg: session_identification requested by: [ wanproxy ]"


def build_folder():
    return pathlib.Path(os.environ.get("ZOL_BUILD", ROOT / "build" / "release")).resolve()


def service(number, **changes):
    """One row of MultipleTargets.services: port 8000 + number, to port 9000 + number of the target."""
    row = {
        "service_id": number,
        "logical_network_id": f"network-{number}",
        "public_host": f"service{number}.zol.test",
        "host": network.TARGET,
        "aux_host": "",
        "external_port_in": 8000 + number,
        "internal_port": 5000 + number,
        "external_port_out": 9000 + number,
        "is_port_owned": True,
        "is_tcp": True,
    }
    return {**row, **changes}


class Node:
    """`settings` are dotted keys over the defaults of conf.py; a value of None leaves the key out."""

    def __init__(self, folder, build=None, settings=None, services=None, node_id="zol-test-1", names=None):
        self.folder = pathlib.Path(folder).resolve()
        self.build = pathlib.Path(build) if build else build_folder()
        self.bin = self.build / "bin"
        self.node_id = node_id
        self.services = services if services is not None else [service(1), service(2)]
        self.secret = secrets.token_urlsafe(24)
        self.names = {SERVER_NAME: [network.SERVER], **(names or {})}
        self.tree = conf.defaults(node_id, f"https://{SERVER_NAME}:{SERVER_PORT}", network.NODE_OUT)
        self.settings = settings or {}
        self.processes = []
        self.holder = self.network = self.traffic = self.name_server = None
        self.receiver = self.watchdog = self.proxy = None
        self._sweeper_stop = threading.Event()
        self._sweeper = None

    # --- the ground -----------------------------------------------------------------------------------------------

    def __enter__(self):
        try:
            self._lay_ground()
        except BaseException:
            self.close()
            raise
        return self

    def __exit__(self, *unused):
        self.close()

    def _lay_ground(self):
        etc = self.folder / "etc"
        etc.mkdir(parents=True, exist_ok=True)
        (etc / "resolv.conf").write_text("nameserver 127.0.0.1\n")
        (etc / "hosts").write_text("127.0.0.1 localhost\n")
        self.network = Network()
        self.traffic = Traffic(self.network)
        self._hold()
        self.name_server = NameServer(self.network.node, names=self.names)
        self._write_secret()
        self.write_conf()
        self.set_rules()
        self._sweeper = threading.Thread(target=self._sweep_connections, daemon=True)
        self._sweeper.start()

    def _hold(self):
        command = ["ip", "netns", "exec", self.network.node, sys.executable, str(HERE / "holder.py"),
                   str(self.folder), str(ROOT), str(self.build)]
        self.holder = subprocess.Popen(command, stdin=subprocess.PIPE, stdout=subprocess.PIPE, text=True,
                                       preexec_fn=netns.die_with_parent, start_new_session=True)
        line = self.holder.stdout.readline().split()
        if not line or line[0] != "ready":
            raise RuntimeError("the node's namespaces could not be set up")
        self.holder_pid = line[1]

    def _write_secret(self):
        """The node's key, and its secret enciphered with it; the receiver gets the plain one."""
        (self.folder / "secret.txt").write_text(self.secret)
        (self.folder / "secret.txt").chmod(0o600)
        tool = str(self.bin / "zol_secret")
        (self.folder / "zol.key").unlink(missing_ok=True)
        subprocess.run([tool, "make-key", "zol.key"], cwd=self.folder, check=True, capture_output=True)
        made = subprocess.run([tool, "encipher", "zol.key"], cwd=self.folder, check=True, capture_output=True,
                              input=self.secret.encode())
        conf.put(self.tree, "Monitoring.hmac_secret", made.stdout.decode().strip())

    def _sweep_connections(self):
        """The kernel's collector visits a quiet table once a minute; a reader of the table makes it look at once."""
        while not self._sweeper_stop.wait(0.25):
            with contextlib.suppress(RuntimeError, OSError):
                tracking.sweep(self.network.node)

    def write_conf(self):
        """zol.conf and the log's settings, from `tree`, `settings` and `services`."""
        tree = json.loads(json.dumps(self.tree))
        conf.put(tree, "MultipleTargets.services", self.services)
        for key, value in self.settings.items():
            conf.put(tree, key, value)
        self.write_file("zol.conf", conf.write(tree))
        if not (self.folder / "log.properties").exists():
            self.write_file("log.properties", conf.LOG_PROPERTIES)

    def write_file(self, name, text):
        """At once whole: a reader sees the old text or the new one."""
        fresh = self.folder / (name + ".fresh")
        fresh.write_text(text)
        fresh.rename(self.folder / name)

    def set_rules(self, extra=()):
        """Also begins to count from 0."""
        self.network.set_rules(rules.mangle(self.services, network.CLIENT_DEVICE, extra))

    def counted(self):
        """What the kernel's rules counted since set_rules: (service, nibble, direction) to (packets, bytes)."""
        return rules.counted(netns.execute(self.network.node, "iptables-save", "-c", "-t", "mangle"))

    def command(self, *words):
        """A command line that runs inside the node, in its folder."""
        return [sys.executable, str(HERE / "enter.py"), self.holder_pid, str(self.folder), *map(str, words)]

    def run(self, *words, data=None, timeout=PATIENCE, check=True):
        """Runs a command inside the node to its end; the CompletedProcess."""
        ended = subprocess.run(self.command(*words), input=data, capture_output=True, text=True, timeout=timeout)
        if check and ended.returncode != 0:
            raise RuntimeError(f"{words}: status {ended.returncode}: {ended.stderr.strip()}")
        return ended

    def spawn(self, *words, stdin=subprocess.DEVNULL):
        process = Process(self.command(*words), self.folder / f"{pathlib.Path(words[0]).name}.err", stdin)
        self.processes.append(process)
        return process

    # --- its processes --------------------------------------------------------------------------------------------

    def start(self, proxy_options=(), node_options=()):
        """Everything, in the order in which nothing has to wait for another."""
        self.start_receiver()
        self.start_watchdog(*node_options)
        self.start_proxy(*proxy_options)
        return self

    def start_receiver(self):
        """The management server, in the target's namespace."""
        cert = self.folder / "server.pem"
        if not cert.exists():
            netns.run("openssl", "req", "-x509", "-newkey", "ec", "-pkeyopt", "ec_paramgen_curve:prime256v1", "-nodes",
                      "-keyout", str(cert), "-out", str(self.folder / "server.crt"), "-days", "2", "-subj",
                      f"/CN={SERVER_NAME}")
            cert.write_text(cert.read_text() + (self.folder / "server.crt").read_text())
        (self.folder / "control").unlink(missing_ok=True)
        command = ["ip", "netns", "exec", self.network.target, str(self.bin / "hqs_receiver"), "--address",
                   network.SERVER, "--port", str(SERVER_PORT), "--key", self.node_id, "--secret-file",
                   str(self.folder / "secret.txt"), "--window-ms", str(self.setting("Monitoring.hmac_timeout")),
                   "--store", str(self.folder / "requests"), "--cert", str(cert), "--control",
                   str(self.folder / "control")]
        self.receiver = Process(command, self.folder / "hqs_receiver.err")
        self.processes.append(self.receiver)
        run_and_expect(lambda: self.receiver.lines[0], f"ready {SERVER_PORT}")

    def start_watchdog(self, *options):
        """zol_node, and zol_monitor as its child."""
        program = self.folder / "bin" / "zol_monitor"  # the daemon keeps a file beside the path that it was called by
        program.parent.mkdir(exist_ok=True)
        program.unlink(missing_ok=True)
        program.symlink_to(self.bin / "zol_monitor")
        self.watchdog = self.spawn(self.bin / "zol_node", "--monitor", program, "--node", self.node_id, "--control",
                                   *options, stdin=subprocess.PIPE)
        self.watchdog.wait_event("started")
        return self.watchdog

    def start_proxy(self, *options):
        self.proxy = self.spawn(self.bin / "zol_proxy", *options)
        self.proxy.wait_event("ready")
        return self.proxy

    def cli(self, *words, data=None, check=True):
        return self.run(self.bin / "zol_cli", "--node", self.node_id, *words, data=data, check=check)

    def reload(self):
        """Writes the configuration as it stands and has the daemon take it."""
        self.write_conf()
        self.cli("reloadconf")

    def setting(self, key):
        value = {**{key: None}, **self.settings}.get(key)
        if value is None:
            value = self.tree
            for name in key.split("."):
                value = value[name]
        return value

    # --- the daemon -----------------------------------------------------------------------------------------------

    def monitor_pid(self):
        """Its pid inside the node; raises LookupError when it doesn't run."""
        started = self.watchdog.select("started")[-1]["pid"]
        if self.watchdog.select("exited", pid=started):
            raise LookupError("the daemon has ended")
        return started

    def signal_monitor(self, number):
        self.run("kill", f"-{signal.Signals(number).value}", self.monitor_pid())

    def host_pid(self, inner):
        """The pid, in the machine's own view, of a process of the node."""
        home = os.readlink(f"/proc/{self.holder_pid}/ns/pid")
        for entry in pathlib.Path("/proc").glob("[0-9]*"):
            with contextlib.suppress(OSError):
                if os.readlink(entry / "ns/pid") != home:
                    continue
                spaces = [line for line in (entry / "status").read_text().splitlines() if line.startswith("NSpid:")]
                if spaces[0].split()[-1] == str(inner):
                    return int(entry.name)
        raise LookupError(f"no process {inner} in the node")

    def beats(self):
        return len(self.watchdog.select("beat"))

    def log(self):
        path = self.folder / "monitor.log"
        return path.read_text(errors="replace") if path.exists() else ""

    def wait_log(self, text, count=1, timeout=PATIENCE):
        run_and_expect(lambda: self.log().count(text), lambda found: found >= count, timeout)

    def session(self, row, **options):
        """The client's and the target's end of a session through the proxy, of which the daemon has heard both legs.
        One at a time, with a log at debug level."""
        known = self.log().count(IDENTIFIED)
        ends = self.traffic.session(row, **options)
        self.wait_log(IDENTIFIED, known + 2)
        return ends

    # --- the server -----------------------------------------------------------------------------------------------

    def control(self, **request):
        """One command of the receiver's control socket, and its answer."""
        with socket.socket(socket.AF_UNIX) as connection:
            connection.settimeout(10)
            connection.connect(str(self.folder / "control"))
            with connection.makefile("rw") as stream:
                stream.write(json.dumps(request) + "\n")
                stream.flush()
                answer = json.loads(stream.readline())
        if "error" in answer:
            raise RuntimeError(answer["error"])
        return answer

    def requests(self, path=None):
        """What the server has stored, oldest first."""
        records = [json.loads(file.read_text()) for file in sorted((self.folder / "requests").glob("[0-9]*.json"))]
        return [record for record in records if path is None or record["path"] == path]

    def sessions(self):
        """The sessions of all verified reports."""
        return [entry for record in self.requests("/zolSessionReport") if record["verified"]
                for entry in record["body"].get("session_info", [])]

    def wait_sessions(self, count=1, timeout=40):
        return run_and_expect(self.sessions, lambda found: len(found) >= count, timeout, interval=0.1)

    def connections(self):
        return tracking.connections(self.network.node)

    # --- the end --------------------------------------------------------------------------------------------------

    def close(self):
        self._sweeper_stop.set()
        if self._sweeper is not None:
            self._sweeper.join(10)
        for process in reversed(self.processes):
            process.stop()
        for part in (self.traffic, self.name_server):
            if part is not None:
                part.close()
        if self.holder is not None:
            self.holder.stdin.close()
            try:
                self.holder.wait(10)
            except subprocess.TimeoutExpired:
                self.holder.kill()
                self.holder.wait()
            self.holder.stdout.close()
        if self.network is not None:
            self.network.close()

    def remove(self):
        """The folder with all that it holds."""
        shutil.rmtree(self.folder, ignore_errors=True)

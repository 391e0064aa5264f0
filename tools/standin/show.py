"""What the demo prints: each request that the server got, in a few lines."""
import json
import shutil
import time

NAMES_OF_REPORTS = {
    "/zolReport": "periodic report",
    "/zolTrafficReport": "traffic report",
    "/zolEnterpriseTrafficReport": "link traffic report",
    "/zolSessionReport": "session report",
    "/zolEvent": "event",
}
MOST_SESSIONS, MOST_LINKS = 4, 6
NO_TRAFFIC = {stream: {"incoming-bytes": 0, "outgoing-bytes": 0} for stream in ("client-to-server", "server-to-client")}


# --- the periodic report ----------------------------------------------------------------------------------------------

def changes_text(count):
    return f"{count} change" + "s" * (count != 1)


def ping_text(figure):
    """Empty when there was no ping."""
    if not figure["latency_sample_count"]:
        return f"{figure['ip']} no answer" if figure["loss"] else ""
    return (f"{figure['ip']} {figure['latency'] / 1000:.1f} ms, jitter {figure['jitter'] / 1000:.1f}, "
            f"loss {figure['loss']:.0%}")


def connection_lines(connection):
    """One of a site's connections, and why it went down."""
    words = [f"    {connection['internal_id']} {connection['ip']}: {connection['state']}, "
             f"up {connection['connectivity_pct']:.0%} of the time"]
    words += [f"ping {text}" for key in ("monitored_stations", "tunnel_monitor")
              for text in map(ping_text, connection.get(key, [])) if text]
    words += [f"route {subnet}" for subnet in connection.get("bgp_routes", [])]
    yield "; ".join(words)
    for incident in connection.get("incidents", []):
        yield f"        {incident['timestamp']} {incident['reason']} ({incident['log_text']})"


def pair_text(body):
    """The roles of the high-availability pair."""
    own = body.get("high_availability")
    parts = [f"{own['ip']} {own['state']}, {changes_text(own['state_changes_amount'])}"] if own else []
    for tunnel in body.get("primary_secondary_active_tunnel", {}).get("tunnels", []):
        parts.append(f"{tunnel['site_id']} {'active' if tunnel['active_tunnel'] else 'not active'} here, "
                     f"{changes_text(tunnel['state_changes_amount'])}")
    return "; ".join(parts)


def machine_line(machine):
    cpu, ram = machine["cpu"], machine["ram"]
    steal = cpu["cpu-stats"]["steal-average-pc"]
    return (f"    machine {machine['id']} {machine['ip_address']}: {cpu['num-of-cores']} cores at "
            f"{cpu['total']:.1f} %, {steal:.1f} % stolen; {ram['used'] // 1024:,} of {ram['total'] // 1024:,} MB used")


def processes_line(processes):
    return "    processes (cpu, ram): " + ", ".join(
        f"{process['process_name']} {process['cpu']:.1f} % {process['ram']:.1f} %" for process in processes)


def periodic_lines(body):
    """The sessions of the period, the machine and the node's processes; of a middle-mile node its sites."""
    info = body.get("zol-info", {})
    opened = info.get("new-sessions", {})
    yield (f"    {info.get('state')}, {opened.get('traffic', 0)} new connections, "
           f"{info.get('open-sessions-count', 0)} open, {info.get('active-sessions-count', 0)} active, "
           f"failure ratio {info.get('failure-ratio', 0):.2f}")
    if "machine-info" in body:
        yield machine_line(body["machine-info"])
    if info.get("processes_stats"):
        yield processes_line(info["processes_stats"])
    for connection in body.get("vpn-info", {}).get("connections", []):
        yield from connection_lines(connection)
    if pair := pair_text(body):
        yield f"    pair: {pair}"


# --- the others -------------------------------------------------------------------------------------------------------

def stream_text(traffic):
    return "  ".join(f"{short} in {traffic[stream]['incoming-bytes']:,} out {traffic[stream]['outgoing-bytes']:,}"
                     for short, stream in (("to server:", "client-to-server"), ("to client:", "server-to-client")))


def traffic_lines(body):
    for row in body.get("logical-networks", []):
        yield (f"    {row['logical-network-id']}: {row['new-sessions-count']} new, "
               f"{row['active-sessions-count']} active  " + stream_text(row.get("traffic") or NO_TRAFFIC))
    links = body.get("links", [])
    for link in links[:MOST_LINKS]:
        ends = (link[end].get("internal_id", link[end]["type"]) for end in ("src", "dst"))
        yield f"    {' -> '.join(ends)}: {link['src']['bytes']:,} bytes in, {link['dst']['bytes']:,} out"
    if len(links) > MOST_LINKS:
        yield f"    and {len(links) - MOST_LINKS} links more"
    for tunnel in body.get("tunnels", []):
        if tunnel["upload"]["total"] or tunnel["download"]["total"]:
            yield (f"    tunnel to {tunnel['site_name']}: {tunnel['upload']['total']:,} bytes up, "
                   f"{tunnel['download']['total']:,} down")
    totals = body.get("total_traffic", {})
    yield (f"    in all {totals.get('total-bytes', 0):,} bytes, "
           f"{totals.get('total-throughput', 0) / 1000:,.0f} kbit/s, "
           f"{totals.get('total-retransmissions', 0)} retransmissions")


def event_lines(body):
    yield f"    {body.get('eventType')}: {json.dumps(body.get('eventBody'))}"


def end_text(leg):
    return leg["termination_type"] + (f" of {leg['site_id']}" if leg.get("site_id") else "")


def session_line(session):
    inward, outward = session["in_if"], session["out_if"]
    return (f"    {session['ip']}:{session['source_port']} -> {session['next_hop_ip']}  {session['vbn_id']}  "
            f"{session['hop_location']}  {session['domain_name']}  in: {end_text(inward)}  "
            f"out: {end_text(outward)}  rtt {inward['rtt']}/{outward['rtt']} ms")


def session_lines(body):
    sessions = body.get("session_info", [])
    for session in sessions[:MOST_SESSIONS]:
        yield session_line(session) if "source_port" in session else f"    {json.dumps(session)[:200]}"
    if len(sessions) > MOST_SESSIONS:
        yield f"    and {len(sessions) - MOST_SESSIONS} more"


LINES = {
    "/zolReport": periodic_lines,
    "/zolTrafficReport": traffic_lines,
    "/zolEnterpriseTrafficReport": traffic_lines,
    "/zolSessionReport": session_lines,
    "/zolEvent": event_lines,
}


def print_request(record, started):
    name = NAMES_OF_REPORTS.get(record["path"], record["path"])
    verdict = "verified" if record["verified"] else "NOT VERIFIED"
    body = record.get("body")
    print(f"{record['received_ms'] / 1000 - started:6.1f} s  {name}, {verdict}, "
          f"{record['headers'].get('Content-Length')} bytes on the wire", flush=True)
    if not isinstance(body, dict):
        print("    no JSON object:", str(record.get("body_text", body))[:100])
    elif record["path"] in LINES:
        print(*LINES[record["path"]](body), sep="\n", flush=True)


class Reader:
    """Follows the server's store: prints what is new, keeps its bodies by path, and copies it to the folder `out`."""

    def __init__(self, node, out):
        self.node = node
        self.out = out
        self.started = time.time()
        self.seen = set()
        self.refused = 0
        self.session_ports = set()
        self.events = set()
        self.bodies = {path: [] for path in NAMES_OF_REPORTS}
        self.marks = {}

    def mark(self):
        """What has come until now is the past."""
        self.marks = {path: len(bodies) for path, bodies in self.bodies.items()}

    def since_mark(self, path):
        return self.bodies[path][self.marks.get(path, 0):]

    def follow(self):
        for path in sorted((self.node.folder / "requests").glob("[0-9]*.json")):
            if path.name in self.seen:
                continue
            self.seen.add(path.name)
            if self.out:
                shutil.copyfile(path, self.out / path.name)
            record = json.loads(path.read_text())
            self.refused += not record["verified"]
            if isinstance(record.get("body"), dict):
                self._take(record["path"], record["body"])
            print_request(record, self.started)

    def _take(self, path, body):
        self.bodies.setdefault(path, []).append(body)
        self.session_ports.update(session.get("source_port") for session in body.get("session_info", []))
        self.events.add(body.get("eventType"))

    def say(self, text):
        print(f"{time.time() - self.started:6.1f} s  --- {text}", flush=True)

    def until(self, condition, limit):
        end = time.monotonic() + limit
        while not condition() and time.monotonic() < end:
            self.follow()
            time.sleep(0.1)
        self.follow()
        return condition()

    def watch(self, seconds):
        self.until(lambda: False, seconds)

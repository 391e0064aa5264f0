"""A middle-mile node with sites over the three protocols, and the tunnels' programs as scripts that print what a test says.

    north   ipsec, two entry points of one identity; the client's network lies behind it
    south   gre over vti1, with BGP; the target lies behind it
    east    lan: its peer is up while the kernel has its neighbour's address
    road    remote access over ipsec
"""
import pathlib
import struct

from standin import netns, network
from standin import sites as standin_sites
from standin.node import service
from standin.sites import Programs, conn_name, entry, ipsec_connecting, ipsec_up, route_table, site, way  # noqa: F401

PERIOD_MS = 1000
NORTH, NORTH_2, SOUTH, EAST = "192.0.2.11", "192.0.2.12", "192.0.2.21", "192.0.2.31"
SOUTH_INNER, SOUTH_GATEWAY, EAST_INNER = "169.254.7.2", "169.254.7.1", network.SERVER
ROUTING_ID = 2
TABLE = route_table(ROUTING_ID)
HEADER = 48
ROWS, ROW_SIZE, NAME_SIZE = 52, 1501, 1500


def the_sites():
    return [
        site("north", "ipsec", [entry(NORTH, "hub.example", id_as_text=True),
                                entry(NORTH_2, "hub.example", id_as_text=True, priority=2)],
             subnets=("198.51.100.0/24", "10.50.0.0/16"), other_sites=("so",), metadata='{"floor": 3}'),
        site("south", "gre", [entry(SOUTH, "south-peer", vti="vti1", route_based=way(SOUTH_INNER, SOUTH_GATEWAY))],
             subnets=(f"{network.TARGET}/32",), route_based_enabled=True, BGP={"enabled": True}, vpn_group="Branch"),
        site("east", "lan", [entry(EAST, "east-peer", route_based=way(EAST_INNER, network.NODE_OUT))],
             subnets=("10.50.8.0/24", "10.51.0.0/16", "10.52.0.0/16"), default_gateway=True, primary=True),
        site("road", "ipsec", [], type="remote_access", subnets=("10.77.0.0/16",), primary=False),
    ]


def settings(nodes_sites, **changes):
    return {"Monitoring.report_resolution_ms": PERIOD_MS,
            **standin_sites.settings(nodes_sites, ROUTING_ID, network.NODE_IN), **changes}


# --- what the programs print ------------------------------------------------------------------------------------------

NORTH_NAME = conn_name("north", "@hub.example", NORTH)
NORTH_2_NAME = conn_name("north", "@hub.example", NORTH_2)
SOUTH_NAME = conn_name("south", "south-peer", SOUTH, "vti1", group="Branch")
ROAD_NAME = conn_name("road", "", "%any")


def client_up(number, identity, lease, peer):
    return [f'006 #{50 + number}: "{ROAD_NAME}"[{number}] {peer}, type=ESP, add_time=1700000{number:03}, inBytes=0, '
            f"outBytes=0, id='{identity}', lease={lease}/32",
            f'000 #{50 + number}: "{ROAD_NAME}"[{number}] {peer} esp.c1d2e3f4@{peer} esp.a1b2c3d4@{network.NODE_OUT}']


def gre(name, state="Established", address=SOUTH):
    return standin_sites.gre(name, address, state)


def make(make_node, sites=None, **changes):
    """The node, not started, and its programs, with all tunnels but those of remote access up."""
    node = make_node(services=[service(1)], settings=settings(sites or the_sites(), **changes))
    for name, address in ((node.network.node, SOUTH_GATEWAY), (node.network.target, SOUTH_INNER)):
        if name == node.network.node:
            netns.run("ip", "link", "add", "vti1", "netns", name, "type", "veth", "peer", "name", "vti1", "netns",
                      node.network.target)
        netns.run("ip", "-n", name, "address", "add", f"{address}/30", "dev", "vti1")
        netns.run("ip", "-n", name, "link", "set", "vti1", "up")
    programs = Programs(node)
    programs.set_ipsec(ipsec_up(NORTH_NAME, tunnels=3, peer=NORTH) + ipsec_connecting(NORTH_2_NAME))
    programs.set_gre([gre(SOUTH_NAME)])
    return node, programs


# --- what the daemon says ---------------------------------------------------------------------------------------------

def reports(node):
    return [record["body"] for record in node.requests("/zolReport") if record["verified"]]


def connections(node):
    """Those of the last report, by (site, ip)."""
    found = reports(node)
    told = found[-1].get("vpn-info", {}).get("connections", []) if found else []
    return {(each["internal_id"], each["ip"]): each for each in told}


def shared(node, type_name):
    return pathlib.Path("/proc", str(node.holder_pid), "root/dev/shm",
                        f"PN9zol_utils12SharedObjectINS_{type_name}EEE-1.0.0_mem")


def published(node):
    """The tunnel states as the node's other processes read them: name to flag."""
    content = shared(node, "19vpn_tunnel_states_t").read_bytes()
    rows = {}
    for number in range(struct.unpack_from("<I", content, HEADER)[0]):
        row = content[ROWS + number * ROW_SIZE:ROWS + (number + 1) * ROW_SIZE]
        rows[row[:NAME_SIZE].split(b"\0")[0].decode()] = row[NAME_SIZE]
    return rows


def set_med(node, address, med):
    with open(shared(node, "20tunnel_med_results_t"), "r+b") as record:
        record.seek(HEADER)
        record.write(struct.pack("<II", 1, 0) + bytes(map(int, address.split("."))) + struct.pack("<I", med))

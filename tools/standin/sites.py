"""Sites of a middle-mile node: their configuration, and the tunnels' programs as scripts that print what one says.

`ipsec whack` and the tunnel keeper of GRE aren't there on a stand-in node. `Programs` puts scripts in their places,
and one that tells why an IPsec tunnel went down. The state of a local site is the kernel's own ARP table.
"""
import base64

from . import network


# --- what zol.conf says of them ---------------------------------------------------------------------------------------

def entry(ip, identity, **changes):
    """An element of a site's entry_points."""
    return {"enabled": True, "monitored": False, "ip": ip, "id": identity, "psk": "secret", "priority": 1,
            "id_as_text": False, "zol_id_as_text": False, "mark": "0x1", **changes}


def site(internal_id, protocol, entries, **changes):
    """An element of VPNIPsec.sites."""
    row = {"name": f"{internal_id}-office", "internal_id": internal_id, "type": "site", "protocol": protocol,
           "primary": True, "route_based_enabled": False, "BGP": {"enabled": False}, "vpn_group": "Customer",
           "accept_connections": True, "default_gateway": False, "metadata": "", "failover_order": "",
           "subnets": (), "other_sites": (), "entry_points": tuple(entries)}
    return {**row, **changes}


def way(peer, gateway, **changes):
    """An entry's route_based: the inner address of its far end and of this one."""
    return {"primary": {"site_ip": peer, "gw_ip": gateway, "netmask": "255.255.255.252", **changes}}


def route_table(routing_id):
    """The kernel's table with the routes that BGP brought, as `ip` names it."""
    return str(routing_id * 2 + 1001)


def settings(sites, routing_id, ping_from, **changes):
    """What a middle-mile node's configuration has beside the rest; `ping_from` is where pings of stations come from."""
    return {
        "MiddleMileNetwork.enabled": True,
        "Networking.interfaces": ({"interface": network.NODE_OUT, "external_ip": network.NODE_OUT,
                                   "is_private": False},),
        "HopData.hops": ({"hop_id": "hop-1", "is_direct": True},),
        "SharedNetworkData.routing_id": routing_id,
        "IPTables.rate_limit_mbps": 100.0,
        "VPNIPsec.enabled": True,
        "VPNIPsec.icmp_local_address_group": "local",
        "VPNIPsec.icmp_local_addresses": (ping_from,),
        "VPNIPsec.sites": tuple(sites),
        **changes,
    }


# --- what the programs print ------------------------------------------------------------------------------------------

def conn_name(internal_id, right_id, right, vti="", name=None, group="Customer"):
    encoded = base64.b64encode(right_id.encode()).decode()
    return "@".join([name or f"{internal_id}-office", internal_id, encoded, right, network.NODE_OUT, vti, group])


def ipsec_up(name, tunnels=1, peer=None):
    """The lines of a connection whose tunnels stand."""
    lines = [f'006 #{10 + number}: "{name}/{number}x0", type=ESP, add_time=1700000000, inBytes=0, outBytes=0, id=\'x\''
             for number in range(1, tunnels + 1)]
    lines.append(f'000 #2: "{name}/1x0":500 STATE_QUICK_I2 (sent QI2, IPsec SA established); newest IPSEC; idle;')
    if peer is not None:
        lines.append(f'000 #2: "{name}/1x0" esp.c1d2e3f4@{peer} esp.a1b2c3d4@{network.NODE_OUT} ref=0')
    return lines


def ipsec_connecting(name):
    return [f'000 #9: "{name}/1x0":500 STATE_MAIN_I4 (ISAKMP SA established); EVENT_SA_REPLACE in 2s; idle;']


def gre(name, address, state="Established"):
    return f"{name}: ResolvedIP: {address} State: {state}"


class Programs:
    """The tunnels' programs inside a node."""

    SCRIPTS = {"/usr/local/sbin/ipsec": "ipsec.txt", "/opt/gred/gred.sh": "gred.txt"}
    REASON = "/opt/zol/get_pluto_fail_reason.sh"

    def __init__(self, node):
        self.node = node
        for folder in ("/usr/local/sbin", "/opt"):
            node.run("mount", "-t", "tmpfs", "none", folder)
        node.run("mkdir", "/opt/gred", "/opt/zol")
        self.set_ipsec([])
        self.set_gre([])
        for path, text in self.SCRIPTS.items():
            self._install(path, f"exec cat {node.folder}/{text}")

    def _install(self, path, command):
        self.node.run("sh", "-c", f"cat >{path} && chmod 755 {path}", data=f"#!/bin/sh\n{command}\n")

    def set_ipsec(self, lines):
        self.node.write_file("ipsec.txt", "".join(line + "\n" for line in lines))

    def set_gre(self, lines):
        self.node.write_file("gred.txt", "".join(line + "\n" for line in ["GRED: status", *lines]))

    def set_reason(self, log_text, reason):
        """What is answered to who asks why a tunnel went down: the line of the log, and the words for people. Nothing
        is known of one that stays down, which is asked about once a minute."""
        self.node.write_file("reason.txt", f"{log_text}\n{reason}\n")
        self._install(self.REASON, f'[ "$3" = short ] || {{ echo unknown; exit 0; }}\n'
                                   f"exec cat {self.node.folder}/reason.txt")

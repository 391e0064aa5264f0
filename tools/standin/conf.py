"""zol.conf as a Python tree, and its text in libconfig's syntax."""


def put(tree, key, value):
    """Sets a dotted key, making the groups on its way; None removes it."""
    *groups, leaf = key.split(".")
    for group in groups:
        tree = tree.setdefault(group, {})
    if value is None:
        tree.pop(leaf, None)
    else:
        tree[leaf] = value


def quote(text):
    escapes = {"\\": "\\\\", '"': '\\"', "\n": "\\n", "\r": "\\r", "\t": "\\t"}
    return '"' + "".join(escapes.get(letter, letter) for letter in text) + '"'


def to_text(value, indent=""):
    """One value; dicts are groups, lists and tuples are lists."""
    deeper = indent + "  "
    if isinstance(value, bool):
        return "true" if value else "false"
    if isinstance(value, int):
        return str(value) if -(2**31) <= value < 2**31 else f"{value}L"
    if isinstance(value, float):
        text = repr(value)
        return text if "." in text or "e" in text else text + ".0"
    if isinstance(value, str):
        return quote(value)
    if isinstance(value, dict):
        members = "".join(f"{deeper}{name} = {to_text(member, deeper)};\n" for name, member in value.items())
        return "{\n" + members + indent + "}"
    if isinstance(value, (list, tuple)):
        return "(" + ", ".join(to_text(element, indent) for element in value) + ")"
    raise TypeError(f"no setting can hold {value!r}")


def write(tree):
    return "".join(f"{name} = {to_text(value)};\n" for name, value in tree.items())


def defaults(node_id, server_url, external_ip):
    """A node whose session report alone is on, once a second."""
    tree = {}
    for key, value in {
        "General.zol_id": node_id,
        "General.external_ip": external_ip,
        "General.network_id": "net-1",
        "General.hop_id": "hop-1",
        "General.mask_client_address": False,
        "General.ipc_write_sleep_time_us": 1000,
        "General.max_thread_runtime_ms": 60000,
        "General.message_check_timeout_ms": 5000,
        "General.hqs_http_client_timeout_sec": 20,
        "Monitoring.enabled": True,
        "Monitoring.log_config_file": "log.properties",
        "Monitoring.hqs_receiver_url": server_url,
        "Monitoring.hqs_slr_receiver_url": server_url,
        "Monitoring.hmac_timeout": 60000,
        "Monitoring.report_resolution_ms": 0,
        "Monitoring.traffic_report_resolution_ms": 0,
        "Monitoring.session_report_resolution_ms": 1000,
        "Monitoring.polling_rate_ms": 20,
        "Monitoring.event_suppression_ms": 60000,
        "Monitoring.reporter_total_retries": 2,
        "Monitoring.compress_report": True,
        "Monitoring.session_report_is_enabled": True,
        "Monitoring.report_incomplete_sessions": True,
        "Monitoring.session_report_max_sessions": 0,
        "Monitoring.traffic_report_diagnostics_enabled": False,
        "Monitoring.DetectedIPsReport.enabled": False,
        "Monitoring.domain_level_traffic": False,
        "Monitoring.conntrack_states_enabled": False,
        "Monitoring.unmarked_target": "nobody",  # an empty one would fit a service without aux_host
        "Monitoring.send_meta_data_on_events": False,
        "Monitoring.send_meta_data_on_session_report": False,
        "Monitoring.send_meta_data_on_periodic_report": False,
        "TrafficReport.enabled": True,
        "TrafficReport.next_hop": "",
        "MiddleMileNetwork.enabled": False,
        "IPTables.internal_base_port": 5000,
        "IPTables.internal_port_range_start": 5000,
        "IPTables.internal_port_range_end": 5999,
        "IPTables.udp.enabled": False,
        "HighAvailability.enabled": False,
        "BlackHole.enabled": False,
        "Failopen.threshold": 3,
        "Failopen.return_wait_period": 60,
        "Watchdog.max_missed_threshold_ms": 30_000,
    }.items():
        put(tree, key, value)
    return tree


LOG_PROPERTIES = """\
log4cpp.rootCategory=DEBUG, file
log4cpp.appender.file=FileAppender
log4cpp.appender.file.fileName=monitor.log
log4cpp.appender.file.layout=PatternLayout
log4cpp.appender.file.layout.ConversionPattern=%d [%p] %c: %m%n
"""

"""The configuration's command, zol_conf, and the names that the daemon shows to the node's libraries."""
import os
import pathlib
import random
import re
import resource
import shutil
import subprocess
import time

import pytest

ROOT = pathlib.Path(__file__).resolve().parents[2]
BIN = pathlib.Path(os.environ.get("ZOL_BUILD", ROOT / "build" / "release")) / "bin"
EXPORTED = {
    "zol_conf_consts::general_zol_id_key", "zol_conf_consts::general_external_ip_key",
    "zol_conf_consts::general_mask_client_address_key", "zol_conf_consts::zol_udp_enabled_key",
    "zol_conf_consts::middle_mile_network_enabled_key", "zol_conf_consts::logger_log_level_key",
    "zol_conf_consts::logger_schedule_key", "zol_conf_consts::logger_max_file_size_key",
    "zol_conf_consts::logger_max_file_index_key", "zol_conf_consts::logger_enhanced_sar_key",
    "kpa_conf_consts::kpa_id_key", "kpa_conf_consts::kpa_public_ip_key",
}
NOBODY = 65534


def zol_conf(*arguments, **options):
    return subprocess.run([BIN / "zol_conf", *arguments], capture_output=True, text=True, timeout=60, **options)


@pytest.fixture
def files(tmp_path):
    """Three files to merge, in a folder that anybody may enter."""
    for folder in (tmp_path, *tmp_path.parents):
        if folder != pathlib.Path("/tmp") and pathlib.Path("/tmp") in folder.parents:
            folder.chmod(0o755)
    texts = {"local": "G: { a = 2; };\n", "base": "G: { a = 1; };\n", "target": "G: { a = 1; b = 3; };\n"}
    for name, text in texts.items():
        (tmp_path / name).write_text(text)
    return tmp_path


def merge(folder, **options):
    return zol_conf("merge", folder / "local", folder / "base", folder / "target", **options)


def test_names_for_the_libraries():
    """Verifies that the daemon's dynamic symbols hold the twelve names that the node's libraries read, as data."""
    lines = subprocess.run(["nm", "-D", "-C", "--defined-only", BIN / "zol_monitor"], capture_output=True, text=True,
                           check=True).stdout.splitlines()
    data = {line.split(maxsplit=2)[2] for line in lines if line.split(maxsplit=2)[1] in "DBV"}
    assert EXPORTED <= data


def test_example_is_good(files):
    """Verifies that the check finds nothing in the repository's example, and leaves no file beside it."""
    before = set(files.iterdir())
    shutil.copy(ROOT / "zol.conf.example", files / "zol.conf")
    ended = zol_conf("check", files / "zol.conf")
    assert (ended.returncode, ended.stdout, ended.stderr) == (0, "", "")
    assert set(files.iterdir()) - before == {files / "zol.conf"}


def test_daemon_takes_the_example(make_node):
    """Verifies that the daemon starts with the example as its configuration, and reads it again, without an error."""
    node = make_node()
    text = (ROOT / "zol.conf.example").read_text().replace('"zol-4711"', f'"{node.node_id}"')
    node.write_file("zol.conf", text)
    node.start_watchdog()
    node.watchdog.wait_event("beat")
    node.cli("reloadconf")
    node.wait_log("Need reconf: ")
    wrong = [line for line in node.log().splitlines()
             if re.search(r"is missing|couldn't|Couldn't|Failed to retrieve|out of range|Wiping|Missing", line)]
    assert not wrong


def test_nodes_configuration_is_good(make_node):
    """Verifies that the check finds nothing in the configuration with which the tests run the daemon."""
    ended = zol_conf("check", make_node().folder / "zol.conf")
    assert (ended.returncode, ended.stdout) == (0, "")


def test_check_finds_with_lines(files):
    """Verifies that findings are told with file and line, with status 1, on standard output alone."""
    (files / "zol.conf").write_text("General:\n{\n  zol_di = \"x\";\n  max_thread_runtime_ms = 4294967297;\n};\n")
    ended = zol_conf("check", files / "zol.conf")
    place = f"{files}/zol.conf:"
    assert ended.returncode == 1 and ended.stderr == ""
    lines = ended.stdout.splitlines()
    assert f"{place}3: unknown key General.zol_di, the nearest is General.zol_id" in lines
    assert f"{place}4: 4294967297 doesn't fit into 32 bits" in lines
    assert f"{place}1: General.zol_id is missing: the daemon ends at its start" in lines
    assert f"{place} Monitoring.polling_rate_ms is missing: the daemon ends at the first report" in lines


def test_check_of_included_files(files):
    """Verifies that an included file is found as the daemon finds it, beside the file, and named in a finding."""
    shutil.copy(ROOT / "zol.conf.example", files / "zol.conf")
    with (files / "zol.conf").open("a") as file:
        file.write('@include "more.conf"\n')
    (files / "more.conf").write_text("\n\nFailopne = 5;\n")
    ended = zol_conf("check", files / "zol.conf")
    assert (ended.returncode, ended.stdout) == (1, "more.conf:3: unknown key Failopne, and no known one is near\n")
    assert sorted(path.name for path in files.iterdir()) == ["base", "local", "more.conf", "target", "zol.conf"]


@pytest.mark.parametrize("command", ["check", "list"])
def test_unusable_files(files, command):
    """Verifies that a file that is missing, a folder or broken is told with its place, with status 2."""
    (files / "broken").write_text("G: {\n a = ;\n};\n")
    for name, text in (("none", f"Failed to open configuration file [none]"), ("", "Failed to open"),
                       ("broken", f"{files}/broken:2: syntax error")):
        ended = zol_conf(command, files / name)
        assert ended.returncode == 2 and ended.stdout == ""
        assert text in ended.stderr


def test_list(files):
    """Verifies that all settings are listed, of lists and arrays too, in the file's order."""
    (files / "zol.conf").write_text('b = true; G: { l = ( 1, { s = "x" } ); r = [ 2.5 ]; n = 5L; }; a = -1;')
    ended = zol_conf("list", files / "zol.conf")
    assert ended.returncode == 0
    assert ended.stdout.splitlines() == ["b=true", "G.l.[0]=1", "G.l.[1].s=x", "G.r.[0]=2.5", "G.n=5", "a=-1"]


def test_merge(files):
    """Verifies that a merge writes the target, silently, and tells with -v what isn't carried."""
    (files / "local").write_text("G: { a = 2; lost = 1; l = ( 1 ); };\n")
    ended = zol_conf("-v", "merge", files / "local", files / "base", files / "target")
    assert ended.returncode == 0
    assert "G.lost does not exist in the new configuration file" in ended.stderr
    assert zol_conf("list", files / "target").stdout.splitlines() == ["G.a=2", "G.b=3"]
    (files / "local").write_text("G: { a = 3; };\n")
    ended = merge(files)
    assert (ended.returncode, ended.stdout, ended.stderr) == (0, "", "")
    assert zol_conf("list", files / "target").stdout.splitlines() == ["G.a=3", "G.b=3"]


@pytest.mark.parametrize("name", ["local", "base", "target"])
@pytest.mark.parametrize("fault", ["missing", "folder", "broken", "unreadable"])
def test_merge_of_unusable_files(files, name, fault):
    """Verifies that each file in each unusable state ends the merge with status 2 and leaves the target's bytes."""
    path = files / name
    if fault in ("missing", "folder"):
        path.unlink()
    if fault == "folder":
        path.mkdir()
    if fault == "broken":
        path.write_text("G: {\n a = ;\n};\n")
    if fault == "unreadable":
        path.chmod(0)
    before = (files / "target").read_bytes() if (files / "target").is_file() else None
    ended = merge(files, user=NOBODY, group=NOBODY, extra_groups=[])
    assert ended.returncode == 2
    expected = f"{path}:2: syntax error" if fault == "broken" else f"Failed to open configuration file [{path}]"
    assert expected in ended.stderr
    assert ((files / "target").read_bytes() if (files / "target").is_file() else None) == before


@pytest.mark.parametrize("fault", ["file", "folder", "owner"])
def test_merge_into_a_target_that_isnt_writable(files, fault):
    """Verifies that a target that can't be written or replaced ends the merge with status 2, unchanged."""
    target = files / "target"
    if fault == "file":
        os.chown(files, NOBODY, NOBODY)  # the folder would let it be replaced
    elif fault == "folder":
        target.chmod(0o666)
    else:
        os.chown(files, NOBODY, NOBODY)
        target.chmod(0o666)  # writable, but a new file would belong to another
    before = target.read_bytes()
    ended = merge(files, user=NOBODY, group=NOBODY, extra_groups=[])
    assert ended.returncode == 2
    assert f"Failed to write configuration file [{target}]" in ended.stderr
    assert target.read_bytes() == before
    assert sorted(path.name for path in files.iterdir()) == ["base", "local", "target"]


def test_merge_killed_at_any_moment(files):
    """Verifies that a merge that is killed at any moment leaves the old target or the whole new one."""
    members = "".join(f'  setting_{i} = "{"x" * 50}";\n' for i in range(1500))
    old = "G:\n{\n  a = 1;\n" + members + "};\n"
    (files / "target").write_text(old)
    assert merge(files).returncode == 0
    new = (files / "target").read_text()
    assert "a = 2;" in new
    started = time.monotonic()
    (files / "target").write_text(old)
    assert merge(files).returncode == 0
    whole = time.monotonic() - started
    chance = random.Random(4711)
    for _ in range(30):
        (files / "target").write_text(old)
        process = subprocess.Popen([BIN / "zol_conf", "merge", files / "local", files / "base", files / "target"])
        try:
            process.wait(chance.uniform(0, whole))
        except subprocess.TimeoutExpired:
            process.kill()
        process.wait()
        assert (files / "target").read_text() in (old, new)


def test_full_disk(files):
    """Verifies that a write that fails ends the merge with status 2, the target as it was and no other file."""
    (files / "target").write_text("G: { a = 1; };\n" + "".join(f"s{i} = 1;\n" for i in range(2000)))
    before = (files / "target").read_bytes()

    def limit():
        resource.setrlimit(resource.RLIMIT_FSIZE, (4096, 4096))
    ended = merge(files, preexec_fn=limit, restore_signals=False)  # SIGXFSZ stays ignored
    assert ended.returncode == 2
    assert f"Failed to write configuration file [{files}/target]" in ended.stderr
    assert (files / "target").read_bytes() == before
    assert sorted(path.name for path in files.iterdir()) == ["base", "local", "target"]


def test_usage():
    """Verifies that bad usage has status 2 and the usage on standard error, and that help has status 0."""
    for arguments in ((), ("merge", "a", "b"), ("check",), ("list", "a", "b"), ("other", "x"), ("-v",)):
        ended = zol_conf(*arguments)
        assert ended.returncode == 2 and ended.stdout == "" and ended.stderr.startswith("usage: zol_conf")
    ended = zol_conf("--help")
    assert ended.returncode == 0 and "Exit status" in ended.stdout


def test_manual_pages():
    """Verifies that the manual pages are built, that groff has nothing to say against them, and that the one of the
    file tells each setting of the example."""
    man = BIN.parent / "share" / "man"
    page = (man / "man5" / "zol.conf.5").read_text()
    told = set(re.findall(r"^\.BR (\S+) \" \(", page, re.M))
    listed = zol_conf("list", ROOT / "zol.conf.example").stdout
    for key in re.findall(r"^([\w.]+)=", listed, re.M):
        assert key in told, key
    for name in ("WANProxy.tcp_pool.type", "General.kpa_id", "limitedAnycast", "internet_anyplace"):
        assert f'.BR "{name}"' in page
    if shutil.which("groff") is None:
        return
    for path in (man / "man5" / "zol.conf.5", man / "man1" / "zol_conf.1"):
        ended = subprocess.run(["groff", "-man", "-Tutf8", "-ww", "-z", path], capture_output=True, text=True)
        assert (ended.returncode, ended.stderr) == (0, "")

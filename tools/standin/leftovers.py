"""What a run that was killed leaves: its namespaces and its folder. The next run removes them."""
import os
import pathlib
import re
import shutil
import tempfile

from . import netns, network

FOLDER = re.compile(r"zol-run-(\d+)-")


def make_folder():
    """A folder for a node, whose name tells the process that it belongs to."""
    return tempfile.mkdtemp(prefix=f"zol-run-{os.getpid()}-")


def sweep():
    netns.sweep(network.PREFIX)
    for folder in pathlib.Path(tempfile.gettempdir()).glob("zol-run-*"):
        found = FOLDER.match(folder.name)
        if found and not pathlib.Path("/proc", found[1]).exists():
            shutil.rmtree(folder, ignore_errors=True)

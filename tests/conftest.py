import os
import re
from collections import Counter
from pathlib import Path
from tempfile import TemporaryDirectory

import pytest

from wikis import Wiki

FIGURES = pytest.StashKey[Counter]()


def pytest_addoption(parser):
    parser.addoption("--figures", type=Path, help="a document with table rows `| name | figure |`, to be rewritten")


def pytest_configure(config):
    config.stash[FIGURES] = Counter()


def pytest_terminal_summary(terminalreporter, config):
    for name, figure in config.stash[FIGURES].items():
        terminalreporter.write_line(f"{name}: {figure:,}")
    if document := config.getoption("figures"):
        text = document.read_text("utf-8")
        for name, figure in config.stash[FIGURES].items():
            text, found = re.subn(
                rf"^\| {re.escape(name)} \|.*\|$", f"| {name} | {figure:,} |", text, flags=re.MULTILINE
            )
            if not found:
                terminalreporter.write_line(f"{document} has no row for: {name}", red=True)
        document.write_text(text, "utf-8")


@pytest.fixture
def figures(pytestconfig):
    """What was tried, by name, counted over the run and told at its end: `figures["kills survived"] += 1`."""
    return pytestconfig.stash[FIGURES]


@pytest.fixture
def quick_folder(tmp_path):
    """A folder in memory, where that can be had."""
    if not os.access("/dev/shm", os.W_OK):
        yield tmp_path
        return
    with TemporaryDirectory(dir="/dev/shm") as folder:
        yield Path(folder)


@pytest.fixture
def wiki(tmp_path):
    wiki = Wiki(tmp_path)
    yield wiki
    wiki.repository.close()

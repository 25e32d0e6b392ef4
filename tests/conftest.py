import os
import re
from collections import Counter
from pathlib import Path
from tempfile import TemporaryDirectory

import pytest

from wikis import Wiki

FIGURES = Counter()


def pytest_addoption(parser):
    parser.addoption("--figures", type=Path, help="a document with table rows `| name | figure |`, to be rewritten")


def pytest_terminal_summary(terminalreporter, config):
    document = config.getoption("figures")
    text = document.read_text("utf-8") if document else ""
    for name, figure in FIGURES.items():
        text, found = re.subn(rf"(?m)^\| {re.escape(name)} \|.*$", f"| {name} | {figure:,} |", text)
        terminalreporter.write_line(f"{name}: {figure:,}", red=bool(document and not found))  # one without a row is red
    if document:
        document.write_text(text, "utf-8")


@pytest.fixture
def figures():
    """What was tried, by name, counted over the run and told at its end: `figures["kills survived"] += 1`."""
    return FIGURES


@pytest.fixture
def quick_folder(tmp_path):
    """A folder in memory, where that can be had."""
    with TemporaryDirectory(dir="/dev/shm" if os.access("/dev/shm", os.W_OK) else tmp_path) as folder:
        yield Path(folder)


@pytest.fixture
def wiki(tmp_path):
    wiki = Wiki(tmp_path)
    yield wiki
    wiki.repository.close()

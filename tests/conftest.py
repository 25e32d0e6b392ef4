import os
from collections import Counter
from pathlib import Path

import pytest
import sqlalchemy as sa

from quillstone.storage.repository import wiki_pages

DATABASES = {"sqlite": "sqlite:///{}/store.sqlite", "postgresql": os.environ.get("QUILLSTONE_TEST_DATABASE")}
FIGURES = Counter()
BENCHMARKS = Path(__file__).parent.parent / "benchmarks"


def pytest_terminal_summary(terminalreporter):
    for name, figure in FIGURES.items():
        terminalreporter.write_line(f"{name}: {figure:,}")


@pytest.fixture
def figures():
    return FIGURES  # what was tried, by name, told at the end of the run


@pytest.fixture
def with_benchmarks():
    """The environment of a process that imports the wikis in memory of the benchmarks."""
    return {**os.environ, "PYTHONPATH": os.pathsep.join([str(BENCHMARKS), os.environ.get("PYTHONPATH", "")])}


@pytest.fixture(params=[name for name, url in DATABASES.items() if url])
def database(request, tmp_path):
    """The URL of a database without tables, whatever earlier runs left in it."""
    url = DATABASES[request.param].format(tmp_path)
    wiki_pages.metadata.drop_all(sa.create_engine(url, poolclass=sa.NullPool))
    return url

"""A source tree, a store for each database there is, and a generator over both."""

from __future__ import annotations

import os
from collections.abc import Iterator
from pathlib import Path

import pytest
import sqlalchemy as sa

from quillstone.storage.repository import Repository
from quillstone.workers.wiki.generator import WikiGenerator
from trees import SOURCES, write_files

DATABASES = ["sqlite", *filter(None, [os.environ.get("QUILLSTONE_TEST_DATABASE")])]


@pytest.fixture
def tree(tmp_path: Path) -> Path:
    return write_files(tmp_path / "tree", SOURCES)


@pytest.fixture(params=DATABASES)
def database_url(request: pytest.FixtureRequest, tmp_path: Path) -> str:
    if request.param == "sqlite":
        return f"sqlite:///{tmp_path / 'store.sqlite'}"
    earlier = Repository(request.param)
    with earlier.db.transaction() as connection:
        tables = sa.MetaData()
        tables.reflect(connection)
        tables.drop_all(connection)
    earlier.close()
    return str(request.param)


@pytest.fixture
def repository(database_url: str) -> Iterator[Repository]:
    repository = Repository(database_url)
    yield repository
    repository.close()


@pytest.fixture
def generator(repository: Repository, tree: Path, tmp_path: Path) -> WikiGenerator:
    """A wiki that is indexed and built."""
    generator = WikiGenerator(repository, tree, "main", tmp_path / "wiki")
    generator.index()
    generator.build()
    return generator

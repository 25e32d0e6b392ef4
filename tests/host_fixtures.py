"""A source tree, a store for each database there is, and a generator over both."""

import os
from contextlib import closing

import pytest

from quillstone.storage.repository import Repository, wiki_pages
from quillstone.workers.wiki.generator import WikiGenerator
from trees import SOURCES, write_files


@pytest.fixture
def tree(tmp_path):
    return write_files(tmp_path / "tree", SOURCES)


@pytest.fixture(params=["sqlite", *(["postgresql"] if "QUILLSTONE_TEST_DATABASE" in os.environ else [])])
def database(request, tmp_path):
    """The URL of a database without tables, whatever earlier runs left in it."""
    if request.param == "sqlite":
        return f"sqlite:///{tmp_path / 'store.sqlite'}"
    with closing(Repository(url := os.environ["QUILLSTONE_TEST_DATABASE"])) as earlier:
        wiki_pages.metadata.drop_all(earlier.db.engine)
    return url


@pytest.fixture
def repository(database):
    with closing(Repository(database)) as repository:
        yield repository


@pytest.fixture
def generator(repository, tree, tmp_path):
    """A wiki that is indexed and built."""
    generator = WikiGenerator(repository, tree, "main", tmp_path / "wiki")
    generator.index()
    generator.build()
    return generator

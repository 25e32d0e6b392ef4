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


@pytest.fixture(params=["sqlite", *filter(None, [os.environ.get("QUILLSTONE_TEST_DATABASE")])])
def repository(request, tmp_path):
    """An empty store, whatever earlier runs left in the database."""
    url = f"sqlite:///{tmp_path / 'store.sqlite'}" if request.param == "sqlite" else request.param
    with closing(Repository(url)) as earlier:
        wiki_pages.metadata.drop_all(earlier.db.engine)
    with closing(Repository(url)) as repository:
        yield repository


@pytest.fixture
def generator(repository, tree, tmp_path):
    """A wiki that is indexed and built."""
    generator = WikiGenerator(repository, tree, "main", tmp_path / "wiki")
    generator.index()
    generator.build()
    return generator

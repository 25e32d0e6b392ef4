import os

import pytest

from quillstone.storage.repository import Database, wiki_pages


@pytest.fixture(params=["sqlite", *(["postgresql"] if "QUILLSTONE_TEST_DATABASE" in os.environ else [])])
def database(request, tmp_path):
    """The URL of a database without tables, whatever earlier runs left in it."""
    if request.param == "sqlite":
        return f"sqlite:///{tmp_path / 'store.sqlite'}"
    earlier = Database(url := os.environ["QUILLSTONE_TEST_DATABASE"]).engine
    wiki_pages.metadata.drop_all(earlier)
    earlier.dispose()
    return url

import pytest

from wikis import Wiki


@pytest.fixture
def wiki(tmp_path):
    wiki = Wiki(tmp_path)
    yield wiki
    wiki.repository.close()

"""Every touch of a host (attribute, call, item, truth test, path, name of the namespace) happens as in plain Python:
in the same order, with the same arguments, also when any one of them raises."""

import pytest

import oracle
from quillstone.workers.wiki import page_retirement
from worlds import run


@pytest.mark.parametrize("traced", [True, False])
@pytest.mark.parametrize("seed", range(150))
def test_touches_are_those_of_plain_python(seed, traced):
    assert run(seed, page_retirement, traced) == run(seed, oracle, traced)


@pytest.mark.parametrize("seed", range(8))
def test_a_failure_at_any_touch_unwinds_as_in_plain_python(seed):
    touches = run(seed, oracle, traced=True)[1]
    for fail_at in range(len(touches)):
        assert run(seed, page_retirement, True, fail_at) == run(seed, oracle, True, fail_at), touches[fail_at]

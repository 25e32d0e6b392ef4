"""What is left of a failure at any operation on a host."""

import gc

import pytest

from leaks import growth
from quillstone.workers.wiki import page_retirement
from quillstone.workers.wiki.page_retirement import PageRetirementMixin
from worlds import fail, run

RUNS = [(1, 9), (5, 9), *(pytest.param(seed, 1, marks=pytest.mark.long) for seed in range(30))]


@pytest.mark.parametrize(("seed", "step"), RUNS)
def test_a_failure_leaves_every_reference_and_block_where_it_was(seed, step, figures):
    watched = [None, True, False, "", 0, *vars(page_retirement).values(), *vars(PageRetirementMixin).values()]
    watched += [page_retirement._judged_sources.__code__.co_consts[-1].__self__]  # the module's state
    operations = run(seed, page_retirement, True)[1]
    gc.collect()
    gc.freeze()  # a collection then takes no longer than what it looks for
    for at in range(seed % step, len(operations), step):
        assert not any(growth(lambda at=at: run(seed, page_retirement, True, False, at, fail), watched)), operations[at]
        figures["faults injected"] += 1
    gc.unfreeze()

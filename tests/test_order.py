"""Hosts drawn from a seed: whatever they are and whatever happens to them, the module does what plain Python does, with
the same operations on the host's objects in the same order."""

import contextlib

import pytest

import oracle
from quillstone.workers.wiki import page_retirement
from quillstone.workers.wiki.page_retirement import PageRetirementMixin
from worlds import COLLABORATORS, World, disturb, fail, give_something_odd, restored, run

TRACED = pytest.mark.parametrize("traced", [True, False])
ODD = pytest.mark.parametrize("odd", [True, False])
SEEDS = [*range(4), *(pytest.param(seed, marks=pytest.mark.long) for seed in range(4, 60))]


@TRACED
@ODD
@pytest.mark.parametrize("seed", range(150))
def test_operations_are_those_of_plain_python(seed, odd, traced):
    assert run(seed, page_retirement, traced, odd) == run(seed, oracle, traced, odd)


@TRACED
@ODD
@pytest.mark.parametrize("incident", [fail, disturb, give_something_odd])
@pytest.mark.parametrize("seed", SEEDS)
def test_what_happens_at_an_operation(seed, incident, odd, traced, figures):
    for at, operation in enumerate(run(seed, oracle, traced, odd)[1]):
        ours, plain = (run(seed, rules, traced, odd, at, incident) for rules in (page_retirement, oracle))
        assert ours == plain, (at, operation)
        figures[f"operations at which something happened: {incident.__name__}"] += 1


METHODS = [name for name, method in vars(PageRetirementMixin).items() if callable(method)]


@pytest.mark.parametrize("name", [*METHODS, "_judged_sources", "merged_predecessors", *COLLABORATORS])
def test_a_call_that_leads_back_ends_in_recursion_error(name):
    def again(*args):
        calls.append(name)
        return world.replan()

    calls, seeds = [], iter(range(20))
    while not calls:  # not every world calls it
        with restored(page_retirement), contextlib.suppress(RecursionError):
            world = World(next(seeds), page_retirement, False)
            for _ in range(2000):  # takes no level of recursion for good
                page_retirement._judged_sources(page={}, existing={})
            setattr(type(world.host) if name in METHODS else page_retirement, name, again)
            world.replan()
            assert not calls
    assert len(calls) > 50

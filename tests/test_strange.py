"""Strange but legal: what is read changes meanwhile, ids and rows are of any type; right is what plain Python does."""

import json
import types

import pytest

import oracle
from quillstone.workers.wiki import page_retirement
from quillstone.workers.wiki.page_retirement import PageRetirementMixin
from worlds import Recorder, World, run

SEEDS = [*range(4), *(pytest.param(seed, marks=pytest.mark.long) for seed in range(4, 60))]


@pytest.mark.parametrize("traced", [True, False])
@pytest.mark.parametrize("odd", [True, False])
@pytest.mark.parametrize("seed", SEEDS)
def test_what_changes_in_the_middle(seed, odd, traced, figures):
    touches = run(seed, oracle, traced, odd=odd)[1]
    for at in range(len(touches)):
        ours, plain = (run(seed, rules, traced, disturb_at=at, odd=odd) for rules in (page_retirement, oracle))
        assert ours == plain, (at, touches[at])
        figures["disturbances in the middle of a replan"] += 1


@pytest.mark.parametrize("seed", range(100))
def test_ids_rows_and_sets_of_any_type(seed):
    for traced in (True, False):
        assert run(seed, page_retirement, traced, odd=True) == run(seed, oracle, traced, odd=True)


METHODS = [name for name in vars(PageRetirementMixin) if name.startswith("_") and not name.startswith("__")]
FUNCTIONS = "_judged_sources _norm cached_prose carried_sections merged_predecessors page_prose with_carried".split()


@pytest.mark.parametrize("name", [*METHODS, *FUNCTIONS, "_atomic_write"])
def test_a_call_that_leads_back_ends_in_recursion_error(name):
    def again(*args):
        calls.append(name)
        return host._apply_replan_to_store(world.remap, world.plan_ids)

    for seed in range(20):
        calls, world = [], World(seed, page_retirement, Recorder(), False)
        host = world.host
        setattr(type(host), name, again) if name in METHODS else world.space.update({name: again})
        try:
            host._apply_replan_to_store(world.remap, world.plan_ids)
        except RecursionError:
            break
        assert not calls
    assert len(calls) > 50


def test_huge_and_deep_build_caches():
    stored, deep = [], []
    host = PageRetirementMixin()
    host.branch = "main"
    host.repository = types.SimpleNamespace(upsert_wiki_page=lambda *args, **fields: stored.append(fields))
    huge = {"prose": "\udc80" * 10**6, **{f"é{i}": [i] * 10 for i in range(50_000)}}
    host._upsert_successor("new", {"build_cache": huge}, [], ())
    assert json.loads(stored[0]["build_cache"]) == huge
    for _ in range(100_000):
        deep = [deep]
    circle = {}
    circle["itself"] = circle
    for cache, error in (({"deep": deep}, RecursionError), (circle, ValueError)):
        with pytest.raises(error):
            host._upsert_successor("new", {"build_cache": cache}, [], ())
    assert len(stored) == 1

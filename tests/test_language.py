"""Where the module does by itself what the interpreter does for Python code: errors, `with`, loops, generators."""

import gc
import sys
import traceback
import types
from pathlib import Path

import pytest

from quillstone.workers.wiki import page_retirement
from quillstone.workers.wiki.page_retirement import PageRetirementMixin


class Fault(Exception):
    pass


def simple(**store):
    """A host whose selection and carry are given, over a store of these operations."""

    class Host(PageRetirementMixin):
        deletes = frozenset()
        successors = types.MappingProxyType({})
        _retired_page_ids = lambda self, existing, plan_ids: self.deletes
        _carry_into_successors = lambda self, remap, deletes: self.successors

    host = Host()
    host.repository, host.branch = types.SimpleNamespace(**store), "main"
    return host


def transaction(leave=lambda *error: None):
    manager = type("Manager", (), {"__enter__": lambda self: None, "__exit__": lambda self, *error: leave(*error)})()
    return types.SimpleNamespace(transaction=lambda: manager)


def raising(error):
    def function(*args, **kwargs):
        raise error

    return function


def entries(error):
    return [(frame.name, frame.filename.rpartition("/")[2]) for frame in traceback.extract_tb(error.__traceback__)]


@pytest.mark.parametrize("way", ["direct", "keywords", "profiled", "class"])
def test_a_traceback_names_method_file_and_line(way):
    error, host = Fault(), simple(list_indexed_files=len)
    host.repository.list_indexed_files = raising(error)
    call = {
        "class": lambda: PageRetirementMixin._indexed_paths(host),
        "keywords": lambda: PageRetirementMixin._indexed_paths(self=host),
    }
    sys.setprofile((lambda *event: None) if way == "profiled" else None)
    try:
        with pytest.raises(Fault) as caught:
            call.get(way, host._indexed_paths)()
    finally:
        sys.setprofile(None)
    assert caught.value is error
    found = [f for f in traceback.extract_tb(error.__traceback__) if f.filename.endswith("index_guard.cpp")]
    assert [f.name for f in found] == ["_indexed_paths"]
    assert found[0].filename == "src/quillstone/workers/wiki/page_retirement/index_guard.cpp"
    source = Path(__file__).parent.parent / found[0].filename
    assert "list_files.with_keywords(" in source.read_text("utf-8").splitlines()[found[0].lineno - 1]


def test_exit_sees_the_exception_as_a_with_statement_shows_it():
    error, seen = Fault(), []

    def leave(kind, value, trace):
        seen.append((kind, value, sys.exc_info() == (kind, value, trace)))
        seen.append(("_prune_retired_pages", "prune.cpp") in entries(value) and value.__traceback__ is trace)

    host = simple(db=transaction(leave), delete_wiki_page=raising(error))
    host.deletes = {"a"}
    caller = LookupError()
    try:
        raise caller
    except LookupError:
        with pytest.raises(Fault) as caught:
            host._prune_retired_pages({}, set())
        assert sys.exc_info()[1] is caller
    assert seen == [(Fault, error, True), True]
    assert caught.value is error and error.__context__ is caller
    assert entries(error).count(("_prune_retired_pages", "prune.cpp")) == 1


def test_an_exception_of_exit_has_the_first_as_its_context():
    first, second = Fault(), KeyboardInterrupt()
    host = simple(db=transaction(lambda *error: raising(second)()), delete_wiki_page=raising(first))
    host.deletes = {"a"}
    with pytest.raises(KeyboardInterrupt) as caught:
        host._prune_retired_pages({}, set())
    assert caught.value is second and second.__context__ is first
    assert sys.exc_info() == (None, None, None)
    host = simple(db=transaction(lambda *error: True), delete_wiki_page=raising(first))
    host.deletes = {"a"}
    with pytest.raises(RuntimeError, match="swallowed"):
        host._prune_retired_pages({}, set())


def test_pairs_come_from_a_real_generator(wiki, monkeypatch):
    for page_id in "abc":
        wiki.page(page_id)
    kept = []

    def first_only(pairs):
        assert type(pairs) is types.GeneratorType and pairs.gi_frame is not None
        assert pairs.__qualname__ == "PageRetirementMixin._carry_into_successors.<locals>.<genexpr>"
        assert pairs.__name__ == pairs.gi_code.co_name == "<genexpr>"
        title, prose = next(pairs)
        pairs.close()
        kept.append(pairs)
        return [title + prose]

    monkeypatch.setattr(page_retirement, "merged_predecessors", lambda remap: {"c": ["a", "b"]})
    monkeypatch.setattr(page_retirement, "carried_sections", first_only)
    assert wiki._carry_into_successors({}, {"a", "b"})["c"][2] == ["AProse of a."]
    assert list(kept[0]) == []
    monkeypatch.setattr(page_retirement, "carried_sections", list)
    monkeypatch.setattr(page_retirement, "page_prose", raising(StopIteration()))
    with pytest.raises(RuntimeError, match="generator raised StopIteration") as caught:
        wiki._carry_into_successors({}, {"a", "b"})
    assert ("<genexpr>", "carry.cpp") in entries(caught.value.__cause__)
    lazy = []
    monkeypatch.setattr(page_retirement, "carried_sections", lambda pairs: lazy.append(pairs) or [])
    wiki._carry_into_successors({}, {"a", "b"})
    with pytest.raises(RuntimeError):
        next(lazy[0])


def select(existing, during):
    """Selects from `existing` while `during` is called for each page."""

    class Host(PageRetirementMixin):
        _indexed_paths = lambda self: {"x"}
        _notes_whose_file_is_gone = lambda self, existing: set()

        def _retired_only_because_the_index_is_behind(self, page_id, *rest):
            during(page_id)
            return False

    return Host()._retired_page_ids(existing, set())


def test_a_dict_that_changes_while_it_is_read():
    pages = {name: {} for name in "abc"}
    with pytest.raises(RuntimeError, match=r"^dictionary changed size during iteration$"):
        select(pages, lambda page_id: pages.update({page_id + "+": {}}))
    pages = {name: {} for name in "ab"}

    def replace(page_id):
        del pages[page_id]
        pages[page_id + "+"] = {}

    with pytest.raises(RuntimeError, match=r"^dictionary keys changed during iteration$"):
        select(pages, replace)
    pages = {name: {} for name in "abc"}
    assert select(pages, lambda page_id: pages.update(c={"level": "note"})) == {"a", "b"}


def test_a_list_that_changes_while_it_is_read(monkeypatch):
    files = ["a", "b", "c"]

    def norm(path):
        if path == "a":
            files[1:] = ["new"]
        return path.upper()

    monkeypatch.setattr(page_retirement, "_norm", norm)
    assert page_retirement._judged_sources({"source_files": files}, {}) == ["A", "NEW"]
    monkeypatch.setattr(page_retirement, "_norm", lambda path: files.clear() or path)
    assert page_retirement._judged_sources({"source_files": files}, {}) == ["a"]


@pytest.mark.parametrize(
    ("result", "error", "text"),
    [
        (7, TypeError, "cannot unpack non-iterable int object"),
        ((1, 2, 3), ValueError, "not enough values to unpack (expected 4, got 3)"),
        (iter(range(5)), ValueError, "too many values to unpack (expected 4)"),
        ([[{}], 0, 0, 0], KeyError, "'path'"),
        (iter(([], 0, 0, 0)), None, ""),
    ],
)
def test_unpacking_the_index(result, error, text):
    host = simple(list_indexed_files=lambda *, source_only, limit: result)
    if error is None:
        assert host._indexed_paths() == set()
        return
    with pytest.raises(error) as caught:
        host._indexed_paths()
    assert str(caught.value) == text


def test_calls_that_recurse_end_in_recursion_error():
    class Endless(PageRetirementMixin):
        _retired_page_ids = PageRetirementMixin._prune_retired_pages
        _page_text = property(lambda self: self._page_text("x"))

    with pytest.raises(RecursionError):
        Endless()._prune_retired_pages({}, set())
    with pytest.raises(RecursionError):
        Endless()._prune_retired_pages({}, set(), None)


def test_code_and_globals_may_be_replaced_in_the_middle_of_a_call(monkeypatch):
    judged = page_retirement._judged_sources
    code = judged.__code__

    def norm(path):
        judged.__code__ = (lambda page, existing: ["other"]).__code__
        vars(page_retirement)["_norm"] = str.upper
        gc.collect()
        return path

    monkeypatch.setattr(page_retirement, "_norm", norm)
    try:
        assert judged({"source_files": ["a", "b"]}, {}) == ["a", "B"]
        assert judged({"source_files": ["a", "b"]}, {}) == ["other"]
    finally:
        judged.__code__ = code


class Number:
    """A page id that is no str."""

    def __init__(self, number):
        self.number = number

    def __format__(self, spec):
        return f"page-{self.number}{spec}"

    def __lt__(self, other):
        return self.number < other.number


def test_ids_that_are_no_str_are_formatted(wiki):
    wiki.file("page-7").write_text("seven")
    assert wiki._page_text(Number(7)) == "seven"
    note = Number(8)
    wiki.note("page-9")
    assert wiki._notes_whose_file_is_gone({note: {"level": "note"}, Number(9): {"level": "note"}}) == {note}
    calls = []
    host = simple(upsert_wiki_page=lambda *args, **fields: calls.append((args, fields)))
    host._upsert_successor(note, {"title": ""}, [], [])
    ((_, new_id, title), fields) = calls[0]
    assert new_id is title is note and fields["rel_path"] == "pages/page-8.md"


def test_a_build_cache_is_what_python_takes_for_a_dict():
    calls = []
    host = simple(upsert_wiki_page=lambda *args, **fields: calls.append(fields))
    lying = type("Lying", (), {"__class__": dict, "keys": lambda self: ["é"], "__getitem__": lambda self, key: 1})()
    for cache, text in [("text", "{}"), (types.MappingProxyType({"a": 1}), "{}"), (lying, '{"é": 1}')]:
        host._upsert_successor("new", {"build_cache": cache}, [], ())
        assert calls[-1]["build_cache"] == text
    assert calls[0]["related_pages"] is not calls[1]["related_pages"]
    with pytest.raises(TypeError, match="not JSON serializable"):
        host._upsert_successor("new", {"build_cache": {"a": {1}}}, [], ())
    assert len(calls) == 3

"""Where the module does by itself what the interpreter does for Python code: errors, `with`, loops, generators."""

import _thread
import contextlib
import functools
import gc
import io
import itertools
import json
import operator
import os
import signal
import subprocess
import sys
import textwrap
import traceback
import types
from pathlib import Path

import pytest

import oracle
from quillstone.workers.wiki import page_retirement
from quillstone.workers.wiki.page_retirement import PageRetirementMixin
from wikis import Wiki


class Fault(Exception):
    pass


def simple(leave=lambda *error: None, **store):
    """A host that deletes the page "a" and carries nothing, over a store of these operations."""

    class Host(PageRetirementMixin):
        _retired_page_ids = lambda self, existing, plan_ids: {"a"}
        _carry_into_successors = lambda self, remap, deletes: types.MappingProxyType({})

    class Transaction:
        __enter__ = lambda self: None
        __exit__ = lambda self, *error: leave(*error)

    host = Host()
    host.repository = types.SimpleNamespace(db=types.SimpleNamespace(transaction=Transaction), **store)
    host.branch = "main"
    return host


def raising(error):
    def function(*args, **kwargs):
        raise error

    return function


def entries(error):
    return [(frame.name, frame.filename.rpartition("/")[2]) for frame in traceback.extract_tb(error.__traceback__)]


@pytest.mark.parametrize("profiled", [False, True])
def test_a_traceback_names_method_file_and_line(profiled):
    error, seen = Fault(), []
    profile = lambda frame, event, argument: seen.append((event, frame.f_code.co_name))
    host = simple(list_indexed_files=raising(error))
    for call in (host._indexed_paths, lambda: PageRetirementMixin._indexed_paths(self=host)):
        sys.setprofile(profile if profiled else None)
        try:
            with pytest.raises(Fault) as caught:
                call()
        finally:
            sys.setprofile(None)
        assert caught.value is error
        (found,) = (f for f in traceback.extract_tb(error.__traceback__) if f.filename.endswith("index_guard.cpp"))
        assert found.name == "_indexed_paths" and found.filename.startswith("src/quillstone/")
        source = Path(__file__).parent.parent / found.filename
        assert ".with_keywords(" in source.read_text("utf-8").splitlines()[found.lineno - 1]
        error.__traceback__ = None
    assert seen.count(("call", "_indexed_paths")) == (2 if profiled else 0)


def test_exit_sees_the_exception_as_a_with_statement_shows_it():
    error, caller, seen = Fault(), LookupError(), []

    def leave(kind, value, trace):
        seen.append((kind, value, value.__traceback__ is trace, sys.exc_info() == (kind, value, trace)))
        seen.append(("_prune_retired_pages", "prune.cpp") in entries(value))

    try:
        raise caller
    except LookupError:
        with pytest.raises(Fault) as caught:
            simple(leave, delete_wiki_page=raising(error))._prune_retired_pages({}, set())
        assert sys.exc_info()[1] is caller
    assert seen == [(Fault, error, True, True), True]
    assert caught.value is error and error.__context__ is caller
    assert entries(error).count(("_prune_retired_pages", "prune.cpp")) == 1


def test_what_exit_makes_of_an_exception():
    first, second = Fault(), KeyboardInterrupt()
    with pytest.raises(KeyboardInterrupt) as caught:
        simple(raising(second), delete_wiki_page=raising(first))._prune_retired_pages({}, set())
    assert caught.value is second and second.__context__ is first
    assert sys.exc_info() == (None, None, None)
    with pytest.raises(RuntimeError, match="swallowed") as caught:
        simple(lambda *error: True, delete_wiki_page=raising(first))._prune_retired_pages({}, set())
    assert caught.value.__cause__ is first


def test_an_exit_of_another_type_is_refused_before_anything_is_done():
    deleted = []
    host = simple(delete_wiki_page=lambda branch, page_id: deleted.append(page_id))
    for wrong in (io.IOBase.__exit__, str.upper, int.__add__):
        host.repository.db.transaction = type("Odd", (), {"__enter__": deleted.append, "__exit__": wrong})
        with pytest.raises(TypeError, match="doesn't apply to a 'Odd' object"):
            host._prune_retired_pages({}, set())
    assert deleted == []


def test_members_of_modules_are_looked_up_at_each_use(monkeypatch):
    calls = []
    host = simple(upsert_wiki_page=lambda *args, **fields: calls.append(fields["build_cache"]))
    answers = itertools.count()
    odd = types.ModuleType("odd")

    def answering(name):
        text = f"{name} {next(answers)}"
        return lambda cache, ensure_ascii: text

    odd.__getattr__ = answering
    monkeypatch.setattr(json, "dumps", lambda cache, ensure_ascii: "patched")
    for module in (json, odd, odd, types.SimpleNamespace(dumps=lambda cache, ensure_ascii: "no module")):
        monkeypatch.setattr(page_retirement, "json", module)
        host._upsert_successor("new", {}, [], ())
    monkeypatch.undo()
    host._upsert_successor("new", {}, [], ())
    assert calls == ["patched", "dumps 0", "dumps 1", "no module", "{}"]


@pytest.fixture
def wiki(monkeypatch):
    monkeypatch.setattr(page_retirement, "_atomic_write", lambda path, text: path.write_text(text))
    return Wiki()


def test_pairs_come_from_a_real_generator(wiki, monkeypatch):
    for page_id in "abc":
        wiki.page(page_id)
    kept = []

    def first_only(pairs):
        assert type(pairs) is types.GeneratorType and pairs.gi_frame is not None
        assert pairs.__qualname__ == "PageRetirementMixin._carry_into_successors.<locals>.<genexpr>"
        kept.append(pairs)
        return ["".join(next(pairs))]

    monkeypatch.setattr(page_retirement, "merged_predecessors", lambda remap: {"c": ["a", "b"]})
    monkeypatch.setattr(page_retirement, "carried_sections", first_only)
    assert wiki._carry_into_successors({}, {"a", "b"})["c"][2] == ["AProse of a."]
    kept[0].close()
    assert list(kept[0]) == []
    monkeypatch.setattr(page_retirement, "carried_sections", list)
    monkeypatch.setattr(page_retirement, "page_prose", raising(StopIteration()))
    with pytest.raises(RuntimeError, match="generator raised StopIteration") as caught:
        wiki._carry_into_successors({}, {"a", "b"})
    assert ("<genexpr>", "carry.cpp") in entries(caught.value.__cause__)


def select(existing, during):
    """Selects from `existing` while `during` is called for each page."""

    class Host(PageRetirementMixin):
        _indexed_paths = lambda self: {"x"}
        _notes_whose_file_is_gone = lambda self, existing: set()
        _retired_only_because_the_index_is_behind = lambda self, page_id, *rest: during(page_id)

    return Host()._retired_page_ids(existing, set())


def test_a_dict_that_changes_while_it_is_read():
    pages = {name: {} for name in "abc"}
    with pytest.raises(RuntimeError, match=r"^dictionary changed size during iteration$"):
        select(pages, lambda page_id: pages.update({page_id + "+": {}}))
    pages = {name: {} for name in "ab"}
    with pytest.raises(RuntimeError, match=r"^dictionary keys changed during iteration$"):
        select(pages, lambda page_id: pages.update({page_id + "+": pages.pop(page_id)}))
    pages = {name: {} for name in "abc"}
    assert select(pages, lambda page_id: pages.update(c={"level": "note"})) == {"a", "b"}


def test_a_list_that_changes_while_it_is_read(monkeypatch):
    files = ["a", "b", "c"]
    monkeypatch.setattr(page_retirement, "_norm", lambda path: files.pop() and path)
    assert page_retirement._judged_sources({"source_files": files}, {}) == ["a", "b"]


def test_children_are_read_as_they_are_by_then(monkeypatch):
    rows = {"x": {"source_files": ["a"]}, "y": {"source_files": ["b"]}}
    family = {"related_pages": ["x", "y"]}
    monkeypatch.setattr(page_retirement, "_norm", lambda path: rows.update(y={"source_files": ["c"]}) or path)
    assert page_retirement._judged_sources(family, rows) == ["a", "c"]
    monkeypatch.setattr(page_retirement, "_norm", lambda path: rows.pop("y") and path)
    with pytest.raises(KeyError, match="y"):
        page_retirement._judged_sources(family, rows)
    asked = []
    changing = type("Changing", (str,), {"__hash__": lambda self: asked.append(self) or hash("x")})
    assert page_retirement._judged_sources({"related_pages": [changing("x")]}, {"x": {}}) == []
    assert asked == ["x", "x"]  # whether it is stored, and its row


def test_sources_meet_the_index_as_sets_do(monkeypatch):
    host = simple()
    host.repo_root = Path("/nowhere")
    alike = type("Alike", (str,), {"__hash__": lambda self: hash("a"), "__eq__": lambda self, other: True})
    met = []
    indexed = type("Index", (set,), {"__rand__": lambda self, other: met.append(other)})
    for sources, index in [(["a", []], {"a"}), (["a"], ["a"])]:
        monkeypatch.setattr(page_retirement, "_judged_sources", lambda page, existing, sources=sources: sources)
        with pytest.raises(TypeError):
            host._retired_only_because_the_index_is_behind("page", {}, index, {})
    for sources, index in [([alike("b")], {"a"}), (["b", "a"], {"a"}), (["a"], indexed({"a"}))]:
        monkeypatch.setattr(page_retirement, "_judged_sources", lambda page, existing, sources=sources: sources)
        host.repo_root = Path("/nowhere") if index.__class__ is indexed else None  # not asked where the index has it
        assert host._retired_only_because_the_index_is_behind("page", {}, index, {}) is False
    assert met == [{"a"}]


@pytest.mark.filterwarnings("ignore::DeprecationWarning")
def test_a_str_made_the_old_way_is_a_str_all_the_same():
    legacy = pytest.importorskip("_testcapi").unicode_legacy_string
    pages = {"note": {"level": legacy("note")}, "page": {"level": legacy("other")}, "none": {"level": legacy("")}}
    assert select(pages, lambda page_id: False) == {"page", "none"}


class Colliding(str):
    """A key that meets every look-up of "title" and cannot be compared."""

    __hash__ = lambda self: hash("title")
    __eq__ = raising(Fault())


ODD = [
    *({"listed": value} for value in (7, (1, 2, 3), range(5), [[], 2, 3, 4], ([{}], 1, 2, 3), {1, 2})),
    *(
        {"listed": type("Odd", (), {"__iter__": value})()}
        for value in (None, raising(TypeError("t")), raising(Fault()))
    ),
    *({"json": value} for value in (types.ModuleType.__new__(types.ModuleType), types.SimpleNamespace(dumps=None))),
    *({"successors": {"é": value}} for value in (7, (1, 2), [{}, [], []], range(4), ({"title": "T"}, [], ["s"]))),
    *({"successors": types.SimpleNamespace(items=lambda v=value: v)} for value in ([7], [("n",)], ["npq"], 7)),
    *({"transaction": value} for value in (7, type("Half", (), {"__enter__": print}), contextlib.nullcontext)),
    *({"successors": {"n": (row, [], [])}} for row in ({Colliding("x"): 1}, {"build_cache": 7}, 7)),
    *({"plan": value} for value in (["p"], type("Row", (), {"__getitem__": lambda self, i: ["p"][i]})(), 7, range(3))),
    *({"NOTE_LEVEL": value} for value in (7, type("Text", (str,), {})("module"), None)),
    *({"level": value} for value in (7, type("Text", (str,), {})("note"), ["note"], "nota")),
]


@pytest.mark.parametrize("odd", ODD, ids=lambda odd: "-".join(odd))
def test_values_of_other_types(odd, monkeypatch):
    def outcome(rules):
        calls, host = [], type("Host", (rules.PageRetirementMixin,), {})()
        host._carry_into_successors = lambda *args: odd.get("successors", {"n": ({}, [], [])})
        host._notes_whose_file_is_gone = lambda existing: set()
        host.branch = "main"
        host.repository = types.SimpleNamespace(
            list_indexed_files=lambda **keywords: odd.get("listed", ([{"path": "a"}], 0, 0, 0)),
            db=types.SimpleNamespace(transaction=odd.get("transaction", contextlib.nullcontext)),
            delete_wiki_page=lambda *args: calls.append(args),
            upsert_wiki_page=lambda *args, **fields: calls.append((args, fields)),
        )
        names = {"NOTE_LEVEL": "note", "_norm": str, "with_carried": max, "cached_prose": repr, "json": json}
        for name, value in names.items():
            monkeypatch.setattr(rules, name, odd.get(name, value), raising=False)
        rows = {"p": {"level": odd.get("level", "module")}, "q": {"level": "note"}}
        try:
            return host._prune_retired_pages(rows, odd.get("plan", set())), calls
        except Exception as error:
            return type(error), str(error), calls

    assert outcome(page_retirement) == outcome(oracle)


def test_namespaces_of_other_types():
    class Changing(str):
        """A key that meets every look-up of "_norm" and changes what is looked through."""

        __hash__ = lambda self: hash("_norm")

        def __eq__(self, other):
            if left:
                space.update({f"{len(space)}": 1, "_norm": left.pop()})
            return False

    page, outcomes = {"source_files": ["aB", "bC", "cD", "dE"]}, []
    for code in (page_retirement._judged_sources.__code__, oracle._judged_sources.__code__):
        left = []
        space = {Changing("key"): 0, "_norm": str.title}
        left += [str.lower, str.upper, str.swapcase] * 2
        outcomes.append(types.FunctionType(code, space)(page, {}))
        builtins = type("Builtins", (dict,), {})(_norm=str.upper)
        outcomes[-1] += types.FunctionType(code, {"__builtins__": builtins})(page, {})
    assert outcomes[0] == outcomes[1]


def test_a_long_loop_lets_signals_in(monkeypatch):
    monkeypatch.setattr(page_retirement, "_norm", operator.truth)  # no Python code runs in the loop
    numbers, many = itertools.count(), 10**7
    before = signal.signal(signal.SIGALRM, raising(Fault()))
    signal.setitimer(signal.ITIMER_REAL, 0.05)
    try:
        with pytest.raises(Fault):
            page_retirement._judged_sources({"source_files": itertools.islice(numbers, many)}, {})
    finally:
        signal.signal(signal.SIGALRM, before)
    assert next(numbers) < many  # in the middle of the loop, not after it


def test_many_children_let_signals_in(monkeypatch):
    monkeypatch.setattr(page_retirement, "_norm", _thread.interrupt_main)  # a signal by its number
    last = iter([signal.SIGALRM])
    rows = {"first": {"source_files": [signal.SIGALRM]}, "other": {}, "last": {"source_files": last}}
    before = signal.signal(signal.SIGALRM, raising(Fault()))
    try:
        with pytest.raises(Fault):
            page_retirement._judged_sources({"related_pages": ["first", *["other"] * 10_000, "last"]}, rows)
    finally:
        signal.signal(signal.SIGALRM, before)
    assert list(last) == [signal.SIGALRM]  # the loop did not come that far


def test_what_is_no_longer_used_goes_when_it_goes_in_plain_python(monkeypatch):
    log = []

    class Text(str):
        __del__ = lambda self: log.append(f"{self}")

    class Row(dict):
        __del__ = lambda self: log.append(self["page_id"])

    class Rows(dict):
        __contains__ = lambda self, page_id: True
        __getitem__ = lambda self, page_id: Row(page_id=f"row {page_id}", source_files=["file"])
        items = lambda self: ((Text(f"key {i}"), Row(page_id=f"value {i}", level="note")) for i in range(2))

    class Transaction:
        __enter__ = staticmethod(lambda: log.append("enter"))
        __exit__ = lambda self, *error: Text("answer")
        __del__ = lambda self: log.append("transaction")

    class HeldByNobody(Transaction):
        __exit__ = staticmethod(lambda *error: None)

    def scenario(rules):
        for name, value in (("_norm", lambda path: log.append(f"norm {path}")), ("NOTE_LEVEL", "note")):
            monkeypatch.setattr(rules, name, value, raising=False)
        host = type("Host", (rules.PageRetirementMixin,), {})()
        listed = ([{"path": "p"}], *map(Text, ("more", "limit", "total")))
        answers = [listed]
        del listed
        host.repository = types.SimpleNamespace(
            list_indexed_files=lambda **keywords: answers.pop(),
            db=types.SimpleNamespace(),
            delete_wiki_page=lambda branch, page_id: False,
        )
        host.branch = "main"
        rules._judged_sources({"related_pages": (Text(f"child {i}") for i in range(3))}, Rows())
        host._indexed_paths()
        host._indexed_paths, host._notes_whose_file_is_gone = lambda: {"p"}, lambda existing: set()
        host._retired_page_ids(Rows(), set())
        host._retired_page_ids, host._carry_into_successors = lambda *args: set(), lambda *args: {}
        for host.repository.db.transaction in (Transaction, HeldByNobody):
            host._prune_retired_pages({}, set())
        seen = log.copy()
        log.clear()
        return seen

    assert scenario(page_retirement) == scenario(oracle)


def test_a_callee_that_does_not_keep_to_the_protocol(monkeypatch):
    _testcapi = pytest.importorskip("_testcapi")
    for callee in (_testcapi.return_null_without_error, _testcapi.return_result_with_error):
        monkeypatch.setattr(page_retirement, "_norm", lambda path: path)
        monkeypatch.setattr(page_retirement, "_judged_sources", callee)
        host = simple()
        host._indexed_paths = callee
        with pytest.raises(SystemError, match="returned"):
            PageRetirementMixin._retired_page_ids(host, {}, set())


def test_a_thread_that_the_interpreter_ends_does_not_take_the_process_along():
    program = """
        import itertools, threading
        from quillstone.workers.wiki import page_retirement
        started = threading.Event()
        page_retirement._norm = lambda path: started.set()
        pages = {"source_files": itertools.repeat("a")}
        threading.Thread(target=page_retirement._judged_sources, args=(pages, {}), daemon=True).start()
        started.wait()
    """
    environment = {**os.environ, "ASAN_OPTIONS": "detect_leaks=0"}  # what the thread held stays
    for _ in range(5):  # where the end finds the thread is a matter of chance
        subprocess.run([sys.executable, "-c", textwrap.dedent(program)], check=True, env=environment)


def test_calls_that_recurse_end_in_recursion_error():
    class Endless(PageRetirementMixin):
        repository, branch = types.SimpleNamespace(get_wiki_pages=list), ()
        _retired_page_ids = PageRetirementMixin._apply_replan_to_store

    for call in (
        lambda: Endless()._prune_retired_pages({}, set()),
        lambda: Endless()._apply_replan_to_store({}, set()),
    ):
        with pytest.raises(RecursionError):
            call()


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


def test_a_caller_may_let_go_of_the_arguments_in_the_middle_of_a_call():
    class Page(dict):
        def get(self, key):
            call.__setstate__((len, (), {}, None))  # drops the function's arguments, this page among them
            gc.collect()
            return [Page() for _ in range(100)] and dict.get(self, key)

    call = functools.partial(page_retirement._judged_sources, Page(related_pages=["x"]), {"x": {"source_files": ["a"]}})
    assert call() == ["a"]


def test_ids_that_are_no_str_are_formatted(wiki, tmp_path):
    wiki.pages_dir = tmp_path / "pages"
    wiki.pages_dir.mkdir()
    (tmp_path / "notes").mkdir()
    (tmp_path / "notes/9.md").touch()
    assert wiki._page_text(7) is None
    wiki.file("7").write_text("seven")
    assert wiki._page_text(7) == "seven"
    assert wiki._notes_whose_file_is_gone({8: {"level": "note"}, 9: {"level": "note"}}) == {8}
    for page_id in ("é", "漢", "😀"):
        wiki.file(page_id).write_text(page_id, "utf-8")
        assert wiki._page_text(page_id) == page_id


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


def test_a_log_record_says_where_it_comes_from(wiki, caplog):
    wiki.page("late")
    wiki.repository.indexed = []
    wiki._prune_retired_pages(wiki.rows(), set())
    assert [(record.funcName, record.filename) for record in caplog.records] == [("_retired_page_ids", "selection.cpp")]

"""Where the module does by itself what the interpreter does for Python code: errors, `with`, loops, generators.

Most of it is a table of scenarios that are played with the module and with the same rules in plain Python.
"""

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
import warnings
from pathlib import Path

import pytest

import oracle
from quillstone.workers.wiki import page_retirement
from quillstone.workers.wiki.page_retirement import PageRetirementMixin

_testcapi = pytest.importorskip("_testcapi")


class Fault(Exception):
    pass


def raising(error):
    def function(*args, **kwargs):
        raise error

    return function


LOG = []


class Text(str):
    """A string whose end is seen."""

    __del__ = lambda self: LOG.append(f"{self} goes")


class Row(dict):
    __del__ = lambda self: LOG.append(f"{self.get('page_id')} goes")


class Rows(dict):
    """A snapshot whose rows and ids nobody else holds."""

    __contains__ = lambda self, page_id: True
    __getitem__ = lambda self, page_id: Row(page_id=f"row {page_id}", source_files=["file"])
    items = lambda self: ((Text(f"key {i}"), Row(page_id=f"value {i}", level="note")) for i in range(2))


class Transaction:
    """One that logs, and leaves as it is told to."""

    leave = staticmethod(lambda *error: Text("answer"))
    __enter__ = staticmethod(lambda: LOG.append("enter"))
    __del__ = lambda self: LOG.append("transaction goes")

    def __exit__(self, kind, value, trace):
        # What a frame of plain Python shows in between is of its own making.
        names = [frame.name for frame in traceback.extract_tb(trace) if frame.name.startswith("_")]
        known = sys.exc_info() == (kind, value, trace)
        LOG.append((kind, known, value and value.__traceback__ is trace, names))
        return self.leave(kind, value, trace)


class Colliding(str):
    """A key that meets every look-up of "title" and cannot be compared."""

    __hash__ = lambda self: hash("title")
    __eq__ = raising(Fault())


class Lying:
    """No dict, though it says so."""

    __class__ = dict
    keys = lambda self: ["é"]
    __getitem__ = lambda self, key: 1


class Changing(str):
    """A key that meets every look-up of "_norm" and changes what is looked through."""

    __hash__ = lambda self: hash("_norm")

    def __eq__(self, other):
        if self.left:
            self.space.update({f"{len(self.space)}": 1, "_norm": self.left.pop()})
        return False


class Counting(str):
    """An id that tells when its hash is asked for."""

    __hash__ = lambda self: LOG.append("hash") or hash("x")


def host_of(rules, **odd):
    """A host that deletes the page "a" and carries nothing, but for what is `odd`."""
    host = type("Host", (rules.PageRetirementMixin,), {})()
    store = types.SimpleNamespace(
        list_indexed_files=lambda **keywords: odd.get("listed", ([{"path": "a"}], 0, 0, 0)),
        delete_wiki_page=odd.get("delete", lambda *args: LOG.append(args)),
        upsert_wiki_page=lambda *args, **fields: LOG.append((args, fields)),
        db=types.SimpleNamespace(transaction=odd.get("transaction", contextlib.nullcontext)),
    )
    host.repository, host.branch, host.repo_root = store, "main", Path("/nowhere")
    host._retired_page_ids = lambda existing, plan_ids: {"a"}
    host._carry_into_successors = lambda *args: odd.get("successors", {})
    host._notes_whose_file_is_gone = lambda existing: set()
    host.pages_dir = Path("/nowhere")
    names = {"NOTE_LEVEL": "note", "_norm": str, "with_carried": max, "cached_prose": repr, "json": json}
    vars(rules).update(names | {name: odd[name] for name in (*names, "_judged_sources") if name in odd})
    return host


def pruned(**odd):
    return lambda rules: host_of(rules, **odd)._prune_retired_pages({}, set())


def selected(level="module", plan=frozenset(), existing=None, during=None, **odd):
    def scenario(rules):
        host = host_of(rules, **odd)
        del host._retired_page_ids
        if during:
            host._indexed_paths = lambda: {"x"}
            host._retired_only_because_the_index_is_behind = lambda page_id, *rest: during(page_id, pages)
        pages = existing() if existing else {"p": {"level": level}, "q": {"level": "note"}}
        return host._retired_page_ids(pages, plan)

    return scenario


def guarded(sources, index):
    def scenario(rules):
        host = host_of(rules, _judged_sources=lambda page, existing: sources)
        return host._retired_only_because_the_index_is_behind("page", {}, index, {})

    return scenario


def judged(page, existing, **odd):
    def scenario(rules):
        rows = existing()
        host_of(rules, **{name: value(rows) for name, value in odd.items()})
        return rules._judged_sources(page, rows)

    return scenario


def fails_in_the_middle(rules, leave):
    """A caller that handles an exception itself."""
    error, caller = Fault("inner"), LookupError()
    transaction = type("Leaving", (Transaction,), {"leave": staticmethod(leave)})
    try:
        raise caller
    except LookupError:
        try:
            return host_of(rules, transaction=transaction, delete=raising(error))._prune_retired_pages({}, set())
        except BaseException as caught:
            assert rules is oracle or type(caught) is not RuntimeError or caught.__cause__ is error
            frames = [frame for frame in traceback.extract_tb(error.__traceback__) if frame.filename[0] != "<"]
            names = [frame.name for frame in frames].count("_prune_retired_pages")
            return repr(caught), repr(caught.__context__), names, sys.exc_info()[1] is caught
        finally:
            LOG.append(sys.exc_info()[1] is caller)


def modules_by_turns(rules):
    """Members of modules are looked up at each use."""
    answers, odd = itertools.count(), types.ModuleType("odd")

    def answering(name):
        text = f"{name} {next(answers)}"
        return lambda cache, ensure_ascii: text

    odd.__getattr__ = answering
    patched = types.SimpleNamespace(dumps=lambda cache, ensure_ascii: "no module")
    other = types.ModuleType("other")
    for module, text in (
        (json, None),
        (odd, None),
        (odd, None),
        (patched, None),
        (other, "x"),
        (other, "y"),
        (json, None),
    ):
        if text:
            other.dumps = lambda cache, ensure_ascii, text=text: text
        host_of(rules, json=module)._upsert_successor("new", {}, [], ())


def names_by_turns(rules):
    """Names are looked up at each use, in a namespace of any type."""
    outcomes, page, code = [], {"source_files": ["aB", "bC", "cD", "dE"]}, rules._judged_sources.__code__
    Changing.left = [str.lower, str.upper, str.swapcase] * 2
    Changing.space = {Changing("key"): 0, "_norm": str.title}
    builtins = type("Builtins", (dict,), {})(_norm=str.upper)
    for space in (Changing.space, {"__builtins__": builtins}, {"__builtins__": {}}, {"_norm": len}):
        judged = types.FunctionType(code, space)
        for _ in range(2):
            try:
                outcomes.append(judged(page, {}))
            except NameError as error:
                outcomes.append((str(error), error.name))
            space.update(_norm=str.lower)
    for judged, name in ((rules._judged_sources, "_norm"), (rules._judged_sources, "len")):
        host_of(rules, _norm=str.upper)
        outcomes += [judged(page, {}), vars(rules).pop("_norm"), name]
        with contextlib.suppress(NameError):
            judged(page, {})
    return outcomes


def pairs_one_by_one(rules):
    host, seen = host_of(rules), []
    del host._carry_into_successors
    rows = [{"page_id": page_id, "title": page_id.title()} for page_id in "abc"]
    host.repository.get_wiki_pages = lambda branch: rows
    host._page_text = lambda page_id: f"text of {page_id}"

    def first_only(pairs):
        seen.append(pairs)
        return ["".join(next(pairs))]

    stopping = [lambda text, row: text, raising(StopIteration())]
    for page_prose in stopping:
        vars(rules).update(merged_predecessors=lambda remap: {"c": ["a", "b"]}, carried_sections=first_only)
        vars(rules).update(page_prose=page_prose, with_carried=lambda text, blocks: "")
        LOG.append(host._carry_into_successors({}, {"a", "b"}) if page_prose is stopping[0] else len(seen))
    pairs = seen[0]
    LOG.append((type(pairs), pairs.__qualname__, pairs.gi_frame is not None, pairs.close(), list(pairs)))
    return host._carry_into_successors({}, {"a", "b"})


def what_is_no_longer_used_goes(rules):
    host = host_of(rules, _norm=lambda path: LOG.append(f"norm {path}"))
    answers = [([{"path": "p"}], *map(Text, ("more", "limit", "total")))]
    host.repository.list_indexed_files = lambda **keywords: answers.pop()
    rules._judged_sources({"related_pages": (Text(f"child {i}") for i in range(3))}, Rows())
    host._indexed_paths()
    host._indexed_paths = lambda: {"p"}
    del host._retired_page_ids
    host._retired_page_ids(Rows(), set())
    host._retired_page_ids = lambda *args: set()
    for host.repository.db.transaction in (
        Transaction,
        type("HeldByNobody", (Transaction,), {"__exit__": staticmethod(lambda *error: None)}),
    ):
        host._prune_retired_pages({}, set())


def lists_are_not_shared(rules):
    host = host_of(rules)
    for _ in range(2):
        host._upsert_successor("new", {}, [], ())
    lists = [fields["related_pages"] for _, fields in LOG]
    return lists[0] is lists[1]


def legacy(text):
    """A str made the old way, where there still are such, is a str all the same."""
    with warnings.catch_warnings():
        warnings.simplefilter("ignore")
        return getattr(_testcapi, "unicode_legacy_string", str)(text)


three, two = lambda: {name: {} for name in "abc"}, lambda: {name: {} for name in "ab"}
family = lambda: {"x": {"source_files": ["a"]}, "y": {"source_files": ["b"]}}
growing = ["a", "b"]
SCENARIOS = [
    *(selected(listed=v) for v in (7, (1, 2, 3), range(5), [[], 2, 3, 4], ([{}], 1, 2, 3), {1, 2}, ([[]], 1, 2, 3))),
    *(selected(listed=type("Odd", (), {"__iter__": v})()) for v in (None, raising(TypeError("t")), raising(Fault()))),
    *(selected(listed=(v, 1, 2, 3)) for v in (("a",), [{"path": ["unhashable"]}])),
    *(selected(plan=v) for v in (["p"], type("Row", (), {"__getitem__": lambda self, i: ["p"][i]})(), 7, range(3))),
    *(selected(NOTE_LEVEL=v) for v in (7, type("Str", (str,), {})("module"), None, "モジュール")),
    *(
        selected(v)
        for v in (7, type("Str", (str,), {})("note"), ["note"], "nota", legacy("note"), legacy(""), "note\0")
    ),
    selected(existing=three, during=lambda page_id, pages: pages.update({page_id + "+": {}})),
    selected(existing=two, during=lambda page_id, pages: pages.update({page_id + "+": pages.pop(page_id)})),
    selected(existing=three, during=lambda page_id, pages: pages.update(c={"level": "note"})),
    *(pruned(successors={"n": ({}, [], [])}, json=v) for v in (types.SimpleNamespace(dumps=None), 7)),
    pruned(successors={"n": ({}, [], [])}, json=types.ModuleType.__new__(types.ModuleType)),
    *(pruned(successors={"é": v}) for v in (7, (1, 2), [{}, [], []], range(4), ({"title": "T"}, [], ["s"]))),
    *(pruned(successors=types.SimpleNamespace(items=lambda v=v: v)) for v in ([7], [("n",)], ["npq"], 7)),
    *(pruned(successors={"n": (row, [], [])}) for row in ({Colliding("x"): 1}, {"build_cache": 7}, 7)),
    *(
        pruned(successors={"n": ({"build_cache": v}, [], [])})
        for v in ("", types.MappingProxyType({1: 1}), Lying(), {1: {1}})
    ),
    *(pruned(transaction=v) for v in (7, type("Half", (), {"__enter__": print}), contextlib.nullcontext, Transaction)),
    *(
        pruned(transaction=type("Odd", (), {"__enter__": lambda self: LOG.append("entered"), "__exit__": wrong}))
        for wrong in (io.IOBase.__exit__, str.upper, int.__add__, None)
    ),
    *(
        functools.partial(fails_in_the_middle, leave=leave)
        for leave in (lambda *error: None, lambda *error: 1, raising(KeyboardInterrupt()), lambda *error: Lying())
    ),
    *(
        guarded(s, i)
        for s in (["a", []], ["a", "b"], ("b", "a"), ["b"], 7)
        for i in ({"a"}, ["a"], frozenset("a"), None)
    ),
    guarded(
        [type("Any", (str,), {"__hash__": lambda self: hash("a"), "__eq__": lambda self, other: True})("b")], {"a"}
    ),
    guarded(["a"], type("Index", (set,), {"__rand__": lambda self, other: LOG.append(other)})({"a"})),
    judged({"source_files": growing}, dict, _norm=lambda rows: lambda path: growing.append("c") or growing.pop(0)),
    judged({"source_files": growing}, dict, _norm=lambda rows: lambda path: len(growing) > 9 or growing.append(path)),
    judged({"related_pages": ["x", "y"]}, family, _norm=lambda rows: lambda path: rows.update(y={}) or path),
    judged({"related_pages": ["x", "y"]}, family, _norm=lambda rows: lambda path: rows.pop("y") and path),
    judged({"related_pages": [Counting("x")]}, family),
    modules_by_turns,
    names_by_turns,
    pairs_one_by_one,
    what_is_no_longer_used_goes,
    lists_are_not_shared,
]


@pytest.fixture(autouse=True)
def namespaces():
    """Whatever a test puts into the module and into the rules in plain Python is taken out again."""
    before = [(vars(rules), dict(vars(rules))) for rules in (page_retirement, oracle)]
    yield
    for namespace, names in before:
        namespace.clear()
        namespace.update(names)


@pytest.mark.parametrize("scenario", SCENARIOS)
def test_it_goes_as_in_plain_python(scenario):
    def outcome(rules):
        growing[:] = "abc"
        LOG.clear()
        try:
            result = scenario(rules)
        except BaseException as error:
            result = type(error), str(error)
        return repr(result), repr(LOG)

    assert outcome(page_retirement) == outcome(oracle)


@pytest.mark.parametrize("profiled", [False, True])
def test_tracebacks_and_records_name_method_file_and_line(profiled, caplog):
    error, seen, host = Fault(), [], host_of(page_retirement)
    del host._retired_page_ids
    host.repository.list_indexed_files = raising(error)
    for call in (host._indexed_paths, lambda: PageRetirementMixin._indexed_paths(self=host)):
        sys.setprofile(
            (lambda frame, event, argument: seen.append((event, frame.f_code.co_name))) if profiled else None
        )
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
    host._indexed_paths = set
    host._retired_page_ids({}, set())
    assert [(record.funcName, record.filename) for record in caplog.records] == [("_retired_page_ids", "selection.cpp")]


@pytest.mark.skipif(sys.version_info < (3, 12), reason="sys.monitoring is of 3.12")
def test_a_monitoring_tool_sees_calls_for_as_long_as_it_is_there(monkeypatch):
    monitoring, seen = getattr(sys, "monitoring", None), []
    monkeypatch.setattr(page_retirement, "_norm", str)
    code, start = page_retirement._judged_sources.__code__, monitoring.events.PY_START
    monitoring.use_tool_id(4, "test")
    monitoring.register_callback(4, start, lambda started, offset: seen.append(started))
    for everywhere, here, expected in ((start, 0, 1), (0, 0, 0), (0, start, 1), (0, 0, 0)):
        monitoring.set_events(4, everywhere)
        monitoring.set_local_events(4, code, here)
        seen.clear()
        assert list(map(page_retirement._judged_sources, [{"source_files": ["a"]}], [{}])) == [["a"]]
        assert seen.count(code) == expected
    monitoring.free_tool_id(4)


def test_signals_come_through_in_long_loops(monkeypatch):
    monkeypatch.setattr(page_retirement, "_norm", operator.truth)  # no Python code runs in the loop
    numbers, many = itertools.count(), 10**7
    children = {"related_pages": itertools.islice(itertools.repeat("x"), many)}
    before = signal.signal(signal.SIGALRM, raising(Fault()))
    try:
        for page in ({"source_files": itertools.islice(numbers, many)}, children):
            signal.setitimer(signal.ITIMER_REAL, 0.05)
            with pytest.raises(Fault):
                page_retirement._judged_sources(page, {})
    finally:
        signal.signal(signal.SIGALRM, before)
    assert next(numbers) < many and next(children["related_pages"])  # in the middle of a loop, not after it


def test_a_callee_that_does_not_keep_to_the_protocol(monkeypatch):
    for callee in (_testcapi.return_null_without_error, _testcapi.return_result_with_error):
        host = types.SimpleNamespace(_indexed_paths=callee)
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


def test_function_and_arguments_may_go_in_the_middle_of_a_call(monkeypatch):
    class Page(dict):
        def get(self, key):
            call.__setstate__((len, (), {}, None))  # drops the function's arguments, this page among them
            judged.__code__ = (lambda page, existing: ["other"]).__code__
            vars(page_retirement)["_norm"] = str.upper
            gc.collect()
            return [Page() for _ in range(100)] and dict.get(self, key)

    judged = page_retirement._judged_sources
    monkeypatch.setattr(page_retirement, "_norm", str)
    monkeypatch.setattr(judged, "__code__", judged.__code__)
    call = functools.partial(judged, Page(related_pages=["x"]), {"x": {"source_files": ["a"]}})
    assert (call(), judged({}, {})) == (["A"], ["other"])

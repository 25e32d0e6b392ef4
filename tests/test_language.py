"""Where the module does by itself what the interpreter does for Python code, beyond what drawn hosts show."""

import _testcapi
import functools
import gc
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
from worlds import Module, World, restored

LOG = []


class Text(str):
    """A string whose end is seen."""

    __del__ = lambda self: LOG.append(f"{self} goes")


class Manager(Text):
    """A context manager that its methods do not hold."""

    __enter__ = staticmethod(lambda: LOG.append("enter"))
    __exit__ = staticmethod(lambda *error: LOG.append("exit"))


class Row(dict):
    __del__ = lambda self: LOG.append(f"{self['page_id']} goes")


class Rows(dict):
    """A snapshot whose rows and ids nobody else holds."""

    __contains__ = lambda self, page_id: True
    __getitem__ = lambda self, page_id: Row(page_id=f"row {page_id}", source_files=["file"])
    items = lambda self: ((Text(f"key {i}"), Row(page_id=f"value {i}", level="note")) for i in range(2))


class Changing(str):
    """A key that meets every look-up of "_norm" and changes what is looked through."""

    __hash__ = lambda self: hash("_norm")

    def __eq__(self, other):
        if self.left:
            self.space.update({f"{len(self.space)}": 1, "_norm": self.left.pop()})
        return False


@pytest.fixture(autouse=True)
def namespaces():
    with restored(page_retirement, oracle):
        yield


def names_are_looked_up_at_each_use(rules, host):
    page, code = {"source_files": ["aB", "bC", "cD", "dE"]}, rules._judged_sources.__code__
    Changing.left = [str.lower, str.upper, str.swapcase] * 2
    Changing.space = {Changing("key"): 0, "_norm": str.title}
    builtins = type("Builtins", (dict,), {})(_norm=str.upper)
    for space in (Changing.space, {"__builtins__": builtins}, {"__builtins__": {}}, {"_norm": len}, vars(rules)):
        judged = rules._judged_sources if space is vars(rules) else types.FunctionType(code, space)
        for changes in ({}, {"_norm": str.lower}, {"len": 7}):
            space.update(changes)
            try:
                LOG.append(judged(page, {}))
            except NameError as error:
                LOG.append((str(error), error.name))
    del rules._norm
    judged(page, {})


def members_of_modules_are_looked_up_at_each_use(rules, host):
    patched, odd = types.ModuleType("patched"), types.ModuleType("odd")
    host.repository.upsert_wiki_page = lambda *args, build_cache, **fields: LOG.append(build_cache)
    for i, rules.json in enumerate((json, odd, odd, Module("other"), patched, patched, json)):
        patched.dumps = odd.__getattr__ = lambda *args, i=i, **kwargs: f"{i}" if kwargs else patched.dumps
        host._upsert_successor("new", {}, [], ())


def what_is_no_longer_used_goes(rules, host):
    answers = [([{"path": "p"}], *map(Text, ("more", "limit", "total")))]
    rules._norm = lambda path: LOG.append(f"norm {path}")
    host.repository.list_indexed_files = lambda **keywords: answers.pop()
    rules._judged_sources({"related_pages": (Text(f"child {i}") for i in range(3))}, Rows())
    host._indexed_paths()
    host._indexed_paths, host._notes_whose_file_is_gone, rules.NOTE_LEVEL = lambda: {"p"}, set, "note"
    host._retired_page_ids(Rows(), set())
    host._retired_page_ids, host.repository.db.transaction = lambda *pages: set(), lambda: Manager("manager")
    host._prune_retired_pages({}, set())


LOOKS = [names_are_looked_up_at_each_use, members_of_modules_are_looked_up_at_each_use]


@pytest.mark.parametrize("scenario", [*LOOKS, what_is_no_longer_used_goes])
def test_it_goes_as_in_plain_python(scenario):
    def outcome(rules):
        LOG.clear()
        try:
            scenario(rules, World(0, rules, traced=False).host)
        except Exception as error:
            LOG.append(error)
        return repr(LOG)

    assert outcome(page_retirement) == outcome(oracle)


@pytest.mark.parametrize("profiled", [False, True])
@pytest.mark.parametrize("keywords", [False, True])
def test_tracebacks_and_records_name_method_file_and_line(keywords, profiled, caplog, request):
    seen, host = [], type("Host", (PageRetirementMixin,), {})()
    host.repository = types.SimpleNamespace(list_indexed_files=lambda **keywords: 1 / 0)
    request.addfinalizer(lambda: sys.setprofile(None))
    sys.setprofile((lambda frame, event, _: seen.append((event, frame.f_code.co_name))) if profiled else None)
    with pytest.raises(ZeroDivisionError) as error:
        PageRetirementMixin._indexed_paths(**{"self": host}) if keywords else host._indexed_paths()
    sys.setprofile(None)
    (found,) = (entry for entry in traceback.extract_tb(error.tb) if entry.filename.endswith("index_guard.cpp"))
    assert found.name == "_indexed_paths" and found.filename.startswith("src/quillstone/")
    source = Path(__file__).parent.parent / found.filename
    assert ".with_keywords(" in source.read_text("utf-8").splitlines()[found.lineno - 1]
    assert seen.count(("call", "_indexed_paths")) == profiled
    host._indexed_paths = set
    host._retired_page_ids({}, set())
    assert [(record.funcName, record.filename) for record in caplog.records] == [
        ("_retired_page_ids", "<selection.cpp>")
    ]


@pytest.mark.skipif(sys.version_info < (3, 12), reason="sys.monitoring is of 3.12")
def test_a_monitoring_tool_sees_calls_for_as_long_as_it_is_there(request):
    monitoring, seen = getattr(sys, "monitoring", None), []
    page_retirement._norm = str
    code, start = page_retirement._judged_sources.__code__, monitoring.events.PY_START
    monitoring.use_tool_id(4, "test")
    request.addfinalizer(lambda: monitoring.free_tool_id(4))
    monitoring.register_callback(4, start, lambda started, offset: seen.append(started))
    for everywhere, here in ((start, 0), (0, 0), (0, start), (0, 0)):
        monitoring.set_events(4, everywhere)
        monitoring.set_local_events(4, code, here)
        seen.clear()
        assert list(map(page_retirement._judged_sources, [{"source_files": ["a"]}], [{}])) == [["a"]]
        assert seen.count(code) == bool(everywhere or here)


def test_signals_come_through_in_long_loops(request):
    page_retirement._norm = operator.truth  # no Python code runs in the loop
    numbers, many = itertools.count(), 10**7
    children = {"related_pages": itertools.islice(itertools.repeat("x"), many)}
    before = signal.signal(signal.SIGALRM, lambda *args: 1 / 0)
    request.addfinalizer(lambda: signal.signal(signal.SIGALRM, before))
    for page in ({"source_files": itertools.islice(numbers, many)}, children):
        signal.setitimer(signal.ITIMER_REAL, 0.05)
        with pytest.raises(ZeroDivisionError):
            page_retirement._judged_sources(page, {})
    assert next(numbers) < many and next(children["related_pages"])  # in the middle of a loop, not after it


@pytest.mark.parametrize("callee", [_testcapi.return_null_without_error, _testcapi.return_result_with_error])
def test_a_callee_that_does_not_keep_to_the_protocol(callee):
    with pytest.raises(SystemError, match="returned"):
        PageRetirementMixin._retired_page_ids(types.SimpleNamespace(_indexed_paths=callee), {}, set())


def test_a_thread_in_a_long_loop_lets_others_run_and_ends_with_the_interpreter():
    program = """
        import itertools, threading
        from quillstone.workers.wiki import page_retirement
        started, numbers = threading.Event(), itertools.count()
        page_retirement._norm = bool  # no Python code runs in the loop
        many = itertools.islice(numbers, 2 * 10**7)
        page = {"source_files": itertools.chain(map(lambda n: started.set(), "a"), many)}
        threading.Thread(target=page_retirement._judged_sources, args=(page, {}), daemon=True).start()
        started.wait()
        assert next(numbers) < 10**7, "waiting for the interpreter lock took too long"  # usually some 30,000 turns
    """
    environment = {**os.environ, "ASAN_OPTIONS": "detect_leaks=0"}  # what the thread held stays
    for _ in range(5):  # where the end finds the thread is a matter of chance
        subprocess.run([sys.executable, "-c", textwrap.dedent(program)], check=True, env=environment)


def test_function_and_arguments_may_go_in_the_middle_of_a_call(monkeypatch):
    class Page(dict):
        def get(self, key):
            call.__setstate__((len, (), {}, None))  # drops the function's arguments, this page among them
            judged.__code__ = (lambda page, existing: ["other"]).__code__
            page_retirement._norm = str.upper
            gc.collect()
            return [Page() for _ in range(100)] and dict.get(self, key)

    judged = page_retirement._judged_sources
    monkeypatch.setattr(judged, "__code__", judged.__code__)
    call = functools.partial(judged, Page(related_pages=["x"]), {"x": {"source_files": ["a"]}})
    assert (call(), judged({}, {})) == (["A"], ["other"])

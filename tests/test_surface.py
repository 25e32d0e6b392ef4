"""What an importer and a reader of the module see: its namespace, its functions, its life."""

import ast
import copy
import importlib
import inspect
import pickle
import sys
import types
import weakref
from pathlib import Path
from typing import Any
from unittest import mock

import pytest

import oracle
from quillstone.workers.wiki import page_retirement, repo_facts
from quillstone.workers.wiki.page_retirement import PageRetirementMixin

NAME = "quillstone.workers.wiki.page_retirement"
METHODS = [value for value in vars(PageRetirementMixin).values() if callable(value)]
FUNCTIONS = [page_retirement._judged_sources, *METHODS]
STUB = ast.parse((Path(__file__).parent.parent / "stubs/quillstone-stubs/workers/wiki/page_retirement.pyi").read_text())
NAMESPACE = {}
exec('def probe():\n    """a\n        b"""', NAMESPACE)
PROBE = NAMESPACE["probe"].__doc__.split("\n")[1]  # newer compilers strip what docstrings are indented by
BOUND = (
    "annotations contextlib json logging Mapping Sequence Path Any Repository cached_prose carried_sections "
    "merged_predecessors page_prose with_carried _atomic_write _norm NOTE_LEVEL logger _Successor _judged_sources "
    "PageRetirementMixin"
).split()
STANDARD = "__name__ __doc__ __file__ __package__ __spec__ __loader__ __builtins__ __cached__".split()


def test_the_namespace_is_bound_in_order_and_nothing_beside_it():
    assert [name for name in vars(page_retirement) if name not in STANDARD] == BOUND
    assert vars(page_retirement).keys() == {*BOUND, *STANDARD}
    assert (page_retirement.__cached__, page_retirement.__package__) == (None, "quillstone.workers.wiki")
    assert page_retirement.logger.name == page_retirement.__name__ == NAME
    assert page_retirement._Successor == tuple[dict[str, Any], list[str], list[str]]
    assert type(page_retirement._Successor) is types.GenericAlias


def test_the_class_is_plain():
    assert (PageRetirementMixin.__bases__, type(PageRetirementMixin)) == ((object,), type)
    annotations = {"repository": "Repository", "repo_root": "Path", "branch": "str", "pages_dir": "Path"}
    assert list(PageRetirementMixin.__annotations__.items()) == list(annotations.items())
    expected = [name for name, value in vars(oracle.PageRetirementMixin).items() if callable(value)]
    assert [method.__name__ for method in METHODS] == expected
    slotted = type("Slotted", (), {"__slots__": ("field",)})
    for bases in ((PageRetirementMixin, slotted), (dict, PageRetirementMixin)):
        assert isinstance(type("Host", bases, {})(), bases)


def test_docstrings_are_laid_out_as_in_source():
    text = page_retirement.__doc__
    assert text.endswith("never swept.\n") and max(map(len, text.splitlines())) <= 93
    assert [line[:2] for line in text.split("\n\n")[2].splitlines()].count("- ") == 3
    for function in FUNCTIONS:
        indent = " " * PROBE.index("b") if function in METHODS else " " * (PROBE.index("b") // 2)
        first, *rest = function.__doc__.split("\n")
        assert first and all(line == "" or line.startswith(indent) for line in rest)
        ends_with_its_text = function.__name__ in ("_page_text", "_retired_page_ids", "_upsert_successor")
        assert ends_with_its_text or rest[-1] == indent


@pytest.mark.parametrize("function", FUNCTIONS, ids=lambda function: function.__name__)
def test_functions_are_plain_functions(function):
    model = getattr(oracle.PageRetirementMixin if function in METHODS else oracle, function.__name__)
    parameters = inspect.signature(function).parameters
    assert inspect.isfunction(function) and function.__module__ == NAME
    assert function.__qualname__ == model.__qualname__
    assert [p.replace(annotation=p.empty) for p in parameters.values()] == [
        *inspect.signature(model).parameters.values()
    ]
    stub = next(node for node in ast.walk(STUB) if getattr(node, "name", "") == function.__name__)
    texts = {argument.arg: ast.unparse(argument.annotation) for argument in stub.args.args if argument.annotation}
    assert function.__annotations__ == texts | {"return": ast.unparse(stub.returns)}
    assert [*function.__annotations__] == [*texts, "return"]
    assert copy.copy(function) is function is pickle.loads(pickle.dumps(function)) is weakref.ref(function)()
    assert function.__code__.co_filename.startswith("<")  # no coverage report looks for its source
    for args, kwargs in [((), {}), ((1,) * 9, {}), ((), {"unknown": 1}), ((1,), {next(iter(parameters)): 2})]:
        with pytest.raises(TypeError) as ours:
            function(*args, **kwargs)
        with pytest.raises(TypeError) as plain:
            model(*args, **kwargs)
        assert str(ours.value) == str(plain.value)
    with pytest.raises(TypeError):
        mock.create_autospec(function)(*range(9))


def test_code_and_defaults_can_be_assigned():
    class Host(PageRetirementMixin):
        _retired_page_ids = _carry_into_successors = lambda self, *args: args

    prune = Host._prune_retired_pages
    code, defaults = prune.__code__, prune.__defaults__
    try:
        prune.__defaults__ = ("three", "four")
        with pytest.raises(AttributeError, match="repository"):
            Host()._prune_retired_pages("one")
        prune.__code__ = (lambda self, existing, plan_ids, remap: ("replaced", remap)).__code__
        assert Host()._prune_retired_pages("one", "two") == ("replaced", "four")
        assert Host()._prune_retired_pages("one", "two", "three") == ("replaced", "three")
        for changed in (code.replace(co_argcount=3), code.replace(co_argcount=3, co_kwonlyargcount=1)):
            prune.__code__ = changed
            with pytest.raises(TypeError, match="3 positional arguments but 4"):
                Host()._prune_retired_pages("one", "two", "three")
        prune.__code__ = (lambda *all: all).__code__
        assert Host()._prune_retired_pages("one", "two", "three")[1:] == ("one", "two", "three")
        prune.__code__ = code.replace(co_consts=(*code.co_consts[:-1], max))
        with pytest.raises(TypeError, match="'>' not supported"):
            Host()._prune_retired_pages("one", "two", "three")
        prune.__code__ = code.replace(co_code=(lambda a, b, c, d: a).__code__.co_code)
        assert isinstance(Host()._prune_retired_pages("one", "two", "three"), Host)
    finally:
        prune.__code__, prune.__defaults__ = code, defaults
    judged = page_retirement._judged_sources
    assert types.FunctionType(judged.__code__, {"_norm": str.upper})({"source_files": ["a"]}, {}) == ["A"]
    shell = judged.__code__.co_consts[-1]
    for misuse in (shell, lambda: shell(1), lambda: shell(1, 2, 3), type(shell.__self__)):
        with pytest.raises(TypeError):
            misuse()


@pytest.fixture
def fresh(monkeypatch):
    """Imports the module anew, beside the one that the other tests hold."""
    monkeypatch.setattr(sys.modules["quillstone.workers.wiki"], "page_retirement", page_retirement)

    def fresh():
        monkeypatch.delitem(sys.modules, NAME, raising=False)
        return importlib.import_module(NAME)

    return fresh


def test_a_failed_import_leaves_nothing_and_a_second_try_succeeds(fresh, monkeypatch):
    with monkeypatch.context() as patch:
        patch.delattr(repo_facts, "_norm")
        with pytest.raises(ImportError) as failure:
            fresh()
        text = f"cannot import name '_norm' from 'quillstone.workers.wiki.repo_facts' ({repo_facts.__file__})"
        found = failure.value
        assert (str(found), found.name, found.path) == (text, repo_facts.__name__, repo_facts.__file__)
        assert NAME not in sys.modules
        error = KeyboardInterrupt()
        patch.setattr("builtins.__import__", mock.Mock(side_effect=error))
        with pytest.raises(KeyboardInterrupt) as caught:
            fresh()
        assert caught.value is error and NAME not in sys.modules
    monkeypatch.setitem(sys.modules, "quillstone.workers.wiki_types", sibling := types.ModuleType("odd"))
    outcomes = []
    for attempt in (fresh, lambda: exec("from quillstone.workers.wiki_types import NOTE_LEVEL", {})):
        with pytest.raises(ImportError) as failure:
            attempt()
        outcomes.append((str(failure.value), failure.value.name, failure.value.path))
    assert outcomes[0] == outcomes[1]
    sibling.NOTE_LEVEL = "any"
    assert fresh() is importlib.import_module(NAME)

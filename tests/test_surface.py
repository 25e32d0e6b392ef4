"""What an importer and a reader of the module see: its namespace, its functions, its life."""

import ast
import copy
import importlib
import inspect
import itertools
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
    assert page_retirement.__doc__.endswith("never swept.\n") and page_retirement.__doc__.count("\n- ") == 3
    for function in FUNCTIONS:
        indent = " " * (PROBE.index("b") // (1 if function in METHODS else 2))
        first, *rest = function.__doc__.split("\n")
        assert first and all(line == "" or line.startswith(indent) for line in rest)


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
    plain = oracle.PageRetirementMixin._prune_retired_pages
    ours = PageRetirementMixin._prune_retired_pages
    codes = [lambda self, existing, plan_ids, remap: ("replaced", remap), lambda *all: all]
    codes = [lambda _, code=function.__code__: code for function in codes]
    outcomes, before = {ours: [], plain: []}, [(f, f.__code__, f.__defaults__) for f in (ours, plain)]
    for function, code, defaults in before:
        for change, args in itertools.product([lambda code: code, *codes], [("one",), ("one", "two"), range(4)]):
            function.__defaults__ = ("three", "four")
            function.__code__ = change(code)
            try:
                outcomes[function].append(function(7, *args))
            except (TypeError, AttributeError) as error:
                outcomes[function].append(str(error))
        function.__code__, function.__defaults__ = code, defaults
    assert outcomes[ours] == outcomes[plain]
    for odd in ({"co_argcount": 3}, {"co_argcount": 3, "co_kwonlyargcount": 1}):
        ours.__code__ = before[0][1].replace(**odd)
        with pytest.raises(TypeError, match="3 positional arguments but 4"):
            ours(*range(4))
    ours.__code__ = before[0][1]
    judged = page_retirement._judged_sources
    assert types.FunctionType(judged.__code__, {"_norm": str.upper})({"source_files": ["a"]}, {}) == ["A"]
    entry = judged.__code__.co_consts[-1]
    for misuse in (entry, lambda: entry(1), lambda: entry(1, 2, 3), type(entry.__self__)):
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

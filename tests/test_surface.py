"""What an importer and a reader of the module see: its namespace, its functions, its life."""

import copy
import importlib
import inspect
import itertools
import pickle
import sys
import textwrap
import types
import weakref
from pathlib import Path
from unittest import mock

import pytest

import oracle
from quillstone.workers.wiki import page_retirement, repo_facts
from quillstone.workers.wiki.page_retirement import PageRetirementMixin

NAME = "quillstone.workers.wiki.page_retirement"
TYPES = Path(__file__).parent.parent / "stubs/quillstone-stubs/workers/wiki/page_retirement.pyi"
SOURCE = "from __future__ import annotations\n" + TYPES.read_text("utf-8")
SOURCE = SOURCE.replace("logger: logging.Logger", "logger = logging.getLogger(__name__)")
STUB = types.ModuleType(NAME)  # executed, the stub shows what Python makes of the same source
exec(SOURCE, vars(STUB))
STANDARD = {*"__name__ __doc__ __file__ __package__ __spec__ __loader__ __builtins__ __cached__".split()}


def functions(rules):
    return [rules._judged_sources, *filter(callable, vars(rules.PageRetirementMixin).values())]


PAIRS = [*zip(functions(page_retirement), functions(STUB), strict=True)]


def test_namespace_and_class_are_those_of_the_stub():
    names, expected = ([n for n in vars(rules) if n not in STANDARD] for rules in (page_retirement, STUB))
    assert names == expected and vars(page_retirement).keys() > STANDARD
    assert all(getattr(page_retirement, name) is getattr(STUB, name) for name in names[:-3])  # the last are its own
    assert (page_retirement.__name__, page_retirement.__package__) == (NAME, "quillstone.workers.wiki")
    assert page_retirement.__cached__ is None and page_retirement._Successor == STUB._Successor
    ours, model = (
        (type(kind), kind.__bases__, kind.__module__, kind.__qualname__, [*kind.__annotations__.items()])
        for kind in (PageRetirementMixin, STUB.PageRetirementMixin)
    )
    assert ours == model and type(page_retirement._Successor) is type(STUB._Successor)
    slotted = type("Slotted", (), {"__slots__": ("field",)})
    for bases in ((PageRetirementMixin, slotted), (dict, PageRetirementMixin)):
        assert isinstance(type("Host", bases, {})(), bases)


def test_docstrings_are_what_this_compiler_makes_of_indented_ones():
    assert page_retirement.__doc__.endswith("never swept.\n") and page_retirement.__doc__.count("\n- ") == 3
    for function, _ in PAIRS:
        indent = " " * 4 * len(function.__qualname__.split("."))
        text = textwrap.indent(inspect.getdoc(function), indent).strip()
        end = f"\n{indent}" if function.__doc__.endswith((" ", "\n")) else ""
        exec(f'def probe():\n{indent}"""{text}{end}"""', namespace := {})
        assert function.__doc__ == namespace["probe"].__doc__


@pytest.mark.parametrize(("function", "model"), PAIRS, ids=lambda function: function.__name__)
def test_functions_are_plain_functions(function, model):
    for kind in ("__name__", "__qualname__", "__module__", "__defaults__", "__class__"):
        assert getattr(function, kind) == getattr(model, kind)
    assert inspect.signature(function) == inspect.signature(model)
    assert [*function.__annotations__.items()] == [*model.__annotations__.items()]
    assert copy.copy(function) is function is pickle.loads(pickle.dumps(function)) is weakref.ref(function)()
    assert function.__code__.co_filename.startswith("<")  # no coverage report looks for its source
    first = next(iter(inspect.signature(model).parameters))
    for args, kwargs in [((), {}), ((1,) * 9, {}), ((), {"unknown": 1}), ((1,), {first: 2})]:
        texts = []
        for called in (function, model):
            with pytest.raises(TypeError) as error:
                called(*args, **kwargs)
            texts.append(str(error.value))
        assert texts[0] == texts[1]
    with pytest.raises(TypeError):
        mock.create_autospec(function)(*range(9))


def test_code_and_defaults_can_be_assigned(monkeypatch):
    def outcomes(function):
        for name in ("__code__", "__defaults__"):
            monkeypatch.setattr(function, name, getattr(function, name))
        for code, args in itertools.product([function.__code__, *codes], [("one",), ("one", "two"), range(4)]):
            function.__code__, function.__defaults__ = code, ("three", "four")
            try:
                yield function(7, *args)
            except (TypeError, AttributeError) as error:
                yield str(error)

    codes = [f.__code__ for f in (lambda self, existing, plan_ids, remap: ("replaced", remap), lambda *all: all)]
    ours, plain = (rules.PageRetirementMixin._prune_retired_pages for rules in (page_retirement, oracle))
    code = ours.__code__
    assert [*outcomes(ours)] == [*outcomes(plain)]
    for odd in ({"co_argcount": 3}, {"co_argcount": 3, "co_kwonlyargcount": 1}):
        ours.__code__ = code.replace(**odd)
        with pytest.raises(TypeError, match="3 positional arguments but 4"):
            ours(*range(4))
    judged = page_retirement._judged_sources.__code__
    assert types.FunctionType(judged, {"_norm": str.upper})({"source_files": ["a"]}, {}) == ["A"]
    entry = judged.co_consts[-1]
    for misuse in (entry, lambda: entry(1), lambda: entry(1, 2, 3), type(entry.__self__)):
        with pytest.raises(TypeError):
            misuse()


def test_an_import_fails_as_in_plain_python_and_a_second_try_succeeds(monkeypatch):
    def fresh():
        sys.modules.pop(NAME, None)
        return importlib.import_module(NAME)

    def outcome(load):
        with pytest.raises((ImportError, SystemExit)) as failure:
            load()
        return repr(failure.value), [getattr(failure.value, name, None) for name in ("name", "path")]

    monkeypatch.setitem(sys.modules, NAME, page_retirement)  # which the other tests hold
    monkeypatch.setattr(sys.modules["quillstone.workers.wiki"], "page_retirement", page_retirement)
    for broken in (
        lambda patch: patch.delattr(repo_facts, "_norm"),
        lambda patch: patch.setitem(sys.modules, "quillstone.workers.wiki_types", types.ModuleType("odd")),
        lambda patch: patch.setattr("builtins.__import__", mock.Mock(side_effect=SystemExit("now"))),
    ):
        with monkeypatch.context() as patch:
            broken(patch)
            assert outcome(fresh) == outcome(lambda: exec(SOURCE, {"__name__": NAME}))
        assert NAME not in sys.modules
    assert fresh() is importlib.import_module(NAME) is not page_retirement

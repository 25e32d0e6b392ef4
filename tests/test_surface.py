"""What an importer and a reader of the module see: its namespace, its functions, its life."""

import copy
import gc
import importlib
import inspect
import pickle
import subprocess
import sys
import textwrap
import types
import weakref
from typing import Any
from unittest import mock

import pytest

import oracle
from quillstone.workers.wiki import page_retirement, repo_facts
from quillstone.workers.wiki.page_retirement import PageRetirementMixin

NAME = "quillstone.workers.wiki.page_retirement"
METHODS = [value for value in vars(PageRetirementMixin).values() if callable(value)]
FUNCTIONS = [page_retirement._judged_sources, *METHODS]


def test_the_namespace_is_bound_in_order_and_nothing_beside_it():
    bound = [name for name in vars(page_retirement) if not (name.startswith("__") and name.endswith("__"))]
    assert (
        bound
        == (
            "annotations contextlib json logging Mapping Sequence Path Any Repository cached_prose carried_sections "
            "merged_predecessors page_prose with_carried _atomic_write _norm NOTE_LEVEL logger _Successor "
            "_judged_sources PageRetirementMixin"
        ).split()
    )
    standard = {name for name in vars(page_retirement) if name not in bound}
    assert standard == set("__name__ __doc__ __file__ __package__ __spec__ __loader__ __builtins__ __cached__".split())
    assert page_retirement.__cached__ is None
    assert page_retirement.__package__ == "quillstone.workers.wiki"
    assert page_retirement.logger.name == page_retirement.__name__ == NAME
    assert page_retirement._Successor == tuple[dict[str, Any], list[str], list[str]]
    assert type(page_retirement._Successor) is types.GenericAlias


def unwrapped(text):
    return [" ".join(block.split()) for block in text.split("\n\n")]


def test_the_module_says_what_it_promises():
    text = page_retirement.__doc__ or ""
    assert text.endswith("never swept.\n")
    assert max(map(len, text.splitlines())) <= 93
    assert (
        unwrapped(text)[0] == "Deleting the stored wiki pages a plan of record retires, after their prose is carried."
    )
    items = [line for line in text.split("\n\n")[2].splitlines() if not line.startswith("  ")]
    assert len(items) == 3 and all(item.startswith("- ") for item in items)


def test_the_class_is_plain():
    assert (PageRetirementMixin.__bases__, type(PageRetirementMixin)) == ((object,), type)
    assert list(PageRetirementMixin.__annotations__.items()) == [
        ("repository", "Repository"),
        ("repo_root", "Path"),
        ("branch", "str"),
        ("pages_dir", "Path"),
    ]
    expected = [name for name, value in vars(oracle.PageRetirementMixin).items() if callable(value)]
    assert [method.__name__ for method in METHODS] == expected
    assert PageRetirementMixin.__doc__ == "Retired-page deletion and prose carry, mixed into ``WikiGenerator``."

    class Slotted:
        __slots__ = ("field",)

    for bases in ((PageRetirementMixin, Slotted), (dict, PageRetirementMixin)):
        assert isinstance(type("Host", bases, {})(), bases)


@pytest.mark.parametrize("function", FUNCTIONS, ids=lambda function: function.__name__)
def test_functions_are_plain_functions(function):
    owner = PageRetirementMixin if function in METHODS else page_retirement
    model = getattr(oracle.PageRetirementMixin if function in METHODS else oracle, function.__name__)
    assert inspect.isfunction(function) and function.__module__ == NAME
    assert function.__qualname__ == model.__qualname__
    assert (
        str(inspect.signature(function).replace(return_annotation=inspect.Signature.empty)).count(":")
        == len(function.__annotations__) - 1
    )
    assert [p.replace(annotation=p.empty) for p in inspect.signature(function).parameters.values()] == list(
        inspect.signature(model).parameters.values()
    )
    assert function.__defaults__ == model.__defaults__ and function.__kwdefaults__ is None
    assert all(isinstance(text, str) for text in function.__annotations__.values())
    assert copy.copy(function) is function is pickle.loads(pickle.dumps(function))
    assert weakref.ref(function)() is function
    for args, kwargs in [
        ((), {}),
        ((1,) * 9, {}),
        ((), {"unknown": 1}),
        ((1,), {next(iter(inspect.signature(model).parameters)): 2}),
    ]:
        with pytest.raises(TypeError) as ours:
            function(*args, **kwargs)
        with pytest.raises(TypeError) as plain:
            model(*args, **kwargs)
        assert str(ours.value) == str(plain.value)
    with pytest.raises(TypeError):
        mock.create_autospec(function)(*range(9))
    assert getattr(owner, function.__name__) is function


def test_docstrings_are_laid_out_as_in_source():
    docs = {function.__name__: function.__doc__ or "" for function in FUNCTIONS}
    for name, text in docs.items():
        indent = "    " if name == "_judged_sources" else "        "
        first, *rest = text.split("\n")
        assert first and all(line == "" or line.startswith(indent) for line in rest)
        if name not in ("_page_text", "_retired_page_ids", "_upsert_successor"):
            assert rest[-1] == indent
    assert docs["_page_text"] == "A stored page's file text, or None when it has no file."
    assert docs["_carry_into_successors"].split("\n")[0].endswith("prose carried into it and return what")
    assert docs["_upsert_successor"].endswith("merged predecessors in its cached prose.")
    assert docs["_retired_page_ids"].endswith("see\n        ``_notes_whose_file_is_gone``).")
    assert "in two places, never in none; the row changes commit" in unwrapped(docs["_prune_retired_pages"])[1]


def test_code_and_defaults_can_be_assigned(monkeypatch):
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
    finally:
        prune.__code__, prune.__defaults__ = code, defaults
    clone = types.FunctionType(page_retirement._judged_sources.__code__, {"_norm": str.upper})
    assert clone({"source_files": ["a"]}, {}) == ["A"]
    shell = page_retirement._judged_sources.__code__.co_consts[1]
    for arguments in ((), (1,), (1, 2, 3)):
        with pytest.raises(TypeError):
            shell(*arguments)
    with pytest.raises(TypeError):
        type(shell.__self__)()


def test_names_are_looked_up_at_each_use(monkeypatch):
    sources = page_retirement._judged_sources
    monkeypatch.setattr(page_retirement, "_norm", str.upper)
    assert sources({"source_files": ["a"]}, {}) == ["A"]
    monkeypatch.delattr(page_retirement, "_norm")
    with pytest.raises(NameError) as missing:
        sources({"source_files": ["a"]}, {})
    assert (str(missing.value), missing.value.name) == ("name '_norm' is not defined", "_norm")
    assert sources({"source_files": []}, {}) == []
    monkeypatch.setattr("builtins._norm", lambda path: "builtin", raising=False)
    assert sources({"source_files": ["a"]}, {}) == ["builtin"]


def test_profilers_and_coverage_see_the_calls(tmp_path):
    seen = []
    sys.setprofile(lambda frame, event, argument: seen.append((event, frame.f_code.co_name)))
    try:
        page_retirement._judged_sources({}, {})
    finally:
        sys.setprofile(None)
    assert ("call", "_judged_sources") in seen and ("return", "_judged_sources") in seen
    assert all(function.__code__.co_filename.startswith("<") for function in FUNCTIONS)


@pytest.fixture
def fresh(monkeypatch):
    """Imports the module anew, beside the one that the other tests hold."""
    package = sys.modules["quillstone.workers.wiki"]
    monkeypatch.setattr(package, "page_retirement", page_retirement)

    def fresh():
        monkeypatch.delitem(sys.modules, NAME, raising=False)
        return importlib.import_module(NAME)

    return fresh


def test_a_failed_import_leaves_nothing_and_a_second_try_succeeds(fresh, monkeypatch):
    with monkeypatch.context() as patch:
        patch.delattr(repo_facts, "_norm")
        with pytest.raises(ImportError) as failure:
            fresh()
        expected = f"cannot import name '_norm' from 'quillstone.workers.wiki.repo_facts' ({repo_facts.__file__})"
        assert (str(failure.value), failure.value.name, failure.value.path) == (
            expected,
            repo_facts.__name__,
            repo_facts.__file__,
        )
        assert NAME not in sys.modules
        error = KeyboardInterrupt()
        patch.setattr("builtins.__import__", mock.Mock(side_effect=error))
        with pytest.raises(KeyboardInterrupt) as caught:
            fresh()
        assert caught.value is error and NAME not in sys.modules
    assert fresh() is importlib.import_module(NAME)


def test_an_old_module_is_freed(fresh):
    old = fresh()
    watched = [weakref.ref(thing) for thing in (old, old.PageRetirementMixin, old._judged_sources)]
    assert old._judged_sources is not page_retirement._judged_sources
    assert old._judged_sources({"source_files": ["./a"]}, {}) == ["a"]
    vars(sys.modules["quillstone.workers.wiki"])["page_retirement"] = page_retirement
    del old, sys.modules[NAME]
    gc.collect()
    assert [reference() for reference in watched] == [None] * 3


def test_subinterpreters_have_their_own_module():
    code = """
        import sys, types
        siblings = {
            "quillstone.storage.repository": ["Repository"],
            "quillstone.workers.wiki.replan_carry": [
                "cached_prose", "carried_sections", "merged_predecessors", "page_prose", "with_carried"],
            "quillstone.workers.wiki.repo_facts": ["_atomic_write", "_norm"],
            "quillstone.workers.wiki_types": ["NOTE_LEVEL"],
        }
        for name, members in siblings.items():
            sys.modules[name] = types.ModuleType(name)
            vars(sys.modules[name]).update(dict.fromkeys(members, str.upper))
        from quillstone.workers.wiki import page_retirement as module
        assert module._judged_sources({"source_files": ["a"]}, {}) == ["A"]
        assert not hasattr(module.PageRetirementMixin, "mark")
    """
    program = f"""
        import _xxsubinterpreters as interpreters, sys
        code = {textwrap.dedent(code)!r}
        setup = f"import sys; sys.path[:] = {{sys.path!r}}\\n"
        exec(code)
        module.PageRetirementMixin.mark = 1
        for _ in range(3):
            other = interpreters.create()
            interpreters.run_string(other, setup + code)
            interpreters.destroy(other)
        assert module._judged_sources({{"source_files": ["b"]}}, {{}}) == ["B"]
    """
    subprocess.run([sys.executable, "-c", textwrap.dedent(program)], check=True)

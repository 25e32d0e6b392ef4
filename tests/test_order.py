"""Every touch of a host (attribute, call, item, truth test, path, name of the namespace) happens as in plain Python:
in the same order, with the same arguments, also when any one of them raises."""

import operator
import random
import types
from pathlib import PurePosixPath

import pytest

import oracle
from quillstone.workers.wiki import page_retirement

MODULE_NAMES = (
    "_atomic_write _norm cached_prose carried_sections contextlib json logger merged_predecessors page_prose "
    "with_carried NOTE_LEVEL"
).split()


class Fault(Exception):
    pass


class Recorder:
    """Notes every touch; raises at touch number `fail_at`."""

    def __init__(self):
        self.touches, self.fail_at, self.fault = [], None, None

    def __call__(self, *touch):
        self.touches.append(touch)
        if len(self.touches) - 1 == self.fail_at:
            self.fault = OSError("fault") if self.fail_at % 2 else Fault()
            raise self.fault


class Traced:
    """Any object, with every operation on it recorded; containers that come out of it are traced as well."""

    def __init__(self, record, name, value):
        self.__dict__.update(record=record, name=name, value=value)

    def wrap(self, how, result):
        if result is None or isinstance(result, str | int | Traced) or hasattr(result, "__enter__"):
            return result
        return Traced(self.record, f"{self.name}{how}", result)

    def __iter__(self):
        self.record(self.name, "iter")
        for index, member in enumerate(self.value):
            self.record(self.name, "next", index)
            yield self.wrap(f"<{index}>", member)


def traced_operation(name, operation):
    def method(self, *args, **kwargs):
        self.record(self.name, name, plain(args), plain(list(kwargs.items())))
        return self.wrap(f".{args[0]}" if name == "getattr" else name, operation(self.value, *args, **kwargs))

    return method


for name, operation in {
    "getattr": getattr,
    "call": lambda function, *args, **kwargs: function(*args, **kwargs),
    "getitem": operator.getitem,
    "contains": operator.contains,
    "bool": bool,
    "truediv": operator.truediv,
    "rand": lambda value, other: other & value,
    "eq": operator.eq,
    "ne": operator.ne,
}.items():
    setattr(Traced, f"__{name}__", traced_operation(name, operation))


class Id(str):
    """A page id that formats itself."""

    record = staticmethod(lambda *touch: None)

    def __format__(self, spec):
        self.record("format", str(self), spec)
        return f"<{self!s}>"


def plain(value):
    if isinstance(value, Traced):
        return plain(value.value)
    if isinstance(value, dict):
        return {key: plain(member) for key, member in value.items()}
    if isinstance(value, list | tuple | set):
        return [plain(member) for member in (sorted(value) if isinstance(value, set) else value)]
    return f"<{type(value).__name__}>" if callable(value) or isinstance(value, types.GeneratorType) else value


def coin(*key):
    return random.Random(repr(key)).random() < 0.6


class File(PurePosixPath):
    """A path whose answers depend on its name alone, which begins with the world's seed."""

    is_dir = exists = is_file = lambda self: coin(self)
    read_text = lambda self, encoding: f"text of {self.name}" if coin(self.name, self.parts[0]) else " "
    glob = lambda self, pattern: ["one.md", "two.md"] if coin(self, pattern) else []

    def unlink(self, *, missing_ok):
        if coin(self, "unlink"):
            raise PermissionError(self)


class World:
    """A host drawn from a seed: rows, index, plan, remap and collaborators."""

    def __init__(self, seed, rules, record, traced):
        self.seed, self.record, self.traced = seed, record, traced
        self.trace = (lambda name, value: Traced(record, name, value)) if traced else (lambda name, value: value)
        draw = random.Random(seed)
        ids = [Id(f"p{i}") if i % 3 == 0 else f"p{i}" for i in range(draw.randrange(1, 9))]
        some = lambda population, most: draw.sample(population, min(draw.randrange(most + 1), len(population)))
        rows = []
        for page_id in [*ids, *some(ids, 1)]:
            row = {"page_id": page_id, "title": draw.choice(["", f"Title {page_id}", None])}
            row |= {"level": draw.choice([None, "", "note", "module"]), "rel_path": draw.choice([None, "notes/x.md"])}
            row |= {
                "source_files": draw.choice([None, [], ["d.c", "b.c", "a.c", "c.c", "b.c"]]),
                "related_pages": some(ids, 3),
            }
            row |= {"build_cache": draw.choice([None, "text", {"prose": "old", "é": [1]}]), "summary": f"of {page_id}"}
            rows.append(self.trace(f"row {page_id}", row))
        self.plan_ids = self.trace("plan", set(some(ids, 4)))
        seeded = [*some(ids, 3), *some(["n1", "n2"], 2)]
        self.remap = self.trace("remap", {new: draw.choice([*ids, "gone"]) for new in seeded})
        self.merged = {new: some([*ids, "gone"], 4) for new in [*some(ids, 2), *some(["n1", "n3"], 1)]}
        self.indexed = draw.choice([[], ["a.c", "z.c"], ["z.c"], ["z.c"]])
        self.rows = rows
        self.host = self.make_host(rules)

    def make_host(self, rules):
        namespace = self.collaborators() | {"__builtins__": __builtins__}
        for name in MODULE_NAMES:
            namespace.setdefault(name, getattr(oracle, name, None))
        record = self.record

        class Namespace(dict):
            def __getitem__(self, name):
                if name in self:  # built-in names are the module's own affair
                    record("global", name)
                return super().__getitem__(name)

        # Names of a namespace that is no exact dict are looked up through its own subscription.
        space = Namespace(namespace) if self.traced else namespace
        rebuild = lambda f: types.FunctionType(f.__code__, space, f.__name__, f.__defaults__)
        dict.__setitem__(space, "_judged_sources", rebuild(rules._judged_sources))
        methods = {name: rebuild(f) for name, f in vars(rules.PageRetirementMixin).items() if callable(f)}

        select = methods["_retired_page_ids"]
        methods["_retired_page_ids"] = lambda *args: self.trace("deletes", select(*args))

        def read(host, name):
            if not name.startswith("__"):
                record("self", name)
            return object.__getattribute__(host, name)

        host = type("Host", (), {**methods, "__getattribute__": read})()
        host.repository, host.branch = self.trace("store", self.store()), "main"
        host.repo_root = self.trace("root", File(f"{self.seed}/root"))
        host.pages_dir = self.trace("pages", File(f"{self.seed}/wiki/pages"))
        return host

    def store(self):
        log, swallows = self.record, coin(self.seed, "swallow")

        class Transaction:
            def __enter__(self):
                log("enter")

            def __exit__(self, kind, value, traceback):
                log("exit", kind, value if value is None else type(value))
                return swallows and kind is Fault

        return types.SimpleNamespace(
            db=types.SimpleNamespace(transaction=Transaction),
            get_wiki_pages=lambda branch: self.rows,
            list_indexed_files=lambda *, source_only, limit: ([{"path": p} for p in self.indexed], 0, 0, 0),
            upsert_wiki_page=lambda *args, **fields: log("upsert", plain(args), plain(fields)),
            delete_wiki_page=lambda branch, page_id: log("delete", branch, page_id) or coin(self.seed, page_id),
        )

    def collaborators(self):
        functions = {
            "_norm": lambda path: path,
            "merged_predecessors": lambda remap: self.merged,
            "carried_sections": lambda pairs: [f"{title}: {prose}" for title, prose in pairs],
            "page_prose": lambda text, row: text or "none",
            "cached_prose": lambda row: plain(row).get("summary", ""),
            "with_carried": lambda text, sections: "|".join([plain(text), *plain(sections)]),
            "_atomic_write": lambda path, text: None,
            "logger": types.SimpleNamespace(warning=lambda *args: None),
        }
        return {name: self.trace(name, value) for name, value in functions.items()} | {
            "NOTE_LEVEL": "note" if self.seed % 4 else "module"
        }


def run(seed, rules, traced, fail_at=None):
    record = Recorder()
    world = World(seed, rules, record, traced)
    record.touches.clear()
    record.fail_at, Id.record = fail_at, record
    try:
        outcome = world.host._apply_replan_to_store(world.remap, world.plan_ids)
    except (Fault, OSError, RuntimeError) as error:
        outcome = type(error)
        assert record.fault in (None, error) or type(error) is RuntimeError  # the very object, or a swallowed one
    finally:
        Id.record = staticmethod(lambda *touch: None)
    return outcome, record.touches


@pytest.mark.parametrize("traced", [True, False])
@pytest.mark.parametrize("seed", range(150))
def test_touches_are_those_of_plain_python(seed, traced):
    assert run(seed, page_retirement, traced) == run(seed, oracle, traced)


@pytest.mark.parametrize("seed", range(8))
def test_a_failure_at_any_touch_unwinds_as_in_plain_python(seed):
    touches = run(seed, oracle, traced=True)[1]
    for fail_at in range(len(touches)):
        assert run(seed, page_retirement, True, fail_at) == run(seed, oracle, True, fail_at), touches[fail_at]

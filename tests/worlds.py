"""Hosts drawn from a seed, with every operation on them recorded: attribute, call, item, comparison, path, name.

One operation of a replan can be an incident: it fails, it changes something that is being read, or it gives something
that no sane host gives.
"""

import _testcapi
import collections
import contextlib
import contextvars
import functools
import io
import itertools
import operator
import random
import sys
import traceback
import types
import warnings
from pathlib import PurePosixPath

import oracle

COLLABORATORS = {
    "_norm": lambda path: path,
    "carried_sections": lambda pairs: [f"{title}: {prose}" for title, prose in itertools.islice(pairs, 2)],
    "page_prose": lambda text, row: text or "none",
    "cached_prose": lambda row: plain(row).get("summary", ""),
    "with_carried": lambda text, sections: "|".join([plain(text), *plain(sections)]),
    "_atomic_write": lambda path, text: None,
}
NAMES = [*COLLABORATORS, "merged_predecessors", "contextlib", "json", "logger", "NOTE_LEVEL", "_judged_sources"]


class Odd:
    """Something that no sane host hands in, with the same text and place in a set wherever it lies."""

    __repr__ = lambda self: type(self).__name__
    __hash__ = lambda self: 1


class Fault(Odd, Exception):
    pass


RUN = contextvars.ContextVar("operations and incidents of this thread's run", default=None)


def record(*operation, gives=lambda: None):
    """Notes an operation and does it, or what is to happen at its number instead."""
    if RUN.get() is None:  # a world is still being made
        return gives()
    operations, incidents = RUN.get()
    operations.append(plain(operation))
    return incidents.get(len(operations) - 1, lambda gives: gives())(gives)


def plain(value):
    """What can be compared, and reads the same wherever it lies."""
    if isinstance(value, Odd):
        return repr(value)
    if isinstance(value, Traced):
        return plain(value.value)
    if isinstance(value, dict | types.MappingProxyType):
        return {str(key): plain(member) for key, member in value.items()}
    if isinstance(value, list | tuple | set):
        return [plain(member) for member in (sorted(value, key=repr) if isinstance(value, set) else value)]
    return value if isinstance(value, str | int | float | None) else f"<{type(value).__name__}>"


class Traced:
    """Any object, with every operation on it recorded; containers that come out of it are traced as well."""

    def __init__(self, name, value):
        self.__dict__.update(name=name, value=value)

    __repr__ = lambda self: f"<{self.name}>"
    __hash__ = lambda self: hash(self.name)  # which does not depend on where it lies

    def wrap(self, how, result):
        if result is None or isinstance(result, str | int | Traced) or hasattr(result, "__enter__"):
            return result
        return Traced(f"{self.name}{how}", result)

    def __iter__(self):
        record(self.name, "iter")
        for index, member in enumerate(self.value):
            yield record(self.name, "next", index, gives=functools.partial(self.wrap, f"<{index}>", member))


def traced_operation(name, operation):
    def method(self, *args, **kwargs):
        operands = [plain(arg) for arg in args] if name in ("eq", "ne") else args
        how = f".{args[0]}" if name == "getattr" else name
        gives = lambda: self.wrap(how, operation(self.value, *operands, **kwargs))
        return record(self.name, name, args, kwargs, gives=gives)

    return method


for name, operation in {
    "getattr": getattr,
    "call": lambda function, *args, **kwargs: function(*args, **kwargs),
    "rand": lambda value, other: other & value,
    "ror": lambda value, other: other | value,
    **{name: getattr(operator, name) for name in ("getitem", "contains", "truediv", "eq", "ne")},
    "bool": bool,
}.items():
    setattr(Traced, f"__{name}__", traced_operation(name, operation))


class Id(str):
    """A page id whose uses are seen."""

    __format__ = lambda self, spec: record("format", str(self), spec, gives=lambda: f"<{self!s}>")

    def __hash__(self):
        found = record("hash", str(self), gives=lambda: str.__hash__(self))
        return found if isinstance(found, int) else hash(found)  # the interpreter leaks a hash that is no int


class Alike(Id):
    """Ids that are equal where their last letters are, which then are compared with each other."""

    __hash__ = lambda self: hash("p0")
    __eq__ = lambda self, other: record("eq", str(self), str(other), gives=lambda: self[-1:] == str(other)[-1:])


class Key(str):
    """One that meets every look-up of "title" and cannot be compared."""

    __hash__ = lambda self: hash("title")
    __eq__ = lambda self, other: record("eq", str(self), str(other), gives=lambda: 1 / 0)


class Picky(set):
    __contains__ = lambda self, member: record("in", member, gives=lambda: set.__contains__(self, member))
    __rand__ = lambda self, other: record("and", other, gives=lambda: set(other) & set(self))


class Row(dict):
    get = lambda self, key: record("get", key, gives=lambda: dict.get(self, key))
    __getitem__ = lambda self, key: record("item", key, gives=lambda: dict.__getitem__(self, key))


class Lying(Odd):
    """No dict and no string, though it says so."""

    __class__ = property(lambda self: record("class", gives=lambda: dict))
    keys = lambda self: ["é"]
    __getitem__ = lambda self, key: 1 if key in ("é", 0) else [][0]


class Giving(Odd):
    def __init__(self, value):
        self.value = value

    __call__ = lambda self, *args, **kwargs: self.value


class Half(Odd):
    __enter__ = lambda self: record("enter")


class Unusual(Half):
    __exit__ = str.upper


class Open(Odd, io.StringIO):
    pass


class Module(Odd, types.ModuleType):
    __getattr__ = lambda self, name: Giving(f"{name} of a module")


with warnings.catch_warnings():
    warnings.simplefilter("ignore")
    LEGACY = getattr(_testcapi, "unicode_legacy_string", str)("note")  # made the old way, where there is one


def something_odd(draw):
    kinds = [Lying, Half, Unusual, Open, Fault, dict, list, str, Picky]
    values = [None, 7, True, range(4), "a.c", "nota", "note\0", "\ud800", b"a.c", Fault, Id("note"), LEGACY]
    values += [{1: {1}}, types.MappingProxyType({"a.c": 1}), {"p1": ({}, [], []), "é": 7}, {"a.c"}, frozenset("p")]
    values += [["a.c", "p1"], [["a.c"]], [("a.c",)], [{}], ({"title": 7}, [], ["s"]), Module("odd"), Open("note")]
    values += [([{"path": "a.c"}], 1, 2, 3), ([{"path": []}], 1, 2, 3), [1, 2, 3]]
    value = draw.choice([draw.choice(kinds)(), draw.choice(values), draw.choice(values)])
    return draw.choice([value, value, Giving(value)])


def odd_id(draw, name):
    kinds = [str, str, str, str, Alike, Alike, Id, int, float, "\ud800{}".format, "漢{}".format]
    return draw.choice([draw.choice(kinds)(name)] * 7 + [(name,), [name], name * 100_000, None])


def odd_row(draw, row):
    keyless = Row({Key(): row["title"], **{name: row[name] for name in row if name != "title"}})
    return draw.choice([*[row] * 9, types.MappingProxyType(row), collections.UserDict(row), 7, Row(row), keyless])


coin = lambda *key: chance(repr(key))
chance = functools.cache(lambda text: random.Random(text).random() < 0.6)


class File(PurePosixPath):
    """A path whose answers depend on its name alone, which begins with the world's seed."""

    is_dir = exists = is_file = lambda self: record("asked", self, gives=lambda: coin(self))
    glob = lambda self, pattern: ["one.md", "two.md"] if coin(self, pattern) else []
    text = lambda self: f"text of {self.name}" if coin(self.name, self.parts[0]) else " "
    read_text = lambda self, encoding: record("read", self, gives=self.text)

    def unlink(self, *, missing_ok):
        if record("unlink", self, gives=lambda: coin(self, "unlink")):
            raise PermissionError(self)


class Transaction:
    def __init__(self, swallows):
        self.swallows = swallows

    __enter__ = lambda self: record("enter")

    def __exit__(self, kind, value, trace):
        seen = sys.exc_info() == (kind, value, trace), getattr(value, "__traceback__", None) is trace
        return record("exit", repr(kind), seen, frames(trace), gives=lambda: self.swallows and kind is Fault)


def frames(trace):
    """The functions of a traceback, without what depends on the version: comprehensions, the module's own entry."""
    codes = [frame.f_code for frame, _ in traceback.walk_tb(trace)]
    return [code.co_name for code in codes if "<" not in (code.co_name[0], code.co_filename[0])]


class World:
    """A host drawn from a seed: rows, index, plan, remap and collaborators.

    Args:
        traced: whether every object is traced, and names stand in a namespace that is no exact dict; else plain objects
            take the module's quicker ways, and only host, store, paths and collaborators record.
        odd: whether ids, rows and sets are what no sane host would hand in.
    """

    def __init__(self, seed, rules, traced, odd=False):
        self.seed, self.traced = seed, traced
        self.trace = Traced if traced else lambda name, value: value
        draw = random.Random(seed)
        ids = [Id(f"p{i}") if i % 3 == 0 else f"p{i}" for i in range(draw.randrange(1, 9))]
        if odd:
            ids = [odd_id(draw, f"{i}") for i in range(8)]
        some = lambda population, most: draw.sample(population, min(draw.randrange(most + 1), len(population)))
        levels = [None, "", "note", "module", self.trace("level", "note"), self.trace("level", "module")]
        levels += [something_odd(draw)] if odd else []
        self.rows = []
        for page_id in [*ids, *some(ids, 1)]:
            row = {"page_id": page_id, "title": draw.choice(["", f"Title {page_id}", None])}
            row |= {"level": draw.choice(levels), "rel_path": draw.choice([None, "notes/x.md"])}
            some_files = ["d.c", "b.c", "a.c", "c.c"]
            files = draw.choice([None, [], [*some_files, "b.c"], [*some_files, Id("b.c")]])
            row |= {"source_files": files, "related_pages": some(ids, 3), "summary": f"of {page_id}"}
            row |= {"build_cache": draw.choice([None, "text", {"prose": "old", "é": [1]}])}
            self.rows.append(self.trace(f"row {page_id}", odd_row(draw, row) if odd else row))
        self.make_set = draw.choice([set, Picky]) if odd else set
        ids = [page_id for page_id in ids if not isinstance(page_id, list)]  # which is no key
        self.plan_ids = self.trace("plan", self.make_set(some(ids, 4)))
        seeded = [*some(ids, 3), *some(["n1", "n2"], 2)]
        self.remap = self.trace("remap", {new: draw.choice([*ids, "gone"]) for new in seeded})
        self.merged = {new: some([*ids, "gone"], 4) for new in [*some(ids, 2), *some(["n1", "n3"], 1)]}
        self.indexed = draw.choice([[], ["a.c", "z.c"], ["z.c"], ["z.c"]])
        self.space, methods = vars(rules), vars(rules.PageRetirementMixin)
        if traced:
            methods = self.rebuilt(rules, methods)
        self.space.update(self.collaborators())
        self.host = self.make_host({name: method for name, method in methods.items() if callable(method)})

    def rebuilt(self, rules, methods):
        class Namespace(dict):
            def __getitem__(self, name):
                item = functools.partial(dict.__getitem__, self, name)
                return record("global", name, gives=item) if name in NAMES else item()

        self.space = Namespace({name: getattr(oracle, name, None) for name in NAMES}, __builtins__=__builtins__)
        functions = {f.__name__: f for f in [rules._judged_sources, *methods.values()] if callable(f)}
        for name, function in functions.items():
            functions[name] = types.FunctionType(function.__code__, self.space, name, function.__defaults__)
        self.space.update(_judged_sources=functions.pop("_judged_sources"))
        return functions

    def make_host(self, methods):
        def selected(host, *args):
            deletes = methods["_retired_page_ids"](host, *args)
            self.deletes = deletes if self.make_set is set else self.make_set(deletes)
            return self.trace("deletes", self.deletes)

        def pruned(host, existing, *args):
            self.existing = existing
            return methods["_prune_retired_pages"](host, existing, *args)

        def read(host, name):
            gives = lambda: object.__getattribute__(host, name)
            return gives() if name.startswith("__") else record("self", name, gives=gives)

        changed = {"_retired_page_ids": selected, "_prune_retired_pages": pruned, "__getattribute__": read}
        for name in ("_indexed_paths", "_notes_whose_file_is_gone") if self.traced or self.make_set is Picky else ():
            changed[name] = lambda host, *args, name=name: self.trace(name, self.make_set(methods[name](host, *args)))
        host = type("Host", (), methods | changed)()
        host.repository, host.branch = self.trace("store", self.store()), "main"
        host.repo_root = self.trace("root", File(f"{self.seed}/root"))
        host.pages_dir = self.trace("pages", File(f"{self.seed}/wiki/pages"))
        return host

    def replan(self):
        return self.host._apply_replan_to_store(self.remap, self.plan_ids)

    def recorded(self, name, function):
        """A function of the host, whose results are traced where everything is."""
        gives = lambda *args, **kwargs: record(name, args, kwargs, gives=lambda: function(*args, **kwargs))
        return self.trace(name, function) if self.traced else gives

    def store(self):
        functions = {
            "transaction": lambda: Transaction(coin(self.seed, "swallow")),
            "get_wiki_pages": lambda branch: self.rows,
            "list_indexed_files": lambda *, source_only, limit: ([{"path": path} for path in self.indexed], 0, 0, 0),
            "delete_wiki_page": lambda branch, page_id: coin(self.seed, page_id),
            "upsert_wiki_page": lambda *args, **fields: fields["symbols"].append("in no other page's row"),
        }
        store = types.SimpleNamespace(**{name: self.recorded(name, function) for name, function in functions.items()})
        store.db = store
        return store

    def collaborators(self):
        functions = COLLABORATORS | {"merged_predecessors": lambda remap: self.merged}
        names = {name: self.recorded(name, function) for name, function in functions.items()}
        logger = types.SimpleNamespace(warning=self.recorded("warning", lambda *args: None))
        level = "note" if self.seed % 4 else "module"
        return names | {"logger": self.trace("logger", logger), "NOTE_LEVEL": self.trace("NOTE_LEVEL", level)}


def fail(world, draw, gives):
    world.raised = draw.choice([OSError("fault"), Fault("fault"), StopIteration(), KeyboardInterrupt()])
    raise world.raised


def give_something_odd(world, draw, gives):
    return something_odd(draw)


def disturb(world, draw, gives):
    """Changes something that is being read: a container, a name of the module, an attribute or method of the host."""
    value = lambda thing: getattr(thing, "value", thing)
    rows = [*map(value, world.rows)]
    lists = [member for row in rows if isinstance(row, dict) for member in row.values() if isinstance(member, list)]
    tables = [*rows, value(world.remap), world.merged, getattr(world, "existing", {})]
    lists += [world.rows, *world.merged.values()]
    sets = [value(world.plan_ids), getattr(world, "deletes", set())]
    name, kind, odd = draw.choice(NAMES), type(world.host), something_odd(draw)
    method = draw.choice([name for name in vars(kind) if not name.startswith("__")])
    attribute = draw.choice(["repository", "branch", "repo_root", "pages_dir"])
    thing = draw.choice([*draw.sample(tables, 3), *draw.sample(lists, 2), *sets])
    draw.choice(
        [
            lambda: thing.clear(),
            lambda: thing.pop(*[next(iter(thing))] if isinstance(thing, dict) else []),
            lambda: thing.update(new={}) if isinstance(thing, dict) else getattr(thing, "append", set().add)("new"),
            lambda: thing.update(dict.fromkeys(thing)),
            lambda: world.space.pop(name, None),
            lambda: world.space.update({name: odd}),
            lambda: setattr(world.host, attribute, odd),
            lambda: delattr(world.host, attribute),
            lambda: setattr(kind, method, lambda *args: odd),
            lambda: delattr(kind, method),
            lambda: setattr(world.host, "__class__", type("Other", (), {**vars(kind), method: None})),
            lambda: setattr(world.host, method, dict),
        ]
    )()
    return gives()


@contextlib.contextmanager
def restored(*modules):
    """Takes out again what is put into the namespaces of modules."""
    before = [dict(vars(module)) for module in modules]
    try:
        yield
    finally:
        for module, names in zip(modules, before, strict=True):
            vars(module).clear()
            vars(module).update(names)


def run(seed, rules, traced, odd=False, at=None, incident=None):
    """What a replan gives or raises, and its operations, of which number `at` is the incident."""
    operations, incidents = [], {at: lambda gives: incident(world, random.Random(f"{seed} {at}"), gives)}

    def replan():
        RUN.set((operations, incidents))
        try:
            raise LookupError  # a caller that handles an exception itself
        except LookupError as caller:
            try:
                outcome = world.replan()
            except BaseException as error:
                handled = sys.exc_info()[1] is error, error is getattr(world, "raised", None)
                causes = repr(error.__context__), repr(error.__cause__)
                outcome = repr(error), causes, handled, frames(error.__traceback__)
            assert sys.exc_info()[1] is caller
        return plain(outcome), operations

    # Traced worlds have namespaces of their own, and may run at the same time.
    with contextlib.nullcontext() if traced else restored(rules):
        world = World(seed, rules, traced, odd)
        return contextvars.copy_context().run(replan)  # which an interruption at any place leaves behind

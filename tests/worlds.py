"""Hosts drawn from a seed, with every operation on them recorded: attribute, call, item, comparison, path, name."""

import collections
import operator
import random
import types
from collections.abc import Mapping
from pathlib import PurePosixPath

import oracle

MODULE_NAMES = (
    "_atomic_write _norm cached_prose carried_sections contextlib json logger merged_predecessors page_prose "
    "with_carried NOTE_LEVEL"
).split()


class Fault(Exception):
    pass


class Recorder:
    """Notes every operation; raises at number `fail_at`, or calls `disturb` at number `disturb_at`."""

    def __init__(self, fail_at=None, disturb_at=None):
        self.operations, self.fault = [], None
        self.fail_at, self.disturb_at = fail_at, disturb_at

    def __call__(self, *operation):
        self.operations.append(plain(operation))
        if len(self.operations) - 1 == self.fail_at:
            self.fault = OSError("fault") if self.fail_at % 2 else Fault()
            raise self.fault
        if len(self.operations) - 1 == self.disturb_at:
            self.disturb()


class Traced:
    """Any object, with every operation on it recorded; containers that come out of it are traced as well."""

    def __init__(self, record, name, value):
        self.__dict__.update(record=record, name=name, value=value)

    __repr__ = lambda self: f"<{self.name}>"
    __hash__ = lambda self: hash(self.name)  # which does not depend on where it lies

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
        self.record(self.name, name, args, kwargs)
        result = operation(self.value, *[plain(arg) for arg in args] if name in ("eq", "ne") else args, **kwargs)
        return self.wrap(f".{args[0]}" if name == "getattr" else name, result)

    return method


for name, operation in {
    "getattr": getattr,
    "call": lambda function, *args, **kwargs: function(*args, **kwargs),
    "getitem": operator.getitem,
    "contains": operator.contains,
    "bool": bool,
    "truediv": operator.truediv,
    "rand": lambda value, other: other & value,
    "ror": lambda value, other: other | value,
    "eq": operator.eq,
    "ne": operator.ne,
}.items():
    setattr(Traced, f"__{name}__", traced_operation(name, operation))


class Id(str):
    """A page id that formats itself."""

    record = staticmethod(lambda *operation: None)

    def __format__(self, spec):
        self.record("format", str(self), spec)
        return f"<{self!s}>"


class Alike(str):
    """Page ids that are equal where their last letters are."""

    __eq__ = lambda self, other: isinstance(other, str) and self[-1:] == other[-1:]
    __hash__ = lambda self: hash("p0")


class Picky(set):
    def __contains__(self, member):
        if coin(member, "picky"):
            return set.__contains__(self, member)
        raise Fault(member)


ODD_IDS = [
    Alike,
    Id,
    int,
    float,
    lambda name: (name,),
    lambda name: [name],
    lambda name: f"\ud800{name}",
    "漢{}".format,
]
ODD_IDS += [lambda name: name * 100_000, lambda name: None, *[str] * 5]
ODD_ROWS = [types.MappingProxyType, collections.UserDict, lambda row: 7, *[dict] * 9]


def plain(value):
    if isinstance(value, Traced):
        return plain(value.value)
    if isinstance(value, Mapping):
        return {key: plain(member) for key, member in value.items()}
    if isinstance(value, list | tuple | set):
        return [plain(member) for member in (sorted(value, key=repr) if isinstance(value, set) else value)]
    return f"<{type(value).__name__}>" if callable(value) or isinstance(value, types.GeneratorType) else value


def coin(*key):
    return random.Random(repr(key)).random() < 0.6


class File(PurePosixPath):
    """A path whose answers depend on its name alone, which begins with the world's seed."""

    record = staticmethod(lambda *operation: None)
    is_dir = exists = is_file = lambda self: self.record("asked", self) or coin(self)
    glob = lambda self, pattern: ["one.md", "two.md"] if coin(self, pattern) else []

    def read_text(self, encoding):
        self.record("read", self)
        return f"text of {self.name}" if coin(self.name, self.parts[0]) else " "

    def unlink(self, *, missing_ok):
        self.record("unlink", self)
        if coin(self, "unlink"):
            raise PermissionError(self)


class World:
    """A host drawn from a seed: rows, index, plan, remap and collaborators.

    Args:
        traced: whether every object is traced, and names stand in a namespace that is no exact dict; else plain objects
            take the module's quicker ways, and only host, store, paths and collaborators record.
        odd: whether ids, rows and sets are what no sane host would hand in.
    """

    def __init__(self, seed, rules, record, traced, odd=False):
        self.seed, self.record, self.traced = seed, record, traced
        self.trace = (lambda name, value: Traced(record, name, value)) if traced else (lambda name, value: value)
        draw = random.Random(seed)
        ids = [Id(f"p{i}") if i % 3 == 0 else f"p{i}" for i in range(draw.randrange(1, 9))]
        if odd:
            ids = [draw.choice(ODD_IDS)(f"{i}") for i in range(8)]
        some = lambda population, most: draw.sample(population, min(draw.randrange(most + 1), len(population)))
        levels = [None, "", "note", "module", self.trace("level", "note"), self.trace("level", "module")]
        rows = []
        for page_id in [*ids, *some(ids, 1)]:
            row = {"page_id": page_id, "title": draw.choice(["", f"Title {page_id}", None])}
            row |= {"level": draw.choice(levels), "rel_path": draw.choice([None, "notes/x.md"])}
            files = draw.choice([None, [], ["d.c", "b.c", "a.c", "c.c", "b.c"]])
            row |= {"source_files": files, "related_pages": some(ids, 3), "summary": f"of {page_id}"}
            row |= {"build_cache": draw.choice([None, "text", {"prose": "old", "é": [1]}])}
            rows.append(self.trace(f"row {page_id}", draw.choice(ODD_ROWS)(row) if odd else row))
        self.make_set = draw.choice([set, Picky]) if odd else set
        ids = [page_id for page_id in ids if not isinstance(page_id, list)]  # which is no key
        self.plan_ids = self.trace("plan", self.make_set(some(ids, 4)))
        seeded = [*some(ids, 3), *some(["n1", "n2"], 2)]
        self.remap = self.trace("remap", {new: draw.choice([*ids, "gone"]) for new in seeded})
        self.merged = {new: some([*ids, "gone"], 4) for new in [*some(ids, 2), *some(["n1", "n3"], 1)]}
        self.indexed = draw.choice([[], ["a.c", "z.c"], ["z.c"], ["z.c"]])
        self.rows = rows
        self.space, methods = self.traced_namespace(rules) if traced else self.own_namespace(rules)
        self.host = self.make_host(methods)

    def own_namespace(self, rules):
        vars(rules).update(self.collaborators())
        return vars(rules), vars(rules.PageRetirementMixin)

    def traced_namespace(self, rules):
        record = self.record

        class Namespace(dict):
            def __getitem__(self, name):
                if name in self:  # built-in names are the module's own affair
                    record("global", name)
                return super().__getitem__(name)

        space = Namespace({name: getattr(oracle, name, None) for name in MODULE_NAMES})
        space.update(self.collaborators(), __builtins__=__builtins__)
        rebuild = lambda f: types.FunctionType(f.__code__, space, f.__name__, f.__defaults__)
        dict.__setitem__(space, "_judged_sources", rebuild(rules._judged_sources))
        return space, {name: rebuild(f) for name, f in vars(rules.PageRetirementMixin).items() if callable(f)}

    def make_host(self, methods):
        def selected(host, *args):
            deletes = methods["_retired_page_ids"](host, *args)
            self.deletes = deletes if self.make_set is set else self.make_set(deletes)
            return self.trace("deletes", self.deletes)

        def pruned(host, existing, *args):
            self.existing = existing
            return methods["_prune_retired_pages"](host, existing, *args)

        def read(host, name):
            if not name.startswith("__"):
                self.record("self", name)
            return object.__getattribute__(host, name)

        changed = {"_retired_page_ids": selected, "_prune_retired_pages": pruned, "__getattribute__": read}
        for name in ("_indexed_paths", "_notes_whose_file_is_gone") if self.traced else ():
            changed[name] = lambda host, *args, name=name: self.trace(name, methods[name](host, *args))
        host = type("Host", (), {name: f for name, f in methods.items() if callable(f)} | changed)()
        host.repository, host.branch = self.trace("store", self.store()), "main"
        host.repo_root = self.trace("root", File(f"{self.seed}/root"))
        host.pages_dir = self.trace("pages", File(f"{self.seed}/wiki/pages"))
        return host

    def replan(self):
        return self.host._apply_replan_to_store(self.remap, self.plan_ids)

    def store(self):
        log, swallows = self.record, coin(self.seed, "swallow")

        class Transaction:
            def __enter__(self):
                log("enter")

            def __exit__(self, kind, value, traceback):
                log("exit", repr(kind), repr(type(value)))
                return swallows and kind is Fault

        return types.SimpleNamespace(
            db=types.SimpleNamespace(transaction=Transaction),
            get_wiki_pages=lambda branch: self.rows,
            list_indexed_files=lambda *, source_only, limit: ([{"path": p} for p in self.indexed], 0, 0, 0),
            upsert_wiki_page=lambda *args, **fields: log("upsert", args, fields),
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
        }
        recorded = lambda name, function: lambda *args: self.record(name, args) or function(*args)
        watched = self.trace if self.traced else recorded
        names = {name: watched(name, function) for name, function in functions.items()}
        logger = types.SimpleNamespace(warning=watched("warning", lambda *args: None))
        level = "note" if self.seed % 4 else "module"
        return names | {"logger": self.trace("logger", logger), "NOTE_LEVEL": self.trace("NOTE_LEVEL", level)}


def run(seed, rules, traced, fail_at=None, disturb_at=None, odd=False):
    """What a replan gives or raises, and its operations; disturbed in the middle at operation number `disturb_at`."""
    namespace, record = dict(vars(rules)), Recorder()
    try:
        world = World(seed, rules, record, traced, odd)
        record.__init__(fail_at, disturb_at)
        record.disturb = lambda: disturb(world, random.Random(f"{seed} {disturb_at}"))
        Id.record = File.record = record
        outcome = world.replan()
    except Exception as error:
        outcome = type(error), str(error)
        assert record.fault in (None, error) or type(error) is RuntimeError  # the very object, or a swallowed one
    finally:
        Id.record = File.record = staticmethod(lambda *operation: None)
        vars(rules).clear()
        vars(rules).update(namespace)
    return outcome, record.operations


def disturb(world, draw):
    """Changes something that is being read: a container, a name of the module, an attribute or method of the host."""
    value = lambda thing: getattr(thing, "value", thing)
    rows = [*map(value, world.rows)]
    lists = [member for row in rows if isinstance(row, dict) for member in row.values() if isinstance(member, list)]
    tables = [*rows, value(world.remap), world.merged, getattr(world, "existing", {})]
    lists += [world.rows, *world.merged.values()]
    sets = [value(world.plan_ids), getattr(world, "deletes", set())]
    name, kind = draw.choice(MODULE_NAMES), type(world.host)
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
            lambda: world.space.update({name: world.space.get("_norm")}),
            lambda: setattr(world.host, attribute, "other"),
            lambda: delattr(world.host, attribute),
            lambda: setattr(kind, method, lambda *args: {"other"}),
            lambda: delattr(kind, method),
            lambda: setattr(world.host, "__class__", type("Other", (), {**vars(kind), method: None})),
            lambda: setattr(world.host, method, dict),
        ]
    )()

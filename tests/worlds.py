"""Hosts drawn from a seed, whose every touch is recorded: attribute, call, item, truth test, path, module name."""

import collections
import operator
import random
import types
from pathlib import PurePosixPath

import oracle

MODULE_NAMES = (
    "_atomic_write _norm cached_prose carried_sections contextlib json logger merged_predecessors page_prose "
    "with_carried NOTE_LEVEL"
).split()


class Fault(Exception):
    pass


class Recorder:
    """Notes every touch; raises at touch number `fail_at`, or calls `disturb` at number `disturb_at`."""

    def __init__(self):
        self.touches, self.fail_at, self.fault, self.disturb_at = [], None, None, None

    def __call__(self, *touch):
        self.touches.append(touch)
        if len(self.touches) - 1 == self.fail_at:
            self.fault = OSError("fault") if self.fail_at % 2 else Fault()
            raise self.fault
        if len(self.touches) - 1 == self.disturb_at:
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


class Alike(str):
    """Page ids that are equal where their last letters are."""

    __eq__ = lambda self, other: isinstance(other, str) and self[-1:] == other[-1:]
    __hash__ = lambda self: hash("p0")


class Picky(set):
    def __contains__(self, member):
        if coin(member, "picky"):
            return set.__contains__(self, member)
        raise Fault(member)


ODD_IDS = [Alike, Id, int, float, lambda name: (name,), lambda name: [name], lambda name: f"\ud800{name}"]
ODD_IDS += [lambda name: name * 100_000, lambda name: None, str, str, str, str, str]
ODD_ROWS = [types.MappingProxyType, collections.UserDict, lambda row: 7, *[dict] * 9]


def plain(value):
    if isinstance(value, Traced):
        return plain(value.value)
    if isinstance(value, dict):
        return {key: plain(member) for key, member in value.items()}
    if isinstance(value, list | tuple | set):
        return [plain(member) for member in (sorted(value, key=repr) if isinstance(value, set) else value)]
    return f"<{type(value).__name__}>" if callable(value) or isinstance(value, types.GeneratorType) else value


def coin(*key):
    return random.Random(repr(key)).random() < 0.6


class File(PurePosixPath):
    """A path whose answers depend on its name alone, which begins with the world's seed."""

    record = staticmethod(lambda *touch: None)
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
        traced: whether every object is traced; else plain objects take the module's quicker ways, and only host, store,
            paths and collaborators record.
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
        rows = []
        for page_id in [*ids, *some(ids, 1)]:
            row = {"page_id": page_id, "title": draw.choice(["", f"Title {page_id}", None])}
            row |= {"level": draw.choice([None, "", "note", "module"]), "rel_path": draw.choice([None, "notes/x.md"])}
            row |= {
                "source_files": draw.choice([None, [], ["d.c", "b.c", "a.c", "c.c", "b.c"]]),
                "related_pages": some(ids, 3),
            }
            row |= {"build_cache": draw.choice([None, "text", {"prose": "old", "é": [1]}]), "summary": f"of {page_id}"}
            rows.append(self.trace(f"row {page_id}", draw.choice(ODD_ROWS)(row) if odd else row))
        self.make_set = draw.choice([set, Picky]) if odd else set
        ids = [page_id for page_id in ids if not isinstance(page_id, list)]  # which is no key
        self.plan_ids = self.trace("plan", self.make_set(some(ids, 4)))
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
        space = self.space = Namespace(namespace) if self.traced else namespace
        rebuild = lambda f: types.FunctionType(f.__code__, space, f.__name__, f.__defaults__)
        dict.__setitem__(space, "_judged_sources", rebuild(rules._judged_sources))
        methods = {name: rebuild(f) for name, f in vars(rules.PageRetirementMixin).items() if callable(f)}

        select, prune = methods["_retired_page_ids"], methods["_prune_retired_pages"]

        def selected(*args):
            self.deletes = select(*args) if self.make_set is set else self.make_set(select(*args))
            return self.trace("deletes", self.deletes)

        def pruned(host, existing, *args):
            self.existing = existing
            return prune(host, existing, *args)

        methods |= {"_retired_page_ids": selected, "_prune_retired_pages": pruned}

        def read(host, name):
            if not name.startswith("__"):
                record("self", name)
            return object.__getattribute__(host, name)

        host = type("Host", (), {**methods, "__getattribute__": read})()
        host.repository, host.branch = self.trace("store", self.store()), "main"
        host.repo_root = self.trace("root", File(f"{self.seed}/root"))
        host.pages_dir = self.trace("pages", File(f"{self.seed}/wiki/pages"))
        return host

    def recorded(self, name, function):
        if not callable(function):
            return function
        return lambda *args: self.record(name, plain(args)) or function(*args)

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
        if not self.traced:
            functions["logger"].warning = self.recorded("warning", functions["logger"].warning)
        watched = self.trace if self.traced else self.recorded
        names = {name: watched(name, value) for name, value in functions.items()}
        return names | {"NOTE_LEVEL": "note" if self.seed % 4 else "module"}


def run(seed, rules, traced, fail_at=None, disturb_at=None, odd=False):
    """What a replan gives or raises, and its touches; disturbed in the middle at touch number `disturb_at`."""
    record = Recorder()
    world = World(seed, rules, record, traced, odd)
    record.touches.clear()
    record.fail_at, record.disturb_at = fail_at, disturb_at
    record.disturb = lambda: disturb(world, random.Random(f"{seed} {disturb_at}"))
    Id.record = File.record = record
    try:
        outcome = world.host._apply_replan_to_store(world.remap, world.plan_ids)
    except Exception as error:
        outcome = type(error), str(error)
        assert record.fault in (None, error) or type(error) is RuntimeError  # the very object, or a swallowed one
    finally:
        Id.record = File.record = staticmethod(lambda *touch: None)
    return outcome, record.touches


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

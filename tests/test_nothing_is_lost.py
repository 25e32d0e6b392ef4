"""No order of edits, runs, failures and kills takes away what a person wrote, and the next run mends the rest."""

import errno
import os
import re
import shutil
import signal
import sys
from collections import Counter, defaultdict
from pathlib import Path
from tempfile import TemporaryDirectory, mkdtemp

import pytest
import sqlalchemy as sa
from hypothesis import HealthCheck, settings
from hypothesis import strategies as st
from hypothesis.stateful import RuleBasedStateMachine, rule, run_state_machine_as_test
from msgspec.structs import asdict

from quillstone.errors import HostError, PageChangedError
from quillstone.storage.repository import Database, Repository, wiki_pages
from quillstone.workers.wiki.doctor import examine
from quillstone.workers.wiki.generator import WikiGenerator
from quillstone.workers.wiki.replan import Replan, run_replan
from quillstone.workers.wiki.replan_carry import cached_prose

PATHS = "top.py a/x.py a/README.md a/b/y.py c/z.py".split()
SOURCES = {path: f'"""What {path} is for."""\n' if path.endswith(".py") else "# On A\n\nSaid.\n" for path in PATHS}
FOLDERS = "a a/b c d/page-e f".split()
NAMES = "a c f new s/t n0".split()  # what renamed pages, notes and strangers' files are called, pages' names among them
EDITS = "append insert title cut crlf bom blank delete".split()
PICK = st.integers(0, 99)
FAULTS = st.tuples(st.sampled_from("none fail fail-on interrupt kill save replace".split()), PICK)
MOVES = st.lists(st.tuples(st.sampled_from("merge rename drop".split()), PICK, PICK), min_size=1, max_size=3)
TITLE = "(?m)^\ufeff?# .*"
STEPS = {"os.rename", "os.link", "os.remove", "os.mkdir", "os.rmdir", "shutil.rmtree"}
FILES = re.compile(r"(pages|notes|retired/[^/]*[^/.]{6}/(pages|cached))/(.*/)?[^./][^/]*\.md")


def tokens(*texts, passed_over=r"(?m)^- \[.*\]\(.*\.md\)\r?$"):
    """How often each thing that was said stands there; links show the title of another page."""
    return Counter(re.findall(r"(?:main|other)\d+", re.sub(passed_over, "", "\n".join(texts))))


def write_files(folder, files):
    for name, text in files.items():
        (folder / name).parent.mkdir(parents=True, exist_ok=True)
        (folder / name).write_text(text, "utf-8")


def read(path):
    return path.read_bytes().decode() if path.is_file() else ""


class World(RuleBasedStateMachine):
    """A tree with a wiki for each of two branches, and what people wrote into these."""

    at_work, disturbances = None, 0

    def __init__(self, folder, url):
        super().__init__()
        self.folder = Path(mkdtemp(dir=folder))
        self.tree = self.folder / "tree"
        write_files(self.tree, SOURCES)
        self.url = f"sqlite:///{self.folder}/store.sqlite" if url.startswith("sqlite") else url
        self.alive, self.said, self.may_repeat, self.strangers = set(), 0, Counter(), set()
        self.lengths = defaultdict(lambda: 30)  # how many steps the last run of a command took
        self.open_store()
        for self.branch in ("other", "main"):
            self.run("index", WikiGenerator.index)
            self.run("build", WikiGenerator.build)
            for page_id in self.rows():
                self.edit(self.pages / f"{page_id}.md", "append")

    def open_store(self):
        wiki_pages.metadata.drop_all(Database(self.url).engine)
        self.generators = {}
        for branch in ("main", "other"):
            repository = Repository(self.url, branch)
            for event in ("before_cursor_execute", "commit"):
                sa.event.listen(repository.db.engine, event, World.step)
            self.generators[branch] = WikiGenerator(repository, self.tree, branch, self.folder / branch)

    generator = property(lambda self: self.generators[self.branch])
    wiki = property(lambda self: self.folder / self.branch)
    pages = property(lambda self: self.wiki / "pages")
    unfinished = property(lambda self: {path.stem for path in self.wiki.glob("retired/*.part")})

    def look(self):
        """Everything that there is: texts by path, rows by the folder of the wiki."""
        tables = [sa.select(table).order_by(*table.primary_key) for table in wiki_pages.metadata.sorted_tables]
        with self.generator.repository.db.reading() as connection:
            rows = [tuple(row) for table in tables for row in connection.execute(table)]
        seen = {self.folder / branch: [row for row in rows if row[0] == branch] for branch in ("", *self.generators)}
        return seen | {path: read(path) for path in self.folder.glob("*/[npr]*/**/*") if path.is_file()}

    def rows(self):
        rows = self.generator.stored_pages()
        return {page_id: row for page_id, row in rows.items() if row["level"] != "note"}

    def texts(self):
        """What the pages say: their files or, where there is none or a blank one, the store."""
        files = {page_id: read(self.pages / f"{page_id}.md") for page_id in self.rows()}
        is_blank = lambda page_id: not files[page_id].strip("\ufeff \r\n")
        return files | {page_id: cached_prose(row) for page_id, row in self.rows().items() if is_blank(page_id)}

    def stand(self):
        """All that was said and stands on a page, in a note, in what is kept or in a file of somebody's own."""
        return tokens(*self.texts().values(), *map(read, self.wiki.rglob("*.md"))).keys()

    # Runs.

    @staticmethod
    def step(*_):
        """Before one step of a run to rows and files, or from that on, something happens."""
        self, World.at_work = World.at_work, None
        if self:
            try:
                self.taken += 1
                if self.how != "none" and (self.taken == self.at or (self.how == "fail-on" and self.taken > self.at)):
                    self.disturb()
            finally:
                World.at_work = self

    def disturb(self):
        self.disturbed = True
        if self.how == "kill":
            os.kill(os.getpid(), signal.SIGKILL)
        elif self.how not in ("save", "replace"):
            raise KeyboardInterrupt if self.how == "interrupt" else OSError(errno.ENOSPC, "no space is left")
        elif paths := sorted(self.pages.rglob("*.md")):
            self.meanwhile.add(path := paths[self.at % len(paths)])
            self.edit(path, "append", replacing=self.how == "replace")

    def run(self, command, work, fault=None, refuses=False, adds=None):
        """Have the branch's generator do the work; gives its result, None where that was stopped or refused."""
        (self.how, percent), self.taken, result, error = fault or ("none", 0), -1, None, None
        self.at = self.lengths[command] * percent // 100
        self.disturbed, self.meanwhile = False, {adds}
        before, was_whole = self.look(), not self.unfinished
        child, status = os.fork() if self.how == "kill" else None, 0
        try:
            World.at_work = None if child else self
            if child:
                status = os.waitpid(child, 0)[1]
            else:
                result = work(self.generator)
        except (HostError, OSError, KeyboardInterrupt) as raised:
            error = raised
        finally:
            World.at_work = None
            if child == 0:
                os._exit(error is not None)
        self.disturbed |= status == signal.SIGKILL
        World.disturbances += self.disturbed
        stopped, is_fault = bool(error or status), self.disturbed and self.how not in ("save", "replace")
        assert not error or is_fault or (refuses and isinstance(error, HostError)), error
        assert is_fault or not isinstance(error, PageChangedError)  # once is not five times
        if stopped and (self.at % 2 or adds):
            self.generator.in_run("nothing", lambda: None)  # which ends what was stopped
        after, rows = self.look(), self.rows()
        changed = {key for key in {*before, *after} - self.meanwhile if before.get(key) != after.get(key)}
        assert all(key == self.folder or self.wiki in (key, *key.parents) for key in changed)
        here = {path for path in after if self.wiki in path.parents}
        strays = {path for path in here if self.pages in path.parents} - {self.pages / f"{page}.md" for page in rows}
        assert stopped or not self.unfinished
        if not self.unfinished:
            assert [path for path in here if not FILES.fullmatch(str(path.relative_to(self.wiki)))] == []
            assert strays <= self.strangers
            self.strangers -= {path for path in self.strangers - strays if self.pages in path.parents}
            is_stored = self.wiki in changed and command != "preview"
            assert is_stored or not changed or not was_whole or not (stopped or command == "preview")
        if not stopped and not child:
            self.lengths[command] = self.taken
            kept = {page_id for _, page_id, path in self.generator.files.kept() if path not in before}
            assert kept == self.generator.outcome.kept_texts.keys() or command == "preview" or not was_whole
        named = {finding.page for finding in examine(self.generator) if finding.kind == "run that was stopped"}
        assert named == self.unfinished
        on_pages = tokens(*self.texts().values())
        assert named or not on_pages - Counter(dict.fromkeys(on_pages, 1)) - self.may_repeat, "stands twice"
        assert not {token for token in self.alive if token.startswith(self.branch)} - self.stand(), "lost"
        if result and command in ("build", "restore", "apply") and was_whole and not self.disturbed:
            work(self.generator)
            assert self.look() == after, "not the same again"
        return result

    @rule(anew=st.booleans(), fault=FAULTS)
    def build(self, anew, fault):
        if anew:
            self.run("index", WikiGenerator.index, fault)
        is_indexed = anew and not self.disturbed
        if self.run("build", WikiGenerator.build, None if anew else fault) and not self.disturbed:
            self.check_doctor(is_indexed)

    def check_doctor(self, is_indexed):
        found, rows = defaultdict(set), self.rows()
        for finding in examine(self.generator):
            found[finding.kind].add(finding.page)
        for kind in ("page kept as the index is behind", "stale page", "page without a file"):
            assert found.pop(kind, set()) == set() or not is_indexed
        files = {path.stem for path in self.wiki.glob("notes/*.md")}
        notes = self.generator.stored_pages().keys() - rows.keys()
        strangers = {self.pages / f"{page_id}.md" for page_id in found.pop("file without a page", ())}
        assert strangers == {path for path in self.strangers if self.pages in path.parents}
        assert found.pop("note that is not stored", set()) == files & rows.keys()
        assert found.pop("note without a file", set()) == (set() if files & notes else notes)
        assert not found

    @rule(moves=MOVES, fault=FAULTS)
    def replan(self, moves, fault):
        was_whole = not self.unfinished
        replan, left, texts = Replan(), list(self.generator.stored_pages()), self.texts()
        for how, one, other in moves[: max(0, len(left) - 1)]:
            page_id = left.pop(one % len(left))
            if how == "merge":
                into = [*left, *replan.rename.values()]
                replan.merge.setdefault(into[other % len(into)], []).append(page_id)
            elif how == "rename":
                replan.rename[page_id] = NAMES[other % len(NAMES)]
            else:
                replan.drop.append(page_id)
        foreseen = self.run("preview", lambda generator: run_replan(generator, replan, dry=True), refuses=True)
        done = self.run("apply", lambda generator: run_replan(generator, replan), fault, refuses=True)
        if was_whole and not self.disturbed and self.how != "kill":
            facts = lambda it: it and {**asdict(it), "run": (it.run.kept_texts.keys(), it.run.moved)}
            assert facts(done) == facts(foreseen)
            for page_id, holder in done.merged.items() if done else ():
                assert not tokens(texts[page_id], passed_over=TITLE) - tokens(self.texts()[holder])

    @rule(which=PICK, into=st.none() | PICK, fault=FAULTS)
    def restore(self, which, into, fault):
        kept = sorted((page_id, read(path), run) for run, page_id, path in self.generator.files.kept())
        if kept and (texts := self.texts()):
            page_id, _, run = kept[which % len(kept)]
            said = [text for kept_id, text, kept_run in kept if (kept_id, kept_run) == (page_id, run)]
            self.may_repeat.update(tokens(*said).keys() & tokens(*texts.values()).keys())
            target = "" if into is None else list(texts)[into % len(texts)]
            work = lambda generator: generator.restore(page_id, target, run)
            holder = self.run("restore", work, fault, refuses=True)
            if holder and not self.disturbed:
                assert not tokens(*said, passed_over=TITLE).keys() - tokens(self.texts()[holder]).keys()

    @rule(note_id=st.sampled_from(NAMES), fault=FAULTS)
    def file_note(self, note_id, fault):
        path, text = self.wiki / "notes" / f"{note_id}.md", self.say()
        self.run("note", lambda generator: generator.file_note(note_id, "Note", text), fault, True, path)
        self.alive |= tokens(text).keys() & tokens(read(path)).keys()

    # What people do.

    def say(self):
        self.said += 1
        return f"By hand: {self.branch}{self.said} stays."

    def edit(self, path, how, where=0, replacing=False):
        lines, said = read(path).split("\n"), self.say()
        at = where * len(lines) // 100
        lines = {
            "append": [*lines, said, ""],
            "insert": [*lines[:at], "", said, "", *lines[at:]],
            "title": [f"# {said}", *lines[1:]],
            "cut": [*lines[:at], *lines[at + 3 :]],
            "crlf": [f"{line}\r" for line in lines],
            "bom": [f"\ufeff{lines[0]}", *lines[1:]],
        }.get(how, [" "])
        before, file = self.stand(), self.folder / "saved" if replacing else path
        path.parent.mkdir(parents=True, exist_ok=True)
        file.write_bytes("\n".join(lines).encode())
        file.replace(path)
        if how == "delete":
            path.unlink()
        self.alive = self.alive - (before - self.stand()) | tokens(read(path)).keys()
        self.strangers.add(path)

    @rule(how=st.sampled_from(EDITS), which=PICK, where=PICK, replacing=st.booleans())
    def save(self, how, which, where, replacing):
        """Somebody saves or deletes a page, more seldom a file of their own or a note."""
        paths = sorted({*self.pages.rglob("*.md"), *(self.pages / f"{page_id}.md" for page_id in self.rows())}) * 4
        paths += [self.pages / f"{name}.md" for name in NAMES] + [self.wiki / f"notes/{name[0]}.md" for name in NAMES]
        self.edit(paths[which % len(paths)], how, where, replacing)

    @rule(how=st.sampled_from("move delete restore write".split()), one=PICK, other=PICK)
    def change_tree(self, how, one, other):
        source, target = (self.tree / FOLDERS[pick % len(FOLDERS)] for pick in (one, other))
        if how == "move" and source.is_dir() and not target.exists() and source not in target.parents:
            target.parent.mkdir(parents=True, exist_ok=True)
            source.rename(target)
        elif how == "delete":
            shutil.rmtree(source, ignore_errors=True)
        elif how == "restore":
            write_files(self.tree, SOURCES)
        elif how == "write":
            write_files(source, {"README.md": f"# Title {other}\n\nSaid.\n", "more.py": f'"""More of {one}."""\n'})

    @rule(how=st.sampled_from(["switch branch", "lose from index", "forget kept", "lose database"]), which=PICK)
    def meddle(self, how, which):
        kept = sorted((read(path), run) for run, _, path in self.generator.files.kept())
        records = self.generator.repository.list_indexed_files()[0]
        if how == "switch branch":
            self.branch = "other" if self.branch == "main" else "main"
        elif how == "lose from index" and records:
            self.generator.repository.forget_indexed_files([records[which % len(records)]["path"]])
        elif how == "forget kept" and kept:
            run = kept[which % len(kept)][1]
            self.alive -= tokens(*(text for text, of in kept if of == run)).keys()
            self.generator.forget(run)
        elif how == "lose database":
            texts = {path: text for path, text in self.look().items() if isinstance(text, str)}
            self.alive &= tokens(*texts.values()).keys()  # what stood in the store alone went with it
            self.strangers.update(path for path in texts if path.relative_to(self.folder).parts[1] == "pages")
            self.open_store()


def watch(event, args):
    creates = event == "open" and args[2] & os.O_CREAT
    if event in STEPS or creates or (event == "ctypes.dlsym" and args[1] == "renameat2"):
        World.step()


sys.addaudithook(watch)


@pytest.mark.parametrize(("examples", "steps"), [(25, 12), pytest.param(80, 30, marks=pytest.mark.long)])
def test_nothing_that_a_person_wrote_is_lost(database, examples, steps, figures):
    size = {"max_examples": examples, "stateful_step_count": steps, "derandomize": examples == 25}
    calm = settings(deadline=None, database=None, suppress_health_check=list(HealthCheck), **size)
    with TemporaryDirectory(dir="/dev/shm" if os.access("/dev/shm", os.W_OK) else None) as folder:
        run_state_machine_as_test(lambda: World(folder, database), settings=calm)
    assert World.disturbances > examples / 2
    figures["runs that were disturbed"] += World.disturbances

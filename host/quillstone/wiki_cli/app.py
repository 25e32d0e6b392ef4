"""The commands of `quillstone-wiki`."""

import fcntl
import inspect
import os
import signal
import sys
from collections.abc import Callable, Iterable, Iterator
from contextlib import contextmanager
from dataclasses import asdict, dataclass
from pathlib import Path
from typing import Annotated, Any

import msgspec
import sqlalchemy as sa
import typer
from rich.console import Console
from rich.table import Table
from rich.text import Text

from quillstone.errors import HostError
from quillstone.storage.repository import Repository
from quillstone.workers.wiki.doctor import examine
from quillstone.workers.wiki.generator import RunOutcome, WikiGenerator
from quillstone.workers.wiki.replan import ReplanOutcome, read_replan, run_replan
from quillstone.workers.wiki.source_tree import check_tree

EXAMPLES = 3
app = typer.Typer(
    no_args_is_help=True,
    add_completion=False,
    pretty_exceptions_enable=False,
    help="Keep a wiki of Markdown pages about a source tree: index, build, and replan without losing prose.",
)
WikiFolder = Annotated[Path, typer.Option(help="The wiki folder, with pages/ and notes/ in it.")]
DatabaseUrl = Annotated[str, typer.Option(help="URL, sqlite or postgresql. Default: wiki.sqlite in the wiki.")]
Branch = Annotated[str, typer.Option(help="The branch whose pages are meant.")]
AsJson = Annotated[bool, typer.Option("--json", help="Print the outcome as JSON, for programs.")]
TreeFolder = Annotated[Path, typer.Argument(help="The source tree: a git checkout, or any folder.")]
ReplanFile = Annotated[
    Path, typer.Argument(help='JSON: "merge" {into: [pages]}, "rename" {old: new}, "drop" [pages], by page ids.')
]


@dataclass
class Given:
    """The options that every command has."""

    wiki: WikiFolder = Path("wiki")
    database: DatabaseUrl = ""
    branch: Branch = "main"
    as_json: AsJson = False

    def say(self, facts: Any, *shown: Any) -> None:
        """Print the facts as JSON, or what is shown to people."""
        for part in [msgspec.json.format(msgspec.json.encode(facts)).decode()] if self.as_json else shown:
            typer.echo(part) if isinstance(part, str) else Console().print(part)

    def say_rows(self, rows: Iterable[dict[str, str]], nothing: str) -> None:
        """Print mappings of the same keys as JSON or as a table."""
        rows = [*rows]
        self.say(rows, table(rows) if rows else nothing)

    @contextmanager
    def opened(self, tree: Path | None = None) -> Iterator[WikiGenerator]:
        """Open the wiki that was indexed before or, with a tree, one that may be new."""
        if tree:
            check_tree(tree)
            self.wiki.mkdir(parents=True, exist_ok=True)
        file = self.wiki / "wiki.sqlite"
        if not (self.database or tree or file.is_file()):
            raise HostError(f"no wiki database {str(file)!r}; `quillstone-wiki index TREE`, then build, takes pages up")
        repository = Repository(self.database or sa.URL.create("sqlite", database=str(file)), self.branch)

        def stop(*_signal: Any) -> None:  # a run ends at its next file; what is no run, at once
            if generator.files.run is None or generator.files.stopping:
                raise KeyboardInterrupt
            generator.files.stopping = True

        before = signal.getsignal(signal.SIGINT)
        try:
            known = repository.get_fact(self.branch, "tree")
            if not tree and not known:
                raise HostError(f"nothing is indexed for branch {self.branch!r}; run `quillstone-wiki index TREE`")
            root = tree or Path(os.path.normpath(self.wiki.resolve() / known))
            check_tree(root)
            generator = WikiGenerator(repository, root, self.branch, self.wiki)
            signal.signal(signal.SIGINT, stop)
            yield generator
        finally:
            signal.signal(signal.SIGINT, before)


def command(example: str) -> Callable[[Callable[..., None]], Callable[..., None]]:
    """Make a function a command: it gets what was `Given`, the opened wiki, and then what it asks for itself."""

    def register(function: Callable[..., None]) -> Callable[..., None]:
        own = [*inspect.signature(function, eval_str=True).parameters.values()][2:]
        shared = inspect.signature(Given, eval_str=True).parameters

        def run(**values: Any) -> None:
            given = Given(**{name: values.pop(name) for name in shared})
            with user_errors(), given.opened(values.get("tree")) as generator:
                function(given, generator, **values)

        parameters = [parameter.replace(kind=parameter.KEYWORD_ONLY) for parameter in (*own, *shared.values())]
        run.__doc__, run.__annotations__ = function.__doc__, {each.name: each.annotation for each in parameters}
        run.__signature__ = inspect.Signature(parameters)  # type: ignore[attr-defined]
        app.command(function.__name__, epilog=f"Example: quillstone-wiki {example}")(run)
        return function

    return register


@command("index ~/src/project --wiki ~/src/project/wiki")
def index(given: Given, wiki: WikiGenerator, tree: TreeFolder) -> None:
    """Record which files a source tree holds; later commands work on that tree."""
    sources, files, missed = wiki.index()
    facts = {"source_files": sources, "files": files, "missed": missed}
    told = [f"Missed {path}: {why}." for path, why in missed.items()]
    given.say(facts, *run_lines(wiki.outcome), f"Indexed {sources} source files of {files} files.", *told)


@command("build --wiki ~/src/project/wiki")
def build(given: Given, wiki: WikiGenerator) -> None:
    """Write a page for each folder of the indexed tree; what people wrote on a page stays."""
    outcome = wiki.build()
    given.say(outcome, *run_lines(outcome), f"Wrote {outcome.written} pages, deleted {outcome.deleted}.")


@command('note parsing --title "How parsing works" < findings.md')
def note(
    given: Given,
    wiki: WikiGenerator,
    note_id: Annotated[str, typer.Argument(help="The note's id, also its file's name below notes/.")],
    title: Annotated[str, typer.Option(help="The note's title. Default: its id.")] = "",
) -> None:
    """File a research note, its text read from standard input. Delete its file to retire it."""
    path = wiki.file_note(note_id, title or note_id, sys.stdin.buffer.read().decode("utf-8"))
    given.say({"note": note_id, "file": str(path)}, *run_lines(wiki.outcome), f"Filed {path}")


@command("preview replan.json")
def preview(given: Given, wiki: WikiGenerator, replan: ReplanFile) -> None:
    """Show what a replan would retire, keep and merge. Changes nothing, but ends a run that was stopped before."""
    outcome = run_replan(wiki, read_replan(replan), dry=True)
    given.say(outcome, *outcome_report(outcome, "What would become of the pages"))


@command("apply replan.json")
def apply(given: Given, wiki: WikiGenerator, replan: ReplanFile) -> None:
    """Apply a replan: merge, rename and drop pages. Merged prose goes along; that of dropped pages is kept."""
    outcome = run_replan(wiki, read_replan(replan))
    given.say(outcome, *outcome_report(outcome, "What became of the pages"))


@command("retired")
def retired(
    given: Given,
    wiki: WikiGenerator,
    forget: Annotated[str, typer.Option(metavar="RUN", help="Delete what was kept of this run, for good.")] = "",
) -> None:
    """List the texts that are in no page any more, by the run that took them out, or forget those of a run."""
    if forget:
        texts = wiki.forget(forget)
        given.say({"forgotten": texts}, f"Forgot {texts} texts of {forget}.")
    else:
        given.say_rows(map(kept_row, wiki.files.kept()), "Nothing is kept.")


@command("restore json --into root")
def restore(
    given: Given,
    wiki: WikiGenerator,
    page: Annotated[str, typer.Argument(help="The page whose text is kept.")],
    into: Annotated[str, typer.Option(help="The page to put it into. Default: its own, where the plan has that.")] = "",
    run: Annotated[str, typer.Option(help="The run that took it out. Default: the last one.")] = "",
) -> None:
    """Bring back a page's text, which stays in retired/, too; a page that was dropped is in the plan again."""
    target = wiki.restore(page, into, run)
    given.say(
        {"page": page, "restored_in": target}, *run_lines(wiki.outcome), f"The text of {page} is on page {target}."
    )


@command("show json")
def show(
    given: Given,
    wiki: WikiGenerator,
    page: Annotated[str, typer.Argument(help="The page's id. Without one: a list of all pages and notes.")] = "",
) -> None:
    """Show a page or a note, or list them all."""
    rows = wiki.stored_pages()
    if not page:
        names = ("page_id", "title", "level", "status")
        given.say_rows(({name: row[name] for name in names} for row in rows.values()), "No page is stored.")
        return
    if page not in rows:
        raise HostError(f"no page {page!r} is stored; `quillstone-wiki show` lists the pages")
    path = given.wiki / rows[page]["rel_path"]
    text = path.read_text("utf-8") if path.is_file() else rows[page]["build_cache"].get("prose", "")
    given.say({**rows[page], "text": text}, text.rstrip("\n"))


@command("doctor --wiki ~/src/project/wiki")
def doctor(given: Given, wiki: WikiGenerator) -> None:
    """Look for what is out of order in a wiki, and say what to do; changes nothing. Exit status 1 when something is."""
    with wiki.lock.held(fcntl.LOCK_SH):
        findings = [*examine(wiki)]
        given.say_rows(map(asdict, findings), "All is well.")
    if findings:
        raise typer.Exit(1)


@contextmanager
def user_errors() -> Iterator[None]:
    """Turn what the user can mend into one line on standard error and exit status 2."""
    status = 2
    try:
        yield
        return
    except HostError as error:
        message = str(error)
    except sa.exc.SQLAlchemyError as error:
        message = f"the database failed ({getattr(error, 'orig', None) or error}); check it and run the command again"
    except UnicodeError as error:
        message = f"a text is not UTF-8 ({error}); save it as UTF-8"
    except OSError as error:
        message = f"cannot use {error.filename or 'a file'!r} ({error.strerror}); check the path and its permissions"
    except KeyboardInterrupt as error:
        message, status = f"stopped: {str(error) or 'the next command finishes what was begun, or takes it back'}", 130
    typer.echo(f"error: {' '.join(message.split())}", err=True)
    raise typer.Exit(status)


def table(rows: list[dict[str, str]], title: str | None = None) -> Table:
    """A table of mappings of the same keys."""
    made = Table(*(name.replace("_", " ").capitalize() for name in rows[0]), title=title)
    for row in rows:
        made.add_row(*map(Text, row.values()))
    return made


def kept_row(kept: tuple[str, str, Path]) -> dict[str, str]:
    """A text that is kept: its run, its page, where it is, and its first line that says something."""
    run, page_id, path = kept
    lines = path.read_text("utf-8", errors="replace").splitlines() if path.is_file() else []
    said = (line.strip()[:80] for line in lines if line.strip() and not line.startswith("<!--"))
    return {"run": run, "page_id": page_id, "kept_as": str(path).rpartition(f"{run}/")[2], "first_line": next(said, "")}


def run_lines(outcome: RunOutcome) -> list[str]:
    """What a run did that a person has to know of, line by line."""
    lines = [f"An earlier run, {run}." for run in outcome.recovered]
    lines += [f"The folder of page {old} moved: the page goes on as {new}." for old, new in outcome.moved.items()]
    lines += [f"Hand-written text of {page} leaves the wiki, kept in {at}" for page, at in outcome.kept_texts.items()]
    return lines + ["`quillstone-wiki restore PAGE` brings a kept text back."] * bool(outcome.kept_texts)


def outcome_kinds(outcome: ReplanOutcome) -> dict[str, list[str]]:
    """The pages of an outcome by what became of them, each as it is shown."""
    kinds: dict[str, list[str]] = {}
    for name, pages in msgspec.structs.asdict(outcome).items():
        if isinstance(pages, list | dict):
            told = [f"{page} -> {other}" for page, other in pages.items()] if isinstance(pages, dict) else pages
            kinds[name.replace("_", " ")] = told
    return kinds


def outcome_report(outcome: ReplanOutcome, title: str) -> list[Any]:
    """What became of every kind of page, and what a person has to know of the run."""
    shown = []
    for kind, pages in outcome_kinds(outcome).items():
        examples = ", ".join(pages[:EXAMPLES]) + ", ..." * (len(pages) > EXAMPLES)
        shown.append({"outcome": kind, "pages": str(len(pages)), "examples": examples})
    told = ["This replan was applied before; nothing was left to do."] * outcome.was_applied + run_lines(outcome.run)
    return [table(shown, title), *told]

"""The commands of `quillstone-wiki`."""

import inspect
import os
import signal
import sys
from collections.abc import Callable, Iterable, Iterator, Mapping
from contextlib import contextmanager
from dataclasses import asdict, dataclass
from pathlib import Path
from typing import Annotated, Any

import msgspec
import sqlalchemy as sa
import typer
from rich.console import Console
from rich.markdown import Markdown
from rich.progress import track

from quillstone.errors import HostError
from quillstone.storage.repository import Repository
from quillstone.wiki_cli import reports
from quillstone.workers.wiki.doctor import examine
from quillstone.workers.wiki.generator import WikiGenerator
from quillstone.workers.wiki.replan import read_replan, run_replan
from quillstone.workers.wiki.source_tree import check_tree, list_files

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

    def say(self, facts: Any, shown: Any) -> None:
        """Print the facts as JSON, or what is shown to people."""
        if self.as_json:
            shown = msgspec.json.format(msgspec.json.encode(facts)).decode()
        typer.echo(shown) if isinstance(shown, str) else Console().print(shown)

    def say_rows(self, rows: Iterable[Mapping[str, str]], nothing: str) -> None:
        """Print mappings of the same keys as JSON or as a table."""
        rows = [*rows]
        headings = [name.replace("_", " ").capitalize() for name in rows[0]] if rows else []
        self.say(rows, reports.table((row.values() for row in rows), *headings) if rows else nothing)

    @contextmanager
    def opened(self, tree: Path | None = None) -> Iterator[WikiGenerator]:
        """Open the wiki that was indexed before or, with a tree, one that may be new."""
        file, url = self.wiki / "wiki.sqlite", self.database
        if not url and not tree and not file.is_file():
            raise HostError(f"no wiki database {str(file)!r}; `quillstone-wiki index TREE`, then build, takes pages up")
        if tree and not url:
            self.wiki.mkdir(parents=True, exist_ok=True)
        url = url or sa.URL.create("sqlite", database=str(file)).render_as_string(hide_password=False)
        repository = Repository(url, self.branch)
        try:
            known = repository.get_fact(self.branch, "tree")
            if not tree and not known:
                raise HostError(
                    f"nothing is indexed for branch {self.branch!r}; run `quillstone-wiki index TREE` first"
                )
            root = tree or Path(os.path.normpath(self.wiki.resolve() / known))
            check_tree(root)
            generator = WikiGenerator(repository, root, self.branch, self.wiki)
            with stopped_in_good_order(generator):
                yield generator
        finally:
            repository.close()


def command(example: str) -> Callable[[Callable[..., None]], Callable[..., None]]:
    """Make a function a command: it gets what was `Given`, then what it asks for itself."""

    def register(function: Callable[..., None]) -> Callable[..., None]:
        own = [*inspect.signature(function, eval_str=True).parameters.values()][1:]
        shared = inspect.signature(Given, eval_str=True).parameters

        def run(**values: Any) -> None:
            given = Given(**{name: values.pop(name) for name in shared})
            with user_errors():
                function(given, **values)

        parameters = [parameter.replace(kind=parameter.KEYWORD_ONLY) for parameter in (*own, *shared.values())]
        run.__doc__, run.__annotations__ = function.__doc__, {each.name: each.annotation for each in parameters}
        run.__signature__ = inspect.Signature(parameters)  # type: ignore[attr-defined]
        app.command(function.__name__, epilog=f"Example: quillstone-wiki {example}")(run)
        return function

    return register


@command("index ~/src/project --wiki ~/src/project/wiki")
def index(given: Given, tree: TreeFolder) -> None:
    """Record which files a source tree holds; later commands work on that tree."""
    list_files(tree)  # fails, if it does, before anything is made
    with given.opened(tree) as generator:
        sources, files, missed = generator.index(progress)
        told = [f"Indexed {sources} source files of {files} files."]
        told += [f"Missed {path}: {why}." for path, why in missed.items()]
        given.say({"source_files": sources, "files": files, "missed": missed}, "\n".join(told))


@command("build --wiki ~/src/project/wiki")
def build(given: Given) -> None:
    """Write a page for each folder of the indexed tree; what people wrote on a page stays."""
    with given.opened() as generator:
        outcome = generator.build(progress)
        told = [*reports.run_lines(outcome), f"Wrote {outcome.written} pages, deleted {outcome.deleted}."]
        given.say(outcome, "\n".join(told))


@command('note parsing --title "How parsing works" < findings.md')
def note(
    given: Given,
    note_id: Annotated[str, typer.Argument(help="The note's id, also its file's name below notes/.")],
    title: Annotated[str, typer.Option(help="The note's title. Default: its id.")] = "",
) -> None:
    """File a research note, its text read from standard input. Delete its file to retire it."""
    with given.opened() as generator:
        path = generator.file_note(note_id, title or note_id, sys.stdin.buffer.read().decode("utf-8"))
        given.say({"note": note_id, "file": str(path)}, f"Filed {path}")


@command("preview replan.json")
def preview(given: Given, replan: ReplanFile) -> None:
    """Show what a replan would retire, keep and merge; nothing is changed."""
    with given.opened() as generator:
        outcome = run_replan(generator, read_replan(replan), dry=True)
        given.say(outcome, reports.outcome_report(outcome, "What would become of the pages"))


@command("apply replan.json")
def apply(given: Given, replan: ReplanFile) -> None:
    """Apply a replan: merge, rename and drop pages. Merged prose goes along; that of dropped pages is kept."""
    with given.opened() as generator:
        outcome = run_replan(generator, read_replan(replan))
        given.say(outcome, reports.outcome_report(outcome, "What became of the pages"))


@command("retired")
def retired(
    given: Given,
    forget: Annotated[str, typer.Option(metavar="RUN", help="Delete what was kept of this run, for good.")] = "",
) -> None:
    """List the texts that are in no page any more, by the run that took them out, or forget those of a run."""
    with given.opened() as generator:
        if forget:
            texts = generator.forget(forget)
            given.say({"forgotten": texts}, f"Forgot {texts} texts of {forget}.")
        else:
            given.say_rows(map(reports.kept_row, generator.files.kept()), "Nothing is kept.")


@command("restore json --into root")
def restore(
    given: Given,
    page: Annotated[str, typer.Argument(help="The page whose text is kept.")],
    into: Annotated[str, typer.Option(help="The page to put it into. Default: its own, where the plan has that.")] = "",
    run: Annotated[str, typer.Option(help="The run that took it out. Default: the last one.")] = "",
) -> None:
    """Bring back a page's text that is kept in retired/; a page that was dropped is in the plan again."""
    with given.opened() as generator:
        target = generator.restore(page, into, run)
        given.say({"page": page, "restored_in": target}, f"The text of {page} stands in page {target}.")


@command("show json")
def show(
    given: Given,
    page: Annotated[str, typer.Argument(help="The page's id. Without one: a list of all pages and notes.")] = "",
) -> None:
    """Show a page or a note, or list them all."""
    with given.opened() as generator:
        rows = generator.stored_pages()
        if not page:
            names = ("page_id", "title", "level", "status")
            given.say_rows(({name: row[name] for name in names} for row in rows.values()), "No page is stored.")
            return
        if page not in rows:
            raise HostError(f"no page {page!r} is stored; `quillstone-wiki show` lists the pages")
        path = given.wiki / rows[page]["rel_path"]
        text = path.read_text("utf-8") if path.is_file() else ""
        given.say({**rows[page], "text": text}, Markdown(text) if sys.stdout.isatty() else text.rstrip("\n"))


@command("doctor --wiki ~/src/project/wiki")
def doctor(given: Given) -> None:
    """Look for what is out of order in a wiki, and say what to do; changes nothing. Exit status 1 when something is."""
    with given.opened() as generator, generator.lock.shared():
        findings = examine(generator, progress)
        given.say_rows(map(asdict, findings), "All is well.")
    if findings:
        raise typer.Exit(1)


@contextmanager
def stopped_in_good_order(generator: WikiGenerator) -> Iterator[None]:
    """Let Ctrl-C end a run at its next file, so that it is taken back at once; the second one ends it where it is."""

    def stop(*_signal: Any) -> None:
        if generator.files.run is None or generator.files.stopping:
            raise KeyboardInterrupt
        generator.files.stopping = True

    before = signal.signal(signal.SIGINT, stop)
    try:
        yield
    except KeyboardInterrupt:
        state = (
            "all was committed before that" if generator.is_committed else "nothing was changed; run the command again"
        )
        half_done = "the next command finishes what was begun, or takes it back"
        raise KeyboardInterrupt(half_done if generator.files.unfinished() else state) from None
    finally:
        signal.signal(signal.SIGINT, before)


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
        message, status = f"stopped: {str(error) or 'nothing was changed; run the command again'}", 130
    typer.echo(f"error: {' '.join(message.split())}", err=True)
    raise typer.Exit(status)


def progress(steps: list[Any], label: str) -> Iterable[Any]:
    """Show a bar on standard error while the steps are gone through, where that is a terminal."""
    console = Console(stderr=True)
    return track(steps, label, console=console, disable=not console.is_terminal)

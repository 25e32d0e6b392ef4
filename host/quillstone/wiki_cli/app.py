"""The command line: `quillstone-wiki`."""

from __future__ import annotations

import json
import os
import sys
import tempfile
from collections.abc import Iterable, Iterator
from contextlib import contextmanager
from dataclasses import asdict
from pathlib import Path
from typing import Annotated, Any

import sqlalchemy as sa
import typer
from rich.console import Console
from rich.markdown import Markdown
from rich.progress import track

from quillstone.errors import HostError, StoreError
from quillstone.storage.repository import Repository
from quillstone.wiki_cli import reports
from quillstone.wiki_cli.demo import default_tree, run_demo
from quillstone.workers.wiki.doctor import examine
from quillstone.workers.wiki.generator import WikiGenerator
from quillstone.workers.wiki.replan import (
    Replan,
    ReplanOutcome,
    checked_plan,
    preview_replan,
    read_replan,
    run_replan,
)
from quillstone.workers.wiki.source_tree import check_tree, list_files

DATABASE_FILE = "wiki.sqlite"

app = typer.Typer(
    no_args_is_help=True,
    add_completion=False,
    pretty_exceptions_enable=False,
    help="Keep a wiki of Markdown pages about a source tree: index, build, and replan without losing prose.",
)

Wiki = Annotated[Path, typer.Option(help="The wiki folder, with pages/ and notes/ in it.")]
DatabaseUrl = Annotated[
    str,
    typer.Option("--database", help=f"URL of an sqlite or postgresql database. Default: {DATABASE_FILE} in the wiki."),
]
Branch = Annotated[str, typer.Option(help="The branch whose pages are meant.")]
AsJson = Annotated[bool, typer.Option("--json", help="Print the outcome as JSON, for programs.")]
ReplanFile = Annotated[
    Path,
    typer.Argument(
        help='A JSON object: "merge" maps page ids to lists of those to go into them, "rename" old ids to new ones, '
        '"drop" is a list.'
    ),
]

DEFAULT_WIKI = Path("wiki")


@app.command(epilog="Example: quillstone-wiki index ~/src/project --wiki ~/src/project/wiki")
def index(
    tree: Annotated[Path, typer.Argument(help="The source tree: a git checkout, or any folder.")],
    wiki: Wiki = DEFAULT_WIKI,
    database: DatabaseUrl = "",
    branch: Branch = "main",
    as_json: AsJson = False,
) -> None:
    """Record which files a source tree holds; later commands work on that tree."""
    with user_errors():
        list_files(tree)  # fails, if it does, before anything is made
        with opened_wiki(wiki, database, branch, tree) as generator:
            sources, files = generator.index(progress)
            say(as_json, {"source_files": sources, "files": files}, f"Indexed {sources} source files of {files} files.")


@app.command(epilog="Example: quillstone-wiki build --wiki ~/src/project/wiki")
def build(
    wiki: Wiki = DEFAULT_WIKI, database: DatabaseUrl = "", branch: Branch = "main", as_json: AsJson = False
) -> None:
    """Write a page for each folder of the indexed tree; what people wrote on a page stays."""
    with user_errors(), opened_wiki(wiki, database, branch) as generator:
        written, deleted = generator.build(progress)
        say(as_json, {"written": written, "deleted": deleted}, f"Wrote {written} pages, deleted {deleted}.")


@app.command(epilog='Example: quillstone-wiki note parsing --title "How parsing works" < findings.md')
def note(
    note_id: Annotated[str, typer.Argument(help="The note's id, also its file's name below notes/.")],
    title: Annotated[str, typer.Option(help="The note's title. Default: its id.")] = "",
    wiki: Wiki = DEFAULT_WIKI,
    database: DatabaseUrl = "",
    branch: Branch = "main",
    as_json: AsJson = False,
) -> None:
    """File a research note, its text read from standard input. Delete its file to retire it."""
    with user_errors(), opened_wiki(wiki, database, branch) as generator:
        path = generator.file_note(note_id, title or note_id, sys.stdin.buffer.read().decode("utf-8"))
        say(as_json, {"note": note_id, "file": str(path)}, f"Filed {path}")


@app.command(epilog="Example: quillstone-wiki preview replan.json")
def preview(
    replan: ReplanFile,
    wiki: Wiki = DEFAULT_WIKI,
    database: DatabaseUrl = "",
    branch: Branch = "main",
    as_json: AsJson = False,
) -> None:
    """Show what a replan would retire, keep and merge; nothing is changed."""
    with user_errors(), opened_wiki(wiki, database, branch) as generator, generator.lock.held():
        document, planned = checked_replan(generator, replan)
        report(as_json, preview_replan(generator, document.remap, planned), "What would become of the pages")


@app.command(epilog="Example: quillstone-wiki apply replan.json")
def apply(
    replan: ReplanFile,
    wiki: Wiki = DEFAULT_WIKI,
    database: DatabaseUrl = "",
    branch: Branch = "main",
    as_json: AsJson = False,
) -> None:
    """Apply a replan: merge, rename and drop pages. Merged prose goes along; that of dropped pages does not."""
    with user_errors(), opened_wiki(wiki, database, branch) as generator, generator.lock.held():
        document, planned = checked_replan(generator, replan)
        report(as_json, run_replan(generator, document.remap, planned), "What became of the pages")


@app.command(epilog="Example: quillstone-wiki show json")
def show(
    page: Annotated[str, typer.Argument(help="The page's id. Without one: a list of all pages and notes.")] = "",
    wiki: Wiki = DEFAULT_WIKI,
    database: DatabaseUrl = "",
    branch: Branch = "main",
    as_json: AsJson = False,
) -> None:
    """Show a page or a note, or list them all."""
    with user_errors(), opened_wiki(wiki, database, branch) as generator:
        rows = generator.stored_pages()
        if not page:
            facts = [{name: row[name] for name in ("page_id", "title", "level", "status")} for row in rows.values()]
            say(as_json, facts, reports.page_list(facts, generator.files_without_rows()))
            return
        if page not in rows:
            raise HostError(f"no page {page!r} is stored; `quillstone-wiki show` lists the pages")
        path = wiki / rows[page]["rel_path"]
        text = path.read_text("utf-8") if path.is_file() else ""
        shown = Markdown(text) if sys.stdout.isatty() else text.rstrip("\n")
        say(as_json, {**rows[page], "text": text}, shown)


@app.command(epilog="Example: quillstone-wiki doctor --wiki ~/src/project/wiki")
def doctor(
    wiki: Wiki = DEFAULT_WIKI, database: DatabaseUrl = "", branch: Branch = "main", as_json: AsJson = False
) -> None:
    """Look for what is out of order in a wiki, and say what to do; changes nothing. Exit status 1 when something is."""
    with user_errors(), opened_wiki(wiki, database, branch, read_only=True) as generator, generator.lock.shared():
        findings = examine(generator, progress)
        say(as_json, [asdict(finding) for finding in findings], reports.findings_report(findings))
    if findings:
        raise typer.Exit(1)


@app.command(epilog="Example: quillstone-wiki demo ~/src/project")
def demo(
    tree: Annotated[Path | None, typer.Argument(help="The source tree. Default: Python's standard library.")] = None,
    work: Annotated[Path | None, typer.Option(help="An empty folder to leave the demo's wiki in.")] = None,
    database: Annotated[str, typer.Option(help="URL of an empty database. Default: SQLite in the work folder.")] = "",
    as_json: AsJson = False,
) -> None:
    """Run the whole road on a real tree, a failed commit included, and check that no prose was lost."""
    with user_errors(), tempfile.TemporaryDirectory() as scratch:
        source = tree or default_tree()
        check_tree(source)
        wiki = work or Path(scratch)
        if wiki.is_dir() and any(wiki.iterdir()):
            raise HostError(f"the work folder {str(wiki)!r} is not empty; give another")
        with opened_wiki(wiki, database, "demo", source) as generator:
            if generator.stored_pages() or generator.repository.list_indexed_files()[0]:
                raise StoreError("the database holds a wiki already; the demo needs an empty one")
            result = run_demo(generator, progress)
            say(as_json, asdict(result), reports.demo_report(result))
    if result.problems:
        raise typer.Exit(1)


@contextmanager
def opened_wiki(
    wiki: Path, database: str, branch: str, tree: Path | None = None, read_only: bool = False
) -> Iterator[WikiGenerator]:
    """Open the wiki that was indexed before or, with a tree, one that may be new; leaves nothing behind on an error."""
    if not read_only:
        check_folder(wiki)
    file = sa.URL.create("sqlite", database=str(wiki / DATABASE_FILE))
    url = database or file.render_as_string(hide_password=False)
    if tree is None:
        check_database_file(url)
    elif not database:
        wiki.mkdir(parents=True, exist_ok=True)
    repository = Repository(url, read_only)
    try:
        root = tree or repository.get_fact(branch, "tree")
        if root is None:
            raise HostError(f"nothing is indexed for branch {branch!r}; run `quillstone-wiki index TREE` first")
        check_tree(Path(root))
        yield WikiGenerator(repository, Path(root), branch, wiki)
    finally:
        repository.close()


def check_folder(wiki: Path) -> None:
    """Raise `HostError` unless the wiki folder can be written, or made where it is missing."""
    nearest = next(folder for folder in (wiki.absolute(), *wiki.absolute().parents) if os.path.lexists(folder))
    if not nearest.is_dir() or not os.access(nearest, os.W_OK | os.X_OK):
        raise HostError(f"cannot write the wiki folder {str(wiki)!r}; give a folder of your own with --wiki")


def check_database_file(url: str) -> None:
    """Raise `HostError` for an SQLite file that is missing, which opening it would create."""
    try:
        parts = sa.make_url(url)
    except sa.exc.ArgumentError:
        return  # the store says what is wrong with it
    if parts.get_backend_name() == "sqlite" and parts.database and not Path(parts.database).is_file():
        raise HostError(f"no wiki database {parts.database!r}; run `quillstone-wiki index TREE` first")


def checked_replan(generator: WikiGenerator, path: Path) -> tuple[Replan, set[str]]:
    """The replan of a file, found to fit the stored pages, and the page ids of the plan after it."""
    document = read_replan(path)
    return document, checked_plan(generator, document)


@contextmanager
def user_errors() -> Iterator[None]:
    """Turn what the user can mend into one line on standard error and exit status 2."""
    try:
        yield
    except HostError as error:
        message = str(error)
    except sa.exc.SQLAlchemyError as error:
        message = f"the database failed ({getattr(error, 'orig', None) or error}); check it and run the command again"
    except UnicodeError as error:
        message = f"a text is not UTF-8 ({error}); save it as UTF-8"
    except OSError as error:
        message = f"cannot use {error.filename or 'a file'!r} ({error.strerror}); check the path and its permissions"
    else:
        return
    typer.echo(f"error: {' '.join(message.split())}", err=True)
    raise typer.Exit(2)


def progress(steps: list[Any], label: str) -> Iterable[Any]:
    """Show a bar on standard error while the steps are gone through, where that is a terminal."""
    console = Console(stderr=True)
    return track(steps, label, console=console, disable=not console.is_terminal)


def say(as_json: bool, facts: Any, shown: Any) -> None:
    """Print the facts as JSON, or what is shown to people."""
    if as_json:
        typer.echo(json.dumps(facts, indent=2))
    elif isinstance(shown, str):
        typer.echo(shown)
    else:
        Console().print(shown)


def report(as_json: bool, outcome: ReplanOutcome, title: str) -> None:
    """Print what became of every page."""
    say(as_json, asdict(outcome), reports.outcome_report(outcome, title))


def main() -> None:
    """Run the command line."""
    app(prog_name="quillstone-wiki")

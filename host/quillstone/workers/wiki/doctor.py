"""What is out of order in a wiki, and what to do about it; nothing is changed."""

from collections import Counter
from collections.abc import Iterator
from dataclasses import dataclass

from quillstone.errors import HostError, PageFileError
from quillstone.workers.wiki.generator import Track, WikiGenerator, note_text, untracked
from quillstone.workers.wiki.replan import unlogged
from quillstone.workers.wiki.replan_carry import split_carried
from quillstone.workers.wiki_types import NOTE_LEVEL

BUILD = "run `quillstone-wiki build`"


@dataclass
class Finding:
    """One thing that is out of order: its kind, the page, note or run that is meant, and what to do."""

    kind: str
    page: str
    remedy: str


def examine(generator: WikiGenerator, track: Track = untracked) -> list[Finding]:
    """Look over a wiki, its store and its index; gives what is out of order, kind by kind."""
    return [*_findings(generator, track)]


def _findings(generator: WikiGenerator, track: Track) -> Iterator[Finding]:
    rows, strays = generator.stored_pages(), generator.files_without_rows()
    plan_ids = {plan.page_id for plan in generator.plan(rows)}
    notes = {page_id: row for page_id, row in rows.items() if row["level"] == NOTE_LEVEL}
    pages = {page_id: row for page_id, row in rows.items() if page_id not in notes}
    with unlogged():
        retired = generator._retired_page_ids(rows, plan_ids)
    for run in generator.files.unfinished():
        yield Finding("run that was stopped", run.id, f"the next run finishes it or takes it back: {BUILD}")
    for page_id in strays:
        if page_id not in plan_ids:
            remedy = "no run reads or removes it; move its text to the page where it belongs, then delete it"
            yield Finding("file without a page", page_id, remedy)
    for page_id in track([*pages, *plan_ids.intersection(strays)], "Reading pages"):
        yield from _page_file(generator, page_id, page_id in plan_ids)
    for page_id in sorted(plan_ids - pages.keys()):
        yield Finding("page not built yet", page_id, BUILD)
    for note_id, row in notes.items():
        if not (generator.wiki_dir / row["rel_path"]).is_file():
            fate = (
                "the next build or replan forgets it" if note_id in retired else "it stays until another note is there"
            )
            yield Finding("note without a file", note_id, f"put {row['rel_path']} back to keep it, else {fate}")
    for path in sorted((generator.wiki_dir / "notes").glob("*.md")):
        try:
            note_text(path)
        except (OSError, HostError) as error:
            yield Finding("note that cannot be stored", path.stem, str(error))
            continue
        if path.stem not in notes:
            remedy = "a page has its id: rename the file" if path.stem in rows else f"{BUILD}, which files it"
            yield Finding("note that is not stored", path.stem, remedy)
    for page_id, row in pages.items():
        if row["status"] != "fresh":
            yield Finding("stale page", page_id, f"a replan changed it since it was built: {BUILD}")
    for page_id in sorted(pages.keys() - plan_ids):
        if page_id in retired:
            remedy = (
                "the next build retires it, or continues it where its folder is now; it says where its text is kept"
            )
            yield Finding("page out of the plan", page_id, remedy)
        else:
            remedy = "the index does not know its sources: run `quillstone-wiki index TREE`, then build"
            yield Finding("page kept as the index is behind", page_id, remedy)


def _page_file(generator: WikiGenerator, page_id: str, is_planned: bool) -> Iterator[Finding]:
    path = generator.files.page_file(page_id)
    if path.is_dir():
        yield Finding("folder in a file's place", page_id, "move it elsewhere: no run goes on before that")
    elif not path.is_file():
        planned = f"{BUILD}, which writes it again with the prose that the store keeps"
        kept = "its prose is in the store alone; what becomes of the page is said below"
        yield Finding("page without a file", page_id, planned if is_planned else kept)
    else:
        try:
            _, sections = split_carried(path.read_text("utf-8"))
        except (OSError, PageFileError) as error:
            yield Finding("file that cannot be read", page_id, f"no run goes on before it can be: {error}")
            return
        for section, times in Counter(sections).items():
            if times > 1:
                title = section.split("\n")[1].removeprefix("## ")
                remedy = f"{title!r} stands there {times} times, word for word: delete all but one in the page's file"
                yield Finding("section that stands twice", page_id, remedy)

"""What is out of order in a wiki, and what to do about it; nothing is changed."""

from collections import Counter
from collections.abc import Iterator
from dataclasses import dataclass

from quillstone.errors import HostError, PageFileError
from quillstone.workers.wiki.generator import WikiGenerator, note_text, progress
from quillstone.workers.wiki.page_files import check_place, page_id_of, texts_below
from quillstone.workers.wiki.replan_carry import split_carried
from quillstone.workers.wiki_types import NOTE_LEVEL

BUILD, INDEX = "run `quillstone-wiki build`", "run `quillstone-wiki index TREE`, then build"


@dataclass
class Finding:
    """One thing that is out of order: its kind, the page, note or run that is meant, and what to do."""

    kind: str
    page: str
    remedy: str


def examine(generator: WikiGenerator) -> Iterator[Finding]:
    """Look over a wiki, its store and its index; gives what is out of order, kind by kind."""
    rows, pages_dir, stopped = generator.stored_pages(), generator.pages_dir, generator.files.unfinished()
    plan_ids = {plan.page_id for plan in generator.plan(rows)}
    retired = generator._retired_page_ids(rows, plan_ids)
    notes = {page_id: row for page_id, row in rows.items() if row["level"] == NOTE_LEVEL}
    pages = {page_id: row for page_id, row in rows.items() if page_id not in notes}
    strays = sorted({page_id_of(file, pages_dir) for file in texts_below(pages_dir) if file.suffix == ".md"} - {*pages})
    left, hidden = sorted({*strays} - plan_ids), sorted(pages.keys() - plan_ids - retired)
    stale = [page_id for page_id, row in pages.items() if row["status"] != "fresh"]
    found = {
        "run that was stopped": (stopped, f"the next run finishes it or takes it back: {BUILD}"),
        "file without a page": ([] if stopped else left, "no run reads or removes it; move its text to its page"),
        "page not built yet": (sorted(plan_ids - pages.keys()), BUILD),
        "stale page": (stale, f"a replan changed it since it was built: {BUILD}"),
        "page out of the plan": (sorted(pages.keys() & retired), f"it is to move, or its text to retired/: {BUILD}"),
        "page kept as the index is behind": (hidden, f"the index lacks its sources: {INDEX}"),
    }
    for kind, (page_ids, remedy) in found.items():
        yield from (Finding(kind, page_id, remedy) for page_id in page_ids)
    for page_id in progress([*pages, *plan_ids.intersection(strays)], "Reading pages"):
        yield from _page_file(generator, page_id)
    for note_id, row in notes.items():
        if not (generator.wiki_dir / row["rel_path"]).is_file():
            fate = "the next build forgets it" if note_id in retired else "it stays until another note is there"
            yield Finding("note without a file", note_id, f"put {row['rel_path']} back to keep it, else {fate}")
    for path in sorted((generator.wiki_dir / "notes").glob("*.md")):
        try:
            note_text(path)
            if path.stem not in notes:
                remedy = "a page has its id: rename the file" if path.stem in rows else f"{BUILD}, which files it"
                yield Finding("note that is not stored", path.stem, remedy)
        except (OSError, HostError) as error:
            yield Finding("note that cannot be stored", path.stem, str(error))


def _page_file(generator: WikiGenerator, page_id: str) -> Iterator[Finding]:
    path = generator.files.page_file(page_id)
    try:
        check_place(path, generator.pages_dir)
        if not path.is_file():
            yield Finding("page without a file", page_id, f"its prose is in the store alone: {BUILD}")
        text = path.read_text("utf-8") if path.is_file() else ""
        for section, times in Counter(split_carried(text)[1]).items():
            if times > 1:
                title = section.split("\n")[1].removeprefix("## ")
                remedy = f"{title!r} stands there {times} times, word for word: delete all but one in its file"
                yield Finding("section that stands twice", page_id, remedy)
    except (OSError, PageFileError) as error:
        yield Finding("file that cannot be read", page_id, f"no run goes on before it can be: {error}")

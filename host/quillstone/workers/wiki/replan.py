"""Replans as people write them, and what became of every page when one was applied or rehearsed."""

from collections import Counter
from pathlib import Path

import msgspec

from quillstone.errors import ReplanError
from quillstone.storage.repository import check_page_id
from quillstone.workers.wiki.generator import RunOutcome, WikiGenerator
from quillstone.workers.wiki.replan_carry import ReplanRemap
from quillstone.workers.wiki_types import NOTE_LEVEL, Rows


class Replan(msgspec.Struct, forbid_unknown_fields=True):
    """What is to become of pages: `merge` maps a successor to the pages that go into it, `rename` old ids to new."""

    merge: dict[str, list[str]] = {}
    rename: dict[str, str] = {}
    drop: list[str] = []

    @property
    def retired(self) -> list[str]:
        """Every page id that the replan takes away, as often as it does."""
        return [*self.rename, *self.drop, *(page_id for pages in self.merge.values() for page_id in pages)]

    def holder(self, page_id: str) -> str | None:
        """Where the page's prose ends up: the page at the end of its merges and its renaming, itself in a circle."""
        targets = {merged: successor for successor, pages in self.merge.items() for merged in pages} | self.rename
        passed: set[str] = set()
        while page_id in targets and page_id not in passed:
            passed.add(page_id)
            page_id = targets[page_id]
        return None if page_id in self.drop else page_id


class ReplanOutcome(msgspec.Struct):
    """What became of every page, by its id; `was_applied`: by an earlier run already, and nothing was left to do."""

    kept: list[str] = []
    renamed: dict[str, str] = {}
    merged: dict[str, str] = {}
    index_behind: list[str] = []
    dropped: list[str] = []
    notes_retired: list[str] = []
    notes_kept: list[str] = []
    was_applied: bool = False
    run: RunOutcome = msgspec.field(default_factory=RunOutcome)


def read_replan(path: Path) -> Replan:
    """Read a replan file, a JSON object with any of "merge", "rename" and "drop"; raises `ReplanError`, `OSError`."""
    try:
        return msgspec.json.decode(path.read_bytes(), type=Replan)
    except (ValueError, RecursionError) as error:
        raise ReplanError(f"{str(path)!r} is not a replan ({error}); correct the file") from error


def check_replan(replan: Replan, rows: Rows) -> None:
    """Raise `ReplanError` or `PageIdError` when the replan does not fit the stored pages."""
    times, new_ids, merging = Counter(replan.retired), Counter(replan.rename.values()), replan.merge.keys()
    notes = {page_id for page_id, row in rows.items() if row["level"] == NOTE_LEVEL}
    taken = {page_id for page_id in new_ids if page_id in rows or new_ids[page_id] > 1}
    problems = {
        "is not stored; `quillstone-wiki show` lists the pages": times.keys() - rows.keys(),
        "is a note and in no plan; delete its file to retire it": notes & (times.keys() | merging),
        "is named twice; name it once in merge, rename or drop": {page for page in times if times[page] > 1},
        "would be merged into itself; break the circle": {page for page in times if replan.holder(page) == page},
        "is taken, so no page can get its name; merge into it instead": taken,
        "takes merged pages but goes away itself; merge into one that stays": merging & {*replan.rename, *replan.drop},
        "takes merged pages and is not stored; rename one of them to it first": merging - rows.keys() - new_ids.keys(),
    }
    for page_id in [*merging, *new_ids]:
        check_page_id(page_id)
    for problem in filter(problems.get, problems):
        raise ReplanError(f"page {min(problems[problem])!r} {problem}")


def run_replan(generator: WikiGenerator, replan: Replan, dry: bool = False) -> ReplanOutcome:
    """Apply a replan, unless it was the last one applied, or find what it would do; raises `HostError`."""
    outcome = generator.in_run("apply", lambda: _apply(generator, replan), dry)
    outcome.run = generator.outcome
    return outcome


def _apply(generator: WikiGenerator, replan: Replan) -> ReplanOutcome:
    generator.continue_moved_pages()
    before, document = generator.stored_pages(), msgspec.to_builtins(replan)
    is_last = generator.repository.get_fact(generator.branch, "last replan") == document
    outcome = ReplanOutcome(was_applied=is_last and bool(replan.retired) and before.keys().isdisjoint(replan.retired))
    if outcome.was_applied:
        replan = Replan()
    for page_id in generator.outcome.moved.keys() & {*replan.retired}:
        raise ReplanError(f"the folder of page {page_id!r} moved: name the page {generator.outcome.moved[page_id]!r}")
    check_replan(replan, before)
    indexed = generator._indexed_paths()
    for page_id in replan.retired:  # the prune would keep it, with the rest of the replan done
        behind = generator._retired_only_because_the_index_is_behind(page_id, before[page_id], indexed, before)
        if behind or not indexed:
            raise ReplanError(f"the index lacks the sources of page {page_id!r}; run `quillstone-wiki index TREE`")
    plan_ids = {plan.page_id for plan in generator.plan(before)} | replan.merge.keys() | {*replan.rename.values()}
    plan_ids.difference_update(replan.retired)
    remap = ReplanRemap({new: old for old, new in replan.rename.items()}, replan.merge)
    generator.repository.put_fact(generator.branch, "last replan", document)
    generator.place_folders(replan.retired, replan.holder, {page for pages in replan.merge.values() for page in pages})
    generator._apply_replan_to_store(remap, plan_ids)
    after = generator.stored_pages()
    outcome.renamed = {old: new for old, new in replan.rename.items() if new in after}
    for page_id, row in before.items():
        is_note, holder = row["level"] == NOTE_LEVEL, replan.holder(page_id)
        if page_id in after:
            stays = outcome.notes_kept if is_note else outcome.kept if page_id in plan_ids else outcome.index_behind
            stays.append(page_id)
        elif is_note:
            outcome.notes_retired.append(page_id)
        elif holder in (page_id, None):
            outcome.dropped.append(page_id)
        elif page_id not in replan.rename:
            outcome.merged[page_id] = str(holder)
    return outcome

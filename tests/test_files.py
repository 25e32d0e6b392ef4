"""Folders and files that fail a replan: the error comes out, the store is as it was, and no prose is lost."""

import errno
import itertools
import os
import shutil
import subprocess
import tempfile
from contextlib import closing
from pathlib import Path

import pytest
import sqlalchemy as sa

from quillstone.workers.wiki.replan_carry import ReplanRemap, cached_prose
from wikis import Wiki

NOBODY = 65534
REMAP, PLAN = ReplanRemap({"new": "old"}, {"b": ["a"]}), {"b", "new"}


@pytest.fixture
def folder():
    """A folder for a wiki that no longer has root's rights, to which no permission bit would matter."""
    base, user = Path(tempfile.mkdtemp()), os.geteuid()
    base.chmod(0o777)
    (base / "own").mkdir(mode=0o777)
    if user == 0:
        (base / "roots").mkdir()
        with closing(filled(base / "roots").repository) as repository:  # loads what a user might not be let read
            repository.forget_indexed_files(["none"])
    yield base / "own"
    os.seteuid(user)
    shutil.rmtree(base)


@pytest.fixture
def wiki(folder):
    (folder.chmod(0o777), os.seteuid(NOBODY)) if os.geteuid() == 0 else None
    wiki = filled(folder)
    yield wiki
    wiki.repository.close()


def filled(folder):
    """A wiki whose page a is merged into b, old renamed to new, and c retired."""
    wiki = Wiki(folder)
    for page_id in ("a", "b", "c", "old"):
        wiki.page(page_id)
    return wiki


def replace(path, make):
    path.unlink()
    make(path)


def when(wiki, operation, change):
    """Changes something at the first call of a store operation."""
    real = getattr(wiki.repository, operation)
    calls = iter([change])
    setattr(wiki.repository, operation, lambda *args, **kwargs: (next(calls, int)(), real(*args, **kwargs))[1])


def mode(name, bits):
    return lambda wiki: (wiki.pages_dir / name).chmod(bits)


NOTHING = mode("", 0o755)
LATIN = "Prosa fran\xe7aise".encode("latin-1")
FAILURES = {  # what goes wrong, how it is mended, what comes out
    "pages folder not writable": (mode("", 0o555), NOTHING, PermissionError),
    "pages folder not searchable": (mode("", 0o600), NOTHING, PermissionError),
    "wiki folder not searchable": (
        lambda wiki: wiki.notes_dir.parent.chmod(0o600),
        lambda wiki: wiki.notes_dir.parent.chmod(0o755),
        PermissionError,
    ),
    "predecessor not readable": (mode("a.md", 0), mode("a.md", 0o644), PermissionError),
    "successor not readable": (mode("b.md", 0), mode("b.md", 0o644), PermissionError),
    "seed not UTF-8": (
        lambda wiki: wiki.file("old").write_bytes(LATIN),
        lambda wiki: wiki.file("old").write_text("Prose of old."),
        UnicodeDecodeError,
    ),
    "predecessor not UTF-8": (
        lambda wiki: wiki.file("a").write_bytes(LATIN),
        lambda wiki: wiki.file("a").write_text("Prose of a."),
        UnicodeDecodeError,
    ),
    "successor a folder": (
        lambda wiki: replace(wiki.file("b"), Path.mkdir),
        lambda wiki: (wiki.file("b").rmdir(), wiki.file("b").write_text("Prose of b.")),
        IsADirectoryError,
    ),
    "successor a link to itself": (
        lambda wiki: replace(wiki.file("b"), lambda path: path.symlink_to(path.name)),
        lambda wiki: replace(wiki.file("b"), lambda path: path.write_text("Prose of b.")),
        OSError,
    ),
    "pages folder a file": (
        lambda wiki: (wiki.pages_dir.rename(wiki.pages_dir.parent / "moved"), wiki.pages_dir.touch()),
        lambda wiki: replace(wiki.pages_dir, (wiki.pages_dir.parent / "moved").rename),
        FileExistsError,
    ),
}
SUPPRESSED = {  # what goes wrong, and what is left of the retired pages' files
    "nothing": (lambda wiki: None, set()),
    "predecessor a folder": (lambda wiki: replace(wiki.file("a"), Path.mkdir), {"a.md"}),
    "predecessor a dangling link": (lambda wiki: replace(wiki.file("a"), lambda path: path.symlink_to("none")), set()),
    "successor a dangling link": (lambda wiki: replace(wiki.file("b"), lambda path: path.symlink_to("none")), set()),
    "successor a link to its predecessor": (
        lambda wiki: replace(wiki.file("b"), lambda path: path.symlink_to("a.md")),
        set(),
    ),
    "retired page a link": (lambda wiki: replace(wiki.file("c"), lambda path: path.symlink_to("b.md")), set()),
    "retired page a folder": (lambda wiki: replace(wiki.file("c"), Path.mkdir), {"c.md"}),
    "pages folder vanished": (lambda wiki: shutil.rmtree(wiki.pages_dir), set()),
    "pages folder not writable after the carry": (
        lambda wiki: when(wiki, "upsert_wiki_page", lambda: wiki.pages_dir.chmod(0o555)),
        {"a.md", "c.md", "old.md"},
    ),
}


def stands_somewhere(wiki):
    rows = wiki.rows()
    texts = [path.read_bytes() for path in wiki.pages_dir.parent.rglob("*.md") if path.is_file()]
    texts += [cached_prose(row).encode() for row in rows.values()]
    return all(any(f"Prose of {page}.".encode() in text for text in texts) for page in ("a", "b", "old"))


def failure(wiki, spoil, mend):
    """The error that a replan ends with, None for a good end; either way it is finished afterwards."""
    for page_id in wiki.rows():  # from now on only the files hold the prose
        wiki.page(page_id, build_cache={"prose": "Older."})
    before = wiki.rows(), {page: wiki.repository.get_wiki_chunks("main", page) for page in wiki.rows()}
    spoil(wiki)
    error = None
    try:
        assert wiki._apply_replan_to_store(REMAP, PLAN) == 3
    except (OSError, UnicodeDecodeError, sa.exc.OperationalError) as raised:
        error = raised
    mend(wiki)
    assert stands_somewhere(wiki) and not [*wiki.pages_dir.glob("*.tmp")]
    if error:
        assert (wiki.rows(), {page: wiki.repository.get_wiki_chunks("main", page) for page in wiki.rows()}) == before
        assert wiki._apply_replan_to_store(REMAP, PLAN) == 3
    assert wiki.times_carried("a", "b") == (1, 1) and stands_somewhere(wiki)
    assert {path.name for path in wiki.pages_dir.iterdir()} == {"b.md", "new.md"}
    return error


@pytest.mark.parametrize("cause", FAILURES)
def test_a_failure_comes_out_and_changes_no_row(wiki, cause):
    *causes, error = FAILURES[cause]
    assert isinstance(failure(wiki, *causes), error)


@pytest.mark.parametrize("cause", SUPPRESSED)
def test_what_a_replan_puts_up_with(wiki, cause):
    spoil, left = SUPPRESSED[cause]
    spoil(wiki)
    assert wiki._apply_replan_to_store(REMAP, PLAN) == 3
    wiki.pages_dir.chmod(0o755)
    assert wiki.times_carried("a", "b") == (1, 1) and wiki.file("new").read_text() == "Prose of old."
    assert {path.name for path in wiki.pages_dir.iterdir()} == {"b.md", "new.md"} | left


@pytest.mark.parametrize("moment", ["upsert_wiki_page", "delete_wiki_page"])
def test_a_pages_folder_that_vanishes_during_the_transaction(wiki, moment):
    when(wiki, moment, lambda: shutil.rmtree(wiki.pages_dir))
    assert wiki._apply_replan_to_store(REMAP, PLAN) == 3
    assert stands_somewhere(wiki)


@pytest.fixture
def small_disk(folder):
    mount = ["mount", "-t", "tmpfs", "-o", "size=256k", "tmpfs", folder]
    if os.geteuid() or subprocess.run(mount, capture_output=True).returncode:
        pytest.skip("no file system may be mounted here")
    yield folder
    os.seteuid(0)
    subprocess.run(["umount", folder], check=True)


def fill(wiki, filler, blocks):
    """Takes the whole disk except for so many blocks; a page file that goes frees none."""
    shutil.copytree(wiki.pages_dir, filler.with_name("linked"), copy_function=os.link)
    with pytest.raises(OSError), filler.open("wb", buffering=0) as stream:
        while True:
            stream.write(bytes(4096))
    os.truncate(filler, filler.stat().st_size - 4096 * blocks)


def failure_on_full_disk(disk, blocks):
    folder, filler = disk / f"{blocks}", disk / "filler"
    folder.mkdir()
    wiki = filled(folder)
    with closing(wiki.repository):
        error = failure(wiki, lambda wiki: fill(wiki, filler, blocks), lambda wiki: filler.unlink())
    shutil.rmtree(folder)
    shutil.rmtree(disk / "linked")
    return error


def test_a_disk_that_is_full_at_any_step(small_disk, figures):
    """Page files find no room, then the upserts, the deletes, the commit: with a block more each time."""
    errors = [*itertools.takewhile(bool, (failure_on_full_disk(small_disk, blocks) for blocks in range(50)))]
    assert len(errors) < 50  # the last run had room
    assert {error.errno for error in errors if isinstance(error, OSError)} == {errno.ENOSPC}
    full = [error for error in errors if isinstance(error, sa.exc.OperationalError)]
    assert len(full) > 2 and all("disk is full" in str(error) for error in full)
    figures["full disks"] += len(errors)

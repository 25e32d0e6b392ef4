"""The page files of a wiki as one run at a time changes them: staged until the commit, and what goes is kept.

A run has a folder `retired/<run>.part` beside the page files. What it writes to a page is staged there, and is read
from there by the run; the page files are as they were. Once the rows are committed, each staged file is exchanged with
the page's file, in one step, and the files of deleted pages are moved into the folder. So a run that ends before its
commit has changed nothing, and any other run can finish one that was stopped later: what to do is committed with the
rows. At the end only texts remain there that a person wrote and that stand in no page, and the `.part` is dropped.
"""

import ctypes
import os
from collections.abc import Iterable, Iterator
from contextlib import suppress
from pathlib import Path, PosixPath
from tempfile import mkdtemp
from typing import Any, ClassVar

from quillstone.errors import PageChangedError, PageFileError
from quillstone.workers.wiki.replan_carry import joined, leaves, read_page
from quillstone.workers.wiki.repo_facts import TEMPORARY, digest, sync_below, sync_folder, write_durably

UNFINISHED = ".part"
RENAME_NOREPLACE, RENAME_EXCHANGE, AT_FDCWD = 1, 2, -100  # of renameat2(2)


class PagePath(PosixPath):
    """A path in a wiki; while a run is under way, what it reads and changes goes through that run."""

    __slots__ = ()
    files: "ClassVar[PageFiles]"

    def is_file(self) -> bool:
        """Whether there is a text; during a run, raises what `check_place` does."""
        return self.files.run.is_file(self) if self.files.run else super().is_file()

    def read_text(self, encoding: str | None = None, errors: str | None = None) -> str:
        """The text with universal newlines; raises `PageFileError` for one that is not UTF-8."""
        return decoded(self, self.files.run.read(self) if self.files.run else self.read_bytes())

    def unlink(self, missing_ok: bool = False) -> None:
        """Remove the file or, during a run, let it be moved to what is kept as soon as the rows are committed."""
        self.files.run.remove(self) if self.files.run else super().unlink(missing_ok)


class PageFiles:
    """The page files of one wiki folder, and the run that is under way."""

    def __init__(self, wiki_dir: Path) -> None:
        # Paths made from this one are of its class, which is how they know the run.
        path: type[PagePath] = type("WikiPath", (PagePath,), {"files": self, "__slots__": ()})
        self.wiki_dir = path(wiki_dir)
        self.pages_dir, self.retired_dir = self.wiki_dir / "pages", wiki_dir / "retired"
        self.run: Any = None  # the `Run` that is under way
        self.stopping = False  # set by a signal handler: the run ends with KeyboardInterrupt at its next file

    def page_file(self, page_id: str) -> PagePath:
        """The file of a page."""
        return self.pages_dir / f"{page_id}.md"

    def unfinished(self) -> list[str]:
        """Ids of the runs that were stopped before their end, oldest first; one that is under way looks the same."""
        return [path.stem for path in sorted(self.retired_dir.glob(f"*{UNFINISHED}"))]

    def texts(self) -> Iterator[str]:
        """What stands on any page and in what is kept."""
        for file in [*texts_below(self.pages_dir), *(file for *_, file in self.kept())]:
            yield from _text(file)

    def kept(self, run: str = "*") -> Iterator[tuple[str, str, Path]]:
        """What is kept, oldest first: run, page id, file."""
        for folder in sorted(self.retired_dir.glob(run)):
            for part in (folder / "pages", folder / "cached") if folder.suffix != UNFINISHED else ():
                for file in sorted(texts_below(part)):
                    yield folder.name, page_id_of(file, part), file


class Run:
    """The changes of one run to the page files."""

    def __init__(self, files: PageFiles, run_id: str, dry: bool = False) -> None:
        """Begin a run, or go on with one that was stopped. A dry one changes no file of the wiki."""
        self.files, self.id, self.dry = files, run_id, dry
        self.folder = Path(mkdtemp()) if dry else files.retired_dir / f"{run_id}{UNFINISHED}"
        self.staged: dict[str, tuple[str | None, str]] = {}  # page id: digests of what was read and of what is staged
        self.removed: dict[str, None] = {}  # page ids
        self.heirs: dict[str, list[str]] = {}  # page id: pages that its text goes into
        self.spared: set[str] = set()  # page ids whose files are somebody's own, whatever row goes
        self._seen: dict[str, str | None] = {}  # page id: digest at the first reading

    # While it is under way.

    def is_file(self, path: Path) -> bool:
        """See `PagePath.is_file`. Raises KeyboardInterrupt when the run was asked to stop."""
        if self.files.stopping:
            raise KeyboardInterrupt("nothing was changed; run the command again")
        pages_dir = self.files.pages_dir
        if pages_dir not in path.parents:
            return PosixPath.is_file(path)
        if (page_id := page_id_of(path, pages_dir)) in self.staged or page_id in self.removed:
            return page_id in self.staged
        check_place(path, pages_dir)
        if not (is_there := PosixPath.is_file(path)):
            self._check(page_id, None)
        return is_there

    def read(self, path: Path) -> bytes:
        """The content, as at the first reading; raises `PageChangedError`."""
        if (page_id := page_id_of(path, self.files.pages_dir)) in self.staged:
            return self._entry(page_id).read_bytes()
        content = path.read_bytes()
        self._check(page_id, digest(content))
        return content

    def _check(self, page_id: str, now: str | None) -> None:
        if self._seen.setdefault(page_id, now) != now:
            path = self.files.page_file(page_id)
            raise PageChangedError(f"{path} was saved while the run was at work; run the command again")

    def _entry(self, page_id: str) -> Path:
        return self.folder / "pages" / f"{page_id}.md"

    def replace(self, path: Path, content: bytes) -> None:
        """Stage this as the file's content, unless it is that already."""
        page_id = page_id_of(path, self.files.pages_dir)
        if (self.read(path) if self.is_file(path) else None) == content:
            return
        seen = self._seen[page_id] if page_id in self._seen else _digest_at(path)
        write_durably(self._entry(page_id), content, like=path, sync=not self.dry)
        self.staged[page_id] = seen, digest(content)
        self.removed.pop(page_id, None)

    def remove(self, path: Path) -> None:
        """Let the file go at the end of the run, for good or to what is kept, unless its page is `spared`."""
        if (page_id := page_id_of(path, self.files.pages_dir)) not in self.spared:
            self.removed[page_id] = None
            if self.staged.pop(page_id, None):
                self._entry(page_id).unlink()

    def keep_cached(self, page_id: str, prose: str) -> None:
        """Keep prose whose row goes, unless it stands in a page or in the file that goes with the row."""
        own = [*_text(self.files.page_file(page_id))]
        if leaves(prose, own) and leaves(prose, [*own, self._texts(page_id, {})]):
            kept = self.folder / "cached" / f"{page_id}.md"
            write_durably(kept, prose.encode("utf-8", "surrogatepass"), like=kept, sync=not self.dry)

    def check(self) -> None:
        """Prepare for the commit; raises `PageChangedError` when a file that matters to the run was saved since."""
        for page_id in {*self.staged, *self.removed, *(heir for heirs in self.heirs.values() for heir in heirs)}:
            if page_id in self._seen:
                self._check(page_id, _digest_at(self.files.page_file(page_id)))
        if (self.removed or self.staged) and not self.dry:
            probes = self.folder / "probe", self.files.pages_dir / f"{TEMPORARY}{0:016}"
            for probe in probes:
                probe.mkdir(parents=True, exist_ok=True)
            exchange(*probes)
            probes[1].rmdir()  # by the next run if that could not be
            sync_below(self.folder, self.files.retired_dir, self.files.wiki_dir)

    # Its end.

    def would_keep(self) -> dict[str, str]:
        """Where each text will be that a dry run would keep, by page id."""
        read: dict[tuple[Path, ...], str] = {}
        gone = (*self.staged, *self.removed)
        kept = {page_id for page_id in gone if must_stay(self.files.page_file(page_id), self._texts(page_id, read))}
        kept.update(page_id_of(file, self.folder / "cached") for file in texts_below(self.folder / "cached"))
        return dict.fromkeys(sorted(kept), "retired/")

    def finish(self) -> dict[str, str]:
        """Put in place what is staged and move the files of deleted pages; gives what is kept, as `end` does."""
        for page_id, (seen, made) in self.staged.items():
            self._put_in_place(self._entry(page_id), self.files.page_file(page_id), seen, made)
        for page_id in self.removed:
            path, entry = self.files.page_file(page_id), self._entry(page_id)
            if (path.is_symlink() or PosixPath.is_file(path)) and not os.path.lexists(entry):
                entry.parent.mkdir(parents=True, exist_ok=True)
                path.rename(entry)
        sync_below(self.folder)
        sync_below(self.files.pages_dir)
        self.staged, self.removed = {}, {}
        return self.end(self.folder / "pages")

    def _put_in_place(self, entry: Path, path: Path, seen: str | None, made: str) -> None:
        # What was saved since the commit stays; the staged text is kept then as far as it stands nowhere else.
        if _digest_at(entry) != made or _digest_at(path) != seen:
            return
        path.parent.mkdir(parents=True, exist_ok=True)
        if seen:
            exchange(entry, path)
            if not entry.is_symlink() and _digest_at(entry) != seen:
                exchange(entry, path)
        else:
            with suppress(FileExistsError):
                exchange(entry, path, RENAME_NOREPLACE)

    def end(self, part: Path, held: str | None = None) -> dict[str, str]:
        """Delete what stands whole in the texts `held`, else in its page and heirs; gives where others stay."""
        read: dict[tuple[Path, ...], str] = {}
        for file in [*texts_below(part)]:
            texts = self._texts(page_id_of(file, part), read) if held is None else held
            if (file.name.startswith(TEMPORARY) and not file.suffix) or not must_stay(file, texts):
                file.unlink()
        for folder, _, _ in os.walk(self.folder, topdown=False):
            with suppress(OSError):
                Path(folder).rmdir()
        if self.folder.exists():
            self.folder.rename(self.folder.with_name(self.id))
            sync_folder(self.files.retired_dir)
        return dict.fromkeys((page_id for _, page_id, _ in self.files.kept(self.id)), f"retired/{self.id}")

    def _texts(self, page_id: str, read: dict[tuple[Path, ...], str]) -> str:
        # What the page holds now, or is to hold, and those pages that its text goes into.
        heirs = [page_id]
        for heir in heirs:
            heirs += [after for after in self.heirs.get(heir, ()) if after not in heirs]
        there = [heir for heir in heirs if heir not in self.removed]
        paths = tuple(self._entry(heir) if heir in self.staged else self.files.page_file(heir) for heir in there)
        if paths not in read:
            read.clear()
            read[paths] = joined(text for path in paths for text in _text(path))
        return read[paths]


def page_id_of(file: Path, folder: Path) -> str:
    """The page of a file below the folder that has the files of pages."""
    return file.relative_to(folder).as_posix().removesuffix(".md")


def check_place(path: Path, pages_dir: Path) -> None:
    """Raise `PageFileError` unless this is the place of a file, or of none yet, in folders of the wiki's own."""
    above = [folder for folder in path.parents if pages_dir in folder.parents]
    is_odd = os.path.lexists(path) and not PosixPath.is_file(path)
    if is_odd or any(map(os.path.islink, above)) or any(map(os.path.isfile, (*above, pages_dir))):
        raise PageFileError(f"{path} is no place for a page: a folder, pipe or link is there, or above it; move that")


def texts_below(folder: Path) -> Iterator[Path]:
    """All that is no folder there, links among them."""
    return (path for path in folder.rglob("*") if path.is_symlink() or not path.is_dir())


def must_stay(file: Path, texts: Iterable[str]) -> bool:
    """Whether what a person wrote in the file stands nowhere else; behind a link it stands where that leads."""
    try:
        is_text = os.path.isfile(file) and not file.is_symlink()  # noqa: PTH113
        return is_text and leaves(decoded(file, file.read_bytes()), texts)
    except (OSError, PageFileError):
        return True


def decoded(path: Path, content: bytes) -> str:
    """The content as text with universal newlines; raises `PageFileError`."""
    try:
        return content.decode("utf-8").replace("\r\n", "\n").replace("\r", "\n")
    except UnicodeDecodeError as error:
        raise PageFileError(f"{path} is not UTF-8; save it as UTF-8") from error


def _text(path: Path) -> Iterator[str]:
    with suppress(OSError, PageFileError):
        if os.path.isfile(path):  # noqa: PTH113
            text = decoded(path, path.read_bytes())
            yield from (text, read_page(text, {}).whole)  # what a person wrote around the generated block is one


def _digest_at(path: Path) -> str | None:
    return digest(path.read_bytes()) if os.path.isfile(path) else None  # noqa: PTH113


def exchange(one: Path, other: Path, how: int = RENAME_EXCHANGE) -> None:
    """Let two files change places in one step, or rename to a name that must be free; raises `OSError`."""
    call = ctypes.CDLL(None, use_errno=True).renameat2
    if call(AT_FDCWD, os.fsencode(one), AT_FDCWD, os.fsencode(other), how):
        advice = "pages/ and retired/ have to be on one file system that exchanges files: ext4, xfs, btrfs, tmpfs"
        raise OSError(ctypes.get_errno(), f"{os.strerror(ctypes.get_errno())}; {advice}", str(other))

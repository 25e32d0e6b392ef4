"""The files of a wiki as one run at a time changes them: what goes is kept, and a run that ends early is taken back.

A run has a folder `retired/<run>.part` beside the page files. To replace a page file, the new text is written there,
under the page's name and the digest of the new text, and the two are exchanged in one step: now the old text is there.
So anybody can tell of each file at any moment whether it was replaced, and what it held before. Files of deleted pages
are moved there once the rows are committed. At the end only texts remain that a person wrote and that stand in no page,
and the folder loses its `.part`.
"""

import ctypes
import errno
import hashlib
import os
import secrets
import shutil
import time
from collections.abc import Iterable, Iterator, Mapping
from contextlib import suppress
from pathlib import Path, PosixPath
from types import MappingProxyType
from typing import ClassVar

from quillstone.errors import PageChangedError, PageFileError
from quillstone.workers.wiki.replan_carry import (
    CARRIED,
    is_blank,
    read_page,
    section_prose,
    split_blocks,
    split_carried,
)
from quillstone.workers.wiki.repo_facts import TEMPORARY, sync_folder, write_durably

UNFINISHED = ".part"
ASIDE = ".aside"
RENAME_EXCHANGE, AT_FDCWD = 2, -100  # of renameat2(2)
NOT_SUPPORTED = (errno.EINVAL, errno.ENOSYS, errno.EOPNOTSUPP)


class PagePath(PosixPath):
    """A path in a wiki; while a run is under way, what it reads and changes goes through that run."""

    __slots__ = ()
    files: "ClassVar[PageFiles]"

    def is_file(self) -> bool:
        """Whether there is a text; raises `PageFileError` for a folder in its place, or a path that leads elsewhere."""
        return self.files.run.is_file(self) if self.files.run else super().is_file()

    def read_text(self, encoding: str | None = None, errors: str | None = None, newline: str | None = None) -> str:
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
        self.pages_dir = self.wiki_dir / "pages"
        self.retired_dir = wiki_dir / "retired"
        self.run: Run | None = None
        self.stopping = False  # set by a signal handler: the run ends with KeyboardInterrupt at its next file

    def page_file(self, page_id: str) -> PagePath:
        """The file of a page."""
        return self.pages_dir / f"{page_id}.md"

    def page_id(self, file: Path) -> str:
        """The page of a page file."""
        return file.relative_to(self.pages_dir).as_posix().removesuffix(".md")

    def unfinished(self) -> "list[Run]":
        """Runs that were stopped before their end, oldest first. Without the lock, those under way are among them."""
        return [Run(self, path.stem) for path in sorted(self.retired_dir.glob(f"*{UNFINISHED}"))]

    def kept(self, run: str = "*") -> Iterator[tuple[str, str, Path]]:
        """What is kept, oldest first: run, page id, file."""
        for folder in sorted(self.retired_dir.glob(run)):
            for part in (folder / "pages", folder / "cached") if folder.suffix != UNFINISHED else ():
                for file in sorted(path for path in part.rglob("*") if path.is_symlink() or not path.is_dir()):
                    yield folder.name, file.relative_to(part).as_posix().rpartition(".md")[0], file


class Run:
    """The changes of one run to the page files."""

    def __init__(self, files: PageFiles, run_id: str = "", *, command: str = "", dry: bool = False) -> None:
        """Begin a run of a command or, given its id, go on with one that was stopped. A dry run changes no file."""
        self.files, self.dry = files, dry
        self.id = run_id or f"{time.strftime('%Y-%m-%dT%H-%M-%S')}-{command}-{secrets.token_hex(3)}"
        self.folder = files.retired_dir / f"{self.id}{UNFINISHED}"
        self.removed: dict[str, str | None] = {}  # page id to the digest of the file to remove, None if it was not read
        self.heirs: dict[str, list[str]] = {}  # page id to the pages that its text goes into
        self.spared: set[str] = set()  # page ids whose files are somebody's own, whatever row goes
        self._seen: dict[Path, str | None] = {}
        self._overlay: dict[Path, bytes | None] = {}  # of a dry run: what files would hold
        self._cached: set[str] = set()
        self._texts_read: dict[Path, list[str]] = {}
        self.stored: list[str] | None = None  # what rows hold, once the run is undone

    @property
    def changes_files(self) -> bool:
        """Whether there is anything to take back or to finish."""
        return not self.dry and (bool(self.removed) or self.folder.exists())

    # While it is under way.

    def is_file(self, path: Path) -> bool:
        """See `PagePath.is_file`. Raises KeyboardInterrupt when the run was asked to stop."""
        if self.files.stopping:
            raise KeyboardInterrupt
        if path in self._overlay:
            return self._overlay[path] is not None
        is_page, pages_dir = self.files.pages_dir in path.parents, self.files.pages_dir
        if is_page and path.parent != pages_dir:
            if any(map(os.path.isfile, path.parents)):
                raise PageFileError(
                    f"{path} needs a folder where a file is; move that elsewhere, or choose another page id"
                )
            real = os.path.join(os.path.realpath(pages_dir), path.parent.relative_to(pages_dir))  # noqa: PTH118
            if real != os.path.realpath(path.parent):
                raise PageFileError(f"{path} leads elsewhere by a link to a folder; choose another page id")
        if PosixPath.is_file(path):
            return True
        if is_page and path.is_dir():
            raise PageFileError(f"{path} is a folder where the file of a page belongs; move it elsewhere")
        self._check(path, None)
        return False

    def read(self, path: Path) -> bytes:
        """The content, as at the first reading; raises `PageChangedError`."""
        content = self._overlay.get(path)
        if content is None:
            content = path.read_bytes()
            self._check(path, digest(content))
        return content

    def _check(self, path: Path, now: str | None) -> None:
        if self._seen.setdefault(path, now) != now:
            raise PageChangedError(f"{path} was saved while the run was at work; run the command again")

    def forget(self, path: Path) -> None:
        """Take the file as it is now for what was read."""
        self._seen.pop(path, None)

    def replace(self, path: Path, content: bytes) -> None:
        """Make this the file's content, unless somebody saved it since it was read: `PageChangedError`."""
        if self.files.pages_dir in path.parents:
            self.removed.pop(self.files.page_id(path), None)
        if (self.read(path) if self.is_file(path) else None) == content:
            return
        self._texts_read.pop(path, None)
        if self.dry:
            self._overlay[path] = content
            return
        staged = self.folder / f"{path.relative_to(self.files.wiki_dir)}.{digest(content)}"
        held = [section for text in self._text_at(path) for section in split_carried(text)[1]]
        if carried := [section for section in split_carried(decoded(path, content))[1] if section not in held]:
            earlier = self._text_at(self._carried(path))
            write_durably(self._carried(path), "\n".join([*earlier, *carried]).encode(), like=path)
        write_durably(staged, content, like=path)
        path.parent.mkdir(parents=True, exist_ok=True)
        if os.path.lexists(path):
            exchange(staged, path)
            if not staged.is_symlink() and _digest_at(staged) != self._seen[path]:
                exchange(staged, path)
                self._check(path, "")
        else:
            try:
                os.link(staged, path)
            except FileExistsError:
                self._check(path, "")
        sync_folder(path.parent)
        self._seen[path] = digest(content)

    def remove(self, path: Path) -> None:
        """Let the file go at the end of the run, for good or to what is kept, unless its page is `spared`."""
        if (page_id := self.files.page_id(path)) not in self.spared:
            self.removed[page_id] = self._seen.get(path)
            self._texts_read.pop(path, None)
            self._overlay |= {path: None} if self.dry else {}

    def keep_cached(self, page_id: str, prose: str) -> None:
        """Keep prose whose row goes, unless it stands in a page or in the file that goes with the row."""
        own = [*self._text_at(self.files.page_file(page_id))]
        if leaves(prose, own) and leaves(prose, [*self._texts(page_id), *own]):
            self._cached.add(page_id)
            if not self.dry:
                kept = self.folder / "cached" / f"{page_id}.md"
                write_durably(kept, prose.encode("utf-8", "surrogatepass"), like=kept)

    def check_removed(self) -> None:
        """Raise `PageChangedError` when a file to be removed, or one that took its text, was saved since."""
        heirs = {page_id for page_ids in self.heirs.values() for page_id in page_ids}
        for path in map(self.files.page_file, () if self.dry else {*self.removed, *heirs}):
            if self._seen.get(path):
                self._check(path, _digest_at(path))

    # Its end.

    def undo(self, stored: list[str]) -> None:
        """Give every file back what it held, and take what was carried out of those that somebody edited meanwhile.

        Nothing is kept then that stands on any page, in what is kept already, or in the `stored` texts.
        """
        self.removed, self.stored = {}, stored
        for path, entries in self._entries().items():
            now = _digest_at(path)
            moved = entries.pop("", None)
            if moved and not os.path.lexists(path):  # by a run whose end the store has forgotten
                os.link(moved, path, follow_symlinks=False)
            replaced = {made: entry for made, entry in entries.items() if _digest_at(entry) != made}
            while now in entries:
                entry = entries.pop(now)
                if replaced.pop(now, None):
                    exchange(entry, path)
                else:  # the run made the file
                    aside = entry.with_name(f"{entry.name}{ASIDE}")
                    path.rename(aside)
                    entry.unlink()
                    aside.rename(entry)
                if _digest_at(entry) != now:  # somebody saved it in this very moment
                    exchange(entry, path) if os.path.lexists(path) else entry.rename(path)
                    break
                now = _digest_at(path)
            if replaced and now is not None:
                self.forget(path)
                text = decoded(path, self.read(path))
                for section in split_carried("\n".join(self._text_at(self._carried(path))))[1]:
                    text = text.replace(f"\n\n{section}", "", 1).replace(section, "", 1)
                self.replace(path, text.encode())  # to be undone in its turn, should this be stopped, too

    def _carried(self, path: Path) -> Path:
        # Where the sections stand that the run carries to a page.
        return self.folder / "carried" / path.relative_to(self.files.wiki_dir)

    def finish(self) -> dict[str, str]:
        """Remove the files of deleted pages and give up what need not be kept; gives what is, by page id."""
        if self.dry:
            kept = {self.files.page_id(path) for path in self._overlay if self._must_stay(path, path)}
            return dict.fromkeys(sorted(kept | self._cached), "retired/")
        self._texts_read.clear()
        for file in [*(self.folder / "cached").rglob("*.md")]:
            if self.stored is not None and not leaves(file.read_text("utf-8", "surrogatepass"), self.stored):
                file.unlink()
        for page_id in self.removed:
            path, target = self.files.page_file(page_id), self.folder / "pages" / f"{page_id}.md"
            if os.path.lexists(path) and not path.is_dir() and not os.path.lexists(target):
                target.parent.mkdir(parents=True, exist_ok=True)
                path.rename(target)
        for left in [*self.folder.rglob(f"{TEMPORARY}*")]:
            left.unlink()
        for path, entries in self._entries().items():
            for made, entry in entries.items():
                is_ours = made and self.stored is None and _digest_at(entry) == made
                if is_ours or not self._must_stay(entry, path):
                    entry.unlink()
                elif not os.path.lexists(entry.with_name(path.name)):
                    entry.rename(entry.with_name(path.name))
        shutil.rmtree(self.folder / "carried", ignore_errors=True)
        for entry in (self.folder / "notes").glob("*.md.*"):  # what a person handed over is not taken back
            note = self.files.wiki_dir / "notes" / f"{entry.name.rpartition('.md')[0]}.md"
            note.parent.mkdir(exist_ok=True)
            with suppress(FileExistsError):
                os.link(entry, note)
            entry.unlink()
        for folder, _, _ in os.walk(self.folder, topdown=False):
            with suppress(OSError):
                Path(folder).rmdir()
        if self.folder.exists():
            self.folder.rename(self.folder.with_name(self.id))
            sync_folder(self.files.retired_dir)
        return {page_id: str(file.relative_to(self.files.wiki_dir)) for _, page_id, file in self.files.kept(self.id)}

    def _must_stay(self, file: Path, path: Path) -> bool:
        # Whether what the file holds of the page's text leaves the wiki; behind a link it stands where that leads.
        try:
            if PosixPath.is_file(file) and not file.is_symlink():
                return leaves(decoded(file, file.read_bytes()), self._texts(self.files.page_id(path)))
            return False
        except (OSError, PageFileError):
            return True

    def _texts(self, page_id: str) -> list[str]:
        # What the page holds now, and those pages that its text goes into.
        paths: Iterable[Path] = map(self.files.page_file, [page_id, *self.heirs.get(page_id, [])])
        if self.stored is not None:
            paths = [*self.files.pages_dir.rglob("*.md"), *(file for *_, file in self.files.kept())]
        for path in (paths := [*paths]):
            if path not in self._texts_read:
                self._texts_read[path] = [*self._text_at(path, self._overlay)]
        return [*(self.stored or ()), *(text for path in paths for text in self._texts_read[path])]

    def _text_at(self, path: Path, overlay: Mapping[Path, bytes | None] = MappingProxyType({})) -> Iterator[str]:
        with suppress(OSError, PageFileError):
            if path in overlay or PosixPath.is_file(path):
                yield decoded(path, (overlay[path] or b"") if path in overlay else path.read_bytes())

    def _entries(self) -> dict[PagePath, dict[str, Path]]:
        # By page file what lies in the run's folder, by the digest of what was staged; "" for what was moved there.
        found: dict[PagePath, dict[str, Path]] = {}
        pages = self.folder / "pages"
        for entry in sorted(path for path in pages.rglob("*.md*") if path.is_symlink() or not path.is_dir()):
            name, _, made = entry.name.rpartition(".md")
            path = self.files.pages_dir / entry.relative_to(pages).with_name(f"{name}.md")
            entries = found.setdefault(path, {})
            if (made := made.removeprefix(".").removesuffix(ASIDE)) in entries and _digest_at(entry) == made:
                entry.unlink()
            else:
                entries[made] = entry
        return found


def leaves(text: str, texts: Iterable[str]) -> bool:
    """Whether a person wrote something in the text that stands whole in none of the others."""
    held = "\n".join(["", *texts, ""])
    page = read_page(text, {}, generated=held)
    if page.title and f"# {page.title}\n" not in held:
        return True
    for kind, piece in split_blocks(page.prose):
        text = section_prose(piece) if kind == CARRIED else piece.strip("\n")
        if not is_blank(text) and f"\n{text}\n" not in held:
            return True
    return False


def decoded(path: Path, content: bytes) -> str:
    """The content as text with universal newlines; raises `PageFileError`."""
    try:
        return content.decode("utf-8").replace("\r\n", "\n").replace("\r", "\n")
    except UnicodeDecodeError as error:
        raise PageFileError(f"{path} is not UTF-8; save it as UTF-8") from error


def digest(content: bytes) -> str:
    """Sixteen hexadecimal digits that stand for the content."""
    return hashlib.sha256(content).hexdigest()[:16]


def _digest_at(path: Path) -> str | None:
    return digest(path.read_bytes()) if PosixPath.is_file(path) else None


def exchange(one: Path, other: Path) -> None:
    """Let two files change places in one step; raises `OSError`."""
    call = getattr(ctypes.CDLL(None, use_errno=True), "renameat2", None)
    if not call or call(AT_FDCWD, os.fsencode(one), AT_FDCWD, os.fsencode(other), RENAME_EXCHANGE):
        code = ctypes.get_errno() if call else errno.ENOSYS
        reason = "the file system cannot exchange two files; ext4, xfs, btrfs and tmpfs can"
        raise OSError(code, reason if code in NOT_SUPPORTED else os.strerror(code), str(other))

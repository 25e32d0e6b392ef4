"""The store: wiki pages with their chunks, and what the index knows, in SQLite or PostgreSQL."""

from __future__ import annotations

import json
import threading
from collections.abc import Callable, Iterable, Iterator, Mapping, Sequence
from contextlib import contextmanager
from typing import Any

import sqlalchemy as sa
from sqlalchemy.dialects import postgresql, sqlite

from quillstone.errors import PageIdError, StoreError
from quillstone.workers.wiki_types import NOTE_LEVEL

SQLITE_BUSY_SECONDS = 30
LONGEST_FILE_NAME = 255  # bytes, the limit of the common file systems
_TURNS = 0x7175696C6C  # a number of this store's own
_INSERT: dict[str, Any] = {"sqlite": sqlite.insert, "postgresql": postgresql.insert}


class Json(sa.types.TypeDecorator[Any]):
    """A column of JSON text, decoded when read."""

    impl = sa.Text
    cache_ok = True

    def process_bind_param(self, value: Any, dialect: sa.Dialect) -> str:
        return json.dumps(value, ensure_ascii=False)

    def process_result_value(self, value: Any, dialect: sa.Dialect) -> Any:
        return json.loads(value)


_metadata = sa.MetaData()


def _text(name: str, default: str = "") -> sa.Column[str]:
    return sa.Column(name, sa.Text, nullable=False, default=default)


def _json(name: str, default: type) -> sa.Column[Any]:
    return sa.Column(name, Json, nullable=False, default=default)


wiki_pages = sa.Table(
    "wiki_pages",
    _metadata,
    sa.Column("branch", sa.Text, primary_key=True),
    sa.Column("page_id", sa.Text, primary_key=True),
    _text("title"),
    _text("description"),
    _text("importance", "medium"),
    _text("level", "module"),
    sa.Column("parent_section", sa.Text),
    _text("rel_path"),
    _json("source_files", list),
    _json("source_hashes", dict),
    _json("symbols", list),
    _json("related_pages", list),
    _json("citations", list),
    _text("content_hash"),
    _text("model"),
    _text("status", "stale"),
    _text("summary"),
    _json("build_cache", dict),
    _text("page_type"),
)

wiki_chunks = sa.Table(
    "wiki_chunks",
    _metadata,
    sa.Column("branch", sa.Text, primary_key=True),
    sa.Column("page_id", sa.Text, primary_key=True),
    sa.Column("position", sa.Integer, primary_key=True),
    _text("text"),
    sa.ForeignKeyConstraint(["branch", "page_id"], ["wiki_pages.branch", "wiki_pages.page_id"], ondelete="CASCADE"),
)

indexed_files = sa.Table(
    "indexed_files",
    _metadata,
    sa.Column("path", sa.Text, primary_key=True),
    _text("language"),
    sa.Column("is_source", sa.Boolean, nullable=False, default=True),
    sa.Column("size", sa.BigInteger, nullable=False, default=0),
    _text("digest"),
)

branch_facts = sa.Table(
    "branch_facts",
    _metadata,
    sa.Column("branch", sa.Text, primary_key=True),
    sa.Column("name", sa.Text, primary_key=True),
    _json("value", dict),
)


def check_page_id(page_id: str) -> None:
    """Raise `PageIdError` unless the id names a file inside the pages folder."""
    problem = ""
    if not isinstance(page_id, str) or not page_id:
        problem = "is empty or no text"
    elif "\\" in page_id or "\0" in page_id:
        problem = "holds a backslash or a NUL"
    elif any(part in ("", ".", "..") for part in page_id.split("/")):
        problem = "leads out of the pages folder"
    elif any("\ud800" <= character <= "\udfff" for character in page_id):
        problem = "cannot be written as UTF-8"
    elif any(len(part.encode()) + len(".md") > LONGEST_FILE_NAME for part in page_id.split("/")):
        problem = "is too long for a file name"
    if problem:
        raise PageIdError(f"page id {page_id!r} {problem}; use a plain name such as 'json' or 'email.mime'")


class _RehearsalOver(BaseException):
    """Ends a rehearsal's transaction without its changes."""


class Database:
    """One database by URL, and the transaction that the calling thread is in."""

    def __init__(self, url: str, read_only: bool = False) -> None:
        """Open the database and create missing tables, unless it is to be read only; raises `StoreError`."""
        shown = url
        try:
            parsed = sa.make_url(url)
            shown = repr(parsed)  # without the password
            if parsed.drivername == "postgresql":
                parsed = parsed.set(drivername="postgresql+psycopg")
            # A connection whose release a signal interrupted would keep its locks, were it kept for the next use.
            on_file = parsed.get_backend_name() == "sqlite" and parsed.database not in (None, "", ":memory:")
            self.engine = sa.create_engine(
                parsed,
                poolclass=sa.NullPool if on_file else None,
                execution_options={"postgresql_readonly": True} if read_only else {},
            )
            if self.engine.dialect.name not in _INSERT:
                raise StoreError(f"database {shown} is neither sqlite nor postgresql; give a URL of one of these")
            if self.engine.dialect.name == "sqlite":
                sa.event.listen(self.engine, "connect", _prepare_sqlite)
                sa.event.listen(self.engine, "begin", _begin_sqlite)
                if read_only:
                    sa.event.listen(self.engine, "connect", _refuse_writes)
            self._threads = threading.local()
            if _metadata.tables.keys() - set(sa.inspect(self.engine).get_table_names()):
                if read_only:
                    self.engine.dispose()
                    raise StoreError(f"database {shown} holds no wiki; run `quillstone-wiki index TREE` first")
                with self.transaction() as connection:
                    take_turns(connection)
                    _metadata.create_all(connection)
        except (sa.exc.SQLAlchemyError, ImportError, ValueError, TypeError) as error:
            reason = " ".join(str(getattr(error, "orig", None) or error).split())
            raise StoreError(f"cannot open the database {shown} ({reason}); check its URL") from error

    @contextmanager
    def transaction(self) -> Iterator[sa.Connection]:
        """Make the row changes inside one: all of them on a normal end, none on any exception, which goes on.

        Inside another transaction it is a savepoint of that one.
        """
        last_step, self._threads.last_step = getattr(self._threads, "last_step", _nothing), _nothing
        outer: sa.Connection | None = getattr(self._threads, "connection", None)
        if outer is not None:
            savepoint = outer.begin_nested()
            try:
                yield outer
                last_step()
                savepoint.commit()
            except BaseException:
                try:
                    if savepoint.is_active:
                        savepoint.rollback()
                except sa.exc.OperationalError:
                    # With the disk full SQLite has undone the whole transaction: what follows must not be committed.
                    outer.invalidate()
                raise
            return
        with self.engine.connect() as connection:
            connection = connection.execution_options(writes=True)
            with connection.begin():
                self._threads.connection = connection
                try:
                    yield connection
                    last_step()
                finally:
                    self._threads.connection = None

    @contextmanager
    def ending_with(self, step: Callable[[], None]) -> Iterator[None]:
        """Make `step` the last one of the next transaction that begins inside: both are committed, or neither."""
        self._threads.last_step = step
        try:
            yield
        finally:
            self._threads.last_step = _nothing

    @contextmanager
    def rehearsal(self) -> Iterator[None]:
        """Run what is inside for real, its transactions as savepoints, and undo every row change at the end."""
        try:
            with self.transaction():
                yield
                raise _RehearsalOver
        except _RehearsalOver:
            pass

    @contextmanager
    def reading(self) -> Iterator[sa.Connection]:
        """The connection to read on: that of the open transaction, else one of its own."""
        outer: sa.Connection | None = getattr(self._threads, "connection", None)
        if outer is not None:
            yield outer
            return
        with self.engine.connect() as connection:
            yield connection


def _nothing() -> None:
    pass


def _prepare_sqlite(connection: Any, _record: object) -> None:
    connection.isolation_level = None  # the driver's own BEGIN would come late and without IMMEDIATE
    connection.execute("PRAGMA foreign_keys = ON")
    connection.execute(f"PRAGMA busy_timeout = {SQLITE_BUSY_SECONDS * 1000}")


def _refuse_writes(connection: Any, _record: object) -> None:
    # Not opened as read-only: what a process that was killed left half-done has to be undone before reading.
    connection.execute("PRAGMA query_only = ON")


def _begin_sqlite(connection: sa.Connection) -> None:
    # A transaction that reads first and writes later could find itself unable to: take the write lock at once.
    writes = connection.get_execution_options().get("writes", False)
    connection.exec_driver_sql("BEGIN IMMEDIATE" if writes else "BEGIN")


def take_turns(connection: sa.Connection) -> None:
    """Let no other transaction that asks for its turn go on before this one ends."""
    if connection.dialect.name == "postgresql":  # on SQLite every transaction that writes has its turn
        connection.execute(sa.select(sa.func.pg_advisory_xact_lock(_TURNS)))


class Repository:
    """The store of one database. Each call commits by itself unless it stands inside `db.transaction()`.

    Calls raise `sqlalchemy.exc.SQLAlchemyError` where the database fails, and `PageIdError` for a page id that
    would leave the pages folder.
    """

    def __init__(self, url: str, read_only: bool = False) -> None:
        """Open the store, for example "sqlite:///wiki.sqlite"; raises `StoreError`."""
        self.db = Database(url, read_only)

    def close(self) -> None:
        """Close the database's connections."""
        self.db.engine.dispose()

    def get_wiki_pages(self, branch: str) -> list[dict[str, Any]]:
        """The branch's page rows, notes included, by page id; JSON fields are decoded."""
        query = sa.select(wiki_pages).where(wiki_pages.c.branch == branch).order_by(wiki_pages.c.page_id)
        with self.db.reading() as connection:
            return [dict(row) for row in connection.execute(query).mappings()]

    def list_indexed_files(
        self, *, source_only: bool = False, limit: int = 1_000_000
    ) -> tuple[list[dict[str, Any]], bool, int, int]:
        """What the index knows, by path, as four members: records, whether there are more, the limit, the total."""
        wanted = indexed_files.c.is_source if source_only else sa.true()
        query = sa.select(indexed_files).where(wanted).order_by(indexed_files.c.path).limit(limit)
        count = sa.select(sa.func.count()).select_from(indexed_files).where(wanted)
        with self.db.reading() as connection:
            records = [dict(row) for row in connection.execute(query).mappings()]
            total = connection.execute(count).scalar_one()
        return records, total > len(records), limit, total

    def upsert_wiki_page(
        self,
        branch: str,
        page_id: str,
        title: str,
        *,
        description: str,
        importance: str,
        level: str,
        parent_section: str | None,
        rel_path: str,
        source_files: list[str],
        source_hashes: dict[str, str],
        symbols: list[Any],
        related_pages: list[str],
        citations: list[Any],
        content_hash: str,
        model: str,
        status: str,
        summary: str,
        build_cache: str,
        page_type: str,
    ) -> None:
        """Store the whole row of (branch, page id), new or over the stored one.

        Args:
            build_cache: the JSON text of an object; it comes back as a dict. Anything else raises `ValueError`.
        """
        row = {name: value for name, value in locals().items() if name != "self"}
        check_page_id(page_id)
        row["build_cache"] = json.loads(build_cache)
        if not isinstance(row["build_cache"], dict):
            raise ValueError(f"build_cache of page {page_id!r} is the JSON text of no object")
        self._upsert(wiki_pages, [row])

    def delete_wiki_page(self, branch: str, page_id: str) -> bool:
        """Delete the row of (branch, page id) and its chunks; False when there was none."""
        check_page_id(page_id)
        query = sa.delete(wiki_pages).where(wiki_pages.c.branch == branch, wiki_pages.c.page_id == page_id)
        with self.db.transaction() as connection:
            return connection.execute(query).rowcount > 0

    def save_wiki_page(
        self,
        branch: str,
        page_id: str,
        title: str,
        *,
        chunks: Sequence[str],
        build_cache: Mapping[str, Any],
        **fields: Any,
    ) -> None:
        """Store a page as fresh, with its chunks in place of the earlier ones; fields not given get their defaults."""
        check_page_id(page_id)
        row = {"branch": branch, "page_id": page_id, "title": title, "build_cache": build_cache, **fields}
        here = {"branch": branch, "page_id": page_id}
        with self.db.transaction() as connection:
            self._upsert(wiki_pages, [{"rel_path": f"pages/{page_id}.md", **row, "status": "fresh"}])
            connection.execute(sa.delete(wiki_chunks).filter_by(**here))
            if chunks:
                rows = [{**here, "position": position, "text": text} for position, text in enumerate(chunks)]
                connection.execute(sa.insert(wiki_chunks), rows)

    def file_note(self, branch: str, note_id: str, title: str, chunks: Sequence[str]) -> None:
        """Store a research note, whose file is notes/<id>.md in the wiki folder."""
        rel_path = f"notes/{note_id}.md"
        self.save_wiki_page(
            branch, note_id, title, chunks=chunks, build_cache={}, level=NOTE_LEVEL, rel_path=rel_path, model="person"
        )

    def get_wiki_chunks(self, branch: str, page_id: str) -> list[str]:
        """The page's chunks in their order."""
        query = sa.select(wiki_chunks.c.text).filter_by(branch=branch, page_id=page_id).order_by(wiki_chunks.c.position)
        with self.db.reading() as connection:
            return list(connection.execute(query).scalars())

    def record_indexed_files(self, records: Iterable[Mapping[str, Any]]) -> None:
        """Add to the index, or renew there, mappings of path, language, is_source, size (bytes) and digest."""
        with self.db.transaction() as connection:
            take_turns(connection)  # branches share the index: two could each wait for rows of the other
            self._upsert(indexed_files, [dict(record) for record in records])

    def forget_indexed_files(self, paths: Iterable[str]) -> None:
        """Remove the files from the index; a path that it does not know is no error."""
        doomed = [{"doomed": path} for path in paths]
        query = sa.delete(indexed_files).where(indexed_files.c.path == sa.bindparam("doomed"))
        if doomed:
            with self.db.transaction() as connection:
                take_turns(connection)
                connection.execute(query, doomed)

    def get_fact(self, branch: str, name: str) -> Any:
        """What the host noted about the branch under this name, or None."""
        query = sa.select(branch_facts.c.value).filter_by(branch=branch, name=name)
        with self.db.reading() as connection:
            return connection.execute(query).scalar_one_or_none()

    def put_fact(self, branch: str, name: str, value: Any) -> None:
        """Note a value that JSON can hold about the branch."""
        self._upsert(branch_facts, [{"branch": branch, "name": name, "value": value}])

    def _upsert(self, table: sa.Table, rows: list[dict[str, Any]]) -> None:
        if not rows:
            return
        insert = _INSERT[self.db.engine.dialect.name](table)
        keys = [column.name for column in table.primary_key]
        values = {column.name: insert.excluded[column.name] for column in table.columns if column.name not in keys}
        with self.db.transaction() as connection:
            connection.execute(insert.on_conflict_do_update(index_elements=keys, set_=values), rows)

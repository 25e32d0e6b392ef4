"""The store: wiki pages with their chunks, and what each branch's index knows, in SQLite or PostgreSQL."""

import hashlib
import json
import re
import threading
from collections.abc import Iterable, Iterator, Mapping, Sequence
from contextlib import AbstractContextManager, contextmanager, nullcontext
from functools import partial
from typing import Any

import sqlalchemy as sa
from sqlalchemy.dialects import postgresql, sqlite

from quillstone.errors import HostError, PageIdError
from quillstone.workers.wiki.wiki_lock import wait_for

SQLITE_BUSY_SECONDS = 30
LONGEST_PAGE_ID = 200  # bytes of each part; file systems take 255
_INSERT: dict[str, Any] = {"sqlite": sqlite.insert, "postgresql": postgresql.insert}

INDEXED, EXCLUDED, GONE = "indexed", "excluded", "gone"  # planned for; left out though there; gone since the last build


_metadata = sa.MetaData()


def _keys(*names: str) -> list[sa.Column[str]]:
    return [sa.Column(name, sa.Text, primary_key=True) for name in names]


def _texts(**defaults: str) -> list[sa.Column[str]]:
    return [sa.Column(name, sa.Text, nullable=False, default=default) for name, default in defaults.items()]


def _json(**defaults: type) -> list[sa.Column[Any]]:
    return [sa.Column(name, sa.JSON, nullable=False, default=default) for name, default in defaults.items()]


wiki_pages = sa.Table(
    "wiki_pages",
    _metadata,
    *_keys("branch", "page_id"),
    *_texts(title="", description="", importance="medium", level="module", rel_path="", content_hash="", model=""),
    *_texts(status="stale", summary="", page_type=""),
    sa.Column("parent_section", sa.Text),
    *_json(source_files=list, source_hashes=dict, symbols=list, related_pages=list, citations=list, build_cache=dict),
)

wiki_chunks = sa.Table(
    "wiki_chunks",
    _metadata,
    *_keys("branch", "page_id"),
    sa.Column("position", sa.Integer, primary_key=True),
    *_texts(text=""),
    sa.ForeignKeyConstraint(["branch", "page_id"], ["wiki_pages.branch", "wiki_pages.page_id"], ondelete="CASCADE"),
)

branch_files = sa.Table(
    "branch_files",
    _metadata,
    *_keys("branch", "path"),
    sa.Column("is_source", sa.Boolean, nullable=False, default=True),
    sa.Column("size", sa.BigInteger, nullable=False, default=0),
    *_texts(digest="", state=INDEXED),
)

# What the host noted about a branch; runs that are committed and not yet finished among it.
branch_facts = sa.Table("branch_facts", _metadata, *_keys("branch", "name"), *_json(value=dict))


def check_page_id(page_id: str) -> None:
    """Raise `PageIdError` unless the id names a file inside the pages folder."""
    parts = page_id.split("/") if isinstance(page_id, str) else [""]
    problems = {
        "is empty or leads out of the pages folder": any(part in ("", ".", "..") for part in parts),
        "holds a backslash, a NUL or half a character": bool(re.search("[\\\\\0\ud800-\udfff]", "".join(parts))),
        "needs a folder in the place of another page's file": any(part.endswith(".md") for part in parts[:-1]),
        "is too long for a file name": any(len(part.encode("utf-8", "replace")) > LONGEST_PAGE_ID for part in parts),
    }
    for problem in filter(problems.get, problems):
        raise PageIdError(f"page id {page_id!r} {problem}; use a plain name such as 'json' or 'email.mime'")


class Database:
    """One database by URL, and the transaction that the calling thread is in."""

    def __init__(self, url: str | sa.URL) -> None:
        """Open the database and create missing tables; raises `HostError`."""
        shown, self._threads = url, threading.local()
        try:
            parsed = sa.make_url(url)
            shown = repr(parsed)  # without the password
            if parsed.drivername == "postgresql":
                parsed = parsed.set(drivername="postgresql+psycopg")
            if parsed.get_backend_name() not in _INSERT:
                raise ValueError("it is neither sqlite nor postgresql")
            # A connection whose release a signal interrupted would keep its locks, were it kept for the next use.
            dumps = partial(json.dumps, ensure_ascii=False)
            self.engine = sa.create_engine(parsed, poolclass=sa.NullPool, json_serializer=dumps)
            if self.engine.dialect.name == "sqlite":
                sa.event.listen(self.engine, "connect", _prepare_sqlite)
                sa.event.listen(self.engine, "begin", _begin_sqlite)
            if _metadata.tables.keys() - set(sa.inspect(self.engine).get_table_names()):
                with self.transaction() as connection:
                    self.take_turn("", "making tables")
                    _metadata.create_all(connection)
        except (sa.exc.SQLAlchemyError, ImportError, ValueError, TypeError) as error:
            reason = " ".join(str(getattr(error, "orig", None) or error).split())
            raise HostError(f"cannot open the database {shown} ({reason}); check its URL") from error

    @contextmanager
    def transaction(self, dry: bool = False) -> Iterator[sa.Connection]:
        """Make the row changes inside one: all of them on a normal end, none on any exception, which goes on.

        A dry one is undone. Inside another it is a part of that one, which cannot be committed once a part has failed.
        """
        if outer := getattr(self._threads, "connection", None):
            try:
                yield outer
            except BaseException:
                self._threads.has_failed = True
                raise
            return
        with self.engine.connect() as connection:
            connection = connection.execution_options(writes=True)
            with connection.begin() as begun:
                try:
                    self._threads.connection, self._threads.has_failed = connection, False
                    yield connection
                    if self._threads.has_failed:
                        raise HostError("a part of this transaction failed, so none of it counts; run it again")
                    if dry:
                        begun.rollback()
                finally:
                    self._threads.connection = None

    def reading(self) -> AbstractContextManager[sa.Connection]:
        """The connection to read on: that of the open transaction, else one of its own."""
        return nullcontext(outer) if (outer := getattr(self._threads, "connection", None)) else self.engine.connect()

    def take_turn(self, name: str, holder: str) -> None:
        """In the open transaction, wait for the turn of this name and keep it; who waits is told of the `holder`."""
        if self.engine.dialect.name != "postgresql":
            return  # every transaction that writes has its turn
        key = int.from_bytes(hashlib.sha256(name.encode("utf-8", "surrogatepass")).digest()[:8], "big", signed=True)
        with self.reading() as connection:
            connection.execute(sa.select(sa.func.set_config("application_name", holder[:63], True)))
            take = sa.select(sa.func.pg_try_advisory_xact_lock(key))
            wait_for(
                lambda: bool(connection.execute(take).scalar()),
                lambda: str(connection.execute(_TURN_HOLDER, {"key": key}).scalar() or ""),
                f"branch {name!r}",
            )


_TURN_HOLDER = sa.text(
    "SELECT application_name FROM pg_locks JOIN pg_stat_activity USING (pid)"
    " WHERE locktype = 'advisory' AND granted AND CAST(classid AS bigint) << 32 | CAST(objid AS bigint) = :key"
)


def _prepare_sqlite(connection: Any, _record: object) -> None:
    connection.isolation_level = None  # the driver's own BEGIN would come late and without IMMEDIATE
    connection.execute("PRAGMA foreign_keys = ON")
    connection.execute(f"PRAGMA busy_timeout = {SQLITE_BUSY_SECONDS * 1000}")


def _begin_sqlite(connection: sa.Connection) -> None:
    # A transaction that reads first and writes later could find itself unable to: take the write lock at once.
    connection.exec_driver_sql("BEGIN IMMEDIATE" if connection.get_execution_options().get("writes") else "BEGIN")


class Repository:
    """The store of one database, with one branch's index; outside of `db.transaction()` each call is committed."""

    def __init__(self, url: str | sa.URL, branch: str = "main") -> None:
        """Open the store, for example "sqlite:///wiki.sqlite", for the index of `branch`; raises `HostError`."""
        self.db, self.branch = Database(url), branch

    def get_wiki_pages(self, branch: str) -> list[dict[str, Any]]:
        """The branch's page rows, notes included, by page id; JSON fields are decoded."""
        return self._rows(sa.select(wiki_pages).filter_by(branch=branch).order_by(wiki_pages.c.page_id))

    def list_indexed_files(
        self, *, source_only: bool = False, limit: int = 1_000_000
    ) -> tuple[list[dict[str, Any]], bool, int, int]:
        """What the index knows, by path: records (of files left out on purpose, too), whether more, limit, how many."""
        query = sa.select(branch_files).filter_by(branch=self.branch).where(branch_files.c.state != GONE)
        query = query.where(branch_files.c.is_source) if source_only else query
        records = self._rows(query.order_by(branch_files.c.path).limit(limit + 1))
        return records[:limit], len(records) > limit, limit, len(records[:limit])

    def files_gone(self) -> list[dict[str, Any]]:
        """The records of files that are gone since the last build."""
        return self._rows(sa.select(branch_files).filter_by(branch=self.branch, state=GONE))

    def upsert_wiki_page(self, branch: str, page_id: str, title: str, *, build_cache: str, **fields: Any) -> None:
        """Store the row of (branch, page id), new or over the stored one; `build_cache` is given as JSON text."""
        check_page_id(page_id)
        row = {"branch": branch, "page_id": page_id, "title": title, "build_cache": json.loads(build_cache), **fields}
        self._upsert(wiki_pages, [row])

    def delete_wiki_page(self, branch: str, page_id: str) -> bool:
        """Delete the row of (branch, page id) and its chunks; False when there was none."""
        check_page_id(page_id)
        with self.db.transaction() as connection:
            return connection.execute(sa.delete(wiki_pages).filter_by(branch=branch, page_id=page_id)).rowcount > 0

    def save_wiki_page(self, branch: str, page_id: str, title: str, *, chunks: Sequence[str], **fields: Any) -> None:
        """Store a page as fresh, with its chunks in place of the earlier ones; fields not given get their defaults."""
        check_page_id(page_id)
        here = {"branch": branch, "page_id": page_id}
        fields = {"rel_path": f"pages/{page_id}.md", "build_cache": {}, **fields, "status": "fresh"}
        with self.db.transaction() as connection:
            self._upsert(wiki_pages, [{**here, "title": title, **fields}])
            connection.execute(sa.delete(wiki_chunks).filter_by(**here))
            if chunks:
                rows = [{**here, "position": position, "text": text} for position, text in enumerate(chunks)]
                connection.execute(sa.insert(wiki_chunks), rows)

    def record_indexed_files(self, records: Iterable[Mapping[str, Any]]) -> None:
        """Add to the index, or renew there, mappings of path, is_source, size (bytes), digest and state."""
        self._upsert(branch_files, [{**record, "branch": self.branch} for record in records])

    def forget_indexed_files(self, paths: Iterable[str]) -> None:
        """Remove the files from the index; a path that it does not know is no error."""
        doomed = [{"doomed": path} for path in paths]
        here = (branch_files.c.branch == self.branch) & (branch_files.c.path == sa.bindparam("doomed"))
        with self.db.transaction() as connection:
            if doomed:
                connection.execute(sa.delete(branch_files).where(here), doomed)

    def get_fact(self, branch: str, name: str) -> Any:
        """What the host noted about the branch under this name, or None."""
        found = self._rows(sa.select(branch_facts).filter_by(branch=branch, name=name))
        return found[0]["value"] if found else None

    def put_fact(self, branch: str, name: str, value: Any) -> None:
        """Note a value that JSON can hold about the branch; None is no value."""
        with self.db.transaction() as connection:
            connection.execute(sa.delete(branch_facts).filter_by(branch=branch, name=name))
            if value is not None:
                connection.execute(sa.insert(branch_facts).values(branch=branch, name=name, value=value))

    def _rows(self, query: sa.Select[Any]) -> list[dict[str, Any]]:
        with self.db.reading() as connection:
            return [dict(row) for row in connection.execute(query).mappings()]

    def _upsert(self, table: sa.Table, rows: list[dict[str, Any]]) -> None:
        if not rows:
            return
        insert = _INSERT[self.db.engine.dialect.name](table)
        keys = [column.name for column in table.primary_key]
        values = {column.name: insert.excluded[column.name] for column in table.columns if column.name not in keys}
        with self.db.transaction() as connection:
            connection.execute(insert.on_conflict_do_update(index_elements=keys, set_=values), rows)

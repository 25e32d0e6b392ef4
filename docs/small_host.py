"""A host in under a hundred lines; run by itself, it merges two pages. A real one has a module for each part."""

import contextlib, fcntl, hashlib, json, os, pathlib, re, shutil, sqlite3, sys, tempfile, time
from posixpath import normpath as _norm
NOTE_LEVEL = "note"
SECTION = re.compile(r"<!-- carried (\w{64}) -->\n.*?\n<!-- /carried \1 -->", re.DOTALL)

class Repository:
    def __init__(self, file):
        self.connection = sqlite3.connect(file, isolation_level=None, timeout=30)
        self.db, self.execute = self, self.connection.execute
        self.connection.executescript("""PRAGMA foreign_keys = ON; CREATE TABLE IF NOT EXISTS files (path PRIMARY KEY);
            CREATE TABLE IF NOT EXISTS pages (branch, page_id, row, PRIMARY KEY (branch, page_id),
                CHECK (page_id NOT GLOB '*[^a-z0-9-]*'));  -- one file for each id, also where letter case is ignored
            CREATE TABLE IF NOT EXISTS chunks (branch, page_id, text,
                FOREIGN KEY (branch, page_id) REFERENCES pages ON DELETE CASCADE);""")
    def transaction(self):
        self.execute("BEGIN IMMEDIATE")
        return self.connection  # its exit commits; after an exception it rolls back and lets that out
    def get_wiki_pages(self, branch):
        return [json.loads(row) for (row,) in self.execute("SELECT row FROM pages WHERE branch = ?", [branch])]
    def list_indexed_files(self, *, source_only, limit):
        return [{"path": path} for (path,) in self.execute("SELECT path FROM files LIMIT ?", [limit])], None, None, None
    def upsert_wiki_page(self, branch, page_id, title, **rest):
        row = json.dumps({"page_id": page_id, "title": title, **rest, "build_cache": json.loads(rest["build_cache"])})
        self.execute("INSERT INTO pages VALUES (?1, ?2, ?3) ON CONFLICT DO UPDATE SET row = ?3", [branch, page_id, row])
    def delete_wiki_page(self, branch, page_id):
        return self.execute("DELETE FROM pages WHERE (branch, page_id) = (?, ?)", [branch, page_id]).rowcount > 0
class Remap(dict):  # new pages to the stored ones that they continue
    merged = {}  # pages to lists of those that go into them
def origins(remap):  # over chains: with A into B and B into C, C has A, too
    sources = {new: [old] for new, old in remap.items()}
    sources |= {page: [*pages, *sources.get(page, [])] for page, pages in getattr(remap, "merged", {}).items()}
    for page, found in sources.items():
        for source in found:  # which grows meanwhile
            found += [origin for origin in sources.get(source, []) if origin not in (page, *found)]
    return sources
def merged_predecessors(remap):  # a new page's text starts from the page that it continues: no section of that
    return {page: [origin for origin in pages if origin != remap.get(page)] for page, pages in origins(remap).items()}
def plain(text):  # with the line ends that files are read with, and without a byte order mark
    return (text or "").lstrip("\ufeff").replace("\r\n", "\n").replace("\r", "\n")
def cached_prose(row):
    return plain((row.get("build_cache") or {}).get("prose"))
def page_prose(text, row):
    return plain(text) if plain(text).replace("\ufeff", "").strip() else cached_prose(row)
def carried_sections(pages):  # each page's own prose, then the sections that it holds already
    sections = {}
    for title, prose in (map(plain, page) for page in pages):
        if (own := SECTION.sub("", prose).strip("\n")).strip():
            digest = hashlib.sha256(f"{title}\n{own}".encode()).hexdigest()
            sections[f"<!-- carried {digest} -->\n## {title}\n\n{own}\n<!-- /carried {digest} -->"] = None
        sections |= dict.fromkeys(held[0] for held in SECTION.finditer(prose))
    return list(sections)
def with_carried(text, sections):
    return text + "".join(f"\n\n{section}\n" for section in sections if section not in text)
def _atomic_write(path, text):
    (new := path.parents[1] / ".new").write_bytes(text.encode("utf-8"))  # one that a kill leaves is written over
    os.sync()
    new.replace(path)
    os.sync()  # the new name, too, before any row goes
for name in ("storage.repository", "workers.wiki_types", "workers.wiki.repo_facts", "workers.wiki.replan_carry"):
    sys.modules[f"quillstone.{name}"] = sys.modules[__name__]
from quillstone.workers.wiki.page_retirement import PageRetirementMixin

class WikiGenerator(PageRetirementMixin):
    def __init__(self, tree, wiki):
        self.repo_root, self.branch, self.pages_dir = tree, "main", wiki / "pages"
        self.pages_dir.mkdir(parents=True, exist_ok=True)
        self.repository, self.lock = Repository(wiki / "store"), os.open(wiki / ".lock", os.O_CREAT | os.O_RDWR)
    def alone(self):  # page files are read and written outside of the transaction
        held = contextlib.ExitStack()
        held.callback(fcntl.flock, self.lock, fcntl.LOCK_UN)
        fcntl.flock(self.lock, fcntl.LOCK_EX)  # who holds it already does not wait
        return held
    def _apply_replan_to_store(self, remap, plan_ids):
        with self.alone():
            return super()._apply_replan_to_store(remap, plan_ids)
    def _prune_retired_pages(self, existing, plan_ids, remap=None):
        sources = origins({} if remap is None else remap)
        stay = plan_ids.union(*(pages for page, pages in sources.items() if page in plan_ids))
        if sources.keys() - stay or re.search("[^a-z0-9-]", "".join(sources)):
            raise ValueError("a page that takes prose is not in the plan, or its file could be another page's, too")
        with self.alone():  # and all is kept as it was; a real host keeps only what goes
            kept = shutil.copytree(self.pages_dir, self.pages_dir.with_name(f"before-{time.time_ns()}"), symlinks=True)
            self.repository.execute("VACUUM INTO ?", [f"{kept}/store"])
            return super()._prune_retired_pages(existing, plan_ids, remap)
    def _page_text(self, page_id):  # a blank file must not hide the cached prose
        return page_prose(super()._page_text(page_id), {}) or None

if __name__ == "__main__":
    with tempfile.TemporaryDirectory() as folder:
        wiki, remap = WikiGenerator(pathlib.Path(folder), pathlib.Path(folder, "wiki")), Remap()
        wiki.repository.execute("INSERT INTO files VALUES ('a.py')")
        for page in ("parser", "parsing"):
            cache = json.dumps({"prose": f"What somebody wrote about {page}."})
            wiki.repository.upsert_wiki_page("main", page, page.title(), source_files=["a.py"], build_cache=cache)
        remap.merged = {"parsing": ["parser"]}
        print("pages deleted:", wiki._apply_replan_to_store(remap, {"parsing"}))
        print((wiki.pages_dir / "parsing.md").read_text("utf-8"))

"""The commands, as a person and as a program calls them."""

import json
import shutil
import subprocess
import sys
from contextlib import closing

import pytest
from typer.testing import CliRunner

from quillstone.storage.repository import Repository
from quillstone.wiki_cli.app import app
from trees import files_below, write_files

pytest_plugins = "host_fixtures"

REPLAN = {"merge": {"a.b": ["a.b.c"], "a": ["a.b"]}, "rename": {"family": "kin"}, "drop": ["lone"]}
DATABASES = ["nonsense", "foo://", "sqlite:////no/x.db", "sqlite:///replan.json", "postgresql://u:secret@:1/x"]
USER_ERRORS = {
    "is no folder": ["index no-such-tree --wiki new"], "cannot write the wiki": ["index tree --wiki broken.json/below"],
    "cannot open the database": [f"index tree --wiki new --database {url}" for url in DATABASES],
    "no wiki database": ["build --database sqlite:///new"], "nothing is indexed": ["build --branch other"],
    "a.md is not UTF-8": ["build --wiki broken", "apply replan.json --wiki broken"], "a slash": ["note a/b"],
    "is not empty": ["demo tree --work wiki"], "is no JSON": ["apply broken.json"], "cannot read": ["apply x"],
    "is taken": ["note n", "note a", {"rename": {"a": "root"}}, {"rename": {"a": "z", "lone": "z"}}],
    "leads out of the pages folder": ["note ../x", {"rename": {"a": "../a"}}], "must be an object": [{"merges": {}}],
    "no page 'nothing'": ["show nothing", {"drop": ["nothing"]}, {"merge": {"nothing": ["a.b"]}}],
    "a list of page ids": [{"merge": {"a": "a.b"}}], "retired twice": [{"drop": ["a"], "rename": {"a": "z"}}],
    "is a note": [{"merge": {"n": ["a"]}}], "goes away itself": [{"merge": {"a": ["a.b"]}, "drop": ["a"]}],
    "into itself": [{"merge": {"a": ["a.b"], "a.b": ["a.b.c"], "a.b.c": ["a"]}}],
}  # fmt: skip


def run(command, status=0, stdin=""):
    """Standard output of a command that ends well, standard error of one that does not."""
    result = CliRunner().invoke(app, command, input=stdin)
    assert result.exit_code == status, (result.output, result.exception)
    return result.stderr if status == 2 else result.stdout


@pytest.fixture
def here(tree, tmp_path, monkeypatch):
    """A folder with a tree, its built wiki with a note, a copy of that with a broken page, and replans."""
    monkeypatch.chdir(tmp_path)
    assert "7 source files of 8 files" in run("index tree") and "Wrote 9 pages" in run("build")
    run("note n --title 'My thoughts'", stdin="A thought.\n")
    shutil.copytree("wiki", "broken")
    return write_files(
        tmp_path,
        {"replan.json": json.dumps(REPLAN), "none.json": "{}", "broken.json": "{", "broken/pages/a.md": b"\xff"},
    )


def test_a_wiki_from_index_to_apply(here):
    run("note gone", stdin="gone")
    (here / "wiki" / "notes" / "gone.md").unlink()
    before = files_below(here)
    preview = json.loads(run("preview replan.json --json"))
    assert "a.b.c (into a)" in run("preview replan.json") and files_below(here) == before
    assert (preview["merged"], preview["seeded"]) == ({"a.b": "a", "a.b.c": "a"}, {"kin": "family"})
    assert (preview["dropped"], preview["notes_retired"], preview["notes_kept"]) == (["lone"], ["gone"], ["n"])
    assert {**json.loads(run("apply replan.json --json")), "seconds": 0} == {**preview, "seconds": 0}
    shown = json.loads(run("show a --json"))
    assert shown["status"] == "stale" and "What c is for." in shown["text"]
    assert run("show a").strip("\n") == shown["text"].strip("\n") and "A thought." in run("show n")
    folders = [f".page-{digit * 16}.tmp" for digit in "123456789"]
    write_files(here / "wiki" / "pages", {"own.md": "", f".page-{'0' * 16}.tmp": "", ".page-own.tmp": "", "n.md": ""})
    write_files(here / "wiki" / "pages", {f"{folder}/own": "" for folder in folders})
    assert json.loads(run("apply none.json --json"))["files_without_rows"] == ["n", "own"]
    assert "n.md, own.md" in run("show") and "n.md, own.md" in run("apply none.json")
    assert {path.name for path in (here / "wiki" / "pages").glob(".*")} == {".page-own.tmp", *folders}
    listed = [row["page_id"] for row in json.loads(run("show --json"))]
    assert listed == ["a", "family.deep", "family.deep.right", "family.left", "kin", "n", "root"]
    (here / "tree").rename(here / "moved")
    assert "is no folder" in run("show", status=2)


@pytest.mark.parametrize(("complaint", "causes"), USER_ERRORS.items())
def test_a_user_error_is_one_line_and_changes_nothing(here, complaint, causes):
    for cause in causes:
        write_files(here, {"given.json": json.dumps(cause)})
        before = files_below(here)
        error = run(cause if isinstance(cause, str) else "apply given.json", status=2)
        assert complaint in error and error.startswith("error: ") and error.count("\n") == 1 and "secret" not in error
        assert files_below(here) == before and not (here / "new").exists()


def test_the_doctor_finds_what_is_out_of_order_and_changes_nothing(here):
    assert "no wiki database" in run("doctor --wiki tree", status=2)
    assert run("doctor") == "All is well.\n" and json.loads(run("doctor --json")) == []
    write_files(here, {"replan.json": json.dumps({"merge": {"a": ["a.b"]}})})
    run("apply replan.json")
    run("note gone", stdin="gone")
    pages = here / "wiki" / "pages"
    text = (pages / "a.md").read_text()
    write_files(pages, {"own.md": "own", "root.md": b"\xff", "a.md": text + text[text.index("<!-- carried ") :]})
    (pages / "lone.md").unlink()
    (pages / "family.md").unlink()
    (pages / "family.md").mkdir()
    (here / "wiki" / "notes" / "gone.md").unlink()
    for lost in ("a/b/c/three.py", "family/left/l.py"):
        with closing(Repository("sqlite:///wiki/wiki.sqlite")) as store:
            store.forget_indexed_files([lost])
    (here / "tree" / lost).unlink()
    changed = lambda: {path: path.stat().st_ctime_ns for path in (here / "wiki").rglob("*")}
    before = changed()
    found = [(finding["kind"], finding["page"]) for finding in json.loads(run("doctor --json", status=1))]
    assert found == [
        ("file without a page", "own"), ("section that stands twice", "a"),
        ("folder in a file's place", "family"), ("page without a file", "lone"),
        ("file that cannot be read", "root"), ("note without a file", "gone"), ("stale page", "a"),
        ("page kept as the index is behind", "a.b.c"), ("page out of the plan", "family.left"),
    ]  # fmt: skip
    printed = " ".join(run("doctor", status=1).replace("│", "").split())
    assert "'a/b' stands there 2 times" in printed and "notes/gone.md back" in printed
    assert changed() == before


def test_the_demo_on_a_small_tree(tree, tmp_path, monkeypatch):
    result = json.loads(run(f"demo {tree} --work {tmp_path / 'work'} --json"))
    assert [*result["checks"].values(), result["longest_chain"], result["merged_prose"]] == [[], [], [], 3, 4]
    pages, family = result["outcome"], ["family.deep", "family.deep.right", "family.left"]
    merged = {"a.b": "a", "a.b.c": "a"} | dict.fromkeys(family, "family-family")
    assert (pages["merged"], pages["index_behind"], pages["notes_retired"]) == (merged, ["lone"], ["first-impressions"])
    assert "What c is for." in (tmp_path / "work" / "pages" / "a.md").read_text()
    write_files(tree, {f"{name}/x.py": f'"""{name}"""' for name in ("lone2", "lone3", "lone4")})
    monkeypatch.delenv("FORCE_COLOR", raising=False)
    command = [sys.executable, "-c", "from quillstone.wiki_cli.app import main; main()", "demo", str(tree)]
    printed = subprocess.run(command, capture_output=True, text=True, check=True)
    assert "Check passed" in printed.stdout and "gave no example" not in printed.stdout
    assert "\x1b" not in printed.stdout and printed.stderr == ""


@pytest.mark.parametrize("wrong", [lambda sections: sections[1:], lambda sections: [*sections, "", *sections]])
def test_the_demo_fails_when_prose_is_lost_or_stands_twice(tree, monkeypatch, wrong):
    carry = lambda text, sections: "\n\n".join([text, *wrong(sections)])
    monkeypatch.setattr("quillstone.workers.wiki.page_retirement.with_carried", carry)
    assert "FAILED" in run(f"demo {tree}", status=1)

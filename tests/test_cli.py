"""The commands, as a person and as a program calls them."""

from __future__ import annotations

import json
import os
import subprocess
import sys
from pathlib import Path
from typing import Any

import pytest
from typer.testing import CliRunner

from quillstone.wiki_cli.app import app
from trees import files_below, write_files

pytest_plugins = "host_fixtures"

REPLAN = {"merge": {"a.b": ["a.b.c"], "a": ["a.b"]}, "rename": {"family": "kin"}, "drop": ["lone"]}


def run(*arguments: object, status: int = 0, stdin: str = "") -> str:
    """Standard output of a command that ends well, standard error of one that does not."""
    result = CliRunner().invoke(app, [str(argument) for argument in arguments], input=stdin)
    assert result.exit_code == status, (result.output, result.exception)
    return result.stderr if status == 2 else result.stdout


@pytest.fixture
def here(tree: Path, tmp_path: Path, monkeypatch: pytest.MonkeyPatch) -> Path:
    """A folder with a tree, its built wiki with a note, and replans."""
    monkeypatch.chdir(tmp_path)
    assert "7 source files of 8 files" in run("index", "tree")
    assert "Wrote 9 pages" in run("build")
    run("note", "thoughts", "--title", "My thoughts", stdin="A thought.\n")
    write_files(tmp_path, {"replan.json": json.dumps(REPLAN), "broken.json": "{"})
    return tmp_path


def test_a_wiki_from_index_to_apply(here: Path) -> None:
    run("note", "gone", stdin="gone")
    (here / "wiki" / "notes" / "gone.md").unlink()
    before = files_below(here)
    preview = json.loads(run("preview", "replan.json", "--json"))
    assert "a.b.c (into a)" in run("preview", "replan.json")
    assert files_below(here) == before
    applied = json.loads(run("apply", "replan.json", "--json"))
    assert {**applied, "seconds": 0} == {**preview, "seconds": 0}
    assert (applied["merged"], applied["notes_retired"]) == ({"a.b": "a", "a.b.c": "a"}, ["gone"])
    assert (applied["seeded"], applied["dropped"], applied["notes_kept"]) == ({"kin": "family"}, ["lone"], ["thoughts"])
    shown = json.loads(run("show", "a", "--json"))
    assert shown["status"] == "stale" and "What c is for." in shown["text"]
    assert run("show", "a").strip("\n") == shown["text"].strip("\n")
    assert "A thought." in run("show", "thoughts")
    listed = [row["page_id"] for row in json.loads(run("show", "--json"))]
    assert listed == ["a", "family.deep", "family.deep.right", "family.left", "kin", "root", "thoughts"]


@pytest.mark.parametrize(
    ("arguments", "complaint"),
    [
        (["index", "no-such-tree", "--wiki", "new"], "is no folder"),
        (["index", "tree", "--wiki", "replan.json/below"], "cannot write the wiki folder"),
        (["index", "tree", "--wiki", "new", "--database", "sqlite:////no/such/x.db"], "cannot open the database"),
        (["index", "tree", "--database", "sqlite:///replan.json"], "cannot open the database"),
        (["build", "--database", "sqlite:///new.db"], "no wiki database"),
        (["build", "--branch", "other"], "nothing is indexed"),
        (["note", "../x"], "leads out of the pages folder"),
        (["note", "thoughts"], "is taken"),
        (["show", "nothing"], "no page 'nothing'"),
        (["apply", "no-such.json"], "cannot read the replan"),
        (["apply", "broken.json"], "is no JSON"),
        (["demo", "tree", "--work", "wiki"], "is not empty"),
        (["preview", {"merges": {}}], "must be an object"),
        (["preview", {"merge": {"a": "a.b"}}], "a list of page ids"),
        (["apply", {"drop": ["nothing"]}], "no page 'nothing'"),
        (["apply", {"drop": ["a"], "rename": {"a": "z"}}], "retired twice"),
        (["apply", {"merge": {"thoughts": ["a"]}}], "is a note"),
        (["apply", {"rename": {"a": "../a"}}], "leads out"),
        (["apply", {"rename": {"a": "root"}}], "is taken"),
        (["apply", {"rename": {"a": "z", "lone": "z"}}], "is taken"),
        (["apply", {"merge": {"a": ["a.b"]}, "drop": ["a"]}], "goes away itself"),
        (["apply", {"merge": {"nothing": ["a.b"]}}], "to merge into"),
        (["preview", {"merge": {"a": ["a.b"], "a.b": ["a.b.c"], "a.b.c": ["a"]}}], "into itself"),
    ],
)
def test_a_user_error_is_one_line_and_changes_nothing(here: Path, arguments: list[Any], complaint: str) -> None:
    command, subject, *options = arguments
    if isinstance(subject, dict):
        (here / "given.json").write_text(json.dumps(subject))
        subject = "given.json"
    before = files_below(here)
    error = run(command, subject, *options, status=2)
    assert complaint in error and error.startswith("error: ") and error.count("\n") == 1
    assert files_below(here) == before and not (here / "new").exists()


def test_a_tree_that_is_gone_and_a_page_that_is_not_utf8_are_said_so(here: Path) -> None:
    page = here / "wiki" / "pages" / "a.md"
    page.write_bytes(b"\xff")
    before = files_below(here)
    for command in (["apply", "replan.json"], ["build"]):
        assert "a.md is not UTF-8" in run(*command, status=2)
    assert files_below(here) == before
    (here / "tree").rename(here / "moved")
    assert "is no folder" in run("preview", "replan.json", status=2)


def test_the_demo_on_a_small_tree(tree: Path, tmp_path: Path) -> None:
    result = json.loads(run("demo", tree, "--work", tmp_path / "work", "--json"))
    assert set(map(str, result["checks"].values())) == {"[]"} and len(result["checks"]) == 3
    outcome = result["outcome"]
    renamed = dict.fromkeys(["family.deep", "family.deep.right", "family.left"], "family-family")
    assert outcome["merged"] == {"a.b": "a", "a.b.c": "a", **renamed}
    assert outcome["index_behind"] == ["lone"] and outcome["notes_retired"] == ["first-impressions"]
    assert (result["longest_chain"], result["merged_prose"]) == (3, 4)
    assert "What c is for." in (tmp_path / "work" / "pages" / "a.md").read_text()
    write_files(tree, {f"{name}/x.py": f'"""{name}"""' for name in ("lone2", "lone3", "lone4")})
    command = [sys.executable, "-c", "from quillstone.wiki_cli.app import main; main()", "demo", str(tree)]
    plain = {name: value for name, value in os.environ.items() if name != "FORCE_COLOR"}
    printed = subprocess.run(command, capture_output=True, text=True, check=True, env=plain)
    assert "Check passed" in printed.stdout and "gave no example" not in printed.stdout
    assert "\x1b" not in printed.stdout and printed.stderr == ""


@pytest.mark.parametrize("wrong", [lambda sections: sections[1:], lambda sections: [*sections, "", *sections]])
def test_the_demo_fails_when_prose_is_lost_or_stands_twice(tree: Path, monkeypatch: Any, wrong: Any) -> None:
    def carry(text: str, sections: list[str]) -> str:
        return "\n\n".join([text, *wrong(sections)])

    monkeypatch.setattr("quillstone.workers.wiki.page_retirement.with_carried", carry)
    assert "FAILED" in run("demo", tree, status=1)

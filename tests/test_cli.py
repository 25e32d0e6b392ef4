"""The commands, as a person and as a program calls them."""

from __future__ import annotations

import json
import os
import subprocess
import sys
from pathlib import Path
from typing import Any

import pytest
from trees import files_below, write_files
from quillstone.wiki_cli.app import app
from quillstone.wiki_cli.demo import lost_prose
from quillstone.workers.wiki import replan_carry
from quillstone.workers.wiki.replan import Replan
from typer.testing import CliRunner

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
    assert "Wrote 8 pages" in run("build")
    run("note", "thoughts", "--title", "My thoughts", stdin="A thought.\n")
    write_files(tmp_path, {"replan.json": json.dumps(REPLAN), "broken.json": "{", "latin.json": "\ufeff"})
    return tmp_path


def test_a_wiki_from_index_to_apply(here: Path) -> None:
    before = files_below(here)
    preview = json.loads(run("preview", "replan.json", "--json"))
    assert "a.b.c (into a)" in run("preview", "replan.json")
    assert files_below(here) == before
    applied = json.loads(run("apply", "replan.json", "--json"))
    assert {**applied, "seconds": 0} == {**preview, "seconds": 0}
    assert applied["merged"] == {"a.b": "a", "a.b.c": "a"}
    assert (applied["seeded"], applied["dropped"], applied["notes_kept"]) == ({"kin": "family"}, ["lone"], ["thoughts"])
    shown = json.loads(run("show", "a", "--json"))
    assert shown["status"] == "stale" and "What c is for." in shown["text"]
    assert run("show", "a").strip("\n") == shown["text"].strip("\n")
    assert "A thought." in run("show", "thoughts")
    assert [row["page_id"] for row in json.loads(run("show", "--json"))] == [
        "a", "family.left", "family.right", "kin", "root", "thoughts",
    ]  # fmt: skip


@pytest.mark.parametrize(
    ("arguments", "complaint"),
    [
        (["index", "no-such-tree"], "is no folder"),
        (["index", "no-such-tree", "--wiki", "new"], "is no folder"),
        (["index", "tree", "--wiki", "replan.json"], "cannot write the wiki folder"),
        (["index", "tree", "--wiki", "replan.json/below"], "cannot write the wiki folder"),
        (["index", "tree", "--wiki", "new", "--database", "sqlite:////no/such/folder/x.db"], "cannot open the database"),
        (["index", "tree", "--database", "sqlite:///replan.json"], "cannot open the database"),
        (["build", "--wiki", "new"], "no wiki database"),
        (["build", "--database", "sqlite:///new.db"], "no wiki database"),
        (["build", "--branch", "other"], "nothing is indexed"),
        (["note", "../x"], "leads out of the pages folder"),
        (["note", "thoughts"], "is taken"),
        (["show", "nothing"], "no page 'nothing'"),
        (["apply", "no-such.json"], "cannot read the replan"),
        (["apply", "broken.json"], "is no JSON"),
        (["apply", "latin.json"], "is no JSON"),
        (["demo", "tree", "--work", "wiki"], "is not empty"),
    ],
)
def test_what_the_user_can_mend_is_one_line_and_changes_nothing(
    here: Path, arguments: list[str], complaint: str
) -> None:
    before = files_below(here)
    error = run(*arguments, status=2)
    assert complaint in error and error.startswith("error: ") and error.count("\n") == 1
    assert files_below(here) == before
    assert not (here / "new").exists()


@pytest.mark.parametrize(
    ("replan", "complaint"),
    [
        ([], "must be an object"),
        ({"merges": {}}, "must be an object"),
        ({"merge": {"a": "a.b"}}, "a list of page ids"),
        ({"rename": {"a": 1}}, "old page ids to new"),
        ({"drop": {"a": 1}}, "a list of page ids"),
        ({"drop": ["nothing"]}, "no page 'nothing'"),
        ({"drop": ["a"], "rename": {"a": "z"}}, "retired twice"),
        ({"drop": ["thoughts"]}, "is a note"),
        ({"merge": {"thoughts": ["a"]}}, "is a note"),
        ({"rename": {"a": "../a"}}, "leads out"),
        ({"rename": {"a": "root"}}, "is taken"),
        ({"rename": {"a": "z", "lone": "z"}}, "is taken"),
        ({"merge": {"a": ["a.b"]}, "drop": ["a"]}, "goes away itself"),
        ({"merge": {"nothing": ["a.b"]}}, "to merge into"),
        ({"merge": {"a": ["a.b"], "a.b": ["a.b.c"], "a.b.c": ["a"]}}, "into itself"),
    ],
)
def test_a_replan_that_does_not_fit_is_refused(here: Path, replan: Any, complaint: str) -> None:
    (here / "replan.json").write_text(json.dumps(replan))
    before = files_below(here)
    for command in ("preview", "apply"):
        error = run(command, "replan.json", status=2)
        assert complaint in error and error.count("\n") == 1
    assert files_below(here) == before


def test_a_tree_that_is_gone_and_a_page_that_is_not_utf8_are_said_so(here: Path) -> None:
    page = here / "wiki" / "pages" / "a.md"
    page.write_bytes(b"\xff")
    assert "not UTF-8" in run("apply", "replan.json", status=2)
    assert page.read_bytes() == b"\xff"
    (here / "tree").rename(here / "moved")
    assert "is no folder" in run("preview", "replan.json", status=2)


def test_the_demo_on_a_small_tree(tree: Path, tmp_path: Path) -> None:
    result = json.loads(run("demo", tree, "--work", tmp_path / "work", "--json"))
    assert set(map(str, result["checks"].values())) == {"[]"} and len(result["checks"]) == 3
    outcome = result["outcome"]
    assert outcome["merged"] == {
        "a.b": "a", "a.b.c": "a", "family.left": "family-family", "family.right": "family-family",
    }  # fmt: skip
    assert outcome["index_behind"] == ["lone"] and outcome["notes_retired"] == ["first-impressions"]
    assert (result["longest_chain"], result["merged_prose"]) == (3, 4)
    assert "What c is for." in (tmp_path / "work" / "pages" / "a.md").read_text()
    write_files(tree, {f"{name}/x.py": f'"""{name}"""' for name in ("lone2", "lone3", "lone4")})
    command = [sys.executable, "-c", "from quillstone.wiki_cli.app import main; main()", "demo", str(tree)]
    plain = {name: value for name, value in os.environ.items() if name not in ("FORCE_COLOR", "PY_COLORS")}
    printed = subprocess.run(command, capture_output=True, text=True, check=True, env=plain)
    assert "Check passed" in printed.stdout and "gave no example" not in printed.stdout
    assert "\x1b" not in printed.stdout and printed.stderr == ""


def test_the_demo_fails_when_prose_is_lost(tree: Path, monkeypatch: pytest.MonkeyPatch) -> None:
    kept = replan_carry.with_carried

    def forgetful(text: str, sections: list[str]) -> str:
        return kept(text, sections[1:])

    monkeypatch.setattr("quillstone.workers.wiki.page_retirement.with_carried", forgetful)
    assert "FAILED" in run("demo", tree, status=1)


def test_the_demos_check_sees_a_section_that_stands_twice(generator: Any) -> None:
    replan = Replan({"a": ["a.b"]})
    authored = {"a.b": ("a/b", "What b is for.")}
    (section,) = replan_carry.carried_sections(authored.values())
    (generator.pages_dir / "a.md").write_text(f"{section}\n\n{section}")
    assert lost_prose(generator, authored, replan) == [
        "the file of a holds a.b 2 times",
        "the prose of a.b is missing from the cached prose of a",
        "the cached prose of a holds a.b 0 times",
    ]

"""Stories of commands, as people and programs call them; after each it is asked where all texts stand."""

import itertools
import os
import re
import signal
import subprocess
import sys
from pathlib import Path

import pytest
from typer.testing import CliRunner

from quillstone.wiki_cli.app import app

COMMANDS = {command.name for command in app.registered_commands}
PAGES = ["%72oot", "a", "a%2Eb", "a.b", "family", "lone", "odd", "root"]
WRITE = f'for page in {" ".join(PAGES)}; do echo "By hand: $page;" >> wiki/pages/$page.md; done'
TREE = r"""for path in top.py a/1.py a/b/2.py a.b/x.py root/x.py family/l.py lone/README.md lone/x.c odd/a.py locked.py
do mkdir -p tree/$(dirname $path); echo "# $path" > tree/$path; done; printf '%5000s' | tr ' ' '(' > tree/odd/deep.py
printf '# -*- coding: latin-1 -*-\n"caf\351 \\ud800\\0"' > tree/odd/a.py"""
REPLAN = '{"merge": {"a": ["a.b"]}, "rename": {"family": "kin"}, "drop": ["lone"]}'
REPLANNED = {"a.b": "a", "family": "kin", "lone": ""}
PROGRAM = f"{sys.executable} -m quillstone.wiki_cli"
DEMO = f"""{sys.executable} -c 'import runpy as run, quillstone.workers.wiki.page_retirement as module
module.with_carried = lambda text, sections: "\\n\\n".join([text.split("\\n\\n<!-- carried")[0], *sections * %d])
run.run_path("{Path(__file__).parents[1]}/docs/demo.py", run_name="__main__")' tree"""


def do(step):
    """What a command prints, or the line in which it complains; a replan's preview has to tell what it then does."""
    status, step = re.fullmatch("(?s)(?:([012]) )?(.*)", step).groups("0")
    if step.startswith("{"):
        Path("replan.json").write_text(step)
        told = [do(f"{status} {command} replan.json --json") for command in ("preview", "apply")]
        assert len({re.sub('"retired/[^"]*"', "", text) for text in told}) == 1
        return told[0]
    if step.split()[0] not in COMMANDS:
        return subprocess.run(step, shell=True, check=True, stdout=subprocess.PIPE, text=True).stdout
    before, result = state(), CliRunner().invoke(app, step, input="A thought.")
    assert result.exit_code == int(status), (step, result.output, result.exception)
    assert state() == before or (status == "0" and not step.startswith("preview"))
    assert result.exit_code < 2 or re.fullmatch("error: .+\n", result.stderr)
    return " ".join((result.stderr or result.stdout).split())


def state():
    files = [path for path in Path("wiki").rglob("*") if path.is_symlink() or path.is_file()]
    return {path: path.is_symlink() or path.read_bytes() for path in files}


def elsewhere():
    """The pages whose text does not stand in their own file, once and nowhere else, and the files where it stands."""
    files = sorted(path for path in Path("wiki/pages").glob("*.md") if path.is_file())
    held = [(page, file.stem) for file in files for page in re.findall("By hand: (.*);", file.read_text())]
    where = {page: " ".join(name for held_page, name in held if held_page == page) for page in PAGES}
    return {page: names for page, names in where.items() if names != page}


@pytest.fixture
def here(tmp_path, monkeypatch):
    """The current folder, with a tree, and its wiki in which somebody wrote on each page."""
    monkeypatch.chdir(tmp_path)
    opened = Path.open  # of files of which nobody may open one; root may any
    opening = lambda path, *how, **named: opened(path / ("x" if path.name == "locked.py" else ""), *how, **named)
    monkeypatch.setattr(Path, "open", opening)
    said = " ".join(map(do, [TREE, "index tree", "build", WRITE, "build", "show odd", "doctor"]))
    assert re.search("10 source .* locked.py: it cannot .* Wrote 8 .* café \ufffd\ufffd .*All is well", said)
    return tmp_path


# Steps, each after its exit status unless that is 0; which texts stand elsewhere afterwards; and what was said.
STORIES = {
    "from a note to a restore": (
        f"note n --title Thoughts; note gone; rm wiki/notes/gone.md; chmod 604 wiki/pages/a.md; {REPLAN}; build; "
        f"apply replan.json; show n; restore lone; {PROGRAM} retired --forget $(ls wiki/retired); build; doctor; "
        "ls -l wiki/pages", {"a.b": "a", "family": "kin"}, '"gone"|applied before|A thought.|Forgot 1|rw----r--'),
    "what git knows of, a name that is no UTF-8, and a folder whose page cannot have its own id": (
        "git init -q tree; git -C tree add .; git -C tree mv family kin; git -C tree rm -qr --cached odd; note new; "
        "echo odd > tree/.gitignore; mkdir tree/new; touch tree/new/x.py tree/$(printf '\\377.py'); rm tree/top.py; "
        "index tree; build; cat wiki/pages/new%.md; doctor", {"family": "kin", "odd": ""},
        "'\\udcff.py': its name is not UTF-8|family moved|odd leaves the wiki|All is well"),
    "a wiki and its tree, copied, and one without its database": (
        "mkdir copy; cp -r tree wiki copy; touch copy/tree/new.py; index copy/tree --wiki copy/wiki; "
        "build --wiki copy/wiki; ! diff wiki/pages copy/wiki/pages; rm wiki/wiki.sqlite; 2 doctor; index tree; "
        f"1 doctor; ! {PROGRAM} doctor | grep delete; build; doctor", {}, "> - `new.py`|no wiki database|All is well"),
    "what is refused": (
        "note n; 2 note n; 2 note a/b; 2 note ../x; 2 index none --wiki new; 2 index tree --wiki tree/top.py/wiki; "
        "2 index tree/a; 2 index tree --database foo://; 2 index tree --database postgresql://u:pw@:1/x; 2 show x; "
        "2 build --branch other; 2 build --wiki tree; 2 restore a; 2 retired --forget x; 2 apply x; ! test -e new; "
        '2 apply tree/top.py; 2 {"drop": ["n"]}; 2 {"drop": ["x"]}; 2 {"drop": ["a"], "rename": {"a": "z"}}; 2 {"x": 1}'
        '; 2 {"rename": {"a": "root"}}; 2 {"rename": {"a": "../a"}}; 2 {"merge": {"a": ["a.b"]}, "drop": ["a"]}; '
        '2 {"rename": {"a": "b.md/a"}}; 2 {"merge": {"a": ["a.b"], "a.b": ["odd"], "odd": ["a"]}}', {},
        "is taken|leads out|in the place of|no folder|cannot use|'../tree'|foo|u:***|no page 'x'|nothing is indexed|"
        "no text|is kept|'x' (No such file|top.py|is a note|'x' is not stored|twice|unknown field|goes away|itself"),
    "a demo, as it is, and where sections are lost or stand twice": (
        f"{DEMO % 1}; ! {DEMO % 0}; ! {DEMO % 2}", {}, "Check passed|Check FAILED"),
}  # fmt: skip
# What lies in the place of three page files, whose texts stand outside then.
PUT = "set -e\ncd wiki/pages\nfor page in lone family a.b\ndo mv $page.md ../../own.$page\n%s $page.md\ndone; "
for make in ["ln -s ../../own.$page", "ln ../../own.$page"]:
    STORIES[f"{make} PAGE"] = PUT % make + REPLAN, REPLANNED, ""
REFUSED = '2 {"rename": {"family": "kin"}}; 2 {"merge": {"a": ["a.b"]}}; {"drop": ["lone"]}; '
REFUSED += "rm -r wiki/pages/family.md wiki/pages/a.b.md; build"
for make in ["mkfifo", "ln -s none", "ln -s /proc/self/mem", "mkdir", r"printf '\377' >"]:
    STORIES[f"{make} PAGE"] = PUT % make + REFUSED, {"lone": ""}, ""


@pytest.mark.parametrize("story", STORIES)
def test_a_story(here, story):
    steps, moved, words = STORIES[story]
    said = " ".join(do(step) for step in steps.split("; "))
    assert elsewhere() == moved and [word for word in words.split("|") if word not in said] == [], said


def test_a_replan_that_ctrl_c_stops_at_any_step_has_changed_nothing(here, monkeypatch):
    before, sync = state(), os.fsync
    monkeypatch.setattr(os, "fsync", lambda file: (sync(file), next(goes_on) or os.kill(os.getpid(), signal.SIGINT)))
    Path("replan.json").write_text(REPLAN)
    for step in itertools.count():
        goes_on = itertools.chain([True] * step, [False], itertools.repeat(True))
        stopped = CliRunner().invoke(app, "apply replan.json")
        if stopped.exit_code == 0:
            break
        assert stopped.exit_code == 130 and stopped.stderr.startswith("error: ") and state() == before
    assert step > 2 and elsewhere() == REPLANNED

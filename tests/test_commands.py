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
PAGES = ["%72oot", "a", "a%2Eb", "a.b", "family", "family.left", "lone", "odd", "root"]
WRITE = f'for page in {" ".join(PAGES)}; do echo "By hand: $page;" >> wiki/pages/$page.md; done'
TREE = r'''for path in top.py a/1.py a/b/2.py a.b/x.py root/x.py family/left/l.py lone/README.md lone/x.c odd/a.py
do mkdir -p tree/$(dirname $path); echo "# $path" > tree/$path; done; printf '%5000s' | tr ' ' '(' > tree/odd/deep.py
printf '# -*- coding: latin-1 -*-\n"""caf\351 \\ud800\\0"""' > tree/odd/a.py; echo 2 > tree/locked.py'''
REPLAN = '{"merge": {"a": ["a.b"]}, "rename": {"family": "kin"}, "drop": ["lone"]}'
REPLANNED = {"a.b": "a", "family": "kin", "lone": ""}
PROGRAM = f"{sys.executable} -m quillstone.wiki_cli"
DEMO = f"""{sys.executable} -c 'import runpy as run, quillstone.workers.wiki.page_retirement as module
module.with_carried = lambda text, sections: "\\n\\n".join([text, *%s])
run.run_path("{Path(__file__).parents[1]}/docs/demo.py", run_name="__main__")' tree"""


def do(step):
    """What a command prints, or the line in which it complains; a replan's preview has to tell what it then does."""
    status, step = re.fullmatch("(?s)(2 )?(.*)", step).groups("")
    if step.startswith("{"):
        Path("replan.json").write_text(step)
        told = [do(f"{status}{command} replan.json --json") for command in ("preview", "apply")]
        assert len({re.sub(r'"seconds": [^,}]+|"retired/[^"]*"', "", text) for text in told}) == 1
        return told[0]
    if step.split()[0] not in COMMANDS:
        return subprocess.run(step, shell=True, check=True, stdout=subprocess.PIPE, text=True).stdout
    before, result = state(), CliRunner().invoke(app, step, input="A thought.")
    assert result.exit_code == int(status or 0), (step, result.output, result.exception)
    assert state() == before or not (status or step.startswith("preview"))
    assert not status or re.fullmatch("error: .+\n", result.stderr)
    return " ".join((result.stderr if status else result.stdout).split())


def state():
    files = [path for path in Path("wiki").rglob("*") if path.name != ".lock" and (path.is_symlink() or path.is_file())]
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
    assert re.search("10 source .* locked.py: it cannot .* Wrote 9 .* café \ufffd\ufffd .*All is well", said)
    assert elsewhere() == {}
    return tmp_path


# Steps, which texts stand elsewhere afterwards, and what was said.
STORIES = {
    "from a note to a restore": (
        f"note n --title Thoughts; note gone; rm wiki/notes/gone.md; chmod 604 wiki/pages/a.md; {REPLAN}; build; "
        f"apply replan.json; show n; restore lone; {PROGRAM} retired --forget $(ls wiki/retired); build; doctor; "
        "ls -l wiki/pages", {"a.b": "a", "family": "kin"},
        '"gone"|applied before|A thought.|Forgot 1|rw----r--'),
    "a name that is no UTF-8, and a folder whose page cannot have its own id": (
        "git init -q tree; git -C tree add .; mkdir tree/new; touch tree/new/x.py \"$(printf 'tree/\\377.py')\"; "
        "note new; index tree; build; cat wiki/pages/new%.md; doctor", {}, "'\\udcff.py': its name is not UTF-8|well"),
    "folders that move, and that git ignores from now on": (
        "git init -q tree; git -C tree add .; git -C tree mv family kin; printf 'odd\nroot\n' > tree/.gitignore; "
        'git -C tree rm -qr --cached odd root; index tree; {"merge": {"a": ["odd"]}}; build; doctor',
        {"odd": "a", "%72oot": "", "family": "kin", "family.left": "kin.left"},
        '"family.left": "kin.left"|"kept_texts": { "%72oot"|All is well'),
    "a file of somebody's own, and a wiki without its database": (
        "note n; note ideas; echo 'By hand: root;' > wiki/pages/ideas.md; rm wiki/notes/ideas.md; build; "
        "cat wiki/pages/ideas.md; rm wiki/wiki.sqlite wiki/pages/ideas.md; 2 doctor; index tree; "
        f"! {PROGRAM} doctor | grep delete; build; doctor", {}, "By hand: root;|All is well"),
    "a wiki and its tree, copied": (
        "mkdir copy; cp -r tree wiki copy; touch copy/tree/new.py; index copy/tree --wiki copy/wiki; "
        "build --wiki copy/wiki; grep new.py copy/wiki/pages/root.md; ! grep new.py wiki/pages/root.md", {}, "new.py"),
    "what is refused": (
        "note n; 2 note n; 2 note a/b; 2 note ../x; 2 index none --wiki new; 2 index tree --wiki tree/top.py/wiki; "
        "2 index tree/a; 2 index tree --database foo://; 2 index tree --database postgresql://u:pw@:1/x; 2 show x; "
        "2 build --branch other; 2 build --wiki tree; 2 restore a; 2 retired --forget x; 2 apply x; ! test -e new; "
        '2 apply tree/top.py; 2 {"drop": ["n"]}; 2 {"drop": ["x"]}; 2 {"drop": ["a"], "rename": {"a": "z"}}; 2 {"x": 1}'
        '; 2 {"rename": {"a": "root"}}; 2 {"rename": {"a": "../a"}}; 2 {"merge": {"a": ["a.b"]}, "drop": ["a"]}; '
        '2 {"merge": {"a": ["a.b"], "a.b": ["odd"], "odd": ["a"]}}', {},
        "is taken|a slash|leads out|is no folder|cannot use|'../tree'|foo|u:***|no page 'x'|nothing is indexed|no wiki|"
        "no text|is kept|cannot read|top.py|is a note|'x' is not stored|twice|unknown field|goes away|itself"),
    "a demo, as it is, and where sections are lost or stand twice": (
        f"{DEMO % 'sections'}; ! {DEMO % '[]'}; ! {DEMO % '(sections * 2)'}", {}, "Check passed|Check FAILED"),
}  # fmt: skip
LOOP = "set -e\ncd wiki/pages\nfor page in lone family a.b\ndo mv $page.md ../../own.$page\n%s $page.md\ndone"
for place in ["mkfifo", "ln -s none", "ln -s ../../own.$page", "ln ../../own.$page"]:
    STORIES[f"{place} PAGE"] = f"{LOOP % place}; {REPLAN}", REPLANNED, ""
for place in ["ln -s /proc/self/mem", "mkdir", r"printf '\377' >"]:
    steps = '2 {"rename": {"family": "kin"}}; 2 {"merge": {"a": ["a.b"]}}; {"drop": ["lone"]}'
    steps += "; rm -r wiki/pages/family.md wiki/pages/a.b.md; build"
    STORIES[f"{place} PAGE"] = f"{LOOP % place}; {steps}", {"lone": ""}, ""


@pytest.mark.parametrize("story", STORIES)
def test_a_story(here, story):
    steps, moved, words = STORIES[story]
    said = " ".join(do(step) for step in steps.split("; "))
    assert elsewhere() == moved and [word for word in words.split("|") if word not in said] == [], said


@pytest.mark.parametrize("trouble", ["Ctrl-C", "a full disk"])
def test_a_replan_that_is_stopped_at_any_step_is_undone(here, monkeypatch, request, trouble, figures):
    """Ctrl-C comes when so many files are on the disk, and a disk is full that has room for so many blocks."""
    if full := trouble == "a full disk":
        mount = "mkdir disk && mount -t tmpfs -o size=512k tmpfs disk && cp -r tree wiki disk"
        if subprocess.run(mount, shell=True).returncode:
            pytest.skip("no file system may be mounted here")
        request.addfinalizer(lambda: subprocess.run(["umount", "--lazy", here / "disk"]))
        monkeypatch.chdir("disk")
    before, sync = state(), os.fsync
    monkeypatch.setattr(os, "fsync", lambda file: (sync(file), next(goes_on) or os.kill(os.getpid(), signal.SIGINT)))
    Path("replan.json").write_text(REPLAN)
    for step in itertools.count():
        goes_on, room = itertools.chain([True] * step, [full], itertools.repeat(True)), os.statvfs(".")
        Path("filler").write_bytes(bytes(full and room.f_bavail * room.f_bsize - 4096 * step))
        stopped = CliRunner().invoke(app, "apply replan.json")
        Path("filler").unlink()
        if stopped.exit_code == 0:
            break
        assert stopped.stderr.startswith("error: ") and (state() == before or "committed" in stopped.stderr)
        figures[f"replans stopped by {trouble}"] += 1
    assert step > 2 and elsewhere() == REPLANNED

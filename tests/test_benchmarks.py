"""The benchmarks do what they say before anybody times them, and the guard over instructions can fail."""

import json
import subprocess
import sys
from pathlib import Path

import pytest

BENCHMARKS = Path(__file__).parent.parent / "benchmarks"

EVERY_OPERATION = """
import memory, generated
wiki = generated.generate(160, 2)
for rules in (memory.page_retirement, memory.plain_python()):
    for operation in memory.operations(wiki, rules).values():
        assert operation.expected in (None, operation.run())
"""
REPLAN_IN_SQLITE = """
import sqlite, generated
wiki = generated.generate(160, 2)
with sqlite.scratch() as root:
    sqlite.store(wiki, root / "wiki")
    with sqlite.copied(root / "wiki") as host:
        before = host.repository.get_wiki_pages("main")
        sqlite.replan(host, wiki)
        after = {row["page_id"]: row for row in host.repository.get_wiki_pages("main")}
    assert len(after) == len(before) - len(wiki.deletes) + len(wiki.seeds)
    assert "About page-0000012" in after["page-0000008"]["build_cache"]["prose"]
"""


@pytest.mark.parametrize("program", [EVERY_OPERATION, REPLAN_IN_SQLITE])
def test_generated_wikis(program):
    subprocess.run([sys.executable, "-c", program], check=True, cwd=BENCHMARKS)


def test_instructions_are_held_against_their_bounds(monkeypatch, tmp_path, capsys):
    monkeypatch.syspath_prepend(BENCHMARKS)
    import instructions

    bounds = tmp_path / "bounds.json"
    bounds.write_text(json.dumps({"index": [100, 1000]}))
    monkeypatch.setattr(instructions, "BOUNDS", bounds)
    monkeypatch.setattr(sys, "argv", ["instructions.py"])
    monkeypatch.setattr(instructions.shutil, "which", lambda program: program)
    statuses = []
    for own, everything in ((100, 1000), (101, 1000), (100, 1001)):
        counted = lambda name, pages, times, *build, own=own, everything=everything: (
            7 + times * own * pages,
            9 + times * everything * pages,
        )
        monkeypatch.setattr(instructions, "count", counted)
        statuses.append(instructions.main())
    assert statuses == [0, 1, 1]
    assert "101     100     1,000     1,000  <-" in capsys.readouterr().out
    profile = tmp_path / "profile"
    profile.write_text("ob=libpython.so\nfn=a\n1 5\nob=page_retirement.so\nfn=b\ncalls=1 9\n2 70\n3 4\n")
    assert instructions.parse(profile) == (4, 9)
    monkeypatch.setattr(instructions.shutil, "which", lambda program: None)
    assert instructions.main() == 0
    assert "skipped, valgrind is not installed" in capsys.readouterr().out

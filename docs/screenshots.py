"""Draw what a real run prints: the demo on Python's standard library, its outcome as a terminal shows it."""

import io
import re
import tempfile
from pathlib import Path

from rich.console import Console

from demo import default_tree, run_demo
from quillstone.storage.repository import Repository
from quillstone.wiki_cli.app import outcome_report
from quillstone.workers.wiki.generator import WikiGenerator

with tempfile.TemporaryDirectory() as folder:
    store = Repository(f"sqlite:///{folder}/wiki.sqlite")
    result = run_demo(WikiGenerator(store, default_tree(), "main", Path(folder)))
if any(result.checks.values()):
    raise SystemExit(f"nothing is drawn: {result.checks}")
console = Console(record=True, width=100, file=io.StringIO())
console.print(*outcome_report(result.outcome, "What became of the pages"), sep="\n")
drawn = console.export_svg(title="quillstone-wiki apply", unique_id="prune")
# A picture loads nothing, so it is drawn in a font that is there.
drawn = re.sub(r"@font-face \{.*?\}|<!--.*?-->", "", drawn, flags=re.DOTALL)
drawn = drawn.replace("Fira Code, monospace", "ui-monospace, Menlo, Consolas, DejaVu Sans Mono, monospace")
Path(__file__).with_name("prune.svg").write_text(re.sub(r"\s*\n", "\n", drawn), "utf-8")

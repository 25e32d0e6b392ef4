"""Write the figures of a run of the benchmarks into BENCHMARKS.md, and their plot beside this file.

report.py FOLDER    where FOLDER holds memory.json and sqlite.json (pyperf) and growth.json
"""

from __future__ import annotations

import json
import math
import os
import platform
import re
import sys
from collections import defaultdict
from pathlib import Path

import matplotlib as mpl
import pyperf

from growth import IN_MEMORY, IN_SQLITE, PLAIN, TABLES

mpl.use("svg")
from matplotlib import pyplot

PAGE = Path(__file__).parent.parent / "BENCHMARKS.md"
PLOT = Path(__file__).with_name("growth.svg")
Figures = dict[tuple[str, str], dict[int, float]]


def machine() -> str:
    cpu = Path("/proc/cpuinfo")
    model = re.search(r"model name\s*: (.*)", cpu.read_text() if cpu.exists() else "")
    gigabytes = os.sysconf("SC_PAGE_SIZE") * os.sysconf("SC_PHYS_PAGES") / 2**30
    return (
        f"{model[1] if model else platform.machine()}, {os.cpu_count()} cores, {gigabytes:.0f} GB; "
        f"{platform.system()} {platform.release()}, CPython {platform.python_version()}."
    )


def table(head: list[str], rows: list[list[str]]) -> str:
    lines = [head, ["---", *["---:"] * (len(head) - 1)], *rows]
    return "\n".join(f"| {' | '.join(line)} |" for line in lines)


def timed(folder: Path) -> str:
    """The operations as pyperf took them: mean and standard deviation."""
    cells: dict[str, dict[int, str]] = defaultdict(dict)
    for file in ("memory.json", "sqlite.json"):
        for benchmark in pyperf.BenchmarkSuite.load(str(folder / file)).get_benchmarks():
            name, _, pages = benchmark.get_name().rpartition(" ")
            mean, spread = (figure / int(pages) * 1e6 for figure in (benchmark.mean(), benchmark.stdev()))
            decimals = max(0, 2 - math.floor(math.log10(mean)))  # three significant digits
            cells[name][int(pages)] = f"{mean:.{decimals}f} ± {spread:.{decimals}f}"
    sizes = sorted({pages for row in cells.values() for pages in row})
    rows = [[name, *(row.get(pages, "") for pages in sizes)] for name, row in cells.items()]
    return table(["µs a page", *(f"{pages:,} pages" for pages in sizes)], rows)


def grown(figures: Figures, kind: str, unit: str, factor: float, decimals: int) -> str:
    names = [name for name in (*IN_MEMORY, TABLES, *IN_SQLITE) if (name, kind) in figures]
    sizes = sorted({pages for row in figures.values() for pages in row})
    rows = [
        [name, *(f"{row[pages] / pages * factor:,.{decimals}f}" if pages in row else "" for pages in sizes)]
        for name, row in ((name, figures[name, kind]) for name in names)
    ]
    return table([unit, *(f"{pages:,} pages" for pages in sizes)], rows)


def plot(figures: Figures) -> None:
    """Both axes logarithmic: what is linear rises as steeply as the dotted line."""
    pyplot.rcParams.update({"svg.hashsalt": "growth", "svg.fonttype": "none", "font.size": 9})
    figure, panels = pyplot.subplots(1, 2, figsize=(10, 4.2), layout="constrained")
    for panel, kind, title in zip(panels, ("time", "memory"), ("seconds", "peak memory, MB"), strict=True):
        for color, name in enumerate((*IN_MEMORY, TABLES, *IN_SQLITE)):
            if row := figures.get((name, kind)):
                scale = 1 if kind == "time" else 1e-6
                style = "--" if name in (PLAIN, TABLES) else "-"
                values = [value * scale for value in row.values()]
                panel.loglog(list(row), values, style, marker="o", color=f"C{color}", label=name)
        low, high = panel.get_ylim()
        panel.loglog([1e3, 1e6], [low, low * 1e3], ":", color="grey", label="linear")
        panel.set(xlabel="pages", title=title, ylim=(low, high))
        panel.grid(alpha=0.3)
        panel.minorticks_off()  # they would double the file
    figure.legend(*panels[1].get_legend_handles_labels(), loc="outside lower center", ncols=5)
    figure.savefig(PLOT, metadata={"Date": None})


def main() -> None:
    folder = Path(sys.argv[1])
    figures: Figures = defaultdict(dict)
    for run in json.loads((folder / "growth.json").read_text()):
        figures[run["what"], run["kind"]][run["pages"]] = run["figure"]
    plot(figures)
    parts = {
        "machine": machine(),
        "operations": timed(folder),
        "time": grown(figures, "time", "µs a page", 1e6, 2),
        "memory": grown(figures, "memory", "bytes a page", 1, 0),
    }
    text = PAGE.read_text("utf-8")
    for name, content in parts.items():
        section = rf"(<!-- {name} -->\n).*?(<!-- /{name} -->)"
        text, found = re.subn(
            section, lambda place, content=content: f"{place[1]}\n{content}\n\n{place[2]}", text, flags=re.S
        )
        assert found == 1, f"{PAGE.name} has no one place for {name}"
    PAGE.write_text(text, "utf-8")


main()

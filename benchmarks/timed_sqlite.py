"""pyperf: whole replans of 1,000 and 10,000 pages in SQLite, five source files a page; each on a copy of its own."""

import time

import pyperf
from generated import Wiki, generate
from sqlite import copied, replan, scratch, store

SIZES = (1_000, 10_000)
FILES_A_PAGE = 5


def timed_replans(loops: int, wiki: Wiki) -> float:
    """Seconds that so many replans take, the copying of the wiki not counted."""
    took = 0.0
    with scratch() as root:
        store(wiki, root / "wiki")
        for _ in range(loops):
            with copied(root / "wiki") as host:
                start = time.perf_counter()
                replan(host, wiki)
                took += time.perf_counter() - start
    return took


def main() -> None:
    runner = pyperf.Runner(processes=3, values=2, loops=1)
    for pages in SIZES:
        runner.bench_time_func(f"replan in SQLite {pages}", timed_replans, generate(pages, FILES_A_PAGE))


main()

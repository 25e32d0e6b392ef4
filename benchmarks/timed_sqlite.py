"""pyperf: whole prunes and replans in SQLite, of 1,000 and 10,000 pages with five source files, each on a copy."""

import time

import pyperf

from generated import Wiki, generate
from sqlite import WHOLE, copied, scratch, store

SIZES = (1_000, 10_000)


def timed(loops: int, name: str, wiki: Wiki) -> float:
    """Seconds that so many runs take, the copying of the wiki not counted."""
    took = 0.0
    with scratch() as root:
        store(wiki, root / "wiki")
        for _ in range(loops):
            with copied(root / "wiki") as host:
                start = time.perf_counter()
                WHOLE[name](host, wiki)
                took += time.perf_counter() - start
    return took


def main() -> None:
    runner = pyperf.Runner(processes=3, values=2, loops=1)
    for pages in SIZES:
        wiki = generate(pages)
        for name in WHOLE:
            runner.bench_time_func(f"{name} {pages}", timed, name, wiki)


main()

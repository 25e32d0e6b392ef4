"""pyperf: every operation of the module on wikis of 1,000 and 10,000 pages in memory, five source files a page."""

import pyperf

from generated import generate
from memory import operations

SIZES = (1_000, 10_000)


def main() -> None:
    runner = pyperf.Runner()
    for pages in SIZES:
        for name, operation in operations(generate(pages)).items():
            assert operation.expected in (None, operation.run()), name
            runner.bench_func(f"{name} {pages}", operation.run)


main()

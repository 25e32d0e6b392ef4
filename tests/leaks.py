"""What a piece of work keeps although it should not."""

import array
import gc
import itertools
import sys


def growth(work, watched=(), turns=5):
    """By how much blocks in use, and the references to each of the watched, change with every turn of the work."""
    counts = [array.array("q", [0] * turns) for _ in range(1 + len(watched))]
    for turn in range(turns):
        work()
        sys._clear_type_cache()  # it keeps names
        gc.collect()
        counts[0][turn] = sys.getallocatedblocks()
        for count, thing in zip(counts[1:], watched, strict=True):
            count[turn] = sys.getrefcount(thing)
    return [steady([after - before for before, after in itertools.pairwise(count)]) for count in counts]


def steady(changes):
    """What is there in all of the changes; caches and free lists make some of them."""
    return max(0, min(changes)) or min(0, max(changes))

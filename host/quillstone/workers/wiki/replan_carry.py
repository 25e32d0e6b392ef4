"""How prose is kept in page texts: generated blocks, carried sections, and who is merged into whom.

A block is a run of whole lines between two marker lines that repeat a digest of what stands between them:

    <!-- carried 0123456789abcdef -->
    ## Title of the merged page

    its prose, as it was
    <!-- /carried 0123456789abcdef -->

So it recognises itself whatever text surrounds it, and one that a person edited is prose like any other. The first
marker of a generated block also has the digest of the title line that was generated above it.
"""

import re
from collections import Counter
from collections.abc import Iterable, Iterator, Mapping, Sequence
from typing import Any, NamedTuple

from quillstone.workers.wiki.repo_facts import digest

CARRIED = "carried"
GENERATED = "generated"
TEXT = "text"

_MARKER = re.compile(rf"^<!-- (/?)({CARRIED}|{GENERATED}) ([0-9a-f]{{16}})(?: ([0-9a-f]{{16}}))? -->$", re.MULTILINE)
Piece = tuple[str, str]  # the kind of a block and its lines with both markers, or TEXT and what is between blocks


class ReplanRemap(dict[str, str]):
    """A remap from new pages to the stored ones that they continue; `merged`: from successors to pages merged there."""

    def __init__(self, seeds: Mapping[str, str], merged: Mapping[str, Sequence[str]]) -> None:
        super().__init__(seeds)
        self.merged = {successor: list(ids) for successor, ids in merged.items()}


def lineages(remap: Mapping[str, str]) -> dict[str, list[str]]:
    """Map each successor to every page that ends in it, over merges and seeds, nearest first, itself never."""
    sources: dict[str, list[str]] = {successor: [seed] for successor, seed in remap.items()}
    for successor, merged in getattr(remap, "merged", {}).items():
        sources.setdefault(successor, []).extend(merged)
    origins = {}
    for successor in sources:
        found, waiting = {successor: None}, sources[successor][::-1]
        while waiting:
            if (page_id := waiting.pop()) not in found:
                found[page_id] = None
                waiting.extend(sources.get(page_id, ())[::-1])
        origins[successor] = [*found][1:]
    return origins


def merged_predecessors(remap: Mapping[str, str]) -> dict[str, list[str]]:
    """Map each successor to the pages whose prose goes into it, in that order; the result is the caller's to change.

    With A merged into B and B into C, C lists A too, since B's file is read before A's prose reaches it. A successor's
    own seed is listed only where `merged` names it, since its text is what the successor starts from.
    """
    named = getattr(remap, "merged", {})
    predecessors = {
        successor: [page for page in pages if page != remap.get(successor) or page in named.get(successor, ())]
        for successor, pages in lineages(remap).items()
    }
    return {successor: pages for successor, pages in predecessors.items() if pages}


def cached_prose(row: Mapping[str, Any], name: str = "prose") -> str:
    """The prose that a page row's build cache holds, or another of its texts; "" where there is none."""
    cache = row.get("build_cache")
    value = cache.get(name) if isinstance(cache, dict) else None
    return value if isinstance(value, str) else ""


def carried_sections(pages: Iterable[tuple[str, str]]) -> list[str]:
    """Build the sections of merged pages from pairs of title and prose.

    Each page's own prose makes one section, and each section that its prose already held follows unchanged. Blank prose
    makes none. The same section twice is one, and one that somebody pasted another into is prose like any other.
    """
    sections: dict[str, None] = {}
    for title, prose in pages:
        own, held = split_carried(prose.replace("\r\n", "\n").replace("\r", "\n"))
        if not is_blank(own):
            sections[make_block(CARRIED, f"## {' '.join(title.split())}\n\n{own}")] = None
        sections.update(dict.fromkeys(held))
    return list(sections)


def with_carried(text: str, sections: Sequence[str]) -> str:
    """Append, in order, the sections that the text does not hold yet; with none to append, return it unchanged."""
    held = set(split_carried(text)[1])
    missing = [section for section in dict.fromkeys(sections) if section not in held]
    if not missing:
        return text
    base = text.rstrip("\n")
    return "\n\n".join([base, *missing] if base else missing) + "\n"


def page_prose(text: str | None, row: Mapping[str, Any]) -> str:
    """A page's authored prose: its text, or the cached prose for None or a blank one, without what was generated."""
    page = read_page(cached_prose(row) if text is None or is_blank(text) else text, row)
    return page.prose if page.title == row.get("title") else page.whole


class PageText(NamedTuple):
    """What people wrote on a page: a title if it is not the generated one, and prose, with sections in their places."""

    title: str | None
    prose: str

    @property
    def whole(self) -> str:
        """Both as one text."""
        return join_prose([page_title_line(self.title) if self.title else "", self.prose])


def read_page(text: str, row: Mapping[str, Any], generated: str = "") -> PageText:
    """Take a page's text apart; in an edited block all but the lines of the row's cache and `generated` are theirs."""
    pieces = split_blocks(text.lstrip("\ufeff"))
    marks = [mark for kind, piece in pieces if kind != CARRIED for mark in _generated_marks(piece)]
    mark = next(_generated_marks(pieces[0][1]), None)
    lines = pieces[0][1].split("\n")
    above = pieces[0][1][: mark.start() if mark else None].split("\n")
    titles = [line for line in above if line.startswith("# ") and digest(line) in {mark[4] for mark in marks}]
    first = next((line for line in above if line.strip()), "")
    heading = titles[0] if titles else first if first.startswith("# ") else ""
    if heading:
        lines.remove(heading)
        pieces[0] = TEXT, "\n".join(lines)
    # A block that is whole below one that was edited is another page's, which somebody pasted.
    block = next((number for number, (kind, _) in enumerate(pieces) if kind == GENERATED and not mark), None)
    if block is not None:
        del pieces[block]
    prose = join_prose(piece for _, piece in pieces)
    if block is None and marks:  # somebody edited the block: each generated line goes once, the others are theirs
        known = Counter(cached_prose(row, GENERATED).split("\n")) | Counter(generated.split("\n"))
        known.update(mark[0] for mark in marks)
        marks = [*_generated_marks(prose)]
        start = 0 if marks[0][1] else marks[0].start()
        end = marks[-1].end() if marks[-1][1] else len(prose)
        left = [line for line in prose[start:end].split("\n") if not line or known[line] < 1 or known.subtract([line])]
        prose = join_prose([prose[:start], re.sub("\n{3,}", "\n\n", "\n".join(left)), prose[end:]])
    return PageText(None if titles else " ".join(heading[2:].split()) or None, prose)


def _generated_marks(text: str) -> Iterator[re.Match[str]]:
    return (mark for mark in _MARKER.finditer(text) if mark[2] == GENERATED)


def leaves(text: str, others: Iterable[str]) -> bool:
    """Whether a person wrote something in the text that stands whole in none of the others (one str: all, joined)."""
    held = others if isinstance(others, str) else joined(others)
    page = read_page(text, {}, generated=held)
    if page.title and f"# {page.title}\n" not in held:
        return True
    for kind, piece in split_blocks(page.prose):
        text = "\n".join(piece.split("\n")[3:-1]) if kind == CARRIED else piece.strip("\n")
        if not is_blank(text) and f"\n{text}\n" not in held:
            return True
    return False


def joined(texts: Iterable[str]) -> str:
    """The texts as `leaves` looks through them."""
    return "\n".join(["", *texts, ""])


def is_blank(text: str) -> bool:
    """Whether the text is nothing but white space, perhaps after a byte order mark."""
    return not text.lstrip("\ufeff").strip()


def page_title_line(title: str) -> str:
    """The first line of a page: its title as a heading."""
    return f"# {' '.join(title.split())}"


def split_carried(text: str) -> tuple[str, list[str]]:
    """Part a text into the prose of its own and the carried sections that it holds, in their order."""
    pieces = split_blocks(text)
    return join_prose(piece for kind, piece in pieces if kind != CARRIED), [
        piece for kind, piece in pieces if kind == CARRIED
    ]


def join_prose(pieces: Iterable[str]) -> str:
    """Join pieces of prose by one empty line, without empty pieces and without empty lines at either end."""
    return "\n\n".join(piece for piece in (piece.strip("\n") for piece in pieces) if piece)


def make_block(kind: str, content: str, heading: str = "") -> str:
    """Put the content between marker lines that carry its digest, and that of the title line above it if given."""
    above = f" {digest(heading)}" if heading else ""
    return f"<!-- {kind} {digest(content)}{above} -->\n{content}\n<!-- /{kind} {digest(content)} -->"


def without_blocks(text: str) -> str:
    """The text with its marker lines made plain ones, for text that is not this wiki's own."""
    return _MARKER.sub(lambda mark: mark[0].replace("<!--", "<!-- -"), text)


def split_blocks(text: str) -> list[Piece]:
    """The text in its order: intact blocks, which do not nest, and what stands before, between and after them."""
    lines = text.split("\n")
    begun: dict[tuple[str, str], int] = {}
    blocks: dict[int, Piece] = {}
    for number, line in enumerate(lines):
        if marker := _MARKER.fullmatch(line):
            first = begun.pop((marker[2], marker[3]), None)
            if not marker[1]:
                begun[marker[2], marker[3]] = number
            elif first is not None and digest("\n".join(lines[first + 1 : number])) == marker[3]:
                blocks[first] = marker[2], "\n".join(lines[first : number + 1])
    pieces, end = [], 0
    for first, (kind, block) in sorted(blocks.items()):
        if first >= end:
            pieces += [(TEXT, "\n".join(lines[end:first])), (kind, block)]
            end = first + block.count("\n") + 1
    return [*pieces, (TEXT, "\n".join(lines[end:]))]

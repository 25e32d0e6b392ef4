"""The text of a folder's page: what its sources and its README say about themselves."""

from __future__ import annotations

import ast
import io
import re
import tokenize
import warnings
from collections.abc import Mapping, Sequence
from pathlib import Path, PurePosixPath
from urllib.parse import quote

from quillstone.workers.wiki.replan_carry import GENERATED, make_block, page_title_line, without_blocks
from quillstone.workers.wiki.source_tree import LANGUAGES

README_NAMES = ("README.md", "README.rst", "README.txt", "README", "readme.md")
LARGEST_READ = 2_000_000  # bytes; parsing takes some hundred times as much memory
CHUNK_CHARACTERS = 1500

_COMMENT_BLOCK = re.compile(r"\s*/\*+(.*?)\*/", re.DOTALL)
_COMMENT_LINE = re.compile(r"\s*(?://+!?|#+(?=\s|$)|--+|;+) ?(.*)")
_CODING_LINE = re.compile(r"^[ \t\f]*#.*?coding[:=]|^#!")


def read_text(path: Path) -> str:
    """A text file as well as it can be read: Python's own encoding rules, then UTF-8 with U+FFFD for what is none."""
    content = path.read_bytes()
    try:
        encoding, _ = tokenize.detect_encoding(io.BytesIO(content).readline)
        text = content.decode(encoding)
    except (SyntaxError, LookupError, UnicodeError):
        text = content.decode("utf-8", "replace")
    return clean_text(text)


def clean_text(text: str) -> str:
    """The text with "\\n" line ends, and U+FFFD for what no page file or database can hold."""
    text = text.replace("\r\n", "\n").replace("\r", "\n").replace("\0", "\ufffd")
    return re.sub("[\ud800-\udfff]", "\ufffd", text)


def readme_text(folder: Path) -> str:
    """The text of the folder's README, or ""."""
    for name in README_NAMES:
        path = folder / name
        if path.is_file() and not path.is_symlink():
            return read_text(path).strip("\n")
    return ""


def folder_title(root: Path, folder: str) -> str:
    """A page's title: the heading of the folder's README, else the folder's path, else the tree's name."""
    heading = re.match(r"# +(\S.*)", readme_text(root / folder))
    return heading[1].strip("# ") if heading and heading[1].strip("# ") else folder or root.resolve().name or "root"


def draft_prose(root: Path, folder: str, files: Sequence[str]) -> str:
    """A folder's prose: its README, its package docstring, and the paragraph that each of its files opens with."""
    parts = [readme_text(root / folder)]
    for path in files:
        opening = opening_text(root / path)
        if not opening:
            continue
        name = PurePosixPath(path).name
        parts.append(opening if name == "__init__.py" else f"## {name}\n\n{first_paragraph(opening)}")
    return without_blocks("\n\n".join(part for part in parts if part.strip()))


def opening_text(path: Path) -> str:
    """What a source file says first: a Python module's docstring, else the comment at its top; "" for none."""
    try:
        text = read_text(path) if path.stat().st_size <= LARGEST_READ else ""
    except OSError:
        return ""
    is_python = LANGUAGES.get(path.suffix.removeprefix(".").lower()) == "Python"
    docstring = _docstring(text) if is_python else ""
    return docstring or _leading_comment(text)


def _docstring(text: str) -> str:
    # What does not parse (old syntax, half a file, nesting beyond the parser's limits) has no docstring.
    try:
        with warnings.catch_warnings():
            warnings.simplefilter("ignore")
            return clean_text(ast.get_docstring(ast.parse(text)) or "").strip("\n")
    except (SyntaxError, ValueError, RecursionError, MemoryError):
        return ""


def _leading_comment(text: str) -> str:
    lines = text.split("\n")
    while lines and _CODING_LINE.match(lines[0]):
        del lines[0]
    block = _COMMENT_BLOCK.match("\n".join(lines))
    if block:
        taken = [re.sub(r"^\s*\*? ?", "", line) for line in block[1].split("\n")]
    else:
        taken = []
        for line in "\n".join(lines).lstrip("\n").split("\n"):
            comment = _COMMENT_LINE.fullmatch(line)
            if not comment:
                break
            taken.append(comment[1])
    return "\n".join(line.rstrip() for line in taken).strip("\n")


def first_paragraph(text: str) -> str:
    """The text up to its first empty line."""
    return re.split(r"\n[ \t]*\n", text.strip("\n"), maxsplit=1)[0]


def page_text(title: str, source_files: Sequence[str], links: Mapping[str, str], prose: str) -> str:
    """A page file's text: the title, the generated block of files and links (page id to title), the prose."""
    facts = [f"Source files: {len(source_files)}", *(f"- `{path}`" for path in source_files)]
    if links:
        facts += ["", "Pages:", *(f"- [{name}]({quote(page_id)}.md)" for page_id, name in links.items())]
    head = f"{page_title_line(title)}\n\n{make_block(GENERATED, chr(10).join(facts))}\n"
    return f"{head}\n{prose}\n" if prose else head


def split_chunks(prose: str) -> list[str]:
    """Cut prose at its empty lines into chunks of about `CHUNK_CHARACTERS`."""
    chunks: list[str] = []
    for paragraph in prose.split("\n\n"):
        if chunks and len(chunks[-1]) + len(paragraph) < CHUNK_CHARACTERS:
            chunks[-1] += f"\n\n{paragraph}"
        elif paragraph.strip():
            chunks.append(paragraph)
    return chunks

"""The text of a folder's page: what its sources and its README say about themselves."""

import ast
import re
import warnings
from collections.abc import Mapping
from contextlib import suppress
from pathlib import Path, PurePosixPath
from urllib.parse import quote

from quillstone.workers.wiki.replan_carry import (
    GENERATED,
    PageText,
    join_prose,
    make_block,
    page_title_line,
    without_blocks,
)
from quillstone.workers.wiki_types import PagePlan

README_NAMES = ("README.md", "README.rst", "README.txt", "README", "readme.md")
LARGEST_READ = 2_000_000  # bytes; parsing takes some hundred times as much memory
CHUNK_CHARACTERS = 1500


def clean_text(text: str) -> str:
    """The text with "\\n" line ends, and U+FFFD for what no page file or database can hold."""
    return re.sub("[\0\ud800-\udfff]", "\ufffd", text.replace("\r\n", "\n").replace("\r", "\n"))


def _content(path: Path) -> bytes:
    with suppress(OSError):
        if path.is_file() and not path.is_symlink() and path.stat().st_size <= LARGEST_READ:
            return path.read_bytes()
    return b""


def readme_text(folder: Path) -> str:
    """The text of the folder's README, or ""."""
    text = next(filter(None, (_content(folder / name) for name in README_NAMES)), b"").decode("utf-8", "replace")
    return clean_text(text.lstrip("\ufeff")).strip("\n")


def folder_title(root: Path, folder: str) -> str:
    """A page's title: the heading of the folder's README, else the folder's path, else the tree's name."""
    heading = re.match(r"# +(\S.*)", readme_text(root / folder))
    return (heading[1].strip("# ") if heading else "") or shown(folder or root.resolve().name) or "root"


def docstring(path: Path) -> str:
    """A Python module's docstring; "" for none, and for what does not parse."""
    try:
        with warnings.catch_warnings():
            warnings.simplefilter("ignore")
            return clean_text(ast.get_docstring(ast.parse(_content(path))) or "").strip("\n")
    except (SyntaxError, ValueError, RecursionError, MemoryError):
        return ""


def generated_text(root: Path, plan: PagePlan, titles: Mapping[str, str]) -> tuple[str, str]:
    """What is generated below a page's title: lists of its files and pages, and its folders' READMEs and docstrings."""
    facts = [f"Source files: {len(plan.source_files)}", *(f"- `{shown(path)}`" for path in plan.source_files)]
    if plan.related_pages:
        facts += ["", "Pages:", *(f"- [{titles[page]}]({quote(page)}.md)" for page in plan.related_pages)]
    said = []
    for folder in plan.folders:
        said.append(readme_text(root / folder).removeprefix(page_title_line(plan.title)))
        for path in (PurePosixPath(path) for path in plan.source_files if path.rpartition("/")[0] == folder):
            doc = docstring(root / path) if path.suffix in (".py", ".pyw") else ""
            is_package = not doc or path.name == "__init__.py"
            said.append(doc if is_package else f"## {shown(path.name)}\n\n{first_paragraph(doc)}")
    return "\n".join(facts), without_blocks(join_prose(said))


def shown(path: str) -> str:
    """The path without control characters, which would begin a line anew."""
    return path.translate({number: f"\\x{number:02x}" for number in [*range(32), 127]})


def page_text(title: str, page: PageText, generated: str) -> str:
    """A page file's text: the title that a person gave it or else this one, the generated block, what people wrote."""
    heading = page_title_line(title)
    block = make_block(GENERATED, generated, heading=heading)
    return join_prose([page_title_line(page.title) if page.title else heading, block, page.prose]) + "\n"


def first_paragraph(text: str) -> str:
    """The text up to its first empty line, in one line."""
    return " ".join(re.split(r"\n[ \t]*\n", clean_text(text).strip("\n"), maxsplit=1)[0].split())


def split_chunks(prose: str) -> list[str]:
    """Cut prose at its empty lines into chunks of about `CHUNK_CHARACTERS`, of characters that a database can hold."""
    chunks: list[str] = []
    for paragraph in clean_text(prose).split("\n\n"):
        if chunks and len(chunks[-1]) + len(paragraph) < CHUNK_CHARACTERS:
            chunks[-1] += f"\n\n{paragraph}"
        elif paragraph.strip():
            chunks.append(paragraph)
    return chunks

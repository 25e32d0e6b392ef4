"""The text of a folder's page: what its sources and its README say about themselves."""

import ast
import inspect
import io
import re
import tokenize
import warnings
from collections.abc import Mapping
from contextlib import suppress
from pathlib import Path, PurePosixPath
from urllib.parse import quote

from quillstone.workers.wiki import replan_carry as carry
from quillstone.workers.wiki_types import PagePlan

README_NAMES = ("README.md", "README.rst", "README.txt", "README", "readme.md")


def clean_text(text: str) -> str:
    """The text with "\\n" line ends, and U+FFFD for what no page file or database can hold."""
    return re.sub("[\0\ud800-\udfff]", "\ufffd", text.replace("\r\n", "\n").replace("\r", "\n"))


def _content(path: Path) -> bytes:
    with suppress(OSError):
        return path.read_bytes() if path.is_file() and not path.is_symlink() else b""
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
    """A Python module's docstring; "" for none, and for what is no Python."""
    passed_over = (tokenize.ENCODING, tokenize.COMMENT, tokenize.NL)
    with suppress(SyntaxError, ValueError, StopIteration, tokenize.TokenError), warnings.catch_warnings():
        warnings.simplefilter("ignore")
        tokens = tokenize.tokenize(io.BytesIO(_content(path)).readline)
        said = (token for token in tokens if token.type not in passed_over)
        first, second = next(said), next(said)
        if first.type == tokenize.STRING and second.type == tokenize.NEWLINE:
            return clean_text(inspect.cleandoc(str(ast.literal_eval(first.string)))).strip("\n")
    return ""


def generated_text(root: Path, plan: PagePlan, titles: Mapping[str, str]) -> tuple[str, str]:
    """What is generated below a page's title: lists of its files and pages, and its folders' READMEs and docstrings."""
    facts = [f"Source files: {len(plan.source_files)}", *(f"- `{shown(path)}`" for path in plan.source_files)]
    if plan.related_pages:
        facts += ["", "Pages:", *(f"- [{titles[page]}]({quote(page)}.md)" for page in plan.related_pages)]
    said = []
    for folder in plan.folders:
        said.append(readme_text(root / folder).removeprefix(carry.page_title_line(plan.title)))
        for path in (PurePosixPath(path) for path in plan.source_files if path.rpartition("/")[0] == folder):
            doc = docstring(root / path) if path.suffix in (".py", ".pyw") else ""
            is_package = not doc or path.name == "__init__.py"
            first = " ".join(re.split(r"\n[ \t]*\n", doc)[0].split())
            said.append(doc if is_package else f"## {shown(path.name)}\n\n{first}")
    return "\n".join(facts), carry.without_blocks(carry.join_prose(said))


def shown(path: str) -> str:
    """The path without control characters, which would begin a line anew."""
    return path.translate({number: f"\\x{number:02x}" for number in [*range(32), 127]})


def page_text(title: str, page: carry.PageText, generated: str) -> str:
    """A page file's text: the title that a person gave it or else this one, the generated block, what people wrote."""
    heading = carry.page_title_line(title)
    block = carry.make_block(carry.GENERATED, generated, heading=heading)
    return carry.join_prose([carry.page_title_line(page.title) if page.title else heading, block, page.prose]) + "\n"


def split_chunks(prose: str) -> list[str]:
    """Cut prose into chunks of at most 1,500 characters that a database can hold, at empty lines if it can."""
    return re.findall(r"(?s)\S.{,1498}(?:\n\n|\Z)|\S.{,1499}", clean_text(prose))

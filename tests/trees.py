"""Folders of files to index, and what they hold afterwards."""

PYTHON_FILES = {"top": "top.py", "a": "a/one.py", "b": "a/b/two.py", "c": "a/b/c/three.py"}
PYTHON_FILES |= {"left": "family/left/l.py", "right": "family/deep/right/r.py"}
SOURCES = {path: f'"""What {name} is for.\n\nMore of it."""\n' for name, path in PYTHON_FILES.items()}
SOURCES |= {"lone/README.md": "# The lone folder\n\nSaid in a README.\n", "lone/x.c": "/* What x is for. */\nint x;\n"}


def write_files(folder, files):
    for name, content in files.items():
        path = folder / name
        path.parent.mkdir(parents=True, exist_ok=True)
        path.write_bytes(content if isinstance(content, bytes) else content.encode())
    return folder


def files_below(folder):
    """Every file's content; the lock of a wiki says nothing."""
    return {path: path.read_bytes() for path in folder.rglob("*") if path.is_file() and path.name != ".lock"}

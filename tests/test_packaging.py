"""What is shipped: the wheel and its types, in environments that hold nothing but a host of one's own."""

import os
import shutil
import subprocess
import sys
import sysconfig
import zipfile
from pathlib import Path

import pytest

ROOT = Path(__file__).parent.parent
EXTENSION = "quillstone/workers/wiki/page_retirement" + sysconfig.get_config_var("EXT_SUFFIX")
HOST = {
    "storage/repository.py": "class Repository: ...\n",
    "workers/wiki_types.py": 'NOTE_LEVEL = "note"\n',
    "workers/wiki/repo_facts.py": "_atomic_write = _norm = str\n",
    "workers/wiki/replan_carry.py": (
        "cached_prose = carried_sections = merged_predecessors = page_prose = with_carried = str\n"
    ),
}
USE = """\
from quillstone.workers.wiki import page_retirement
from quillstone.workers.wiki.page_retirement import PageRetirementMixin
class Host(PageRetirementMixin): ...
reveal_type(Host()._apply_replan_to_store({}, {"a"}))
reveal_type(Host()._page_text("a"))
"""


COMPILER = "as c++ g++ gcc gcc-ar gcc-nm gcc-ranlib ar ld nm objcopy objdump ranlib readelf sh strip uname".split()


def run(*command, cwd: Path = ROOT, **options):
    done = subprocess.run([str(part) for part in command], cwd=cwd, capture_output=True, text=True, **options)
    assert done.returncode == 0, done.stdout + done.stderr
    return done.stdout


def make_dist(checkout, **options):
    """What `make wheel` leaves in dist/ of a copy of the checkout."""
    for name in run("git", "ls-files", "--cached", "--others", "--exclude-standard").splitlines():
        (checkout / name).parent.mkdir(parents=True, exist_ok=True)
        shutil.copy2(ROOT / name, checkout / name)
    run("make", "wheel", f"VENV={sys.prefix}", cwd=checkout, **options)
    return sorted((checkout / "dist").iterdir())


@pytest.fixture(scope="session")
def dist(tmp_path_factory):
    return make_dist(tmp_path_factory.mktemp("checkout"))


@pytest.fixture(scope="session")
def wheel(dist):
    return next(path for path in dist if path.suffix == ".whl")


def make_host(folder, packages):
    for name, text in HOST.items():
        file = folder / "quillstone" / name
        file.parent.mkdir(parents=True, exist_ok=True)
        file.write_text(text)
        for package in file.parents if packages else ():
            if folder in package.parents:
                (package / "__init__.py").touch()
    (folder / "use.py").write_text(USE)
    (folder / "pyrightconfig.json").write_text('{"typeCheckingMode": "standard"}')
    return folder


def test_the_wheel_holds_the_extension_and_its_types_alone(wheel, tmp_path):
    with zipfile.ZipFile(wheel) as archive:
        names = {name for name in archive.namelist() if not name.endswith("/") and ".dist-info/" not in name}
        archive.extractall(tmp_path)
    assert names == {EXTENSION, "quillstone-stubs/py.typed", "quillstone-stubs/workers/wiki/page_retirement.pyi"}
    exported = run("nm", "-D", "--defined-only", tmp_path / EXTENSION).split()
    assert exported[2::3] == ["PyInit_page_retirement"]
    needed = run("readelf", "-d", tmp_path / EXTENSION)
    assert "libstdc++" not in needed and "libgcc" not in needed


def test_the_wheel_is_named_after_the_systems_that_it_runs_on(wheel):
    *_, tag = wheel.stem.split("-")
    shown = " ".join(run(sys.executable, "-m", "auditwheel", "show", wheel).split())
    assert tag.startswith("manylinux_2_") and f'consistent with the following platform tag: "{tag}"' in shown


def test_the_same_commit_gives_the_same_bytes(dist, tmp_path):
    again = make_dist(tmp_path / "somewhere else", umask=0o077)
    assert {path.name: path.read_bytes() for path in dist} == {path.name: path.read_bytes() for path in again}


@pytest.mark.long
def test_the_sdist_needs_only_python_and_a_compiler(dist, tmp_path):
    run(sys.executable, "-m", "venv", tmp_path / "env")
    tools = tmp_path / "tools"
    tools.mkdir()
    for tool in filter(shutil.which, COMPILER):
        (tools / tool).symlink_to(shutil.which(tool))
    sdist = next(path for path in dist if path.name.endswith(".tar.gz"))
    pip = [tmp_path / "env/bin/pip", "install", "--quiet", "--disable-pip-version-check", sdist]
    run(*pip, env={**os.environ, "PATH": str(tools)})
    host = make_host(tmp_path / "host", packages=False)
    run(tmp_path / "env/bin/python", "-c", "from quillstone.workers.wiki import page_retirement", cwd=host)


@pytest.mark.parametrize("host_is", ["a namespace package", "a regular package"])
def test_a_host_imports_the_module_and_sees_its_types(wheel, tmp_path, host_is):
    python = tmp_path / "env/bin/python"
    run(sys.executable, "-m", "venv", "--without-pip", tmp_path / "env")
    host = make_host(tmp_path / "host", packages=host_is == "a regular package")
    if host_is == "a regular package":
        run("make", "install-into", f"TREE={host}", f"PYTHON={sys.executable}")
    else:
        run(sys.executable, "-m", "pip", "--python", python, "install", "--no-deps", wheel)
    run(python, "-c", "from quillstone.workers.wiki import page_retirement as m; m.PageRetirementMixin()", cwd=host)
    checked = run(sys.executable, "-m", "mypy", "--python-executable", python, "use.py", cwd=host).replace(
        "builtins.", ""
    )
    assert 'is "int"' in checked and 'is "str | None"' in checked
    checked = run(Path(sys.executable).with_name("basedpyright"), "--pythonpath", python, "use.py", cwd=host)
    assert 'is "int"' in checked and 'is "str | None"' in checked

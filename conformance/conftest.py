"""`pytest conformance --host=package.module:factory`; without a host, the one beside this folder is looked at."""

import multiprocessing
import sys

import pytest

from checked_host import load_factory, run_check_part

NEEDED = ("generator", "index", "remap", "give_chunks", "chunks")
IMPORTED = [
    "quillstone.workers.wiki.page_retirement",
    "quillstone.storage.repository",
    "quillstone.workers.wiki.replan_carry",
    "quillstone.workers.wiki.repo_facts",
    "quillstone.workers.wiki_types",
]
FACTORY = pytest.StashKey()


def pytest_addoption(parser):
    parser.addoption("--host", default="demo_host:factory", help="package.module:factory of the host to look at")


@pytest.hookimpl(tryfirst=True)
def pytest_collection(session):
    spec = session.config.getoption("host")
    try:
        session.config.stash[FACTORY] = load_factory(spec)
    except (ImportError, AttributeError, ValueError) as error:
        raise pytest.UsageError(f"cannot load the host {spec!r} ({error}); give package.module:factory") from error


def pytest_report_collectionfinish():
    """Where the module and its collaborators come from: what the host lacks may have been found elsewhere."""
    found = {name: sys.modules.get(name) for name in IMPORTED}
    return [f"{name}: {getattr(module, '__file__', 'no file')}" for name, module in found.items() if module]


@pytest.fixture
def factory(pytestconfig):
    """The host's factory: given a folder, it makes a host there, or opens the one that it made there before."""
    return pytestconfig.stash[FACTORY]


@pytest.fixture
def host(factory, tmp_path):
    """A new host, in a folder of its own."""
    made = factory(tmp_path)
    if missing := [name for name in NEEDED if not hasattr(made, name)]:
        pytest.fail(f"the factory's host has no {', '.join(missing)}; test_host.py begins with what each is")
    return made


@pytest.fixture
def elsewhere(pytestconfig):
    """Starts a function of the checks, given the factory and these arguments, in a process of its own."""
    processes = []

    def start(function, *arguments):
        arguments = (pytestconfig.getoption("host"), function.__name__, *arguments)
        processes.append(multiprocessing.get_context("spawn").Process(target=run_check_part, args=arguments))
        processes[-1].start()
        return processes[-1]

    yield start
    for process in processes:
        process.kill()
        process.join()

"""Finds the host that is looked at, in this process or in another."""

import importlib
import sys
from pathlib import Path


def load_factory(spec):
    """The factory named by "package.module:factory", which may lie below the current folder.

    To be called before the module is imported: a host may make the modules of its collaborators itself.
    """
    if str(Path.cwd()) not in sys.path:
        sys.path.insert(0, str(Path.cwd()))
    module, _, name = spec.partition(":")
    return getattr(importlib.import_module(module), name or "factory")


def run_check_part(spec, name, *arguments):
    """Call a function of the checks with the factory first; what a process of its own is started with."""
    factory = load_factory(spec)
    getattr(importlib.import_module("test_host"), name)(factory, *arguments)

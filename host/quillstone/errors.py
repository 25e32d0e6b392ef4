"""Errors that the person at the command line can mend."""

from __future__ import annotations


class HostError(Exception):
    """Something the caller has to put right; the message is one line that says what to do."""


class PageIdError(HostError, ValueError):
    """A page id that names no file inside the pages folder."""


class StoreError(HostError):
    """A database that cannot be opened or used."""


class TreeError(HostError):
    """A source tree that cannot be read."""


class ReplanError(HostError, ValueError):
    """A replan that cannot be applied as it stands; nothing has been changed."""


class WikiBusyError(HostError):
    """A wiki that another process keeps locked for longer than one waits."""

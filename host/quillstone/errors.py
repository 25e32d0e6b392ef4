"""Errors that the person at the command line can mend."""


class HostError(Exception):
    """Something the caller has to put right; the message is one line that says what to do."""


class PageIdError(HostError, ValueError):
    """A page id that names no file inside the pages folder."""


class ReplanError(HostError, ValueError):
    """A replan that cannot be applied as it stands; nothing has been changed."""


class PageFileError(HostError):
    """A page file that cannot be read or replaced as it is."""


class PageChangedError(PageFileError):
    """A page file that somebody saved after this run had read it; nothing of theirs was replaced."""

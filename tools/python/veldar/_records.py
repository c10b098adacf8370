"""Errors, and small records that calls return."""

from __future__ import annotations

from datetime import datetime
from typing import NamedTuple


class _Report(Exception):
    """What the library says of a failure. All attributes are there with every error.

    status     the number that veldar.h has for its kind
    file       the file or directory that it is about; "" for none
    line       of that file, from 1; None for none
    offset     byte of that file, or of a query's text; None for none
    next_step  what can be done about it; "" when nobody knows
    """

    status: int = 0
    file: str
    line: int | None
    offset: int | None
    next_step: str

    def __init__(self, message: str, status: int | None = None, file: str = "", line: int | None = None,
                 offset: int | None = None, next_step: str = "") -> None:
        super().__init__(message)
        if status is not None:
            self.status = status
        self.file, self.line, self.offset, self.next_step = file, line, offset, next_step


class Error(_Report):
    """Anything that failed. str(error) is all of it; of a query, with a caret under the spot."""


class UsageError(Error, ValueError):
    """An argument, a query or an option is wrong, or there is no such store."""

    status = 2


class DamagedError(Error):
    """A file is not what was written."""

    status = 4


class StorageError(Error, OSError):
    """The disk refused."""

    status = 5


class IncompleteWarning(_Report, UserWarning):
    """Something could not be read: the answer is there and lacks it.

    warnings.simplefilter("error", veldar.IncompleteWarning) makes it an exception.
    """

    status = 3


class Progress(NamedTuple):
    """How far a load or a merge is."""

    is_merge: bool
    """Slices are merged; else files are loaded."""
    done: int
    """Bytes."""
    total: int
    """Bytes; 0 when unknown."""
    events: int
    """Loaded so far."""
    seconds: float
    """Since the beginning."""


class Loaded(NamedTuple):
    """What a load did."""

    events: int
    """Indexed; or samples of metrics."""
    refused: int
    """Lines."""
    bytes: int
    """Of raw text, decompressed."""
    slices: int
    """Written."""
    seconds: float


class Optimized(NamedTuple):
    """What merging did; sizes in bytes."""

    merges: int
    slices_before: int
    slices_after: int
    bytes_before: int
    bytes_after: int


class Seen(NamedTuple):
    """In how many events a term is, and when it was first and last seen (UTC)."""

    count: int
    first: datetime
    last: datetime


for _public in (Error, UsageError, DamagedError, StorageError, IncompleteWarning, Progress, Loaded, Optimized, Seen):
    _public.__module__ = "veldar"

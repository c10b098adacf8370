"""How what people write becomes what the library takes: bytes without NUL, or None."""

from __future__ import annotations

import os
from collections.abc import Iterable
from datetime import date, datetime, timezone
from typing import Union

from ._records import UsageError

Path = Union[str, bytes, "os.PathLike[str]", "os.PathLike[bytes]"]
Time = Union[str, date, datetime]
"""As on the command line ("2026-01-02T03:04", "-1d", "yesterday"), a date, or a datetime: UTC when it has no zone."""
Names = Union[str, Iterable[str]]
"""One, several with commas between them, or several."""

_EPOCH = datetime(1970, 1, 1, tzinfo=timezone.utc)
_FIRST = datetime(1901, 12, 13, 20, 45, 52, tzinfo=timezone.utc)
_LAST = datetime(2038, 1, 19, 3, 14, 7, tzinfo=timezone.utc)


def _whole(text: bytes) -> bytes:
    if b"\0" in text:
        raise UsageError(f"{text!r} has a NUL in it")
    return text


def text(value: str | None, what: str) -> bytes | None:
    if value is None:
        return None
    if not isinstance(value, str):
        raise TypeError(f"{what}: expected str, not {type(value).__name__}")
    return _whole(value.encode("utf-8", "surrogateescape"))


def names(value: Names | None, what: str) -> bytes | None:
    if value is not None and not isinstance(value, str):
        value = ",".join(value)
    return text(value, what)


def path(value: Path) -> bytes:
    return _whole(os.fsencode(value))


def paths(value: Path | Iterable[Path]) -> list[bytes]:
    if isinstance(value, (str, bytes, os.PathLike)):
        value = [value]
    return [path(one) for one in value]


def _utc(value: datetime) -> datetime:
    return value.replace(tzinfo=timezone.utc) if value.tzinfo is None else value.astimezone(timezone.utc)


def _clamped(value: datetime) -> datetime:
    """In UTC, and among the times that an index can have: those of 32-bit seconds."""
    try:
        value = _utc(value)
    except OverflowError:  # near the ends of what a datetime can say
        value = value.replace(tzinfo=timezone.utc)
    return min(max(value, _FIRST), _LAST)


def time(value: Time | None, what: str) -> bytes | None:
    if isinstance(value, datetime):
        return _clamped(value).strftime("%Y-%m-%dT%H:%M:%S.%fZ").encode()
    if isinstance(value, date):
        return min(max(value, date(1901, 12, 15)), date(2038, 1, 18)).isoformat().encode()  # in the question's zone
    if value is not None and not isinstance(value, str):
        raise TypeError(f"{what}: expected str, datetime or date, not {type(value).__name__}")
    return text(value, what)


def seconds(value: int | datetime) -> int:
    return (_utc(value) - _EPOCH).days * 86400 + (_utc(value) - _EPOCH).seconds if isinstance(value, datetime) else value


def limit(value: int | None, what: str) -> int:
    """0, which is all to the library, for None."""
    if value is None:
        return 0
    if value < 1 or value >= 2**64:
        raise UsageError(f"{what} {value}: expected 1 or more, or None for all")
    return value

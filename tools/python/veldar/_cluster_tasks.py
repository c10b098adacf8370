"""What the workers of a cluster do for veldar.cluster: each function is a task."""

from __future__ import annotations

import os
import re
import subprocess
import time
from collections.abc import Iterator
from typing import Any, NamedTuple
from urllib.parse import unquote

from . import _arguments as arguments, _veldar
from ._records import Error, Progress, UsageError
from ._store import Store

_SLICE = re.compile(r"(-?\d+)-(-?\d+)-\d+(\.mini)?\.tsidx")
_BUCKET = re.compile(r"bucket-(\d+)")
_ROTATED = re.compile(r"(\.\d+|[-.]\d{8}(-?\d{2,6})?|\.(gz|bz2|xz|zst))+$")
# A directory that changed so recently may change again without getting another time of change.
_SETTLED_AFTER_S = 2.0


class Index(NamedTuple):
    """An index directory as the catalogue knows it."""

    path: str
    kind: str
    """What it can be asked for: "events", "metrics" or "any"."""
    first: int | None
    """Seconds since 1970 of its earliest event; None: nobody knows."""
    last: int | None


def _entries(path: str) -> Iterator[tuple[str, str, str]]:
    """Of a store its buckets and its metrics: what is asked, the kind, the directory. Anything else is asked as it is."""
    if not os.path.isfile(os.path.join(path, "store")):
        yield path, "any", path
        return
    buckets = [name for name in os.listdir(path) if _BUCKET.fullmatch(name)]
    for name in sorted(buckets, key=lambda one: int(one[len("bucket-"):])):
        yield os.path.join(path, name), "events", os.path.join(path, name)
    if os.path.isdir(os.path.join(path, "metrics")):
        yield path, "metrics", os.path.join(path, "metrics")


def _times(directory: str) -> tuple[int | None, int | None] | None:
    """Of the slices, by their names, to the second; None when there is none. Why one cannot be listed, who asks it tells."""
    try:
        slices = [name for name in os.listdir(directory) if name.endswith(".tsidx")]
    except OSError:
        return None, None
    matches = [_SLICE.fullmatch(name) for name in slices]
    if not all(matches):
        return None, None
    if not slices:
        return None
    return min(int(one[2]) for one in matches), max(int(one[1]) for one in matches)


def look(path: str, known: str) -> dict[str, Any]:
    """What there is at a path: a stamp and the indexes, nothing when the stamp is still the known one, or why not.

    Slices come and go by their names in a directory, and a change of names changes the directory's time. Events that
    are deleted in a slice change neither, and no time range either.
    """
    try:
        entries = list(_entries(path))
        times = {directory: os.stat(directory).st_mtime_ns for _, _, directory in entries}
        settled = all(time.time() - one / 1e9 > _SETTLED_AFTER_S for one in times.values())
        stamp = repr(times) if settled else ""
        if stamp and stamp == known:
            return {}
        indexes = []
        for asked, kind, directory in entries:
            found = _times(directory)
            if found is not None or kind == "any":
                indexes.append(Index(asked, kind, *(found or (None, None))))
        return {"stamp": stamp, "indexes": indexes}
    except OSError as error:
        return {"gap": f"{error.filename or path}: {error.strerror}"}


def answer(question: bytes, path: str, label: str) -> bytes:
    """The partial answer of an index directory. What keeps it from answering is named in it."""
    try:
        return _veldar.Store(arguments.path(path), False).answer_partially(question)
    except (Error, MemoryError) as error:
        if isinstance(error, UsageError) and os.path.exists(path):
            raise
        return merge(question, [], [f"{label}: {str(error) or 'out of memory'}"])


def merge(question: bytes, answers: list[bytes], lacks: list[str]) -> bytes:
    return _veldar.answers_merge(question, answers, [one.encode("utf-8", "surrogateescape") for one in lacks])


def stem(path: str) -> str:
    """A log's path without what rotation and compression add to it."""
    return _ROTATED.sub("", path)


def known(path: str, stems: list[str]) -> list[str]:
    """Those of which the store has loaded logs."""
    try:
        with open(os.path.join(path, "sources"), encoding="utf-8", errors="surrogateescape") as sources:
            there = {stem(unquote(line.rstrip("\n"), errors="surrogateescape")) for line in sources}
    except FileNotFoundError:
        return []
    return [one for one in stems if one in there]


class Done(NamedTuple):
    """What a store's part of a work came to."""

    result: Any
    lacks: list[str]


def _with_lacks(path: str, create: bool, work: Any) -> Done:
    """Runs work(store). What it lacks, or why it failed, is told in the result."""
    _veldar.keep_lacks()
    result, failed = None, []
    try:
        with Store(path, create) as store:
            result = work(store)
    except (Error, MemoryError) as error:
        if isinstance(error, UsageError) and (create or os.path.exists(path)):
            raise
        failed = [str(error) or "out of memory"]
    finally:
        lacks = _veldar.kept_lacks()
    return Done(result, [f"{path}: {one}" for one in lacks + failed])


class _Unwanted(Exception):
    """Nobody waits for the task any more."""


def _reporter(topic: str, label: str) -> Any:
    """Sends progress to whoever listens to the topic, and ends a load that the client gave up."""
    from distributed import get_worker

    worker = get_worker()
    key = worker.get_current_task()

    def report(now: Progress) -> None:
        task = worker.state.tasks.get(key)
        if task is None or task.state == "cancelled":
            raise _Unwanted
        if topic:
            worker.log_event(topic, {"store": label, "progress": list(now)})

    return report


def load(path: str, files: list[str], options: dict[str, Any], topic: str, label: str) -> Done:
    report = _reporter(topic, label)

    def work(store: Store) -> tuple[Any, ...]:
        loaded = store.load(files, progress=report, **options)
        report(Progress(False, loaded.bytes, loaded.bytes, loaded.events, loaded.seconds))  # what is short has no other
        return tuple(loaded)

    return _with_lacks(path, True, work)


def optimize(path: str, everything: bool) -> Done:
    return _with_lacks(path, False, lambda store: tuple(store.optimize(everything)))


def fsck(path: str, quick: bool) -> Done:
    return _with_lacks(path, False, lambda store: [tuple(row.values()) for row in store.fsck(quick)])


def retain(path: str, options: list[str]) -> Done:
    """Through the command line, which alone can do it."""
    try:
        done = subprocess.run(["veldar", "retain", *options, "--", path], capture_output=True, text=True,
                              errors="surrogateescape")
    except OSError as error:
        return Done("", [f"{path}: veldar: {error.strerror}"])
    return Done(done.stdout, [] if done.returncode == 0 else [f"{path}: {done.stderr.strip()}"])


def progress_of(message: dict[str, Any]) -> tuple[str, Progress]:
    return message["store"], Progress(*message["progress"])

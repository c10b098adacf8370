"""One question to many stores, and loads into them side by side, with Dask (Debian: python3-distributed).

    from distributed import Client
    import veldar.cluster

    stores = veldar.cluster.Stores(Client("scheduler:8786"), ["web1:/var/lib/veldar/logs", "web2:/var/lib/veldar/logs"])
    print(stores.stats("status>=500", by="host", every="1h", since="-1d"))

Each index directory is a task, on a worker that has its files; the partial answers are merged by tasks as well, and one
comes back. The package is needed where the client, the scheduler and the workers run.
"""

from __future__ import annotations

import hashlib
import os
import re
import sys
import time
import warnings
from collections.abc import Callable, Iterable, Iterator, Mapping
from typing import Any, NamedTuple
from uuid import uuid4

from distributed import Client, Future

from . import _arguments as arguments, _cluster_tasks as tasks, _veldar
from ._arguments import Names, Path, Time
from ._cluster_run import NoWorkerError, Runner, Task
from ._records import IncompleteWarning, Loaded, Optimized, Progress, Seen, UsageError
from ._store import Event, Metrics, _Batch, _question
from ._table import Table

_ESCAPED = re.compile(r"\\(.)", re.DOTALL)
_PARTS = re.compile(r"((?:[^\\,=]|\\.)*)=((?:[^\\,=]|\\.)*)(?:,|\Z)", re.DOTALL)
_BOUND = re.compile(rb"^(since|until) @(-?\d+)\.\d+$", re.MULTILINE)
_EVENT_KINDS = {b"search", b"count", b"stats"}
_METRIC_KINDS = {b"samples", b"metric-stats"}


class Place(NamedTuple):
    """Where a store or a file is."""

    host: str
    """Of the workers that have it, by name, host name or address; "": any worker can reach it."""
    path: str

    def __str__(self) -> str:
        return f"{self.host}:{self.path}" if self.host else self.path


class Finding(NamedTuple):
    """What is wrong with a slice."""

    store: str
    path: str
    section: str
    offset: int | None
    """Bytes; None: it is about no place."""
    what: str


def _place(given: Path) -> Place:
    text = os.fsdecode(given)
    host, colon, path = text.partition(":")
    if not colon or "/" in host:
        return Place("", os.path.abspath(text))
    if not os.path.isabs(path):
        raise UsageError(f"{text}: expected HOST:/PATH, for what the path is relative to there nobody knows")
    return Place(host, path)


def _indexes(known: dict[str, Any], place: Place) -> list[tasks.Index]:
    return [tasks.Index(*index) for index in known[str(place)][2]]


class _MergedBatch(_Batch):
    """Events of a merged answer: everything is in the table."""

    def __init__(self, table: _veldar.Table) -> None:
        super().__init__(self, table)  # type: ignore[arg-type]
        self._has_times = self._has_names = True

    def fields(self, table: _veldar.Table, row: int) -> list[tuple[str, str]]:
        text = self.all_fields[row]
        return [(_ESCAPED.sub(r"\1", name), _ESCAPED.sub(r"\1", value)) for name, value in _PARTS.findall(text)]

    COLUMNS = {**_Batch.COLUMNS, "index": 7, "all_fields": 8}


class MergedEvent(Event):
    """An event of one of many stores."""

    __slots__ = ()

    @property
    def index(self) -> str:
        """Which index directory of all it is in; with the address it names the event."""
        return self._batch.index[self._row]


def _question_text(kind: bytes, query: _veldar.Question | None = None, metrics: _veldar.MetricQuestion | None = None, *,
                   pattern: bytes | None = None, by: Names | None = None, agg: Names | None = None,
                   every: str | None = None, top: int | None = None, missing: bool = False, rate: bool = False,
                   limit: int | None = None, by_term: bool = False, with_fields: bool = False) -> bytes:
    return _veldar.question_text(kind, query or _question(None, None, None, None, False),
                                 metrics or _veldar.MetricQuestion(None, [], None, None, None), pattern,
                                 arguments.names(by, "by"), arguments.names(agg, "agg"), arguments.text(every, "every"),
                                 arguments.limit(top, "top"), missing, rate, arguments.limit(limit, "limit"), by_term,
                                 with_fields)


def _warn(lacks: list[str], stacklevel: int) -> None:
    if lacks:
        warnings.warn(IncompleteWarning("\n".join(lacks)), stacklevel=stacklevel + 1)


class ClusterMetrics(Metrics):
    """The metrics of all stores: stores.metrics. Rates are those of each store: a series should lie in one."""

    __slots__ = ("_stores",)

    def __init__(self, stores: Stores) -> None:
        self._stores = stores

    def names(self) -> Table:
        raise NotImplementedError("which metrics there are is told by each store")

    def load(self, *_: object, **__: object) -> Loaded:
        raise NotImplementedError("metrics are loaded into one store: its metrics.load()")

    def query(self, names: Names | None = None, *, where: Iterable[str] | Mapping[str, str] | None = None,
              since: Time | None = None, until: Time | None = None, zone: str | None = None,
              limit: int | None = None) -> Table:
        asked = self._question(names, where, since, until, zone)
        return self._stores._ask(_question_text(b"samples", metrics=asked, limit=limit))

    def stats(self, names: Names | None = None, *, by: Names | None = None, every: str | None = None,
              agg: Names | None = None, top: int | None = None, missing: bool = False, rate: bool = False,
              where: Iterable[str] | Mapping[str, str] | None = None, since: Time | None = None,
              until: Time | None = None, zone: str | None = None) -> Table:
        asked = self._question(names, where, since, until, zone)
        return self._stores._ask(_question_text(b"metric-stats", metrics=asked, by=by, agg=agg, every=every, top=top,
                                                missing=missing, rate=rate))


class Stores:
    """Many stores (or index directories) as one; the questions are those of veldar.Store, with the same results.

    Times become absolute when a question is asked. What cannot be read, a worker that dies with nobody to take over, a
    store that nobody can reach: each is named in an IncompleteWarning, and the answer is of the rest. Not asked of
    several: bins of "auto", slices() and metrics.names().
    """

    def __init__(self, client: Client, stores: Path | Iterable[Path], *, timeout: float = 30.0, fan_in: int = 8,
                 fresh: float = 0.0, resources: Mapping[str, Mapping[str, float]] | None = None) -> None:
        """
        client     of a scheduler; not an asynchronous one
        stores     "HOST:/PATH" for what workers at HOST have (its name or address, or the name of a worker), or a path
                   that every worker can reach
        timeout    seconds that a task waits for a worker that can run it
        fan_in     how many partial answers a task merges; up to twice as many the client in the end
        fresh      seconds for which it is taken as known which slices there are; 0: each question looks
        resources  by HOST, the worker resources that its tasks need instead of being there
        """
        if isinstance(stores, (str, bytes, os.PathLike)):
            stores = [stores]
        if fan_in < 2:
            raise UsageError(f"fan_in {fan_in}: expected 2 or more")
        self._client = client
        self.stores = tuple(_place(one) for one in stores)
        self.metrics = ClusterMetrics(self)
        self._fan_in = fan_in
        self._fresh = fresh
        self._runner = Runner(client, timeout, resources)

    def __repr__(self) -> str:
        return f"<veldar.cluster.Stores {', '.join(map(str, self.stores))}>"

    def _found(self, looking: dict[Future, Task], known: dict[str, Any]) -> tuple[dict[Place, list[tasks.Index]], list[str]]:
        """What those who looked have found, and why some have not."""
        looked, lacks = self._runner.results(tasks.look, looking)
        found: dict[Place, list[tasks.Index]] = {}
        changes: dict[str, Any] = {}
        for task, told in looked:
            place = Place(task.host, task.arguments[0])
            if "gap" in told:
                lacks.append(f"{task.host}: {told['gap']}" if task.host else told["gap"])
                continue
            found[place] = told["indexes"] if told else _indexes(known, place)
            changes[str(place)] = [told["stamp"], told["indexes"]] if told else None
        if changes:
            self._runner.keep(changes)
        return found, lacks

    def _tasks(self, question: bytes, indexes: dict[Place, list[tasks.Index]]) -> set[Task]:
        """One for each index directory that may have something of the times that are asked for."""
        kind = question.split(b"\n", 1)[0].removeprefix(b"kind ")
        bounds = dict(_BOUND.findall(question)) if kind in _EVENT_KINDS | _METRIC_KINDS else {}
        first, last = int(bounds.get(b"since", -2**63)), int(bounds.get(b"until", 2**63))
        wanted = ("metrics" if kind in _METRIC_KINDS else "events", "any")
        return {Task(place.host, str(Place(place.host, index.path)),
                     (question, index.path, str(Place(place.host, index.path))))
                for place, of_place in indexes.items() for index in of_place
                if index.kind in wanted and (index.last is None or index.last >= first)
                and (index.first is None or index.first <= last)}

    def partial(self, question: bytes) -> bytes:
        """What all answer to the text of a question, as `veldar merge-answers` takes it."""
        known = self._runner.state([str(one) for one in self.stores])["stores"]
        indexes = {one: _indexes(known, one) for one in self.stores if str(one) in known}
        old = [one for one in self.stores if one not in indexes or known[str(one)][0] >= self._fresh]
        looking = self._runner.submit(tasks.look, [
            Task(one.host, str(one), (one.path, known[str(one)][1] if one in indexes else "")) for one in old])
        # Mostly nothing has changed: what is known is asked meanwhile.
        begun = self._runner.submit(tasks.answer, self._tasks(question, indexes))
        found, lacks = self._found(looking, known)
        wanted = self._tasks(question, {one: indexes[one] for one in indexes if one not in old} | found)
        begun = {future: task for future, task in begun.items() if task in wanted}
        begun |= self._runner.submit(tasks.answer, wanted - set(begun.values()))
        return self._runner.merged(tasks.answer, begun, tasks.merge, question, lacks, self._fan_in)

    def _ask(self, question: bytes) -> Table:
        table, lacks = _veldar.answer_table(self.partial(question))
        _warn(lacks.values(0), 3)
        return Table(table)

    def count(self, query: str | None = None, *, since: Time | None = None, until: Time | None = None,
              zone: str | None = None, native: bool = False) -> int:
        """How many events the query finds."""
        return self._ask(_question_text(b"count", _question(query, since, until, zone, native)))["count"][0]

    def search(self, query: str | None = None, *, since: Time | None = None, until: Time | None = None,
               zone: str | None = None, native: bool = False, limit: int | None = None,
               fields: bool = True) -> Iterator[MergedEvent]:
        """The events that the query finds, newest first; their lines come with them.

        limit   only the newest; None: all, which are held in memory
        fields  False: the events have no fields, which makes them smaller
        """
        table = self._ask(_question_text(b"search", _question(query, since, until, zone, native), limit=limit,
                                         with_fields=fields))._table
        batch = _MergedBatch(table)
        if not fields:
            batch.all_fields = [""] * len(table)
        return iter(_veldar.rows(MergedEvent, batch, table))

    def terms(self, pattern: str | None = None, *, limit: int | None = None, order: str = "count") -> Table:
        """Terms with their counts, as veldar.Store.terms."""
        if order not in ("count", "term"):
            raise UsageError(f"order {order}: expected count or term")
        return self._ask(_question_text(b"terms", pattern=arguments.text(pattern, "pattern"), limit=limit,
                                        by_term=order == "term"))

    def fields(self) -> Table:
        """The fields there are: field, events, values (how many different ones)."""
        return self._ask(_question_text(b"fields"))

    def seen(self, term: str) -> Seen | None:
        """When one word or field=value was first and last seen, and in how many events; None: never."""
        found = self._ask(_question_text(b"seen", pattern=arguments.text(term, "term")))
        return Seen(found["count"][0], found["first"][0], found["last"][0]) if len(found) > 0 else None

    def stats(self, query: str | None = None, *, by: Names | None = None, every: str | None = None,
              agg: Names | None = None, top: int | None = None, missing: bool = False, since: Time | None = None,
              until: Time | None = None, zone: str | None = None, native: bool = False) -> Table:
        """Counts and aggregates, as veldar.Store.stats."""
        return self._ask(_question_text(b"stats", _question(query, since, until, zone, native), by=by, agg=agg,
                                        every=every, top=top, missing=missing))

    def _each(self, function: Callable[..., tasks.Done], arguments_of: dict[Place, tuple[Any, ...]],
              ) -> tuple[dict[Place, Any], list[str]]:
        """What each of the stores did, and what it lacks."""
        self._runner.state([])
        done, lacks = self._runner.gather(
            function, [Task(one.host, str(one), (one.path, *given)) for one, given in arguments_of.items()])
        results = {}
        for task, part in done:
            lacks += [f"{task.host}: {one}" if task.host else one for one in part.lacks]
            if part.result is not None:
                results[Place(task.host, task.arguments[0])] = part.result
        return results, lacks

    def load(self, files: Path | Iterable[Path], *, progress: Callable[[Progress], object] | None = None,
             **options: Any) -> Loaded:
        """Loads logs, each line once, however often it is asked and whichever worker dies: the stores know what they have.

        Stores that are not there are made. A file goes to the store that has loaded it before, under its name or one that it had before it was rotated;
        a new one to a store that its path decides. One load runs in a store at a time, so as many side by side as there
        are stores. What a task found done by one that died is not counted again.

        files     "HOST:/PATH" goes to a store at HOST, a path to a store that every worker can reach
        progress  called with a veldar.Progress of all of them; None: a bar, on a terminal
        options   those of veldar.Store.load
        """
        begin = time.monotonic()
        shown = _Shown(progress)
        topic = f"veldar-load-{uuid4().hex}" if shown.is_wanted else ""
        spread, lacks = self._spread([_place(one) for one in _several(files)])
        if topic:
            self._client.subscribe_topic(topic, shown.hear)
        try:
            done, more = self._each(tasks.load, {one: (of_one, options, topic, str(one)) for one, of_one in spread.items()})
        finally:
            if topic:
                self._client.unsubscribe_topic(topic)
            shown.end()
        _warn(lacks + more, 2)
        sums = [sum(one) for one in zip(*done.values())] if done else [0] * 5
        return Loaded(*sums[:4], time.monotonic() - begin)

    def _spread(self, files: list[Place]) -> tuple[dict[Place, list[str]], list[str]]:
        """Which store each of the files is for."""
        stems: dict[Place, list[str]] = {}
        for file in files:
            stem = tasks.stem(file.path)
            for store in self.stores:
                if store.host == file.host and stem not in stems.setdefault(store, []):
                    stems[store].append(stem)
        self._runner.state([])
        told, lacks = self._runner.gather(
            tasks.known, [Task(one.host, str(one), (one.path, of_one)) for one, of_one in stems.items()])
        owner = {(task.host, stem): Place(task.host, task.arguments[0]) for task, known in told for stem in known}
        answered = [Place(task.host, task.arguments[0]) for task, _ in told]
        spread: dict[Place, list[str]] = {one: [] for one in answered}
        for file in files:
            stem = tasks.stem(file.path)
            here = [one for one in self.stores if one.host == file.host]
            if not here:
                raise UsageError(f"{file}: there is no store at {file.host or 'a path that every worker can reach'}")
            store = owner.get((file.host, stem)) or max(
                here, key=lambda one: hashlib.sha256(f"{one}\n{stem}".encode("utf-8", "surrogateescape")).digest())
            if lacks and ((file.host, stem) not in owner or store not in answered):
                lacks.append(f"{file}: not loaded, as it is not known which store has it")
                continue
            spread.setdefault(store, []).append(file.path)
        return spread, lacks

    def optimize(self, all: bool = False) -> Optimized:
        """Merges slices in each store, as veldar.Store.optimize; the sums."""
        done, lacks = self._each(tasks.optimize, {one: (all,) for one in self.stores})
        _warn(lacks, 2)
        return Optimized(*(sum(one) for one in zip(*done.values()))) if done else Optimized(0, 0, 0, 0, 0)

    def fsck(self, quick: bool = False) -> list[Finding]:
        """Checks every slice of each store, as veldar.Store.fsck. None of them: all is sound."""
        done, lacks = self._each(tasks.fsck, {one: (quick,) for one in self.stores})
        _warn(lacks, 2)
        return [Finding(str(store), *row) for store, rows in done.items() for row in rows]

    def retain(self, *, older_than: str | None = None, max_size: str | None = None, dry_run: bool = False) -> dict[str, str]:
        """Lets old events go in each store (`veldar retain`, which the workers must have); what it told, by store.

        older_than  an age ("30d") or a time
        max_size    what the slices of each store may take together: "20G"
        """
        options = ["--dry-run"] if dry_run else []
        if older_than is not None:
            bound = dict(re.findall(rb"^(since) (.*)$", _question_text(
                b"count", _question(None, older_than, None, None, False)), re.MULTILINE))
            options.append(f"--older-than={bound[b'since'].decode()}")
        if max_size is not None:
            options.append(f"--max-size={max_size}")
        done, lacks = self._each(tasks.retain, {one: (options,) for one in self.stores})
        _warn(lacks, 2)
        return {str(one): told for one, told in done.items()}


def _several(files: Path | Iterable[Path]) -> list[Path]:
    return [files] if isinstance(files, (str, bytes, os.PathLike)) else list(files)


class _Shown:
    """The progress of several loads as one."""

    def __init__(self, progress: Callable[[Progress], object] | None) -> None:
        self._progress = progress
        self._by_store: dict[str, Progress] = {}
        self.is_wanted = progress is not None or sys.stderr.isatty()

    def hear(self, event: tuple[float, dict[str, Any]]) -> None:
        store, now = tasks.progress_of(event[1])
        self._by_store[store] = now
        all_of_them = self._by_store.values()
        sums = Progress(all(one.is_merge for one in all_of_them), *(sum(one[i] for one in all_of_them) for i in (1, 2, 3)),
                        max(one.seconds for one in all_of_them))
        if self._progress is not None:
            self._progress(sums)
        else:
            full = 30 * sums.done // sums.total if sums.total else 0
            print(f"\r[{'#' * full:<30}] {sums.done >> 20} of {sums.total >> 20} MiB, {sums.events} events", end="",
                  file=sys.stderr, flush=True)

    def end(self) -> None:
        if self._progress is None and self._by_store:
            print(file=sys.stderr)


def load(client: Client, files: Path | Iterable[Path], stores: Path | Iterable[Path], **options: Any) -> Loaded:
    """Stores(client, stores).load(files, ...)."""
    return Stores(client, stores).load(files, **options)


__all__ = ["ClusterMetrics", "Finding", "MergedEvent", "NoWorkerError", "Place", "Stores", "load"]

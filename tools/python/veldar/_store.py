"""Stores, events, metrics and writers."""

from __future__ import annotations

from collections.abc import Callable, Iterable, Iterator, Mapping
from datetime import datetime
from itertools import chain

from . import _veldar, _arguments as arguments
from ._arguments import Names, Path, Time
from ._records import Loaded, Optimized, Progress, Seen, UsageError
from ._table import Table

_FIRST_ROWS = 64
_MOST_ROWS = 256  # whose lines fit into memory that is used again and again


class _Batch:
    """Events that were read at once, with their lines. All else is read, and lists are made, when first asked for."""

    COLUMNS = {"time": 0, "host": 2, "source": 3, "sourcetype": 4, "directory": 5, "address": 6}

    def __init__(self, events: _veldar.Events, table: _veldar.Table) -> None:
        self.events = events
        self.table = table
        self._has_times = self._has_names = False

    def __getattr__(self, name: str) -> object:
        if name in ("time", "time_ns") and not self._has_times:
            self.events.fill(self.table, True, False)
            self._has_times = True
        elif name in ("host", "source", "sourcetype", "directory") and not self._has_names:
            self.events.fill(self.table, False, True)
            self._has_names = True
        if name == "time_ns":
            values = memoryview(self.table.numbers(0))
        else:
            values = self.table.values(self.COLUMNS[name])
        setattr(self, name, values)
        return values


class Event(_veldar.Row):
    """An event that a search found."""

    __slots__ = ()

    @property
    def time(self) -> datetime:
        """In UTC, to the microsecond."""
        return self._batch.time[self._row]

    @property
    def time_ns(self) -> int:
        """Nanoseconds since 1970 in UTC."""
        return self._batch.time_ns[self._row]

    @property
    def fields(self) -> dict[str, str | list[str]]:
        """By name, as the record writes them; a list where a field has several values."""
        try:
            return self._fields
        except AttributeError:
            pass
        fields: dict[str, str | list[str]] = {}
        for name, value in self._batch.events.fields(self._batch.table, self._row):
            known = fields.get(name)
            if known is None:
                fields[name] = value
            elif isinstance(known, list):
                known.append(value)
            else:
                fields[name] = [known, value]
        self._fields = fields
        return fields

    @property
    def host(self) -> str:
        return self._batch.host[self._row]

    @property
    def source(self) -> str:
        """The path of the log."""
        return self._batch.source[self._row]

    @property
    def sourcetype(self) -> str:
        return self._batch.sourcetype[self._row]

    @property
    def directory(self) -> str:
        """The index directory that it is in, by name."""
        return self._batch.directory[self._row]

    @property
    def address(self) -> int:
        """Its number in that directory."""
        return self._batch.address[self._row]

    def __repr__(self) -> str:
        return f"<veldar.Event {self.time.isoformat()} {self.raw!r}>"


def _batches(events: _veldar.Events) -> Iterator[list[Event]]:
    rows = _FIRST_ROWS  # the first ones come soon, and many are read at a good rate
    while (table := events.next(rows)) is not None:
        yield _veldar.rows(Event, _Batch(events, table), table)
        rows = min(rows * 4, _MOST_ROWS)


def _question(query: str | None, since: Time | None, until: Time | None, zone: str | None,
              native: bool) -> _veldar.Question:
    return _veldar.Question(arguments.text(query, "query"), arguments.time(since, "since"),
                            arguments.time(until, "until"), arguments.text(zone, "zone"), native)


class Metrics:
    """The metrics of a store: store.metrics."""

    __slots__ = ("_store",)

    def __init__(self, store: _veldar.Store) -> None:
        self._store = store

    def names(self) -> Table:
        """The metrics there are: metric, samples, series, first, last."""
        return Table(self._store.metrics())

    def _question(self, names: Names | None, where: Iterable[str] | Mapping[str, str] | None, since: Time | None,
                  until: Time | None, zone: str | None) -> _veldar.MetricQuestion:
        if isinstance(where, str):
            where = [where]
        elif isinstance(where, Mapping):
            where = [f"{label}={value}" for label, value in where.items()]
        return _veldar.MetricQuestion(arguments.names(names, "names"),
                                      [arguments.text(one, "where") for one in where or ()],
                                      arguments.time(since, "since"), arguments.time(until, "until"),
                                      arguments.text(zone, "zone"))

    def query(self, names: Names | None = None, *, where: Iterable[str] | Mapping[str, str] | None = None,
              since: Time | None = None, until: Time | None = None, zone: str | None = None,
              limit: int | None = None) -> Table:
        """Samples, newest first: time, metric, labels ("a=b,c=d"; commas, '=' and '\\' in them behind '\\'), value.

        names   patterns, such as "cpu.*"; None: all
        where   LABEL=VALUE or LABEL!=VALUE, or a mapping of labels to values; all must hold
        limit   only the newest; None: all
        """
        return Table(self._store.metric_samples(self._question(names, where, since, until, zone),
                                                arguments.limit(limit, "limit")))

    def stats(self, names: Names | None = None, *, by: Names | None = None, every: str | None = None,
              agg: Names | None = None, top: int | None = None, missing: bool = False, rate: bool = False,
              where: Iterable[str] | Mapping[str, str] | None = None, since: Time | None = None,
              until: Time | None = None, zone: str | None = None) -> Table:
        """Aggregates of samples: time (with `every`), the labels of `by`, and a column an aggregate.

        by       labels; metric_name is the metric's name
        every    bins: "10s", "5m", "1h", "1d", "1w", "1mo", "auto"
        agg      "avg", "max", "p95" ...; None: avg
        top      only so many groups, those with the most of the first aggregate
        missing  keep samples that lack a label of `by`
        rate     of counters: the growth in a second
        """
        return Table(self._store.metric_stats(self._question(names, where, since, until, zone),
                                              arguments.names(by, "by"), arguments.names(agg, "agg"),
                                              arguments.text(every, "every"), arguments.limit(top, "top"), missing,
                                              rate))

    def load(self, files: Path | Iterable[Path], *, progress: Callable[[Progress], object] | None = None,
             format: str | None = None, time: str | None = None, values: Names | None = None,
             dims: Names | None = None, name: str | None = None, zone: str | None = None, again: bool = False,
             flush: bool = False, fsync: bool = True, optimize: bool = True) -> Loaded:
        """Loads OpenMetrics, Prometheus text or CSV.

        format  "openmetrics", "prometheus", "csv"; None: as the file looks
        time    of CSV the column of times; else the time of samples without one
        values  of CSV: the columns of values
        dims    of CSV: the columns that are labels
        name    of CSV: the metric
        zone    of times without one; None: UTC
        flush   take the last line of a file that changed just now, though it has no end
        """
        return Loaded(*self._store.load_metrics(arguments.paths(files), progress, arguments.text(format, "format"),
                                                arguments.text(time, "time"), arguments.names(values, "values"),
                                                arguments.names(dims, "dims"), arguments.text(name, "name"),
                                                arguments.text(zone, "zone"), again, flush, fsync, optimize))


class Store:
    """A store of logs and metrics, an index directory or one slice; veldar.open() makes it.

    Any number of threads may use one: calls wait for each other. While a call works, other threads of the program run,
    and a signal (Ctrl-C) ends it.

    In all questions `query` is in the language of the command line ("status>=500 NOT bot"), or in bracket notation with
    native=True; None finds every event. `since` is the first moment that counts and `until` the first that does not:
    texts as on the command line ("-1d", "yesterday", "2026-01-02T03:04"), a date, or a datetime (UTC without a zone).
    `zone` is that of times without one and of bins; None is UTC.
    """

    __slots__ = ("_store", "metrics", "path")

    metrics: Metrics
    path: str

    def __init__(self, path: Path | None = None, create: bool = False) -> None:
        self._store = _veldar.Store(None if path is None else arguments.path(path), create)
        self.metrics = Metrics(self._store)
        self.path = self._store.path().decode("utf-8", "surrogateescape")

    def __enter__(self) -> Store:
        return self

    def __exit__(self, *_: object) -> None:
        self.close()

    def close(self) -> None:
        """No more questions; searches that have begun can be read to their end."""
        self._store.close()

    def search(self, query: str | None = None, *, since: Time | None = None, until: Time | None = None,
               limit: int | None = None, zone: str | None = None, native: bool = False) -> Iterator[Event]:
        """The events that the query finds, newest first, read as they are asked for; `limit` of them, None for all."""
        found = self._store.search(_question(query, since, until, zone, native), arguments.limit(limit, "limit"))
        return chain.from_iterable(_batches(found))  # no frame of Python for an event

    def count(self, query: str | None = None, *, since: Time | None = None, until: Time | None = None,
              zone: str | None = None, native: bool = False) -> int:
        """How many events the query finds."""
        return self._store.count(_question(query, since, until, zone, native))

    def terms(self, pattern: str | None = None, *, limit: int | None = None, order: str = "count") -> Table:
        """Words and field=value with their counts: term, count, first, last.

        pattern  "word", "wo*", "status=4*"; None: all
        order    "count", the greatest first, or "term"
        """
        if order not in ("count", "term"):
            raise UsageError(f"order {order}: expected count or term")
        return Table(self._store.terms(arguments.text(pattern, "pattern"), arguments.limit(limit, "limit"),
                                       order == "term"))

    def fields(self) -> Table:
        """The fields there are: field, events, values (how many different ones)."""
        return Table(self._store.fields())

    def seen(self, term: str) -> Seen | None:
        """When one word or field=value was first and last seen, and in how many events; None: never."""
        found = Table(self._store.seen(arguments.text(term, "term")))
        return Seen(found["count"][0], found["first"][0], found["last"][0]) if len(found) > 0 else None

    def slices(self) -> Table:
        """The slices: path, directory, first, last, events, deleted, terms, bytes."""
        return Table(self._store.slices())

    def stats(self, query: str | None = None, *, by: Names | None = None, every: str | None = None,
              agg: Names | None = None, top: int | None = None, missing: bool = False, since: Time | None = None,
              until: Time | None = None, zone: str | None = None, native: bool = False) -> Table:
        """Counts and aggregates: time (with `every`), the fields of `by`, and a column an aggregate.

        by       fields: a row for each value
        every    bins: "10s", "5m", "1h", "1d", "1w", "1mo", "auto"
        agg      "count", "avg(bytes)", "p99(latency)", "dc(user)" ...; None: count
        top      only so many groups, those with the most of the first aggregate
        missing  keep events that lack a field of `by`
        """
        return Table(self._store.stats(_question(query, since, until, zone, native), arguments.names(by, "by"),
                                       arguments.names(agg, "agg"), arguments.text(every, "every"),
                                       arguments.limit(top, "top"), missing))

    def load(self, files: Path | Iterable[Path], *, progress: Callable[[Progress], object] | None = None,
             format: str | None = None, zone: str | None = None, host: str | None = None,
             sourcetype: str | None = None, time_field: str | None = None, time_format: str | None = None,
             date_order: str | None = None, year: int = 0, again: bool = False, recursive: bool = False,
             flush: bool = False, fsync: bool = True, optimize: bool = True) -> Loaded:
        """Loads logs into the store, each line once, however often it is asked.

        Ended by a signal or by `progress`, what was loaded stays and the next load goes on.

        progress     called with a veldar.Progress at most ten times a second; what it raises ends the load
        format       of the lines; None: as they look
        zone         of times without one; None: this machine's
        host         None: the log's own, or this machine's name
        sourcetype   None: the format's name
        time_field   the field that has the time; time_format how it is written; date_order "dmy", "mdy" or "ymd"
        year         of times without one; 0: as the file's own time says
        again        forget what was loaded from these files before
        recursive    the files in directories, and below them
        flush        take the last line of a file that changed just now, though it has no end
        fsync        False: for throw-away stores
        optimize     False: do not merge slices in the end
        """
        return Loaded(*self._store.load(arguments.paths(files), progress, arguments.text(format, "format"),
                                        arguments.text(zone, "zone"), arguments.text(host, "host"),
                                        arguments.text(sourcetype, "sourcetype"),
                                        arguments.text(time_field, "time_field"),
                                        arguments.text(time_format, "time_format"),
                                        arguments.text(date_order, "date_order"), year, again, recursive, flush,
                                        fsync, optimize))

    def optimize(self, all: bool = False, *, progress: Callable[[Progress], object] | None = None) -> Optimized:
        """Merges slices: those of a like size, or with `all` whatever fits a slice."""
        return Optimized(*self._store.optimize(all, progress))

    def fsck(self, quick: bool = False) -> Table:
        """Checks every slice against its seal and, unless `quick`, for what a slice must hold.

        The findings: path, section, offset (bytes), what. None of them: all is sound.
        """
        return Table(self._store.fsck(quick))

    def __repr__(self) -> str:
        return f"<veldar.Store {self.path!r}>"


class Writer:
    """Events of your own, tokenised already, into a bare index directory, which is made when it is not there.

    The index keeps time, address and terms; where the event itself lies is yours to know.
    """

    __slots__ = ("_writer",)

    def __init__(self, directory: Path) -> None:
        self._writer = _veldar.Writer(arguments.path(directory))

    def put(self, time: int | datetime, address: int, terms: Iterable[str | bytes]) -> None:
        """One event, all of it or nothing.

        time     seconds since 1970, or a datetime (UTC without a zone)
        address  0 to 2**32 - 1, another one for each event
        terms    of 1 to 2047 bytes without NUL, such as "error" and "status::500" in lower case
        """
        if not 0 <= address < 2**32:
            raise UsageError(f"address {address}: expected 0 to 4294967295")
        if isinstance(terms, (str, bytes)):
            raise TypeError("terms: expected several, not one text")
        self._writer.put(arguments.seconds(time), address,
                         [term if isinstance(term, bytes) else term.encode("utf-8", "surrogateescape")
                          for term in terms])

    def sync(self) -> None:
        """Makes all events so far searchable and safe."""
        self._writer.sync()

    def close(self) -> None:
        """Syncs, and ends the writer in either case."""
        self._writer.close()

    def __enter__(self) -> Writer:
        return self

    def __exit__(self, *_: object) -> None:
        self.close()


def open(path: Path | None = None, create: bool = False) -> Store:
    """Opens a store, an index directory or one slice for questions; a store also for loading.

    path    None: the one that the command line would take ($VELDAR_STORE, or the nearest .veldar)
    create  make a store when there is nothing at the path
    """
    return Store(path, create)


for _public in (Event, Metrics, Store, Writer, open):
    _public.__module__ = "veldar"

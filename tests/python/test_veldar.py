"""What the Python module adds to libveldar: arguments, results, errors, buffers, threads and signals."""

import ast
import contextlib
import copy
import gc
import logging
import os
import signal
import subprocess
import sys
import threading
import time
from datetime import date, datetime, timedelta, timezone
from pathlib import Path

import numpy
import pytest

import veldar
from veldar import _veldar

ROOT = Path(__file__).resolve().parents[2]
LINES = 400
BEGIN = datetime(2025, 3, 1, 22, tzinfo=timezone.utc)
MANY = 300_000


def line_time(number):
    return BEGIN + timedelta(seconds=30 * number)


def line(number):
    status = 500 if number % 10 == 0 else 200
    size = "-" if number % 4 == 0 else str(number)
    return (b'10.0.0.%d - - [%s] "GET /caf\xe9/%d HTTP/1.1" %d %s' %
            (number % 7, line_time(number).strftime("%d/%b/%Y:%H:%M:%S +0000").encode(), number, status, size.encode()))


@pytest.fixture(scope="module")
def log(tmp_path_factory):
    path = tmp_path_factory.mktemp("my logs") / os.fsdecode(b"a b \xff.log")
    path.write_bytes(b"".join(line(number) + b"\n" for number in range(LINES)))
    return path


@pytest.fixture(scope="module")
def loaded(log, tmp_path_factory):
    """Only for questions."""
    path = tmp_path_factory.mktemp("stores") / "with blanks"
    with veldar.open(path, create=True) as store:
        result = store.load(log, fsync=False)
        assert result[:4] == (LINES, 0, log.stat().st_size, 1) and result.seconds > 0
    return path


@pytest.fixture
def store(loaded):
    with veldar.open(loaded) as opened:
        yield opened


@pytest.fixture(scope="module")
def many(tmp_path_factory):
    """A log that takes a while."""
    path = tmp_path_factory.mktemp("many") / "app.log"
    with path.open("w") as out:
        for number in range(MANY):
            stamp = (BEGIN + timedelta(seconds=number)).isoformat()
            print(f"{stamp} level=info user=u{number % 5000} took={number * 7 % 1000}ms request {number} done", file=out)
    return path


def test_events(store, log):
    events = list(store.search("status=500", limit=25))
    numbers = range(LINES - 10, LINES - 260, -10)
    assert [event.raw_bytes for event in events] == [line(number) for number in numbers]
    assert [event.raw.encode(errors="surrogateescape") for event in events] == [line(number) for number in numbers]
    assert [event.time for event in events] == [line_time(number) for number in numbers]
    event = events[3]
    assert event.time_ns == int(line_time(360).timestamp()) * 10**9
    assert (event.source, event.sourcetype, event.host) == (str(log), "access", os.uname().nodename)
    assert event.fields["path"] == "/caf\udce9/360" and event.fields["status"] == "500"
    assert "2025-03-02T01:00:00" in repr(event)
    assert len({(event.directory, event.address) for event in store.search()}) == LINES
    for make in (veldar.Event, lambda: copy.copy(event)):
        with pytest.raises(TypeError):
            make()
    # What the store has said can be asked for again.
    term = f"path={event.fields['path']}"
    assert [found.raw for found in store.search(term)] == [event.raw]
    assert store.terms(term)["count"].to_list() == [1]
    assert store.seen(term) == (1, event.time, event.time) and store.seen("nowhere") is None
    [source] = store.terms("source=*")["term"]
    assert event.source in source and store.count(source) == LINES


def test_values_of_a_field(tmp_path):
    log = tmp_path / "multi.json"
    log.write_text('{"time":"2025-03-01T00:00:00Z","tag":["a","b","c"],"one":1}\n')
    with veldar.open(tmp_path / "store", create=True) as store:
        store.load([log])
        events = list(store.search())
    assert events[0].fields["one"] == "1"  # the store is closed, the search is read to its end
    assert sorted(value for values in events[0].fields.values() if isinstance(values, list) for value in values) == \
        ["a", "b", "c"]


def test_times_and_options(store):
    everything = store.count()
    assert store.count(since=datetime.min, until=datetime.max) == everything
    assert store.count(since=datetime.min.date(), until=datetime.max.replace(tzinfo=timezone.utc)) == everything
    assert store.count(until=datetime(1000, 1, 1)) == 0
    noon = datetime(2025, 3, 1, 23)
    expected = sum(noon.replace(tzinfo=timezone.utc) <= line_time(number) for number in range(LINES))
    berlin = timezone(timedelta(hours=1))
    for since in (noon, noon.replace(tzinfo=timezone.utc), datetime(2025, 3, 2, 0, tzinfo=berlin),
                  "2025-03-01T23:00:00Z"):
        assert store.count(since=since) == expected
    assert store.count(until=date(2025, 3, 2)) == 240
    assert store.count(until=date(2025, 3, 2), zone="Europe/Berlin") == 120
    assert store.count("[AND status::500 [NOT get]]", native=True) == 0
    days = store.stats(every="1d", zone="Europe/Berlin")
    assert days["count"].to_list() == [120, 280]
    table = store.stats("get", by=["status"], agg=["count", "max(bytes)"], top=1)
    assert list(table) == [{"status": "200", "count": 360, "max(bytes)": 399.0}]
    assert len(store.stats(by="bytes", missing=True, top=1)) == 1


def test_buffers_outlive_everything(loaded):
    store = veldar.open(loaded)
    table = store.stats(every="1h", agg="count,avg(bytes)")
    column = table["count"]
    array, view = numpy.asarray(column), memoryview(table["avg(bytes)"])
    assert numpy.shares_memory(array, column.to_numpy()) and numpy.shares_memory(array, memoryview(column))
    assert not array.flags.writeable and view.readonly and view.format == "d"
    assert column[0] == column[-len(column)] == 120 and pytest.raises(IndexError, lambda: column[len(column)])
    times = table["time"].to_numpy()
    assert times.dtype == "datetime64[ns]" and times[0] == numpy.datetime64("2025-03-01T22:00")
    expected = array.copy(), list(view)
    store.close()
    del store, table, column
    gc.collect()
    assert (array == expected[0]).all() and list(view) == expected[1] and array.sum() == LINES


def test_missing_values(store):
    pandas = pytest.importorskip("pandas")
    table = store.stats("status=500", by="status", every="5m", agg="count,avg(bytes)")
    mean = table["avg(bytes)"]
    missing = [value is None for value in mean.to_list()]
    assert any(missing) and not all(missing)
    assert [byte == 0 for byte in mean.valid] == missing == list(numpy.isnan(mean.to_numpy()))
    assert table["count"].valid is None
    frame = table.to_pandas()
    assert list(frame.columns) == list(table.columns) == ["time", "status", "count", "avg(bytes)"]
    assert str(frame.time.dtype) == "datetime64[ns, UTC]" and list(frame.time) == table["time"].to_list()
    assert list(frame["avg(bytes)"].isna()) == missing and frame["count"].sum() == sum(table["count"])
    assert frame.status.tolist() == table["status"]
    assert "... and" in repr(table) and repr(table).count("\n") == 12


def test_damage(loaded, tmp_path, caplog):
    pandas = pytest.importorskip("pandas")
    path = tmp_path / "store"
    subprocess.run(["cp", "-a", loaded, path], check=True)
    [slice_path] = path.rglob("*.tsidx")
    with veldar.open(path) as store:
        assert len(store.fsck()) == 0 and len(store.fsck(quick=True)) == 0
        bytes_before = slice_path.read_bytes()
        slice_path.write_bytes(bytes_before[: len(bytes_before) // 2])
        findings = store.fsck()
        assert len(findings) > 0 and set(findings["path"]) == {str(slice_path)}
        with pytest.warns(veldar.IncompleteWarning) as told:
            assert store.count() == 0
        assert told[0].message.status == 3 and told[0].filename == __file__
        assert any(record.name == "veldar" and record.levelno == logging.WARNING for record in caplog.records)
        with pytest.warns(veldar.IncompleteWarning):
            slices = store.slices()
        assert slices["events"].to_list() == [None] and slices["bytes"][0] == slice_path.stat().st_size
        assert numpy.ma.is_masked(slices["events"].to_numpy())
        frame = slices.to_pandas()
        assert str(frame.events.dtype) == "UInt64" and frame.events.isna().all()
    nameless = tmp_path / "some.tsidx"
    slice_path.rename(nameless)
    with veldar.open(nameless) as store, pytest.warns(veldar.IncompleteWarning):
        slices = store.slices()
        assert slices["first"].to_list() == [None] and numpy.isnat(slices["first"].to_numpy()[0])
        assert slices.to_pandas()["first"].isna().all()


def test_a_log_that_is_gone(tmp_path):
    log = tmp_path / "short.log"
    log.write_bytes(line(1) + b"\n")
    with veldar.open(tmp_path / "store", create=True) as store:
        store.load(str(log))
        log.unlink()
        with pytest.warns(veldar.IncompleteWarning):
            [event] = store.search()
        assert event.raw is None and event.raw_bytes is None and event.time == line_time(1)
        with pytest.warns(veldar.IncompleteWarning):
            assert event.fields == {}


def test_empty_store(tmp_path):
    with veldar.open(tmp_path / "store", create=True) as store:
        assert store.count() == 0 and list(store.search()) == [] and store.seen("a") is None
        assert store.load([]).events == 0 and store.optimize(all=True).merges == 0
        for table in (store.terms(), store.fields(), store.slices(), store.stats(by="a", every="1h"),
                      store.metrics.names(), store.metrics.query(), store.metrics.stats(by="host", every="1h"), store.fsck()):
            assert list(table) == [] and len(table) == 0 and repr(table)
            for name in table.columns:
                assert len(table[name]) == len(table[name].to_numpy()) == len(numpy.asarray(table[name])) == 0
            assert len(table.to_pandas()) == 0


def test_errors(store, tmp_path):
    for kind, status, file, offset, ask in (
            ("UsageError", 2, "", 3, lambda: store.search("a (")),
            ("UsageError", 2, str(tmp_path / "none"), None, lambda: veldar.open(tmp_path / "none")),
            ("UsageError", 2, "", None, lambda: store.stats(every="7x")),
            ("UsageError", 2, "", None, lambda: store.search(limit=0)),
            ("UsageError", 2, "", None, lambda: store.count("a\0b")),
            ("UsageError", 2, "", None, lambda: store.terms(order="size")),
            ("UsageError", 2, "", None, lambda: store.load([], zone="Nowhere/Land")),
            ("StorageError", 5, "", None, lambda: veldar.open("/proc/none/store", create=True))):
        with pytest.raises(veldar.Error) as caught:
            ask()
        error = caught.value
        assert (type(error).__name__, error.status, error.file, error.offset, error.line) == \
            (kind, status, error.file if kind == "StorageError" else file, offset, None), str(error)
        assert isinstance(error, OSError if kind == "StorageError" else ValueError) and str(error)
    assert "a store" in pytest.raises(veldar.Error, veldar.open, tmp_path / "none").value.next_step
    for ask in (lambda: store.count(5), lambda: store.count(since=5), lambda: store.load(7), lambda: store.seen(None)):
        with pytest.raises(TypeError):
            ask()
    with pytest.raises(KeyError, match="status"):
        store.stats(by="status")["nothing"]
    closed = veldar.open(store.path)
    search = closed.search(limit=2)
    closed.close()
    closed.close()
    for ask in (closed.count, closed.search, closed.metrics.names, closed.optimize):
        with pytest.raises(veldar.UsageError, match="closed"):
            ask()
    assert len(list(search)) == 2 and closed.path in repr(closed)


class Enough(Exception):
    pass


@contextlib.contextmanager
def interrupted_soon(handler=signal.default_int_handler):
    before = signal.signal(signal.SIGALRM, handler)
    signal.setitimer(signal.ITIMER_REAL, 0.03)
    yield
    signal.setitimer(signal.ITIMER_REAL, 0)
    signal.signal(signal.SIGALRM, before)


def test_signals_and_callbacks_end_a_load(many, tmp_path):
    with veldar.open(tmp_path / "store", create=True) as store:
        with interrupted_soon(), pytest.raises(KeyboardInterrupt):
            store.load(many, fsync=False)

        seen = []

        def stop(progress):
            seen.append(progress)
            raise Enough

        with pytest.raises(Enough):
            store.load(many, fsync=False, progress=stop)
        assert len(seen) == 1 and isinstance(seen[0], veldar.Progress) and seen[0].done <= seen[0].total

        with pytest.raises(veldar.UsageError, match="cannot be used by what it calls"):
            store.load(many, fsync=False, progress=lambda _: store.count())

        # Meanwhile other threads run.
        ticks, done = [], threading.Event()
        other = threading.Thread(target=lambda: [ticks.append(time.sleep(0.001)) for _ in iter(done.is_set, True)])
        other.start()
        before = len(ticks)
        store.load(many, fsync=False)
        after = len(ticks)
        done.set()
        other.join()
        assert after - before > 10
        assert store.count() == MANY

        def handler(*_):
            raise Enough

        with interrupted_soon(handler), pytest.raises(Enough):
            store.count('"done request"')  # which are in all lines, but not in this order: each line is read
        assert store.count("level=info") == MANY


def test_the_end_of_the_interpreter_ends_a_load(many, tmp_path):
    script = """
import sys, threading, time, veldar
store = veldar.open(sys.argv[2], create=True)
seen = threading.Event()
load = lambda: [store.load([sys.argv[1]], again=True, progress=lambda now: seen.set()) for _ in range(100)]
threading.Thread(target=load, daemon=True).start()
seen.wait(20)
"""
    ended = subprocess.run([sys.executable, "-c", script, many, tmp_path / "s"], capture_output=True, timeout=60)
    assert ended.returncode == 0, ended.stderr


def test_two_threads(loaded):
    faults = []

    def ask(store, number):
        try:
            for _ in range(15):
                assert store.count("status=500") == 40
                events = store.search("get")
                first = next(events)
                del events  # while the other one asks
                assert first.fields["method"] == "GET"
                assert sum(store.stats(by="status")["count"]) == LINES
                assert len(list(store.search("status=500"))) == 40
        except BaseException as fault:
            faults.append((number, fault))

    with veldar.open(loaded) as store:
        threads = [threading.Thread(target=ask, args=(store, number)) for number in range(3)]
        for thread in threads:
            thread.start()
        for thread in threads:
            thread.join()
    assert faults == []


def test_metrics(tmp_path):
    samples = tmp_path / "a.om"
    samples.write_text('# TYPE cpu gauge\ncpu{host="a,b",core="0"} 1.5 1700000000\ncpu{host="c"} 2.5 1700000060\n# EOF\n')
    with veldar.open(tmp_path / "store", create=True) as store:
        assert store.metrics.load(samples).events == 2
        assert list(store.metrics.names())[0]["samples"] == 2
        table = store.metrics.query("cp*", where={"host": "a,b"}, since=datetime(2023, 11, 14))
        assert table["labels"] == ["core=0,host=a\\,b"] and table["value"].to_list() == [1.5]
        assert table["time"][0] == datetime.fromtimestamp(1700000000, timezone.utc)
        assert store.metrics.query(limit=1)["value"].to_list() == [2.5]
        assert store.metrics.stats(["cpu"], by="host", agg=["max"], where="host!=c")["max"].to_list() == [1.5]
        samples.write_text('mem 1 1700000000\nmem 2 17000000')
        assert [store.metrics.load(samples, flush=flush).events for flush in (False, True)] == [1, 1]


def test_writer(tmp_path):
    directory = tmp_path / "index"
    with veldar.Writer(directory) as writer:
        writer.put(1700000000, 0, ["level::error", b"caf\xe9"])
        writer.put(datetime(2023, 11, 14, 22, 13, 21), 1, {"level::info"})
        for bad in ((1700000000, 2**32, ["a"]), (1700000000, 2, []), (2**40, 2, ["a"]), (0, 2, ["a\0"])):
            with pytest.raises(veldar.UsageError):
                writer.put(*bad)
        with pytest.raises(TypeError, match="several"):
            writer.put(0, 0, "error")
        writer.sync()
    writer.close()
    with pytest.raises(veldar.UsageError, match="closed"):
        writer.put(0, 0, ["a"])
    with veldar.open(directory) as index:
        assert [(event.time_ns // 10**9, event.address, event.raw) for event in index.search()] == \
            [(1700000001, 1, None), (1700000000, 0, None)]
        assert index.count("[AND caf\udce9]", native=True) == 1
        with pytest.raises(veldar.UsageError):
            index.load("/dev/null")


def test_stubs_name_what_is_there():
    stubs = ast.parse((ROOT / "tools/python/veldar/_veldar.pyi").read_text())
    for node in stubs.body:
        if isinstance(node, ast.FunctionDef):
            assert callable(getattr(_veldar, node.name))
        if isinstance(node, ast.ClassDef):
            there = {name for name in vars(getattr(_veldar, node.name)) if not name.startswith("_")}
            named = {item.name for item in node.body if isinstance(item, ast.FunctionDef)}
            assert there == {name for name in named if not name.startswith("_")}, node.name
    assert {name for name in vars(_veldar) if not name.startswith("_")} == \
        {node.name for node in stubs.body if isinstance(node, (ast.ClassDef, ast.FunctionDef))}


def test_example_draws_a_chart(log, tmp_path):
    pytest.importorskip("matplotlib")
    png = tmp_path / "chart.png"
    subprocess.run([sys.executable, ROOT / "examples/hourly_chart.py", log, png, "status"], check=True)
    assert png.read_bytes().startswith(b"\x89PNG") and png.stat().st_size > 5000

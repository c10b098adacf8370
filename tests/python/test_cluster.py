"""veldar.cluster with a real scheduler and three worker processes: the answers of one process, whoever dies."""

import logging
import os
import random
import shutil
import signal
import threading
import time
import warnings
from datetime import datetime, timedelta, timezone

import pytest

import veldar

pytest.importorskip("distributed")
from distributed import Client, LocalCluster  # noqa: E402

from veldar import cluster  # noqa: E402

BUCKETS, LINES = 12, 200
EACH = 15_000
BEGIN = datetime(2025, 3, 1, tzinfo=timezone.utc)
WORDS = ("alpha", "beta", "gamma", "delta")


def line(number):
    some = random.Random(number)
    when = BEGIN + timedelta(seconds=number * 97 + some.randrange(3000), milliseconds=some.choice((0, 250)))
    return (f'{when.isoformat()} level={some.choice(("info", "warn", "error"))} user=u{some.randrange(40)} '
            f'took={some.randrange(1000)} note="{some.choice(WORDS)}, a=b" {some.choice(WORDS)}\n')


def write_log(path, first, count):
    path.write_text("".join(line(number) for number in range(first, first + count)))
    return path


@pytest.fixture(scope="module")
def twelve(tmp_path_factory):
    """A store of twelve buckets, and metrics."""
    base = tmp_path_factory.mktemp("twelve")
    path = base / "store"
    with veldar.open(path, create=True) as store:
        for number in range(BUCKETS):
            store.load(write_log(base / f"{number}.log", number * LINES, LINES), host=f"h{number % 3}", fsync=False)
            (path / "bucket-000001").rename(path / f"full-{number + 1}")
        for number in range(BUCKETS):
            (path / f"full-{number + 1}").rename(path / f"bucket-{number + 1:06}")
        samples = base / "a.om"
        samples.write_text("".join(f'cpu{{host="h{i % 3}"}} {i * 7 % 100} {1740787200 + 60 * i}\n' for i in range(300))
                           + "# EOF\n")
        store.metrics.load(samples, fsync=False)
    return path


@pytest.fixture(scope="module")
def client():
    with LocalCluster(n_workers=3, processes=True, threads_per_worker=1, dashboard_address=":0",
                      silence_logs=logging.CRITICAL) as local, Client(local) as made:
        yield made


def stores(client, places, **options):
    return cluster.Stores(client, places, **{"timeout": 20, **options})


def told(answer):
    """Anything that a question answers with, to be compared."""
    if isinstance(answer, veldar.Table):
        return [answer.columns, list(answer)]
    if answer is None or isinstance(answer, (int, veldar.Seen)):
        return answer
    return [(e.time_ns, e.raw, e.host, e.source, e.sourcetype, e.directory, e.address, e.fields) for e in answer]


def random_question(some):
    """A function of a store."""
    query = some.choice((None, "level=error", "alpha", "user=u1*", "took>=900 NOT beta", '"alpha, a=b"', "nowhere"))
    times = sorted(BEGIN + timedelta(seconds=some.randrange(BUCKETS * LINES * 97), milliseconds=some.choice((0, 250)))
                   for _ in range(2))
    bounds = {name: when for name, when in zip(("since", "until"), times) if some.random() < 0.4}
    every, by = some.choice((None, "1h", "1d")), some.choice((None, "level", "user,level", "host"))
    agg = some.choice((None, "count,avg(took),p95(took)", "dc(user),max(took)"))
    top, limit = some.choice((None, 2)), some.choice((None, 1, 25))
    pattern = some.choice((None, "level=*", "al*", "user=u1*"))
    return some.choice((
        lambda store: store.count(query, **bounds),
        lambda store: store.search(query, limit=limit, **bounds),
        lambda store: store.stats(query, by=by, every=every, agg=agg, top=top, missing=top is None, **bounds),
        lambda store: store.terms(pattern, limit=limit, order=some.choice(("count", "term"))),
        lambda store: store.fields(),
        lambda store: store.seen(some.choice(("level=warn", "gamma", "nowhere"))),
        lambda store: store.metrics.query("cpu", where=some.choice((None, "host=h1")), limit=limit, **bounds),
        lambda store: store.metrics.stats(by=some.choice((None, "host")), every=every, agg=some.choice((None, "max")))))


def ask_both(one, many, seed):
    """With the same random numbers within the question, too."""
    return [told(random_question(some)(store)) for store, some in ((one, random.Random(seed)), (many, random.Random(seed)))]


def pids(client):
    return list(client.run(os.getpid).values())


def kill_one(client):
    os.kill(random.choice(pids(client)), signal.SIGKILL)


@pytest.mark.filterwarnings("error::veldar.IncompleteWarning")
def test_answers_are_those_of_one_process(client, twelve):
    with veldar.open(twelve) as one:
        assert len(set(one.slices()["directory"]) - {"metrics"}) == BUCKETS
        many = stores(client, twelve, fan_in=3)
        for seed in range(50):
            expected, answer = ask_both(one, many, seed)
            assert answer == expected, seed
    text = client.run_on_scheduler(lambda dask_scheduler: str(dask_scheduler.plugins["veldar-catalogue"]._stores))
    assert text.count("bucket-") >= BUCKETS
    # What ends before the time that is asked for is no task.
    begun = []
    many._runner.submit = lambda function, tasks, do=many._runner.submit: begun.append((function, list(tasks))) or do(*begun[-1])
    assert many.count(since=BEGIN + timedelta(seconds=97 * LINES * (BUCKETS - 1) + 4000)) > 0
    assert sum(len(tasks) for function, tasks in begun if function is cluster.tasks.answer) == 1


@pytest.mark.filterwarnings("error::veldar.IncompleteWarning")
def test_workers_die_and_clients_ask_at_once(client, twelve):
    faults, ended = [], threading.Event()
    with veldar.open(twelve) as one:
        expected = [one.count("level=error"), [event.raw for event in one.search("alpha", limit=50)],
                    told(one.stats(by="user", every="1h", agg="avg(took)"))]

    def ask(own):
        try:
            many = stores(own, twelve)
            while not ended.is_set():
                assert [many.count("level=error"), [event.raw for event in many.search("alpha", limit=50)],
                        told(many.stats(by="user", every="1h", agg="avg(took)"))] == expected
        except BaseException as fault:
            faults.append(fault)

    with Client(client.scheduler.address) as second:
        threads = [threading.Thread(target=ask, args=(own,)) for own in (client, second)]
        for thread in threads:
            thread.start()
        for _ in range(3):
            time.sleep(1)
            kill_one(client)
        time.sleep(2)
        ended.set()
        for thread in threads:
            thread.join()
    assert faults == []


def test_a_load_whose_worker_dies_has_each_line_once(client, tmp_path):
    logs = [write_log(tmp_path / f"app{number}.log", number * EACH, EACH) for number in range(4)]
    many = stores(client, [tmp_path / f"s{number}" for number in range(3)])
    victims, heard, loaded = pids(client), [], []

    def kill_when_begun():
        while not any(tmp_path.glob("s*/bucket-000001")):
            time.sleep(0.001)
        for one in victims:
            os.kill(one, signal.SIGKILL)
        loaded.extend(veldar.open(one.parent).count() for one in tmp_path.glob("s*/bucket-000001"))

    killer = threading.Thread(target=kill_when_begun)
    killer.start()
    many.load(logs, progress=heard.append, fsync=False)
    killer.join()
    assert sum(loaded) < 4 * EACH and heard[-1].done > 0
    events = list(many.search(fields=False))
    raws = [event.raw for event in events]
    assert len({(event.index, event.address) for event in events}) == len(raws) == 4 * EACH
    assert set(raws) == {line(number).rstrip("\n") for number in range(4 * EACH)}
    logs[0].rename(tmp_path / "app0.log.1")
    assert many.load([tmp_path / "app0.log.1", *logs[1:]], fsync=False).events == 0, "known under the name it had"
    assert 1 <= many.optimize(all=True).slices_after <= 3 and many.fsck() == [] and many.count() == 4 * EACH
    if shutil.which("veldar"):
        assert all("removed" in text for text in many.retain(older_than="2025-03-02").values())
        assert many.count() == many.count(since="2025-03-02") > 0


def test_gaps_are_named(client, twelve, tmp_path):
    path = tmp_path / "store"
    shutil.copytree(twelve, path)
    many = stores(client, [path, "nowhere:/logs/store", tmp_path / "missing"], timeout=1)
    whole = veldar.open(path).stats(by="host")
    rest = veldar.open(path / "bucket-000003").count()
    [damaged] = (path / "bucket-000003").glob("*.tsidx")
    damaged.write_bytes(b"nothing of the kind")
    with pytest.warns(veldar.IncompleteWarning) as warned:
        assert sum(many.stats(by="host")["count"]) == sum(whole["count"]) - rest
    text = str(warned[0].message)
    assert all(part in text for part in (damaged.name, "nowhere:/logs/store: no worker at nowhere", "missing: No such"))
    assert warned[0].filename == __file__ and warned[0].message.status == 3
    shutil.rmtree(path / "bucket-000003")
    with pytest.warns(veldar.IncompleteWarning):
        assert many.count() == BUCKETS * LINES - rest, "a bucket that is gone since is no gap"
    with pytest.raises(veldar.UsageError, match="twice"):
        with warnings.catch_warnings():
            warnings.simplefilter("ignore")
            (tmp_path / "same").symlink_to(path)
            stores(client, [path, tmp_path / "same"], timeout=1).count()
    for wrong in (lambda: many.count("a ("), lambda: many.stats(every="auto"), lambda: stores(client, "host:relative"),
                  lambda: many.load("elsewhere:/a.log")):
        with pytest.raises(veldar.UsageError):
            wrong()


def test_a_store_is_asked_where_it_is(client, twelve):
    address, name = client.run_on_scheduler(
        lambda dask_scheduler: next((worker.address, str(worker.name)) for worker in dask_scheduler.workers.values()))
    many = stores(client, f"{name}:{twelve}")
    assert stores(client, f"127.0.0.1:{twelve}").count() == many.count() == BUCKETS * LINES
    [pid] = client.run(os.getpid, workers=[address]).values()
    os.kill(pid, signal.SIGKILL)
    assert many.count() == BUCKETS * LINES, "the worker of this name comes back elsewhere"


def test_no_worker(twelve):
    with LocalCluster(n_workers=0, dashboard_address=":0", silence_logs=logging.CRITICAL) as local, Client(local) as alone:
        begin = time.monotonic()
        with pytest.raises(cluster.NoWorkerError, match="no worker came within 0.5 s"):
            stores(alone, twelve, timeout=0.5).count()
        assert time.monotonic() - begin < 10


def test_what_is_known_of_a_store_is_no_older_than_it(tmp_path):
    look = cluster.tasks.look
    with veldar.open(tmp_path / "store", create=True) as store:
        store.load(write_log(tmp_path / "a.log", 0, 10))
        bucket = tmp_path / "store" / "bucket-000001"
        fresh = look(str(tmp_path / "store"), "")
        assert fresh["stamp"] == "" and [index.path for index in fresh["indexes"]] == [str(bucket)]
        os.utime(bucket, (1e9, 1e9))
        stamp = look(str(tmp_path / "store"), "")["stamp"]
        assert stamp and look(str(tmp_path / "store"), stamp) == {}
        store.load(write_log(tmp_path / "b.log", 1000, 10))
        [index] = look(str(tmp_path / "store"), stamp)["indexes"]
        assert index.first == fresh["indexes"][0].first and index.last > fresh["indexes"][0].last
    (bucket / "nameless.tsidx").touch()
    assert look(str(tmp_path / "store"), stamp)["indexes"] == [(str(bucket), "events", None, None)]
    assert "No such file" in look(str(tmp_path / "none"), "")["gap"]

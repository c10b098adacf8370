#!/usr/bin/python3
"""Measures the constants of plan.py, and the runs that it is checked by.

    measure.py constants VELDAR DIRECTORY LOG > constants.json
    measure.py runs      VELDAR DIRECTORY LOG > runs.json
    measure.py ratio     VELDAR DIRECTORY LOG
    measure.py library   VELDAR DIRECTORY LOG    (the package veldar in PYTHONPATH)

DIRECTORY gets 48 stores, when they are not there: each has the lines of LOG, an access log, forty times, with the days
moved on. (They share the records and the slices, but each counts as a store of its own.) Constants are processor time,
the least of several rounds, so that they hold beside others' work; runs are wall time, the mean of fifteen rounds, with
the share of the processors that others left to them. `ratio` tells a question over 12 stores by one process and by two
workers in turn, and what merging 12 answers takes; `library` asks through veldar.cluster what `runs` asks through the
command line, and tells milliseconds without the others' share. Needs Linux, python3-distributed and python3-psutil.
"""
import datetime
import functools
import itertools
import json
import os
import re
import resource
import shutil
import statistics
import subprocess
import sys
import time

import psutil
from distributed import Client, LocalCluster, wait

KINDS = {  # arguments, growth of the merged answer, most records of it
    "count": (["count", "status=404"], 0, 1),
    "stats": (["stats", "--by", "status,method", "--agg", "count,sum(bytes)"], 0, 1e9),
    "stats by the hour": (["stats", "--by", "status", "--every", "1h", "--agg", "count,avg(bytes)"], 0, 1e9),
    "newest 100": (["search", "status=404", "-n", "100"], 0, 100),
    "all found": (["search", "status=404 method=head"], 1, 1e9),
    "terms": (["terms", "bytes=*"], 0, 1e9),
}
HEAVY = [["stats", "--by", "status,method", "--agg", "p99(bytes),dc(clientip),avg(bytes)"],  # few groups to merge
         ["stats", "--by", "path", "--agg", "count,p99(bytes),dc(clientip)"]]               # many
COPIES, FAN_IN, ROUNDS = 40, 8, 15


def run(arguments, data=b""):
    return subprocess.run(arguments, input=data, stdout=subprocess.PIPE, check=True).stdout


def repeat(log, path):
    """Forty times the log; each time its days begin behind those of the time before."""
    with open(log, errors="surrogateescape") as file:
        parts = [re.split(r"(?<=\[)(\d\d/\w{3}/\d{4})(?=:)", line, maxsplit=1) for line in file]
    days = {part[1]: datetime.datetime.strptime(part[1], "%d/%b/%Y") for part in parts if len(part) == 3}
    span = max(days.values()) - min(days.values()) + datetime.timedelta(days=1)
    with open(path, "w", errors="surrogateescape") as file:
        for copy in range(COPIES):
            moved = {day: (date + copy * span).strftime("%d/%b/%Y") for day, date in days.items()}
            file.writelines(part[0] + moved[part[1]] + part[2] for part in parts if len(part) == 3)


def link_slice(source, target):
    (os.link if source.endswith(".tsidx") else shutil.copy2)(source, target)


def make_stores(veldar, directory, log):
    stores = [os.path.join(directory, f"store-{i:02}") for i in range(48)]
    repeated = os.path.join(directory, "repeated.log")
    if not os.path.exists(stores[0]):
        repeat(log, repeated)
        run([veldar, "-s", stores[0], "load", repeated])
        run([veldar, "-s", stores[0], "optimize"])
    for store in stores[1:]:
        if not os.path.exists(store):
            shutil.copytree(stores[0], store, copy_function=link_slice)
            os.remove(os.path.join(store, "id"))
            run([veldar, "-s", store, "load", repeated])  # nothing is new; the store gets an id of its own
    return stores


def answer(veldar, arguments, store):
    return run([veldar, "-s", store, *arguments, "--partial"])


def merge(veldar, *answers):
    return run([veldar, "merge-answers", "--partial", "-"], b"".join(answers))


def processor_ms(work, rounds=15):
    """Of this process and its children, the least."""
    def used():
        mine, others = resource.getrusage(resource.RUSAGE_SELF), resource.getrusage(resource.RUSAGE_CHILDREN)
        return mine.ru_utime + mine.ru_stime + others.ru_utime + others.ru_stime

    return least_ms(used, work, rounds)


def least_ms(clock, work, rounds):
    times = []
    for _ in range(rounds):
        begin = clock()
        work()
        times.append(clock() - begin)
    return 1000 * min(times)


def records_of(partial):
    return int(partial[partial.rindex(b"records "):].split()[1])


def cluster():
    """Of two workers, a process each."""
    local = LocalCluster(n_workers=2, threads_per_worker=1, processes=True, dashboard_address=None)
    return Client(local)


def nothing(*_):
    return b""


def stop(client):
    client.close()
    client.cluster.close()


def processes_of(client):
    """The client's own, which is the scheduler's too, and then the workers'."""
    return [psutil.Process()] + [psutil.Process(pid) for pid in client.run(os.getpid).values()]


def processor_s(processes):
    """Of these and of the children that they have waited for."""
    return sum(sum(process.cpu_times()[:4]) for process in processes)


def busy_s():
    """Of the whole machine, whoever it was."""
    times = psutil.cpu_times()
    return sum(times) - times.idle - times.iowait - times.guest - times.guest_nice


def dask_costs():
    client = cluster()
    mine, *theirs = processes_of(client)

    def flat(count):
        client.gather(client.map(nothing, range(count), pure=False))

    def chain(length):
        last = b""
        for _ in range(length):
            last = client.submit(nothing, last, pure=False)
        last.result()

    flat(200)
    rounds = []
    for _ in range(5):
        begin = processor_s([mine]), processor_s(theirs)
        flat(2000)
        rounds.append((processor_s([mine]) - begin[0], processor_s(theirs) - begin[1]))
    scheduler, worker = (min(column) / 2 for column in zip(*rounds))  # ms: 2000 tasks, in seconds
    submit = min(time_to_submit(client) for _ in range(5))
    hop = least_ms(time.perf_counter, lambda: chain(100), 5) / 100
    carry = time_to_carry(client)
    stop(client)
    return {"submit": submit, "carry": carry, "scheduler": max(0.0, scheduler - submit), "worker": worker,
            "hop": max(0.0, hop - scheduler - worker)}


def time_to_submit(client, count=1000):
    """A task, until the first one runs."""
    begin = time.time()
    first = min(client.gather(client.map(lambda _: time.time(), range(count), pure=False)))
    return 1000 * (first - begin) / count


def time_to_carry(client, size=50_000_000):
    here, there = client.run(os.getpid)

    def once():
        made = client.submit(os.urandom, size, workers=[here], pure=False)
        wait(made)
        begin = time.perf_counter()
        client.submit(len, made, workers=[there], pure=False).result()
        return time.perf_counter() - begin

    return 1000 * min(once() for _ in range(5)) / size


def constants(veldar, stores):
    dask = dask_costs()
    out = {}
    # Of counts a merge has next to no records: what it costs is for the answers themselves.
    counts = [answer(veldar, KINDS["count"][0], store) for store in stores]
    fixed = processor_ms(lambda: merge(veldar, counts[0]))
    stream = max(0.0, (processor_ms(lambda: merge(veldar, *counts)) - fixed) / (len(stores) - 1))
    part = (len(merge(veldar, *counts)) - len(counts[0])) / (len(stores) - 1)
    for kind, (arguments, growth, cap) in KINDS.items():
        answers = [answer(veldar, arguments, store) for store in stores]
        count = cells_of(veldar, answers[0]) if kind.startswith("stats") else records_of(answers[0])
        merging = processor_ms(lambda: merge(veldar, *answers)) - fixed - stream * (len(stores) - 1)
        out[kind] = dask | {
            "answer": processor_ms(lambda: answer(veldar, arguments, stores[0])), "merge": fixed, "stream": stream,
            "record": max(0.0, merging / len(stores) / count), "records": count, "growth": growth, "cap": cap,
            "head": 200.0, "part": part, "size": max(0.0, (len(answers[0]) - 200 - part) / count)}
    print(json.dumps(out, indent=1))


def cells_of(veldar, partial):
    """Rows; each holds a cell an aggregate, which count as one here."""
    return len(run([veldar, "merge-answers", "--format", "tsv", "-"], partial).splitlines()) - 1


def ask(client, veldar, arguments, stores):
    level = client.map(functools.partial(answer, veldar, arguments), stores, pure=False)
    while len(level) > 1:
        level = [client.submit(merge, veldar, *level[i:i + FAN_IN], pure=False) for i in range(0, len(level), FAN_IN)]
    return level[0].result()


def watched(processes, work):
    """Seconds of wall time, of processor time of these, and of others meanwhile."""
    own, busy, begin = processor_s(processes), busy_s(), time.perf_counter()
    work()
    wall, busy, own = time.perf_counter() - begin, busy_s() - busy, processor_s(processes) - own
    return wall, own, busy - own


def share(wall, others):
    return min(1.0, 1 - others / (os.cpu_count() * wall))


def runs(veldar, stores):
    client = cluster()
    processes = processes_of(client)
    rounds = {}
    for _ in range(ROUNDS):
        for kind, (arguments, _, _) in KINDS.items():
            for count in (3, 12, 48):
                one = watched(processes, lambda: ask(client, veldar, arguments, stores[:count]))
                rounds.setdefault((kind, count), []).append(one)
    stop(client)
    out = []
    for (kind, count), measured in rounds.items():
        wall, _, others = map(sum, zip(*measured))
        out.append({"kind": kind, "stores": count, "workers": 2, "fan_in": FAN_IN, "ms": 1000 * wall / ROUNDS,
                    "share": share(wall, others)})
    print(json.dumps(out, indent=1))


def ratio(veldar, stores):
    client = cluster()
    processes, stores = processes_of(client), stores[:12]
    for arguments in HEAVY:
        answers = [answer(veldar, arguments, store) for store in stores]
        alone = lambda: merge(veldar, *[answer(veldar, arguments, store) for store in stores])
        together = lambda: ask(client, veldar, arguments, stores)
        rounds = [(watched(processes, alone), watched(processes, together)) for _ in range(ROUNDS)]
        raw = sorted(one[0] / two[0] for one, two in rounds)
        own = statistics.mean(one[1] for one, _ in rounds)
        wall, others = (statistics.mean(two[i] for _, two in rounds) for i in (0, 2))
        left = share(wall, others)
        print(f"{' '.join(arguments)}: {processor_ms(lambda: answer(veldar, arguments, stores[0])):.0f} ms a store, "
              f"{processor_ms(lambda: merge(veldar, *answers)):.1f} ms to merge 12\n  wall time of one process by that "
              f"of two workers, in turn: median {statistics.median(raw):.2f}, {raw[0]:.2f} to {raw[-1]:.2f}\n"
              f"  others left {left:.0%} of the processors; without them: {1000 * own:.0f} ms (its processor time) by "
              f"{1000 * wall * left:.0f} ms (wall time x share), {own / (wall * left):.2f}")
    for kind in ("count", "stats", "newest 100", "terms", "stats by the hour"):
        answers = [answer(veldar, KINDS[kind][0], store) for store in stores]
        print(f"merging 12 answers of {kind}: {processor_ms(lambda: merge(veldar, *answers)):.2f} ms of processor "
              f"time; one: {processor_ms(lambda: merge(veldar, answers[0])):.2f} ms")
    stop(client)


def library(_, stores):
    import veldar.cluster
    ask_by = {"count": lambda s: s.count("status=404"),
              "stats": lambda s: s.stats(by="status,method", agg="count,sum(bytes)"),
              "newest 100": lambda s: list(s.search("status=404", limit=100)),
              "heavy": lambda s: s.stats(by="status,method", agg="p99(bytes),dc(clientip),avg(bytes)")}
    client = cluster()
    processes = processes_of(client)

    def left_ms(work):
        work()
        wall, _, others = map(sum, zip(*[watched(processes, work) for _ in range(ROUNDS)]))
        return 1000 * wall * share(wall, others) / ROUNDS

    for kind, question in ask_by.items():
        singles = [veldar.open(store) for store in stores[:12]]
        alone = processor_ms(lambda: [question(one) for one in singles])
        times = []
        for fresh, count in itertools.product((0, 3600), (3, 12, 48)):
            asked = veldar.cluster.Stores(client, stores[:count], fresh=fresh)
            times.append(f"{count} stores {left_ms(lambda: question(asked)):.0f}")
        print(f"{kind}: looking each time {', '.join(times[:3])}; not looking {', '.join(times[3:])}; "
              f"12 stores in turn in one process {alone:.1f}", flush=True)
    stop(client)


def main():
    what, veldar, directory, log = sys.argv[1:]
    os.makedirs(directory, exist_ok=True)
    stores = make_stores(veldar, os.path.abspath(directory), os.path.abspath(log))
    {"constants": constants, "runs": runs, "ratio": ratio, "library": library}[what](os.path.abspath(veldar), stores)


if __name__ == "__main__":
    main()

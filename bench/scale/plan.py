#!/usr/bin/python3
"""What a question to many stores costs: a model, a simulation of it, and how both compare with real runs.

    plan.py CONSTANTS.json [RUNS.json]

CONSTANTS.json and RUNS.json come from measure.py. Prints, by kind of question, what 10 to 10,000 stores cost (a worker
and a store a machine, 1 Gbit/s) and which fan-in is best; with RUNS.json also measured, modelled and simulated times.

A question is a tree of tasks: one answers for each store, each merge takes `fan_in` answers. The scheduler is one
server: every task takes `submit` of it before anything begins, and `scheduler` when it ends. A worker does one task at
a time. The answer of k stores has b k^g records (g = 0: the same groups everywhere; 1: nothing in common), at most
`cap`, and a line a store. All times are milliseconds.
"""
import heapq
import json
import math
import sys
from dataclasses import dataclass, replace

TERMS_GROWTH = 0.7  # of real logs, by sketch.py; the stores that measure.py makes all have the same terms


@dataclass
class Costs:
    """What measure.py found, of one kind of question."""
    submit: float      # of client and scheduler, a task, before the first one runs
    scheduler: float   # of client and scheduler, a task, while it runs and ends
    worker: float      # of the worker, a task, besides what it does
    hop: float         # from the end of a task to the beginning of the one that waits for it, nobody being busy
    carry: float       # a byte from one worker to another, without the network
    answer: float      # one store's
    merge: float       # of a merge, whatever it merges
    stream: float      # of a merge, a store in what it merges
    record: float      # of a merge, a record (cell, event, term) in what it merges
    records: float     # in one store's answer
    growth: float      # g
    cap: float
    head: float        # bytes of an answer without stores and records
    part: float        # bytes a store
    size: float        # bytes a record


@dataclass
class Machines:
    workers: int
    network: float = 1 / 125_000  # a byte into one worker: 1 Gbit/s
    latency: float = 0.5
    is_shared: bool = False       # scheduler and workers compete for the same processors


def records(c, stores):
    return min(c.cap, c.records * stores ** c.growth)


def answer_bytes(c, stores):
    return c.head + c.part * stores + c.size * records(c, stores)


def merge_ms(c, m, inputs):
    """Of answers that are of so many stores each: carried here, then merged."""
    carried = sum(answer_bytes(c, k) for k in inputs) * (m.network + c.carry)
    return c.merge + carried + c.stream * sum(inputs) + c.record * sum(records(c, k) for k in inputs)


def tree(stores, fan_in):
    """Levels of merges; each merge is the list of how many stores its inputs are of."""
    levels, below = [], [1] * stores
    while len(below) > 1:
        level = [below[i:i + fan_in] for i in range(0, len(below), fan_in)]
        levels.append(level)
        below = [sum(inputs) for inputs in level]
    return levels


def modelled(c, m, stores, fan_in):
    """Levels one after the other, each as slow as the scheduler or its busiest worker."""
    levels = tree(stores, fan_in)
    stolen = c.scheduler if m.is_shared else 0.0

    def level_ms(count, each):
        return max(count * c.scheduler, math.ceil(count / m.workers) * (c.worker + each + stolen))

    total = (stores + sum(map(len, levels))) * c.submit + level_ms(stores, c.answer)
    for level in levels:
        total += c.hop + m.latency + level_ms(len(level), max(merge_ms(c, m, inputs) for inputs in level))
    return total


def simulated(c, m, stores, fan_in):
    """The same tasks one by one: a merge begins when its own inputs are there, and the scheduler serves in turn."""
    work, parent, waits = [c.answer] * stores, [], [0] * stores
    below = list(range(stores))
    for level in tree(stores, fan_in):
        parent += [len(work) + i // fan_in for i in range(len(below))]
        below = list(range(len(work), len(work) + len(level)))
        work += [merge_ms(c, m, inputs) for inputs in level]
        waits += [len(inputs) for inputs in level]
    parent.append(None)
    stolen = c.scheduler if m.is_shared else 0.0
    workers = [(0.0, i) for i in range(m.workers)]
    scheduler_free = now = 0.0
    events = [(c.submit * len(work), 0, task) for task in range(stores)]  # when, 0 runs or 1 has ended, task
    while events:
        when, has_ended, task = heapq.heappop(events)
        if not has_ended:
            free, worker = heapq.heappop(workers)
            end = max(when, free) + c.worker + work[task] + stolen
            heapq.heappush(workers, (end, worker))
            heapq.heappush(events, (end, 1, task))
            continue
        scheduler_free = now = max(when, scheduler_free) + c.scheduler
        if parent[task] is None:
            continue
        waits[parent[task]] -= 1
        if waits[parent[task]] == 0:
            heapq.heappush(events, (now + c.hop + m.latency, 0, parent[task]))
    return now


def best_fan_in(c, m, stores):
    candidates = [f for f in (2, 4, 8, 16, 32, 64, 128, 256, 1024) if f < stores] + [stores]
    return min(candidates, key=lambda f: simulated(c, m, stores, f))


def grouped(c, stores):
    """As if so many stores were one, which a single task answers for."""
    return replace(c, answer=stores * c.answer + merge_ms(c, Machines(1, network=0.0), [1] * stores),
                   records=records(c, stores), part=stores * c.part)


def print_plan(kinds):
    any_kind = next(iter(kinds.values()))
    print("A task: " + ", ".join(f"{name} {getattr(any_kind, name):.2f} ms" for name in
                                 ("submit", "scheduler", "worker", "hop", "merge")) +
          f"; a store in a merge {1000 * any_kind.stream:.1f} us; {any_kind.carry * 1e6:.1f} ms to carry 1 MB")
    print("\n| kind | answer of a store | records | bytes | merging a record |\n|---|---:|---:|---:|---:|")
    for kind, c in kinds.items():
        print(f"| {kind} | {c.answer:.1f} ms | {c.records:,} | {answer_bytes(c, 1):,.0f} | {1000 * c.record:.2f} us |")
    print("\n| kind | stores | one merge | fan-in 8 | best | its fan-in | 16 stores a task, fan-in 8 | answer |\n"
          "|---|---:|---:|---:|---:|---:|---:|---:|")
    for kind, c in kinds.items():
        if kind == "terms":
            c = replace(c, growth=TERMS_GROWTH)
        for stores in (10, 100, 1000, 10000):
            m = Machines(workers=stores)
            best = best_fan_in(c, m, stores)
            times = [f"{simulated(c, m, stores, f):,.0f} ms" for f in (stores, 8, best)]
            few = ""
            if stores > 16:
                few = f"{simulated(grouped(c, 16), Machines(workers=stores // 16), stores // 16, 8):,.0f} ms"
            print(f"| {kind} | {stores:,} | " + " | ".join(times) + f" | {'all' if best == stores else best} | "
                  f"{few} | {answer_bytes(c, stores) / 1e6:,.3f} MB |")


def print_checks(kinds, runs):
    """Runs are of one machine: nothing goes over a network, scheduler and workers share its processors, and others may
    leave them but a part of these, which makes everything as much slower."""
    print("\n| kind | stores | processors | measured | model | simulation |\n|---|---:|---:|---:|---:|---:|")
    for run in runs:
        c, stores, real = kinds[run["kind"]], run["stores"], run["ms"]
        m = Machines(workers=run["workers"], network=0.0, latency=0.0, is_shared=True)
        times = [t(c, m, stores, run["fan_in"]) / run["share"] for t in (modelled, simulated)]
        cells = [f"{t:.0f} ms ({100 * (t / real - 1):+.0f} %)" for t in times]
        print(f"| {run['kind']} | {stores} | {run['share']:.0%} | {real:.0f} ms | " + " | ".join(cells) + " |")


def main():
    with open(sys.argv[1]) as file:
        kinds = {kind: Costs(**costs) for kind, costs in json.load(file).items()}
    print_plan(kinds)
    if len(sys.argv) > 2:
        with open(sys.argv[2]) as file:
            print_checks(kinds, json.load(file))


if __name__ == "__main__":
    main()

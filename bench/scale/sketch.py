#!/usr/bin/python3
"""What a Bloom filter of a bucket's terms saves for a rare term.

    sketch.py VELDAR LINES LOG...

Each LOG is cut into pieces of so many LINES, each piece becomes a bucket (a store in a temporary directory), and its
terms a filter of 10 or 16 bits a term. Asked for are terms that one bucket alone has (a sample of 2,000): how many
buckets would be looked into with filters, and how large are those beside the index. Told too are how fast the terms of
several buckets together grow (b k^g of k buckets, which is what a filter of a group of buckets has to hold) and what a
bucket costs that a filter spares.
"""
import hashlib
import math
import os
import random
import subprocess
import sys
import tempfile
from collections import Counter

import numpy


def hashes(terms):
    """Two 64-bit numbers a term; probe i of a filter is the first plus i times the second."""
    digests = b"".join(hashlib.blake2b(term, digest_size=16).digest() for term in terms)
    return numpy.frombuffer(digests, dtype=numpy.uint64).reshape(-1, 2)


def places(pairs, size, bits):
    """Rows of terms, columns of probes: round(bits ln 2) is the best number of them."""
    probes = numpy.arange(round(bits * math.log(2)), dtype=numpy.uint64)
    return (pairs[:, :1] + probes * (pairs[:, 1:] | numpy.uint64(1))) % numpy.uint64(size)


def make_filter(terms, bits):
    members = numpy.zeros(max(64, bits * len(terms)), dtype=bool)
    members[places(hashes(sorted(terms)), len(members), bits)] = True
    return members


def cut(logs, lines):
    for log in logs:
        with open(log, "rb") as file:
            all_lines = file.readlines()
        for at in range(0, len(all_lines) - lines + 1, lines):
            yield os.path.basename(log), b"".join(all_lines[at:at + lines])


def terms_of(veldar, directory, number, data):
    """The bucket's terms, and the bytes of its slices."""
    store, log = os.path.join(directory, f"s{number}"), os.path.join(directory, f"{number}.log")
    with open(log, "wb") as file:
        file.write(data)
    subprocess.run([veldar, "-s", store, "load", log], check=True, capture_output=True)
    listed = subprocess.run([veldar, "-s", store, "terms", "--sort", "term"], check=True, capture_output=True).stdout
    size = sum(entry.stat().st_size for entry in os.scandir(os.path.join(store, "bucket-000001"))
               if entry.name.endswith(".tsidx"))
    return {line.split(b"\t", 1)[1] for line in listed.splitlines() if b"\t" in line}, size


def growth(buckets):
    """g of b k^g, from the union of all."""
    together = len(set().union(*buckets))
    return math.log(together * len(buckets) / sum(map(len, buckets))) / math.log(len(buckets))


def main():
    veldar, lines, logs = os.path.abspath(sys.argv[1]), int(sys.argv[2]), sys.argv[3:]
    with tempfile.TemporaryDirectory() as directory:
        made = [(name, *terms_of(veldar, directory, i, data)) for i, (name, data) in enumerate(cut(logs, lines))]
    buckets = [terms for _, terms, _ in made]
    counts = Counter(term for terms in buckets for term in terms)
    rare = sorted(term for term, count in counts.items() if count == 1)
    random.Random(1).shuffle(rare)
    asked = hashes(rare[:2000])
    total = sum(map(len, buckets))
    index = sum(size for _, _, size in made)
    print(f"{len(buckets)} buckets of {lines:,} lines: {total:,} terms ({len(counts):,} different), "
          f"{index / 1e6:.1f} MB of index; {len(rare) / len(counts):.0%} of the terms are in one bucket alone")
    for name in dict.fromkeys(name for name, _, _ in made):
        own = [terms for log, terms, _ in made if log == name]
        if len(own) > 1:
            each = sum(map(len, own)) / len(own)
            print(f"  {name}: {len(own)} buckets, {each:,.0f} terms each, g = {growth(own):.2f}")
    for bits in (10, 16):
        looked_into = 0
        for terms in buckets:
            members = make_filter(terms, bits)
            looked_into += int(members[places(asked, len(members), bits)].all(axis=1).sum())
        each = looked_into / len(asked)
        wrong = (each - 1) / (len(buckets) - 1)
        print(f"{bits} bits: {total * bits / 8 / 1e6:.2f} MB of filters ({total * bits / 8 / index:.1%} of the index); "
              f"a rare term leads to {each:.2f} of {len(buckets)} buckets, {wrong:.3%} of those that lack it; "
              f"of a million: {1 + wrong * 1e6:,.0f}")


if __name__ == "__main__":
    main()

#!/usr/bin/env python3
"""Lookups per second of the depottrie module, from this process, on a
table another process wrote.

    bench.py [--root DIR] [--name NAME] [--seconds S] [--family 4|6] [--batch N]

2^18 addresses are drawn at random (seeded) inside the table's stored
prefixes, then looked up for S seconds per figure: one at a time as text
(prefixes returned as text), one at a time as ipaddress objects (networks
returned), and in lists of N texts. Prints one line per figure:
"IPv4 single-str 412345.6". make bench runs it on its own tables.
"""
import argparse
import ipaddress
import random
import time

import depottrie

QUERIES = 1 << 18


def queries(table, family, seed):
    """Random host addresses inside the family's stored prefixes."""
    routes = table.covered("0.0.0.0/0" if family == 4 else "::/0")
    if not routes:
        raise SystemExit(f"bench.py: table {table.name} holds no IPv{family} prefix")
    rng = random.Random(seed)
    out = []
    for route in rng.choices(routes, k=QUERIES):
        net = route.prefix
        out.append(net.network_address + rng.getrandbits(net.max_prefixlen - net.prefixlen))
    return out


def rate(run, items, seconds):
    """Items handled per second by run(chunk) over chunks of the items, cycled."""
    chunks = [items[i:i + 4096] for i in range(0, len(items), 4096)]
    done = 0
    start = time.perf_counter()
    while True:
        for chunk in chunks:
            run(chunk)
            done += len(chunk)
        elapsed = time.perf_counter() - start
        if elapsed >= seconds:
            return done / elapsed


def one_at_a_time(lookup):
    def run(chunk):
        for q in chunk:
            lookup(q)
    return run


def batched(lookup, size):
    def run(chunk):
        for i in range(0, len(chunk), size):
            lookup(chunk[i:i + size])
    return run


def main():
    parser = argparse.ArgumentParser(description=__doc__.split("\n\n")[0])
    parser.add_argument("--root", help="directory of the tables (default $DEPOT_ROOT, else /dev/shm/depot)")
    parser.add_argument("--name", default="routes")
    parser.add_argument("--seconds", type=float, default=1.0)
    parser.add_argument("--family", type=int, choices=(4, 6), action="append")
    parser.add_argument("--seed", type=int, default=42)
    parser.add_argument("--batch", type=int, default=256)
    args = parser.parse_args()
    with depottrie.open_reader(args.name, root=args.root, prefixes="ipaddress") as networks, \
            depottrie.open_reader(args.name, root=args.root) as texts:
        for family in args.family or (4, 6):
            addresses = queries(networks, family, args.seed)
            strings = [str(a) for a in addresses]
            figures = {
                "single-str": rate(one_at_a_time(texts.lookup), strings, args.seconds),
                "single-ipaddress": rate(one_at_a_time(networks.lookup), addresses, args.seconds),
                "batched-str": rate(batched(texts.lookup, args.batch), strings, args.seconds),
            }
            for kind, value in figures.items():
                print(f"IPv{family} {kind} {value:.1f}", flush=True)


if __name__ == "__main__":
    main()

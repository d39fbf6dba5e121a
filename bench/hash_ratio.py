#!/usr/bin/env python3
"""Compares the speed of hashing a file with `openssl dgst -md4` on the same file in the same run.

    bench/hash_ratio.py [--mib 1024] [--rounds 7] [--dir DIR] [build/bench/bench_hash]

Makes a file of random bytes, reads it once into the page cache, and then times both programs in turn, each as a whole
process with one thread. Prints the speeds and the ratio of each round as median [least-most]. Exits with 1 if the median
ratio is below 0.9.
"""
import argparse
import os
import statistics
import subprocess
import sys
import tempfile
import time
from pathlib import Path

LEAST = 0.9


def seconds(command: list[str]) -> float:
    start = time.perf_counter()
    subprocess.run(command, check=True, stdout=subprocess.DEVNULL)
    return time.perf_counter() - start


def shown(values: list[float], digits: int) -> str:
    return f"{statistics.median(values):.{digits}f} [{min(values):.{digits}f}-{max(values):.{digits}f}]"


def main() -> int:
    parser = argparse.ArgumentParser()
    parser.add_argument("--mib", type=int, default=1024)
    parser.add_argument("--rounds", type=int, default=7)
    parser.add_argument("--dir")
    parser.add_argument("program", nargs="?", default=Path(__file__).parent.parent / "build/bench/bench_hash")
    arguments = parser.parse_args()
    with tempfile.TemporaryDirectory(prefix="hash_ratio.", dir=arguments.dir) as folder:
        path = f"{folder}/sample"
        with open(path, "wb") as sample:
            for _ in range(arguments.mib):
                sample.write(os.urandom(1 << 20))
        ours = [str(arguments.program), "--file", path]
        theirs = ["openssl", "dgst", "-provider", "legacy", "-provider", "default", "-md4", path]
        size = os.path.getsize(path)
        ratios, speeds = [], ([], [])
        for turn in range(-1, arguments.rounds):  # the first warms up and doesn't count
            order = (0, 1) if turn % 2 else (1, 0)
            times = dict((which, seconds((ours, theirs)[which])) for which in order)
            if turn < 0:
                continue
            ratios.append(times[1] / times[0])
            for which in order:
                speeds[which].append(size / times[which] / 1e6)
    print(f"hashing {arguments.mib} MiB: {shown(speeds[0], 0)} MB/s, openssl {shown(speeds[1], 0)} MB/s")
    print(f"ratio to openssl: {shown(ratios, 2)}")
    return 0 if statistics.median(ratios) >= LEAST else 1


if __name__ == "__main__":
    sys.exit(main())

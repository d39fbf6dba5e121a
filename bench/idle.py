#!/usr/bin/env python3
"""Measures the cost of an idle client.

Prints the time from exec to the banner (median of --runs starts). Then, for one idle process over --window seconds,
prints its resident memory, wake-ups and processor time per minute, threads, and the wake-ups of each thread.

Usage: bench/idle.py [--client build/tarnwick] [--runs 7] [--window 20]
"""
import argparse
import glob
import os
import pty
import statistics
import subprocess
import tempfile
import time

BANNER = b"Welcome to Tarnwick"


def start(client, home):
    """Starts the client at a terminal; returns the process, the terminal and the seconds until its banner."""
    master, slave = pty.openpty()
    began = time.perf_counter()
    process = subprocess.Popen([client], cwd=home, stdin=slave, stdout=slave, stderr=slave)
    os.close(slave)
    seen = b""
    while BANNER not in seen:
        seen += os.read(master, 4096)
    return process, master, time.perf_counter() - began


def stop(process, master):
    os.write(master, b"q\ny\n")
    process.wait(30)
    os.close(master)


def status(pid, key):
    with open(f"/proc/{pid}/status", encoding="ascii") as lines:
        return next(int(line.split()[1]) for line in lines if line.startswith(key))


def wakeups(pid):
    """Context switches of each thread so far."""
    counts = {}
    for task in glob.glob(f"/proc/{pid}/task/*"):
        with open(task + "/status", encoding="ascii") as lines:
            counts[os.path.basename(task)] = sum(
                int(line.split()[1]) for line in lines if "ctxt_switches" in line)
    return counts


def processor_seconds(pid):
    with open(f"/proc/{pid}/stat", encoding="ascii") as line:
        fields = line.read().rsplit(")", 1)[1].split()
    return (int(fields[11]) + int(fields[12])) / os.sysconf("SC_CLK_TCK")


def main():
    parser = argparse.ArgumentParser(description=__doc__, formatter_class=argparse.RawDescriptionHelpFormatter)
    parser.add_argument("--client", default="build/tarnwick")
    parser.add_argument("--runs", type=int, default=7)
    parser.add_argument("--window", type=float, default=20)
    options = parser.parse_args()
    client = os.path.abspath(options.client)
    times = []
    for _ in range(options.runs):
        with tempfile.TemporaryDirectory() as home:
            process, master, seconds = start(client, home)
            stop(process, master)
            times.append(seconds)
    print(f"start to banner  {statistics.median(times) * 1000:.1f} ms  (limit 50)")
    with tempfile.TemporaryDirectory() as home:
        process, master, _ = start(client, home)
        time.sleep(3)
        before, cpu = wakeups(process.pid), processor_seconds(process.pid)
        time.sleep(options.window)
        after = wakeups(process.pid)
        cpu = processor_seconds(process.pid) - cpu
        rates = {task: (count - before.get(task, 0)) / options.window for task, count in after.items()}
        print(f"resident         {status(process.pid, 'VmRSS') / 1024:.1f} MB  (limit 10)")
        print(f"wake-ups         {sum(rates.values()) * 60:.0f} a minute  (limit 60)")
        print(f"processor        {cpu / options.window * 60 * 1000:.0f} ms a minute")
        print(f"threads          {len(rates)}: " + ", ".join(f"{rate:.1f}/s" for rate in rates.values()))
        stop(process, master)


if __name__ == "__main__":
    main()

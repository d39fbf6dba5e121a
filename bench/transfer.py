#!/usr/bin/env python3
"""Measures whole transfers between our clients, each in its own network namespace (needs root and iproute2).

For each shape SEEDS:LEECHERS prints the rate from the command to the last verified file, summed over the leechers, and
the processor time and peak resident memory of both sides. --limit limits the uploads of the seeds, --limit-down the
downloads of the leechers, in KB/s.

Usage: bench/transfer.py [--size-mib 256] [--shape 1:1 4:1 1:4] [--limit KB] [--limit-down KB] [--build build]
       bench/transfer.py --compare [--build build]
"""
import argparse
import filecmp
import os
import re
import subprocess
import sys
import tempfile
import threading
import time

HUB = "tarnwick-hub"


def ip(*arguments):
    subprocess.run(["ip", *arguments], check=True)


class Network:
    """Namespaces on one bridge. The hub, at 10.99.0.1, runs the index server."""

    def __init__(self, hosts):
        self.spaces = [HUB] + [f"tarnwick-{i}" for i in range(hosts)]
        for space in self.spaces:
            subprocess.run(["ip", "netns", "del", space], stderr=subprocess.DEVNULL, check=False)
            ip("netns", "add", space)
            ip("-n", space, "link", "set", "lo", "up")
        ip("-n", HUB, "link", "add", "bridge", "type", "bridge")
        ip("-n", HUB, "addr", "add", "10.99.0.1/24", "dev", "bridge")
        ip("-n", HUB, "link", "set", "bridge", "up")
        for i, space in enumerate(self.spaces[1:]):
            ip("-n", HUB, "link", "add", f"cable{i}", "type", "veth", "peer", "name", "net0", "netns", space)
            ip("-n", HUB, "link", "set", f"cable{i}", "master", "bridge", "up")
            ip("-n", space, "addr", "add", f"10.99.0.{i + 2}/24", "dev", "net0")
            ip("-n", space, "link", "set", "net0", "up")

    def prefix(self, i):
        return ["ip", "netns", "exec", self.spaces[i + 1]]

    def close(self):
        for space in self.spaces:
            subprocess.run(["ip", "netns", "del", space], check=False)


def processor_seconds(pid):
    with open(f"/proc/{pid}/stat", encoding="ascii") as line:
        fields = line.read().rsplit(")", 1)[1].split()
    return (int(fields[11]) + int(fields[12])) / os.sysconf("SC_CLK_TCK")


def peak_mib(pid):
    with open(f"/proc/{pid}/status", encoding="ascii") as lines:
        return next(int(line.split()[1]) / 1024 for line in lines if line.startswith("VmHWM"))


class Host:
    def __init__(self, adapter, network, i, top, server):
        self.home = os.path.join(top, str(i))
        os.makedirs(self.home + "/incoming")
        self.adapter, self.prefix, self.server = adapter, network.prefix(i), server
        settings = adapter.Console(self.home, f"name host{i}", prefix=self.prefix)
        settings.wait_for("Welcome")
        settings.stop()
        self.console = None

    def start(self, limits):
        self.console = self.adapter.Console(self.home, prefix=self.prefix)
        self.console.wait_for("Done loading shared files")
        self.console.type("dumax {} {}".format(*limits))
        self.console.type(f"n 10.99.0.1 {self.server}")
        self.console.type("c")
        self.console.wait_for("Connected to")
        self.pid = self.console.process.pid

    def find(self, seeds):
        """Searches until as many sources are known as there are seeds."""
        end = time.time() + 60
        while time.time() < end:
            self.console.type("s data")
            self.console.wait_for("Results returned")
            self.console.type("vr")
            row = self.console.wait_for(r"None\.|\(1\) data\.bin\t\d+\t(\d+)")
            if row.group(1) and int(row.group(1)) >= seeds:
                return
            time.sleep(0.2)
        raise RuntimeError("the file isn't found")


def sent_bytes(network, i):
    with_path = network.prefix(i) + ["cat", "/sys/class/net/net0/statistics/tx_bytes"]
    return int(subprocess.run(with_path, check=True, capture_output=True, text=True).stdout)


def run(adapter, shape, size, limits):
    """Returns the seconds, and the bytes that the seeds sent."""
    seeds, leechers = map(int, shape.split(":"))
    network = Network(seeds + leechers)
    hosts = []
    index = None
    with tempfile.TemporaryDirectory() as top:
        try:
            index = subprocess.Popen(["ip", "netns", "exec", HUB, os.path.join(adapter.BUILD, "tarnwick-index"), "--port", "0"],
                                     stdout=subprocess.PIPE, text=True)
            server = re.search(r"Listening on [\d.]+:(\d+)", index.stdout.readline()).group(1)
            threading.Thread(target=index.stdout.read, daemon=True).start()
            hosts = [Host(adapter, network, i, top, server) for i in range(seeds + leechers)]
            source = hosts[0].home + "/incoming/data.bin"
            with open(source, "wb") as out:
                for _ in range(size):
                    out.write(os.urandom(1 << 20))
            for host in hosts[1:seeds]:
                os.link(source, host.home + "/incoming/data.bin")
            for i, host in enumerate(hosts):
                host.start((0, limits[0]) if i < seeds else (limits[1], 0))
            for host in hosts[seeds:]:
                host.find(seeds)
            before = {host: processor_seconds(host.pid) for host in hosts}
            sent = sum(sent_bytes(network, i) for i in range(seeds))
            began = time.perf_counter()
            for host in hosts[seeds:]:
                host.console.type("d 1")
            waiting = [host.home + "/incoming/data.bin" for host in hosts[seeds:]]
            targets = list(waiting)
            while waiting:
                waiting = [path for path in waiting if not os.path.exists(path)]
                time.sleep(0.02)
                if time.perf_counter() - began > 600:
                    raise RuntimeError("no end after ten minutes")
            seconds = time.perf_counter() - began
            sent = sum(sent_bytes(network, i) for i in range(seeds)) - sent
            cpu = {host: processor_seconds(host.pid) - before[host] for host in hosts}
            for path in targets:
                if not filecmp.cmp(source, path, shallow=False):
                    sys.exit("a file differs from its source")
            total = (size << 20) * leechers
            print(f"{shape}  {total / seconds / 1e6:7.1f} MB/s  ({total / seconds / 1024:.0f} KB/s)  CPU s seeds {sum(cpu[h] for h in hosts[:seeds]):.2f}"
                  f" leechers {sum(cpu[h] for h in hosts[seeds:]):.2f}  peak RSS MiB seed {max(peak_mib(h.pid) for h in hosts[:seeds]):.1f}"
                  f" leecher {max(peak_mib(h.pid) for h in hosts[seeds:]):.1f}", flush=True)
            return seconds, sent
        finally:
            for host in hosts:
                if host.console:
                    host.console.stop()
            if index:
                index.terminate()
                index.wait()
            network.close()


def compare(adapter):
    """The scene "four" of tarnwick-sim, once so and once with real clients: at most 15 % apart."""
    played = subprocess.run([os.path.join(adapter.BUILD, "tarnwick-sim"), "four"], check=True, capture_output=True, text=True).stdout
    simulated = [float(re.search(pattern, played).group(1))
                 for pattern in (r"the last one took ([\d.]+) s", r"the seed gave the file ([\d.]+) times")]
    seconds, sent = run(adapter, "1:4", 64, (4000, 0))
    real = [seconds, sent / (64 << 20)]
    for name, a, b in zip(("seconds", "times that the seed gave the file"), simulated, real):
        print(f"{name}: simulated {a:.2f}, real {b:.2f}, apart by {abs(a - b) / b:.1%}")
    return all(abs(a - b) <= 0.15 * b for a, b in zip(simulated, real))


def main():
    parser = argparse.ArgumentParser(description=__doc__, formatter_class=argparse.RawDescriptionHelpFormatter)
    parser.add_argument("--size-mib", type=int, default=256)
    parser.add_argument("--shape", nargs="+", default=["1:1", "4:1", "1:4"])
    parser.add_argument("--limit", type=int, default=0)
    parser.add_argument("--limit-down", type=int, default=0)
    parser.add_argument("--build", default="build")
    parser.add_argument("--compare", action="store_true", help="compare real clients with simulated ones instead")
    options = parser.parse_args()
    os.environ["TARNWICK_BUILD"] = os.path.abspath(options.build)
    sys.path.insert(0, os.path.dirname(os.path.abspath(__file__)))
    import peers_adapter
    if options.compare:
        sys.exit(0 if compare(peers_adapter) else "real and simulated clients differ by more than 15 %")
    for shape in options.shape:
        run(peers_adapter, shape, options.size_mib, (options.limit, options.limit_down))


if __name__ == "__main__":
    main()

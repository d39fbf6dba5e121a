"""Adds our client to a run of peers_transfer.py, which compares peer engines:

    peers_transfer.py --shape 1:1 --adapter bench/peers_adapter.py

All clients of a run have the same address, which the network treats as one user, so only 1:1 makes sense here.
bench/transfer.py runs the other shapes, with each client in its own network namespace. TARNWICK_BUILD is the folder of
the programs, by default build.
"""
import os
import pty
import re
import select
import subprocess
import threading
import time

BUILD = os.path.abspath(os.environ.get(
    "TARNWICK_BUILD", os.path.join(os.path.dirname(os.path.abspath(__file__)), "..", "build")))


class Console:
    """A client on a pseudo-terminal, in its own directory."""

    def __init__(self, directory, *arguments, prefix=()):
        self.master, slave = pty.openpty()
        self.process = subprocess.Popen([*prefix, os.path.join(BUILD, "tarnwick"), *arguments], cwd=directory,
                                        stdin=slave, stdout=slave, stderr=slave, start_new_session=True)
        os.close(slave)
        self.output = ""
        self.lock = threading.Lock()
        threading.Thread(target=self.read, daemon=True).start()

    def read(self):
        while True:
            try:
                got = os.read(self.master, 65536)
            except OSError:
                return
            with self.lock:
                self.output += got.decode(errors="replace")

    def type(self, line):
        os.write(self.master, (line + "\n").encode())

    def wait_for(self, pattern, seconds=60):
        end = time.time() + seconds
        while time.time() < end:
            with self.lock:
                found = re.search(pattern, self.output)
                if found:
                    self.output = self.output[found.end():]
                    return found
            time.sleep(0.005)
        raise RuntimeError(f"no {pattern!r} in {self.output[-500:]!r}")

    def stop(self):
        if self.process.poll() is None:
            self.type("q")
            self.type("y")
            try:
                self.process.wait(20)
            except subprocess.TimeoutExpired:
                self.process.kill()
                self.process.wait()
        os.close(self.master)


class Index:
    """The run's index server; the first client starts it, the last one ends it."""
    process = None
    port = 0
    users = 0

    @classmethod
    def use(cls):
        cls.users += 1
        if cls.process:
            return
        cls.process = subprocess.Popen([os.path.join(BUILD, "tarnwick-index"), "--port", "0", "--bind", "127.0.0.1"],
                                       stdout=subprocess.PIPE, text=True)
        cls.port = int(re.search(r"Listening on [\d.]+:(\d+)", cls.process.stdout.readline()).group(1))
        threading.Thread(target=cls.process.stdout.read, daemon=True).start()

    @classmethod
    def leave(cls):
        cls.users -= 1
        if cls.users == 0 and cls.process:
            cls.process.terminate()
            cls.process.wait()
            cls.process = None


if "base" in globals():
    class Peer(base.Engine):  # noqa: F821, set by peers_transfer.py
        NAME = "tarnwick"
        needs_tracker = False
        console = None

        def start(self):
            Index.use()
            settings = Console(self.d, f"port {self.port}", f"in {self.d}", "name " + ("seed" if self.seed else "leech"))
            settings.wait_for("Welcome")
            settings.stop()
            self.console = Console(self.d)
            self.p = self.console.process
            self.console.wait_for("Done loading shared files")

        def prepare(self):
            self.console.type(f"n 127.0.0.1 {Index.port}")
            self.console.type("c")
            self.console.wait_for("Connected to")
            if self.seed:
                return
            end = time.time() + 60
            while time.time() < end:
                self.console.type("s " + self.name.split(".")[0])
                self.console.wait_for("Results returned")
                self.console.type("vr")
                if self.console.wait_for(r"None\.|\(1\) (.*)").group(1):
                    return
                time.sleep(0.2)
            raise RuntimeError("the seed's file isn't found")

        def go(self, seeds):
            self.console.type("d 1")

        def progress(self):
            path = f"{self.d}/{self.name}"
            return self.size if os.path.exists(path) and os.path.getsize(path) == self.size else 0

        def pids(self):
            return [self.console.process.pid]

        def stop(self):
            if self.console:
                self.console.stop()
                self.console = None
                Index.leave()

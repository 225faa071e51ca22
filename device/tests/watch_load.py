# SPDX-FileCopyrightText: 2026 the libfrwk authors
# SPDX-License-Identifier: MIT

"""Requests under way while monitor_tool watches, and stops watching in every way that a process can end.

    tools/sandbox python3 device/tests/watch_load.py [REQUESTS] [THREADS]    while it comes and goes; 100,000, 6 threads
    tools/sandbox python3 device/tests/watch_load.py cost [ROUNDS]           requests a second with it and without
"""
import glob
import json
import os
import random
import signal
import statistics
import subprocess
import sys
import tempfile
import time

from support import EMULATOR, PROGRAMS, ROOT, command, within

LOAD = os.environ.get("DEVICE_LOAD", os.path.join(ROOT, "build/release/device/watch_load"))
SOCKETS = "/tmp/odm/ipc/"


def inode(path):
    file = os.lstat(path)
    return file.st_dev, file.st_ino, file.st_mode, file.st_uid, file.st_gid


def relays():
    """Processes that relay; those that have ended and that nobody has asked about are none."""
    found = []
    for path in glob.glob("/proc/[0-9]*/stat"):
        try:
            with open(path, encoding="utf-8", errors="replace") as file:
                pid, rest = file.read().split(" (", 1)
        except OSError:
            continue
        name, state = rest.rsplit(") ", 1)
        if name == "frwk-relay" and state[0] not in "ZX":
            found.append(int(pid))
    return found


class Load:
    """A module that counts its requests, and clients that send them."""

    def __init__(self, requests):
        self.file = tempfile.NamedTemporaryFile()
        self.file.truncate(requests)
        self.sent = 0
        self.module = subprocess.Popen([*EMULATOR, LOAD, "serve", self.file.name])
        within(60, lambda: os.path.exists(SOCKETS + "dial_test"))
        assert subprocess.run(command("monitor_tool", "wait", "dial_test"), check=False).returncode == 0
        self.socket = inode(SOCKETS + "dial_test")

    def ask(self, count, threads, *options):
        first = self.sent
        self.sent += count
        return subprocess.Popen([*EMULATOR, LOAD, "ask", self.file.name, str(first), str(count), str(threads), *options],
                                stdout=subprocess.PIPE, text=True)

    def end(self):
        self.module.kill()
        self.module.wait()
        self.file.close()


def disturb(rng, counts):
    """Watches for a while and ends in one way or another."""
    how = rng.choice(("INT", "TERM", "KILL", "KILL", "KILL", "pipe"))
    capture = rng.random() < 0.3
    args = ("capture", "-") if capture else ("watch",) if rng.random() < 0.5 else ("watch", "-x", "dial_test")
    tool = subprocess.Popen(command("monitor_tool", *args), stdin=subprocess.DEVNULL, stdout=subprocess.PIPE,
                            stderr=subprocess.DEVNULL)
    end = time.monotonic() + rng.choice((0, 0.003, 0.01, 0.03, 0.1, 0.3)) * rng.random()
    os.set_blocking(tool.stdout.fileno(), False)
    read = 0
    while time.monotonic() < end:
        read += len(tool.stdout.read() or b"")
        time.sleep(0.001)
    if how == "pipe":
        tool.stdout.close()
    else:
        tool.send_signal(getattr(signal, "SIG" + how))
    while tool.poll() is None:
        read += len(tool.stdout.read() or b"") if how != "pipe" else 0
        time.sleep(0.001)
    tool.stdout.close()
    counts[how] = counts.get(how, 0) + 1
    counts["read"] = counts.get("read", 0) + read


def come_and_go(requests, threads, seed=None):
    """What became of the requests, and how often the tool ended how; raises when something is not as it was."""
    rng = random.Random(seed)
    counts = {}
    load = Load(requests)
    try:
        clients = load.ask(requests, threads)
        while clients.poll() is None:
            disturb(rng, counts)
        result = json.loads(clients.stdout.read())
        clients.stdout.close()
        within(60, lambda: not relays())
        assert inode(SOCKETS + "dial_test") == load.socket, "the socket is not the module's own"
        left = [name for name in os.listdir(SOCKETS) if name != "dial_test"]
        assert not left, "left behind: %s" % left
        asked = subprocess.run(command("monitor_tool", "send", "dial_test", "5"), check=False, stdout=subprocess.DEVNULL)
        assert asked.returncode == 0, "the module does not answer"
    finally:
        load.end()
    return result, counts


def measure(load):
    """Requests a second of four clients."""
    return json.loads(load.ask(8000, 4, "plain").communicate()[0])["per_second"]


def cost(rounds):
    """Turn about, so that what else the machine does falls on all alike."""
    ways = {"without": None, "watch": ("watch", "--json"), "capture": ("capture", "-")}
    rates = {name: [] for name in ways}
    load = Load(8000 * rounds * len(ways))
    try:
        for _ in range(rounds):
            for name, args in ways.items():
                if args is None:
                    rates[name].append(measure(load))
                    continue
                tool = subprocess.Popen(command("monitor_tool", *args, "dial_test"), stdout=subprocess.DEVNULL,
                                        stderr=subprocess.PIPE, text=True)
                tool.stderr.readline()
                rates[name].append(measure(load))
                tool.send_signal(signal.SIGINT)
                tool.communicate()
    finally:
        load.end()
    for name, found in rates.items():
        print("%-8s %6.0f requests a second in the best of %d rounds, %.0f in the median" % (
            name, max(found), rounds, statistics.median(found)))


def main():
    if sys.argv[1:2] == ["cost"]:
        cost(int(sys.argv[2]) if len(sys.argv) > 2 else 15)
        return
    requests = int(sys.argv[1]) if len(sys.argv) > 1 else 100000
    threads = int(sys.argv[2]) if len(sys.argv) > 2 else 6
    result, counts = come_and_go(requests, threads)
    print(json.dumps(result))
    print("bytes read of what passed: %d; ends: %s" % (counts.pop("read"), counts))
    if any(result[what] for what in ("failed", "wrong", "lost", "doubled")):
        sys.exit("watch_load.py: not every request was answered once")


if __name__ == "__main__":
    assert PROGRAMS
    main()

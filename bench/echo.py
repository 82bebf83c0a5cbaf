#!/usr/bin/env python3
"""Echo comparison: paired, interleaved runs of VEL and its peers on the same work.

In each round every server runs once on every cell (message size, connections, messages outstanding), the servers one
after the other, so that a drift of the machine's speed meets all of them. A ratio is taken within its round; the table
shows the median of the ratios and their spread. The CPU time is the server process's own (user and system).
"""
import argparse
import json
import os
import re
import resource
import statistics
import subprocess
import sys
import tempfile

SIZES = (64, 1024, 16384)
CONNECTIONS = (1, 64, 1000)
OUTSTANDING = (1, 16)


class Server:
    """One server process, told to end by closing its standard input."""

    def __init__(self, program, threads, tracer=()):
        self.process = subprocess.Popen([*tracer, program, str(threads)], stdin=subprocess.PIPE, stdout=subprocess.PIPE)
        self.port = int(self.process.stdout.readline())

    def end(self):
        """Seconds of CPU that the server used."""
        self.process.stdin.close()
        _, status, usage = os.wait4(self.process.pid, 0)
        self.process.returncode = os.waitstatus_to_exitcode(status)
        self.process.stdout.close()
        return usage.ru_utime + usage.ru_stime


def load(folder, port, size, connections, outstanding, seconds):
    command = [f"{folder}/echo_load", str(port), str(connections), str(size), str(outstanding), str(seconds)]
    return float(subprocess.run(command, check=True, capture_output=True, text=True, timeout=60).stdout)


def measure(folder, name, threads, cell, seconds):
    """Round trips a second, and microseconds of server CPU a round trip."""
    server = Server(f"{folder}/echo_{name}", threads)
    try:
        rate = load(folder, server.port, *cell, seconds)
    finally:
        cpu = server.end()
    return rate, cpu / (rate * seconds) * 1e6


def count_calls(folder, name, threads, cell, seconds):
    """System calls of the server a round trip, counted by strace."""
    with tempfile.NamedTemporaryFile("r", suffix=".strace") as report:
        server = Server(f"{folder}/echo_{name}", threads, ("strace", "-f", "-c", "-q", "-o", report.name))
        try:
            rate = load(folder, server.port, *cell, seconds)
        finally:
            server.end()
        total = re.search(r"^\s*[\d.]+\s+[\d.]+\s+(?:\d+\s+)?(\d+)\s+(?:\d+\s+)?total", report.read(), re.M)
        return int(total.group(1)) / (rate * seconds) if total else None


def spread(values):
    ordered = sorted(values)
    return f"{statistics.median(ordered):6.3f} [{ordered[0]:.2f}-{ordered[-1]:.2f}]"


def compare(folder, servers, cells, rounds, seconds):
    """{cell: {server label: [(rate, cpu), ...]}}, one entry a round."""
    results = {cell: {label: [] for label, _, _ in servers} for cell in cells}
    for turn in range(rounds):
        for cell in cells:
            order = servers[turn % len(servers):] + servers[:turn % len(servers)]
            for label, name, threads in order:
                results[cell][label].append(measure(folder, name, threads, cell, seconds))
        print(f"round {turn + 1} of {rounds} done", file=sys.stderr)
    return results


def table(title, results, base):
    print(f"\n{title}: round trips a second as a ratio to {base} (median [least-most]), CPU us a round trip")
    labels = list(next(iter(results.values())))
    print(f"{'bytes':>6} {'conns':>5} {'out':>3} {base + '/s':>12}  " + "".join(f"{label:>30}" for label in labels))
    for (size, connections, outstanding), cell in results.items():
        rates = [rate for rate, _ in cell[base]]
        row = f"{size:>6} {connections:>5} {outstanding:>3} {statistics.median(rates):>12,.0f}  "
        for label in labels:
            ratios = [mine[0] / theirs for mine, theirs in zip(cell[label], rates)]
            cpu = statistics.median(cpu for _, cpu in cell[label])
            row += f"{spread(ratios) + f' {cpu:6.2f}':>30}"
        print(row)
    for label in labels:
        medians = [statistics.median(mine[0] / theirs[0] for mine, theirs in zip(cell[label], cell[base]))
                   for cell in results.values()]
        print(f"  median of all cells, {label}: {statistics.median(medians):.3f}")


def as_json(results):
    return [{"bytes": cell[0], "connections": cell[1], "outstanding": cell[2],
             "servers": {label: [{"rate": rate, "cpu_us": cpu} for rate, cpu in runs] for label, runs in by.items()}}
            for cell, by in results.items()]


def main():
    parser = argparse.ArgumentParser(description=__doc__)
    parser.add_argument("folder", help="folder with the built echo programs")
    parser.add_argument("--rounds", type=int, default=5)
    parser.add_argument("--seconds", type=float, default=0.8, help="length of one run")
    parser.add_argument("--json", help="file for the raw figures")
    parser.add_argument("--only", help="comma-separated server labels")
    parser.add_argument("--table", default="", help="only the tables whose title starts so")
    options = parser.parse_args()
    soft, hard = resource.getrlimit(resource.RLIMIT_NOFILE)
    resource.setrlimit(resource.RLIMIT_NOFILE, (min(hard, 65536), hard))

    cells = [(size, connections, out) for size in SIZES for connections in CONNECTIONS for out in OUTSTANDING]
    few = [(64, 1, 1), (64, 64, 1), (64, 1000, 1), (64, 64, 16), (64, 1000, 16)]
    readiness = [(size, connections, out) for size in SIZES for connections in (1, 16, 60) for out in OUTSTANDING]
    plans = {
        "one worker": ([("epoll", "epoll", 1), ("vel", "vel", 1), ("asio", "asio", 1), ("uv", "uv", 1),
                        ("event", "event", 1)], cells),
        "two workers": ([("asio x2", "asio", 2), ("vel x2", "vel", 2), ("epoll x2", "epoll", 2)], few),
        "63 workers": ([("vel x2", "vel", 2), ("vel x63", "vel", 63)], few[1:3]),
        "reactor": ([("epoll", "epoll", 1), ("reactor", "reactor", 1), ("stream", "stream", 1), ("asio", "asio", 1),
                     ("uv", "uv", 1), ("event", "event", 1)], readiness),
    }
    plans = {title: plan for title, plan in plans.items() if title.startswith(options.table)}
    figures = {}
    for title, (servers, plan) in plans.items():
        servers = [s for s in servers if os.path.exists(f"{options.folder}/echo_{s[1]}")]
        if options.only:
            servers = [s for s in servers if s[0] in options.only.split(",")]
        if not servers:
            continue
        results = compare(options.folder, servers, plan, options.rounds, options.seconds)
        table(title, results, servers[0][0])
        figures[title] = as_json(results)

    print("\nsystem calls a round trip, 64 bytes, 60 connections, one outstanding (strace; start-up included)")
    calls = {}
    for label, name, threads in (("vel", "vel", 1), ("vel x2", "vel", 2), ("reactor", "reactor", 1),
                                 ("stream", "stream", 1), ("epoll", "epoll", 1), ("asio", "asio", 1)):
        if os.path.exists(f"{options.folder}/echo_{name}"):
            calls[label] = count_calls(options.folder, name, threads, (64, 60, 1), 4)
            print(f"  {label}: {calls[label]:.2f}" if calls[label] else f"  {label}: not counted")
    figures["system calls a round trip"] = calls
    if options.json:
        with open(options.json, "w", encoding="utf-8") as out:
            json.dump(figures, out, indent=1)


if __name__ == "__main__":
    main()

#!/usr/bin/env python3
"""Runs Google Benchmark programs with random interleaving and prints each contender's time as a ratio to VEL's.

Benchmarks are named work/contender/arguments; the contender named vel is the base. The time is the
real time of one item (of one iteration where the benchmark counts no items), the median over the repetitions; a ratio
above 1 means that the contender takes longer than VEL.
"""
import argparse
import json
import re
import statistics
import subprocess
import sys
import tempfile

NAME = re.compile(r"(?P<work>\w+)/(?P<contender>\w+)(?P<arguments>(/[\w:]+)*)")
UNITS = {"ns": 1, "us": 1e3, "ms": 1e6, "s": 1e9}


def run(program, repetitions, seconds):
    with tempfile.NamedTemporaryFile("r", suffix=".json") as report:
        subprocess.run([program, "--benchmark_enable_random_interleaving=true",
                        f"--benchmark_repetitions={repetitions}", f"--benchmark_min_time={seconds}",
                        f"--benchmark_out={report.name}", "--benchmark_out_format=json"],
                       check=True, stdout=subprocess.DEVNULL)
        return json.load(report)["benchmarks"]


def collect(rows):
    """{(work, arguments): {contender: [ns an item, ...]}}"""
    figures = {}
    for row in rows:
        match = NAME.match(row["name"])
        if row.get("run_type") != "iteration" or not match:
            continue
        if "items_per_second" in row:
            ns = 1e9 / row["items_per_second"]
        else:
            ns = row["real_time"] * UNITS[row["time_unit"]]
        arguments = re.sub(r"/(real_time|iterations:\d+|repeats:\d+)", "", match["arguments"]).strip("/")
        figures.setdefault((match["work"], arguments), {}).setdefault(match["contender"], []).append(ns)
    return figures


def print_table(figures):
    print(f"{'work':<28}{'contender':<20}{'ns':>14}  {'least':>12} {'most':>12} {'ratio to VEL':>14}")
    for (work, arguments), contenders in figures.items():
        base = next((statistics.median(times) for name, times in contenders.items() if name == "vel"), None)
        for name, times in contenders.items():
            median = statistics.median(times)
            ratio = f"{median / base:14.2f}" if base else ""
            label = f"{work}/{arguments}" if arguments else work
            print(f"{label:<28}{name:<20}{median:14,.1f}  {min(times):12,.1f} {max(times):12,.1f} {ratio}")


def main():
    parser = argparse.ArgumentParser(description=__doc__)
    parser.add_argument("programs", nargs="+")
    parser.add_argument("--repetitions", type=int, default=5)
    parser.add_argument("--seconds", type=float, default=0.2, help="least time of one repetition")
    parser.add_argument("--json", help="file for the figures")
    options = parser.parse_args()
    everything = {}
    for program in options.programs:
        print(f"\n{program.rsplit('/', 1)[-1]}")
        figures = collect(run(program, options.repetitions, options.seconds))
        if not figures:
            sys.exit(f"{program}: no benchmark is named work/contender")
        print_table(figures)
        everything[program.rsplit("/", 1)[-1]] = [
            {"work": work, "arguments": arguments, "ns": contenders} for (work, arguments), contenders in figures.items()]
    if options.json:
        with open(options.json, "w", encoding="utf-8") as out:
            json.dump(everything, out, indent=1)


if __name__ == "__main__":
    main()

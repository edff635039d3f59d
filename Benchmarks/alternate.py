#!/usr/bin/env python3
"""Runs two or more builds of a benchmark program in alternation and prints, per
benchmark, the fastest time each build reached, so that a change can be told from
the machine's slow phases (which hit every build alike when they take turns).

    Benchmarks/alternate.py FILTER ROUNDS BEFORE AFTER [MORE...]

e.g. Benchmarks/alternate.py '^Decode/VelvoxKit/' 5 /tmp/JSONBenchmarks.before build-bench/bin/JSONBenchmarks
Given one program, it prints the fastest times of that program alone (for ratios
between benchmarks of one run, such as VelvoxKit against RapidJSON).
"""
import json
import subprocess
import sys
import tempfile
from collections import defaultdict


def main(pattern, rounds, programs):
    times = defaultdict(lambda: defaultdict(list))
    for _ in range(rounds):
        for program in programs:
            # Through a file: some programs print to standard output too.
            with tempfile.NamedTemporaryFile(suffix=".json") as results:
                subprocess.run([program, "--benchmark_filter=" + pattern, "--benchmark_min_time=0.05",
                                "--benchmark_repetitions=6", "--benchmark_out=" + results.name, "--benchmark_out_format=json"],
                               capture_output=True, text=True, check=True)
                output = json.load(open(results.name))
            for run in output["benchmarks"]:
                if run.get("run_type") == "iteration":
                    times[run["name"]][program].append(run["real_time"])
    for name, by_program in times.items():
        fastest = [min(by_program[program]) for program in programs]
        line = f"{name:48s}" + "".join(f"{t:12.1f}" for t in fastest)
        if len(programs) > 1:
            line += f"   last/first {fastest[-1] / fastest[0]:.3f}"
        print(line)


if __name__ == "__main__":
    if len(sys.argv) < 4:
        sys.exit(__doc__)
    main(sys.argv[1], int(sys.argv[2]), sys.argv[3:])

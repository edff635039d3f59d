#!/usr/bin/env python3
"""Turns Google Benchmark JSON output into the Markdown tables of docs/benchmarks.md."""
import json
import sys
from collections import defaultdict

def main(path):
    runs = json.load(open(path))["benchmarks"]
    # name -> (MB/s, allocs); the median of the repetitions where there are several.
    results = {}
    for run in runs:
        name = run.get("run_name", run["name"])
        if run.get("run_type") == "aggregate" and run.get("aggregate_name") != "median":
            continue
        speed = run.get("bytes_per_second", 0) / 1e6
        results[name] = (speed, run.get("allocs"), run.get("allocs_fresh_decoder"), run.get("objects"), run.get("objects_fresh_decoder"))
    table = defaultdict(dict)
    files, peers = [], []
    for name, value in results.items():
        kind, library, sample = name.split("/")[:3]
        table[(kind, sample)][library] = value
        if sample not in files:
            files.append(sample)
        if library not in peers:
            peers.append(library)
    for kind in ("Decode", "DecodeWalk", "Encode"):
        if kind == "Encode":
            # The one-call form (a new Data each time) beside the kept buffer.
            for f in files:
                if "VelvoxKit" in table[("EncodeData", f)]:
                    table[(kind, f)]["VelvoxKit (Data)"] = table[("EncodeData", f)]["VelvoxKit"]
            if "VelvoxKit (Data)" not in peers:
                peers.insert(1, "VelvoxKit (Data)")
        present = [p for p in peers if any(p in table[(kind, f)] for f in files)]
        print(f"\n### {kind} (MB/s of JSON text)\n")
        print("| file | " + " | ".join(present) + " | VelvoxKit ÷ RapidJSON | VelvoxKit ÷ nlohmann |")
        print("|---" * (len(present) + 3) + "|")
        for f in files:
            row = table[(kind, f)]
            cells = [f"{row[p][0]:.0f}" if p in row else "–" for p in present]
            ours = row.get("VelvoxKit", (0,))[0]
            def ratio(peer):
                return f"{ours / row[peer][0]:.2f}" if peer in row and row[peer][0] else "–"
            print(f"| {f} | " + " | ".join(cells) + f" | {ratio('RapidJSON')} | {ratio('nlohmann')} |")
    peers = [p for p in peers if p != "VelvoxKit (Data)"]
    print("\n### Heap allocations per decode\n")
    print("| file | " + " | ".join(peers) + " | VelvoxKit, fresh decoder |")
    print("|---" * (len(peers) + 2) + "|")
    for f in files:
        row = table[("Decode", f)]
        cells = [f"{row[p][1]:.0f}" if p in row and row[p][1] is not None else "–" for p in peers]
        fresh = row.get("VelvoxKit", (0, None, None))[2]
        print(f"| {f} | " + " | ".join(cells) + (f" | {fresh:.0f} |" if fresh is not None else " | – |"))
    print("\n### Objects made per decode by VelvoxKit (strings, numbers, arrays, dictionaries)\n")
    print("| file | with a warm decoder (its cache filled by an earlier parse) | with a fresh decoder |")
    print("|---|---|---|")
    for f in files:
        ours = table[("Decode", f)].get("VelvoxKit")
        if ours and ours[3] is not None:
            print(f"| {f} | {ours[3]:.0f} | {ours[4]:.0f} |")

if __name__ == "__main__":
    main(sys.argv[1])

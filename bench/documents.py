#!/usr/bin/env python3
"""What the converters cost beside the bare cost of their libraries for the same bytes.

Runs bench_documents in turns and prints the ratios; --json adds them to a file for plot.py. Build
the project first (Release, with tests). Usage: documents.py --build build/release
"""
import argparse
import collections
import json
import pathlib
import statistics
import subprocess

ROWS = {"channelListReply": "list of 64 channels", "searchReply": "search of 100 results",
        "channelRequest": "PUT of a channel"}


def times(program, rounds):
    """The CPU times of each benchmark, one for each round."""
    out = subprocess.run([program, "--benchmark_format=json", f"--benchmark_repetitions={rounds}",
                          "--benchmark_enable_random_interleaving=true"],
                         check=True, capture_output=True, text=True).stdout
    rows = collections.defaultdict(list)
    for run in json.loads(out)["benchmarks"]:
        if run["run_type"] == "iteration":
            rows[run["run_name"]].append(run["cpu_time"])
    return rows


def main():
    parser = argparse.ArgumentParser(description=__doc__.split("\n\n")[0])
    parser.add_argument("--build", type=pathlib.Path, default=pathlib.Path("build/release"))
    parser.add_argument("--rounds", type=int, default=9)
    parser.add_argument("--json", type=pathlib.Path, help="file that the ratios are added to")
    arguments = parser.parse_args()
    rows = times(arguments.build / "bin/bench_documents", arguments.rounds)
    results = []
    for name, row in ROWS.items():
        ratios = [ours / bare for ours, bare in zip(rows[name], rows[name + "Bare"])]
        results.append({"row": f"{row} / its libraries alone", "ratio": statistics.median(ratios),
                        "low": min(ratios), "high": max(ratios), "unit": "ratio"})
        print("{row}: {ratio:.2f} ({low:.2f} to {high:.2f})".format(**results[-1]))
    if arguments.json:
        before = json.loads(arguments.json.read_text()) if arguments.json.exists() else []
        arguments.json.write_text(json.dumps(before + results, indent=1))


if __name__ == "__main__":
    main()

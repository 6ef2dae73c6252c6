#!/usr/bin/python3
"""PyTorch side of observer_bench: times torch.ao.quantization's
MinMaxObserver and HistogramObserver (forward + calculate_qparams of a fresh
observer) on the tensors that observer_bench writes, and compares them with
our figures.

  torch_observers.py --dir DIR [--threads 1 2] [--min-time 2.0]
                     [--repetitions 3] [--ours FILE]

DIR holds relu.f32 and signed.f32 (raw float32, [1, 64, 256, 256]). Torch
runs once per thread count given (our observers use one thread). With --ours
(the JSON report of observer_bench) it prints our time, theirs and the ratio
for each pairing and thread count.
"""

import argparse
import json
import os
import statistics
import time

import numpy as np
import torch
from torch.ao.quantization import HistogramObserver, MinMaxObserver

SHAPE = (1, 64, 256, 256)
KINDS = {"relu": 0, "signed": 1}
# Our benchmark that each torch observer is compared with.
PAIRS = {
    "MinMaxObserver": "BM_ObserveExtract<PeakValueObserver>",
    "HistogramObserver": "BM_ObserveExtract<HistogramObserver>",
}


def load(directory, kind):
    path = os.path.join(directory, kind + ".f32")
    return torch.from_numpy(np.fromfile(path, dtype=np.float32).reshape(SHAPE))


def one_run(cls, x):
    observer = cls()
    observer(x)
    scale, zero_point = observer.calculate_qparams()
    return scale, zero_point


def median_ms(cls, x, min_time, repetitions):
    one_run(cls, x)  # warm-up
    samples = []
    for _ in range(repetitions):
        runs = 0
        start = time.perf_counter()
        while True:
            one_run(cls, x)
            runs += 1
            elapsed = time.perf_counter() - start
            if elapsed >= min_time:
                break
        samples.append(elapsed / runs * 1000.0)
    return statistics.median(samples)


def our_times(path):
    """{(benchmark name, kind): ms} from a Google Benchmark JSON report,
    the median aggregate when there is one."""
    with open(path) as f:
        report = json.load(f)
    times = {}
    for b in report["benchmarks"]:
        name = b.get("run_name", b["name"])
        if b.get("run_type") == "aggregate" and b.get("aggregate_name") != "median":
            continue
        base, _, arg = name.rpartition("/signed:")
        kind = "signed" if arg == "1" else "relu"
        unit = {"ns": 1e-6, "us": 1e-3, "ms": 1.0, "s": 1e3}[b.get("time_unit", "ns")]
        times[(base, kind)] = b["real_time"] * unit
    return times


def main():
    parser = argparse.ArgumentParser()
    parser.add_argument("--dir", required=True)
    parser.add_argument("--threads", type=int, nargs="+", default=[1, 2])
    parser.add_argument("--min-time", type=float, default=2.0)
    parser.add_argument("--repetitions", type=int, default=3)
    parser.add_argument("--ours")
    args = parser.parse_args()
    print("torch %s" % torch.__version__)

    theirs = {}
    for threads in args.threads:
        torch.set_num_threads(threads)
        for kind in KINDS:
            x = load(args.dir, kind)
            for cls in (MinMaxObserver, HistogramObserver):
                ms = median_ms(cls, x, args.min_time, args.repetitions)
                theirs[(cls.__name__, kind, threads)] = ms
                print("%-18s %-7s %d thread(s) %9.2f ms" % (cls.__name__, kind, threads, ms))

    if args.ours:
        ours = our_times(args.ours)
        print()
        print("%-18s %-7s %7s %-40s %9s %9s %7s" %
              ("torch", "tensor", "threads", "ours (1 thread)", "ours ms", "torch ms", "ratio"))
        for (name, kind, threads), ms in sorted(theirs.items()):
            mine = ours.get((PAIRS[name], kind))
            if mine is None:
                continue
            print("%-18s %-7s %7d %-40s %9.2f %9.2f %6.1fx" %
                  (name, kind, threads, PAIRS[name], mine, ms, ms / mine))


if __name__ == "__main__":
    main()

#!/usr/bin/python3
"""The numpy baseline of the intensity-operation benchmark.

Times Clip (np.clip, in place) and NormalizeNormal ((x - mean) / std over the volume, in place)
on a 256^3 float32 volume and prints one line per operation: "<name> <milliseconds>", the best
of several runs, as the C++ benchmark does with its own repetitions.
"""
import sys
import time

import numpy as np

SIZE = int(sys.argv[1]) if len(sys.argv) > 1 else 256
REPEATS = int(sys.argv[2]) if len(sys.argv) > 2 else 5

rng = np.random.default_rng(1)
volume = rng.normal(100.0, 30.0, size=(SIZE, SIZE, SIZE)).astype(np.float32)


def best_ms(run):
    best = float("inf")
    for _ in range(REPEATS):
        data = volume.copy()
        start = time.perf_counter()
        run(data)
        best = min(best, (time.perf_counter() - start) * 1000.0)
    return best


def clip(data):
    np.clip(data, 50.0, 150.0, out=data)


def normalize_normal(data):
    mean = data.mean(dtype=np.float64)
    std = data.std(dtype=np.float64)
    data -= np.float32(mean)
    if std != 0.0:
        data /= np.float32(std)


print(f"Clip {best_ms(clip):.3f}")
print(f"NormalizeNormal {best_ms(normalize_normal):.3f}")

#!/usr/bin/python3
"""The PyTorch baseline of the resampling benchmark.

Resamples a SIZE^3 float32 volume with torch.nn.functional.grid_sample (mode "bilinear" on a 5D
input is trilinear; align_corners=True puts -1 and 1 on the centres of the outermost voxels, as
our pixel indices do) onto the two grids of bench/ResamplingBenchmark.cpp:
  Spacing  1.5x the spacing, round(SIZE / 1.5) voxels per axis, centre kept;
  Rotated  the same grid turned by 20 degrees about z around the volume centre.
The volume holds the same values as the C++ side, (7x + 13y + 3z) mod 251. Only grid_sample is
timed (the grid is its input). Prints "<name> <milliseconds> <mean of the result>", the best of
REPEATS runs, with THREADS intra-op threads.
"""
import math
import sys
import time

import torch

SIZE = int(sys.argv[1]) if len(sys.argv) > 1 else 256
REPEATS = int(sys.argv[2]) if len(sys.argv) > 2 else 5
THREADS = int(sys.argv[3]) if len(sys.argv) > 3 else 2

torch.set_num_threads(THREADS)

idx = torch.arange(SIZE, dtype=torch.int64)
z, y, x = torch.meshgrid(idx, idx, idx, indexing="ij")
volume = ((7 * x + 13 * y + 3 * z) % 251).to(torch.float32)[None, None]  # N C D H W
del x, y, z


def normalised(p):
    """Source voxel index -> grid_sample's [-1, 1] with align_corners=True."""
    return p * (2.0 / (SIZE - 1)) - 1.0


def spacing_grid():
    n = round(SIZE / 1.5)
    q = torch.arange(n, dtype=torch.float64)
    p = (q - (n - 1) / 2.0) * 1.5 + (SIZE - 1) / 2.0
    g = normalised(p).to(torch.float32)
    gz, gy, gx = torch.meshgrid(g, g, g, indexing="ij")
    return torch.stack((gx, gy, gz), dim=-1)[None]


def rotated_grid():
    c = (SIZE - 1) / 2.0
    q = torch.arange(SIZE, dtype=torch.float64) - c
    qz, qy, qx = torch.meshgrid(q, q, q, indexing="ij")
    a = math.radians(20.0)
    px = math.cos(a) * qx - math.sin(a) * qy + c
    py = math.sin(a) * qx + math.cos(a) * qy + c
    pz = qz + c
    grid = torch.stack((normalised(px), normalised(py), normalised(pz)), dim=-1).to(torch.float32)
    return grid[None]


def best_ms(grid):
    best = float("inf")
    result = None
    for _ in range(REPEATS):
        start = time.perf_counter()
        result = torch.nn.functional.grid_sample(volume, grid, mode="bilinear", padding_mode="zeros",
                                                 align_corners=True)
        best = min(best, (time.perf_counter() - start) * 1000.0)
    return best, float(result.double().mean())


with torch.no_grad():
    for name, make in (("Spacing", spacing_grid), ("Rotated", rotated_grid)):
        grid = make()
        ms, mean = best_ms(grid)
        del grid
        print(f"{name} {ms:.3f} {mean:.6f}", flush=True)

#!/usr/bin/python3
"""Trains the demo's 3D segmentation network on synthetic scans and writes the demo data.

The scans look like a small body MR volume: an elliptic torso of soft tissue with a darker
organ, a bright subcutaneous fat rim, a smooth receive-coil bias field, Rician noise and a
partial-volume blur. Two kinds of structures are labelled: round "lesions" (label 1) and
curved tubular "vessels" (label 2). Lesions are as bright as the fat rim and the bias field
moves every intensity by up to a quarter, so no threshold separates the classes: the network
has to use shape and context.

The network is a small three-level U-Net (8/16/32 channels, no normalisation layers) that takes
[n, 1, D, H, W] float32 and returns logits [n, 3, D, H, W]; D, H and W must be multiples of 4.
Its input is the scan normalised to zero mean and unit (population) deviation over the whole
volume, which is what the demo model file's NormalizeNormal step does before the volume is cut
into patches. It trains on random crops (two thirds centred on a labelled voxel so that the
small structures are seen often) with cross-entropy plus soft Dice. Every fifth epoch it is
scored on a validation scan; the weights of the best check (by the lower of the two Dice
values) are exported with torch.jit.script.

Written into --output-folder:
    demo-segmenter.pt     the TorchScript network
    demo-image.nii.gz     a scan from a seed that training and validation never saw (int16)
    demo-label.nii.gz     its ground truth (uint8: 0 background, 1 lesion, 2 vessel)

Every random draw comes from fixed seeds, so a rerun writes the same data and, up to the
non-determinism of multi-threaded float sums, the same network. It runs in a few minutes on
two CPU cores.

Usage:
    /usr/bin/python3 scripts/train_demo_model.py [options]

Options:
    --output-folder DIR     where the files go (default: examples/demo next to this script)
    --epochs N              training epochs (default 40)
    --steps-per-epoch N     optimiser steps per epoch (default 40)
    --batch-size N          crops per step (default 4)
    --crop-size N           edge of the cubic training crops in voxels, a multiple of 4 (default 32)
    --training-scans N      synthetic scans to draw crops from (default 6)
    --learning-rate F       Adam's initial learning rate (default 0.002)
    --threads N             CPU threads for torch (default 2)
    --seed N                base seed of the scans, the crops and the weights (default 7)

Needs numpy, torch and nibabel (Debian: python3-numpy, python3-torch, python3-nibabel).
"""
import argparse
import copy
import math
import os
import time
from typing import List, Tuple

import nibabel as nib
import numpy as np
import torch
import torch.nn.functional as F

# Volume layout: arrays are (z, y, x) = (D, H, W), the order in which the engine hands a volume
# to the network; NIfTI files hold (x, y, z), so saving transposes.
# 80 x 136 x 136 voxels keep the compressed demo scan under 2 MB: gzip gains little on noisy
# 16-bit data, so the voxel count is what sets the file size.
SHAPE = (80, 136, 136)
SPACING = (1.5, 1.15, 1.15)  # mm along z, y, x
# First-voxel position in LPS millimetres. NIfTI stores RAS, hence the sign flips when writing.
ORIGIN_LPS = (-77.6, -95.3, -318.5)
LABEL_NAMES = ["Background", "Lesion", "Vessel"]

# Seed offsets: training, validation and demo scans never share a seed.
TRAIN_SEED_OFFSET = 1000
VALIDATION_SEED_OFFSET = 2000
DEMO_SEED_OFFSET = 3000


# ---------------------------------------------------------------------------------------------
# Synthetic scans


def smooth_noise(rng: np.random.Generator, coarse: Tuple[int, int, int], shape=SHAPE) -> np.ndarray:
    """Smooth random field in [-1, 1]-ish: a coarse grid of normal draws upsampled tri-linearly.

    Cheaper than Gaussian-filtering full-size noise and needs nothing beyond torch."""
    grid = torch.from_numpy(rng.standard_normal(coarse).astype(np.float32))[None, None]
    field = F.interpolate(grid, size=shape, mode="trilinear", align_corners=True)[0, 0]
    return field.numpy()


def millimetre_grid() -> Tuple[np.ndarray, np.ndarray, np.ndarray]:
    """Voxel centres in mm relative to the volume centre, each broadcastable to SHAPE."""
    axes = [(np.arange(n) - (n - 1) / 2.0) * s for n, s in zip(SHAPE, SPACING)]
    z = axes[0][:, None, None].astype(np.float32)
    y = axes[1][None, :, None].astype(np.float32)
    x = axes[2][None, None, :].astype(np.float32)
    return z, y, x


def stamp_distance(distance: np.ndarray, point: np.ndarray, reach: float) -> None:
    """Lowers `distance` (mm) to the distance from `point` (mm, z/y/x) within `reach` of it.

    A tube is the union of such stamps along its centre line; working in a small box per point
    keeps this linear in the tube length instead of in the volume size."""
    centre = [(p / s) + (n - 1) / 2.0 for p, s, n in zip(point, SPACING, SHAPE)]
    box = []
    for c, s, n in zip(centre, SPACING, SHAPE):
        lo = max(int(math.floor(c - reach / s)), 0)
        hi = min(int(math.ceil(c + reach / s)) + 1, n)
        if lo >= hi:
            return
        box.append((lo, hi))
    coords = [((np.arange(lo, hi) - (n - 1) / 2.0) * s - p).astype(np.float32)
              for (lo, hi), s, n, p in zip(box, SPACING, SHAPE, point)]
    d = np.sqrt(coords[0][:, None, None] ** 2 + coords[1][None, :, None] ** 2 + coords[2][None, None, :] ** 2)
    view = distance[box[0][0]:box[0][1], box[1][0]:box[1][1], box[2][0]:box[2][1]]
    np.minimum(view, d, out=view)


def partial_volume(distance: np.ndarray, radius) -> np.ndarray:
    """Fraction of a voxel inside a structure whose border lies at `radius` mm: a 1 mm ramp that
    crosses one half exactly where the label boundary is, so the label is learnable."""
    return np.clip(radius - distance + 0.5, 0.0, 1.0)


def make_scan(seed: int) -> Tuple[np.ndarray, np.ndarray]:
    """One synthetic scan (int16 intensities) and its label map (uint8), both (z, y, x)."""
    rng = np.random.default_rng(seed)
    z, y, x = millimetre_grid()

    # Torso: an elliptic cylinder along z whose half-axes drift slowly with z and whose outline
    # wobbles, so that the body surface is not a perfect ellipse.
    ax = rng.uniform(60, 69) * (1 + 0.06 * smooth_noise(rng, (4, 1, 1)))
    ay = rng.uniform(46, 53) * (1 + 0.06 * smooth_noise(rng, (4, 1, 1)))
    centre_y = rng.uniform(-4, 4)
    wobble = 1 + 0.03 * smooth_noise(rng, (3, 6, 6))
    rho = np.sqrt((x / ax) ** 2 + ((y - centre_y) / ay) ** 2) / wobble
    depth = (1.0 - rho) * np.minimum(ax, ay)  # approximate depth below the skin, mm
    body = partial_volume(-depth, 0.0)

    image = np.zeros(SHAPE, np.float32)
    tissue = 420 + 25 * smooth_noise(rng, (12, 20, 20))
    image += body * tissue
    fat_thickness = rng.uniform(5, 9)
    fat = body * partial_volume(depth, fat_thickness)
    image = image * (1 - fat) + fat * (720 + 20 * smooth_noise(rng, (6, 10, 10)))

    # A darker organ on one side, partly in the field of view.
    organ_centre = np.array([rng.uniform(-25, 25), rng.uniform(-15, 10), rng.choice([-1, 1]) * rng.uniform(20, 30)])
    organ_axes = np.array([rng.uniform(50, 80), rng.uniform(25, 35), rng.uniform(25, 35)])
    organ_r = np.sqrt(((z - organ_centre[0]) / organ_axes[0]) ** 2 + ((y - organ_centre[1]) / organ_axes[1]) ** 2
                      + ((x - organ_centre[2]) / organ_axes[2]) ** 2)
    organ = body * partial_volume((organ_r - 1) * organ_axes[1], 0.0)
    image = image * (1 - organ) + organ * 330

    label = np.zeros(SHAPE, np.uint8)

    # Vessels: one or two tubes running mostly along z with a gentle helical sway.
    half_length = (SHAPE[0] - 1) / 2.0 * SPACING[0] + 5.0  # the tubes leave the volume at both ends
    vessel_distance = np.full(SHAPE, np.inf, np.float32)
    vessel_radius = np.full(SHAPE, 0.0, np.float32)
    for _ in range(int(rng.integers(1, 3))):
        radius = rng.uniform(4.0, 6.5)
        # Centre, drift and sway together keep the tube inside the body, clear of the fat rim.
        middle = np.array([rng.uniform(-0.3, 0.3) * ay.mean() + centre_y, rng.uniform(-0.3, 0.3) * ax.mean()])
        slope = rng.uniform(-0.15, 0.15, size=2)
        amplitude = rng.uniform(4, 10, size=2)
        period = rng.uniform(60, 140)
        phase = rng.uniform(0, 2 * math.pi, size=2)
        tube = np.full(SHAPE, np.inf, np.float32)
        for t in np.arange(0.0, 2 * half_length, 0.5):
            sway = amplitude * np.sin(2 * math.pi * t / period + phase)
            point = np.array([t - half_length, *(middle + slope * (t - half_length) + sway)])
            stamp_distance(tube, point, radius + 2.0)
        inside = tube - radius < vessel_distance - vessel_radius
        vessel_radius[inside] = radius
        vessel_distance = np.minimum(vessel_distance, tube)
    vessel = partial_volume(vessel_distance, vessel_radius) * body
    image = image * (1 - vessel) + vessel * (610 + 20 * smooth_noise(rng, (4, 4, 4)))
    lesions = np.zeros(SHAPE, np.float32)

    # Lesions: round, as bright as fat, away from the skin and from the vessels.
    placed: List[Tuple[np.ndarray, float]] = []
    wanted = int(rng.integers(3, 7))
    for _ in range(200):
        if len(placed) == wanted:
            break
        radius = rng.uniform(5.0, 9.0)
        centre = np.array([rng.uniform(-1, 1) * (half_length - 20), rng.uniform(-40, 40), rng.uniform(-50, 50)])
        index = tuple(int(round(c / s + (n - 1) / 2.0)) for c, s, n in zip(centre, SPACING, SHAPE))
        if depth[index] < radius + fat_thickness + 6 or vessel_distance[index] < radius + vessel_radius.max() + 4:
            continue
        if any(np.linalg.norm(centre - c) < radius + r + 4 for c, r in placed):
            continue
        placed.append((centre, radius))
        distance = np.full(SHAPE, np.inf, np.float32)
        stamp_distance(distance, centre, radius + 2.0)
        lesion = partial_volume(distance, radius)
        image = image * (1 - lesion) + lesion * rng.uniform(700, 820)
        lesions += lesion

    # Acquisition: a smooth bias field of up to about +-25 %, a slight blur and Rician noise
    # (the magnitude of complex Gaussian noise), which also gives the air its noise floor.
    bias = 1 + 0.12 * smooth_noise(rng, (3, 4, 4))
    image = image * bias
    image = blur(image, 0.6)
    # The ground truth is drawn where a structure fills at least half of the blurred voxel, as
    # a reader outlining at half contrast would: the border then lies where the image shows it.
    label[blur(vessel, 0.6) >= 0.5] = 2
    label[blur(lesions, 0.6) >= 0.5] = 1
    sigma = 12.0
    real = image + sigma * rng.standard_normal(SHAPE, dtype=np.float32)
    imaginary = sigma * rng.standard_normal(SHAPE, dtype=np.float32)
    image = np.sqrt(real * real + imaginary * imaginary)
    return np.clip(np.rint(image), 0, 32767).astype(np.int16), label


def blur(volume: np.ndarray, sigma_voxels: float) -> np.ndarray:
    """Separable Gaussian blur in voxel units (edges replicated), through torch's conv1d."""
    radius = int(math.ceil(3 * sigma_voxels))
    taps = torch.exp(-0.5 * (torch.arange(-radius, radius + 1, dtype=torch.float32) / sigma_voxels) ** 2)
    taps /= taps.sum()
    out = torch.from_numpy(volume)
    for axis in range(3):
        moved = out.movedim(axis, -1)
        flat = moved.reshape(-1, 1, moved.shape[-1])
        flat = F.conv1d(F.pad(flat, (radius, radius), mode="replicate"), taps.view(1, 1, -1))
        out = flat.reshape(moved.shape).movedim(-1, axis)
    return out.contiguous().numpy()


def normalise(scan: np.ndarray) -> np.ndarray:
    """Zero mean, unit population deviation over the whole volume: the model file's
    NormalizeNormal, computed the same way, so the network sees what it will see in use."""
    values = scan.astype(np.float64)
    return ((values - values.mean()) / values.std()).astype(np.float32)


def save_nifti(volume: np.ndarray, path: str) -> None:
    """Writes a (z, y, x) volume as NIfTI with the demo's spacing and LPS origin."""
    affine = np.diag([-SPACING[2], -SPACING[1], SPACING[0], 1.0])  # LPS axes in RAS terms
    affine[:3, 3] = [-ORIGIN_LPS[0], -ORIGIN_LPS[1], ORIGIN_LPS[2]]
    image = nib.Nifti1Image(np.ascontiguousarray(volume.transpose(2, 1, 0)), affine)
    image.header.set_xyzt_units("mm")
    image.header.set_slope_inter(1.0, 0.0)
    image.set_qform(affine, code=1)
    image.set_sform(affine, code=1)
    nib.save(image, path)


# ---------------------------------------------------------------------------------------------
# Network


class ConvBlock(torch.nn.Module):
    """Two 3x3x3 convolutions, each followed by a leaky ReLU.

    No normalisation layer on purpose: batch normalisation with a few very different crops per
    step (air, fat, lesion) makes a voxel's output depend on the other crops of its batch, and
    instance or group normalisation on the patch, so the network would answer differently when
    it runs on the engine's 64-voxel patches. Without them every voxel's logits depend on its
    receptive field only, in training, validation and use alike."""

    def __init__(self, channels_in: int, channels_out: int):
        super().__init__()
        self.layers = torch.nn.Sequential(
            torch.nn.Conv3d(channels_in, channels_out, 3, padding=1),
            torch.nn.LeakyReLU(0.01, inplace=True),
            torch.nn.Conv3d(channels_out, channels_out, 3, padding=1),
            torch.nn.LeakyReLU(0.01, inplace=True),
        )

    def forward(self, x: torch.Tensor) -> torch.Tensor:
        return self.layers(x)


class UNet3d(torch.nn.Module):
    """Three-level U-Net: [n, 1, D, H, W] -> logits [n, classes, D, H, W]; D, H, W multiples of 4."""

    def __init__(self, classes: int = 3, width: int = 8):
        super().__init__()
        self.down1 = ConvBlock(1, width)
        self.down2 = ConvBlock(width, 2 * width)
        self.bottom = ConvBlock(2 * width, 4 * width)
        self.up2 = torch.nn.ConvTranspose3d(4 * width, 2 * width, 2, stride=2)
        self.decode2 = ConvBlock(4 * width, 2 * width)
        self.up1 = torch.nn.ConvTranspose3d(2 * width, width, 2, stride=2)
        self.decode1 = ConvBlock(2 * width, width)
        self.head = torch.nn.Conv3d(width, classes, 1)

    def forward(self, x: torch.Tensor) -> torch.Tensor:
        level1 = self.down1(x)
        level2 = self.down2(F.max_pool3d(level1, 2))
        bottom = self.bottom(F.max_pool3d(level2, 2))
        up2 = self.decode2(torch.cat([self.up2(bottom), level2], dim=1))
        up1 = self.decode1(torch.cat([self.up1(up2), level1], dim=1))
        return self.head(up1)


# ---------------------------------------------------------------------------------------------
# Training


def draw_crops(rng: np.random.Generator, scans: List[np.ndarray], labels: List[np.ndarray],
               count: int, size: int) -> Tuple[torch.Tensor, torch.Tensor]:
    """`count` random crops of edge `size`; two thirds centred near a voxel of a random
    foreground class, the rest anywhere, each flipped left-right and front-back at random."""
    images, targets = [], []
    for _ in range(count):
        k = int(rng.integers(len(scans)))
        scan, label = scans[k], labels[k]
        centre = None
        if rng.uniform() < 2 / 3:
            candidates = np.argwhere(label == int(rng.integers(1, len(LABEL_NAMES))))
            if len(candidates):
                centre = candidates[int(rng.integers(len(candidates)))] + rng.integers(-size // 4, size // 4 + 1, 3)
        if centre is None:
            centre = np.array([rng.integers(0, n) for n in SHAPE])
        start = [int(np.clip(c - size // 2, 0, n - size)) for c, n in zip(centre, SHAPE)]
        box = tuple(slice(s, s + size) for s in start)
        image, target = scan[box], label[box]
        for axis in (1, 2):
            if rng.uniform() < 0.5:
                image, target = np.flip(image, axis), np.flip(target, axis)
        images.append(np.ascontiguousarray(image))
        targets.append(np.ascontiguousarray(target))
    return (torch.from_numpy(np.stack(images))[:, None], torch.from_numpy(np.stack(targets)).long())


def loss_function(logits: torch.Tensor, target: torch.Tensor) -> torch.Tensor:
    """Cross-entropy plus soft Dice of the foreground classes: the Dice term keeps the small
    structures from drowning in background voxels. A class absent from the batch is left out
    of the Dice term: its smoothed Dice would only reward predicting less of it everywhere,
    which thins the vessels."""
    cross_entropy = F.cross_entropy(logits, target)
    probabilities = logits.softmax(dim=1)[:, 1:]
    one_hot = F.one_hot(target, logits.shape[1]).permute(0, 4, 1, 2, 3)[:, 1:].float()
    dims = (0, 2, 3, 4)
    intersection = (probabilities * one_hot).sum(dims)
    truth = one_hot.sum(dims)
    dice = (2 * intersection + 1) / (probabilities.sum(dims) + truth + 1)
    present = truth > 0
    if not bool(present.any()):
        return cross_entropy
    return cross_entropy + (1 - dice[present]).mean()


def dice_per_label(prediction: np.ndarray, truth: np.ndarray) -> List[float]:
    scores = []
    for value in range(1, len(LABEL_NAMES)):
        a, b = prediction == value, truth == value
        total = a.sum() + b.sum()
        scores.append(float(2 * (a & b).sum() / total) if total else 1.0)
    return scores


def predict(model: torch.nn.Module, scan: np.ndarray) -> np.ndarray:
    """Labels of a whole normalised scan in one pass (the network is fully convolutional)."""
    model.eval()
    with torch.no_grad():
        logits = model(torch.from_numpy(scan)[None, None])
    model.train()
    return logits[0].argmax(0).numpy().astype(np.uint8)


def main() -> None:
    default_folder = os.path.join(os.path.dirname(os.path.abspath(__file__)), "..", "examples", "demo")
    parser = argparse.ArgumentParser(description=__doc__.split("Usage:")[0].strip(),
                                     formatter_class=argparse.RawDescriptionHelpFormatter)
    parser.add_argument("--output-folder", default=default_folder, help="where the files go (default: examples/demo)")
    parser.add_argument("--epochs", type=int, default=40, help="training epochs (default 40)")
    parser.add_argument("--steps-per-epoch", type=int, default=40, help="optimiser steps per epoch (default 40)")
    parser.add_argument("--batch-size", type=int, default=4, help="crops per step (default 4)")
    parser.add_argument("--crop-size", type=int, default=32, help="edge of the training crops, multiple of 4 (default 32)")
    parser.add_argument("--training-scans", type=int, default=6, help="synthetic training scans (default 6)")
    parser.add_argument("--learning-rate", type=float, default=0.002, help="Adam's initial learning rate (default 0.002)")
    parser.add_argument("--threads", type=int, default=2, help="CPU threads for torch (default 2)")
    parser.add_argument("--seed", type=int, default=7, help="base seed (default 7)")
    args = parser.parse_args()
    if args.crop_size % 4 or args.crop_size <= 0 or args.crop_size > min(SHAPE):
        parser.error(f"--crop-size {args.crop_size}: must be a positive multiple of 4 up to {min(SHAPE)}")
    for name in ("epochs", "steps_per_epoch", "batch_size", "training_scans", "threads"):
        if getattr(args, name) <= 0:
            parser.error(f"--{name.replace('_', '-')} {getattr(args, name)}: must be positive")

    torch.set_num_threads(args.threads)
    torch.manual_seed(args.seed)
    os.makedirs(args.output_folder, exist_ok=True)
    began = time.time()

    print(f"Drawing {args.training_scans} training scans and one validation scan ...", flush=True)
    training = [make_scan(args.seed + TRAIN_SEED_OFFSET + i) for i in range(args.training_scans)]
    scans = [normalise(s) for s, _ in training]
    labels = [l for _, l in training]
    validation_scan, validation_label = make_scan(args.seed + VALIDATION_SEED_OFFSET)
    validation_scan = normalise(validation_scan)
    print(f"  done in {time.time() - began:.0f} s", flush=True)

    model = UNet3d(len(LABEL_NAMES))
    optimiser = torch.optim.Adam(model.parameters(), lr=args.learning_rate)
    total_steps = args.epochs * args.steps_per_epoch
    schedule = torch.optim.lr_scheduler.LambdaLR(
        optimiser, lambda step: 0.5 * (1 + math.cos(math.pi * min(step, total_steps) / total_steps)) * 0.95 + 0.05)
    rng = np.random.default_rng(args.seed)
    # The weights of the best validation check are kept: with a learning rate this high, the
    # last steps can land in a worse spot than an earlier check.
    best_score, best_state = -1.0, None
    for epoch in range(1, args.epochs + 1):
        losses = []
        for _ in range(args.steps_per_epoch):
            images, targets = draw_crops(rng, scans, labels, args.batch_size, args.crop_size)
            loss = loss_function(model(images), targets)
            optimiser.zero_grad()
            loss.backward()
            optimiser.step()
            schedule.step()
            losses.append(loss.item())
        line = f"epoch {epoch:3d}/{args.epochs}  loss {np.mean(losses):.4f}  ({time.time() - began:.0f} s)"
        if epoch % 5 == 0 or epoch == args.epochs:
            dice = dice_per_label(predict(model, validation_scan), validation_label)
            line += "  validation Dice " + "  ".join(f"{n} {d:.3f}" for n, d in zip(LABEL_NAMES[1:], dice))
            if min(dice) > best_score:
                best_score, best_state = min(dice), copy.deepcopy(model.state_dict())
                best_dice, best_epoch = dice, epoch
        print(line, flush=True)

    model.load_state_dict(best_state)
    print(f"Validation Dice (weights of epoch {best_epoch}): "
          + ", ".join(f"{n} {d:.4f}" for n, d in zip(LABEL_NAMES[1:], best_dice)), flush=True)

    model.eval()
    scripted = torch.jit.script(model)
    model_path = os.path.join(args.output_folder, "demo-segmenter.pt")
    scripted.save(model_path)

    demo_scan, demo_label = make_scan(args.seed + DEMO_SEED_OFFSET)
    image_path = os.path.join(args.output_folder, "demo-image.nii.gz")
    label_path = os.path.join(args.output_folder, "demo-label.nii.gz")
    save_nifti(demo_scan, image_path)
    save_nifti(demo_label, label_path)
    demo_dice = dice_per_label(predict(model, normalise(demo_scan)), demo_label)
    print("Demo scan Dice (whole volume in one pass): "
          + ", ".join(f"{n} {d:.4f}" for n, d in zip(LABEL_NAMES[1:], demo_dice)))
    for path in (model_path, image_path, label_path):
        print(f"wrote {os.path.relpath(path)} ({os.path.getsize(path) / 1e6:.2f} MB)")
    print(f"Total time {time.time() - began:.0f} s")


if __name__ == "__main__":
    main()

#!/usr/bin/python3
"""Writes the tiny TorchScript models of tests/engines/torch/models.

Run with the system Python and Debian's python3-torch (the same LibTorch the engine links):
    /usr/bin/python3 scripts/make_torch_test_models.py
The models are a few hundred bytes of code and at most a few kB of weights, so they are committed
as they are.
"""
import os
from typing import Dict, List, Tuple

import torch

OUT = os.path.join(os.path.dirname(os.path.abspath(__file__)), "..", "tests", "engines", "torch", "models")


class Double(torch.nn.Module):
    """One tensor in, the same tensor doubled out: values and geometry must come back unchanged."""

    def forward(self, x: torch.Tensor) -> torch.Tensor:
        return x * 2.0


class DictOutput(torch.nn.Module):
    """A dict of outputs: "Mask" is x + 1, "Score" the mean per sample and channel, "Debug" an
    extra output that a model file lists among the fields to ignore."""

    def forward(self, x: torch.Tensor) -> Dict[str, torch.Tensor]:
        dims: List[int] = list(range(2, x.dim()))
        return {"Mask": x + 1.0, "Score": x.mean(dim=dims), "Debug": x * 0.0}


class TupleOutput(torch.nn.Module):
    """Two outputs in field order: the negated image and a half-size (strided) image."""

    def forward(self, x: torch.Tensor) -> Tuple[torch.Tensor, torch.Tensor]:
        if x.dim() == 4:
            return -x, x[:, :, ::2, ::2]
        return -x, x[:, :, ::2, ::2, ::2]


class VectorSum(torch.nn.Module):
    """An image and a vector in ([n, C]); out the vector plus the image's sum per sample."""

    def forward(self, x: torch.Tensor, v: torch.Tensor) -> torch.Tensor:
        dims: List[int] = list(range(1, x.dim()))
        return v + x.sum(dim=dims).unsqueeze(1)


class ClassScores(torch.nn.Module):
    """A classifier's shape: an image in, one vector [n, 2] out (the mean and the maximum of each
    sample), so that the expected scores are known exactly."""

    def forward(self, x: torch.Tensor) -> torch.Tensor:
        flat = x.flatten(1)
        return torch.stack([flat.mean(dim=1), flat.max(dim=1).values], dim=1)


class VolumeOnly(torch.nn.Module):
    """Refuses anything but a batch of volumes, as a 3D network does."""

    def forward(self, x: torch.Tensor) -> torch.Tensor:
        if x.dim() != 5:
            raise ValueError("expected a tensor [n, C, D, H, W]")
        return x


class ConvNet(torch.nn.Module):
    """A small 3D network of the U-Net kind (convolution, batch norm, ReLU, twice, then a 1x1x1
    head) with fixed random weights: what freezing and optimising for inference rewrites."""

    def __init__(self) -> None:
        super().__init__()
        torch.manual_seed(7)
        self.body = torch.nn.Sequential(
            torch.nn.Conv3d(1, 4, 3, padding=1), torch.nn.BatchNorm3d(4), torch.nn.ReLU(),
            torch.nn.Conv3d(4, 4, 3, padding=1), torch.nn.BatchNorm3d(4), torch.nn.ReLU())
        self.head = torch.nn.Conv3d(4, 2, 1)
        for norm in (self.body[1], self.body[4]):
            norm.running_mean.uniform_(-0.5, 0.5)
            norm.running_var.uniform_(0.5, 2.0)
        self.eval()

    def forward(self, x: torch.Tensor) -> torch.Tensor:
        return self.head(self.body(x))


@torch.jit.interface
class Block(torch.nn.Module):
    def forward(self, x: torch.Tensor) -> torch.Tensor:
        pass


class AddOne(torch.nn.Module):
    def forward(self, x: torch.Tensor) -> torch.Tensor:
        return x + 1.0


class Swappable(torch.nn.Module):
    """Keeps an interface-typed block that it may swap while running; such a module cannot be
    frozen, so the engine must run it as loaded. Returns x + 1."""
    block: Block

    def __init__(self) -> None:
        super().__init__()
        self.block = AddOne()

    def forward(self, x: torch.Tensor) -> torch.Tensor:
        self.block = self.block
        return self.block.forward(x)


def main() -> None:
    os.makedirs(OUT, exist_ok=True)
    for name, module in [("double", Double()), ("dict_output", DictOutput()),
                         ("tuple_output", TupleOutput()), ("vector_sum", VectorSum()), ("volume_only", VolumeOnly()),
                         ("class_scores", ClassScores()),
                         ("conv_net", ConvNet()), ("swappable", Swappable())]:
        torch.jit.script(module).save(os.path.join(OUT, name + ".pt"))


if __name__ == "__main__":
    main()

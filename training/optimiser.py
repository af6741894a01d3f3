"""How a step follows from the gradients: Muon for the matrices of the GRUs, Adam for the rest."""

import torch

from training import accelerate
from training.network import Denoiser

NORMALISATION_RATE = 3.0  # learning rate of the normalisation scales over the others'
GATE_RATE = 1.5  # of the matrices that Muon moves
GATES = 6  # of a layer: three of each of its two GRUs

HALF_IS_QUICK = "avx512" in accelerate.paths()  # a CPU that multiplies bf16

# Quintics of Newton and Schulz's iteration, each the best for the singular values that the one before
# leaves (Amsel et al. 2025, "The Polar Express").
QUINTICS = ((4.0848, -6.8946, 2.9270), (3.9505, -6.3029, 2.6377), (3.7418, -5.5913, 2.3037),
            (2.8769, -3.1427, 1.2046), (2.8366, -3.0525, 1.2012))


def orthogonalise(x: torch.Tensor) -> torch.Tensor:
    """(n, rows, columns), n matrices: each with all its singular values brought near 1. In bf16 where that is
    quicker: the quintics mend what it rounds."""
    if x.shape[1] > x.shape[2]:
        return orthogonalise(x.transpose(1, 2)).transpose(1, 2)
    exact = x.dtype
    x = x / (1.01 * x.norm(dim=(1, 2), keepdim=True) + 1e-7)
    if x.is_cuda or HALF_IS_QUICK:
        x = x.bfloat16()
    for a, b, c in QUINTICS:
        square = torch.bmm(x, x.transpose(1, 2))
        x = a * x + torch.bmm(torch.baddbmm(square, square, square, beta=b, alpha=c), x)
    return x.to(exact)


class Muon(torch.optim.Optimizer):
    """Momentum, orthogonalised for every gate by itself (Jordan et al. 2024): all directions of a gate's
    matrix move alike, also those whose gradients are weak. At a rate it moves weights as far as Adam
    does, a fifth of the rate for the mean weight (Liu et al. 2025)."""

    SHARE = 0.2

    def __init__(self, groups, momentum: float = 0.95):
        """`groups` of parameters (2, 3 * hidden, inputs), the gates of two GRUs."""
        super().__init__(groups, {"lr": 0.0, "momentum": momentum})

    @torch.no_grad()
    def step(self) -> None:
        for group in self.param_groups:
            for p in group["params"]:
                mean = self.state[p].setdefault("mean", torch.zeros_like(p))
                mean.lerp_(p.grad, 1 - group["momentum"])
                towards = p.grad.lerp(mean, group["momentum"])
                gates = towards.reshape(GATES, -1, p.shape[-1])
                length = self.SHARE * max(gates.shape[1:]) ** 0.5
                p.add_(orthogonalise(gates).reshape(p.shape), alpha=-group["lr"] * length)


class Optimiser:
    """Both, over all parameters of a network."""

    def __init__(self, network: Denoiser):
        gates, scales, rest = [], [], []
        for name, p in network.named_parameters():
            kind = gates if "weight_" in name else scales if "gamma" in name or "beta" in name else rest
            kind.append(p)
        self.optimisers = (Muon([{"params": gates, "factor": GATE_RATE}]),
                           torch.optim.Adam([{"params": rest, "factor": 1.0},
                                             {"params": scales, "factor": NORMALISATION_RATE}],
                                            lr=0.0, betas=(0.9, 0.98)))

    def step(self, rate: float) -> None:
        """With the parameters' gradients, which it clears."""
        for optimiser in self.optimisers:
            for group in optimiser.param_groups:
                group["lr"] = rate * group["factor"]
            optimiser.step()
            optimiser.zero_grad(set_to_none=True)

"""A network's weights as the tables of a model file."""

import numpy as np
import torch

from training.errors import TrainingError
from training.network import GRU_STEP, row_scales


def model_tables(network) -> dict[str, np.ndarray]:
    """By the names of the file's tables, quantised as the network quantises them."""
    with torch.no_grad():
        result = {}
        for number, conv in enumerate(network.convs, 1):
            rows = conv.weight.permute(0, 2, 3, 1).reshape(conv.shape.out_channels, -1)
            scale = row_scales(rows)
            kernel = torch.round(rows / scale[:, None]).to(torch.int8).numpy()
            padding = -kernel.shape[1] % 8
            multiplier, offset = conv.folded()
            result |= {f"conv{number}_kernel": np.pad(kernel, ((0, 0), (0, padding))),
                       f"conv{number}_kernel_scale": scale.numpy(),
                       f"conv{number}_bias": conv.bias.numpy(),
                       f"bn{number}_bn_gamma_var": multiplier.squeeze(1).t().numpy(),
                       f"bn{number}_bn_gmb": offset.squeeze(1).t().numpy()}
        for name, pair in (("gru1", network.gru1), ("gru2", network.gru2)):
            for i in range(2):
                for part in ("weight_ih", "weight_hh"):
                    steps = torch.round(getattr(pair, part)[i] * GRU_STEP)
                    if not (steps.min() >= -128 and steps.max() <= 127):
                        raise TrainingError(f"{name}_{i + 1}.{part} leaves the range of int8")
                    result[f"{name}_{i + 1}_{part}"] = steps.to(torch.int8).numpy()
                for part in ("bias_ih", "bias_hh"):
                    result[f"{name}_{i + 1}_{part}"] = getattr(pair, part)[i].reshape(3, -1).numpy()
        scale = row_scales(network.head.weight)
        head = {"weight": torch.round(network.head.weight / scale[:, None]).to(torch.int8).numpy(),
                "weight_scale": scale.numpy(), "bias": network.head.bias.numpy()}
        for name in ("fc1", "fc2"):  # the format carries a second head that nothing computes
            result |= {f"{name}_{part}": value for part, value in head.items()}
        return result

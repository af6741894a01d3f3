"""What the frame pipeline does to the network's values, as differentiable operations.

Raw gain: band values interpolated to bins and divided by the band width. With far-end signal it is
squared and gated. Then fixed make-up gains per bin group. The bins of the lowest group are removed.
The rule's numbers are the library's.
"""

import numpy as np
import torch

from training.bands import expansion
from training.library import RULE, make_up

FAR_END_ENERGY = RULE.far_end_energy  # reference energy above which the far-end rule holds
LEAK = 0.25  # of the gate in training, where speech is lost, unless a run says otherwise


class GainRule:
    def __init__(self, device="cpu", leak: float = LEAK):
        self.leak = leak
        self.expansion = torch.from_numpy(expansion().T.astype(np.float32)).to(device)
        self.make_up = torch.from_numpy(make_up().astype(np.float32)).to(device)
        raw = self.expansion.sum(0)  # every band value at 1
        squared = raw * raw
        self._ceiling = torch.stack([
            (raw * self.make_up).clamp_max(1.0),
            (squared * (squared >= RULE.far_end_gate) * self.make_up).clamp_max(1.0)])

    def raw(self, values: torch.Tensor) -> torch.Tensor:
        """Band values (..., bands) -> gains (..., bins) before reshaping."""
        return values @ self.expansion

    def applied(self, raw: torch.Tensor, far_end: torch.Tensor,
                speech: torch.Tensor | None = None) -> torch.Tensor:
        """Gains that the spectrum is multiplied with; `far_end` (...) is the rule of each frame.

        For training, `speech` (..., bins) marks bins that hold speech: there the gate lets `leak`
        through, so that a loss whose slope vanishes at zero can open it again. The gradient passes
        straight through the gate everywhere."""
        squared = raw * raw
        closed = torch.where(squared < RULE.far_end_gate, squared, torch.zeros_like(squared)).detach()
        if speech is not None:
            closed = closed * (1 - self.leak * speech)
        return torch.where(far_end.unsqueeze(-1), squared - closed, raw) * self.make_up

    def ceiling(self, far_end: torch.Tensor) -> torch.Tensor:
        """The highest gain, at most 1, that the rule can apply per bin."""
        return self._ceiling[far_end.long()]

    def values(self, gain: torch.Tensor, far_end: torch.Tensor) -> torch.Tensor:
        """The inverse as far as there is one: band values 0..1 (..., bands) whose applied gain comes
        closest to one wanted gain per band (..., bands)."""
        members = (self.expansion > 0).float()
        size = members.sum(1).clamp_min(1)
        full = (self.expansion.sum(0) @ members.T / size).clamp_min(1e-3)  # raw gain of value 1
        raw = gain / (self.make_up @ members.T / size).clamp_min(1e-3)
        return (torch.where(far_end.unsqueeze(-1), raw.sqrt(), raw) / full).clamp(0, 1)

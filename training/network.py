"""The denoiser network as the engine runs it, with quantisation in the loop.

Weights are kept as float masters and rounded in every forward pass to what the engine stores (int8
with a scale per output for convolutions and head, steps of 1/256 for the GRUs); activations are
rounded to the engine's Q10 and Q11. Rounding passes the gradient straight through.

Batch normalisation is per element (position x channel) with fixed statistics, so that training and
service compute the same function; `calibrate` sets the statistics of a network that starts from
scratch.
"""

import math

import torch
import torch.nn.functional as F
from torch import nn

from training import accelerate
from training.library import SHAPE

Q10 = 1024.0  # fixed-point formats of the engine: convolution inputs
Q11 = 2048.0  # GRU and head inputs
GRU_STEP = 256.0  # GRU weights are int8 / 256
ACTIVATION_LIMIT = 6.0
BN_EPSILON = 1e-5


class _Round(torch.autograd.Function):
    """round(x * scale) / scale, gradient passed straight through."""

    @staticmethod
    def forward(ctx, x, scale):
        return torch.round(x * scale).div_(scale)

    @staticmethod
    def backward(ctx, grad):
        return grad, None


_rounding = True


def quantise(x: torch.Tensor, scale: float) -> torch.Tensor:
    return _Round.apply(x, scale) if _rounding else x


def quantise_rows(w: torch.Tensor) -> torch.Tensor:
    return _RoundPerRow.apply(w) if _rounding else w


class _RoundPerRow(torch.autograd.Function):
    """int8 with one scale per row, largest magnitude / 127; gradient passed straight through."""

    @staticmethod
    def forward(ctx, w):
        rows = w.reshape(w.shape[0], -1)
        scale = row_scales(rows).unsqueeze(1)
        return (torch.round(rows / scale) * scale).reshape(w.shape)

    @staticmethod
    def backward(ctx, grad):
        return grad


def row_scales(rows: torch.Tensor) -> torch.Tensor:
    return rows.abs().amax(1).clamp_min(1e-8) / 127


class _GruPairRecurrence(torch.autograd.Function):
    """The time loop of a pair of GRUs, for both at once.

    `gates_in` (T, 2, B, 3H) are the input-side gate sums with their bias; `w_t` (2, H, 3H) the
    transposed recurrent weights; `bias` (2, 1, 3H); `h0` (2, B, H). Returns the states (T, 2, B, H)
    rounded to Q11. The loop runs over time once in each direction; the gradient of the weights is
    formed in one product at the end.
    """

    @staticmethod
    def forward(ctx, gates_in, w_t, bias, h0):
        steps, _, batch, gates = gates_in.shape
        hidden = gates // 3
        recurrent = torch.empty_like(gates_in)
        rz = gates_in.new_empty(steps, 2, batch, 2 * hidden)
        candidate = gates_in.new_empty(steps, 2, batch, hidden)
        states = gates_in.new_empty(steps + 1, 2, batch, hidden)
        states[0] = h0
        for t in range(steps):
            h, g_in, g_rec, gate, n = states[t], gates_in[t], recurrent[t], rz[t], candidate[t]
            torch.baddbmm(bias, h, w_t, out=g_rec)
            torch.add(g_in[..., :2 * hidden], g_rec[..., :2 * hidden], out=gate).sigmoid_()
            torch.addcmul(g_in[..., 2 * hidden:], gate[..., :hidden], g_rec[..., 2 * hidden:],
                          out=n).tanh_()
            # lerp(n, h, z) = (1 - z) n + z h
            torch.lerp(n, h, gate[..., hidden:], out=states[t + 1])
            states[t + 1] = quantise(states[t + 1], Q11)
        ctx.save_for_backward(recurrent[..., 2 * hidden:], rz, candidate, states, w_t)
        return states[1:]

    @staticmethod
    def backward(ctx, grad_states):
        recurrent_n, rz, n, states, w_t = ctx.saved_tensors
        steps, _, batch, hidden = grad_states.shape
        r, z, h = rz[..., :hidden], rz[..., hidden:], states[:-1]
        to_candidate = (1 - n * n) * (1 - z)
        to_reset = recurrent_n * r * (1 - r)
        to_update = (h - n) * z * (1 - z)
        grad_in = grad_states.new_empty(steps, 2, batch, 3 * hidden)
        grad_rec = torch.empty_like(grad_in)
        w = w_t.transpose(1, 2)
        dh = torch.zeros_like(grad_states[0])
        for t in range(steps - 1, -1, -1):
            dh.add_(grad_states[t])
            g_in, g_rec = grad_in[t], grad_rec[t]
            dn = torch.mul(dh, to_candidate[t], out=g_in[..., 2 * hidden:])
            torch.mul(dn, to_reset[t], out=g_rec[..., :hidden])
            torch.mul(dh, to_update[t], out=g_rec[..., hidden:2 * hidden])
            torch.mul(dn, r[t], out=g_rec[..., 2 * hidden:])
            dh.mul_(z[t]).baddbmm_(g_rec, w)
        grad_in[..., :2 * hidden] = grad_rec[..., :2 * hidden]
        flat = grad_rec.transpose(0, 1).reshape(2, steps * batch, 3 * hidden)
        grad_w = torch.bmm(h.transpose(0, 1).reshape(2, steps * batch, hidden).transpose(1, 2), flat)
        return grad_in, grad_w, flat.sum(1, keepdim=True), dh


class _AtRest(torch.autograd.Function):
    """Zeroes the first `frames` frames of the streams marked in `fresh` (B,), in place."""

    @staticmethod
    def forward(ctx, x, fresh, frames):
        ctx.fresh, ctx.frames = fresh, frames
        ctx.mark_dirty(x)
        x[fresh, :, :frames] = 0
        return x

    @staticmethod
    def backward(ctx, grad):
        grad = grad.clone(memory_format=torch.preserve_format)
        grad[ctx.fresh, :, :ctx.frames] = 0
        return grad, None, None


class ConvBlock(nn.Module):
    """Convolution over (time, frequency), normalisation per element, clamp to 0..6."""

    def __init__(self, shape):
        super().__init__()
        self.shape = shape
        self.weight = nn.Parameter(torch.empty(shape.out_channels, shape.in_channels,
                                               shape.kernel_time, shape.kernel_freq))
        nn.init.kaiming_uniform_(self.weight, a=1.0)
        self.bias = nn.Parameter(torch.zeros(shape.out_channels))
        elements = (shape.out_channels, 1, shape.out_width)
        self.gamma = nn.Parameter(torch.ones(elements))
        self.beta = nn.Parameter(torch.full(elements, 0.5))
        self.register_buffer("mean", torch.zeros(elements))
        self.register_buffer("var", torch.ones(elements))

    def convolve(self, x):
        return F.conv2d(quantise(x, Q10), quantise_rows(self.weight), self.bias,
                        stride=(1, self.shape.freq_stride), padding=(0, self.shape.freq_pad))

    def folded(self):
        """The normalisation as the engine applies it: one multiplier and one offset per element."""
        multiplier = self.gamma / torch.sqrt(self.var + BN_EPSILON)
        return multiplier, self.beta - self.mean * multiplier

    def in_integers(self):
        """Integer weights, and multiplier and offset (F', C') that the scale of the weights and the
        bias have joined."""
        multiplier, offset = self.folded()
        with torch.no_grad():
            scale = row_scales(self.weight.reshape(self.shape.out_channels, -1))
        offset = offset + multiplier * self.bias.reshape(-1, 1, 1)
        multiplier = multiplier * scale.reshape(-1, 1, 1)
        return (accelerate.IntegerRows.apply(self.weight, scale),
                multiplier.squeeze(1).t().contiguous(), offset.squeeze(1).t().contiguous())

    def forward(self, x, path: str = "plain"):
        """(B, C, T, F) -> (B, C', T - 2, F'): only frames whose whole window is given."""
        if path == "amx":
            weight, multiplier, offset = self.in_integers()
            weight = weight.bfloat16().contiguous(memory_format=torch.channels_last)
            y = F.conv2d(x, weight, None, stride=(1, self.shape.freq_stride),
                         padding=(0, self.shape.freq_pad))
            return accelerate.NormClamp.apply(y, multiplier, offset, ACTIVATION_LIMIT)
        multiplier, offset = self.folded()
        return torch.addcmul(offset, self.convolve(x), multiplier).clamp(0, ACTIVATION_LIMIT)


class GruPair(nn.Module):
    """Two GRUs side by side, each over its own half of the input."""

    def __init__(self, inputs: int, hidden: int):
        super().__init__()
        self.weight_ih = nn.Parameter(torch.empty(2, 3 * hidden, inputs))
        self.weight_hh = nn.Parameter(torch.empty(2, 3 * hidden, hidden))
        self.bias_ih = nn.Parameter(torch.empty(2, 3 * hidden))
        self.bias_hh = nn.Parameter(torch.empty(2, 3 * hidden))
        for p in self.parameters():
            nn.init.uniform_(p, -1 / math.sqrt(hidden), 1 / math.sqrt(hidden))

    def forward(self, x, h0, path: str = "plain"):
        """x (2, T, B, I), h0 (2, B, H) -> states (2, T, B, H)."""
        _, steps, batch, inputs = x.shape
        xq = quantise(x, Q11)
        w_ih, w_hh = quantise(self.weight_ih, GRU_STEP), quantise(self.weight_hh, GRU_STEP)
        if path != "plain":
            return accelerate.GruPairLoop.apply(path, xq, w_ih, w_hh, self.bias_ih, self.bias_hh, h0)
        gates = torch.baddbmm(self.bias_ih.unsqueeze(1), xq.reshape(2, steps * batch, inputs),
                              w_ih.transpose(1, 2)).reshape(2, steps, batch, -1).transpose(0, 1)
        return _GruPairRecurrence.apply(gates, w_hh.transpose(1, 2), self.bias_hh.unsqueeze(1),
                                        h0).transpose(0, 1)


class Denoiser(nn.Module):
    def __init__(self):
        super().__init__()
        self.convs = nn.ModuleList(ConvBlock(shape) for shape in SHAPE.convs)
        last = SHAPE.convs[-1]
        self.half = last.out_width // 2
        self.gru1 = GruPair(SHAPE.gru1_inputs, SHAPE.hidden)
        self.gru2 = GruPair(SHAPE.gru2_inputs, SHAPE.hidden)
        self.head = nn.Linear(2 * SHAPE.hidden, SHAPE.bands)
        nn.init.constant_(self.head.bias, -1.0)
        self.path = accelerate.choose_path()  # in training mode; evaluation takes the exact path

    @staticmethod
    def initial_state(batch: int) -> torch.Tensor:
        return torch.zeros(2, 2, batch, SHAPE.hidden)

    def forward(self, features, state, fresh: torch.Tensor | None = None):
        """features (B, T + 2 * lookahead, 3, bands), state from `initial_state` or the last call
        -> band values 0..1 (B, T, bands) and the new state (no gradient flows through it).

        Streams marked in `fresh` (B,) begin where the engine begins: the first `lookahead` frames of
        their features, which are zero, lie before that, and every layer's history is zero. Without
        it the layers would answer to those frames, and the states that follow differ for seconds."""
        usable = (self.training and _rounding and features.device.type == "cpu" and
                  features.shape[0] % accelerate.BATCH_STEP == 0)
        path = self.path if usable else "plain"
        x = self._convolved(features, fresh, path)
        _, batch, steps, channels, _ = x.shape
        # Channel-major: (half, T, B, channel * positions).
        x = x.transpose(1, 2).reshape(2, steps, batch, channels * self.half)
        h1 = self.gru1(x, state[0], path)
        # Channel shuffle: even elements of both outputs to one GRU, odd elements to the other.
        joined = h1.permute(1, 2, 0, 3).reshape(steps, batch, SHAPE.hidden, 2)
        h2 = self.gru2(joined.permute(3, 0, 1, 2).contiguous(), state[1], path)
        flat = h2.permute(1, 2, 0, 3).reshape(steps, batch, 2 * SHAPE.hidden)
        values = torch.sigmoid(F.linear(flat, quantise_rows(self.head.weight), self.head.bias))
        new_state = torch.stack([h1[:, -1], h2[:, -1]]).detach()
        return values.transpose(0, 1), new_state

    def _convolved(self, features, fresh, path: str):
        """(frequency half, B, T, C, position) of the last convolution."""
        if path in ("avx512", "avx2"):
            parameters = [p for conv in self.convs for p in conv.in_integers()]
            if fresh is None:
                fresh = torch.zeros(len(features), dtype=torch.bool)
            x = accelerate.ConvStack.apply(path, ACTIVATION_LIMIT, features, fresh, *parameters)
            return x.unflatten(2, (2, self.half)).permute(2, 0, 1, 4, 3)
        x = features.permute(0, 2, 1, 3)
        if path == "amx":
            x = x.bfloat16().contiguous(memory_format=torch.channels_last)
        for before, conv in zip(range(SHAPE.lookahead - 1, -1, -1), self.convs):
            x = conv(x, path)
            if fresh is not None and before > 0:
                x = _AtRest.apply(x, fresh, before)
        return x.float().unflatten(3, (2, self.half)).permute(3, 0, 2, 1, 4)

    def whole_scene(self, features: torch.Tensor) -> torch.Tensor:
        """Band values (T, bands) for features (T + lookahead, 3, bands) from the engine's start on."""
        padded = F.pad(features, (0, 0, 0, 0, SHAPE.lookahead, 0)).unsqueeze(0)
        return self(padded, self.initial_state(1), torch.ones(1, dtype=torch.bool))[0][0]

    @staticmethod
    def set_quantised(on: bool) -> None:
        """Switches all rounding on (the default) or off, for every network of the process."""
        global _rounding
        _rounding = on

    def constrain(self) -> None:
        """Keeps the masters inside what the formats hold; call after every optimiser step."""
        with torch.no_grad():
            for conv in self.convs:
                conv.weight.clamp_(-1, 1)
            for pair in (self.gru1, self.gru2):
                for w in (pair.weight_ih, pair.weight_hh):
                    w.clamp_(-128 / GRU_STEP, 127 / GRU_STEP)
                for b in (pair.bias_ih, pair.bias_hh):
                    b.clamp_(-0.5, 0.5)

    def calibrate(self, features: torch.Tensor) -> None:
        """Sets every normalisation to the statistics of `features`, layer after layer."""
        with torch.no_grad():
            x = features.permute(0, 2, 1, 3)
            for conv in self.convs:
                y = conv.convolve(x)
                conv.mean.copy_(y.mean((0, 2)).unsqueeze(1))
                conv.var.copy_(y.var((0, 2)).unsqueeze(1).clamp_min(1e-6))
                x = conv(x)

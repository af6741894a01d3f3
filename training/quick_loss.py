"""The loss's way over the bins in the helper (native/quick_loss.cpp), with a pass where PyTorch takes
one per operation. The same as the methods of these names in loss.py, which are the reference."""

import ctypes

import torch
import torch.nn.functional as F

from training.accelerate import helper, pointers
from training.library import RULE, SHAPE

TABLE = -(-SHAPE.bins // 16) * 16  # tables go over whole vectors


class _Rule(ctypes.Structure):
    """se_training_gain_rule"""

    _fields_ = [*((name, ctypes.c_int) for name in ("rows", "bins", "bands")),
                *((name, ctypes.c_float) for name in ("gate", "leak", "holds_speech")),
                *((name, ctypes.c_void_p) for name in ("band", "own", "next", "make_up"))]


class _Loss(ctypes.Structure):
    """se_training_loss"""

    _fields_ = [*((name, ctypes.c_int) for name in ("rows", "bins", "octaves")),
                *((name, ctypes.c_float) for name in ("exponent", "floor", "magnitude", "complex")),
                *((name, ctypes.c_void_p) for name in ("weights", "ceilings", "compressed", "edges"))]


def _table(values: torch.Tensor, kind=torch.float32) -> torch.Tensor:
    return F.pad(values.to(kind), (0, TABLE - SHAPE.bins)).contiguous()


class QuickLoss:
    def __init__(self, path: str, rule, weights, bins, octaves, exponent, floor, holds_speech):
        """`rule`, `weights`, `bins` and `octaves` are those of the Loss; `path` "avx512" or "avx2"."""
        self.path = path
        expansion = rule.expansion  # (bands, bins), two neighbouring bands to a bin
        band = (expansion > 0).int().argmax(0).clamp_max(SHAPE.bands - 2)
        own, following = (expansion.gather(0, (band + i)[None])[0] for i in (0, 1))
        if not torch.equal(own + following, expansion.sum(0)):
            raise ValueError("a bin takes more than two neighbouring bands")
        ceilings = rule.ceiling(torch.tensor([False, True]))
        edges = torch.tensor([*octaves.argmax(0), int(octaves.sum()) + int(octaves[:, 0].argmax())])
        # What the helper points into: kept here.
        self.tables = [_table(band, torch.int32), *map(_table, (own, following, rule.make_up)),
                       *map(_table, (bins, ceilings, ceilings ** exponent)), edges.int()]
        at = pointers(*self.tables)
        self.rule = _Rule(0, SHAPE.bins, SHAPE.bands, RULE.far_end_gate, rule.leak, holds_speech, *at[:4])
        self.loss = _Loss(0, SHAPE.bins, octaves.shape[1], exponent, floor, weights.magnitude,
                          weights.complex, *at[4:])

    def gain(self, values, mixture, target, far_end):
        """(B, T, bands), (B, T, bins) twice, (B, T) -> gain (B, T, bins)."""
        return _Gain.apply(self, values, mixture, target, far_end.to(torch.uint8))

    def aims(self, mixture, target, cosine, far_end):
        bins = [torch.empty_like(mixture) for _ in range(3)]
        frames = [mixture.new_empty(far_end.shape) for _ in range(2)]
        octaves = mixture.new_empty(*far_end.shape, self.loss.octaves)
        far_end = far_end.to(torch.uint8)  # bound to a name: it must outlive the call below
        self.loss.rows = far_end.numel()
        helper("loss_aims", self.path)(ctypes.byref(self.loss), *pointers(
            mixture, target, cosine, far_end, *bins, *frames, octaves))
        return *bins, *frames, octaves

    def sums(self, gain, mixture, target, cosine, far_end, aims, attenuated):
        per_frame = attenuated.float().unsqueeze(1).expand(far_end.shape).contiguous()
        return _Sums.apply(self, gain, mixture, target, cosine, far_end.to(torch.uint8), aims.loud,
                           aims.towards, per_frame)


class _Gain(torch.autograd.Function):
    @staticmethod
    def forward(ctx, quick, values, mixture, target, far_end):
        values, gain = values.contiguous(), torch.empty_like(mixture)
        quick.rule.rows = far_end.numel()
        helper("gain_forward", quick.path)(ctypes.byref(quick.rule), *pointers(
            values, far_end, mixture, target, gain))
        ctx.quick, ctx.saved = quick, (values, far_end)
        return gain

    @staticmethod
    def backward(ctx, grad):
        values, far_end = ctx.saved
        grad, out = grad.contiguous(), torch.empty_like(values)
        ctx.quick.rule.rows = far_end.numel()
        helper("gain_backward", ctx.quick.path)(ctypes.byref(ctx.quick.rule), *pointers(
            values, far_end, grad, out))
        return None, out, None, None, None


class _Sums(torch.autograd.Function):
    @staticmethod
    def forward(ctx, quick, gain, mixture, target, cosine, far_end, loud, towards, attenuated):
        frames = [gain.new_empty(far_end.shape) for _ in range(3)]
        octaves = gain.new_empty(*far_end.shape, quick.loss.octaves)
        slope = torch.empty_like(gain)
        quick.loss.rows = far_end.numel()
        helper("loss_forward", quick.path)(ctypes.byref(quick.loss), *pointers(
            gain, mixture, target, cosine, far_end, loud, towards, attenuated, *frames, octaves, slope))
        ctx.quick, ctx.saved = quick, (gain, loud, towards, slope)
        return *frames, octaves

    @staticmethod
    def backward(ctx, *grads):
        grads = [g.contiguous() for g in grads]  # bound to a name: they must outlive the call below
        out = torch.empty_like(ctx.saved[0])
        ctx.quick.loss.rows = grads[0].numel()
        helper("loss_backward", ctx.quick.path)(ctypes.byref(ctx.quick.loss), *pointers(
            *ctx.saved, *grads, out))
        return None, out, None, None, None, None, None, None, None

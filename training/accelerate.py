"""Quick paths of a training step on CPUs that have what they need, beside the plain one in network.py:

    amx     native/accelerate.h: GRU loops in tiles, convolutions by PyTorch in bf16
    avx512  native/quick_step.h: forward in the engine's integers, backward in bf16
    avx2    the same, backward in float

The environment variable SE_TRAINING_PATH forces one of them, or "plain"."""

import ctypes
import os

import torch
import torch.nn.functional as F

from training.library import SHAPE, native

BATCH_STEP = 16  # the loops take whole tiles of streams
Q10, Q11 = 1024.0, 2048.0


def paths() -> list[str]:
    """Those that this CPU has, the quickest first."""
    has = {"amx": native.se_training_has_amx(),
           **{name: native.se_training_has_path(name.encode()) for name in ("avx512", "avx2")}}
    return [name for name, there in has.items() if there] + ["plain"]


def choose_path() -> str:
    there = paths()
    path = os.environ.get("SE_TRAINING_PATH", there[0])
    if path not in there:
        raise SystemExit(f"error: SE_TRAINING_PATH={path}: this CPU has {', '.join(there)}")
    return path


def vector_path(path: str) -> str:
    """The path for what has no kernel of its own for AMX."""
    return next(p for p in paths() if p != "amx") if path == "amx" else path


def helper(name: str, path: str):
    """The function of the helper for a path."""
    return getattr(native, f"se_training_{name}" + ("" if path == "amx" else f"_{path}"))


def pointers(*tensors):
    for t in tensors:
        assert t.is_contiguous() or t.is_contiguous(memory_format=torch.channels_last)
    return [ctypes.c_void_p(t.data_ptr()) for t in tensors]


class IntegerRows(torch.autograd.Function):
    """Weights as the integers -127..127 they are stored as; gradient straight through."""

    @staticmethod
    def forward(ctx, w, scale):
        scale = scale.reshape(-1, *[1] * (w.dim() - 1))
        ctx.save_for_backward(scale)
        return torch.round(w / scale)

    @staticmethod
    def backward(ctx, grad):
        return grad / ctx.saved_tensors[0], None


class _Conv(ctypes.Structure):
    """se_training_conv"""

    _fields_ = [(name, ctypes.c_int) for name in (
        "batch", "steps", "in_width", "in_channels", "out_width", "out_channels", "kernel_freq",
        "freq_stride", "freq_pad", "out_pad", "rest")] + [
            (name, ctypes.c_float) for name in ("in_scale", "out_scale", "limit")]


class ConvStack(torch.autograd.Function):
    """All convolution layers with normalisation and clamp, activations in the engine's fixed point.

    features (B, T + 10, C, F) and, of each layer, integer weights, multiplier and offset (F', C')
    -> (B, T, F', C') in Q11. `fresh` (B,): see Denoiser.forward."""

    @staticmethod
    def forward(ctx, path, limit, features, fresh, *parameters):
        batch, frames, channels, width = features.shape
        pad = SHAPE.convs[0].freq_pad
        # A channel of zeros makes the channels even.
        x = torch.zeros(batch, frames, width + 2 * pad, channels + 1, dtype=torch.int16)
        x[:, :, pad:-pad, :-1] = (features * Q10).round_().clamp_(-32768, 32767).transpose(2, 3)
        ctx.path, ctx.fresh = path, fresh.to(torch.uint8).contiguous()
        ctx.layers = []
        for i, shape in enumerate(SHAPE.convs):
            weights, multiplier, offset = (p.contiguous() for p in parameters[3 * i:3 * i + 3])
            weights = F.pad(weights, (0, 0, 0, 0, 0, x.shape[3] - weights.shape[1]))
            last = i == len(SHAPE.convs) - 1
            steps = x.shape[1] - 2
            conv = _Conv(batch, steps, shape.in_width, x.shape[3], shape.out_width,
                         shape.out_channels, shape.kernel_freq, shape.freq_stride, shape.freq_pad,
                         0 if last else SHAPE.convs[i + 1].freq_pad, SHAPE.lookahead - 1 - i,
                         Q10, Q11 if last else Q10, limit)
            sums = torch.empty(batch, steps, shape.out_width, shape.out_channels)
            out = torch.empty(batch, steps, shape.out_width + 2 * conv.out_pad, shape.out_channels,
                              dtype=torch.int16)
            helper("conv_forward", path)(ctypes.byref(conv), *pointers(
                x, weights, multiplier, offset, ctx.fresh, sums, out))
            ctx.layers.append((conv, x, weights, multiplier, offset, sums))
            x = out
        return x / Q11

    @staticmethod
    def backward(ctx, grad):
        gradients = []
        for i, (conv, x, weights, multiplier, offset, sums) in reversed(
                list(enumerate(ctx.layers))):
            grad = grad.contiguous()
            own = [torch.empty_like(t) for t in (weights, multiplier, offset)]
            grad_x = torch.empty(conv.batch, conv.steps + 2, conv.in_width, conv.in_channels)
            at = pointers(x, weights, multiplier, offset, ctx.fresh, sums, grad, *own, grad_x)
            if i == 0:
                at[-1] = None
            helper("conv_backward", ctx.path)(ctypes.byref(conv), *at)
            own[0] = own[0][:, :SHAPE.convs[i].in_channels]
            gradients = own + gradients
            grad = grad_x
        return None, None, None, None, *gradients


class NormClamp(torch.autograd.Function):
    """clamp(y * multiplier + offset, 0, limit): y (B, C, T, F) bf16, channels last; multiplier and
    offset (F, C)."""

    @staticmethod
    def forward(ctx, y, multiplier, offset, limit):
        batch, channels, steps, width = y.shape
        y = y.contiguous(memory_format=torch.channels_last)
        out = torch.empty_like(y)
        native.se_training_norm_clamp(ctypes.c_int64(batch * steps), channels * width,
                                      ctypes.c_float(limit), *pointers(y, multiplier, offset, out))
        ctx.save_for_backward(y, multiplier, offset)
        ctx.limit = limit
        return out

    @staticmethod
    def backward(ctx, grad):
        y, multiplier, offset = ctx.saved_tensors
        batch, channels, steps, width = y.shape
        grad = grad.contiguous(memory_format=torch.channels_last)
        grad_y = torch.empty_like(y)
        grad_multiplier, grad_offset = torch.empty_like(multiplier), torch.empty_like(offset)
        native.se_training_norm_clamp_backward(
            ctypes.c_int64(batch * steps), channels * width, ctypes.c_float(ctx.limit),
            *pointers(y, multiplier, offset, grad, grad_y, grad_multiplier, grad_offset))
        return grad_y, grad_multiplier, grad_offset, None


class GruPairLoop(torch.autograd.Function):
    """A pair of GRUs: x (2, T, B, I) in Q11, quantised weights, h0 (2, B, H) -> (2, T, B, H)."""

    @staticmethod
    def forward(ctx, path, x, w_ih, w_hh, b_ih, b_hh, h0):
        _, steps, batch, inputs = x.shape
        hidden = SHAPE.hidden
        states = x.new_empty(2, steps + 1, batch, hidden)
        states[:, 0] = h0
        gates = x.new_empty(2, steps, batch, 3 * hidden)
        recurrent = x.new_empty(2, steps, batch, hidden)
        helper("gru_forward", path)(steps, batch, inputs,
                                     *pointers(x, w_ih, w_hh, b_ih, b_hh, states, gates,
                                                recurrent))
        ctx.path = path
        ctx.save_for_backward(x, w_ih, w_hh, states, gates, recurrent)
        return states[:, 1:]

    @staticmethod
    def backward(ctx, grad_states):
        x, w_ih, w_hh, states, gates, recurrent = ctx.saved_tensors
        _, steps, batch, inputs = x.shape
        grad_states = grad_states.contiguous()  # bound to a name: it must outlive the call below
        grad_x = torch.empty_like(x)
        if ctx.path != "amx":
            own = [torch.empty_like(w) for w in (w_ih, w_hh)]
            own += [torch.empty(w.shape[:2]) for w in (w_ih, w_hh)]
            helper("gru_backward", ctx.path)(steps, batch, inputs, *pointers(
                grad_states, x, w_ih, w_hh, states, gates, recurrent, grad_x, *own))
            return None, grad_x, *own, None
        grad_in = torch.empty_like(gates, dtype=torch.bfloat16)
        grad_rec = torch.empty_like(grad_in)
        native.se_training_gru_backward(steps, batch, inputs,
                                        *pointers(grad_states, w_ih, w_hh, states,
                                                   gates, recurrent, grad_x, grad_in, grad_rec))

        def parameter_gradients(gradient, values):
            """Of the weights and, by a column of ones, of the bias."""
            rows = steps * batch
            values = F.pad(values.reshape(2, rows, -1).bfloat16(), (0, 1), value=1.0)
            flat = gradient.reshape(2, rows, -1)
            both = torch.stack([flat[i].t() @ values[i] for i in range(2)]).float()
            return both[..., :-1], both[..., -1]

        grad_w_ih, grad_b_ih = parameter_gradients(grad_in, x)
        grad_w_hh, grad_b_hh = parameter_gradients(grad_rec, states[:, :-1])
        return None, grad_x, grad_w_ih, grad_w_hh, grad_b_ih, grad_b_hh, None

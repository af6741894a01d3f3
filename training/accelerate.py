"""The quick path of a training step on CPUs with AMX: see native/accelerate.h.

Same functions as the plain path in network.py, with products in bf16 and sums in float."""

import ctypes

import torch
import torch.nn.functional as F

from training.library import SHAPE, native

BATCH_STEP = 16  # the GRU loop takes whole tiles of streams


def available() -> bool:
    return bool(native.se_training_has_amx())


def _pointers(*tensors):
    for t in tensors:
        assert t.is_contiguous() or t.is_contiguous(memory_format=torch.channels_last)
    return [ctypes.c_void_p(t.data_ptr()) for t in tensors]


class IntegerRows(torch.autograd.Function):
    """Weights as the integers -127..127 they are stored as, in bf16; gradient straight through."""

    @staticmethod
    def forward(ctx, w, scale):
        scale = scale.reshape(-1, *[1] * (w.dim() - 1))
        ctx.save_for_backward(scale)
        return torch.round(w / scale).bfloat16().contiguous(memory_format=torch.channels_last)

    @staticmethod
    def backward(ctx, grad):
        return grad.float() / ctx.saved_tensors[0], None


class NormClamp(torch.autograd.Function):
    """clamp(y * multiplier + offset, 0, limit): y (B, C, T, F) bf16, channels last; multiplier and
    offset (F, C)."""

    @staticmethod
    def forward(ctx, y, multiplier, offset, limit):
        batch, channels, steps, width = y.shape
        y = y.contiguous(memory_format=torch.channels_last)
        out = torch.empty_like(y)
        native.se_training_norm_clamp(ctypes.c_int64(batch * steps), channels * width,
                                      ctypes.c_float(limit), *_pointers(y, multiplier, offset, out))
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
            *_pointers(y, multiplier, offset, grad, grad_y, grad_multiplier, grad_offset))
        return grad_y, grad_multiplier, grad_offset, None


class GruPairLoop(torch.autograd.Function):
    """A pair of GRUs: x (2, T, B, I) in Q11, quantised weights, h0 (2, B, H) -> (2, T, B, H)."""

    @staticmethod
    def forward(ctx, x, w_ih, w_hh, b_ih, b_hh, h0):
        _, steps, batch, inputs = x.shape
        hidden = SHAPE.hidden
        states = x.new_empty(2, steps + 1, batch, hidden)
        states[:, 0] = h0
        gates = x.new_empty(2, steps, batch, 3 * hidden)
        recurrent = x.new_empty(2, steps, batch, hidden)
        native.se_training_gru_forward(steps, batch, inputs,
                                       *_pointers(x, w_ih, w_hh, b_ih, b_hh, states, gates,
                                                  recurrent))
        ctx.save_for_backward(x, w_ih, w_hh, states, gates, recurrent)
        return states[:, 1:]

    @staticmethod
    def backward(ctx, grad_states):
        x, w_ih, w_hh, states, gates, recurrent = ctx.saved_tensors
        _, steps, batch, inputs = x.shape
        grad_states = grad_states.contiguous()  # bound to a name: it must outlive the call below
        grad_x = torch.empty_like(x)
        grad_in = torch.empty_like(gates, dtype=torch.bfloat16)
        grad_rec = torch.empty_like(grad_in)
        native.se_training_gru_backward(steps, batch, inputs,
                                        *_pointers(grad_states, w_ih, w_hh, states,
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
        return grad_x, grad_w_ih, grad_w_hh, grad_b_ih, grad_b_hh, None

// The RWKV operators: the attention of v4 and v5 over a sequence, and the time shift.
//
// Tensors are read from their first element on as if they lay there without gaps, whatever their strides; only key, value
// and receptance of v5 have strides, those of key. Shapes follow from `key` or `hidden` alone, and so does the element type:
// that of other activations is not compared. What is compared is memory, of which each tensor must have enough on the XPU of
// the others.
//
// The states are updated in place by the time that the stream has run the call.
#pragma once

#include <ATen/core/Tensor.h>

namespace quillon {

// key, value (B, T, C), time_decay, time_first (C): float32 or float16; num_state, den_state, max_state (B, C): float32.
// Returns (B, T, C). C is a multiple of 32.
at::Tensor rwkv_linear_attention_v4(at::Tensor time_decay, at::Tensor time_first, at::Tensor key, at::Tensor value,
                                    at::Tensor num_state, at::Tensor den_state, at::Tensor max_state);

// receptance, key, value (B, H, T, 64), time_decay, time_first (H, 64), state (B, H, 64, 64): float32.
// Returns (B, T, H, 64).
at::Tensor rwkv_linear_attention_v5(at::Tensor time_decay, at::Tensor time_first, at::Tensor receptance, at::Tensor key,
                                    at::Tensor value, at::Tensor state);

// hidden, shifted (B, S, C), mix (M, C): float32 or float16. Returns (M, B, S, C). C is a multiple of 64.
at::Tensor rwkv_time_shift(at::Tensor hidden, at::Tensor shifted, at::Tensor mix);

}  // namespace quillon

"""Operators on packed low-bit weights, on XPU tensors. All arguments are positional."""

import torch

def forward_new(input: torch.Tensor, weight: torch.Tensor, qtype: int, input_size: int, /) -> torch.Tensor:
    """Linear forward with a packed weight: ``input @ W.T``.

    input       (batch, state_size), float32, float64, float16 or bfloat16, contiguous, on an XPU
    weight      uint8, one dimension, the bytes of W (output_size by state_size) in format ``qtype``, on the same XPU
    input_size  a hint for low-memory roads: tokens of the prompt; give the number of rows when in doubt
    Returns (batch, output_size) of the element type of ``input``.
    """

def dequant(input: torch.Tensor, weight: torch.Tensor, qtype: int, /) -> torch.Tensor:
    """Expand a packed weight to (output_size, state_size) of the element type of ``input``.

    input   read for ``size(1)``, which is state_size, its element type and its device alone
    weight  uint8, one dimension, on the same XPU, in q4_0, q4_1, q8_0, nf4, fp4, fp8_e5m2 or iq2_xxs
    state_size must be a multiple of 64. Of a weight that ends inside a super-block the elements behind the last whole
    one are NaN.
    """

def mlp_forward_xpu(
    input: torch.Tensor,
    weight1: torch.Tensor,
    weight2: torch.Tensor,
    batch_size: int,
    state_size: int,
    output_size: int,
    act_type: int,
    qtype: int,
    /,
) -> torch.Tensor:
    """Gate and up products of an MLP with one activation row, and their activation, in one launch.

    input             float32, float64, float16 or bfloat16; its first state_size elements are read
    weight1, weight2  uint8, the bytes of gate and up projection (output_size by state_size) in format ``qtype``: q4_0,
                      fp4, fp8_e5m2, fp6, q4_0_woq, or on classes elm and legacy iq2_xxs
    batch_size        rows of the result, of which the first alone is computed
    act_type          0: SiLU, (g * u) / (exp(-g) + 1); else (g / 2) * (tanh(C1 * g + C2 * g^3) + 1) * u, where C2, not
                      its product with C1, comes onto the cube
    Returns (batch_size, output_size) of the element type of ``input``. In q4_0, q4_0_woq and fp4 the last rows that do
    not fill a tile, of two or on class legacy of eight (fp4: two), are not computed.
    """

def rwkv_linear_attention_v4(
    time_decay: torch.Tensor,
    time_first: torch.Tensor,
    key: torch.Tensor,
    value: torch.Tensor,
    num_state: torch.Tensor,
    den_state: torch.Tensor,
    max_state: torch.Tensor,
    /,
) -> torch.Tensor:
    """Attention of RWKV v4 over a sequence; the three states are updated in place.

    key, value              (B, T, C), float32 or float16; C a multiple of 32
    time_decay, time_first  (C,); added to an exponent at each step, and the bonus of the current token
    the states              (B, C), float32: numerator, denominator, and the largest exponent so far
    Returns (B, T, C). All are read from their first element on as dense arrays of the element type of ``key``, whatever
    their own shapes, strides and types, as far as they have memory.
    """

def rwkv_linear_attention_v5(
    time_decay: torch.Tensor,
    time_first: torch.Tensor,
    receptance: torch.Tensor,
    key: torch.Tensor,
    value: torch.Tensor,
    state: torch.Tensor,
    /,
) -> torch.Tensor:
    """Attention of RWKV v5 over a sequence, in float32; ``state`` is updated in place.

    receptance, key, value  (B, H, T, 64), all with the strides of ``key``
    time_decay, time_first  (H, 64); multiplied onto the state at each step, and the bonus of the current token
    state                   (B, H, 64, 64); rows are key channels
    Returns (B, T, H, 64).
    """

def rwkv_time_shift(hidden: torch.Tensor, shifted: torch.Tensor, mix: torch.Tensor, /) -> torch.Tensor:
    """Time shift of RWKV: ``shifted + mix[m] * (hidden - shifted)`` for each m.

    hidden, shifted  (B, S, C), float32 or float16, of which each operation is rounded; C a multiple of 64
    mix              (M, C)
    Returns (M, B, S, C).
    """

def dequantize_rows(
    input: torch.Tensor, weight: torch.Tensor, qtype: int, state_size: int, output_size: int, /
) -> torch.Tensor:
    """Expand the rows of a packed (output_size by state_size) weight that ``input`` names, as float32.

    input   int64, (rows0, rows1), row numbers, on an XPU; 32 bits of a number count
    weight  uint8, one dimension, on the same XPU, in q2_k or q4_k
    Returns (rows0, rows1, state_size). The call does not wait for a look at the numbers: what a number leads to outside
    of the weight is NaN. state_size must be a multiple of 64; of rows that are no multiple of 256 only whole
    super-blocks are expanded, one row behind the other at as many elements, and the rest of the result is NaN.
    """

def get_moe_indexes(ids: torch.Tensor, num_experts: int, /) -> list[list[list[int]]]:
    """For each expert, the tokens that go to it.

    ids  int32 (tokens, top-k slots), contiguous; entries from 0 to num_experts - 1
    Returns ``[slots, tokens]``, each with one list per expert: columns and rows of its occurrences in scan order.
    """

def get_xpu_device_name(device: torch.device, /) -> str:
    """Return the class of an XPU: oak, elm, ash, fir, yew, bay, legacy or unknown."""

"""An embedding that keeps its table packed."""

from __future__ import annotations

from typing import TYPE_CHECKING

import torch
from torch import Tensor, nn

from quillon._kernels import EXPANSIONS
from quillon.expansion import dequantize_where_it_is
from quillon.formats import Format, weight_bytes, weight_format
from quillon.quantizers import quantize

if TYPE_CHECKING:
    from quillon.parallel import Split

__all__ = ["EMBEDDING_FORMATS", "LowBitEmbedding"]

EMBEDDING_FORMATS: tuple[str, ...] = tuple(kernel.format for kernel in EXPANSIONS if kernel.operation == "rows")
"""Formats of which the device can expand single rows."""


class LowBitEmbedding(nn.Module):
    """A table of rows, kept packed, of which the device expands those that are asked for.

    Made by :meth:`from_embedding`, or empty from shapes to be filled by ``load_state_dict``.

    Buffer: ``packed``, uint8, one dimension, the bytes of the table. It moves with ``.to(device)``; ``.half()`` and the
    like leave it alone and choose the element type of the output, float32 at first.

    The input has row numbers of any shape, int64 or int32, on an XPU; the output has one dimension more, embedding_dim.
    Nothing waits for a look at the numbers: a row number out of range gives a row of NaN. The table is not trained.
    """

    packed: Tensor
    like: Tensor
    split: Split | None = None
    """Which of the rows this process has, if several share the table (:mod:`quillon.parallel`)."""

    def __init__(self, num_embeddings: int, embedding_dim: int, format: str | int) -> None:
        """Make a table of zero bytes.

        Raises ``ValueError`` for a format whose rows the device cannot expand, or an ``embedding_dim`` that the format
        does not cover.
        """
        super().__init__()
        for name, value in (("num_embeddings", num_embeddings), ("embedding_dim", embedding_dim)):
            if not isinstance(value, int) or isinstance(value, bool):
                raise TypeError(f"{name} must be an integer, got {value!r}")
        self.format = _row_format(format)
        multiple = self.format.elements
        if embedding_dim % multiple:
            raise ValueError(
                f"embedding_dim must be a multiple of {multiple} for {self.format.name}, got {embedding_dim}"
            )
        self.num_embeddings = num_embeddings
        self.embedding_dim = embedding_dim
        size = weight_bytes(self.format.name, num_embeddings, embedding_dim)
        self.register_buffer("packed", torch.zeros(size, dtype=torch.uint8))
        self.register_buffer("like", torch.empty(0), persistent=False)

    @classmethod
    def from_embedding(cls, embedding: nn.Embedding, format: str | int) -> LowBitEmbedding:
        """Pack the table of an embedding. The result lies on its device and gives its element type."""
        if embedding.max_norm is not None:
            raise ValueError("an embedding with max_norm changes its table when it is read, and cannot be packed")
        weight = embedding.weight.detach()
        layer = cls(embedding.num_embeddings, embedding.embedding_dim, format)
        layer.packed = quantize(weight, layer.format.name).to(weight.device)
        layer.like = weight.new_empty(0)
        return layer.train(embedding.training)

    def forward(self, input: Tensor) -> Tensor:
        """Look up ``input``, (...); gives (..., embedding_dim)."""
        if input.dtype not in (torch.int64, torch.int32):
            raise TypeError(f"input must be int64 or int32, got {input.dtype}")
        if input.device.type != "xpu":
            raise ValueError(f"input must be on an XPU, where the packed kernels run, got device {input.device}")
        if self.packed.device != input.device:
            raise ValueError(
                f"input is on {input.device} and the layer on {self.packed.device}; both must be on one device"
            )
        index, split = input.reshape(1, -1).to(torch.int64).contiguous(), self.split
        count, elsewhere = self.num_embeddings, None
        if split is not None:
            count = len(split.share)
            local = index - split.share.start
            elsewhere = ((local < 0) | (local >= count)) & (index >= 0) & (index < split.size)
            index = torch.where(elsewhere, 0, local)
        rows = torch.ops.quillon.dequantize_rows(index, self.packed, self.format.code, self.embedding_dim, count)
        output: Tensor = rows.view(*input.shape, self.embedding_dim).to(self.like.dtype)
        if split is None or elsewhere is None:
            return output
        return split.sum(output.masked_fill(elsewhere.view(*input.shape, 1), 0))

    def dequantize(self, dtype: torch.dtype = torch.float32) -> Tensor:
        """Return the table that the layer stands for, (num_embeddings, embedding_dim), on the layer's device."""
        return dequantize_where_it_is(self.packed, self.format, self.num_embeddings, self.embedding_dim, dtype)

    def extra_repr(self) -> str:
        """Return the shape and format for ``repr``."""
        text = f"{self.num_embeddings}, {self.embedding_dim}, format={self.format.name}"
        return text if self.split is None else f"{text}, {self.split}"


def _row_format(format: str | int) -> Format:
    found = weight_format(format)
    if found.name not in EMBEDDING_FORMATS:
        raise ValueError(
            f"{found.name} has no expansion of single rows on the device; allowed: {', '.join(EMBEDDING_FORMATS)}"
        )
    return found

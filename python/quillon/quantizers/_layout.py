"""Views of a flat weight tensor by field."""

from __future__ import annotations

import torch

from quillon.formats import Format, field_offsets


def field_views(data: torch.Tensor, fmt: Format, blocks: int) -> dict[str, torch.Tensor]:
    """Field name -> uint8 view (blocks, bytes of the field) into ``data``, for both storage kinds."""
    sizes = dict(fmt.fields)
    return {
        name: data.as_strided((blocks, sizes[name]), (stride, 1), data.storage_offset() + offset)
        for name, (offset, stride) in field_offsets(fmt.name, blocks).items()
    }

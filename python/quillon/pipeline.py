"""Stages of packed models for torch.distributed.pipelining: each process loads the layers of its own."""

from __future__ import annotations

from pathlib import Path
from typing import Any

import torch
from torch import Tensor, nn
from torch.distributed.pipelining import PipelineStage
from transformers import AutoModelForCausalLM
from transformers.distributed.configuration_utils import DistributedConfig

from quillon import peers

__all__ = ["Stage", "load_stage"]


class Stage(nn.Module):
    """The layers of a causal language model that one process of a pipeline has.

    The first stage takes token numbers, (batch, tokens), the others what the stage before gives; the last gives logits,
    (batch, tokens, vocabulary). Nothing is kept from call to call. ``model`` is the model of transformers whose other
    layers are empty: its ``generate`` works too, called in all processes at once.
    """

    def __init__(self, model: Any, first: bool, last: bool) -> None:
        """Take a model that transformers has loaded with ``pp_size``."""
        super().__init__()
        self.model = model
        self.first = first
        self.last = last

    def forward(self, input: Tensor) -> Tensor:
        """Apply the stage's layers."""
        given = {"input_ids" if self.first else "inputs_embeds": input, "use_cache": False}
        output: Tensor
        if self.last:
            output = type(self.model).forward(self.model, **given).logits
        else:
            output = self.model.base_model(**given).last_hidden_state
        return output


def load_stage(folder: str | Path, **options: Any) -> PipelineStage:
    """Load this process's stage of a packed model, of which there are as many as processes, for a schedule.

    ``options`` go to ``AutoModelForCausalLM.from_pretrained``. PyTorch's process group is started if it is not.
    """
    if not torch.distributed.is_initialized():
        torch.distributed.init_process_group()
    count = torch.distributed.get_world_size()
    config = DistributedConfig(pp_size=count)
    model: Any = AutoModelForCausalLM.from_pretrained(folder, distributed_config=config, **options)
    mesh = model._mesh_manager.get_mesh("pp")
    peers.meet(mesh.get_group())
    index = mesh.get_local_rank()
    stage = Stage(model, index == 0, index == count - 1)
    return PipelineStage(stage, index, count, model.device, group=mesh.get_group())

"""Small RWKV models, version 4 and 5: trained for a moment, then run with the operators and with the plain recurrence.

    python examples/rwkv.py                    # both versions
    python examples/rwkv.py --version 5 --train-steps 400

The models read bytes of examples/text.txt. They are trained on the CPU with the recurrence written out in PyTorch,
which has derivatives, and moved to "xpu". There the text is read in pieces of uneven length and continued greedily, by
the functions of quillon.nn, each piece in one launch a layer, and then step by step. Told are the largest difference of
the logits, beside that of the recurrence in float32 from itself in float64, whether both continue the text alike, and
how long the reading took.
"""

from __future__ import annotations

import argparse
import copy
import time
from collections.abc import Callable, Sequence
from dataclasses import dataclass
from pathlib import Path

import torch
from torch import Tensor, nn
from torch.nn import functional

import quillon

TEXT = Path(__file__).with_name("text.txt")
HEAD = 64
PIECES = (1, 7, 64, 200, 33, 1, 1, 150)
"""Lengths in which the text is read: states go from call to call."""


@dataclass(frozen=True)
class Recurrences:
    """The three steps of a model that are not matrix products."""

    attention_v4: Callable[..., Tensor]
    attention_v5: Callable[..., Tensor]
    time_shift: Callable[[Tensor, Tensor, Tensor], Tensor]


def plain_attention_v4(
    decay: Tensor, bonus: Tensor, key: Tensor, value: Tensor, num: Tensor, den: Tensor, top: Tensor
) -> Tensor:
    """RWKV v4 attention (B, T, C), step by step; the states are updated in place."""
    states, outputs = (num, den, top), []
    for k, v in zip(key.unbind(1), value.unbind(1), strict=True):
        largest = torch.maximum(top, bonus + k)
        past, present = torch.exp(top - largest), torch.exp(bonus + k - largest)
        outputs.append((past * num + present * v) / (past * den + present))
        largest = torch.maximum(top + decay, k)
        past, present = torch.exp(top + decay - largest), torch.exp(k - largest)
        num, den, top = past * num + present * v, past * den + present, largest
    for state, last in zip(states, (num, den, top), strict=True):
        state.data.copy_(last.detach())
    return torch.stack(outputs, 1)


def plain_attention_v5(
    decay: Tensor, bonus: Tensor, receptance: Tensor, key: Tensor, value: Tensor, state: Tensor
) -> Tensor:
    """RWKV v5 attention, (B, H, T, 64) to (B, T, H, 64), step by step; the state is updated in place."""
    given, outputs = state, []
    for r, k, v in zip(receptance.unbind(2), key.unbind(2), value.unbind(2), strict=True):
        product = k[..., :, None] * v[..., None, :]
        outputs.append((r[..., None, :] @ (bonus[..., None] * product + state)).squeeze(-2))
        state = product + decay[..., None] * state
    given.data.copy_(state.detach())
    return torch.stack(outputs, 1)


def plain_time_shift(hidden: Tensor, shifted: Tensor, mix: Tensor) -> Tensor:
    """The time shift for several mixes, (M, B, T, C)."""
    return shifted + mix[:, None, None] * (hidden - shifted)


PLAIN = Recurrences(plain_attention_v4, plain_attention_v5, plain_time_shift)
OPERATORS = Recurrences(quillon.nn.rwkv_attention_v4, quillon.nn.rwkv_attention_v5, quillon.nn.rwkv_time_shift)


class TimeMix(nn.Module):
    """The attention of a block."""

    def __init__(self, channels: int, version: int) -> None:
        super().__init__()
        self.version, self.heads = version, channels // HEAD
        shape = (channels,) if version == 4 else (self.heads, HEAD)
        self.mix = nn.Parameter(torch.rand(3, channels))
        self.decay = nn.Parameter(torch.linspace(-4, 1, channels).reshape(shape))
        self.bonus = nn.Parameter(torch.linspace(-1, 1, channels).reshape(shape))
        self.key, self.value, self.receptance, self.output = (
            nn.Linear(channels, channels, bias=False) for _ in range(4)
        )
        self.norm = nn.GroupNorm(self.heads, channels)

    def forward(self, hidden: Tensor, shifted: Tensor, states: Sequence[Tensor], by: Recurrences) -> Tensor:
        for_key, for_value, for_receptance = by.time_shift(hidden, shifted, self.mix)
        key, value, receptance = self.key(for_key), self.value(for_value), self.receptance(for_receptance)
        if self.version == 4:
            attended = by.attention_v4(-torch.exp(self.decay), self.bonus, key, value, *states)
            return self.output(torch.sigmoid(receptance) * attended)
        heads = [one.unflatten(-1, (self.heads, HEAD)).transpose(1, 2) for one in (receptance, key, value)]
        decay = torch.exp(-torch.exp(self.decay))
        attended = by.attention_v5(decay, self.bonus, *heads, *states).flatten(2)
        return self.output(self.norm(attended.flatten(0, 1)).view_as(attended))


class ChannelMix(nn.Module):
    """The feed-forward part of a block."""

    def __init__(self, channels: int) -> None:
        super().__init__()
        self.mix = nn.Parameter(torch.rand(2, channels))
        self.key = nn.Linear(channels, 3 * channels, bias=False)
        self.receptance = nn.Linear(channels, channels, bias=False)
        self.value = nn.Linear(3 * channels, channels, bias=False)

    def forward(self, hidden: Tensor, shifted: Tensor, by: Recurrences) -> Tensor:
        for_key, for_receptance = by.time_shift(hidden, shifted, self.mix)
        return torch.sigmoid(self.receptance(for_receptance)) * self.value(torch.relu(self.key(for_key)).square())


class Block(nn.Module):
    """Attention and feed-forward part with their norms."""

    def __init__(self, channels: int, version: int) -> None:
        super().__init__()
        self.norms = nn.ModuleList([nn.LayerNorm(channels) for _ in range(2)])
        self.time_mix = TimeMix(channels, version)
        self.channel_mix = ChannelMix(channels)


@dataclass
class State:
    """What a block carries from call to call: the last row of each part's input, and the attention's states."""

    last: list[Tensor]
    attention: tuple[Tensor, ...]


class RWKV(nn.Module):
    """A language model over bytes."""

    def __init__(self, version: int, channels: int = 128, layers: int = 3) -> None:
        super().__init__()
        self.version, self.channels = version, channels
        self.embedding = nn.Embedding(256, channels)
        self.blocks = nn.ModuleList([Block(channels, version) for _ in range(layers)])
        self.norm = nn.LayerNorm(channels)
        self.output = nn.Linear(channels, 256, bias=False)

    def start(self, batch: int) -> list[State]:
        """The states before the first byte."""
        like, made = self.embedding.weight, []
        for _ in self.blocks:
            last = [like.new_zeros(batch, 1, self.channels) for _ in range(2)]
            if self.version == 4:
                attention = quillon.nn.rwkv_state_v4(batch, self.channels, like.device)
            else:
                attention = (quillon.nn.rwkv_state_v5(batch, self.channels // HEAD, like.device),)
            made.append(State(last, tuple(one.to(like.dtype) for one in attention)))
        return made

    def forward(self, tokens: Tensor, states: list[State], by: Recurrences) -> Tensor:
        """Logits (B, T, 256) of the bytes (B, T); the states move on."""
        x = self.embedding(tokens)
        for block, state in zip(self.blocks, states, strict=True):
            for part in range(2):
                hidden = block.norms[part](x)
                shifted = torch.cat([state.last[part], hidden[:, :-1]], 1)
                state.last[part] = hidden[:, -1:].detach()
                if part == 0:
                    x = x + block.time_mix(hidden, shifted, state.attention, by)
                else:
                    x = x + block.channel_mix(hidden, shifted, by)
        return self.output(self.norm(x))


def text_tokens() -> Tensor:
    """The text as bytes."""
    return torch.tensor(list(TEXT.read_bytes()))


def train(model: RWKV, steps: int, length: int = 32, batch: int = 8) -> float:
    """Train on windows of the text, by one thread, because its operators are small; gives the last loss."""
    threads = torch.get_num_threads()
    torch.set_num_threads(1)
    text, generator = text_tokens(), torch.Generator().manual_seed(1)
    optimizer = torch.optim.Adam(model.parameters(), 3e-3)
    loss = torch.zeros(())
    for _ in range(steps):
        starts = torch.randint(0, len(text) - length - 1, (batch,), generator=generator)
        windows = torch.stack([text[start : start + length + 1] for start in starts.tolist()])
        logits = model(windows[:, :-1], model.start(batch), PLAIN)
        loss = functional.cross_entropy(logits.flatten(0, 1), windows[:, 1:].flatten())
        optimizer.zero_grad()
        loss.backward()
        optimizer.step()
    torch.set_num_threads(threads)
    return loss.item()


@torch.no_grad()
def read(model: RWKV, tokens: Tensor, by: Recurrences) -> tuple[Tensor, list[State]]:
    """Logits (T, 256) of a text that is read in pieces, and the states behind it."""
    states, parts, start = model.start(1), [], 0
    for length in PIECES:
        parts.append(model(tokens[None, start : start + length], states, by)[0])
        start += length
    return torch.cat(parts), states


@torch.no_grad()
def continue_text(model: RWKV, first: Tensor, states: list[State], by: Recurrences, count: int) -> list[int]:
    """Bytes that follow greedily, each read by a call of its own."""
    token, produced = first.argmax(), []
    for _ in range(count):
        produced.append(token)
        token = model(token.view(1, 1), states, by)[0, 0].argmax()
    return [int(one) for one in produced]


@dataclass(frozen=True)
class Outcome:
    """What both runs gave."""

    difference: float
    """Of the logits, the largest; and that of the recurrence in float32 from itself in float64."""
    own_error: float
    texts: tuple[list[int], list[int]]
    seconds: tuple[float, float]


def compare(model: RWKV, device: torch.device, new_tokens: int) -> Outcome:
    """Read and continue the text by the operators and step by step."""
    tokens = text_tokens()[: sum(PIECES)]
    exact, _ = read(copy.deepcopy(model).double(), tokens, PLAIN)
    model = copy.deepcopy(model).to(device)
    tokens = tokens.to(device)
    logits, texts, seconds = [], [], []
    for by in (OPERATORS, PLAIN):
        read(model, tokens, by)  # compiles the kernels
        torch.xpu.synchronize(device)
        start = time.perf_counter()
        found, states = read(model, tokens, by)
        torch.xpu.synchronize(device)
        seconds.append(time.perf_counter() - start)
        logits.append(found.cpu().double())
        texts.append(continue_text(model, found[-1], states, by, new_tokens))
    difference = float((logits[0] - logits[1]).abs().max())
    return Outcome(difference, float((logits[1] - exact).abs().max()), (texts[0], texts[1]), (seconds[0], seconds[1]))


def main() -> None:
    """Train, compare and print."""
    parser = argparse.ArgumentParser(description=__doc__, formatter_class=argparse.RawDescriptionHelpFormatter)
    parser.add_argument("--version", type=int, choices=(4, 5), help="default: both")
    parser.add_argument("--train-steps", type=int, default=120)
    parser.add_argument("--new-tokens", type=int, default=60)
    parser.add_argument("--device", default="xpu")
    options = parser.parse_args()
    for version in (options.version,) if options.version else (4, 5):
        torch.manual_seed(version)
        model = RWKV(version)
        loss = train(model, options.train_steps)
        outcome = compare(model, torch.device(options.device), options.new_tokens)
        print(f"version      {version}, loss {loss:.2f} after {options.train_steps} steps of training")
        print(f"text         {bytes(outcome.texts[0])!r}")
        print(f"same text    {outcome.texts[0] == outcome.texts[1]}")
        print(f"difference   {outcome.difference:.1e} of the logits; float32 from float64: {outcome.own_error:.1e}")
        ratio = outcome.seconds[1] / outcome.seconds[0]
        print(f"reading      {outcome.seconds[0] * 1e3:.1f} ms, {ratio:.0f} times as fast as step by step")


if __name__ == "__main__":
    main()

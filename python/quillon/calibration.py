"""What meets the layers of a model on a text: the statistics that quantization with error feedback asks for."""

from __future__ import annotations

import fnmatch
import functools
import inspect
import itertools
import json
import logging
import os
import threading
from collections.abc import Callable, Iterable, Iterator, Mapping, Sequence
from concurrent.futures import ThreadPoolExecutor
from pathlib import Path
from typing import Any

import torch
from torch import Tensor, nn

from quillon import nn as layers_of
from quillon._lockstep import Edge, Finished, Pass, current_pass, run_in_step
from quillon._modes import plain_modes
from quillon._named import naming
from quillon._pieces import serial_operators
from quillon.formats import weight_format
from quillon.quantizers import quantize
from quillon.quantizers._progress import Progress
from quillon.quantizers.moments import InputMoments
from quillon.reference import dequantize_reference

__all__ = ["Calibration", "calibrate", "calibration_text", "windows"]

_logger = logging.getLogger("quillon.calibration")

_INDEX = "calibration.json"
_VERSION = 1

# One batch in this many is held out. Of fewer batches than that, this part of each.
_HELD_OUT = 5
# That `windows` makes of whole windows.
_MOST_BATCHES = 256


def calibration_text() -> str:
    """The text that is calibrated on where no other is given: stories, explanations, dialogues, lists and code."""
    return (Path(__file__).parent / "data" / "calibration.txt").read_text(encoding="utf-8")


def say_uncalibrated(names: Sequence[str]) -> None:
    """Warn of layers that were packed as without the calibration that was given, if there are any."""
    if names:
        some = ", ".join(names[:3]) + (", ..." if len(names) > 3 else "")
        _logger.warning("the calibration says nothing of %d layers, packed as without it: %s", len(names), some)


def windows(tokens: Tensor, length: int = 128) -> list[Tensor]:
    """Cut tokens, (1, n) or (n,), into batches (1, length) for :func:`calibrate`; the last may be shorter.

    What models give the first token of a batch is like nothing that any other token has, and all tokens behind attend
    to it: short batches show more first tokens. Of a text of more than 256 such batches, several together are one,
    (rows, length): each batch takes a thread.
    """
    if length < 1:
        raise ValueError(f"length must be positive, got {length}")
    flat = tokens.reshape(-1)
    behind = flat.numel() % length
    whole = flat[: flat.numel() - behind].view(-1, length)
    rows = max(1, -(-whole.shape[0] // _MOST_BATCHES))
    parts = list(torch.split(whole, rows)) if whole.numel() else []
    return [*parts, flat[-behind:][None]] if behind else parts


class Calibration(Mapping[str, InputMoments]):
    """Name of a layer -> the second moments of its inputs. Layers that read the same input share them.

    Made by :func:`calibrate`, saved and loaded as a folder of safetensors, of which one file is read at a time.
    """

    def __init__(self, shares: Mapping[str, str], find: Callable[[str], InputMoments]) -> None:
        """Take the group of each layer, and what finds the moments of a group."""
        self._shares = dict(shares)
        self._find = find
        self._last: tuple[str, InputMoments] | None = None
        self._lock = threading.Lock()

    def __getitem__(self, name: str) -> InputMoments:
        """The moments of a layer's inputs."""
        group = self._shares[name]
        with self._lock:
            if self._last is None or self._last[0] != group:
                if self._last is not None:
                    self._last[1].forget()
                self._last = (group, self._find(group))
            return self._last[1]

    def __iter__(self) -> Iterator[str]:
        """The names of the layers."""
        return iter(self._shares)

    def __len__(self) -> int:
        """How many layers."""
        return len(self._shares)

    def group(self, name: str) -> str:
        """What stands for the input of a layer: the same for layers that read the same one."""
        return self._shares[name]

    def save(self, folder: str | os.PathLike[str]) -> None:
        """Write a folder, which must not exist or be empty."""
        store = _Folder(Path(folder))
        for group in dict.fromkeys(self._shares.values()):
            store.write(group, self._find(group))
        store.close(self._shares)

    @classmethod
    def load(cls, folder: str | os.PathLike[str]) -> Calibration:
        """Read what :meth:`save`, or :func:`calibrate` with a folder, has written; moments when they are asked for."""
        try:
            index = json.loads((Path(folder) / _INDEX).read_text(encoding="utf-8"))
            shares, files = index["shares"], index["files"]
        except (OSError, ValueError, KeyError, TypeError) as problem:
            raise ValueError(f"{folder} holds no calibration: {problem}") from problem
        if index.get("version") != _VERSION:
            raise ValueError(f"{folder} is of version {index.get('version')}; this one reads {_VERSION}")
        return cls(shares, lambda group: _read(Path(folder) / files[group]))


def _read(file: Path) -> InputMoments:
    from safetensors.torch import load_file

    tensors = load_file(file)
    fitted, held, skipped = (int(number) for number in tensors["tokens"])
    return InputMoments(tensors["fitted"], tensors["held"], (fitted, held), skipped)


class _Folder:
    """A folder of statistics that is being written; the index comes last."""

    def __init__(self, folder: Path) -> None:
        folder.mkdir(parents=True, exist_ok=True)
        if any(folder.iterdir()):
            raise FileExistsError(f"{folder} is not empty; name another folder for the calibration")
        self.folder = folder
        self._files: dict[str, str] = {}

    def write(self, group: str, moments: InputMoments) -> None:
        from safetensors.torch import save_file

        name = self._files.setdefault(group, f"{len(self._files):05d}.safetensors")
        tokens = torch.tensor([*moments.tokens, moments.skipped])
        tensors = {"fitted": moments.fitted.contiguous(), "held": moments.held.contiguous(), "tokens": tokens}
        save_file(tensors, self.folder / name, metadata={"input_of": group})

    def read(self, group: str) -> InputMoments:
        return _read(self.folder / self._files[group])

    def close(self, shares: Mapping[str, str]) -> None:
        index = {"version": _VERSION, "shares": dict(shares), "files": self._files}
        part = self.folder / (_INDEX + ".part")
        part.write_text(json.dumps(index, indent=1), encoding="utf-8")
        os.replace(part, self.folder / _INDEX)


# ---- sums ------------------------------------------------------------------------------------------------------------


def _shrinking(sizes: Tensor, numbers: Tensor) -> Tensor:
    """What tokens of squared lengths ``sizes``, of which ``numbers`` are, are multiplied by.

    Models give single tokens, the first one of a text above all, activations hundreds of times as long as all others.
    By the square of its length such a token would rule the sums. An error there costs as much as one elsewhere if it is
    as large in proportion, but it costs all tokens that attend to this one. Between the two, what is longer than the
    median token counts by its length to the power 3/2. By the divergence of next tokens from the dense model's, on
    texts that were not calibrated on, this lost 2 to 17% less than the power 1 in the layers that such tokens meet,
    packed in nf4 and q5_0, and 11 to 33% more in q2_k; the power 0 made a quarter more of all that a model in q4_0
    loses.
    """
    if not bool(numbers.any()):
        return torch.ones_like(sizes)
    return (sizes[numbers].median() / sizes).clamp(max=1).nan_to_num(nan=1.0).sqrt().sqrt().sqrt()


class _Sum:
    """The second moments of one input, added up in the order of the batches whichever is done first."""

    def __init__(self, columns: int) -> None:
        self._sums = torch.zeros(2, columns, columns, dtype=torch.float64)
        self._tokens, self._skipped = [0, 0], 0
        self._next = 0
        self._early: dict[int, list[_Products]] = {}

    def add(self, number: int, found: list[_Products]) -> None:
        """Add what batch ``number`` has found when those before it are in."""
        self._early.setdefault(number, []).extend(found)
        while self._next in self._early:
            self._add(self._early.pop(self._next))
            self._next += 1

    def settle(self) -> None:
        """Add what waits for batches that have not come here, when none is under way."""
        for number in sorted(self._early):
            self._add(self._early.pop(number))
        self._next = 0

    def _add(self, found: list[_Products]) -> None:
        for part, products, tokens, skipped in found:
            self._sums[part] += products
            self._tokens[part] += tokens
            self._skipped += skipped

    def moments(self) -> InputMoments:
        """The sums when all batches are in, or never come here."""
        self.settle()
        fitted, held = self._sums.float()
        return InputMoments(fitted, held, (self._tokens[0], self._tokens[1]), self._skipped)


_Products = tuple[int, Tensor, int, int]
"""Part (0: fitted, 1: held out), products, tokens, and how many were skipped."""


class _Collector:
    """Hooks on layers that add up the products of their inputs."""

    def __init__(self, layers: Mapping[str, Any], batches: int, stop_at: str | None) -> None:
        self.sums: dict[str, _Sum] = {}
        self.shares: dict[str, str] = {}
        self._batches, self._stop_at = batches, stop_at
        self._seen: list[dict[int, tuple[str, Tensor]]] = [{} for _ in range(batches)]
        self._found: list[dict[str, list[_Products]]] = [{} for _ in range(batches)]
        self._taken: set[str] = set()
        self._lock = threading.Lock()
        self._hooks = [
            layer.register_forward_pre_hook(self._hook(name))
            for name, layer in layers.items()
            if not isinstance(layer, _ExpertMatrix)
        ]
        # Module -> what its experts' matrices are called, behind its name, and which of them are asked for.
        mixtures: dict[nn.Module, dict[str, str]] = {}
        for name, layer in layers.items():
            if isinstance(layer, _ExpertMatrix):
                mixtures.setdefault(layer.module, {})[layer.called] = name
        self._hooks += [
            module.register_forward_pre_hook(self._hook_of_experts(its)) for module, its in mixtures.items()
        ]

    def remove(self) -> None:
        """Take the hooks off."""
        for hook in self._hooks:
            hook.remove()

    def _hook(self, name: str) -> Callable[..., None]:
        def look(module: nn.Module, arguments: tuple[Any, ...]) -> None:
            current = current_pass()
            if current is None or current.repeats or not arguments:
                return
            self._look(current.number, name, arguments[0])
            if name == self._stop_at:
                raise Finished

        return look

    def _hook_of_experts(self, names: Mapping[str, str]) -> Callable[..., None]:
        def look(module: Any, arguments: tuple[Any, ...]) -> None:
            current, layout = current_pass(), layers_of._expert_layout(module)
            if current is None or current.repeats or layout is None or len(arguments) < 2:
                return
            hidden, chosen = arguments[0].detach(), arguments[1]
            for number in range(layout.experts):
                rows = hidden[(chosen == number).any(1)]
                names_of = names.get(f"{layout.up}.{number}"), names.get(f"down_proj.{number}")
                if not len(rows) or not any(name is not None and name not in self._taken for name in names_of):
                    continue
                given = rows, layers_of._expert_inner(module, layout, number, rows)
                for name, x in zip(names_of, given, strict=True):
                    if name is not None:
                        self._look(current.number, name, x)

        return look

    def _look(self, number: int, name: str, x: Tensor) -> None:
        if name in self._taken:  # of a layer that several blocks share, what the first one gives it counts
            return
        # The tensor is kept, so that no other one can have its address.
        owner, _ = self._seen[number].setdefault(id(x), (name, x))
        with self._lock:
            if self.shares.setdefault(name, owner) != name:
                return
        rows = x.detach().reshape(-1, x.shape[-1]).to(device="cpu", dtype=torch.float32)
        sizes = rows.square().sum(1)
        numbers = sizes.isfinite()
        rows = rows * _shrinking(sizes, numbers)[:, None]
        if self._batches >= _HELD_OUT:
            parts = [(int(number % _HELD_OUT == _HELD_OUT - 1), rows, numbers)]
        else:
            cut = len(rows) - len(rows) // _HELD_OUT
            parts = [(0, rows[:cut], numbers[:cut]), (1, rows[cut:], numbers[cut:])]
        for part, whole, which in parts:
            good = whole[which]
            products = (good.t() @ good).double()
            found = self._found[number].setdefault(name, [])
            found.append((part, products, len(good), len(whole) - len(good)))

    def hand_over(self, current: Pass) -> None:
        """Take what a pass has found since it did so last."""
        found, self._found[current.number] = self._found[current.number], {}
        self._seen[current.number].clear()
        with self._lock:
            for name, products in found.items():
                if name not in self.sums:
                    self.sums[name] = _Sum(products[0][1].shape[0])
                self.sums[name].add(current.number, products)

    def take(self, names: Iterable[str]) -> tuple[dict[str, str], dict[str, InputMoments]]:
        """What was found of these layers, which is not kept: the group of each, and the moments of the groups."""
        shares = {name: self.shares[name] for name in names if name in self.shares}
        moments = {group: self.sums[group].moments() for group in dict.fromkeys(shares.values())}
        for group in moments:
            del self.sums[group]
        for name in shares:
            del self.shares[name]
        self.skip(shares)
        return shares, moments

    def skip(self, names: Iterable[str]) -> None:
        """Look no more at what meets these layers."""
        self._taken.update(names)


# ---- the pass over the text ------------------------------------------------------------------------------------------


def _blocks_of(model: nn.Module, names: Iterable[str]) -> dict[str, nn.Module]:
    """The modules that a model runs one after another, as far as they hold layers of these names."""
    names, chosen, blocks = list(names), list[str](), dict[str, nn.Module]()
    for name, module in model.named_modules():
        if not isinstance(module, nn.ModuleList | nn.Sequential) or any(_inside(name, outer) for outer in chosen):
            continue
        children = {f"{name}.{key}".lstrip("."): child for key, child in module.named_children()}
        holding = {key: child for key, child in children.items() if any(_inside(one, key) for one in names)}
        if len(holding) > 1:
            chosen.append(name)
            blocks |= holding
    return blocks


def _inside(name: str, outer: str) -> bool:
    return name == outer or name.startswith(f"{outer}.") or not outer


def calls_of(model: nn.Module, batches: Sequence[Any]) -> list[Callable[[], object]]:
    """The calls of a model, one for each batch."""
    tensor = next(itertools.chain(model.parameters(), model.buffers()), None)
    device = torch.device("cpu") if tensor is None else tensor.device
    options = {"use_cache": False} if "use_cache" in inspect.signature(model.forward).parameters else {}

    def moved(value: Any) -> Any:
        return value.to(device) if isinstance(value, Tensor) else value

    def run(batch: Any) -> Callable[[], object]:
        if isinstance(batch, Mapping):
            return lambda: model(**{key: moved(value) for key, value in batch.items()}, **options)
        positional = batch if isinstance(batch, tuple | list) else (batch,)
        return lambda: model(*map(moved, positional), **options)

    return [run(batch) for batch in batches]


Visit = Callable[[dict[str, str], dict[str, InputMoments]], bool]
"""Given the groups of some layers and their moments: whether their weights have changed."""


def _walk(
    model: nn.Module,
    batches: Iterable[Any],
    layers: Mapping[str, Any],
    *,
    enter: Callable[[list[str]], bool],
    visit: Visit,
    left: Callable[[], None],
    progress: bool | None = None,
) -> None:
    """Take all batches through a model, block by block, and add up what meets ``layers``.

    enter  called with the names of a block's layers ahead of the first batch: whether nothing is asked of them
    visit  called when all have been through a block, which they go through again if it has changed
    left   called when they have left it
    """
    given = list(batches)
    if not given:
        raise ValueError("batches must hold at least one batch, got none")
    blocks = _blocks_of(model, layers)
    outside = [name for name in layers if not any(_inside(name, block) for block in blocks)]
    output = getattr(model, "get_output_embeddings", lambda: None)()
    # What the last layer makes of its input, which may be the largest product of all, is of no use here.
    stop_at = outside[0] if len(outside) == 1 and output is layers[outside[0]] else None
    collector = _Collector(layers, len(given), stop_at)
    visited, changed = set[str](), set[str]()
    bar = Progress("calibrate", len(blocks) + bool(outside or not blocks), progress)

    def arrived(edge: Edge | None) -> bool:
        for one in collector.sums.values():
            one.settle()
        if edge is None:
            visit(*collector.take(layers))
            bar.advance(1)
            return False
        kind, name = edge
        inside = [one for one in layers if _inside(one, name)]
        if kind == "before":
            left()
            if name not in visited and enter(inside):
                collector.skip(inside)
            return True
        if name not in visited:
            visited.add(name)
            if visit(*collector.take(inside)):
                changed.add(name)
            bar.advance(1)
        return bool(outside) or len(visited) < len(blocks)

    training = [module for module in model.modules() if module.training]
    model.eval()
    try:
        run_in_step(
            calls_of(model, given), blocks, left=collector.hand_over, again=changed.__contains__, arrived=arrived
        )
    finally:
        left()
        collector.remove()
        bar.close()
        for module in training:
            module.training = True


def _side_by_side(tasks: Sequence[Callable[[], None]]) -> None:
    """Run tasks on as many threads as operators have, each with serial operators."""
    with serial_operators() as threads, ThreadPoolExecutor(threads) as pool:
        for _ in pool.map(lambda task: task(), tasks):
            pass


class _ExpertMatrix:
    """One expert's matrix among a module's parameters of three dimensions, as if it were a layer."""

    def __init__(self, module: nn.Module, parameter: str, number: int, transposed: bool) -> None:
        self.module, self.transposed = module, transposed
        self._parameter, self._number = parameter, number
        self.called = f"{parameter}.{number}"

    @property
    def weight(self) -> Tensor:
        """A copy of the matrix, as the module keeps it; assigned to, it is written there."""
        whole: Tensor = getattr(self.module, self._parameter)
        return whole.detach()[self._number].clone()

    @weight.setter
    def weight(self, values: Tensor) -> None:
        getattr(self.module, self._parameter).detach()[self._number].copy_(values.detach())


def _is_turned(layer: Any) -> bool:
    return layer.transposed if isinstance(layer, _ExpertMatrix) else not isinstance(layer, nn.Linear)


def _matrix(layer: Any) -> Tensor:
    """The weight of a layer, (rows, columns)."""
    weight: Tensor = layer.weight.detach()
    return weight.t() if _is_turned(layer) else weight


def _set_matrix(layer: Any, values: Tensor) -> None:
    weight = layer.weight
    values = values.t() if _is_turned(layer) else values
    values = values.to(device=weight.device, dtype=weight.dtype).contiguous()
    layer.weight = nn.Parameter(values, requires_grad=False)


def _pack_layers(
    layers: Mapping[str, Any],
    shares: Mapping[str, str],
    moments: Mapping[str, InputMoments],
    pack: Callable[[str, Tensor, InputMoments], Tensor],
) -> None:
    """Give each layer the weight that ``pack(name, weight, moments)`` makes of its own, (rows, columns)."""

    def of_group(group: str) -> None:
        for name in (one for one, its in shares.items() if its == group):
            _set_matrix(layers[name], pack(name, _matrix(layers[name]), moments[group]))
        moments[group].forget()

    # The longest first.
    sizes = {
        group: sum(layers[name].weight.numel() for name, its in shares.items() if its == group) for group in moments
    }
    _side_by_side([functools.partial(of_group, group) for group in sorted(sizes, key=lambda one: -sizes[one])])


def calibratable(model: nn.Module) -> dict[str, Any]:
    """The layers of a model whose inputs can be looked at, each expert's matrices among them."""
    found: dict[str, Any] = {}
    for name, module in model.named_modules():
        layout = layers_of._expert_layout(module)
        if not name or layers_of._packed_shapes(module) is None:
            continue
        if layout is None:
            found[name] = module
        else:
            for one in layout.matrices():
                parameter, _, number = one.rpartition(".")
                found[f"{name}.{one}"] = _ExpertMatrix(module, parameter, int(number), layout.transposed)
    return found


def calibrate(
    model: nn.Module,
    batches: Iterable[Any],
    *,
    layers: str | Iterable[str] = "*",
    behind: str | Mapping[str, str] | None = None,
    folder: str | os.PathLike[str] | None = None,
    progress: bool | None = None,
) -> Calibration:
    """Run a model over a text, and add up the products of the inputs of its linear layers.

    model     in its dense form; it is left as it was
    batches   what the model is called with, one by one: a tensor, a tuple of arguments, or a mapping of keywords. See
              :func:`windows` and :func:`calibration_text`
    layers    shell pattern or patterns of layer names. A mixture's experts that are parameters of three dimensions are
              each a layer, ``"model.layers.0.mlp.experts.down_proj.3"`` for example
    behind    a format, or names of layers and their formats: the statistics of every layer are those behind layers
              that are packed already, by their own statistics
    folder    write the statistics there block by block, and keep none of them in memory
    progress  True: show progress on stderr, False: never, None: when stderr is a terminal and it takes long

    One batch in five is held out, by which quantization chooses its settings; of fewer than five batches, the last
    fifth of each. All batches go through a block of the model (a child of a ``ModuleList`` or ``Sequential``) before
    any enters the next, so that one block's statistics are added up at a time. What a layer is given for a token counts
    by the square of its length up to the batch's median length, and by the power 3/2 beyond; tokens with a NaN or an
    infinity among the inputs of a layer do not count there. Deterministic, whatever the number of threads. Raises
    ``ValueError`` for a pattern that matches no layer.
    """
    if not isinstance(model, nn.Module):
        raise TypeError(f"model must be a torch.nn.Module, got {type(model).__name__}")
    patterns = (layers,) if isinstance(layers, str) else tuple(layers)
    every = calibratable(model)
    chosen = {name: one for name, one in every.items() if any(fnmatch.fnmatchcase(name, p) for p in patterns)}
    if not chosen:
        raise ValueError(f"no linear layer matches {', '.join(map(repr, patterns))}; there are {', '.join(every)}")
    store = None if folder is None else _Folder(Path(folder))
    shares: dict[str, str] = {}
    kept: dict[str, InputMoments] = {}

    def look(groups: dict[str, str], moments: dict[str, InputMoments]) -> None:
        shares.update(groups)
        for group, found in moments.items():
            if store is None:
                kept[group] = found
            else:
                store.write(group, found)

    pack_in_step(model, batches, chosen, _formats_of(behind, chosen), look=look, progress=progress)
    if store is None:
        return Calibration(shares, kept.__getitem__)
    store.close(shares)
    return Calibration.load(store.folder)


def pack_in_step(
    model: nn.Module,
    batches: Iterable[Any],
    layers: Mapping[str, Any],
    formats: Mapping[str, str],
    *,
    look: Callable[[dict[str, str], dict[str, InputMoments]], None] = lambda groups, moments: None,
    find: Callable[[str, str], Tensor | None] = lambda name, format: None,
    keep: Callable[[str, str, Tensor], None] = lambda name, format, packed: None,
    progress: bool | None = None,
) -> None:
    """Pack those of ``layers`` that have a format, each by the statistics behind those packed before it.

    look  is given what was found of some layers
    find  the bytes of a layer that were kept before, or None
    keep  is given the bytes of each layer of which the text said something, by several threads

    The model is left as it was.
    """
    originals: dict[str, Tensor] = {}

    def pack(name: str, weight: Tensor, moments: InputMoments) -> Tensor:
        format = formats[name]
        packed = find(name, format)
        if packed is None:
            with naming(name):
                packed = quantize(weight, format, moments=moments, progress=False)
            if moments.usable():
                keep(name, format, packed)
        return dequantize_reference(packed, format, *weight.shape)

    def enter(names: list[str]) -> bool:
        found = {name: find(name, formats[name]) for name in names if name in formats}
        known = {name: packed for name, packed in found.items() if packed is not None}
        if not known or len(known) < len(names):
            return False
        for name, packed in known.items():
            originals[name] = layers[name].weight
            _set_matrix(layers[name], dequantize_reference(packed, formats[name], *_matrix(layers[name]).shape))
        return True

    def visit(groups: dict[str, str], moments: dict[str, InputMoments]) -> bool:
        look(groups, moments)
        packed = {name: group for name, group in groups.items() if name in formats}
        originals.update({name: layers[name].weight for name in packed})
        _pack_layers(layers, packed, moments, pack)
        return bool(packed)

    def left() -> None:
        for name, weight in originals.items():
            layers[name].weight = weight
        originals.clear()

    with plain_modes():
        _walk(model, batches, layers, enter=enter, visit=visit, left=left, progress=progress)


def _columns(layer: Any) -> int:
    return int(_matrix(layer).shape[1])


def _formats_of(behind: str | Mapping[str, str] | None, layers: Mapping[str, Any]) -> dict[str, str]:
    """The format of each layer that is packed; those that a single format does not fit stay dense."""
    if behind is None:
        return {}
    if not isinstance(behind, str):
        return {name: weight_format(format).name for name, format in behind.items() if name in layers}
    format = weight_format(behind)
    fitting = [name for name, layer in layers.items() if _columns(layer) % format.elements == 0]
    return dict.fromkeys(fitting, format.name)

"""Second moments of a layer's inputs, and what quantization with error feedback makes of them."""

from __future__ import annotations

from dataclasses import dataclass, field

from torch import Tensor

from quillon.quantizers.feedback import Feedback, prepare

__all__ = ["InputMoments"]


@dataclass
class InputMoments:
    """Sums of products of the inputs that meet a layer, over the tokens of a text.

    fitted   (columns, columns) float32: the sum over the tokens that quantization is fitted to
    held     the same over tokens by which its settings are chosen
    tokens   how many of either kind
    skipped  how many were left out for a NaN or an infinity among their activations
    """

    fitted: Tensor
    held: Tensor
    tokens: tuple[int, int]
    skipped: int = 0
    _prepared: dict[tuple[object, ...], Feedback] = field(default_factory=dict, repr=False, compare=False)

    def __post_init__(self) -> None:
        """Check the shapes."""
        shape = self.fitted.shape
        if len(shape) != 2 or shape[0] != shape[1] or self.held.shape != shape:
            raise ValueError(
                f"fitted and held must be square and of one shape, got {tuple(shape)} and {tuple(self.held.shape)}"
            )

    @property
    def columns(self) -> int:
        """Length of an input."""
        return int(self.fitted.shape[0])

    def mean(self, of: str = "all") -> Tensor:
        """Mean products of the inputs, float64, over ``all`` tokens, the ``fitted`` or the ``held`` ones."""
        if of == "all":
            return (self.fitted.double() + self.held.double()) / max(sum(self.tokens), 1)
        sums, tokens = (self.fitted, self.tokens[0]) if of == "fitted" else (self.held, self.tokens[1])
        return sums.double() / max(tokens, 1)

    def importance(self) -> Tensor:
        """Mean square of what meets each column, float64 (columns,)."""
        return (self.fitted.diagonal().double() + self.held.diagonal().double()) / max(sum(self.tokens), 1)

    def usable(self) -> bool:
        """Whether any token left a trace, and all that did are numbers."""
        importance = self.importance()
        return bool(importance.isfinite().all()) and bool((importance > 0).any())

    def feedback(self, of: str, damping: float, mixing: float, elements: int, unit: int) -> Feedback:
        """What :func:`quillon.quantizers.feedback.prepare` makes of the moments, made once."""
        key = (of, damping, mixing, elements, unit)
        # Another thread may forget it at any time.
        found = self._prepared.get(key)
        if found is None:
            found = self._prepared[key] = prepare(self.mean(of), damping, mixing, elements, unit)
        return found

    def forget(self) -> None:
        """Free what was prepared."""
        self._prepared.clear()

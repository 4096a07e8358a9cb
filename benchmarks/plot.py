"""Draws docs/formats.svg: what each format costs a weight, and how fast its product is.

    python benchmarks/plot.py [--output docs/formats.svg]

The figures are those of the documentation: errors of docs/formats.md, which benchmarks/format_error.py measured, and
times of docs/performance.md, which benchmarks/matvec.py did. Needs matplotlib, which nothing else here does.
"""

from __future__ import annotations

import argparse
import re
from dataclasses import dataclass
from pathlib import Path

DOCS = Path(__file__).resolve().parents[1] / "docs"
LABELS_TO_THE_LEFT = {"q4_0_woq": 6, "fp4": -1, "q4_1": -4, "q4_k": -6, "q5_0": 2, "q5_k": -4, "fp6": -3}
"""Where another dot would be under a label to the right: how much higher than its dot the label begins, in points."""
SHAPE, DTYPE = "4096x4096", "float32"


@dataclass(frozen=True)
class Point:
    """One format: stored bits of a weight, relative error of normal weights, times the speed of a dense product."""

    format: str
    bits: float
    error: float
    speed: float


def points() -> list[Point]:
    """The formats of the documentation's tables."""
    costs = re.findall(r"^\| (\w+) \| ([\d.]+) \| ([\d.]+) \|", (DOCS / "formats.md").read_text(), re.MULTILINE)
    rows = re.findall(
        rf"^\| {SHAPE} \| {DTYPE} \| (\w+) \| [^|]+\|[^|]+\|[^|]+\|[^|]+\| [^|(]+\(\**([\d.]+)\**\)",
        (DOCS / "performance.md").read_text(),
        re.MULTILINE,
    )
    speeds = {format: float(speed) for format, speed in rows}
    return [Point(name, float(bits), float(error), speeds[name]) for name, bits, error in costs if name in speeds]


def draw(found: list[Point], output: Path) -> None:
    """Write the picture; its type follows from the file's name."""
    import matplotlib

    matplotlib.use("Agg")
    from matplotlib import pyplot
    from matplotlib.ticker import FuncFormatter

    matplotlib.rcParams.update({"svg.fonttype": "none", "svg.hashsalt": "formats", "font.size": 10})
    figure, axes = pyplot.subplots(figsize=(8.4, 5.2))
    dots = axes.scatter(
        [point.speed for point in found],
        [point.error for point in found],
        c=[point.bits for point in found],
        cmap="viridis_r",
        s=70,
        edgecolors="black",
        linewidths=0.5,
        zorder=3,
    )
    axes.set_yscale("log")
    axes.set_ylim(0.004, 0.7)
    axes.set_xlim(min(p.speed for p in found) - 0.35, max(p.speed for p in found) + 0.75)
    for point in found:
        left = point.format in LABELS_TO_THE_LEFT
        axes.annotate(
            point.format,
            (point.speed, point.error),
            xytext=(-7 if left else 7, LABELS_TO_THE_LEFT.get(point.format, -3)),
            textcoords="offset points",
            ha="right" if left else "left",
            fontsize=9,
        )
    axes.set_xlabel("times the speed of a dense float32 product (one row, 4096 by 4096, two processor cores)")
    axes.set_ylabel("relative error of a weight")
    axes.yaxis.set_major_formatter(FuncFormatter(lambda value, _: f"{100 * value:g} %"))
    axes.grid(which="major", alpha=0.4)
    axes.grid(which="minor", alpha=0.15)
    figure.colorbar(dots, ax=axes, label="bits per weight")
    figure.tight_layout()
    figure.savefig(output, metadata={"Date": None} if output.suffix == ".svg" else None, dpi=110)


def main() -> None:
    """Read the tables and draw."""
    parser = argparse.ArgumentParser(description=__doc__, formatter_class=argparse.RawDescriptionHelpFormatter)
    parser.add_argument("--output", type=Path, default=DOCS / "formats.svg", help="default: %(default)s")
    draw(points(), parser.parse_args().output)


if __name__ == "__main__":
    main()

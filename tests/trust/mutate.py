# ruff: noqa: E501
"""Kernels and launchers with one mistake each: the tests have to catch every one.

    python tests/trust/mutate.py                    all of them
    python tests/trust/mutate.py --only q4_0,nf3    those whose file or tests have such a name
    python tests/trust/mutate.py --list

A mistake is put into a copy of the built extension: into the device text that it holds, or, for host code, by compiling
one file again. Its tests run against that copy, after they have passed against one without a mistake. Needs a build in
build/dev, as CONTRIBUTING.md tells.
"""

from __future__ import annotations

import argparse
import os
import re
import subprocess
import sys
import tempfile
import time
from dataclasses import dataclass
from pathlib import Path

ROOT = Path(__file__).resolve().parents[2]
BUILD = ROOT / "build" / "dev"
PACKAGES = BUILD / "python"


@dataclass(frozen=True)
class Mutant:
    file: str  # below csrc/
    right: str  # as it stands there, once
    wrong: str
    test: str  # a test, or a file or function of them

    def __str__(self) -> str:
        return f"{self.file}: {self.right.strip()!r} -> {self.wrong.strip()!r}"


def matvec(name: str) -> str:
    return f"tests/matvec/test_values.py::test_exact_data[{name}-float32-576-unknown]"


def super_block(name: str) -> str:
    if name == "q5_k":  # the exact data of which has no large scales
        return "tests/matvec/test_super_block.py::test_within_the_error_of_its_roundings[elm-q5_k-float32]"
    return f"tests/matvec/test_super_block.py::test_exact_data_is_exact[elm-{name}-float32]"


def q8_1(name: str) -> str:
    if name == "iq1_s":
        return "tests/matvec/test_q8_1.py::test_iq1_s_is_summed_in_float_in_any_order[elm-float32]"
    return f"tests/matvec/test_q8_1.py::test_bit_for_bit[elm-{name}-float32]"


def whole(name: str, backing: str = "vectors", dtype: str = "float32") -> str:
    return f"tests/dequant/test_whole.py::test_the_bits[{name}-{dtype}-unknown-{backing}]"


def dense(name: str, dtype: str = "float32") -> str:
    return f"tests/dequant/test_dense.py::test_the_bits[{name}-{dtype}]"


def backings(name: str) -> str:
    return f"tests/matvec/test_backings.py::test_the_same_bits[{name}-float32-unknown]"


def by_batch(backing: str) -> str:
    return f"tests/by_batch/test_by_batch.py::test_the_bits_of_one_row_at_a_time[q4_0-float32-unknown-{backing}]"


def engine(name: str) -> str:
    return f"tests/matrix_engine/test_matrix_engine.py::test_values[{name}-float32-elm]"


def gated(name: str) -> str:
    return f"tests/mlp/test_values.py::test_the_sums_of_forward_new[{name}-elm-float32-0]"


def tiled(name: str) -> str:
    return f"tests/dispatch/test_roads.py::test_roads_by_environment[{name}]"


READERS = [
    Mutant("readers/q4_0.h", "nibble<T, i>(8); });", "nibble<T, i>(7); });", matvec("q4_0")),
    Mutant("readers/q4_0.h", "scales + 2 * block)", "scales + 2 * (block ^ 1))", whole("q4_0")),
    Mutant("readers/q4_0.h", "biased_codes<T>(byte & 15u, 8)", "biased_codes<T>(byte & 7u, 8)", whole("q4_0")),
    Mutant("readers/q4_0_woq.h", "neighbours<CHUNK>", "split<32>", matvec("q4_0_woq")),
    Mutant("readers/q4_1.h", "rounded_halves<T>(pair.second)};", "rounded_halves<T>(pair.first)};", matvec("q4_1")),
    Mutant("readers/q4_1.h", "pairs + 4 * block + 2)", "pairs + 4 * block)", whole("q4_1")),
    Mutant("readers/q5_0.h", "return rounded_values<T>(d * biased_codes<float>(code, 16));",
           "return rounded_values<T>(d * biased_codes<float>(code, 15));", matvec("q5_0")),
    Mutant("readers/q5_1.h", "multiply_add(d, biased_codes<T>(code, 0), m)", "d * biased_codes<T>(code, 0)",
           matvec("q5_1")),
    Mutant("readers/q5_1.h", "return add(multiply(d, biased_codes<float>(code, 0)), m);",
           "return multiply(d, biased_codes<float>(code, 0));", whole("q5_1")),
    Mutant("readers/five_bit_records.h", "load_u16(block.qh + 4 + j / 8)", "load_u16(block.qh + 4)", whole("q5_0")),
    Mutant("readers/q8_0.h", "codes.signed_byte(i)", "codes.signed_byte(i ^ 1)", matvec("q8_0")),
    Mutant("readers/q8_0.h", "byte << 24) >> 24", "byte << 24 >> 24)", whole("q8_0")),
    Mutant("readers/fp4.h", "first_nibble::low>", "first_nibble::high>", matvec("fp4")),
    Mutant("readers/fp4.h", "look_up(table, byte >> 4)", "look_up(table, byte >> 4 & 7u)", whole("fp4")),
    Mutant("readers/fp6.h", "six_bit_codes<1, 3, 0, 2>(high_plane + 16 * block + 4 * g, low",
           "six_bit_codes<1, 2, 0, 3>(high_plane + 16 * block + 4 * g, low",
           "tests/dequant/test_tiles.py::test_fp6[float32-unknown-vectors]"),
    Mutant("readers/six_bits.h", "return high << (2 * step)", "return high << step", matvec("fp6")),
    Mutant("readers/six_bits.h", "(codes & 0x9F009F00u) | 0x00800080u;", "(codes & 0x1F001F00u) | 0x00800080u;",
           matvec("fp6")),
    Mutant("readers/fp6_k.h", "entry_by_block<int8_t>", "entry_by_block<uint8_t>", super_block("fp6_k")),
    Mutant("readers/fp8_e4m3.h", "& 0xBF80BF80u) | 0x00400040u;", "& 0xBF80BF80u);",
           "tests/matvec/test_edges.py::test_smallest_codes_of_small_floats[elm]"),
    Mutant("readers/fp8_e5m2.h", "halves[w][1] = (bytes & 0xFF00FF00u)", "halves[w][1] = (bytes & 0x7F007F00u)",
           matvec("fp8_e5m2")),
    Mutant("readers/fp8_e5m2.h", "(byte << 8) | 0x0080u", "(byte << 8)", whole("fp8_e5m2")),
    Mutant("readers/nf3.h", "words top = __builtin_shufflevector(first, second, 0, 0, 1, 1,",
           "words top = __builtin_shufflevector(first, second, 0, 0, 0, 0,", matvec("nf3")),
    Mutant("readers/nf3.h", "((pairs << 2) & 0xCCCCCCCCu)", "((pairs << 2) & 0xC0CCCCCCu)", matvec("nf3")),
    Mutant("readers/nf3.h", "load_u16(block + e / 8)) >> lane) & 1u", "load_u16(block + e / 16)) >> lane) & 1u",
           whole("nf3")),
    Mutant("readers/nf4.h", "first_nibble::high>", "first_nibble::low>", matvec("nf4")),
    Mutant("readers/nf4.h", "look_up(table, byte & 15u)), d)};", "look_up(table, byte >> 4)), d)};", whole("nf4")),
    Mutant("readers/scaled_blocks.h", "return rounded_values<T>(entry_of_block<Scale>(at, scales));",
           "return rounded_values<T>(entry_of_block<Scale>(at, scales + 4));", matvec("q8_0")),
    Mutant("readers/orders.h", "(chunk - chunk % CHUNKS) * 16 + chunk % CHUNKS * 8",
           "(chunk - chunk % CHUNKS) * 16 + chunk % CHUNKS * 4", matvec("q4_0")),
    Mutant("readers/sums.h", "look_up(table, (from >> SHIFT) & 15u)", "look_up(table, (from >> SHIFT) & 7u)",
           matvec("nf4")),
    Mutant("readers/places.h", "half_words[i / 4] << (24 - 8 * (i % 4))", "half_words[0] << (24 - 8 * (i % 4))",
           matvec("q8_0")),
    Mutant("readers/expansion.h", "to(e + DISTANCE, second);", "to(e + DISTANCE, first);", whole("q4_0")),
    Mutant("readers/expansion.h", "static_cast<float>(minimum_number))) {}", "static_cast<float>(scale_number))) {}",
           whole("q2_k")),
    Mutant("readers/q2_k.h", "(byte >> 4) * x.sum_of(i)", "(byte >> 5) * x.sum_of(i)", q8_1("q2_k")),
    Mutant("readers/q2_k.h", "4, 4, 4, 4, 5, 5, 5, 5, 12, 12, 12, 12, 13, 13, 13, 13",
           "4, 4, 4, 4, 5, 5, 5, 5, 12, 12, 12, 12, 12, 12, 12, 12", q8_1("q2_k")),
    Mutant("readers/q2_k.h", "load_half(block.dmin), byte >> 4}", "load_half(block.d), byte >> 4}", whole("q2_k")),
    Mutant("readers/q4_k.h", "two_level<T>(pair.second, bytes >> 8)}", "two_level<T>(pair.second, bytes & 255u)}",
           super_block("q4_k")),
    Mutant("readers/q4_k.h", "scales + 16 * block + 2 * k)", "scales + 16 * block + (2 * k & 7))", whole("q4_k")),
    Mutant("readers/q5_k.h", "((a2 >> 2) & 0x30303030u)", "((a0 >> 2) & 0x30303030u)", super_block("q5_k")),
    Mutant("readers/q5_k.h", "const words upper = {0, 0, 0, 0, 0, 0, 0, 0, 2, 2",
           "const words upper = {0, 0, 0, 0, 0, 0, 0, 0, 0, 2", super_block("q5_k")),
    Mutant("readers/q6_k.h", "biased_codes_at<T, 8 * e - SHIFT, 6>(codes >> SHIFT, 32)",
           "biased_codes_at<T, 8 * e - SHIFT, 6>(codes >> SHIFT, 31)", super_block("q6_k")),
    Mutant("readers/q6_k.h", "scales[16 * block + k]", "scales[16 * block + (k ^ 1)]", whole("q6_k")),
    Mutant("readers/iq1_s.h", "lanes<float>(-1.125f) : lanes<float>(-0.875f)",
           "lanes<float>(-0.875f) : lanes<float>(-1.125f)", q8_1("iq1_s")),
    Mutant("readers/iq1_s.h", "2u * ((h >> 12) & 7u) + 1u", "2u * ((h >> 12) & 7u)", q8_1("iq1_s")),
    Mutant("readers/iq2_xxs.h", "return seven | (((pair ^ (pair >> 1)) & 0x01010101u) << 7);", "return seven;",
           q8_1("iq2_xxs")),
    Mutant("readers/iq2_xxs.h", "lanes<float>(0.5f)), d)", "lanes<float>(0.25f)), d)", q8_1("iq2_xxs")),
    Mutant("readers/q8_1.h", "std::integral_constant<int, i + 8>", "std::integral_constant<int, i>", q8_1("iq2_xxs")),
    Mutant("readers/q8_1.h", "? first[slice] : second[slice - 8]", "? first[slice] : first[slice - 8]",
           q8_1("iq2_xxs")),
]  # fmt: skip

SKELETONS = [
    Mutant("kernels/matvec/chunks_on_vectors.h", "const bool present = first + lane < chunks;",
           "const bool present = first + lane + 1 < chunks;", backings("q4_0")),
    Mutant("kernels/matvec/chunks_on_vectors.h", "in_first_lanes<T>(chunks - c, sum, acc[0])", "sum", "tests/matvec/test_backings.py::test_nothing_leaks_from_neighbouring_rows[q4_0-float32-unknown]"),
    Mutant("kernels/matvec/chunks_on_vectors.h", "row = output_size * place.get_group(0) / groups",
           "row = output_size * place.get_group(0) / groups + 1", matvec("q4_0")),
    Mutant("kernels/matvec/chunks_on_vectors.h", "/ LANES_EACH - SKIPPED;", "/ LANES_EACH - SKIPPED - 1;",
           matvec("q4_0")),
    Mutant("kernels/matvec/chunks_on_items.h", "full + item < chunks) body(full)", "full + item + 1 < chunks) body(full)",
           backings("q4_0")),
    Mutant("kernels/matvec/chunks_on_items.h", "unit / (BLOCK / UNIT); }", "unit / (BLOCK / UNIT) + 1; }",
           "tests/matvec/test_loose_rows.py::test_values[q4_k-float32-elm]"),
    Mutant("kernels/matvec/items.h", "row0 + t + 1 < output_size ? row_length : 0",
           "row0 + t + 2 < output_size ? row_length : 0", "tests/mlp/test_values.py::test_the_same_bits_in_both_forms"),
    Mutant("kernels/matvec/items.h", "for (int stride = WG_SIZE / 2; stride > 0", "for (int stride = WG_SIZE / 2; stride > 1",
           backings("q4_0")),
    Mutant("kernels/matvec/vectors.h", "sum = sum + moved_down<2, T>(sum);", "sum = sum + moved_down<1, T>(sum);",
           matvec("q4_0")),
    Mutant("kernels/matvec/vectors.h", "is_last ? static_cast<int>(local.size()) : ROWS_OF_ITEM",
           "is_last ? static_cast<int>(local.size()) - 1 : ROWS_OF_ITEM", matvec("q5_0")),
    Mutant("kernels/matvec/five_bits.h", "(low_half & bit) != 0u ? low | 16u : low", "(low_half & bit) != 0u ? low : low",
           matvec("q5_0")),
    Mutant("kernels/matvec/five_bits.h", "(head[2] & bit) != 0 ? 16 : 0", "(head[1] & bit) != 0 ? 16 : 0",
           backings("q5_0")),
    Mutant("kernels/matvec/q5_k.h", "lanes<float>& sum = acc[r][i % 2];", "lanes<float>& sum = acc[0][i % 2];",
           super_block("q5_k")),
    Mutant("kernels/matvec/q8_1_dot.h", "? first + BLOCKS - 1 : first; }", "? first : first; }", q8_1("iq2_xxs")),
    Mutant("kernels/matvec/q8_1_dot.h", "in_first_lanes<float>(LANES / 2, changed, sum)", "changed",
           q8_1("iq2_xxs")),
    Mutant("kernels/matvec/quantize_q8_1.h", "& 0x7FFFFFFFu", "& 0xFFFFFFFFu", q8_1("q2_k")),
    Mutant("kernels/dequant/dense_form.h", "store_past_caches<uint32_t, WORDS>(to + ELEMENTS * line",
           "store_past_caches<uint32_t, WORDS>(to", "tests/dequant/test_dense.py::test_a_large_matrix[q4_0-float32]"),
    Mutant("kernels/dequant/stores.h", "store_past_caches(start + e", "store_past_caches(start",
           "tests/dequant/test_whole.py::test_a_large_matrix[q4_0-float32]"),
    Mutant("kernels/by_batch/batch_chunks_on_vectors.h", "of_chunks + (b + i) * LANES * CHUNK",
           "of_chunks + b * LANES * CHUNK", by_batch("vectors")),
    Mutant("kernels/by_batch/batch_chunks_on_vectors.h", "at + static_cast<int64_t>(r) * chunks + c;", "at + c;",
           by_batch("vectors")),
    Mutant("kernels/by_batch/batch_chunks_on_vectors.h", "output[b * output_size + row + t]", "output[b * output_size + row]",
           by_batch("vectors")),
    Mutant("kernels/by_batch/batch_chunks_on_items.h", "first_input + (is_pair ? state_size : 0)", "first_input",
           by_batch("items")),
    Mutant("kernels/dequant/row_form.h", "static_cast<int64_t>(rounds) * block_step",
           "static_cast<int64_t>(rounds - 1) * block_step", whole("q4_0")),
    Mutant("kernels/dequant/row_form.h", "start += element_step;", "start += element_step - 64;", whole("q4_0", "items")),
    Mutant("kernels/dequant/flat_form.h", "block < first + BLOCKS_OF_ITEM && block", "block < first + BLOCKS_OF_ITEM - 1 && block",
           whole("q5_0")),
    Mutant("kernels/dequant/block_form.h", "+ row * static_cast<uint32_t>(blocks_of_row)", "+ row",
           "tests/dequant/test_rows.py"),
    Mutant("kernels/dequant/block_form.h", "if (block < blocks) {", "if (block <= blocks) {", "tests/dequant/test_rows.py"),
    Mutant("kernels/dequant/stores.h", "value.value != value.value ? words(0x7FC00000u) : bit_cast<words>(value.value)",
           "value.value != value.value ? words(0x7F800000u) : bit_cast<words>(value.value)", whole("q4_0", dtype="bfloat16")),
    Mutant("kernels/dequant/dense_form.h", "in_turns<uint32_t, 16, 0, 2, 4, 6>()", "in_turns<uint32_t, 16, 0, 2, 4, 4>()",
           dense("fp6")),
    Mutant("kernels/dequant/dense_form.h", "out += PIECE * PIECES *", "out += PIECE *", dense("q4_0")),
    Mutant("kernels/dequant/dense_form.h", "looked_up<T>(table, first >> 4, second >> 4)",
           "looked_up<T>(table, second >> 4, first >> 4)", dense("q4_1", "float16")),
    Mutant("kernels/dequant/dense_form.h", "(of >> 8) & 31) ^ (of & 0x8000)", "(of >> 8) & 31)", dense("fp6", "float16")),
    Mutant("kernels/matrix_engine/operands.h", "to(4 * w + n / 2 + n % 2 * 32, codes", "to(4 * w + n / 2 + n % 2, codes",
           engine("q4_0")),
    Mutant("kernels/matrix_engine/operands.h", "return numbers{bytes ^ 0x80808080u};", "return numbers{bytes};",
           engine("q8_0")),
    Mutant("kernels/mlp/gated_chunks.h", "const Reader readers[2] = {gate, up};", "const Reader readers[2] = {up, gate};",
           gated("q4_0")),
    Mutant("kernels/mlp/activation.h", "multiply(g, u) / (__spirv_ocl_exp(-g) + 1.0f)",
           "multiply(g, u) / (__spirv_ocl_exp(g) + 1.0f)", "tests/mlp/test_values.py::test_ends_of_silu"),
    Mutant("kernels/rwkv/attention_v4.h", "const scaled_exps next(max + decay, k);", "const scaled_exps next(max, k);",
           "tests/rwkv/test_attention_v4.py"),
    Mutant("kernels/rwkv/attention_v5.h", "state[j][i] = multiply_add(w, old, product);",
           "state[j][i] = multiply_add(u, old, product);", "tests/rwkv/test_attention_v5.py"),
    Mutant("kernels/rwkv/time_shift.h", "mix + m * channels)", "mix)", "tests/rwkv/test_time_shift.py"),
]  # fmt: skip

LAUNCHERS = [
    Mutant("dispatch/launchers.cpp", "static constexpr MatvecKernel kernel{ROW, {SUB_GROUP, WORK_GROUP, ROWS}};",
           "static constexpr MatvecKernel kernel{ROW, {SUB_GROUP, 32, ROWS}};",
           "tests/matvec/test_mutations.py::test_order_of_sums_shows_in_bits[q4_0]"),
    Mutant("dispatch/launchers.cpp", "x = blocks.data_ptr<std::uint8_t>();", "x = blocks.data_ptr<std::uint8_t>() + 36;",
           q8_1("q2_k")),
    Mutant("dispatch/expanded_weight.cpp", "expand_tile(kernel, type, bytes, tile.mutable_data_ptr(), state_size, output_size, tile_rows, start,",
           "expand_tile(kernel, type, bytes, tile.mutable_data_ptr(), state_size, output_size, tile_rows, 0,",
           tiled("q8_0-oak")),
    Mutant("dispatch/expanded_weight.cpp", ".fill_(std::numeric_limits<double>::quiet_NaN());", ".fill_(0);",
           "tests/dequant/test_operator.py::test_a_weight_that_ends_inside_a_super_block"),
    Mutant("dispatch/expanded_weight.cpp", "Slice(from, from + static_cast<std::int64_t>(tile_rows))", "Slice(0, static_cast<std::int64_t>(tile_rows))",
           tiled("q8_0-oak")),
    Mutant("kernels/matvec/host_entry.cpp", "const std::size_t lacking = groups * rows - output_size;", "const std::size_t lacking = 0;",
           "tests/mlp/test_edges.py::test_rows_that_do_not_fill_a_tile[fp6-legacy-float32-items]"),
    Mutant("kernels/matvec/host_entry.cpp", "row.vectors == arranged::row_count && lacking != 0", "false && lacking != 0",
           "tests/matvec/test_backings.py::test_nothing_behind_the_output_is_written[q5_k-items]"),
    Mutant("kernels/matvec/host_entry.cpp", "output_size - (items - 1) * rows_of_vector_item}", "output_size % rows_of_vector_item}",
           "tests/trust/test_properties.py::test_rows_of_the_weight_in_another_order[q5_0-matvec-elm-float32]"),
    Mutant("kernels/matvec/host_entry.cpp", "weight + parts.start[static_cast<int>(argument) - static_cast<int>(first)]", "weight + parts.start[0]",
           super_block("q6_k")),
    Mutant("kernels/dequant/host_entry.cpp", "parts.start[part] += first_block * format_table[row.qtype].fields[part].bytes;",
           "parts.start[part] += first_block;", "tests/dequant/test_tiles.py::test_tiles_are_parts_of_the_whole"),
    Mutant("kernels/dequant/host_entry.cpp", "+ done * elements_per_block(qtype) * facts_of(type).size", "+ done * elements_per_block(qtype)",
           "tests/dequant/test_dense.py"),
    Mutant("mlp/mlp_xpu_kernel.cpp", "operands.act_type, output.mutable_data_ptr()", "0, output.mutable_data_ptr()",
           "tests/mlp/test_values.py::test_a_line_of_gates"),
    Mutant("dispatch/onednn_s4_gemv.cpp", "codes + output_size * state_size / 2;", "codes + output_size * state_size / 2 + 2;",
           "tests/dispatch/test_onednn.py::test_values[yew-33-576]"),
]  # fmt: skip

MUTANTS = [*READERS, *SKELETONS, *LAUNCHERS]


def mutated_text(mutant: Mutant) -> tuple[str, str]:
    original = (ROOT / "csrc" / mutant.file).read_text()
    if original.count(mutant.right) != 1:
        raise SystemExit(f"{mutant.file} has {mutant.right!r} {original.count(mutant.right)} times")
    return original, original.replace(mutant.right, mutant.wrong)


def extension() -> Path:
    (found,) = PACKAGES.glob("vesper_linear*.so")
    return found


def with_device_text(mutant: Mutant, to: Path) -> None:
    """Write the extension with a mistake in the device text; the text keeps its length at the cost of a comment."""
    original, wrong = mutated_text(mutant)
    lines = wrong.splitlines(keepends=True)
    excess = len(wrong.encode()) - len(original.encode())
    for i, line in enumerate(lines):
        if excess > 0 and line.startswith("//"):
            shorter = line[: max(2, len(line) - 1 - excess)] + "\n"
            excess -= len(line) - len(shorter)
            lines[i] = shorter
    text = "".join(lines).encode()
    library, held = extension().read_bytes(), original.encode()
    if excess > 0 or library.count(held) != 1:
        raise SystemExit(f"the built extension does not hold {mutant.file} as it stands, or it has no comments")
    to.write_bytes(library.replace(held, text + b" " * (len(held) - len(text))))


def with_host_code(mutant: Mutant, to: Path, folder: Path) -> None:
    """Compile the file again with its mistake, and link the extension with that."""
    source = ROOT / "csrc" / mutant.file
    wrong, object_file = folder / source.name, folder / "wrong.o"
    wrong.write_text(mutated_text(mutant)[1])
    of_extension = extension().relative_to(BUILD)
    commands = subprocess.run(
        ["ninja", "-C", BUILD, "-t", "commands", of_extension], capture_output=True, text=True, check=True
    ).stdout.splitlines()
    compile = next(line for line in commands if line.endswith(f" -c {source}"))
    built_as = re.search(r" -o (\S+)", compile)
    assert built_as
    link = next(line for line in reversed(commands) if str(of_extension) in line and built_as[1] in line)
    compile = compile.replace(f" -c {source}", f" -c {wrong}").replace(f" -o {built_as[1]}", f" -o {object_file}")
    link = link.replace(f" {built_as[1]} ", f" {object_file} ").replace(f"-o {of_extension}", f"-o {to}")
    for command in (re.sub(r"\s-MF \S+|\s-MT \S+|\s-MD", "", compile), link):
        subprocess.run(command, shell=True, cwd=BUILD, check=True, stdout=subprocess.DEVNULL)


def run_tests(tests: list[str], packages: Path, timeout: float) -> tuple[str, str]:
    """Whether they passed, failed or crashed, or what kept them from running; and their last lines."""
    environment = os.environ | {"PYTHONPATH": str(packages)}
    command = [sys.executable, "-m", "pytest", "-q", "-x", "--whole-grids", "-p", "no:cacheprovider", *tests]
    try:
        done = subprocess.run(command, cwd=ROOT, env=environment, capture_output=True, text=True, timeout=timeout)
    except subprocess.TimeoutExpired:
        return "hung", ""
    lines = " | ".join(done.stdout.strip().splitlines()[-3:])
    if "Building the kernel" in done.stdout:
        return "does not build", lines
    return {0: "passed", 1: "failed"}.get(
        done.returncode, "no tests" if done.returncode in (4, 5) else "crashed"
    ), lines


def main() -> int:
    parser = argparse.ArgumentParser(description=__doc__, formatter_class=argparse.RawDescriptionHelpFormatter)
    parser.add_argument("--only", help="parts of names, with commas")
    parser.add_argument("--list", action="store_true")
    parser.add_argument("--timeout", type=float, default=600, help="seconds that the tests of a mistake may take")
    options = parser.parse_args()
    wanted = options.only.split(",") if options.only else [""]
    chosen = [one for one in MUTANTS if any(name in f"{one.file} {one.test}" for name in wanted)]
    if options.list:
        for one in chosen:
            mutated_text(one)
            print(one)
        print(f"{len(READERS)} in readers, {len(SKELETONS)} in skeletons, {len(LAUNCHERS)} in launchers")
        return 0
    outcome, lines = run_tests(sorted({one.test for one in chosen}), PACKAGES, 10 * options.timeout)
    print(f"without a mistake: {outcome} {lines}", flush=True)
    if outcome != "passed":
        return 1
    caught, amiss = 0, []
    for number, mutant in enumerate(chosen, 1):
        start = time.monotonic()
        with tempfile.TemporaryDirectory() as name:
            folder = Path(name)
            packages = folder / "python"
            packages.mkdir()
            for entry in PACKAGES.iterdir():
                if entry != extension():
                    (packages / entry.name).symlink_to(entry)
            to = packages / extension().name
            if mutant.file.endswith(".h"):
                with_device_text(mutant, to)
            else:
                with_host_code(mutant, to, folder)
            outcome, lines = run_tests([mutant.test], packages, options.timeout)
        if outcome in ("failed", "crashed"):
            caught += 1
        else:
            amiss.append(f"{outcome}: {mutant}: {mutant.test}: {lines}")
        print(f"{number}/{len(chosen)} {outcome:8} {time.monotonic() - start:4.0f} s  {mutant}", flush=True)
    print("\n".join(["", *amiss, f"{caught} of {len(chosen)} mistakes caught"]))
    return len(amiss) > 0


if __name__ == "__main__":
    sys.exit(main())

// How the matrix engine reads each format: a block of 64 elements of some columns, without its scale, as right-hand
// operands of four operations.
//
// A column's block is QUANT_BYTES neighbouring bytes, so words of columns come column by column; they are turned first,
// while they are few, so that neighbouring lanes have neighbouring columns, and decoded then.
//
//   q4_0      words w = 0 to 7 of a column     | e4w+35 e4w+3 | e4w+34 e4w+2 | e4w+33 e4w+1 | e4w+32 e4w |   nibbles, less 8
//   q8_0      words w = 0 to 15                | e4w+3 | e4w+2 | e4w+1 | e4w |                               signed bytes
//   fp8_e4m3  words as q8_0                    half  s 0 e e e e m m m 0 0 0 0 0 0 0: all other readers set a bit behind
//                                              the code, this one does not, so that codes 0x00 and 0x80 are zero
//   fp8_e5m2  words as q8_0                    half  s e e e e e m m 1 0 0 0 0 0 0 0
//
// All values are exact in half and in bfloat16.
#pragma once

#include "formats/registry.h"
#include "formats/small_floats.h"
#include "kernels/simd.h"
#include "readers/places.h"

namespace quillon {

template <typename IN_T>
struct engine_arguments {
  const IN_T* input;
  const uint8_t* weight;
  const uint8_t* scales;
  IN_T* output;
  uint64_t blocks_per_row;
  uint64_t blocks_per_item;
  uint64_t output_size;
};

#ifdef QUILLON_VECTOR_LANES

// Words 0 to 7 of sixteen columns from `first` on, `stride` bytes apart, a column in each lane: three rounds in which
// vectors take turns in pairs, in either half of them.
template <int HALF, int... I>
inline words taking_turns(words a, words b, constants<I...>) {
  return __builtin_shufflevector(a, b, (I / 8 * 8 + HALF * 4 + I % 8 / 2 + I % 2 * LANES)...);
}
struct words_of_columns {
  words word[8];

  words_of_columns(const uint8_t* first, uint64_t stride) {
    unrolled<8>([&](auto c) {
      word[c] = joined<uint32_t, 8>(load_vector<uint32_t, 8>(first + c * stride),
                                    load_vector<uint32_t, 8>(first + (c + 8) * stride));
    });
    unrolled<3>([&](auto) {
      words turned[8];
      unrolled<4>([&](auto i) {
        turned[2 * i] = taking_turns<0>(word[i], word[i + 4], first_constants<LANES>{});
        turned[2 * i + 1] = taking_turns<1>(word[i], word[i + 4], first_constants<LANES>{});
      });
      unrolled<8>([&](auto i) { word[i] = turned[i]; });
    });
  }
};

// Stores the values of a lane's column, element after element: what `to(e, values)` does with those of element e.
// Formats have it under one name, which takes the place of the first column's block and the distance of two columns.
template <typename Value, typename To>
inline void decode_bytes(const uint8_t* first, uint64_t stride, const Value& value, const To& to) {
#pragma clang loop unroll(disable)
  for (int half_block = 0; half_block < 2; ++half_block) {
    const words_of_columns columns(first + 32 * half_block, stride);
    unrolled<8>([&](auto w) {
      const auto of_word = value(columns.word[w]);
      unrolled<4>([&](auto b) { to(32 * half_block + 4 * w + b, of_word.template byte<b>()); });
    });
  }
}

struct q4_0_operands {
  static constexpr int QUANT_BYTES = 32;
  using scale = half;

  template <typename To>
  static void decode(const uint8_t* first, uint64_t stride, const To& to) {
    const words_of_columns columns(first, stride);
    unrolled<8>([&](auto w) {
      const chunk_codes codes{{{columns.word[w], columns.word[w]}}};
      unrolled<8>([&](auto n) { to(4 * w + n / 2 + n % 2 * 32, codes.template nibble<float, n>(8)); });
    });
  }
};

struct q8_0_operands {
  static constexpr int QUANT_BYTES = 64;
  using scale = float;

  struct numbers {
    words above;  // codes plus 128

    template <int BYTE>
    lanes<float> byte() const {
      return biased_codes_at<float, BYTE % 2 * 8, 8>(above >> (BYTE / 2 * 16), 128);
    }
  };
  template <typename To>
  static void decode(const uint8_t* first, uint64_t stride, const To& to) {
    decode_bytes(first, stride, [](words bytes) { return numbers{bytes ^ 0x80808080u}; }, to);
  }
};

// The halves of bytes 0 and 2 of a word, and those of bytes 1 and 3.
struct halves_of_bytes {
  words even;
  words odd;

  template <int BYTE>
  lanes<float> byte() const {
    return half_of_word<float, BYTE / 2>(BYTE % 2 ? odd : even);
  }
};

struct fp8_e4m3_operands {
  static constexpr int QUANT_BYTES = 64;
  using scale = float;

  template <typename To>
  static void decode(const uint8_t* first, uint64_t stride, const To& to) {
    const auto value = [](words bytes) {
      const words apart = halves_apart(bytes);
      return halves_of_bytes{((apart & 0x00800080u) << 8) | ((apart & 0x007F007Fu) << 7),
                             (apart & 0x80008000u) | ((apart & 0x7F007F00u) >> 1)};
    };
    decode_bytes(first, stride, value, to);
  }
};

struct fp8_e5m2_operands {
  static constexpr int QUANT_BYTES = 64;
  using scale = float;

  template <typename To>
  static void decode(const uint8_t* first, uint64_t stride, const To& to) {
    const auto value = [](words bytes) {
      const words apart = halves_apart(bytes);
      return halves_of_bytes{((apart & 0x00FF00FFu) << 8) | 0x00800080u, (apart & 0xFF00FF00u) | 0x00800080u};
    };
    decode_bytes(first, stride, value, to);
  }
};

#else

// Words 0 to WORDS - 1 of the columns at these addresses: row w has word w of each column. One load for each column. A
// GPU's instruction writes elements at distances of up to four, so columns are brought together four at a time.
template <int WORDS, int COLUMNS>
inline simd::vec<uint32_t, WORDS * COLUMNS> words_of_columns(simd::vec<uint64_t, COLUMNS> columns) {
  simd::vec<uint32_t, WORDS * COLUMNS> fours, rows;
  unrolled<COLUMNS>([&](auto c) {
    const auto* block = reinterpret_cast<const uint32_t*>(uint64_t{columns[c]});
    fours.template select<WORDS, 4>(c / 4 * 4 * WORDS + c % 4) = simd::load<uint32_t, WORDS>(block);
  });
  unrolled<WORDS>([&](auto w) {
    unrolled<COLUMNS / 4>([&](auto g) {
      rows.template select<4, 1>(COLUMNS * w + 4 * g) = fours.template select<4, 1>(4 * (WORDS * g + w));
    });
  });
  return rows;
}

// The bytes of four rows of words as numbers of sixteen bits, in the order of a right-hand operand.
template <typename Number, int COLUMNS>
inline simd::vec<Number, 16 * COLUMNS> numbers_of_bytes(simd::vec<uint32_t, 4 * COLUMNS> rows) {
  using byte = std::conditional_t<std::is_signed_v<Number>, int8_t, uint8_t>;
  const auto bytes = simd::bits_as<byte>(rows);
  simd::vec<Number, 16 * COLUMNS> numbers;
  unrolled<4>([&](auto w) {
    unrolled<4>([&](auto b) {
      numbers.template select<COLUMNS, 2>(COLUMNS * (4 * w + b / 2 * 2) + b % 2) =
          simd::select<4 * COLUMNS * w + b, COLUMNS, 4>(bytes);
    });
  });
  return numbers;
}

// Numbers of up to nine bits and a sign, less `bias`, as operands. In a half they are put into the low bits of 1024 +
// 512 and what is too much is subtracted, which takes fewer operations than a conversion.
template <typename M, int COLUMNS>
inline simd::right_tile<M, COLUMNS> operands_of_integers(simd::vec<int16_t, 16 * COLUMNS> numbers, int16_t bias) {
  if constexpr (std::is_same_v<M, half>) {
    const simd::vec<int16_t, 16 * COLUMNS> bits = numbers + int16_t{0x6600};
    const simd::vec<half, 16 * COLUMNS> values =
        simd::bits_as<half>(bits) - half(static_cast<float>(1024 + 512 + bias));
    return {simd::bits_as<uint32_t>(values)};
  } else {
    const simd::vec<float, 16 * COLUMNS> values = simd::convert<float>(numbers) - static_cast<float>(bias);
    return {simd::bits_as<uint32_t>(simd::convert<bfloat16>(values))};
  }
}
template <typename M, int COLUMNS>
inline simd::right_tile<M, COLUMNS> operands_of_half_bits(simd::vec<uint16_t, 16 * COLUMNS> bits) {
  if constexpr (std::is_same_v<M, half>)
    return {simd::bits_as<uint32_t>(bits)};
  else
    return {simd::bits_as<uint32_t>(simd::convert<bfloat16>(simd::convert<float>(simd::bits_as<half>(bits))))};
}

struct q4_0_operands {
  static constexpr int QUANT_BYTES = 32;
  using scale = half;

  template <typename M, int COLUMNS>
  static void decode(simd::vec<uint64_t, COLUMNS> columns, simd::right_tile<M, COLUMNS> (&right)[4]) {
    const auto rows = words_of_columns<8, COLUMNS>(columns);
    const simd::vec<uint32_t, 8 * COLUMNS> low = rows & 0x0F0F0F0Fu, high = (rows >> 4) & 0x0F0F0F0Fu;
    unrolled<2>([&](auto j) {
      constexpr int FIRST = 4 * COLUMNS * j;
      const auto codes = [](auto of_slice) { return numbers_of_bytes<uint16_t, COLUMNS>(of_slice); };
      const auto bias = int16_t{8};
      right[j] =
          operands_of_integers<M, COLUMNS>(simd::bits_as<int16_t>(codes(simd::select<FIRST, 4 * COLUMNS>(low))), bias);
      right[2 + j] =
          operands_of_integers<M, COLUMNS>(simd::bits_as<int16_t>(codes(simd::select<FIRST, 4 * COLUMNS>(high))), bias);
    });
  }
};

// The formats of whole bytes: `operands` makes those of one slice of its sixteen-bit numbers.
template <typename Number, typename M, int COLUMNS, typename Operands>
inline void decode_bytes(simd::vec<uint64_t, COLUMNS> columns, simd::right_tile<M, COLUMNS> (&right)[4],
                         const Operands& operands) {
  const auto rows = words_of_columns<16, COLUMNS>(columns);
  unrolled<4>([&](auto j) {
    right[j] = operands(numbers_of_bytes<Number, COLUMNS>(simd::select<4 * COLUMNS * j, 4 * COLUMNS>(rows)));
  });
}

struct q8_0_operands {
  static constexpr int QUANT_BYTES = 64;
  using scale = float;

  template <typename M, int COLUMNS>
  static void decode(simd::vec<uint64_t, COLUMNS> columns, simd::right_tile<M, COLUMNS> (&right)[4]) {
    decode_bytes<int16_t>(columns, right, [](auto codes) { return operands_of_integers<M, COLUMNS>(codes, 0); });
  }
};

struct fp8_e4m3_operands {
  static constexpr int QUANT_BYTES = 64;
  using scale = float;

  // The sign, which widening has repeated, and the code's seven bits move up together.
  template <typename M, int COLUMNS>
  static void decode(simd::vec<uint64_t, COLUMNS> columns, simd::right_tile<M, COLUMNS> (&right)[4]) {
    decode_bytes<int16_t>(columns, right, [](auto codes) {
      const simd::vec<uint16_t, 16 * COLUMNS> bits = (codes << 7) & 0xBF80;
      return operands_of_half_bits<M, COLUMNS>(bits);
    });
  }
};

struct fp8_e5m2_operands {
  static constexpr int QUANT_BYTES = 64;
  using scale = float;

  template <typename M, int COLUMNS>
  static void decode(simd::vec<uint64_t, COLUMNS> columns, simd::right_tile<M, COLUMNS> (&right)[4]) {
    decode_bytes<uint16_t>(columns, right, [](auto codes) {
      const simd::vec<uint16_t, 16 * COLUMNS> bits = (codes << 8) | 0x0080;
      return operands_of_half_bits<M, COLUMNS>(bits);
    });
  }
};

#endif

// Calls `body` with the operands of a format, once for the whole loop over K; what has no operands gets none.
template <typename Body>
inline void with_operands_of(int32_t qtype, Body&& body) {
  switch (qtype) {
    case qtype_q4_0:
      return body(q4_0_operands{});
    case qtype_q8_0:
      return body(q8_0_operands{});
    case qtype_fp8_e4m3:
      return body(fp8_e4m3_operands{});
    case qtype_fp8_e5m2:
      return body(fp8_e5m2_operands{});
  }
}

}  // namespace quillon

// C entries over the format headers, so that tests can hold them against independent decoders.
//
// Element types are numbered 0 float, 1 double, 2 half, 3 bfloat16; 16-bit values pass as their bits.
// Functions that look something up by name give -1 or a null pointer for a name that does not exist.
#include <cstdint>
#include <cstring>

#include "formats/formats.h"

namespace {

using namespace quillon;

// Decodes every element of `blocks` blocks into `out`.
template <typename T, T (*DECODE)(const weight_parts&, int64_t, int)>
void decode_all(const weight_parts& weight, int64_t blocks, int elements, void* out) {
  T* to = static_cast<T*>(out);
  for (int64_t b = 0; b < blocks; ++b) {
    for (int e = 0; e < elements; ++e) *to++ = DECODE(weight, b, e);
  }
}

struct reader {
  const char* name;
  int qtype;
  void (*decode[4])(const weight_parts&, int64_t, int, void*);
};

// A macro, since a function template cannot be an argument of a template.
#define READER(FUNCTION, QTYPE)                                                                                   \
  {                                                                                                               \
    #FUNCTION, QTYPE, {                                                                                           \
      decode_all<float, FUNCTION<float>>, decode_all<double, FUNCTION<double>>, decode_all<half, FUNCTION<half>>, \
          decode_all<bfloat16, FUNCTION<bfloat16>>                                                                \
    }                                                                                                             \
  }

const reader readers[] = {
    READER(decode_q4_0, qtype_q4_0),
    READER(decode_q4_0_woq, qtype_q4_0_woq),
    READER(decode_q4_0_woq_in_q4_0_order, qtype_q4_0_woq),
    READER(decode_q4_1, qtype_q4_1),
    READER(decode_q5_0, qtype_q5_0),
    READER(decode_q5_0_matvec, qtype_q5_0),
    READER(decode_q5_1, qtype_q5_1),
    READER(decode_q5_1_matvec, qtype_q5_1),
    READER(decode_q8_0, qtype_q8_0),
    READER(decode_q8_1, qtype_q8_1),
    READER(decode_nf4, qtype_nf4),
    READER(decode_nf3, qtype_nf3),
    READER(decode_fp4, qtype_fp4),
    READER(decode_fp6, qtype_fp6),
    READER(decode_fp8_e4m3, qtype_fp8_e4m3),
    READER(decode_fp8_e5m2, qtype_fp8_e5m2),
    READER(decode_fp8_e5m2_scaled, qtype_fp8_e5m2),
    READER(decode_q2_k, qtype_q2_k),
    READER(decode_q4_k, qtype_q4_k),
    READER(decode_q5_k, qtype_q5_k),
    READER(decode_q6_k, qtype_q6_k),
    READER(decode_fp6_k, qtype_fp6_k),
    READER(decode_iq2_xxs, qtype_iq2_xxs),
    READER(decode_iq1_s, qtype_iq1_s),
    READER(expand_q4_0, qtype_q4_0),
    READER(expand_q4_1, qtype_q4_1),
    READER(expand_q8_0, qtype_q8_0),
    READER(expand_fp4, qtype_fp4),
    READER(expand_fp6, qtype_fp6),
    READER(expand_fp6_k, qtype_fp6_k),
    READER(expand_fp8_e4m3, qtype_fp8_e4m3),
    READER(expand_fp8_e5m2, qtype_fp8_e5m2),
    READER(expand_q4_k, qtype_q4_k),
    READER(expand_q6_k, qtype_q6_k),
    READER(operand_q4_0, qtype_q4_0),
    READER(operand_q8_0, qtype_q8_0),
    READER(operand_fp8_e4m3, qtype_fp8_e4m3),
    READER(operand_fp8_e5m2, qtype_fp8_e5m2),
};

template <typename Rows>
auto find(const Rows& rows, const char* name) -> decltype(&rows[0]) {
  for (const auto& row : rows) {
    if (std::strcmp(row.name, name) == 0) return &row;
  }
  return nullptr;
}

template <typename To, typename From>
void convert_all(const void* from, void* to, int64_t count) {
  for (int64_t i = 0; i < count; ++i) static_cast<To*>(to)[i] = convert<To>(static_cast<const From*>(from)[i]);
}

template <typename From>
int convert_from(int to_type, const void* from, void* to, int64_t count) {
  switch (to_type) {
    case 0:
      return convert_all<float, From>(from, to, count), 0;
    case 1:
      return convert_all<double, From>(from, to, count), 0;
    case 2:
      return convert_all<half, From>(from, to, count), 0;
    case 3:
      return convert_all<bfloat16, From>(from, to, count), 0;
    default:
      return -1;
  }
}

template <typename T>
int compute_all(char operation, const void* a, const void* b, void* out, int64_t count) {
  const T* left = static_cast<const T*>(a);
  const T* right = static_cast<const T*>(b);
  T* to = static_cast<T*>(out);
  for (int64_t i = 0; i < count; ++i) {
    T assigned = left[i];
    switch (operation) {
      case '*':
        to[i] = multiply(left[i], right[i]);
        assigned *= right[i];
        break;
      case '+':
        to[i] = add(left[i], right[i]);
        assigned += right[i];
        break;
      case '-':
        to[i] = subtract(left[i], right[i]);
        assigned -= right[i];
        break;
      case '/':
        to[i] = left[i] / right[i];
        assigned /= right[i];
        break;
      default:
        return -1;
    }
    // The assigning operators must give the same bits.
    if (std::memcmp(&assigned, &to[i], sizeof(T)) != 0) return -2;
  }
  return 0;
}

struct offset_rule {
  const char* name;
  region_offsets (*compute)(uint64_t state_size, uint64_t output_size);
};

template <auto RULE>
region_offsets single_offset(uint64_t state_size, uint64_t output_size) {
  return {{0, RULE(state_size, output_size), 0, 0}};
}

const offset_rule offset_rules[] = {
    {"matvec_nibble", single_offset<matvec_nibble_scale_offset>},
    {"matvec_q8_0", single_offset<matvec_q8_0_scale_offset>},
    {"matvec_super_blocks", single_offset<matvec_super_blocks>},
    {"tile_fp6", tile_fp6_region_offsets},
};

struct table {
  const char* name;
  const void* data;
  int64_t bytes;
};

const table tables[] = {
    {"kmask_iq2xs", kmask_iq2xs, sizeof(kmask_iq2xs)}, {"ksigns_iq2xs", ksigns_iq2xs, sizeof(ksigns_iq2xs)},
    {"iq2xxs_grid", iq2xxs_grid, sizeof(iq2xxs_grid)}, {"iq1s_grid", iq1s_grid, sizeof(iq1s_grid)},
    {"dequantNF4", dequantNF4, sizeof(dequantNF4)},    {"dequantNF3", dequantNF3, sizeof(dequantNF3)},
};

struct pattern {
  const char* name;
  uint32_t (*of_code)(uint32_t code);
};

template <auto FUNCTION>
uint32_t widened(uint32_t code) {
  return FUNCTION(code);
}

const pattern patterns[] = {
    {"fp4_float", widened<fp4_float_bits>},
    {"fp4_half", widened<fp4_half_bits>},
    {"fp6_half", widened<fp6_half_bits>},
    {"fp8_e4m3_half", widened<fp8_e4m3_half_bits>},
    {"fp8_e4m3_half_bare", widened<fp8_e4m3_half_bits_bare>},
    {"fp8_e5m2_half", widened<fp8_e5m2_half_bits>},
};

template <typename T>
void quantize_all(const void* from, float absmax, int8_t* quants, int64_t count) {
  const float scale = scale_q8_1(absmax);
  for (int64_t i = 0; i < count; ++i) quants[i] = quant_q8_1(static_cast<const T*>(from)[i], scale);
}

}  // namespace

extern "C" {

// Decodes a whole weight of state_size x output_size elements, found by the region offsets of its format.
int shim_decode(const char* name, int type, const uint8_t* weight, uint64_t state_size, uint64_t output_size,
                void* out) {
  const reader* row = find(readers, name);
  if (row == nullptr) return -1;
  const int elements = elements_per_block(row->qtype);
  const weight_parts parts = weight_parts_at(weight, regions_of(row->qtype, state_size, output_size));
  row->decode[type](parts, static_cast<int64_t>(state_size * output_size) / elements, elements, out);
  return 0;
}

int shim_reader_count() {
  return sizeof(readers) / sizeof(readers[0]);
}
const char* shim_reader_name(int index) {
  return readers[index].name;
}

void shim_format(int qtype, const char** name, int* storage, int32_t* elements, int64_t* bytes) {
  const format_entry& entry = format_table[qtype];
  *name = entry.name;
  *storage = static_cast<int>(entry.storage);
  *elements = elements_per_block(qtype);
  *bytes = bytes_per_block(qtype);
}

int32_t shim_field_bytes(int qtype, const char* field) {
  return field_bytes(qtype, field);
}

void shim_regions_of(int qtype, uint64_t state_size, uint64_t output_size, int64_t* starts) {
  const region_offsets offsets = regions_of(qtype, state_size, output_size);
  std::memcpy(starts, offsets.start, sizeof(offsets.start));
}

void shim_matvec_regions_of(int qtype, uint64_t state_size, uint64_t output_size, int64_t* starts) {
  const region_offsets offsets = matvec_regions_of(qtype, state_size, output_size);
  std::memcpy(starts, offsets.start, sizeof(offsets.start));
}

void shim_dense_regions_of(int qtype, uint64_t state_size, uint64_t output_size, int64_t* starts) {
  const region_offsets offsets = dense_region_offsets(qtype, static_cast<int64_t>(state_size * output_size));
  std::memcpy(starts, offsets.start, sizeof(offsets.start));
}

int shim_offset_rule(const char* name, uint64_t state_size, uint64_t output_size, int64_t* starts) {
  const offset_rule* row = find(offset_rules, name);
  if (row == nullptr) return -1;
  const region_offsets offsets = row->compute(state_size, output_size);
  std::memcpy(starts, offsets.start, sizeof(offsets.start));
  return 0;
}

const void* shim_table(const char* name, int64_t* bytes) {
  const table* row = find(tables, name);
  if (row == nullptr) return nullptr;
  *bytes = row->bytes;
  return row->data;
}

int shim_patterns(const char* name, const uint32_t* codes, uint32_t* out, int64_t count) {
  const pattern* row = find(patterns, name);
  if (row == nullptr) return -1;
  for (int64_t i = 0; i < count; ++i) out[i] = row->of_code(codes[i]);
  return 0;
}

// Type 4 is a 32-bit integer, as a source only.
int shim_convert(int from_type, int to_type, const void* from, void* to, int64_t count) {
  switch (from_type) {
    case 0:
      return convert_from<float>(to_type, from, to, count);
    case 1:
      return convert_from<double>(to_type, from, to, count);
    case 2:
      return convert_from<half>(to_type, from, to, count);
    case 3:
      return convert_from<bfloat16>(to_type, from, to, count);
    case 4:
      return convert_from<int32_t>(to_type, from, to, count);
    default:
      return -1;
  }
}

int shim_compute(char operation, int type, const void* a, const void* b, void* out, int64_t count) {
  switch (type) {
    case 0:
      return compute_all<float>(operation, a, b, out, count);
    case 1:
      return compute_all<double>(operation, a, b, out, count);
    case 2:
      return compute_all<half>(operation, a, b, out, count);
    case 3:
      return compute_all<bfloat16>(operation, a, b, out, count);
    default:
      return -1;
  }
}

// Half patterns of 16-element groups, four at a time from shifted words, in the way of the device kernels.
void shim_fp6_by_words(const uint32_t* high, const uint32_t* low, int64_t groups, uint16_t* out) {
  for (int64_t g = 0; g < groups; ++g) {
    uint32_t hi = high[g], lo = low[2 * g];
    for (int step = 0; step < 4; ++step) {
      const uint32_t codes = fp6_step_codes(hi, lo);
      for (int byte = 0; byte < 4; ++byte) {
        out[16 * g + 4 * step + fp6_element_of_byte(byte)] = fp6_half_bits(byte_of(codes, byte));
      }
      hi <<= 2;
      lo = step == 1 ? low[2 * g + 1] : lo << 4;
    }
  }
}

// The same for the 6-bit codes of q6_k.
void shim_q6_k_by_words(const uint32_t* high, const uint32_t* low, int64_t groups, uint8_t* out) {
  for (int64_t g = 0; g < groups; ++g) {
    uint32_t hi = high[g], lo = low[2 * g];
    for (int step = 0; step < 4; ++step) {
      const uint32_t codes = q6_k_step_codes(hi, lo);
      for (int p = 0; p < 4; ++p) out[16 * g + 4 * step + p] = static_cast<uint8_t>(byte_of(codes, p));
      hi <<= 2;
      lo = step == 1 ? low[2 * g + 1] : lo << 4;
    }
  }
}

float shim_scale_q8_1(float absmax) {
  return scale_q8_1(absmax);
}

int shim_quants_q8_1(int type, const void* from, float absmax, int8_t* quants, int64_t count) {
  switch (type) {
    case 0:
      return quantize_all<float>(from, absmax, quants, count), 0;
    case 1:
      return quantize_all<double>(from, absmax, quants, count), 0;
    case 2:
      return quantize_all<half>(from, absmax, quants, count), 0;
    case 3:
      return quantize_all<bfloat16>(from, absmax, quants, count), 0;
    default:
      return -1;
  }
}

// The rounded quotients of x by scale, from the quotients given.
void shim_round_quotients(const float* x, const float* scale, const float* quotient, float* rounded, int64_t count) {
  for (int64_t i = 0; i < count; ++i) rounded[i] = round_quotient(x[i], scale[i], quotient[i]);
}

}  // extern "C"

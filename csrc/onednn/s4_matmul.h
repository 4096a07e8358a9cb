// The product of activations and a packed 4-bit weight by oneDNN, as a library of its own: it is loaded at the first call
// that needs it, so that importing the package costs no look at oneDNN, and none of oneDNN's inline functions meets those
// of the oneDNN that is part of PyTorch.
#pragma once

#include <cstdint>
#include <sycl/queue.hpp>

namespace quillon {

// destination[b][o] = sum over k of source[b][k] * (code(o, k) - zero_point) * scales[k / 64][o]
//
//   source        batch by state_size          weights     4-bit codes of output_size rows, the first in the low bits
//   destination   batch by output_size         scales      state_size / 64 by output_size
//   zero_point    one byte
//
// Elements of source, destination and scales are halves and oneDNN may compute in half precision; or, where
// `single_precision`, all are floats.
struct S4Matmul {
  const void* source;
  const void* weights;
  const void* scales;
  const void* zero_point;
  void* destination;
  std::int64_t batch;
  std::int64_t state_size;
  std::int64_t output_size;
  bool single_precision;
};

enum class S4Outcome { submitted, not_on_this_processor };

// Submits the product to an in-order queue and does not wait. Where oneDNN has no half precision for the processor nothing
// is submitted. Any other failure is oneDNN's exception, dnnl::error.
using S4MatmulFunction = S4Outcome(sycl::queue& queue, const S4Matmul& matmul);

inline constexpr char kS4MatmulLibrary[] = "libquillon_onednn.so";
inline constexpr char kS4MatmulSymbol[] = "quillon_s4_matmul";

}  // namespace quillon

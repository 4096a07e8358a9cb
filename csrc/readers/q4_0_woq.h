// How kernels read q4_0 woq: q4_0 with neighbouring elements in a byte.
//
// One block, bytes drawn with their high nibble on the left:
//
//   quants   byte 0     byte 1           byte 31
//           | e1  e0 | e3  e2 |  ...  | e63  e62 |        a chunk is eight neighbouring bytes, sixteen elements
//   scales  | d half |                                    W = d * (e - 8); d is applied to the sum of a chunk
#pragma once

#include "readers/q4_0.h"

namespace quillon {

struct q4_0_woq_reader : q4_0_reader {
  using order = neighbours<CHUNK>;
};

}  // namespace quillon

// Sign tables of iq2_xxs.
#pragma once

#include <cstdint>

namespace quillon {

inline constexpr uint8_t kmask_iq2xs[8] = {1, 2, 4, 8, 16, 32, 64, 128};

// Entry i has i in bits 0 to 6 and in bit 7 the parity of i: seven stored signs and an eighth that makes the
// number of negative elements even.
inline constexpr uint8_t ksigns_iq2xs[128] = {
    0,   129, 130, 3,   132, 5,   6,   135, 136, 9,   10,  139, 12,  141, 142, 15,   //
    144, 17,  18,  147, 20,  149, 150, 23,  24,  153, 154, 27,  156, 29,  30,  159,  //
    160, 33,  34,  163, 36,  165, 166, 39,  40,  169, 170, 43,  172, 45,  46,  175,  //
    48,  177, 178, 51,  180, 53,  54,  183, 184, 57,  58,  187, 60,  189, 190, 63,   //
    192, 65,  66,  195, 68,  197, 198, 71,  72,  201, 202, 75,  204, 77,  78,  207,  //
    80,  209, 210, 83,  212, 85,  86,  215, 216, 89,  90,  219, 92,  221, 222, 95,   //
    96,  225, 226, 99,  228, 101, 102, 231, 232, 105, 106, 235, 108, 237, 238, 111,  //
    240, 113, 114, 243, 116, 245, 246, 119, 120, 249, 250, 123, 252, 125, 126, 255,  //
};

}  // namespace quillon

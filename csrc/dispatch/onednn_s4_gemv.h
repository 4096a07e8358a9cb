// The product of several activation rows and a q4_0_woq weight, by oneDNN.
#pragma once

#include <ATen/core/Tensor.h>

#include "dispatch/device_class.h"

namespace quillon {

// input   batch by state_size halves; state_size a multiple of 64     weight  flat packed bytes
// result  batch by output_size halves
//
// What the scale buffer cannot hold and other element types are RuntimeErrors; so are oneDNN's own failures.
at::Tensor linear_xpu_forward_onednn_s4_gemv(const at::Tensor& input, const at::Tensor& weight,
                                             XpuDeviceClass device_class);

}  // namespace quillon

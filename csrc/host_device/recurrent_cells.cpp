// The fused LSTM and GRU cells: PyTorch calls them for every device that is not the CPU, and so has no CPU
// kernel for them. Written out in plain operators. A workspace is whatever the backward half needs; nobody
// else reads it.
#include <ATen/ATen.h>
#include <torch/library.h>

namespace quillon::host_device {
namespace {

using at::Tensor;
using Bias = std::optional<Tensor>;

Tensor add_bias(const Tensor& gates, const Bias& bias) {
  return bias && bias->defined() ? gates + *bias : gates;
}

Tensor sigmoid_slope(const Tensor& value) {
  return value * (1 - value);
}
Tensor tanh_slope(const Tensor& value) {
  return 1 - value * value;
}

/// Returns (hy, cy, workspace). The workspace is [i, f, g, o], each after its activation.
std::tuple<Tensor, Tensor, Tensor> lstm_cell(const Tensor& input_gates, const Tensor& hidden_gates, const Tensor& cx,
                                             const Bias& input_bias, const Bias& hidden_bias) {
  const auto gates = (add_bias(input_gates, input_bias) + add_bias(hidden_gates, hidden_bias)).chunk(4, 1);
  const Tensor i = gates[0].sigmoid(), f = gates[1].sigmoid(), g = gates[2].tanh(), o = gates[3].sigmoid();
  Tensor cy = f * cx + i * g;
  Tensor hy = o * cy.tanh();
  return {std::move(hy), std::move(cy), at::cat({i, f, g, o}, 1)};
}

/// Returns (grad_gates, grad_cx, grad_bias).
std::tuple<Tensor, Tensor, Tensor> lstm_cell_backward(const std::optional<Tensor>& grad_hy,
                                                      const std::optional<Tensor>& grad_cy, const Tensor& cx,
                                                      const Tensor& cy, const Tensor& workspace, bool has_bias) {
  const bool has_hy = grad_hy && grad_hy->defined(), has_cy = grad_cy && grad_cy->defined();
  if (!has_hy && !has_cy) return {};
  const auto parts = workspace.chunk(4, 1);
  const Tensor &i = parts[0], &f = parts[1], &g = parts[2], &o = parts[3];
  const Tensor tanh_cy = cy.tanh();
  Tensor grad_o = at::zeros_like(o), grad_c = has_cy ? *grad_cy : at::zeros_like(cy);
  if (has_hy) {
    grad_o = *grad_hy * tanh_cy * sigmoid_slope(o);
    grad_c = grad_c + *grad_hy * o * tanh_slope(tanh_cy);
  }
  Tensor grad_gates =
      at::cat({grad_c * g * sigmoid_slope(i), grad_c * cx * sigmoid_slope(f), grad_c * i * tanh_slope(g), grad_o}, 1);
  Tensor grad_bias = has_bias ? grad_gates.sum(0) : Tensor();
  return {std::move(grad_gates), grad_c * f, std::move(grad_bias)};
}

/// Returns (hy, workspace). The workspace is [r, z, n, hx, the hidden half of n].
std::tuple<Tensor, Tensor> gru_cell(const Tensor& input_gates, const Tensor& hidden_gates, const Tensor& hx,
                                    const Bias& input_bias, const Bias& hidden_bias) {
  const auto input = add_bias(input_gates, input_bias).chunk(3, 1);
  const auto hidden = add_bias(hidden_gates, hidden_bias).chunk(3, 1);
  const Tensor r = (input[0] + hidden[0]).sigmoid();
  const Tensor z = (input[1] + hidden[1]).sigmoid();
  const Tensor n = (input[2] + r * hidden[2]).tanh();
  return {n + z * (hx - n), at::cat({r, z, n, hx, hidden[2]}, 1)};
}

/// Returns (grad_input_gates, grad_hidden_gates, grad_hx, grad_input_bias, grad_hidden_bias).
std::tuple<Tensor, Tensor, Tensor, Tensor, Tensor> gru_cell_backward(const Tensor& grad_hy, const Tensor& workspace,
                                                                     bool has_bias) {
  const auto parts = workspace.chunk(5, 1);
  const Tensor &r = parts[0], &z = parts[1], &n = parts[2], &hx = parts[3], &hidden_n = parts[4];
  const Tensor grad_n = grad_hy * (1 - z) * tanh_slope(n);
  const Tensor grad_z = grad_hy * (hx - n) * sigmoid_slope(z);
  const Tensor grad_r = grad_n * hidden_n * sigmoid_slope(r);
  Tensor grad_input = at::cat({grad_r, grad_z, grad_n}, 1);
  Tensor grad_hidden = at::cat({grad_r, grad_z, grad_n * r}, 1);
  Tensor grad_input_bias = has_bias ? grad_input.sum(0) : Tensor();
  Tensor grad_hidden_bias = has_bias ? grad_hidden.sum(0) : Tensor();
  return {std::move(grad_input), std::move(grad_hidden), grad_hy * z, std::move(grad_input_bias),
          std::move(grad_hidden_bias)};
}

}  // namespace
}  // namespace quillon::host_device

TORCH_LIBRARY_IMPL(aten, XPU, m) {
  using namespace quillon::host_device;
  m.impl("_thnn_fused_lstm_cell", TORCH_FN(lstm_cell));
  m.impl("_thnn_fused_lstm_cell_backward_impl", TORCH_FN(lstm_cell_backward));
  m.impl("_thnn_fused_gru_cell", TORCH_FN(gru_cell));
  m.impl("_thnn_fused_gru_cell_backward", TORCH_FN(gru_cell_backward));
}

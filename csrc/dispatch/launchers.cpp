#include "dispatch/launchers.h"

#include <ATen/ops/empty.h>
#include <c10/util/Exception.h>

#include <utility>

#include "dispatch/environment.h"
#include "dispatch/format_check.h"
#include "dispatch/scalar_type_dispatch.h"
#include "kernels/matvec/q8_1_dot_host.h"
#include "kernels/matvec/quantize_q8_1_host.h"
#include "kernels/matvec/small_block_host.h"
#include "kernels/matvec/super_block_host.h"

namespace quillon {
namespace {

// The output of a road: batch by output_size, element type of `input`, on the device of `weight`.
at::Tensor make_output(const at::Tensor& input, const at::Tensor& weight, std::uint64_t batch,
                       std::uint64_t output_size) {
  return at::empty({static_cast<std::int64_t>(batch), static_cast<std::int64_t>(output_size)},
                   weight.options().dtype(input.scalar_type()).memory_format(at::MemoryFormat::Contiguous));
}

// Kernels load up to eight weight bytes at once, which a device may demand to stand at a multiple of eight. What
// PyTorch allocates does; a view that starts elsewhere is copied.
at::Tensor at_aligned_address(at::Tensor weight) {
  const auto address = reinterpret_cast<std::uintptr_t>(weight.const_data_ptr());
  return address % 8 == 0 ? weight : weight.clone();
}

[[noreturn]] void fail_batch(int qtype, std::uint64_t batch) {
  TORCH_CHECK_NOT_IMPLEMENTED(false, "forward_new: ", describe_format(qtype), " has no road for a batch of ", batch,
                              " in this release; give one row at a time");
}

// Which environment variables a launcher reads. They are parsed before all else, so that a bad value fails
// every call, though only the tiled road uses them.
enum class Environment { none, tiles, tiles_and_low_mem };

template <Environment VARIABLES>
void read_environment() {
  if constexpr (VARIABLES != Environment::none) read_tile_threshold();
  if constexpr (VARIABLES == Environment::tiles_and_low_mem) read_low_mem();
  if constexpr (VARIABLES != Environment::none) read_tile_size();
}

// The launcher of one format. `ENTRY` submits its batch-1 kernel: it gets a value of the element type, then
// the arguments of a matrix-vector host entry.
template <int QTYPE, Environment VARIABLES, const auto& ENTRY>
at::Tensor launch(at::Tensor input, at::Tensor weight, std::uint64_t batch, std::uint64_t state_size,
                  std::uint64_t output_size, std::int64_t /*input_size*/) {
  read_environment<VARIABLES>();
  if (batch != 1) fail_batch(QTYPE, batch);
  weight = at_aligned_address(std::move(weight));
  at::Tensor output = make_output(input, weight, 1, output_size);
  dispatch_element_type(input.scalar_type(), [&](auto element) {
    using T = decltype(element);
    ENTRY(element, input.data_ptr<T>(), weight.data_ptr<std::uint8_t>(), output.data_ptr<T>(), batch, state_size,
          output_size, weight.device());
  });
  return output;
}

// The launcher of a format whose batch-1 kernel multiplies by q8_1 blocks. `ENTRY` is as above, with the
// blocks in place of the activations and the super-blocks of a row in place of its elements; it waits.
template <int QTYPE, const auto& ENTRY>
at::Tensor launch_q8_1(at::Tensor input, at::Tensor weight, std::uint64_t batch, std::uint64_t state_size,
                       std::uint64_t output_size, std::int64_t /*input_size*/) {
  if (batch != 1) fail_batch(QTYPE, batch);
  weight = at_aligned_address(std::move(weight));
  at::Tensor output = make_output(input, weight, 1, output_size);
  at::Tensor blocks = quantize_input_q8_1(input, 1, state_size);
  dispatch_element_type(input.scalar_type(), [&](auto element) {
    using T = decltype(element);
    ENTRY(element, blocks.data_ptr<std::uint8_t>(), weight.data_ptr<std::uint8_t>(), output.data_ptr<T>(),
          static_cast<std::int32_t>(state_size >> 8), output_size, weight.device());
  });
  return output;
}

// The host entries of the kernels, with the geometry of a launcher table filled in. ROWS is that of the q4_0
// kernels.
template <int SG, int WG, int ROWS>
struct Entries {
  // clang-format off
  static constexpr auto q4_0 = [](auto t, auto... a) { qlinear_xpu_kernel_q4_0_2x16<decltype(t), SG, WG, ROWS>(a...); };
  static constexpr auto q4_0_woq = [](auto t, auto... a) { qlinear_xpu_kernel_q4_0_woq_2x16<decltype(t), SG, WG, ROWS>(a...); };
  static constexpr auto q4_1 = [](auto t, auto... a) { qlinear_xpu_kernel_q4_1_2x16<decltype(t), SG, WG>(a...); };
  static constexpr auto q5_0 = [](auto t, auto... a) { qlinear_xpu_kernel_q5_0<decltype(t), SG, WG>(a...); };
  static constexpr auto q5_1 = [](auto t, auto... a) { qlinear_xpu_kernel_q5_1<decltype(t), SG, WG>(a...); };
  static constexpr auto q8_0 = [](auto t, auto... a) { qlinear_xpu_kernel_q8_0_2x8<decltype(t), SG, WG>(a...); };
  static constexpr auto nf4 = [](auto t, auto... a) { qlinear_xpu_kernel_nf4_2x16<decltype(t), SG, WG>(a...); };
  static constexpr auto nf3 = [](auto t, auto... a) { qlinear_xpu_kernel_nf3_2x16<decltype(t), SG, WG>(a...); };
  static constexpr auto fp4 = [](auto t, auto... a) { qlinear_xpu_kernel_fp4_2x16<decltype(t), SG, WG>(a...); };
  static constexpr auto fp6 = [](auto t, auto... a) { qlinear_xpu_kernel_fp6_2x16<decltype(t), SG, WG, 2>(a...); };
  static constexpr auto q4_k = [](auto t, auto... a) { qlinear_xpu_kernel_q4_k_2x16<decltype(t), SG, WG>(a...); };
  static constexpr auto q5_k = [](auto t, auto... a) { qlinear_xpu_kernel_q5_k<decltype(t)>(a...); };
  static constexpr auto q6_k = [](auto t, auto... a) { qlinear_xpu_kernel_q6_k_2x16<decltype(t), SG, WG>(a...); };
  static constexpr auto fp6_k = [](auto t, auto... a) { qlinear_xpu_kernel_fp6_k_2x16<decltype(t), SG, WG, 2>(a...); };
  static constexpr auto fp8_e4m3 = [](auto t, auto... a) { qlinear_xpu_kernel_fp8_e4m3_2x8<decltype(t), SG, WG>(a...); };
  static constexpr auto fp8_e5m2 = [](auto t, auto... a) { qlinear_xpu_kernel_fp8_e5m2_2x8<decltype(t), SG, WG>(a...); };
  static constexpr auto iq2_xxs = [](auto t, auto... a) { qlinear_xpu_kernel_iq2_xxs_q8_1<decltype(t)>(a...); };
  static constexpr auto q2_k = [](auto t, auto... a) { qlinear_xpu_kernel_q2_k_q8_1<decltype(t)>(a...); };
  static constexpr auto iq1_s = [](auto t, auto... a) { qlinear_xpu_kernel_iq1_s_q8_1<decltype(t)>(a...); };
  // clang-format on
};

// One row for each format with a launcher.
template <int SG, int WG, int ROWS>
constexpr LauncherTable make_table() {
  using E = Entries<SG, WG, ROWS>;
  using V = Environment;
  LauncherTable table{};
  table[qtype_q4_0] = &launch<qtype_q4_0, V::tiles_and_low_mem, E::q4_0>;
  table[qtype_q4_1] = &launch<qtype_q4_1, V::none, E::q4_1>;
  table[qtype_q5_0] = &launch<qtype_q5_0, V::none, E::q5_0>;
  table[qtype_q5_1] = &launch<qtype_q5_1, V::none, E::q5_1>;
  table[qtype_q8_0] = &launch<qtype_q8_0, V::tiles, E::q8_0>;
  table[qtype_nf4] = &launch<qtype_nf4, V::none, E::nf4>;
  table[qtype_nf3] = &launch<qtype_nf3, V::none, E::nf3>;
  table[qtype_fp8_e4m3] = &launch<qtype_fp8_e4m3, V::none, E::fp8_e4m3>;
  table[qtype_fp4] = &launch<qtype_fp4, V::none, E::fp4>;
  table[qtype_fp8_e5m2] = &launch<qtype_fp8_e5m2, V::tiles, E::fp8_e5m2>;
  table[qtype_iq2_xxs] = &launch_q8_1<qtype_iq2_xxs, E::iq2_xxs>;
  table[qtype_q2_k] = &launch_q8_1<qtype_q2_k, E::q2_k>;
  table[qtype_iq1_s] = &launch_q8_1<qtype_iq1_s, E::iq1_s>;
  table[qtype_q6_k] = &launch<qtype_q6_k, V::none, E::q6_k>;
  table[qtype_q4_k] = &launch<qtype_q4_k, V::none, E::q4_k>;
  table[qtype_q5_k] = &launch<qtype_q5_k, V::none, E::q5_k>;
  table[qtype_fp6_k] = &launch<qtype_fp6_k, V::none, E::fp6_k>;
  table[qtype_fp6] = &launch<qtype_fp6, V::tiles_and_low_mem, E::fp6>;
  table[qtype_q4_0_woq] = &launch<qtype_q4_0_woq, V::tiles_and_low_mem, E::q4_0_woq>;
  return table;
}

}  // namespace

const LauncherTable qlinear_launchers_elm = make_table<32, 64, 2>();
const LauncherTable qlinear_launchers_legacy = make_table<16, 32, 8>();
const LauncherTable qlinear_launchers_default = make_table<16, 32, 2>();

}  // namespace quillon

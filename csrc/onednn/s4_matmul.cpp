#include "onednn/s4_matmul.h"

#include <oneapi/dnnl/dnnl.hpp>
#include <oneapi/dnnl/dnnl_sycl.hpp>
#include <unordered_map>

namespace quillon {
namespace {

using dnnl::memory;

constexpr memory::dim kGroup = 64;

}  // namespace

extern "C" __attribute__((visibility("default"))) S4Outcome quillon_s4_matmul(sycl::queue& queue,
                                                                              const S4Matmul& matmul) {
  const auto element = matmul.single_precision ? memory::data_type::f32 : memory::data_type::f16;
  const memory::dim batch = matmul.batch, rows = matmul.output_size, row_length = matmul.state_size;
  const dnnl::engine engine = dnnl::sycl_interop::make_engine(queue.get_device(), queue.get_context());
  const dnnl::stream stream = dnnl::sycl_interop::make_stream(engine, queue);

  const memory::desc source({batch, row_length}, element, memory::format_tag::ab);
  const memory::desc weights({row_length, rows}, memory::data_type::u4, memory::format_tag::ba);
  const memory::desc destination({batch, rows}, element, memory::format_tag::ab);
  // Scales are read group after group, whatever their descriptor says.
  const memory::desc scales({row_length / kGroup, rows}, element, memory::format_tag::ba);
  const memory::desc zero_point({1}, memory::data_type::u8, memory::format_tag::a);

  dnnl::primitive_attr attributes;
  attributes.set_scales(DNNL_ARG_WEIGHTS, (1 << 0) + (1 << 1), {kGroup, 1}, element);
  attributes.set_zero_points(DNNL_ARG_WEIGHTS, 0, {}, memory::data_type::u8);
  attributes.set_fpmath_mode(matmul.single_precision ? dnnl::fpmath_mode::strict : dnnl::fpmath_mode::f16,
                             /*apply_to_int=*/true);

  dnnl::matmul::primitive_desc description;
  try {
    description = {engine, source, weights, destination, attributes};
  } catch (const dnnl::error& error) {
    const bool may_be_single = !matmul.single_precision && queue.get_device().is_cpu();
    if (may_be_single && error.status == dnnl_unimplemented) return S4Outcome::not_on_this_processor;
    throw;
  }
  const auto bound = [&](const memory::desc& of, const void* address) {
    return dnnl::sycl_interop::make_memory(of, engine, dnnl::sycl_interop::memory_kind::usm,
                                           const_cast<void*>(address));
  };
  const std::unordered_map<int, memory> arguments = {
      {DNNL_ARG_SRC, bound(description.src_desc(), matmul.source)},
      {DNNL_ARG_WEIGHTS, bound(description.weights_desc(), matmul.weights)},
      {DNNL_ARG_ATTR_SCALES | DNNL_ARG_WEIGHTS, bound(scales, matmul.scales)},
      {DNNL_ARG_ATTR_ZERO_POINTS | DNNL_ARG_WEIGHTS, bound(zero_point, matmul.zero_point)},
      {DNNL_ARG_DST, bound(description.dst_desc(), matmul.destination)},
  };
  dnnl::matmul(description).execute(stream, arguments);
  return S4Outcome::submitted;
}

}  // namespace quillon

// Registration of the fallback: every operator without a kernel of its own goes to the CPU (cpu_call.cpp), and
// operators of the kinds of tensors that the host device does not have are refused.
#include "fallback.h"

#include <torch/library.h>

namespace quillon::host_device {
namespace {

using torch::jit::Stack;

void refuse(const c10::OperatorHandle& op, const char* kind) {
  TORCH_CHECK_NOT_IMPLEMENTED(false, op.schema().operator_name(), ": ", kind,
                              " tensors are not supported on quillon's host device. Use a CPU tensor.");
}
void refuse_sparse(const c10::OperatorHandle& op, Stack*) {
  refuse(op, "sparse");
}
void refuse_quantized(const c10::OperatorHandle& op, Stack*) {
  refuse(op, "quantized");
}

}  // namespace

void refuse_nested(const c10::OperatorHandle& op, Stack*) {
  refuse(op, "nested");
}

}  // namespace quillon::host_device

using quillon::host_device::run_on_cpu;

TORCH_LIBRARY_IMPL(_, XPU, m) {
  m.fallback(torch::CppFunction::makeFromBoxedFunction<&run_on_cpu>());
}

TORCH_LIBRARY_IMPL(_, SparseXPU, m) {
  m.fallback(torch::CppFunction::makeFromBoxedFunction<&quillon::host_device::refuse_sparse>());
}
TORCH_LIBRARY_IMPL(_, SparseCsrXPU, m) {
  m.fallback(torch::CppFunction::makeFromBoxedFunction<&quillon::host_device::refuse_sparse>());
}
TORCH_LIBRARY_IMPL(_, QuantizedXPU, m) {
  m.fallback(torch::CppFunction::makeFromBoxedFunction<&quillon::host_device::refuse_quantized>());
}
TORCH_LIBRARY_IMPL(_, NestedTensorXPU, m) {
  m.fallback(torch::CppFunction::makeFromBoxedFunction<&quillon::host_device::refuse_nested>());
}

// What the fallback has to know of an operator before it can call its CPU kernel, worked out once from the schema.
#pragma once

#include <ATen/core/function_schema.h>

#include <string_view>
#include <vector>

namespace quillon::host_device {

enum class ArgumentKind : uint8_t { kTensors, kDevice, kGenerator };

struct ArgumentTraits {
  uint32_t position;
  ArgumentKind kind;
  bool written;
  bool any_device;  // the operator itself takes CPU tensors here
};

/// What the fallback has to know of an operator: the arguments that it has to look at.
struct OperatorTraits {
  std::vector<ArgumentTraits> arguments;
  bool writes_arguments;
  bool is_collective;  // returns a work object that goes on when the call has returned
  bool work_grows_faster_than_data;
};

/// Whether the number of an operator's elements says little about its work. By its name with the namespace.
bool work_grows_faster_than_data(std::string_view name);

OperatorTraits make_traits(const c10::FunctionSchema& schema);

/// The traits of one of PyTorch's own operators, worked out once per thread. Their schemas live as long as
/// the process; those of other libraries come and go, and a new one may have the address of an old one.
const OperatorTraits& traits_of_builtin(const c10::FunctionSchema& schema);

bool is_builtin(const c10::FunctionSchema& schema);

}  // namespace quillon::host_device

// How the module functions' integers are taken from Python and shown in their signatures.
#pragma once

#include <pybind11/pybind11.h>

#include <cstdint>

namespace quillon {

// An integer argument of a module function: accepts what pybind11 accepts for a 64-bit integer, and is shown as "int".
struct PythonInteger {
  std::int64_t value;
  operator std::int64_t() const { return value; }
};

// The type by which a module function takes an argument of a body.
template <typename Argument>
struct PythonArgument {
  using type = Argument;
};
template <>
struct PythonArgument<std::int64_t> {
  using type = PythonInteger;
};

}  // namespace quillon

namespace pybind11::detail {

template <>
struct type_caster<quillon::PythonInteger> {
  PYBIND11_TYPE_CASTER(quillon::PythonInteger, const_name("int"));
  bool load(handle source, bool convert) {
    make_caster<std::int64_t> integer;
    if (!integer.load(source, convert)) return false;
    value.value = cast_op<std::int64_t>(integer);
    return true;
  }
};

}  // namespace pybind11::detail

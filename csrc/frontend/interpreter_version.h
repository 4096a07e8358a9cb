// Which interpreter the module accepts: the one of the Python version it was built for. Free of Python headers beyond
// the version macros, so that the rule can be tested with any version text.
#pragma once

#include <cstring>
#include <string>

namespace quillon {

// True when `interpreter` ("3.11.7 (main, ...)") starts with `built_for` ("3.11") and no further digit follows:
// 3.11.7 passes, 3.110 would not.
inline bool interpreter_matches(const char* built_for, const char* interpreter) {
  const std::size_t length = std::strlen(built_for);
  if (std::strncmp(interpreter, built_for, length) != 0) return false;
  const char next = interpreter[length];
  return next < '0' || next > '9';
}

inline std::string interpreter_mismatch_message(const char* built_for, const char* interpreter) {
  return std::string("Python version mismatch: module was compiled for Python ") + built_for +
         ", but the interpreter version is incompatible: " + interpreter + ".";
}

}  // namespace quillon

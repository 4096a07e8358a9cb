// How device text is handed to the run-time compiler: the text of one build and its options. Free of torch, so that
// the offline GPU compile (tools/) builds exactly what the library builds.
#pragma once

#include <sycl/version.hpp>

#include <string>
#include <vector>

#include "runtime/build_options.h"

namespace quillon::runtime {

inline std::vector<std::string> device_build_options(const std::vector<std::string>& of_kernel = {}) {
  std::vector<std::string> options = {
      "-I.",  // nested includes of virtual files are not found without it
      "-DQUILLON_DEVICE_SOURCE",
  };
  options.insert(options.end(), of_kernel.begin(), of_kernel.end());
#if __LIBSYCL_MAJOR_VERSION < 9
  // The device libraries of these runtimes are not in the pip packages; later ones refuse the option.
  options.push_back("-fno-sycl-device-lib=all");
#endif
  return options;
}

// A registered name without an instantiation crashes the compiler, so the text instantiates each kernel that is asked
// for. A name is written out in full: "qlinear_xpu_kernel_q4_0_2x16<float,16,32,2>".
inline std::string device_build_text(const std::string& header, const std::vector<std::string>& names) {
  std::string text = "#include \"" + header + "\"\n";
  for (const std::string& name : names) text += "template decltype(" + name + ") " + name + ";\n";
  return text;
}

}  // namespace quillon::runtime

// spirv_dump ROOT[:ROOT...] HEADER [OPTION...] NAME...
//
// Compiles the kernels NAME (instantiations of templates in HEADER, a path relative to a ROOT, as those of all its
// includes are) in one build of the SYCL runtime's own compiler, from the text and with the options that the library
// gives it, to which those of the kernel, which start with a dash, are added. Nothing is run. The runtime leaves the
// SPIR-V where SYCL_DUMP_IMAGES=1 and SYCL_DUMP_IMAGES_PREFIX, set by the caller, tell it to: one file for each group of
// kernels that ask the same of a device.
//
// The compile stops before the CPU device's code generation, whose SPIR-V input is what a GPU's would be.

#include <algorithm>
#include <exception>
#include <filesystem>
#include <fstream>
#include <iostream>
#include <iterator>
#include <sstream>
#include <string>
#include <vector>

#include <sycl/context.hpp>
#include <sycl/device.hpp>
#include <sycl/device_selector.hpp>
#include <sycl/kernel_bundle.hpp>

#include "runtime/device_build.h"

namespace {

namespace fs = std::filesystem;
namespace syclexp = sycl::ext::oneapi::experimental;

std::string read_text(const fs::path& path) {
  std::ifstream file(path, std::ios::binary);
  if (!file) throw std::runtime_error("cannot read " + path.string());
  return {std::istreambuf_iterator<char>(file), {}};
}

bool is_device_text(const fs::path& path) {
  return path.extension() == ".h" || path.extension() == ".inc";
}

// Every header below the roots as a virtual file: what the build does not include costs nothing.
syclexp::include_files headers_below(const std::string& roots) {
  syclexp::include_files files;
  std::istringstream all(roots);
  for (std::string root; std::getline(all, root, ':');) {
    for (const auto& entry : fs::recursive_directory_iterator(root)) {
      if (entry.is_regular_file() && is_device_text(entry.path()))
        files.add(fs::relative(entry.path(), root).generic_string(), read_text(entry.path()));
    }
  }
  return files;
}

}  // namespace

int main(int argc, char** argv) {
  if (argc < 4) {
    std::cerr << "usage: spirv_dump ROOT[:ROOT...] HEADER [OPTION...] NAME...\n";
    return 2;
  }
  const std::string roots = argv[1];
  const std::string header = argv[2];
  char** const first_name = std::find_if(argv + 3, argv + argc, [](const char* word) { return word[0] != '-'; });
  const std::vector<std::string> options(argv + 3, first_name);
  const std::vector<std::string> names(first_name, argv + argc);
  std::string log;
  try {
    const sycl::device device{sycl::cpu_selector_v};
    const sycl::context context{device};
    auto source = syclexp::create_kernel_bundle_from_source(context, syclexp::source_language::sycl,
                                                            quillon::runtime::device_build_text(header, names),
                                                            syclexp::properties{headers_below(roots)});
    syclexp::compile(source, {device},
                     syclexp::properties{syclexp::registered_names{names},
                                         syclexp::build_options{quillon::runtime::device_build_options(options)},
                                         syclexp::save_log{&log}});
  } catch (const std::exception& error) {
    std::cerr << error.what() << '\n' << log;
    return 1;
  }
  return 0;
}

// Builds a kernel of a test as the library builds its own, and runs it on the SYCL CPU device.

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <exception>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <string>

#include <sycl/device_selector.hpp>
#include <sycl/ext/oneapi/get_kernel_info.hpp>
#include <sycl/kernel_bundle.hpp>
#include <sycl/queue.hpp>
#include <sycl/usm.hpp>

#include "runtime/device_build.h"

namespace fs = std::filesystem;
namespace syclexp = sycl::ext::oneapi::experimental;

namespace {

void add_headers(syclexp::include_files& files, const fs::path& root) {
  for (const auto& entry : fs::recursive_directory_iterator(root)) {
    if (!entry.is_regular_file() || entry.path().extension() != ".h") continue;
    std::ifstream file(entry.path(), std::ios::binary);
    files.add(fs::relative(entry.path(), root).generic_string(),
              std::string{std::istreambuf_iterator<char>(file), std::istreambuf_iterator<char>()});
  }
}

}  // namespace

// Runs `name` of `header` in the form of vectors over two arrays of bytes, in `items` work-groups of one
// work-item; headers are those below two folders. Returns 0, or 1 with what went wrong in `message`.
extern "C" int run_kernel(const char* sources, const char* tests, const char* header, const char* name,
                          const std::uint8_t* input, std::size_t input_bytes, std::uint8_t* output,
                          std::size_t output_bytes, std::size_t items, char* message, std::size_t message_bytes) {
  std::string log;
  try {
    sycl::queue queue{sycl::cpu_selector_v};
    syclexp::include_files files;
    add_headers(files, sources);
    add_headers(files, tests);
    auto source = syclexp::create_kernel_bundle_from_source(queue.get_context(), syclexp::source_language::sycl,
                                                            quillon::runtime::device_build_text(header, {name}),
                                                            syclexp::properties{files});
    auto executable = syclexp::build(
        source, {queue.get_device()},
        syclexp::properties{
            syclexp::registered_names{name},
            syclexp::build_options{quillon::runtime::device_build_options({quillon::runtime::kVectorBacking})},
            syclexp::save_log{&log}});
    auto* from = sycl::aligned_alloc_shared<std::uint8_t>(256, input_bytes, queue);
    auto* to = sycl::aligned_alloc_shared<std::uint8_t>(256, output_bytes, queue);
    std::memcpy(from, input, input_bytes);
    std::memcpy(to, output, output_bytes);
    queue
        .submit([&](sycl::handler& handler) {
          handler.set_args(static_cast<const std::uint8_t*>(from), to);
          handler.parallel_for(sycl::nd_range<2>({items, 1}, {1, 1}), executable.ext_oneapi_get_kernel(name));
        })
        .wait_and_throw();
    std::memcpy(output, to, output_bytes);
    sycl::free(from, queue);
    sycl::free(to, queue);
    return 0;
  } catch (const std::exception& error) {
    const std::string text = error.what() + ("\n" + log);
    std::strncpy(message, text.c_str(), message_bytes - 1);
    message[message_bytes - 1] = '\0';
    return 1;
  }
}

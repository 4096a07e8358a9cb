# Finds the installed PyTorch without its own CMake package, which drags in optional tools this build has no use for.
# Defines: target quillon::torch (headers, libc10, libtorch_cpu), target quillon::torch_python, TORCH_LIB_DIR,
# TORCH_VERSION, TORCH_HAS_XPU, and SYCL_COMPILER_VERSION_VALUE (one value for every unit: c10's DeviceProp layout depends on it).
execute_process(
  COMMAND
    "${CMAKE_COMMAND}" -E env TORCH_DEVICE_BACKEND_AUTOLOAD=0 "${Python_EXECUTABLE}" -c
    "import torch, pathlib; print(pathlib.Path(torch.__file__).parent, torch.__version__, torch.version.xpu or '', sep=';')"
  OUTPUT_VARIABLE torch_facts OUTPUT_STRIP_TRAILING_WHITESPACE RESULT_VARIABLE torch_failed)
if(torch_failed)
  message(FATAL_ERROR "PyTorch is not importable by ${Python_EXECUTABLE}: pip install torch==2.13.0")
endif()
list(GET torch_facts 0 TORCH_DIR)
list(GET torch_facts 1 TORCH_VERSION)
string(REGEX REPLACE "[+].*" "" TORCH_VERSION "${TORCH_VERSION}")
list(GET torch_facts 2 torch_xpu_version)
set(TORCH_LIB_DIR "${TORCH_DIR}/lib")
set(TORCH_HAS_XPU OFF)
if(EXISTS "${TORCH_LIB_DIR}/libc10_xpu.so")
  set(TORCH_HAS_XPU ON)
endif()

add_library(quillon_torch INTERFACE)
add_library(quillon::torch ALIAS quillon_torch)
target_include_directories(quillon_torch SYSTEM INTERFACE "${TORCH_DIR}/include"
                                                          "${TORCH_DIR}/include/torch/csrc/api/include")
target_link_libraries(quillon_torch INTERFACE "${TORCH_LIB_DIR}/libc10.so" "${TORCH_LIB_DIR}/libtorch_cpu.so"
                                              "${TORCH_LIB_DIR}/libtorch.so")
add_library(quillon_torch_python INTERFACE)
add_library(quillon::torch_python ALIAS quillon_torch_python)
target_link_libraries(quillon_torch_python INTERFACE quillon::torch "${TORCH_LIB_DIR}/libtorch_python.so")

# The SYCL runtime comes from pip.
execute_process(COMMAND "${Python_EXECUTABLE}" "${CMAKE_SOURCE_DIR}/python/quillon/_sycl_runtime.py"
                OUTPUT_VARIABLE sycl_facts OUTPUT_STRIP_TRAILING_WHITESPACE ERROR_VARIABLE sycl_problem
                RESULT_VARIABLE sycl_failed)
if(sycl_failed)
  message(FATAL_ERROR "The SYCL runtime is not installed: pip install 'dpcpp-cpp-rt==2026.2.*'\n${sycl_problem}")
endif()
string(REPLACE "\n" ";" sycl_facts "${sycl_facts}")
list(GET sycl_facts 0 SYCL_INCLUDE_DIR)
list(GET sycl_facts 1 SYCL_LIBRARY)
get_filename_component(SYCL_LIB_DIR "${SYCL_LIBRARY}" DIRECTORY)
if(torch_xpu_version)
  set(SYCL_COMPILER_VERSION_VALUE "${torch_xpu_version}")
else()
  file(STRINGS "${SYCL_INCLUDE_DIR}/sycl/version.hpp" version_line REGEX "__SYCL_COMPILER_VERSION +[0-9]+")
  string(REGEX MATCH "[0-9]+" SYCL_COMPILER_VERSION_VALUE "${version_line}")
endif()
add_library(quillon_sycl INTERFACE)
add_library(quillon::sycl ALIAS quillon_sycl)
target_include_directories(quillon_sycl SYSTEM INTERFACE "${SYCL_INCLUDE_DIR}")
target_link_libraries(quillon_sycl INTERFACE "${SYCL_LIBRARY}")
target_compile_definitions(quillon_sycl INTERFACE "SYCL_COMPILER_VERSION=${SYCL_COMPILER_VERSION_VALUE}")

# oneDNN comes from pip as well; its library lies beside that of the SYCL runtime.
find_path(ONEDNN_INCLUDE_DIR oneapi/dnnl/dnnl_sycl.hpp HINTS "${SYCL_INCLUDE_DIR}" NO_DEFAULT_PATH)
find_file(ONEDNN_LIBRARY libdnnl.so HINTS "${SYCL_LIB_DIR}" NO_DEFAULT_PATH)
if(NOT ONEDNN_INCLUDE_DIR OR NOT ONEDNN_LIBRARY)
  message(FATAL_ERROR "oneDNN's headers are not installed: pip install 'onednn-devel==2026.1.*'")
endif()
add_library(quillon_onednn_headers INTERFACE)
add_library(quillon::onednn ALIAS quillon_onednn_headers)
target_include_directories(quillon_onednn_headers SYSTEM INTERFACE "${ONEDNN_INCLUDE_DIR}")
target_link_libraries(quillon_onednn_headers INTERFACE "${ONEDNN_LIBRARY}")

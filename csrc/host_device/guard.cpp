// The device guard of DeviceType::XPU: how PyTorch switches devices and streams and works with events.
//
// PyTorch's own XPUGuardImpl would do but for timed events: they need a queue extension that the CPU device
// lacks, or profiling on every queue, which costs each kernel launch about 40 percent. So here a timed event
// is a barrier on a profiling queue of its own that waits for a barrier on the recorded stream.
#include <c10/xpu/impl/XPUGuardImpl.h>

#include "host_device.h"

namespace quillon::host_device {
namespace {

using c10::Device;
using c10::DeviceIndex;
using c10::DeviceType;
using c10::Stream;
using c10::xpu::XPUStream;

struct Event {
  sycl::event event;
  bool timed;
};

sycl::queue& timing_queue() {
  static auto& queue = *new sycl::queue(c10::xpu::get_device_context(), c10::xpu::get_raw_device(0),
                                        sycl::property::queue::enable_profiling{});
  return queue;
}

class HostDeviceGuardImpl final : public c10::impl::DeviceGuardImplInterface {
 public:
  DeviceType type() const override { return DeviceType::XPU; }

  Device exchangeDevice(Device d) const override { return stock_.exchangeDevice(d); }
  Device getDevice() const override { return stock_.getDevice(); }
  void setDevice(Device d) const override { stock_.setDevice(d); }
  void uncheckedSetDevice(Device d) const noexcept override { stock_.uncheckedSetDevice(d); }
  DeviceIndex deviceCount() const noexcept override { return stock_.deviceCount(); }
  c10::DeviceCapability getDeviceCapability(Device d) const override { return stock_.getDeviceCapability(d); }

  Stream getStream(Device d) const override { return stock_.getStream(d); }
  Stream getDefaultStream(Device d) const override { return Stream(Stream::DEFAULT, d); }
  Stream getNewStream(Device d, int priority) const override { return stock_.getNewStream(d, priority); }
  Stream getStreamFromGlobalPool(Device d, bool is_high_priority) const override {
    return stock_.getStreamFromGlobalPool(d, is_high_priority);
  }
  Stream exchangeStream(Stream s) const override { return stock_.exchangeStream(s); }
  void* getStreamNativeHandle(const Stream s) const override { return stock_.getStreamNativeHandle(s); }
  bool queryStream(const Stream& stream) const override { return is_idle(stream.device_index(), stream.id()); }
  void synchronizeStream(const Stream& stream) const override { stock_.synchronizeStream(stream); }
  void synchronizeDevice(const DeviceIndex device) const override { stock_.synchronizeDevice(device); }
  void recordDataPtrOnStream(const c10::DataPtr& data, const Stream& stream) const override {
    stock_.recordDataPtrOnStream(data, stream);
  }

  void record(void** event, const Stream& stream, const DeviceIndex device, const c10::EventFlag flag) const override {
    TORCH_CHECK(device == -1 || device == stream.device_index(), "Event device index ", static_cast<int>(device),
                " does not match recording stream's device index ", static_cast<int>(stream.device_index()), ".");
    const bool timed = flag == c10::EventFlag::BACKEND_DEFAULT;
    sycl::event recorded = XPUStream(stream).queue().ext_oneapi_submit_barrier();
    if (timed) recorded = timing_queue().ext_oneapi_submit_barrier({recorded});
    delete static_cast<Event*>(*event);
    *event = new Event{std::move(recorded), timed};
  }

  void block(void* event, const Stream& stream) const override {
    if (event) XPUStream(stream).queue().ext_oneapi_submit_barrier({static_cast<Event*>(event)->event});
  }

  bool queryEvent(void* event) const override {
    return !event || static_cast<Event*>(event)->event.get_info<sycl::info::event::command_execution_status>() ==
                         sycl::info::event_command_status::complete;
  }

  void synchronizeEvent(void* event) const override {
    if (event) static_cast<Event*>(event)->event.wait_and_throw();
  }

  double elapsedTime(void* start, void* end, const DeviceIndex /*device*/) const override {
    TORCH_CHECK(start && end, "Both events must be recorded before calculating elapsed time.");
    return 1e-6 * (end_nanoseconds(end) - end_nanoseconds(start));
  }

  void destroyEvent(void* event, const DeviceIndex /*device*/) const noexcept override {
    // An event that outlives the SYCL runtime cannot be released any more.
    if (!is_shut_down()) delete static_cast<Event*>(event);
  }

 private:
  static double end_nanoseconds(void* event) {
    const Event& timed = *static_cast<Event*>(event);
    TORCH_CHECK(timed.timed, "Both events must be created with argument 'enable_timing=True'.");
    return static_cast<double>(timed.event.get_profiling_info<sycl::info::event_profiling::command_end>());
  }

  c10::xpu::impl::XPUGuardImpl stock_;
};

C10_REGISTER_GUARD_IMPL(XPU, HostDeviceGuardImpl)

}  // namespace
}  // namespace quillon::host_device

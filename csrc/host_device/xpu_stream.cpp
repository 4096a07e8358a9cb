// c10/xpu/XPUStream.h: streams are in-order SYCL queues, made when first asked for.
//
// A StreamId tells by itself which queue it is:
//   0                     the device's default queue
//   odd                   pool queue number id >> 1: priority slot * kStreamsPerPool + place in the pool
//   even and not 0        address of an external sycl::queue
// The CPU device knows no priorities: a stream remembers its priority, and all queues are equal.
#include <c10/xpu/XPUException.h>
#include <c10/xpu/XPUStream.h>

#include <algorithm>
#include <array>
#include <atomic>
#include <cstddef>
#include <mutex>
#include <optional>
#include <ostream>

#include "host_device.h"
#include "platform.h"

namespace quillon::host_device {
namespace {

constexpr int kStreamsPerPool = 32;
constexpr int kPriorities = c10::xpu::max_compile_time_stream_priorities;
constexpr int kLowestPriority = 1;  // slot 0; each slot above has the next lower, more urgent number
constexpr int kPoolQueues = kPriorities * kStreamsPerPool;
constexpr c10::StreamId kDefaultStream = 0;

// Which thread submits to a queue. The SYCL runtime's ext_oneapi_empty() costs a tenth of a wait for an idle queue, but
// looks at the last command without holding it: while another thread submits it reads what has been freed. So a thread
// asks only for a queue that no other thread has ever had.
class Submitter {
 public:
  /// The calling thread is about to submit.
  void enter() {
    const uintptr_t self = this_thread();
    uintptr_t found = thread_.load(std::memory_order_relaxed);
    while (found != self && found != kSeveral) {
      if (found & kAsking) found -= kAsking;  // until the other thread has its answer
      if (thread_.compare_exchange_weak(found, found == kNobody ? self : kSeveral)) return;
    }
  }

  /// What `ask` says, if no thread but the calling one submits; else nothing.
  template <typename Ask>
  std::optional<bool> ask_alone(Ask ask) {
    uintptr_t expected = this_thread();
    if (!thread_.compare_exchange_strong(expected, expected + kAsking)) return std::nullopt;
    const bool answer = ask();
    thread_.store(this_thread(), std::memory_order_release);
    return answer;
  }

 private:
  static constexpr uintptr_t kNobody = 0, kAsking = 1, kSeveral = 2;
  static uintptr_t this_thread() {
    static thread_local std::max_align_t place;
    return reinterpret_cast<uintptr_t>(&place);
  }
  std::atomic<uintptr_t> thread_{kNobody};
};

struct Queue {
  std::atomic<sycl::queue*> queue{nullptr};
  Submitter submitter;
};

struct DeviceQueues {
  Queue default_queue;
  std::array<Queue, kPoolQueues> pool{};
  std::array<std::atomic<uint32_t>, kPriorities> next_in_pool{};
};

// Never destroyed, and neither are the queues: the SYCL runtime may be gone by the time static objects are.
std::array<DeviceQueues, kMaxDevices>& all_queues() {
  static auto& queues = *new std::array<DeviceQueues, kMaxDevices>();
  return queues;
}

thread_local std::array<c10::StreamId, kMaxDevices> current_streams{};

bool is_pool_stream(c10::StreamId id) {
  return id & 1;
}
int pool_position(c10::StreamId id) {
  return static_cast<int>(id >> 1);
}

bool is_external(c10::StreamId id) {
  return id != kDefaultStream && !is_pool_stream(id);
}

Queue& queue_slot(c10::DeviceIndex device, c10::StreamId id) {
  DeviceQueues& queues = all_queues()[device];
  if (id == kDefaultStream) return queues.default_queue;
  TORCH_CHECK(pool_position(id) < kPoolQueues, "Stream id ", id, " names no stream of an XPU device.");
  return queues.pool[pool_position(id)];
}

sycl::queue& get_queue(c10::DeviceIndex device, c10::StreamId id) {
  check_not_forked();
  if (is_external(id)) return *reinterpret_cast<sycl::queue*>(id);
  Queue& slot = queue_slot(device, id);
  slot.submitter.enter();
  if (sycl::queue* queue = slot.queue.load(std::memory_order_acquire)) return *queue;
  static std::mutex& creation = *new std::mutex();
  std::lock_guard<std::mutex> lock(creation);
  if (!slot.queue.load(std::memory_order_relaxed)) {
    Platform& sycl_platform = platform();
    slot.queue.store(new sycl::queue(sycl_platform.context, sycl_platform.device, c10::xpu::asyncHandler,
                                     sycl::property::queue::in_order{}),
                     std::memory_order_release);
  }
  return *slot.queue.load(std::memory_order_relaxed);
}

bool is_complete(const sycl::event& event) {
  return event.get_info<sycl::info::event::command_execution_status>() == sycl::info::event_command_status::complete;
}

void wait_unless_idle(Queue& slot) {
  sycl::queue* queue = slot.queue.load(std::memory_order_acquire);
  if (!queue) return;  // never used
  if (!slot.submitter.ask_alone([&] { return queue->ext_oneapi_empty(); }).value_or(false)) queue->wait_and_throw();
}

}  // namespace

void wait_for_stream(c10::DeviceIndex device, c10::StreamId stream) {
  check_not_forked();
  if (is_external(stream)) {
    reinterpret_cast<sycl::queue*>(stream)->wait_and_throw();
  } else {
    wait_unless_idle(queue_slot(device, stream));
  }
}

bool is_idle(c10::DeviceIndex device, c10::StreamId stream) {
  check_not_forked();
  const auto is_done = [](sycl::queue& queue) {
    const std::optional<sycl::event> last = queue.ext_oneapi_get_last_event();
    return !last || is_complete(*last);
  };
  if (is_external(stream)) return is_done(*reinterpret_cast<sycl::queue*>(stream));
  Queue& slot = queue_slot(device, stream);
  sycl::queue* queue = slot.queue.load(std::memory_order_acquire);
  if (!queue) return true;
  const auto alone = slot.submitter.ask_alone([&] { return queue->ext_oneapi_empty(); });
  return alone ? *alone : is_done(*queue);
}

void wait_for_current_stream(c10::DeviceIndex device) {
  wait_for_stream(device, current_streams[device]);
}

void synchronize_all_devices() {
  for (c10::DeviceIndex device = 0; device < c10::xpu::device_count(); ++device) {
    c10::xpu::syncStreamsOnDevice(device);
  }
}

}  // namespace quillon::host_device

namespace c10::xpu {
namespace {

using namespace quillon::host_device;

DeviceIndex index_or_current(DeviceIndex device) {
  if (device == -1) return current_device();
  check_device_index(device);
  return device;
}

XPUStream make_stream(DeviceIndex device, StreamId id) {
  return XPUStream(XPUStream::UNCHECKED, Stream(Stream::UNSAFE, Device(DeviceType::XPU, device), id));
}

}  // namespace

int XPUStream::priority() const {
  const StreamId stream = id();
  if (!is_pool_stream(stream)) return 0;
  return kLowestPriority - pool_position(stream) / kStreamsPerPool;
}

sycl::queue& XPUStream::queue() const {
  return get_queue(device_index(), id());
}

XPUStream getStreamFromPool(const int priority, DeviceIndex device) {
  device = index_or_current(device);
  const auto [lowest, highest] = XPUStream::priority_range();
  const int slot = lowest - std::clamp(priority, highest, lowest);
  const uint32_t turn = all_queues()[device].next_in_pool[slot].fetch_add(1) % kStreamsPerPool;
  return make_stream(device, static_cast<StreamId>(slot * kStreamsPerPool + turn) << 1 | 1);
}

XPUStream getStreamFromPool(const bool isHighPriority, DeviceIndex device) {
  return getStreamFromPool(isHighPriority ? std::get<1>(XPUStream::priority_range()) : 0, device);
}

XPUStream getStreamFromExternal(sycl::queue* ext_queue, DeviceIndex device_index) {
  TORCH_CHECK(ext_queue, "External sycl::queue* must not be a nullptr.");
  TORCH_CHECK(ext_queue->is_in_order(), "External SYCL queue must be in-order.");
  return make_stream(index_or_current(device_index), reinterpret_cast<StreamId>(ext_queue));
}

XPUStream getCurrentXPUStream(DeviceIndex device) {
  device = index_or_current(device);
  return make_stream(device, current_streams[device]);
}

void setCurrentXPUStream(XPUStream stream) {
  check_device_index(stream.device_index());
  current_streams[stream.device_index()] = stream.id();
}

std::ostream& operator<<(std::ostream& stream, const XPUStream& s) {
  return stream << s.unwrap();
}

void syncStreamsOnDevice(DeviceIndex device) {
  device = index_or_current(device);
  check_not_forked();
  DeviceQueues& queues = all_queues()[device];
  wait_unless_idle(queues.default_queue);
  for (Queue& queue : queues.pool) wait_unless_idle(queue);
}

}  // namespace c10::xpu
